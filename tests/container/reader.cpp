// The reader against containers built byte by byte: layout, loads, and input
// that is damaged or hostile.
#include <gtest/gtest.h>

#include <cstring>

#include "container/container.h"
#include "container/simg_support.h"
#include "core/core.h"
#include "support/helpers.h"

using namespace ravik;
using namespace ravik::test;

namespace {

int32_t low(int32_t code) { return code & 0xFF; }

void collect(const char *line, void *context)
{
    static_cast<std::vector<std::string> *>(context)->push_back(line);
}

} // namespace

TEST(SimgReader, LayoutOfOneEntryToTheByte)
{
    temp_cwd cwd;
    std::string data = pattern(5000, 1);
    std::string bytes = simg_bytes({{"boot.img", data}});
    ASSERT_EQ(bytes.size(), 8960u);
    ASSERT_EQ(bytes.substr(8704, 16), std::string("LONELY_N_SINGLE\0", 16));
    write_file("a.img", bytes);

    simg *h = simg_open("a.img", 0);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(get_error(), 0);
    EXPECT_EQ(table_of(h), (std::vector<listed>{{"boot.img", 5000, 512}}));
    EXPECT_EQ(h->end_offset, 8960u);
    EXPECT_STREQ(h->path, "a.img");

    simg_entry *e = simg_load(h, "boot.img");
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(std::string((char *)e->data, 5000), data);
    for (size_t i = 5000; i < 8192; i++)
        ASSERT_EQ(e->data[i], 0) << i;
    EXPECT_EQ(simg_load(h, "boot.img"), e);
    uint8_t *first = e->data;
    EXPECT_EQ(simg_load(h, "boot.img")->data, first) << "one buffer per record";
    simg_unload(h, "boot.img");
    EXPECT_EQ(e->data, nullptr);
    simg_unload(h, "boot.img");
    simg_unload(h, "nothing");
    simg_close(h);
    simg_close(nullptr);
}

TEST(SimgReader, EmptyAndCreated)
{
    temp_cwd cwd;
    std::vector<std::string> lines;
    logger_subscribe("test", collect, &lines);

    simg *h = simg_open("new.img", 0);
    EXPECT_EQ(h, nullptr);
    EXPECT_EQ(low(get_error()), ERR_IO);
    EXPECT_FALSE(file_exists("new.img"));

    h = simg_open("new.img", SIMG_CREATE);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->num_entries, 0);
    EXPECT_EQ(h->end_offset, 512u);
    EXPECT_EQ(read_file("new.img"), simg_bytes({}));
    lines.clear();
    EXPECT_EQ(simg_load(h, "index.xml"), nullptr);
    EXPECT_EQ(low(get_error()), ERR_NOT_FOUND);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("Error: not found\n"), std::string::npos) << lines[0];
    simg_close(h);

    // An existing container is opened, never truncated, with the flag set.
    h = simg_open("new.img", SIMG_CREATE);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->end_offset, 512u);
    simg_close(h);
    logger_unsubscribe("test");
}

TEST(SimgReader, LoadPaddingAndText)
{
    temp_cwd cwd;
    std::string full(4096, 't');
    full.back() = 'Z';
    std::string bytes = simg_bytes({{"one", "x"}, {"full", full}, {"empty", ""}, {"two", "ab"}});
    // Garbage where padding belongs: the load, not the file, makes the zeros.
    bytes[512 + 1] = 'G';
    write_file("a.img", bytes);
    simg *h = simg_open("a.img", 0);
    ASSERT_NE(h, nullptr);
    ASSERT_EQ(h->num_entries, 4);

    simg_entry *e = simg_load(h, "one");
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->data[0], 'x');
    for (size_t i = 1; i < 4096; i++)
        ASSERT_EQ(e->data[i], 0) << i;

    e = simg_loads(h, "full");
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(strlen((char *)e->data), 4095u);
    EXPECT_EQ(std::string((char *)e->data), full.substr(0, 4095));

    EXPECT_EQ(simg_load(h, "empty"), nullptr);
    EXPECT_EQ(low(get_error()), ERR_IO);
    EXPECT_EQ(h->entries[2].data, nullptr);

    EXPECT_STREQ((char *)simg_loads(h, "two")->data, "ab");
    EXPECT_EQ(read_file("a.img"), bytes) << "loading never writes the file";
    simg_close(h);
}

TEST(SimgReader, NamesAreCutAndCompareExactly)
{
    temp_cwd cwd;
    std::string long_name(200, 'n');
    std::string no_nul(248, 'q');
    write_file("a.img", simg_bytes({{long_name, "1"}, {no_nul, "2"}, {"Case", "3"}}));
    simg *h = simg_open("a.img", 0);
    ASSERT_NE(h, nullptr);
    ASSERT_EQ(h->num_entries, 3);
    EXPECT_EQ(std::string(h->entries[0].name), long_name.substr(0, 127));
    EXPECT_EQ(std::string(h->entries[1].name), no_nul.substr(0, 127));
    EXPECT_EQ(simg_find(h, long_name.c_str()), nullptr);
    EXPECT_EQ(simg_find(h, long_name.substr(0, 127).c_str()), &h->entries[0]);
    EXPECT_EQ(simg_find(h, "case"), nullptr);
    EXPECT_EQ(simg_find(h, "Case"), &h->entries[2]);
    EXPECT_EQ(simg_find(h, nullptr), nullptr);
    EXPECT_EQ(simg_find(nullptr, "Case"), nullptr);
    // The record stands for its own name.
    EXPECT_EQ(simg_load(h, h->entries[1].name)->data[0], '2');
    simg_close(h);
}

TEST(SimgReader, HeadTextMustBeWhole)
{
    temp_cwd cwd;
    std::string good = simg_bytes({{"a", "1"}});
    std::string no_nul = good;
    no_nul[15] = 'X';
    std::string other = good;
    other[0] = 's';
    std::string tail_first = simg_block("LONELY_N_SINGLE") + good.substr(256);
    for (const std::string &bad : {no_nul, other, tail_first}) {
        write_file("a.img", bad);
        EXPECT_EQ(simg_open("a.img", 0), nullptr);
        EXPECT_EQ(low(get_error()), ERR_INVALID);
        std::vector<uint8_t> mem(bad.begin(), bad.end());
        EXPECT_EQ(simg_mopen(mem.data(), mem.size()), nullptr);
        EXPECT_EQ(low(get_error()), ERR_INVALID);
        EXPECT_EQ(read_file("a.img"), bad);
    }
    // A file too short for a head block is an IO failure, in memory invalid.
    write_file("short.img", good.substr(0, 255));
    EXPECT_EQ(simg_open("short.img", SIMG_CREATE), nullptr);
    EXPECT_EQ(low(get_error()), ERR_IO);
    EXPECT_EQ(read_file("short.img").size(), 255u);
    std::vector<uint8_t> mem(good.begin(), good.begin() + 255);
    EXPECT_EQ(simg_mopen(mem.data(), mem.size()), nullptr);
    EXPECT_EQ(low(get_error()), ERR_INVALID);
    EXPECT_EQ(simg_mopen(nullptr, 4096), nullptr);
    EXPECT_EQ(low(get_error()), ERR_INVALID);
}

TEST(SimgReader, TableHoldsExactly128)
{
    temp_cwd cwd;
    std::vector<raw_entry> entries;
    for (int i = 0; i < 129; i++)
        entries.push_back({"e" + std::to_string(i), std::string(1, (char)i)});
    std::vector<raw_entry> full(entries.begin(), entries.begin() + 128);

    write_file("128.img", simg_bytes(full));
    simg *h = simg_open("128.img", 0);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->num_entries, 128);
    EXPECT_EQ(simg_load(h, "e127")->data[0], 127);
    simg_close(h);

    std::string bytes = simg_bytes(entries);
    write_file("129.img", bytes);
    EXPECT_EQ(simg_open("129.img", 0), nullptr);
    EXPECT_EQ(low(get_error()), ERR_RANGE);
    std::vector<uint8_t> mem(bytes.begin(), bytes.end());
    EXPECT_EQ(simg_mopen(mem.data(), mem.size()), nullptr);
    EXPECT_EQ(low(get_error()), ERR_RANGE);
}

// Every prefix of a container: the file reader opens it or fails cleanly,
// loads give the right bytes or ERR_IO; the memory reader, given exactly the
// prefix's bytes, never reads past them.
TEST(SimgReader, TruncatedAtEveryLength)
{
    temp_cwd cwd;
    std::string a = pattern(5000, 3), b = pattern(300, 4);
    std::string bytes = simg_bytes({{"a", a}, {"b", b}});
    for (size_t len = 0; len <= bytes.size(); len += (len < 1100 || len + 600 > bytes.size()) ? 1 : 61) {
        std::string cut = bytes.substr(0, len);
        write_file("t.img", cut);
        simg *h = simg_open("t.img", 0);
        if (len < 256) {
            ASSERT_EQ(h, nullptr) << len;
            ASSERT_EQ(low(get_error()), ERR_IO) << len;
        } else {
            ASSERT_NE(h, nullptr) << len;
            for (int32_t i = 0; i < h->num_entries; i++) {
                simg_entry *e = simg_load(h, h->entries[i].name);
                const std::string &want = i == 0 ? a : b;
                if (h->entries[i].offset + want.size() <= len) {
                    ASSERT_NE(e, nullptr) << len;
                    ASSERT_EQ(std::string((char *)e->data, want.size()), want);
                } else {
                    ASSERT_EQ(e, nullptr) << len;
                    ASSERT_EQ(low(get_error()), ERR_IO) << len;
                }
            }
            simg_close(h);
        }
        std::vector<uint8_t> mem(cut.begin(), cut.end());
        simg *m = simg_mopen(mem.data(), mem.size());
        if (m) {
            for (int32_t i = 0; i < m->num_entries; i++)
                ASSERT_NE(simg_loads(m, m->entries[i].name), nullptr) << len;
            simg_close(m);
        } else {
            ASSERT_EQ(low(get_error()), ERR_INVALID) << len;
        }
    }
}

TEST(SimgReader, SizesNearTheTopOf64Bits)
{
    temp_cwd cwd;
    for (uint64_t size : {UINT64_MAX, UINT64_MAX - 4095, UINT64_MAX - 4096, (uint64_t)1 << 63,
                          ((uint64_t)1 << 63) - 4096, (uint64_t)1 << 40}) {
        std::string bytes = simg_bytes({{"ok", "fine"}, {"huge", "abc", size}, {"after", "x"}});
        std::vector<uint8_t> mem(bytes.begin(), bytes.end());
        EXPECT_EQ(simg_mopen(mem.data(), mem.size()), nullptr) << size;
        EXPECT_EQ(low(get_error()), ERR_INVALID) << size;
        EXPECT_EQ(std::string(mem.begin(), mem.end()), bytes);

        write_file("h.img", bytes);
        simg *h = simg_open("h.img", 0);
        if (!h) {
            // A data area beyond the largest file position is a failed seek.
            EXPECT_EQ(low(get_error()), ERR_IO) << size;
            EXPECT_GT(size, (uint64_t)INT64_MAX - 8192) << size;
            continue;
        }
        // Otherwise the walk ends past the end of the file.
        ASSERT_EQ(h->num_entries, 2) << size;
        EXPECT_EQ(h->entries[1].size, size);
        EXPECT_EQ(simg_load(h, "huge"), nullptr);
        EXPECT_EQ(low(get_error()), ERR_IO);
        EXPECT_EQ(simg_loads(h, "huge"), nullptr);
        EXPECT_STREQ((char *)simg_loads(h, "ok")->data, "fine");
        simg_close(h);
    }
}

TEST(SimgReader, MemoryImages)
{
    std::string inner = simg_bytes({{"x", "hello"}, {"empty", ""}, {"y", pattern(9000, 5)}});
    std::vector<uint8_t> mem(inner.begin(), inner.end());
    mem[768 + 5] = 'G'; // garbage in the padding of "x"
    simg *h = simg_mopen(mem.data(), mem.size());
    ASSERT_NE(h, nullptr);
    // The last 256 bytes are not looked at: an image needs no tail block.
    EXPECT_EQ(h->end_offset, mem.size() - 256);
    EXPECT_STREQ(h->path, "");
    simg_entry *x = simg_loads(h, "x");
    ASSERT_NE(x, nullptr);
    EXPECT_TRUE(x->mapped);
    EXPECT_EQ(x->data, mem.data() + 512);
    EXPECT_STREQ((char *)x->data, "hello");
    EXPECT_EQ(mem[768 + 5], 0) << "the load zeroes the padding in the image";
    EXPECT_EQ(mem[512 + 4095], 0);
    simg_unload(h, "x");
    EXPECT_EQ(x->data, mem.data() + 512) << "a mapped record stays mapped";
    // An empty entry has no byte for a terminator: refused, image untouched.
    std::vector<uint8_t> before = mem;
    EXPECT_NE(simg_load(h, "empty"), nullptr);
    EXPECT_EQ(simg_loads(h, "empty"), nullptr);
    EXPECT_EQ(low(get_error()), ERR_INVALID);
    EXPECT_EQ(mem, before);
    simg_close(h);

    // Head plus exactly 256 bytes opens with no entries, whatever they are.
    std::string b = simg_block("SINGLE_N_LONELY") + pattern(256, 6);
    std::vector<uint8_t> m2(b.begin(), b.end());
    h = simg_mopen(m2.data(), m2.size());
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->num_entries, 0);
    simg_close(h);

    // An entry that overruns the image by one byte fails the whole open.
    std::string over = simg_bytes({{"a", "1"}, {"b", pattern(4096, 7)}}, false);
    std::vector<uint8_t> m3(over.begin(), over.end() - 1);
    std::vector<uint8_t> copy = m3;
    EXPECT_EQ(simg_mopen(m3.data(), m3.size()), nullptr);
    EXPECT_EQ(low(get_error()), ERR_INVALID);
    EXPECT_EQ(m3, copy);
}

TEST(SimgReader, OutOfMemoryGivesCleanCodes)
{
    temp_cwd cwd;
    std::string bytes = simg_bytes({{"a", pattern(5000, 8)}, {"b", "x"}});
    write_file("a.img", bytes);
    simg_load(nullptr, "x"); // the thread's error and log blocks exist before counting
    int64_t outstanding = mem_outstanding();
    bool reached_end = false;
    for (uint64_t n = 1; n < 50 && !reached_end; n++) {
        uint64_t before = mem_alloc_count();
        mem_fail_nth(n);
        simg *h = simg_open("a.img", 0);
        if (h) {
            simg_entry *e = simg_loads(h, "a");
            if (!e) {
                EXPECT_EQ(low(get_error()), ERR_NO_MEMORY) << n;
            } else {
                EXPECT_EQ(std::string((char *)e->data, 5000), bytes.substr(512, 5000));
            }
            simg_close(h);
        } else {
            EXPECT_EQ(low(get_error()), ERR_NO_MEMORY) << n;
        }
        std::vector<uint8_t> mem(bytes.begin(), bytes.end());
        simg *m = simg_mopen(mem.data(), mem.size());
        if (!m) {
            EXPECT_EQ(low(get_error()), ERR_NO_MEMORY) << n;
        }
        simg_close(m);
        reached_end = mem_alloc_count() - before < n;
        mem_fail_nth(0);
        EXPECT_EQ(mem_outstanding(), outstanding) << n;
    }
    EXPECT_TRUE(reached_end);
}
