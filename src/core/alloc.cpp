#include "core/alloc.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

namespace ravik {

namespace {
std::atomic<uint64_t> alloc_count{0};
std::atomic<uint64_t> fail_at{0};
std::atomic<int64_t> outstanding{0};

bool should_fail()
{
    uint64_t n = alloc_count.fetch_add(1, std::memory_order_relaxed) + 1;
    uint64_t f = fail_at.load(std::memory_order_relaxed);
    return f != 0 && n == f;
}

// Large blocks are filled soon after they are taken (a partition read, an
// entry), and a page fault per 4 KiB page costs far more than the copy that
// causes it; so their pages are made present in one call. Where the kernel
// cannot, they fault in as before.
constexpr size_t PREFAULT_FROM = 2u << 20;

void prefault(void *p, size_t n)
{
#ifdef MADV_POPULATE_WRITE
    uintptr_t page = (uintptr_t)sysconf(_SC_PAGESIZE);
    uintptr_t from = ((uintptr_t)p + page - 1) & ~(page - 1);
    uintptr_t to = ((uintptr_t)p + n) & ~(page - 1);
    if (to > from)
        madvise((void *)from, to - from, MADV_POPULATE_WRITE);
#else
    (void)p;
    (void)n;
#endif
}
} // namespace

void *mem_zalloc(size_t n)
{
    if (should_fail())
        return nullptr;
    void *p = calloc(1, n ? n : 1);
    if (p)
        outstanding.fetch_add(1, std::memory_order_relaxed);
    if (p && n >= PREFAULT_FROM)
        prefault(p, n);
    return p;
}

void *mem_realloc(void *p, size_t old_n, size_t new_n)
{
    if (!p)
        return mem_zalloc(new_n);
    if (should_fail())
        return nullptr;
    void *q = realloc(p, new_n ? new_n : 1);
    if (q && new_n > old_n)
        memset(static_cast<char *>(q) + old_n, 0, new_n - old_n);
    return q;
}

void mem_free(void *p)
{
    if (!p)
        return;
    outstanding.fetch_sub(1, std::memory_order_relaxed);
    free(p);
}

char *mem_strndup(const char *s, size_t n)
{
    size_t len = strnlen(s, n);
    char *d = static_cast<char *>(mem_zalloc(len + 1));
    if (d)
        memcpy(d, s, len);
    return d;
}

char *mem_strdup(const char *s) { return mem_strndup(s, strlen(s)); }

void mem_fail_nth(uint64_t n)
{
    fail_at.store(n ? alloc_count.load(std::memory_order_relaxed) + n : 0,
                  std::memory_order_relaxed);
}

uint64_t mem_alloc_count() { return alloc_count.load(std::memory_order_relaxed); }
int64_t mem_outstanding() { return outstanding.load(std::memory_order_relaxed); }

} // namespace ravik
