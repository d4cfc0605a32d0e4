// Programmer upload: the target asks for ranges, the host serves them.
#include <gtest/gtest.h>

#include "core/core.h"
#include "link/device.h"
#include "link/properties.h"
#include "sahara/sahara.h"
#include "sahara/target_script.h"
#include "support/fake_platform.h"
#include "support/helpers.h"

using namespace ravik;
using namespace ravik::test;

TEST(SaharaDownload, ServesRangesInAnyOrderAndTwice)
{
    const std::string image = pattern(10000, 1);
    // Held mode 3: switched by command; 0 (after a reset): the target greets first.
    for (uint32_t mode : {3u, 0u})
        with_open_device([&](fake_platform &fake) {
            device_setu("sahara.current_mode", mode);
            fake.push_all({hello(0), read_data(4096, 4096), read_data(0, 52),
                           read_data_64(0xFFFFFFFFFFull, 9000, 1000), read_data(0, 52),
                           read_data(10000, 0), // ends exactly at the image end: nothing to send
                           end_image(0), done_resp(1)});
            ASSERT_EQ(sahara_download(image.data(), (uint32_t)image.size()), 0);
            EXPECT_EQ(fake.written, (mode ? words(12, {0}) : "") + hello_resp(0) + image.substr(4096, 4096) +
                                        image.substr(0, 52) + image.substr(9000) + image.substr(0, 52) + words(5, {}));
            EXPECT_EQ(device_getu("sahara.current_mode", 99), 99u); // 0 reads as the default
        });
}

TEST(SaharaDownload, Failures)
{
    const std::string H = hello(0), huge = "data chunk >= 4GB not supported\n";
    // quiet: nothing of the image went out, nor DONE.
    struct { std::vector<std::string> in; std::deque<uint32_t> caps; int code; std::string log = "", chain = "";
             bool quiet = false; } rows[] = {
        {{}, {}, ERR_IO, "", "sahara_download()->change_mode()->do_hello()->IO error", true}, // no greeting
        {{H, end_image(5)}, {}, 133, "", "sahara_download()->Invalid packet size received", true},
        {{H, end_image(0), done_resp(2)}, {}, ERR_GENERAL},
        {{H, end_image(0), read_data(0, 8)}, {}, ERR_GENERAL, "Unexpected command, expecting 6, got 3 instead.\n"},
        {{H, read_data(0, 10), H}, {}, ERR_GENERAL, "Unexpected command, expecting 3 or 18 or 4, got 1 instead.\n"},
        {{H, read_data(0, 10)}, {UINT32_MAX, UINT32_MAX, 5}, ERR_IO}, // part of the range only
        {{H, read_data(0, 10001)}, {}, ERR_RANGE, "", "", true},
        {{H, read_data(0xFFFFFFF0u, 0x20)}, {}, ERR_RANGE, "", "", true},
        {{H, read_data_64(0, 0, 1ull << 32)}, {}, ERR_RANGE, huge, "", true},
        {{H, read_data_64(0, 1ull << 32, 1)}, {}, ERR_RANGE, huge, "", true},
        {{H, read_data_64(0, 0xFFFFFFFFull, 0xFFFFFFFFull)}, {}, ERR_RANGE, "", "", true},
    };
    const std::string image = pattern(10000, 1);
    for (auto &r : rows)
        with_open_device([&](fake_platform &fake) {
            log_capture c;
            device_setu("sahara.current_mode", 3);
            for (auto &p : r.in)
                fake.push_bytes(p);
            fake.write_caps = r.caps;
            int32_t code = sahara_download(image.data(), (uint32_t)image.size());
            EXPECT_EQ(code & 0xFF, r.code) << r.in.size();
            EXPECT_TRUE(r.chain.empty() || format_error(code) == r.chain) << format_error(code);
            EXPECT_TRUE(r.log.empty() || c.has(r.log)) << r.log;
            EXPECT_EQ(c.has(huge), r.log == huge);
            EXPECT_TRUE(!r.quiet || fake.written == words(12, {0}) + (r.in.empty() ? "" : hello_resp(0)));
        });
}
