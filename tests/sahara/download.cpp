// Programmer upload: the target asks for ranges, the host serves them.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/core.h"
#include "link/device.h"
#include "link/properties.h"
#include "sahara/sahara.h"
#include "sahara/target_script.h"
#include "support/fake_platform.h"
#include "support/helpers.h"

using namespace ravik;
using namespace ravik::test;

namespace {

std::string make_image(size_t n)
{
    std::string s(n, '\0');
    for (size_t i = 0; i < n; i++)
        s[i] = (char)(i * 131 + 7);
    return s;
}

// A target in command mode, about to be switched to image transfer.
struct download_fixture {
    fake_platform &fake;
    std::string image = make_image(10000);
    explicit download_fixture(fake_platform &f) : fake(f)
    {
        fake.clear_script();
        fake.written.clear();
        EXPECT_EQ(device_open(), 0);
        device_setu("sahara.current_mode", 3);
        fake.push_bytes(hello(0));
    }
    int32_t run() { return sahara_download(image.data(), (uint32_t)image.size()); }
    // What the host sent after its HELLO_RESP.
    host_wire after_greeting()
    {
        host_wire w{fake.written};
        EXPECT_EQ(w.next_packet(), words(12, {0}));
        EXPECT_EQ(w.next_packet(), words(2, {2, 2, 0, 0}, 48));
        return w;
    }
};

} // namespace

TEST(SaharaDownload, ServesRangesInAnyOrderAndTwice)
{
    fake_platform fake;
    in_session([&] {
        download_fixture d(fake);
        fake.push_all({read_data(4096, 4096), read_data(0, 52), read_data_64(0xFFFFFFFFFFull, 9000, 1000),
                       read_data(0, 52),
                       read_data(10000, 0), // ends exactly at the image end: nothing to send
                       end_image(0), done_resp(1)});
        ASSERT_EQ(d.run(), 0);
        host_wire w = d.after_greeting();
        EXPECT_EQ(w.next_raw(4096), d.image.substr(4096, 4096));
        EXPECT_EQ(w.next_raw(52), d.image.substr(0, 52));
        EXPECT_EQ(w.next_raw(1000), d.image.substr(9000, 1000));
        EXPECT_EQ(w.next_raw(52), d.image.substr(0, 52));
        EXPECT_EQ(w.next_packet(), words(5, {}));
        EXPECT_TRUE(w.done());
        EXPECT_EQ(device_getu("sahara.current_mode", 99), 99u); // 0 reads as the default
    });
}

TEST(SaharaDownload, AfterAResetTheTargetGreetsFirst)
{
    with_open_device([&](fake_platform &fake) {
        device_setu("sahara.current_mode", 0);
        std::string image = make_image(100);
        fake.push_all({hello(0), read_data(0, 100), end_image(0), done_resp(0)});
        ASSERT_EQ(sahara_download(image.data(), 100), 0);
        host_wire w{fake.written};
        EXPECT_EQ(w.next_packet(), words(2, {2, 2, 0, 0}, 48));
        EXPECT_EQ(w.next_raw(100), image);
    });
}

TEST(SaharaDownload, RangesOutsideTheImageFail)
{
    fake_platform fake;
    struct c {
        std::string request;
        bool logged;
    } cases[] = {
        {read_data(0, 10001), false},
        {read_data(0xFFFFFFF0u, 0x20), false},
        {read_data_64(0, 0, 1ull << 32), true},
        {read_data_64(0, 1ull << 32, 1), true},
        {read_data_64(0, 0xFFFFFFFFull, 0xFFFFFFFFull), false},
    };
    for (auto &k : cases) {
        in_session([&] {
            log_capture cap;
            download_fixture d(fake);
            fake.push_bytes(k.request);
            EXPECT_EQ(d.run() & 0xFF, ERR_RANGE);
            EXPECT_EQ(cap.has("data chunk >= 4GB not supported\n"), k.logged);
            EXPECT_TRUE(d.after_greeting().done()); // not a byte of the image went out
        });
    }
}

TEST(SaharaDownload, TargetEndsAndAborts)
{
    fake_platform fake;
    in_session([&] {
        {
            download_fixture d(fake);
            fake.push_bytes(end_image(5));
            int32_t code = d.run();
            EXPECT_EQ(code & 0xFF, 133);
            EXPECT_STREQ(format_error(code), "sahara_download()->Invalid packet size received");
            EXPECT_TRUE(d.after_greeting().done()); // no DONE after an abort
        }
        {
            download_fixture d(fake);
            fake.push_all({end_image(0), done_resp(2)});
            EXPECT_EQ(d.run() & 0xFF, ERR_GENERAL);
        }
        {
            log_capture cap;
            download_fixture d(fake);
            fake.push_all({read_data(0, 10), hello(0)}); // the target restarted mid-transfer
            EXPECT_EQ(d.run() & 0xFF, ERR_GENERAL);
            EXPECT_TRUE(cap.has("Unexpected command, expecting 3 or 18 or 4, got 1 instead.\n"));
        }
        {
            download_fixture d(fake);
            fake.push_bytes(read_data(0, 10));
            fake.write_caps = {UINT32_MAX, UINT32_MAX, 5}; // part of the range only
            EXPECT_EQ(d.run() & 0xFF, ERR_IO);
        }
    });
}

TEST(SaharaDownload, SwitchAndDoneExchangeFailures)
{
    with_open_device([&](fake_platform &fake) {
        // The target does not greet after the switch.
        device_setu("sahara.current_mode", 3);
        std::string image = make_image(64);
        int32_t code = sahara_download(image.data(), 64);
        EXPECT_EQ(code & 0xFF, ERR_IO);
        EXPECT_STREQ(format_error(code), "sahara_download()->change_mode()->do_hello()->IO error");

        // Something other than DONE_RESP answers DONE.
        device_setu("sahara.current_mode", 3);
        log_capture cap;
        fake.push_all({hello(0), end_image(0), read_data(0, 8)});
        EXPECT_EQ(sahara_download(image.data(), 64) & 0xFF, ERR_GENERAL);
        EXPECT_TRUE(cap.has("Unexpected command, expecting 6, got 3 instead.\n"));
    });
}
