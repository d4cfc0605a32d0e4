// The backup file as a flashable container of its own: the programmer that
// was used, three generated documents, and the end of the file's life.
#include <cstdio>
#include <cstring>

#include "backup/bnr.h"
#include "container/container.h"
#include "core/core.h"
#include "link/buffer.h"
#include "link/device.h"
#include "link/properties.h"

namespace ravik {

namespace {

const char *const INDEX_TEXT =
    "<?xml version=\"1.0\"?>\n<index>\n    <board id=\"%u\" name=\"%s\" storage.type=\"%s\"/>\n"
    "    <package compatible=\"protocol:ravik protocol:fastboot cpu.name:%s\" filename=\"package.xml\"/>\n</index>";
const char *const PACKAGE_TEXT =
    "<?xml version=\"1.0\"?>\n<package>\n    <programmer filename=\"programmer.elf\"/>\n"
    "    <recipe compatible=\"cpu.serial:%s\" filename=\"flashall.xml\" ignore_errors=\"true\"/>\n</package>";
const char *const RECIPE_HEAD = "<?xml version=\"1.0\"?>\n<recipe>\n";
const char *const RECIPE_LINE = "    <flash partition=\"%s\" filename=\"%s\" verbose=\"true\"/>\n";
const char *const RECIPE_TAIL = "</recipe>\n";

bool saved(const bnr_entry &e)
{
    return (e.flags & BNR_BACKUP_TRIED) && !(e.flags & (BNR_SKIPPED | BNR_BACKUP_FAILED));
}

// The buffer's fill as an entry, without a terminating NUL.
int32_t store_buffer(bnr *b, const char *name)
{
    if (!simg_store(b->simg, buffer_base(), (uint64_t)buffer_avail(), name))
        return get_error();
    return 0;
}

// A text that does not fit the buffer is cut, and that must not be stored.
int32_t print(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
int32_t print(const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    int32_t n = buffer_vprintf(fmt, args);
    va_end(args);
    return n > 0 ? 0 : ERR_RANGE;
}

int32_t store_documents(bnr *b)
{
    const char *name = device_get("cpu.name", "");
    int32_t code = print(INDEX_TEXT, device_getu("cpu.id", 0), name, device_get("storage.type", ""), name);
    if (code == 0)
        code = store_buffer(b, "index.xml");
    if (code != 0)
        return code;
    buffer_rewind();
    if ((code = print(PACKAGE_TEXT, device_get("cpu.serial", ""))) == 0)
        code = store_buffer(b, "package.xml");
    if (code != 0)
        return code;
    buffer_rewind();
    code = print("%s", RECIPE_HEAD);
    for (int32_t i = 0; i < b->num_entries && code == 0; i++)
        if (saved(b->entries[i]))
            code = print(RECIPE_LINE, b->entries[i].name, b->entries[i].image_name);
    if (code == 0)
        code = print("%s", RECIPE_TAIL);
    if (code == 0)
        code = store_buffer(b, "flashall.xml");
    return code;
}

} // namespace

int32_t bnr_save_programmer(const simg_entry *programmer)
{
    bnr *b = get_bnr();
    if (!b)
        RK_RETURN(get_error());
    if (!programmer)
        RK_RETURN(ERR_BAD_PARAM);
    int32_t code = bnr_open_file(b);
    if (code == 0 && !simg_store(b->simg, programmer->data, programmer->size, programmer->name))
        code = get_error();
    RK_RETURN(code);
}

int32_t make_flashable(bnr *b)
{
    int32_t code = b && b->simg ? __buffer_acquire() : ERR_BAD_PARAM;
    if (code == 0)
        code = store_documents(b);
    __buffer_release();
    RK_RETURN(code);
}

void bnr_review()
{
    bnr *b = bnr_find();
    if (!b || b->num_entries == 0)
        return;
    // A partition that failed to come back may exist nowhere but in the
    // file: single restore failures keep it as a failed backup does.
    bool lost = false;
    for (int32_t i = 0; i < b->num_entries; i++)
        lost |= (b->entries[i].flags & BNR_RESTORE_FAILED) != 0;
    if (b->backup_error == 0 && b->restore_error == 0 && !lost) {
        bnr_discard();
        return;
    }
    device_set_flag(DEVICE_FLAG_SAVE_LOG);
    RK_LOGI("There were some hiccups in backup and restore.\n");
    RK_LOGI("Please save the following files and see a Bootloader member.\n");
    RK_LOGI("  1) ./ravik_log.txt\n");
    if (b->simg)
        RK_LOGI("  2) ./%s\n", b->simg->path);
    RK_LOGI("\n");
}

int32_t bnr_discard()
{
    bnr *b = bnr_find();
    if (!b || !b->simg)
        return 0;
    // Closed before it is removed.
    char path[sizeof(b->simg->path)];
    snprintf(path, sizeof(path), "%s", b->simg->path);
    simg_close(b->simg);
    b->simg = nullptr;
    if (!device_has_flag(DEVICE_FLAG_KEEP_BACKUP) && remove(path) != 0)
        RK_LOGW("failed to delete file: %s\n", path);
    return 0;
}

} // namespace ravik
