// The writer: sizes on disk, round trips through the reader, the full table,
// delete, import and export.
#include <gtest/gtest.h>

#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "container/container.h"
#include "container/simg_support.h"
#include "core/core.h"
#include "support/helpers.h"

using namespace ravik;
using namespace ravik::test;

namespace {

int32_t low(int32_t code) { return code & 0xFF; }

simg *fresh(const char *path)
{
    simg *h = simg_open(path, SIMG_CREATE);
    EXPECT_NE(h, nullptr);
    return h;
}

std::string loaded(simg *h, const char *name)
{
    simg_entry *e = simg_load(h, name);
    return e ? std::string((char *)e->data, e->size) : "<" + std::string(format_error(get_error())) + ">";
}

} // namespace

TEST(SimgWriter, SizesToTheByte)
{
    temp_cwd cwd;
    simg *h = fresh("a.img");
    std::string five = pattern(5000, 1);
    ASSERT_NE(simg_store(h, five.data(), five.size(), "first"), nullptr);
    EXPECT_EQ(get_error(), 0);
    EXPECT_EQ(read_file("a.img"), simg_bytes({{"first", five}}));
    EXPECT_EQ(h->end_offset, 8960u);

    uint64_t before = h->end_offset;
    for (auto [size, grows] : {std::pair<uint64_t, uint64_t>{1, 4352}, {4096, 4352}, {4097, 8448},
                               {8192, 8448}, {0, 256}}) {
        std::string data = pattern(size, (uint32_t)size);
        std::string name = "s" + std::to_string(size);
        simg_entry *e = simg_store(h, data.data(), size, name.c_str());
        ASSERT_NE(e, nullptr) << size;
        EXPECT_EQ(e->data, nullptr) << "a store leaves the record unloaded";
        EXPECT_EQ(e->offset, before) << "the header stands where the tail stood";
        EXPECT_EQ(h->end_offset - before, grows) << size;
        EXPECT_EQ(read_file("a.img").size(), h->end_offset) << size;
        before = h->end_offset;
    }
    std::string file = read_file("a.img");
    EXPECT_EQ(file.substr(file.size() - 256), simg_block("LONELY_N_SINGLE"));
    // The empty entry's header is followed directly by the tail block.
    EXPECT_EQ(file.substr(file.size() - 512, 256), simg_header("s0", 0));
    simg_close(h);
}

TEST(SimgWriter, ReopensAlikeUpToAFullTable)
{
    temp_cwd cwd;
    simg *h = fresh("a.img");
    std::vector<std::string> data;
    for (int i = 0; i < 128; i++) {
        data.push_back(pattern((size_t)(i * 977) % 9000 + (i % 7 == 0 ? 0 : 1), (uint32_t)i));
        std::string name = "entry/" + std::to_string(i);
        ASSERT_NE(simg_store(h, data[i].data(), data[i].size(), name.c_str()), nullptr) << i;
    }
    std::vector<listed> written = table_of(h);
    uint64_t end = h->end_offset;

    std::string before = read_file("a.img");
    char extra = 'x';
    EXPECT_EQ(simg_store(h, &extra, 1, "one-too-many"), nullptr);
    EXPECT_EQ(low(get_error()), ERR_RANGE);
    EXPECT_EQ(read_file("a.img"), before) << "the 129th store writes nothing";
    EXPECT_EQ(h->num_entries, 128);
    EXPECT_EQ(simg_store(h, &extra, 1, "entry/5"), nullptr);
    EXPECT_EQ(low(get_error()), ERR_EXISTS);
    simg_close(h);

    h = simg_open("a.img", 0);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(table_of(h), written);
    EXPECT_EQ(h->end_offset, end);
    for (int i = 0; i < 128; i += 9) {
        std::string name = "entry/" + std::to_string(i);
        if (!data[i].empty()) {
            EXPECT_EQ(loaded(h, name.c_str()), data[i]) << i;
        }
    }
    simg_close(h);

    std::vector<uint8_t> mem(before.begin(), before.end());
    h = simg_mopen(mem.data(), mem.size());
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(table_of(h), written);
    simg_close(h);
}

TEST(SimgWriter, NamesInFileAndTable)
{
    temp_cwd cwd;
    simg *h = fresh("a.img");
    std::string n200(200, 'l'), n300(300, 'm');
    ASSERT_NE(simg_store(h, "a", 1, n200.c_str()), nullptr);
    // The duplicate test sees only the cut name, so the long form stores again.
    ASSERT_NE(simg_store(h, "b", 1, n200.c_str()), nullptr);
    ASSERT_NE(simg_store(h, "c", 1, n300.c_str()), nullptr);
    EXPECT_EQ(simg_store(h, "d", 1, n200.substr(0, 127).c_str()), nullptr);
    EXPECT_EQ(low(get_error()), ERR_EXISTS);
    std::string file = read_file("a.img");
    EXPECT_EQ(file.substr(256, 256), simg_header(n200, 1));
    EXPECT_EQ(file.substr(256 + 2 * 4352, 256), simg_header(n300.substr(0, 247), 1));
    EXPECT_EQ(strlen(h->entries[2].name), 127u);
    simg_close(h);

    // An empty name hides itself and everything behind it from a reader.
    h = fresh("b.img");
    simg_store(h, "1", 1, "one");
    ASSERT_NE(simg_store(h, "2", 1, ""), nullptr);
    simg_store(h, "3", 1, "three");
    EXPECT_EQ(h->num_entries, 3);
    simg_close(h);
    h = simg_open("b.img", 0);
    EXPECT_EQ(table_of(h), (std::vector<listed>{{"one", 1, 512}}));
    simg_close(h);
}

TEST(SimgWriter, DeleteMovesLaterEntriesDown)
{
    temp_cwd cwd;
    simg *h = fresh("a.img");
    std::string a = pattern(5000, 1), b = pattern(100, 2), c = pattern(8192, 3);
    simg_store(h, a.data(), a.size(), "a");
    simg_store(h, b.data(), b.size(), "b");
    simg_store(h, c.data(), c.size(), "c");
    std::string before = read_file("a.img");

    EXPECT_EQ(low(simg_delete(h, "nothing")), ERR_NOT_FOUND);
    EXPECT_EQ(low(simg_delete(h, nullptr)), ERR_NOT_FOUND);
    EXPECT_EQ(low(simg_delete(nullptr, "a")), ERR_NOT_FOUND);
    EXPECT_EQ(read_file("a.img"), before);

    ASSERT_EQ(simg_delete(h, "a"), 0);
    EXPECT_EQ(table_of(h), (std::vector<listed>{{"b", 100, 512}, {"c", 8192, 512 + 4096 + 256}}));
    EXPECT_EQ(h->end_offset, 512u + 4096 + 256 + 8192 + 256);
    EXPECT_EQ(loaded(h, "b"), b);
    EXPECT_EQ(loaded(h, "c"), c);
    EXPECT_EQ(read_file("a.img").size(), before.size()) << "the file is not shortened";
    simg_close(h);

    h = simg_open("a.img", 0);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(table_of(h), (std::vector<listed>{{"b", 100, 512}, {"c", 8192, 512 + 4096 + 256}}));
    // Deleting the last entry moves only the tail block; a store then goes
    // where that tail block now stands.
    ASSERT_EQ(simg_delete(h, "c"), 0);
    EXPECT_EQ(h->end_offset, 512u + 4096 + 256);
    ASSERT_NE(simg_store(h, "new", 3, "n"), nullptr);
    EXPECT_EQ(h->entries[1].offset, 512u + 4096 + 256);
    ASSERT_EQ(simg_delete(h, "b"), 0);
    ASSERT_EQ(simg_delete(h, "n"), 0);
    EXPECT_EQ(h->end_offset, 512u);
    simg_close(h);
    EXPECT_EQ(read_file("a.img").substr(0, 512), simg_bytes({}));
    h = simg_open("a.img", 0);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->num_entries, 0);
    EXPECT_EQ(h->end_offset, 512u);
    simg_close(h);
}

// Data written while it still arrives: pieces ending anywhere, put from a
// thread of their own without allocating, land as one whole store puts them,
// and until the end commits the file reads as it did.
TEST(SimgWriter, StagedStoreFromAnotherThreadMatchesWholeStore)
{
    temp_cwd cwd;
    std::string first = pattern(5000, 1), data = pattern(9 * 4096 + 123, 2);
    simg *h = fresh("a.img");
    ASSERT_NE(simg_store(h, first.data(), first.size(), "first"), nullptr);
    std::string before = read_file("a.img");
    simg_stage st;
    EXPECT_EQ(low(simg_stage_begin(h, data.size(), "first", &st)), ERR_EXISTS);
    ASSERT_EQ(simg_stage_begin(h, data.size(), "second", &st), 0);
    std::thread([&] {
        uint64_t allocations = mem_alloc_count();
        for (uint64_t upto : {(uint64_t)1, (uint64_t)4096, (uint64_t)3 * 4096 + 7, (uint64_t)data.size()})
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
    EXPECT_TRUE(loaded(h, "second") == data);
    simg_close(h);
}

TEST(SimgWriter, LoadedBuffersOutliveDeleteAndStore)
{
    temp_cwd cwd;
    for (size_t big : {(size_t)3000, (size_t)(2 << 20) + 5}) {
        simg *h = fresh("a.img");
        std::string a = pattern(big, 1), b = pattern(big + 77, 2), c = pattern(big / 3, 3);
        simg_store(h, a.data(), a.size(), "a");
        simg_store(h, b.data(), b.size(), "b");
        simg_store(h, c.data(), c.size(), "c");
        simg_entry *la = simg_loads(h, "a");
        ASSERT_NE(la, nullptr);
        uint8_t *pa = la->data;
        EXPECT_EQ(la->map_len != 0, big > 3000) << "the large case must load by mapping";
        uint8_t *pb = simg_load(h, "b")->data;
        uint8_t *pc = simg_load(h, "c")->data;

        // Deleting "a" moves "b" and "c" over the bytes "a" was loaded from.
        ASSERT_EQ(simg_delete(h, "a"), 0);
        EXPECT_EQ(simg_find(h, "b")->data, pb) << "a loaded buffer moves with its record";
        std::string over = pattern(b.size(), 9);
        ASSERT_NE(simg_store(h, over.data(), over.size(), "d"), nullptr);
        ASSERT_EQ(simg_delete(h, "b"), 0);
        ASSERT_NE(simg_store(h, over.data(), over.size(), "e"), nullptr);

        // Compared without printing: a mismatch of megabytes is unreadable.
        EXPECT_TRUE(memcmp(pa, a.data(), a.size()) == 0) << big;
        EXPECT_TRUE(memcmp(pb, b.data(), b.size()) == 0) << big;
        EXPECT_TRUE(memcmp(pc, c.data(), c.size()) == 0) << big;
        EXPECT_EQ(simg_load(h, "c")->data, pc);
        EXPECT_TRUE(loaded(h, "d") == over);
        simg_close(h);
        unlink("a.img");
    }
}

TEST(SimgWriter, ImportAndExport)
{
    temp_cwd cwd;
    ASSERT_EQ(mkdir("dir", 0755), 0);
    std::string data = pattern(257, 4);
    write_file("dir/in.bin", data);
    write_file("empty.bin", "");
    simg *h = fresh("a.img");

    simg_entry *e = simg_import(h, "dir/in.bin", nullptr);
    ASSERT_NE(e, nullptr);
    EXPECT_STREQ(e->name, "dir/in.bin");
    EXPECT_EQ(simg_import(h, "empty.bin", "x"), nullptr);
    EXPECT_EQ(low(get_error()), ERR_INVALID);
    EXPECT_EQ(simg_import(h, "missing.bin", "x"), nullptr);
    EXPECT_EQ(low(get_error()), ERR_IO);
    EXPECT_EQ(simg_import(h, "dir/in.bin", "dir/in.bin"), nullptr);
    EXPECT_EQ(low(get_error()), ERR_EXISTS);
    {
        io_hook hook;
        hook.fail_map = true; // a file that cannot be mapped is read instead
        ASSERT_NE(simg_import(h, "dir/in.bin", "copy"), nullptr);
    }
    EXPECT_EQ(loaded(h, "copy"), data);
    simg_unload(h, "copy");
    simg_store(h, "", 0, "zero");

    // The entry name is the output path.
    unlink("dir/in.bin");
    ASSERT_EQ(simg_export(h, "dir/in.bin"), 0);
    EXPECT_EQ(read_file("dir/in.bin"), data);
    ASSERT_EQ(simg_export(h, "zero"), 0);
    EXPECT_TRUE(file_exists("zero"));
    EXPECT_EQ(read_file("zero"), "");
    EXPECT_EQ(low(simg_export(h, "nothing")), ERR_NOT_FOUND);
    EXPECT_FALSE(file_exists("nothing"));

    int fd = open("out.bin", O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_EQ(simg_export_fd(h, "copy", fd), 0);
    close(fd);
    EXPECT_EQ(read_file("out.bin"), data);
    simg_close(h);
}

TEST(SimgWriter, MemoryHandlesAreNotWritten)
{
    std::string bytes = simg_bytes({{"a", "1"}});
    std::vector<uint8_t> mem(bytes.begin(), bytes.end());
    simg *h = simg_mopen(mem.data(), mem.size());
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(simg_store(h, "x", 1, "x"), nullptr);
    EXPECT_EQ(low(get_error()), ERR_NOT_SUPPORTED);
    EXPECT_EQ(low(simg_delete(h, "a")), ERR_NOT_SUPPORTED);
    EXPECT_EQ(std::string(mem.begin(), mem.end()), bytes);
    simg_close(h);
}

TEST(SimgWriter, OutOfMemoryGivesCleanCodes)
{
    temp_cwd cwd;
    std::string a = pattern(5000, 1), b = pattern(300, 2);
    simg_load(nullptr, "x"); // the thread's error and log blocks exist before counting
    int64_t outstanding = mem_outstanding();
    bool reached_end = false;
    for (uint64_t n = 1; n < 60 && !reached_end; n++) {
        unlink("a.img");
        write_file("in.bin", b);
        uint64_t before = mem_alloc_count();
        mem_fail_nth(n);
        simg *h = simg_open("a.img", SIMG_CREATE);
        std::vector<int32_t> codes;
        if (h) {
            if (!simg_store(h, a.data(), a.size(), "a"))
                codes.push_back(get_error());
            io_hook hook;
            hook.fail_map = true;
            if (!simg_import(h, "in.bin", "b"))
                codes.push_back(get_error());
            hook.fail_map = false;
            if (simg_find(h, "a") && !simg_load(h, "a"))
                codes.push_back(get_error());
            if (simg_find(h, "a"))
                if (int32_t c = simg_delete(h, "a"))
                    codes.push_back(c);
            unlink("b");
            if (simg_find(h, "b"))
                if (int32_t c = simg_export(h, "b"))
                    codes.push_back(c);
            simg_close(h);
        } else {
            codes.push_back(get_error());
        }
        reached_end = mem_alloc_count() - before < n;
        mem_fail_nth(0);
        for (int32_t c : codes)
            EXPECT_EQ(low(c), ERR_NO_MEMORY) << n << ": " << format_error(c);
        EXPECT_EQ(codes.empty(), reached_end) << n;
        EXPECT_EQ(mem_outstanding(), outstanding) << n;
    }
    EXPECT_TRUE(reached_end);
}
