#include "link/buffer.h"

#include <cstdio>

#include "core/core.h"
#include "link/device.h"
#include "link/properties.h"

namespace ravik {

namespace {

constexpr const char BUFFER_KEY[] = "api.buffer";

struct transfer_buffer {
    char data[BUFFER_SIZE + 1]; // room for a closing NUL at a full fill
    int32_t fill;
    int32_t limit;
    int32_t in_use;
};

int32_t on_event(int32_t event, void *payload, void *context);

void free_buffer(transfer_buffer *buf) { device_service_free(BUFFER_KEY, on_event, buf); }

int32_t on_event(int32_t event, void *payload, void *context)
{
    (void)payload;
    if (event == DEVICE_EVENT_FREE)
        free_buffer(static_cast<transfer_buffer *>(context));
    return 0;
}

// The common body of the prints: bytes added, the outcome in *code, or -1 in
// *code when there is no buffer and get_buffer's outcome stands.
int32_t print_into(transfer_buffer *buf, const char *fmt, va_list args, int32_t *code)
{
    if (!buf) {
        *code = -1;
        return 0;
    }
    if (buf->limit < 1 || buf->limit > BUFFER_SIZE) {
        *code = ERR_GENERAL;
        return 0;
    }
    if (buf->fill >= buf->limit) {
        *code = ERR_RANGE;
        return 0;
    }
    size_t room = (size_t)(buf->limit - buf->fill);
    int len = vsnprintf(buf->data + buf->fill, room, fmt, args);
    if (len < 0) {
        *code = ERR_GENERAL;
        return 0;
    }
    // The text must fit with its NUL; what earlier prints left stays.
    if ((size_t)len >= room) {
        *code = ERR_RANGE;
        return 0;
    }
    buf->fill += len;
    return len;
}

transfer_buffer *get_buffer()
{
    bool created;
    int32_t code;
    void *block = device_service_get(BUFFER_KEY, sizeof(transfer_buffer), on_event, &created, &code);
    set_error(__add_context("get_buffer", code));
    return static_cast<transfer_buffer *>(block);
}

} // namespace

int32_t __buffer_acquire()
{
    transfer_buffer *buf = get_buffer();
    if (!buf)
        return get_error();
    if (buf->in_use) {
        RK_LOGE("*** BUFFER IN USE! BUFFER IN USE!! ***\n");
        RK_RETURN(ERR_GENERAL);
    }
    buf->in_use = 1;
    buf->fill = 0;
    buf->limit = BUFFER_SIZE;
    return 0;
}

int32_t __buffer_release()
{
    if (transfer_buffer *buf = get_buffer())
        buf->in_use = 0;
    return 0;
}

int32_t buffer_rewind()
{
    if (transfer_buffer *buf = get_buffer())
        buf->fill = 0;
    return get_error();
}

int32_t buffer_read(int32_t wanted)
{
    transfer_buffer *buf = get_buffer();
    if (!buf)
        return 0;
    int32_t code = 0;
    int32_t n = 0;
    if (wanted > BUFFER_SIZE) {
        // More than the buffer holds, as a target may announce: the limit
        // stops at the buffer's end and nothing is read, since a part of the
        // payload would only confuse the caller.
        buf->limit = BUFFER_SIZE;
        code = ERR_RANGE;
    } else {
        buf->limit = wanted < 1 ? BUFFER_SIZE : wanted;
        if (buf->fill >= buf->limit) {
            code = ERR_RANGE;
        } else {
            n = device_read(buf->data + buf->fill, (uint32_t)(buf->limit - buf->fill));
            if (n > 0) {
                buf->fill += n;
                buf->data[buf->fill] = '\0';
            } else {
                code = get_error();
            }
        }
    }
    set_error(__add_context("buffer_read", code));
    return n;
}

int32_t buffer_write()
{
    transfer_buffer *buf = get_buffer();
    if (!buf)
        return 0;
    int32_t code = 0;
    int32_t n = 0;
    if (buf->fill > 0 && buf->fill <= buf->limit && buf->limit <= BUFFER_SIZE) {
        n = device_write(buf->data, (uint32_t)buf->fill);
        if (n != buf->fill)
            code = get_error();
    } else {
        code = ERR_GENERAL;
    }
    set_error(__add_context("buffer_write", code));
    return n;
}

char *buffer_base()
{
    transfer_buffer *buf = get_buffer();
    return buf ? buf->data : nullptr;
}

int32_t buffer_avail()
{
    transfer_buffer *buf = get_buffer();
    return buf ? buf->fill : 0;
}

int32_t buffer_printf(const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    int32_t code = 0;
    int32_t n = print_into(get_buffer(), fmt, args, &code);
    va_end(args);
    if (code != -1)
        set_error(__add_context("buffer_printf", code));
    return n;
}

int32_t buffer_vprintf(const char *fmt, va_list args)
{
    int32_t code = 0;
    int32_t n = print_into(get_buffer(), fmt, args, &code);
    if (code != -1)
        set_error(__add_context("buffer_vprintf", code));
    return n;
}

} // namespace ravik
