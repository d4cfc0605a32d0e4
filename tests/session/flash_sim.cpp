// Whole sessions against the simulated target on a real pty: identify,
// choose the package, upload the programmer, run the recipes, reboot.
#include <gtest/gtest.h>

#ifdef RAVIK_HAVE_SIM

#include "storage/sim_session.h"

using namespace ravik;
using namespace ravik::test;

namespace {

const char *INDEX = "<?xml version=\"1.0\"?>\n<index>\n"
                    "  <board id=\"0x0BEE\" name=\"simboard\"/>\n"
                    "  <package compatible=\"protocol:fastboot\" filename=\"wrong.xml\"/>\n"
                    "  <package compatible=\"protocol:ravik cpu.name:simboard\" filename=\"package.xml\"/>\n"
                    "</index>\n";
const char *PACKAGE = "<package>\n  <programmer filename=\"programmer.elf\"/>\n"
                      "  <recipe filename=\"emmc.xml\" compatible=\"storage.type:eMMC\"/>\n"
                      "  <recipe filename=\"ufs.xml\" compatible=\"storage.type:UFS\"/>\n</package>\n";

// The plain target, and a package choosing its recipe by storage type.
struct sim_run : sim_session {
    sim_run() : sim_session(false) {}
    void flash(std::map<std::string, std::string> entries, uint32_t flags = 0)
    {
        entries.emplace("index.xml", INDEX);
        entries.emplace("package.xml", PACKAGE);
        run_entries(entries, flags);
    }
    std::vector<std::string> commands() const { return t->wire().commands(); }
};

} // namespace

TEST(SessionFlash, ProgramsBySectorOntoTheSimulatedTarget)
{
    sim_run r;
    std::string boot = pattern(3000, 5);
    r.flash({{"boot.img", boot},
             {"emmc.xml", "<recipe>\n<configure SkipStorageInit=\"0\"/>\n"
                          "<program SECTOR_SIZE_IN_BYTES=\"512\" label=\"boot\" filename=\"boot.img\" "
                          "physical_partition_number=\"0\" start_sector=\"2048\"/>\n"
                          "<print what=\"done\"/>\n</recipe>\n"},
             {"ufs.xml", "<print what=\"never\"/>"}});
    const std::string &all = r.text;
    ASSERT_EQ(r.code, 0) << all;
    EXPECT_NE(all.find("...cpu.id  = 3054 (0xbee)\n"), std::string::npos) << all;
    EXPECT_NE(all.find("...filename = package.xml\n"), std::string::npos);
    EXPECT_NE(all.find("] done\n"), std::string::npos);
    EXPECT_EQ(all.find("never"), std::string::npos);
    EXPECT_EQ(r.lun(0, 2048 * 512, 3072), boot + std::string(72, '\0'));
    auto images = r.t->wire().of_kind("image");
    ASSERT_FALSE(images.empty());
    EXPECT_EQ(images[0].text, "verified");
    auto cmds = r.commands();
    ASSERT_FALSE(cmds.empty());
    EXPECT_NE(cmds.back().find("power value=\"reset_to_fastboot\""), std::string::npos);
}

TEST(SessionFlash, FailuresOfEachStageGiveTheirCodes)
{
    sim_run r;
    // The greeting happens before the container is looked at.
    EXPECT_EQ(r.run("missing.img") & 0xFF, ERR_OPEN_SIMG);
    EXPECT_GE(r.t->wire().of_kind("sahara-rx").size(), 1u);

    container_bytes("noboard.img", {{"index.xml", "<board id=\"7\" name=\"other\"/>"}});
    EXPECT_EQ(r.run("noboard.img") & 0xFF, ERR_LOAD_PACKAGE);
    EXPECT_TRUE(r.count("] Failed identify board. Wrong package?\n"));
    EXPECT_TRUE(r.count("] ERROR: error loading package\n"));

    container_bytes("noprog.img", {{"index.xml", INDEX}, {"package.xml", PACKAGE}});
    EXPECT_EQ(r.run("noprog.img") & 0xFF, ERR_LOAD_PROGRAMMER);
}

TEST(SessionFlash, EmmcRecipeWithImagesPatchAndBootableDrive)
{
    sim_run r;
    std::string boot = pattern(3000, 1), system = pattern(5000, 2);
    r.flash({{"boot.img", boot},
             {"system.img", system},
             {"emmc.xml", "<?xml version=\"1.0\"?>\n<recipe>\n"
                          "  <configure SkipStorageInit=\"0\"/>\n"
                          "  <program SECTOR_SIZE_IN_BYTES=\"512\" label=\"boot\" filename=\"boot.img\"\n"
                          "           physical_partition_number=\"0\" start_sector=\"2048\"/>\n"
                          "  <program SECTOR_SIZE_IN_BYTES=\"512\" label=\"system\" filename=\"system.img\" "
                          "physical_partition_number=\"0\" start_sector=\"4096\"/>\n"
                          "  <program SECTOR_SIZE_IN_BYTES=\"512\" label=\"vendor\" filename=\"vendor.img\" "
                          "physical_partition_number=\"0\" start_sector=\"8192\"/>\n"
                          "  <patch SECTOR_SIZE_IN_BYTES=\"512\" filename=\"DISK\" physical_partition_number=\"0\" "
                          "start_sector=\"10\" byte_offset=\"4\" size_in_bytes=\"4\" value=\"0x11223344\" "
                          "what=\"marker\"/>\n"
                          "  <patch filename=\"gpt_main0.bin\" what=\"file patch\"/>\n"
                          "  <setbootablestoragedrive value=\"1\"/>\n</recipe>\n"}});
    ASSERT_EQ(r.code, 0) << r.text;
    EXPECT_EQ(r.lun(0, 2048 * 512, 3072), boot + std::string(72, '\0'));
    EXPECT_EQ(r.lun(0, 4096 * 512, 5120), system + std::string(120, '\0'));
    EXPECT_EQ(r.lun(0, 10 * 512 + 4, 4), std::string("\x44\x33\x22\x11", 4));
    EXPECT_NE(r.text.find("Patching DISK -- marker\n"), std::string::npos);
    auto cmds = r.commands();
    auto has = [&](const std::string &doc) { return std::find(cmds.begin(), cmds.end(), doc) != cmds.end(); };
    EXPECT_TRUE(has("<?xml version=\"1.0\"?><data><configure SkipStorageInit=\"0\" Verbose=\"0\" ZlpAwareHost=\"1\" "
                    "MemoryName=\"eMMC\" MaxPayloadSizeToTargetInBytes=\"1048576\"/></data>"));
    EXPECT_TRUE(has("<?xml version=\"1.0\"?><data><setbootablestoragedrive value=\"1\"/></data>"));
    for (auto &c : cmds)
        EXPECT_EQ(c.find("vendor.img"), std::string::npos);
    EXPECT_EQ(cmds.back(), "<?xml version=\"1.0\"?><data><power value=\"reset_to_fastboot\"/></data>");
}

TEST(SessionFlash, UfsLunWithFourKiBSectors)
{
    sim_run r;
    r.o.storage = ravik_sim::storage_kind::ufs;
    std::string image = pattern(10000, 3);
    r.flash({{"img", image},
             {"emmc.xml", "<print what=\"wrong road\"/>"},
             {"ufs.xml", "<configure SkipStorageInit=\"0\"/><program SECTOR_SIZE_IN_BYTES=\"4096\" label=\"l\" "
                         "filename=\"img\" physical_partition_number=\"2\" start_sector=\"16\"/>"}});
    ASSERT_EQ(r.code, 0) << r.text;
    EXPECT_EQ(r.text.find("wrong road"), std::string::npos);
    EXPECT_NE(r.text.find("...UFS\n"), std::string::npos);
    EXPECT_EQ(r.lun(2, 16 * 4096, 12288), image + std::string(2288, '\0'));
    EXPECT_EQ(r.lun(0, 16 * 4096, 4096), std::string(4096, '\0'));
}

TEST(SessionFlash, OneByteAnswersAndASixtyFourKiBPayload)
{
    sim_run r;
    r.o.fault.split = 1;
    r.o.fault.split_pause_us = 0;
    r.o.max_payload = 0x10000;
    std::string image = pattern(200000, 4);
    r.flash({{"boot.img", image},
             {"emmc.xml", "<configure SkipStorageInit=\"0\"/><program SECTOR_SIZE_IN_BYTES=\"512\" label=\"boot\" "
                          "filename=\"boot.img\" physical_partition_number=\"0\" start_sector=\"64\"/>"}},
            DEVICE_FLAG_DEBUG);
    ASSERT_EQ(r.code, 0) << r.text.substr(r.text.size() > 4000 ? r.text.size() - 4000 : 0);
    EXPECT_EQ(r.lun(0, 64 * 512, image.size()), image);
    int configures = 0;
    for (auto &c : r.commands())
        configures += c.find("<configure ") != std::string::npos;
    EXPECT_EQ(configures, 2);
    // Every raw chunk within the settled size.
    std::vector<int> chunks;
    for (size_t at = r.text.find("H->D: "); at != std::string::npos; at = r.text.find("H->D: ", at + 1)) {
        int n = 0;
        if (sscanf(r.text.c_str() + at, "H->D: %d bytes\n", &n) == 1)
            chunks.push_back(n);
    }
    EXPECT_EQ(chunks, (std::vector<int>{65536, 65536, 65536, 3584})); // 200000 bytes padded to 200192
}

TEST(SessionFlash, UploadServesScrambledThirtyTwoBitRanges)
{
    sim_run r;
    r.o.read64 = 0;
    r.o.scramble_ranges = true;
    r.o.sahara_chunk = 1000;
    r.flash({{"emmc.xml", "<print what=\"up\"/>"}});
    ASSERT_EQ(r.code, 0) << r.text;
    auto reads = r.t->wire().of_kind("read-data");
    int header_reads = 0;
    for (auto &e : reads)
        header_reads += e.text == "offset=0x0";
    EXPECT_EQ(header_reads, 2);
    ASSERT_FALSE(r.t->wire().of_kind("image").empty());
    EXPECT_EQ(r.t->wire().of_kind("image")[0].text, "verified");
}

#endif
