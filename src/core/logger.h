// The per-thread log: two rings (this session's and the one before), every
// line stamped with the seconds since its ring started, handed to named
// subscribers as it is made, written to "ravik_log.txt" only on request.
#pragma once

#include <cstdint>

namespace ravik {

enum log_level : uint32_t {
    LOG_ERROR = 0,
    LOG_WARN = 1,
    LOG_INFO = 2,
    LOG_DEBUG = 3,
};

constexpr uint32_t LOG_RING_SIZE = 0x20000;
constexpr uint32_t LOG_RING_OVERHANG = 0x400;
constexpr uint32_t LOG_FILE_LIMIT = 0x500000;
constexpr const char *LOG_FILE_NAME = "ravik_log.txt";

using logger_fn = void (*)(const char *line, void *context);

// Records everything it is given; the level test belongs to the caller.
void logger_log(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
uint32_t logger_get_level();
int32_t logger_set_level(uint32_t level);
// 0, or -1 without a block, with a null or empty name, a null function or no
// memory. A name subscribed already gets the new function and context.
int32_t logger_subscribe(const char *name, logger_fn fn, void *context);
void logger_unsubscribe(const char *name);
int32_t logger_mute();
int32_t logger_unmute();
// Appends both rings to "ravik_log.txt" in the working directory.
int32_t logger_save();
// Starts a new ring; the current one becomes the previous one.
int32_t logger_reset();

// Ring inspection for tests and the end-of-session code.
struct logger_view {
    const char *data;     // the ring's bytes
    uint32_t count;       // bytes written since the ring started
    double start_time;
};
bool logger_current(logger_view *out);
bool logger_previous(logger_view *out);
int32_t logger_log_number();

} // namespace ravik

// A log statement: the level test at the place of the statement, then the
// call, so arguments of a line that is off are never worked out.
#define RK_LOGE(...) ::ravik::logger_log(__VA_ARGS__)
#define RK_LOGW(...)                                                                               \
    do {                                                                                           \
        if (::ravik::logger_get_level() > 0)                                                       \
            ::ravik::logger_log(__VA_ARGS__);                                                      \
    } while (0)
#define RK_LOGI(...)                                                                               \
    do {                                                                                           \
        if (::ravik::logger_get_level() > 1)                                                       \
            ::ravik::logger_log(__VA_ARGS__);                                                      \
    } while (0)
#define RK_LOGD(...)                                                                               \
    do {                                                                                           \
        if (::ravik::logger_get_level() > 2)                                                       \
            ::ravik::logger_log(__VA_ARGS__);                                                      \
    } while (0)
