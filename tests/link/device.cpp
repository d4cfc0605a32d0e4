// The device object over a scripted line: reads, writes, events, the end of a session.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "core/core.h"
#include "link/device.h"
#include "support/fake_platform.h"
#include "support/helpers.h"

using namespace ravik;
using namespace ravik::test;

TEST(DeviceRead, IdleLineGivesZeroAfterElevenSeconds)
{
    with_open_device([&](fake_platform &fake) {
        log_capture c;
        set_error(ERR_NAK);
        double t0 = fake.clock;
        char buf[48];
        EXPECT_EQ(device_read(buf, sizeof(buf)), 0);
        EXPECT_EQ(get_error(), 0);
        EXPECT_EQ(fake.read_calls, 10);
        EXPECT_NEAR(fake.clock - t0, 11.0, 1e-3);
        EXPECT_TRUE(c.lines.empty());
    });
}

TEST(DeviceRead, ReturnsWhatComesWithoutFillingTheBuffer)
{
    with_open_device([&](fake_platform &fake) {
        fake.push_idle(3);
        fake.push_bytes("hello");
        char buf[48];
        EXPECT_EQ(device_read(buf, sizeof(buf)), 5);
        EXPECT_EQ(std::string(buf, 5), "hello");
        EXPECT_EQ(fake.read_calls, 4);
        EXPECT_EQ(fake.slept_ms, 300u);
    });
}

TEST(DeviceRead, VanishedPortLogsEveryAttempt)
{
    with_open_device([&](fake_platform &fake) {
        for (int i = 0; i < 10; i++)
            fake.push_read_error(EIO);
        log_capture c;
        char buf[16];
        EXPECT_EQ(device_read(buf, sizeof(buf)), 0);
        ASSERT_EQ(c.lines.size(), 10u);
        EXPECT_EQ(c.lines[0], "ReadFile() failed, GetLastError()=5\n");
    });
}

TEST(DeviceWrite, ShortZeroAndFailedWrites)
{
    with_open_device([&](fake_platform &fake) {
        fake.write_cap = 3;
        EXPECT_EQ(device_write("abcdef", 6), 3);
        EXPECT_EQ(get_error(), 0);
        fake.write_cap = 0;
        EXPECT_EQ(device_write("abcdef", 6), 0);
        EXPECT_STREQ(format_error(get_error()), "device_write()->IO error");
        fake.write_cap = UINT32_MAX;
        fake.write_error = EPIPE;
        log_capture c;
        EXPECT_EQ(device_write("x", 1), 0);
        EXPECT_EQ(get_error() & 0xFF, ERR_IO);
        EXPECT_TRUE(c.contains("WriteFile() failed, GetLastError()=32\n"));
        EXPECT_EQ(fake.written, "abc");
    });
}

TEST(DeviceIo, HexdumpFlagDumpsTrafficAtDebugLevel)
{
    with_open_device([&](fake_platform &fake) {
        device_set_flag(DEVICE_FLAG_HEXDUMP | DEVICE_FLAG_DEBUG);
        log_capture c;
        fake.push_bytes("ping");
        char buf[8];
        device_read(buf, sizeof(buf));
        device_write("pong", 4);
        EXPECT_TRUE(c.contains("Dumping 4 bytes read\n"));
        EXPECT_TRUE(c.contains("00000000  70 69 6e 67"));
        EXPECT_TRUE(c.contains("Dumping 4 bytes written\n"));
    });
}

TEST(DeviceFlags, DebugForcesLevelThreeOnEverySetting)
{
    fake_platform fake;
    in_session([] {
        EXPECT_FALSE(device_has_flag(DEVICE_FLAG_DEBUG));
        device_set_flag(DEVICE_FLAG_DEBUG);
        EXPECT_EQ(logger_get_level(), (uint32_t)LOG_DEBUG);
        logger_set_level(LOG_WARN);
        device_clr_flag(DEVICE_FLAG_BNR);
        EXPECT_EQ(logger_get_level(), (uint32_t)LOG_WARN);
        device_set_flag(DEVICE_FLAG_BNR);
        EXPECT_EQ(logger_get_level(), (uint32_t)LOG_DEBUG);
        EXPECT_TRUE(device_has_flag(DEVICE_FLAG_BNR | DEVICE_FLAG_SAVE_LOG));
        device_clr_flag(DEVICE_FLAG_BNR);
        EXPECT_FALSE(device_has_flag(DEVICE_FLAG_BNR));
        // The serial layer always copes with zero-length packets.
        ASSERT_EQ(device_open(), 0);
        EXPECT_TRUE(device_has_flag(DEVICE_FLAG_ZLP_AWARE));
    });
}

namespace {
struct bus {
    std::vector<std::string> heard;
};
// Subscriber 1 takes itself off the list as it hears.
template <int N> int32_t hear(int32_t ev, void *, void *ctx)
{
    static const char *name[] = {"first", "self", "last"};
    static_cast<bus *>(ctx)->heard.push_back(name[N] + (":" + std::to_string(ev)));
    if (N == 1)
        device_unsubscribe(hear<1>);
    return 0;
}
} // namespace

TEST(DeviceEvents, OrderSelfRemovalAndDoubleSubscription)
{
    fake_platform fake;
    on_fresh_thread([] {
        bus b;
        end_of_session end;
        for (device_fn cb : {hear<0>, hear<1>, hear<2>, hear<0>})
            device_subscribe(cb, &b);
        device_broadcast(7, nullptr);
        EXPECT_EQ(b.heard, (std::vector<std::string>{"first:7", "self:7", "last:7", "first:7"}));
        b.heard.clear();
        device_unsubscribe(hear<0>); // both entries go
        device_broadcast(8, nullptr);
        EXPECT_EQ(b.heard, (std::vector<std::string>{"last:8"}));
    });
}

TEST(DeviceEvents, LogLinesReachSubscribersButTheDumpDoesNot)
{
    fake_platform fake;
    in_session([] {
        event_log log;
        device_set_name("ttyX");
        device_subscribe(record_events, &log);
        device_set_flag(DEVICE_FLAG_DEBUG);
        RK_LOGI("visible\n");
        free_device();
        ASSERT_FALSE(log.lines.empty());
        for (auto &l : log.lines) {
            EXPECT_EQ(l.find("DEVICE {"), std::string::npos);
            EXPECT_EQ(l.find("Session ended"), std::string::npos);
        }
        EXPECT_EQ(log.events.back(), DEVICE_EVENT_FREE);
        EXPECT_EQ(log.events[log.events.size() - 2], DEVICE_EVENT_SAVE_LOGS);
        EXPECT_EQ(log.free_names, (std::vector<std::string>{"ttyX"}));
    });
}

TEST(DeviceLifecycle, FreeKeepsNameAndFlagsAndDropsTheRest)
{
    fake_platform fake;
    in_session([&] {
        device_set_name("keep-me");
        device_set_flag(DEVICE_FLAG_UFS_LOCK);
        ASSERT_EQ(device_open(), 0);
        event_log log;
        device_subscribe(record_events, &log);
        free_device();
        EXPECT_EQ(fake.close_calls, 1);
        device_object *dev = get_device();
        ASSERT_NE(dev, nullptr);
        EXPECT_STREQ(dev->name, "keep-me");
        EXPECT_EQ(dev->flags, (uint32_t)(DEVICE_FLAG_UFS_LOCK | DEVICE_FLAG_ZLP_AWARE));
        EXPECT_EQ(dev->handle, -1);
        EXPECT_TRUE(list_empty(&dev->subscribers));
        size_t heard = log.events.size();
        device_broadcast(5, nullptr);
        EXPECT_EQ(log.events.size(), heard);
        // The session ended in the old ring; the new one begins with it.
        EXPECT_NE(current_log().find("Session ended\n"), std::string::npos);
    });
}

TEST(DeviceLifecycle, LowLevelSkipsTheDumpButStillSavesAndRaisesEvents)
{
    fake_platform fake;
    temp_cwd cwd;
    in_session([] {
        logger_set_level(LOG_WARN);
        event_log log;
        device_subscribe(record_events, &log);
        device_set_flag(DEVICE_FLAG_SAVE_LOG);
        RK_LOGE("an error line\n");
        free_device();
        std::string file = read_file(LOG_FILE_NAME);
        EXPECT_NE(file.find("an error line\n"), std::string::npos);
        EXPECT_EQ(file.find("DEVICE {"), std::string::npos);
        EXPECT_EQ(log.events.back(), DEVICE_EVENT_FREE);
    });
}

TEST(DeviceLifecycle, NoMemoryForTheThreadBlock)
{
    fake_platform fake;
    in_session([] {
        get_error(); // the error block exists
        mem_fail_nth(1);
        EXPECT_EQ(get_device(), nullptr);
        mem_fail_nth(0);
        EXPECT_STREQ(format_error(get_error()), "get_device()->TLS error");
        EXPECT_NE(get_device(), nullptr);
    });
}
