// Telling when an answer is complete: append what each read brings and test
// the whole text from its start after every read.
#include <cstring>
#include <strings.h>

#include "core/core.h"
#include "firehose/link.h"
#include "link/buffer.h"
#include "regex/regex.h"

namespace ravik {

namespace {

void free_pbr(pbr *slot)
{
    mem_free(slot->pattern);
    xtags_free(slot->doc);
    memset(slot, 0, sizeof(*slot));
}

void free_pbrs(fh *link)
{
    for (pbr &slot : link->pbrs)
        free_pbr(&slot);
    link->exact_pbr = nullptr;
}

// xtags_parse fails only without memory.
xtags *parse_text(const char *text)
{
    xtags *doc = xtags_create();
    if (doc && xtags_parse(doc, text) != 0) {
        xtags_free(doc);
        doc = nullptr;
    }
    return doc;
}

int32_t add_pbr(fh *link, const pbr *expected)
{
    int32_t code = 0;
    if (!expected)
        return 0;
    for (int i = 0; expected[i].pattern; i++) {
        if (i >= FH_PBR_SLOTS) {
            code = ERR_NO_MEMORY;
            break;
        }
        pbr *slot = &link->pbrs[i];
        slot->pattern = mem_strdup(expected[i].pattern);
        slot->size = expected[i].size;
        slot->kind = expected[i].kind;
        if (!slot->pattern) {
            free_pbr(slot);
            code = ERR_NO_MEMORY;
            break;
        }
        if (slot->kind == PBR_EXACT)
            link->exact_pbr = slot;
        if (slot->kind == PBR_EXACT || slot->kind == PBR_SUBSTRING) {
            slot->doc = parse_text(slot->pattern);
            if (!slot->doc) {
                free_pbr(slot);
                code = ERR_NO_MEMORY;
                break;
            }
        }
    }
    RK_RETURN(code);
}

// Keeps what follows the document that holds `at`, for the next answer.
void keep_behind(fh *link, const char *at)
{
    const char *end = strstr(at, "</data>");
    if (!end)
        return;
    end += strlen("</data>");
    if (*end) {
        mem_free(link->carry);
        link->carry = mem_strdup(end);
    }
}

xtags *match_pbr(fh *link, const char *text)
{
    for (pbr &slot : link->pbrs) {
        if (!slot.pattern)
            continue;
        bool hit = false;
        switch (slot.kind) {
        case PBR_EXACT:
            hit = strcmp(text, slot.pattern) == 0;
            break;
        case PBR_SUBSTRING:
            if (const char *at = strstr(text, slot.pattern)) {
                keep_behind(link, at);
                hit = true;
            }
            break;
        case PBR_REGEX:
            if (regex_match(slot.pattern, text))
                return parse_text(text);
            continue;
        default:
            continue;
        }
        if (hit) {
            xtags *doc = slot.doc;
            slot.doc = nullptr;
            return doc;
        }
    }
    return nullptr;
}

void mark_and_log(fh *link, xtags *doc)
{
    doc->flags &= ~XTAGS_FLAG_ACK;
    list_for_each_safe(it, tmp, &doc->lines)
    {
        tagline *line = list_entry(it, tagline, link);
        RK_LOGD("D->H: %s %s\n", line->name, line->attrs ? line->attrs : "");
        const char *value = tagline_get(line, "value");
        if (tagline_is(line, "response") && value && strcasecmp(value, "ACK") == 0)
            doc->flags |= XTAGS_FLAG_ACK;
    }
    if ((doc->flags & XTAGS_FLAG_ACK) || !(link->flags & FH_LOG_NAKS))
        return;
    RK_LOGI("Target NAK!\n");
    list_for_each_safe(it, tmp, &doc->lines)
    {
        tagline *line = list_entry(it, tagline, link);
        const char *value = tagline_get(line, "value");
        if (tagline_is(line, "log") && value)
            RK_LOGI("...%s\n", value);
    }
}

} // namespace

xtags *read_response(fh *link, const pbr *expected)
{
    double start = now();
    xtags *doc = nullptr;
    bool held = false;
    int32_t code = add_pbr(link, expected);
    if (code == 0) {
        code = __buffer_acquire();
        held = code == 0;
    }
    if (code == 0) {
        int32_t limit = link->exact_pbr ? link->exact_pbr->size : 0;
        // Bytes kept from the last answer's read come first and are tested
        // before anything is read.
        bool carried = false;
        if (link->carry) {
            carried = buffer_printf("%s", link->carry) > 0;
            mem_free(link->carry);
            link->carry = nullptr;
            if (limit && buffer_avail() >= limit)
                limit = 0;
        }
        for (;;) {
            int32_t n = carried ? buffer_avail() : buffer_read(limit);
            carried = false;
            if (n == 0) {
                code = get_error();
                // A full buffer stays full however long one waits.
                if (code == 0 && link->read_latency > now() - start)
                    continue;
                break;
            }
            const char *text = buffer_base();
            if ((doc = match_pbr(link, text)) != nullptr)
                break;
            if (!expected && regex_match(RESPONSE_PATTERN, text)) {
                doc = parse_text(text);
                if (!doc)
                    code = ERR_NO_MEMORY;
                break;
            }
            if (buffer_avail() == limit)
                limit = 0;
        }
    }
    if (held)
        __buffer_release();
    if (code != 0 && doc) {
        xtags_free(doc);
        doc = nullptr;
    }
    if (doc)
        mark_and_log(link, doc);
    free_pbrs(link);
    set_error(__add_context("read_response", code));
    return doc;
}

} // namespace ravik
