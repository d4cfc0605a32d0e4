// The writer: bytes on disk against containers built by hand, the full table,
// delete, containers past 4 GiB, stores interrupted.
#include <gtest/gtest.h>

#include <thread>

#include "core/core.h"
#include "support/container.h"
#include "support/helpers.h"

using namespace ravik;
using namespace ravik::test;

TEST(SimgWriter, StoresUpToAFullTable)
{
    temp_cwd cwd;
    simg *h = simg_open("a.img", SIMG_CREATE);
    std::vector<raw_entry> want;
    for (uint64_t i = 0; i < 128; i++) {
        const uint64_t sizes[] = {5000, 1, 4096, 4097, 8192, 0};
        want.push_back({"entry/" + std::to_string(i), pattern(i < 6 ? sizes[i] : i * 977 % 9000, (uint32_t)i)});
        simg_entry *e = simg_store(h, want[i].data.data(), want[i].data.size(), want[i].name.c_str());
        ASSERT_NE(e, nullptr) << i;
        EXPECT_TRUE(get_error() == 0 && e->data == nullptr) << "a store leaves the record unloaded";
        EXPECT_TRUE(i > 6 || read_file("a.img") == simg_bytes(want)) << "every step a whole container: " << i;
    }
    const std::vector<listed> written = table_of(h);
    const std::string before = read_file("a.img");
    EXPECT_EQ(got(simg_store(h, "x", 1, "one-too-many")), err(ERR_RANGE));
    EXPECT_EQ(got(simg_store(h, "x", 1, "entry/5")), err(ERR_EXISTS));
    EXPECT_TRUE(table_of(h) == written && h->end_offset == before.size() && read_file("a.img") == before)
        << "a refused store changes nothing";
    simg_close(h);
    h = simg_open("a.img", 0);
    ASSERT_TRUE(table_of(h) == written && h->end_offset == before.size());
    for (int i = 1; i < 128; i += 9)
        EXPECT_EQ(got(simg_load(h, want[i].name.c_str())), want[i].data) << i;
    simg_close(h);
}

// Later entries move down, the file not shortened; loaded buffers, small or mapped, stay valid.
TEST(SimgWriter, DeleteMovesLaterEntriesDown)
{
    temp_cwd cwd;
    for (size_t big : {(size_t)3000, (size_t)(2 << 20) + 5}) {
        const std::string file = std::to_string(big);
        simg *h = simg_open(file.c_str(), SIMG_CREATE);
        const std::string a = pattern(big, 1), b = pattern(big + 77, 2), c = pattern(big / 3, 3), d = pattern(9, 4);
        std::vector<uint8_t *> loaded;
        for (auto [name, s] : {std::pair{"a", &a}, {"b", &b}, {"c", &c}}) {
            simg_store(h, s->data(), s->size(), name);
            loaded.push_back(simg_loads(h, name)->data);
        }
        EXPECT_EQ(h->entries[0].map_len != 0, big > 3000) << "the large case must load by mapping";
        const size_t size = read_file(file).size();
        for (auto [hh, name] : {std::pair<simg *, const char *>{h, "nothing"}, {h, nullptr}, {nullptr, "a"}})
            EXPECT_EQ(err(simg_delete(hh, name)), err(ERR_NOT_FOUND));
        ASSERT_EQ(simg_delete(h, "a"), 0);
        EXPECT_EQ(simg_find(h, "b")->data, loaded[1]) << "a loaded buffer moves with its record";
        EXPECT_TRUE(read_file(file).size() == size && read_file(file).substr(0, h->end_offset) ==
                                                          simg_bytes({{"b", b}, {"c", c}})) << big;
        ASSERT_NE(simg_store(h, d.data(), d.size(), "d"), nullptr);
        ASSERT_EQ(simg_delete(h, "b"), 0);
        ASSERT_NE(simg_store(h, d.data(), d.size(), "e"), nullptr);
        EXPECT_EQ(read_file(file).substr(0, h->end_offset), simg_bytes({{"c", c}, {"d", d}, {"e", d}})) << big;
        EXPECT_EQ(simg_load(h, "c")->data, loaded[2]);
        EXPECT_TRUE(std::string((char *)loaded[0], big) == a && std::string((char *)loaded[1], b.size()) == b &&
                    std::string((char *)loaded[2], c.size()) == c && got(simg_load(h, "d")) == d) << big;
        // Deleting the last entry moves only the tail block, where a store then goes.
        ASSERT_EQ(simg_delete(h, "e"), 0);
        ASSERT_NE(simg_store(h, "new", 3, "n"), nullptr);
        EXPECT_EQ(read_file(file).substr(0, h->end_offset), simg_bytes({{"c", c}, {"d", d}, {"n", "new"}})) << big;
        for (const char *name : {"c", "d", "n"})
            ASSERT_EQ(simg_delete(h, name), 0);
        EXPECT_TRUE(table_of(h).empty() && h->end_offset == 512u && read_file(file).substr(0, 512) == simg_bytes({}));
        simg_close(h);
    }
}

// Offsets past 2^32: the walk, loads, a store and a delete that moves data down by over 4 GiB.
TEST(SimgWriter, SparseContainerPastFourGiB)
{
    temp_cwd cwd;
    const uint64_t huge = (4ull << 30) + 4096, at = 512 + huge;
    const std::string last = pattern(5000, 7), more = pattern(4097, 8);
    const std::string head = simg_bytes({{"huge", "", huge}}, false), tail = simg_bytes({{"last", last}}).substr(256);
    std::ofstream("big.img", std::ios::binary).write(head.data(), 512).seekp((std::streamoff)at).write(tail.data(),
                                                                                                     8704);
    simg *h = simg_open("big.img", 0);
    EXPECT_TRUE(table_of(h) == (std::vector<listed>{{"huge", huge, 512}, {"last", 5000, at + 256}}) &&
                h->end_offset == at + tail.size() && got(simg_load(h, "last")) == last);
    ASSERT_NE(simg_store(h, more.data(), more.size(), "more"), nullptr);
    EXPECT_EQ(h->entries[2].offset, at + tail.size());
    ASSERT_EQ(simg_delete(h, "huge"), 0);
    simg_close(h);
    h = simg_open("big.img", 0);
    EXPECT_EQ(table_of(h), (std::vector<listed>{{"last", 5000, 512}, {"more", 4097, 512 + 8192 + 256}}));
    EXPECT_TRUE(got(simg_load(h, "last")) == last && got(simg_load(h, "more")) == more);
    simg_close(h);
}

namespace {

const std::string A = pattern(5000, 1), B = pattern(1, 2), C = pattern(2 * 4096 + 100, 3);
const std::string OLD = simg_bytes({{"a", A}, {"b", B}}), NEW = simg_bytes({{"a", A}, {"b", B}, {"c", C}});

// c whole, or in steps: puts from a thread of their own, allocating nothing.
simg_entry *store_c(simg *h, bool staged)
{
    simg_stage st;
    if (!staged || simg_stage_begin(h, C.size(), "c", &st) != 0)
        return staged ? nullptr : simg_store(h, C.data(), C.size(), "c");
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
bool whole(const std::string &state) { return state == "old" || state == "new"; }

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

// A store, whole or in steps, stopped after any write (failed whole or torn) or
// cut by a power failure, leaves the old container or the new one. Writes since
// the last sync may be lost in any subset; a writeback promises nothing.
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
            EXPECT_PRED1(whole, old_or_new()) << what;
            // The same handle stores again over whatever the failure left.
            ASSERT_NE(simg_store(h, C.data(), C.size(), "c"), nullptr) << what;
            simg_close(h);
            EXPECT_EQ(old_or_new(), "new") << what;
        }
        std::vector<io_hook::write_rec> writes = all_calls;
        std::erase_if(writes, [](auto &w) { return w.at == io_hook::WRITEBACK; });
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
                EXPECT_PRED1(whole, old_or_new()) << cut << " " << mask << (staged ? " staged" : "");
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
