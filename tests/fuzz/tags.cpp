// Tag documents: filters and a text from the input, parsed, walked, judged
// again, and every tag sent through its command text and parsed back.
//
// Input: one byte N (allocation nth_allocation(N) from the parse on fails, 0
// none), then "key:value" lines up to the first NUL, then the document.
#include <cstring>

#include "fuzz/fuzz.h"
#include "tags/tags_internal.h"

namespace ravik::fuzz {

namespace {

bool same_pairs(tagline *a, tagline *b)
{
    list_head *x = a->kvps.next, *y = b->kvps.next;
    for (; x != &a->kvps && y != &b->kvps; x = x->next, y = y->next) {
        const kvp *p = list_entry(x, kvp, link), *q = list_entry(y, kvp, link);
        if (strcmp(p->key, q->key) != 0 || strcmp(p->value, q->value) != 0)
            return false;
    }
    return x == &a->kvps && y == &b->kvps;
}

// A tag rebuilt from its pairs goes out and comes back the same, as long as
// no value holds what the grammar keeps out of later attributes.
void check_round_trip(tagline *line)
{
    const kvp *first = list_entry(line->kvps.next, kvp, link);
    for (list_head *it = line->kvps.next; it != &line->kvps; it = it->next)
        if (strpbrk(list_entry(it, kvp, link)->value, "<>"))
            return;
    char *key = mem_strdup(first->key), *value = mem_strdup(first->value);
    check(key && value && tagline_set(line, key, value) == 0, "tagline_set of a pair it has");
    mem_free(key);
    mem_free(value);
    size_t length = 0;
    char *text = tagline_format_xml(line, &length);
    check(text && length == strlen(text) && length % 512 != 0, "command text");
    xtags *back = xtags_create();
    check(back && xtags_parse(back, text) == 0, "parse of a command text");
    list_head *only = back->lines.next;
    check(only != &back->lines && only->next == &back->lines, "one tag per command text");
    tagline *again = list_entry(only, tagline, link);
    check(strcmp(again->name, line->name) == 0 && same_pairs(again, line), "tag changed on its way out");
    xtags_free(back);
    mem_free(text);
}

void walk(xtags *doc, bool whole)
{
    list_for_each_safe(it, tmp, &doc->lines)
    {
        tagline *line = list_entry(it, tagline, link);
        const kvp *first = list_empty(&line->kvps) ? nullptr : list_entry(line->kvps.next, kvp, link);
        if (whole) {
            check(first && line->attrs, "a parsed tag without pairs");
            check(xtags_get(doc, line->name, first->key) != nullptr, "lookup of a pair it has");
        }
        (void)tagline_getu(line, "value", 1);
        (void)tagline_geti(line, first ? first->key : "value", -1);
        (void)tagline_getb(line, "compatible", false);
        (void)tagline_getp(line, "buffer", nullptr);
        if (whole)
            check_round_trip(line);
    }
}

// Every tag where the filters put it.
void check_filtered(xtags *doc)
{
    if (!doc->filter || list_empty(&doc->filter->kvps))
        return;
    list_for_each_safe(it, tmp, &doc->lines)
        check(filter_tagline(doc, list_entry(it, tagline, link)) != nullptr, "kept a tag the filters drop");
    list_for_each_safe(it, tmp, &doc->dropped)
        check(filter_tagline(doc, list_entry(it, tagline, link)) == nullptr, "dropped a tag the filters keep");
}

} // namespace

void tags_one(const uint8_t *data, size_t size)
{
    input in{data, size};
    uint8_t fail_at = in.byte();
    std::string rest = in.rest();
    size_t nul = rest.find('\0');
    std::string filters = nul == std::string::npos ? "" : rest.substr(0, nul);
    std::string text = nul == std::string::npos ? rest : rest.substr(nul + 1);
    run_isolated([&] {
        xtags *doc = xtags_create();
        check(doc != nullptr, "xtags_create");
        std::string first_key;
        for (size_t at = 0; at < filters.size();) {
            size_t end = filters.find('\n', at);
            std::string line = filters.substr(at, end == std::string::npos ? std::string::npos : end - at);
            at = end == std::string::npos ? filters.size() : end + 1;
            size_t colon = line.find(':');
            if (colon == std::string::npos)
                continue;
            std::string key = line.substr(0, colon);
            if (first_key.empty())
                first_key = key;
            xtags_add_filter(doc, key.c_str(), line.substr(colon + 1).c_str());
        }
        if (fail_at)
            mem_fail_nth(nth_allocation(fail_at));
        int32_t parsed = xtags_parse(doc, text.c_str());
        bool whole = parsed == 0 && !fail_at;
        walk(doc, whole);
        if (whole)
            check_filtered(doc);
        // A second judgement with one key fewer brings tags back, never loses one.
        xtags_del_filter(doc, first_key.c_str());
        xtags_filter(doc);
        if (whole)
            check_filtered(doc);
        walk(doc, false);
        xtags_free(doc);
    });
}

} // namespace ravik::fuzz

RAVIK_FUZZ_ENTRY(ravik::fuzz::tags_one)
