// Builds what a boot ROM sends and reads back what the host sent, written
// here by hand so a misreading in the client shows up as a failure.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace ravik::test {

inline void le32(std::string &s, uint32_t v)
{
    for (int i = 0; i < 4; i++)
        s.push_back((char)(v >> (8 * i)));
}
inline void le64(std::string &s, uint64_t v)
{
    le32(s, (uint32_t)v);
    le32(s, (uint32_t)(v >> 32));
}
inline uint32_t rd32(const std::string &s, size_t off)
{
    uint32_t v = 0;
    for (int i = 0; i < 4; i++)
        v |= (uint32_t)(uint8_t)s[off + i] << (8 * i);
    return v;
}

// A packet of the given words; the length field counts the whole packet.
inline std::string words(uint32_t command, std::vector<uint32_t> body, size_t pad_to = 0)
{
    std::string s;
    le32(s, command);
    le32(s, 0);
    for (uint32_t w : body)
        le32(s, w);
    if (s.size() < pad_to)
        s.resize(pad_to, '\0');
    uint32_t len = (uint32_t)s.size();
    for (int i = 0; i < 4; i++)
        s[4 + i] = (char)(len >> (8 * i));
    return s;
}

inline std::string hello(uint32_t mode, uint32_t version = 2)
{
    return words(1, {version, 1, 0x1000, mode}, 48);
}
inline std::string command_ready() { return words(11, {}); }
inline std::string exec_resp(uint32_t cmd, uint32_t len) { return words(14, {cmd, len}); }
inline std::string read_data(uint32_t offset, uint32_t count) { return words(3, {13, offset, count}); }
inline std::string read_data_64(uint64_t id, uint64_t offset, uint64_t count)
{
    std::string s;
    le32(s, 18);
    le32(s, 32);
    le64(s, id);
    le64(s, offset);
    le64(s, count);
    return s;
}
inline std::string end_image(uint32_t status) { return words(4, {13, status}); }
inline std::string done_resp(uint32_t status) { return words(6, {status}); }

// Splits what the host wrote into its packets, by their length fields;
// raw image bytes are taken by the sizes the test expects.
struct host_wire {
    std::string bytes;
    size_t at = 0;
    std::string next_packet()
    {
        if (at + 8 > bytes.size())
            return {};
        uint32_t len = rd32(bytes, at + 4);
        std::string p = bytes.substr(at, len);
        at += len;
        return p;
    }
    std::string next_raw(size_t n)
    {
        std::string p = bytes.substr(at, n);
        at += n;
        return p;
    }
    bool done() const { return at == bytes.size(); }
};

} // namespace ravik::test
