#include "engine.h"

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <mutex>
#include <poll.h>
#include <sstream>
#include <stdexcept>
#include <unistd.h>

namespace ravik_sim {

// ---- transcript -------------------------------------------------------------

struct transcript::state {
    mutable std::mutex mu;
    mutable std::condition_variable cv;
    std::vector<event> events;
    std::function<void(const event &)> listener;
    std::chrono::steady_clock::time_point t0 = std::chrono::steady_clock::now();
};

transcript::transcript() : s_(std::make_unique<state>()) {}
transcript::~transcript() = default;

void transcript::add(std::string kind, std::string text, uint64_t size)
{
    std::function<void(const event &)> listener;
    event e;
    {
        std::lock_guard<std::mutex> lock(s_->mu);
        std::chrono::duration<double> dt = std::chrono::steady_clock::now() - s_->t0;
        e = event{dt.count(), std::move(kind), std::move(text), size};
        s_->events.push_back(e);
        listener = s_->listener;
    }
    s_->cv.notify_all();
    if (listener)
        listener(e);
}

std::vector<event> transcript::events() const
{
    std::lock_guard<std::mutex> lock(s_->mu);
    return s_->events;
}

std::vector<event> transcript::of_kind(const std::string &kind) const
{
    std::vector<event> out;
    std::lock_guard<std::mutex> lock(s_->mu);
    for (const auto &e : s_->events)
        if (e.kind == kind)
            out.push_back(e);
    return out;
}

std::vector<std::string> transcript::commands() const
{
    std::vector<std::string> out;
    for (auto &e : of_kind("command"))
        out.push_back(e.text);
    return out;
}

bool transcript::wait_for(const std::function<bool(const std::vector<event> &)> &pred,
                          int timeout_ms) const
{
    std::unique_lock<std::mutex> lock(s_->mu);
    return s_->cv.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                           [&] { return pred(s_->events); });
}

bool transcript::wait_kind(const std::string &kind, size_t n, int timeout_ms) const
{
    return wait_for(
        [&](const std::vector<event> &ev) {
            size_t c = 0;
            for (const auto &e : ev)
                c += e.kind == kind;
            return c >= n;
        },
        timeout_ms);
}

void transcript::on_add(std::function<void(const event &)> fn) const
{
    std::lock_guard<std::mutex> lock(s_->mu);
    s_->listener = std::move(fn);
}

// ---- engine: power, ports, the line ------------------------------------------

engine::engine(options o) : opt(std::move(o)), pty(opt.link) {}

engine::~engine() { stop(); }

void engine::start()
{
    const bool ufs = opt.storage == storage_kind::ufs;
    unsigned luns = opt.luns ? opt.luns : (ufs ? 3 : 1);
    if (luns > 8 || (!ufs && luns != 1))
        throw std::runtime_error("eMMC has one LUN, UFS up to 8");
    uint64_t bytes = opt.lun_bytes ? opt.lun_bytes : (ufs ? 16ull << 20 : 64ull << 20);
    std::string layout = opt.layout;
    if (layout.empty() && !opt.layout_file.empty()) {
        std::ifstream f(opt.layout_file);
        if (!f)
            throw std::runtime_error("cannot read layout " + opt.layout_file);
        std::stringstream ss;
        ss << f.rdbuf();
        layout = ss.str();
    }
    if (layout.empty())
        layout = default_layout(ufs);
    store.open(opt.storage_dir, luns, ufs ? 4096 : 512, bytes, layout,
               (uint64_t)opt.id.serial << 16 | opt.id.chip_id);

    if (opt.programmer.empty())
        opt.programmer = demo_programmer();
    if (::pipe2(wake_, O_CLOEXEC | O_NONBLOCK) != 0)
        throw std::runtime_error(std::string("pipe: ") + std::strerror(errno));
    if (opt.fault.boot_delay_ms <= 0) {
        pty.plug();
        wire.add("power-on");
    }
    thread_ = std::thread([this] { run(); });
}

void engine::stop()
{
    if (thread_.joinable()) {
        stopping_ = true;
        char c = 1;
        if (::write(wake_[1], &c, 1) < 0) {
            // The pipe cannot be full with one byte in it; nothing to do.
        }
        thread_.join();
    }
    pty.unplug();
    for (int &fd : wake_)
        if (fd >= 0) {
            ::close(fd);
            fd = -1;
        }
}

void engine::run()
{
    try {
        for (;;) {
            try {
                if (!pty.plugged())
                    power_on();
                configured_ = false;
                payload_ = 0;
                bootable_ = -1;
                ufs_staged_.clear();
                for (;;) {
                    wait_host();
                    try {
                        boot_rom();
                        break;
                    } catch (host_closed &) {
                        wire.add("close");
                        pty.replug();
                        discard_input();
                    }
                }
                wire.add("programmer-start");
                programmer();
            } catch (rebooting &r) {
                pty.unplug();
                discard_input();
                wire.add(r.kind, r.why);
                if (ufs_pending_set_) {
                    ufs_provisioned_ = ufs_pending_;
                    ufs_pending_set_ = false;
                }
                if (!r.come_back)
                    sleep_ms(-1);
                sleep_ms(opt.reboot_ms);
            } catch (vanishing &) {
                let_host_read();
                pty.unplug();
                discard_input();
                wire.add("vanish");
                sleep_ms(opt.fault.vanish_ms);
            }
        }
    } catch (halted &) {
    }
}

void engine::power_on()
{
    sleep_ms(opt.fault.boot_delay_ms);
    pty.plug();
    discard_input();
    wire.add("power-on");
}

void engine::wait_host()
{
    while (!pty.host_present()) {
        struct pollfd p[2] = {{pty.events_fd(), POLLIN, 0}, {wake_[0], POLLIN, 0}};
        ::poll(p, 2, -1);
        if (stopping_)
            throw halted{};
    }
    wire.add("open");
}

void engine::reconnect()
{
    wire.add("close");
    pty.replug();
    discard_input();
    wait_host();
}

void engine::let_host_read()
{
    // Closing the master drops what the host has not read yet: give it the
    // time to read the last answer, or to close by itself.
    auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(opt.reset_delay_ms);
    while (pty.host_present() && std::chrono::steady_clock::now() < until)
        sleep_ms(2);
}

void engine::discard_input()
{
    in_.clear();
    in_pos_ = 0;
}

void engine::sleep_ms(int ms)
{
    if (stopping_)
        throw halted{};
    if (ms == 0)
        return;
    struct pollfd p = {wake_[0], POLLIN, 0};
    auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    for (;;) {
        int left = -1;
        if (ms > 0) {
            auto d = std::chrono::duration_cast<std::chrono::milliseconds>(
                until - std::chrono::steady_clock::now());
            if (d.count() <= 0)
                break;
            left = (int)d.count();
        }
        ::poll(&p, 1, left);
        if (stopping_)
            throw halted{};
    }
}

void engine::check_vanish(phase at)
{
    if (opt.fault.vanish_at != at || vanished_ != phase::none)
        return;
    if (vanish_passed_++ < opt.fault.vanish_skip)
        return;
    vanished_ = at;
    wire.add("fault", "vanish");
    throw vanishing{};
}

size_t engine::read_some(uint8_t *dst, size_t max)
{
    if (in_pos_ < in_.size()) {
        size_t n = std::min(max, in_.size() - in_pos_);
        std::memcpy(dst, in_.data() + in_pos_, n);
        in_pos_ += n;
        return n;
    }
    return read_line(dst, max);
}

size_t engine::read_line(uint8_t *dst, size_t max)
{
    const int fd = pty.fd();
    for (;;) {
        ssize_t n = ::read(fd, dst, max);
        if (n > 0)
            return (size_t)n;
        if (n == 0 || (errno != EAGAIN && errno != EINTR))
            throw host_closed{}; // EIO: the host has closed its end
        struct pollfd p[3] = {{fd, POLLIN, 0}, {pty.events_fd(), POLLIN, 0}, {wake_[0], POLLIN, 0}};
        ::poll(p, 3, -1);
        if (stopping_)
            throw halted{};
        if (p[1].revents & POLLIN) {
            pty.pump();
            if (pty.host_left())
                throw host_closed{};
        }
    }
}

size_t engine::fill()
{
    if (in_pos_ == in_.size()) {
        in_.clear();
        in_pos_ = 0;
    } else if (in_pos_ > 0 && in_pos_ > in_.size() / 2) {
        in_.erase(in_.begin(), in_.begin() + (ptrdiff_t)in_pos_);
        in_pos_ = 0;
    }
    const size_t room = 1 << 16;
    size_t old = in_.size();
    in_.resize(old + room);
    size_t n = 0;
    try {
        n = read_line(in_.data() + old, room);
    } catch (...) {
        in_.resize(old);
        throw;
    }
    in_.resize(old + n);
    return n;
}

void engine::read_exact(void *dst, size_t n)
{
    uint8_t *p = static_cast<uint8_t *>(dst);
    while (n > 0) {
        size_t got = read_some(p, n);
        p += got;
        n -= got;
    }
}

void engine::write_all(const void *data, size_t n)
{
    const uint8_t *p = static_cast<const uint8_t *>(data);
    const int fd = pty.fd();
    while (n > 0) {
        ssize_t w = ::write(fd, p, n);
        if (w > 0) {
            p += w;
            n -= (size_t)w;
            continue;
        }
        if (w < 0 && errno != EAGAIN && errno != EINTR)
            throw host_closed{};
        struct pollfd q[3] = {{fd, POLLOUT, 0}, {pty.events_fd(), POLLIN, 0}, {wake_[0], POLLIN, 0}};
        ::poll(q, 3, -1);
        if (stopping_)
            throw halted{};
        if (q[1].revents & POLLIN) {
            pty.pump();
            if (pty.host_left())
                throw host_closed{};
        }
    }
}

// ---- target ------------------------------------------------------------------

struct target::impl {
    explicit impl(options o) : eng(std::move(o)) {}
    engine eng;
};

target::target(options o)
{
    if (o.link.empty()) {
        char cwd[4096];
        o.link = std::string(::getcwd(cwd, sizeof cwd) ? cwd : ".") + "/ravik-sim";
    }
    if (o.storage_dir.empty())
        o.storage_dir = o.link + ".storage";
    p_ = std::make_unique<impl>(std::move(o));
}

target::~target() { stop(); }

void target::start() { p_->eng.start(); }
void target::stop() { p_->eng.stop(); }
const std::string &target::link() const { return p_->eng.opt.link; }
uint32_t target::sector_size() const { return p_->eng.store.blksz(); }
unsigned target::luns() const { return p_->eng.store.luns(); }
uint64_t target::lun_bytes() const { return p_->eng.store.lun_bytes(); }
std::string target::lun_path(unsigned lun) const { return p_->eng.store.path(lun); }
const transcript &target::wire() const { return p_->eng.wire; }

} // namespace ravik_sim
