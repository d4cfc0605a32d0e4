// Clock, sizes, hex dump, CRC-32, tokenizer.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "core/core.h"
#include "support/helpers.h"

using namespace ravik;
using namespace ravik::test;

namespace {
// The hex dump's lines at debug level, without their stamps.
std::vector<std::string> dump(const std::string &bytes)
{
    logger_set_level(LOG_DEBUG);
    log_capture c;
    hexdump(bytes.data(), bytes.size());
    return c.lines;
}
} // namespace

TEST(Humanize, ShortestExactForm)
{
    struct {
        uint64_t v;
        const char *text;
    } cases[] = {{0, "0"},          {1000, "1000"},       {1023, "1023"}, {1024, "1K"},
                 {1536, "1536"},    {2048, "2K"},         {1049600, "1025K"},
                 {1048576, "1M"},   {1610612736, "1536M"}, {1073741824, "1G"},
                 {0x40000000ull * 5000, "5000G"}, {UINT64_MAX, "18446744073709551615"}};
    char buf[64];
    for (auto &c : cases)
        EXPECT_STREQ(humanize_r(c.v, buf, sizeof(buf)), c.text);
    char small[3];
    EXPECT_STREQ(humanize_r(1048576 * 123, small, sizeof(small)), "12");
    EXPECT_STREQ(humanize(2048), "2K");
}

TEST(Hexdump, CanonicalLines)
{
    on_fresh_thread([] {
        auto l = dump("0123456789ABCDEF");
        ASSERT_EQ(l.size(), 1u);
        EXPECT_EQ(l[0], "00000000  30 31 32 33 34 35 36 37  38 39 41 42 43 44 45 46  |0123456789ABCDEF|\n");
        l = dump("hello");
        ASSERT_EQ(l.size(), 1u);
        EXPECT_EQ(l[0], "00000000  68 65 6c 6c 6f                                    |hello           |\n");
        l = dump(std::string("0123456789ABCDEF") + "\x01\x7f" + "abcdefghi");
        ASSERT_EQ(l.size(), 2u);
        EXPECT_EQ(l[1], "00000010  01 7f 61 62 63 64 65 66  67 68 69                 |..abcdefghi     |\n");
        EXPECT_TRUE(dump("").empty());
    });
}

TEST(Hexdump, RepeatedLinesCollapse)
{
    on_fresh_thread([] {
        auto l = dump(std::string(64, '\0'));
        ASSERT_EQ(l.size(), 2u);
        EXPECT_EQ(l[1], "*\n");
        // A partial last line after a run always prints, with its offset.
        l = dump(std::string(40, 'z'));
        ASSERT_EQ(l.size(), 3u);
        EXPECT_EQ(l[1], "*\n");
        EXPECT_EQ(l[2].substr(0, 8), "00000020");
        // A run ends at a differing line and a new run gets its own star.
        std::string s = std::string(32, 'a') + std::string(16, 'b') + std::string(32, 'a');
        l = dump(s);
        std::vector<std::string> offsets;
        for (auto &x : l)
            offsets.push_back(x == "*\n" ? "*" : x.substr(0, 8));
        EXPECT_EQ(offsets, (std::vector<std::string>{"00000000", "*", "00000020", "00000030", "*"}));
        // Off below level 3.
        logger_set_level(LOG_INFO);
        log_capture c;
        hexdump("abc", 3);
        EXPECT_TRUE(c.lines.empty());
    });
}

TEST(Crc32, CheckValueAndPieces)
{
    EXPECT_EQ(crc32(0, "123456789", 9), 0xCBF43926u);
    EXPECT_EQ(crc32(0x1234, "", 0), 0x1234u);
    std::string data(10000, '\0');
    for (size_t i = 0; i < data.size(); i++)
        data[i] = (char)(i * 7 + 3);
    uint32_t whole = crc32(0, data.data(), data.size());
    uint32_t part = crc32(0, data.data(), 4321);
    EXPECT_EQ(crc32(part, data.data() + 4321, data.size() - 4321), whole);
}

TEST(Strtok, ReentrantTokens)
{
    char a[] = ",,one,,two;three,";
    char b[] = "x y";
    char *sa = nullptr, *sb = nullptr;
    EXPECT_STREQ(ravik::strtok_r(a, ",;", &sa), "one");
    EXPECT_STREQ(ravik::strtok_r(b, " ", &sb), "x");
    EXPECT_STREQ(ravik::strtok_r(nullptr, ",;", &sa), "two");
    EXPECT_STREQ(ravik::strtok_r(nullptr, " ", &sb), "y");
    EXPECT_STREQ(ravik::strtok_r(nullptr, ",;", &sa), "three");
    EXPECT_EQ(ravik::strtok_r(nullptr, ",;", &sa), nullptr);
    EXPECT_EQ(ravik::strtok_r(nullptr, ",;", &sa), nullptr);
    EXPECT_EQ(ravik::strtok_r(nullptr, " ", &sb), nullptr);
}

TEST(Alloc, NthAllocationFails)
{
    mem_fail_nth(2);
    void *a = mem_zalloc(8);
    void *b = mem_zalloc(8);
    void *c = mem_zalloc(8);
    mem_fail_nth(0);
    EXPECT_NE(a, nullptr);
    EXPECT_EQ(b, nullptr);
    EXPECT_NE(c, nullptr);
    // A failed resize keeps the old block; a grown one comes zeroed.
    auto *p = static_cast<char *>(mem_zalloc(4));
    memcpy(p, "abc", 4);
    mem_fail_nth(1);
    EXPECT_EQ(mem_realloc(p, 4, 64), nullptr);
    EXPECT_STREQ(p, "abc");
    p = static_cast<char *>(mem_realloc(p, 4, 64));
    ASSERT_NE(p, nullptr);
    for (int i = 4; i < 64; i++)
        EXPECT_EQ(p[i], 0);
    mem_free(a);
    mem_free(c);
    mem_free(p);
}
