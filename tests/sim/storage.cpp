// The simulator's storage: GPTs checked by a reader written here, patch
// arithmetic landing on the right bytes, contents kept across restarts.
#ifdef RAVIK_HAVE_SIM

#include "sim/host.h"

#include <fstream>
#include <gtest/gtest.h>
#include <iterator>

using namespace simtest;

namespace {

// Bitwise CRC-32, on purpose not the table form the simulator uses.
uint32_t crc32_slow(const uint8_t *p, size_t n)
{
    uint32_t c = 0xFFFFFFFFu;
    for (size_t i = 0; i < n; i++) {
        c ^= p[i];
        for (int k = 0; k < 8; k++)
            c = (c >> 1) ^ (0xEDB88320u & (0u - (c & 1)));
    }
    return ~c;
}

uint64_t le64(const uint8_t *p)
{
    uint64_t v = 0;
    for (int i = 7; i >= 0; i--)
        v = v << 8 | p[i];
    return v;
}
uint32_t le32(const uint8_t *p) { return (uint32_t)le64(p) & 0xFFFFFFFFu; }

struct gpt_part {
    std::string name;
    uint64_t first, last, attrs;
};

struct gpt_check {
    std::vector<gpt_part> parts;
    uint64_t first_usable = 0, last_usable = 0;
};

// Reads and checks both copies of the table of a disk image; failures are
// reported as test failures with `what` in the message.
gpt_check read_gpt(const std::vector<uint8_t> &disk, uint32_t bs, const std::string &what)
{
    gpt_check out;
    const uint64_t sectors = disk.size() / bs;
    EXPECT_EQ(disk[510], 0x55) << what;
    EXPECT_EQ(disk[511], 0xAA) << what;
    EXPECT_EQ(disk[446 + 4], 0xEE) << what;

    auto header = [&](uint64_t lba, uint64_t expect_self, uint64_t expect_other,
                      std::vector<uint8_t> &array) {
        const uint8_t *h = &disk[lba * bs];
        EXPECT_EQ(std::string((const char *)h, 8), "EFI PART") << what << " lba " << lba;
        uint32_t size = le32(h + 12);
        EXPECT_GE(size, 92u);
        EXPECT_LE(size, bs);
        std::vector<uint8_t> copy(h, h + size);
        std::fill(copy.begin() + 16, copy.begin() + 20, 0);
        EXPECT_EQ(crc32_slow(copy.data(), copy.size()), le32(h + 16)) << what << " header crc";
        EXPECT_EQ(le64(h + 24), expect_self) << what;
        EXPECT_EQ(le64(h + 32), expect_other) << what;
        out.first_usable = le64(h + 40);
        out.last_usable = le64(h + 48);
        uint64_t entries_at = le64(h + 72);
        uint32_t count = le32(h + 80), esize = le32(h + 84);
        EXPECT_EQ(esize, 128u);
        EXPECT_LE((entries_at * bs) + (uint64_t)count * esize, disk.size());
        array.assign(disk.begin() + (ptrdiff_t)(entries_at * bs),
                     disk.begin() + (ptrdiff_t)(entries_at * bs + (uint64_t)count * esize));
        EXPECT_EQ(crc32_slow(array.data(), array.size()), le32(h + 88)) << what << " array crc";
        uint64_t array_sectors = ((uint64_t)count * esize + bs - 1) / bs;
        if (lba == 1) {
            EXPECT_EQ(entries_at, 2u);
            EXPECT_GE(out.first_usable, entries_at + array_sectors);
        } else {
            EXPECT_EQ(entries_at + array_sectors, lba);
            EXPECT_LT(out.last_usable, entries_at);
        }
    };
    std::vector<uint8_t> primary, backup;
    header(1, 1, sectors - 1, primary);
    uint64_t fu = out.first_usable, lu = out.last_usable;
    header(sectors - 1, sectors - 1, 1, backup);
    EXPECT_EQ(fu, out.first_usable);
    EXPECT_EQ(lu, out.last_usable);
    EXPECT_EQ(primary, backup) << what;

    uint64_t prev_end = 0;
    for (size_t i = 0; i + 128 <= primary.size(); i += 128) {
        const uint8_t *e = &primary[i];
        if (std::all_of(e, e + 16, [](uint8_t b) { return b == 0; }))
            continue;
        gpt_part p;
        p.first = le64(e + 32);
        p.last = le64(e + 40);
        p.attrs = le64(e + 48);
        for (int k = 0; k < 36 && (e[56 + 2 * k] || e[57 + 2 * k]); k++)
            p.name += (char)e[56 + 2 * k];
        EXPECT_GE(p.first, out.first_usable) << what << " " << p.name;
        EXPECT_LE(p.last, out.last_usable) << what << " " << p.name;
        EXPECT_LE(p.first, p.last);
        EXPECT_GT(p.first, prev_end) << what << " overlap at " << p.name;
        prev_end = p.last;
        out.parts.push_back(p);
    }
    return out;
}

std::vector<uint8_t> slurp(const std::string &path)
{
    std::ifstream f(path, std::ios::binary | std::ios::ate);
    std::vector<uint8_t> v((size_t)f.tellg());
    f.seekg(0);
    f.read(reinterpret_cast<char *>(v.data()), (std::streamsize)v.size());
    return v;
}

} // namespace

TEST(SimStorage, GptIsValidOnEveryLunForBothSectorSizes)
{
    {
        sandbox box;
        ASSERT_EQ(box.target->sector_size(), 512u);
        ASSERT_EQ(box.target->luns(), 1u);
        auto disk = slurp(box.target->lun_path(0));
        ASSERT_EQ(disk.size(), box.target->lun_bytes());
        gpt_check g = read_gpt(disk, 512, "emmc");
        const uint64_t sectors = disk.size() / 512;
        EXPECT_EQ(g.first_usable, 34u);
        EXPECT_EQ(g.last_usable, sectors - 34);
        std::vector<std::string> names;
        for (auto &p : g.parts)
            names.push_back(p.name);
        EXPECT_EQ(names, (std::vector<std::string>{"firmware", "boot", "config", "persist",
                                                   "system", "userdata"}));
        ASSERT_EQ(g.parts.size(), 6u);
        EXPECT_EQ(g.parts[1].last - g.parts[1].first + 1, 8u * 2048); // 8 MiB
        EXPECT_EQ(g.parts[2].attrs, 1u << 5);                         // bnr
        EXPECT_EQ(g.parts[1].attrs, 0u);
        EXPECT_EQ(g.parts.back().last, g.last_usable); // '*' takes the rest
    }
    {
        ravik_sim::options o;
        o.storage = ravik_sim::storage_kind::ufs;
        sandbox box(o);
        ASSERT_EQ(box.target->sector_size(), 4096u);
        ASSERT_EQ(box.target->luns(), 3u);
        for (unsigned lun = 0; lun < 3; lun++) {
            auto disk = slurp(box.target->lun_path(lun));
            gpt_check g = read_gpt(disk, 4096, "ufs lun " + std::to_string(lun));
            EXPECT_EQ(g.first_usable, 6u);
            EXPECT_EQ(g.last_usable, disk.size() / 4096 - 6);
            EXPECT_FALSE(g.parts.empty());
        }
    }
}

TEST(SimStorage, LayoutTextDecidesThePartitions)
{
    ravik_sim::options o;
    o.storage = ravik_sim::storage_kind::ufs;
    o.luns = 2;
    o.lun_bytes = 4 << 20;
    o.layout = "# comment line\n"
               "1 alpha 12K bnr\n"
               "1 beta 0x2000   # trailing comment\n"
               "1 gamma *\n";
    sandbox box(o);
    auto lun1 = read_gpt(slurp(box.target->lun_path(1)), 4096, "lun1");
    ASSERT_EQ(lun1.parts.size(), 3u);
    EXPECT_EQ(lun1.parts[0].name, "alpha");
    EXPECT_EQ(lun1.parts[0].last - lun1.parts[0].first + 1, 3u);
    EXPECT_EQ(lun1.parts[0].attrs, 1u << 5);
    EXPECT_EQ(lun1.parts[1].last - lun1.parts[1].first + 1, 2u);
    EXPECT_EQ(lun1.parts[2].last, lun1.last_usable);
    // A LUN the layout does not name still gets an empty, valid table.
    EXPECT_TRUE(read_gpt(slurp(box.target->lun_path(0)), 4096, "lun0").parts.empty());

    for (const char *bad : {"0 a 0\n", "9 a 1M\n", "0 a 1X\n", "0 a\n", "0 a 1M weird\n",
                            "0 a 100M\n"}) {
        ravik_sim::options b;
        b.layout = bad;
        EXPECT_THROW(sandbox{b}, std::runtime_error) << bad;
    }
}

TEST(SimStorage, PatchesLandAtSectorAndByteArithmetic)
{
    sandbox box;
    host h(box.target->link());
    std::string why;
    ASSERT_TRUE(bring_up(h, why)) << why;
    ASSERT_TRUE(h.command("configure MemoryName=\"eMMC\" MaxPayloadSizeToTargetInBytes=\"1048576\"").ack);
    const uint64_t n = box.target->lun_bytes() / 512;

    reply r = h.command("patch SECTOR_SIZE_IN_BYTES=\"512\" byte_offset=\"16\" filename=\"DISK\" "
                        "physical_partition_number=\"0\" size_in_bytes=\"8\" "
                        "start_sector=\"NUM_DISK_SECTORS-1.\" value=\"NUM_DISK_SECTORS-34.\" "
                        "what=\"last usable\"");
    ASSERT_TRUE(r.ack) << r.text;
    std::string got = box.file_bytes(0, (n - 1) * 512 + 16, 8);
    uint64_t v = le64((const uint8_t *)got.data());
    EXPECT_EQ(v, n - 34);

    // CRC32(sector, bytes) over what is on the disk at that moment.
    auto array = box.file_bytes(0, 2 * 512, 16384);
    r = h.command("patch SECTOR_SIZE_IN_BYTES=\"512\" byte_offset=\"0\" filename=\"disk\" "
                  "physical_partition_number=\"0\" size_in_bytes=\"4\" start_sector=\"100\" "
                  "value=\"CRC32(2,16384)\" what=\"crc\"");
    ASSERT_TRUE(r.ack) << r.text;
    got = box.file_bytes(0, 100 * 512, 4);
    EXPECT_EQ(le32((const uint8_t *)got.data()),
              crc32_slow((const uint8_t *)array.data(), array.size()));

    // Patches of files are not the disk's business; bad ones are refused.
    EXPECT_TRUE(h.command("patch filename=\"gpt_main0.bin\" start_sector=\"1\" byte_offset=\"0\" "
                          "size_in_bytes=\"4\" value=\"1\" SECTOR_SIZE_IN_BYTES=\"512\"")
                    .ack);
    EXPECT_EQ(box.file_bytes(0, 512, 4), "EFI ");
    EXPECT_FALSE(h.command("patch SECTOR_SIZE_IN_BYTES=\"512\" byte_offset=\"510\" filename=\"DISK\" "
                           "physical_partition_number=\"0\" size_in_bytes=\"4\" "
                           "start_sector=\"NUM_DISK_SECTORS-1\" value=\"1\"")
                     .ack);
    EXPECT_FALSE(h.command("patch SECTOR_SIZE_IN_BYTES=\"512\" byte_offset=\"0\" filename=\"DISK\" "
                           "physical_partition_number=\"0\" size_in_bytes=\"9\" "
                           "start_sector=\"5\" value=\"1\"")
                     .ack);
    EXPECT_TRUE(h.command("setbootablestoragedrive value=\"0\"").ack);
    EXPECT_FALSE(h.command("setbootablestoragedrive value=\"x\"").ack);
}

TEST(SimStorage, ContentsOutliveTheTarget)
{
    sandbox box;
    {
        host h(box.target->link());
        std::string why;
        ASSERT_TRUE(bring_up(h, why)) << why;
        ASSERT_TRUE(h.command("configure MemoryName=\"eMMC\" MaxPayloadSizeToTargetInBytes=\"65536\"").ack);
        reply final;
        ASSERT_TRUE(program(h,
                            "SECTOR_SIZE_IN_BYTES=\"512\" num_partition_sectors=\"1\" "
                            "physical_partition_number=\"0\" start_sector=\"4000\"",
                            std::vector<uint8_t>(512, 0x5A), final));
    }
    box.target->stop();
    ravik_sim::options o;
    o.link = box.dir + "/tty2";
    o.storage_dir = box.dir + "/storage";
    o.layout = "0 other 1M\n"; // an existing LUN file keeps its own table
    ravik_sim::target again(o);
    again.start();
    EXPECT_EQ(box.file_bytes(0, 4000 * 512, 512), std::string(512, '\x5A'));
    auto g = read_gpt(slurp(again.lun_path(0)), 512, "kept");
    ASSERT_FALSE(g.parts.empty());
    EXPECT_EQ(g.parts[0].name, "firmware");
}

TEST(SimStorage, StorageDirectoryIsMadeWithItsParents)
{
    sandbox box;
    box.target->stop();
    ravik_sim::options o;
    o.link = box.dir + "/deep-tty";
    o.storage_dir = box.dir + "/a/b/c";
    ravik_sim::target t(o);
    t.start();
    EXPECT_EQ(slurp(t.lun_path(0)).size(), t.lun_bytes());
}

#endif
