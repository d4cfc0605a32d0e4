// Compatibility filters: the rule, the grammar of `compatible`, the order of
// lines and dropped over repeated filtering.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/core.h"
#include "support/helpers.h"
#include "tags/doc_view.h"
#include "tags/tags.h"
#include "tags/tags_internal.h"

using namespace ravik;
using namespace ravik::test;

namespace {

using names = std::vector<std::string>;

// Parses `text` under the filters given as key, value, key, value...
struct filtered {
    xtags *doc = xtags_create();
    filtered(std::initializer_list<const char *> kv, const std::string &text)
    {
        for (auto it = kv.begin(); it != kv.end(); it += 2)
            EXPECT_EQ(xtags_add_filter(doc, it[0], it[1]), 0);
        EXPECT_EQ(xtags_parse(doc, text.c_str()), 0);
    }
    ~filtered() { xtags_free(doc); }
    names lines() const { return names_of(&doc->lines); }
    names dropped() const { return names_of(&doc->dropped); }
};

// Does a tag with this `compatible` value pass these filters?
bool passes(std::initializer_list<const char *> kv, const std::string &compatible)
{
    filtered f(kv, "<t compatible=\"" + compatible + "\"/>");
    return f.lines().size() == 1;
}

const char *const WORKED_EXAMPLE = "<A x=\"1\"/>"
                                   "<B compatible=\"protocol:ravik\"/>"
                                   "<C compatible=\"storage.type:emmc storage.type:ufs cpu.name:abc\"/>"
                                   "<D compatible=\"storage.type:emmc cpu.name:abc\"/>"
                                   "<E compatible=\"cpu.vername:2\"/>"
                                   "<F compatible=\"CPU.NAME:ABC\"/>"
                                   "<G compatible=\"whatever\"/>";

} // namespace

TEST(TagsFilter, WorkedExampleAndItsOrders)
{
    filtered f({"protocol", "ravik", "protocol", "fastboot", "storage.type", "ufs", "cpu.name", "abc",
                "cpu.serial", "1234"},
               WORKED_EXAMPLE);
    EXPECT_EQ(f.lines(), (names{"A", "B", "C", "F", "G"}));
    EXPECT_EQ(f.dropped(), (names{"D", "E"}));
    // Filtering again with the same filters changes nothing, orders included.
    ASSERT_EQ(xtags_filter(f.doc), 0);
    EXPECT_EQ(f.lines(), (names{"A", "B", "C", "F", "G"}));
    EXPECT_EQ(f.dropped(), (names{"D", "E"}));
    // A tag that passes now comes back behind the others.
    ASSERT_EQ(xtags_add_filter(f.doc, "cpu.vername", "2"), 0);
    ASSERT_EQ(xtags_filter(f.doc), 0);
    EXPECT_EQ(f.lines(), (names{"A", "B", "C", "F", "G", "E"}));
    EXPECT_EQ(f.dropped(), (names{"D"}));
    // Filtering changes no tagline: compatible goes to the target as written.
    EXPECT_STREQ(xtags_get(f.doc, "C", "compatible"), "storage.type:emmc storage.type:ufs cpu.name:abc");
}

TEST(TagsFilter, AlternativesOnBothSides)
{
    EXPECT_TRUE(passes({"a", "2", "a", "3"}, "a:1 a:2"));
    EXPECT_TRUE(passes({"a", "1"}, "a:2 a:1"));
    EXPECT_FALSE(passes({"a", "2"}, "a:1 a:1"));
    EXPECT_FALSE(passes({"b", "1"}, "a:1"));            // the key is missing
    EXPECT_TRUE(passes({"a", "1", "b", "1"}, "a:1"));   // unmentioned filter keys play no part
    EXPECT_FALSE(passes({"a", "1", "b", "1"}, "a:1 b:2"));
    EXPECT_TRUE(passes({"A", "X"}, "a:x"));
}

TEST(TagsFilter, GrammarOfTheAttribute)
{
    EXPECT_TRUE(passes({"protocol", "fastboot", "cpu.name", "abc"}, "protocol:fastboot cpu.name:abc"));
    EXPECT_TRUE(passes({"protocol", "fastboot"}, "protocol : fastboot"));
    EXPECT_TRUE(passes({"a", "1", "b", "2"}, "a:1,b:2"));
    EXPECT_FALSE(passes({"a", "1", "b", "3"}, "a:1,b:2"));
    EXPECT_TRUE(passes({"a", "b"}, "a:b:c"));           // a=b only
    EXPECT_FALSE(passes({"a", "c"}, "a:b:c"));
    EXPECT_TRUE(passes({"a", "b", "b", "x"}, "a:b:c")); // no pair b=c to fail on
    EXPECT_TRUE(passes({"storage.type", "ufs"}, "storage.type:ufs-2"));
    EXPECT_TRUE(passes({"cpu.name", "sm"}, "cpu.name:sm-8"));
    EXPECT_FALSE(passes({"cpu.name", "sm-8"}, "cpu.name:sm-8"));
    EXPECT_TRUE(passes({"x", "y"}, "anything"));
    EXPECT_TRUE(passes({"x", "y"}, ""));                // empty: no requirement
}

TEST(TagsFilter, FirstNonEmptyCompatibleCounts)
{
    filtered f({"a", "1"}, "<t compatible=\"\" compatible=\"a:1\" compatible=\"a:2\"/>"
                           "<u compatible=\"\" compatible=\"a:2\" compatible=\"a:1\"/>");
    EXPECT_EQ(f.lines(), (names{"t"}));
    EXPECT_EQ(f.dropped(), (names{"u"}));
}

TEST(TagsFilter, WithoutFiltersNothingMoves)
{
    filtered none({}, WORKED_EXAMPLE);
    EXPECT_EQ(none.lines().size(), 7u);

    filtered f({"protocol", "ravik"}, WORKED_EXAMPLE);
    EXPECT_EQ(f.lines(), (names{"A", "B", "G"}));
    // Filters gone: xtags_filter does nothing, the dropped stay out...
    ASSERT_EQ(xtags_clr_filter(f.doc), 0);
    ASSERT_EQ(xtags_filter(f.doc), 0);
    EXPECT_EQ(f.lines(), (names{"A", "B", "G"}));
    EXPECT_EQ(f.dropped().size(), 4u);
    // ...until the next parse, which starts both lists anew.
    ASSERT_EQ(xtags_parse(f.doc, WORKED_EXAMPLE), 0);
    EXPECT_EQ(f.lines().size(), 7u);
    EXPECT_TRUE(f.dropped().empty());
}

TEST(TagsFilter, AddingAndRemovingFilters)
{
    xtags *doc = xtags_create();
    EXPECT_EQ(xtags_add_filter(nullptr, "k", "v"), -1);
    EXPECT_EQ(xtags_add_filter(doc, nullptr, "v"), -1);
    EXPECT_EQ(xtags_add_filter(doc, "k", nullptr), -1);
    EXPECT_EQ(xtags_add_filter(doc, "", "v"), -1);
    EXPECT_EQ(xtags_add_filter(doc, "k", ""), -1);
    EXPECT_EQ(doc->filter, nullptr);
    ASSERT_EQ(xtags_add_filter(doc, "k", "v"), 0);
    ASSERT_EQ(xtags_add_filter(doc, "k", "v"), 0); // duplicates stay
    ASSERT_EQ(xtags_add_filter(doc, "K", "w"), 0);
    ASSERT_EQ(xtags_add_filter(doc, "j", "v"), 0);
    EXPECT_EQ(view_of(doc->filter).pairs.size(), 4u);
    // Adding does not filter by itself.
    xtags_add(doc, "t");
    tagline_set(first_line(doc), "compatible", "k:zz");
    EXPECT_EQ(names_of(&doc->lines), (names{"t"}));
    ASSERT_EQ(xtags_del_filter(doc, "k"), 0);
    EXPECT_EQ(view_of(doc->filter).pairs, (std::vector<std::pair<std::string, std::string>>{{"j", "v"}}));
    ASSERT_EQ(xtags_filter(doc), 0);
    EXPECT_EQ(names_of(&doc->dropped), (names{"t"}));
    EXPECT_EQ(xtags_del_filter(nullptr, "k"), -1);
    EXPECT_EQ(xtags_filter(nullptr), -1);
    xtags_free(doc);
}

TEST(TagsFilter, CompatibleRuleDirectly)
{
    tagline *req = tagline_new(nullptr);
    tagline *fil = tagline_new(nullptr);
    EXPECT_TRUE(tagline_compatible(nullptr, fil));
    EXPECT_TRUE(tagline_compatible(req, nullptr)); // no requirements
    tagline_set(req, "a", "1");
    EXPECT_FALSE(tagline_compatible(req, nullptr));
    EXPECT_FALSE(tagline_compatible(req, fil));    // filters without pairs
    tagline_set(fil, "a", "1");
    EXPECT_TRUE(tagline_compatible(req, fil));
    // An empty key or value in the requirements is passed over.
    tagline_set(req, "b", "");
    EXPECT_TRUE(tagline_compatible(req, fil));
    // done marks are set by the rule and cleared before each use.
    EXPECT_EQ(list_entry(req->kvps.next, kvp, link)->done, 1u);
    tagline_set(fil, "a", "2");
    EXPECT_FALSE(tagline_compatible(req, fil));
    tagline_free(req);
    tagline_free(fil);
    EXPECT_EQ(filter_tagline(nullptr, nullptr), nullptr);
}

TEST(TagsFilter, NoMemoryDropsTheTagAndSaysSo)
{
    on_fresh_thread([] {
        xtags *doc = xtags_create();
        ASSERT_EQ(xtags_add_filter(doc, "a", "1"), 0);
        ASSERT_EQ(xtags_parse(doc, "<p x=\"1\"/><q compatible=\"a:1\"/>"), 0);
        RK_LOGE("warm-up\n"); // the thread's log blocks exist before counting
        int64_t before = mem_outstanding();
        // The first allocation of a filtering is the requirement tagline of q.
        mem_fail_nth(1);
        EXPECT_EQ(xtags_filter(doc), 0);
        mem_fail_nth(0);
        EXPECT_EQ(names_of(&doc->lines), (names{"p"}));
        EXPECT_EQ(names_of(&doc->dropped), (names{"q"}));
        EXPECT_EQ(mem_outstanding(), before);
        // Memory back: q comes back.
        ASSERT_EQ(xtags_filter(doc), 0);
        EXPECT_EQ(names_of(&doc->lines), (names{"p", "q"}));

        // A filter that cannot be stored changes nothing.
        for (uint64_t n = 1; n <= 3; n++) {
            mem_fail_nth(n);
            EXPECT_EQ(xtags_add_filter(doc, "b", "2"), -1);
            mem_fail_nth(0);
        }
        EXPECT_EQ(view_of(doc->filter).pairs.size(), 1u);
        xtags *fresh = xtags_create();
        mem_fail_nth(1);
        EXPECT_EQ(xtags_add_filter(fresh, "b", "2"), -1);
        mem_fail_nth(0);
        EXPECT_EQ(xtags_filter(fresh), 0);
        xtags_free(fresh);
        xtags_free(doc);

        std::string log = current_log();
        size_t count = 0;
        for (size_t at = log.find("Out of memory!\n"); at != std::string::npos;
             at = log.find("Out of memory!\n", at + 1))
            count++;
        EXPECT_EQ(count, 5u);
    });
}
