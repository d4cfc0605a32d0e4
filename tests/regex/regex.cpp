// The wrappers' flags and results, and the window search the parser rests on.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "core/alloc.h"
#include "regex/regex.h"

using namespace ravik;

namespace {

struct groups {
    char *r[4] = {};
    ~groups()
    {
        for (char *p : r)
            mem_free(p);
    }
};

} // namespace

TEST(RegexMatch, ExtendedCaseBlindAnywhere)
{
    EXPECT_TRUE(regex_match("b+c", "aBBCd"));           // extended '+', case ignored
    EXPECT_TRUE(regex_match("(x|y)z", "--YZ--"));
    EXPECT_FALSE(regex_match("^b", "ab"));
    EXPECT_TRUE(regex_match("a.b", "a\nb"));            // no REG_NEWLINE: '.' takes a line end
    EXPECT_TRUE(regex_match("a[^x]b", "a\nb"));
    EXPECT_FALSE(regex_match("a(", "a("));              // does not compile
    EXPECT_FALSE(regex_match(nullptr, "a"));
    EXPECT_FALSE(regex_match("a", nullptr));
}

TEST(RegexSubMatch, GroupsAndPositionBehindTheMatch)
{
    const char *text = "xx key = \"Val\" tail";
    groups g;
    const char *end = regex_sub_match("([a-z]+) *= *\"([^\"]*)\"(Q)?", text, g.r, 4);
    ASSERT_NE(end, nullptr);
    EXPECT_STREQ(end, " tail");
    EXPECT_STREQ(g.r[0], "key = \"Val\"");
    EXPECT_STREQ(g.r[1], "key");
    EXPECT_STREQ(g.r[2], "Val");
    EXPECT_EQ(g.r[3], nullptr); // took no part
}

TEST(RegexSubMatch, MoreEntriesThanGroupsAreNull)
{
    groups g;
    ASSERT_NE(regex_sub_match("A", "cab", g.r, 3), nullptr);
    EXPECT_STREQ(g.r[0], "a");
    EXPECT_EQ(g.r[1], nullptr);
    EXPECT_EQ(g.r[2], nullptr);
}

TEST(RegexSubMatch, NoMatchBadPatternAndNoMemoryGiveNull)
{
    groups g;
    EXPECT_EQ(regex_sub_match("z", "abc", g.r, 3), nullptr);
    EXPECT_EQ(regex_sub_match("(", "abc", g.r, 3), nullptr);
    for (char *p : g.r)
        EXPECT_EQ(p, nullptr);

    int64_t before = mem_outstanding();
    int failures = 0;
    for (uint64_t n = 1; n < 10; n++) {
        groups h;
        mem_fail_nth(n);
        const char *end = regex_sub_match("(a)(b)", "xab", h.r, 3);
        mem_fail_nth(0);
        if (!end) {
            failures++;
            for (char *p : h.r)
                EXPECT_EQ(p, nullptr) << "n=" << n;
        }
    }
    EXPECT_EQ(failures, 4); // the slots array and the three texts
    EXPECT_EQ(mem_outstanding(), before);
}

TEST(RegexSubMatchDeathTest, AssertsItsPreconditions)
{
    char *r[3];
#ifdef NDEBUG
    // Without assertions the wrapper still refuses them.
    EXPECT_EQ(regex_sub_match("a", nullptr, r, 3), nullptr);
    EXPECT_EQ(regex_sub_match("a", "a", r, 0), nullptr);
#else
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(regex_sub_match("a", nullptr, r, 3), "string && result && \\(max > 0\\)");
    EXPECT_DEATH(regex_sub_match("a", "a", r, 0), "string && result && \\(max > 0\\)");
#endif
}

TEST(RegexSearch, WindowBoundsTheMatch)
{
    regex_prog p("b+");
    ASSERT_TRUE(p.ready);
    // (The sanitizer's own regexec measures the whole text, so the text keeps
    // its NUL here; the window alone decides what can match.)
    std::string text = "abbcbbb";
    regmatch_t m[1];
    ASSERT_EQ(regex_search(p, text.data(), 0, text.size(), m, 1), REGEX_FOUND);
    EXPECT_EQ(m[0].rm_so, 1);
    EXPECT_EQ(m[0].rm_eo, 3);
    // Offsets count from the text, not from the window.
    ASSERT_EQ(regex_search(p, text.data(), 3, text.size(), m, 1), REGEX_FOUND);
    EXPECT_EQ(m[0].rm_so, 4);
    EXPECT_EQ(m[0].rm_eo, 7);
    // The end of the window cuts the longest match.
    ASSERT_EQ(regex_search(p, text.data(), 3, 5, m, 1), REGEX_FOUND);
    EXPECT_EQ(m[0].rm_eo, 5);
    EXPECT_EQ(regex_search(p, text.data(), 3, 4, m, 1), REGEX_NONE);
    EXPECT_EQ(regex_search(p, text.data(), 5, 4, m, 1), REGEX_FAILED);
}

TEST(RegexSearch, SameMatchesAsTheWrapperAlongAText)
{
    const char *pattern = "<[a-z]+( [a-z]+=\"[^\"]*\")*/>|<!--[^!]*-->";
    std::string text = "<a/> junk <!-- c --> <bb x=\"1\" y=\"\"/><!-- d! --> <c/> -->";
    regex_prog p(pattern);
    ASSERT_TRUE(p.ready);
    size_t at = 0;
    const char *cursor = text.c_str();
    for (;;) {
        groups g;
        const char *end = regex_sub_match(pattern, cursor, g.r, 2);
        regmatch_t m[2];
        regex_result r = regex_search(p, text.c_str(), at, text.size(), m, 2);
        if (!end) {
            EXPECT_EQ(r, REGEX_NONE);
            break;
        }
        ASSERT_EQ(r, REGEX_FOUND);
        EXPECT_EQ(std::string(g.r[0]), text.substr(m[0].rm_so, m[0].rm_eo - m[0].rm_so));
        EXPECT_EQ((size_t)m[0].rm_eo, (size_t)(end - text.c_str()));
        cursor = end;
        at = (size_t)m[0].rm_eo;
    }
}
