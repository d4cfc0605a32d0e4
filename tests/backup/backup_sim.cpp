// Backup and restore in whole sessions against the simulated UFS target: the
// marked and the named partitions, the flashable backup file, and every kind
// of trouble leaving the file and the log behind.
#include <gtest/gtest.h>

#ifdef RAVIK_HAVE_SIM

#include <filesystem>

#include "backup/backup_files.h"
#include "storage/sim_session.h"

using namespace ravik;
using namespace ravik::test;

namespace {

std::string entry_data(const std::string &path, const char *name)
{
    simg *h = simg_open(path.c_str(), 0);
    simg_entry *e = h ? simg_load(h, name) : nullptr;
    std::string s = e ? std::string(reinterpret_cast<char *>(e->data), e->size) : std::string("<missing>");
    simg_close(h);
    return s;
}

// The first bytes of a file, for LUNs too large to read whole.
std::string head_of(const std::string &path, size_t n)
{
    std::ifstream f(path, std::ios::binary);
    std::string out(n, '\0');
    f.read(out.data(), (std::streamsize)n);
    return out;
}

struct marked_run {
    sim_session s;
    part_range persist, bla, blb;
    std::string old_persist, old_bla, old_blb, image;

    // persist is marked in the GPT, bootloader_a and bootloader_b are named.
    // The flash writes bootloader_a by name, scrubs persist by sector under
    // another label, wipes bootloader_b by name, and restores.
    void run(uint32_t flags)
    {
        s.start();
        persist = find_part(s.lun(0), 4096, "persist");
        bla = find_part(s.lun(1), 4096, "bootloader_a");
        blb = find_part(s.lun(2), 4096, "bootloader_b");
        old_persist = pattern(persist.size, 11);
        old_bla = pattern(bla.size, 12);
        old_blb = pattern(blb.size, 13);
        s.poke(0, persist.offset, old_persist);
        s.poke(1, bla.offset, old_bla);
        s.poke(2, blb.offset, old_blb);
        image = pattern(10000, 14);
        std::string scrub = "<program label=\"scrub\" filename=\"zeros.img\" SECTOR_SIZE_IN_BYTES=\"4096\" "
                            "physical_partition_number=\"0\" start_sector=\"" +
                            std::to_string(persist.offset / 4096) + "\"/>\n";
        s.flash({{"bl.img", image},
                 {"zeros.img", std::string(persist.size, '\0')},
                 {"run.xml", "<backup name=\"bootloader_b\"/>\n"
                             "<backup name=\"bootloader_a\" commit=\"1\"/>\n"
                             "<flash partition=\"bootloader_a\" filename=\"bl.img\"/>\n" +
                                 scrub + "<wipe partition=\"bootloader_b\"/>\n<restore why=\"after the flash\"/>\n"}},
                "", flags);
    }
};

} // namespace

TEST(BackupSim, MarkedPartitionComesBackFlashedOneKeepsItsImage)
{
    marked_run r;
    r.run(DEVICE_FLAG_BNR | DEVICE_FLAG_SAVE_LOG);
    sim_session &s = r.s;
    ASSERT_EQ(s.code, 0) << s.text;
    EXPECT_TRUE(s.lun(0).substr(r.persist.offset, r.persist.size) == r.old_persist);
    EXPECT_TRUE(s.lun(1).substr(r.bla.offset, r.bla.size) == r.image + std::string(r.bla.size - r.image.size(), '\0'));
    // Wiped by name after the backup: its copy is not written back.
    EXPECT_TRUE(s.lun(2).substr(r.blb.offset, r.blb.size) == std::string(r.blb.size, '\0'));
    for (const char *line : {"Backing up bootloader_b\n", "Backing up bootloader_a\n", "Backing up persist\n",
                             "Restoring persist\n"})
        EXPECT_EQ(s.count(line), 1u) << line;
    EXPECT_EQ(s.text.find("Restoring bootloader_"), std::string::npos);
    EXPECT_EQ(s.text.find("hiccups"), std::string::npos);
    // A clean backup and restore leave neither the file nor a log.
    EXPECT_TRUE(backup_files("backup_0x1A2B3C4D_").empty());
    EXPECT_FALSE(file_exists("ravik_log.txt"));
}

TEST(BackupSim, KeptFileIsAFlashableImageOfTheSavedPartitions)
{
    marked_run r;
    r.run(DEVICE_FLAG_BNR | DEVICE_FLAG_KEEP_BACKUP);
    sim_session &s = r.s;
    ASSERT_EQ(s.code, 0) << s.text;
    EXPECT_EQ(s.text.find("hiccups"), std::string::npos);
    auto files = backup_files("backup_0x1A2B3C4D_");
    ASSERT_EQ(files.size(), 1u);
    const std::string file = files[0];
    EXPECT_EQ(entry_names(file),
              (std::vector<std::string>{"programmer.elf", "bootloader_b.img", "bootloader_a.img", "persist.img",
                                        "index.xml", "package.xml", "flashall.xml"}));
    auto programmer = ravik_sim::demo_programmer();
    EXPECT_TRUE(entry_data(file, "programmer.elf") == std::string(programmer.begin(), programmer.end()));
    EXPECT_TRUE(entry_data(file, "persist.img") == r.old_persist);
    EXPECT_TRUE(entry_data(file, "bootloader_a.img") == r.old_bla);
    EXPECT_TRUE(entry_data(file, "bootloader_b.img") == r.old_blb);
    EXPECT_EQ(entry_data(file, "index.xml"),
              "<?xml version=\"1.0\"?>\n<index>\n    <board id=\"3054\" name=\"simboard\" storage.type=\"UFS\"/>\n"
              "    <package compatible=\"protocol:ravik protocol:fastboot cpu.name:simboard\" "
              "filename=\"package.xml\"/>\n</index>");
    EXPECT_EQ(entry_data(file, "package.xml"),
              "<?xml version=\"1.0\"?>\n<package>\n    <programmer filename=\"programmer.elf\"/>\n"
              "    <recipe compatible=\"cpu.serial:439041101\" filename=\"flashall.xml\" ignore_errors=\"true\"/>\n"
              "</package>");
    EXPECT_EQ(entry_data(file, "flashall.xml"),
              "<?xml version=\"1.0\"?>\n<recipe>\n"
              "    <flash partition=\"bootloader_b\" filename=\"bootloader_b.img\" verbose=\"true\"/>\n"
              "    <flash partition=\"bootloader_a\" filename=\"bootloader_a.img\" verbose=\"true\"/>\n"
              "    <flash partition=\"persist\" filename=\"persist.img\" verbose=\"true\"/>\n"
              "</recipe>\n");

    // Later, flashed on its own onto the same target, it writes every saved
    // partition back.
    s.poke(0, r.persist.offset, std::string(r.persist.size, '\x5A'));
    s.poke(1, r.bla.offset, std::string(r.bla.size, '\x5A'));
    // Back from the reboot that ended the first session.
    ASSERT_TRUE(s.t->wire().wait_kind("power-on", 2, 5000));
    event_log log;
    int32_t code = -1;
    on_fresh_thread([&] { code = rk_flash_singleimage(s.o.link.c_str(), file.c_str(), 0, record_events, &log); });
    std::string text;
    for (auto &l : log.lines)
        text += l;
    ASSERT_EQ(code, 0) << text;
    EXPECT_NE(text.find("Flashing persist with persist.img\n"), std::string::npos);
    EXPECT_TRUE(s.lun(0).substr(r.persist.offset, r.persist.size) == r.old_persist);
    EXPECT_TRUE(s.lun(1).substr(r.bla.offset, r.bla.size) == r.old_bla);
    EXPECT_TRUE(s.lun(2).substr(r.blb.offset, r.blb.size) == r.old_blb);
    EXPECT_EQ(backup_files("backup_0x1A2B3C4D_"), std::vector<std::string>{file});
}

// Every kind of trouble: the session may well return 0, but the file stays,
// the log is written, and the messages name the file.
void expect_kept_with_log(const sim_session &s, const std::string &file)
{
    const std::string named = "  2) ./" + file + "\n";
    EXPECT_EQ(s.count("There were some hiccups in backup and restore.\n"), 1u);
    EXPECT_EQ(s.count(named), 1u) << s.text;
    ASSERT_TRUE(file_exists("ravik_log.txt"));
    std::string saved = read_file("ravik_log.txt");
    EXPECT_NE(saved.find(named), std::string::npos);
    EXPECT_NE(saved.find("Backup & Restore {\n"), std::string::npos);
}

// A backup that failed after persist was saved: the file keeps what was
// stored before the failure, whole, and no documents; the log names the chain.
void expect_only_persist_kept(sim_session &s, const std::string &old, const char *chain)
{
    auto files = backup_files("backup_0x1A2B3C4D_");
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(entry_names(files[0]), (std::vector<std::string>{"programmer.elf", "persist.img"}));
    EXPECT_TRUE(entry_data(files[0], "persist.img") == old);
    expect_kept_with_log(s, files[0]);
    EXPECT_NE(read_file("ravik_log.txt").find(std::string("  backup_error = \"") + chain + "\",\n"),
              std::string::npos);
}

TEST(BackupSim, FailedBackupKeepsWhatWasSaved)
{
    sim_session s;
    s.o.luns = 1;
    s.o.lun_bytes = 3ull << 30; // sparse
    s.o.layout = "0 persist 64K bnr\n0 huge 2G bnr\n0 rest *\n";
    s.start();
    std::string old = pattern(64 << 10, 21);
    s.poke(0, find_part(head_of(s.t->lun_path(0), 1 << 20), 4096, "persist").offset, old);
    s.flash({{"run.xml", "<backup commit=\"1\"/>\n<restore why=\"x\"/>\n"}}, "ignore_errors=\"true\"", DEVICE_FLAG_BNR);
    ASSERT_EQ(s.code, 0) << s.text;
    EXPECT_EQ(s.count("Backing up huge\n"), 1u);
    EXPECT_EQ(s.count("...partition size out of range!\n"), 1u);
    EXPECT_EQ(s.count("...no backup, skipping!\n"), 1u);
    // The chain grows on the code's way out of the command.
    expect_only_persist_kept(s, old, "do_backup()->bnr_backup()->out of room or range");
}

// The writes beside the dump fail: the backup ends as a failed store always
// did, and the file holds what was saved before, whole, and nothing more.
TEST(BackupSim, FailedWriteBesideTheDumpEndsTheBackupAsAStore)
{
    sim_session s;
    s.o.lun_bytes = 16 << 20;
    s.o.layout = "0 persist 64K bnr\n0 big 4M bnr\n0 rest *\n";
    s.start();
    std::string old = pattern(64 << 10, 21);
    s.poke(0, find_part(s.lun(0), 4096, "persist").offset, old);
    // Only pieces written beside a dump are written back early; those of big
    // lie past 1 MiB in the file, the programmer's and persist's before it.
    simg_io().writeback = [](int, uint64_t at, uint64_t n) { return at + n > (1u << 20) ? -1 : 0; };
    s.flash({{"run.xml", "<backup commit=\"1\"/>\n<restore why=\"x\"/>\n"}}, "ignore_errors=\"true\"",
            DEVICE_FLAG_BNR);
    simg_io_reset();
    ASSERT_EQ(s.code, 0) << s.text;
    EXPECT_EQ(s.count("Backing up big\n"), 1u);
    EXPECT_EQ(s.count("...failed to read partition!\n"), 0u);
    EXPECT_EQ(s.count("...failed to save partition!\n"), 1u);
    expect_only_persist_kept(s, old, "do_backup()->bnr_backup()->simg_stage_end()->finish_stage()->IO error");
}

TEST(BackupSim, RestoreThatNeverRan)
{
    sim_session s;
    s.flash({{"run.xml", "<backup commit=\"1\"/>\n<print what=\"no restore\"/>\n"}}, "", DEVICE_FLAG_BNR);
    ASSERT_EQ(s.code, 0) << s.text;
    auto files = backup_files("backup_0x1A2B3C4D_");
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(entry_names(files[0]).size(), 5u); // programmer, persist, three documents
    expect_kept_with_log(s, files[0]);
    EXPECT_NE(read_file("ravik_log.txt").find("  restore_error = \"not started\",\n"), std::string::npos);
}

TEST(BackupSim, RestoreThatFailedForOnePartition)
{
    sim_session s;
    s.start();
    part_range bla = find_part(s.lun(1), 4096, "bootloader_a"), persist = find_part(s.lun(0), 4096, "persist");
    std::string old = pattern(bla.size, 31);
    s.poke(1, bla.offset, old);
    // A new layout for LUN 1 in which bootloader_a is a quarter of its size.
    gpt_bytes table = make_gpt({{"bootloader_a", 16, 31}, {"rest", 32, 100}}, 4096, 128, 2, 128, false);
    s.flash({{"gpt1.img", table.image(4096)},
             {"run.xml", "<backup name=\"bootloader_a\" commit=\"1\"/>\n"
                         "<flash partition=\"partition:1\" filename=\"gpt1.img\"/>\n"
                         "<storage operation=\"reinit\"/>\n<restore why=\"x\"/>\n"}},
            "", DEVICE_FLAG_BNR);
    ASSERT_EQ(s.code, 0) << s.text;
    EXPECT_EQ(s.count("Restoring persist\n"), 1u);
    EXPECT_EQ(s.count("...partition too small, skipping\n"), 1u);
    EXPECT_EQ(find_part(s.lun(0), 4096, "persist").offset, persist.offset);
    auto files = backup_files("backup_0x1A2B3C4D_");
    ASSERT_EQ(files.size(), 1u);
    // The only copy of bootloader_a's old contents.
    EXPECT_TRUE(entry_data(files[0], "bootloader_a.img") == old);
    expect_kept_with_log(s, files[0]);
}

#endif
