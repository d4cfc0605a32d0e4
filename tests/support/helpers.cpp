#include "support/helpers.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include <filesystem>

#include <gtest/gtest.h>

#include "core/logger.h"
#include "link/device.h"
#include "ravik.h"
#include "support/fake_platform.h"

namespace ravik::test {

void on_fresh_thread(const std::function<void()> &fn)
{
    std::thread t(fn);
    t.join();
}

temp_cwd::temp_cwd()
{
    char tmpl[] = "/tmp/ravik-test-XXXXXX";
    path_ = mkdtemp(tmpl);
    char buf[4096];
    old_ = getcwd(buf, sizeof(buf));
    if (chdir(path_.c_str()) != 0)
        abort();
}

temp_cwd::~temp_cwd()
{
    if (chdir(old_.c_str()) != 0)
        abort();
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

std::string read_file(const std::string &path)
{
    std::ifstream f(path, std::ios::binary);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

static std::string ring_text(bool (*get)(logger_view *))
{
    logger_view v{};
    if (!get(&v))
        return {};
    return std::string(v.data, std::min<uint32_t>(v.count, LOG_RING_SIZE));
}
std::string current_log() { return ring_text(logger_current); }
std::string previous_log() { return ring_text(logger_previous); }

std::string missing_in_order(const std::string &text, const std::vector<std::string> &parts)
{
    size_t at = 0;
    for (auto &p : parts)
        if ((at = text.find(p, at)) == std::string::npos)
            return p;
    return "";
}

bool any_holds(const std::vector<std::string> &lines, const std::string &text)
{
    for (auto &l : lines)
        if (l.find(text) != std::string::npos)
            return true;
    return false;
}

bool file_exists(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

int32_t record_events(int32_t event, void *payload, void *context)
{
    auto *log = static_cast<event_log *>(context);
    log->events.push_back(event);
    if (event == DEVICE_EVENT_LOG)
        log->lines.push_back(static_cast<const char *>(payload));
    if (event == DEVICE_EVENT_FREE)
        log->free_names.push_back(static_cast<const char *>(payload));
    return 0;
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

void in_session(const std::function<void()> &fn)
{
    on_fresh_thread([&] {
        end_of_session end;
        fn();
    });
}

log_capture::log_capture() { logger_subscribe("test-capture", on_line, this); }
log_capture::~log_capture() { logger_unsubscribe("test-capture"); }

void log_capture::on_line(const char *line, void *context)
{
    std::string s(line);
    static_cast<log_capture *>(context)->lines.push_back(s.size() >= 10 ? s.substr(10) : s);
}

int log_capture::count(const std::string &line) const
{
    int n = 0;
    for (auto &l : lines)
        n += l == line;
    return n;
}

bool log_capture::contains(const std::string &text) const { return any_holds(lines, text); }

} // namespace ravik::test
