// A pseudo-terminal pair for tests of the real serial layer.
#pragma once

#include <string>

namespace ravik::test {

class pty_pair {
  public:
    pty_pair();   // master open, slave path ready
    ~pty_pair();
    int master() const { return master_; }
    const std::string &slave_path() const { return slave_; }
    void close_master();
    // Reads what is waiting on the master, waiting up to timeout_ms for it.
    std::string read_master(size_t max, int timeout_ms);
    void write_master(const std::string &bytes);

  private:
    int master_ = -1;
    std::string slave_;
};

} // namespace ravik::test
