// The demo programmer: a small 64-bit little-endian ELF with two loadable
// segments whose sizes are no multiple of a READ_DATA chunk, and bytes no
// segment covers, so an upload that serves the wrong range shows.
#include "engine.h"

#include <cstring>

namespace ravik_sim {

namespace {

void put16(uint8_t *p, uint16_t v)
{
    p[0] = (uint8_t)v;
    p[1] = (uint8_t)(v >> 8);
}

void fill_pattern(uint8_t *p, size_t n, uint64_t seed)
{
    uint64_t x = seed;
    for (size_t i = 0; i < n; i++) {
        x ^= x << 13;
        x ^= x >> 7;
        x ^= x << 17;
        p[i] = (uint8_t)(x >> 24);
    }
}

} // namespace

std::vector<uint8_t> demo_programmer()
{
    constexpr uint64_t text_off = 0x1000, text_size = 40000;
    constexpr uint64_t data_off = 0xB000, data_size = 6000;
    constexpr uint64_t trailer = 256;
    constexpr uint64_t base = 0x80000000;
    std::vector<uint8_t> f(data_off + data_size + trailer, 0);

    uint8_t *e = f.data();
    const uint8_t ident[] = {0x7F, 'E', 'L', 'F', 2 /* 64-bit */, 1 /* LE */, 1 /* version */};
    std::memcpy(e, ident, sizeof ident);
    put16(e + 16, 2);   // ET_EXEC
    put16(e + 18, 183); // AArch64
    put32(e + 20, 1);
    put64(e + 24, base);       // entry
    put64(e + 32, 64);         // program headers right behind this header
    put64(e + 40, 0);          // no section headers
    put32(e + 48, 0);
    put16(e + 52, 64);         // header size
    put16(e + 54, 56);         // program header size
    put16(e + 56, 3);          // program header count
    put16(e + 58, 64);
    put16(e + 60, 0);
    put16(e + 62, 0);

    auto phdr = [&](int i, uint32_t type, uint32_t flags, uint64_t off, uint64_t vaddr,
                    uint64_t filesz, uint64_t memsz) {
        uint8_t *p = e + 64 + 56 * i;
        put32(p, type);
        put32(p + 4, flags);
        put64(p + 8, off);
        put64(p + 16, vaddr);
        put64(p + 24, vaddr);
        put64(p + 32, filesz);
        put64(p + 40, memsz);
        put64(p + 48, 0x1000);
    };
    phdr(0, 4 /* PT_NOTE */, 4, 0, 0, 0, 0); // empty: a loader skips it
    phdr(1, 1 /* PT_LOAD */, 5, text_off, base, text_size, text_size);
    phdr(2, 1 /* PT_LOAD */, 6, data_off, base + 0x20000, data_size, data_size + 0x800);

    static const char banner[] = "ravik-sim demo programmer";
    fill_pattern(e + text_off, text_size, 0x5EED0001);
    std::memcpy(e + text_off, banner, sizeof banner);
    fill_pattern(e + data_off, data_size, 0x5EED0002);
    fill_pattern(e + data_off + data_size, trailer, 0x5EED0003);
    return f;
}

} // namespace ravik_sim
