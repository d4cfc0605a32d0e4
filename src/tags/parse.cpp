// The parser: TAG_PATTERN finds the tags, ATTR_PATTERN the pairs in each
// tag's attribute text. The patterns are compiled once per parse and searched
// in a moving window, so the work stays linear in the size of the text.
//
// Groups are dear in glibc: asking for them makes regexec log its state at
// every byte it scans and then walk the match backwards. So tags are found by
// the whole match alone, and only a self-closing tag gets its groups, from a
// second search confined to its own match. That tag is the only alternative
// of TAG_PATTERN that ends in "/>" (the others end in "-->", "?>", or a name
// character or blank before ">"), and its groups are fixed by the head of the
// alternative, HEAD_PATTERN: the name is the run behind "<" and blanks, and
// the attribute text runs from behind the blanks after it up to the "/>".
#include <cstdio>
#include <cstring>

#include "core/core.h"
#include "regex/regex.h"
#include "tags/tags_internal.h"

namespace ravik {

namespace {

constexpr const char HEAD_PATTERN[] = "<[[:space:]]*([[:alnum:]_\\.]+)[[:space:]]+";

char *copy_span(const char *text, const regmatch_t &m)
{
    return mem_strndup(text + m.rm_so, (size_t)(m.rm_eo - m.rm_so));
}

// The pairs of one tagline's attribute text, in order. 0, or -1.
int32_t parse_attrs(const regex_prog &attr, tagline *line)
{
    const char *attrs = line->attrs;
    size_t len = strlen(attrs), at = 0;
    regmatch_t m[3];
    for (;;) {
        regex_result r = regex_search(attr, attrs, at, len, m, 3);
        if (r == REGEX_NONE)
            return 0;
        if (r == REGEX_FAILED)
            return -1;
        char *key = copy_span(attrs, m[1]);
        char *value = copy_span(attrs, m[2]);
        if (!key || !value || !tagline_append(line, key, value)) {
            mem_free(key);
            mem_free(value);
            return -1;
        }
        at = (size_t)m[0].rm_eo;
    }
}

struct file_guard {
    FILE *f;
    ~file_guard()
    {
        if (f)
            fclose(f);
    }
};

// The whole file as one NUL-terminated text from mem_, or null after its log line.
char *load_from_file(const char *path)
{
    file_guard file{fopen(path, "rb")};
    if (!file.f) {
        RK_LOGE("Error opening file \"%s\"\n", path);
        return nullptr;
    }
    if (fseek(file.f, 0, SEEK_END) != 0)
        return nullptr;
    long size = ftell(file.f);
    // A text beyond what the parser's offsets hold cannot be parsed anyway;
    // it is refused as a text that does not fit in memory.
    if (size < 0)
        return nullptr;
    char *text = (size_t)size < regex_max_text() ? static_cast<char *>(mem_zalloc((size_t)size + 1))
                                                 : nullptr;
    if (!text) {
        RK_LOGE("Out of memory!\n");
        return nullptr;
    }
    mem_guard<char> guard(text);
    // A file of size 0 fails here too: no whole item can be read.
    if (fseek(file.f, 0, SEEK_SET) != 0 || fread(text, (size_t)size, 1, file.f) != 1) {
        RK_LOGE("Error reading from file \"%s\"\n", path);
        return nullptr;
    }
    text[size] = '\0';
    return guard.release();
}

} // namespace

int32_t xtags_parse(xtags *doc, const char *text)
{
    if (!doc)
        return -1;
    xtags_clear(doc);
    // A null text is taken as an empty one: no tags.
    if (!text)
        return xtags_filter(doc);
    size_t len = strlen(text);
    regex_prog tag(TAG_PATTERN);
    regex_prog head(HEAD_PATTERN);
    regex_prog attr(ATTR_PATTERN);
    if (!tag.ready || !head.ready || !attr.ready || len > regex_max_text())
        return -1;
    size_t at = 0;
    for (;;) {
        regmatch_t m[1], h[2];
        regex_result r = regex_search(tag, text, at, len, m, 1);
        if (r == REGEX_NONE)
            break;
        // The search ran out of memory: reported as a failed parse, not as
        // the end of the text, so no tag goes missing unnoticed.
        if (r == REGEX_FAILED)
            return -1;
        size_t so = (size_t)m[0].rm_so, eo = (size_t)m[0].rm_eo;
        at = eo;
        // Comments, declarations and bare tags carry nothing.
        if (eo - so < 2 || text[eo - 2] != '/' || text[eo - 1] != '>')
            continue;
        if (regex_search(head, text, so, eo, h, 2) != REGEX_FOUND || (size_t)h[0].rm_so != so)
            return -1;
        regmatch_t attrs_span = h[0];
        attrs_span.rm_so = h[0].rm_eo;
        attrs_span.rm_eo = (regoff_t)(eo - 2);
        char *name = copy_span(text, h[1]);
        char *attrs = copy_span(text, attrs_span);
        tagline *line = name && attrs ? mem_new<tagline>() : nullptr;
        if (!line) {
            mem_free(name);
            mem_free(attrs);
            return -1;
        }
        line->name = name;
        line->attrs = attrs;
        list_init(&line->kvps);
        list_add_tail(&doc->lines, &line->link);
        if (parse_attrs(attr, line) != 0)
            return -1;
    }
    return xtags_filter(doc);
}

int32_t xtags_load(xtags *doc, const char *path)
{
    char *text = path ? load_from_file(path) : nullptr;
    if (!text) {
        RK_LOGE("Error loading file %s\n", path ? path : "(null)");
        return -1;
    }
    mem_guard<char> guard(text);
    return xtags_parse(doc, text);
}

} // namespace ravik
