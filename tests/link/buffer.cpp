// The transfer buffer: its hold, its limits and its reads, writes and prints
// over a scripted line.
#include <gtest/gtest.h>

#include <string>

#include "core/core.h"
#include "link/buffer.h"
#include "link/device.h"
#include "link/properties.h"
#include "support/fake_platform.h"
#include "support/helpers.h"

using namespace ravik;
using namespace ravik::test;

namespace {

int32_t code() { return get_error() & ERR_CODE_MASK; }

} // namespace

TEST(TransferBuffer, SecondAcquireFailsAndTheFirstHoldStands)
{
    with_open_device([](fake_platform &) {
        ASSERT_EQ(__buffer_acquire(), 0);
        ASSERT_EQ(buffer_printf("first %d", 1), 7);
        int32_t r = __buffer_acquire();
        EXPECT_EQ(r & ERR_CODE_MASK, ERR_GENERAL);
        EXPECT_STREQ(format_error(r), "__buffer_acquire()->general error");
        EXPECT_NE(current_log().find("*** BUFFER IN USE! BUFFER IN USE!! ***\n"), std::string::npos);
        EXPECT_EQ(buffer_avail(), 7);
        EXPECT_STREQ(buffer_base(), "first 1");
        // One release ends any hold; the next acquire starts empty.
        EXPECT_EQ(__buffer_release(), 0);
        EXPECT_EQ(__buffer_release(), 0);
        ASSERT_EQ(__buffer_acquire(), 0);
        EXPECT_EQ(buffer_avail(), 0);
    });
}

TEST(TransferBuffer, PrintNeedsAnAcquireAndRoomForTheNul)
{
    with_open_device([](fake_platform &) {
        EXPECT_EQ(buffer_printf("x"), 0);
        EXPECT_EQ(code(), ERR_GENERAL); // never acquired: limit 0

        ASSERT_EQ(__buffer_acquire(), 0);
        std::string all(BUFFER_SIZE, 'a');
        EXPECT_EQ(buffer_printf("%s", all.c_str()), 0); // exactly the room: the NUL does not fit
        EXPECT_EQ(code(), ERR_RANGE);
        EXPECT_EQ(buffer_avail(), 0);
        all.pop_back();
        EXPECT_EQ(buffer_printf("%s", all.c_str()), BUFFER_SIZE - 1);
        EXPECT_EQ(code(), 0);
        EXPECT_EQ(buffer_printf("b"), 0);
        EXPECT_EQ(code(), ERR_RANGE);
        EXPECT_STREQ(format_error(get_error()), "buffer_printf()->out of room or range");
        EXPECT_EQ(buffer_printf("%s", ""), 0);
        EXPECT_EQ(code(), 0);
        EXPECT_EQ(buffer_avail(), BUFFER_SIZE - 1);
    });
}

TEST(TransferBuffer, ReadsAppendUpToTheEndMark)
{
    with_open_device([](fake_platform &fake) {
        fake.push_all({"hello", "world and more"});
        ASSERT_EQ(__buffer_acquire(), 0);
        EXPECT_EQ(buffer_read(8), 5);
        EXPECT_EQ(buffer_read(8), 3); // the mark is absolute: 3 bytes were missing
        EXPECT_STREQ(buffer_base(), "hellowor");
        EXPECT_EQ(buffer_read(8), 0);
        EXPECT_EQ(code(), ERR_RANGE); // not 0 bytes with no error
        // The limit stays for a print: 8 bytes hold no more text.
        EXPECT_EQ(buffer_printf("x"), 0);
        EXPECT_EQ(code(), ERR_RANGE);
        // Rewind keeps the limit.
        EXPECT_EQ(buffer_rewind(), 0);
        EXPECT_EQ(buffer_avail(), 0);
        EXPECT_EQ(buffer_printf("%s", "12345678"), 0);
        EXPECT_EQ(buffer_printf("%s", "1234567"), 7);
        // An idle line is no error at this layer.
        EXPECT_EQ(buffer_rewind(), 0);
        EXPECT_EQ(buffer_read(100), 11);
        EXPECT_EQ(buffer_read(100), 0);
        EXPECT_EQ(get_error(), 0);
    });
}

TEST(TransferBuffer, ReadOfZeroFillsTheWholeBufferAndNoMore)
{
    with_open_device([](fake_platform &fake) {
        fake.push_bytes(std::string(3 * BUFFER_SIZE / 2, 'z'));
        ASSERT_EQ(__buffer_acquire(), 0);
        ASSERT_EQ(buffer_printf("head"), 4);
        EXPECT_EQ(buffer_read(0), BUFFER_SIZE - 4);
        EXPECT_EQ(buffer_avail(), BUFFER_SIZE);
        EXPECT_EQ(buffer_base()[BUFFER_SIZE], '\0'); // readable as text when full
        EXPECT_EQ(strlen(buffer_base()), (size_t)BUFFER_SIZE);
        EXPECT_EQ(buffer_read(0), 0);
        EXPECT_EQ(code(), ERR_RANGE);
    });
}

TEST(TransferBuffer, ReadBeyondTheEndNeverMovesTheLimitPastTheBuffer)
{
    with_open_device([](fake_platform &fake) {
        fake.push_bytes(std::string(2 * BUFFER_SIZE, 'y'));
        ASSERT_EQ(__buffer_acquire(), 0);
        for (int32_t wanted : {BUFFER_SIZE + 1, 2 * BUFFER_SIZE, INT32_MAX}) {
            int before = fake.read_calls;
            EXPECT_EQ(buffer_read(wanted), 0);
            EXPECT_EQ(code(), ERR_RANGE);
            EXPECT_EQ(fake.read_calls, before); // nothing was read
            EXPECT_EQ(buffer_avail(), 0);
            // A print works, and it refuses a print only past a limit of at
            // most the buffer: the limit stayed within it.
            EXPECT_EQ(buffer_printf("p"), 1);
            EXPECT_EQ(buffer_printf("%s", std::string(BUFFER_SIZE - 1, 'q').c_str()), 0);
            EXPECT_EQ(code(), ERR_RANGE);
            EXPECT_EQ(buffer_write(), 1);
            EXPECT_EQ(buffer_rewind(), 0);
        }
        EXPECT_EQ(buffer_read(0), BUFFER_SIZE);
        EXPECT_EQ(buffer_avail(), BUFFER_SIZE);
        EXPECT_EQ(fake.written, "ppp");
    });
}

TEST(TransferBuffer, WriteSendsTheFillOnce)
{
    with_open_device([](fake_platform &fake) {
        ASSERT_EQ(__buffer_acquire(), 0);
        EXPECT_EQ(buffer_write(), 0);
        EXPECT_EQ(code(), ERR_GENERAL); // nothing to write
        ASSERT_EQ(buffer_printf("<data/>"), 7);
        EXPECT_EQ(buffer_write(), 7);
        EXPECT_EQ(get_error(), 0);
        EXPECT_EQ(buffer_avail(), 7); // a write does not consume
        fake.write_cap = 3;
        EXPECT_EQ(buffer_write(), 3); // short, and no error at this layer
        EXPECT_EQ(get_error(), 0);
        fake.write_cap = 0;
        EXPECT_EQ(buffer_write(), 0);
        EXPECT_EQ(code(), ERR_IO);
        EXPECT_STREQ(format_error(get_error()), "buffer_write()->device_write()->IO error");
        // A fill above the limit after a smaller read mark is refused.
        fake.write_cap = UINT32_MAX;
        fake.push_bytes("z");
        EXPECT_EQ(buffer_read(4), 0);
        EXPECT_EQ(buffer_write(), 0);
        EXPECT_EQ(code(), ERR_GENERAL);
        EXPECT_EQ(fake.written, "<data/><da");
    });
}

TEST(TransferBuffer, RegisteredAsAServiceAndFreedWithTheSession)
{
    fake_platform fake;
    in_session([] {
        char *base = buffer_base();
        ASSERT_NE(base, nullptr);
        EXPECT_EQ(device_getp("api.buffer", nullptr), static_cast<void *>(base));
        EXPECT_EQ(buffer_base(), base); // found again, not made again
        int64_t before = mem_outstanding();
        free_device();
        EXPECT_LT(mem_outstanding(), before);
        EXPECT_EQ(device_getp("api.buffer", nullptr), nullptr);
    });
}

TEST(TransferBuffer, NoMemoryLeavesNothingBehind)
{
    fake_platform fake;
    in_session([] {
        ASSERT_NE(get_device(), nullptr);
        int failures = 0;
        for (uint64_t n = 1; n < 20; n++) {
            mem_fail_nth(n);
            char *base = buffer_base();
            mem_fail_nth(0);
            if (base)
                break;
            failures++;
            // No half-made service: no block, no subscriber, no property.
            // (The sanitizer's leak check sees a block that stayed.)
            EXPECT_EQ(code(), ERR_NO_MEMORY) << n;
            std::string chain = format_error(get_error());
            EXPECT_EQ(chain.rfind("get_buffer()->", 0), 0u) << chain;
            EXPECT_EQ(device_getp("api.buffer", nullptr), nullptr);
            int32_t fails_again = 0;
            mem_fail_nth(n);
            fails_again += buffer_avail() == 0;
            mem_fail_nth(n);
            fails_again += (__buffer_acquire() & ERR_CODE_MASK) == ERR_NO_MEMORY;
            mem_fail_nth(n);
            fails_again += buffer_printf("x") == 0 && code() == ERR_NO_MEMORY;
            mem_fail_nth(0);
            EXPECT_EQ(fails_again, 3) << n;
        }
        // The block, the subscription, the property's tagline and its texts.
        EXPECT_GE(failures, 5);
        EXPECT_EQ(__buffer_acquire(), 0);
    });
}
