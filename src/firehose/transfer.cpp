// Sector I/O: program writes, read and dump read, patch is passed on. Bulk
// data never goes through the transfer buffer: it is written straight from
// the loaded entry or the caller's memory and read straight into it.
#include <cstring>
#include <strings.h>

#include "backup/bnr.h"
#include "container/container.h"
#include "core/core.h"
#include "firehose/commands.h"
#include "firehose/engine.h"
#include "firehose/link.h"
#include "link/device.h"
#include "link/properties.h"
#include "storage/storage.h"

namespace ravik {

namespace {

constexpr int READ_RETRIES = 16;
constexpr double DUMP_STALL_LIMIT = 1.5;

// Reads exactly `length` bytes into `dst`, leaving early when a read brings
// nothing. The count that came.
uint32_t read_exact(uint8_t *dst, uint32_t length)
{
    uint32_t got = 0;
    while (got < length) {
        int32_t n = device_read(dst + got, length - got);
        if (n <= 0)
            break;
        got += (uint32_t)n;
    }
    return got;
}

} // namespace

xtags *send_raw(const void *start, uint32_t size)
{
    int32_t code = 0;
    xtags *doc = nullptr;
    uint32_t chunk = device_getu("fh.max_packet_sz", 0);
    const uint8_t *p = static_cast<const uint8_t *>(start);
    if (chunk == 0) {
        code = ERR_INVALID;
    } else {
        for (uint32_t done = 0; done < size && code == 0;) {
            uint32_t n = size - done < chunk ? size - done : chunk;
            RK_LOGD("H->D: %d bytes\n", (int)n);
            if (device_write(p + done, n) != (int32_t)n)
                code = ERR_IO;
            done += n;
        }
        if (code == 0) {
            doc = fh_read_resp();
            code = no_response_code(doc, get_error());
        }
    }
    set_error(__add_context("send_raw", code));
    return doc;
}

xtags *do_program(tagline *tag)
{
    int32_t code = 0;
    xtags *doc = nullptr;
    const char *load_from = tagline_get(tag, "load_from");
    bool from_memory = load_from && strcasecmp(load_from, "buffer") == 0;
    simg *input = firehose_get_input();
    simg_entry *entry = nullptr;
    const char *filename = nullptr;
    do {
        if (!from_memory) {
            const char *label = tagline_get(tag, "label");
            filename = tagline_get(tag, "filename");
            if (!label) {
                code = ERR_MISSING_PARAM;
                break;
            }
            if (!filename) {
                RK_LOGD("Skipping %s as there is no filename specified\n", label);
                break;
            }
            if (!input || !simg_find(input, filename)) {
                RK_LOGD("%s not found, skipping\n", filename);
                break;
            }
            // About to change: its old contents must not be restored over the new.
            bnr_skip(label);
            char size_text[64];
            RK_LOGI("Flashing partition %s with %s (%s)\n", label, filename,
                    humanize_r(simg_find(input, filename)->size, size_text, sizeof(size_text)));
            entry = simg_load(input, filename);
            if (!entry) {
                code = ERR_LOAD_ENTRY;
                break;
            }
        }
        int32_t sector = tagline_geti(tag, "SECTOR_SIZE_IN_BYTES", 0);
        if (sector == 0) {
            code = ERR_MISSING_PARAM;
            break;
        }
        if (sector < 0 || (int64_t)SIMG_BLKSZ % sector != 0) {
            RK_LOGE("SIMG_BLKSZ (%d) must be multiples of sector size(%d)\n", (int)SIMG_BLKSZ, sector);
            code = ERR_BAD_PARAM;
            break;
        }
        uint32_t length;
        if (from_memory) {
            length = (uint32_t)sector * (uint32_t)tagline_geti(tag, "num_partition_sectors", 0);
        } else {
            uint32_t size = (uint32_t)entry->size;
            length = (uint32_t)((size + (uint64_t)sector - 1) / (uint32_t)sector * (uint32_t)sector);
        }
        if ((code = tagline_setu(tag, "num_partition_sectors", length / (uint32_t)sector)) != 0)
            break;
        doc = fh_send_and_switch_to_raw(tag);
        if ((code = no_response_code(doc, get_error())) != 0)
            break;
        const void *start = from_memory ? tagline_getp(tag, "buffer", nullptr) : entry->data;
        if (!start) {
            code = ERR_INVALID;
            break;
        }
        doc = send_raw(start, length);
        code = get_error();
    } while (false);
    if (entry)
        simg_unload(input, filename);
    set_error(__add_context("do_program", code));
    return doc;
}

xtags *do_read(tagline *tag)
{
    int32_t code = 0;
    xtags *doc = nullptr;
    uint32_t sector = tagline_getu(tag, "SECTOR_SIZE_IN_BYTES", 0);
    uint32_t start = tagline_getu(tag, "start_sector", 0);
    uint32_t total = tagline_getu(tag, "num_partition_sectors", 0);
    auto *buffer = static_cast<uint8_t *>(tagline_getp(tag, "buffer", nullptr));
    if (!sector || !start || !total || !buffer) {
        set_error(__add_context("do_read", ERR_BAD_PARAM));
        return nullptr;
    }
    uint32_t done = 0, chunk = total;
    int failures = 0;
    while (done < total && code == 0) {
        uint32_t count = chunk < total - done ? chunk : total - done;
        if ((code = tagline_setu(tag, "num_partition_sectors", count)) != 0)
            break;
        doc = fh_send(tag);
        fh_check_ack();
        if ((code = get_error()) != 0) {
            if (++failures > READ_RETRIES)
                break;
            code = 0;
            RK_LOGI("...retry\n");
            continue;
        }
        uint32_t bytes = count * sector;
        uint8_t *dst = buffer + (uint64_t)done * sector;
        bool good = read_exact(dst, bytes) == bytes;
        if (good) {
            doc = fh_read_resp();
            good = fh_check_ack();
        }
        if (good) {
            failures = 0;
            chunk = chunk * 2 < total ? chunk * 2 : total;
            start += count;
            if ((code = tagline_setu(tag, "start_sector", start)) != 0)
                break;
            done += count;
            continue;
        }
        // The next attempt writes over what this one stored.
        if (++failures > READ_RETRIES) {
            RK_LOGE("Read failed, aborting!\n");
            code = ERR_IO;
            break;
        }
        chunk = chunk / 4 ? chunk / 4 : 1;
        RK_LOGI("...retry\n");
    }
    set_error(__add_context("do_read", code));
    return doc;
}

xtags *do_dump(tagline *tag)
{
    int32_t code = 0;
    xtags *doc = nullptr;
    uint32_t sector = tagline_getu(tag, "SECTOR_SIZE_IN_BYTES", 0);
    uint32_t total = sector * tagline_getu(tag, "num_partition_sectors", 0);
    auto *buffer = static_cast<uint8_t *>(tagline_getp(tag, "buffer", nullptr));
    uint32_t chunk = device_getu("fh.max_packet_sz", 0);
    auto *watch = static_cast<const dump_watch *>(device_getp(DUMP_WATCH, nullptr));
    do {
        if (!sector || !total || !chunk || chunk % sector != 0 || !buffer) {
            code = ERR_BAD_PARAM;
            break;
        }
        doc = fh_send_and_switch_to_raw(tag);
        if (!fh_check_ack()) {
            code = ERR_NO_RESPONSE;
            break;
        }
        // "DATA" and the full chunk size, also for a shorter last chunk.
        uint8_t request[8] = {'D', 'A', 'T', 'A', (uint8_t)chunk, (uint8_t)(chunk >> 8),
                              (uint8_t)(chunk >> 16), (uint8_t)(chunk >> 24)};
        for (uint32_t done = 0; done < total && code == 0;) {
            uint32_t n = total - done < chunk ? total - done : chunk;
            if (device_write(request, sizeof(request)) != (int32_t)sizeof(request)) {
                code = ERR_IO;
                break;
            }
            double asked = now();
            uint32_t got = 0;
            while (got < n) {
                int32_t r = device_read(buffer + done + got, n - got);
                if (r > 0) {
                    got += (uint32_t)r;
                } else if (now() - asked > DUMP_STALL_LIMIT) {
                    code = ERR_IO;
                    break;
                }
            }
            done += n;
            if (code == 0 && watch)
                watch->fn(watch->context, buffer, done);
        }
    } while (false);
    set_error(__add_context("do_dump", code));
    return doc;
}

xtags *do_patch(tagline *tag)
{
    const char *filename = tagline_get(tag, "filename");
    if (!filename || strcasecmp(filename, "DISK") != 0) {
        RK_LOGD("Skipping as we patch \"DISK\" only\n");
        set_error(0);
        return nullptr;
    }
    // Without `what` the line shows the target's own order instead.
    const char *what = tagline_get(tag, "what");
    RK_LOGI("Patching %s -- %s\n", filename, what ? what : (tag->attrs ? tag->attrs : ""));
    xtags *doc = fh_send(tag);
    set_error(no_response_code(doc, get_error()));
    return doc;
}

} // namespace ravik
