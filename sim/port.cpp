#include "port.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <sys/inotify.h>
#include <termios.h>
#include <unistd.h>

namespace ravik_sim {

namespace {

[[noreturn]] void fail(const std::string &what)
{
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

} // namespace

port::port(std::string link) : link_(std::move(link)) {}

port::~port()
{
    unplug();
    if (notify_ >= 0)
        ::close(notify_);
}

// The host's opens and closes of the slave come as file events: unlike the
// master's hang-up state they are not lost when a host closes and opens
// again at once.
int port::watch(const std::string &name)
{
    if (notify_ < 0) {
        notify_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        if (notify_ < 0)
            fail("inotify_init1");
    }
    int wd = ::inotify_add_watch(notify_, name.c_str(), IN_OPEN | IN_CLOSE);
    if (wd < 0)
        fail("inotify_add_watch " + name);
    stats_[wd] = slave_stats{};
    return wd;
}

void port::pump()
{
    if (notify_ < 0)
        return;
    alignas(struct inotify_event) char buf[4096];
    for (;;) {
        ssize_t n = ::read(notify_, buf, sizeof buf);
        if (n <= 0)
            return;
        for (char *p = buf; p < buf + n;) {
            auto *e = reinterpret_cast<struct inotify_event *>(p);
            auto it = stats_.find(e->wd);
            if (it != stats_.end()) {
                if (e->mask & IN_OPEN)
                    it->second.open_count++;
                if (e->mask & IN_CLOSE) {
                    it->second.open_count--;
                    it->second.left = true;
                }
            }
            p += sizeof(struct inotify_event) + e->len;
        }
    }
}

void port::forget(int wd)
{
    if (wd < 0)
        return;
    ::inotify_rm_watch(notify_, wd);
    stats_.erase(wd);
}

int port::make_pty(std::string &name)
{
    int m = ::posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (m < 0)
        fail("posix_openpt");
    char buf[128];
    if (::grantpt(m) != 0 || ::unlockpt(m) != 0 || ::ptsname_r(m, buf, sizeof buf) != 0) {
        ::close(m);
        fail("pty setup");
    }
    name = buf;
    // Termios set on the master apply to the slave, and they outlast the
    // host's opens and closes: the line is raw before the host sees it, so
    // nothing the target sends is echoed or held back for a line end.
    struct termios t;
    if (::tcgetattr(m, &t) != 0) {
        ::close(m);
        fail("tcgetattr");
    }
    ::cfmakeraw(&t);
    if (::tcsetattr(m, TCSANOW, &t) != 0) {
        ::close(m);
        fail("tcsetattr");
    }
    return m;
}

void port::point_link(const std::string &name)
{
    std::string tmp = link_ + ".new";
    ::unlink(tmp.c_str());
    if (::symlink(name.c_str(), tmp.c_str()) != 0)
        fail("symlink " + tmp);
    if (::rename(tmp.c_str(), link_.c_str()) != 0) {
        ::unlink(tmp.c_str());
        fail("rename " + link_);
    }
}

void port::plug()
{
    std::string name;
    int m = make_pty(name);
    int wd = -1;
    try {
        wd = watch(name);
        point_link(name);
    } catch (...) {
        forget(wd);
        ::close(m);
        throw;
    }
    if (master_ >= 0)
        ::close(master_);
    forget(watch_);
    master_ = m;
    name_ = name;
    watch_ = wd;
}

void port::replug()
{
    // A fresh pty for every session of the host: the old one may carry the
    // host's exclusive flag, which would keep an unprivileged host out.
    pump();
    if (master_ >= 0 && stats_[watch_].open_count > 0) {
        // A quick host is back on the old pty already: it stays.
        stats_[watch_].left = false;
        ::tcflush(master_, TCOFLUSH);
        return;
    }
    const int old = master_, old_wd = watch_;
    const std::string old_name = name_;
    master_ = -1;
    watch_ = -1;
    plug();
    // Between the last look and the move of the link a host may still have
    // opened the old pty; its events tell.
    pump();
    if (old >= 0 && stats_[old_wd].open_count > 0) {
        point_link(old_name);
        ::close(master_);
        forget(watch_);
        master_ = old;
        watch_ = old_wd;
        name_ = old_name;
        stats_[watch_].left = false;
        ::tcflush(old, TCOFLUSH);
        return;
    }
    if (old >= 0)
        ::close(old);
    forget(old_wd);
}

void port::unplug()
{
    if (master_ < 0)
        return;
    ::unlink(link_.c_str());
    ::close(master_);
    master_ = -1;
    forget(watch_);
    watch_ = -1;
}

bool port::host_present()
{
    pump();
    return master_ >= 0 && stats_[watch_].open_count > 0;
}

} // namespace ravik_sim
