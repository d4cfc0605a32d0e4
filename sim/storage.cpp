#include "storage.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace ravik_sim {

namespace {

constexpr uint32_t ENTRIES = 128;
constexpr uint32_t ENTRY_SIZE = 128;
constexpr uint32_t HEADER_SIZE = 92;
constexpr uint64_t ALIGN = 4096;

// The type every partition gets; the host only looks at names and ranges.
constexpr uint8_t BASIC_DATA_TYPE[16] = {0xA2, 0xA0, 0xD0, 0xEB, 0xE5, 0xB9, 0x33, 0x44,
                                         0x87, 0xC0, 0x68, 0xB6, 0xB7, 0x26, 0x99, 0xC7};

const std::array<uint32_t, 256> &crc_table()
{
    static const std::array<uint32_t, 256> table = [] {
        std::array<uint32_t, 256> t{};
        for (uint32_t i = 0; i < 256; i++) {
            uint32_t c = i;
            for (int k = 0; k < 8; k++)
                c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
            t[i] = c;
        }
        return t;
    }();
    return table;
}

void put16(uint8_t *p, uint16_t v)
{
    p[0] = (uint8_t)v;
    p[1] = (uint8_t)(v >> 8);
}
void put32(uint8_t *p, uint32_t v)
{
    for (int i = 0; i < 4; i++)
        p[i] = (uint8_t)(v >> (8 * i));
}
void put64(uint8_t *p, uint64_t v)
{
    for (int i = 0; i < 8; i++)
        p[i] = (uint8_t)(v >> (8 * i));
}

uint64_t round_up(uint64_t v, uint64_t to) { return (v + to - 1) / to * to; }

// A GUID that stays the same for the same disk, LUN and slot, so a rebuilt
// table is byte-identical and a test can compare it.
void make_guid(uint8_t *out, uint64_t seed, uint64_t salt)
{
    uint64_t x = seed ^ (salt * 0x9E3779B97F4A7C15ull);
    for (int i = 0; i < 16; i++) {
        x ^= x >> 33;
        x *= 0xFF51AFD7ED558CCDull;
        x ^= x >> 29;
        out[i] = (uint8_t)x;
    }
    out[7] = (uint8_t)((out[7] & 0x0F) | 0x40); // version 4
    out[8] = (uint8_t)((out[8] & 0x3F) | 0x80); // variant
}

uint64_t parse_size(const std::string &s, int line)
{
    if (s == "*")
        return 0;
    size_t used = 0;
    uint64_t v = 0;
    try {
        v = std::stoull(s, &used, 0);
    } catch (...) {
        used = 0;
    }
    if (used == 0)
        throw std::runtime_error("layout line " + std::to_string(line) + ": bad size " + s);
    std::string suffix = s.substr(used);
    if (suffix == "K" || suffix == "k")
        v <<= 10;
    else if (suffix == "M" || suffix == "m")
        v <<= 20;
    else if (suffix == "G" || suffix == "g")
        v <<= 30;
    else if (!suffix.empty())
        throw std::runtime_error("layout line " + std::to_string(line) + ": bad size " + s);
    if (v == 0)
        throw std::runtime_error("layout line " + std::to_string(line) + ": size 0");
    return v;
}

} // namespace

uint32_t crc32(const void *data, size_t n, uint32_t crc)
{
    const auto &t = crc_table();
    const uint8_t *p = static_cast<const uint8_t *>(data);
    crc = ~crc;
    for (size_t i = 0; i < n; i++)
        crc = t[(crc ^ p[i]) & 0xFF] ^ (crc >> 8);
    return ~crc;
}

std::vector<part_layout> parse_layout(const std::string &text)
{
    std::vector<part_layout> parts;
    std::istringstream in(text);
    std::string line;
    int no = 0;
    while (std::getline(in, line)) {
        no++;
        if (auto hash = line.find('#'); hash != std::string::npos)
            line.erase(hash);
        std::istringstream words(line);
        std::string lun, name, size, flag;
        if (!(words >> lun))
            continue;
        if (!(words >> name >> size))
            throw std::runtime_error("layout line " + std::to_string(no) + ": need lun, name, size");
        part_layout p;
        try {
            p.lun = (unsigned)std::stoul(lun, nullptr, 0);
        } catch (...) {
            throw std::runtime_error("layout line " + std::to_string(no) + ": bad lun " + lun);
        }
        if (p.lun > 7)
            throw std::runtime_error("layout line " + std::to_string(no) + ": lun above 7");
        if (name.size() > 36)
            throw std::runtime_error("layout line " + std::to_string(no) + ": name too long");
        p.name = name;
        p.bytes = parse_size(size, no);
        while (words >> flag) {
            if (flag == "bnr")
                p.bnr = true;
            else
                throw std::runtime_error("layout line " + std::to_string(no) + ": unknown flag " + flag);
        }
        parts.push_back(p);
    }
    return parts;
}

std::string default_layout(bool ufs)
{
    if (!ufs)
        return "0 firmware 1M\n"
               "0 boot 8M\n"
               "0 config 512K bnr\n"
               "0 persist 2M bnr\n"
               "0 system 24M\n"
               "0 userdata *\n";
    return "0 persist 1M bnr\n"
           "0 system 8M\n"
           "0 userdata *\n"
           "1 bootloader_a 2M\n"
           "1 spare_a *\n"
           "2 bootloader_b 2M\n"
           "2 spare_b *\n";
}

gpt_image build_gpt(const std::vector<part_layout> &parts, unsigned lun, uint32_t blksz,
                    uint64_t sectors, uint64_t disk_seed)
{
    const uint64_t array_bytes = (uint64_t)ENTRIES * ENTRY_SIZE;
    const uint64_t array_sectors = round_up(array_bytes, blksz) / blksz;
    const uint64_t first_usable = 2 + array_sectors;
    if (sectors < 2 * first_usable + 1)
        throw std::runtime_error("LUN too small for a GPT");
    const uint64_t last_usable = sectors - array_sectors - 2;

    std::vector<uint8_t> array(array_sectors * blksz, 0);
    uint64_t next = first_usable * blksz;
    unsigned slot = 0;
    for (const auto &p : parts) {
        if (p.lun != lun)
            continue;
        if (slot == ENTRIES)
            throw std::runtime_error("more than 128 partitions on LUN " + std::to_string(lun));
        uint64_t start = round_up(next, ALIGN) / blksz;
        uint64_t end; // inclusive
        if (p.bytes == 0)
            end = last_usable;
        else
            end = start + round_up(p.bytes, blksz) / blksz - 1;
        if (start > last_usable || end > last_usable)
            throw std::runtime_error("partition " + p.name + " does not fit LUN " + std::to_string(lun));
        uint8_t *e = &array[slot * ENTRY_SIZE];
        std::memcpy(e, BASIC_DATA_TYPE, 16);
        make_guid(e + 16, disk_seed, (uint64_t)lun << 32 | (slot + 1));
        put64(e + 32, start);
        put64(e + 40, end);
        put64(e + 48, p.bnr ? (1ull << 5) : 0);
        for (size_t i = 0; i < p.name.size() && i < 36; i++)
            put16(e + 56 + 2 * i, (uint8_t)p.name[i]);
        next = (end + 1) * blksz;
        slot++;
    }
    const uint32_t array_crc = crc32(array.data(), array_bytes);

    auto header = [&](uint64_t self, uint64_t other, uint64_t entries_at) {
        std::vector<uint8_t> h(blksz, 0);
        std::memcpy(h.data(), "EFI PART", 8);
        put32(&h[8], 0x00010000);
        put32(&h[12], HEADER_SIZE);
        put64(&h[24], self);
        put64(&h[32], other);
        put64(&h[40], first_usable);
        put64(&h[48], last_usable);
        make_guid(&h[56], disk_seed, (uint64_t)lun << 32);
        put64(&h[72], entries_at);
        put32(&h[80], ENTRIES);
        put32(&h[84], ENTRY_SIZE);
        put32(&h[88], array_crc);
        put32(&h[16], crc32(h.data(), HEADER_SIZE));
        return h;
    };

    gpt_image img;
    img.primary.assign((2 + array_sectors) * blksz, 0);
    // Protective MBR: one partition of type 0xEE over the whole disk.
    uint8_t *mbr = img.primary.data();
    uint8_t *pe = mbr + 446;
    pe[1] = 0x00;
    pe[2] = 0x02;
    pe[3] = 0x00;
    pe[4] = 0xEE;
    pe[5] = pe[6] = pe[7] = 0xFF;
    put32(pe + 8, 1);
    put32(pe + 12, sectors - 1 > 0xFFFFFFFFull ? 0xFFFFFFFFu : (uint32_t)(sectors - 1));
    mbr[510] = 0x55;
    mbr[511] = 0xAA;
    auto primary = header(1, sectors - 1, 2);
    std::memcpy(&img.primary[blksz], primary.data(), blksz);
    std::memcpy(&img.primary[2 * blksz], array.data(), array.size());

    const uint64_t backup_array = sectors - 1 - array_sectors;
    auto backup = header(sectors - 1, 1, backup_array);
    img.backup = array;
    img.backup.insert(img.backup.end(), backup.begin(), backup.end());
    img.backup_at = backup_array * blksz;
    return img;
}

storage::~storage() { close(); }

void storage::close()
{
    for (int fd : fds_)
        if (fd >= 0)
            ::close(fd);
    fds_.clear();
}

std::string storage::path(unsigned lun) const { return dir_ + "/lun" + std::to_string(lun) + ".img"; }

void storage::open(const std::string &dir, unsigned luns, uint32_t blksz, uint64_t lun_bytes,
                   const std::string &layout, uint64_t disk_seed)
{
    close();
    dir_ = dir;
    blksz_ = blksz;
    lun_bytes_ = lun_bytes / blksz * blksz;
    // Parents too: several targets share one directory, each in its own.
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    if (ec)
        throw std::runtime_error("mkdir " + dir + ": " + ec.message());
    auto parts = parse_layout(layout);
    for (unsigned lun = 0; lun < luns; lun++) {
        std::string p = path(lun);
        int fd = ::open(p.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        if (fd < 0)
            throw std::runtime_error("open " + p + ": " + std::strerror(errno));
        fds_.push_back(fd);
        struct stat st;
        if (::fstat(fd, &st) == 0 && (uint64_t)st.st_size == lun_bytes_)
            continue; // kept from an earlier run
        if (::ftruncate(fd, 0) != 0 || ::ftruncate(fd, (off_t)lun_bytes_) != 0)
            throw std::runtime_error("truncate " + p + ": " + std::strerror(errno));
        gpt_image img = build_gpt(parts, lun, blksz, sectors(), disk_seed);
        if (!write(lun, 0, img.primary.data(), img.primary.size()) ||
            !write(lun, img.backup_at, img.backup.data(), img.backup.size()))
            throw std::runtime_error("write GPT to " + p);
    }
}

bool storage::write(unsigned lun, uint64_t pos, const void *data, size_t n)
{
    if (lun >= fds_.size() || pos > lun_bytes_ || n > lun_bytes_ - pos)
        return false;
    const uint8_t *p = static_cast<const uint8_t *>(data);
    while (n > 0) {
        ssize_t w = ::pwrite(fds_[lun], p, n, (off_t)pos);
        if (w < 0 && errno == EINTR)
            continue;
        if (w <= 0)
            return false;
        p += w;
        pos += (uint64_t)w;
        n -= (size_t)w;
    }
    return true;
}

bool storage::read(unsigned lun, uint64_t pos, void *data, size_t n)
{
    if (lun >= fds_.size() || pos > lun_bytes_ || n > lun_bytes_ - pos)
        return false;
    uint8_t *p = static_cast<uint8_t *>(data);
    while (n > 0) {
        ssize_t r = ::pread(fds_[lun], p, n, (off_t)pos);
        if (r < 0 && errno == EINTR)
            continue;
        if (r < 0)
            return false;
        if (r == 0) { // a hole at the end of a sparse file reads as zeros
            std::memset(p, 0, n);
            return true;
        }
        p += r;
        pos += (uint64_t)r;
        n -= (size_t)r;
    }
    return true;
}

} // namespace ravik_sim
