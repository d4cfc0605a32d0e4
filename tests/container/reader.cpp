// The reader against containers built byte by byte: layout, loads, and input
// that is damaged or hostile.
#include <gtest/gtest.h>

#include "core/core.h"
#include "support/container.h"
#include "support/helpers.h"

using namespace ravik;
using namespace ravik::test;

TEST(SimgReader, LayoutLoadsAndPadding)
{
    temp_cwd cwd;
    std::string data = pattern(5000, 1), full = std::string(4095, 't') + 'Z';
    std::string bytes = simg_bytes({{"boot.img", data}, {"full", full}, {"empty", ""}, {"two", "ab"}});
    ASSERT_EQ(bytes.substr(17664), simg_block("LONELY_N_SINGLE"));
    bytes[512 + 5001] = 'G'; // garbage where padding belongs: the load, not the file, makes the zeros
    write_file("a.img", bytes);
    simg *h = simg_open("a.img", 0);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(get_error(), 0);
    EXPECT_EQ(table_of(h), (std::vector<listed>{{"boot.img", 5000, 512}, {"full", 4096, 8960},
                                                {"empty", 0, 13312}, {"two", 2, 13568}}));
    EXPECT_EQ(h->end_offset, 17920u);
    EXPECT_STREQ(h->path, "a.img");
    simg_entry *e = simg_load(h, "boot.img");
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(got(e, 8192), data + std::string(3192, '\0'));
    uint8_t *first = e->data;
    EXPECT_TRUE(simg_load(h, "boot.img") == e && e->data == first) << "one buffer per record";
    for (const char *name : {"boot.img", "boot.img", "nothing"})
        simg_unload(h, name);
    EXPECT_EQ(e->data, nullptr);
    EXPECT_EQ(got(simg_loads(h, "full"), 4096), full.substr(0, 4095) + '\0');
    EXPECT_EQ(got(simg_load(h, "empty")), err(ERR_IO));
    EXPECT_EQ(h->entries[2].data, nullptr);
    EXPECT_EQ(got(simg_loads(h, "two"), 3), std::string("ab\0", 3));
    EXPECT_EQ(read_file("a.img"), bytes) << "loading never writes the file";
    simg_close(h);
    simg_close(nullptr);
}

TEST(SimgReader, MissingCreatedAndNames)
{
    temp_cwd cwd;
    log_capture c;
    EXPECT_EQ(opened(simg_open("new.img", 0)), err(ERR_IO));
    EXPECT_FALSE(file_exists("new.img"));
    simg *h = simg_open("new.img", SIMG_CREATE);
    ASSERT_NE(h, nullptr);
    EXPECT_TRUE(h->num_entries == 0 && h->end_offset == 512u);
    EXPECT_EQ(read_file("new.img"), simg_bytes({}));
    c.lines.clear();
    EXPECT_EQ(got(simg_load(h, "index.xml")), err(ERR_NOT_FOUND));
    EXPECT_TRUE(c.lines.size() == 1 && any_holds(c.lines, "Error: not found\n"));
    simg_close(h);
    // An existing container is opened, never truncated, with the flag set.
    std::string n200(200, 'n'), n127(127, 'n'), no_nul(248, 'q');
    write_file("new.img", simg_bytes({{n200, "1"}, {no_nul, "2"}, {"Case", "3"}}));
    h = simg_open("new.img", SIMG_CREATE);
    ASSERT_EQ(table_of(h), (std::vector<listed>{{n127, 1, 512}, {no_nul.substr(0, 127), 1, 4864}, {"Case", 1, 9216}}));
    for (auto [name, want] : {std::pair<const char *, int>{n200.c_str(), -1}, {n127.c_str(), 0}, {"case", -1},
                              {"Case", 2}, {nullptr, -1}})
        EXPECT_EQ(simg_find(h, name), want < 0 ? nullptr : &h->entries[want]) << (name ? name : "null");
    EXPECT_EQ(simg_find(nullptr, "Case"), nullptr);
    EXPECT_EQ(got(simg_load(h, h->entries[1].name)), "2") << "the record stands for its own name";
    simg_close(h);
}

// Refused by both readers, the bytes left as they were.
TEST(SimgReader, DamagedHeadsAndFullTables)
{
    temp_cwd cwd;
    std::string good = simg_bytes({{"a", "1"}});
    std::vector<raw_entry> many;
    for (int i = 0; i < 129; i++)
        many.push_back({"e" + std::to_string(i), std::string(1, (char)i)});
    struct {
        std::string bytes;
        int32_t file_code, mem_code;
    } cases[] = {
        {std::string(good).replace(15, 1, "X"), ERR_INVALID, ERR_INVALID}, // head text without its NUL
        {std::string(good).replace(0, 1, "s"), ERR_INVALID, ERR_INVALID},
        {simg_block("LONELY_N_SINGLE") + good.substr(256), ERR_INVALID, ERR_INVALID},
        {good.substr(0, 255), ERR_IO, ERR_INVALID},
        {simg_bytes(many), ERR_RANGE, ERR_RANGE},
    };
    for (auto &[bytes, file_code, mem_code] : cases) {
        write_file("a.img", bytes);
        EXPECT_EQ(opened(simg_open("a.img", SIMG_CREATE)), err(file_code));
        EXPECT_EQ(read_file("a.img"), bytes);
        std::string mem = bytes;
        EXPECT_EQ(opened(simg_mopen(mem.data(), mem.size())), err(mem_code));
        EXPECT_EQ(mem, bytes);
    }
    EXPECT_EQ(opened(simg_mopen(nullptr, 4096)), err(ERR_INVALID));
    many.pop_back();
    write_file("a.img", simg_bytes(many));
    simg *h = simg_open("a.img", 0);
    ASSERT_EQ(table_of(h).size(), 128u);
    EXPECT_EQ(got(simg_load(h, "e127")), "\x7f");
    simg_close(h);
}

// Cut at and next to each boundary: the file reader loads the right bytes or
// fails with ERR_IO; the memory reader, given exactly the prefix, never
// reads past it.
TEST(SimgReader, TruncatedAtEachBoundary)
{
    temp_cwd cwd;
    std::string a = pattern(5000, 3), b = pattern(300, 4), bytes = simg_bytes({{"a", a}, {"b", b}});
    for (size_t edge : {0, 256, 512, 768, 5512, 8704, 8960, 9260, 13056, 13312})
        for (size_t len = edge ? edge - 1 : 0; len <= std::min(edge + 1, bytes.size()); len++) {
            std::string cut = bytes.substr(0, len);
            write_file("t.img", cut);
            simg *h = simg_open("t.img", 0);
            EXPECT_EQ(h ? "open" : err(get_error()), len < 256 ? err(ERR_IO) : "open") << len;
            for (int32_t i = 0; h && i < h->num_entries; i++) {
                const std::string &want = i ? b : a;
                bool whole = h->entries[i].offset + want.size() <= len;
                EXPECT_EQ(got(simg_load(h, h->entries[i].name), want.size()), whole ? want : err(ERR_IO)) << len;
            }
            simg_close(h);
            simg *m = simg_mopen(cut.data(), cut.size());
            EXPECT_TRUE(m || get_error() % 256 == ERR_INVALID) << len;
            for (int32_t i = 0; m && i < m->num_entries; i++)
                EXPECT_NE(simg_loads(m, m->entries[i].name), nullptr) << len;
            simg_close(m);
        }
}

TEST(SimgReader, SizesNearTheTopOf64Bits)
{
    temp_cwd cwd;
    for (uint64_t size : {UINT64_MAX, UINT64_MAX - 4095, UINT64_MAX - 4096, (uint64_t)1 << 63,
                          ((uint64_t)1 << 63) - 4096, (uint64_t)1 << 40}) {
        std::string bytes = simg_bytes({{"ok", "fine"}, {"huge", "abc", size}, {"after", "x"}}), mem = bytes;
        EXPECT_EQ(opened(simg_mopen(mem.data(), mem.size())), err(ERR_INVALID)) << size;
        EXPECT_EQ(mem, bytes);
        write_file("h.img", bytes);
        simg *h = simg_open("h.img", 0);
        // A data area beyond the largest file position is a failed seek;
        // otherwise the walk ends past the end of the file.
        if (!h) {
            EXPECT_TRUE(get_error() % 256 == ERR_IO && size > (uint64_t)INT64_MAX - 8192) << size;
            continue;
        }
        ASSERT_EQ(table_of(h), (std::vector<listed>{{"ok", 4, 512}, {"huge", size, 4864}})) << size;
        EXPECT_EQ(got(simg_load(h, "huge")), err(ERR_IO));
        EXPECT_EQ(got(simg_loads(h, "huge")), err(ERR_IO));
        EXPECT_EQ(got(simg_loads(h, "ok"), 5), std::string("fine\0", 5));
        simg_close(h);
    }
}

TEST(SimgReader, MemoryImages)
{
    std::string mem = simg_bytes({{"x", "hello"}, {"empty", ""}, {"y", pattern(9000, 5)}});
    mem[768 + 5] = 'G'; // garbage in the padding of "x"
    simg *h = simg_mopen(mem.data(), mem.size());
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->end_offset, mem.size() - 256) << "the last 256 bytes are not looked at";
    EXPECT_STREQ(h->path, "");
    simg_entry *x = simg_loads(h, "x");
    ASSERT_NE(x, nullptr);
    EXPECT_EQ(got(x, 4096), "hello" + std::string(4091, '\0')) << "the load zeroes the padding in the image";
    EXPECT_TRUE(x->mapped && x->data == (uint8_t *)mem.data() + 512);
    simg_unload(h, "x");
    EXPECT_EQ(x->data, (uint8_t *)mem.data() + 512) << "a mapped record stays mapped";
    // An empty entry has no byte for a terminator: refused, image untouched.
    std::string before = mem;
    EXPECT_EQ(got(simg_load(h, "empty")), "");
    EXPECT_EQ(got(simg_loads(h, "empty")), err(ERR_INVALID));
    EXPECT_EQ(mem, before);
    simg_close(h);
    // Head plus exactly 256 bytes opens with no entries, whatever they are;
    // an entry that overruns the image by one byte fails the whole open.
    std::string head = simg_block("SINGLE_N_LONELY") + pattern(256, 6);
    h = simg_mopen(head.data(), head.size());
    EXPECT_EQ(table_of(h).size(), 0u);
    simg_close(h);
    std::string over = simg_bytes({{"a", "1"}, {"b", pattern(4096, 7)}}, false);
    over.pop_back();
    std::string copy = over;
    EXPECT_EQ(opened(simg_mopen(over.data(), over.size())), err(ERR_INVALID));
    EXPECT_EQ(over, copy);
}

TEST(SimgReader, MappedLoadAtTheEndOfTheFile)
{
    temp_cwd cwd;
    // Data present but no padding, no tail: the padding still reads as zeros.
    std::string data = pattern((2u << 20) + 10, 9);
    std::string bytes = simg_block("SINGLE_N_LONELY") + simg_header("e", data.size()) + data;
    write_file("a.img", bytes);
    simg *h = simg_open("a.img", 0);
    ASSERT_NE(h, nullptr);
    simg_entry *e = simg_loads(h, "e");
    ASSERT_NE(e, nullptr);
    EXPECT_TRUE(got(e, data.size() + 4086) == data + std::string(4086, '\0'));
    EXPECT_NE(e->map_len, 0u);
    EXPECT_TRUE(read_file("a.img") == bytes) << "a private mapping never writes back";
    simg_unload(h, "e");
    {
        io_hook hook;
        for (int fail = 0; fail < 3; fail++) {
            hook.fail_anon = fail == 0, hook.fail_map = fail == 1, hook.fail_file_size = fail == 2;
            EXPECT_EQ(got(simg_load(h, "e"), 0), err(fail == 2 ? ERR_IO : ERR_NO_MEMORY)) << fail;
        }
    }
    EXPECT_EQ(h->entries[0].data, nullptr);
    EXPECT_NE(simg_load(h, "e"), nullptr);
    simg_close(h);
    write_file("a.img", bytes.substr(0, bytes.size() - 1)); // one byte of data missing
    h = simg_open("a.img", 0);
    EXPECT_EQ(got(simg_load(h, "e")), err(ERR_IO));
    simg_close(h);
}
