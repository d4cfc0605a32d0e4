// Sessions leave nothing behind: a hundred on one thread, and as many
// threads that each run one and end, against the scripted target on the
// virtual clock. The library's own count of live blocks must not move, nor
// the process heap; the resident anonymous memory is reported.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <malloc.h>
#include <string>
#include <thread>

#include "core/core.h"
#include "ravik.h"
#include "session/scripted_session.h"
#include "support/helpers.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// The sanitizer runtime counts the heap; its header need not be installed.
extern "C" size_t __sanitizer_get_current_allocated_bytes();
#define RAVIK_SANITIZED_HEAP 1
#endif

using namespace ravik;
using namespace ravik::test;

namespace {

int64_t heap_in_use()
{
#ifdef RAVIK_SANITIZED_HEAP
    return (int64_t)__sanitizer_get_current_allocated_bytes();
#else
    return (int64_t)mallinfo2().uordblks;
#endif
}

long rss_anon_kb()
{
    std::ifstream f("/proc/self/status");
    std::string key;
    long kb = 0;
    while (f >> key)
        if (key == "RssAnon:" && f >> kb)
            break;
    return kb;
}

struct usage {
    int64_t blocks, heap;
    long rss;
};
usage now_used() { return {mem_outstanding(), heap_in_use(), rss_anon_kb()}; }

void one_session(fake_platform &fake)
{
    script_target(fake, true, true);
    EXPECT_EQ(rk_flash_singleimage("dev", "demo.img", DEVICE_FLAG_BNR, nullptr, nullptr), 0);
    fake.clear_script();
    fake.written.clear();
}

void report(const char *what, int runs, const usage &a, const usage &b)
{
    std::printf("leak check: %s runs=%d blocks=%lld heap_bytes=%lld rss_kb=%ld\n", what, runs,
                (long long)(b.blocks - a.blocks), (long long)(b.heap - a.heap), b.rss - a.rss);
}

} // namespace

TEST(Leaks, HundredSessionsOnOneThreadAndAHundredShortThreads)
{
    temp_cwd cwd;
    make_demo("demo.img");
    fake_platform fake;
    const int runs = 100;

    on_fresh_thread([&] {
        // The thread's own blocks, the log rings among them, settle within
        // the first sessions.
        for (int i = 0; i < 3; i++)
            one_session(fake);
        usage a = now_used();
        for (int i = 0; i < runs; i++)
            one_session(fake);
        usage b = now_used();
        report("sessions on one thread", runs, a, b);
        EXPECT_EQ(b.blocks, a.blocks);
        EXPECT_LE(b.heap - a.heap, 4096);
    });

    // Each thread's blocks go with it.
    usage a = now_used();
    for (int i = 0; i < runs; i++)
        on_fresh_thread([&] { one_session(fake); });
    usage b = now_used();
    report("threads of one session", runs, a, b);
    EXPECT_EQ(b.blocks, a.blocks);
    EXPECT_LE(b.heap - a.heap, 4096);
#ifndef RAVIK_SANITIZED_HEAP
    // A sanitizer keeps freed memory in quarantine; a plain heap must not grow.
    EXPECT_LT(b.rss - a.rss, 2048);
#endif
}
