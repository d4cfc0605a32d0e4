// A session that cannot open its device: the code, its text, the events the
// caller sees, and what is left on disk.
#include <gtest/gtest.h>

#include <regex>

#include "core/core.h"
#include "platform/platform.h"
#include "ravik.h"
#include "support/fake_platform.h"
#include "support/helpers.h"
#include "support/pty.h"

using namespace ravik;
using namespace ravik::test;

TEST(SessionOpenFailure, CodeTextEventsAndLogFile)
{
    for (uint32_t flags : {0u, (uint32_t)DEVICE_FLAG_SAVE_LOG}) {
        temp_cwd cwd;
        on_fresh_thread([&] {
            event_log log;
            int32_t code = rk_flash_singleimage("/no/such/device", "x", flags, record_events, &log);
            EXPECT_EQ(code & 0xFF, ERR_OPEN_DEVICE);
            EXPECT_STREQ(rk_describe_error(code), "rk_flash_singleimage()->device_open()->error opening device");
            ASSERT_FALSE(log.lines.empty());
            const std::regex first(R"(\[  \d\.\d{3}\] Opening device: /no/such/device\n)");
            EXPECT_TRUE(std::regex_match(log.lines[0], first)) << log.lines[0];
            EXPECT_TRUE(any_holds(log.lines, "ERROR: device_open()->error opening device\n"));
            EXPECT_EQ(any_holds(log.lines, "Check ravik_log.txt for more details\n"), flags != 0);
            // No container was touched and no dump reached the callback.
            EXPECT_FALSE(any_holds(log.lines, "DEVICE {") || any_holds(log.lines, "Detecting device"));
            // Event 2, then event 3 with the device name, and nothing after.
            ASSERT_GE(log.events.size(), 2u);
            EXPECT_EQ(std::vector<int>(log.events.end() - 2, log.events.end()),
                      (std::vector<int>{DEVICE_EVENT_SAVE_LOGS, DEVICE_EVENT_FREE}));
            EXPECT_EQ(log.free_names, std::vector<std::string>{"/no/such/device"});
        });
        EXPECT_EQ(file_exists("ravik_log.txt"), flags != 0);
        if (!flags)
            continue;
        std::string text = read_file("ravik_log.txt");
        EXPECT_EQ(missing_in_order(text, {"Opening device: /no/such/device\n",
                                          "ERROR: device_open()->error opening device\n",
                                          "Check ravik_log.txt for more details\n", "Total time: ",
                                          "ravik version 4.0\n", "DEVICE {\n", "  name  = \"/no/such/device\",\n",
                                          "  flags = \"0x40\",\n", "  addr  = \"0x", "}\n"}),
                  "")
            << text;
        // The line after the save belongs to the next ring, not to the file.
        EXPECT_EQ(text.find("Session ended"), std::string::npos);
    }
}

TEST(SessionOpenFailure, NameFlagsLevelAndDescribeOnAnotherThread)
{
    fake_platform fake;
    fake.open_fails = true;
    int32_t code = 0;
    on_fresh_thread([&] {
        int dummy = 0;
        EXPECT_EQ(rk_flash_singleimage(std::string(300, 'a').c_str(), "x", DEVICE_FLAG_DEBUG, nullptr, &dummy) & 0xFF,
                  ERR_OPEN_DEVICE);
        EXPECT_EQ(fake.last_open_name, std::string(255, 'a'));
        EXPECT_EQ(dummy, 0);
        // The debug level outlives the session: the device layer's own line shows.
        event_log log;
        code = rk_flash_singleimage("dev", "x", 0, record_events, &log);
        EXPECT_EQ(logger_get_level(), (uint32_t)LOG_DEBUG);
        EXPECT_TRUE(any_holds(log.lines, "Opening serial device: dev\n"));
    });
    on_fresh_thread([&] {
        EXPECT_STREQ(rk_describe_error(code), "bug!");
        EXPECT_STREQ(rk_describe_error(code & 0xFF), "error opening device");
        EXPECT_STREQ(rk_describe_error(0), "");
    });
    int32_t major = -1, minor = -1;
    EXPECT_EQ(rk_get_version(&major, &minor), 0);
    EXPECT_EQ(major * 100 + minor, 400);
}

TEST(SessionOpenFailure, HeldDeviceCannotBeOpenedBySecondSession)
{
    pty_pair pty;
    int32_t held = platform_linux().serial_open(pty.slave_path().c_str());
    ASSERT_GE(held, 0);
    on_fresh_thread([&] {
        EXPECT_EQ(rk_flash_singleimage(pty.slave_path().c_str(), "x", 0, nullptr, nullptr) & 0xFF, ERR_OPEN_DEVICE);
    });
    platform_linux().serial_close(held);
}
