// Thin wrappers around the POSIX extended regular expressions, and a
// compiled-once form for code that searches one long text many times.
#pragma once

#include <cstddef>
#include <cstdint>
#include <regex.h>

namespace ravik {

// True if `pattern` matches anywhere in `text`; false also for a pattern
// that does not compile. Case is ignored.
bool regex_match(const char *pattern, const char *text);

// Finds the first match in `string`. Returns the position just behind the
// whole match, or null for no match, a pattern that does not compile or no
// memory. On a match result[0] is the whole match and result[i] the i-th
// group, each a new text from mem_ that the caller frees, or null for a group
// that took no part; entries past the pattern's groups are null.
const char *regex_sub_match(const char *pattern, const char *string, char **result, int max);

// A pattern compiled once with the flags of regex_sub_match. The window
// search reads only text[from, to) and never looks for the end of the text,
// so walking a long text match by match stays linear in its size.
struct regex_prog {
    regex_t re;
    bool ready;

    explicit regex_prog(const char *pattern);
    ~regex_prog();
    regex_prog(const regex_prog &) = delete;
    regex_prog &operator=(const regex_prog &) = delete;
};

enum regex_result : int32_t {
    REGEX_FAILED = -1,  // no memory, or the pattern never compiled
    REGEX_NONE = 0,
    REGEX_FOUND = 1,
};

// The largest text the window search takes: its offsets are regoff_t.
size_t regex_max_text();

// First match in text[from, to), as regexec would find it in the text that
// starts at `from` and ends at `to`. Offsets in `m` count from `text`;
// groups that took no part have rm_so -1.
regex_result regex_search(const regex_prog &prog, const char *text, size_t from, size_t to,
                          regmatch_t *m, size_t nm);

} // namespace ravik
