/*
 * ravik: host-side flashing of targets waiting in emergency download mode.
 *
 * One blocking call flashes a single-image container onto the target behind
 * a serial device. Everything is created on first use on the calling thread;
 * there is no init or close call.
 */
#ifndef RAVIK_H
#define RAVIK_H

#include <stdint.h>

#if defined(__GNUC__)
#define RK_API __attribute__((visibility("default")))
#else
#define RK_API
#endif

#define RAVIK_VERSION_MAJOR 4
#define RAVIK_VERSION_MINOR 0

#ifdef __cplusplus
extern "C" {
#endif

/* Flags word of rk_flash_singleimage. Values 0x010 and from 0x200 up mean nothing. */
enum {
    DEVICE_FLAG_DEBUG       = 0x001, /* log level 3, Sahara debug data dumped */
    DEVICE_FLAG_HEXDUMP     = 0x002, /* hex dump of all serial traffic at level 3 */
    DEVICE_FLAG_ZLP_AWARE   = 0x004, /* set by the library itself when the port is opened */
    DEVICE_FLAG_UFS_LOCK    = 0x008, /* UFS provisioning locks the configuration descriptor */
    DEVICE_FLAG_BNR         = 0x020, /* back up and restore the partitions that must survive */
    DEVICE_FLAG_SAVE_LOG    = 0x040, /* on failure, append the log to "ravik_log.txt" */
    DEVICE_FLAG_KEEP_BACKUP = 0x080, /* keep the backup file after a clean restore */
    DEVICE_FLAG_SECURE      = 0x100  /* set by the library for a secure target */
};

/* Events delivered to the callback. Number 1 is not used. */
enum {
    DEVICE_EVENT_LOG       = 0, /* payload: one stamped log line, valid during the call */
    DEVICE_EVENT_SAVE_LOGS = 2, /* payload: null; near the end of the session */
    DEVICE_EVENT_FREE      = 3  /* payload: the device object, whose first member is its name */
};

/*
 * Error codes. The low byte of a returned code is the message number below;
 * the next byte names the call chain that rk_describe_error renders, so test
 * for a particular failure with (code & 0xFF).
 */
enum {
    ERR_GENERAL          = 1,
    ERR_IO               = 2,
    ERR_NO_MEMORY        = 3,
    ERR_RANGE            = 4,
    ERR_NOT_FOUND        = 5,
    ERR_NOT_SUPPORTED    = 6,
    ERR_OPEN_DEVICE      = 7,
    ERR_OPEN_SIMG        = 8,
    ERR_LOAD_PACKAGE     = 9,
    ERR_LOAD_PROGRAMMER  = 10,
    ERR_BAD_FORMAT       = 11,
    ERR_LOAD_ENTRY       = 12,
    ERR_BAD_RESPONSE     = 13,
    ERR_NAK              = 14,
    ERR_PERMISSION       = 15,
    ERR_MISSING_PARAM    = 16,
    ERR_BAD_PARAM        = 17,
    ERR_NO_RESPONSE      = 18,
    ERR_OPEN_STORAGE     = 19,
    ERR_TLS              = 20,
    ERR_EXISTS           = 21,
    ERR_INVALID          = 22,
    ERR_NOT_STARTED      = 23,
    ERR_SAHARA_BASE      = 128 /* plus the status the target reported */
};

/* Event callback: event, payload, the caller's context. The result is ignored. */
typedef int32_t (*rk_callback)(int32_t event, void *payload, void *context);

/*
 * Flash the container at image_path onto the target behind the serial device
 * (at most 255 characters of its name are used). Blocks until done; returns 0
 * or an error code. Both texts are required.
 */
RK_API int32_t rk_flash_singleimage(const char *device, const char *image_path, uint32_t flags,
                                    rk_callback callback, void *context);

/* Text of a code returned on this thread; never null, owned by the library. */
RK_API const char *rk_describe_error(int32_t code);

/* Keep backup and restore on for secure targets, process-wide and for good. */
RK_API void rk_enable_forced_bnr(void);

/* Stores 4 and 0; both pointers are required. Returns 0. */
RK_API int32_t rk_get_version(int32_t *major, int32_t *minor);

#ifdef __cplusplus
}
#endif

#endif /* RAVIK_H */
