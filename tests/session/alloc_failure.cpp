// A whole session, backup and restore included, once for every allocation it
// makes, that one failing: each ends with a clean code, leaks nothing, and
// the next session on its thread succeeds. At most one backup file stays, it
// opens with every entry, and it stays whenever persist was erased and not
// written back.
#include <gtest/gtest.h>

#include "backup/backup_files.h"
#include "core/core.h"
#include "session/scripted_session.h"
#include "support/helpers.h"

using namespace ravik;
using namespace ravik::test;

// In shards, so that they can run side by side.
const int SHARDS = 8;
class SessionAllocationFailure : public testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(Shard, SessionAllocationFailure, testing::Range(0, SHARDS));

TEST_P(SessionAllocationFailure, EveryAllocationFailingInTurnEndsCleanly)
{
    simg_io().fdatasync = [](int) { return 0; }; // thrown away with the directory
    temp_cwd cwd;
    make_demo("demo.img");
    const int64_t outstanding = mem_outstanding();
    int no_memory = 0, kept = 0, restores = 0;
    uint64_t whole = UINT64_MAX;
    for (uint64_t n = 0; n <= whole + 1; n += n ? SHARDS : 1 + GetParam()) {
        SCOPED_TRACE("allocation " + std::to_string(n));
        fake_platform fake;
        int32_t code = -1, next = 0;
        std::string written;
        on_fresh_thread([&] {
            const uint64_t before = mem_alloc_count();
            code = failing_nth(n, [&] { return demo_session(fake); });
            whole = n ? whole : mem_alloc_count() - before;
            written = fake.written;
            next = n ? demo_session(fake) : 0;
        });
        ASSERT_TRUE(n || code == 0);
        const int low = code & 0xFF;
        EXPECT_TRUE(code == 0 || (low >= ERR_GENERAL && low <= ERR_NOT_STARTED) || low >= ERR_SAHARA_BASE) << code;
        EXPECT_EQ(next, 0);
        // The restore erases persist (sector 64) with zeros, then writes it back.
        size_t erase = std::string::npos;
        for (auto &c : commands(written))
            if (erase == std::string::npos && c.rfind("program ", 0) == 0 && c.find("start_sector=\"64\"") != c.npos)
                erase = written.find(c);
        const auto files = backup_files();
        EXPECT_LE(files.size(), n ? 1u : 0u);
        EXPECT_TRUE(erase == std::string::npos || written.find(PERSIST, erase) != std::string::npos || files.size() == 1)
            << "persist erased and lost";
        on_fresh_thread([&] { // so that the reader's per-thread blocks go with it
            for (auto &f : files) {
                simg *h = simg_open(f.c_str(), 0);
                EXPECT_TRUE(h && h->num_entries > 0) << f;
                for (int32_t i = 0; h && i < h->num_entries; i++)
                    EXPECT_NE(simg_load(h, h->entries[i].name), nullptr) << f << " " << h->entries[i].name;
                simg_close(h);
                std::remove(f.c_str());
            }
        });
        EXPECT_EQ(mem_outstanding(), outstanding) << "leak, code " << code;
        no_memory += low == ERR_NO_MEMORY, kept += (int)files.size(), restores += erase != std::string::npos;
    }
    simg_io_reset();
    // The sweep reached the failures that matter.
    EXPECT_TRUE(no_memory && kept && restores) << no_memory << " " << kept << " " << restores;
    std::printf("allocation-failure runs: shard %d of a whole session %llu, no memory %d, restores begun %d, "
                "backup kept %d\n", GetParam(), (unsigned long long)whole, no_memory, restores, kept);
}
