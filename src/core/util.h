// Small utilities: the clock, sizes as text, the log's hex dump, CRC-32 and
// a re-entrant tokenizer.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ravik {

// Wall-clock seconds with microseconds; only ever used as a difference.
double now();
// The shortest exact binary form of a size: 1536, 2K, 1025K, 1M, 1G.
char *humanize_r(uint64_t value, char *buf, size_t size);
// The same into one static buffer shared by all threads: not for the library.
char *humanize(uint64_t value);
// The canonical 16-bytes-a-line dump, one debug line per output line.
void hexdump(const void *data, size_t length);
// IEEE 802.3 CRC-32, reflected; chain calls by passing the previous result.
uint32_t crc32(uint32_t crc, const void *data, size_t length);
char *strtok_r(char *text, const char *delims, char **save);

} // namespace ravik
