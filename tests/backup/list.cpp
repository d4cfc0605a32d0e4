// The backup list, the generated documents and the end of the backup file,
// without a target: the record is filled by hand where a test needs it.
#include <gtest/gtest.h>

#include <cstdio>
#include <sys/stat.h>

#include "backup/backup_files.h"
#include "backup/bnr.h"
#include "core/core.h"
#include "link/buffer.h"
#include "link/device.h"
#include "link/properties.h"
#include "support/container.h"
#include "support/fake_platform.h"
#include "support/helpers.h"

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

TEST(BackupList, EightyNamesFitAndTheRulesOfSkip)
{
    on_fresh_thread([] {
        end_of_session end;
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
        std::string long_name(50, 'n');
        for (int i = 1; i < 80; i++)
            ASSERT_EQ(bnr_add(i == 1 ? long_name.c_str() : ("p" + std::to_string(i)).c_str()), 0);
        EXPECT_EQ(bnr_add(long_name.c_str()) | bnr_add("p79"), 0) << "listed: fine even with a full list";
        EXPECT_EQ(b->entries[1].name, long_name.substr(0, 39));
        EXPECT_FALSE(c.has("too many backup entries!\n"));
        EXPECT_STREQ(format_error(bnr_add("one_more")), "bnr_add()->out of room or range");
        EXPECT_TRUE(c.has("too many backup entries!\n"));
        EXPECT_EQ(b->num_entries, 80);
        // While a restore runs its own writes change no flags.
        for (bool restoring : {true, false}) {
            b->restoring = restoring;
            EXPECT_EQ(bnr_skip("p5"), 0);
            EXPECT_EQ(b->entries[5].flags, restoring ? 0u : BNR_SKIPPED);
        }
    });
}

TEST(BackupList, FileNameFromSerialAndLocalTime)
{
    fake_platform fake;
    on_fresh_thread([&] {
        end_of_session end;
        char name[BNR_FNAME_SIZE], when[64];
        time_t t = (time_t)fake.clock;
        struct tm tm;
        strftime(when, sizeof(when), "%Y-%m-%d_%H%M%S", localtime_r(&t, &tm));
        EXPECT_EQ(bnr_fname(name, sizeof(name)), name);
        EXPECT_EQ(std::string(name), "backup_0x00000000_" + std::string(when) + ".img");
        device_setu("cpu.serial", 0x1A2B3C4D);
        EXPECT_EQ(std::string(bnr_fname(name, sizeof(name))), "backup_0x1A2B3C4D_" + std::string(when) + ".img");
        fake.local_time_ok = false;
        EXPECT_STREQ(bnr_fname(name, sizeof(name)), "backup_0x1A2B3C4D_.img");
    });
}

// Only partitions saved and not given up on are flashed back; without
// properties the fields are empty and the numbers 0, and with nothing saved
// the recipe has two lines.
TEST(BackupFile, GeneratedDocumentsAreTheTemplates)
{
    temp_cwd cwd;
    for (bool props : {true, false})
        on_fresh_thread([&] {
            end_of_session end;
            if (props) {
                device_setu("cpu.id", 0x0BEE);
                device_set("cpu.name", "simboard");
                device_set("storage.type", "UFS");
                device_setu("cpu.serial", 0x1A2B3C4D);
            }
            bnr *b = get_bnr();
            ASSERT_EQ(bnr_open_file(b), 0);
            std::string path = b->simg->path;
            add(b, props ? "persist" : "modem", props ? BNR_BACKUP_TRIED : BNR_BACKUP_TRIED | BNR_SKIPPED);
            if (props) {
                add(b, "modem", BNR_BACKUP_TRIED | BNR_SKIPPED);
                add(b, "fsg", BNR_BACKUP_TRIED | BNR_BACKUP_FAILED);
                add(b, "untried", 0);
                add(b, "gone", BNR_BACKUP_TRIED | BNR_BACKUP_FAILED | BNR_NOT_FOUND);
                add(b, "keys", BNR_BACKUP_TRIED | BNR_RESTORE_FAILED);
            }
            ASSERT_EQ(make_flashable(b), 0);
            EXPECT_EQ(entry_names(path), (std::vector<std::string>{"index.xml", "package.xml", "flashall.xml"}));
            EXPECT_EQ(entry_text(path, "index.xml"),
                      "<?xml version=\"1.0\"?>\n<index>\n    <board id=\"" + std::string(props ? "3054" : "0") +
                          "\" name=\"" + (props ? "simboard" : "") + "\" storage.type=\"" + (props ? "UFS" : "") +
                          "\"/>\n    <package compatible=\"protocol:ravik protocol:fastboot cpu.name:" +
                          (props ? "simboard" : "") + "\" filename=\"package.xml\"/>\n</index>");
            EXPECT_EQ(entry_text(path, "package.xml"),
                      "<?xml version=\"1.0\"?>\n<package>\n    <programmer filename=\"programmer.elf\"/>\n"
                      "    <recipe compatible=\"cpu.serial:" + std::string(props ? "439041101" : "") +
                          "\" filename=\"flashall.xml\" ignore_errors=\"true\"/>\n</package>");
            EXPECT_EQ(entry_text(path, "flashall.xml"),
                      "<?xml version=\"1.0\"?>\n<recipe>\n" +
                          std::string(props ? "    <flash partition=\"persist\" filename=\"persist.img\" verbose=\"true\"/>\n"
                                              "    <flash partition=\"keys\" filename=\"keys.img\" verbose=\"true\"/>\n"
                                            : "") + "</recipe>\n");
            // The buffer is given back, also when a held one stops the
            // documents; a second set finds the names taken.
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
    const struct {
        int32_t backup_error, restore_error;
        uint32_t flags;
        bool keep, said;
    } cases[] = {
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
    for (const auto &o : cases) {
        std::string path;
        std::vector<std::string> lines;
        bool save_log = false;
        on_fresh_thread([&] {
            end_of_session end;
            log_capture c;
            if (o.flags & KEEP)
                device_set_flag(DEVICE_FLAG_KEEP_BACKUP);
            bnr *b = get_bnr();
            ASSERT_EQ(bnr_open_file(b), 0);
            path = b->simg->path;
            if (!(o.flags & NO_LIST))
                add(b, "persist", o.flags & ~KEEP);
            b->backup_error = o.backup_error;
            b->restore_error = o.restore_error;
            bnr_review();
            EXPECT_TRUE(!(o.flags & KEEP) || b->simg == nullptr);
            save_log = device_has_flag(DEVICE_FLAG_SAVE_LOG);
            lines = c.lines;
        });
        std::vector<std::string> said = HICCUPS;
        said.insert(said.end(), {"  2) ./" + path + "\n", "\n"});
        EXPECT_EQ(lines, o.said ? said : std::vector<std::string>{}) << o.flags;
        EXPECT_EQ(save_log, o.said) << o.flags;
        EXPECT_EQ(opened(simg_open(path.c_str(), 0)), o.keep ? "open" : err(ERR_IO)) << o.flags;
        std::remove(path.c_str());
    }
}

TEST(BackupFile, DiscardAndFailuresAroundTheFile)
{
    temp_cwd cwd;
    fake_platform fake;
    // No record: nothing said, nothing discarded. A failure before any file:
    // the second line of the list is left out.
    on_fresh_thread([&] {
        end_of_session end;
        log_capture c;
        bnr_review();
        EXPECT_EQ(bnr_discard(), 0);
        EXPECT_TRUE(c.lines.empty());
        add(get_bnr(), "x", 0);
        bnr_review();
        std::vector<std::string> said = HICCUPS;
        said.push_back("\n");
        EXPECT_EQ(c.lines, said);
    });
    // A file that cannot be removed is only a warning; an existing one is
    // never reused.
    on_fresh_thread([&] {
        end_of_session end;
        log_capture c;
        bnr *b = get_bnr();
        ASSERT_EQ(bnr_open_file(b), 0);
        std::string path = b->simg->path;
        std::rename(path.c_str(), "moved.img");
        mkdir(path.c_str(), 0755); // the name now stands for a directory that is not empty
        std::fclose(std::fopen((path + "/x").c_str(), "w"));
        EXPECT_EQ(bnr_discard(), 0);
        EXPECT_TRUE(c.has("failed to delete file: " + path + "\n"));
        EXPECT_EQ(err(bnr_open_file(b)), err(ERR_EXISTS));
        EXPECT_EQ(b->simg, nullptr);
        EXPECT_TRUE(c.has("backup file " + path + " exists already!\n"));
        EXPECT_EQ(read_file(path + "/x"), "");
    });
}
