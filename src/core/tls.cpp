#include "core/tls.h"

#include "core/alloc.h"
#include "platform/platform.h"

namespace ravik {

namespace {
constexpr uint32_t SLOT_COUNT = 3;
// Written only at process attach and detach.
uint32_t slot_index[SLOT_COUNT] = {PLATFORM_TLS_INVALID, PLATFORM_TLS_INVALID,
                                   PLATFORM_TLS_INVALID};

// Runs at thread end for every slot that still holds a block.
void free_at_thread_end(void *block) { mem_free(block); }
} // namespace

void *tls_get(uint32_t slot, size_t size)
{
    if (slot >= SLOT_COUNT || size == 0 || slot_index[slot] == PLATFORM_TLS_INVALID)
        return nullptr;
    void *block = platform_tls_get(slot_index[slot]);
    if (!block) {
        block = mem_zalloc(size);
        if (!block)
            return nullptr;
        if (!platform_tls_set(slot_index[slot], block)) {
            mem_free(block);
            return nullptr;
        }
    }
    return block;
}

int32_t tls_proc_attach()
{
    for (uint32_t i = 0; i < SLOT_COUNT; i++) {
        if (slot_index[i] != PLATFORM_TLS_INVALID)
            continue;
        slot_index[i] = platform_tls_alloc(free_at_thread_end);
        if (slot_index[i] == PLATFORM_TLS_INVALID)
            return -1;
    }
    return 0;
}

int32_t tls_thread_detach()
{
    for (uint32_t i = 0; i < SLOT_COUNT; i++) {
        if (slot_index[i] == PLATFORM_TLS_INVALID)
            continue;
        void *block = platform_tls_get(slot_index[i]);
        if (block) {
            mem_free(block);
            platform_tls_set(slot_index[i], nullptr);
        }
    }
    return 0;
}

int32_t tls_proc_detach()
{
    for (uint32_t i = 0; i < SLOT_COUNT; i++) {
        if (slot_index[i] == PLATFORM_TLS_INVALID)
            continue;
        platform_tls_free(slot_index[i]);
        slot_index[i] = PLATFORM_TLS_INVALID;
    }
    return 0;
}

} // namespace ravik
