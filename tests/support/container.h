// Containers built byte by byte, independent of the writer, and a recorder
// over the container module's system calls.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "container/container.h"
#include "support/bytes.h"

namespace ravik::test {

// name placed as is, up to 248 bytes; size: the header's size field, by default data.size().
struct raw_entry { std::string name, data; std::optional<uint64_t> size = {}; };
std::string simg_block(const std::string &text);
// Head, entries with their padding, tail (if asked for).
std::string simg_bytes(const std::vector<raw_entry> &entries, bool tail = true);

struct listed {
    std::string name;
    uint64_t size, offset;
    bool operator==(const listed &) const = default;
};
std::vector<listed> table_of(const simg *h);
// The first n bytes of a loaded entry (all by default), or for none err() of the thread's error.
std::string got(const simg_entry *e, size_t n = SIZE_MAX);
inline std::string err(int32_t code) { return "#" + std::to_string(code & 0xFF); }
// "open", or err() of the failure; the handle is closed.
std::string opened(simg *h);

// Replaces calls of the container module while it lives.
struct io_hook {
    io_hook();
    ~io_hook();
    io_hook(const io_hook &) = delete;
    static constexpr uint64_t SYNC = UINT64_MAX, WRITEBACK = UINT64_MAX - 1;
    struct write_rec { uint64_t at; std::string bytes; }; // at: or SYNC, WRITEBACK
    std::vector<write_rec> writes; // pwrite, fdatasync and writeback calls, in order
    // The call of this index in `writes` fails; torn: a failing pwrite puts down half its bytes.
    long fail_at = -1;
    bool torn = false, fail_map = false;
    bool record(uint64_t at, std::string bytes = {}); // true: this call fails
    simg_io_calls saved;
};

} // namespace ravik::test
