// The backup list, the generated documents and the end of the backup file,
// without a target: the record is filled by hand where a test needs it.
#include <gtest/gtest.h>

#include <cstdio>
#include <regex>
#include <string>
#include <vector>
#include <sys/stat.h>

#include "backup/bnr.h"
#include "container/container.h"
#include "core/core.h"
#include "link/buffer.h"
#include "link/device.h"
#include "link/properties.h"
#include "support/fake_platform.h"
#include "support/helpers.h"

using namespace ravik;
using namespace ravik::test;

namespace {

std::vector<std::string> entry_names(const std::string &path)
{
    std::vector<std::string> out;
    simg *h = simg_open(path.c_str(), 0);
    if (!h)
        return out;
    for (int32_t i = 0; i < h->num_entries; i++)
        out.push_back(h->entries[i].name);
    simg_close(h);
    return out;
}

bool is_container(const std::string &path)
{
    simg *h = simg_open(path.c_str(), 0);
    simg_close(h);
    return h != nullptr;
}

std::string entry_text(const std::string &path, const char *name)
{
    simg *h = simg_open(path.c_str(), 0);
    simg_entry *e = h ? simg_load(h, name) : nullptr;
    std::string s = e ? std::string(reinterpret_cast<char *>(e->data), e->size) : std::string("<missing>");
    simg_close(h);
    return s;
}

bnr_entry &listed(bnr *b, const char *name, uint32_t flags)
{
    EXPECT_EQ(bnr_add(name), 0);
    bnr_entry &e = b->entries[b->num_entries - 1];
    e.flags = flags;
    snprintf(e.image_name, sizeof(e.image_name), "%s.img", name);
    return e;
}

} // namespace

TEST(BackupList, EightyNamesFitAndTheRulesOfSkip)
{
    on_fresh_thread([] {
        end_of_session end;
        log_capture c;
        bnr *b = get_bnr();
        ASSERT_NE(b, nullptr);
        EXPECT_EQ(b->backup_error, ERR_NOT_STARTED);
        EXPECT_EQ(b->restore_error, ERR_NOT_STARTED);

        // Skipping an unknown name adds nothing, and a later add is not skipped.
        EXPECT_EQ(bnr_skip("later"), 0);
        EXPECT_EQ(b->num_entries, 0);
        EXPECT_EQ(bnr_add("later"), 0);
        EXPECT_EQ(b->entries[0].flags, 0u);

        // Adding a skipped name again leaves it skipped.
        EXPECT_EQ(bnr_skip("later"), 0);
        EXPECT_EQ(bnr_add("later"), 0);
        EXPECT_EQ(b->num_entries, 1);
        EXPECT_EQ(b->entries[0].flags, (uint32_t)BNR_SKIPPED);

        // A name is kept to 39 characters, and found again by them.
        std::string long_name(50, 'n');
        EXPECT_EQ(bnr_add(long_name.c_str()), 0);
        EXPECT_EQ(std::string(b->entries[1].name), long_name.substr(0, 39));
        EXPECT_EQ(bnr_add(long_name.c_str()), 0);
        EXPECT_EQ(b->num_entries, 2);

        for (int i = 2; i < 80; i++)
            ASSERT_EQ(bnr_add(("p" + std::to_string(i)).c_str()), 0);
        EXPECT_FALSE(c.has("too many backup entries!\n"));
        EXPECT_EQ(bnr_add("p79"), 0); // listed: fine even with a full list
        int32_t code = bnr_add("one_more");
        EXPECT_EQ(code & 0xFF, ERR_RANGE);
        EXPECT_STREQ(format_error(code), "bnr_add()->out of room or range");
        EXPECT_TRUE(c.has("too many backup entries!\n"));
        EXPECT_EQ(b->num_entries, 80);

        // While a restore runs its own writes change no flags.
        b->restoring = true;
        EXPECT_EQ(bnr_skip("p5"), 0);
        EXPECT_EQ(b->entries[5].flags, 0u);
        b->restoring = false;
        EXPECT_EQ(bnr_skip("p5"), 0);
        EXPECT_EQ(b->entries[5].flags, (uint32_t)BNR_SKIPPED);
    });
}

TEST(BackupList, FileNameFromSerialAndLocalTime)
{
    fake_platform fake;
    on_fresh_thread([&] {
        end_of_session end;
        char name[BNR_FNAME_SIZE];
        EXPECT_STREQ(bnr_fname(name, sizeof(name)), name);
        EXPECT_TRUE(std::regex_match(name, std::regex("backup_0x00000000_\\d{4}-\\d\\d-\\d\\d_\\d{6}\\.img"))) << name;
        device_setu("cpu.serial", 0x1A2B3C4D);
        time_t t = (time_t)fake.clock;
        struct tm tm;
        localtime_r(&t, &tm);
        char when[64];
        strftime(when, sizeof(when), "%Y-%m-%d_%H%M%S", &tm);
        EXPECT_EQ(std::string(bnr_fname(name, sizeof(name))), std::string("backup_0x1A2B3C4D_") + when + ".img");
        fake.local_time_ok = false;
        EXPECT_STREQ(bnr_fname(name, sizeof(name)), "backup_0x1A2B3C4D_.img");
    });
}

TEST(BackupFile, GeneratedDocumentsAreTheTemplates)
{
    temp_cwd cwd;
    on_fresh_thread([&] {
        end_of_session end;
        device_setu("cpu.id", 0x0BEE);
        device_set("cpu.name", "simboard");
        device_set("storage.type", "UFS");
        device_setu("cpu.serial", 0x1A2B3C4D);
        bnr *b = get_bnr();
        ASSERT_EQ(bnr_open_file(b), 0);
        std::string path = b->simg->path;
        // Saved, skipped, failed, never tried, missing, and saved again.
        listed(b, "persist", BNR_BACKUP_TRIED);
        listed(b, "modem", BNR_BACKUP_TRIED | BNR_SKIPPED);
        listed(b, "fsg", BNR_BACKUP_TRIED | BNR_BACKUP_FAILED);
        listed(b, "untried", 0);
        listed(b, "gone", BNR_BACKUP_TRIED | BNR_BACKUP_FAILED | BNR_NOT_FOUND);
        listed(b, "keys", BNR_BACKUP_TRIED | BNR_RESTORE_FAILED);
        ASSERT_EQ(make_flashable(b), 0);
        EXPECT_EQ(entry_names(path), (std::vector<std::string>{"index.xml", "package.xml", "flashall.xml"}));
        EXPECT_EQ(entry_text(path, "index.xml"),
                  "<?xml version=\"1.0\"?>\n<index>\n    <board id=\"3054\" name=\"simboard\" storage.type=\"UFS\"/>\n"
                  "    <package compatible=\"protocol:ravik protocol:fastboot cpu.name:simboard\" "
                  "filename=\"package.xml\"/>\n</index>");
        EXPECT_EQ(entry_text(path, "package.xml"),
                  "<?xml version=\"1.0\"?>\n<package>\n    <programmer filename=\"programmer.elf\"/>\n"
                  "    <recipe compatible=\"cpu.serial:439041101\" filename=\"flashall.xml\" ignore_errors=\"true\"/>\n"
                  "</package>");
        EXPECT_EQ(entry_text(path, "flashall.xml"),
                  "<?xml version=\"1.0\"?>\n<recipe>\n"
                  "    <flash partition=\"persist\" filename=\"persist.img\" verbose=\"true\"/>\n"
                  "    <flash partition=\"keys\" filename=\"keys.img\" verbose=\"true\"/>\n"
                  "</recipe>\n");
        // The buffer was given back.
        EXPECT_EQ(__buffer_acquire(), 0);

        // A held buffer stops the documents; a second set finds the names taken.
        int32_t code = make_flashable(b);
        EXPECT_EQ(code & 0xFF, ERR_GENERAL);
        EXPECT_EQ(__buffer_acquire(), 0); // released on that road too
        __buffer_release();
        EXPECT_EQ(make_flashable(b) & 0xFF, ERR_EXISTS);
        EXPECT_EQ(entry_names(path).size(), 3u);
    });
}

TEST(BackupFile, NothingSavedGivesARecipeOfTwoLines)
{
    temp_cwd cwd;
    on_fresh_thread([&] {
        end_of_session end;
        bnr *b = get_bnr();
        ASSERT_EQ(bnr_open_file(b), 0);
        std::string path = b->simg->path;
        listed(b, "a", BNR_BACKUP_TRIED | BNR_SKIPPED);
        ASSERT_EQ(make_flashable(b), 0);
        EXPECT_EQ(entry_text(path, "flashall.xml"), "<?xml version=\"1.0\"?>\n<recipe>\n</recipe>\n");
        // Without properties the fields are empty and the numbers 0.
        EXPECT_NE(entry_text(path, "index.xml").find("<board id=\"0\" name=\"\" storage.type=\"\"/>"),
                  std::string::npos);
        EXPECT_NE(entry_text(path, "package.xml").find("compatible=\"cpu.serial:\""), std::string::npos);
    });
}

TEST(BackupFile, ReviewKeepsTheFileWheneverACopyMayBeTheLastOne)
{
    temp_cwd cwd;
    struct outcome {
        int32_t backup_error, restore_error;
        uint32_t flags;
        bool keep;
    };
    const outcome cases[] = {
        {0, 0, BNR_BACKUP_TRIED | BNR_RESTORE_TRIED, false},
        {0, 0, BNR_BACKUP_TRIED | BNR_SKIPPED, false},
        {ERR_RANGE, 0, BNR_BACKUP_TRIED, true},
        {0, ERR_NOT_STARTED, BNR_BACKUP_TRIED, true},
        {ERR_NOT_STARTED, ERR_NOT_STARTED, 0, true},
        {0, 0, BNR_BACKUP_TRIED | BNR_RESTORE_TRIED | BNR_RESTORE_FAILED, true},
        {0, 0, BNR_BACKUP_TRIED | BNR_RESTORE_TRIED | BNR_RESTORE_FAILED | BNR_TOO_SMALL, true},
    };
    int n = 0;
    for (const outcome &o : cases) {
        SCOPED_TRACE(n++);
        std::string path;
        std::vector<std::string> lines;
        bool save_log = false;
        on_fresh_thread([&] {
            end_of_session end;
            log_capture c;
            bnr *b = get_bnr();
            ASSERT_EQ(bnr_open_file(b), 0);
            path = b->simg->path;
            listed(b, "persist", o.flags);
            b->backup_error = o.backup_error;
            b->restore_error = o.restore_error;
            bnr_review();
            save_log = device_has_flag(DEVICE_FLAG_SAVE_LOG);
            lines = c.lines;
        });
        EXPECT_EQ(file_exists(path), o.keep);
        EXPECT_EQ(save_log, o.keep);
        if (o.keep) {
            EXPECT_EQ(lines, (std::vector<std::string>{"There were some hiccups in backup and restore.\n",
                                                       "Please save the following files and see a Bootloader member.\n",
                                                       "  1) ./ravik_log.txt\n", "  2) ./" + path + "\n", "\n"}));
            EXPECT_TRUE(is_container(path));
        } else {
            EXPECT_TRUE(lines.empty());
        }
        std::remove(path.c_str());
    }
}

TEST(BackupFile, ReviewAndDiscardEdges)
{
    temp_cwd cwd;
    // No record, no entries: nothing at all, a programmer-only file stays.
    on_fresh_thread([&] {
        end_of_session end;
        log_capture c;
        bnr_review();
        EXPECT_EQ(bnr_discard(), 0);
        bnr *b = get_bnr();
        ASSERT_EQ(bnr_open_file(b), 0);
        std::string path = b->simg->path;
        bnr_review();
        EXPECT_TRUE(c.lines.empty());
        EXPECT_TRUE(file_exists(path));
        EXPECT_FALSE(device_has_flag(DEVICE_FLAG_SAVE_LOG));
        std::remove(path.c_str());
    });
    // A failure before any file: the second line of the list is left out.
    on_fresh_thread([&] {
        end_of_session end;
        log_capture c;
        bnr *b = get_bnr();
        listed(b, "x", 0);
        bnr_review();
        EXPECT_EQ(c.lines, (std::vector<std::string>{"There were some hiccups in backup and restore.\n",
                                                     "Please save the following files and see a Bootloader member.\n",
                                                     "  1) ./ravik_log.txt\n", "\n"}));
    });
    // Kept on request: closed, on disk, not a word.
    std::string kept;
    on_fresh_thread([&] {
        end_of_session end;
        log_capture c;
        device_set_flag(DEVICE_FLAG_KEEP_BACKUP);
        bnr *b = get_bnr();
        ASSERT_EQ(bnr_open_file(b), 0);
        kept = b->simg->path;
        listed(b, "x", BNR_BACKUP_TRIED | BNR_RESTORE_TRIED);
        b->backup_error = b->restore_error = 0;
        bnr_review();
        EXPECT_EQ(b->simg, nullptr);
        EXPECT_TRUE(c.lines.empty());
    });
    EXPECT_TRUE(is_container(kept));
    // A file that cannot be removed is only a warning.
    on_fresh_thread([&] {
        temp_cwd elsewhere; // a name of this second is taken here
        end_of_session end;
        log_capture c;
        bnr *b = get_bnr();
        ASSERT_EQ(bnr_open_file(b), 0);
        std::string path = b->simg->path;
        // The name now stands for a directory that is not empty.
        std::rename(path.c_str(), "moved.img");
        mkdir(path.c_str(), 0755);
        std::fclose(std::fopen((path + "/x").c_str(), "w"));
        EXPECT_EQ(bnr_discard(), 0);
        EXPECT_TRUE(c.has("failed to delete file: " + path + "\n"));
    });
}

TEST(BackupFile, AnExistingFileIsNeverReused)
{
    temp_cwd cwd;
    fake_platform fake;
    on_fresh_thread([&] {
        end_of_session end;
        log_capture c;
        char name[BNR_FNAME_SIZE];
        bnr_fname(name, sizeof(name));
        std::fclose(std::fopen(name, "w"));
        bnr *b = get_bnr();
        int32_t code = bnr_open_file(b);
        EXPECT_EQ(code & 0xFF, ERR_EXISTS);
        EXPECT_EQ(b->simg, nullptr);
        EXPECT_TRUE(c.has(std::string("backup file ") + name + " exists already!\n"));
        EXPECT_EQ(read_file(name), "");
    });
}
