// Sessions on real pseudo-terminals: exclusive devices and parallel threads.
#include <gtest/gtest.h>

#include <string>

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
