// Per-thread blocks: one zeroed heap block per slot and thread, made on first
// request and freed at thread end.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ravik {

enum tls_slot : uint32_t {
    TLS_SLOT_ERROR = 0,
    TLS_SLOT_LOGGER = 1,
    TLS_SLOT_DEVICE = 2,
};

// The calling thread's block of the slot, created zeroed with `size` bytes
// on first request; null for a bad slot, size 0, an unallocated slot index or
// no memory (the next request tries again).
void *tls_get(uint32_t slot, size_t size);
// Allocates the slot indices; -1 if the platform has none left.
int32_t tls_proc_attach();
// Frees the calling thread's blocks (flat: nothing hanging off them).
int32_t tls_thread_detach();
// Gives the slot indices back.
int32_t tls_proc_detach();

} // namespace ravik
