// What the pattern-driven parser makes of texts, good and bad.
#include <gtest/gtest.h>

#include "core/core.h"
#include "regex/regex.h"
#include "support/helpers.h"
#include "tags/doc_view.h"

using namespace ravik;
using namespace ravik::test;

namespace {
// Each tagline as name[attrs] and its pairs k=v, ended by ';'.
std::string parsed(const std::string &text, xtags *doc = nullptr)
{
    doc_of d(doc ? "" : text.c_str());
    std::string out;
    for (auto &l : view_of(&(doc ? doc : d.doc)->lines)) {
        out += l.name + "[" + l.attrs + "]";
        for (auto &[k, v] : l.pairs)
            out += " " + k + "=" + v;
        out += ";";
    }
    return out;
}
} // namespace

TEST(TagsParse, TextsAndTheirTaglines)
{
    const std::string tag = R"(<ok v="1"/>)", ok = R"(ok[v="1"] v=1;)", big(1 << 20, 'v');
    struct {
        std::string text, lines;
    } cases[] = {
        {R"(<a b="1"/>)", R"(a[b="1"] b=1;)"}, {R"(<a b="1" />)", R"(a[b="1" ] b=1;)"}, // blanks stay as written
        {"< a \t x = \"1\"   y=\"2\"\n/>", "a[x = \"1\"   y=\"2\"\n] x=1 y=2;"},
        {R"(<a.b\c k.1\z="v"/>)", R"(a.b\c[k.1\z="v"] k.1\z=v;)"},
        {R"(<a b="1" c=2/>)", R"(a[b="1" c=2] b=1;)"}, // unparsable attributes stay in the text only
        {R"(<data><a x="1"/></data>)", R"(a[x="1"] x=1;)"}, {R"(<a x="1"><b y="2"/></a>)", R"(b[y="2"] y=2;)"}, // no structure
        {"<?xml version=\"1.0\" encoding=\"UTF-8\" ?><data><log value=\"one\"/></data><?xml version=\"1.0\"?>\n<data>\n"
         "<response value=\"ACK\" />\n</data>", R"(log[value="one"] value=one;response[value="ACK" ] value=ACK;)"},
        {"<a/><a /><a x=1 y=\"2\"/><a x='1'/>no tags", ""}, {R"(<a x="1" y="<b"/>)", ""}, // '<' in a later value
        {R"(<a x="<b>" y="2"/>)", R"(a[x="<b>" y="2"] x=<b> y=2;)"},                     // but the first may hold one
        {R"(<a x="&amp; &lt;" y=""/><b x="a\"b"/>)", R"(a[x="&amp; &lt;" y=""] x=&amp; &lt; y=;b[x="a\"b"] x=a\;)"},
        {R"(<!-- <a b="1"/> -->)", ""}, {R"(<!-- note! <a b="1"/> -->)", R"(a[b="1"] b=1;)"}, // '!' unmakes a comment
        {R"(<!-- c --> <a x="1"/> -->)", ""}, {R"(<!-- c --> <a x="1"/> <!-- d -->)", R"(a[x="1"] x=1;)"}, // longest match
        {R"(<?XML VERSION="1.0"?><DaTa X="1"/>)", R"(DaTa[X="1"] X=1;)"}, {"", ""},
        {"\xff\x01<a x=\"\xc3\xa9\" \xff/>&'", "a[x=\"\xc3\xa9\" \xff] x=\xc3\xa9;"}, // any bytes around and in values
        {tag + R"(<!-- <b y="2"/>)", ok + R"(b[y="2"] y=2;)"},
        {"<a big=\"" + big + "\" small=\"1\"/><b x=\"2\"/>", "a[big=\"" + big + "\" small=\"1\"] big=" + big + " small=1;b[x=\"2\"] x=2;"},
        {"<a big=\"" + big, ""}, {"<a big=\"1\" " + big, ""}, {"<!--" + big, ""}, // never closed: nothing, and quickly
    };
    for (auto &c : cases)
        EXPECT_EQ(parsed(c.text), c.lines) << c.text.substr(0, 100);
    for (const char *tail : {"<", "<a", "<a ", "<a x", "<a x=", "<a x=\"", "<a x=\"1", "<a x=\"1\"", "<a x=\"1\" /", "<!--",
                             "<?xml version", "</", "<a x=\"1\" y=\"", "<a x=\"1\" y=\"2"})
        EXPECT_EQ(parsed(tag + tail), ok) << tail;
    EXPECT_TRUE(regex_match(("^(" + std::string(TAG_PATTERN) + ")$").c_str(), "<?XML VERSION=\"1.0\"?>"));
    // Angle brackets all through the first value, blanks all through a later one.
    std::string angles(1 << 20, '<'), blanks(1 << 20, ' ');
    doc_of d(("<a first=\"" + angles + "\" later=\"" + blanks + "\"/>").c_str());
    EXPECT_TRUE(xtags_get(d.doc, "a", "first") == angles && xtags_get(d.doc, "A", "LATER") == blanks); // lookups ignore case
    xtags_set_flag(d.doc, XTAGS_FLAG_IGNORE_ERRORS);
    ASSERT_EQ(xtags_parse(d.doc, R"(<c z="3"/>)"), 0);
    EXPECT_EQ(parsed("", d.doc), R"(c[z="3"] z=3;)"); // a second parse leaves no trace
    ASSERT_EQ(xtags_parse(d.doc, nullptr), 0);
    EXPECT_TRUE(list_empty(&d.doc->lines) && xtags_has_flag(d.doc, XTAGS_FLAG_IGNORE_ERRORS)); // flags stay
}

TEST(TagsParse, AllocationFailuresLeaveACleanPrefix)
{
    const std::string text = "<?xml version=\"1.0\"?><data><!-- x --><a x=\"1\" y=\"2\"/><b k=\"v\"/><c/><d p=\"1\" q=\"2\" r=\"3\"/></data>";
    doc_of full(text.c_str()), d("");
    const auto whole = view_of(&full.doc->lines);
    int64_t before = mem_outstanding();
    int32_t r = -1;
    for (uint64_t n = 1; n < 200 && r != 0; n++) {
        r = failing_nth(n, [&] { return xtags_parse(d.doc, text.c_str()); });
        auto got = view_of(&d.doc->lines);
        ASSERT_TRUE((r == 0 || r == -1) && got.size() <= whole.size()) << n;
        for (size_t i = 0; i < got.size(); i++) { // whole taglines, but the last may lack its later pairs
            auto want = whole[i];
            if (i + 1 == got.size() && r != 0)
                want.pairs.resize(std::min(want.pairs.size(), got[i].pairs.size()));
            EXPECT_EQ(got[i], want) << n;
        }
    }
    EXPECT_EQ(r, 0);
    EXPECT_EQ(view_of(&d.doc->lines), whole);
    EXPECT_EQ(whole.size(), 3u);
    xtags_clear(d.doc);
    EXPECT_EQ(mem_outstanding(), before);
}
