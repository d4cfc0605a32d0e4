// Per-thread blocks and error chains.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>

#include "core/core.h"
#include "support/helpers.h"

using namespace ravik;
using namespace ravik::test;

TEST(Tls, SlotsSizesAndFreshThreads)
{
    on_fresh_thread([] {
        EXPECT_EQ(tls_get(3, 16), nullptr);
        EXPECT_EQ(tls_get(TLS_SLOT_DEVICE, 0), nullptr);
        auto *a = static_cast<uint8_t *>(tls_get(TLS_SLOT_DEVICE, 64));
        ASSERT_NE(a, nullptr);
        for (int i = 0; i < 64; i++)
            EXPECT_EQ(a[i], 0);
        a[0] = 42;
        // The size counts only in the request that creates the block.
        EXPECT_EQ(tls_get(TLS_SLOT_DEVICE, 8), a);
        EXPECT_EQ(tls_get(TLS_SLOT_DEVICE, 0), nullptr);

        // Another thread has its own zeroed block.
        std::thread([&] {
            auto *b = static_cast<uint8_t *>(tls_get(TLS_SLOT_DEVICE, 64));
            ASSERT_NE(b, nullptr);
            EXPECT_NE(b, a);
            EXPECT_EQ(b[0], 0);
        }).join();
        EXPECT_EQ(a[0], 42);

        tls_thread_detach();
        tls_thread_detach(); // nothing left: harmless
        auto *c = static_cast<uint8_t *>(tls_get(TLS_SLOT_DEVICE, 64));
        ASSERT_NE(c, nullptr);
        EXPECT_EQ(c[0], 0);
    });
}

TEST(Tls, ThreadEndFreesBlocks)
{
    int64_t before = mem_outstanding();
    on_fresh_thread([] {
        ASSERT_NE(tls_get(TLS_SLOT_ERROR, 32), nullptr);
        ASSERT_NE(tls_get(TLS_SLOT_DEVICE, 32), nullptr);
    });
    EXPECT_EQ(mem_outstanding(), before);
}

TEST(Tls, FailedAllocationRetriesNextTime)
{
    on_fresh_thread([] {
        mem_fail_nth(1);
        EXPECT_EQ(tls_get(TLS_SLOT_DEVICE, 32), nullptr);
        mem_fail_nth(0);
        EXPECT_NE(tls_get(TLS_SLOT_DEVICE, 32), nullptr);
        // Without an error block: ERR_TLS, codes pass unchanged, no text.
        tls_thread_detach();
        mem_fail_nth(1);
        EXPECT_EQ(get_error(), ERR_TLS);
        mem_fail_nth(1);
        EXPECT_EQ(__add_context("f", ERR_IO), ERR_IO);
        mem_fail_nth(1);
        EXPECT_STREQ(format_error(ERR_IO), "");
        mem_fail_nth(0);
    });
}

TEST(Tls, DetachedSlotsGiveNullUntilAttachedAgain)
{
    on_fresh_thread([] {
        tls_thread_detach();
        tls_proc_detach();
        EXPECT_EQ(tls_get(TLS_SLOT_ERROR, 16), nullptr);
        EXPECT_EQ(get_error(), ERR_TLS);
        EXPECT_EQ(tls_proc_attach(), 0);
        EXPECT_NE(tls_get(TLS_SLOT_ERROR, 16), nullptr);
    });
}

TEST(ErrorChain, ContextsBuildOutermostFirst)
{
    on_fresh_thread([] {
        int32_t c = __add_context("a", ERR_IO);
        EXPECT_NE(c, ERR_IO);
        EXPECT_EQ(c & 0xFF, ERR_IO);
        EXPECT_EQ(__add_context("b", c), c);
        EXPECT_STREQ(format_error(c), "b()->a()->IO error");
        // Handing the same code up twice names the function twice.
        __add_context("b", c);
        EXPECT_STREQ(format_error(c), "b()->b()->a()->IO error");
        EXPECT_EQ(__add_context("x", 0), 0);
        EXPECT_STREQ(format_error(0), "");
        EXPECT_STREQ(format_error(ERR_GENERAL), "general error");
    });
}

TEST(ErrorChain, FifthChainTakesTheFirstSlot)
{
    on_fresh_thread([] {
        int32_t codes[5];
        for (int i = 0; i < 5; i++)
            codes[i] = __add_context(("f" + std::to_string(i)).c_str(), ERR_NOT_FOUND);
        for (int i = 0; i < 5; i++)
            EXPECT_EQ((codes[i] >> 8) & 0xFF, i % 4 + 1);
        // The first code now renders the chain that took its slot over.
        EXPECT_STREQ(format_error(codes[0]), "f4()->not found");
        EXPECT_STREQ(format_error(codes[1]), "f1()->not found");
    });
}

TEST(ErrorChain, NameThatNoLongerFitsIsDropped)
{
    on_fresh_thread([] {
        std::string name(100, 'n');
        int32_t c = __add_context(name.c_str(), ERR_RANGE);
        // "out of room or range" + NUL = 21 bytes, each link 104 bytes.
        for (int i = 0; i < 10; i++)
            __add_context(name.c_str(), c);
        std::string text = format_error(c);
        EXPECT_EQ(text.size() + 1, 21u + 4 * 104u);
        EXPECT_EQ(text.substr(text.size() - 20), "out of room or range");
        // A short name still fits in what is left.
        __add_context("short", c);
        EXPECT_EQ(std::string(format_error(c)).rfind("short()->", 0), 0u);
    });
}

TEST(ErrorChain, UnusedSlotAndOddCodes)
{
    on_fresh_thread([] {
        EXPECT_STREQ(format_error(0x300 | ERR_IO), "bug!");
        EXPECT_STREQ(format_error(128), "Success");
        EXPECT_STREQ(format_error(129), "Invalid command received in current state");
        EXPECT_STREQ(format_error(163), "Failed to find hash table in ELF image");
        EXPECT_STREQ(format_error(164), "Unknown sahara error");
        EXPECT_STREQ(format_error(24), "unknown error");
        EXPECT_STREQ(format_error(127), "unknown error");
        // Values that are no code never index a chain.
        int32_t c = __add_context("lower", -1);
        EXPECT_EQ(c & 0xFF, ERR_GENERAL);
        EXPECT_STREQ(format_error(c), "lower()->general error");
        EXPECT_STREQ(format_error(0x700 | ERR_IO), "general error");
        EXPECT_STREQ(format_error(-1), "general error");
    });
}

TEST(ErrorChain, SetAndGetLastError)
{
    on_fresh_thread([] {
        EXPECT_EQ(get_error(), 0);
        EXPECT_EQ(set_error(ERR_NAK), 0);
        EXPECT_EQ(get_error(), ERR_NAK);
        std::thread([] { EXPECT_EQ(get_error(), 0); }).join();
        EXPECT_EQ(get_error(), ERR_NAK);
    });
}
