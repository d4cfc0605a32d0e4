// The simulated target as a sound reference: the boot ROM takes exactly the
// programmer, every LUN holds a valid table of its layout, patches land where
// the test's own arithmetic says. The library only carries the bytes here; its
// reading of the protocol is checked against scripted targets of its own.
#include <gtest/gtest.h>

#ifdef RAVIK_HAVE_SIM

#include "support/sim_session.h"

using namespace ravik;
using namespace ravik::test;

TEST(SimReference, BootRomTakesExactlyTheProgrammer)
{
    const std::string image = read_file(RAVIK_SIM_DEMO_ELF);
    ASSERT_EQ(image.compare(0, 5, "\x7F" "ELF\x02"), 0);
    const uint64_t phoff = le(image, 32, 8), phnum = le(image, 56, 2);
    uint64_t loaded = 0, last_byte = 0;
    for (uint64_t p = phoff; p < phoff + 56 * phnum; p += 56)
        if (le(image, p, 4) == 1 && le(image, p + 32, 8) > 0)
            loaded += le(image, p + 32, 8), last_byte = le(image, p + 8, 8) + le(image, p + 32, 8) - 1;
    ASSERT_LT(last_byte, image.size());
    // The byte altered: none, one in the header, in the first segment, the last loaded one.
    const size_t intact = SIZE_MAX;
    for (auto [flip, read64] : {std::pair{intact, -1}, {intact, 0}, {24, -1}, {0x1000 + 30000, -1}, {last_byte, 0}}) {
        SCOPED_TRACE(flip);
        sim_session s(false);
        s.o.read64 = read64, s.o.sahara_chunk = 0x800;
        std::string sent = image;
        if (flip != intact)
            sent[flip] ^= 0x01;
        EXPECT_EQ(s.flash({{"programmer.elf", sent}, {"run.xml", "<print what=\"x\"/>"}}) & 0xFF,
                  flip == intact ? 0 : ERR_SAHARA_BASE + 34);
        const auto &wire = s.t->wire();
        ASSERT_EQ(wire.of_kind("image").size(), 1u);
        EXPECT_EQ(wire.of_kind("image")[0].text, flip == intact ? "verified" : "mismatch");
        EXPECT_EQ(wire.of_kind("programmer-start").size(), flip == intact ? 1u : 0u);
        // Header, program headers and every loaded byte, in pieces of the chunk.
        uint64_t served = 0;
        for (auto &e : wire.of_kind("read-data")) {
            EXPECT_LE(e.size, 0x800u);
            served += e.size;
        }
        EXPECT_EQ(served, 64 + 56 * phnum + loaded);
    }
}

// A sound table behind a protective MBR, its partitions in order without
// overlap, read back as layout text: sizes in KiB, "*" for the rest.
TEST(SimReference, EveryLunHoldsAValidTableOfItsLayout)
{
    using ravik_sim::storage_kind;
    struct row { storage_kind kind; unsigned luns; const char *layout, *want; } const rows[] = {
        {storage_kind::emmc, 1, "",
         "0 firmware 1024K\n0 boot 8192K\n0 config 512K bnr\n0 persist 2048K bnr\n0 system 24576K\n0 userdata *\n"},
        {storage_kind::ufs, 3, "", "0 persist 1024K bnr\n0 system 8192K\n0 userdata *\n1 bootloader_a 2048K\n"
                                   "1 spare_a *\n2 bootloader_b 2048K\n2 spare_b *\n"},
        // A LUN the layout does not name still gets an empty, valid table.
        {storage_kind::ufs, 2, "# comment line\n1 alpha 12K bnr\n1 beta 0x2000   # trailing comment\n1 gamma *\n",
         "1 alpha 12K bnr\n1 beta 8K\n1 gamma *\n"},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.want);
        sim_session s(false);
        s.o.storage = r.kind, s.o.layout = r.layout;
        s.o.luns = *r.layout ? r.luns : 0; // else as many as the storage has by default
        const auto &t = s.start();
        const uint32_t bs = r.kind == storage_kind::ufs ? 4096 : 512;
        ASSERT_EQ(std::make_pair(t.sector_size(), t.luns()), std::make_pair(bs, r.luns));
        std::string got;
        for (unsigned lun = 0; lun < r.luns; lun++) {
            const std::string disk = s.lun(lun), h = disk.substr(bs, bs);
            ASSERT_EQ(disk.size(), t.lun_bytes());
            EXPECT_EQ(check_gpt(disk, bs), "");
            EXPECT_EQ(disk.substr(510, 2) + disk[450], "\x55\xAA\xEE");
            for (uint64_t e = le(h, 72, 8) * bs, end = e + le(h, 80, 4) * 128, prev = 0; e < end; e += 128) {
                const uint64_t first = le(disk, e + 32, 8), last = le(disk, e + 40, 8), attrs = le(disk, e + 48, 8);
                if (disk.compare(e, 16, std::string(16, '\0')) == 0)
                    continue;
                EXPECT_GT(first, std::exchange(prev, last));
                got += std::to_string(lun) + " ";
                for (int k = 0; k < 36 && disk[e + 56 + 2 * k]; k++)
                    got += disk[e + 56 + 2 * k];
                got += last == le(h, 48, 8) ? " *" : " " + std::to_string((last - first + 1) * bs / 1024) + "K";
                got += attrs == 1u << 5 ? " bnr\n" : attrs ? " ?\n" : "\n";
            }
        }
        EXPECT_EQ(got, r.want);
    }
    for (const char *bad : {"0 a 0\n", "9 a 1M\n", "0 a 1X\n", "0 a\n", "0 a 1M weird\n", "0 a 100M\n"}) {
        sim_session s(false);
        s.o.layout = bad;
        EXPECT_THROW(s.start(), std::runtime_error) << bad;
    }
}

// Each over what is on the disk at that moment; a patch beyond its sector,
// one wider than 8 bytes and a drive that is no number are refused.
TEST(SimReference, PatchesLandWhereTheirArithmeticSays)
{
    sim_session s(false);
    const uint64_t n = s.start().lun_bytes() / 512;
    const std::string array = s.lun(0, 2 * 512, 16384);
    const std::string disk = "patch SECTOR_SIZE_IN_BYTES=\"512\" filename=\"DISK\" physical_partition_number=\"0\" ";
    const std::pair<std::string, bool> rows[] = { // refused
        {disk + "start_sector=\"NUM_DISK_SECTORS-1.\" byte_offset=\"16\" size_in_bytes=\"8\" value=\"NUM_DISK_SECTORS-34.\"",
         false},
        {disk + "start_sector=\"100\" byte_offset=\"0\" size_in_bytes=\"4\" value=\"CRC32(2,16384)\"", false},
        {disk + "start_sector=\"NUM_DISK_SECTORS-1\" byte_offset=\"510\" size_in_bytes=\"4\" value=\"1\"", true},
        {disk + "start_sector=\"5\" byte_offset=\"0\" size_in_bytes=\"9\" value=\"1\"", true},
        {"setbootablestoragedrive value=\"0\"", false}, {"setbootablestoragedrive value=\"x\"", true}};
    std::string recipe = "<configure SkipStorageInit=\"0\"/>\n";
    for (auto &[tag, refused] : rows)
        recipe += "<" + tag + "/>\n";
    ASSERT_EQ(s.flash({{"run.xml", recipe}}, "ignore_errors=\"true\""), 0) << s.text;
    for (auto &[tag, refused] : rows)
        EXPECT_EQ(s.count(tag + ": Error: NAK\n"), refused) << tag;
    std::string last, crc;
    put_le(last, 8, n - 34);
    put_le(crc, 4, ref_crc32(array.data(), array.size()));
    EXPECT_EQ(s.lun(0, (n - 1) * 512 + 16, 8), last);
    EXPECT_EQ(s.lun(0, 100 * 512, 4), crc);
}

#endif
