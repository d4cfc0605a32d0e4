// Flash and wipe by partition name, and the storage command. A flashed
// image is one of three things: a container whose package runs in place, a
// partition table for one LUN, or the new contents of a named partition.
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "backup/bnr.h"
#include "container/container.h"
#include "core/core.h"
#include "firehose/commands.h"
#include "firehose/engine.h"
#include "storage/gpt.h"
#include "storage/storage.h"

namespace ravik {

namespace {

// The form name:lun: the tag is changed to hold the bare name in
// `partition` and the number in `lun`, whatever `lun` said before.
int32_t resolve_name_lun(tagline *tag)
{
    const char *partition = tagline_get(tag, "partition");
    const char *colon = partition ? strchr(partition, ':') : nullptr;
    if (!colon)
        return 0;
    int32_t lun = atoi(colon + 1);
    mem_guard<char> name(mem_strndup(partition, (size_t)(colon - partition)));
    if (!name.p)
        return ERR_NO_MEMORY;
    int32_t code = tagline_set(tag, "partition", name.p);
    if (code == 0)
        code = tagline_seti(tag, "lun", lun);
    return code;
}

// Erase, then write the image from the partition's start.
int32_t flash_partition(const char *name, int32_t lun, const simg_entry *entry)
{
    pt *p = pt_find(name, lun);
    if (!p) {
        RK_LOGE("partition %s not found!\n", name);
        return get_error();
    }
    RK_LOGD("Erasing %s\n", name);
    int32_t code = pt_erase(p);
    if (code == 0)
        code = pt_seek(p, 0, 0);
    if (code == 0 && pt_write(p, entry->data, (uint32_t)entry->size) == 0)
        code = get_error();
    if (code == 0)
        bnr_skip(name);
    return code;
}

} // namespace

xtags *find_first_package(simg *handle)
{
    int32_t code = 0;
    xtags *package = nullptr;
    xtags *index = nullptr;
    const char *filename = nullptr;
    simg_entry *entry = simg_loads(handle, "index.xml");
    if (!entry) {
        code = get_error();
    } else {
        index = xtags_create();
        if (!index || apply_filters(index) != 0 ||
            xtags_parse(index, reinterpret_cast<const char *>(entry->data)) != 0)
            code = ERR_NO_MEMORY;
        simg_unload(handle, "index.xml");
    }
    if (code == 0) {
        filename = xtags_get(index, "package", "filename");
        if (!filename || !*filename)
            code = ERR_NOT_FOUND;
    }
    if (code == 0) {
        if (!(entry = simg_loads(handle, filename))) {
            code = get_error();
        } else {
            // The package itself is not filtered: every recipe in it runs.
            package = xtags_create();
            if (!package || xtags_parse(package, reinterpret_cast<const char *>(entry->data)) != 0) {
                xtags_free(package);
                package = nullptr;
                code = ERR_NO_MEMORY;
            }
            simg_unload(handle, filename);
        }
    }
    xtags_free(index);
    set_error(__add_context("find_first_package", code));
    return package;
}

int32_t flash_simg(simg *handle)
{
    xtags *package = find_first_package(handle);
    if (!package)
        RK_RETURN(get_error());
    simg *outer = firehose_set_input(handle);
    do_package(package);
    int32_t code = get_error();
    xtags_free(package);
    // Put back whatever happened, so the outer recipe finds its files again.
    firehose_set_input(outer);
    RK_RETURN(code);
}

xtags *do_flash(tagline *tag)
{
    const char *partition = tagline_get(tag, "partition");
    const char *filename = tagline_get(tag, "filename");
    bool verbose = tagline_getb(tag, "verbose", false);
    simg *input = firehose_get_input();
    // Loaded ahead of the tests; the reader logs its own line on failure.
    simg_entry *entry = simg_load(input, filename);
    int32_t code = 0;
    do {
        if (!partition || !filename) {
            RK_LOGE("partition or filename missing!\n");
            code = ERR_INVALID;
            break;
        }
        if (verbose)
            RK_LOGI("Flashing %s with %s\n", partition, filename);
        if (!entry) {
            RK_LOGE("file %s not found in %s!\n", filename, input ? input->path : "");
            code = ERR_NOT_FOUND;
            break;
        }
        if ((code = resolve_name_lun(tag)) != 0)
            break;
        partition = tagline_get(tag, "partition");
        int32_t lun = tagline_geti(tag, "lun", -1);
        // A probe: an image that does not open as a container is plain data.
        if (simg *inner = simg_mopen(entry->data, entry->size)) {
            code = flash_simg(inner);
            simg_close(inner);
        } else if (partition && strcmp(partition, "partition") == 0) {
            code = gpt_flash(lun, entry->data, (uint32_t)entry->size);
        } else {
            code = flash_partition(partition ? partition : "", lun, entry);
        }
    } while (false);
    if (entry)
        simg_unload(input, filename);
    set_error(__add_context("do_flash", code));
    return nullptr;
}

xtags *do_wipe(tagline *tag)
{
    const char *partition = tagline_get(tag, "partition");
    int32_t code = 0;
    if (!partition) {
        RK_LOGE("partition name missing!\n");
        code = ERR_INVALID;
    } else {
        if (tagline_getb(tag, "verbose", false))
            RK_LOGI("Wiping %s \n", partition);
        if ((code = resolve_name_lun(tag)) == 0) {
            partition = tagline_get(tag, "partition");
            pt *p = pt_find(partition, tagline_geti(tag, "lun", -1));
            if (!p) {
                RK_LOGE("partition %s not found!\n", partition ? partition : "");
                code = get_error();
            } else if ((code = pt_erase(p)) == 0) {
                bnr_skip(partition);
            }
        }
    }
    set_error(__add_context("do_wipe", code));
    return nullptr;
}

xtags *do_storage(tagline *tag)
{
    const char *operation = tagline_get(tag, "operation");
    int32_t code = 0;
    if (!operation)
        code = ERR_MISSING_PARAM;
    else if (strcasecmp(operation, "invalidate") == 0)
        code = storage_invalidate();
    else if (strcasecmp(operation, "reinit") == 0)
        code = storage_reinit();
    else {
        RK_LOGE("invalid operation \"%s\"", operation);
        code = ERR_INVALID;
    }
    set_error(__add_context("do_storage", code));
    return nullptr;
}

} // namespace ravik
