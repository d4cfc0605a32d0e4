#include "link/device.h"

#include <cstdio>
#include <cstring>

#include "core/core.h"
#include "platform/platform.h"
#include "tags/tags.h"

namespace ravik {

namespace {

constexpr int READ_ATTEMPTS = 10;
constexpr uint32_t READ_RETRY_SLEEP_MS = 100;

struct device_subscriber {
    device_fn fn;
    void *context;
    list_head link;
};

void handle_logs(const char *line, void *context)
{
    (void)context;
    device_broadcast(DEVICE_EVENT_LOG, const_cast<char *>(line));
}

int32_t create_store(device_object *dev)
{
    dev->properties = xtags_create();
    return dev->properties ? 0 : ERR_NO_MEMORY;
}

void free_store(device_object *dev)
{
    xtags_free(dev->properties);
    dev->properties = nullptr;
}

void dump_properties(device_object *dev)
{
    if (!dev->properties)
        return;
    list_for_each_safe(it, tmp, &dev->properties->lines)
    {
        tagline *line = list_entry(it, tagline, link);
        list_for_each_safe(p, ptmp, &line->kvps)
        {
            kvp *pair = list_entry(p, kvp, link);
            RK_LOGI("  %s = \"%s\",\n", pair->key, pair->value);
        }
    }
}

// The end-of-session dump goes only into the log ring: muted, so the caller's
// callback does not see it.
void save_logs(device_object *dev)
{
    logger_mute();
    RK_LOGI("\n");
    RK_LOGI("ravik version %d.%d\n", RAVIK_VERSION_MAJOR, RAVIK_VERSION_MINOR);
    RK_LOGI("\n");
    RK_LOGI("DEVICE {\n");
    RK_LOGI("  name  = \"%s\",\n", dev->name);
    RK_LOGI("  flags = \"0x%x\",\n", dev->flags);
    RK_LOGI("  addr  = \"0x%lX\",\n", (unsigned long)(uintptr_t)dev);
    dump_properties(dev);
    RK_LOGI("}\n");
    RK_LOGI("\n");
    device_broadcast(DEVICE_EVENT_SAVE_LOGS, nullptr);
    if (device_has_flag(DEVICE_FLAG_SAVE_LOG))
        logger_save();
    logger_reset();
    RK_LOGI("Session ended\n");
    logger_unmute();
}

} // namespace

device_object *get_device()
{
    auto *dev = static_cast<device_object *>(tls_get(TLS_SLOT_DEVICE, sizeof(device_object)));
    int32_t code = 0;
    if (!dev) {
        code = ERR_TLS;
    } else if (!dev->initialized) {
        list_init(&dev->subscribers);
        code = create_store(dev);
        if (code == 0) {
            dev->handle = -1;
            logger_subscribe("module.device", handle_logs, dev);
            dev->initialized = 1;
        }
    }
    set_error(__add_context("get_device", code));
    if (code != 0) {
        if (dev)
            free_store(dev);
        return nullptr;
    }
    return dev;
}

int32_t device_set_name(const char *name)
{
    device_object *dev = get_device();
    if (!dev)
        return get_error();
    snprintf(dev->name, sizeof(dev->name), "%s", name);
    return 0;
}

const char *device_get_name()
{
    device_object *dev = get_device();
    return dev ? dev->name : nullptr;
}

int32_t device_open()
{
    device_object *dev = get_device();
    if (!dev)
        return get_error();
    RK_LOGD("Opening serial device: %s\n", dev->name);
    int32_t code = 0;
    int32_t h = serial_open(dev->name);
    if (h == -1) {
        code = ERR_OPEN_DEVICE;
    } else {
        dev->handle = h;
        if (serial_zlp_aware())
            device_set_flag(DEVICE_FLAG_ZLP_AWARE);
    }
    RK_RETURN(code);
}

int32_t device_close()
{
    device_object *dev = get_device();
    if (!dev)
        return get_error();
    if (dev->handle != -1) {
        serial_close(dev->handle);
        dev->handle = -1;
    }
    return 0;
}

void free_device()
{
    device_object *dev = get_device();
    if (!dev)
        return;
    save_logs(dev);
    if (dev->handle != -1)
        device_close();
    device_broadcast(DEVICE_EVENT_FREE, dev);
    device_unsubscribe(nullptr);
    logger_unsubscribe("module.device");
    free_store(dev);
    dev->initialized = 0;
}

int32_t device_read(void *buf, uint32_t count)
{
    device_object *dev = get_device();
    if (!dev)
        return 0;
    int32_t n = 0;
    for (int attempt = 0; attempt < READ_ATTEMPTS; attempt++) {
        n = serial_read(dev->handle, buf, count);
        if (n != 0)
            break;
        platform().sleep_ms(READ_RETRY_SLEEP_MS);
    }
    if (n > 0 && device_has_flag(DEVICE_FLAG_HEXDUMP)) {
        RK_LOGD("Dumping %d bytes read\n", n);
        hexdump(buf, (size_t)n);
    }
    // get_device cleared the last error on the way in; an idle line is no error.
    set_error(__add_context("device_read", 0));
    return n;
}

int32_t device_write(const void *buf, uint32_t count)
{
    device_object *dev = get_device();
    if (!dev)
        return 0;
    int32_t n = serial_write(dev->handle, buf, count);
    int32_t code = n == 0 ? ERR_IO : 0;
    if (n > 0 && device_has_flag(DEVICE_FLAG_HEXDUMP)) {
        RK_LOGD("Dumping %d bytes written\n", n);
        hexdump(buf, (size_t)n);
    }
    set_error(__add_context("device_write", code));
    return n;
}

int32_t device_subscribe(device_fn fn, void *context)
{
    device_object *dev = get_device();
    if (!dev)
        return get_error();
    auto *s = mem_new<device_subscriber>();
    if (!s)
        return ERR_NO_MEMORY;
    s->fn = fn;
    s->context = context;
    list_add_tail(&dev->subscribers, &s->link);
    return 0;
}

int32_t device_unsubscribe(device_fn fn)
{
    device_object *dev = get_device();
    if (!dev)
        return get_error();
    list_for_each_safe(it, tmp, &dev->subscribers)
    {
        auto *s = list_entry(it, device_subscriber, link);
        if (!fn || s->fn == fn) {
            list_del(&s->link);
            mem_free(s);
        }
    }
    return 0;
}

int32_t device_broadcast(int32_t event, void *payload)
{
    device_object *dev = get_device();
    if (!dev)
        return get_error();
    list_for_each_safe(it, tmp, &dev->subscribers)
    {
        auto *s = list_entry(it, device_subscriber, link);
        s->fn(event, payload, s->context);
    }
    return 0;
}

bool device_has_flag(uint32_t mask)
{
    device_object *dev = get_device();
    return dev && (dev->flags & mask) != 0;
}

int32_t device_set_flag(uint32_t mask)
{
    device_object *dev = get_device();
    if (!dev)
        return get_error();
    dev->flags |= mask;
    if (dev->flags & DEVICE_FLAG_DEBUG)
        logger_set_level(LOG_DEBUG);
    return 0;
}

int32_t device_clr_flag(uint32_t mask)
{
    device_object *dev = get_device();
    if (!dev)
        return get_error();
    dev->flags &= ~mask;
    return 0;
}

} // namespace ravik
