// GPT checks, hostile tables and the fitting of a table image to a LUN,
// against a scripted programmer.
#include <gtest/gtest.h>

#include "storage/gpt.h"
#include "storage/script.h"
#include "storage/storage.h"
#include "support/helpers.h"

using namespace ravik;
using namespace ravik::test;

namespace {

// One LUN of 1000 sectors of 4096 bytes, without a table.
void blank_lun(fake_platform &fake)
{
    push_discovery(fake, 4096, {{1000, std::nullopt}});
    ASSERT_EQ(storage_init(), 0);
    fake.written.clear();
}

int32_t validate(const std::string &h, uint32_t length = 4096) { return validate_header(0, h.data(), length); }

} // namespace

TEST(Gpt, HeaderChecks)
{
    with_link([&](fake_platform &fake) {
        blank_lun(fake);
        std::string h = make_gpt({{"a", 10, 20}}, 4096, 1000).header;
        EXPECT_EQ(validate(h), 0);
        EXPECT_EQ(validate(h, 91) & 0xFF, ERR_INVALID);

        auto with = [&](size_t at, int bytes, uint64_t v) {
            std::string c = h;
            set_le(c, at, bytes, v);
            reseal_header(c);
            return c;
        };
        EXPECT_EQ(validate(with(12, 4, 91)) & 0xFF, ERR_INVALID);
        EXPECT_EQ(validate(with(12, 4, 4097)) & 0xFF, ERR_INVALID);
        EXPECT_EQ(validate(with(12, 4, 4096)), 0);
        EXPECT_EQ(validate(with(24, 8, 2)) & 0xFF, ERR_INVALID);    // a backup header's own LBA
        EXPECT_EQ(validate(with(48, 8, 1000)) & 0xFF, ERR_INVALID); // last usable at the end
        EXPECT_EQ(validate(with(48, 8, 0)), 0);                     // filled in by a flash
        EXPECT_EQ(validate(with(40, 8, 5)) & 0xFF, ERR_INVALID);    // array does not fit before it
        EXPECT_EQ(validate(with(72, 8, 0)) & 0xFF, ERR_INVALID);
        // A LUN that does not exist has no room, unless the skip applies.
        EXPECT_EQ(validate_header(3, h.data(), 4096) & 0xFF, ERR_INVALID);
        EXPECT_EQ(validate_header(3, with(48, 8, 0).data(), 4096), 0);

        // Only the CRC wrong: refused, and the memory keeps its CRC.
        std::string bad = h;
        bad[16] ^= 1;
        std::string before = bad;
        EXPECT_EQ(validate(bad) & 0xFF, ERR_INVALID);
        EXPECT_EQ(bad, before);
        EXPECT_TRUE(fake.written.empty());
    });
}

TEST(Gpt, HostileTablesAreRefusedBeforeTheyAreRead)
{
    with_link([&](fake_platform &fake) {
        blank_lun(fake);
        auto try_open = [&](const gpt_bytes &g, bool array_too) {
            fake.written.clear();
            fake.push_all({raw_ack(), g.header});
            if (array_too) {
                fake.push_all({raw_ack(), g.array});
            }
            int32_t code = gpt_open(0);
            gpt_close();
            return code;
        };
        auto dumps = [&] { return attr_of(fake.written, "dump", "num_partition_sectors"); };
        gpt_bytes g = make_gpt({{"a", 10, 20}}, 4096, 1000);

        // Counts and sizes that would make a huge array, with sound CRCs:
        // refused on the header alone.
        for (auto [entries, size] : {std::pair<uint32_t, uint32_t>{0xFFFFFFFF, 128}, {2, 0x80000000}, {8193, 128},
                                     {1, 64}}) {
            gpt_bytes h = g;
            set_le(h.header, 80, 4, entries);
            set_le(h.header, 84, 4, size);
            reseal_header(h.header);
            EXPECT_EQ(try_open(h, false) & 0xFF, ERR_INVALID) << entries << " x " << size;
            EXPECT_EQ(dumps(), (std::vector<std::string>{"1"}));
        }
        // Bad CRCs of the header and of the array.
        gpt_bytes crc = g;
        crc.header[16] ^= 0x40;
        EXPECT_EQ(try_open(crc, false) & 0xFF, ERR_INVALID);
        crc = g;
        crc.array[200] = 'x';
        EXPECT_EQ(try_open(crc, true) & 0xFF, ERR_INVALID);
        EXPECT_EQ(dumps(), (std::vector<std::string>{"1", "4"}));
        // An array that runs past the end of the LUN is not asked for.
        gpt_bytes past = g;
        set_le(past.header, 72, 8, 990);
        set_le(past.header, 80, 4, 512);
        set_le(past.header, 40, 8, 996);
        set_le(past.header, 48, 8, 998);
        reseal_header(past.header);
        EXPECT_EQ(try_open(past, false) & 0xFF, ERR_RANGE);
        EXPECT_EQ(dumps(), (std::vector<std::string>{"1"}));
        EXPECT_EQ(get_gpt(), nullptr);

        // A sound one, opened twice, read to its end.
        fake.push_all({raw_ack(), g.header, raw_ack(), g.array});
        ASSERT_EQ(gpt_open(0), 0);
        EXPECT_EQ(gpt_open(0) & 0xFF, ERR_EXISTS);
        gpt_slot *slot = gpt_read();
        ASSERT_NE(slot, nullptr);
        EXPECT_STREQ(slot->name, "a");
        EXPECT_EQ(slot->offset, 10u * 4096);
        EXPECT_EQ(slot->size, 11u * 4096);
        int rest = 0;
        while (gpt_read())
            rest++;
        EXPECT_EQ(rest, 127);
        EXPECT_EQ(get_error() & 0xFF, ERR_RANGE);
        gpt_close();
        gpt_close();
        EXPECT_EQ(gpt_read(), nullptr);
        EXPECT_EQ(get_error() & 0xFF, ERR_GENERAL);

        // A name unit beyond ASCII gives its low byte.
        gpt_bytes wide = make_gpt({{"ab", 10, 20}}, 4096, 1000);
        wide.array[57] = 0x01; // 'a' becomes U+0161
        set_le(wide.header, 88, 4, ref_crc32(wide.array.data(), 128 * 128));
        reseal_header(wide.header);
        fake.push_all({raw_ack(), wide.header, raw_ack(), wide.array});
        ASSERT_EQ(gpt_open(0), 0);
        EXPECT_STREQ(gpt_read()->name, "ab");
        gpt_close();
    });
}

TEST(Gpt, FlashFitsTheImageToTheLun)
{
    with_link([&](fake_platform &fake) {
        blank_lun(fake);
        gpt_bytes g = make_gpt({{"x", 10, 19}, {"y", 20, 29}, {"z", 30, 31}}, 4096, 50, 3, 128, false);
        std::string image = g.image(4096);
        for (int i = 0; i < 3; i++) {
            fake.push_all({raw_ack(), ack()});
        }
        ASSERT_EQ(gpt_flash(0, image.data(), (uint32_t)image.size()), 0);
        // Primary copy, backup array, backup header.
        EXPECT_EQ(attr_of(fake.written, "program", "start_sector"), (std::vector<std::string>{"0", "995", "999"}));
        EXPECT_EQ(attr_of(fake.written, "program", "num_partition_sectors"), (std::vector<std::string>{"3", "1", "1"}));
        // The buffer holds the backup header now, and the grown last slot.
        std::string h = image.substr(4096, 4096), array = image.substr(8192);
        EXPECT_EQ(le(h, 24, 8), 999u);
        EXPECT_EQ(le(h, 32, 8), 1u);
        EXPECT_EQ(le(h, 72, 8), 995u);
        EXPECT_EQ(le(h, 48, 8), 994u);
        EXPECT_EQ(le(array, 2 * 128 + 40, 8), 994u);
        EXPECT_EQ(le(array, 1 * 128 + 40, 8), 29u);
        EXPECT_EQ(le(h, 88, 4), ref_crc32(array.data(), 3 * 128));
        std::string z = h.substr(0, 92);
        set_le(z, 16, 4, 0);
        EXPECT_EQ(le(h, 16, 4), ref_crc32(z.data(), 92));

        // An empty slot starts at 0, inside the image: nothing is written.
        fake.written.clear();
        gpt_bytes hole = make_gpt({{"x", 10, 19}}, 4096, 50, 2, 128, false);
        image = hole.image(4096);
        EXPECT_EQ(gpt_flash(0, image.data(), (uint32_t)image.size()) & 0xFF, ERR_RANGE);
        // Too short, array elsewhere, no LUN.
        gpt_bytes ok = make_gpt({{"x", 10, 19}}, 4096, 50, 1, 128, false);
        image = ok.image(4096);
        EXPECT_EQ(gpt_flash(0, image.data(), 8191) & 0xFF, ERR_INVALID);
        EXPECT_EQ(gpt_flash(0, image.data(), 8192) & 0xFF, ERR_INVALID);
        std::string moved = image;
        set_le(moved, 4096 + 72, 8, 3);
        std::string mh = moved.substr(4096, 4096);
        reseal_header(mh);
        moved.replace(4096, 4096, mh);
        EXPECT_EQ(gpt_flash(0, moved.data(), (uint32_t)moved.size()) & 0xFF, ERR_INVALID);
        EXPECT_NE(gpt_flash(-1, image.data(), (uint32_t)image.size()), 0);
        EXPECT_TRUE(fake.written.empty());
    });
}
