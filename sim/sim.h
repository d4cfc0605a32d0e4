// ravik-sim: a simulated target in emergency download mode, on a
// pseudo-terminal. The boot ROM speaks Sahara, the programmer it loads speaks
// Firehose, and the storage behind it lives in sparse files.
//
// This engine is written from what the far end of the link must do; it
// shares no code with the host library, so that a misreading on either side
// shows up as a failure on the other.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace ravik_sim {

enum class storage_kind { emmc, ufs };

// Where a port can be made to vanish (fault injection).
enum class phase {
    none,
    on_open,          // the host has just opened the port, before HELLO
    command_mode,     // right after COMMAND_READY
    image_transfer,   // after the first chunk of the image arrived
    programmer_start, // right after DONE_RESP
    raw_in,           // halfway through the raw data of a program
    raw_out,          // halfway through the raw data of a dump
};

struct tag_fault {
    enum class kind { nak, silence, vanish };
    std::string tag;  // command name, case ignored
    kind what = kind::nak;
    int count = 1;    // the first count commands of that tag get the fault
    int skip = 0;     // ... after this many of them went through untouched
};

struct faults {
    std::vector<tag_fault> tags;
    size_t split = 0;          // answers go out in pieces of at most this size; 0: whole
    int split_pause_us = 300;  // pause between two pieces, so the host sees them apart
    std::string stray;         // bytes written in front of every answer document
    phase vanish_at = phase::none;
    int vanish_ms = 500;       // how long a vanished port stays away; < 0: for good
    int vanish_skip = 0;       // times vanish_at is passed by before the port goes
    int boot_delay_ms = 0;     // a powered-on target shows its port this late
    int hello_delay_ms = 0;    // time from the host's open to HELLO
    int programmer_start_ms = 0; // a started programmer ignores input this long
};

struct identity {
    uint32_t serial = 0x1A2B3C4D;
    uint32_t chip_id = 0x0BEE;  // 16 bits, in bits 12..27 of the hardware id word
    bool id_in_serial = false;  // the serial payload carries the chip id as second word
    uint32_t hwid_low = 0x0E1;  // low 12 bits of the hardware id word
    uint32_t oem_model = 0;     // first word of the hardware id payload
    uint32_t sbl_version = 0x00000003;
    std::vector<uint8_t> debug_data = {'s', 'i', 'm', '-', 'd', 'e', 'b', 'u', 'g'};
    std::string cpu_ver = "0x10";
    std::string cpu_vername = "rev-a";
    bool secure = false;
};

struct event {
    double time;      // seconds since the target was made
    std::string kind; // see transcript
    std::string text;
    uint64_t size = 0;
};

// What went over the wire, for tests to assert on. Kinds:
//   "power-on", "open", "close", "vanish", "reset", "off"
//   "sahara-tx", "sahara-rx"      text: packet name and fields
//   "read-data"                    text: offset, size: byte count served by the host
//   "image"                        text: "verified" or "mismatch" or "bad-elf"
//   "programmer-start"
//   "command"                      text: the document exactly as received
//   "raw-in", "raw-out"            size: bytes of a raw phase
//   "dump-request"                 size: the size the host asked for
//   "fault"                        text: what was injected
class transcript {
  public:
    transcript();
    ~transcript();
    void add(std::string kind, std::string text = {}, uint64_t size = 0);
    std::vector<event> events() const;
    std::vector<event> of_kind(const std::string &kind) const;
    // Command documents received, in order.
    std::vector<std::string> commands() const;
    // Waits until pred holds for the events so far; false after timeout_ms.
    bool wait_for(const std::function<bool(const std::vector<event> &)> &pred,
                  int timeout_ms) const;
    // Waits until at least n events of this kind were seen.
    bool wait_kind(const std::string &kind, size_t n, int timeout_ms) const;
    void on_add(std::function<void(const event &)> fn) const; // called on the engine thread

  private:
    struct state;
    std::unique_ptr<state> s_;
};

struct options {
    std::string link;        // stable symlink to the pty; empty: "ravik-sim" in the cwd
    std::string storage_dir; // where the LUN files live; created if missing
    storage_kind storage = storage_kind::emmc;
    unsigned luns = 0;       // 0: 1 for eMMC, 3 for UFS (at most 8)
    uint64_t lun_bytes = 0;  // 0: 64 MiB for eMMC, 16 MiB per UFS LUN
    std::string layout_file; // partition layout; see storage.h for the format
    std::string layout;      // the same as text; wins over layout_file
    identity id;
    std::vector<uint8_t> programmer; // the image the boot ROM accepts; empty: the demo one
    bool verify_programmer = true;
    uint32_t hello_mode = 0;         // mode reported in HELLO
    uint32_t sahara_chunk = 0x1000;  // bytes per READ_DATA request
    int read64 = -1;                 // READ_DATA_64: 1 always, 0 never, -1 for 64-bit ELF
    bool scramble_ranges = false;    // segments pulled back to front, the header twice
    uint32_t done_status = 1;        // status in DONE_RESP
    int info_wording = 0;            // 0, 1, 2: three wordings of storage facts
    uint32_t max_payload = 0x100000; // largest raw payload the programmer takes
    uint32_t max_payload_supported = 0; // reported on configure; 0: max_payload
    int reset_delay_ms = 100;        // after the power ACK, before the port goes
    int reboot_ms = 200;             // off time of a reset
    bool come_back = true;           // after "off" or "reset_to_fastboot" come back in emergency download mode
    faults fault;
};

class target {
  public:
    explicit target(options o);
    ~target(); // stops the target, removes the link; the storage files stay
    target(const target &) = delete;
    target &operator=(const target &) = delete;

    // Makes the storage and the first pty and starts the engine thread.
    // Throws std::runtime_error on failure.
    void start();
    void stop();

    const std::string &link() const;
    uint32_t sector_size() const;
    unsigned luns() const;
    uint64_t lun_bytes() const;
    std::string lun_path(unsigned lun) const;
    const transcript &wire() const;

  private:
    struct impl;
    std::unique_ptr<impl> p_;
};

// The demo programmer: a small valid ELF built the same way every time.
std::vector<uint8_t> demo_programmer();

} // namespace ravik_sim
