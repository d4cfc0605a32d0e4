#ifdef RAVIK_HAVE_SIM

#include "sim/host.h"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <termios.h>
#include <thread>
#include <unistd.h>

namespace simtest {

namespace {

using clock_type = std::chrono::steady_clock;

int ms_left(clock_type::time_point until)
{
    auto d = std::chrono::duration_cast<std::chrono::milliseconds>(until - clock_type::now());
    return d.count() < 0 ? 0 : (int)d.count();
}

// Attributes of the first tag named `tag` in `text`, from `from` on.
std::map<std::string, std::string> attributes(const std::string &text, size_t at)
{
    std::map<std::string, std::string> out;
    size_t end = text.find("/>", at);
    size_t i = text.find(' ', at);
    while (i != std::string::npos && i < end) {
        size_t eq = text.find('=', i);
        if (eq == std::string::npos || eq > end)
            break;
        size_t k = i;
        while (k < eq && text[k] == ' ')
            k++;
        std::string key = text.substr(k, eq - k);
        size_t q1 = text.find('"', eq);
        size_t q2 = text.find('"', q1 + 1);
        if (q1 == std::string::npos || q2 == std::string::npos)
            break;
        out[key] = text.substr(q1 + 1, q2 - q1 - 1);
        i = q2 + 1;
    }
    return out;
}

} // namespace

std::vector<uint8_t> words(std::initializer_list<uint32_t> w, size_t pad_to)
{
    std::vector<uint8_t> out;
    for (uint32_t v : w)
        for (int i = 0; i < 4; i++)
            out.push_back((uint8_t)(v >> (8 * i)));
    if (out.size() < pad_to)
        out.resize(pad_to, 0);
    return out;
}

uint32_t word_at(const std::vector<uint8_t> &p, size_t off)
{
    if (off + 4 > p.size())
        return 0;
    return (uint32_t)p[off] | (uint32_t)p[off + 1] << 8 | (uint32_t)p[off + 2] << 16 |
           (uint32_t)p[off + 3] << 24;
}

host::host(const std::string &link, int wait_ms)
{
    auto until = clock_type::now() + std::chrono::milliseconds(wait_ms);
    for (;;) {
        fd_ = ::open(link.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
        if (fd_ >= 0 || ms_left(until) == 0)
            break;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    if (fd_ < 0)
        return;
    struct termios t;
    if (::tcgetattr(fd_, &t) == 0) {
        ::cfmakeraw(&t);
        ::tcsetattr(fd_, TCSANOW, &t);
    }
}

host::~host() { close(); }

void host::close()
{
    if (fd_ >= 0)
        ::close(fd_);
    fd_ = -1;
    pending_.clear();
}

bool host::write(const void *data, size_t n)
{
    const uint8_t *p = static_cast<const uint8_t *>(data);
    auto until = clock_type::now() + std::chrono::seconds(5);
    while (n > 0) {
        ssize_t w = ::write(fd_, p, n);
        if (w > 0) {
            p += w;
            n -= (size_t)w;
            continue;
        }
        if (w < 0 && errno != EAGAIN && errno != EINTR)
            return false;
        struct pollfd q = {fd_, POLLOUT, 0};
        if (::poll(&q, 1, ms_left(until)) <= 0)
            return false;
    }
    return true;
}

size_t host::fill(int timeout_ms)
{
    char buf[65536];
    struct pollfd q = {fd_, POLLIN, 0};
    if (fd_ < 0 || ::poll(&q, 1, timeout_ms) <= 0)
        return 0;
    ssize_t n = ::read(fd_, buf, sizeof buf);
    if (n <= 0)
        return 0;
    reads_++;
    pending_.append(buf, (size_t)n);
    return (size_t)n;
}

std::vector<uint8_t> host::take(size_t max)
{
    size_t n = std::min(max, pending_.size());
    std::vector<uint8_t> out(pending_.begin(), pending_.begin() + (ptrdiff_t)n);
    pending_.erase(0, n);
    return out;
}

std::vector<uint8_t> host::read_once(size_t max, int timeout_ms)
{
    if (pending_.empty())
        fill(timeout_ms);
    return take(max);
}

std::vector<uint8_t> host::read_exact(size_t n, int timeout_ms)
{
    auto until = clock_type::now() + std::chrono::milliseconds(timeout_ms);
    while (pending_.size() < n)
        if (fill(ms_left(until)) == 0 && ms_left(until) == 0)
            break;
    return take(n);
}

bool host::hung_up(int timeout_ms)
{
    auto until = clock_type::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        struct pollfd q = {fd_, POLLIN, 0};
        ::poll(&q, 1, ms_left(until));
        if (q.revents & (POLLHUP | POLLERR))
            return true;
        if (q.revents & POLLIN) {
            char c[4096];
            ssize_t n = ::read(fd_, c, sizeof c);
            if (n < 0 && errno == EIO)
                return true;
        }
        if (ms_left(until) == 0)
            return false;
    }
}

bool host::send_command(const std::string &tag)
{
    std::string doc = "<?xml version=\"1.0\"?><data><" + tag + "/></data>";
    if (doc.size() % 512 == 0)
        doc += "\n";
    return write(doc);
}

reply host::read_reply(int timeout_ms)
{
    reply r;
    auto until = clock_type::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        size_t at = pending_.find("<response");
        size_t close = at == std::string::npos ? at : pending_.find("/>", at);
        size_t end = close == std::string::npos ? close : pending_.find("</data>", close);
        if (end != std::string::npos) {
            end += 7;
            r.text = pending_.substr(0, end);
            pending_.erase(0, end);
            r.complete = true;
            r.response = attributes(r.text, r.text.find("<response"));
            r.ack = r.response["value"] == "ACK";
            for (size_t l = r.text.find("<log "); l != std::string::npos;
                 l = r.text.find("<log ", l + 1))
                r.logs.push_back(attributes(r.text, l)["value"]);
            return r;
        }
        if (fill(ms_left(until)) == 0 && ms_left(until) == 0) {
            r.text = pending_;
            return r;
        }
    }
}

reply host::command(const std::string &tag, int timeout_ms)
{
    if (!send_command(tag))
        return {};
    return read_reply(timeout_ms);
}

bool greet(host &h, chip_facts &out, std::string &why)
{
    auto hello = h.read_once(48, 2000);
    if (hello.size() != 48 || word_at(hello, 0) != 1 || word_at(hello, 4) != 48) {
        why = "no HELLO";
        return false;
    }
    h.write(words({2, 48, 2, 2, 0, 3}, 48));
    auto ready = h.read_once(48, 2000);
    if (ready.size() != 8 || word_at(ready, 0) != 11) {
        why = "no COMMAND_READY";
        return false;
    }
    auto exec = [&](uint32_t cmd, std::vector<uint8_t> &payload) {
        h.write(words({13, 12, cmd}));
        auto resp = h.read_once(48, 2000);
        if (resp.size() != 16 || word_at(resp, 0) != 14 || word_at(resp, 8) != cmd) {
            why = "bad CMD_EXEC_RESP for " + std::to_string(cmd);
            return false;
        }
        uint32_t len = word_at(resp, 12);
        if (len == 0)
            return true;
        h.write(words({15, 12, cmd}));
        payload = h.read_exact(len, 2000);
        if (payload.size() != len) {
            why = "short payload";
            return false;
        }
        return true;
    };
    std::vector<uint8_t> hw, sbl;
    if (!exec(1, out.serial_payload) || !exec(2, hw) || !exec(7, sbl))
        return false;
    out.serial = word_at(out.serial_payload, 0);
    out.hwid_word = word_at(hw, 4);
    out.sbl = word_at(sbl, 0);
    return true;
}

int upload(host &h, const std::vector<uint8_t> &image, std::string &why, bool from_command_mode)
{
    if (from_command_mode)
        h.write(words({12, 12, 0}));
    auto hello = h.read_once(48, 2000);
    if (hello.size() != 48 || word_at(hello, 0) != 1) {
        why = "no HELLO after the switch";
        return -1;
    }
    h.write(words({2, 48, 2, 2, 0, 0}, 48));
    for (;;) {
        auto p = h.read_once(48, 2000);
        if (p.size() < 8 || word_at(p, 4) != p.size()) {
            why = "bad packet in transfer";
            return -1;
        }
        uint32_t cmd = word_at(p, 0);
        uint64_t off, n;
        if (cmd == 3) {
            off = word_at(p, 12);
            n = word_at(p, 16);
        } else if (cmd == 18) {
            off = word_at(p, 16) | (uint64_t)word_at(p, 20) << 32;
            n = word_at(p, 24) | (uint64_t)word_at(p, 28) << 32;
        } else if (cmd == 4) {
            uint32_t status = word_at(p, 12);
            if (status != 0)
                return (int)status;
            break;
        } else {
            why = "unexpected packet " + std::to_string(cmd);
            return -1;
        }
        if (off + n > image.size()) {
            why = "range outside the image";
            return -1;
        }
        h.write(image.data() + off, n);
    }
    h.write(words({5, 8}));
    auto done = h.read_once(48, 2000);
    if (done.size() != 12 || word_at(done, 0) != 6 || word_at(done, 8) > 1) {
        why = "bad DONE_RESP";
        return -1;
    }
    return 0;
}

bool program(host &h, const std::string &attrs, const std::vector<uint8_t> &data, reply &final)
{
    h.send_command("program " + attrs);
    reply ack = h.read_reply();
    if (!ack.complete || !ack.ack || ack.response["rawmode"] != "true")
        return false;
    if (!h.write(data))
        return false;
    final = h.read_reply();
    return final.complete;
}

std::vector<uint8_t> dump(host &h, const std::string &attrs, size_t bytes, uint32_t chunk)
{
    std::vector<uint8_t> out;
    h.send_command("dump " + attrs);
    reply ack = h.read_reply();
    if (!ack.complete || !ack.ack || ack.response["rawmode"] != "true")
        return out;
    while (out.size() < bytes) {
        std::vector<uint8_t> req = {'D', 'A', 'T', 'A'};
        auto size = words({chunk});
        req.insert(req.end(), size.begin(), size.end());
        h.write(req);
        size_t n = std::min<size_t>(chunk, bytes - out.size());
        auto part = h.read_exact(n, 2000);
        out.insert(out.end(), part.begin(), part.end());
        if (part.size() != n)
            break;
    }
    return out;
}

sandbox::sandbox(ravik_sim::options o)
{
    char tmpl[] = "/tmp/ravik-sim-test-XXXXXX";
    dir = ::mkdtemp(tmpl);
    o.link = dir + "/tty";
    o.storage_dir = dir + "/storage";
    if (o.reset_delay_ms == 100)
        o.reset_delay_ms = 50;
    if (o.reboot_ms == 200)
        o.reboot_ms = 50;
    target = std::make_unique<ravik_sim::target>(o);
    target->start();
}

sandbox::~sandbox()
{
    target.reset();
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
}

std::string sandbox::file_bytes(unsigned lun, uint64_t pos, size_t n) const
{
    std::ifstream f(target->lun_path(lun), std::ios::binary);
    f.seekg((std::streamoff)pos);
    std::string s(n, '\0');
    f.read(s.data(), (std::streamsize)n);
    s.resize((size_t)f.gcount());
    return s;
}

::testing::AssertionResult bring_up(host &h)
{
    chip_facts facts;
    std::string why = "link did not open";
    if (h.is_open() && greet(h, facts, why) && upload(h, ravik_sim::demo_programmer(), why) == 0)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << why;
}

} // namespace simtest

#endif
