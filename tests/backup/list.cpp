// The backup list, the file's name, its documents and its end, the record filled by hand;
// and backup commands with backup and restore turned off.
#include <gtest/gtest.h>

#include <cstdio>
#include <regex>
#include <sys/stat.h>

#include "backup/backup_files.h"
#include "backup/bnr.h"
#include "link/buffer.h"
#include "storage/script.h"
#include "support/container.h"

using namespace ravik;
using namespace ravik::test;

namespace {

void add(bnr *b, const char *name, uint32_t flags)
{
    EXPECT_EQ(bnr_add(name), 0);
    bnr_entry &e = b->entries[b->num_entries - 1];
    e.flags = flags;
    snprintf(e.image_name, sizeof(e.image_name), "%s.img", name);
}

} // namespace

TEST(BackupList, EightyNamesTheRulesOfSkipAndTheFileName)
{
    fake_platform fake;
    in_session([&] {
        log_capture c;
        bnr *b = get_bnr();
        ASSERT_NE(b, nullptr);
        EXPECT_TRUE(b->backup_error == ERR_NOT_STARTED && b->restore_error == ERR_NOT_STARTED);
        // Skipping an unknown name adds nothing; adding a skipped name again leaves it skipped.
        EXPECT_TRUE(bnr_skip("later") == 0 && b->num_entries == 0);
        EXPECT_TRUE(bnr_add("later") == 0 && b->entries[0].flags == 0u);
        EXPECT_TRUE(bnr_skip("later") == 0 && bnr_add("later") == 0 && b->num_entries == 1 &&
                    b->entries[0].flags == BNR_SKIPPED);
        // A name is kept to 39 characters, and found again by them.
        const std::string long_name(50, 'n');
        for (int i = 1; i < 80; i++)
            ASSERT_EQ(bnr_add(i == 1 ? long_name.c_str() : ("p" + std::to_string(i)).c_str()), 0);
        EXPECT_TRUE(bnr_add(long_name.c_str()) == 0 && bnr_add("p79") == 0 && !c.has("too many backup entries!\n"))
            << "listed: fine even with a full list";
        EXPECT_EQ(b->entries[1].name, long_name.substr(0, 39));
        EXPECT_STREQ(format_error(bnr_add("one_more")), "bnr_add()->out of room or range");
        EXPECT_TRUE(c.has("too many backup entries!\n") && b->num_entries == 80);
        // While a restore runs its own writes change no flags.
        b->restoring = true;
        EXPECT_TRUE(bnr_skip("p5") == 0 && b->entries[5].flags == 0u);
        b->restoring = false;
        EXPECT_TRUE(bnr_skip("p5") == 0 && b->entries[5].flags == BNR_SKIPPED);
        // The serial number in eight upper-case digits, then the local time if
        // there is one: the fake clock stands at 2023-11-14 22:13:20 UTC.
        char name[BNR_FNAME_SIZE];
        device_setu("cpu.serial", 0x0A2B3C4D);
        EXPECT_TRUE(std::regex_match(bnr_fname(name, sizeof(name)),
                                     std::regex("backup_0x0A2B3C4D_2023-11-1[45]_[0-2][0-9][0-5][0-9]20\\.img")))
            << name;
        fake.local_time_ok = false;
        EXPECT_STREQ(bnr_fname(name, sizeof(name)), "backup_0x0A2B3C4D_.img");
    });
}

// Only partitions saved and not given up on are flashed back; without properties the fields are
// empty. The buffer is given back, also when a held one stops the documents.
TEST(BackupFile, GeneratedDocumentsAreTheTemplates)
{
    temp_cwd cwd;
    in_session([&] {
        bnr *b = get_bnr();
        ASSERT_EQ(bnr_open_file(b), 0);
        const std::string path = b->simg->path;
        const uint32_t tried = BNR_BACKUP_TRIED;
        for (auto [name, flags] : {std::pair<const char *, uint32_t>{"persist", tried}, {"untried", 0},
                                   {"modem", tried | BNR_SKIPPED}, {"fsg", tried | BNR_BACKUP_FAILED},
                                   {"keys", tried | BNR_RESTORE_FAILED}})
            add(b, name, flags);
        ASSERT_EQ(make_flashable(b), 0);
        EXPECT_EQ(entry_names(path), (std::vector<std::string>{"index.xml", "package.xml", "flashall.xml"}));
        simg *h = simg_open(path.c_str(), 0);
        EXPECT_EQ(got(simg_load(h, "package.xml")),
                  "<?xml version=\"1.0\"?>\n<package>\n    <programmer filename=\"programmer.elf\"/>\n    <recipe "
                  "compatible=\"cpu.serial:\" filename=\"flashall.xml\" ignore_errors=\"true\"/>\n</package>");
        EXPECT_EQ(got(simg_load(h, "flashall.xml")),
                  "<?xml version=\"1.0\"?>\n<recipe>\n    <flash partition=\"persist\" filename=\"persist.img\" verbose="
                  "\"true\"/>\n    <flash partition=\"keys\" filename=\"keys.img\" verbose=\"true\"/>\n</recipe>\n");
        simg_close(h);
        EXPECT_TRUE(__buffer_acquire() == 0 && err(make_flashable(b)) == err(ERR_GENERAL) && __buffer_acquire() == 0);
        __buffer_release();
        EXPECT_TRUE(err(make_flashable(b)) == err(ERR_EXISTS) && entry_names(path).size() == 3u);
    });
}

// No record: nothing said. A failure before any file: the second line of the list is left out. A
// file that cannot be removed is only a warning; an existing one is never reused.
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
        EXPECT_EQ(c.lines, (std::vector<std::string>{"There were some hiccups in backup and restore.\n",
                                                     "Please save the following files and see a Bootloader member.\n",
                                                     "  1) ./ravik_log.txt\n", "\n"}));
    });
    in_session([&] {
        log_capture c;
        bnr *b = get_bnr();
        ASSERT_EQ(bnr_open_file(b), 0);
        const std::string path = b->simg->path;
        std::rename(path.c_str(), "moved.img");
        mkdir(path.c_str(), 0755); // the name now stands for a directory that is not empty
        write_file(path + "/x", "");
        EXPECT_TRUE(bnr_discard() == 0 && c.has("failed to delete file: " + path + "\n"));
        EXPECT_TRUE(err(bnr_open_file(b)) == err(ERR_EXISTS) && b->simg == nullptr && file_exists(path + "/x"));
        EXPECT_TRUE(c.has("backup file " + path + " exists already!\n"));
    });
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
