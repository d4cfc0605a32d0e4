// Bytes from the test's side: patterns, little-endian fields and a CRC of
// its own, so a misreading in the library does not hide behind the same
// misreading here.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace ravik::test {

// n bytes that differ from any other seed's and repeat nowhere soon.
inline std::string pattern(size_t n, uint32_t seed)
{
    std::string s(n, '\0');
    uint32_t x = seed * 2654435761u + 1;
    for (size_t i = 0; i < n; i++) {
        x = x * 1664525u + 1013904223u;
        s[i] = (char)(x >> 24);
    }
    return s;
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
// Appends v as `bytes` little-endian bytes.
inline void put_le(std::string &s, int bytes, uint64_t v)
{
    for (int i = 0; i < bytes; i++)
        s.push_back((char)(v >> (8 * i)));
}

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

void write_file(const std::string &path, const std::string &bytes);

} // namespace ravik::test
