#include "core/logger.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>

#include "core/alloc.h"
#include "core/error.h"
#include "core/list.h"
#include "core/tls.h"
#include "core/util.h"
#include "platform/platform.h"

namespace ravik {

namespace {

constexpr uint32_t LOGGER_MAGIC = 0xDEADBEEF;
constexpr uint32_t RING_BYTES = LOG_RING_SIZE + LOG_RING_OVERHANG;

struct log_ring {
    char data[RING_BYTES];
    uint32_t count;
    double start_time;
};

struct logger_block {
    uint32_t magic;
    log_ring rings[2];
    log_ring *current;
    log_ring *previous;
    int32_t log_number;
    uint32_t level;
    list_head subscribers;
    bool muted;
};

struct log_subscriber {
    char name[64];
    logger_fn fn;
    void *context;
    list_head link;
};

void reset_ring(logger_block *lg);

logger_block *get_logger()
{
    auto *lg = static_cast<logger_block *>(tls_get(TLS_SLOT_LOGGER, sizeof(logger_block)));
    if (lg && lg->magic == 0) {
        list_init(&lg->subscribers);
        lg->magic = LOGGER_MAGIC;
        lg->level = LOG_INFO;
        lg->current = &lg->rings[0];
        lg->previous = &lg->rings[1];
        reset_ring(lg);
    }
    return lg;
}

// Writes a ring's text in order of age: the older part behind the write
// position first when the ring has wrapped.
void flush_buffer(FILE *f, const log_ring *ring)
{
    uint32_t pos = ring->count & (LOG_RING_SIZE - 1);
    if (ring->count >= LOG_RING_SIZE)
        fwrite(ring->data + pos, 1, LOG_RING_SIZE - pos, f);
    if (pos != 0)
        fwrite(ring->data, 1, pos, f);
}

} // namespace

void logger_log(const char *fmt, ...)
{
    logger_block *lg = get_logger();
    int32_t saved = get_error();
    if (!lg)
        return;
    log_ring *ring = lg->current;
    uint32_t pos = ring->count & (LOG_RING_SIZE - 1);
    size_t room = RING_BYTES - pos;
    char *line = ring->data + pos;

    int stamp = snprintf(line, room, "[%7.3f] ", now() - ring->start_time);
    if (stamp < 0)
        stamp = 0;
    int msg = 0;
    if ((size_t)stamp < room) {
        va_list ap;
        va_start(ap, fmt);
        msg = vsnprintf(line + stamp, room - stamp, fmt, ap);
        va_end(ap);
        if (msg < 0)
            msg = 0;
    }

    if (!lg->muted) {
        list_for_each_safe(it, tmp, &lg->subscribers)
        {
            log_subscriber *s = list_entry(it, log_subscriber, link);
            s->fn(line, s->context);
        }
    }

    uint64_t n = (uint64_t)stamp + (uint64_t)msg;
    if (n >= room)
        n = RING_BYTES - 1 - pos;
    uint64_t end = pos + n;
    ring->count += (uint32_t)n;
    // A line that ran past the ring proper moves its tail, NUL included, to
    // the front, where the next line then continues.
    if (end > LOG_RING_SIZE)
        memcpy(ring->data, ring->data + LOG_RING_SIZE, end - (LOG_RING_SIZE - 1));
    set_error(saved);
}

uint32_t logger_get_level()
{
    logger_block *lg = get_logger();
    return lg ? lg->level : LOG_DEBUG;
}

int32_t logger_set_level(uint32_t level)
{
    logger_block *lg = get_logger();
    if (lg)
        lg->level = level;
    return 0;
}

int32_t logger_subscribe(const char *name, logger_fn fn, void *context)
{
    logger_block *lg = get_logger();
    if (!lg || !name || !*name || !fn)
        return -1;
    list_for_each_safe(it, tmp, &lg->subscribers)
    {
        log_subscriber *s = list_entry(it, log_subscriber, link);
        if (strcmp(s->name, name) == 0) {
            s->fn = fn;
            s->context = context;
            return 0;
        }
    }
    auto *s = mem_new<log_subscriber>();
    if (!s)
        return -1;
    snprintf(s->name, sizeof(s->name), "%s", name);
    s->fn = fn;
    s->context = context;
    list_add_tail(&lg->subscribers, &s->link);
    return 0;
}

void logger_unsubscribe(const char *name)
{
    logger_block *lg = get_logger();
    if (!lg || !name)
        return;
    list_for_each_safe(it, tmp, &lg->subscribers)
    {
        log_subscriber *s = list_entry(it, log_subscriber, link);
        if (strcmp(s->name, name) == 0) {
            list_del(&s->link);
            mem_free(s);
            return;
        }
    }
}

int32_t logger_mute()
{
    logger_block *lg = get_logger();
    if (lg)
        lg->muted = true;
    return 0;
}

int32_t logger_unmute()
{
    logger_block *lg = get_logger();
    if (lg)
        lg->muted = false;
    return 0;
}

int32_t logger_save()
{
    FILE *f = fopen(LOG_FILE_NAME, "a");
    logger_block *lg = get_logger();
    if (!lg) {
        if (f)
            fclose(f);
        return ERR_TLS;
    }
    if (!f)
        return ERR_IO;
    struct stat st;
    if (fstat(fileno(f), &st) == 0 && st.st_size > (off_t)LOG_FILE_LIMIT) {
        fclose(f);
        f = fopen(LOG_FILE_NAME, "w");
        if (!f)
            return ERR_IO;
        fputs("==== TRUNCATED TRUNCATED TRUNCATED!!! ====\n", f);
        fclose(f);
        f = fopen(LOG_FILE_NAME, "a");
        if (!f)
            return ERR_IO;
    }
    if (lg->previous->count != 0)
        flush_buffer(f, lg->previous);
    if (lg->current->count != 0)
        flush_buffer(f, lg->current);
    fclose(f);
    return 0;
}

namespace {
void reset_ring(logger_block *lg)
{
    struct tm tm_now;
    bool have_time = platform().local_time(&tm_now);
    log_ring *r = lg->previous;
    lg->previous = lg->current;
    lg->current = r;
    r->start_time = now();
    r->count = 0;
    r->data[0] = '\0';
    if (have_time) {
        char stamp[20];
        strftime(stamp, sizeof(stamp), "%Y-%m-%d_%H:%M:%S", &tm_now);
        lg->log_number++;
        int n = snprintf(r->data, RING_BYTES, "\n**** Log buffer [%06d] %s ****\n\n", lg->log_number,
                         stamp);
        r->count = n > 0 ? (uint32_t)n : 0;
    }
}
} // namespace

int32_t logger_reset()
{
    logger_block *lg = get_logger();
    if (lg)
        reset_ring(lg);
    return 0;
}

bool logger_current(logger_view *out)
{
    logger_block *lg = get_logger();
    if (!lg)
        return false;
    *out = {lg->current->data, lg->current->count, lg->current->start_time};
    return true;
}

bool logger_previous(logger_view *out)
{
    logger_block *lg = get_logger();
    if (!lg)
        return false;
    *out = {lg->previous->data, lg->previous->count, lg->previous->start_time};
    return true;
}

int32_t logger_log_number()
{
    logger_block *lg = get_logger();
    return lg ? lg->log_number : 0;
}

} // namespace ravik
