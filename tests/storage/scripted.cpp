// Storage against a scripted programmer: discovery, partition and LUN access, GPT checks.
#include <gtest/gtest.h>

#include "storage/gpt.h"
#include "storage/script.h"
#include "storage/storage.h"

using namespace ravik;
using namespace ravik::test;
using strings = std::vector<std::string>;

TEST(StorageDiscovery, FactsLimitsAndWordings)
{
    // One answer per LUN asked ("": eight LUNs of 64 sectors), and what discovery makes of them.
    struct { std::vector<strings> infos; int code; uint32_t blksz = 0; int type = 0; uint64_t size = 0;
             const char *part = nullptr; strings logs = {}; } rows[] = {
        // Hexadecimal in the first wording, whatever the prefix.
        {{{"Device Block Size in Bytes: 200", "Device Total Physical Paritions: 1", "Device Total Logical Blocks: 1000"}},
         0, 512, STORAGE_EMMC, 0x1000ull * 512},
        {{{"SECTOR_SIZE_IN_BYTES=4096", "num_physical_partitions=1", "num_partition_sectors=1000",
           "UFS Inquiry Command Output: SIMDISK  UFS  0100"}},
         0, 4096, STORAGE_UFS, 1000ull * 4096, "SIMDISK  UFS  0100",
         {"...blksz = 4096\n", "...part  = \"SIMDISK  UFS  0100\"\n"}},
        {{info_lines(0, 512, 9, 100)}, ERR_GENERAL}, // nine LUNs are too many
        {{info_lines(2, 512, 2, 64), {"nothing here"}}, ERR_GENERAL, 0, 0, 0, nullptr, {"size of LUN #1 not detected!\n"}},
        {std::vector<strings>(8, {""}), 0, 512, STORAGE_EMMC, 64 * 512}, // eight are fine
    };
    for (auto &r : rows)
        with_link([&](fake_platform &fake) {
            log_capture c;
            fake.push_bytes(ack());
            for (auto &lines : r.infos)
                fake.push_bytes(answer("value=\"ACK\"", lines[0].empty() ? info_lines(0, 512, 8, 64) : lines));
            fake.push_all({raw_ack(), std::string(r.blksz, '\0')});
            ASSERT_EQ(storage_init() & 0xFF, r.code) << r.infos[0][0];
            // One question per LUN up to the first that fails: none past a refused count.
            EXPECT_EQ(attr_of(fake.written, "getStorageInfo", "physical_partition_number").size(), r.infos.size());
            for (auto &l : r.logs)
                EXPECT_TRUE(c.has(l)) << l;
            if (r.code)
                return;
            storage *s = get_storage();
            ASSERT_NE(s, nullptr);
            EXPECT_EQ(std::tuple(s->blksz, (int)s->type, s->num_luns, lun_size(0), lun_szblks(0)),
                      std::tuple(r.blksz, r.type, (uint32_t)r.infos.size(), r.size, r.size / r.blksz));
            EXPECT_STREQ(s->part, r.part);
        });
}

TEST(StorageDiscovery, TablesUpToTheFirstLunWithoutOne)
{
    auto two = [](const char *a, const char *b) { return make_gpt({{a, 40, 99, 1u << 5}, {b, 100, 199}}, 4096, 1000); };
    with_link([&](fake_platform &fake) {
        push_discovery(fake, 4096, {{1000, two("boot", "data")}, {1000, std::nullopt}, {1000, two("boot", "late")}});
        log_capture c;
        ASSERT_EQ(storage_init(), 0);
        pt *boot = pt_find("boot", -1);
        ASSERT_NE(boot, nullptr);
        EXPECT_EQ(std::tuple(pt_lun(boot), boot->offset, pt_size(boot), pt_needs_bnr(boot), pt_needs_bnr(pt_find("data", 0))),
                  std::tuple(0, 40ull * 4096, 60ull * 4096, true, false));
        EXPECT_EQ(and_code(pt_find("late", -1)), std::tuple((pt *)nullptr, (int)ERR_NOT_FOUND));
        // No table was asked of LUN 2.
        EXPECT_EQ(attr_of(fake.written, "dump", "physical_partition_number"), (strings{"0", "0", "1"}));
        device_broadcast(DEVICE_EVENT_SAVE_LOGS, nullptr);
        for (auto &l : strings{"STORAGE {\n", "  type = \"UFS\",\n", "  blksz = 4096 (0x1000),\n", "  luns[00] = {\n",
                               "    ptable[00] = { attrs.needs_bnr = 1, offset =     160K, size =     240K, "
                               "name = \"boot\" },\n"})
            EXPECT_TRUE(c.has(l)) << l;
    });
}

TEST(StorageAccess, SeeksReadsWritesAndErases)
{
    with_link([&](fake_platform &fake) {
        // 16 GiB LUNs; "big" begins at 5 GiB and is 4 GiB and 1 MiB long.
        const uint64_t n = 4ull << 20, big = 5ull << 18, big_len = ((4ull << 30) + (1 << 20)) / 4096;
        push_discovery(fake, 4096, {{n, make_gpt({{"big", big, big + big_len - 1}, {"mid", 256, 639}, {"dup", 100, 101},
                                                  {"p", 64, 71}, {"a", 10, 17}}, 4096, n)},
                                    {n, make_gpt({{"other", 100, 101}}, 4096, n)},
                                    {n, make_gpt({{"dup", 200, 201}}, 4096, n)}});
        EXPECT_EQ(std::tuple(pt_lun(pt_find("dup", -1)), pt_lun(pt_find("dup", 0))), std::tuple(2, 0));
        EXPECT_EQ(and_code(pt_find("dup", 1)), std::tuple((pt *)nullptr, (int)ERR_NOT_FOUND));
        pt *p = pt_find("p", 0), *a = pt_find("a", 0);
        ASSERT_TRUE(p && a);
        std::string buf(9 * 4096, '\0'), data = pattern(9 * 4096, 5);
        auto seek = [](pt *x, int64_t at, int from) { set_error(pt_seek(x, at, from)); return get_error() & 0xFF; };
        // A call, the answers it gets, its result and the code it leaves, the commands it sent, and p's position after.
        struct { std::function<int64_t()> call; strings answers; int64_t result; int code; const char *cmd;
                 strings starts, counts; uint64_t pos; } rows[] = {
            // Past either end refused, from the end and from here taken; reads unaligned or too long refused at once.
            {[&] { return seek(p, 0, 2); }, {}, ERR_RANGE, ERR_RANGE, "", {}, {}, 0},
            {[&] { return seek(p, 8 * 4096, 0); }, {}, ERR_RANGE, ERR_RANGE, "", {}, {}, 0},
            {[&] { return seek(p, -4096, 2); }, {}, 0, 0, "", {}, {}, 7 * 4096},
            {[&] { return seek(p, -2 * 4096, 1); }, {}, 0, 0, "", {}, {}, 5 * 4096},
            {[&] { return pt_read(p, buf.data(), 100); }, {}, 0, ERR_BAD_PARAM, "", {}, {}, 5 * 4096},
            {[&] { return pt_read(p, buf.data(), 4 * 4096); }, {}, 0, ERR_RANGE, "", {}, {}, 5 * 4096},
            // Exactly the rest: one dump at the right sector; then nothing is left.
            {[&] { return pt_read(p, buf.data(), 3 * 4096); }, {raw_ack(), std::string(3 * 4096, 'r')}, 3 * 4096, 0,
             "dump", {"69"}, {"3"}, 8 * 4096},
            {[&] { return pt_read(p, buf.data(), 1); }, {}, 0, ERR_RANGE, "", {}, {}, 8 * 4096},
            // A LUN out of range never reaches the target.
            {[&] { return lun_read(3, buf.data(), 4096); }, {}, 0, ERR_RANGE, "", {}, {}, 8 * 4096},
            // Whole sectors, then the partial last one alone; below a sector, no whole one.
            {[&] { return pt_write(a, data.data(), 5000); }, {raw_ack(), ack(), raw_ack(), ack()}, 5000, 0, "program",
             {"10", "11"}, {"1", "1"}, 8 * 4096},
            {[&] { return pt_write(a, data.data(), 4096); }, {}, 0, ERR_BAD_PARAM, "", {}, {}, 8 * 4096}, // inside a sector
            {[&] { return seek(a, 0, 0) + pt_write(a, data.data(), 100); }, {raw_ack(), ack(), raw_ack(), ack()}, 100, 0,
             "program", {"10", "10"}, {"0", "1"}, 8 * 4096},
            {[&] { return seek(a, 0, 0) + pt_write(a, data.data(), 9 * 4096); }, {}, 0, ERR_RANGE, "", {}, {}, 8 * 4096},
            // Erases run 1 MiB at a time; above 4 GiB from the partition's first sector, until the target stops.
            {[&] { return pt_erase(pt_find("mid", 0)); }, {raw_ack(), ack(), raw_ack(), ack()}, 0, 0, "program",
             {"256", "512"}, {"256", "128"}, 8 * 4096},
            {[&] { return pt_erase(pt_find("big", 0)) & 0xFF; }, {raw_ack(), ack()}, ERR_NO_RESPONSE, ERR_NO_RESPONSE,
             "program", {std::to_string(big), std::to_string(big + 256)}, {"256", "256"}, 8 * 4096},
        };
        for (auto &r : rows) {
            fake.written.clear();
            for (auto &answer : r.answers)
                fake.push_bytes(answer);
            EXPECT_EQ(r.call(), r.result) << &r - rows;
            EXPECT_EQ(get_error() & 0xFF, r.code) << &r - rows;
            EXPECT_EQ(attr_of(fake.written, r.cmd, "start_sector"), r.starts) << &r - rows;
            EXPECT_EQ(attr_of(fake.written, r.cmd, "num_partition_sectors"), r.counts) << &r - rows;
            EXPECT_EQ(fake.written.empty(), r.starts.empty()) << &r - rows;
            EXPECT_EQ(p->pos, r.pos) << &r - rows;
        }
        EXPECT_EQ(buf.substr(0, 3 * 4096), std::string(3 * 4096, 'r'));
        EXPECT_TRUE(pt_size(nullptr) == 0 && pt_name(nullptr) == nullptr && !pt_needs_bnr(nullptr));
    });
}

namespace {
// One LUN of 1000 sectors of 4096 bytes, without a table.
void blank_lun(fake_platform &fake)
{
    push_discovery(fake, 4096, {{1000, std::nullopt}});
    ASSERT_EQ(storage_init(), 0);
    fake.written.clear();
}
std::string with(std::string h, size_t at, int bytes, uint64_t v)
{
    set_le(h, at, bytes, v);
    reseal_header(h);
    return h;
}
} // namespace

TEST(Gpt, HeadersAndImagesAreCheckedBeforeAnythingIsWritten)
{
    with_link([&](fake_platform &fake) {
        blank_lun(fake);
        const std::string h = make_gpt({{"a", 10, 20}}, 4096, 1000).header;
        std::string bad_crc = h;
        bad_crc[16] ^= 1;
        struct { int lun; std::string header; uint32_t length; bool ok; } rows[] = {
            {0, h, 4096, true}, {0, h, 91, false}, {0, bad_crc, 4096, false}, {0, with(h, 12, 4, 91), 4096, false},
            {0, with(h, 12, 4, 4097), 4096, false}, {0, with(h, 12, 4, 4096), 4096, true},
            // A backup header's own LBA; last usable at the end, or 0 as a flash leaves it; the array not before it.
            {0, with(h, 24, 8, 2), 4096, false}, {0, with(h, 48, 8, 1000), 4096, false}, {0, with(h, 48, 8, 0), 4096, true},
            {0, with(h, 40, 8, 5), 4096, false}, {0, with(h, 72, 8, 0), 4096, false},
            // A LUN that does not exist has no room, unless the skip applies.
            {3, h, 4096, false}, {3, with(h, 48, 8, 0), 4096, true},
        };
        for (auto &r : rows) {
            const std::string before = r.header;
            EXPECT_EQ(validate_header(r.lun, r.header.data(), r.length) & 0xFF, r.ok ? 0 : ERR_INVALID) << &r - rows;
            EXPECT_EQ(r.header, before) << &r - rows; // the CRC field is put back
        }
        // An empty slot starts at 0, inside the image; too short; array elsewhere; no LUN.
        auto image = [](uint32_t entries) { return make_gpt({{"x", 10, 19}}, 4096, 50, entries, 128, false).image(4096); };
        std::string hole = image(2), one = image(1);
        std::string moved = one.substr(0, 4096) + with(one.substr(4096, 4096), 72, 8, 3) + one.substr(8192);
        struct { int lun; std::string &bytes; uint32_t size; int code; } images[] = {
            {0, hole, (uint32_t)hole.size(), ERR_RANGE}, {0, one, 8191, ERR_INVALID}, {0, one, 8192, ERR_INVALID},
            {0, moved, (uint32_t)moved.size(), ERR_INVALID}, {-1, one, (uint32_t)one.size(), ERR_RANGE}};
        for (auto &r : images)
            EXPECT_EQ(gpt_flash(r.lun, r.bytes.data(), r.size) & 0xFF, r.code) << &r - images;
        EXPECT_TRUE(fake.written.empty());
    });
}

TEST(Gpt, HostileTablesAreRefusedBeforeTheyAreRead)
{
    const gpt_bytes g = make_gpt({{"a", 10, 20}}, 4096, 1000);
    auto counts = [&](uint32_t entries, uint32_t size) {
        gpt_bytes h = g;
        h.header = with(with(h.header, 80, 4, entries), 84, 4, size);
        return h;
    };
    gpt_bytes crc = g, array = g, past = g;
    crc.header[16] ^= 0x40;
    array.array[200] = 'x';
    // An array that runs past the end of the LUN.
    for (auto [at, v] : {std::pair<size_t, uint64_t>{72, 990}, {80, 512}, {40, 996}, {48, 998}})
        past.header = with(past.header, at, at == 80 ? 4 : 8, v);
    struct { gpt_bytes table; int code; strings dumps; } rows[] = {
        // Counts and sizes that would make a huge array, with sound CRCs: refused on the header alone.
        {counts(0xFFFFFFFF, 128), ERR_INVALID, {"1"}}, {counts(2, 0x80000000), ERR_INVALID, {"1"}},
        {counts(8193, 128), ERR_INVALID, {"1"}}, {counts(1, 64), ERR_INVALID, {"1"}},
        {crc, ERR_INVALID, {"1"}}, {array, ERR_INVALID, {"1", "4"}}, {past, ERR_RANGE, {"1"}},
    };
    for (auto &r : rows)
        with_link([&](fake_platform &fake) {
            blank_lun(fake);
            push_table(fake, r.table);
            EXPECT_EQ(gpt_open(0) & 0xFF, r.code) << &r - rows;
            EXPECT_EQ(attr_of(fake.written, "dump", "num_partition_sectors"), r.dumps);
            EXPECT_EQ(get_gpt(), nullptr);
        });
}
