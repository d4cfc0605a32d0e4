// Both readers against containers built byte by byte: layout, loads, damaged input.
#include <gtest/gtest.h>

#include "core/core.h"
#include "support/container.h"
#include "support/helpers.h"

using namespace ravik;
using namespace ravik::test;

// A file load copies, an image load works in place; either zeroes the padding.
TEST(SimgReader, LayoutLoadsAndPadding)
{
    temp_cwd cwd;
    const std::string data = pattern(5000, 1), full = std::string(4095, 't') + 'Z';
    std::string bytes = simg_bytes({{"boot.img", data}, {"full", full}, {"empty", ""}, {"two", "ab"}});
    bytes[512 + 5001] = 'G'; // garbage where padding belongs
    write_file("a.img", bytes);
    std::string mem = bytes;
    for (simg *h : {simg_open("a.img", 0), simg_mopen(mem.data(), mem.size())}) {
        ASSERT_NE(h, nullptr);
        const bool file = h->fd >= 0;
        SCOPED_TRACE(file ? "file" : "memory");
        EXPECT_EQ(table_of(h), (std::vector<listed>{{"boot.img", 5000, 512}, {"full", 4096, 8960},
                                                    {"empty", 0, 13312}, {"two", 2, 13568}}));
        EXPECT_EQ(h->end_offset, file ? 17920u : 17664u) << "the last 256 bytes of an image are not looked at";
        EXPECT_STREQ(h->path, file ? "a.img" : "");
        simg_entry *e = simg_load(h, "boot.img");
        ASSERT_NE(e, nullptr);
        EXPECT_EQ(got(e, 8192), data + std::string(3192, '\0'));
        uint8_t *first = e->data;
        EXPECT_TRUE(simg_load(h, "boot.img") == e && e->data == first) << "one buffer per record";
        EXPECT_TRUE(file || (e->mapped && first == (uint8_t *)mem.data() + 512));
        for (const char *name : {"boot.img", "boot.img", "nothing"})
            simg_unload(h, name);
        EXPECT_EQ(e->data, file ? nullptr : first) << "a mapped record stays mapped";
        EXPECT_EQ(got(simg_loads(h, "full"), 4096), full.substr(0, 4095) + '\0');
        EXPECT_EQ(got(simg_loads(h, "two"), 3), std::string("ab\0", 3));
        // No bytes to read from a file; in an image no byte of its own for a terminator.
        EXPECT_EQ(got(simg_load(h, "empty")), file ? err(ERR_IO) : "");
        EXPECT_EQ(got(simg_loads(h, "empty")), err(file ? ERR_IO : ERR_INVALID));
        EXPECT_TRUE(file || (got(simg_store(h, "x", 1, "x")) == err(ERR_NOT_SUPPORTED) &&
                             err(simg_delete(h, "two")) == err(ERR_NOT_SUPPORTED)));
        simg_close(h);
    }
    EXPECT_EQ(read_file("a.img"), bytes) << "loading never writes the file";
    simg_close(nullptr);
}

TEST(SimgReader, MissingCreatedAndNames)
{
    temp_cwd cwd;
    EXPECT_TRUE(opened(simg_open("new.img", 0)) == err(ERR_IO) && !file_exists("new.img"));
    simg *h = simg_open("new.img", SIMG_CREATE);
    EXPECT_TRUE(h && h->num_entries == 0 && h->end_offset == 512u && read_file("new.img") == simg_bytes({}));
    EXPECT_EQ(got(simg_load(h, "index.xml")), err(ERR_NOT_FOUND));
    simg_close(h);
    // An existing container is opened, never truncated, with the flag set.
    const std::string n200(200, 'n'), n127(127, 'n'), no_nul(248, 'q');
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

// Refused by both readers, the bytes left as they were, or "open" where a
// reader takes them; 128 entries fit (SimgWriter.StoresUpToAFullTable).
TEST(SimgReader, DamagedHeadsAndFullTables)
{
    temp_cwd cwd;
    const std::string good = simg_bytes({{"a", "1"}});
    std::vector<raw_entry> many;
    for (int i = 0; i < 129; i++)
        many.push_back({"e" + std::to_string(i), std::string(1, (char)i)});
    std::string overrun = simg_bytes({{"a", "1"}, {"b", pattern(4096, 7)}}, false);
    overrun.pop_back();
    const struct { std::string bytes, file, mem; } cases[] = {
        {std::string(good).replace(15, 1, "X"), err(ERR_INVALID), err(ERR_INVALID)}, // head text without its NUL
        {std::string(good).replace(0, 1, "s"), err(ERR_INVALID), err(ERR_INVALID)},
        {simg_block("LONELY_N_SINGLE") + good.substr(256), err(ERR_INVALID), err(ERR_INVALID)},
        {good.substr(0, 255), err(ERR_IO), err(ERR_INVALID)},
        {simg_bytes(many), err(ERR_RANGE), err(ERR_RANGE)},
        // An entry that overruns the image by one byte fails the whole open.
        {overrun, "open", err(ERR_INVALID)},
    };
    for (auto &[bytes, file, mem] : cases) {
        write_file("a.img", bytes);
        EXPECT_EQ(opened(simg_open("a.img", SIMG_CREATE)), file);
        EXPECT_EQ(read_file("a.img"), bytes);
        std::string copy = bytes;
        EXPECT_EQ(opened(simg_mopen(copy.data(), copy.size())), mem);
        EXPECT_EQ(copy, bytes);
    }
    EXPECT_EQ(opened(simg_mopen(nullptr, 4096)), err(ERR_INVALID));
}

TEST(SimgReader, SizesNearTheTopOf64Bits)
{
    temp_cwd cwd;
    for (uint64_t size : {UINT64_MAX, UINT64_MAX - 4095, UINT64_MAX - 4096, (uint64_t)1 << 63,
                          ((uint64_t)1 << 63) - 4096, (uint64_t)1 << 40}) {
        std::string bytes = simg_bytes({{"ok", "fine"}, {"huge", "abc", size}, {"after", "x"}}), mem = bytes;
        EXPECT_TRUE(opened(simg_mopen(mem.data(), mem.size())) == err(ERR_INVALID) && mem == bytes) << size;
        write_file("h.img", bytes);
        simg *h = simg_open("h.img", 0);
        // Beyond the largest file position a seek fails; else the walk ends past the file's end.
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

// No padding, no tail: a mapped load still reads zeros there, and never writes back.
TEST(SimgReader, MappedLoadAtTheEndOfTheFile)
{
    temp_cwd cwd;
    const std::string data = pattern((2u << 20) + 10, 9);
    const std::string bytes = simg_bytes({{"e", data}}, false).substr(0, 512 + data.size());
    write_file("a.img", bytes);
    simg *h = simg_open("a.img", 0);
    ASSERT_NE(h, nullptr);
    simg_entry *e = simg_loads(h, "e");
    ASSERT_NE(e, nullptr);
    EXPECT_TRUE(e->map_len != 0 && got(e, data.size() + 4086) == data + std::string(4086, '\0'));
    EXPECT_TRUE(read_file("a.img") == bytes);
    simg_unload(h, "e");
    {
        io_hook hook;
        hook.fail_map = true;
        EXPECT_TRUE(got(simg_load(h, "e"), 0) == err(ERR_NO_MEMORY) && h->entries[0].data == nullptr);
    }
    EXPECT_NE(simg_load(h, "e"), nullptr);
    simg_close(h);
    write_file("a.img", bytes.substr(0, bytes.size() - 1)); // one byte of data missing
    h = simg_open("a.img", 0);
    EXPECT_EQ(got(simg_load(h, "e")), err(ERR_IO));
    simg_close(h);
}
