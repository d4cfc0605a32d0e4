// Plain pty I/O for the benchmarks: whole writes and reads on non-blocking
// descriptors, and a bare-handed host that brings the simulator's
// programmer up, so the simulator can be timed without the library.
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <termios.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "sim.h"

namespace pty_host {

[[noreturn]] inline void die(const char *what)
{
    std::fprintf(stderr, "bench: %s\n", what);
    std::exit(1);
}

inline void write_all(int fd, const void *data, size_t n)
{
    const char *p = static_cast<const char *>(data);
    while (n > 0) {
        ssize_t w = ::write(fd, p, n);
        if (w > 0) {
            p += w;
            n -= (size_t)w;
        } else if (w < 0 && (errno == EAGAIN || errno == EINTR)) {
            struct pollfd q = {fd, POLLOUT, 0};
            ::poll(&q, 1, 1000);
        } else {
            die("write");
        }
    }
}

// The plain writer at its best: blocking writes, where the kernel waits for
// room itself, one call per piece.
inline void write_blocking(int fd, const void *data, size_t n)
{
    int flags = ::fcntl(fd, F_GETFL);
    ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
    write_all(fd, data, n);
    ::fcntl(fd, F_SETFL, flags);
}

inline size_t read_some(int fd, void *dst, size_t n)
{
    for (;;) {
        ssize_t r = ::read(fd, dst, n);
        if (r > 0)
            return (size_t)r;
        if (r < 0 && errno != EAGAIN && errno != EINTR)
            die("read");
        struct pollfd q = {fd, POLLIN, 0};
        if (::poll(&q, 1, 5000) <= 0)
            die("read timed out");
    }
}

inline void read_all(int fd, void *dst, size_t n)
{
    char *p = static_cast<char *>(dst);
    while (n > 0) {
        size_t r = read_some(fd, p, n);
        p += r;
        n -= r;
    }
}

inline void make_raw(int fd)
{
    struct termios t;
    ::tcgetattr(fd, &t);
    ::cfmakeraw(&t);
    ::tcsetattr(fd, TCSANOW, &t);
}

// A bare pty in raw mode, both ends non-blocking: {master, slave}.
inline std::pair<int, int> open_pty_pair()
{
    int m = ::posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK);
    if (m < 0 || ::grantpt(m) || ::unlockpt(m))
        die("pty");
    make_raw(m);
    int s = ::open(::ptsname(m), O_RDWR | O_NOCTTY | O_NONBLOCK);
    if (s < 0)
        die("pty slave");
    make_raw(s);
    return {m, s};
}

struct link_host {
    int fd = -1;
    std::string pending;

    explicit link_host(const std::string &path)
    {
        fd = ::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
        if (fd < 0)
            die("open link");
        make_raw(fd);
    }
    ~link_host() { ::close(fd); }

    std::vector<uint8_t> packet()
    {
        std::vector<uint8_t> p(48);
        p.resize(read_some(fd, p.data(), p.size()));
        return p;
    }
    static uint32_t w(const std::vector<uint8_t> &p, size_t o)
    {
        uint32_t v;
        std::memcpy(&v, p.data() + o, 4);
        return v;
    }
    void send(std::initializer_list<uint32_t> words, size_t len)
    {
        std::vector<uint8_t> p(len, 0);
        size_t i = 0;
        for (uint32_t v : words)
            std::memcpy(&p[4 * i++], &v, 4);
        write_all(fd, p.data(), p.size());
    }
    std::string reply()
    {
        char buf[4096];
        for (;;) {
            size_t at = pending.find("<response");
            size_t end = at == std::string::npos ? at : pending.find("</data>", at);
            if (end != std::string::npos) {
                std::string r = pending.substr(0, end + 7);
                pending.erase(0, end + 7);
                return r;
            }
            pending.append(buf, read_some(fd, buf, sizeof buf));
        }
    }
    std::string command(const std::string &tag)
    {
        std::string doc = "<?xml version=\"1.0\"?><data><" + tag + "/></data>";
        write_all(fd, doc.data(), doc.size());
        return reply();
    }
};

// Sahara upload of the demo programmer, then configure for 1 MiB payloads.
inline void bring_up(link_host &h)
{
    auto image = ravik_sim::demo_programmer();
    h.packet(); // HELLO
    h.send({2, 48, 2, 2, 0, 0}, 48);
    for (;;) {
        auto p = h.packet();
        uint32_t cmd = link_host::w(p, 0);
        if (cmd == 4)
            break;
        uint64_t off = cmd == 3 ? link_host::w(p, 12) : link_host::w(p, 16);
        uint64_t n = cmd == 3 ? link_host::w(p, 16) : link_host::w(p, 24);
        write_all(h.fd, image.data() + off, n);
    }
    h.send({5, 8}, 8);
    h.packet(); // DONE_RESP
    if (h.command("configure MemoryName=\"eMMC\" MaxPayloadSizeToTargetInBytes=\"1048576\"")
            .find("value=\"ACK\"") == std::string::npos)
        die("configure refused");
}

} // namespace pty_host
