// Greeting and identification against a scripted boot ROM.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/core.h"
#include "link/buffer.h"
#include "link/device.h"
#include "link/properties.h"
#include "sahara/sahara.h"
#include "sahara/target_script.h"
#include "support/fake_platform.h"
#include "support/helpers.h"

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

// HELLO of `version`, COMMAND_READY, then the target's side of each client
// command with its payload.
void script_greeting(fake_platform &fake, std::vector<std::pair<uint32_t, std::string>> execs,
                     uint32_t version = 2)
{
    fake.push_all({hello(0, version), command_ready()});
    for (auto &[cmd, payload] : execs) {
        fake.push_bytes(exec_resp(cmd, (uint32_t)payload.size()));
        if (!payload.empty())
            fake.push_bytes(payload);
    }
}

// HELLO_RESP for command mode, then CMD_EXEC and CMD_EXEC_DATA of each.
void expect_execs(const std::string &written, std::vector<uint32_t> cmds)
{
    host_wire w{written};
    EXPECT_EQ(w.next_packet(), words(2, {2, 2, 0, 3}, 48)); // version 2 whatever the target said
    for (uint32_t cmd : cmds) {
        EXPECT_EQ(w.next_packet(), words(13, {cmd}));
        EXPECT_EQ(w.next_packet(), words(15, {cmd}));
    }
    EXPECT_TRUE(w.done());
}

} // namespace

TEST(SaharaGreeting, IdentifiesByHardwareIdWord)
{
    with_open_device([&](fake_platform &fake) {
        log_capture c;
        script_greeting(fake,
                        {{1, u32s({0xCAFEF00D})}, {2, u32s({0xFFFFFFFF, 0x12345678})}, {7, u32s({0x00010002})}}, 3);
        ASSERT_EQ(sahara_greet_device(), 0);
        EXPECT_EQ(device_getu("cpu.serial", 0), 0xCAFEF00Du);
        EXPECT_EQ(device_getu("cpu.id", 0), 0x2345u);
        EXPECT_EQ(device_getu("cpu.sv_sbl", 0), 0x00010002u);
        EXPECT_EQ(device_getu("sahara.current_mode", 99), 3u);
        EXPECT_TRUE(c.has("...cpu.id  = 9029 (0x2345)\n"));
        EXPECT_TRUE(c.has("...cpu.sn  = 3405705229 (0xcafef00d)\n"));
        expect_execs(fake.written, {1, 2, 7});
    });
}

TEST(SaharaGreeting, IdEmbeddedInSerialSkipsTheOtherCommands)
{
    with_open_device([&](fake_platform &fake) {
        script_greeting(fake, {{1, u32s({7, 0x000A0B0C})}});
        ASSERT_EQ(sahara_greet_device(), 0);
        EXPECT_EQ(device_getu("cpu.id", 0), 0x000A0B0Cu);
        EXPECT_EQ(device_get("cpu.sv_sbl", nullptr), nullptr);
        expect_execs(fake.written, {1});
    });
}

TEST(SaharaGreeting, ZeroSecondWordTakesTheHardwareIdRoad)
{
    with_open_device([&](fake_platform &fake) {
        script_greeting(fake, {{1, u32s({7, 0})}, {2, u32s({0, 0x0ABCD000})}, {7, u32s({1})}});
        ASSERT_EQ(sahara_greet_device(), 0);
        EXPECT_EQ(device_getu("cpu.id", 0), 0xABCDu);
    });
}

TEST(SaharaGreeting, DebugRunReadsAndDumpsDebugData)
{
    fake_platform fake;
    in_session([&] {
        device_set_flag(DEVICE_FLAG_DEBUG);
        log_capture c;
        ASSERT_EQ(device_open(), 0);
        script_greeting(fake, {{1, u32s({1, 2})}, {6, "debug-bytes"}});
        ASSERT_EQ(sahara_greet_device(), 0);
        EXPECT_TRUE(c.has("Debug data dump follows\n"));
        EXPECT_TRUE(c.has("00000000  64 65 62 75 67 2d 62 79  74 65 73                 |debug-bytes     |\n"));
        EXPECT_TRUE(c.has("Sending CMD_EXEC packet, cmd=CMD_READ_DEBUG_DATA\n"));

        // An empty debug payload dumps nothing and still succeeds.
        c.lines.clear();
        device_unset("sahara.current_mode");
        script_greeting(fake, {{1, u32s({1, 2})}, {6, ""}});
        ASSERT_EQ(sahara_greet_device(), 0);
        EXPECT_FALSE(c.has("Debug data dump follows\n"));
    });
}

TEST(SaharaGreeting, FailedPassReopensAndSwitchesModeByCommand)
{
    with_open_device([&](fake_platform &fake) {
        log_capture c;
        // Command mode, then a wrong answer; on the second pass the held
        // mode is 3, so the host switches by command.
        fake.push_all({hello(3), words(6, {0}), command_ready(), exec_resp(1, 8), u32s({5, 6})});
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
    with_open_device([&](fake_platform &fake) {
        fake.push_all({end_image(0), end_image(0), end_image(0)});
        int32_t code = sahara_greet_device();
        EXPECT_EQ(code & 0xFF, 128);
        EXPECT_STREQ(format_error(code), "sahara_greet_device()->change_mode()->do_hello()->Success");
        EXPECT_EQ(fake.open_calls, 3);

        // A silent line: each pass waits out the device layer's 11 s.
        device_unset("sahara.current_mode");
        double t0 = fake.clock;
        EXPECT_EQ(sahara_greet_device() & 0xFF, ERR_IO);
        EXPECT_NEAR(fake.clock - t0, 3 * 11.0 + 2 * 0.5, 0.01);

        // A reopen that fails uses up a pass and is the result.
        fake.open_fails = true;
        EXPECT_EQ(sahara_greet_device() & 0xFF, ERR_OPEN_DEVICE);
    });
}

TEST(SaharaGreeting, HostileAndBrokenAnswers)
{
    with_open_device([&](fake_platform &fake) {
        // Each case: the greeting reaches command mode, then the target's
        // answer to CMD_READ_SN is the case.
        auto run = [&](std::vector<std::string> answers) {
            device_unset("sahara.current_mode");
            fake.clear_script();
            fake.written.clear();
            script_greeting(fake, {});
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
        std::string liar = exec_resp(1, 4); // a length field that lies about the bytes that came
        liar[4] = 48;
        struct {
            std::vector<std::string> answers;
            int code;
            bool asks_no_data;
        } cases[] = {
            {{exec_resp(1, 8), "abcd", "efgh"}, ERR_IO, false}, // the one read takes only the first piece
            {{exec_resp(1, 2u << 20)}, ERR_RANGE, true},        // more than the transfer buffer holds
            {{exec_resp(2, 4), u32s({1})}, ERR_GENERAL, false}, // an answer for another command
            {{exec_resp(1, 0)}, ERR_GENERAL, true},
            {{exec_resp(1, 0x80000000u)}, ERR_GENERAL, true},
            {{liar}, ERR_IO, false},
            {{exec_resp(1, 4) + u32s({1})}, ERR_IO, false}, // two packets joined in one read
            {{end_image(0xFFFFFFFF)}, 255, false},          // beyond the table, still one byte
        };
        for (auto &k : cases) {
            EXPECT_EQ(run(k.answers), k.code) << k.answers[0].size();
            EXPECT_TRUE(!k.asks_no_data || data_packets_sent() == 0);
        }
        EXPECT_STREQ(format_error(255), "Unknown sahara error");
    });
}

TEST(SaharaGreeting, ShortPacketWriteAndBusyBuffer)
{
    with_open_device([&](fake_platform &fake) {
        // The port takes only part of HELLO_RESP, on every pass.
        fake.push_all({hello(0), hello(0), hello(0)});
        fake.write_caps = {20, 20, 20};
        EXPECT_EQ(sahara_greet_device() & 0xFF, ERR_IO);

        // Another layer holds the transfer buffer: identification cannot run.
        fake.clear_script();
        device_unset("sahara.current_mode");
        script_greeting(fake, {});
        fake.push_bytes(exec_resp(1, 4));
        ASSERT_EQ(__buffer_acquire(), 0);
        log_capture c;
        EXPECT_EQ(sahara_greet_device() & 0xFF, ERR_GENERAL);
        EXPECT_TRUE(c.has("*** BUFFER IN USE! BUFFER IN USE!! ***\n"));
        __buffer_release();
    });
}
