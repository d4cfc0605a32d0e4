// A session that cannot open its device: the code, its text, the events the
// caller sees, and what is left on disk.
#include <gtest/gtest.h>

#include <regex>

#include "core/core.h"
#include "ravik.h"
#include "support/fake_platform.h"
#include "support/helpers.h"

using namespace ravik;
using namespace ravik::test;

TEST(SessionOpenFailure, CodeTextAndEvents)
{
    temp_cwd cwd;
    on_fresh_thread([] {
        event_log log;
        int32_t code = rk_flash_singleimage("/no/such/device", "x", 0, record_events, &log);
        EXPECT_EQ(code & 0xFF, ERR_OPEN_DEVICE);
        EXPECT_STREQ(rk_describe_error(code),
                     "rk_flash_singleimage()->device_open()->error opening device");

        ASSERT_FALSE(log.lines.empty());
        EXPECT_TRUE(std::regex_match(log.lines[0],
                                     std::regex(R"(\[ *\d+\.\d{3}\] Opening device: /no/such/device\n)")))
            << log.lines[0];
        EXPECT_EQ(log.lines[0].size(), std::string("[  0.000] Opening device: /no/such/device\n").size());
        EXPECT_TRUE(any_holds(log.lines, "ERROR: device_open()->error opening device\n"));
        // No container was touched and no dump reached the callback.
        for (auto &l : log.lines) {
            EXPECT_EQ(l.find("DEVICE {"), std::string::npos);
            EXPECT_EQ(l.find("Detecting device"), std::string::npos);
            EXPECT_EQ(l.find("Check ravik_log.txt"), std::string::npos);
        }
        // Event 2, then event 3 with the device name, and nothing after.
        ASSERT_GE(log.events.size(), 2u);
        EXPECT_EQ(log.events[log.events.size() - 2], DEVICE_EVENT_SAVE_LOGS);
        EXPECT_EQ(log.events.back(), DEVICE_EVENT_FREE);
        ASSERT_EQ(log.free_names.size(), 1u);
        EXPECT_EQ(log.free_names[0], "/no/such/device");
    });
    EXPECT_FALSE(file_exists("ravik_log.txt"));
}

TEST(SessionOpenFailure, SaveLogWritesHeaderLinesAndDump)
{
    temp_cwd cwd;
    on_fresh_thread([] {
        event_log log;
        int32_t code = rk_flash_singleimage("/no/such/device", "x", DEVICE_FLAG_SAVE_LOG,
                                            record_events, &log);
        EXPECT_EQ(code & 0xFF, ERR_OPEN_DEVICE);
        EXPECT_TRUE(any_holds(log.lines, "Check ravik_log.txt for more details\n"));
    });
    std::string text = read_file("ravik_log.txt");
    EXPECT_TRUE(std::regex_search(
        text, std::regex(R"(\n\*\*\*\* Log buffer \[000001\] \d{4}-\d\d-\d\d_\d\d:\d\d:\d\d \*\*\*\*\n\n)")))
        << text;
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

TEST(SessionOpenFailure, NullCallbackAndLongName)
{
    fake_platform fake;
    fake.open_fails = true;
    on_fresh_thread([&] {
        std::string name(300, 'a');
        int dummy = 0;
        int32_t code = rk_flash_singleimage(name.c_str(), "x", 0, nullptr, &dummy);
        EXPECT_EQ(code & 0xFF, ERR_OPEN_DEVICE);
        EXPECT_EQ(fake.last_open_name, std::string(255, 'a'));
        EXPECT_EQ(dummy, 0);
    });
}

TEST(SessionOpenFailure, FlagsAndDebugLevelOutliveTheSession)
{
    fake_platform fake;
    fake.open_fails = true;
    on_fresh_thread([&] {
        rk_flash_singleimage("dev", "x", DEVICE_FLAG_DEBUG, nullptr, nullptr);
        EXPECT_EQ(logger_get_level(), (uint32_t)LOG_DEBUG);
        event_log log;
        rk_flash_singleimage("dev", "x", 0, record_events, &log);
        EXPECT_EQ(logger_get_level(), (uint32_t)LOG_DEBUG);
        // At level 3 the device layer's own line shows.
        EXPECT_TRUE(any_holds(log.lines, "Opening serial device: dev\n"));
    });
}

TEST(SessionOpenFailure, DescribeOnAnotherThread)
{
    fake_platform fake;
    fake.open_fails = true;
    int32_t code = 0;
    on_fresh_thread([&] { code = rk_flash_singleimage("dev", "x", 0, nullptr, nullptr); });
    on_fresh_thread([&] {
        EXPECT_STREQ(rk_describe_error(code), "bug!");
        EXPECT_STREQ(rk_describe_error(code & 0xFF), "error opening device");
        EXPECT_STREQ(rk_describe_error(0), "");
    });
}

TEST(SessionExports, Version)
{
    int32_t major = -1, minor = -1;
    EXPECT_EQ(rk_get_version(&major, &minor), 0);
    EXPECT_EQ(major, 4);
    EXPECT_EQ(minor, 0);
}
