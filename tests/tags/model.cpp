// Lookups, setters, number rules, the command text and file loading.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "container/simg_support.h"
#include "core/core.h"
#include "support/helpers.h"
#include "tags/doc_view.h"
#include "tags/tags.h"
#include "tags/tags_internal.h"

using namespace ravik;
using namespace ravik::test;

TEST(TagsLookup, EmptyValuesCountForTheDocumentButNotTheTagline)
{
    doc_of d("<a b=\"\"/>");
    EXPECT_STREQ(xtags_get(d.doc, "a", "b"), "");
    EXPECT_EQ(tagline_get(d.first(), "b"), nullptr);
    EXPECT_EQ(tagline_getu(d.first(), "b", 9), 9u);
    EXPECT_FALSE(tagline_has(d.first(), "b", ""));

    doc_of e("<a b=\"\" B=\"2\"/>");
    EXPECT_STREQ(tagline_get(e.first(), "b"), "2");
    EXPECT_STREQ(xtags_get(e.doc, "a", "b"), "");
    EXPECT_TRUE(tagline_has(e.first(), "B", "2"));
}

TEST(TagsLookup, DocumentWalksOnToTheNextTaglineOfTheName)
{
    doc_of d("<a x=\"1\"/><b y=\"0\"/><A y=\"2\"/>");
    EXPECT_STREQ(xtags_get(d.doc, "a", "y"), "2");
    EXPECT_EQ(xtags_get(d.doc, "c", "y"), nullptr);
    EXPECT_EQ(xtags_get(d.doc, nullptr, "y"), nullptr);
    EXPECT_EQ(xtags_get(d.doc, "a", nullptr), nullptr);
    EXPECT_EQ(xtags_geti(d.doc, "a", "y"), 2);
    EXPECT_EQ(xtags_getu(d.doc, "a", "none"), 0u);
    // xtags_unset looks at the first tagline of the name only.
    EXPECT_EQ(xtags_unset(d.doc, "a", "y"), 0);
    EXPECT_STREQ(xtags_get(d.doc, "a", "y"), "2");
    EXPECT_EQ(xtags_unset(d.doc, "zz", "y"), 0);
    EXPECT_EQ(xtags_unset(d.doc, nullptr, "y"), -1);
}

TEST(TagsLookup, TextAndBooleanChecks)
{
    doc_of d("<a on=\"TRUE\" one=\"1\" yes=\"yes\" name=\"Abc\"/>");
    tagline *l = d.first();
    EXPECT_TRUE(tagline_getb(l, "on", false));
    EXPECT_FALSE(tagline_getb(l, "one", true));
    EXPECT_FALSE(tagline_getb(l, "yes", true));
    EXPECT_TRUE(tagline_getb(l, "missing", true));
    EXPECT_TRUE(tagline_has(l, "NAME", "aBC"));
    EXPECT_FALSE(tagline_has(l, "name", "Ab"));
    EXPECT_FALSE(tagline_has(l, "missing", "x"));
    EXPECT_TRUE(tagline_is(l, "A"));
    EXPECT_FALSE(tagline_is(l, "ab"));
    EXPECT_FALSE(tagline_is(nullptr, "a"));
}

TEST(TagsNumbers, BaseDetectionAndThirtyTwoBitLimits)
{
    doc_of d("<n hex=\"0x10\" oct=\"010\" word=\"abc\" big=\"0xFFFFFFFF\" huge=\"99999999999999999999999\""
             " neg=\"-1\" negfive=\"-5\" low=\"-0x80000001\" lead=\" +7x\" gap=\"- 7\" two=\"--2\""
             " wide=\"4294967296\" max=\"4294967295\"/>");
    tagline *l = d.first();
    EXPECT_EQ(tagline_getu(l, "hex", 1), 16u);
    EXPECT_EQ(tagline_getu(l, "oct", 1), 8u);
    EXPECT_EQ(tagline_getu(l, "word", 1), 0u); // not a number: 0, not the fallback
    EXPECT_EQ(tagline_geti(l, "big", 0), 0x7FFFFFFF);
    EXPECT_EQ(tagline_getl(l, "big", 0), 0x7FFFFFFF); // "l" is 32 bits too
    EXPECT_EQ(tagline_getu(l, "big", 0), 0xFFFFFFFFu);
    EXPECT_EQ(tagline_geti(l, "huge", 0), INT32_MAX);
    EXPECT_EQ(tagline_getu(l, "huge", 0), UINT32_MAX);
    EXPECT_EQ(tagline_geti(l, "neg", 0), -1);
    EXPECT_EQ(tagline_getu(l, "neg", 0), 0xFFFFFFFFu);
    EXPECT_EQ(tagline_getu(l, "negfive", 0), 0xFFFFFFFBu); // negated in 32 bits, as strtoul there
    EXPECT_EQ(tagline_geti(l, "low", 0), INT32_MIN);
    EXPECT_EQ(tagline_geti(l, "lead", 0), 7);
    EXPECT_EQ(tagline_geti(l, "gap", 5), 0);
    EXPECT_EQ(tagline_geti(l, "two", 5), 0);
    EXPECT_EQ(tagline_getu(l, "wide", 0), UINT32_MAX);
    EXPECT_EQ(tagline_getu(l, "max", 0), 4294967295u);
    EXPECT_EQ(tagline_geti(l, "missing", -3), -3);
}

TEST(TagsNumbers, PointersKeepAllSixtyFourBits)
{
    xtags *doc = xtags_create();
    void *p = reinterpret_cast<void *>(uintptr_t{0x7FFFABCD12345678});
    ASSERT_EQ(xtags_setp(doc, "t", "p", p), 0);
    EXPECT_STREQ(xtags_get(doc, "t", "p"), "0x7FFFABCD12345678");
    EXPECT_EQ(xtags_getp(doc, "t", "p"), p);
    EXPECT_EQ(tagline_getp(first_line(doc), "p", nullptr), p);
    EXPECT_EQ(xtags_getu(doc, "t", "p"), UINT32_MAX); // the 32-bit rule would cut it
    EXPECT_EQ(tagline_getp(first_line(doc), "none", p), p);
    xtags_free(doc);
}

TEST(TagsSet, ChangesTheFirstPairAndRebuildsTheText)
{
    doc_of d("<a b=\"1\"  junk b=\"2\"/>");
    tagline *l = d.first();
    ASSERT_EQ(tagline_set(l, "B", "9"), 0);
    EXPECT_STREQ(l->attrs, "b=\"9\" b=\"2\""); // key as stored, blanks and junk gone
    ASSERT_EQ(tagline_set(l, "c", ""), 0);
    EXPECT_STREQ(l->attrs, "b=\"9\" b=\"2\" c=\"\"");
    ASSERT_EQ(tagline_unset(l, "b"), 0);
    EXPECT_STREQ(l->attrs, "c=\"\"");
    ASSERT_EQ(tagline_unset(l, "c"), 0);
    EXPECT_STREQ(l->attrs, "");
    EXPECT_EQ(tagline_unset(l, "nothing"), 0);

    ASSERT_EQ(tagline_setl(l, "l", -70000L), 0);
    ASSERT_EQ(tagline_seti(l, "i", -2), 0);
    ASSERT_EQ(tagline_setu(l, "u", 4000000000u), 0);
    EXPECT_STREQ(l->attrs, "l=\"-70000\" i=\"-2\" u=\"4000000000\"");
}

TEST(TagsSet, DocumentSettersMakeTheTaglineOnce)
{
    xtags *doc = xtags_create();
    EXPECT_EQ(xtags_set(doc, "device", "k", nullptr), -1);
    EXPECT_TRUE(list_empty(&doc->lines));
    ASSERT_EQ(xtags_set(doc, "device", "k", "v"), 0);
    ASSERT_EQ(xtags_seti(doc, "DEVICE", "i", -1), 0);
    ASSERT_EQ(xtags_setu(doc, "device", "u", 4294967295u), 0);
    ASSERT_EQ(xtags_set(doc, "device", "K", "w"), 0);
    EXPECT_EQ(names_of(&doc->lines), (std::vector<std::string>{"device"}));
    EXPECT_STREQ(first_line(doc)->attrs, "k=\"w\" i=\"-1\" u=\"4294967295\"");
    EXPECT_EQ(xtags_geti(doc, "device", "i"), -1);
    ASSERT_EQ(xtags_unset(doc, "device", "I"), 0);
    EXPECT_STREQ(first_line(doc)->attrs, "k=\"w\" u=\"4294967295\"");

    // An added tagline has no attribute text until its first set.
    tagline *bare = xtags_add(doc, "bare");
    ASSERT_NE(bare, nullptr);
    EXPECT_EQ(bare->attrs, nullptr);
    EXPECT_EQ(xtags_add(doc, nullptr), nullptr);
    xtags_free(doc);
}

TEST(TagsSet, NoMemoryLeavesNoHalfPair)
{
    xtags *doc = xtags_create();
    tagline *l = xtags_add(doc, "t");
    ASSERT_EQ(tagline_set(l, "a", "1"), 0);
    int64_t before = mem_outstanding();
    int failed = 0;
    for (uint64_t n = 1;; n++) {
        mem_fail_nth(n);
        int32_t r = tagline_set(l, "b", "2");
        mem_fail_nth(0);
        if (r == 0)
            break;
        failed++;
        EXPECT_EQ(r & ERR_CODE_MASK, ERR_NO_MEMORY);
        // The new pair is either complete or absent; the text may lag behind.
        auto v = view_of(l);
        EXPECT_TRUE(v.pairs == (std::vector<std::pair<std::string, std::string>>{{"a", "1"}}) ||
                    v.pairs == (std::vector<std::pair<std::string, std::string>>{{"a", "1"}, {"b", "2"}}));
        EXPECT_STREQ(l->attrs, "a=\"1\"");
        tagline_unset(l, "b");
        ASSERT_LT(n, 20u);
    }
    EXPECT_EQ(failed, 4); // value copy, key copy, pair, text
    EXPECT_STREQ(l->attrs, "a=\"1\" b=\"2\"");
    EXPECT_EQ(mem_outstanding(), before + 3);
    xtags_free(doc);
}

TEST(TagsFormat, CommandText)
{
    xtags *doc = xtags_create();
    tagline *bare = xtags_add(doc, "nop");
    char *xml = tagline_format_xml(bare, nullptr);
    EXPECT_STREQ(xml, "<?xml version=\"1.0\"?><data><nop /></data>");
    mem_free(xml);

    // The frame is 39 bytes with the name "t", so the value sets the length.
    tagline *t = xtags_add(doc, "t");
    const size_t frame = strlen("<?xml version=\"1.0\"?><data><t v=\"\"/></data>");
    for (size_t total : {511u, 512u, 513u, 1024u}) {
        tagline_set(t, "v", std::string(total - frame, 'x').c_str());
        size_t len = 0;
        xml = tagline_format_xml(t, &len);
        ASSERT_NE(xml, nullptr);
        EXPECT_EQ(len, strlen(xml));
        if (total % 512 == 0) {
            EXPECT_EQ(len, total + 1);
            EXPECT_EQ(xml[len - 1], '\n');
        } else {
            EXPECT_EQ(len, total);
            EXPECT_NE(xml[len - 1], '\n');
        }
        mem_free(xml);
    }
    mem_fail_nth(1);
    EXPECT_EQ(tagline_format_xml(t, nullptr), nullptr);
    mem_fail_nth(0);
    xtags_free(doc);
}

TEST(TagsDocument, ClearKeepsFiltersAndFlagsAndNullIsHarmless)
{
    xtags *doc = xtags_create();
    xtags_set_flag(doc, XTAGS_FLAG_ACK);
    xtags_add_filter(doc, "k", "v");
    xtags_parse(doc, "<a x=\"1\"/><b compatible=\"k:w\"/>");
    EXPECT_FALSE(list_empty(&doc->dropped));
    xtags_clear(doc);
    EXPECT_TRUE(list_empty(&doc->lines));
    EXPECT_TRUE(list_empty(&doc->dropped));
    EXPECT_TRUE(xtags_has_flag(doc, XTAGS_FLAG_PACKAGE));
    EXPECT_FALSE(xtags_has_flag(doc, XTAGS_FLAG_IGNORE_ERRORS));
    ASSERT_NE(doc->filter, nullptr);
    xtags_free(doc);
    xtags_clear(nullptr);
    xtags_free(nullptr);
    xtags_set_flag(nullptr, 1);
    EXPECT_FALSE(xtags_has_flag(nullptr, 1));
    mem_fail_nth(1);
    EXPECT_EQ(xtags_create(), nullptr);
    mem_fail_nth(0);
}

TEST(TagsLoad, ReadsAndParsesAFile)
{
    temp_cwd cwd;
    const char *text = "<?xml version=\"1.0\"?>\n<data>\n  <board id=\"0x1\" name=\"abc\"/>\n</data>\n";
    write_file("index.xml", text);
    xtags *doc = xtags_create();
    ASSERT_EQ(xtags_parse(doc, text), 0);
    int64_t parsed_blocks = mem_outstanding();
    xtags_clear(doc);
    ASSERT_EQ(xtags_load(doc, "index.xml"), 0);
    EXPECT_STREQ(xtags_get(doc, "board", "name"), "abc");
    EXPECT_EQ(mem_outstanding(), parsed_blocks); // the file's text is gone again
    xtags_free(doc);
}

TEST(TagsLoad, FailuresAndTheirLogLines)
{
    temp_cwd cwd;
    on_fresh_thread([] {
        write_file("empty.xml", "");
        write_file("small.xml", "<a x=\"1\"/>");
        xtags *doc = xtags_create();
        EXPECT_EQ(xtags_load(doc, "empty.xml"), -1);
        EXPECT_EQ(xtags_load(doc, "missing.xml"), -1);
        mem_fail_nth(1);
        EXPECT_EQ(xtags_load(doc, "small.xml"), -1);
        mem_fail_nth(0);
        xtags_free(doc);
        EXPECT_EQ(missing_in_order(current_log(), {"Error reading from file \"empty.xml\"\n",
                                                   "Error loading file empty.xml\n",
                                                   "Error opening file \"missing.xml\"\n",
                                                   "Error loading file missing.xml\n", "Out of memory!\n",
                                                   "Error loading file small.xml\n"}),
                  "")
            << current_log();
    });
}
