#include "support/helpers.h"

#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <thread>

#include "core/logger.h"
#include "link/device.h"
#include "support/fake_platform.h"

namespace ravik::test {

void on_fresh_thread(const std::function<void()> &fn) { std::thread(fn).join(); }

void in_session(const std::function<void()> &fn)
{
    on_fresh_thread([&] {
        end_of_session end;
        fn();
    });
}

end_of_session::~end_of_session() { free_device(); }

void with_open_device(const std::function<void(fake_platform &)> &body)
{
    fake_platform fake;
    in_session([&] {
        ASSERT_EQ(device_open(), 0);
        body(fake);
    });
}

temp_cwd::temp_cwd() : old_(std::filesystem::current_path())
{
    char tmpl[] = "/tmp/ravik-test-XXXXXX";
    std::filesystem::current_path(path_ = mkdtemp(tmpl));
}

temp_cwd::~temp_cwd()
{
    std::filesystem::current_path(old_);
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

static std::string ring_text(bool (*get)(logger_view *))
{
    logger_view v{};
    return get(&v) ? std::string(v.data, std::min<uint32_t>(v.count, LOG_RING_SIZE)) : "";
}
std::string current_log() { return ring_text(logger_current); }
std::string previous_log() { return ring_text(logger_previous); }

int32_t record_events(int32_t event, void *payload, void *context)
{
    auto *log = static_cast<event_log *>(context);
    log->events.push_back(event);
    if (event == DEVICE_EVENT_LOG || event == DEVICE_EVENT_FREE)
        (event == DEVICE_EVENT_LOG ? log->lines : log->free_names).push_back(static_cast<const char *>(payload));
    return 0;
}

log_capture::log_capture()
{
    logger_subscribe("test-capture", [](const char *line, void *self) {
        static_cast<log_capture *>(self)->lines.push_back(strlen(line) >= 10 ? line + 10 : line);
    }, this);
}
log_capture::~log_capture() { logger_unsubscribe("test-capture"); }

} // namespace ravik::test
