// Documents as plain values for comparisons in tests.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "tags/tags.h"

namespace ravik::test {

struct line_view {
    std::string name, attrs;
    std::vector<std::pair<std::string, std::string>> pairs;
    bool operator==(const line_view &) const = default;
};
inline line_view view_of(const tagline *line)
{
    line_view v{line->name ? line->name : "", line->attrs ? line->attrs : "", {}};
    for (list_head *p = line->kvps.next; p != &line->kvps; p = p->next)
        v.pairs.emplace_back(list_entry(p, kvp, link)->key, list_entry(p, kvp, link)->value);
    return v;
}
inline std::vector<line_view> view_of(const list_head *head)
{
    std::vector<line_view> out;
    for (list_head *p = head->next; p != head; p = p->next)
        out.push_back(view_of(list_entry(p, tagline, link)));
    return out;
}
inline std::vector<std::string> names_of(const list_head *head)
{
    std::vector<std::string> out;
    for (list_head *p = head->next; p != head; p = p->next)
        out.push_back(list_entry(p, tagline, link)->name);
    return out;
}

// A document parsed from `text`, freed on scope exit.
struct doc_of {
    xtags *doc;
    explicit doc_of(const char *text) : doc(xtags_create()) { xtags_parse(doc, text); }
    ~doc_of() { xtags_free(doc); }
    doc_of(const doc_of &) = delete;
    tagline *first() const { return list_empty(&doc->lines) ? nullptr : list_entry(doc->lines.next, tagline, link); }
};

} // namespace ravik::test
