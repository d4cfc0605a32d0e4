// Shared test helpers: fresh threads for clean per-thread state, temporary
// working directories, log capture.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace ravik::test {

// Runs fn on a new thread, so it starts with no per-thread blocks, and waits.
void on_fresh_thread(const std::function<void()> &fn);

// Makes a temporary directory and changes into it; goes back and removes it
// on destruction.
class temp_cwd {
  public:
    temp_cwd();
    ~temp_cwd();
    const std::string &path() const { return path_; }

  private:
    std::string path_;
    std::string old_;
};

std::string read_file(const std::string &path);
// The first of `parts` not found in `text` after the one before it; "" when
// all are there in that order.
std::string missing_in_order(const std::string &text, const std::vector<std::string> &parts);
// Some line holds `text` anywhere.
bool any_holds(const std::vector<std::string> &lines, const std::string &text);
// The text of the thread's current and previous log rings; "" if none.
std::string current_log();
std::string previous_log();
bool file_exists(const std::string &path);

// Collects the lines a device callback receives.
struct event_log {
    std::vector<std::string> lines;
    std::vector<int> events;
    std::vector<std::string> free_names;
};
int32_t record_events(int32_t event, void *payload, void *context);

// Ends the thread's session on every road out of a test, so nothing hangs
// off the per-thread blocks when the thread ends.
struct end_of_session {
    ~end_of_session();
};

// on_fresh_thread with the session ended before the thread ends.
void in_session(const std::function<void()> &fn);

// A session on a fresh thread with the device open on a fresh scripted line.
class fake_platform;
void with_open_device(const std::function<void(fake_platform &)> &body);

// Subscribes to the thread's log for its lifetime; keeps each line without
// its "[%7.3f] " stamp.
class log_capture {
  public:
    log_capture();
    ~log_capture();
    log_capture(const log_capture &) = delete;
    log_capture &operator=(const log_capture &) = delete;
    std::vector<std::string> lines;
    bool has(const std::string &line) const { return count(line) > 0; }
    int count(const std::string &line) const;
    // Some line holds `text` anywhere.
    bool contains(const std::string &text) const;

  private:
    static void on_line(const char *line, void *context);
};

} // namespace ravik::test
