// Containers built byte by byte, independent of the writer, and a recorder
// over the container module's system calls.
#pragma once

#include <cstdint>
#include <optional>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "container/container.h"

namespace ravik::test {

struct raw_entry {
    std::string name; // placed as is, up to 248 bytes
    std::string data;
    std::optional<uint64_t> size = {}; // the header's size field; default data.size()
};

std::string simg_block(const std::string &text);
std::string simg_header(const std::string &name, uint64_t size);
// Head, entries with their padding, tail (if asked for).
std::string simg_bytes(const std::vector<raw_entry> &entries, bool tail = true);
std::string pattern(size_t n, uint32_t seed);

void write_file(const std::string &path, const std::string &bytes);

struct listed {
    std::string name;
    uint64_t size;
    uint64_t offset;
    bool operator==(const listed &) const = default;
};
std::vector<listed> table_of(const simg *h);

// Replaces calls of the container module for as long as it lives; the
// original calls are put back on destruction.
class io_hook {
  public:
    io_hook();
    ~io_hook();
    io_hook(const io_hook &) = delete;
    io_hook &operator=(const io_hook &) = delete;

    static constexpr uint64_t SYNC = UINT64_MAX, WRITEBACK = UINT64_MAX - 1;
    struct write_rec {
        uint64_t at; // or SYNC for an fdatasync, WRITEBACK for a writeback
        std::string bytes;
    };
    std::vector<write_rec> writes; // pwrite, fdatasync and writeback calls, in order
    // When >= 0: the call of this index (0-based, counted in
    // `writes`) fails; torn makes a failing pwrite put down half its bytes.
    long fail_at = -1;
    bool torn = false;
    bool fail_map = false;
    bool fail_anon = false;
    bool fail_file_size = false;

  private:
    static io_hook *self;
    static long s_pwrite(int fd, const void *buf, size_t n, uint64_t at);
    static int s_fdatasync(int fd);
    static int s_writeback(int fd, uint64_t at, uint64_t n);
    static void *s_map_file(void *at, size_t len, int fd, uint64_t offset);
    static void *s_map_anon(size_t len);
    static int s_file_size(int fd, uint64_t *size);
    simg_io_calls saved_;
};

} // namespace ravik::test
