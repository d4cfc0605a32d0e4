// Changing a container file in place: append, import, delete, export.
#include <cstring>
#include <fcntl.h>

#include "container/internal.h"
#include "core/core.h"

namespace ravik {

namespace {

// Pieces in which delete moves the rest of the file and export copies an
// entry out: large enough for throughput, small enough that neither holds a
// big entry in memory.
constexpr uint64_t MOVE_CHUNK = 1u << 20;

// The pieces of a put. A put runs beside a transfer whose threads need the
// CPU at short notice, and a write is copied in the kernel, where a long one
// keeps its CPU from them; between short ones they get it back. Measured:
// 8 MiB writes slowed a dump over a pty by a third; with 1 MiB ones it ran
// near its own speed.
constexpr uint64_t PUT_PIECE = 1u << 20;

void put_le64(uint8_t *p, uint64_t v)
{
    for (int i = 0; i < 8; i++, v >>= 8)
        p[i] = (uint8_t)v;
}

// The writer changes the file under loaded mappings; every mapped buffer that
// reaches past `pos` takes its own copy of its pages first, so loaded data
// stays what it was.
void protect_mappings(simg *h, uint64_t pos)
{
    for (int32_t i = 0; i < h->num_entries; i++) {
        simg_entry *e = &h->entries[i];
        uint64_t padded;
        if (!simg_padded(e->size, &padded) || e->offset + padded > pos)
            simg_make_private(e);
    }
    for (simg_orphan *o = h->orphans; o; o = o->next)
        simg_make_private(&o->entry);
}

// Where the tail block stands, as the table says.
uint64_t tail_position(const simg *h)
{
    if (h->num_entries == 0)
        return SIMG_HDRSZ;
    const simg_entry *last = &h->entries[h->num_entries - 1];
    uint64_t padded = 0;
    simg_padded(last->size, &padded);
    return last->offset + padded;
}

// The order of the writes keeps the file a container at every moment. The
// data and a new tail go down first behind the old tail, which still ends
// every walk where it stands; so data may be written while it is still
// arriving, and a stage that never ends leaves the file as readers knew it.
// Then a header with an empty name over the old tail, and once all of that
// is on disk, the first byte of the name, which makes the entry visible.
int32_t finish_stage(simg_stage *st, const void *data, simg_entry **out)
{
    if (!st || !st->h || (!data && st->size))
        RK_RETURN(ERR_INVALID);
    if (st->failed)
        RK_RETURN(st->failed);
    simg *h = st->h;
    simg_io_calls &io = simg_io();
    const uint8_t *bytes = static_cast<const uint8_t *>(data);
    uint64_t whole = st->size & ~(SIMG_BLKSZ - 1);
    uint64_t at = st->start + SIMG_HDRSZ + st->written;
    if (whole > st->written && simg_write_at(st->fd, bytes + st->written, (size_t)(whole - st->written), at) != 0)
        RK_RETURN(ERR_IO);
    at = st->start + SIMG_HDRSZ + whole;
    if (st->size > whole) {
        // The last partial block goes out whole, padding included, so the
        // file never holds a hole where the zeros belong.
        uint8_t block[SIMG_BLKSZ] = {};
        memcpy(block, bytes + whole, (size_t)(st->size - whole));
        if (simg_write_at(st->fd, block, sizeof(block), at) != 0)
            RK_RETURN(ERR_IO);
        at += SIMG_BLKSZ;
    }
    uint8_t tail[SIMG_HDRSZ];
    simg_put_block(tail, SIMG_TAIL_TEXT);
    if (simg_write_at(st->fd, tail, sizeof(tail), at) != 0)
        RK_RETURN(ERR_IO);
    // The header goes down whole but for its first byte, which stays zero so
    // a walk ends there; 256 bytes at a multiple of 256 never straddle a
    // sector, so this write lands whole or not at all.
    uint8_t header[SIMG_HDRSZ] = {};
    memcpy(header, st->name, strnlen(st->name, SIMG_FILE_NAME_MAX));
    put_le64(header + SIMG_SIZE_AT, st->size);
    uint8_t commit = header[0];
    header[0] = 0;
    if (simg_write_at(st->fd, header, sizeof(header), st->start) != 0)
        RK_RETURN(ERR_IO);
    h->end_offset = at + SIMG_HDRSZ;

    // The first byte of the name is the commit, a write that cannot be torn.
    // Everything else reaches the disk before it, so not even a power cut can
    // expose a header without its data.
    if (io.fdatasync(st->fd) != 0)
        RK_RETURN(ERR_IO);
    if (simg_write_at(st->fd, &commit, 1, st->start) != 0 || io.fdatasync(st->fd) != 0)
        RK_RETURN(ERR_IO);

    simg_entry *e = &h->entries[h->num_entries];
    memset(e, 0, sizeof(*e));
    memcpy(e->name, st->name, strnlen(st->name, SIMG_NAME_MAX));
    e->size = st->size;
    e->offset = st->start + SIMG_HDRSZ;
    h->num_entries++;
    *out = e;
    return 0;
}

int32_t import_file(simg *h, const char *path, const char *name, simg_entry **out)
{
    if (!h || !path)
        RK_RETURN(ERR_INVALID);
    simg_io_calls &io = simg_io();
    int fd = io.open(path, O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0)
        RK_RETURN(ERR_IO);
    struct fd_guard {
        int fd;
        ~fd_guard() { simg_io().close(fd); }
    } guard{fd};
    uint64_t size;
    if (io.file_size(fd, &size) != 0)
        RK_RETURN(ERR_IO);
    if (size == 0)
        RK_RETURN(ERR_INVALID);
    if (size > SIZE_MAX)
        RK_RETURN(ERR_NO_MEMORY);
    // A mapping spares a heap copy of the whole file; a file that cannot be
    // mapped is read instead.
    void *map = io.map_file(nullptr, (size_t)size, fd, 0);
    struct map_guard {
        void *p;
        size_t n;
        ~map_guard()
        {
            if (p)
                simg_io().unmap(p, n);
        }
    } mguard{map, (size_t)size};
    mem_guard<uint8_t> buf(nullptr);
    const void *data = map;
    if (!map) {
        buf.p = static_cast<uint8_t *>(mem_zalloc((size_t)size));
        if (!buf.p)
            RK_RETURN(ERR_NO_MEMORY);
        if (simg_read_at(fd, buf.p, (size_t)size, 0) != (long)size)
            RK_RETURN(ERR_IO);
        data = buf.p;
    }
    *out = simg_store(h, data, size, name ? name : path);
    if (!*out)
        RK_RETURN(get_error());
    return 0;
}

int32_t copy_out(simg *h, const simg_entry *e, int out_fd)
{
    if (e->data) {
        if (simg_write_all(out_fd, e->data, (size_t)e->size) != 0)
            RK_RETURN(ERR_IO);
        return 0;
    }
    if (e->size == 0)
        return 0;
    if (h->fd < 0)
        RK_RETURN(ERR_IO);
    uint64_t chunk = e->size < MOVE_CHUNK ? e->size : MOVE_CHUNK;
    mem_guard<uint8_t> buf(static_cast<uint8_t *>(mem_zalloc((size_t)chunk)));
    if (!buf.p)
        RK_RETURN(ERR_NO_MEMORY);
    for (uint64_t done = 0; done < e->size;) {
        uint64_t n = e->size - done < chunk ? e->size - done : chunk;
        if (simg_read_at(h->fd, buf.p, (size_t)n, e->offset + done) != (long)n)
            RK_RETURN(ERR_IO);
        if (simg_write_all(out_fd, buf.p, (size_t)n) != 0)
            RK_RETURN(ERR_IO);
        done += n;
    }
    return 0;
}

int32_t find_index(simg *h, const char *name)
{
    simg_entry *e = simg_find(h, name);
    return e ? (int32_t)(e - h->entries) : -1;
}

} // namespace

int32_t simg_stage_begin(simg *h, uint64_t size, const char *name, simg_stage *st)
{
    if (!h || !name || !st)
        RK_RETURN(ERR_INVALID);
    if (h->fd < 0)
        RK_RETURN(ERR_NOT_SUPPORTED);
    if (simg_find(h, name))
        RK_RETURN(ERR_EXISTS);
    if (h->num_entries == SIMG_MAX_ENTRIES)
        RK_RETURN(ERR_RANGE);
    uint64_t start = tail_position(h);
    uint64_t padded;
    if (!simg_padded(size, &padded) || start > SIMG_POS_MAX - 2 * SIMG_HDRSZ ||
        padded > SIMG_POS_MAX - 2 * SIMG_HDRSZ - start)
        RK_RETURN(ERR_RANGE);
    protect_mappings(h, start);
    memset(st, 0, sizeof(*st));
    st->h = h;
    st->fd = h->fd;
    st->start = start;
    st->size = size;
    memcpy(st->name, name, strnlen(name, SIMG_FILE_NAME_MAX));
    return 0;
}

int32_t simg_stage_put(simg_stage *st, const void *data, uint64_t upto)
{
    if (st->failed)
        return st->failed;
    uint64_t whole = (upto < st->size ? upto : st->size) & ~(SIMG_BLKSZ - 1);
    const uint8_t *bytes = static_cast<const uint8_t *>(data);
    while (st->written < whole) {
        uint64_t n = whole - st->written < PUT_PIECE ? whole - st->written : PUT_PIECE;
        uint64_t at = st->start + SIMG_HDRSZ + st->written;
        // Written back at once, the pages are clean by the time the end
        // syncs, and the sync waits for the last piece only.
        if (simg_write_at(st->fd, bytes + st->written, (size_t)n, at) != 0 ||
            simg_io().writeback(st->fd, at, n) != 0) {
            st->failed = ERR_IO;
            return ERR_IO;
        }
        st->written += n;
    }
    return 0;
}

simg_entry *simg_stage_end(simg_stage *st, const void *data)
{
    simg_entry *e = nullptr;
    int32_t code = finish_stage(st, data, &e);
    RK_SET_ERROR(code);
    return code ? nullptr : e;
}

// One road for a whole store and a staged one: begin and end.
simg_entry *simg_store(simg *h, const void *data, uint64_t size, const char *name)
{
    simg_stage st;
    int32_t code = ERR_INVALID;
    if ((data || !size) && (code = simg_stage_begin(h, size, name, &st)) == 0)
        return simg_stage_end(&st, data);
    RK_SET_ERROR(code);
    return nullptr;
}

simg_entry *simg_import(simg *h, const char *path, const char *name)
{
    simg_entry *e = nullptr;
    int32_t code = import_file(h, path, name, &e);
    RK_SET_ERROR(code);
    return code ? nullptr : e;
}

// Later entries and the tail block move down over the deleted one in pieces,
// front to back, which is safe because the target lies below the source; in
// pieces, because a container of many GiB cannot be held in memory. A
// failure partway leaves the table as it was and the file damaged behind the
// hole, as a failed write would. The file is not shortened: readers stop at
// the moved tail block.
int32_t simg_delete(simg *h, const char *name)
{
    int32_t idx = find_index(h, name);
    if (idx < 0)
        RK_RETURN(ERR_NOT_FOUND);
    if (h->fd < 0)
        RK_RETURN(ERR_NOT_SUPPORTED);
    simg_io_calls &io = simg_io();
    simg_entry *e = &h->entries[idx];
    uint64_t padded = 0;
    simg_padded(e->size, &padded);
    uint64_t hole = e->offset - SIMG_HDRSZ;
    uint64_t span = SIMG_HDRSZ + padded;
    uint64_t next = hole + span;
    uint64_t file_size;
    // Everything to move must be in the file before the first byte moves.
    if (h->end_offset < next || io.file_size(h->fd, &file_size) != 0 ||
        file_size < h->end_offset)
        RK_RETURN(ERR_IO);
    uint64_t rest = h->end_offset - next;

    // The deleted record's buffer stays valid for whoever holds it, until
    // the handle closes.
    mem_guard<simg_orphan> orphan(nullptr);
    if (e->data) {
        orphan.p = mem_new<simg_orphan>();
        if (!orphan.p)
            RK_RETURN(ERR_NO_MEMORY);
    }
    uint64_t chunk = rest < MOVE_CHUNK ? rest : MOVE_CHUNK;
    mem_guard<uint8_t> buf(static_cast<uint8_t *>(mem_zalloc((size_t)chunk)));
    if (!buf.p)
        RK_RETURN(ERR_NO_MEMORY);
    protect_mappings(h, hole);
    for (uint64_t done = 0; done < rest;) {
        uint64_t n = rest - done < chunk ? rest - done : chunk;
        if (simg_read_at(h->fd, buf.p, (size_t)n, next + done) != (long)n)
            RK_RETURN(ERR_IO);
        if (simg_write_at(h->fd, buf.p, (size_t)n, hole + done) != 0)
            RK_RETURN(ERR_IO);
        done += n;
    }
    h->end_offset = hole + rest;

    if (orphan.p) {
        orphan.p->entry = *e;
        orphan.p->next = h->orphans;
        h->orphans = orphan.release();
    }
    for (int32_t i = idx; i + 1 < h->num_entries; i++) {
        h->entries[i] = h->entries[i + 1];
        h->entries[i].offset -= span;
    }
    h->num_entries--;
    memset(&h->entries[h->num_entries], 0, sizeof(simg_entry));
    return 0;
}

int32_t simg_export_fd(simg *h, const char *name, int out_fd)
{
    simg_entry *e = simg_find(h, name);
    if (!e)
        RK_RETURN(ERR_NOT_FOUND);
    RK_RETURN(copy_out(h, e, out_fd));
}

int32_t simg_export(simg *h, const char *name)
{
    simg_entry *e = simg_find(h, name);
    if (!e)
        RK_RETURN(ERR_NOT_FOUND);
    simg_io_calls &io = simg_io();
    int out = io.open(e->name, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (out < 0)
        RK_RETURN(ERR_IO);
    int32_t code = copy_out(h, e, out);
    if (io.close(out) != 0 && code == 0)
        code = ERR_IO;
    RK_RETURN(code);
}

} // namespace ravik
