// The wrappers' flags and results, and the window search the parser rests on.
#include <gtest/gtest.h>

#include <algorithm>

#include "regex/regex.h"
#include "support/helpers.h"

using namespace ravik;
using namespace ravik::test;

TEST(Regex, MatchSubMatchAndSearch)
{
    EXPECT_TRUE(regex_match("b+c", "aBBCd") && regex_match("(x|y)z", "--YZ--")); // extended, case-blind
    EXPECT_TRUE(regex_match("a.b", "a\nb") && regex_match("a[^x]b", "a\nb"));   // no REG_NEWLINE
    EXPECT_FALSE(regex_match("^b", "ab") || regex_match("a(", "a(") || regex_match(nullptr, "a") || regex_match("a", nullptr));
    struct groups {
        char *r[4] = {};
        ~groups() { std::for_each(r, r + 4, mem_free); }
    } g, h, none;
    const char *text = "xx key = \"Val\" tail";
    ASSERT_EQ(regex_sub_match("([a-z]+) *= *\"([^\"]*)\"(Q)?", text, g.r, 4), text + 14);
    EXPECT_EQ(std::string(g.r[0]) + "|" + g.r[1] + "|" + g.r[2], "key = \"Val\"|key|Val");
    EXPECT_EQ(g.r[3], nullptr); // took no part
    ASSERT_NE(regex_sub_match("A", "cab", h.r, 3), nullptr);
    EXPECT_STREQ(h.r[0], "a");
    EXPECT_TRUE(!h.r[1] && !h.r[2]); // more entries than groups
    EXPECT_TRUE(!regex_sub_match("z", "abc", none.r, 3) && !regex_sub_match("(", "abc", none.r, 3) && !none.r[0]);
    int64_t before = mem_outstanding();
    uint64_t n = 1; // a failure fills no slot
    for (groups f; !failing_nth(n, [&] { return regex_sub_match("(a)(b)", "xab", f.r, 3); }) && n < 50; n++)
        EXPECT_TRUE(!f.r[0] && !f.r[1] && !f.r[2]) << n;
    EXPECT_GT(n, 1u);
    EXPECT_EQ(mem_outstanding(), before);

    regex_prog p("b+"), bad("(");
    ASSERT_TRUE(p.ready && !bad.ready);
    const char *s = "abbcbbb"; // a text with its NUL: the sanitizer's regexec measures it
    struct {
        size_t from, to;
        regex_result r;
        regoff_t so, eo; // offsets count from the text, the window bounds the match
    } cases[] = {{0, 7, REGEX_FOUND, 1, 3}, {3, 7, REGEX_FOUND, 4, 7}, {3, 5, REGEX_FOUND, 4, 5},
                 {3, 4, REGEX_NONE, 0, 0}, {5, 4, REGEX_FAILED, 0, 0}};
    for (auto &c : cases) {
        regmatch_t m[1] = {};
        EXPECT_EQ(regex_search(p, s, c.from, c.to, m, 1), c.r) << c.from << ".." << c.to;
        EXPECT_TRUE(c.r != REGEX_FOUND || (m[0].rm_so == c.so && m[0].rm_eo == c.eo)) << c.from << ".." << c.to;
    }
    regmatch_t m[1];
    EXPECT_EQ(regex_search(bad, s, 0, 7, m, 1), REGEX_FAILED);
}
