// The simulator's storage: GPTs checked by a reader written here, patch
// arithmetic landing on the right bytes, contents kept across restarts.
#ifdef RAVIK_HAVE_SIM

#include "sim/host.h"
#include "storage/gpt_check.h"
#include "support/helpers.h"

#include <gtest/gtest.h>

using namespace simtest;
using namespace ravik::test;

namespace {

struct gpt_check {
    std::vector<gpt_part> parts;
    uint64_t first_usable = 0, last_usable = 0;
};

// Both copies sound, plus what the simulator promises beyond that: a
// protective MBR, the primary array at LBA 2, the backup array just before
// its header, and partitions in order without overlap.
gpt_check read_gpt(const std::string &disk, uint32_t bs, const std::string &what)
{
    gpt_check out;
    EXPECT_EQ(check_gpt(disk, bs), "") << what;
    EXPECT_EQ(disk.substr(510, 2), "\x55\xAA") << what;
    EXPECT_EQ((uint8_t)disk[446 + 4], 0xEE) << what;
    const std::string h = disk.substr(bs, bs), b = disk.substr(disk.size() - bs, bs);
    EXPECT_EQ(le(h, 12, 4), 92u) << what;
    EXPECT_EQ(le(h, 84, 4), 128u) << what;
    const uint64_t count = le(h, 80, 4), array_sectors = (count * 128 + bs - 1) / bs, backup_at = le(b, 72, 8);
    EXPECT_EQ(le(h, 72, 8), 2u) << what;
    EXPECT_EQ(backup_at + array_sectors, disk.size() / bs - 1) << what;
    EXPECT_EQ(disk.substr(2 * bs, count * 128), disk.substr(backup_at * bs, count * 128)) << what;
    out.first_usable = le(h, 40, 8);
    out.last_usable = le(h, 48, 8);
    EXPECT_GE(out.first_usable, 2 + array_sectors) << what;
    EXPECT_LT(out.last_usable, backup_at) << what;
    uint64_t prev_end = 0;
    for (size_t e = 2 * bs; e < 2 * bs + count * 128; e += 128) {
        if (disk.compare(e, 16, std::string(16, '\0')) == 0)
            continue;
        gpt_part p{"", le(disk, e + 32, 8), le(disk, e + 40, 8), le(disk, e + 48, 8)};
        for (int k = 0; k < 36 && (disk[e + 56 + 2 * k] || disk[e + 57 + 2 * k]); k++)
            p.name += disk[e + 56 + 2 * k];
        EXPECT_GT(p.first, prev_end) << what << " overlap at " << p.name;
        prev_end = p.last;
        out.parts.push_back(p);
    }
    return out;
}

} // namespace

TEST(SimStorage, GptIsValidOnEveryLunForBothSectorSizes)
{
    {
        sandbox box;
        ASSERT_EQ(box.target->sector_size(), 512u);
        ASSERT_EQ(box.target->luns(), 1u);
        auto disk = read_file(box.target->lun_path(0));
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
            auto disk = read_file(box.target->lun_path(lun));
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
    auto lun1 = read_gpt(read_file(box.target->lun_path(1)), 4096, "lun1");
    ASSERT_EQ(lun1.parts.size(), 3u);
    EXPECT_EQ(lun1.parts[0].name, "alpha");
    EXPECT_EQ(lun1.parts[0].last - lun1.parts[0].first + 1, 3u);
    EXPECT_EQ(lun1.parts[0].attrs, 1u << 5);
    EXPECT_EQ(lun1.parts[1].last - lun1.parts[1].first + 1, 2u);
    EXPECT_EQ(lun1.parts[2].last, lun1.last_usable);
    // A LUN the layout does not name still gets an empty, valid table.
    EXPECT_TRUE(read_gpt(read_file(box.target->lun_path(0)), 4096, "lun0").parts.empty());

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
    ASSERT_TRUE(bring_up(h));
    ASSERT_TRUE(h.command("configure MemoryName=\"eMMC\" MaxPayloadSizeToTargetInBytes=\"1048576\"").ack);
    const uint64_t n = box.target->lun_bytes() / 512;

    reply r = h.command("patch SECTOR_SIZE_IN_BYTES=\"512\" byte_offset=\"16\" filename=\"DISK\" "
                        "physical_partition_number=\"0\" size_in_bytes=\"8\" "
                        "start_sector=\"NUM_DISK_SECTORS-1.\" value=\"NUM_DISK_SECTORS-34.\" "
                        "what=\"last usable\"");
    ASSERT_TRUE(r.ack) << r.text;
    std::string got = box.file_bytes(0, (n - 1) * 512 + 16, 8);
    EXPECT_EQ(le(got, 0, 8), n - 34);

    // CRC32(sector, bytes) over what is on the disk at that moment.
    auto array = box.file_bytes(0, 2 * 512, 16384);
    r = h.command("patch SECTOR_SIZE_IN_BYTES=\"512\" byte_offset=\"0\" filename=\"disk\" "
                  "physical_partition_number=\"0\" size_in_bytes=\"4\" start_sector=\"100\" "
                  "value=\"CRC32(2,16384)\" what=\"crc\"");
    ASSERT_TRUE(r.ack) << r.text;
    got = box.file_bytes(0, 100 * 512, 4);
    EXPECT_EQ(le(got, 0, 4), ref_crc32(array.data(), array.size()));

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
        ASSERT_TRUE(bring_up(h));
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
    auto g = read_gpt(read_file(again.lun_path(0)), 512, "kept");
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
    EXPECT_EQ(read_file(t.lun_path(0)).size(), t.lun_bytes());
}

#endif
