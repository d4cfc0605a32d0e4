// What the fuzz targets share. Each target's body takes one input and ends
// the way a thread ends, with its per-thread blocks freed, so no state of the
// library carries from one input to the next and the allocator's balance can
// be checked. A body aborts on anything it finds; the libFuzzer driver and
// the regression test call the same bodies.
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "core/alloc.h"
#include "core/tls.h"
#include "support/fake_platform.h"

namespace ravik::fuzz {

void tags_one(const uint8_t *data, size_t size);
void container_one(const uint8_t *data, size_t size);
void gpt_one(const uint8_t *data, size_t size);
void sahara_one(const uint8_t *data, size_t size);
void response_one(const uint8_t *data, size_t size);

[[noreturn]] inline void fail(const char *what)
{
    fprintf(stderr, "fuzz: %s\n", what);
    abort();
}

inline void check(bool ok, const char *what)
{
    if (!ok)
        fail(what);
}

// Runs fn and then frees the thread's blocks as its end would (a fresh
// thread each time costs more than the rest of most inputs); every block fn
// took must be back then.
template <typename F> void run_isolated(F &&fn)
{
    tls_thread_detach();
    int64_t before = mem_outstanding();
    fn();
    mem_fail_nth(0);
    tls_thread_detach();
    check(mem_outstanding() == before, "blocks of the library left behind");
}

// Which allocation an input's byte b makes fail: finely spaced at first,
// then wider, so that one byte reaches the thousands of allocations of a
// whole discovery. 0 is none.
inline uint64_t nth_allocation(uint8_t b) { return b + (uint64_t)b * b / 16; }

// The input, taken from the front.
struct input {
    const uint8_t *p;
    size_t n;
    bool empty() const { return n == 0; }
    uint8_t byte()
    {
        if (!n)
            return 0;
        n--;
        return *p++;
    }
    std::string take(size_t k)
    {
        k = k < n ? k : n;
        std::string s(reinterpret_cast<const char *>(p), k);
        p += k;
        n -= k;
        return s;
    }
    std::string rest() { return take(n); }
};

// The rest of the input as what the line delivers, read by read: a length
// byte and that many bytes; 0 is a read that finds the line idle, 255 a
// read that fails, 254 64 KiB of the byte that follows, so that a short
// input can fill a buffer.
inline void push_reads(test::fake_platform &fake, input &in)
{
    while (!in.empty()) {
        uint8_t len = in.byte();
        if (len == 0)
            fake.push_idle();
        else if (len == 255)
            fake.push_read_error(EIO);
        else if (len == 254)
            fake.push_bytes(std::string(65536, (char)in.byte()));
        else
            fake.push_bytes(in.take(len));
    }
}

} // namespace ravik::fuzz

// The libFuzzer entry, in the fuzz build only.
#ifdef RAVIK_FUZZ_MAIN
#define RAVIK_FUZZ_ENTRY(body)                                                                     \
    extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)                        \
    {                                                                                              \
        body(data, size);                                                                          \
        return 0;                                                                                  \
    }
#else
#define RAVIK_FUZZ_ENTRY(body)
#endif
