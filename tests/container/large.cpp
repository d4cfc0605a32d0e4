// Containers past 2 GiB, as sparse files, and file mappings that reach the
// end of the file.
#include <gtest/gtest.h>

#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "container/container.h"
#include "container/simg_support.h"
#include "core/core.h"
#include "support/helpers.h"

using namespace ravik;
using namespace ravik::test;

namespace {

void put_at(int fd, const std::string &bytes, uint64_t at)
{
    ASSERT_EQ(pwrite(fd, bytes.data(), bytes.size(), (off_t)at), (ssize_t)bytes.size());
}

} // namespace

TEST(SimgLarge, SparseContainerPastTwoGiB)
{
    temp_cwd cwd;
    const uint64_t huge = (3ull << 30) + 4096;
    std::string last = pattern(5000, 7);
    int fd = open("big.img", O_RDWR | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0);
    put_at(fd, simg_block("SINGLE_N_LONELY") + simg_header("huge", huge), 0);
    uint64_t at = 512 + huge;
    put_at(fd, simg_header("last", last.size()) + last + std::string(8192 - 5000, '\0'), at);
    put_at(fd, simg_block("LONELY_N_SINGLE"), at + 256 + 8192);
    close(fd);

    simg *h = simg_open("big.img", 0);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(table_of(h), (std::vector<listed>{{"huge", huge, 512}, {"last", 5000, at + 256}}));
    EXPECT_EQ(h->end_offset, at + 256 + 8192 + 256);
    simg_entry *e = simg_load(h, "last");
    ASSERT_NE(e, nullptr);
    EXPECT_TRUE(memcmp(e->data, last.data(), last.size()) == 0);
    e = simg_load(h, "huge");
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->data[0], 0);
    EXPECT_EQ(e->data[huge - 1], 0);
    simg_unload(h, "huge");

    // Writes and moves at positions past 2^31 and 2^32.
    std::string more = pattern(4097, 8);
    ASSERT_NE(simg_store(h, more.data(), more.size(), "more"), nullptr);
    EXPECT_EQ(h->entries[2].offset, at + 256 + 8192 + 256);
    simg_close(h);
    h = simg_open("big.img", 0);
    ASSERT_NE(h, nullptr);
    ASSERT_EQ(h->num_entries, 3);
    EXPECT_TRUE(memcmp(simg_load(h, "more")->data, more.data(), more.size()) == 0);
    ASSERT_EQ(simg_delete(h, "huge"), 0);
    simg_close(h);
    h = simg_open("big.img", 0);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(table_of(h), (std::vector<listed>{{"last", 5000, 512}, {"more", 4097, 512 + 8192 + 256}}));
    EXPECT_TRUE(memcmp(simg_load(h, "last")->data, last.data(), last.size()) == 0);
    EXPECT_TRUE(memcmp(simg_load(h, "more")->data, more.data(), more.size()) == 0);
    simg_close(h);
}

TEST(SimgLarge, MappedLoadAtTheEndOfTheFile)
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
    EXPECT_NE(e->map_len, 0u);
    EXPECT_TRUE(memcmp(e->data, data.data(), data.size()) == 0);
    uint64_t padded = (data.size() + 4095) & ~4095ull;
    for (uint64_t i = data.size(); i < padded; i++)
        ASSERT_EQ(e->data[i], 0) << i;
    EXPECT_TRUE(read_file("a.img") == bytes) << "a private mapping never writes back";
    simg_close(h);

    // One byte of data missing: ERR_IO, whether mapped or read.
    write_file("a.img", bytes.substr(0, bytes.size() - 1));
    h = simg_open("a.img", 0);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(simg_load(h, "e"), nullptr);
    EXPECT_EQ(get_error() & 0xFF, ERR_IO);
    simg_close(h);

    // A mapping that cannot be made is out of memory, cleanly.
    write_file("a.img", bytes);
    h = simg_open("a.img", 0);
    {
        io_hook hook;
        hook.fail_anon = true;
        EXPECT_EQ(simg_load(h, "e"), nullptr);
        EXPECT_EQ(get_error() & 0xFF, ERR_NO_MEMORY);
        hook.fail_anon = false;
        hook.fail_map = true;
        EXPECT_EQ(simg_load(h, "e"), nullptr);
        EXPECT_EQ(get_error() & 0xFF, ERR_NO_MEMORY);
        hook.fail_map = false;
        hook.fail_file_size = true;
        EXPECT_EQ(simg_load(h, "e"), nullptr);
        EXPECT_EQ(get_error() & 0xFF, ERR_IO);
    }
    EXPECT_EQ(h->entries[0].data, nullptr);
    EXPECT_NE(simg_load(h, "e"), nullptr);
    simg_close(h);
}
