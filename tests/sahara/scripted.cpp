// Against a scripted boot ROM: the greeting, the chip's identity and the upload.
#include <gtest/gtest.h>

#include "sahara/sahara.h"
#include "sahara/target_script.h"
#include "support/firehose.h"

using namespace ravik;
using namespace ravik::test;

namespace {
using pieces = std::vector<std::string>;
// HELLO, COMMAND_READY, then the target's side of each client command, one read a piece.
pieces greeting(uint32_t version, std::vector<std::pair<uint32_t, std::string>> answers)
{
    pieces in{hello(0, version), command_ready()};
    for (auto &[cmd, payload] : answers)
        in.insert(in.end(), {exec_resp(cmd, (uint32_t)payload.size()), payload});
    return in;
}
// CMD_EXEC and CMD_EXEC_DATA of each.
std::string execs(std::vector<uint32_t> cmds)
{
    std::string s;
    for (uint32_t cmd : cmds)
        s += words(13, {cmd}) + words(15, {cmd});
    return s;
}
} // namespace

TEST(SaharaGreeting, WaysToTheChipId)
{
    const std::string cmd_mode = hello_resp(3);
    struct { pieces in; uint32_t id, sbl; std::string sent; pieces logs; } rows[] = {
        // The hardware id's bits 12 to 27.
        {greeting(3, {{1, u32s({0xCAFEF00D})}, {2, u32s({~0u, 0x12345678})}, {7, u32s({0x10002})}}), 0x2345,
         0x10002, cmd_mode + execs({1, 2, 7}), {"...cpu.id  = 9029 (0x2345)\n", "...cpu.sn  = 3405705229 (0xcafef00d)\n"}},
        // Embedded in the serial number.
        {greeting(2, {{1, u32s({7, 0xA0B0C})}}), 0xA0B0C, 0, cmd_mode + execs({1}), {}},
        {greeting(2, {{1, u32s({7, 0})}, {2, u32s({0, 0x0ABCD000})}, {7, u32s({1})}}), 0xABCD, 1,
         cmd_mode + execs({1, 2, 7}), {}},
    };
    for (auto &r : rows)
        with_open_device([&](fake_platform &fake) {
            log_capture c;
            for (auto &p : r.in)
                fake.push_bytes(p);
            ASSERT_EQ(sahara_greet_device(), 0);
            EXPECT_EQ(std::tuple(device_getu("cpu.id", 0), device_getu("cpu.sv_sbl", 0),
                                 device_getu("sahara.current_mode", 9)), std::tuple(r.id, r.sbl, 3u));
            EXPECT_EQ(device_getu("cpu.serial", 0), le(r.in[3], 0, 4));
            EXPECT_EQ(fake.written, r.sent);
            for (auto &l : r.logs)
                EXPECT_TRUE(c.has(l)) << l;
            EXPECT_EQ(std::tuple(fake.open_calls, fake.close_calls), std::tuple(1, 0));
        });
}

TEST(SaharaDownload, Failures)
{
    const std::string H = hello(0), huge = "data chunk >= 4GB not supported\n";
    // quiet: nothing of the image went out, nor DONE.
    struct { pieces in; int code; std::string log = "", chain = ""; bool quiet = false; } rows[] = {
        {{}, ERR_IO, "", "sahara_download()->change_mode()->do_hello()->IO error", true}, // no greeting
        {{H, end_image(5)}, 133, "", "sahara_download()->Invalid packet size received", true},
        {{H, read_data(0, 10), H}, ERR_GENERAL, "Unexpected command, expecting 3 or 18 or 4, got 1 instead.\n"},
        {{H, read_data(0, 10001)}, ERR_RANGE, "", "", true},
        {{H, read_data(0xFFFFFFF0u, 0x20)}, ERR_RANGE, "", "", true},
        {{H, read_data_64(0, 0, 1ull << 32)}, ERR_RANGE, huge, "", true},
        {{H, read_data_64(0, 1ull << 32, 1)}, ERR_RANGE, huge, "", true},
    };
    const std::string image = pattern(10000, 1);
    for (auto &r : rows)
        with_open_device([&](fake_platform &fake) {
            log_capture c;
            device_setu("sahara.current_mode", 3);
            for (auto &p : r.in)
                fake.push_bytes(p);
            int32_t code = sahara_download(image.data(), (uint32_t)image.size());
            EXPECT_EQ(code & 0xFF, r.code) << r.in.size();
            EXPECT_TRUE(r.chain.empty() || format_error(code) == r.chain) << format_error(code);
            EXPECT_TRUE(r.log.empty() || c.has(r.log)) << r.log;
            EXPECT_EQ(c.has(huge), r.log == huge);
            EXPECT_TRUE(!r.quiet || fake.written == words(12, {0}) + (r.in.empty() ? "" : hello_resp(0)));
        });
}
