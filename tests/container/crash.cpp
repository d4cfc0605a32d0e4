// A store interrupted anywhere leaves the old container or the new one, for a
// whole store and for one in steps: the process stops after any write (the
// write fails, whole or torn), or the power fails and loses writes.
#include <gtest/gtest.h>

#include <thread>

#include "core/core.h"
#include "support/container.h"
#include "support/helpers.h"

using namespace ravik;
using namespace ravik::test;

namespace {

const std::string A = pattern(5000, 1), B = pattern(1, 2), C = pattern(2 * 4096 + 100, 3);
const std::string OLD = simg_bytes({{"a", A}, {"b", B}}), NEW = simg_bytes({{"a", A}, {"b", B}, {"c", C}});

// c, whole or in steps: the first block, then the second, then the rest. The
// puts come from a thread of their own and allocate nothing.
simg_entry *store_c(simg *h, bool staged)
{
    simg_stage st;
    if (!staged)
        return simg_store(h, C.data(), C.size(), "c");
    if (simg_stage_begin(h, C.size(), "c", &st))
        return nullptr;
    std::thread([&] {
        const uint64_t allocations = mem_alloc_count();
        if (simg_stage_put(&st, C.data(), 4096 + 10) == 0)
            simg_stage_put(&st, C.data(), 2 * 4096);
        EXPECT_EQ(mem_alloc_count(), allocations);
    }).join();
    return simg_stage_end(&st, C.data());
}

// "old" or "new" when the file opens and reads as exactly one of the two.
std::string old_or_new()
{
    simg *h = simg_open("c.img", 0);
    std::string r = !h ? err(get_error()) : got(simg_load(h, "a")) != A || got(simg_load(h, "b")) != B ? "a or b"
                    : h->num_entries == 2 ? "old" : got(simg_load(h, "c")) == C && h->num_entries == 3 ? "new" : "?";
    simg_close(h);
    return r;
}

// The writes of one store of c into OLD, syncs and writebacks among them.
std::vector<io_hook::write_rec> writes_of(bool staged)
{
    write_file("c.img", OLD);
    simg *h = simg_open("c.img", 0);
    io_hook hook;
    EXPECT_NE(store_c(h, staged), nullptr);
    simg_close(h);
    return hook.writes;
}

void put(std::string &img, const io_hook::write_rec &w)
{
    img.resize(std::max(img.size(), w.at + w.bytes.size()), '\0');
    img.replace(w.at, w.bytes.size(), w.bytes);
}

} // namespace

// Writes between two syncs may reach the disk in any order or not at all; a
// write before a sync is on the disk once the sync has returned. A writeback
// promises nothing.
TEST(SimgCrash, StopAfterAnyWriteOrLoseAnyUnsyncedOnes)
{
    temp_cwd cwd;
    for (bool staged : {false, true}) {
        const std::vector<io_hook::write_rec> all_calls = writes_of(staged);
        ASSERT_GE(all_calls.size(), staged ? 9u : 6u) << "header, blocks, last block, tail, syncs, commit, writebacks";
        for (int k = 0; k < 2 * (int)all_calls.size(); k++) {
            std::string what = std::to_string(k / 2) + (k % 2 ? " torn" : "") + (staged ? " staged" : "");
            write_file("c.img", OLD);
            simg *h = simg_open("c.img", 0);
            {
                io_hook hook;
                hook.fail_at = k / 2;
                hook.torn = k % 2;
                EXPECT_EQ(got(store_c(h, staged), 0), err(ERR_IO)) << what;
                EXPECT_EQ(table_of(h), (std::vector<listed>{{"a", 5000, 512}, {"b", 1, 8960}})) << what;
            }
            std::string r = old_or_new();
            EXPECT_TRUE(r == "old" || r == "new") << what << ": " << r;
            // The same handle stores again over whatever the failure left.
            ASSERT_NE(simg_store(h, C.data(), C.size(), "c"), nullptr) << what;
            simg_close(h);
            EXPECT_EQ(old_or_new(), "new") << what;
        }
        std::vector<io_hook::write_rec> writes;
        for (auto &w : all_calls)
            if (w.at != io_hook::WRITEBACK)
                writes.push_back(w);
        std::string durable = OLD, all = OLD;
        std::vector<size_t> pending;
        int images = 0;
        for (size_t cut = 0; cut <= writes.size(); cut++) {
            ASSERT_LE(pending.size(), 8u);
            for (uint32_t mask = 0; mask < (1u << pending.size()); mask++, images++) {
                std::string img = durable;
                for (size_t j = 0; j < pending.size(); j++)
                    if (mask & (1u << j))
                        put(img, writes[pending[j]]);
                write_file("c.img", img);
                std::string r = old_or_new();
                EXPECT_TRUE(r == "old" || r == "new") << cut << " " << mask << (staged ? " staged: " : ": ") << r;
            }
            if (cut < writes.size() && writes[cut].at == io_hook::SYNC) {
                for (size_t p : pending)
                    put(durable, writes[p]);
                pending.clear();
            } else if (cut < writes.size()) {
                pending.push_back(cut);
                put(all, writes[cut]);
            }
        }
        EXPECT_EQ(all, NEW) << "everything written: the new container, to the byte";
        EXPECT_GT(images, 16);
    }
}
