// The Linux layer: the only code that talks to the operating system for the
// serial line, sleeping, the clock and per-thread storage. Everything above
// calls through the table returned by platform(), so tests can install a
// fake with a virtual clock and a scripted line.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>

namespace ravik {

struct platform_ops {
    // Opens the device by its name exactly as given: read and write, never
    // created, exclusive (a second open of the same device fails, root
    // included), raw mode when it is a terminal. Returns a handle >= 0, or -1
    // for every failure.
    int32_t (*serial_open)(const char *name);
    // Closes a handle from serial_open. Never fails.
    void (*serial_close)(int32_t handle);
    // Returns at once with what is waiting; with nothing waiting, waits up to
    // 1000 ms for the first byte and returns what has come by then. Returns
    // the count (0: the line stayed idle, which is no failure), or -1 with
    // *err set to the errno of the failure.
    int32_t (*serial_read)(int32_t handle, void *buf, uint32_t count, int *err);
    // Writes within 2000 ms in all, whatever the size. Returns the count
    // written, which is short (maybe 0) when the time ran out, or -1 with
    // *err set to the errno of the failure.
    int32_t (*serial_write)(int32_t handle, const void *buf, uint32_t count, int *err);
    // Sleeps the calling thread.
    void (*sleep_ms)(uint32_t ms);
    // Wall clock: seconds since 1970-01-01 UTC with microseconds as fraction.
    double (*wall_clock)();
    // Local time of now; false when it cannot be had.
    bool (*local_time)(struct tm *out);
};

// The table in force. Safe to call from any thread.
const platform_ops &platform();
// Puts a table in force for the whole process; null puts back the Linux one.
// The table must outlive its use. Meant for tests, set while no session runs.
void platform_install(const platform_ops *ops);
// The real Linux table.
const platform_ops &platform_linux();

// System calls under the Linux serial layer, replaceable one by one so tests
// can make any of them fail on a real pty.
struct posix_calls {
    int (*open)(const char *path, int flags);
    int (*close)(int fd);
    long (*read)(int fd, void *buf, size_t n);
    long (*write)(int fd, const void *buf, size_t n);
    int (*poll)(int fd, short events, int timeout_ms, short *revents);
    int (*flock)(int fd, int op);
    int (*set_exclusive)(int fd);          // TIOCEXCL
    int (*make_raw)(int fd);               // tcgetattr, cfmakeraw, tcsetattr
    int (*is_tty)(int fd);
    int (*set_blocking)(int fd);           // clears O_NONBLOCK
    // The signal that bounds a blocking write, with our handler in place; 0
    // when none could be had, and a terminal then stays non-blocking.
    int (*wake_signal)();
};
posix_calls &platform_posix_calls();
void platform_posix_reset();

// Per-thread pointers. An index starts out null on every thread; the
// destructor given at allocation runs with the value at thread end.
constexpr uint32_t PLATFORM_TLS_INVALID = 0xFFFFFFFFu;
uint32_t platform_tls_alloc(void (*destructor)(void *));
void platform_tls_free(uint32_t index);
void *platform_tls_get(uint32_t index);
bool platform_tls_set(uint32_t index, void *value);

// Threads beside a session's own, for work that must not hold it up. A
// thread that started is joined exactly once.
struct platform_thread {
    unsigned long id;
};
bool platform_thread_start(platform_thread *t, void *(*fn)(void *), void *arg);
void platform_thread_join(platform_thread *t);

} // namespace ravik
