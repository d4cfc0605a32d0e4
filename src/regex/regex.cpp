#include "regex/regex.h"

#include <cassert>
#include <climits>

#include "core/alloc.h"

namespace ravik {

namespace {

constexpr int MATCH_FLAGS = REG_EXTENDED | REG_ICASE;

struct compiled {
    regex_t re;
    bool ready;
    compiled(const char *pattern, int flags) : ready(regcomp(&re, pattern, flags) == 0) {}
    ~compiled()
    {
        if (ready)
            regfree(&re);
    }
};

} // namespace

bool regex_match(const char *pattern, const char *text)
{
    if (!pattern || !text)
        return false;
    compiled c(pattern, MATCH_FLAGS | REG_NOSUB);
    return c.ready && regexec(&c.re, text, 0, nullptr, 0) == 0;
}

const char *regex_sub_match(const char *pattern, const char *string, char **result, int max)
{
    assert(string && result && (max > 0));
    if (!string || !result || max <= 0)
        return nullptr;
    for (int i = 0; i < max; i++)
        result[i] = nullptr;
    if (!pattern)
        return nullptr;
    compiled c(pattern, MATCH_FLAGS);
    if (!c.ready)
        return nullptr;
    mem_guard<regmatch_t> m(static_cast<regmatch_t *>(mem_zalloc(sizeof(regmatch_t) * (size_t)max)));
    if (!m.p || regexec(&c.re, string, (size_t)max, m.p, 0) != 0)
        return nullptr;
    for (int i = 0; i < max; i++) {
        if (m.p[i].rm_so < 0)
            continue;
        result[i] = mem_strndup(string + m.p[i].rm_so, (size_t)(m.p[i].rm_eo - m.p[i].rm_so));
        if (!result[i]) {
            for (int j = 0; j < i; j++) {
                mem_free(result[j]);
                result[j] = nullptr;
            }
            return nullptr;
        }
    }
    return string + m.p[0].rm_eo;
}

regex_prog::regex_prog(const char *pattern) : ready(regcomp(&re, pattern, MATCH_FLAGS) == 0) {}

regex_prog::~regex_prog()
{
    if (ready)
        regfree(&re);
}

size_t regex_max_text()
{
    if constexpr (sizeof(regoff_t) >= sizeof(size_t))
        return (size_t)SSIZE_MAX;
    else
        return (size_t)INT_MAX;
}

regex_result regex_search(const regex_prog &prog, const char *text, size_t from, size_t to,
                          regmatch_t *m, size_t nm)
{
    if (!prog.ready || nm == 0 || from > to || to > regex_max_text())
        return REGEX_FAILED;
#ifdef REG_STARTEND
    // Without the window regexec takes the length of the whole rest of the
    // text on every call, which makes a walk over a text quadratic.
    m[0].rm_so = (regoff_t)from;
    m[0].rm_eo = (regoff_t)to;
    int rc = regexec(&prog.re, text, nm, m, REG_STARTEND);
#else
    // Here the window must end at the text's NUL, as every caller's does.
    int rc = regexec(&prog.re, text + from, nm, m, 0);
    if (rc == 0) {
        for (size_t i = 0; i < nm; i++) {
            if (m[i].rm_so >= 0) {
                m[i].rm_so += (regoff_t)from;
                m[i].rm_eo += (regoff_t)from;
            }
        }
    }
#endif
    if (rc == 0)
        return REGEX_FOUND;
    return rc == REG_NOMATCH ? REGEX_NONE : REGEX_FAILED;
}

} // namespace ravik
