// Backup and restore against a scripted programmer: sizes the backup refuses
// and secure targets.
#include <gtest/gtest.h>

#include "backup/backup_files.h"
#include "backup/bnr.h"
#include "storage/script.h"
#include "support/helpers.h"

using namespace ravik;
using namespace ravik::test;

constexpr uint64_t NEEDS_BNR = 1ull << 5;

// persist is 4 KiB at sector 64, then the bad partition, then one more marked
// partition that the backup must not reach.
TEST(BackupScripted, ZeroBytesOrTwoGibibytesEndTheBackup)
{
    for (const gpt_part &bad :
         {gpt_part{"empty", 72, 71, NEEDS_BNR}, {"huge", 300, 300 + (4ull << 20) - 1, NEEDS_BNR}}) {
        SCOPED_TRACE(bad.name);
        temp_cwd cwd;
        fake_platform fake;
        on_fresh_thread([&] {
            end_of_session end;
            bring_up(fake);
            device_set_flag(DEVICE_FLAG_BNR);
            log_capture c;
            push_discovery(fake, 512,
                           {{8ull << 20, make_gpt({{"persist", 64, 71, NEEDS_BNR}, bad, {"after", 200, 207, NEEDS_BNR}},
                                                  512, 8ull << 20)}});
            fake.push_bytes(raw_ack());
            fake.push_bytes(pattern(4096, 3));
            firehose_do_fmt("backup commit=\"1\"");
            EXPECT_EQ(get_error() & 0xFF, ERR_RANGE);
            EXPECT_TRUE(c.has("...partition size out of range!\n"));
            bnr *b = bnr_find();
            ASSERT_NE(b, nullptr);
            EXPECT_EQ(b->backup_error & 0xFF, ERR_RANGE);
            ASSERT_EQ(b->num_entries, 3);
            EXPECT_EQ(b->entries[0].flags, (uint32_t)BNR_BACKUP_TRIED);
            EXPECT_EQ(b->entries[1].flags, (uint32_t)(BNR_BACKUP_TRIED | BNR_BACKUP_FAILED));
            EXPECT_EQ(b->entries[2].flags, 0u);
            // Only one dump went out: nothing of the bad partition was read.
            EXPECT_EQ(attr_of(fake.written, "dump", "label").size(), 3u); // header, array, persist
            std::string path = b->simg->path;
            bnr_review();
            EXPECT_TRUE(device_has_flag(DEVICE_FLAG_SAVE_LOG));
            EXPECT_TRUE(c.has("  2) ./" + path + "\n"));
        });
        auto files = backup_files();
        ASSERT_EQ(files.size(), 1u);
        EXPECT_EQ(entry_names(files[0]), (std::vector<std::string>{"persist.img"}));
    }
}

// The switch is process-wide and cannot be turned off, so the test runs in a
// process of its own.
TEST(BackupScripted, SecureTargetTurnsBackupOffUnlessForced)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            temp_cwd cwd;
            fake_platform fake;
            for (bool forced : {false, true}) {
                if (forced)
                    rk_enable_forced_bnr();
                fake.clear_script();
                on_fresh_thread([&] {
                    end_of_session end;
                    device_set_flag(DEVICE_FLAG_BNR);
                    bring_up(fake, "1");
                    EXPECT_EQ(device_has_flag(DEVICE_FLAG_BNR), forced);
                    if (forced) {
                        push_discovery(fake, 512, {{8ull << 20, make_gpt({{"persist", 64, 71}}, 512, 8ull << 20)}});
                        fake.push_bytes(raw_ack());
                        fake.push_bytes(std::string(4096, 'p'));
                    }
                    firehose_do_fmt("backup name=\"persist\" commit=\"1\"%s", forced ? " ignore_gpt=\"true\"" : "");
                    EXPECT_EQ(get_error(), 0);
                    if (forced)
                        return;
                    firehose_do_fmt("restore why=\"x\"");
                    EXPECT_EQ(get_error(), 0);
                    EXPECT_EQ(bnr_find(), nullptr);
                    EXPECT_EQ(fake.written, "");
                });
                auto files = backup_files();
                ASSERT_EQ(files.size(), (size_t)forced);
            }
            EXPECT_EQ(entry_names(backup_files()[0]),
                      (std::vector<std::string>{"persist.img", "index.xml", "package.xml", "flashall.xml"}));
            std::exit(testing::Test::HasFailure());
        },
        testing::ExitedWithCode(0), "");
}
