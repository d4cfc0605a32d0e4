// Shared by the reader and the writer of the container module; not for other
// modules.
#pragma once

#include <cstdint>

#include "container/container.h"

namespace ravik {

struct simg_orphan {
    simg_orphan *next;
    simg_entry entry;
};

// Largest position a file can have.
constexpr uint64_t SIMG_POS_MAX = INT64_MAX;

// round_up(size, SIMG_BLKSZ); false when that does not fit in 64 bits.
inline bool simg_padded(uint64_t size, uint64_t *out)
{
    if (size > UINT64_MAX - (SIMG_BLKSZ - 1))
        return false;
    *out = (size + SIMG_BLKSZ - 1) & ~(SIMG_BLKSZ - 1);
    return true;
}

// The whole text with its NUL, as the head and tail blocks begin.
bool simg_is_block(const uint8_t *block, const char *text);
void simg_put_block(uint8_t *block, const char *text);

// Whole-count transfers over the replaceable calls: the bytes moved, short
// only at the end of the file, or -1 on an error.
long simg_read_at(int fd, void *buf, size_t n, uint64_t at);
// 0, or -1 when any part could not be written.
int simg_write_at(int fd, const void *buf, size_t n, uint64_t at);
int simg_write_all(int fd, const void *buf, size_t n);

// Releases the buffer of a loaded file entry, mapping or heap block alike.
void simg_release(simg_entry *e);
// Copies every page of the entry's file mapping on write, so that the writer
// may change the file under it without the buffer seeing it.
void simg_make_private(simg_entry *e);

} // namespace ravik
