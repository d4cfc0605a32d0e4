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
bool file_exists(const std::string &path);

// Collects the lines a device callback receives.
struct event_log {
    std::vector<std::string> lines;
    std::vector<int> events;
    std::vector<std::string> free_names;
};
int32_t record_events(int32_t event, void *payload, void *context);

} // namespace ravik::test
