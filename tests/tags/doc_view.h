// Documents as plain values for comparisons in the tag tests, and the
// parser's algorithm written out with the plain wrappers, as the reference
// the compiled-once parser must agree with.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "core/alloc.h"
#include "regex/regex.h"
#include "tags/tags.h"

namespace ravik::test {

struct line_view {
    std::string name;
    std::string attrs;
    std::vector<std::pair<std::string, std::string>> pairs;
    bool operator==(const line_view &) const = default;
};

inline line_view view_of(const tagline *line)
{
    line_view v{line->name ? line->name : "", line->attrs ? line->attrs : "", {}};
    for (list_head *p = line->kvps.next; p != &line->kvps; p = p->next) {
        const kvp *pair = list_entry(p, kvp, link);
        v.pairs.emplace_back(pair->key, pair->value);
    }
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
    for (const line_view &v : view_of(head))
        out.push_back(v.name);
    return out;
}

inline tagline *first_line(xtags *doc)
{
    return list_empty(&doc->lines) ? nullptr : list_entry(doc->lines.next, tagline, link);
}

// A document parsed from `text`, freed on scope exit.
struct doc_of {
    xtags *doc;
    explicit doc_of(const char *text) : doc(xtags_create()) { xtags_parse(doc, text); }
    ~doc_of() { xtags_free(doc); }
    doc_of(const doc_of &) = delete;
    doc_of &operator=(const doc_of &) = delete;
    tagline *first() const { return first_line(doc); }
};

inline std::vector<line_view> parsed(const std::string &text)
{
    xtags *doc = xtags_create();
    xtags_parse(doc, text.c_str());
    std::vector<line_view> out = view_of(&doc->lines);
    xtags_free(doc);
    return out;
}

// Search TAG_PATTERN from the cursor; skip matches without group 1; walk the
// attribute text with ATTR_PATTERN from its start.
inline std::vector<line_view> reference_parse(const std::string &text)
{
    std::vector<line_view> out;
    const char *cursor = text.c_str();
    for (;;) {
        char *r[3];
        const char *end = regex_sub_match(TAG_PATTERN, cursor, r, 3);
        if (!end)
            break;
        cursor = end;
        line_view v;
        bool tag = r[1] != nullptr;
        if (tag) {
            v.name = r[1];
            v.attrs = r[2];
        }
        for (char *p : r)
            mem_free(p);
        if (!tag)
            continue;
        const char *a = v.attrs.c_str();
        for (;;) {
            char *q[3];
            const char *next = regex_sub_match(ATTR_PATTERN, a, q, 3);
            if (!next)
                break;
            v.pairs.emplace_back(q[1], q[2]);
            for (char *p : q)
                mem_free(p);
            a = next;
        }
        out.push_back(v);
    }
    return out;
}

} // namespace ravik::test
