// What the pattern-driven parser makes of texts, good and bad.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "core/core.h"
#include "tags/doc_view.h"
#include "tags/tags.h"

using namespace ravik;
using namespace ravik::test;

namespace {

using pairs_t = std::vector<std::pair<std::string, std::string>>;

// Tokens that make the parser's alternatives meet in odd ways.
std::string random_doc(std::mt19937 &rng, int tokens)
{
    static const char *const pieces[] = {
        "<", ">", "/>", "</", "\"", "=", " ", "\n", "\t", "!", "<!--", "-->", "-", "?>",
        "<?xml version", "<?XML VERSION=\"1.0\"", "a", "B.c", "x_1", "\\", "data", "<data>",
        "</data>", "<a x=\"1\"/>", "<b k=\"v\" j=\"\" />", " y=\"2\"", "compatible=\"a:1\"",
        "\xc3\xa9", "\xff", "&amp;", "'",
    };
    std::uniform_int_distribution<size_t> pick(0, sizeof(pieces) / sizeof(pieces[0]) - 1);
    std::string out;
    for (int i = 0; i < tokens; i++)
        out += pieces[pick(rng)];
    return out;
}

} // namespace

TEST(TagsParse, SelfClosingTagWithItsAttributeText)
{
    auto lines = parsed("<a b=\"1\"/>");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], (line_view{"a", "b=\"1\"", {{"b", "1"}}}));

    // Blanks stay in attrs as written and go out again as they stood.
    doc_of d("<a b=\"1\" />");
    EXPECT_STREQ(d.first()->attrs, "b=\"1\" ");
    size_t len = 0;
    char *xml = tagline_format_xml(d.first(), &len);
    EXPECT_STREQ(xml, "<?xml version=\"1.0\"?><data><a b=\"1\" /></data>");
    EXPECT_EQ(len, strlen(xml));
    mem_free(xml);

    EXPECT_EQ(parsed("< a \t x = \"1\"   y=\"2\"\n/>"),
              (std::vector<line_view>{{"a", "x = \"1\"   y=\"2\"\n", {{"x", "1"}, {"y", "2"}}}}));
    EXPECT_EQ(parsed("<a.b\\c k.1\\z=\"v\"/>")[0].pairs, (pairs_t{{"k.1\\z", "v"}}));
    EXPECT_EQ(parsed("<a.b\\c k=\"v\"/>")[0].name, "a.b\\c");
}

TEST(TagsParse, UnparsableAttributesStayInTheTextOnly)
{
    doc_of d("<a b=\"1\" c=2/>");
    tagline *line = d.first();
    EXPECT_STREQ(line->attrs, "b=\"1\" c=2");
    EXPECT_EQ(view_of(line).pairs, (pairs_t{{"b", "1"}}));
    ASSERT_EQ(tagline_set(line, "d", "3"), 0);
    EXPECT_STREQ(line->attrs, "b=\"1\" d=\"3\"");
}

TEST(TagsParse, NoStructure)
{
    EXPECT_EQ(parsed("<data><a x=\"1\"/></data>"), parsed("<a x=\"1\"/>"));
    // Several answers of the target in one text make one list.
    auto lines = parsed("<?xml version=\"1.0\" encoding=\"UTF-8\" ?><data><log value=\"one\"/></data>"
                        "<?xml version=\"1.0\"?>\n<data>\n<response value=\"ACK\" />\n</data>");
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].name, "log");
    EXPECT_EQ(lines[1].pairs, (pairs_t{{"value", "ACK"}}));
    // An open tag with attributes is skipped, the self-closing tags inside count.
    EXPECT_EQ(parsed("<a x=\"1\"><b y=\"2\"/></a>"), (std::vector<line_view>{{"b", "y=\"2\"", {{"y", "2"}}}}));
}

TEST(TagsParse, TagsThatAreSkipped)
{
    EXPECT_TRUE(parsed("<a/>").empty());
    EXPECT_TRUE(parsed("<a />").empty());
    EXPECT_TRUE(parsed("<a x=1 y=\"2\"/>").empty());       // first attribute unquoted
    EXPECT_TRUE(parsed("<a x='1'/>").empty());
    EXPECT_TRUE(parsed("<a x=\"1\" y=\"<b\"/>").empty());   // '<' in a later value
    EXPECT_TRUE(parsed("no tags at all").empty());
    EXPECT_TRUE(parsed("").empty());
}

TEST(TagsParse, FirstValueMayHoldAngleBrackets)
{
    auto lines = parsed("<a x=\"<b>\" y=\"2\"/>");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].pairs, (pairs_t{{"x", "<b>"}, {"y", "2"}}));
}

TEST(TagsParse, ValuesAreTheBytesBetweenTheQuotes)
{
    auto lines = parsed("<a x=\"&amp; &lt;\" y=\"\"/><b x=\"a\\\"b\"/>");
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].pairs, (pairs_t{{"x", "&amp; &lt;"}, {"y", ""}}));
    // No escaping of quotes: the value ends at the backslash.
    EXPECT_EQ(lines[1].attrs, "x=\"a\\\"b\"");
    EXPECT_EQ(lines[1].pairs, (pairs_t{{"x", "a\\"}}));
}

TEST(TagsParse, Comments)
{
    EXPECT_TRUE(parsed("<!-- <a b=\"1\"/> -->").empty());
    // An exclamation mark unmakes the comment: the tag inside is live.
    auto lines = parsed("<!-- note! <a b=\"1\"/> -->");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].name, "a");
    // Longest match: a comment runs to the last "-->" before the next '!'.
    EXPECT_TRUE(parsed("<!-- c --> <a x=\"1\"/> -->").empty());
    EXPECT_EQ(parsed("<!-- c --> <a x=\"1\"/> <!-- d -->").size(), 1u);
}

TEST(TagsParse, NamesKeepTheirCaseAndLookupsIgnoreIt)
{
    doc_of d("<?XML VERSION=\"1.0\"?><DaTa X=\"1\"/>");
    EXPECT_STREQ(d.first()->name, "DaTa");
    EXPECT_EQ(view_of(d.first()).pairs, (pairs_t{{"X", "1"}}));
    EXPECT_STREQ(xtags_get(d.doc, "data", "x"), "1");
    EXPECT_TRUE(tagline_is(d.first(), "DATA"));
    // The declaration alternative ignores case too.
    EXPECT_TRUE(regex_match(("^(" + std::string(TAG_PATTERN) + ")$").c_str(), "<?XML VERSION=\"1.0\"?>"));
}

TEST(TagsParse, SecondParseLeavesNoTrace)
{
    xtags *doc = xtags_create();
    xtags_set_flag(doc, XTAGS_FLAG_IGNORE_ERRORS);
    ASSERT_EQ(xtags_parse(doc, "<a x=\"1\"/><b y=\"2\"/>"), 0);
    ASSERT_EQ(xtags_parse(doc, "<c z=\"3\"/>"), 0);
    EXPECT_EQ(names_of(&doc->lines), (std::vector<std::string>{"c"}));
    EXPECT_EQ(xtags_get(doc, "a", "x"), nullptr);
    EXPECT_TRUE(xtags_has_flag(doc, XTAGS_FLAG_IGNORE_ERRORS)); // flags stay
    ASSERT_EQ(xtags_parse(doc, nullptr), 0);
    EXPECT_TRUE(list_empty(&doc->lines));
    xtags_free(doc);
    EXPECT_EQ(xtags_parse(nullptr, "<a x=\"1\"/>"), -1);
}

TEST(TagsParse, AgreesWithThePlainWrappersOnRandomTexts)
{
    std::mt19937 rng(20240611);
    int with_tags = 0, with_pairs = 0;
    for (int i = 0; i < 400; i++) {
        std::string text = random_doc(rng, 5 + i % 60);
        auto lines = parsed(text);
        ASSERT_EQ(lines, reference_parse(text)) << text;
        with_tags += !lines.empty();
        for (auto &l : lines)
            with_pairs += l.pairs.size() > 1;
    }
    // The texts did reach the interesting places.
    EXPECT_GT(with_tags, 150);
    EXPECT_GT(with_pairs, 50);
}

TEST(TagsParse, RandomBytesNeverCrash)
{
    std::mt19937 rng(7);
    std::uniform_int_distribution<int> byte(1, 255);
    size_t found = 0;
    for (int round = 0; round < 8; round++) {
        std::string text(16384, ' ');
        for (char &c : text)
            c = (char)byte(rng);
        // Sprinkle the characters the patterns care about.
        for (size_t at = 0; at + 40 < text.size(); at += 41) {
            text.replace(at, 6, round % 2 ? "<a x=\"" : "<a\nx=\"");
            text.replace(at + 6 + round, 3, "\"/>");
        }
        xtags *doc = xtags_create();
        EXPECT_EQ(xtags_parse(doc, text.c_str()), 0);
        auto lines = view_of(&doc->lines);
        EXPECT_EQ(lines, reference_parse(text));
        found += lines.size();
        xtags_free(doc);
    }
    EXPECT_GT(found, 100u);
}

TEST(TagsParse, UnterminatedTagsAtTheEnd)
{
    for (const char *tail : {"<", "<a", "<a ", "<a x", "<a x=", "<a x=\"", "<a x=\"1", "<a x=\"1\"",
                             "<a x=\"1\" /", "<!--", "<!-- <b y=\"2\"/>", "<?xml version", "</",
                             "<a x=\"1\" y=\"", "<a x=\"1\" y=\"2"}) {
        std::string text = std::string("<ok v=\"1\"/>") + tail;
        auto lines = parsed(text);
        EXPECT_EQ(lines, reference_parse(text)) << tail;
        ASSERT_FALSE(lines.empty()) << tail;
        EXPECT_EQ(lines[0].name, "ok");
    }
}

TEST(TagsParse, MebibyteAttributeValues)
{
    const std::string big(1 << 20, 'v');
    auto lines = parsed("<a big=\"" + big + "\" small=\"1\"/><b x=\"2\"/>");
    ASSERT_EQ(lines.size(), 2u);
    ASSERT_EQ(lines[0].pairs.size(), 2u);
    EXPECT_EQ(lines[0].pairs[0].second.size(), big.size());
    EXPECT_EQ(lines[0].pairs[1].second, "1");

    // Angle brackets all through the first value, blanks all through a later one.
    std::string angles(1 << 20, '<');
    lines = parsed("<a first=\"" + angles + "\" later=\"" + std::string(1 << 20, ' ') + "\"/>");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].pairs[0].second, angles);

    // Never closed: nothing, and no time lost to it.
    EXPECT_TRUE(parsed("<a big=\"" + big).empty());
    EXPECT_TRUE(parsed("<a big=\"1\" " + big).empty());
    EXPECT_TRUE(parsed("<!--" + big).empty());
}

TEST(TagsParse, AllocationFailuresLeaveACleanPrefix)
{
    const std::string text = "<?xml version=\"1.0\"?><data><!-- x --><a x=\"1\" y=\"2\"/>"
                             "<b k=\"v\"/><c/><d p=\"1\" q=\"2\" r=\"3\"/></data>";
    const auto full = parsed(text);
    ASSERT_EQ(full.size(), 3u);
    xtags *doc = xtags_create();
    int64_t before = mem_outstanding();
    bool succeeded = false;
    for (uint64_t n = 1; n < 200 && !succeeded; n++) {
        mem_fail_nth(n);
        int32_t r = xtags_parse(doc, text.c_str());
        mem_fail_nth(0);
        auto got = view_of(&doc->lines);
        if (r == 0) {
            succeeded = true;
            EXPECT_EQ(got, full);
            continue;
        }
        ASSERT_EQ(r, -1);
        // What was parsed before the failure stays: whole taglines, except
        // that the last may lack its later pairs.
        ASSERT_LE(got.size(), full.size()) << n;
        for (size_t i = 0; i < got.size(); i++) {
            EXPECT_EQ(got[i].name, full[i].name);
            EXPECT_EQ(got[i].attrs, full[i].attrs);
            std::vector<std::pair<std::string, std::string>> prefix(
                full[i].pairs.begin(), full[i].pairs.begin() + got[i].pairs.size());
            EXPECT_EQ(got[i].pairs, prefix) << n;
            if (i + 1 < got.size()) {
                EXPECT_EQ(got[i].pairs, full[i].pairs);
            }
        }
    }
    EXPECT_TRUE(succeeded);
    xtags_clear(doc);
    EXPECT_EQ(mem_outstanding(), before);
    xtags_free(doc);
}
