// Partitions and LUNs as files: a position each, seek, read, write, erase.
// Below them two functions turn byte ranges into sectors and into one dump
// or program command that carries the caller's buffer by its address.
#include <cstring>

#include "backup/bnr.h"
#include "core/core.h"
#include "firehose/engine.h"
#include "storage/gpt.h"
#include "storage/storage.h"

namespace ravik {

namespace {

constexpr uint32_t ERASE_CHUNK = 0x100000;

// A buffer address as the dump and program commands carry it: the
// hexadecimal form of a native pointer, read back whole by the tag reader.
static_assert(sizeof(unsigned long) >= sizeof(uintptr_t));
unsigned long address_of(const void *p) { return (unsigned long)(uintptr_t)p; }

int32_t seek(uint64_t *pos, uint64_t size, int64_t offset, int whence)
{
    uint64_t base;
    switch (whence) {
    case 0:
        base = 0;
        break;
    case 1:
        base = *pos;
        break;
    case 2:
        base = size;
        break;
    default:
        return ERR_RANGE;
    }
    uint64_t target;
    if (offset < 0) {
        uint64_t back = 0 - (uint64_t)offset;
        if (back > base)
            return ERR_RANGE;
        target = base - back;
    } else {
        if ((uint64_t)offset > size - base)
            return ERR_RANGE;
        target = base + (uint64_t)offset;
    }
    if (target >= size)
        return ERR_RANGE;
    *pos = target;
    return 0;
}

enum class step { go_on, next_lun, stop };

// The walk of pt_find and pt_forall: the LUNs in ascending order, all of
// them for -1, each list in its order. Only a failed discovery is a code
// here; the visit keeps its own.
template <typename Visit> int32_t walk(int32_t lun, Visit visit)
{
    storage *s = get_storage();
    if (!s)
        return get_error();
    for (uint32_t i = 0; i < s->num_luns; i++) {
        if (lun != -1 && (int32_t)i != lun)
            continue;
        list_for_each_safe(it, tmp, &s->ptable[i])
        {
            step r = visit(list_entry(it, pt, link));
            if (r == step::next_lun)
                break;
            if (r == step::stop)
                return 0;
        }
    }
    return 0;
}

} // namespace

void pt_clear(storage *s)
{
    if (!s)
        return;
    for (uint32_t i = 0; i < STORAGE_MAX_LUNS; i++) {
        list_for_each_safe(it, tmp, &s->ptable[i])
        {
            list_del(it);
            mem_free(list_entry(it, pt, link));
        }
    }
}

pt *pt_addg(storage *s, const gpt_slot *slot)
{
    if (slot->lun < 0 || (uint32_t)slot->lun >= STORAGE_MAX_LUNS) {
        RK_SET_ERROR(ERR_RANGE);
        return nullptr;
    }
    pt *p = mem_new<pt>();
    if (!p) {
        RK_SET_ERROR(ERR_NO_MEMORY);
        return nullptr;
    }
    strncpy(p->name, slot->name, PT_NAME_MAX);
    p->lun = slot->lun;
    p->offset = slot->offset;
    p->size = slot->size;
    p->attrs.needs_bnr = slot->attrs.needs_bnr;
    list_add_tail(&s->ptable[slot->lun], &p->link);
    RK_SET_ERROR(0);
    return p;
}

int32_t init_pt(storage *s)
{
    pt_clear(s);
    int32_t code = 0;
    for (uint32_t i = 0; i < s->num_luns && code == 0; i++) {
        // The first LUN without a table ends the walk: later LUNs stay empty.
        if ((code = gpt_open((int32_t)i)) != 0)
            break;
        while (gpt_slot *slot = gpt_read()) {
            if (slot->offset == 0) {
                RK_LOGD("ignoring gpt entry with 0 offset\n");
                continue;
            }
            if (!pt_addg(s, slot)) {
                code = get_error();
                break;
            }
        }
        gpt_close();
    }
    RK_RETURN(code);
}

uint32_t storage_blksz()
{
    storage *s = get_storage();
    return s ? s->blksz : 0;
}

pt *pt_find(const char *name, int32_t lun)
{
    pt *found = nullptr;
    int32_t code = ERR_NOT_FOUND;
    if (name) {
        // Within a LUN the first match counts; a later LUN replaces it.
        code = walk(lun, [&](pt *p) {
            if (strcmp(p->name, name) != 0)
                return step::go_on;
            found = p;
            return step::next_lun;
        });
        if (code == 0 && !found)
            code = ERR_NOT_FOUND;
    }
    RK_SET_ERROR(code);
    return found;
}

int32_t pt_forall(int32_t lun, pt_fn fn, void *context)
{
    int32_t result = 0;
    int32_t code = walk(lun, [&](pt *p) {
        result = fn(p, context);
        return result != 0 ? step::stop : step::go_on;
    });
    RK_RETURN(code != 0 ? code : result);
}

lun_record *get_lun(int32_t lun)
{
    storage *s = get_storage();
    if (!s) {
        RK_SET_ERROR(get_error());
        return nullptr;
    }
    if (lun < 0 || (uint32_t)lun >= s->num_luns) {
        RK_SET_ERROR(ERR_RANGE);
        return nullptr;
    }
    RK_SET_ERROR(0);
    return &s->luns[lun];
}

uint64_t lun_size(int32_t lun)
{
    lun_record *l = get_lun(lun);
    return l ? l->size : 0;
}

uint64_t lun_szblks(int32_t lun)
{
    lun_record *l = get_lun(lun);
    return l ? l->size / l->owner->blksz : 0;
}

uint64_t pt_size(const pt *p) { return p ? p->size : 0; }
int32_t pt_lun(const pt *p) { return p ? p->lun : -1; }
const char *pt_name(const pt *p) { return p ? p->name : nullptr; }
bool pt_needs_bnr(const pt *p) { return p && p->attrs.needs_bnr; }

int32_t pt_seek(pt *p, int64_t offset, int whence)
{
    RK_RETURN(p ? seek(&p->pos, p->size, offset, whence) : ERR_BAD_PARAM);
}

int32_t lun_seek(int32_t lun, int64_t offset, int whence)
{
    lun_record *l = get_lun(lun);
    RK_RETURN(l ? seek(&l->pos, l->size, offset, whence) : get_error());
}

uint32_t pt_read(pt *p, void *buf, uint32_t length)
{
    int32_t code = 0;
    if (!p)
        code = ERR_BAD_PARAM;
    else if (length > p->size - p->pos)
        code = ERR_RANGE;
    else if (length != 0 && storage_read(p->lun, p->offset + p->pos, buf, length) != length)
        code = get_error();
    else
        p->pos += length;
    RK_SET_ERROR(code);
    return code == 0 ? length : 0;
}

uint32_t pt_write(pt *p, const void *buf, uint32_t length)
{
    int32_t code = 0;
    if (!p)
        code = ERR_BAD_PARAM;
    else if (length > p->size - p->pos)
        code = ERR_RANGE;
    if (code == 0 && length != 0) {
        // New contents: the old ones must not be restored over them.
        bnr_skip(p->name);
        if (storage_write(p->lun, p->offset + p->pos, buf, length) != length)
            code = get_error();
    }
    if (code == 0)
        p->pos += length;
    RK_SET_ERROR(code);
    return code == 0 ? length : 0;
}

namespace {
// What reading and writing a LUN share: the range rule, the transfer at the
// LUN's position, and moving on by what was done.
template <typename transfer>
int32_t lun_transfer(int32_t lun, uint32_t length, transfer io)
{
    lun_record *l = get_lun(lun);
    if (!l)
        return get_error();
    if (length > l->size - l->pos)
        return ERR_RANGE;
    if (length != 0 && io(l->pos) != length)
        return get_error();
    l->pos += length;
    return 0;
}
} // namespace

uint32_t lun_read(int32_t lun, void *buf, uint32_t length)
{
    int32_t code =
        lun_transfer(lun, length, [&](uint64_t pos) { return storage_read(lun, pos, buf, length); });
    RK_SET_ERROR(code);
    return code == 0 ? length : 0;
}

uint32_t lun_write(int32_t lun, const void *buf, uint32_t length)
{
    int32_t code =
        lun_transfer(lun, length, [&](uint64_t pos) { return storage_write(lun, pos, buf, length); });
    RK_SET_ERROR(code);
    return code == 0 ? length : 0;
}

int32_t pt_erase(pt *p)
{
    if (!p)
        RK_RETURN(ERR_BAD_PARAM);
    bnr_skip(p->name);
    mem_guard<uint8_t> zeros(static_cast<uint8_t *>(mem_zalloc(ERASE_CHUNK)));
    if (!zeros.p)
        RK_RETURN(ERR_NO_MEMORY);
    // The remaining size is 64 bits wide, so a partition above 4 GiB is
    // erased to its end.
    for (uint64_t remaining = p->size; remaining != 0;) {
        uint32_t n = remaining < ERASE_CHUNK ? (uint32_t)remaining : ERASE_CHUNK;
        if (storage_write(p->lun, p->offset + p->size - remaining, zeros.p, n) != n)
            RK_RETURN(get_error());
        remaining -= n;
    }
    return 0;
}

uint32_t storage_read(int32_t lun, uint64_t pos, void *buf, uint32_t length)
{
    uint32_t blksz = storage_blksz();
    int32_t code = 0;
    if (blksz == 0) {
        code = get_error();
    } else if (pos % blksz != 0 || length % blksz != 0) {
        code = ERR_BAD_PARAM;
    } else {
        firehose_do_fmt("dump label=\"storage_read\" SECTOR_SIZE_IN_BYTES=\"%u\" physical_partition_number=\"%d\" "
                        "start_sector=\"%lld\" num_partition_sectors=\"%lld\" save_to=\"buffer\" buffer=\"0x%lX\"",
                        blksz, lun, (long long)(pos / blksz), (long long)(length / blksz), address_of(buf));
        code = get_error();
    }
    RK_SET_ERROR(code);
    return code == 0 ? length : 0;
}

uint32_t storage_write(int32_t lun, uint64_t pos, const void *buf, uint32_t length)
{
    uint32_t blksz = storage_blksz();
    int32_t code = 0;
    if (blksz == 0) {
        code = get_error();
    } else if (pos % blksz != 0) {
        code = ERR_BAD_PARAM;
    } else {
        firehose_do_fmt("program label=\"storage_write\"SECTOR_SIZE_IN_BYTES=\"%u\" physical_partition_number=\"%d\" "
                        "start_sector=\"%lld\" num_partition_sectors=\"%lld\" load_from=\"buffer\" buffer=\"0x%lX\"",
                        blksz, lun, (long long)(pos / blksz), (long long)(length / blksz), address_of(buf));
        code = get_error();
        uint32_t tail = length % blksz;
        if (code == 0 && tail != 0) {
            // The partial last sector goes out from a zeroed copy: what
            // follows the data in it on the target becomes zeros.
            mem_guard<uint8_t> sector(static_cast<uint8_t *>(mem_zalloc(blksz)));
            if (!sector.p) {
                code = ERR_NO_MEMORY;
            } else {
                memcpy(sector.p, static_cast<const uint8_t *>(buf) + (length - tail), tail);
                firehose_do_fmt("program label=\"storage_write\"SECTOR_SIZE_IN_BYTES=\"%u\" "
                                "physical_partition_number=\"%d\" start_sector=\"%lld\" num_partition_sectors=\"1\" "
                                "load_from=\"buffer\" buffer=\"0x%lX\"",
                                blksz, lun, (long long)((pos + length) / blksz), address_of(sector.p));
                code = get_error();
            }
        }
    }
    RK_SET_ERROR(code);
    return code == 0 ? length : 0;
}

} // namespace ravik
