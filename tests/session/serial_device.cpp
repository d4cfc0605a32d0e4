// Sessions on real pseudo-terminals: exclusive devices and parallel threads.
#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "platform/platform.h"
#include "ravik.h"
#include "support/helpers.h"
#include "support/pty.h"

using namespace ravik;
using namespace ravik::test;

TEST(SessionDevice, HeldDeviceCannotBeOpenedBySecondSession)
{
    pty_pair pty;
    int32_t held = platform_linux().serial_open(pty.slave_path().c_str());
    ASSERT_GE(held, 0);
    on_fresh_thread([&] {
        int32_t code = rk_flash_singleimage(pty.slave_path().c_str(), "x", 0, nullptr, nullptr);
        EXPECT_EQ(code & 0xFF, ERR_OPEN_DEVICE);
    });
    platform_linux().serial_close(held);
}

TEST(SessionDevice, ParallelSessionsKeepTheirOwnState)
{
    pty_pair a, b;
    event_log log_a, log_b;
    int32_t code_a = 0, code_b = 0;
    std::string text_a, text_b;
    std::thread ta([&] {
        code_a = rk_flash_singleimage(a.slave_path().c_str(), "x", DEVICE_FLAG_DEBUG, record_events, &log_a);
        text_a = rk_describe_error(code_a);
    });
    std::thread tb([&] {
        code_b = rk_flash_singleimage(b.slave_path().c_str(), "x", 0, record_events, &log_b);
        text_b = rk_describe_error(code_b);
    });
    ta.join();
    tb.join();
    // Both opened their device and ran until the stages that are not there yet.
    EXPECT_EQ(code_a & 0xFF, code_b & 0xFF);
    EXPECT_NE(code_a & 0xFF, ERR_OPEN_DEVICE);
    EXPECT_EQ(text_a, text_b);
    for (auto &l : log_a.lines)
        EXPECT_EQ(l.find(b.slave_path() + "\n"), std::string::npos) << l;
    for (auto &l : log_b.lines) {
        EXPECT_EQ(l.find(a.slave_path() + "\n"), std::string::npos) << l;
        // Only the debug session logs the device layer's debug line.
        EXPECT_EQ(l.find("Opening serial device"), std::string::npos) << l;
    }
    ASSERT_EQ(log_a.free_names.size(), 1u);
    EXPECT_EQ(log_a.free_names[0], a.slave_path());
    ASSERT_EQ(log_b.free_names.size(), 1u);
    EXPECT_EQ(log_b.free_names[0], b.slave_path());
}
