// Partition tables: storage discovery against a programmer whose LUNs hold
// the input, so gpt_open reads whatever the input says at the places it
// asks for; then the input as a table image for gpt_flash, and a table that
// gpt_flash wrote must open again.
//
// Input: a flags byte (bit 0: 4096-byte sectors, bit 1: two LUNs, bit 2:
// the CRCs of LBA 1 made to fit, bit 3: debug log, bits 4-7: the LUN has 16
// << n sectors), one byte N (allocation nth_allocation(N) from discovery on
// fails, 0 none), then the bytes of each LUN from LBA 0; zeros behind them.
#include <cstring>
#include <map>

#include "fuzz/fuzz.h"
#include "storage/gpt.h"
#include "storage/script.h"
#include "storage/storage.h"

namespace ravik::fuzz {

namespace {

uint64_t attr_of(const std::string &cmd, const char *key)
{
    size_t at = cmd.find(std::string(key) + "=\"");
    return at == std::string::npos ? 0 : strtoull(cmd.c_str() + at + strlen(key) + 2, nullptr, 0);
}

uint32_t le32(const std::string &s, size_t at)
{
    uint32_t v = 0;
    for (int i = 3; i >= 0; i--)
        v = v << 8 | (uint8_t)s[at + i];
    return v;
}

void put_le32(std::string &s, size_t at, uint32_t v)
{
    for (int i = 0; i < 4; i++)
        s[at + i] = (char)(v >> (8 * i));
}

// Makes both CRCs of the table at LBA 1 fit, where the input holds them.
void reseal(std::string &lun, uint32_t blksz)
{
    if (lun.size() < 2 * (size_t)blksz)
        return;
    uint64_t entry_lba = 0;
    for (int i = 7; i >= 0; i--)
        entry_lba = entry_lba << 8 | (uint8_t)lun[blksz + 72 + i];
    uint64_t bytes = (uint64_t)le32(lun, blksz + 80) * le32(lun, blksz + 84);
    if (entry_lba < lun.size() / blksz && bytes <= lun.size() - entry_lba * blksz)
        put_le32(lun, blksz + 88, test::ref_crc32(lun.data() + entry_lba * blksz, (size_t)bytes));
    uint32_t hsize = le32(lun, blksz + 12);
    if (hsize >= 20 && hsize <= blksz) {
        put_le32(lun, blksz + 16, 0);
        put_le32(lun, blksz + 16, test::ref_crc32(lun.data() + blksz, hsize));
    }
}

// The programmer: every command gets an ACK; getStorageInfo tells the
// geometry, dump sends sectors of the LUN, program writes them.
struct programmer {
    test::fake_platform &fake;
    std::string base;
    uint32_t blksz;
    uint32_t luns;
    uint64_t sectors;
    std::map<std::pair<uint64_t, uint64_t>, std::string> written; // (lun, sector)
    uint64_t prog_lun = 0, prog_at = 0, prog_left = 0;

    std::string sector(uint64_t lun, uint64_t n) const
    {
        auto it = written.find({lun, n});
        if (it != written.end())
            return it->second;
        std::string s(blksz, '\0');
        if (n * blksz < base.size())
            s.replace(0, std::string::npos, base, (size_t)(n * blksz), blksz);
        s.resize(blksz);
        return s;
    }

    void on_write(const std::string &bytes)
    {
        static const std::string head = "<?xml version=\"1.0\"?><data><";
        if (prog_left) {
            std::string data = bytes.substr(0, (size_t)std::min<uint64_t>(bytes.size(), prog_left));
            for (size_t at = 0; at < data.size(); at += blksz)
                written[{prog_lun, prog_at++}] = data.substr(at, blksz);
            prog_left -= data.size();
            if (!prog_left)
                fake.push_bytes(test::ack());
            return;
        }
        if (bytes.compare(0, head.size(), head) != 0)
            return;
        std::string name = bytes.substr(head.size(), bytes.find_first_of(" /", head.size()) - head.size());
        uint64_t lun = attr_of(bytes, "physical_partition_number");
        uint64_t start = attr_of(bytes, "start_sector"), count = attr_of(bytes, "num_partition_sectors");
        if (name == "getStorageInfo") {
            fake.push_bytes(test::answer("value=\"ACK\"", test::info_lines(0, blksz, luns, sectors)));
        } else if (name == "dump") {
            fake.push_bytes(test::raw_ack());
            std::string data;
            for (uint64_t i = 0; i < count && data.size() < (4u << 20); i++)
                data += sector(lun, start + i);
            fake.push_bytes(data);
        } else if (name == "program") {
            fake.push_bytes(test::raw_ack());
            prog_lun = lun;
            prog_at = start;
            prog_left = count * blksz;
            if (!prog_left)
                fake.push_bytes(test::ack());
        } else {
            fake.push_bytes(test::ack("secure=\"0\""));
        }
    }
};

// Finds each partition by name, and reads its first and last sector at the
// places its table entry gives, whatever they are.
int32_t visit(pt *p, void *)
{
    check(pt_name(p) && strlen(pt_name(p)) <= PT_NAME_MAX, "partition name");
    check(pt_find(pt_name(p), pt_lun(p)) != nullptr, "a listed partition not found by name");
    uint32_t blksz = storage_blksz();
    std::string sector(blksz, '\0');
    if (pt_seek(p, 0, 0) == 0 && pt_read(p, sector.data(), blksz) == blksz)
        check(p->pos == blksz, "position after a read");
    if (pt_seek(p, -(int64_t)blksz, 2) == 0 && pt_read(p, sector.data(), blksz) == blksz)
        check(p->pos == p->size, "position after reading the last sector");
    return 0;
}

} // namespace

void gpt_one(const uint8_t *data, size_t size)
{
    input in{data, size};
    uint8_t flags = in.byte();
    uint8_t fail_at = in.byte();
    uint32_t blksz = flags & 1 ? 4096 : 512;
    std::string lun = in.rest();
    if (flags & 4)
        reseal(lun, blksz);
    run_isolated([&] {
        test::fake_platform fake;
        programmer target{fake, lun, blksz, flags & 2 ? 2u : 1u, 16ull << (flags >> 4), {}};
        fake.on_write = [&](const std::string &bytes) { target.on_write(bytes); };
        if (flags & 8)
            logger_set_level(LOG_DEBUG);
        device_open();
        device_set("storage.type", "eMMC");
        device_set("cpu.vername", "v1");
        check(get_firehose() != nullptr, "bring-up");
        if (fail_at)
            mem_fail_nth(nth_allocation(fail_at));
        if (storage_init() == 0) {
            pt_forall(-1, visit, nullptr);
            validate_header(0, lun.data() + std::min<size_t>(lun.size(), blksz),
                            (uint32_t)(lun.size() - std::min<size_t>(lun.size(), blksz)));
            std::string image = lun;
            bool flashed = gpt_flash(0, image.data(), (uint32_t)image.size()) == 0;
            if (flashed && !fail_at) {
                check(storage_reinit() == 0, "rediscovery after a flash");
                check(gpt_open(0) == 0, "a table written by gpt_flash does not open");
                gpt_close();
            }
        }
        free_device();
    });
}

} // namespace ravik::fuzz

RAVIK_FUZZ_ENTRY(ravik::fuzz::gpt_one)
