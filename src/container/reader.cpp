// Opening a container from a file or from memory, and loading its entries.
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "container/internal.h"
#include "core/core.h"

namespace ravik {

namespace {

// Entries of at least this padded size are loaded as private mappings of the
// file: a copy costs its full size in anonymous memory, a mapping only the
// pages that are written to. Below it a heap copy is cheaper than the two
// mapping calls and the page-table work.
constexpr uint64_t MAP_THRESHOLD = 1u << 20;

uint64_t get_le64(const uint8_t *p)
{
    uint64_t v = 0;
    for (int i = 7; i >= 0; i--)
        v = (v << 8) | p[i];
    return v;
}

uint64_t page_size()
{
    long n = sysconf(_SC_PAGESIZE);
    return n > 0 ? (uint64_t)n : 4096;
}

void fill_record(simg_entry *e, const uint8_t *header, uint64_t offset)
{
    memset(e, 0, sizeof(*e));
    size_t len = strnlen(reinterpret_cast<const char *>(header), SIMG_NAME_MAX);
    memcpy(e->name, header, len);
    e->size = get_le64(header + SIMG_SIZE_AT);
    e->offset = offset;
}

// The walk over a file, from `pos` onwards: it ends at the tail block, at an
// empty name or where the file ends, which a truncated file does without error.
int32_t walk_file(simg *h, uint64_t pos)
{
    for (;;) {
        uint8_t block[SIMG_HDRSZ];
        long got = simg_read_at(h->fd, block, sizeof(block), pos);
        if (got < 0)
            RK_RETURN(ERR_IO);
        pos += (uint64_t)got;
        if (got < (long)sizeof(block) || simg_is_block(block, SIMG_TAIL_TEXT) || block[0] == 0)
            break;
        if (h->num_entries == SIMG_MAX_ENTRIES)
            RK_RETURN(ERR_RANGE);
        simg_entry *e = &h->entries[h->num_entries];
        fill_record(e, block, pos);
        // A data area that reaches past the largest position a file can have
        // is a seek that fails; one merely past the end of the file is not.
        uint64_t padded;
        if (!simg_padded(e->size, &padded) || padded > SIMG_POS_MAX - pos)
            RK_RETURN(ERR_IO);
        pos += padded;
        h->num_entries++;
    }
    h->end_offset = pos;
    return 0;
}

int32_t open_file(simg *h, const char *path, uint32_t flags)
{
    simg_io_calls &io = simg_io();
    uint8_t block[SIMG_HDRSZ];
    uint64_t pos;
    h->fd = io.open(path, O_RDWR | O_CLOEXEC, 0);
    if (h->fd >= 0) {
        if (simg_read_at(h->fd, block, sizeof(block), 0) != (long)sizeof(block))
            RK_RETURN(ERR_IO);
        if (!simg_is_block(block, SIMG_HEAD_TEXT))
            RK_RETURN(ERR_INVALID);
        pos = SIMG_HDRSZ;
    } else if (flags & SIMG_CREATE) {
        h->fd = io.open(path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (h->fd < 0)
            RK_RETURN(ERR_IO);
        uint8_t blocks[2 * SIMG_HDRSZ];
        simg_put_block(blocks, SIMG_HEAD_TEXT);
        simg_put_block(blocks + SIMG_HDRSZ, SIMG_TAIL_TEXT);
        if (simg_write_at(h->fd, blocks, sizeof(blocks), 0) != 0)
            RK_RETURN(ERR_IO);
        pos = sizeof(blocks);
    } else {
        RK_RETURN(ERR_IO);
    }
    RK_RETURN(walk_file(h, pos));
}

// The memory walk checks that every entry fits in the image, so that a
// partition image that merely begins with the head text is refused.
int32_t walk_memory(simg *h, uint8_t *image, uint64_t size)
{
    if (!image || size < SIMG_HDRSZ || !simg_is_block(image, SIMG_HEAD_TEXT))
        RK_RETURN(ERR_INVALID);
    uint64_t pos = SIMG_HDRSZ;
    uint64_t remaining = size - SIMG_HDRSZ;
    while (remaining > SIMG_HDRSZ) {
        const uint8_t *block = image + pos;
        if (simg_is_block(block, SIMG_TAIL_TEXT)) {
            pos += SIMG_HDRSZ;
            break;
        }
        if (block[0] == 0)
            break;
        if (h->num_entries == SIMG_MAX_ENTRIES)
            RK_RETURN(ERR_RANGE);
        simg_entry *e = &h->entries[h->num_entries];
        fill_record(e, block, pos + SIMG_HDRSZ);
        uint64_t padded;
        if (!simg_padded(e->size, &padded) || padded > remaining - SIMG_HDRSZ)
            RK_RETURN(ERR_INVALID);
        e->data = image + e->offset;
        e->mapped = 1;
        pos += SIMG_HDRSZ + padded;
        remaining -= SIMG_HDRSZ + padded;
        h->num_entries++;
    }
    h->end_offset = pos;
    return 0;
}

// A private mapping of the entry's pages, laid over an anonymous reservation
// of the whole padded length: pages past the end of the file then read as
// zeros instead of faulting.
int32_t map_entry(simg_entry *e, uint64_t padded, uint64_t file_size, int fd)
{
    simg_io_calls &io = simg_io();
    uint64_t page = page_size();
    uint64_t base = e->offset & ~(page - 1);
    uint64_t lead = e->offset - base;
    uint64_t len = (lead + padded + page - 1) & ~(page - 1);
    uint64_t in_file = (file_size - base + page - 1) & ~(page - 1);
    if (in_file > len)
        in_file = len;
    uint8_t *at = static_cast<uint8_t *>(io.map_anon(len));
    if (!at)
        RK_RETURN(ERR_NO_MEMORY);
    if (io.map_file(at, in_file, fd, base) != at) {
        io.unmap(at, len);
        RK_RETURN(ERR_NO_MEMORY);
    }
    e->data = at + lead;
    e->map_len = len;
    e->map_at = lead;
    return 0;
}

int32_t read_entry(simg *h, simg_entry *e, uint64_t padded)
{
    simg_io_calls &io = simg_io();
    uint64_t file_size;
    if (h->fd < 0 || io.file_size(h->fd, &file_size) != 0)
        RK_RETURN(ERR_IO);
    // A read of no bytes counts as failed, as does data the file lacks.
    if (e->size == 0 || e->offset > file_size || e->size > file_size - e->offset)
        RK_RETURN(ERR_IO);
    if (padded > SIZE_MAX)
        RK_RETURN(ERR_NO_MEMORY);
    if (padded >= MAP_THRESHOLD)
        RK_RETURN(map_entry(e, padded, file_size, h->fd));
    uint8_t *buf = static_cast<uint8_t *>(mem_zalloc((size_t)padded));
    if (!buf)
        RK_RETURN(ERR_NO_MEMORY);
    if (simg_read_at(h->fd, buf, (size_t)e->size, e->offset) != (long)e->size) {
        mem_free(buf);
        RK_RETURN(ERR_IO);
    }
    e->data = buf;
    return 0;
}

int32_t fill_entry(simg *h, const char *name, bool text, simg_entry **out)
{
    simg_entry *e = simg_find(h, name);
    if (!e)
        RK_RETURN(ERR_NOT_FOUND);
    uint64_t padded;
    if (!simg_padded(e->size, &padded))
        RK_RETURN(ERR_IO);
    if (!e->data) {
        int32_t code = read_entry(h, e, padded);
        if (code)
            RK_RETURN(code);
    }
    memset(e->data + e->size, 0, (size_t)(padded - e->size));
    if (text) {
        // An empty entry of a memory image has no byte of its own for the
        // terminator; the next header or the end of the image lies there, so
        // such a text load is refused rather than writing into either.
        if (padded == 0)
            RK_RETURN(ERR_INVALID);
        e->data[padded - 1] = 0;
    }
    *out = e;
    return 0;
}

simg_entry *load_entry(simg *h, const char *name, bool text)
{
    simg_entry *e = nullptr;
    int32_t code = fill_entry(h, name, text, &e);
    if (code != 0) {
        RK_LOGE("Error: %s\n", err_str(code & ERR_CODE_MASK));
        RK_SET_ERROR(code);
        return nullptr;
    }
    RK_SET_ERROR(0);
    return e;
}

} // namespace

void simg_release(simg_entry *e)
{
    if (e->mapped || !e->data)
        return;
    if (e->map_len)
        simg_io().unmap(e->data - e->map_at, e->map_len);
    else
        mem_free(e->data);
    e->data = nullptr;
    e->map_len = 0;
    e->map_at = 0;
    e->map_private = 0;
}

void simg_make_private(simg_entry *e)
{
    if (e->mapped || !e->data || !e->map_len || e->map_private)
        return;
    uint64_t page = page_size();
    volatile uint8_t *base = e->data - e->map_at;
    for (uint64_t at = 0; at < e->map_len; at += page)
        base[at] = base[at];
    e->map_private = 1;
}

simg *simg_open(const char *path, uint32_t flags)
{
    simg *h = mem_new<simg>();
    if (!h) {
        RK_SET_ERROR(ERR_NO_MEMORY);
        return nullptr;
    }
    h->fd = -1;
    if (path) {
        size_t len = strnlen(path, SIMG_NAME_MAX);
        memcpy(h->path, path, len);
    }
    int32_t code = path ? open_file(h, path, flags) : ERR_IO;
    if (code != 0) {
        simg_close(h);
        RK_SET_ERROR(code);
        return nullptr;
    }
    RK_SET_ERROR(0);
    return h;
}

simg *simg_mopen(void *image, uint64_t size)
{
    simg *h = mem_new<simg>();
    if (!h) {
        RK_SET_ERROR(ERR_NO_MEMORY);
        return nullptr;
    }
    h->fd = -1;
    int32_t code = walk_memory(h, static_cast<uint8_t *>(image), size);
    if (code != 0) {
        simg_close(h);
        RK_SET_ERROR(code);
        return nullptr;
    }
    RK_SET_ERROR(0);
    return h;
}

simg_entry *simg_find(simg *h, const char *name)
{
    if (!h || !name)
        return nullptr;
    for (int32_t i = 0; i < h->num_entries; i++)
        if (strcmp(h->entries[i].name, name) == 0)
            return &h->entries[i];
    return nullptr;
}

simg_entry *simg_load(simg *h, const char *name) { return load_entry(h, name, false); }
simg_entry *simg_loads(simg *h, const char *name) { return load_entry(h, name, true); }

void simg_unload(simg *h, const char *name)
{
    simg_entry *e = simg_find(h, name);
    if (e)
        simg_release(e);
}

void simg_close(simg *h)
{
    if (!h)
        return;
    for (int32_t i = 0; i < h->num_entries; i++)
        simg_release(&h->entries[i]);
    while (h->orphans) {
        simg_orphan *o = h->orphans;
        h->orphans = o->next;
        simg_release(&o->entry);
        mem_free(o);
    }
    if (h->fd >= 0)
        simg_io().close(h->fd);
    mem_free(h);
}

} // namespace ravik
