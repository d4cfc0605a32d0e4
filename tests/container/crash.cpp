// A store interrupted anywhere leaves the old container or the new one. Two
// views: the process stops after any write (the write fails, whole or torn),
// and the power fails with any subset of the writes since the last sync lost.
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
    size_t calls;
    {
        simg *h = simg_open("c.img", 0);
        io_hook hook;
        ASSERT_NE(simg_store(h, cc.c.data(), cc.c.size(), "c"), nullptr);
        calls = hook.writes.size();
        simg_close(h);
    }
    ASSERT_GE(calls, 6u) << "header, blocks, last block, tail, syncs and commit";
    for (bool torn : {false, true}) {
        for (size_t k = 0; k < calls; k++) {
            std::string what = "stopped at call " + std::to_string(k) + (torn ? " torn" : "");
            write_file("c.img", cc.old_bytes);
            simg *h = simg_open("c.img", 0);
            ASSERT_NE(h, nullptr);
            {
                io_hook hook;
                hook.fail_at = (long)k;
                hook.torn = torn;
                EXPECT_EQ(simg_store(h, cc.c.data(), cc.c.size(), "c"), nullptr) << what;
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

// Writes between two fsyncs may reach the disk in any order or not at all; a
// write before a sync is on the disk once the sync has returned.
TEST(SimgCrash, PowerCutLosesAnyUnsyncedWrites)
{
    temp_cwd cwd;
    crash_case cc;
    std::vector<io_hook::write_rec> writes;
    {
        simg *h = simg_open("c.img", 0);
        io_hook hook;
        ASSERT_NE(simg_store(h, cc.c.data(), cc.c.size(), "c"), nullptr);
        writes = hook.writes;
        simg_close(h);
    }
    int images = 0;
    for (size_t cut = 0; cut <= writes.size(); cut++) {
        std::string durable = cc.old_bytes;
        std::vector<size_t> pending;
        for (size_t i = 0; i < cut; i++) {
            if (writes[i].at == UINT64_MAX) {
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
            cc.expect_old_or_new("cut " + std::to_string(cut) + " mask " + std::to_string(mask));
            images++;
        }
    }
    // Everything written and synced: the new container, to the byte.
    std::string all = cc.old_bytes;
    for (auto &w : writes)
        if (w.at != UINT64_MAX)
            put_write(all, w);
    EXPECT_EQ(all, simg_bytes({{"a", cc.a}, {"b", cc.b}, {"c", cc.c}}));
    EXPECT_GT(images, 16);
}
