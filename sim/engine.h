// Inside the target: one thread that plays the boot ROM, then the programmer.
//
// The protocol code reads and writes the line in plain blocking style; the
// ways out of that style are exceptions: the host closing the port, the
// target being stopped, a reset, or a vanishing port.
#pragma once

#include "port.h"
#include "sim.h"
#include "storage.h"

#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace ravik_sim {

struct host_closed {};
struct halted {};
struct rebooting {
    bool come_back;
    const char *kind; // "reset" or "off"
    std::string why;
};
struct vanishing {};

// Little-endian fields of the wire.
inline uint32_t get32(const uint8_t *p)
{
    return (uint32_t)p[0] | (uint32_t)p[1] << 8 | (uint32_t)p[2] << 16 | (uint32_t)p[3] << 24;
}
inline uint64_t get64(const uint8_t *p) { return get32(p) | (uint64_t)get32(p + 4) << 32; }
inline void put32(uint8_t *p, uint32_t v)
{
    for (int i = 0; i < 4; i++)
        p[i] = (uint8_t)(v >> (8 * i));
}
inline void put64(uint8_t *p, uint64_t v)
{
    put32(p, (uint32_t)v);
    put32(p + 4, (uint32_t)(v >> 32));
}

// One command document of the host, taken apart.
struct command {
    std::string name;
    std::vector<std::pair<std::string, std::string>> attrs;
    const std::string *get(const std::string &key) const; // key case ignored
};
// Parses "<?xml ...?><data><name k="v" .../></data>". False if malformed.
bool parse_command(const std::string &doc, command &out);
std::string xml_escape(const std::string &s);

// Patch arithmetic: integers, NUM_DISK_SECTORS, CRC32(sector, bytes),
// + - * / and parentheses; a '.' right after a number is ignored.
struct expr_env {
    uint64_t disk_sectors = 0;
    std::function<bool(uint64_t sector, uint64_t bytes, uint32_t &crc)> crc;
};
bool eval_expr(const std::string &text, const expr_env &env, int64_t &out);

class engine {
  public:
    explicit engine(options o);
    ~engine();

    void start();
    void stop();

    options opt;
    transcript wire;
    port pty;
    storage store;

  private:
    void run();
    void power_on();
    void wait_host();
    void reconnect();

    // The line.
    size_t read_some(uint8_t *dst, size_t max); // buffered input first
    size_t read_line(uint8_t *dst, size_t max); // the pty only
    void read_exact(void *dst, size_t n);
    size_t fill();
    void write_all(const void *data, size_t n);
    void sleep_ms(int ms);
    void check_vanish(phase at);
    void discard_input();
    void let_host_read();

    // Boot ROM (bootrom.cpp).
    void boot_rom();
    bool load_image();
    void send_packet(const uint8_t *p, const char *what);
    void end_image(uint32_t status);
    std::vector<uint8_t> exec_payload(uint32_t cmd, bool &known);

    // Programmer (programmer.cpp).
    void programmer();
    void serve();
    bool next_document(std::string &doc);
    void answer(const std::vector<std::string> &logs, bool ack,
                const std::vector<std::pair<std::string, std::string>> &attrs = {});
    void send_document(const std::string &body);
    void send_text(const std::string &text);
    void nak(const std::string &why) { answer({why}, false); }
    bool storage_args(const command &c, unsigned &lun, uint64_t &start, uint64_t &count,
                      bool need_count);
    void do_configure(const command &c);
    void do_getvar(const command &c);
    void do_storage_info(const command &c);
    void do_program(const command &c);
    void do_read(const command &c);
    void do_dump(const command &c);
    void do_patch(const command &c);
    void do_setbootable(const command &c);
    void do_ufs(const command &c);
    void do_power(const command &c);

    std::thread thread_;
    std::atomic<bool> stopping_{false};
    int wake_[2] = {-1, -1};
    std::vector<uint8_t> in_;
    size_t in_pos_ = 0;
    phase vanished_ = phase::none; // the one vanish fault, once done
    int vanish_passed_ = 0;

    // Programmer state, lost at every reset.
    bool configured_ = false;
    uint32_t payload_ = 0;
    int bootable_ = -1;
    std::vector<std::vector<std::pair<std::string, std::string>>> ufs_staged_;
    std::map<std::string, int> fault_seen_;

    // UFS provisioning, kept over resets: what the device holds, and what
    // a commit has made to take effect at the next reset.
    std::vector<std::vector<std::pair<std::string, std::string>>> ufs_provisioned_;
    std::vector<std::vector<std::pair<std::string, std::string>>> ufs_pending_;
    bool ufs_pending_set_ = false;
};

} // namespace ravik_sim
