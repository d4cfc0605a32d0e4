// Lookups, setters, number rules, the command text, file loading and the
// compatibility filters.
#include <gtest/gtest.h>

#include <functional>

#include "core/core.h"
#include "support/bytes.h"
#include "support/helpers.h"
#include "tags/doc_view.h"
#include "tags/tags_internal.h"

using namespace ravik;
using namespace ravik::test;

namespace {
using names = std::vector<std::string>;
std::string xml_of(const tagline *l)
{
    size_t len = 0;
    char *xml = tagline_format_xml(l, &len);
    std::string s = xml ? xml : "(null)";
    EXPECT_EQ(len, xml ? s.size() : 0u);
    mem_free(xml);
    return s;
}
std::string text_of(const char *s) { return s ? s : "(null)"; }
} // namespace

TEST(TagsLookup, EmptyValuesCaseBooleansAndTheNextTaglineOfTheName)
{
    doc_of d(R"(<a b="" B="2" on="TRUE" one="1" yes="yes" name="Abc"/><b y="0"/><A y="2"/>)"), e(R"(<a b=""/>)");
    tagline *l = d.first();
    // An empty value counts for the document, not for the tagline.
    EXPECT_EQ(text_of(xtags_get(d.doc, "a", "b")) + "|" + text_of(tagline_get(l, "b")) + "|" + text_of(tagline_get(e.first(), "b")), "|2|(null)");
    EXPECT_EQ(tagline_getu(e.first(), "b", 9), 9u);
    EXPECT_EQ(text_of(xtags_get(d.doc, "a", "y")) + text_of(xtags_get(d.doc, "c", "y")) + text_of(xtags_get(d.doc, nullptr, "y")) +
                  text_of(xtags_get(d.doc, "a", nullptr)), "2(null)(null)(null)");
    EXPECT_EQ(std::pair(xtags_geti(d.doc, "a", "y"), xtags_getu(d.doc, "a", "none")), std::pair(2, 0u));
    EXPECT_EQ(xtags_unset(d.doc, "a", "y") + xtags_unset(d.doc, "zz", "y") + xtags_unset(d.doc, nullptr, "y"), -1);
    EXPECT_STREQ(xtags_get(d.doc, "a", "y"), "2"); // unset looks at the first tagline of the name only
    EXPECT_EQ((std::vector<bool>{tagline_getb(l, "on", false), tagline_getb(l, "one", true), tagline_getb(l, "yes", true),
                                 tagline_getb(l, "missing", true), tagline_has(l, "NAME", "aBC"), tagline_has(l, "B", "2"),
                                 tagline_has(l, "name", "Ab"), tagline_has(l, "missing", "x"), tagline_has(e.first(), "b", ""),
                                 tagline_is(l, "A"), tagline_is(l, "ab"), tagline_is(nullptr, "a")}),
              (std::vector<bool>{true, false, false, true, true, true, false, false, false, true, false, false}));
}

TEST(TagsNumbers, BaseDetectionThirtyTwoBitLimitsAndPointers)
{
    struct { const char *text; int32_t i; uint32_t u; } cases[] = {{"0x10", 16, 16}, {"010", 8, 8}, {"abc", 0, 0}, // not a number: 0, not the fallback
                 {"0xFFFFFFFF", INT32_MAX, UINT32_MAX}, {"99999999999999999999999", INT32_MAX, UINT32_MAX},
                 {"-1", -1, UINT32_MAX}, {"-5", -5, 0xFFFFFFFBu}, // negated in 32 bits
                 {"-2147483648", INT32_MIN, 0x80000000u}, {"-0x80000001", INT32_MIN, 0x7FFFFFFFu},
                 {" +7x", 7, 7}, {"- 7", 0, 0}, {"--2", 0, 0}, {"4294967296", INT32_MAX, UINT32_MAX},
                 {"4294967295", INT32_MAX, 4294967295u}};
    for (auto &c : cases) {
        doc_of d(("<n v=\"" + std::string(c.text) + "\"/>").c_str());
        EXPECT_EQ(std::tuple(tagline_geti(d.first(), "v", 5), tagline_getl(d.first(), "v", 5), tagline_getu(d.first(), "v", 5)),
                  std::tuple(c.i, c.i, c.u)) << c.text; // "l" is 32 bits too
    }
    doc_of d("");
    void *p = reinterpret_cast<void *>(uintptr_t{0x7FFFABCD12345678}); // pointers keep all 64 bits
    ASSERT_EQ(xtags_setp(d.doc, "t", "p", p), 0);
    EXPECT_STREQ(xtags_get(d.doc, "t", "p"), "0x7FFFABCD12345678");
    EXPECT_TRUE(xtags_getp(d.doc, "t", "p") == p && tagline_getp(d.first(), "p", nullptr) == p && tagline_getp(d.first(), "x", p) == p);
    EXPECT_EQ(xtags_getu(d.doc, "t", "p"), UINT32_MAX);
    EXPECT_EQ(tagline_geti(d.first(), "missing", -3), -3);
}

TEST(TagsSet, ChangesTheFirstPairRebuildsTheTextAndLeavesNoHalfPair)
{
    doc_of d(R"(<a b="1"  junk b="2"/>)");
    tagline *l = d.first();
    std::function<int32_t()> steps[] = {
        [&] { return tagline_set(l, "B", "9"); }, [&] { return tagline_set(l, "c", ""); }, [&] { return tagline_unset(l, "b"); },
        [&] { return tagline_unset(l, "c"); }, [&] { return tagline_unset(l, "nothing"); }, [&] { return tagline_setl(l, "l", -70000L); },
        [&] { return tagline_seti(l, "i", -2); }, [&] { return tagline_setu(l, "u", 4000000000u); }};
    std::string texts;
    for (auto &step : steps) {
        int32_t r = step();
        texts += std::to_string(r) + ":" + text_of(l->attrs) + "|"; // blanks and junk go
    }
    EXPECT_EQ(texts, "0:b=\"9\" b=\"2\"|0:b=\"9\" b=\"2\" c=\"\"|0:c=\"\"|0:|0:|0:l=\"-70000\"|0:l=\"-70000\" i=\"-2\"|"
                     "0:l=\"-70000\" i=\"-2\" u=\"4000000000\"|");
    int64_t before = mem_outstanding(); // each failure leaves the pair whole or absent, and nothing behind
    uint64_t n = 1;
    for (int32_t r; (r = failing_nth(n, [&] { return tagline_set(l, "b", "2"); })) != 0; n++) {
        ASSERT_EQ(r & ERR_CODE_MASK, ERR_NO_MEMORY);
        auto pairs = view_of(l).pairs; // the text may lag
        EXPECT_TRUE(pairs.size() == 3 || (pairs.size() == 4 && pairs[3] == std::pair<std::string, std::string>("b", "2")));
        EXPECT_STREQ(l->attrs, R"(l="-70000" i="-2" u="4000000000")");
        tagline_unset(l, "b");
        EXPECT_EQ(mem_outstanding(), before) << n;
    }
    EXPECT_GT(n, 1u);
    EXPECT_STREQ(l->attrs, R"(l="-70000" i="-2" u="4000000000" b="2")");
    EXPECT_EQ(xtags_set(d.doc, "device", "k", nullptr), -1);
    EXPECT_EQ((std::vector<int32_t>{xtags_set(d.doc, "device", "k", "v"), xtags_seti(d.doc, "DEVICE", "i", -1),
                                    xtags_setu(d.doc, "device", "u", 4294967295u), xtags_set(d.doc, "device", "K", "w"),
                                    xtags_unset(d.doc, "device", "I")}), std::vector<int32_t>(5, 0));
    EXPECT_EQ(names_of(&d.doc->lines), (names{"a", "device"})); // made once
    EXPECT_STREQ(xtags_get(d.doc, "device", "u"), "4294967295");
    EXPECT_EQ(xml_of(list_entry(d.doc->lines.prev, tagline, link)), R"(<?xml version="1.0"?><data><device k="w" u="4294967295"/></data>)");
    tagline *bare = xtags_add(d.doc, "nop");
    ASSERT_NE(bare, nullptr);
    EXPECT_EQ(bare->attrs, nullptr); // no text until its first set
    EXPECT_EQ(xtags_add(d.doc, nullptr), nullptr);
    EXPECT_EQ(xml_of(bare), R"(<?xml version="1.0"?><data><nop /></data>)");
    doc_of blank(R"(<a b="1" />)");
    EXPECT_EQ(xml_of(blank.first()), R"(<?xml version="1.0"?><data><a b="1" /></data>)"); // blanks go out as they stood
    // The frame around the value of "t" is 43 bytes: a multiple of 512 gets a line end.
    tagline *t = xtags_add(d.doc, "t");
    for (size_t total : {511u, 512u, 513u, 1024u}) {
        tagline_set(t, "v", std::string(total - 43, 'x').c_str());
        std::string xml = xml_of(t);
        EXPECT_EQ(xml.size(), total + (total % 512 == 0));
        EXPECT_EQ(xml.back() == '\n', total % 512 == 0);
    }
    EXPECT_EQ(failing_nth(1, [&] { return xml_of(t); }), "(null)");
}

TEST(TagsDocument, ClearLoadAndNull)
{
    temp_cwd cwd;
    on_fresh_thread([] {
        const char *text = "<?xml version=\"1.0\"?>\n<data>\n  <board id=\"0x1\" name=\"abc\"/>\n</data>\n";
        write_file("index.xml", text);
        write_file("empty.xml", "");
        xtags *doc = xtags_create();
        xtags_set_flag(doc, XTAGS_FLAG_ACK);
        xtags_add_filter(doc, "k", "v");
        ASSERT_EQ(xtags_parse(doc, (text + std::string(R"(<b compatible="k:w"/>)")).c_str()), 0);
        int64_t parsed_blocks = mem_outstanding();
        EXPECT_FALSE(list_empty(&doc->dropped));
        xtags_clear(doc); // filters and flags stay
        EXPECT_TRUE(list_empty(&doc->lines) && list_empty(&doc->dropped) && doc->filter);
        EXPECT_TRUE(xtags_has_flag(doc, XTAGS_FLAG_PACKAGE) && !xtags_has_flag(doc, XTAGS_FLAG_IGNORE_ERRORS));
        write_file("index.xml", text + std::string(R"(<b compatible="k:w"/>)"));
        ASSERT_EQ(xtags_load(doc, "index.xml"), 0);
        EXPECT_STREQ(xtags_get(doc, "board", "name"), "abc");
        EXPECT_EQ(mem_outstanding(), parsed_blocks); // the file's text is gone again
        EXPECT_EQ((std::vector<int32_t>{xtags_load(doc, "empty.xml"), xtags_load(doc, "missing.xml"),
                                        failing_nth(1, [&] { return xtags_load(doc, "index.xml"); })}), std::vector<int32_t>(3, -1));
        EXPECT_EQ(missing_in_order(current_log(), {"Error reading from file \"empty.xml\"\n", "Error loading file empty.xml\n",
                                                   "Error opening file \"missing.xml\"\n", "Error loading file missing.xml\n",
                                                   "Out of memory!\n", "Error loading file index.xml\n"}), "")
            << current_log();
        xtags_free(doc);
    });
    xtags_clear(nullptr);
    xtags_free(nullptr);
    xtags_set_flag(nullptr, 1);
    EXPECT_FALSE(xtags_has_flag(nullptr, 1));
    EXPECT_EQ(failing_nth(1, xtags_create), nullptr);
    EXPECT_EQ(xtags_parse(nullptr, "<a x=\"1\"/>"), -1);
}

namespace {
// Parses `text` under the filters given as key, value, key, value...
struct filtered : doc_of {
    filtered(std::initializer_list<const char *> kv, const std::string &text) : doc_of("")
    {
        for (auto it = kv.begin(); it != kv.end(); it += 2)
            EXPECT_EQ(xtags_add_filter(doc, it[0], it[1]), 0);
        EXPECT_EQ(xtags_parse(doc, text.c_str()), 0);
    }
    names lines() const { return names_of(&doc->lines); }
    names dropped() const { return names_of(&doc->dropped); }
};
} // namespace

TEST(TagsFilter, TheRuleAndTheGrammarOfCompatible)
{
    struct { std::initializer_list<const char *> filters; const char *compatible; bool passes; } cases[] = {
        {{"a", "2", "a", "3"}, "a:1 a:2", true}, {{"a", "1"}, "a:2 a:1", true}, {{"a", "2"}, "a:1 a:1", false},
        {{"b", "1"}, "a:1", false},                                          // a key the filters lack
        {{"a", "1", "b", "1"}, "a:1", true}, {{"a", "1", "b", "1"}, "a:1 b:2", false}, {{"A", "X"}, "a:x", true},
        {{"protocol", "fastboot"}, "protocol : fastboot", true}, {{"a", "1", "b", "2"}, "a:1,b:2", true},
        {{"a", "1", "b", "3"}, "a:1,b:2", false}, {{"a", "b"}, "a:b:c", true}, {{"a", "c"}, "a:b:c", false},
        {{"a", "b", "b", "x"}, "a:b:c", true}, {{"storage.type", "ufs"}, "storage.type:ufs-2", true},
        {{"cpu.name", "sm-8"}, "cpu.name:sm-8", false}, {{"x", "y"}, "anything", true}, {{"x", "y"}, "", true}};
    for (auto &c : cases)
        EXPECT_EQ(filtered(c.filters, "<t compatible=\"" + std::string(c.compatible) + "\"/>").lines().size(), c.passes ? 1u : 0u)
            << c.compatible << " with " << *c.filters.begin() << "=" << c.filters.begin()[1];
    filtered first({"a", "1"}, R"(<t compatible="" compatible="a:1" compatible="a:2"/>)"
                               R"(<u compatible="" compatible="a:2" compatible="a:1"/>)");
    EXPECT_EQ(first.lines(), (names{"t"})); // the first non-empty one counts
    tagline *req = tagline_new(nullptr), *fil = tagline_new(nullptr);
    EXPECT_TRUE(tagline_compatible(nullptr, fil) && tagline_compatible(req, nullptr));
    tagline_set(req, "a", "1");
    EXPECT_FALSE(tagline_compatible(req, nullptr) || tagline_compatible(req, fil)); // filters without pairs
    tagline_set(fil, "a", "1");
    tagline_set(req, "b", ""); // an empty key or value is passed over
    EXPECT_TRUE(tagline_compatible(req, fil));
    EXPECT_EQ(list_entry(req->kvps.next, kvp, link)->done, 1u);
    tagline_set(fil, "a", "2"); // done marks are cleared before each use
    EXPECT_FALSE(tagline_compatible(req, fil));
    tagline_free(req);
    tagline_free(fil);
    EXPECT_EQ(filter_tagline(nullptr, nullptr), nullptr);
}

TEST(TagsFilter, OrdersOverRepeatedFiltering)
{
    const char *text = "<A x=\"1\"/><B compatible=\"protocol:ravik\"/>"
                       "<C compatible=\"storage.type:emmc storage.type:ufs cpu.name:abc\"/>"
                       "<D compatible=\"storage.type:emmc cpu.name:abc\"/><E compatible=\"cpu.vername:2\"/>"
                       "<F compatible=\"CPU.NAME:ABC\"/><G compatible=\"whatever\"/>";
    filtered f({"protocol", "ravik", "protocol", "fastboot", "storage.type", "ufs", "cpu.name", "abc"}, text);
    for (int again = 0; again < 2; again++) { // the same filters again change nothing
        EXPECT_EQ(f.lines(), (names{"A", "B", "C", "F", "G"}));
        EXPECT_EQ(f.dropped(), (names{"D", "E"}));
        ASSERT_EQ(xtags_filter(f.doc), 0);
    }
    ASSERT_EQ(xtags_add_filter(f.doc, "cpu.vername", "2"), 0);
    EXPECT_EQ(f.dropped().size(), 2u); // adding does not filter by itself
    ASSERT_EQ(xtags_filter(f.doc), 0);
    EXPECT_EQ(f.lines(), (names{"A", "B", "C", "F", "G", "E"})); // back behind the others
    EXPECT_STREQ(xtags_get(f.doc, "C", "compatible"), "storage.type:emmc storage.type:ufs cpu.name:abc");
    ASSERT_EQ(xtags_del_filter(f.doc, "PROTOCOL"), 0);
    EXPECT_EQ(view_of(f.doc->filter).pairs.size(), 3u);
    ASSERT_EQ(xtags_clr_filter(f.doc), 0);
    ASSERT_EQ(xtags_filter(f.doc), 0); // without filters nothing moves...
    EXPECT_EQ(f.dropped(), (names{"D"}));
    ASSERT_EQ(xtags_parse(f.doc, text), 0); // ...until the next parse
    EXPECT_EQ(f.lines().size(), 7u);
    EXPECT_TRUE(f.dropped().empty());
    EXPECT_EQ(xtags_add_filter(f.doc, nullptr, "v") + xtags_add_filter(f.doc, "k", nullptr) + xtags_add_filter(f.doc, "", "v") +
                  xtags_add_filter(f.doc, "k", "") + xtags_add_filter(nullptr, "k", "v") + xtags_del_filter(nullptr, "k") + xtags_filter(nullptr), -7);
}

TEST(TagsFilter, NoMemoryDropsTheTagAndSaysSo)
{
    on_fresh_thread([] {
        filtered f({"a", "1"}, R"(<p x="1"/><q compatible="a:1"/>)"), fresh({}, "");
        RK_LOGE("warm-up\n"); // the thread's log blocks exist before counting
        int64_t before = mem_outstanding();
        EXPECT_EQ(failing_nth(1, [&] { return xtags_filter(f.doc); }), 0); // the requirement tagline of q
        EXPECT_EQ(f.dropped(), (names{"q"}));
        EXPECT_EQ(mem_outstanding(), before);
        ASSERT_EQ(xtags_filter(f.doc), 0);
        EXPECT_EQ(f.lines(), (names{"p", "q"})); // memory back: q comes back
        uint64_t n = 1; // a filter that cannot be stored changes nothing
        for (; failing_nth(n, [&] { return xtags_add_filter(f.doc, "b", "2"); }) != 0; n++)
            EXPECT_EQ(view_of(f.doc->filter).pairs.size(), 1u);
        xtags_del_filter(f.doc, "b");
        EXPECT_EQ(view_of(f.doc->filter).pairs.size(), 1u);
        EXPECT_EQ(failing_nth(1, [&] { return xtags_add_filter(fresh.doc, "b", "2"); }), -1);
        EXPECT_EQ(fresh.doc->filter, nullptr);
        EXPECT_EQ(xtags_filter(fresh.doc), 0);
        std::string log = current_log();
        size_t count = 0;
        for (size_t at = log.find("Out of memory!\n"); at != std::string::npos; at = log.find("Out of memory!\n", at + 1))
            count++;
        EXPECT_EQ(count, n + 1); // each failure says so
    });
}
