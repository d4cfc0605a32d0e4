// A platform for tests: a virtual clock that sleeps and idle reads move on
// at once, and a scripted serial line.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <initializer_list>
#include <mutex>
#include <string>
#include <vector>

#include "platform/platform.h"

namespace ravik::test {

class fake_platform {
  public:
    // Installs itself for the whole process; the destructor puts back Linux.
    fake_platform();
    ~fake_platform();
    fake_platform(const fake_platform &) = delete;
    fake_platform &operator=(const fake_platform &) = delete;

    // Script of the incoming side, consumed in order. With the script empty,
    // a read is an idle second.
    void push_bytes(const std::string &bytes);
    void push_all(std::initializer_list<std::string> parts)
    {
        for (auto &p : parts)
            push_bytes(p);
    }
    void push_idle(int reads = 1);
    void push_read_error(int err);
    void clear_script();

    double clock = 1700000000.0;     // virtual wall clock, seconds
    bool local_time_ok = true;
    bool open_fails = false;
    int32_t next_handle = 5;
    int open_calls = 0;
    int close_calls = 0;
    int read_calls = 0;
    std::string last_open_name;
    std::string written;            // everything the host wrote
    uint32_t write_cap = UINT32_MAX; // largest count one write takes
    std::deque<uint32_t> write_caps; // per-write caps, used first, one per write
    int write_error = 0;            // errno for every write when non-zero
    uint64_t slept_ms = 0;
    // Sees every write as it was taken, outside the lock, so a far end can
    // answer what the host actually asked for with push_bytes.
    std::function<void(const std::string &)> on_write;

  private:
    struct item {
        enum { bytes, idle, error } kind;
        std::string data;
        int err;
    };
    std::deque<item> script_;
    std::mutex mu_;
    platform_ops ops_;

    static fake_platform *self;
    static int32_t s_open(const char *name);
    static void s_close(int32_t);
    static int32_t s_read(int32_t, void *, uint32_t, int *);
    static int32_t s_write(int32_t, const void *, uint32_t, int *);
    static void s_sleep(uint32_t ms);
    static double s_clock();
    static bool s_local_time(struct tm *out);
};

} // namespace ravik::test
