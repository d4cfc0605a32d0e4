// The device object: one per thread, the spine of a session. It holds the
// serial port, the flags word, the event subscribers and the property store,
// and it owns the end of a session (dump, log save, tear-down by events).
#pragma once

#include <cstdint>

#include "core/list.h"
#include "ravik.h"

namespace ravik {

struct xtags;

struct device_object {
    char name[256];          // must stay first: the block is handed out as the name
    int32_t handle;          // open serial handle, -1 when closed
    uint32_t flags;
    xtags *properties;       // the property store, null when torn down
    list_head subscribers;
    int32_t initialized;
};

// Event function: event, payload, context; the result is not read.
using device_fn = int32_t (*)(int32_t event, void *payload, void *context);

// The thread's device object, set up for a session on first use; null on
// failure. Clears the thread's last error on success.
device_object *get_device();
int32_t device_set_name(const char *name);
const char *device_get_name();
int32_t device_open();
int32_t device_close();
// Ends the session: dump, save, close, DEVICE_EVENT_FREE, tear-down.
void free_device();
// Bytes read, retrying an idle line 10 times; 0 after about 11 s of silence,
// which is no error here.
int32_t device_read(void *buf, uint32_t count);
// Bytes written in one attempt; 0 is ERR_IO, a short count is no error.
int32_t device_write(const void *buf, uint32_t count);
int32_t device_subscribe(device_fn fn, void *context);
// Removes every entry of fn, whatever its context; null removes all.
int32_t device_unsubscribe(device_fn fn);
int32_t device_broadcast(int32_t event, void *payload);
bool device_has_flag(uint32_t mask);
int32_t device_set_flag(uint32_t mask);
int32_t device_clr_flag(uint32_t mask);

// The only code that touches the serial port.
int32_t serial_open(const char *name);
int32_t serial_close(int32_t handle);
int32_t serial_read(int32_t handle, void *buf, uint32_t count);
int32_t serial_write(int32_t handle, const void *buf, uint32_t count);
bool serial_zlp_aware();

} // namespace ravik
