// Build step: writes the demo programmer to the path given.
#include "sim.h"

#include <cstdio>

int main(int argc, char **argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s FILE\n", argv[0]);
        return 2;
    }
    std::vector<uint8_t> elf = ravik_sim::demo_programmer();
    std::FILE *f = std::fopen(argv[1], "wb");
    if (!f)
        return 1;
    bool ok = std::fwrite(elf.data(), 1, elf.size(), f) == elf.size();
    return std::fclose(f) == 0 && ok ? 0 : 1;
}
