// Whole sessions against the simulated target on a real pty: identify,
// choose the package, upload the programmer, run the recipes, reboot.
#include <gtest/gtest.h>

#ifdef RAVIK_HAVE_SIM

#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "container/container.h"
#include "ravik.h"
#include "sim.h"
#include "support/helpers.h"

using namespace ravik;
using namespace ravik::test;

namespace {

std::string bytes_of(const std::vector<uint8_t> &v) { return std::string(v.begin(), v.end()); }

std::string pattern(size_t n, int seed)
{
    std::string s(n, '\0');
    for (size_t i = 0; i < n; i++)
        s[i] = (char)(i * 31 + seed);
    return s;
}

void make_container(const std::string &path, const std::map<std::string, std::string> &entries)
{
    simg *w = simg_open(path.c_str(), SIMG_CREATE);
    ASSERT_NE(w, nullptr);
    for (auto &[name, data] : entries)
        ASSERT_NE(simg_store(w, data.data(), data.size(), name.c_str()), nullptr);
    simg_close(w);
}

std::string read_lun(const ravik_sim::target &t, unsigned lun, uint64_t offset, size_t n)
{
    std::ifstream f(t.lun_path(lun), std::ios::binary);
    f.seekg((std::streamoff)offset);
    std::string s(n, '\0');
    f.read(s.data(), (std::streamsize)n);
    return s;
}

const char *INDEX = "<?xml version=\"1.0\"?>\n<index>\n"
                    "  <board id=\"0x0BEE\" name=\"simboard\"/>\n"
                    "  <package compatible=\"protocol:fastboot\" filename=\"wrong.xml\"/>\n"
                    "  <package compatible=\"protocol:ravik cpu.name:simboard\" filename=\"package.xml\"/>\n"
                    "</index>\n";
const char *PACKAGE = "<package>\n  <programmer filename=\"programmer.elf\"/>\n"
                      "  <recipe filename=\"emmc.xml\" compatible=\"storage.type:eMMC\"/>\n"
                      "  <recipe filename=\"ufs.xml\" compatible=\"storage.type:UFS\"/>\n</package>\n";
} // namespace

TEST(SessionFlash, ProgramsBySectorOntoTheSimulatedTarget)
{
    temp_cwd cwd;
    ravik_sim::options o;
    o.link = cwd.path() + "/target";
    o.storage_dir = cwd.path() + "/storage";
    ravik_sim::target t(o);
    t.start();

    std::string boot = pattern(3000, 5);
    make_container("demo.img", {{"index.xml", INDEX},
                                {"package.xml", PACKAGE},
                                {"programmer.elf", bytes_of(ravik_sim::demo_programmer())},
                                {"boot.img", boot},
                                {"emmc.xml", "<recipe>\n<configure SkipStorageInit=\"0\"/>\n"
                                             "<program SECTOR_SIZE_IN_BYTES=\"512\" label=\"boot\" filename=\"boot.img\" "
                                             "physical_partition_number=\"0\" start_sector=\"2048\"/>\n"
                                             "<print what=\"done\"/>\n</recipe>\n"},
                                {"ufs.xml", "<print what=\"never\"/>"}});
    event_log log;
    int32_t code = 0;
    on_fresh_thread([&] { code = rk_flash_singleimage(o.link.c_str(), "demo.img", 0, record_events, &log); });
    std::string all;
    for (auto &l : log.lines)
        all += l;
    ASSERT_EQ(code, 0) << all;
    EXPECT_NE(all.find("...cpu.id  = 3054 (0xbee)\n"), std::string::npos) << all;
    EXPECT_NE(all.find("...filename = package.xml\n"), std::string::npos);
    EXPECT_NE(all.find("] done\n"), std::string::npos);
    EXPECT_EQ(all.find("never"), std::string::npos);
    EXPECT_EQ(read_lun(t, 0, 2048 * 512, 3072), boot + std::string(72, '\0'));
    auto images = t.wire().of_kind("image");
    ASSERT_FALSE(images.empty());
    EXPECT_EQ(images[0].text, "verified");
    auto cmds = t.wire().commands();
    ASSERT_FALSE(cmds.empty());
    EXPECT_NE(cmds.back().find("power value=\"reset_to_fastboot\""), std::string::npos);
}

TEST(SessionFlash, ParallelSessionsOnTwoTargets)
{
    temp_cwd cwd;
    ravik_sim::options oa, ob;
    oa.link = cwd.path() + "/a";
    oa.storage_dir = cwd.path() + "/sa";
    ob.link = cwd.path() + "/b";
    ob.storage_dir = cwd.path() + "/sb";
    ob.id.serial = 0x55AA55AA;
    ravik_sim::target a(oa), b(ob);
    a.start();
    b.start();
    std::string boot = pattern(4096, 9);
    make_container("demo.img", {{"index.xml", INDEX},
                                {"package.xml", PACKAGE},
                                {"programmer.elf", bytes_of(ravik_sim::demo_programmer())},
                                {"boot.img", boot},
                                {"emmc.xml", "<configure SkipStorageInit=\"0\"/><program SECTOR_SIZE_IN_BYTES=\"512\" "
                                             "label=\"boot\" filename=\"boot.img\" "
                                             "physical_partition_number=\"0\" start_sector=\"100\"/>"}});
    event_log log_a, log_b;
    int32_t code_a = -1, code_b = -1;
    std::thread ta([&] {
        code_a = rk_flash_singleimage(oa.link.c_str(), "demo.img", DEVICE_FLAG_DEBUG, record_events, &log_a);
    });
    std::thread tb([&] { code_b = rk_flash_singleimage(ob.link.c_str(), "demo.img", 0, record_events, &log_b); });
    ta.join();
    tb.join();
    EXPECT_EQ(code_a, 0);
    EXPECT_EQ(code_b, 0);
    EXPECT_EQ(read_lun(a, 0, 100 * 512, 4096), boot);
    EXPECT_EQ(read_lun(b, 0, 100 * 512, 4096), boot);
    // Each session logged only its own target, at its own level.
    std::string all_a, all_b;
    for (auto &l : log_a.lines)
        all_a += l;
    for (auto &l : log_b.lines)
        all_b += l;
    EXPECT_NE(all_a.find("(0x1a2b3c4d)"), std::string::npos);
    EXPECT_EQ(all_a.find("(0x55aa55aa)"), std::string::npos);
    EXPECT_NE(all_b.find("(0x55aa55aa)"), std::string::npos);
    EXPECT_NE(all_a.find("H->D: "), std::string::npos);
    EXPECT_EQ(all_b.find("H->D: "), std::string::npos);
    EXPECT_EQ(log_a.free_names, (std::vector<std::string>{oa.link}));
    EXPECT_EQ(log_b.free_names, (std::vector<std::string>{ob.link}));
}

TEST(SessionFlash, FailuresOfEachStageGiveTheirCodes)
{
    temp_cwd cwd;
    ravik_sim::options o;
    o.link = cwd.path() + "/target";
    o.storage_dir = cwd.path() + "/storage";
    ravik_sim::target t(o);
    t.start();
    auto flash = [&](const char *image) {
        int32_t code = 0;
        on_fresh_thread([&] { code = rk_flash_singleimage(o.link.c_str(), image, 0, nullptr, nullptr); });
        return code;
    };
    // The greeting happens before the container is looked at.
    int32_t code = flash("missing.img");
    EXPECT_EQ(code & 0xFF, ERR_OPEN_SIMG);
    EXPECT_GE(t.wire().of_kind("sahara-rx").size(), 1u);

    make_container("noboard.img", {{"index.xml", "<board id=\"7\" name=\"other\"/>"}});
    EXPECT_EQ(flash("noboard.img") & 0xFF, ERR_LOAD_PACKAGE);

    make_container("noprog.img", {{"index.xml", INDEX}, {"package.xml", PACKAGE}});
    EXPECT_EQ(flash("noprog.img") & 0xFF, ERR_LOAD_PROGRAMMER);
}

#endif
