// Whole sessions against the simulated target, one road each, checked where it
// shows: the storage byte for byte, the log, the codes, the wire, the files left.
// Each road is a test of its own, so they run side by side.
#include <gtest/gtest.h>

#ifdef RAVIK_HAVE_SIM

#include <regex>

#include "backup/backup_files.h"
#include "support/sim_session.h"

using namespace ravik;
using namespace ravik::test;

namespace {

using opts = ravik_sim::options;
using strings = std::vector<std::string>;

// The commands from the first that contains `from`, by their text inside the
// envelope; uploads as "<upload>".
strings wire_from(const ravik_sim::target &t, const std::string &from)
{
    const size_t head = std::string("<?xml version=\"1.0\"?><data><").size();
    strings out;
    for (auto &e : t.wire().events())
        if (e.kind == "command" && (!out.empty() || e.text.find(from) != std::string::npos))
            out.push_back(e.text.substr(head, e.text.rfind("/></data>") - head));
        else if (e.kind == "image" && !out.empty())
            out.push_back("<upload>");
    return out;
}

size_t commands_with(const ravik_sim::target &t, const std::string &text)
{
    auto cmds = t.wire().commands();
    return std::count_if(cmds.begin(), cmds.end(), [&](auto &c) { return c.find(text) != std::string::npos; });
}

template <typename road> struct roads : testing::TestWithParam<road> {};
const auto named = [](const auto &info) { return std::string(info.param.what); };

// A refused payload offer is made again.
struct sector_road { const char *what; void (*target)(opts &); size_t boot_size, configures; };
const sector_road BY_SECTOR[] = {
    {"eMMC", [](opts &) {}, 3000, 1},
    {"UFS", [](opts &o) { o.storage = ravik_sim::storage_kind::ufs; }, 10000, 1},
    {"OneByteAnswers64KiBPayload", [](opts &o) { o.fault.split = 1, o.fault.split_pause_us = 0, o.max_payload = 1 << 16; },
     200000, 2},
    {"Scrambled32BitUpload", [](opts &o) { o.read64 = 0, o.scramble_ranges = true, o.sahara_chunk = 1000; }, 3000, 1},
};

} // namespace

// Images by sector: board and package chosen, programmer uploaded, the recipe of the
// storage type run with patch and bootable drive; before that, each stage failing.
using RoadsBySector = roads<sector_road>;
INSTANTIATE_TEST_SUITE_P(Each, RoadsBySector, testing::ValuesIn(BY_SECTOR), named);
TEST_P(RoadsBySector, WithPatchAndBootableDrive)
{
    const sector_road &r = GetParam();
    sim_session s(false);
    r.target(s.o);
    const uint32_t ss = s.start().sector_size();
    const unsigned lun = ss == 4096 ? 2 : 0;
    const std::string mem = lun ? "UFS" : "eMMC", other = lun ? "eMMC" : "UFS";
    const std::string package = "<package><programmer filename=\"programmer.elf\"/><recipe filename=\"eMMC.xml\" "
                                "compatible=\"storage.type:eMMC\"/><recipe filename=\"UFS.xml\" "
                                "compatible=\"storage.type:UFS\"/></package>";
    // The greeting comes before the container is looked at.
    write_container("noboard.img", {{"index.xml", "<board id=\"7\" name=\"other\"/>"}});
    write_container("noprog.img", {{"index.xml", SIM_INDEX}, {"package.xml", package}});
    for (auto [image, code] : {std::pair{"missing.img", ERR_OPEN_SIMG}, {"noboard.img", ERR_LOAD_PACKAGE},
                               {"noprog.img", ERR_LOAD_PROGRAMMER}})
        EXPECT_EQ(s.run(image) & 0xFF, code) << image;
    EXPECT_GE(s.t->wire().of_kind("sahara-rx").size(), 3u);

    // system is a whole number of sectors: the sector after it stays.
    const std::string boot = pattern(r.boot_size, 1), system = pattern(8192, 2), mark(ss, '\x77');
    s.poke(lun, 512 * ss + 8192, mark);
    auto at = [&](int sector) {
        return " SECTOR_SIZE_IN_BYTES=\"" + std::to_string(ss) + "\" physical_partition_number=\"" +
               std::to_string(lun) + "\" start_sector=\"" + std::to_string(sector) + "\"";
    };
    ASSERT_EQ(s.flash({{"package.xml", package}, {"boot.img", boot}, {"system.img", system},
                       {other + ".xml", "<print what=\"wrong road\"/>"},
                       {mem + ".xml", "<configure SkipStorageInit=\"0\"/>\n<program label=\"boot\" filename=\"boot.img\"" +
                                          at(64) + "/>\n<program label=\"system\" filename=\"system.img\"" + at(512) +
                                          "/>\n<program label=\"vendor\" filename=\"vendor.img\"" + at(768) +
                                          "/>\n<patch filename=\"DISK\"" + at(10) + " byte_offset=\"4\" size_in_bytes="
                                          "\"4\" value=\"0x11223344\" what=\"marker\"/>\n<patch filename=\"gpt_main0."
                                          "bin\" what=\"file patch\"/>\n<setbootablestoragedrive value=\"1\"/>\n"
                                          "<print what=\"done\"/>\n"}},
                      ""), 0) << s.text;
    const size_t boot_span = (boot.size() + ss - 1) / ss * ss;
    EXPECT_TRUE(s.lun(lun, 64 * ss, boot_span) == padded(boot, boot_span));
    EXPECT_TRUE(s.lun(lun, 512 * ss, 8192 + ss) == system + mark);
    EXPECT_EQ(s.lun(lun, 10 * ss + 4, 4), std::string("\x44\x33\x22\x11", 4));
    EXPECT_EQ(s.lun(0, 64 * ss, lun ? ss : 0), std::string(lun ? ss : 0, '\0')); // LUN 0 left alone
    for (const std::string &line : strings{"] done\n", "Patching DISK -- marker\n", "..." + mem + "\n",
                                           "..." + other + "\n", "wrong road\n"})
        EXPECT_EQ(s.count(line), line.find(other) == std::string::npos && line != "wrong road\n") << line;
    const auto images = s.t->wire().of_kind("image");
    ASSERT_EQ(images.size(), 1u);
    EXPECT_EQ(images[0].text, "verified");
    EXPECT_EQ(commands_with(*s.t, "<configure SkipStorageInit=\"0\" Verbose=\"0\" ZlpAwareHost=\"1\" MemoryName=\"" +
                                      mem + "\" MaxPayloadSizeToTargetInBytes=\"1048576\"/></data>"), 1u);
    EXPECT_EQ(commands_with(*s.t, "<configure "), r.configures);
    EXPECT_EQ(commands_with(*s.t, "vendor.img"), 0u);
    EXPECT_EQ(wire_from(*s.t, "setbootablestoragedrive"),
              (strings{"setbootablestoragedrive value=\"1\"", "power value=\"reset_to_fastboot\""}));
}

// By name on UFS: flash and wipe, a nested container that switches the input
// and puts it back, a partition table fitted to its LUN, and a reinit.
TEST(Roads, ByNameWithWipeTableReinitAndNestedContainer)
{
    sim_session s;
    s.start();
    const std::string lun0 = s.lun(0);
    const part_range system = s.part(0, "system"), blb = s.part(2, "bootloader_b"), spb = s.part(2, "spare_b");
    ASSERT_TRUE(system.size == 512u << 10 && blb.size == 256u << 10);
    // Old contents everywhere the recipe writes.
    s.poke(0, system.offset, std::string(system.size, '\xAA'));
    s.poke(2, blb.offset, std::string(blb.size, '\x55'));
    // The inner package's recipe carries a filter for another target and
    // runs all the same; its second recipe fails and ends the inner package.
    const std::string inner_image = pattern(6000, 7), image = pattern(10000, 1), fresh = pattern(5000, 2);
    write_container("inner.img",
                    {{"index.xml", "<package compatible=\"storage.type:eMMC\" filename=\"wrong.xml\"/>\n<package "
                                   "compatible=\"protocol:ravik\" filename=\"p.xml\"/>"},
                     {"p.xml", "<recipe filename=\"r.xml\" compatible=\"cpu.name:elsewhere\"/>\n<recipe filename="
                               "\"bad.xml\"/>\n<recipe filename=\"never.xml\"/>"},
                     {"r.xml", "<flash partition=\"spare_b\" filename=\"bl.img\"/>"}, {"bl.img", inner_image},
                     {"bad.xml", "<flash partition=\"nosuch\" filename=\"bl.img\"/>"},
                     {"never.xml", "<print what=\"inner goes on\"/>"}});
    // A table image for a LUN of any size: the last partition grows.
    const gpt_bytes table = make_gpt({{"fresh", 100, 163}, {"rest", 164, 200}}, 4096, 256, 2, 128, false);
    ASSERT_EQ(s.flash({{"inner.img", read_file("inner.img")}, {"system.img", image}, {"gpt1.img", table.image(4096)},
                       {"fresh.img", fresh},
                       {"run.xml", "<wipe partition=\"bootloader_b\"/>\n<flash partition=\"anything\" filename=\"inner."
                                   "img\"/>\n<flash partition=\"system\" filename=\"bl.img\"/>\n<flash partition=\"system"
                                   "\" filename=\"system.img\" verbose=\"true\"/>\n<print what=\"outer goes on\"/>\n<flash "
                                   "partition=\"partition:1\" filename=\"gpt1.img\"/>\n<storage operation=\"reinit\"/>\n"
                                   "<flash partition=\"fresh\" filename=\"fresh.img\"/>\n"}},
                      "ignore_errors=\"true\""), 0) << s.text;
    for (const char *line : {"partition nosuch not found!\n", "file bl.img not found in flash.img!\n",
                             "Flashing system with system.img\n", "outer goes on\n"})
        EXPECT_EQ(s.count(line), 1u) << line;
    EXPECT_EQ(s.text.find("inner goes on"), std::string::npos);
    // The image, then zeros to the partition's end; nothing beyond it.
    EXPECT_TRUE(s.lun(0) == lun0.substr(0, system.offset) + padded(image, system.size) +
                                lun0.substr(system.offset + system.size));
    EXPECT_TRUE(s.lun(2, blb.offset, blb.size) == std::string(blb.size, '\0'));
    EXPECT_TRUE(s.lun(2, spb.offset, spb.size) == padded(inner_image, spb.size));
    // LUN 1 holds a sound table fitted to it, the backup at its last sector,
    // and fresh is named from it after the reinit.
    const std::string lun1 = s.lun(1);
    const uint64_t sectors = lun1.size() / 4096;
    EXPECT_EQ(check_gpt(lun1, 4096), "");
    EXPECT_EQ(le(lun1, 4096 + 48, 8), sectors - 6);
    const part_range rest = find_part(lun1, 4096, "rest"), got = find_part(lun1, 4096, "fresh");
    EXPECT_EQ(rest.offset + rest.size, (sectors - 5) * 4096);
    ASSERT_EQ(got.offset, 100u * 4096);
    EXPECT_TRUE(lun1.substr(got.offset, got.size) == padded(fresh, got.size));
    EXPECT_EQ(find_part(lun1, 4096, "bootloader_a").size, 0u);
    // Discovery ran twice: one getStorageInfo per LUN each time.
    EXPECT_EQ(commands_with(*s.t, "<getStorageInfo "), 6u);
}

// UFS provisioning: a commit that reboots and goes on, one that may hang and
// is retried on a fresh programmer, and a secure target left alone. The wire
// from its first command on holds every reset and upload.
namespace {
struct ufs_road { const char *what; void (*target)(opts &); const char *recipe, *attrs; uint32_t flags;
                  std::map<std::string, size_t> lines; strings wire; };
const ufs_road UFS_ROADS[] = {
    {"Commit", [](opts &) {},
     "<ufs bNumberLU=\"3\" bConfigDescrLock=\"0\"/>\n<ufs LUNum=\"0\" bLUEnable=\"1\"/>\n<ufs commit=\"1\"/>\n<print what="
     "\"after commit\"/>\n<ufs bNumberLU=\"3\" bConfigDescrLock=\"0\"/>\n<ufs LUNum=\"0\" bLUEnable=\"1\"/>\n<ufs commit=\"0x1\"/>\n",
     "", DEVICE_FLAG_UFS_LOCK,
     // The same settings again: the target says so, and nothing reboots.
     {{"Provisioning UFS (will lock!)\n", 2}, {"Rebooting for provisioning to take effect\n", 1}, {"after commit\n", 1},
      {"Downloading programmer\n", 1}, {"SKIPPED (already provisioned with identical settings)\n", 1}},
     {"ufs commit=\"1\"", "power value=\"reset\"", "<upload>", "nop value=\"Hello\"", "ufs bNumberLU=\"3\" "
      "bConfigDescrLock=\"1\"", "ufs LUNum=\"0\" bLUEnable=\"1\"", "ufs commit=\"0x1\"", "power value=\"reset_to_fastboot\""}},
    // The running programmer never sees a commit after a failed command.
    {"Retry", [](opts &o) { o.fault.tags = {{"getStorageInfo", ravik_sim::tag_fault::kind::nak, 1}}; },
     "<wipe partition=\"persist\"/>\n<ufs bNumberLU=\"3\"/>\n<ufs LUNum=\"0\"/>\n<ufs LUNum=\"1\"/>\n<ufs commit=\"1\"/>\n"
     "<print what=\"after commit\"/>\n", "ignore_errors=\"true\"", 0,
     {{"Forcing failure as provisioning may hang\n", 0}, // a debug line
      {"Provisioning failed, power cycling to try again\n", 1}, {"after commit\n", 1}},
     {"ufs LUNum=\"1\"", "power value=\"reset\"", "<upload>", "nop value=\"Hello\"", "configure SkipStorageInit=\"1\" "
      "Verbose=\"0\" ZlpAwareHost=\"1\" MemoryName=\"UFS\" MaxPayloadSizeToTargetInBytes=\"1048576\"", "ufs bNumberLU=\"3\"",
      "ufs LUNum=\"0\"", "ufs LUNum=\"1\"", "ufs commit=\"1\"", "power value=\"reset\"", "<upload>", "nop value=\"Hello\"",
      "power value=\"reset_to_fastboot\""}},
    // Its note is told once a process, so perhaps by another test.
    {"Secure", [](opts &o) { o.id.secure = true; }, "<ufs bNumberLU=\"3\"/>\n<ufs commit=\"1\"/>\n<ufs commit=\"1\"/>\n", "", 0,
     {}, {"getvar value=\"secure\"", "power value=\"reset_to_fastboot\""}},
};
} // namespace

using RoadsUfs = roads<ufs_road>;
INSTANTIATE_TEST_SUITE_P(Each, RoadsUfs, testing::ValuesIn(UFS_ROADS), named);
TEST_P(RoadsUfs, Provisioning)
{
    const ufs_road &r = GetParam();
    sim_session s;
    r.target(s.o);
    ASSERT_EQ(s.flash({{"run.xml", r.recipe}}, r.attrs, r.flags), 0) << s.text;
    for (auto &[line, n] : r.lines)
        EXPECT_EQ(s.count(line), n) << line;
    EXPECT_EQ(wire_from(*s.t, r.wire[0]), r.wire);
    EXPECT_EQ(s.t->wire().of_kind("reset").size(), (size_t)std::count(r.wire.begin(), r.wire.end(), "power value=\"reset\""));
    EXPECT_EQ(s.t->wire().of_kind("image").size(), 1 + (size_t)std::count(r.wire.begin(), r.wire.end(), "<upload>"));
}

// Backup and restore. On the main road persist is marked and the bootloaders named;
// bootloader_a is flashed by name, persist scrubbed by sector, bootloader_b wiped.
// A clean run leaves no file nor log unless the file is kept: then a flashable
// image that writes every saved partition back. In trouble the session still
// returns 0, but the file keeps what was saved, the log is written and names it,
// with its line of the dump.
namespace {
struct backup_road { const char *what, *layout; uint64_t lun_bytes; bool failing_writeback; std::string recipe; uint32_t flags;
                     std::map<std::string, size_t> lines; strings entries; const char *dump_line; };
const std::string MAIN = "<backup name=\"bootloader_b\"/>\n<backup name=\"bootloader_a\" commit=\"1\"/>\n<flash partition="
                         "\"bootloader_a\" filename=\"bl.img\"/>\n<program label=\"scrub\" filename=\"zeros.img\" "
                         "SECTOR_SIZE_IN_BYTES=\"4096\" physical_partition_number=\"0\" start_sector=\"$P\"/>\n<wipe "
                         "partition=\"bootloader_b\"/>\n<restore why=\"flash\"/>\n";
const std::map<std::string, size_t> MAIN_LINES = {{"Backing up bootloader_b\n", 1}, {"Backing up bootloader_a\n", 1},
                                                  {"Backing up persist\n", 1}, {"Restoring persist\n", 1}};
const backup_road BACKUP_ROADS[] = {
    {"Clean", nullptr, 0, false, MAIN, DEVICE_FLAG_SAVE_LOG, MAIN_LINES, {}, nullptr},
    {"Kept", nullptr, 0, false, MAIN, DEVICE_FLAG_SAVE_LOG | DEVICE_FLAG_KEEP_BACKUP, MAIN_LINES, {"programmer.elf",
     "bootloader_b.img", "bootloader_a.img", "persist.img", "index.xml", "package.xml", "flashall.xml"}, nullptr},
    // On a sparse LUN of 3 GiB alone.
    {"OutOfRange", "0 persist 64K bnr\n0 huge 2G bnr\n0 rest *\n", 3ull << 30, false, "<backup commit=\"1\"/>\n<restore why=\"x\"/>\n",
     0, {{"Backing up huge\n", 1}, {"...partition size out of range!\n", 1}, {"...no backup, skipping!\n", 1}},
     {"programmer.elf", "persist.img"}, "  backup_error = \"do_backup()->bnr_backup()->out of room or range\",\n"},
    // Only pieces written beside a dump are written back early,
    // those of big lie past 1 MiB in the file, the programmer's and persist's before.
    {"WriteBesideTheDumpFailing", "0 persist 64K bnr\n0 big 4M bnr\n0 rest *\n", 16 << 20, true, "<backup commit=\"1\"/>\n<restore why=\"x\"/>\n", 0,
     {{"Backing up big\n", 1}, {"...failed to read partition!\n", 0}, {"...failed to save partition!\n", 1}},
     {"programmer.elf", "persist.img"},
     "  backup_error = \"do_backup()->bnr_backup()->simg_stage_end()->finish_stage()->IO error\",\n"},
    {"NoRestore", nullptr, 0, false, "<backup commit=\"1\"/>\n<print what=\"no restore\"/>\n", 0, {},
     {"programmer.elf", "persist.img", "index.xml", "package.xml", "flashall.xml"}, "  restore_error = \"not started\",\n"},
    // A new table for LUN 1 in which bootloader_a is a quarter of its size.
    {"TooSmallToRestore", nullptr, 0, false, "<backup name=\"bootloader_a\" commit=\"1\"/>\n<flash partition=\"partition:1\" filename="
     "\"gpt1.img\"/>\n<storage operation=\"reinit\"/>\n<restore why=\"x\"/>\n", 0,
     {{"Restoring persist\n", 1}, {"...partition too small, skipping\n", 1}},
     {"programmer.elf", "bootloader_a.img", "persist.img", "index.xml", "package.xml", "flashall.xml"},
     "Backup & Restore {\n"},
};
} // namespace

using RoadsBackup = roads<backup_road>;
INSTANTIATE_TEST_SUITE_P(Each, RoadsBackup, testing::ValuesIn(BACKUP_ROADS), named);
TEST_P(RoadsBackup, AndRestore)
{
    const backup_road &r = GetParam();
    sim_session s;
    if (r.layout)
        s.o.luns = r.lun_bytes >> 30 ? 1 : 3, s.o.lun_bytes = r.lun_bytes, s.o.layout = r.layout;
    s.start();
    // The old contents of each partition, which a kept file holds.
    std::map<std::string, std::pair<unsigned, part_range>> at;
    std::map<std::string, std::string> old = {{"programmer.elf", read_file(RAVIK_SIM_DEMO_ELF)}};
    for (unsigned lun = 0; lun < s.t->luns(); lun++)
        for (const std::string name : {"persist", "bootloader_a", "bootloader_b"})
            if (part_range p = s.part(lun, name); p.size)
                at[name] = {lun, p}, s.poke(lun, p.offset, old[name + ".img"] = pattern(p.size, lun + 11));
    if (r.failing_writeback)
        simg_io().writeback = [](int, uint64_t at, uint64_t n) { return at + n > (1u << 20) ? -1 : 0; };
    const part_range persist = at["persist"].second, bla = at["bootloader_a"].second, blb = at["bootloader_b"].second;
    const std::string image = pattern(10000, 14);
    const gpt_bytes small_bla = make_gpt({{"bootloader_a", 16, 31}, {"rest", 32, 100}}, 4096, 128, 2, 128, false);
    s.flash({{"gpt1.img", small_bla.image(4096)}, {"bl.img", image}, {"zeros.img", std::string(persist.size, '\0')},
             {"run.xml", std::regex_replace(r.recipe, std::regex("\\$P"), std::to_string(persist.offset / 4096))}},
            "ignore_errors=\"true\"", DEVICE_FLAG_BNR | r.flags);
    simg_io_reset();
    ASSERT_EQ(s.code, 0) << s.text;
    for (auto &[line, n] : r.lines)
        EXPECT_EQ(s.count(line), n) << line;
    const auto files = backup_files("backup_0x1A2B3C4D_");
    ASSERT_EQ(files.size(), r.entries.empty() ? 0u : 1u);
    const std::string file = files.empty() ? "" : files[0];
    EXPECT_EQ(entry_names(file), r.entries);
    for (auto &name : r.entries)
        EXPECT_TRUE(!old.count(name) || entry_data(file, name) == old[name]) << name;
    EXPECT_EQ(s.count("There were some hiccups in backup and restore.\n"), r.dump_line ? 1u : 0u);
    EXPECT_EQ(file_exists("ravik_log.txt"), r.dump_line != nullptr);
    if (r.dump_line) {
        const std::string named = "  2) ./" + file + "\n";
        EXPECT_EQ(s.count(named), 1u) << s.text;
        for (const std::string &line : strings{named, "Backup & Restore {\n", r.dump_line})
            EXPECT_NE(read_file("ravik_log.txt").find(line), std::string::npos) << line;
        return;
    }
    EXPECT_EQ(s.text.find("Restoring bootloader_"), std::string::npos);
    EXPECT_TRUE(s.lun(0, persist.offset, persist.size) == old["persist.img"]);
    EXPECT_TRUE(s.lun(1, bla.offset, bla.size) == padded(image, bla.size));
    // Wiped by name after the backup: its copy is not written back.
    EXPECT_TRUE(s.lun(2, blb.offset, blb.size) == std::string(blb.size, '\0'));
    if (file.empty())
        return;
    // Flashed on its own later, it writes every saved partition back.
    s.poke(0, persist.offset, std::string(persist.size, '\x5A'));
    s.poke(1, bla.offset, std::string(bla.size, '\x5A'));
    ASSERT_TRUE(s.t->wire().wait_kind("power-on", 2, 5000));
    ASSERT_EQ(s.run(file), 0) << s.text;
    EXPECT_EQ(s.count("Flashing persist with persist.img\n"), 1u);
    for (auto &[name, where] : at)
        EXPECT_TRUE(s.lun(where.first, where.second.offset, where.second.size) == old[name + ".img"]) << name;
    EXPECT_EQ(backup_files("backup_0x1A2B3C4D_"), files);
}

#endif
