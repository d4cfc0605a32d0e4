// A whole session with every allocation made to fail in turn: each run ends
// with a clean code, never a crash or a leak.
#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <string>

#include "core/core.h"
#include "ravik.h"
#include "session/scripted_session.h"
#include "support/helpers.h"

using namespace ravik;
using namespace ravik::test;

namespace {

int32_t run_session(uint64_t fail_at)
{
    fake_platform fake;
    script_target(fake);
    int32_t code = -1;
    on_fresh_thread([&] {
        mem_fail_nth(fail_at);
        code = rk_flash_singleimage("dev", "demo.img", 0, nullptr, nullptr);
        mem_fail_nth(0);
    });
    return code;
}

} // namespace

TEST(SessionAllocationFailure, EveryAllocationFailingInTurnEndsCleanly)
{
    temp_cwd cwd;
    make_demo("demo.img");
    uint64_t before = mem_alloc_count();
    ASSERT_EQ(run_session(0), 0);
    uint64_t allocations = mem_alloc_count() - before;
    ASSERT_GT(allocations, 20u);
    int64_t outstanding = mem_outstanding();
    int clean_no_memory = 0;
    for (uint64_t n = 1; n <= allocations + 2; n++) {
        int32_t code = run_session(n);
        int low = code & 0xFF;
        // Either the failure surfaced as a code of the system, or the road
        // that failed had a fallback and the session still succeeded.
        EXPECT_TRUE(code == 0 || (low >= ERR_GENERAL && low <= ERR_NOT_STARTED) || low >= ERR_SAHARA_BASE)
            << "allocation " << n << " gave " << code;
        clean_no_memory += low == ERR_NO_MEMORY;
        EXPECT_EQ(mem_outstanding(), outstanding) << "leak after failing allocation " << n << " code " << code;
    }
    EXPECT_GT(clean_no_memory, 0);
}
