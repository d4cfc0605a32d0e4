// GPTs built and checked with the test's own code, so a misreading in the library cannot hide.
#pragma once

#include <algorithm>
#include <cstring>
#include <vector>

#include "support/bytes.h"

namespace ravik::test {

struct gpt_part { std::string name; uint64_t first, last, attrs = 0; }; // by LBA

struct gpt_bytes {
    std::string header, array; // one sector at LBA 1, and from LBA 2
    std::string image(uint32_t blksz) const { return std::string(blksz, '\0') + header + array; }
};

inline void reseal_header(std::string &h)
{
    set_le(h, 16, 4, 0);
    set_le(h, 16, 4, ref_crc32(h.data(), (size_t)le(h, 12, 4)));
}

// A primary table with entry LBA 2. last_usable 0 is left as it is.
inline gpt_bytes make_gpt(const std::vector<gpt_part> &parts, uint32_t blksz, uint64_t sectors,
                          uint32_t entries = 128, uint32_t entry_size = 128, bool fill_last_usable = true)
{
    gpt_bytes g;
    uint64_t array_len = (uint64_t)entries * entry_size, array_sectors = (array_len + blksz - 1) / blksz;
    g.array.assign(array_sectors * blksz, '\0');
    for (size_t i = 0; i < parts.size(); i++) {
        size_t at = i * entry_size;
        g.array[at] = 1; // a type GUID that is not zero
        for (auto [off, v] : {std::pair<int, uint64_t>{32, parts[i].first}, {40, parts[i].last}, {48, parts[i].attrs}})
            set_le(g.array, at + off, 8, v);
        for (size_t k = 0; k < parts[i].name.size() && k < 36; k++)
            g.array[at + 56 + 2 * k] = parts[i].name[k];
    }
    std::string &h = g.header.assign(blksz, '\0');
    memcpy(&h[0], "EFI PART", 8);
    // Room for 128 slots at least, as real tables keep.
    uint64_t reserved = std::max<uint64_t>(array_sectors, (128ull * entry_size + blksz - 1) / blksz);
    uint64_t last_usable = fill_last_usable ? sectors - array_sectors - 2 : 0;
    for (auto [at, n, v] : {std::tuple<int, int, uint64_t>{8, 4, 0x00010000}, {12, 4, 92}, {24, 8, 1},
                            {32, 8, sectors - 1}, {40, 8, 2 + reserved}, {48, 8, last_usable}, {72, 8, 2},
                            {80, 4, entries}, {84, 4, entry_size}, {88, 4, ref_crc32(g.array.data(), array_len)}})
        set_le(h, at, n, v);
    reseal_header(h);
    return g;
}

// Everything a reader of the whole LUN relies on, both copies: "" when sound, else what is wrong.
inline std::string check_gpt(const std::string &lun, uint32_t blksz)
{
    uint64_t sectors = lun.size() / blksz;
    auto header_ok = [&](uint64_t lba, uint64_t expect_alt) -> std::string {
        std::string h = lun.substr(lba * blksz, blksz), at = " at LBA " + std::to_string(lba);
        if (h.compare(0, 8, "EFI PART") != 0)
            return "no signature" + at;
        std::string z = h.substr(0, le(h, 12, 4));
        set_le(z, 16, 4, 0);
        if (ref_crc32(z.data(), z.size()) != le(h, 16, 4))
            return "header CRC" + at;
        if (le(h, 24, 8) != lba || le(h, 32, 8) != expect_alt)
            return "my/alternate LBA" + at;
        uint64_t first = le(h, 40, 8), last = le(h, 48, 8), entry_lba = le(h, 72, 8);
        uint64_t count = le(h, 80, 4), size = le(h, 84, 4);
        if (first > last || last >= sectors)
            return "usable range";
        if (entry_lba * blksz + count * size > lun.size())
            return "array past the LUN";
        if (ref_crc32(lun.data() + entry_lba * blksz, count * size) != le(h, 88, 4))
            return "array CRC at LBA " + std::to_string(entry_lba);
        // Every used entry within the usable range.
        for (uint64_t i = 0; i < count; i++) {
            uint64_t at = entry_lba * blksz + i * size, f = le(lun, at + 32, 8), l = le(lun, at + 40, 8);
            if ((f || l) && (f < first || l > last || f > l))
                return "entry " + std::to_string(i) + " out of the usable range";
        }
        return "";
    };
    for (auto [lba, alt] : {std::pair<uint64_t, uint64_t>{1, sectors - 1}, {sectors - 1, 1}})
        if (std::string why = header_ok(lba, alt); !why.empty())
            return why;
    std::string p = lun.substr(blksz, blksz), b = lun.substr((sectors - 1) * blksz, blksz);
    for (size_t at : {40, 48, 56, 64, 80, 84, 88})
        if (p.compare(at, 8, b, at, 8) != 0)
            return "copies differ at header byte " + std::to_string(at);
    return "";
}

} // namespace ravik::test
