// Storage discovery against a scripted programmer: the facts in their
// wordings, the limits, the LUN tables and rediscovery.
#include <gtest/gtest.h>

#include "link/properties.h"
#include "storage/gpt.h"
#include "storage/script.h"
#include "storage/storage.h"
#include "support/helpers.h"

using namespace ravik;
using namespace ravik::test;

namespace {


// One LUN answered with the given lines, and a blank LBA 1.
int32_t discover_with(fake_platform &fake, const std::vector<std::string> &lines, uint32_t blksz = 512,
                      bool configure = true)
{
    if (configure)
        fake.push_bytes(ack());
    fake.push_all({answer("value=\"ACK\"", lines), raw_ack(), std::string(blksz, '\0')});
    return storage_init();
}

gpt_bytes two_parts(uint32_t blksz, uint64_t sectors, const std::string &a, const std::string &b)
{
    return make_gpt({{a, 40, 99, 1u << 5}, {b, 100, 199}}, blksz, sectors);
}

} // namespace

TEST(StorageDiscovery, WordingsDecideTheBase)
{
    // Hexadecimal in the first two wordings, decimal in the third.
    with_link([&](fake_platform &fake) {
        ASSERT_EQ(discover_with(fake, {"Device Block Size in Bytes: 200", "Device Total Physical Paritions: 1",
                                       "Device Total Logical Blocks: 1000"}),
                  0);
        storage *s = get_storage();
        ASSERT_NE(s, nullptr);
        EXPECT_EQ(s->blksz, 512u);
        EXPECT_EQ(s->type, STORAGE_EMMC);
        EXPECT_EQ(s->num_luns, 1u);
        EXPECT_EQ(lun_size(0), 0x1000ull * 512);
        EXPECT_EQ(s->part, nullptr);
    });
    with_link([&](fake_platform &fake) {
        log_capture c;
        ASSERT_EQ(discover_with(fake,
                                {"SECTOR_SIZE_IN_BYTES=4096", "num_physical_partitions=1", "num_partition_sectors=1000",
                                 "UFS Inquiry Command Output: SIMDISK  UFS  0100"},
                                4096),
                  0);
        storage *s = get_storage();
        EXPECT_EQ(s->blksz, 4096u);
        EXPECT_EQ(s->type, STORAGE_UFS);
        EXPECT_EQ(lun_size(0), 1000ull * 4096);
        EXPECT_STREQ(s->part, "SIMDISK  UFS  0100");
        EXPECT_TRUE(c.has("...blksz = 4096\n"));
        EXPECT_TRUE(c.has("...part  = \"SIMDISK  UFS  0100\"\n"));
    });
}

TEST(StorageDiscovery, ALineGivesOneFactAndPatternsAreAnchored)
{
    with_link([&](fake_platform &fake) {
        // The LUN count behind the block size on the same line is not seen.
        fake.push_bytes(ack());
        fake.push_bytes(answer("value=\"ACK\"", {"SECTOR_SIZE_IN_BYTES=512 num_physical_partitions=1",
                                                 "num_partition_sectors=100"}));
        EXPECT_EQ(storage_init() & 0xFF, ERR_BAD_RESPONSE);
        EXPECT_EQ(device_getp("api.storage", nullptr), nullptr);

        // A pattern in the middle of a value does not match; the value in
        // the second line does.
        EXPECT_EQ(discover_with(fake, {"x Device Block Size in Bytes: 0x1000", "INFO: Device Block Size in Bytes: 0x200",
                                       "num_physical_partitions=1", "size Device Total Logical Blocks: 0x9",
                                       "Device Total Logical Blocks: 0x10"},
                            512, false),
                  0);
        EXPECT_EQ(storage_blksz(), 512u);
        EXPECT_EQ(lun_szblks(0), 16u);
    });
}

TEST(StorageDiscovery, LimitsAndFailuresFreeTheRecord)
{
    with_link([&](fake_platform &fake) {
        log_capture c;
        // Nine LUNs are too many.
        fake.push_all({ack(), answer("value=\"ACK\"", info_lines(0, 512, 9, 100))});
        EXPECT_EQ(storage_init() & 0xFF, ERR_GENERAL);
        // A block size of neither kind.
        fake.push_bytes(answer("value=\"ACK\"", info_lines(0, 1024, 1, 100)));
        EXPECT_EQ(storage_init() & 0xFF, ERR_BAD_RESPONSE);
        // A LUN of no sectors, and a LUN without a size line.
        fake.push_bytes(answer("value=\"ACK\"", info_lines(2, 512, 1, 0)));
        EXPECT_EQ(storage_init() & 0xFF, ERR_BAD_RESPONSE);
        fake.push_bytes(answer("value=\"ACK\"", {"SECTOR_SIZE_IN_BYTES=512", "num_physical_partitions=2",
                                                 "num_partition_sectors=64"}));
        fake.push_bytes(answer("value=\"ACK\"", {"nothing here"}));
        EXPECT_EQ(storage_init() & 0xFF, ERR_GENERAL);
        EXPECT_TRUE(c.has("size of LUN #1 not detected!\n"));
        EXPECT_EQ(device_getp("api.storage", nullptr), nullptr);

        // A refused first getStorageInfo marks that provisioning may hang;
        // each failed discovery asks the target anew.
        fake.written.clear();
        fake.push_bytes(nak());
        EXPECT_EQ(storage_init() & 0xFF, ERR_NAK);
        EXPECT_STREQ(device_get("provisioning_may_hang", nullptr), "true");
        fake.push_bytes(nak());
        EXPECT_EQ(storage_init() & 0xFF, ERR_NAK);
        EXPECT_EQ(attr_of(fake.written, "getStorageInfo", "physical_partition_number"),
                  (std::vector<std::string>{"0", "0"}));
        // Eight LUNs are fine; success takes the mark away.
        std::vector<lun_script> eight(8, lun_script{64, std::nullopt});
        push_discovery(fake, 512, eight, false);
        EXPECT_EQ(storage_init(), 0);
        EXPECT_EQ(device_get("provisioning_may_hang", nullptr), nullptr);
        EXPECT_EQ(get_storage()->num_luns, 8u);
        EXPECT_EQ(lun_size(7), 64u * 512);
        EXPECT_EQ(lun_size(8), 0u);
        EXPECT_EQ(get_error() & 0xFF, ERR_RANGE);
    });
}

TEST(StorageDiscovery, TablesUpToTheFirstLunWithout)
{
    with_link([&](fake_platform &fake) {
        push_discovery(fake, 4096,
                       {{1000, two_parts(4096, 1000, "boot", "data")},
                        {1000, std::nullopt},
                        {1000, two_parts(4096, 1000, "boot", "late")}});
        ASSERT_EQ(storage_init(), 0);
        pt *boot = pt_find("boot", -1);
        ASSERT_NE(boot, nullptr);
        EXPECT_EQ(pt_lun(boot), 0);
        EXPECT_EQ(boot->offset, 40ull * 4096);
        EXPECT_EQ(pt_size(boot), 60ull * 4096);
        EXPECT_TRUE(pt_needs_bnr(boot));
        EXPECT_FALSE(pt_needs_bnr(pt_find("data", 0)));
        EXPECT_EQ(pt_find("late", -1), nullptr);
        EXPECT_EQ(get_error() & 0xFF, ERR_NOT_FOUND);
        // No table was asked of LUN 2.
        EXPECT_EQ(attr_of(fake.written, "dump", "physical_partition_number"),
                  (std::vector<std::string>{"0", "0", "1"}));
        int count = 0;
        EXPECT_EQ(pt_forall(-1, [](pt *, void *n) { return ++*static_cast<int *>(n), 0; }, &count), 0);
        EXPECT_EQ(count, 2);
    });
}

TEST(StorageDiscovery, RediscoveryKeepsBlockSizeButNotPartitions)
{
    with_link([&](fake_platform &fake) {
        push_discovery(fake, 4096, {{1000, two_parts(4096, 1000, "a", "b")}});
        ASSERT_EQ(storage_init(), 0);
        storage *first = get_storage();
        size_t sent = commands(fake.written).size();

        // Invalidate only marks; the next use asks again. The target now
        // claims 512-byte sectors: the block size stays, the table is new.
        storage_invalidate();
        EXPECT_EQ(commands(fake.written).size(), sent);
        fake.push_bytes(answer("value=\"ACK\"", info_lines(0, 512, 1, 1000)));
        push_table(fake, make_gpt({{"c", 40, 99}}, 4096, 1000));
        ASSERT_EQ(storage_init(), 0);
        EXPECT_EQ(get_storage(), first);
        EXPECT_EQ(first->blksz, 4096u);
        EXPECT_EQ(pt_find("a", -1), nullptr);
        EXPECT_NE(pt_find("c", 0), nullptr);
        // The configure of the first discovery is not repeated.
        auto cmds = commands(fake.written);
        int configures = 0;
        for (auto &c : cmds)
            configures += c.rfind("configure", 0) == 0;
        EXPECT_EQ(configures, 1);

        // The dump at the end of the session.
        log_capture c;
        device_broadcast(DEVICE_EVENT_SAVE_LOGS, nullptr);
        EXPECT_TRUE(c.has("STORAGE {\n"));
        EXPECT_TRUE(c.has("  type = \"UFS\",\n"));
        EXPECT_TRUE(c.has("  blksz = 4096 (0x1000),\n"));
        EXPECT_TRUE(c.has("  luns[00] = {\n"));
        EXPECT_TRUE(c.has("    ptable[00] = { attrs.needs_bnr = 0, offset =     160K, size =     240K, name = \"c\" },\n"));
    });
}
