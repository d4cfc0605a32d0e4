// A raw pseudo-terminal pair for tests of the real serial layer.
#pragma once

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <termios.h>
#include <unistd.h>

namespace ravik::test {

struct pty_pair {
    pty_pair() : master_(posix_openpt(O_RDWR | O_NOCTTY))
    {
        struct termios t;
        if (master_ < 0 || grantpt(master_) != 0 || unlockpt(master_) != 0 || tcgetattr(master_, &t) != 0)
            throw std::runtime_error("no pty");
        slave_ = ptsname(master_);
        cfmakeraw(&t);
        tcsetattr(master_, TCSANOW, &t);
    }
    ~pty_pair() { close_master(); }
    int master() const { return master_; }
    const std::string &slave_path() const { return slave_; }
    void close_master()
    {
        if (master_ >= 0)
            ::close(master_);
        master_ = -1;
    }
    // What comes on the master, waiting up to timeout_ms for the first byte.
    std::string read_master(size_t max, int timeout_ms)
    {
        std::string out;
        char buf[4096];
        struct pollfd p = {master_, POLLIN, 0};
        for (ssize_t n; out.size() < max && ::poll(&p, 1, timeout_ms) > 0 && (p.revents & POLLIN); timeout_ms = 50) {
            if ((n = ::read(master_, buf, std::min(sizeof(buf), max - out.size()))) <= 0)
                break;
            out.append(buf, (size_t)n);
        }
        return out;
    }
    int master_;
    std::string slave_;
};

} // namespace ravik::test
