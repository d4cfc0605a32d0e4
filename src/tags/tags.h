// Tag documents: the flat model behind every text of the system (container
// index, packages, recipes, answers of the target, the device's properties).
// A document is an ordered list of tags; each tag has a name, its raw
// attribute text and its ordered key/value pairs. Nesting and element text
// carry nothing and are dropped by the parser. Names and keys compare with
// ASCII case ignored.
#pragma once

#include <cstddef>
#include <cstdint>

#include "core/list.h"

namespace ravik {

// One attribute.
struct kvp {
    char *key;
    char *value;     // the bytes between the quotes, maybe empty
    list_head link;  // in the tagline's kvps
    uint32_t done;   // scratch mark of the filters, 0 at other times
};

// One tag.
struct tagline {
    char *name;         // null only in a document's filter tagline
    char *attrs;        // raw attribute text as written; null until the first set of an added tag
    list_head link;     // in the document's lines or dropped
    list_head aux_link; // free for one list kept outside the document
    list_head kvps;
};

// One document.
struct xtags {
    list_head lines;   // the taglines that count
    list_head dropped; // taglines the filters took out, still owned here
    tagline *filter;   // the filters as its kvps, made by the first xtags_add_filter
    uint32_t flags;
};

// Bits of xtags::flags: the documents' users give them their meaning.
constexpr uint32_t XTAGS_FLAG_ACK = 1;            // a response of the target
constexpr uint32_t XTAGS_FLAG_PACKAGE = 1;        // a document run by the recipe engine
constexpr uint32_t XTAGS_FLAG_IGNORE_ERRORS = 2;  // a recipe

// The parser's grammar. TAG_PATTERN's alternatives: a self-closing tag with a
// first quoted attribute (groups 1 name, 2 attribute text), a comment, an
// XML declaration, a bare open or close tag. Leftmost-longest decides.
constexpr const char TAG_PATTERN[] =
    "<[[:space:]]*([[:alnum:]_\\.]+)[[:space:]]+([[:alnum:]_\\.]+[[:space:]]*=[[:space:]]*\"[^\"]*\"[^<>]*)/>"
    "|<!--[^!]*-->"
    "|<\\?[[:space:]]*xml[[:space:]]+version[^\\?>]*\\?>"
    "|</?[[:space:]]*[[:alnum:]_]+[[:space:]]*>";
constexpr const char ATTR_PATTERN[] = "([[:alnum:]_\\.]+)[[:space:]]*=[[:space:]]*\"([^\"]*)\"";
// One requirement of a `compatible` attribute: key, colon, value.
constexpr const char COMPAT_PATTERN[] = "([[:alnum:]_\\.]+)[[:space:]]*:[[:space:]]*([[:alnum:]_\\.]+)";

// Documents. Texts handed in are copied.
xtags *xtags_create();
void xtags_clear(xtags *doc);   // drops all taglines; filter and flags stay
void xtags_free(xtags *doc);
tagline *xtags_add(xtags *doc, const char *name);
// Replaces the contents by the tags of the NUL-terminated text, then filters.
// 0, or -1 for a null doc or no memory (what was parsed so far stays).
int32_t xtags_parse(xtags *doc, const char *text);
// Reads a file whole and parses it. 0, or -1.
int32_t xtags_load(xtags *doc, const char *path);

// Lookups. The texts belong to the document.
const char *xtags_get(const xtags *doc, const char *name, const char *key);
int32_t xtags_geti(const xtags *doc, const char *name, const char *key);
uint32_t xtags_getu(const xtags *doc, const char *name, const char *key);
void *xtags_getp(const xtags *doc, const char *name, const char *key);
void xtags_set_flag(xtags *doc, uint32_t bits);
bool xtags_has_flag(const xtags *doc, uint32_t bits);

// Changes through a document, on its first tagline of that name.
int32_t xtags_set(xtags *doc, const char *name, const char *key, const char *value);
int32_t xtags_unset(xtags *doc, const char *name, const char *key);
int32_t xtags_seti(xtags *doc, const char *name, const char *key, int32_t value);
int32_t xtags_setu(xtags *doc, const char *name, const char *key, uint32_t value);
int32_t xtags_setp(xtags *doc, const char *name, const char *key, const void *value);

// One tagline.
bool tagline_is(const tagline *line, const char *name);
// First value of the key that is not empty, or null.
const char *tagline_get(const tagline *line, const char *key);
bool tagline_has(const tagline *line, const char *key, const char *value);
int32_t tagline_getl(const tagline *line, const char *key, int32_t fallback);
int32_t tagline_geti(const tagline *line, const char *key, int32_t fallback);
uint32_t tagline_getu(const tagline *line, const char *key, uint32_t fallback);
void *tagline_getp(const tagline *line, const char *key, void *fallback);
bool tagline_getb(const tagline *line, const char *key, bool fallback);
// 0, or ERR_NO_MEMORY. The first pair of the key changes, else one is
// appended; attrs is rebuilt from the pairs.
int32_t tagline_set(tagline *line, const char *key, const char *value);
int32_t tagline_setl(tagline *line, const char *key, long value);
int32_t tagline_seti(tagline *line, const char *key, int32_t value);
int32_t tagline_setu(tagline *line, const char *key, uint32_t value);
// Removes every pair of the key. 0, or ERR_NO_MEMORY.
int32_t tagline_unset(tagline *line, const char *key);
// The tag as one Firehose command, never a multiple of 512 bytes long; the
// caller frees it with mem_free. Null without memory.
char *tagline_format_xml(const tagline *line, size_t *length_out);

// Compatibility filters: facts about the target as key/value pairs. A tag
// whose `compatible` attribute asks for something the filters do not hold
// moves from lines to dropped.
int32_t xtags_add_filter(xtags *doc, const char *key, const char *value);
int32_t xtags_del_filter(xtags *doc, const char *key); // null key: all
int32_t xtags_clr_filter(xtags *doc);
int32_t xtags_filter(xtags *doc);

} // namespace ravik
