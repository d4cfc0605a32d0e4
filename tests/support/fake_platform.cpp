#include "support/fake_platform.h"

#include <cstring>

namespace ravik::test {

static fake_platform *self;

fake_platform::fake_platform()
{
    ops_.serial_open = [](const char *name) {
        std::lock_guard<std::mutex> g(self->mu_);
        self->open_calls++;
        self->last_open_name = name;
        return self->open_fails ? -1 : 5;
    };
    ops_.serial_close = [](int32_t) { self->close_calls++; };
    ops_.serial_read = [](int32_t, void *buf, uint32_t count, int *err) {
        std::lock_guard<std::mutex> g(self->mu_);
        self->read_calls++;
        auto &script = self->script_;
        if (script.empty() || script.front().kind == item::idle) { // an idle second
            if (!script.empty())
                script.pop_front();
            self->clock += 1.0;
            return 0;
        }
        item &it = script.front();
        size_t n = std::min<size_t>(count, it.data.size());
        memcpy(buf, it.data.data(), n);
        it.data.erase(0, n);
        int32_t r = it.kind == item::error ? (*err = it.err, -1) : (int32_t)n;
        if (it.data.empty())
            script.pop_front();
        return r;
    };
    ops_.serial_write = [](int32_t, const void *buf, uint32_t count, int *err) {
        std::unique_lock<std::mutex> g(self->mu_);
        if (self->write_error)
            return *err = self->write_error, -1;
        uint32_t cap = self->write_caps.empty() ? self->write_cap : self->write_caps.front();
        if (!self->write_caps.empty())
            self->write_caps.pop_front();
        std::string taken(static_cast<const char *>(buf), std::min(count, cap));
        self->written += taken;
        auto hook = self->on_write;
        g.unlock();
        if (hook)
            hook(taken);
        return (int32_t)taken.size();
    };
    ops_.sleep_ms = [](uint32_t ms) {
        std::lock_guard<std::mutex> g(self->mu_);
        self->slept_ms += ms;
        self->clock += ms / 1000.0;
    };
    ops_.wall_clock = [] {
        std::lock_guard<std::mutex> g(self->mu_);
        return self->clock;
    };
    ops_.local_time = [](struct tm *out) {
        time_t t = (time_t)self->clock;
        return self->local_time_ok && localtime_r(&t, out) != nullptr;
    };
    self = this;
    platform_install(&ops_);
}

fake_platform::~fake_platform() { platform_install(nullptr); }

void fake_platform::push(item it) { std::lock_guard<std::mutex>{mu_}, script_.push_back(std::move(it)); }
void fake_platform::clear_script() { std::lock_guard<std::mutex>{mu_}, script_.clear(); }

} // namespace ravik::test
