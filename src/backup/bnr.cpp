// The backup list, the backup of the listed partitions into a container on
// the host, and their restore after the flash. The target is reached only
// through storage and through commands run as if they stood in a recipe.
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <unistd.h>

#include "backup/bnr.h"
#include "container/container.h"
#include "core/core.h"
#include "firehose/engine.h"
#include "link/device.h"
#include "link/properties.h"
#include "platform/platform.h"
#include "storage/storage.h"

namespace ravik {

namespace {

constexpr const char *BNR_KEY = "api.bnr";
constexpr uint64_t BNR_SIZE_LIMIT = 1ull << 31;

int32_t on_event(int32_t event, void *payload, void *context);

// Names are kept cut to their first 39 characters, and compared so.
bnr_entry *find_entry(bnr *b, const char *name)
{
    for (int32_t i = 0; i < b->num_entries; i++)
        if (strncmp(b->entries[i].name, name, BNR_NAME_MAX) == 0)
            return &b->entries[i];
    return nullptr;
}

unsigned bit(const bnr_entry &e, uint32_t flag) { return (e.flags & flag) ? 1u : 0u; }

void dump_bnr(const bnr *b)
{
    char size[32];
    RK_LOGI("\n");
    RK_LOGI("Backup & Restore {\n");
    RK_LOGI("  num_entries = %d,\n", (int)b->num_entries);
    RK_LOGI("  restoring = \"%s\",\n", b->restoring ? "true" : "false");
    if (b->backup_error != 0)
        RK_LOGI("  backup_error = \"%s\",\n", format_error(b->backup_error));
    if (b->restore_error != 0)
        RK_LOGI("  restore_error = \"%s\",\n", format_error(b->restore_error));
    for (int32_t i = 0; i < b->num_entries; i++) {
        const bnr_entry &e = b->entries[i];
        RK_LOGI("  entries[%02d] = { skipped = %u, backup_tried = %u, backup_failed = %u, restore_tried = %u, "
                "restore_failed = %u, name =\"%s\"},\n",
                (int)i, bit(e, BNR_SKIPPED), bit(e, BNR_BACKUP_TRIED), bit(e, BNR_BACKUP_FAILED),
                bit(e, BNR_RESTORE_TRIED), bit(e, BNR_RESTORE_FAILED), e.name);
    }
    if (b->simg) {
        RK_LOGI("  simg = {\n");
        RK_LOGI("    filename = \"%s\",\n", b->simg->path);
        for (int32_t i = 0; i < b->simg->num_entries; i++)
            RK_LOGI("    entries[%02d] = { size = %6s, name = \"%s\" },\n", (int)i,
                    humanize_r(b->simg->entries[i].size, size, sizeof(size)), b->simg->entries[i].name);
        RK_LOGI("  }\n");
    }
    RK_LOGI("}\n");
    RK_LOGI("\n");
}

int32_t on_event(int32_t event, void *, void *context)
{
    auto *b = static_cast<bnr *>(context);
    if (event == DEVICE_EVENT_FREE)
        free_bnr(b);
    else if (event == DEVICE_EVENT_SAVE_LOGS)
        dump_bnr(b);
    return 0;
}

// A partition is stored while its dump still runs, by a thread of its own,
// so that when the last byte arrives only the last piece, the tail and the
// commit remain. The thread is woken for pieces of at least this much, which
// makes a wake-up and a system call nothing beside the bytes; a quarter of
// a small partition, so that it too is written beside its dump.
constexpr uint64_t STAGE_STEP = 8ull << 20;

// Shared by the session's thread, which learns from the dump what is final,
// and the writer thread. The writer neither logs nor touches the error slot:
// both are per thread and allocate.
struct stage_writer {
    simg_stage *st;
    const uint8_t *data;
    uint64_t size;
    uint64_t step;
    uint64_t told; // what was last handed over; the session's thread only
    std::mutex lock;
    std::condition_variable wake;
    uint64_t final; // under lock
    bool stop;      // under lock
};

void *write_stage(void *arg)
{
    auto *w = static_cast<stage_writer *>(arg);
    uint64_t taken = 0;
    for (;;) {
        bool last;
        {
            std::unique_lock<std::mutex> hold(w->lock);
            w->wake.wait(hold, [&] { return w->stop || w->final > taken; });
            taken = w->final;
            last = w->stop;
        }
        // What was handed over is written even after the stop: the end then
        // finds less to do, and a failure shows whichever way the race went.
        if (simg_stage_put(w->st, w->data, taken) != 0 || last)
            return nullptr;
    }
}

void on_dump(void *context, const uint8_t *buffer, uint64_t done)
{
    auto *w = static_cast<stage_writer *>(context);
    uintptr_t from = (uintptr_t)buffer, base = (uintptr_t)w->data;
    // Only bytes that continue the final ones from the buffer's start count.
    if (from < base || from - base > w->told || done > w->size - (from - base))
        return;
    uint64_t end = from - base + done;
    if (end < w->told + w->step && !(end == w->size && end > w->told))
        return;
    w->told = end;
    {
        std::lock_guard<std::mutex> hold(w->lock);
        w->final = end;
    }
    w->wake.notify_one();
}

// The watch on the dump and the writer thread of one partition, both gone
// on every road out. Without either, the whole store follows the dump.
struct stage_guard {
    stage_writer *w;
    dump_watch watch;
    bool watching;
    bool running;
    platform_thread thread;

    void start()
    {
        watch = {on_dump, w};
        watching = true;
        if (device_setp(DUMP_WATCH, &watch) == 0)
            running = platform_thread_start(&thread, write_stage, w);
        if (!running)
            finish();
    }
    void finish()
    {
        if (watching)
            device_unset(DUMP_WATCH);
        watching = false;
        if (!running)
            return;
        {
            std::lock_guard<std::mutex> hold(w->lock);
            w->stop = true;
        }
        w->wake.notify_one();
        platform_thread_join(&thread);
        running = false;
    }
    ~stage_guard() { finish(); }
};

// The steps of a backup after the record is had; the caller keeps the code.
int32_t run_backup(bnr *b, bool ignore_gpt)
{
    if (!ignore_gpt)
        pt_forall(-1, add_parti, nullptr);
    if (b->num_entries == 0)
        return 0;
    // Without storage there is nothing to save, and no file either.
    if (storage_init() != 0)
        return 0;
    int32_t code = bnr_open_file(b);
    if (code != 0)
        return code;
    mem_guard<uint8_t> data(nullptr);
    for (int32_t i = 0; i < b->num_entries; i++) {
        bnr_entry &e = b->entries[i];
        e.flags = (e.flags | BNR_BACKUP_TRIED) & ~BNR_BACKUP_FAILED;
        if (e.flags & BNR_SKIPPED)
            continue;
        RK_LOGI("Backing up %s\n", e.name);
        e.flags |= BNR_BACKUP_FAILED;
        pt *p = pt_find(e.name, -1);
        if (!p) {
            RK_LOGI("...partition not found, skipping\n");
            e.flags |= BNR_NOT_FOUND;
            continue;
        }
        uint64_t size = pt_size(p);
        if (size == 0 || size >= BNR_SIZE_LIMIT) {
            RK_LOGE("...partition size out of range!\n");
            return ERR_RANGE;
        }
        // One partition at a time is held, so the last one's buffer goes first.
        mem_free(data.release());
        if (!(data.p = static_cast<uint8_t *>(mem_zalloc((size_t)size)))) {
            RK_LOGE("...out of memory!\n");
            return ERR_NO_MEMORY;
        }
        // Copied by hand: a print from one field of the entry into another
        // trips the overlap check of some builds.
        static_assert(sizeof(e.image_name) >= BNR_NAME_MAX + sizeof(".img"));
        size_t len = strnlen(e.name, sizeof(e.name) - 1);
        memcpy(e.image_name, e.name, len);
        memcpy(e.image_name + len, ".img", sizeof(".img"));
        // A stage that cannot begin leaves the store to the end, which then
        // fails as it always did.
        simg_stage st;
        bool staged = simg_stage_begin(b->simg, size, e.image_name, &st) == 0;
        stage_writer w{&st, data.p, size, STAGE_STEP, 0, {}, {}, 0, false};
        if (size / 4 < w.step)
            w.step = size / 4;
        stage_guard guard{&w, {}, false, false, {}};
        code = pt_seek(p, 0, 0);
        if (code == 0 && staged)
            guard.start();
        if (code == 0 && pt_read(p, data.p, (uint32_t)size) != size)
            code = get_error();
        guard.finish();
        if (code != 0) {
            RK_LOGE("...failed to read partition!\n");
            return code;
        }
        if (!(staged ? simg_stage_end(&st, data.p) : simg_store(b->simg, data.p, size, e.image_name))) {
            RK_LOGE("...failed to save partition!\n");
            return get_error();
        }
        e.flags &= ~BNR_BACKUP_FAILED;
        e.size = (uint32_t)size;
    }
    return make_flashable(b);
}

} // namespace

bnr *get_bnr()
{
    int32_t code = 0;
    bool created = false;
    bnr *b = nullptr;
    if (!get_device())
        code = get_error();
    else
        b = static_cast<bnr *>(device_service_get(BNR_KEY, sizeof(bnr), on_event, &created, &code));
    if (b && created) {
        b->backup_error = ERR_NOT_STARTED;
        b->restore_error = ERR_NOT_STARTED;
    }
    set_error(__add_context("get_bnr", code));
    return b;
}

bnr *bnr_find()
{
    return static_cast<bnr *>(device_getp(BNR_KEY, nullptr));
}

void free_bnr(bnr *b)
{
    if (!b)
        return;
    // Closed, never deleted: what is still open here was kept on purpose.
    simg_close(b->simg);
    device_service_free(BNR_KEY, on_event, b);
}

int32_t bnr_open_file(bnr *b)
{
    if (b->simg)
        return 0;
    char path[BNR_FNAME_SIZE];
    bnr_fname(path, sizeof(path));
    // A file of that name may be an earlier backup, made within the same
    // second: it is never added to, and never later deleted as our own.
    if (access(path, F_OK) == 0) {
        RK_LOGE("backup file %s exists already!\n", path);
        RK_RETURN(ERR_EXISTS);
    }
    b->simg = simg_open(path, SIMG_CREATE);
    RK_RETURN(b->simg ? 0 : get_error());
}

int32_t bnr_add(const char *name)
{
    bnr *b = get_bnr();
    if (!b)
        RK_RETURN(get_error());
    if (!name)
        RK_RETURN(ERR_BAD_PARAM);
    if (find_entry(b, name))
        return 0;
    if (b->num_entries == BNR_MAX_ENTRIES) {
        RK_LOGE("too many backup entries!\n");
        RK_RETURN(ERR_RANGE);
    }
    bnr_entry &e = b->entries[b->num_entries++];
    snprintf(e.name, sizeof(e.name), "%s", name);
    return 0;
}

int32_t bnr_skip(const char *name)
{
    bnr *b = get_bnr();
    if (!b)
        RK_RETURN(get_error());
    // The restore's own writes leave the flags alone.
    if (b->restoring || !name)
        return 0;
    if (bnr_entry *e = find_entry(b, name))
        e->flags |= BNR_SKIPPED;
    return 0;
}

int32_t add_parti(pt *p, void *)
{
    return pt_needs_bnr(p) ? bnr_add(pt_name(p)) : 0;
}

char *bnr_fname(char *buf, size_t size)
{
    char when[64] = "";
    struct tm tm {};
    if (platform().local_time(&tm) && strftime(when, sizeof(when), "%Y-%m-%d_%H%M%S", &tm) == 0)
        when[0] = '\0';
    snprintf(buf, size, "backup_0x%08X_%s.img", device_getu("cpu.serial", 0), when);
    return buf;
}

int32_t bnr_backup(bool ignore_gpt)
{
    bnr *b = get_bnr();
    if (!b)
        RK_RETURN(get_error());
    b->backup_error = __add_context("bnr_backup", run_backup(b, ignore_gpt));
    return b->backup_error;
}

int32_t bnr_restore()
{
    bnr *b = get_bnr();
    if (!b)
        RK_RETURN(get_error());
    simg *outer = firehose_get_input();
    if (b->simg && b->num_entries != 0) {
        b->restoring = true;
        // The flash command finds its images in the backup file.
        firehose_set_input(b->simg);
        for (int32_t i = 0; i < b->num_entries; i++) {
            bnr_entry &e = b->entries[i];
            if (e.flags & BNR_SKIPPED)
                continue;
            RK_LOGI("Restoring %s\n", e.name);
            if (!(e.flags & BNR_BACKUP_TRIED) || (e.flags & BNR_BACKUP_FAILED)) {
                RK_LOGI("...no backup, skipping!\n");
                continue;
            }
            e.flags |= BNR_RESTORE_TRIED | BNR_RESTORE_FAILED;
            pt *p = pt_find(e.name, -1);
            if (!p) {
                RK_LOGI("...partition not found, skipping\n");
                e.flags |= BNR_NOT_FOUND;
                continue;
            }
            if (pt_size(p) < e.size) {
                RK_LOGI("...partition too small, skipping\n");
                e.flags |= BNR_TOO_SMALL;
                continue;
            }
            firehose_do_fmt("flash partition=\"%s\" filename=\"%s\"", e.name, e.image_name);
            if (get_error() == 0)
                e.flags &= ~BNR_RESTORE_FAILED;
            else
                RK_LOGI("...failed to flash, continuing\n");
        }
        b->restoring = false;
    }
    firehose_set_input(outer);
    // Single entries keep their outcome in their flags.
    b->restore_error = 0;
    return 0;
}

} // namespace ravik
