// The backup list, the file's name, its generated documents and its end, the
// record filled by hand; and backups a scripted programmer answers.
#include <gtest/gtest.h>

#include <cstdio>
#include <sys/stat.h>

#include "backup/backup_files.h"
#include "backup/bnr.h"
#include "link/buffer.h"
#include "storage/script.h"
#include "support/container.h"

using namespace ravik;
using namespace ravik::test;

namespace {

std::string entry_text(const std::string &path, const char *name)
{
    simg *h = simg_open(path.c_str(), 0);
    std::string s = h ? got(simg_load(h, name)) : "<no container>";
    simg_close(h);
    return s;
}

void add(bnr *b, const char *name, uint32_t flags)
{
    EXPECT_EQ(bnr_add(name), 0);
    bnr_entry &e = b->entries[b->num_entries - 1];
    e.flags = flags;
    snprintf(e.image_name, sizeof(e.image_name), "%s.img", name);
}

const std::vector<std::string> HICCUPS{"There were some hiccups in backup and restore.\n",
                                       "Please save the following files and see a Bootloader member.\n",
                                       "  1) ./ravik_log.txt\n"};

} // namespace

TEST(BackupList, EightyNamesTheRulesOfSkipAndTheFileName)
{
    fake_platform fake;
    in_session([&] {
        log_capture c;
        bnr *b = get_bnr();
        ASSERT_NE(b, nullptr);
        EXPECT_TRUE(b->backup_error == ERR_NOT_STARTED && b->restore_error == ERR_NOT_STARTED);
        // Skipping an unknown name adds nothing, and a later add is not
        // skipped; adding a skipped name again leaves it skipped.
        EXPECT_EQ(bnr_skip("later"), 0);
        EXPECT_EQ(b->num_entries, 0);
        EXPECT_EQ(bnr_add("later"), 0);
        EXPECT_EQ(b->entries[0].flags, 0u);
        EXPECT_EQ(bnr_skip("later"), 0);
        EXPECT_EQ(bnr_add("later"), 0);
        EXPECT_TRUE(b->num_entries == 1 && b->entries[0].flags == BNR_SKIPPED);
        // A name is kept to 39 characters, and found again by them.
        const std::string long_name(50, 'n');
        for (int i = 1; i < 80; i++)
            ASSERT_EQ(bnr_add(i == 1 ? long_name.c_str() : ("p" + std::to_string(i)).c_str()), 0);
        EXPECT_EQ(bnr_add(long_name.c_str()) | bnr_add("p79"), 0) << "listed: fine even with a full list";
        EXPECT_EQ(b->entries[1].name, long_name.substr(0, 39));
        EXPECT_FALSE(c.has("too many backup entries!\n"));
        EXPECT_STREQ(format_error(bnr_add("one_more")), "bnr_add()->out of room or range");
        EXPECT_TRUE(c.has("too many backup entries!\n") && b->num_entries == 80);
        // While a restore runs its own writes change no flags.
        for (bool restoring : {true, false}) {
            b->restoring = restoring;
            EXPECT_EQ(bnr_skip("p5"), 0);
            EXPECT_EQ(b->entries[5].flags, restoring ? 0u : BNR_SKIPPED);
        }
        // The serial number in eight upper-case digits, then the local time if there is one.
        char name[BNR_FNAME_SIZE], when[64];
        const time_t t = (time_t)fake.clock;
        struct tm tm;
        strftime(when, sizeof(when), "%Y-%m-%d_%H%M%S", localtime_r(&t, &tm));
        device_setu("cpu.serial", 0x0A2B3C4D);
        EXPECT_EQ(std::string(bnr_fname(name, sizeof(name))), "backup_0x0A2B3C4D_" + std::string(when) + ".img");
        fake.local_time_ok = false;
        EXPECT_STREQ(bnr_fname(name, sizeof(name)), "backup_0x0A2B3C4D_.img");
    });
}

// Only partitions saved and not given up on are flashed back; without
// properties the fields are empty and the numbers 0. The buffer is given
// back, also when a held one stops the documents; a second set finds the
// names taken.
TEST(BackupFile, GeneratedDocumentsAreTheTemplates)
{
    temp_cwd cwd;
    in_session([&] {
        bnr *b = get_bnr();
        ASSERT_EQ(bnr_open_file(b), 0);
        const std::string path = b->simg->path;
        for (auto [name, flags] : {std::pair<const char *, uint32_t>{"persist", BNR_BACKUP_TRIED},
                                   {"modem", BNR_BACKUP_TRIED | BNR_SKIPPED}, {"fsg", BNR_BACKUP_TRIED | BNR_BACKUP_FAILED},
                                   {"untried", 0}, {"gone", BNR_BACKUP_TRIED | BNR_BACKUP_FAILED | BNR_NOT_FOUND},
                                   {"keys", BNR_BACKUP_TRIED | BNR_RESTORE_FAILED}})
            add(b, name, flags);
        ASSERT_EQ(make_flashable(b), 0);
        EXPECT_EQ(entry_names(path), (std::vector<std::string>{"index.xml", "package.xml", "flashall.xml"}));
        EXPECT_EQ(entry_text(path, "index.xml"),
                  "<?xml version=\"1.0\"?>\n<index>\n    <board id=\"0\" name=\"\" storage.type=\"\"/>\n    <package "
                  "compatible=\"protocol:ravik protocol:fastboot cpu.name:\" filename=\"package.xml\"/>\n</index>");
        EXPECT_EQ(entry_text(path, "package.xml"),
                  "<?xml version=\"1.0\"?>\n<package>\n    <programmer filename=\"programmer.elf\"/>\n    <recipe "
                  "compatible=\"cpu.serial:\" filename=\"flashall.xml\" ignore_errors=\"true\"/>\n</package>");
        EXPECT_EQ(entry_text(path, "flashall.xml"),
                  "<?xml version=\"1.0\"?>\n<recipe>\n    <flash partition=\"persist\" filename=\"persist.img\" "
                  "verbose=\"true\"/>\n    <flash partition=\"keys\" filename=\"keys.img\" verbose=\"true\"/>\n</recipe>\n");
        EXPECT_EQ(__buffer_acquire(), 0);
        EXPECT_EQ(err(make_flashable(b)), err(ERR_GENERAL));
        EXPECT_EQ(__buffer_acquire(), 0);
        __buffer_release();
        EXPECT_EQ(err(make_flashable(b)), err(ERR_EXISTS));
        EXPECT_EQ(entry_names(path).size(), 3u);
    });
}

// The file is kept, with the log, whenever a copy may be the last one. No
// list at all: nothing said, a programmer-only file stays. Kept on request:
// closed, on disk, not a word.
TEST(BackupFile, ReviewKeepsTheFileWheneverACopyMayBeTheLastOne)
{
    temp_cwd cwd;
    enum { NO_LIST = 1 << 30, KEEP = 1 << 29 };
    const struct { int32_t backup_error, restore_error; uint32_t flags; bool keep, said; } cases[] = {
        {0, 0, BNR_BACKUP_TRIED | BNR_RESTORE_TRIED, false, false},
        {0, 0, BNR_BACKUP_TRIED | BNR_SKIPPED, false, false},
        {ERR_RANGE, 0, BNR_BACKUP_TRIED, true, true},
        {0, ERR_NOT_STARTED, BNR_BACKUP_TRIED, true, true},
        {ERR_NOT_STARTED, ERR_NOT_STARTED, 0, true, true},
        {0, 0, BNR_BACKUP_TRIED | BNR_RESTORE_TRIED | BNR_RESTORE_FAILED, true, true},
        {0, 0, BNR_BACKUP_TRIED | BNR_RESTORE_TRIED | BNR_RESTORE_FAILED | BNR_TOO_SMALL, true, true},
        {ERR_NOT_STARTED, ERR_NOT_STARTED, NO_LIST, true, false},
        {0, 0, BNR_BACKUP_TRIED | BNR_RESTORE_TRIED | KEEP, true, false},
    };
    for (const auto &o : cases)
        in_session([&] {
            log_capture c;
            if (o.flags & KEEP)
                device_set_flag(DEVICE_FLAG_KEEP_BACKUP);
            bnr *b = get_bnr();
            ASSERT_EQ(bnr_open_file(b), 0);
            const std::string path = b->simg->path;
            if (!(o.flags & NO_LIST))
                add(b, "persist", o.flags & ~KEEP);
            b->backup_error = o.backup_error;
            b->restore_error = o.restore_error;
            bnr_review();
            std::vector<std::string> said = HICCUPS;
            said.insert(said.end(), {"  2) ./" + path + "\n", "\n"});
            EXPECT_EQ(c.lines, o.said ? said : std::vector<std::string>{}) << o.flags;
            EXPECT_EQ(device_has_flag(DEVICE_FLAG_SAVE_LOG), o.said) << o.flags;
            EXPECT_EQ(opened(simg_open(path.c_str(), 0)), o.keep ? "open" : err(ERR_IO)) << o.flags;
            EXPECT_TRUE(!(o.flags & KEEP) || b->simg == nullptr) << "closed when kept on request";
            std::remove(path.c_str());
        });
}

// No record: nothing said, nothing discarded. A failure before any file: the
// second line of the list is left out. A file that cannot be removed is only
// a warning; an existing one is never reused.
TEST(BackupFile, DiscardAndFailuresAroundTheFile)
{
    temp_cwd cwd;
    fake_platform fake;
    in_session([&] {
        log_capture c;
        bnr_review();
        EXPECT_TRUE(bnr_discard() == 0 && c.lines.empty());
        add(get_bnr(), "x", 0);
        bnr_review();
        std::vector<std::string> said = HICCUPS;
        said.push_back("\n");
        EXPECT_EQ(c.lines, said);
    });
    in_session([&] {
        log_capture c;
        bnr *b = get_bnr();
        ASSERT_EQ(bnr_open_file(b), 0);
        const std::string path = b->simg->path;
        std::rename(path.c_str(), "moved.img");
        mkdir(path.c_str(), 0755); // the name now stands for a directory that is not empty
        write_file(path + "/x", "");
        EXPECT_EQ(bnr_discard(), 0);
        EXPECT_TRUE(c.has("failed to delete file: " + path + "\n"));
        EXPECT_TRUE(err(bnr_open_file(b)) == err(ERR_EXISTS) && b->simg == nullptr);
        EXPECT_TRUE(c.has("backup file " + path + " exists already!\n"));
        EXPECT_TRUE(file_exists(path + "/x"));
    });
}

// persist is 4 KiB at sector 64, then a partition of no sectors, then one
// more marked partition that the backup must not reach. A partition of 2 GiB
// is refused the same way (RoadsBackup.AndRestore).
TEST(BackupScripted, ZeroBytesEndTheBackup)
{
    constexpr uint64_t NEEDS_BNR = 1ull << 5;
    temp_cwd cwd;
    fake_platform fake;
    in_session([&] {
        bring_up(fake);
        device_set_flag(DEVICE_FLAG_BNR);
        log_capture c;
        push_discovery(fake, 512, {{8ull << 20, make_gpt({{"persist", 64, 71, NEEDS_BNR}, {"empty", 72, 71, NEEDS_BNR},
                                                          {"after", 200, 207, NEEDS_BNR}}, 512, 8ull << 20)}});
        fake.push_all({raw_ack(), pattern(4096, 3)});
        firehose_do_fmt("backup commit=\"1\"");
        EXPECT_EQ(err(get_error()), err(ERR_RANGE));
        EXPECT_TRUE(c.has("...partition size out of range!\n"));
        bnr *b = bnr_find();
        ASSERT_NE(b, nullptr);
        EXPECT_EQ(err(b->backup_error), err(ERR_RANGE));
        ASSERT_EQ(b->num_entries, 3);
        EXPECT_EQ(std::vector<uint32_t>({b->entries[0].flags, b->entries[1].flags, b->entries[2].flags}),
                  std::vector<uint32_t>({BNR_BACKUP_TRIED, BNR_BACKUP_TRIED | BNR_BACKUP_FAILED, 0}));
        // Only one dump went out: nothing of the bad partition was read.
        EXPECT_EQ(attr_of(fake.written, "dump", "label").size(), 3u); // header, array, persist
    });
    auto files = backup_files();
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(entry_names(files[0]), (std::vector<std::string>{"persist.img"}));
}

// Without the flag, as on a secure target (TargetBringUp.QuestionsAndFallbacks),
// backup and restore pass over without a word to the target and make nothing.
TEST(BackupScripted, NothingWithoutTheFlag)
{
    temp_cwd cwd;
    fake_platform fake;
    in_session([&] {
        bring_up(fake);
        for (const char *command : {"backup name=\"persist\" commit=\"1\"", "restore why=\"x\""}) {
            firehose_do_fmt("%s", command);
            EXPECT_EQ(get_error(), 0) << command;
        }
        EXPECT_TRUE(bnr_find() == nullptr && fake.written.empty());
    });
    EXPECT_TRUE(backup_files().empty());
}
