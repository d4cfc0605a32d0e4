// What the target's storage is, and file-like access to it by partition
// name or by LUN. Positions and sizes on the target are bytes in 64 bits;
// sector numbers appear only in the commands that go out.
#pragma once

#include <cstdint>

#include "core/list.h"

namespace ravik {

struct device_object;
struct storage;
struct gpt_slot;

constexpr uint32_t STORAGE_MAX_LUNS = 8;
constexpr uint32_t PT_NAME_MAX = 39;

enum storage_type : uint32_t {
    STORAGE_UNKNOWN = 0,
    STORAGE_EMMC = 1,
    STORAGE_UFS = 2,
};

struct pt {
    struct {
        uint32_t needs_bnr : 1; // the contents must survive a flash
    } attrs;
    char name[PT_NAME_MAX + 1];
    int32_t lun;
    uint64_t offset; // start on the LUN, bytes
    uint64_t size;
    uint64_t pos;    // within the partition
    list_head link;  // in its LUN's list
};

struct lun_record {
    int32_t index;
    uint64_t size; // bytes
    uint64_t pos;  // for the lun_ operations
    list_head *ptable;
    storage *owner;
};

struct storage {
    uint32_t type;  // storage_type, follows from blksz
    char *part;     // the UFS inquiry text, for the dump only
    uint32_t blksz;
    uint32_t num_luns;
    lun_record luns[STORAGE_MAX_LUNS];
    list_head ptable[STORAGE_MAX_LUNS];
    bool initialized; // discovery was started for this record
    device_object *device;
};

// Discovery. The record is made and filled on first use; a failed discovery
// frees it, so the next use asks the target again.
storage *get_storage();
int32_t storage_init();
int32_t storage_invalidate();
int32_t storage_reinit();
void free_storage(storage *s);

// The partition lists, filled from the GPTs of the LUNs in ascending order.
int32_t init_pt(storage *s);
void pt_clear(storage *s);
pt *pt_addg(storage *s, const gpt_slot *slot);

uint32_t storage_blksz();
// Lun -1 searches all LUNs, and a name on several of them gives the highest.
pt *pt_find(const char *name, int32_t lun);
using pt_fn = int32_t (*)(pt *p, void *context);
int32_t pt_forall(int32_t lun, pt_fn fn, void *context);
lun_record *get_lun(int32_t lun);
uint64_t lun_size(int32_t lun);
uint64_t lun_szblks(int32_t lun);
uint64_t pt_size(const pt *p);
int32_t pt_lun(const pt *p);
const char *pt_name(const pt *p);
bool pt_needs_bnr(const pt *p);

// Whence: 0 from the start, 1 from the position, 2 from the size. The end
// itself is no valid target.
int32_t pt_seek(pt *p, int64_t offset, int whence);
int32_t lun_seek(int32_t lun, int64_t offset, int whence);
// Bytes done: the length asked for, or 0 with the error slot set.
uint32_t pt_read(pt *p, void *buf, uint32_t length);
uint32_t pt_write(pt *p, const void *buf, uint32_t length);
uint32_t lun_read(int32_t lun, void *buf, uint32_t length);
uint32_t lun_write(int32_t lun, const void *buf, uint32_t length);
// Writes zeros over the whole partition; the position is not used.
int32_t pt_erase(pt *p);

// One dump or program command each; the buffer goes out by its address.
uint32_t storage_read(int32_t lun, uint64_t pos, void *buf, uint32_t length);
uint32_t storage_write(int32_t lun, uint64_t pos, const void *buf, uint32_t length);

// For a reader that uses the bytes before its read ends: the dump calls it
// after each chunk with the bytes [buffer, buffer + done) that are final.
// Registered with device_setp under DUMP_WATCH; called on the session's
// thread.
struct dump_watch {
    void (*fn)(void *context, const uint8_t *buffer, uint64_t done);
    void *context;
};
constexpr const char *DUMP_WATCH = "fh.dump_watch";

} // namespace ravik
