// Partition and LUN access against a scripted programmer: positions, the
// alignment and range rules, and the commands that reads, writes and erases
// turn into.
#include <gtest/gtest.h>

#include "storage/script.h"
#include "storage/storage.h"
#include "support/helpers.h"

using namespace ravik;
using namespace ravik::test;

namespace {

// The raw bytes that followed the nth command in the wire.
std::string raw_after(const std::string &wire, size_t nth)
{
    const std::string head = "<?xml version=\"1.0\"?><data><", tail = "/></data>";
    size_t at = 0;
    for (size_t i = 0; i <= nth; i++)
        at = wire.find(head, at) + 1;
    size_t from = wire.find(tail, at) + tail.size();
    size_t to = wire.find(head, from);
    return wire.substr(from, to == std::string::npos ? std::string::npos : to - from);
}

// The answers to n programs.
void push_programs(fake_platform &fake, int n)
{
    for (int i = 0; i < n; i++)
        fake.push_all({raw_ack(), ack()});
}

} // namespace

TEST(StorageAccess, SeekReadAndTheirRules)
{
    with_link([&](fake_platform &fake) {
        push_discovery(fake, 512, {{4096, make_gpt({{"p", 64, 71}}, 512, 4096)}});
        pt *p = pt_find("p", 0);
        ASSERT_NE(p, nullptr);
        ASSERT_EQ(pt_size(p), 4096u);
        fake.written.clear();

        EXPECT_EQ(pt_seek(p, 0, 2) & 0xFF, ERR_RANGE);
        EXPECT_EQ(pt_seek(p, 4096, 0) & 0xFF, ERR_RANGE);
        EXPECT_EQ(pt_seek(p, -1, 0) & 0xFF, ERR_RANGE);
        EXPECT_EQ(pt_seek(p, 0, 3) & 0xFF, ERR_RANGE);
        EXPECT_EQ(pt_seek(p, -512, 2), 0);
        EXPECT_EQ(p->pos, 3584u);
        EXPECT_EQ(pt_seek(p, -1024, 1), 0);
        EXPECT_EQ(p->pos, 2560u);

        // Unaligned: refused before anything goes out, position kept.
        char buf[4096];
        EXPECT_EQ(pt_read(p, buf, 100), 0u);
        EXPECT_EQ(get_error() & 0xFF, ERR_BAD_PARAM);
        EXPECT_EQ(p->pos, 2560u);
        EXPECT_EQ(pt_read(p, buf, 2048), 0u);
        EXPECT_EQ(get_error() & 0xFF, ERR_RANGE);
        EXPECT_TRUE(fake.written.empty());

        // Exactly the rest: one dump at the right sector, into the buffer.
        fake.push_all({raw_ack(), std::string(1536, 'r')});
        EXPECT_EQ(pt_read(p, buf, 1536), 1536u);
        EXPECT_EQ(std::string(buf, 1536), std::string(1536, 'r'));
        EXPECT_EQ(p->pos, 4096u);
        EXPECT_EQ(attr_of(fake.written, "dump", "start_sector"), (std::vector<std::string>{"69"}));
        EXPECT_EQ(attr_of(fake.written, "dump", "num_partition_sectors"), (std::vector<std::string>{"3"}));
        EXPECT_EQ(pt_read(p, buf, 1), 0u);
        EXPECT_EQ(get_error() & 0xFF, ERR_RANGE);
        EXPECT_EQ(pt_read(p, buf, 0), 0u);
        EXPECT_EQ(get_error(), 0);

        // A LUN number out of range never reaches the target.
        size_t sent = fake.written.size();
        EXPECT_EQ(lun_read(1, buf, 512), 0u);
        EXPECT_EQ(get_error() & 0xFF, ERR_RANGE);
        EXPECT_EQ(lun_seek(-1, 0, 0) & 0xFF, ERR_RANGE);
        EXPECT_EQ(fake.written.size(), sent);
        EXPECT_EQ(pt_size(nullptr), 0u);
        EXPECT_EQ(pt_name(nullptr), nullptr);
        EXPECT_FALSE(pt_needs_bnr(nullptr));
    });
}

TEST(StorageAccess, WritesSplitOffAPartialLastSector)
{
    with_link([&](fake_platform &fake) {
        push_discovery(fake, 4096, {{1000, make_gpt({{"a", 10, 19}}, 4096, 1000)}});
        pt *a = pt_find("a", -1);
        ASSERT_NE(a, nullptr);
        fake.written.clear();
        std::string data(5000, '\0');
        for (size_t i = 0; i < data.size(); i++)
            data[i] = (char)(i * 7 + 1);
        push_programs(fake, 2);
        EXPECT_EQ(pt_write(a, data.data(), 5000), 5000u);
        EXPECT_EQ(attr_of(fake.written, "program", "start_sector"), (std::vector<std::string>{"10", "11"}));
        EXPECT_EQ(attr_of(fake.written, "program", "num_partition_sectors"), (std::vector<std::string>{"1", "1"}));
        EXPECT_EQ(raw_after(fake.written, 0), data.substr(0, 4096));
        EXPECT_EQ(raw_after(fake.written, 1), data.substr(4096) + std::string(4096 - 904, '\0'));
        // The position now stands inside a sector.
        EXPECT_EQ(a->pos, 5000u);
        EXPECT_EQ(pt_write(a, data.data(), 4096), 0u);
        EXPECT_EQ(get_error() & 0xFF, ERR_BAD_PARAM);
    });
    with_link([&](fake_platform &fake) {
        push_discovery(fake, 512, {{4096, make_gpt({{"s", 40, 47}}, 512, 4096)}});
        pt *s = pt_find("s", 0);
        ASSERT_NE(s, nullptr);
        fake.written.clear();
        push_programs(fake, 2);
        EXPECT_EQ(pt_write(s, std::string(100, 'x').data(), 100), 100u);
        EXPECT_EQ(attr_of(fake.written, "program", "num_partition_sectors"), (std::vector<std::string>{"0", "1"}));
        EXPECT_EQ(attr_of(fake.written, "program", "start_sector"), (std::vector<std::string>{"40", "40"}));
        EXPECT_EQ(pt_write(s, "x", 4096), 0u);
        EXPECT_EQ(get_error() & 0xFF, ERR_RANGE);
    });
}

TEST(StorageAccess, ErasesRunTheWholeWidthAndHighestLunWins)
{
    with_link([&](fake_platform &fake) {
        // 16 GiB LUNs; "big" begins at 5 GiB and is 4 GiB and 1 MiB long.
        const uint64_t sectors = 4ull << 20, big_first = 5ull << 18, big_len = ((4ull << 30) + (1 << 20)) / 4096;
        auto lun0 = make_gpt({{"big", big_first, big_first + big_len - 1}, {"mid", 256, 639}, {"dup", 100, 101}}, 4096,
                             sectors);
        auto lun1 = make_gpt({{"other", 100, 101}}, 4096, sectors);
        auto lun2 = make_gpt({{"dup", 200, 201}}, 4096, sectors);
        push_discovery(fake, 4096, {{sectors, lun0}, {sectors, lun1}, {sectors, lun2}});
        pt *dup = pt_find("dup", -1);
        ASSERT_NE(dup, nullptr);
        EXPECT_EQ(pt_lun(dup), 2);
        EXPECT_EQ(pt_lun(pt_find("dup", 0)), 0);
        EXPECT_EQ(pt_find("dup", 1), nullptr);
        EXPECT_EQ(get_error() & 0xFF, ERR_NOT_FOUND);

        // 1.5 MiB: 1 MiB, then the half.
        fake.written.clear();
        push_programs(fake, 2);
        EXPECT_EQ(pt_erase(pt_find("mid", 0)), 0);
        EXPECT_EQ(attr_of(fake.written, "program", "start_sector"), (std::vector<std::string>{"256", "512"}));
        EXPECT_EQ(attr_of(fake.written, "program", "num_partition_sectors"), (std::vector<std::string>{"256", "128"}));

        // Above 4 GiB: the erase starts at the partition's first sector and
        // goes on past the first 1 MiB; the target stops answering there.
        fake.written.clear();
        push_programs(fake, 1);
        EXPECT_EQ(pt_erase(pt_find("big", 0)) & 0xFF, ERR_NO_RESPONSE);
        EXPECT_EQ(attr_of(fake.written, "program", "start_sector"),
                  (std::vector<std::string>{std::to_string(big_first), std::to_string(big_first + 256)}));
    });
}
