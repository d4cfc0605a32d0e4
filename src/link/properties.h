// The device's property store: a text bag on the device object with all that
// is learned about the target, and the registry of the thread's services,
// whose blocks live in it as pointer properties under "api." and "module."
// keys. Keys compare with ASCII case ignored; a new key goes last.
#pragma once

#include <cstddef>
#include <cstdint>

#include "link/device.h"

namespace ravik {

// Setters: 0; 1 without a device or store; -1 for a null key or value;
// ERR_NO_MEMORY when a copy fails.
int32_t device_set(const char *key, const char *value);
// The store's own text, valid until the key is set or removed, or `def`.
const char *device_get(const char *key, const char *def);
// Removes every pair of the key; 0 also when it is not there.
int32_t device_unset(const char *key);

// Numbers as text, read back with base detection. A stored 0 reads as the
// default: a 0 and a missing key cannot be told apart.
int32_t device_seti(const char *key, int32_t value);
int32_t device_geti(const char *key, int32_t def);
int32_t device_setu(const char *key, uint32_t value);
uint32_t device_getu(const char *key, uint32_t def);
int32_t device_setp(const char *key, const void *value);
void *device_getp(const char *key, void *def);

// The service pattern: the block stored under `key`, or a new zeroed block of
// `size` bytes, subscribed with `on_event` (the block as its context) and
// stored under `key`. *created tells which. Null with *code set on failure,
// with nothing left behind.
void *device_service_get(const char *key, size_t size, device_fn on_event, bool *created,
                         int32_t *code);
// Its end, for the service's free_ function: unsubscribe, unset, free.
void device_service_free(const char *key, device_fn on_event, void *block);

} // namespace ravik
