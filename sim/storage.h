// The target's storage: one sparse file per LUN, each with a GPT when new.
//
// Layout text, one partition a line, '#' starts a comment:
//     <lun> <name> <size> [bnr]
// size is a byte count with an optional K, M or G suffix (powers of 1024),
// or '*' for the rest of the LUN. "bnr" sets attribute bit 5, the mark of a
// partition that must survive a flash. Partitions follow each other in the
// order given, each starting on a 4 KiB boundary.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace ravik_sim {

uint32_t crc32(const void *data, size_t n, uint32_t crc = 0);

struct part_layout {
    unsigned lun = 0;
    std::string name;
    uint64_t bytes = 0; // 0: the rest of the LUN
    bool bnr = false;
};

// Throws std::runtime_error with the line number on a bad line.
std::vector<part_layout> parse_layout(const std::string &text);
std::string default_layout(bool ufs);

// Builds the whole GPT of a LUN: the protective MBR and primary table
// (returned in primary, to be written at byte 0) and the backup array and
// header (in backup, to be written at the byte backup_at).
struct gpt_image {
    std::vector<uint8_t> primary;
    std::vector<uint8_t> backup;
    uint64_t backup_at = 0;
};
gpt_image build_gpt(const std::vector<part_layout> &parts, unsigned lun, uint32_t blksz,
                    uint64_t sectors, uint64_t disk_seed);

class storage {
  public:
    storage() = default;
    ~storage();
    storage(const storage &) = delete;
    storage &operator=(const storage &) = delete;

    // Opens or creates dir/lun<N>.img for every LUN. A file that is new or
    // of another size is made anew, sparse, with its GPT from the layout.
    void open(const std::string &dir, unsigned luns, uint32_t blksz, uint64_t lun_bytes,
              const std::string &layout, uint64_t disk_seed);
    void close();

    uint32_t blksz() const { return blksz_; }
    unsigned luns() const { return (unsigned)fds_.size(); }
    uint64_t lun_bytes() const { return lun_bytes_; }
    uint64_t sectors() const { return lun_bytes_ / blksz_; }
    std::string path(unsigned lun) const;

    // Byte-addressed; false if the range leaves the LUN or the file fails.
    bool write(unsigned lun, uint64_t pos, const void *data, size_t n);
    bool read(unsigned lun, uint64_t pos, void *data, size_t n);

  private:
    std::string dir_;
    std::vector<int> fds_;
    uint32_t blksz_ = 512;
    uint64_t lun_bytes_ = 0;
};

} // namespace ravik_sim
