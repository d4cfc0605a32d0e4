// Greeting and identification against a scripted boot ROM.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/core.h"
#include "link/device.h"
#include "link/buffer.h"
#include "link/properties.h"
#include "sahara/sahara.h"
#include "support/fake_platform.h"
#include "support/helpers.h"
#include "sahara/target_script.h"

using namespace ravik;
using namespace ravik::test;

namespace {


std::string u32s(std::vector<uint32_t> v)
{
    std::string s;
    for (uint32_t w : v)
        le32(s, w);
    return s;
}

// The target's side of one client command with its payload.
void script_exec(fake_platform &fake, uint32_t cmd, const std::string &payload)
{
    fake.push_bytes(exec_resp(cmd, (uint32_t)payload.size()));
    if (!payload.empty())
        fake.push_bytes(payload);
}

void expect_exec(host_wire &w, uint32_t cmd, bool with_data)
{
    EXPECT_EQ(w.next_packet(), words(13, {cmd}));
    if (with_data) {
        EXPECT_EQ(w.next_packet(), words(15, {cmd}));
    }
}
} // namespace

TEST(SaharaGreeting, IdentifiesByHardwareIdWord)
{
    fake_platform fake;
    on_fresh_thread([&] {
        end_of_session end;
        log_capture c;
        ASSERT_EQ(device_open(), 0);
        fake.push_bytes(hello(0, 3));
        fake.push_bytes(command_ready());
        script_exec(fake, 1, u32s({0xCAFEF00D}));
        script_exec(fake, 2, u32s({0xFFFFFFFF, 0x12345678}));
        script_exec(fake, 7, u32s({0x00010002}));
        ASSERT_EQ(sahara_greet_device(), 0);

        EXPECT_EQ(device_getu("cpu.serial", 0), 0xCAFEF00Du);
        EXPECT_EQ(device_getu("cpu.id", 0), 0x2345u);
        EXPECT_EQ(device_getu("cpu.sv_sbl", 0), 0x00010002u);
        EXPECT_EQ(device_getu("sahara.current_mode", 99), 3u);
        EXPECT_TRUE(c.has("...cpu.id  = 9029 (0x2345)\n"));
        EXPECT_TRUE(c.has("...cpu.sn  = 3405705229 (0xcafef00d)\n"));

        host_wire w{fake.written};
        // The answer is version 2 whatever the target reported.
        EXPECT_EQ(w.next_packet(), words(2, {2, 2, 0, 3}, 48));
        expect_exec(w, 1, true);
        expect_exec(w, 2, true);
        expect_exec(w, 7, true);
        EXPECT_TRUE(w.done());
    });
}

TEST(SaharaGreeting, IdEmbeddedInSerialSkipsTheOtherCommands)
{
    fake_platform fake;
    on_fresh_thread([&] {
        end_of_session end;
        ASSERT_EQ(device_open(), 0);
        fake.push_bytes(hello(0));
        fake.push_bytes(command_ready());
        script_exec(fake, 1, u32s({7, 0x000A0B0C}));
        ASSERT_EQ(sahara_greet_device(), 0);
        EXPECT_EQ(device_getu("cpu.id", 0), 0x000A0B0Cu);
        EXPECT_EQ(device_get("cpu.sv_sbl", nullptr), nullptr);
        host_wire w{fake.written};
        w.next_packet();
        expect_exec(w, 1, true);
        EXPECT_TRUE(w.done());
    });
}

TEST(SaharaGreeting, ZeroSecondWordTakesTheHardwareIdRoad)
{
    fake_platform fake;
    on_fresh_thread([&] {
        end_of_session end;
        ASSERT_EQ(device_open(), 0);
        fake.push_bytes(hello(0));
        fake.push_bytes(command_ready());
        script_exec(fake, 1, u32s({7, 0}));
        script_exec(fake, 2, u32s({0, 0x0ABCD000}));
        script_exec(fake, 7, u32s({1}));
        ASSERT_EQ(sahara_greet_device(), 0);
        EXPECT_EQ(device_getu("cpu.id", 0), 0xABCDu);
    });
}

TEST(SaharaGreeting, DebugRunReadsAndDumpsDebugData)
{
    fake_platform fake;
    on_fresh_thread([&] {
        end_of_session end;
        device_set_flag(DEVICE_FLAG_DEBUG);
        log_capture c;
        ASSERT_EQ(device_open(), 0);
        fake.push_bytes(hello(0));
        fake.push_bytes(command_ready());
        script_exec(fake, 1, u32s({1, 2}));
        script_exec(fake, 6, "debug-bytes");
        ASSERT_EQ(sahara_greet_device(), 0);
        EXPECT_TRUE(c.has("Debug data dump follows\n"));
        EXPECT_TRUE(c.has("00000000  64 65 62 75 67 2d 62 79  74 65 73                 |debug-bytes     |\n"));
        EXPECT_TRUE(c.has("Sending CMD_EXEC packet, cmd=CMD_READ_DEBUG_DATA\n"));

        // An empty debug payload dumps nothing and still succeeds.
        c.lines.clear();
        device_unset("sahara.current_mode");
        fake.push_bytes(hello(0));
        fake.push_bytes(command_ready());
        script_exec(fake, 1, u32s({1, 2}));
        script_exec(fake, 6, "");
        ASSERT_EQ(sahara_greet_device(), 0);
        EXPECT_FALSE(c.has("Debug data dump follows\n"));
    });
}

TEST(SaharaGreeting, FailedPassReopensAndSwitchesModeByCommand)
{
    fake_platform fake;
    on_fresh_thread([&] {
        end_of_session end;
        log_capture c;
        ASSERT_EQ(device_open(), 0);
        // The target reports command mode and then answers wrongly.
        fake.push_bytes(hello(3));
        fake.push_bytes(words(6, {0}));
        // Second pass: the held mode is 3, so the host switches by command.
        fake.push_bytes(command_ready());
        script_exec(fake, 1, u32s({5, 6}));
        uint64_t slept = fake.slept_ms;
        ASSERT_EQ(sahara_greet_device(), 0);
        EXPECT_TRUE(c.has("Unexpected command, expecting 11, got 6 instead.\n"));
        EXPECT_EQ(fake.open_calls, 2);
        EXPECT_EQ(fake.close_calls, 1);
        EXPECT_EQ(fake.slept_ms - slept, 500u);
        host_wire w{fake.written};
        EXPECT_EQ(w.next_packet(), words(2, {2, 2, 0, 3}, 48));
        EXPECT_EQ(w.next_packet(), words(12, {3}));
    });
}

TEST(SaharaGreeting, ThreePassesThenTheLastCode)
{
    fake_platform fake;
    on_fresh_thread([&] {
        end_of_session end;
        ASSERT_EQ(device_open(), 0);
        for (int i = 0; i < 3; i++)
            fake.push_bytes(end_image(0));
        int32_t code = sahara_greet_device();
        EXPECT_EQ(code & 0xFF, 128);
        EXPECT_STREQ(format_error(code), "sahara_greet_device()->change_mode()->do_hello()->Success");
        EXPECT_EQ(fake.open_calls, 3);

        // A silent line: each pass waits out the device layer's 11 s.
        device_unset("sahara.current_mode");
        double t0 = fake.clock;
        code = sahara_greet_device();
        EXPECT_EQ(code & 0xFF, ERR_IO);
        EXPECT_NEAR(fake.clock - t0, 3 * 11.0 + 2 * 0.5, 0.01);

        // A reopen that fails uses up a pass and is the result.
        fake.open_fails = true;
        code = sahara_greet_device();
        EXPECT_EQ(code & 0xFF, ERR_OPEN_DEVICE);
    });
}

TEST(SaharaGreeting, HostileAndBrokenAnswers)
{
    fake_platform fake;
    on_fresh_thread([&] {
        end_of_session end;
        ASSERT_EQ(device_open(), 0);
        // Each case: the greeting reaches command mode, then the target's
        // answer to CMD_READ_SN is the case.
        auto run = [&](std::vector<std::string> answers) {
            device_unset("sahara.current_mode");
            fake.clear_script();
            fake.written.clear();
            fake.push_bytes(hello(0));
            fake.push_bytes(command_ready());
            for (auto &a : answers)
                fake.push_bytes(a);
            return sahara_greet_device() & 0xFF;
        };
        auto data_packets_sent = [&] {
            host_wire w{fake.written};
            int n = 0;
            for (std::string p = w.next_packet(); !p.empty(); p = w.next_packet())
                n += rd32(p, 0) == 15;
            return n;
        };
        // A payload in two pieces: the one read takes only the first.
        EXPECT_EQ(run({exec_resp(1, 8), "abcd", "efgh"}), ERR_IO);
        // More than the transfer buffer holds is refused before it is asked for.
        EXPECT_EQ(run({exec_resp(1, 2u << 20)}), ERR_RANGE);
        EXPECT_EQ(data_packets_sent(), 0);
        // An answer for another client command.
        EXPECT_EQ(run({exec_resp(2, 4), u32s({1})}), ERR_GENERAL);
        // No payload, or a negative length: nothing asked for, too short.
        EXPECT_EQ(run({exec_resp(1, 0)}), ERR_GENERAL);
        EXPECT_EQ(data_packets_sent(), 0);
        EXPECT_EQ(run({exec_resp(1, 0x80000000u)}), ERR_GENERAL);
        EXPECT_EQ(data_packets_sent(), 0);
        // A length field that lies about the bytes that came.
        std::string liar = exec_resp(1, 4);
        liar[4] = 48;
        EXPECT_EQ(run({liar}), ERR_IO);
        // Two packets joined in one read.
        EXPECT_EQ(run({exec_resp(1, 4) + u32s({1})}), ERR_IO);
        // A target status beyond the table still makes a one-byte code.
        EXPECT_EQ(run({end_image(0xFFFFFFFF)}), 255);
        EXPECT_STREQ(format_error(255), "Unknown sahara error");
    });
}

TEST(SaharaGreeting, ShortPacketWriteAndBusyBuffer)
{
    fake_platform fake;
    on_fresh_thread([&] {
        end_of_session end;
        ASSERT_EQ(device_open(), 0);
        // The port takes only part of HELLO_RESP, on every pass.
        for (int i = 0; i < 3; i++)
            fake.push_bytes(hello(0));
        fake.write_caps = {20, 20, 20};
        EXPECT_EQ(sahara_greet_device() & 0xFF, ERR_IO);

        // Another layer holds the transfer buffer: identification cannot run.
        fake.clear_script();
        device_unset("sahara.current_mode");
        fake.push_bytes(hello(0));
        fake.push_bytes(command_ready());
        fake.push_bytes(exec_resp(1, 4));
        ASSERT_EQ(__buffer_acquire(), 0);
        log_capture c;
        EXPECT_EQ(sahara_greet_device() & 0xFF, ERR_GENERAL);
        EXPECT_TRUE(c.has("*** BUFFER IN USE! BUFFER IN USE!! ***\n"));
        __buffer_release();
    });
}
