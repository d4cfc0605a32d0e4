#include "support/pty.h"

#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <termios.h>
#include <unistd.h>

namespace ravik::test {

pty_pair::pty_pair()
{
    master_ = posix_openpt(O_RDWR | O_NOCTTY);
    if (master_ < 0 || grantpt(master_) != 0 || unlockpt(master_) != 0)
        throw std::runtime_error("no pty");
    slave_ = ptsname(master_);
    struct termios t;
    tcgetattr(master_, &t);
    cfmakeraw(&t);
    tcsetattr(master_, TCSANOW, &t);
}

pty_pair::~pty_pair() { close_master(); }

void pty_pair::close_master()
{
    if (master_ >= 0)
        ::close(master_);
    master_ = -1;
}

std::string pty_pair::read_master(size_t max, int timeout_ms)
{
    std::string out;
    struct pollfd p = {master_, POLLIN, 0};
    while (out.size() < max && ::poll(&p, 1, timeout_ms) > 0 && (p.revents & POLLIN)) {
        char buf[4096];
        ssize_t n = ::read(master_, buf, std::min(sizeof(buf), max - out.size()));
        if (n <= 0)
            break;
        out.append(buf, (size_t)n);
        timeout_ms = 50;
    }
    return out;
}

void pty_pair::write_master(const std::string &bytes)
{
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::write(master_, bytes.data() + done, bytes.size() - done);
        if (n <= 0)
            throw std::runtime_error("pty write");
        done += (size_t)n;
    }
}

} // namespace ravik::test
