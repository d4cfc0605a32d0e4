// Sessions leave nothing behind: a hundred on one thread, and a hundred
// threads that each run one and end. Neither the library's count of live
// blocks nor the heap may grow.
#include <gtest/gtest.h>

#include <malloc.h>

#include "core/core.h"
#include "session/scripted_session.h"
#include "support/helpers.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// The sanitizer runtime counts the heap; its header need not be installed.
extern "C" size_t __sanitizer_get_current_allocated_bytes();
#define HEAP_IN_USE() (int64_t) __sanitizer_get_current_allocated_bytes()
#else
#define HEAP_IN_USE() (int64_t) mallinfo2().uordblks
#endif

using namespace ravik;
using namespace ravik::test;

static void check_runs(const char *what, void (*each)(const std::function<void()> &))
{
    temp_cwd cwd;
    make_demo("demo.img");
    fake_platform fake;
    simg_io().fdatasync = [](int) { return 0; }; // the backup files go with the directory
    auto session = [&] { EXPECT_EQ(demo_session(fake), 0); };
    // The thread's own blocks, the log rings among them, settle within the first sessions.
    for (int i = 0; i < 3; i++)
        each(session);
    int64_t blocks = mem_outstanding(), heap = HEAP_IN_USE();
    for (int i = 0; i < 100; i++)
        each(session);
    simg_io_reset();
    blocks = mem_outstanding() - blocks, heap = HEAP_IN_USE() - heap;
    std::printf("leak check: %s runs=100 blocks=%lld heap_bytes=%lld\n", what, (long long)blocks, (long long)heap);
    EXPECT_EQ(blocks, 0);
    EXPECT_LE(heap, 4096);
}

TEST(Leaks, HundredSessionsOnOneThread)
{
    on_fresh_thread([] { check_runs("sessions on one thread", [](auto &session) { session(); }); });
}

// Each thread's blocks go with it.
TEST(Leaks, HundredShortThreads)
{
    check_runs("threads of one session", [](auto &session) { on_fresh_thread(session); });
}
