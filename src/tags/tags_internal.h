// Inner operations of the tag-document module, shared by its sources and
// its tests.
#pragma once

#include <cstdint>

#include "tags/tags.h"

namespace ravik {

// ASCII case-insensitive equality; null equals nothing.
bool tags_ieq(const char *a, const char *b);

// The number rules: base detection as strtol/strtoul with base 0, 0 where
// nothing is a number, results clamped to 32 bits. The pointer rule is as
// wide as an address.
int32_t tags_number_signed(const char *text);
uint32_t tags_number_unsigned(const char *text);
uintptr_t tags_number_pointer(const char *text);

void kvp_free(kvp *pair);
tagline *tagline_new(const char *name);
void tagline_free(tagline *line);
// Rebuilds attrs from the pairs: 0, or ERR_NO_MEMORY with the old text kept.
int32_t tagline_invalidate(tagline *line);
// Appends a pair that takes over both texts; null (texts not taken) without memory.
kvp *tagline_append(tagline *line, char *key, char *value);

// True if the pairs of `requirements` are met by the pairs of `filters`.
bool tagline_compatible(tagline *requirements, const tagline *filters);
// `line` if it passes the document's filters, else null.
tagline *filter_tagline(xtags *doc, tagline *line);

} // namespace ravik
