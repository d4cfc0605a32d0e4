// Single-image containers: one file of named entries, read from a file or
// from memory, and changed in place.
//
// Layout: a 256-byte head block, then for each entry a 256-byte header
// (name, 248 bytes; little-endian 64-bit size at 248) and its data padded
// with zeros to a multiple of 4096, then a 256-byte tail block. File
// positions are 64 bits wide throughout, so containers may be many GiB.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ravik {

constexpr uint64_t SIMG_BLKSZ = 4096;
constexpr uint32_t SIMG_HDRSZ = 256;
constexpr int32_t SIMG_MAX_ENTRIES = 128;
constexpr uint32_t SIMG_NAME_MAX = 127;       // what a table record holds
constexpr uint32_t SIMG_FILE_NAME_MAX = 247;  // what a header holds
constexpr uint32_t SIMG_SIZE_AT = 248;        // size field within a header
constexpr const char *SIMG_HEAD_TEXT = "SINGLE_N_LONELY";
constexpr const char *SIMG_TAIL_TEXT = "LONELY_N_SINGLE";

// simg_open flag: create the file if it cannot be opened.
constexpr uint32_t SIMG_CREATE = 1;

struct simg_entry {
    char name[128];
    uint64_t size;      // bytes of data, without the padding
    uint64_t offset;    // position of the data from the start of file or image
    uint8_t *data;      // null until loaded
    uint32_t mapped : 1; // data points into the caller's memory image
    // Set when data lies in a mapping of the container file made by a load
    // rather than on the heap: data - map_at is where the mapping begins.
    uint32_t map_private : 1; // every page already copied on write
    uint64_t map_len;
    uint64_t map_at;
};

struct simg_orphan;

struct simg {
    char path[128];      // cut to 127 characters; empty for a memory image
    uint64_t end_offset; // just behind the last block walked or written
    int32_t num_entries;
    simg_entry entries[SIMG_MAX_ENTRIES];
    int fd;              // -1 for a memory image
    // Buffers of deleted records, kept valid until simg_close.
    simg_orphan *orphans;
};

// Reader. simg_open, simg_mopen, simg_load and simg_loads report through the
// thread's error slot; simg_find sets nothing.
simg *simg_open(const char *path, uint32_t flags);
// The image must stay alive and writable for the life of the handle: loads
// zero the padding and place text terminators in it.
simg *simg_mopen(void *image, uint64_t size);
simg_entry *simg_find(simg *h, const char *name);
// The record with data valid and zero-filled up to the next multiple of 4096.
simg_entry *simg_load(simg *h, const char *name);
// The same, with the last byte of the padded buffer set to NUL.
simg_entry *simg_loads(simg *h, const char *name);
// Ends the buffer for every user of the record; no reference count.
void simg_unload(simg *h, const char *name);
void simg_close(simg *h);

// Writer, for handles from simg_open only. simg_store and simg_import report
// through the error slot; the others return their code.
simg_entry *simg_store(simg *h, const void *data, uint64_t size, const char *name);
// A store in steps, for data that becomes final a piece at a time while it
// is produced: begin, any number of puts, end. Between begin and end the
// handle must not be changed, and the file reads as it did before begin.
struct simg_stage {
    simg *h;
    int fd;            // the handle's, so that a put never reads the handle
    uint64_t start;    // where the header goes: the old tail block
    uint64_t size;
    uint64_t written;  // bytes of data already in the file, whole blocks only
    int32_t failed;    // a put's code, reported by the end
    char name[SIMG_FILE_NAME_MAX + 1];
};
// The checks of a store; writes nothing. Returns its code.
int32_t simg_stage_begin(simg *h, uint64_t size, const char *name, simg_stage *st);
// Writes the whole blocks of data below `upto` that are not yet written, in
// short pieces, and starts the writeback of each without waiting. Safe on
// another thread than the rest of the stage, one put at a time: it allocates
// nothing, logs nothing and leaves the error slot alone. Returns 0 or ERR_IO
// (without a chain); a failure also makes the end fail.
int32_t simg_stage_put(simg_stage *st, const void *data, uint64_t upto);
// Writes the rest and makes the entry visible; reports like simg_store. A
// stage that never ends leaves no trace a reader sees.
simg_entry *simg_stage_end(simg_stage *st, const void *data);
// Without a name, the path as given becomes the entry name.
simg_entry *simg_import(simg *h, const char *path, const char *name);
int32_t simg_delete(simg *h, const char *name);
// Writes the entry into a new file whose path is the entry name.
int32_t simg_export(simg *h, const char *name);
// Writes the entry's bytes, without padding, to an open descriptor at its
// current position; for callers that choose where the output goes.
int32_t simg_export_fd(simg *h, const char *name, int out_fd);

// The system calls under the container files, replaceable one by one so
// tests can fail or stop any of them. Results as the calls themselves give.
struct simg_io_calls {
    int (*open)(const char *path, int flags, int mode);
    int (*close)(int fd);
    long (*pread)(int fd, void *buf, size_t n, uint64_t at);
    long (*pwrite)(int fd, const void *buf, size_t n, uint64_t at);
    long (*write)(int fd, const void *buf, size_t n);
    int (*fdatasync)(int fd);
    // Starts writing back a range without waiting for it.
    int (*writeback)(int fd, uint64_t at, uint64_t n);
    int (*file_size)(int fd, uint64_t *size);
    void *(*map_file)(void *at, size_t len, int fd, uint64_t offset);
    void *(*map_anon)(size_t len);
    int (*unmap)(void *at, size_t len);
};
simg_io_calls &simg_io();
void simg_io_reset();

} // namespace ravik
