// ravik flash, run as built against simulated targets: several at once,
// a failing one among them, what it says when a device cannot be opened,
// and its exit statuses.
#include <gtest/gtest.h>

#if defined(RAVIK_CLI_PATH) && defined(RAVIK_HAVE_SIM)

#include <filesystem>
#include <fstream>
#include <grp.h>
#include <map>
#include <sstream>
#include <sys/file.h>
#include <sys/stat.h>

#include "container/container.h"
#include "container/simg_support.h"
#include "firehose/scripted_target.h"
#include "ravik.h"
#include "sim.h"
#include "support/helpers.h"
#include "tools/cli.h"

using namespace ravik;
using namespace ravik::test;
namespace fs = std::filesystem;

namespace {

cli_result ravik_flash(std::vector<std::string> args, cli_opts o = {})
{
    args.insert(args.begin(), "flash");
    return run_cli(args, o);
}

std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> v;
    std::istringstream in(text);
    for (std::string l; std::getline(in, l);)
        v.push_back(l);
    return v;
}

bool starts(const std::string &s, const std::string &p) { return s.rfind(p, 0) == 0; }

const std::string IMAGE_DATA = pattern(5000, 3);

// A container for eMMC targets of chip 0x0BEE: one image by sector.
void make_container(const std::string &path)
{
    auto programmer = ravik_sim::demo_programmer();
    write_container(path, {
        {"index.xml", "<index><board id=\"0x0BEE\" name=\"station\"/>"
                      "<package compatible=\"protocol:ravik cpu.name:station\" filename=\"package.xml\"/></index>"},
        {"package.xml", "<package><programmer filename=\"programmer.elf\"/><recipe filename=\"emmc.xml\"/></package>"},
        {"emmc.xml", "<recipe><configure SkipStorageInit=\"0\"/><program SECTOR_SIZE_IN_BYTES=\"512\" label=\"boot\" "
                     "filename=\"boot.img\" physical_partition_number=\"0\" start_sector=\"2048\"/></recipe>"},
        {"boot.img", IMAGE_DATA},
        {"programmer.elf", std::string(programmer.begin(), programmer.end())}});
}

// Simulated eMMC targets, each on its own link in the test's directory.
struct station {
    std::vector<std::unique_ptr<ravik_sim::target>> targets;
    std::vector<std::string> links;

    void add(const std::string &name, uint32_t chip_id = 0x0BEE)
    {
        ravik_sim::options o;
        o.link = fs::absolute(name).string();
        o.storage_dir = fs::absolute(name + ".storage").string();
        o.id.serial = 0x1000 + (uint32_t)targets.size();
        o.id.chip_id = chip_id;
        targets.push_back(std::make_unique<ravik_sim::target>(o));
        targets.back()->start();
        links.push_back(o.link);
    }
    std::string landed(size_t i) const
    {
        std::ifstream f(targets[i]->lun_path(0), std::ios::binary);
        f.seekg(2048 * 512);
        std::string s(IMAGE_DATA.size(), '\0');
        f.read(s.data(), (std::streamsize)s.size());
        return s;
    }
};

// --device for each link, then the container.
std::vector<std::string> device_args(const std::vector<std::string> &links)
{
    std::vector<std::string> v;
    for (auto &l : links) {
        v.push_back("--device");
        v.push_back(l);
    }
    v.push_back("station.img");
    return v;
}

// The table row of a device.
std::string row_of(const std::string &table, const std::string &device)
{
    for (auto &l : lines_of(table))
        if (starts(l, device + " "))
            return l;
    return "";
}

} // namespace

TEST(FlashCli, FourTargetsAtOnceInAboutTheTimeOfOne)
{
    temp_cwd cwd;
    make_container("station.img");
    station st;
    for (const char *n : {"single", "a", "b", "c", "d"})
        st.add(n);

    // One session alone, on a terminal: the status line names the stages
    // and is taken back with \r before every log line.
    cli_result one = ravik_flash({st.links[0], "station.img"}, {.tty = true});
    ASSERT_EQ(one.status, 0) << one.err;
    EXPECT_NE(one.err.find("\r\033[Kidentify "), std::string::npos) << one.err;
    EXPECT_NE(one.err.find("\r\033[Kbring-up "), std::string::npos);
    EXPECT_NE(one.err.find("\r\033[Kpartition boot "), std::string::npos);
    EXPECT_NE(one.err.find("\r\033[K[") , std::string::npos) << "log lines replace the status line";
    EXPECT_NE(one.err.find("Flashing partition boot with boot.img"), std::string::npos);
    EXPECT_TRUE(st.landed(0) == IMAGE_DATA);

    std::vector<std::string> four(st.links.begin() + 1, st.links.end());
    cli_result all = ravik_flash(device_args(four));
    ASSERT_EQ(all.status, 0) << all.err;
    for (size_t i = 1; i <= 4; i++)
        EXPECT_TRUE(st.landed(i) == IMAGE_DATA) << st.links[i];
    // Sessions ran side by side: four took well under four times one.
    EXPECT_LT(all.seconds, 2 * one.seconds) << "one " << one.seconds << "s, four " << all.seconds << "s";

    // Off a terminal: plain lines, each one its device's or the program's.
    EXPECT_EQ(all.err.find('\r'), std::string::npos);
    EXPECT_EQ(all.err.find('\033'), std::string::npos);
    for (auto &l : lines_of(all.err)) {
        bool owned = false;
        for (auto &d : four)
            owned |= starts(l, d + ": [");
        EXPECT_TRUE(owned) << l;
    }
    for (auto &d : four)
        EXPECT_NE(all.err.find(d + ": [") , std::string::npos) << d;

    auto table = lines_of(all.out);
    ASSERT_EQ(table.size(), 5u) << all.out;
    EXPECT_TRUE(starts(table[0], "DEVICE ")) << table[0];
    for (size_t i = 0; i < four.size(); i++) {
        EXPECT_TRUE(starts(table[i + 1], four[i] + " ")) << table[i + 1];
        EXPECT_NE(table[i + 1].find(" ok "), std::string::npos) << table[i + 1];
    }
}

TEST(FlashCli, OneFailingTargetDoesNotStopTheOthers)
{
    temp_cwd cwd;
    make_container("station.img");
    station st;
    st.add("a");
    st.add("stranger", 0x0DAD); // a board the container does not know
    st.add("c");
    st.add("d");
    std::vector<std::string> devices = st.links;
    devices.push_back(fs::absolute("unplugged").string());

    cli_result r = ravik_flash(device_args(devices));
    // The first failure in the order given names the status.
    EXPECT_EQ(r.status, ERR_LOAD_PACKAGE) << r.err;
    for (size_t i : {0u, 2u, 3u})
        EXPECT_TRUE(st.landed(i) == IMAGE_DATA) << st.links[i];
    EXPECT_FALSE(st.landed(1) == IMAGE_DATA);

    for (size_t i : {0u, 2u, 3u}) {
        std::string row = row_of(r.out, devices[i]);
        EXPECT_NE(row.find(" ok "), std::string::npos) << row;
        EXPECT_EQ(row.find("failed"), std::string::npos) << row;
    }
    std::string stranger = row_of(r.out, devices[1]);
    EXPECT_NE(stranger.find(" failed "), std::string::npos) << r.out;
    EXPECT_NE(stranger.find("error loading package"), std::string::npos) << stranger;
    std::string unplugged = row_of(r.out, devices[4]);
    EXPECT_NE(unplugged.find(" failed "), std::string::npos) << r.out;
    EXPECT_NE(unplugged.find("error opening device; no such device: " + devices[4]), std::string::npos)
        << unplugged;

    EXPECT_NE(r.err.find(devices[1] + ": [") , std::string::npos);
    EXPECT_NE(r.err.find("Failed identify board"), std::string::npos);
    EXPECT_NE(r.err.find("ravik: " + devices[1] + ": failed (9): "), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("ravik: " + devices[4] + ": failed (7): "), std::string::npos) << r.err;
}

TEST(FlashCli, OpenFailuresSayWhatToDo)
{
    temp_cwd cwd;
    const std::string dir = cwd.path();

    // Quiet: the failure and its reason, nothing else.
    cli_result r = ravik_flash({"-q", dir + "/ttyNONE", "x.img"});
    EXPECT_EQ(r.status, ERR_OPEN_DEVICE);
    EXPECT_EQ(lines_of(r.err),
              (std::vector<std::string>{
                  "ravik: failed (7): rk_flash_singleimage()->device_open()->error opening device",
                  "ravik: no such device: " + dir + "/ttyNONE; is the target connected and in emergency download mode?"}));
    EXPECT_EQ(r.out, "");

    // A link left behind by a port that went away.
    fs::create_symlink(dir + "/ttyGONE", "port-link");
    r = ravik_flash({"port-link", "x.img"});
    EXPECT_EQ(r.status, ERR_OPEN_DEVICE);
    EXPECT_NE(r.err.find("ravik: no such device: port-link points to " + dir + "/ttyGONE, which is gone"),
              std::string::npos)
        << r.err;
    EXPECT_NE(r.err.find("] Opening device: port-link\n"), std::string::npos) << "log lines come without -q";

    // Held by another process: this one.
    {
        write_file("held", "");
        int fd = open("held", O_RDWR);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(flock(fd, LOCK_EX), 0);
        r = ravik_flash({"-q", "held", "x.img"});
        close(fd);
        EXPECT_EQ(r.status, ERR_OPEN_DEVICE);
        EXPECT_NE(r.err.find("ravik: device busy: held is held by process " + std::to_string(getpid()) + " ("),
                  std::string::npos)
            << r.err;
    }

    // Permission denied, told with the group that may open it.
    ASSERT_EQ(chmod(dir.c_str(), 0755), 0);
    write_file("locked", "");
    const bool root = geteuid() == 0;
    ASSERT_EQ(chmod("locked", root ? 0660 : 0), 0);
    struct group *g = getgrgid(getegid());
    ASSERT_NE(g, nullptr);
    r = ravik_flash({"-q", "locked", "x.img"}, {.unprivileged = true});
    EXPECT_EQ(r.status, ERR_OPEN_DEVICE) << r.err;
    const std::string expect = "ravik: permission denied: locked has mode " +
                               std::string(root ? "rw-rw----" : "---------") + " and belongs to group " +
                               g->gr_name + "; ";
    EXPECT_NE(r.err.find(expect), std::string::npos) << r.err;
    if (root)
        EXPECT_NE(r.err.find(std::string("sudo usermod -aG ") + g->gr_name + " $USER"), std::string::npos) << r.err;
    else
        EXPECT_NE(r.err.find("only its owner"), std::string::npos) << r.err;
}

TEST(FlashCli, ArgumentsAndExitStatus)
{
    temp_cwd cwd;
    cli_result r = ravik_flash({"--help"});
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(starts(r.out, "usage: ravik flash [options] DEVICE IMAGE\n")) << r.out;
    for (const char *opt : {"--debug", "--hexdump", "--backup", "--keep-backup", "--save-log", "--ufs-lock",
                            "--force-backup", "--device", "-q", "-v"})
        EXPECT_NE(r.out.find(std::string("  ") + opt), std::string::npos) << opt;

    // Wrong arguments: one line, status 64, no session.
    for (const std::vector<std::string> &bad :
         {std::vector<std::string>{}, {"dev"}, {"a", "b", "c"}, {"--device", "a", "x", "y"}, {"--bogus", "a", "b"},
          {"a", "b", "--device"}, {"--device", "a", "--device", "b", "--device", "a", "x"}}) {
        r = ravik_flash(bad);
        EXPECT_EQ(r.status, 64) << r.err;
        EXPECT_EQ(lines_of(r.err).size(), 1u) << r.err;
        EXPECT_TRUE(starts(r.err, "ravik: flash: ")) << r.err;
        EXPECT_EQ(r.err.find("Opening device"), std::string::npos);
    }

    // A healthy target and a missing container: the status is the message
    // number of the failure, and --save-log leaves its log behind.
    station st;
    st.add("t");
    r = ravik_flash({"--save-log", "-v", st.links[0], "missing.img"});
    EXPECT_EQ(r.status, ERR_OPEN_SIMG) << r.err;
    EXPECT_NE(r.err.find("ravik: failed (8): rk_flash_singleimage()->"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("stage times: open "), std::string::npos) << r.err;
    EXPECT_NE(r.err.find(", identify "), std::string::npos) << r.err;
    EXPECT_NE(read_file("ravik_log.txt").find("Opening singleimage"), std::string::npos);

    // The top level knows the command.
    EXPECT_NE(run_cli({"--help"}).out.find("  flash "), std::string::npos);
}

#endif
