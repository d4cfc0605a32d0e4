// Fresh threads for clean per-thread state, sessions, working directories, logs.
#pragma once

#include <algorithm>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "core/alloc.h"

namespace ravik::test {

// Runs fn on a new thread, so it starts with no per-thread blocks, and waits.
void on_fresh_thread(const std::function<void()> &fn);
// The same, with the session ended on every road out of fn.
void in_session(const std::function<void()> &fn);
struct end_of_session {
    ~end_of_session();
};
// A session with the device open on a fresh scripted line.
class fake_platform;
void with_open_device(const std::function<void(fake_platform &)> &body);

// fn() with the n-th allocation from here on failing.
template <typename F> auto failing_nth(uint64_t n, F fn)
{
    mem_fail_nth(n);
    auto r = fn();
    mem_fail_nth(0);
    return r;
}

// A temporary directory as the working directory, removed on destruction.
struct temp_cwd {
    temp_cwd();
    ~temp_cwd();
    const std::string &path() const { return path_; }
    std::string path_, old_;
};

inline std::string read_file(const std::string &path)
{
    std::stringstream ss;
    ss << std::ifstream(path, std::ios::binary).rdbuf();
    return ss.str();
}
inline bool file_exists(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}
// The first of `parts` not in `text` after the one before it; "" when none.
inline std::string missing_in_order(const std::string &text, const std::vector<std::string> &parts)
{
    size_t at = 0;
    for (auto &p : parts)
        if ((at = text.find(p, at)) == std::string::npos)
            return p;
    return "";
}
inline bool any_holds(const std::vector<std::string> &lines, const std::string &text)
{
    return std::any_of(lines.begin(), lines.end(), [&](auto &l) { return l.find(text) != std::string::npos; });
}
// The text of the thread's current and previous log rings; "" if none.
std::string current_log();
std::string previous_log();

struct event_log { // what a device subscriber hears
    std::vector<std::string> lines, free_names;
    std::vector<int> events;
};
int32_t record_events(int32_t event, void *payload, void *context);

// The thread's log lines while it lives, each without its "[%7.3f] " stamp.
struct log_capture {
    log_capture();
    ~log_capture();
    log_capture(const log_capture &) = delete;
    std::vector<std::string> lines;
    bool has(const std::string &line) const { return count(line) > 0; }
    int count(const std::string &line) const { return (int)std::count(lines.begin(), lines.end(), line); }
};

} // namespace ravik::test
