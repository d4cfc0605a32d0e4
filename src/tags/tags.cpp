// The document model: taglines, pairs, lookups, setters and the number rules.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/core.h"
#include "tags/tags_internal.h"

namespace ravik {

namespace {

char ascii_lower(char c) { return (c >= 'A' && c <= 'Z') ? (char)(c - 'A' + 'a') : c; }

void free_list(list_head *head)
{
    list_for_each_safe(it, tmp, head)
    {
        tagline *line = list_entry(it, tagline, link);
        list_del(it);
        tagline_free(line);
    }
}

kvp *find_pair(const tagline *line, const char *key)
{
    list_for_each_safe(it, tmp, &line->kvps)
    {
        kvp *p = list_entry(it, kvp, link);
        if (tags_ieq(p->key, key))
            return p;
    }
    return nullptr;
}

tagline *find_line(const xtags *doc, const char *name)
{
    list_for_each_safe(it, tmp, &doc->lines)
    {
        tagline *line = list_entry(it, tagline, link);
        if (tags_ieq(line->name, name))
            return line;
    }
    return nullptr;
}

// Reads a number as strtoul/strtol with base 0 would: blanks, one sign, then
// digits with base detection. Only the magnitude is read here, in 64 bits;
// a magnitude beyond 64 bits reads as UINT64_MAX.
uint64_t read_magnitude(const char *text, bool *negative)
{
    *negative = false;
    if (!text)
        return 0;
    const char *p = text;
    while (*p == ' ' || (*p >= '\t' && *p <= '\r'))
        p++;
    if (*p == '+' || *p == '-')
        *negative = *p++ == '-';
    // A second sign or a blank behind the sign is no number.
    if (*p < '0' || *p > '9')
        return 0;
    errno = 0;
    unsigned long long v = strtoull(p, nullptr, 0);
    return errno == ERANGE ? UINT64_MAX : (uint64_t)v;
}

// A value text of a number: "%d", "%u", "%ld" and "0x%lX" all fit.
constexpr size_t NUMBER_TEXT = 32;

} // namespace

bool tags_ieq(const char *a, const char *b)
{
    if (!a || !b)
        return false;
    for (; *a && ascii_lower(*a) == ascii_lower(*b); a++, b++)
        ;
    return ascii_lower(*a) == ascii_lower(*b);
}

int32_t tags_number_signed(const char *text)
{
    bool neg;
    uint64_t mag = read_magnitude(text, &neg);
    if (neg)
        return mag > (uint64_t)INT32_MAX + 1 ? INT32_MIN : (int32_t)(0 - (int64_t)mag);
    return mag > (uint64_t)INT32_MAX ? INT32_MAX : (int32_t)mag;
}

uint32_t tags_number_unsigned(const char *text)
{
    bool neg;
    uint64_t mag = read_magnitude(text, &neg);
    if (mag > UINT32_MAX)
        return UINT32_MAX;
    // As strtoul: a leading minus negates in the unsigned width.
    return neg ? (uint32_t)(0u - (uint32_t)mag) : (uint32_t)mag;
}

uintptr_t tags_number_pointer(const char *text)
{
    // Addresses here are 64 bits: the 32-bit clamp of the other rules would
    // cut them, so this rule keeps the full width of the text form "0x%lX".
    bool neg;
    uint64_t mag = read_magnitude(text, &neg);
    return (uintptr_t)(neg ? 0 - mag : mag);
}

void kvp_free(kvp *pair)
{
    mem_free(pair->key);
    mem_free(pair->value);
    mem_free(pair);
}

tagline *tagline_new(const char *name)
{
    mem_guard<tagline> line(mem_new<tagline>());
    if (!line.p)
        return nullptr;
    list_init(&line.p->kvps);
    if (name) {
        line.p->name = mem_strdup(name);
        if (!line.p->name)
            return nullptr;
    }
    return line.release();
}

void tagline_free(tagline *line)
{
    if (!line)
        return;
    list_for_each_safe(it, tmp, &line->kvps)
    {
        list_del(it);
        kvp_free(list_entry(it, kvp, link));
    }
    mem_free(line->name);
    mem_free(line->attrs);
    mem_free(line);
}

kvp *tagline_append(tagline *line, char *key, char *value)
{
    kvp *p = mem_new<kvp>();
    if (!p)
        return nullptr;
    p->key = key;
    p->value = value;
    list_add_tail(&line->kvps, &p->link);
    return p;
}

int32_t tagline_invalidate(tagline *line)
{
    size_t size = 1;
    list_for_each_safe(it, tmp, &line->kvps)
    {
        kvp *p = list_entry(it, kvp, link);
        size += strlen(p->key) + strlen(p->value) + 4; // =" " and the blank
    }
    char *text = static_cast<char *>(mem_zalloc(size));
    if (!text)
        RK_RETURN(ERR_NO_MEMORY);
    char *at = text;
    list_for_each_safe(it, tmp, &line->kvps)
    {
        kvp *p = list_entry(it, kvp, link);
        if (at != text)
            *at++ = ' ';
        size_t k = strlen(p->key), v = strlen(p->value);
        memcpy(at, p->key, k);
        at += k;
        memcpy(at, "=\"", 2);
        at += 2;
        memcpy(at, p->value, v);
        at += v;
        *at++ = '"';
    }
    *at = '\0';
    mem_free(line->attrs);
    line->attrs = text;
    return 0;
}

xtags *xtags_create()
{
    xtags *doc = mem_new<xtags>();
    if (!doc)
        return nullptr;
    list_init(&doc->lines);
    list_init(&doc->dropped);
    return doc;
}

void xtags_clear(xtags *doc)
{
    if (!doc)
        return;
    free_list(&doc->lines);
    free_list(&doc->dropped);
}

void xtags_free(xtags *doc)
{
    if (!doc)
        return;
    xtags_clear(doc);
    tagline_free(doc->filter);
    mem_free(doc);
}

tagline *xtags_add(xtags *doc, const char *name)
{
    if (!doc || !name)
        return nullptr;
    tagline *line = tagline_new(name);
    if (line)
        list_add_tail(&doc->lines, &line->link);
    return line;
}

const char *xtags_get(const xtags *doc, const char *name, const char *key)
{
    if (!doc || !name || !key)
        return nullptr;
    list_for_each_safe(it, tmp, &doc->lines)
    {
        tagline *line = list_entry(it, tagline, link);
        if (!tags_ieq(line->name, name))
            continue;
        if (kvp *p = find_pair(line, key))
            return p->value;
    }
    return nullptr;
}

int32_t xtags_geti(const xtags *doc, const char *name, const char *key)
{
    return tags_number_signed(xtags_get(doc, name, key));
}

uint32_t xtags_getu(const xtags *doc, const char *name, const char *key)
{
    return tags_number_unsigned(xtags_get(doc, name, key));
}

void *xtags_getp(const xtags *doc, const char *name, const char *key)
{
    return reinterpret_cast<void *>(tags_number_pointer(xtags_get(doc, name, key)));
}

void xtags_set_flag(xtags *doc, uint32_t bits)
{
    if (doc)
        doc->flags |= bits;
}

bool xtags_has_flag(const xtags *doc, uint32_t bits) { return doc && (doc->flags & bits) != 0; }

int32_t xtags_set(xtags *doc, const char *name, const char *key, const char *value)
{
    if (!doc || !name || !key || !value)
        return -1;
    tagline *line = find_line(doc, name);
    if (!line)
        line = xtags_add(doc, name);
    if (!line)
        return -1;
    int32_t code = tagline_set(line, key, value);
    if (code != 0)
        RK_RETURN(code);
    return 0;
}

int32_t xtags_unset(xtags *doc, const char *name, const char *key)
{
    if (!doc || !name || !key)
        return -1;
    tagline *line = find_line(doc, name);
    if (!line)
        return 0;
    int32_t code = tagline_unset(line, key);
    if (code != 0)
        RK_RETURN(code);
    return 0;
}

int32_t xtags_seti(xtags *doc, const char *name, const char *key, int32_t value)
{
    char text[NUMBER_TEXT];
    snprintf(text, sizeof(text), "%d", value);
    return xtags_set(doc, name, key, text);
}

int32_t xtags_setu(xtags *doc, const char *name, const char *key, uint32_t value)
{
    char text[NUMBER_TEXT];
    snprintf(text, sizeof(text), "%u", value);
    return xtags_set(doc, name, key, text);
}

int32_t xtags_setp(xtags *doc, const char *name, const char *key, const void *value)
{
    static_assert(sizeof(unsigned long) >= sizeof(uintptr_t), "\"0x%lX\" must hold an address");
    char text[NUMBER_TEXT];
    snprintf(text, sizeof(text), "0x%lX", (unsigned long)(uintptr_t)value);
    return xtags_set(doc, name, key, text);
}

bool tagline_is(const tagline *line, const char *name) { return line && tags_ieq(line->name, name); }

const char *tagline_get(const tagline *line, const char *key)
{
    if (!line || !key)
        return nullptr;
    list_for_each_safe(it, tmp, &line->kvps)
    {
        kvp *p = list_entry(it, kvp, link);
        if (p->value[0] && tags_ieq(p->key, key))
            return p->value;
    }
    return nullptr;
}

bool tagline_has(const tagline *line, const char *key, const char *value)
{
    return tags_ieq(tagline_get(line, key), value);
}

int32_t tagline_getl(const tagline *line, const char *key, int32_t fallback)
{
    const char *v = tagline_get(line, key);
    return v ? tags_number_signed(v) : fallback;
}

int32_t tagline_geti(const tagline *line, const char *key, int32_t fallback)
{
    return tagline_getl(line, key, fallback);
}

uint32_t tagline_getu(const tagline *line, const char *key, uint32_t fallback)
{
    const char *v = tagline_get(line, key);
    return v ? tags_number_unsigned(v) : fallback;
}

void *tagline_getp(const tagline *line, const char *key, void *fallback)
{
    const char *v = tagline_get(line, key);
    return v ? reinterpret_cast<void *>(tags_number_pointer(v)) : fallback;
}

bool tagline_getb(const tagline *line, const char *key, bool fallback)
{
    const char *v = tagline_get(line, key);
    return v ? tags_ieq(v, "true") : fallback;
}

int32_t tagline_set(tagline *line, const char *key, const char *value)
{
    // Not reachable through the documented callers; refused like xtags_set.
    if (!line || !key || !value)
        return -1;
    char *copy = mem_strdup(value);
    if (!copy)
        RK_RETURN(ERR_NO_MEMORY);
    if (kvp *p = find_pair(line, key)) {
        mem_free(p->value);
        p->value = copy;
    } else {
        char *key_copy = mem_strdup(key);
        if (!key_copy || !tagline_append(line, key_copy, copy)) {
            mem_free(key_copy);
            mem_free(copy);
            RK_RETURN(ERR_NO_MEMORY);
        }
    }
    RK_RETURN(tagline_invalidate(line));
}

int32_t tagline_setl(tagline *line, const char *key, long value)
{
    char text[NUMBER_TEXT];
    snprintf(text, sizeof(text), "%ld", value);
    return tagline_set(line, key, text);
}

int32_t tagline_seti(tagline *line, const char *key, int32_t value)
{
    char text[NUMBER_TEXT];
    snprintf(text, sizeof(text), "%d", value);
    return tagline_set(line, key, text);
}

int32_t tagline_setu(tagline *line, const char *key, uint32_t value)
{
    char text[NUMBER_TEXT];
    snprintf(text, sizeof(text), "%u", value);
    return tagline_set(line, key, text);
}

int32_t tagline_unset(tagline *line, const char *key)
{
    if (!line || !key)
        return -1;
    bool removed = false;
    list_for_each_safe(it, tmp, &line->kvps)
    {
        kvp *p = list_entry(it, kvp, link);
        if (tags_ieq(p->key, key)) {
            list_del(it);
            kvp_free(p);
            removed = true;
        }
    }
    if (!removed)
        return 0;
    RK_RETURN(tagline_invalidate(line));
}

char *tagline_format_xml(const tagline *line, size_t *length_out)
{
    static constexpr char HEAD[] = "<?xml version=\"1.0\"?><data><";
    static constexpr char TAIL[] = "/></data>";
    if (!line || !line->name)
        return nullptr;
    const char *attrs = line->attrs ? line->attrs : "";
    size_t name_len = strlen(line->name), attrs_len = strlen(attrs);
    // The empty document, the tag's "<", " " and "/>", a line end and the NUL.
    size_t size = (sizeof(HEAD) - 1) + name_len + 1 + attrs_len + (sizeof(TAIL) - 1) + 2;
    char *text = static_cast<char *>(mem_zalloc(size));
    if (!text)
        return nullptr;
    char *at = text;
    memcpy(at, HEAD, sizeof(HEAD) - 1);
    at += sizeof(HEAD) - 1;
    memcpy(at, line->name, name_len);
    at += name_len;
    *at++ = ' ';
    memcpy(at, attrs, attrs_len);
    at += attrs_len;
    memcpy(at, TAIL, sizeof(TAIL) - 1);
    at += sizeof(TAIL) - 1;
    // A command of whole 512-byte packets would have no short packet to end
    // it on the wire, so the target would wait for more.
    if ((at - text) % 512 == 0)
        *at++ = '\n';
    *at = '\0';
    size_t len = (size_t)(at - text);
    if (length_out)
        *length_out = len;
    return text;
}

} // namespace ravik
