// Reading the primary GPT of a LUN, and writing a table image fitted to the
// LUN: last usable LBA, the last partition grown to the end, backup array
// and header, CRCs.
#include "storage/gpt.h"

#include <cstring>

#include "core/core.h"
#include "link/properties.h"
#include "storage/storage.h"

namespace ravik {

namespace {

constexpr const char *GPT_KEY = "api.gpt";
constexpr uint32_t GPT_FIXED_SLOTS = 128; // what the reserved area holds

uint32_t get32(const uint8_t *p)
{
    return (uint32_t)p[0] | (uint32_t)p[1] << 8 | (uint32_t)p[2] << 16 | (uint32_t)p[3] << 24;
}
uint64_t get64(const uint8_t *p) { return get32(p) | (uint64_t)get32(p + 4) << 32; }
void put32(uint8_t *p, uint32_t v)
{
    for (int i = 0; i < 4; i++)
        p[i] = (uint8_t)(v >> (8 * i));
}
void put64(uint8_t *p, uint64_t v)
{
    put32(p, (uint32_t)v);
    put32(p + 4, (uint32_t)(v >> 32));
}

uint64_t round_up(uint64_t n, uint64_t unit) { return (n + unit - 1) / unit * unit; }

// The CRC of a header with its own CRC field taken as zero, without
// touching the memory.
uint32_t header_crc(const uint8_t *h, uint32_t size)
{
    static const uint8_t zero[4] = {};
    uint32_t crc = crc32(0, h, GPT_HDR_CRC);
    crc = crc32(crc, zero, sizeof(zero));
    return crc32(crc, h + GPT_HDR_CRC + 4, size - GPT_HDR_CRC - 4);
}

uint64_t array_bytes(const uint8_t *h)
{
    return (uint64_t)get32(h + GPT_HDR_NUM_ENTRIES) * get32(h + GPT_HDR_ENTRY_SIZE);
}

void fill_slot(gpt_slot *slot, const uint8_t *entry, int32_t lun, uint32_t blksz)
{
    memcpy(slot->raw, entry, GPT_ENTRY_MIN);
    slot->lun = lun;
    // The low byte of each UTF-16 unit, without conversion, up to the first zero unit.
    for (uint32_t i = 0; i < GPT_NAME_UNITS; i++) {
        const uint8_t *unit = entry + GPT_ENT_NAME + 2 * i;
        if (unit[0] == 0 && unit[1] == 0)
            break;
        slot->name[i] = (char)unit[0];
    }
    uint64_t first = get64(entry + GPT_ENT_FIRST_LBA), last = get64(entry + GPT_ENT_LAST_LBA);
    slot->offset = first * blksz;
    slot->size = (last - first + 1) * blksz;
    slot->attrs.needs_bnr = (get64(entry + GPT_ENT_ATTRS) & GPT_ATTR_NEEDS_BNR) != 0;
}

// gpt_open without the check for an open table; the view on success.
int32_t open_view(int32_t lun, gpt_view **out)
{
    uint32_t blksz = storage_blksz();
    if (blksz == 0)
        return get_error();
    mem_guard<uint8_t> sector(static_cast<uint8_t *>(mem_zalloc(blksz)));
    if (!sector.p)
        return ERR_NO_MEMORY;
    int32_t code = lun_seek(lun, blksz, 0);
    if (code != 0)
        return code;
    if (lun_read(lun, sector.p, blksz) != blksz)
        return get_error();
    if (validate_header(lun, sector.p, blksz) != 0)
        return ERR_INVALID;

    // validate_header bounds the array, so neither block can be huge.
    uint32_t n = get32(sector.p + GPT_HDR_NUM_ENTRIES);
    uint32_t entry_size = get32(sector.p + GPT_HDR_ENTRY_SIZE);
    uint32_t read_size = (uint32_t)round_up(array_bytes(sector.p), blksz);
    uint64_t entry_lba = get64(sector.p + GPT_HDR_ENTRY_LBA);
    if (entry_lba > (uint64_t)INT64_MAX / blksz)
        return ERR_RANGE;
    mem_guard<gpt_view> view(static_cast<gpt_view *>(mem_zalloc(sizeof(gpt_view) + (size_t)n * sizeof(gpt_slot))));
    mem_guard<uint8_t> array(static_cast<uint8_t *>(mem_zalloc(read_size)));
    if (!view.p || !array.p)
        return ERR_NO_MEMORY;
    if ((code = lun_seek(lun, (int64_t)(entry_lba * blksz), 0)) != 0)
        return code;
    if (lun_read(lun, array.p, read_size) != read_size)
        return get_error();
    if (validate_array(sector.p, array.p, read_size) != 0)
        return ERR_INVALID;

    view.p->lun = lun;
    view.p->num_slots = n;
    view.p->slots = reinterpret_cast<gpt_slot *>(view.p + 1);
    memcpy(view.p->header, sector.p, GPT_HEADER_MIN);
    for (uint32_t i = 0; i < n; i++)
        fill_slot(&view.p->slots[i], array.p + (uint64_t)i * entry_size, lun, blksz);
    *out = view.release();
    return 0;
}

int32_t write_at(int32_t lun, uint64_t pos, const void *data, uint32_t size)
{
    if (pos > (uint64_t)INT64_MAX)
        return ERR_RANGE;
    int32_t code = lun_seek(lun, (int64_t)pos, 0);
    if (code == 0 && lun_write(lun, data, size) != size)
        code = get_error();
    return code;
}

} // namespace

gpt_view *get_gpt() { return static_cast<gpt_view *>(device_getp(GPT_KEY, nullptr)); }

int32_t validate_header(int32_t lun, const void *header, uint32_t length)
{
    const auto *h = static_cast<const uint8_t *>(header);
    if (length < GPT_HEADER_MIN || memcmp(h, "EFI PART", 8) != 0 || get64(h + GPT_HDR_MY_LBA) != 1)
        RK_RETURN(ERR_INVALID);
    uint32_t size = get32(h + GPT_HDR_SIZE);
    if (size < GPT_HEADER_MIN || size > length)
        RK_RETURN(ERR_INVALID);
    uint64_t first = get64(h + GPT_HDR_FIRST_USABLE), last = get64(h + GPT_HDR_LAST_USABLE);
    // A last usable LBA of 0 is one that gpt_flash fills in by itself.
    if (last != 0) {
        uint64_t sectors = lun_szblks(lun);
        if (first > last || first >= sectors || last >= sectors)
            RK_RETURN(ERR_INVALID);
    }
    uint64_t entry_lba = get64(h + GPT_HDR_ENTRY_LBA);
    if (entry_lba < 1)
        RK_RETURN(ERR_INVALID);
    uint32_t blksz = storage_blksz();
    uint32_t entry_size = get32(h + GPT_HDR_ENTRY_SIZE);
    if (blksz == 0)
        RK_RETURN(ERR_INVALID);
    // The reserved area is that of 128 slots, whatever the header's count.
    uint64_t reserved = round_up((uint64_t)GPT_FIXED_SLOTS * entry_size, blksz) / blksz;
    if (reserved > first || entry_lba > first - reserved)
        RK_RETURN(ERR_INVALID);
    // Bounds of our own: a slot is copied 128 bytes wide, and an array is
    // read whole into memory.
    if (entry_size < GPT_ENTRY_MIN || array_bytes(h) > GPT_ARRAY_MAX)
        RK_RETURN(ERR_INVALID);
    if (header_crc(h, size) != get32(h + GPT_HDR_CRC))
        RK_RETURN(ERR_INVALID);
    return 0;
}

int32_t validate_array(const void *header, const void *array, uint64_t length)
{
    const auto *h = static_cast<const uint8_t *>(header);
    uint64_t bytes = array_bytes(h);
    if (length < bytes || crc32(0, array, bytes) != get32(h + GPT_HDR_ARRAY_CRC))
        RK_RETURN(ERR_INVALID);
    return 0;
}

int32_t gpt_open(int32_t lun)
{
    if (get_gpt()) {
        RK_LOGE("please close first!\n");
        RK_RETURN(ERR_EXISTS);
    }
    gpt_view *view = nullptr;
    int32_t code = open_view(lun, &view);
    if (code == 0 && (code = device_setp(GPT_KEY, view)) != 0) {
        device_unset(GPT_KEY);
        mem_free(view);
        if (code == 1 || code == -1)
            code = ERR_GENERAL;
    }
    RK_RETURN(code);
}

gpt_slot *gpt_read()
{
    gpt_view *view = get_gpt();
    gpt_slot *slot = nullptr;
    int32_t code = 0;
    if (!view) {
        RK_LOGE("GPT not opened or invalid!\n");
        code = ERR_GENERAL;
    } else if (view->cursor >= view->num_slots) {
        code = ERR_RANGE; // the normal end of the walk
    } else {
        slot = &view->slots[view->cursor++];
    }
    RK_SET_ERROR(code);
    return slot;
}

void gpt_close()
{
    if (gpt_view *view = get_gpt()) {
        device_unset(GPT_KEY);
        mem_free(view);
    }
}

int32_t gpt_flash(int32_t lun, void *image, uint32_t size)
{
    auto *img = static_cast<uint8_t *>(image);
    uint32_t blksz = storage_blksz();
    if (blksz == 0)
        RK_RETURN(get_error());
    uint8_t *h = img + blksz;
    uint8_t *array = img + 2 * (uint64_t)blksz;
    if (size < 2 * (uint64_t)blksz || validate_header(lun, h, blksz) != 0)
        RK_RETURN(ERR_INVALID);
    uint32_t n = get32(h + GPT_HDR_NUM_ENTRIES);
    uint32_t entry_size = get32(h + GPT_HDR_ENTRY_SIZE);
    uint64_t array_size = round_up(array_bytes(h), blksz);
    uint64_t reserved = (uint64_t)GPT_FIXED_SLOTS * entry_size / blksz;
    if (n == 0 || get64(h + GPT_HDR_ENTRY_LBA) != 2 || size < 2 * (uint64_t)blksz + array_size ||
        validate_array(h, array, size - 2 * (uint64_t)blksz) != 0)
        RK_RETURN(ERR_INVALID);
    uint64_t sectors = lun_szblks(lun);
    if (sectors == 0)
        RK_RETURN(get_error());
    // A LUN too small for both copies of the table cannot take it.
    if (sectors < reserved + 3 || sectors - reserved - 2 < get64(h + GPT_HDR_FIRST_USABLE))
        RK_RETURN(ERR_RANGE);

    uint64_t last_usable = sectors - reserved - 2;
    put64(h + GPT_HDR_LAST_USABLE, last_usable);
    // Slots are taken at a stride of 128 bytes, as the reserved area is.
    put64(array + (uint64_t)(n - 1) * GPT_ENTRY_MIN + GPT_ENT_LAST_LBA, last_usable);
    put64(h + GPT_HDR_ALT_LBA, sectors - 1);
    uint32_t header_size = get32(h + GPT_HDR_SIZE);
    put32(h + GPT_HDR_ARRAY_CRC, crc32(0, array, array_bytes(h)));
    put32(h + GPT_HDR_CRC, header_crc(h, header_size));

    // No partition may begin inside what the image itself overwrites; an
    // empty slot starts at 0 and so is refused too.
    uint64_t image_sectors = round_up(size, blksz) / blksz;
    for (uint32_t i = 0; i < n; i++)
        if (get64(array + (uint64_t)i * GPT_ENTRY_MIN + GPT_ENT_FIRST_LBA) < image_sectors)
            RK_RETURN(ERR_RANGE);

    int32_t code = write_at(lun, 0, img, size);
    if (code != 0)
        RK_RETURN(code);
    // Primary copy first, then the backup array, the backup header last.
    uint64_t my_lba = get64(h + GPT_HDR_MY_LBA), alt_lba = get64(h + GPT_HDR_ALT_LBA);
    put64(h + GPT_HDR_MY_LBA, alt_lba);
    put64(h + GPT_HDR_ALT_LBA, my_lba);
    put64(h + GPT_HDR_ENTRY_LBA, alt_lba - reserved);
    put32(h + GPT_HDR_CRC, header_crc(h, header_size));
    if ((code = write_at(lun, (alt_lba - reserved) * blksz, array, (uint32_t)array_size)) != 0)
        RK_RETURN(code);
    RK_RETURN(write_at(lun, alt_lba * blksz, h, blksz));
}

} // namespace ravik
