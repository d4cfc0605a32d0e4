// Compatibility filters: a tag says for whom it is meant in its `compatible`
// attribute; the document's filters say what the target is.
#include <cstring>

#include "core/core.h"
#include "regex/regex.h"
#include "tags/tags_internal.h"

namespace ravik {

namespace {

// The requirements of a `compatible` value as the pairs of a nameless
// tagline; null without memory. Whatever COMPAT_PATTERN does not find is
// skipped, so any separator works.
tagline *read_requirements(const regex_prog &compat, const char *value)
{
    mem_guard<tagline> req(tagline_new(nullptr));
    if (!req.p || !compat.ready)
        return nullptr;
    size_t len = strlen(value), at = 0;
    regmatch_t m[3];
    for (;;) {
        regex_result r = regex_search(compat, value, at, len, m, 3);
        if (r == REGEX_NONE)
            break;
        if (r == REGEX_FAILED) {
            tagline_free(req.release());
            return nullptr;
        }
        char *key = mem_strndup(value + m[1].rm_so, (size_t)(m[1].rm_eo - m[1].rm_so));
        char *val = mem_strndup(value + m[2].rm_so, (size_t)(m[2].rm_eo - m[2].rm_so));
        if (!key || !val || !tagline_append(req.p, key, val)) {
            mem_free(key);
            mem_free(val);
            tagline_free(req.release());
            return nullptr;
        }
        at = (size_t)m[0].rm_eo;
    }
    return req.release();
}

tagline *filter_with(const regex_prog &compat, xtags *doc, tagline *line)
{
    const char *value = tagline_get(line, "compatible");
    if (!value)
        return line;
    tagline *req = read_requirements(compat, value);
    if (!req) {
        RK_LOGE("Out of memory!\n");
        return nullptr;
    }
    bool ok = tagline_compatible(req, doc->filter);
    tagline_free(req);
    return ok ? line : nullptr;
}

bool has_pairs(const tagline *line) { return line && !list_empty(&line->kvps); }

} // namespace

bool tagline_compatible(tagline *requirements, const tagline *filters)
{
    if (!has_pairs(requirements))
        return true;
    if (!has_pairs(filters))
        return false;
    list_for_each_safe(it, tmp, &requirements->kvps)
        list_entry(it, kvp, link)->done = 0;
    list_for_each_safe(it, tmp, &requirements->kvps)
    {
        kvp *req = list_entry(it, kvp, link);
        if (!req->key[0] || !req->value[0] || req->done)
            continue;
        bool key_known = false, value_found = false;
        list_for_each_safe(f, ftmp, &filters->kvps)
        {
            const kvp *fil = list_entry(f, kvp, link);
            if (!tags_ieq(fil->key, req->key))
                continue;
            key_known = true;
            value_found = value_found || tags_ieq(fil->value, req->value);
        }
        // A requirement on a fact the host does not hold fails.
        if (!key_known)
            return false;
        if (value_found) {
            // The key is met: its other alternatives need no look.
            list_for_each_safe(o, otmp, &requirements->kvps)
            {
                kvp *other = list_entry(o, kvp, link);
                if (tags_ieq(other->key, req->key))
                    other->done = 1;
            }
            continue;
        }
        bool later = false;
        for (list_head *o = it->next; o != &requirements->kvps && !later; o = o->next)
            later = tags_ieq(list_entry(o, kvp, link)->key, req->key);
        if (!later)
            return false;
    }
    return true;
}

tagline *filter_tagline(xtags *doc, tagline *line)
{
    regex_prog compat(COMPAT_PATTERN);
    return filter_with(compat, doc, line);
}

int32_t xtags_add_filter(xtags *doc, const char *key, const char *value)
{
    if (!doc || !key || !value || !key[0] || !value[0])
        return -1;
    if (!doc->filter)
        doc->filter = tagline_new(nullptr);
    char *k = doc->filter ? mem_strdup(key) : nullptr;
    char *v = k ? mem_strdup(value) : nullptr;
    if (!v || !tagline_append(doc->filter, k, v)) {
        mem_free(k);
        mem_free(v);
        RK_LOGE("Out of memory!\n");
        return -1;
    }
    return 0;
}

int32_t xtags_del_filter(xtags *doc, const char *key)
{
    if (!doc)
        return -1;
    if (!doc->filter)
        return 0;
    list_for_each_safe(it, tmp, &doc->filter->kvps)
    {
        kvp *p = list_entry(it, kvp, link);
        if (!key || tags_ieq(p->key, key)) {
            list_del(it);
            kvp_free(p);
        }
    }
    return 0;
}

int32_t xtags_clr_filter(xtags *doc) { return xtags_del_filter(doc, nullptr); }

int32_t xtags_filter(xtags *doc)
{
    if (!doc)
        return -1;
    if (!has_pairs(doc->filter))
        return 0;
    // A fresh judgement of every tagline: what was dropped before comes back
    // behind the rest and is tested again.
    list_for_each_safe(it, tmp, &doc->dropped)
    {
        list_del(it);
        list_add_tail(&doc->lines, it);
    }
    regex_prog compat(COMPAT_PATTERN);
    list_for_each_safe(it, tmp, &doc->lines)
    {
        tagline *line = list_entry(it, tagline, link);
        if (!filter_with(compat, doc, line)) {
            list_del(it);
            list_add_tail(&doc->dropped, it);
        }
    }
    return 0;
}

} // namespace ravik
