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

TEST(SessionOpenFailure, CodeTextEventsAndLogFile)
{
    for (uint32_t flags : {0u, (uint32_t)DEVICE_FLAG_SAVE_LOG}) {
        temp_cwd cwd;
        event_log log;
        on_fresh_thread([&] {
            const int32_t code = rk_flash_singleimage("/no/such/device", "x", flags, record_events, &log);
            EXPECT_EQ(code & 0xFF, ERR_OPEN_DEVICE);
            EXPECT_STREQ(rk_describe_error(code), "rk_flash_singleimage()->device_open()->error opening device");
        });
        ASSERT_FALSE(log.lines.empty());
        EXPECT_TRUE(std::regex_match(log.lines[0], std::regex(R"(\[  \d\.\d{3}\] Opening device: /no/such/device\n)")))
            << log.lines[0];
        EXPECT_TRUE(any_holds(log.lines, "ERROR: device_open()->error opening device\n"));
        EXPECT_EQ(any_holds(log.lines, "Check ravik_log.txt for more details\n"), flags != 0);
        // No container was touched and no dump reached the callback.
        EXPECT_FALSE(any_holds(log.lines, "DEVICE {") || any_holds(log.lines, "Detecting device"));
        ASSERT_GE(log.events.size(), 2u);
        EXPECT_EQ(std::vector<int>(log.events.end() - 2, log.events.end()),
                  (std::vector<int>{DEVICE_EVENT_SAVE_LOGS, DEVICE_EVENT_FREE}));
        EXPECT_EQ(log.free_names, std::vector<std::string>{"/no/such/device"});
        // The line after the save belongs to the next ring, not to the file.
        const std::string text = read_file("ravik_log.txt");
        EXPECT_EQ(file_exists("ravik_log.txt"), flags != 0);
        EXPECT_EQ(text.find("Session ended"), std::string::npos);
        EXPECT_EQ(missing_in_order(text, {"Opening device: /no/such/device\n", "ERROR: device_open()->error opening "
                                          "device\n", "Check ravik_log.txt for more details\n", "Total time: ",
                                          "ravik version 4.0\n", "DEVICE {\n", "  name  = \"/no/such/device\",\n",
                                          "  flags = \"0x40\",\n", "  addr  = \"0x", "}\n"}),
                  flags ? "" : "Opening device: /no/such/device\n") << text;
    }
}

// The name is cut to 255 bytes, the callback's context left alone; the debug
// level outlives the session, so the device layer's own line shows in the next.
TEST(SessionOpenFailure, NameFlagsLevelAndDescribeOnAnotherThread)
{
    fake_platform fake;
    fake.open_fails = true;
    int32_t code = 0;
    on_fresh_thread([&] {
        int untouched = 0;
        EXPECT_EQ(rk_flash_singleimage(std::string(300, 'a').c_str(), "x", DEVICE_FLAG_DEBUG, nullptr, &untouched) & 0xFF,
                  ERR_OPEN_DEVICE);
        EXPECT_EQ(fake.last_open_name, std::string(255, 'a'));
        EXPECT_EQ(untouched, 0);
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
