// The one allocator of the library. Every block comes zeroed. Tests make the
// Nth allocation fail to walk every out-of-memory road.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ravik {

// A zeroed block of n bytes (n 0 counts as 1), or null.
void *mem_zalloc(size_t n);
// Resizes a block of old_n bytes to new_n; bytes past old_n come zeroed.
// Null on failure, and the old block is then still valid.
void *mem_realloc(void *p, size_t old_n, size_t new_n);
void mem_free(void *p);
// Copies of a text (or of its first n bytes), NUL-terminated, or null.
char *mem_strdup(const char *s);
char *mem_strndup(const char *s, size_t n);

// Typed form for records: T must be a plain record.
template <typename T> T *mem_new() { return static_cast<T *>(mem_zalloc(sizeof(T))); }

// Fault injection: the nth allocation from now on fails (1 is the next one);
// 0 turns failing off. Counts across all threads.
void mem_fail_nth(uint64_t n);
// Allocations attempted since the process started.
uint64_t mem_alloc_count();
// Blocks handed out and not yet freed.
int64_t mem_outstanding();

// Frees with mem_free when the guard goes out of scope, unless released.
template <typename T> struct mem_guard {
    T *p;
    explicit mem_guard(T *ptr) : p(ptr) {}
    ~mem_guard() { mem_free(p); }
    T *release()
    {
        T *r = p;
        p = nullptr;
        return r;
    }
    mem_guard(const mem_guard &) = delete;
    mem_guard &operator=(const mem_guard &) = delete;
};

} // namespace ravik
