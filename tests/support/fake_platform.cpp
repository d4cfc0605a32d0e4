#include "support/fake_platform.h"

#include <cstring>

namespace ravik::test {

fake_platform *fake_platform::self = nullptr;

fake_platform::fake_platform()
{
    ops_ = {s_open, s_close, s_read, s_write, s_sleep, s_clock, s_local_time};
    self = this;
    platform_install(&ops_);
}

fake_platform::~fake_platform()
{
    platform_install(nullptr);
    self = nullptr;
}

void fake_platform::push_bytes(const std::string &bytes)
{
    std::lock_guard<std::mutex> g(mu_);
    script_.push_back({item::bytes, bytes, 0});
}

void fake_platform::push_idle(int reads)
{
    std::lock_guard<std::mutex> g(mu_);
    for (int i = 0; i < reads; i++)
        script_.push_back({item::idle, {}, 0});
}

void fake_platform::push_read_error(int err)
{
    std::lock_guard<std::mutex> g(mu_);
    script_.push_back({item::error, {}, err});
}

void fake_platform::clear_script()
{
    std::lock_guard<std::mutex> g(mu_);
    script_.clear();
}

int32_t fake_platform::s_open(const char *name)
{
    std::lock_guard<std::mutex> g(self->mu_);
    self->open_calls++;
    self->last_open_name = name;
    return self->open_fails ? -1 : self->next_handle;
}

void fake_platform::s_close(int32_t) { self->close_calls++; }

int32_t fake_platform::s_read(int32_t, void *buf, uint32_t count, int *err)
{
    std::lock_guard<std::mutex> g(self->mu_);
    self->read_calls++;
    if (self->script_.empty() || self->script_.front().kind == item::idle) {
        if (!self->script_.empty())
            self->script_.pop_front();
        self->clock += 1.0;
        return 0;
    }
    item &it = self->script_.front();
    if (it.kind == item::error) {
        *err = it.err;
        self->script_.pop_front();
        return -1;
    }
    uint32_t n = (uint32_t)std::min<size_t>(count, it.data.size());
    memcpy(buf, it.data.data(), n);
    it.data.erase(0, n);
    if (it.data.empty())
        self->script_.pop_front();
    return (int32_t)n;
}

int32_t fake_platform::s_write(int32_t, const void *buf, uint32_t count, int *err)
{
    std::unique_lock<std::mutex> g(self->mu_);
    if (self->write_error) {
        *err = self->write_error;
        return -1;
    }
    uint32_t cap = self->write_cap;
    if (!self->write_caps.empty()) {
        cap = self->write_caps.front();
        self->write_caps.pop_front();
    }
    uint32_t n = std::min(count, cap);
    self->written.append(static_cast<const char *>(buf), n);
    if (self->on_write) {
        auto hook = self->on_write;
        g.unlock();
        hook(std::string(static_cast<const char *>(buf), n));
    }
    return (int32_t)n;
}

void fake_platform::s_sleep(uint32_t ms)
{
    std::lock_guard<std::mutex> g(self->mu_);
    self->slept_ms += ms;
    self->clock += ms / 1000.0;
}

double fake_platform::s_clock()
{
    std::lock_guard<std::mutex> g(self->mu_);
    return self->clock;
}

bool fake_platform::s_local_time(struct tm *out)
{
    if (!self->local_time_ok)
        return false;
    time_t t = (time_t)self->clock;
    return localtime_r(&t, out) != nullptr;
}

} // namespace ravik::test
