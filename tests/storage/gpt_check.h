// GPTs from the test's side: built and checked here with code of its own, so
// a misreading in the library does not hide behind the same misreading.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace ravik::test {

inline uint32_t ref_crc32(const void *data, size_t n)
{
    uint32_t c = 0xFFFFFFFFu;
    const auto *p = static_cast<const uint8_t *>(data);
    for (size_t i = 0; i < n; i++) {
        c ^= p[i];
        for (int k = 0; k < 8; k++)
            c = (c >> 1) ^ (0xEDB88320u & (0u - (c & 1)));
    }
    return ~c;
}

inline uint64_t le(const std::string &s, size_t at, int bytes)
{
    uint64_t v = 0;
    for (int i = bytes - 1; i >= 0; i--)
        v = v << 8 | (uint8_t)s[at + i];
    return v;
}
inline void set_le(std::string &s, size_t at, int bytes, uint64_t v)
{
    for (int i = 0; i < bytes; i++)
        s[at + i] = (char)(v >> (8 * i));
}

struct gpt_part {
    std::string name;
    uint64_t first, last; // LBAs
    uint64_t attrs = 0;
};

struct gpt_bytes {
    std::string header; // one sector, LBA 1
    std::string array;  // from LBA 2
    std::string image(uint32_t blksz) const { return std::string(blksz, '\0') + header + array; }
};

// A primary table with entry LBA 2. last_usable 0 is left as it is.
inline gpt_bytes make_gpt(const std::vector<gpt_part> &parts, uint32_t blksz, uint64_t sectors,
                          uint32_t entries = 128, uint32_t entry_size = 128, bool fill_last_usable = true)
{
    gpt_bytes g;
    uint64_t array_len = (uint64_t)entries * entry_size;
    uint64_t array_sectors = (array_len + blksz - 1) / blksz;
    g.array.assign(array_sectors * blksz, '\0');
    for (size_t i = 0; i < parts.size(); i++) {
        size_t at = i * entry_size;
        g.array[at] = 1; // a type GUID that is not zero
        set_le(g.array, at + 32, 8, parts[i].first);
        set_le(g.array, at + 40, 8, parts[i].last);
        set_le(g.array, at + 48, 8, parts[i].attrs);
        for (size_t k = 0; k < parts[i].name.size() && k < 36; k++)
            g.array[at + 56 + 2 * k] = parts[i].name[k];
    }
    g.header.assign(blksz, '\0');
    std::string &h = g.header;
    memcpy(&h[0], "EFI PART", 8);
    set_le(h, 8, 4, 0x00010000);
    set_le(h, 12, 4, 92);
    set_le(h, 24, 8, 1);
    set_le(h, 32, 8, sectors - 1);
    // Room for 128 slots at least, as real tables keep.
    uint64_t reserved = std::max<uint64_t>(array_sectors, (128ull * entry_size + blksz - 1) / blksz);
    set_le(h, 40, 8, 2 + reserved);
    set_le(h, 48, 8, fill_last_usable ? sectors - array_sectors - 2 : 0);
    set_le(h, 72, 8, 2);
    set_le(h, 80, 4, entries);
    set_le(h, 84, 4, entry_size);
    set_le(h, 88, 4, ref_crc32(g.array.data(), (size_t)array_len));
    set_le(h, 16, 4, ref_crc32(h.data(), 92));
    return g;
}

inline void reseal_header(std::string &h)
{
    set_le(h, 16, 4, 0);
    set_le(h, 16, 4, ref_crc32(h.data(), (size_t)le(h, 12, 4)));
}

// Everything a reader of the whole LUN relies on, both copies; "" when
// sound, else what is wrong.
inline std::string check_gpt(const std::string &lun, uint32_t blksz)
{
    uint64_t sectors = lun.size() / blksz;
    auto header_ok = [&](uint64_t lba, uint64_t expect_alt, std::string &why) {
        std::string h = lun.substr(lba * blksz, blksz);
        if (h.compare(0, 8, "EFI PART") != 0)
            return why = "no signature at LBA " + std::to_string(lba), false;
        uint64_t size = le(h, 12, 4);
        std::string z = h.substr(0, size);
        set_le(z, 16, 4, 0);
        if (ref_crc32(z.data(), z.size()) != le(h, 16, 4))
            return why = "header CRC at LBA " + std::to_string(lba), false;
        if (le(h, 24, 8) != lba || le(h, 32, 8) != expect_alt)
            return why = "my/alternate LBA at " + std::to_string(lba), false;
        uint64_t first = le(h, 40, 8), last = le(h, 48, 8), entry_lba = le(h, 72, 8);
        uint64_t bytes = le(h, 80, 4) * le(h, 84, 4);
        if (first > last || last >= sectors)
            return why = "usable range", false;
        if (entry_lba * blksz + bytes > lun.size())
            return why = "array past the LUN", false;
        if (ref_crc32(lun.data() + entry_lba * blksz, bytes) != le(h, 88, 4))
            return why = "array CRC at LBA " + std::to_string(entry_lba), false;
        // Every used entry within the usable range.
        for (uint64_t i = 0; i < le(h, 80, 4); i++) {
            size_t at = (size_t)(entry_lba * blksz + i * le(h, 84, 4));
            uint64_t f = le(lun, at + 32, 8), l = le(lun, at + 40, 8);
            if (f == 0 && l == 0)
                continue;
            if (f < first || l > last || f > l)
                return why = "entry " + std::to_string(i) + " out of the usable range", false;
        }
        return true;
    };
    std::string why;
    if (!header_ok(1, sectors - 1, why) || !header_ok(sectors - 1, 1, why))
        return why;
    std::string p = lun.substr(blksz, blksz), b = lun.substr((sectors - 1) * blksz, blksz);
    for (size_t at : {40, 48, 56, 64, 80, 84, 88})
        if (p.compare(at, 8, b, at, 8) != 0)
            return "copies differ at header byte " + std::to_string(at);
    return "";
}

} // namespace ravik::test
