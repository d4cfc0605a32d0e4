// A store interrupted anywhere leaves the old container or the new one. Two
// views: the process stops after any write (the write fails, whole or torn),
// and the power fails with any subset of the writes since the last sync lost.
// Both for a whole store and for one in steps, whose data goes down in pieces
// before the rest.
#include <gtest/gtest.h>

#include "container/container.h"
#include "container/simg_support.h"
#include "core/core.h"
#include "support/helpers.h"

using namespace ravik;
using namespace ravik::test;

namespace {

struct crash_case {
    std::string a = pattern(5000, 1), b = pattern(1, 2), c = pattern(2 * 4096 + 100, 3);
    std::string old_bytes;
    std::vector<listed> old_table, new_table;

    crash_case()
    {
        simg *h = simg_open("c.img", SIMG_CREATE);
        simg_store(h, a.data(), a.size(), "a");
        simg_store(h, b.data(), b.size(), "b");
        old_table = table_of(h);
        simg_close(h);
        old_bytes = read_file("c.img");
        new_table = old_table;
        new_table.push_back({"c", c.size(), old_bytes.size()});
    }

    // c, whole or in steps: the first block, then the second, then the rest.
    simg_entry *store_c(simg *h, bool staged)
    {
        if (!staged)
            return simg_store(h, c.data(), c.size(), "c");
        simg_stage st;
        if (simg_stage_begin(h, c.size(), "c", &st) != 0)
            return nullptr;
        for (uint64_t upto : {4096 + 10, 2 * 4096})
            if (simg_stage_put(&st, c.data(), upto) != 0)
                break;
        return simg_stage_end(&st, c.data());
    }

    // The file must open and read as exactly one of the two containers.
    void expect_old_or_new(const std::string &what)
    {
        simg *h = simg_open("c.img", 0);
        ASSERT_NE(h, nullptr) << what;
        std::vector<listed> t = table_of(h);
        if (t == new_table) {
            simg_entry *e = simg_load(h, "c");
            ASSERT_NE(e, nullptr) << what;
            EXPECT_TRUE(std::string((char *)e->data, e->size) == c) << what;
        } else {
            EXPECT_EQ(t, old_table) << what;
        }
        EXPECT_TRUE(std::string((char *)simg_load(h, "a")->data, a.size()) == a) << what;
        EXPECT_EQ(simg_load(h, "b")->data[0], (uint8_t)b[0]) << what;
        simg_close(h);
    }
};

void put_write(std::string &img, const io_hook::write_rec &w)
{
    if (img.size() < w.at + w.bytes.size())
        img.resize(w.at + w.bytes.size(), '\0');
    img.replace(w.at, w.bytes.size(), w.bytes);
}

} // namespace

TEST(SimgCrash, StopAfterEachWrite)
{
    temp_cwd cwd;
    crash_case cc;
    for (bool staged : {false, true}) {
        size_t calls;
        {
            write_file("c.img", cc.old_bytes);
            simg *h = simg_open("c.img", 0);
            io_hook hook;
            ASSERT_NE(cc.store_c(h, staged), nullptr);
            calls = hook.writes.size();
            simg_close(h);
        }
        ASSERT_GE(calls, staged ? 9u : 6u) << "header, blocks, last block, tail, syncs, commit, writebacks";
        for (bool torn : {false, true}) {
            for (size_t k = 0; k < calls; k++) {
                std::string what = "stopped at call " + std::to_string(k) + (torn ? " torn" : "") +
                                   (staged ? " staged" : "");
                write_file("c.img", cc.old_bytes);
                simg *h = simg_open("c.img", 0);
                ASSERT_NE(h, nullptr);
                {
                    io_hook hook;
                    hook.fail_at = (long)k;
                    hook.torn = torn;
                    EXPECT_EQ(cc.store_c(h, staged), nullptr) << what;
                    EXPECT_EQ(get_error() & 0xFF, ERR_IO) << what;
                    EXPECT_EQ(table_of(h), cc.old_table) << what;
                }
                cc.expect_old_or_new(what);
                // The same handle stores again over whatever the failure left.
                ASSERT_NE(simg_store(h, cc.c.data(), cc.c.size(), "c"), nullptr) << what;
                simg_close(h);
                h = simg_open("c.img", 0);
                EXPECT_EQ(table_of(h), cc.new_table) << what;
                simg_close(h);
            }
        }
    }
}

// Writes between two fsyncs may reach the disk in any order or not at all; a
// write before a sync is on the disk once the sync has returned.
TEST(SimgCrash, PowerCutLosesAnyUnsyncedWrites)
{
    temp_cwd cwd;
    crash_case cc;
    for (bool staged : {false, true}) {
        std::vector<io_hook::write_rec> writes;
        {
            write_file("c.img", cc.old_bytes);
            simg *h = simg_open("c.img", 0);
            io_hook hook;
            ASSERT_NE(cc.store_c(h, staged), nullptr);
            // A writeback promises nothing about what is on the disk.
            for (auto &w : hook.writes)
                if (w.at != io_hook::WRITEBACK)
                    writes.push_back(w);
            simg_close(h);
        }
        int images = 0;
        for (size_t cut = 0; cut <= writes.size(); cut++) {
            std::string durable = cc.old_bytes;
            std::vector<size_t> pending;
            for (size_t i = 0; i < cut; i++) {
                if (writes[i].at == io_hook::SYNC) {
                    for (size_t p : pending)
                        put_write(durable, writes[p]);
                    pending.clear();
                } else {
                    pending.push_back(i);
                }
            }
            ASSERT_LE(pending.size(), 8u);
            for (uint32_t mask = 0; mask < (1u << pending.size()); mask++) {
                std::string img = durable;
                for (size_t j = 0; j < pending.size(); j++)
                    if (mask & (1u << j))
                        put_write(img, writes[pending[j]]);
                write_file("c.img", img);
                cc.expect_old_or_new("cut " + std::to_string(cut) + " mask " + std::to_string(mask) +
                                     (staged ? " staged" : ""));
                images++;
            }
        }
        // Everything written and synced: the new container, to the byte.
        std::string all = cc.old_bytes;
        for (auto &w : writes)
            if (w.at != io_hook::SYNC)
                put_write(all, w);
        EXPECT_EQ(all, simg_bytes({{"a", cc.a}, {"b", cc.b}, {"c", cc.c}}));
        EXPECT_GT(images, 16);
    }
}
