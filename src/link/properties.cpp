#include "link/properties.h"

#include <cstdio>

#include "core/core.h"
#include "tags/tags.h"

namespace ravik {

namespace {

constexpr const char STORE_TAG[] = "device";

xtags *store()
{
    device_object *dev = get_device();
    return dev ? dev->properties : nullptr;
}

} // namespace

int32_t device_set(const char *key, const char *value)
{
    xtags *s = store();
    if (!s)
        return 1;
    if (!key || !value)
        return -1;
    int32_t code = xtags_set(s, STORE_TAG, key, value);
    // With key and value given, only a tagline that could not be made is -1.
    if (code == -1)
        code = ERR_NO_MEMORY;
    if (code != 0)
        RK_RETURN(code);
    return 0;
}

const char *device_get(const char *key, const char *def)
{
    const char *v = xtags_get(store(), STORE_TAG, key);
    return v ? v : def;
}

int32_t device_unset(const char *key)
{
    xtags *s = store();
    if (!s)
        return 1;
    if (!key)
        return -1;
    int32_t code = xtags_unset(s, STORE_TAG, key);
    if (code != 0)
        RK_RETURN(code);
    return 0;
}

int32_t device_seti(const char *key, int32_t value)
{
    char text[16];
    snprintf(text, sizeof(text), "%d", value);
    return device_set(key, text);
}

int32_t device_geti(const char *key, int32_t def)
{
    int32_t v = xtags_geti(store(), STORE_TAG, key);
    return v ? v : def;
}

int32_t device_setu(const char *key, uint32_t value)
{
    char text[16];
    snprintf(text, sizeof(text), "%u", value);
    return device_set(key, text);
}

uint32_t device_getu(const char *key, uint32_t def)
{
    uint32_t v = xtags_getu(store(), STORE_TAG, key);
    return v ? v : def;
}

int32_t device_setp(const char *key, const void *value)
{
    // "0x%lX" holds a whole address here (unsigned long is as wide as a
    // pointer), and device_getp reads it back with the pointer rule of the
    // tag documents, which is not clamped to 32 bits.
    static_assert(sizeof(unsigned long) >= sizeof(uintptr_t));
    char text[32];
    snprintf(text, sizeof(text), "0x%lX", (unsigned long)(uintptr_t)value);
    return device_set(key, text);
}

void *device_getp(const char *key, void *def)
{
    void *v = xtags_getp(store(), STORE_TAG, key);
    return v ? v : def;
}

void *device_service_get(const char *key, size_t size, device_fn on_event, bool *created,
                         int32_t *code)
{
    *created = false;
    *code = 0;
    if (void *block = device_getp(key, nullptr))
        return block;
    mem_guard<void> block(mem_zalloc(size));
    if (!block.p) {
        *code = ERR_NO_MEMORY;
        return nullptr;
    }
    *code = device_subscribe(on_event, block.p);
    if (*code != 0)
        return nullptr;
    int32_t r = device_setp(key, block.p);
    if (r != 0) {
        // 1 (no store) and -1 cannot name a cause of their own.
        *code = (r == 1 || r == -1) ? ERR_GENERAL : r;
        device_unsubscribe(on_event);
        // The pair may be in the store although its text could not be
        // rebuilt: it must not outlive the block it names.
        device_unset(key);
        return nullptr;
    }
    *created = true;
    return block.release();
}

void device_service_free(const char *key, device_fn on_event, void *block)
{
    device_unsubscribe(on_event);
    device_unset(key);
    mem_free(block);
}

} // namespace ravik
