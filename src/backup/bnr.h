// Backup and restore of the partitions that must survive a flash, and the
// backup file that is itself a flashable container.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ravik {

struct simg;
struct simg_entry;
struct pt;

constexpr int32_t BNR_MAX_ENTRIES = 80;
constexpr uint32_t BNR_NAME_MAX = 39;
// Callers of bnr_fname pass a buffer of this size.
constexpr size_t BNR_FNAME_SIZE = 128;

// State flags of an entry.
enum : uint32_t {
    BNR_SKIPPED = 1,         // new contents or marked: neither saved nor restored
    BNR_BACKUP_TRIED = 2,
    BNR_BACKUP_FAILED = 4,   // no good copy exists
    BNR_RESTORE_TRIED = 8,
    BNR_RESTORE_FAILED = 16, // cleared only by a flash that worked
    BNR_NOT_FOUND = 32,
    BNR_TOO_SMALL = 64,
};

struct bnr_entry {
    char name[BNR_NAME_MAX + 1];
    uint32_t size;        // bytes saved
    char image_name[64];  // name + ".img"
    uint32_t flags;
};

struct bnr {
    int32_t num_entries;
    bnr_entry entries[BNR_MAX_ENTRIES];
    ravik::simg *simg;    // the open backup container, or null
    bool restoring;
    int32_t backup_error; // ERR_NOT_STARTED until a backup has finished
    int32_t restore_error;
};

// The device's record, made on first use; null with the error slot set.
bnr *get_bnr();
// The record if there is one; makes nothing.
bnr *bnr_find();
void free_bnr(bnr *b);
// The backup container, created under a new name unless already open.
int32_t bnr_open_file(bnr *b);

int32_t bnr_add(const char *name);
// Marks a partition that gets new contents; an unknown name is no error.
int32_t bnr_skip(const char *name);
int32_t bnr_backup(bool ignore_gpt);
int32_t bnr_restore();
char *bnr_fname(char *buf, size_t size);
int32_t add_parti(pt *p, void *context);

// The file's end of life.
int32_t bnr_save_programmer(const simg_entry *programmer);
int32_t make_flashable(bnr *b);
void bnr_review();
int32_t bnr_discard();

// Forced mode: backup and restore stay on for secure targets. One switch for
// the whole process, off at load, never cleared once set.
bool bnr_is_forced();
void bnr_enable_forced();

} // namespace ravik
