// A platform for tests: a virtual clock that sleeps and idle reads move on
// at once, and a scripted serial line.
#pragma once

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
    fake_platform(); // in force for the whole process until destroyed
    ~fake_platform();

    // The incoming side, in order; with nothing left a read is an idle second.
    void push_bytes(const std::string &bytes) { push({item::bytes, bytes, 0}); }
    void push_all(std::initializer_list<std::string> parts)
    {
        for (auto &p : parts)
            push_bytes(p);
    }
    void push_idle(int reads = 1)
    {
        for (int i = 0; i < reads; i++)
            push({item::idle, {}, 0});
    }
    void push_read_error(int err) { push({item::error, {}, err}); }
    void clear_script();

    double clock = 1700000000.0;     // virtual wall clock, seconds
    bool local_time_ok = true, open_fails = false;
    int open_calls = 0, close_calls = 0, read_calls = 0;
    std::string last_open_name;
    std::string written;             // everything the host wrote
    uint32_t write_cap = UINT32_MAX; // largest count one write takes
    std::deque<uint32_t> write_caps; // per-write caps, used first, one per write
    int write_error = 0;             // errno for every write when non-zero
    uint64_t slept_ms = 0;
    // Sees each write as taken, outside the lock: a far end may push_bytes.
    std::function<void(const std::string &)> on_write;

  private:
    struct item { enum { bytes, idle, error } kind; std::string data; int err; };
    void push(item it);
    std::deque<item> script_;
    std::mutex mu_;
    platform_ops ops_;
};

} // namespace ravik::test
