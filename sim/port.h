// The target's end of the serial line: a pty master behind a stable symlink.
#pragma once

#include <map>
#include <string>

namespace ravik_sim {

class port {
  public:
    explicit port(std::string link);
    ~port();
    port(const port &) = delete;
    port &operator=(const port &) = delete;

    // Makes a fresh pty and points the link at it; a pty already there is
    // replaced only after the link has moved, so the link never dangles.
    void plug();
    // After the host closed: a fresh pty under the link, unless a host got
    // into the old one before the link moved, which then stays.
    void replug();
    // Closes the pty and removes the link: the port is gone.
    void unplug();
    bool plugged() const { return master_ >= 0; }
    // Takes in the opens and closes of the slave seen so far.
    void pump();
    // True while some process holds the other end open.
    bool host_present();
    // True once the host has closed since the last replug; read it after pump.
    bool host_left() { return stats_[watch_].left; }
    int fd() const { return master_; }
    // Readable when the slave has been opened or closed.
    int events_fd() const { return notify_; }
    const std::string &link() const { return link_; }

  private:
    int make_pty(std::string &name);
    void point_link(const std::string &name);
    int watch(const std::string &name);
    void forget(int wd);
    struct slave_stats {
        int open_count = 0;
        bool left = false;
    };
    std::string link_;
    std::string name_;
    int master_ = -1;
    int notify_ = -1;
    int watch_ = -1;
    std::map<int, slave_stats> stats_; // by watch
};

} // namespace ravik_sim
