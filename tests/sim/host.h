// A scripted host for the simulator tests: it opens the target's link as a
// serial line and speaks Sahara and Firehose the way the far end expects,
// written here from the protocol and not taken from the library or the
// simulator.
#pragma once

#ifdef RAVIK_HAVE_SIM

#include "sim.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace simtest {

// Little-endian words of a Sahara packet.
std::vector<uint8_t> words(std::initializer_list<uint32_t> w, size_t pad_to = 0);
uint32_t word_at(const std::vector<uint8_t> &p, size_t off);

struct reply {
    bool complete = false;
    bool ack = false;
    std::vector<std::string> logs;
    std::map<std::string, std::string> response; // attributes of <response>
    std::string text;                            // everything up to the response's </data>
    bool has_log(const std::string &line) const
    {
        return std::find(logs.begin(), logs.end(), line) != logs.end();
    }
};

class host {
  public:
    // Opens the link, waiting up to wait_ms for it to appear.
    explicit host(const std::string &link, int wait_ms = 3000);
    ~host();
    host(const host &) = delete;
    host &operator=(const host &) = delete;

    bool is_open() const { return fd_ >= 0; }
    void close();
    bool write(const void *data, size_t n);
    bool write(const std::vector<uint8_t> &v) { return write(v.data(), v.size()); }
    bool write(const std::string &s) { return write(s.data(), s.size()); }
    // One read of whatever is there (after the buffered bytes); empty on time-out.
    std::vector<uint8_t> read_once(size_t max, int timeout_ms);
    // Exactly n bytes or fewer on time-out / hang-up.
    std::vector<uint8_t> read_exact(size_t n, int timeout_ms);
    // True if the other end is gone (read reports EIO or hang-up).
    bool hung_up(int timeout_ms);
    int reads() const { return reads_; }

    // Firehose.
    bool send_command(const std::string &tag);
    reply read_reply(int timeout_ms = 3000);
    reply command(const std::string &tag, int timeout_ms = 3000);

  private:
    int fd_ = -1;
    int reads_ = 0;
    std::string pending_;
    size_t fill(int timeout_ms);
    std::vector<uint8_t> take(size_t max);
};

// Sahara sequences.
struct chip_facts {
    uint32_t serial = 0, hwid_word = 0, sbl = 0;
    std::vector<uint8_t> serial_payload;
};
// HELLO, HELLO_RESP for command mode, COMMAND_READY, then serial number,
// hardware id and SBL version.
bool greet(host &h, chip_facts &out, std::string &why);
// From command mode: switch to transfer, answer the new HELLO, serve the
// image until END_IMAGE_TX, then DONE and DONE_RESP. Returns the status of
// END_IMAGE_TX, or -1 on a protocol failure (why says what).
int upload(host &h, const std::vector<uint8_t> &image, std::string &why, bool from_command_mode = true);

// Raw phases.
bool program(host &h, const std::string &attrs, const std::vector<uint8_t> &data, reply &final);
std::vector<uint8_t> dump(host &h, const std::string &attrs, size_t bytes, uint32_t chunk);

// Starts a target in a fresh directory under /tmp, removed on destruction.
struct sandbox {
    explicit sandbox(ravik_sim::options o = {});
    ~sandbox();
    std::string dir;
    std::unique_ptr<ravik_sim::target> target;
    std::string file_bytes(unsigned lun, uint64_t pos, size_t n) const;
};

// A target in Firehose mode: greeted, the demo programmer uploaded.
::testing::AssertionResult bring_up(host &h);

} // namespace simtest

#endif
