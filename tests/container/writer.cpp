// The writer: bytes on disk, round trips through the reader, the full table,
// delete, import and export, stores in steps, containers past 4 GiB.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <thread>
#include <unistd.h>

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
        uint64_t size = i < 6 ? std::vector<uint64_t>{5000, 1, 4096, 4097, 8192, 0}[i] : i * 977 % 9000;
        want.push_back({"entry/" + std::to_string(i), pattern(size, (uint32_t)i)});
        simg_entry *e = simg_store(h, want[i].data.data(), size, want[i].name.c_str());
        ASSERT_NE(e, nullptr) << i;
        EXPECT_TRUE(get_error() == 0 && e->data == nullptr) << "a store leaves the record unloaded";
        EXPECT_TRUE(i > 6 || read_file("a.img") == simg_bytes(want)) << "every step a whole container: " << i;
    }
    std::vector<listed> written = table_of(h);
    std::string before = read_file("a.img");
    EXPECT_EQ(got(simg_store(h, "x", 1, "one-too-many")), err(ERR_RANGE));
    EXPECT_EQ(got(simg_store(h, "x", 1, "entry/5")), err(ERR_EXISTS));
    EXPECT_EQ(h->num_entries, 128);
    EXPECT_EQ(read_file("a.img"), before) << "a refused store writes nothing";
    EXPECT_EQ(h->end_offset, before.size());
    simg_close(h);
    h = simg_open("a.img", 0);
    ASSERT_EQ(table_of(h), written);
    EXPECT_EQ(h->end_offset, before.size());
    for (int i = 1; i < 128; i += 9)
        EXPECT_EQ(got(simg_load(h, want[i].name.c_str())), want[i].data) << i;
    simg_close(h);
    std::string mem = before;
    h = simg_mopen(mem.data(), mem.size());
    ASSERT_EQ(table_of(h), written);
    EXPECT_EQ(got(simg_store(h, "x", 1, "x")), err(ERR_NOT_SUPPORTED));
    EXPECT_EQ(simg_delete(h, "entry/1") & 0xFF, ERR_NOT_SUPPORTED);
    EXPECT_TRUE(mem == before);
    simg_close(h);
}

TEST(SimgWriter, NamesInFileAndTable)
{
    temp_cwd cwd;
    simg *h = simg_open("a.img", SIMG_CREATE);
    std::string n200(200, 'l'), n300(300, 'm');
    // The duplicate test sees only the cut name, so the long form stores again.
    for (const std::string &name : {n200, n200, n300, n200.substr(0, 127)})
        simg_store(h, "a", 1, name.c_str());
    EXPECT_EQ(get_error() & 0xFF, ERR_EXISTS);
    std::string want = simg_bytes({{n200, "a"}, {n200, "a"}, {n300.substr(0, 247), "a"}});
    EXPECT_EQ(read_file("a.img"), want);
    EXPECT_EQ(table_of(h).back(), (listed{n300.substr(0, 127), 1, 9216}));
    simg_close(h);
    // An empty name hides itself and everything behind it from a reader.
    h = simg_open("b.img", SIMG_CREATE);
    for (const char *name : {"one", "", "three"})
        ASSERT_NE(simg_store(h, "1", 1, name), nullptr);
    simg_close(h);
    h = simg_open("b.img", 0);
    EXPECT_EQ(table_of(h), (std::vector<listed>{{"one", 1, 512}}));
    simg_close(h);
}

TEST(SimgWriter, DeleteMovesLaterEntriesDown)
{
    temp_cwd cwd;
    simg *h = simg_open("a.img", SIMG_CREATE);
    std::string a = pattern(5000, 1), b = pattern(100, 2), c = pattern(8192, 3);
    for (auto [name, s] : {std::pair{"a", &a}, {"b", &b}, {"c", &c}})
        simg_store(h, s->data(), s->size(), name);
    std::string before = read_file("a.img");
    for (auto [hh, name] : {std::pair<simg *, const char *>{h, "nothing"}, {h, nullptr}, {nullptr, "a"}})
        EXPECT_EQ(err(simg_delete(hh, name)), err(ERR_NOT_FOUND));
    EXPECT_EQ(read_file("a.img"), before);
    ASSERT_EQ(simg_delete(h, "a"), 0);
    const std::vector<listed> moved{{"b", 100, 512}, {"c", 8192, 4864}};
    EXPECT_EQ(table_of(h), moved);
    EXPECT_EQ(h->end_offset, 4864u + 8192 + 256);
    EXPECT_TRUE(got(simg_load(h, "b")) == b && got(simg_load(h, "c")) == c);
    EXPECT_EQ(read_file("a.img").size(), before.size()) << "the file is not shortened";
    simg_close(h);
    h = simg_open("a.img", 0);
    EXPECT_EQ(table_of(h), moved);
    // Deleting the last entry moves only the tail block; a store then goes
    // where that tail block now stands.
    ASSERT_EQ(simg_delete(h, "c"), 0);
    EXPECT_EQ(h->end_offset, 4864u);
    ASSERT_NE(simg_store(h, "new", 3, "n"), nullptr);
    EXPECT_EQ(h->entries[1].offset, 4864u);
    ASSERT_EQ(simg_delete(h, "b") + simg_delete(h, "n"), 0);
    EXPECT_EQ(h->end_offset, 512u);
    simg_close(h);
    EXPECT_EQ(read_file("a.img").substr(0, 512), simg_bytes({}));
    h = simg_open("a.img", 0);
    EXPECT_TRUE(table_of(h).empty() && h->end_offset == 512u);
    simg_close(h);
}

// Data written while it still arrives: pieces ending anywhere, put from a
// thread of their own without allocating, land as one whole store puts them,
// and until the end commits the file reads as it did.
TEST(SimgWriter, StagedStoreFromAnotherThreadMatchesWholeStore)
{
    temp_cwd cwd;
    std::string first = pattern(5000, 1), data = pattern(9 * 4096 + 123, 2);
    simg *h = simg_open("a.img", SIMG_CREATE);
    ASSERT_NE(simg_store(h, first.data(), first.size(), "first"), nullptr);
    std::string before = read_file("a.img");
    simg_stage st;
    EXPECT_EQ(err(simg_stage_begin(h, data.size(), "first", &st)), err(ERR_EXISTS));
    ASSERT_EQ(simg_stage_begin(h, data.size(), "second", &st), 0);
    std::thread([&] {
        uint64_t allocations = mem_alloc_count();
        for (uint64_t upto : {1, 4096, 3 * 4096 + 7, 9 * 4096 + 123})
            EXPECT_EQ(simg_stage_put(&st, data.data(), upto), 0) << upto;
        EXPECT_EQ(mem_alloc_count(), allocations);
    }).join();
    EXPECT_EQ(st.written, 9u * 4096);
    EXPECT_EQ(read_file("a.img").substr(0, before.size()), before);
    simg *r = simg_open("a.img", 0);
    EXPECT_EQ(table_of(r), table_of(h));
    simg_close(r);
    ASSERT_NE(simg_stage_end(&st, data.data()), nullptr);
    EXPECT_TRUE(read_file("a.img") == simg_bytes({{"first", first}, {"second", data}}));
    EXPECT_TRUE(got(simg_load(h, "second")) == data);
    simg_close(h);
}

// Deleting "a" moves "b" and "c" over the bytes "a" was loaded from, small
// and by mapping.
TEST(SimgWriter, LoadedBuffersOutliveDeleteAndStore)
{
    temp_cwd cwd;
    for (size_t big : {(size_t)3000, (size_t)(2 << 20) + 5}) {
        simg *h = simg_open(std::to_string(big).c_str(), SIMG_CREATE);
        std::string a = pattern(big, 1), b = pattern(big + 77, 2), c = pattern(big / 3, 3), d = pattern(big + 77, 9);
        std::vector<uint8_t *> loaded;
        for (auto [name, s] : {std::pair{"a", &a}, {"b", &b}, {"c", &c}}) {
            simg_store(h, s->data(), s->size(), name);
            loaded.push_back(simg_loads(h, name)->data);
        }
        EXPECT_EQ(h->entries[0].map_len != 0, big > 3000) << "the large case must load by mapping";
        ASSERT_EQ(simg_delete(h, "a"), 0);
        EXPECT_EQ(simg_find(h, "b")->data, loaded[1]) << "a loaded buffer moves with its record";
        ASSERT_NE(simg_store(h, d.data(), d.size(), "d"), nullptr);
        ASSERT_EQ(simg_delete(h, "b"), 0);
        ASSERT_NE(simg_store(h, d.data(), d.size(), "e"), nullptr);
        EXPECT_EQ(simg_load(h, "c")->data, loaded[2]);
        EXPECT_TRUE(std::string((char *)loaded[0], big) == a && std::string((char *)loaded[1], b.size()) == b &&
                    std::string((char *)loaded[2], c.size()) == c && got(simg_load(h, "d")) == d) << big;
        simg_close(h);
    }
}

TEST(SimgWriter, ImportAndExport)
{
    temp_cwd cwd;
    ASSERT_EQ(mkdir("dir", 0755), 0);
    std::string data = pattern(257, 4);
    write_file("dir/in.bin", data);
    write_file("empty.bin", "");
    simg *h = simg_open("a.img", SIMG_CREATE);
    simg_entry *e = simg_import(h, "dir/in.bin", nullptr);
    ASSERT_NE(e, nullptr);
    EXPECT_STREQ(e->name, "dir/in.bin");
    for (auto [path, code] : {std::pair<const char *, int>{"empty.bin", ERR_INVALID}, {"missing.bin", ERR_IO},
                              {"dir/in.bin", ERR_EXISTS}})
        EXPECT_EQ(got(simg_import(h, path, code == ERR_EXISTS ? path : "x")), err(code)) << path;
    {
        io_hook hook;
        hook.fail_map = true; // a file that cannot be mapped is read instead
        ASSERT_NE(simg_import(h, "dir/in.bin", "copy"), nullptr);
    }
    EXPECT_EQ(got(simg_load(h, "copy")), data);
    simg_unload(h, "copy");
    simg_store(h, "", 0, "zero");
    // The entry name is the output path.
    unlink("dir/in.bin");
    ASSERT_EQ(simg_export(h, "dir/in.bin") + simg_export(h, "zero"), 0);
    EXPECT_EQ(read_file("dir/in.bin"), data);
    EXPECT_TRUE(file_exists("zero") && read_file("zero").empty());
    EXPECT_EQ(err(simg_export(h, "nothing")), err(ERR_NOT_FOUND));
    EXPECT_FALSE(file_exists("nothing"));
    int fd = open("out.bin", O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_EQ(simg_export_fd(h, "copy", fd), 0);
    close(fd);
    EXPECT_EQ(read_file("out.bin"), data);
    simg_close(h);
}

// Each allocation of an open, load, store, import, delete and export fails
// in turn: a clean ERR_NO_MEMORY, nothing leaked, until none is left to fail.
TEST(SimgWriter, OutOfMemoryGivesCleanCodes)
{
    temp_cwd cwd;
    std::string a = pattern(5000, 1), bytes = simg_bytes({{"a", a}, {"b", "x"}});
    simg_load(nullptr, "x"); // the thread's error and log blocks exist before counting
    int64_t outstanding = mem_outstanding();
    bool reached_end = false;
    for (uint64_t n = 1; n < 80 && !reached_end; n++) {
        write_file("a.img", bytes);
        write_file("in.bin", "in");
        unlink("b");
        std::vector<int32_t> codes;
        auto ok = [&](int32_t code) {
            if (code)
                codes.push_back(code);
        };
        uint64_t before = mem_alloc_count();
        mem_fail_nth(n);
        std::string mem = bytes;
        simg *m = simg_mopen(mem.data(), mem.size());
        ok(m ? 0 : get_error());
        simg_close(m);
        simg *h = simg_open("a.img", 0);
        ok(h ? 0 : get_error());
        if (h) {
            simg_entry *e = simg_loads(h, "a");
            ok(e ? 0 : get_error());
            EXPECT_TRUE(!e || got(e, 5000) == a);
            ok(simg_store(h, a.data(), a.size(), "c") ? 0 : get_error());
            io_hook hook;
            hook.fail_map = true;
            ok(simg_import(h, "in.bin", "d") ? 0 : get_error());
            ok(simg_delete(h, "a"));
            ok(simg_export(h, "b"));
            simg_close(h);
        }
        reached_end = mem_alloc_count() - before < n;
        mem_fail_nth(0);
        for (int32_t c : codes)
            EXPECT_EQ(err(c), err(ERR_NO_MEMORY)) << n << ": " << format_error(c);
        EXPECT_EQ(codes.empty(), reached_end) << n;
        EXPECT_EQ(mem_outstanding(), outstanding) << n;
    }
    EXPECT_TRUE(reached_end);
}

// A sparse container whose offsets pass 2^32: the walk, loads, a store and
// a delete that moves data down by more than 4 GiB.
TEST(SimgWriter, SparseContainerPastFourGiB)
{
    temp_cwd cwd;
    const uint64_t huge = (4ull << 30) + 4096, at = 512 + huge;
    std::string last = pattern(5000, 7), more = pattern(4097, 8);
    std::string head = simg_block("SINGLE_N_LONELY") + simg_header("huge", huge);
    std::string tail = simg_bytes({{"last", last}}).substr(256);
    int fd = open("big.img", O_RDWR | O_CREAT | O_TRUNC, 0644);
    ASSERT_EQ(pwrite(fd, head.data(), 512, 0) + pwrite(fd, tail.data(), tail.size(), (off_t)at), 512 + 8704);
    close(fd);
    simg *h = simg_open("big.img", 0);
    EXPECT_EQ(table_of(h), (std::vector<listed>{{"huge", huge, 512}, {"last", 5000, at + 256}}));
    EXPECT_EQ(h->end_offset, at + tail.size());
    EXPECT_TRUE(got(simg_load(h, "last")) == last);
    {
        io_hook hook;
        hook.lazy_map = true;
        simg_entry *e = simg_load(h, "huge");
        ASSERT_NE(e, nullptr);
        EXPECT_TRUE(e->data[0] == 0 && e->data[huge - 1] == 0);
        simg_unload(h, "huge");
    }
    ASSERT_NE(simg_store(h, more.data(), more.size(), "more"), nullptr);
    EXPECT_EQ(h->entries[2].offset, at + tail.size());
    simg_close(h);
    h = simg_open("big.img", 0);
    ASSERT_EQ(h->num_entries, 3);
    EXPECT_TRUE(got(simg_load(h, "more")) == more);
    ASSERT_EQ(simg_delete(h, "huge"), 0);
    simg_close(h);
    h = simg_open("big.img", 0);
    EXPECT_EQ(table_of(h), (std::vector<listed>{{"last", 5000, 512}, {"more", 4097, 512 + 8192 + 256}}));
    EXPECT_TRUE(got(simg_load(h, "last")) == last && got(simg_load(h, "more")) == more);
    simg_close(h);
}
