// What a boot ROM sends, built by hand so that a misreading in the client shows.
#pragma once

#include <algorithm>
#include <vector>

#include "support/bytes.h"

namespace ravik::test {

inline std::string u32s(std::vector<uint32_t> v)
{
    std::string s;
    for (uint32_t w : v)
        put_le(s, 4, w);
    return s;
}
// A packet of the given words; the length field counts the whole packet.
inline std::string words(uint32_t command, std::vector<uint32_t> body, size_t pad_to = 0)
{
    std::string s = u32s({command, 0}) + u32s(body);
    s.resize(std::max(s.size(), pad_to), '\0');
    set_le(s, 4, 4, s.size());
    return s;
}

inline std::string hello(uint32_t mode, uint32_t version = 2) { return words(1, {version, 1, 0x1000, mode}, 48); }
inline std::string command_ready() { return words(11, {}); }
inline std::string exec_resp(uint32_t cmd, uint32_t len) { return words(14, {cmd, len}); }
inline std::string read_data(uint32_t offset, uint32_t count) { return words(3, {13, offset, count}); }
inline std::string read_data_64(uint64_t id, uint64_t offset, uint64_t count)
{
    std::string s;
    for (auto [n, v] : {std::pair<int, uint64_t>{4, 18}, {4, 32}, {8, id}, {8, offset}, {8, count}})
        put_le(s, n, v);
    return s;
}
inline std::string end_image(uint32_t status) { return words(4, {13, status}); }
inline std::string done_resp(uint32_t status) { return words(6, {status}); }
// The host's answer to HELLO: version 2 whatever the target said.
inline std::string hello_resp(uint32_t mode) { return words(2, {2, 2, 0, mode}, 48); }

} // namespace ravik::test
