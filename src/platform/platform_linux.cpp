#include "platform/platform.h"

#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <csignal>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/time.h>
#include <termios.h>
#include <unistd.h>

namespace ravik {

namespace {

constexpr int READ_IDLE_MS = 1000;
constexpr int WRITE_TOTAL_MS = 2000;

int sys_open(const char *path, int flags) { return ::open(path, flags); }
int sys_close(int fd) { return ::close(fd); }
long sys_read(int fd, void *buf, size_t n) { return ::read(fd, buf, n); }
long sys_write(int fd, const void *buf, size_t n) { return ::write(fd, buf, n); }
int sys_poll(int fd, short events, int timeout_ms, short *revents)
{
    struct pollfd p = {fd, events, 0};
    int r = ::poll(&p, 1, timeout_ms);
    *revents = p.revents;
    return r;
}
int sys_flock(int fd, int op) { return ::flock(fd, op); }
int sys_set_exclusive(int fd) { return ::ioctl(fd, TIOCEXCL); }
int sys_make_raw(int fd)
{
    struct termios t;
    if (::tcgetattr(fd, &t) != 0)
        return -1;
    ::cfmakeraw(&t);
    t.c_cc[VMIN] = 0;
    t.c_cc[VTIME] = 0;
    return ::tcsetattr(fd, TCSANOW, &t);
}
int sys_is_tty(int fd) { return ::isatty(fd); }
int sys_set_blocking(int fd)
{
    int flags = ::fcntl(fd, F_GETFL);
    return flags < 0 ? -1 : ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
}

// The signal that cuts a blocking write off at its limit. It needs a handler
// of ours, so it is taken only where nobody else has one: the highest
// real-time signal left at its default, as others tend to count up from the
// lowest. 0 when none is free; ports then stay non-blocking.
int wake_signo;
void on_wake(int) {}
void pick_wake_signal()
{
    for (int sig = SIGRTMAX; sig >= SIGRTMIN; sig--) {
        struct sigaction old = {};
        if (::sigaction(sig, nullptr, &old) != 0 || (old.sa_flags & SA_SIGINFO) ||
            old.sa_handler != SIG_DFL)
            continue;
        struct sigaction act = {};
        act.sa_handler = on_wake; // no SA_RESTART: the write must come back
        sigemptyset(&act.sa_mask);
        if (::sigaction(sig, &act, nullptr) == 0) {
            wake_signo = sig;
            return;
        }
    }
}
int sys_wake_signal()
{
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, pick_wake_signal);
    return wake_signo;
}

const posix_calls real_calls = {sys_open,     sys_close,         sys_read,     sys_write,
                                sys_poll,     sys_flock,         sys_set_exclusive,
                                sys_make_raw, sys_is_tty,        sys_set_blocking,
                                sys_wake_signal};
posix_calls calls = real_calls;

double monotonic_ms()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000.0 + ts.tv_nsec / 1e6;
}

int32_t linux_serial_open(const char *name)
{
    // Non-blocking so a read takes only what is there; waiting is done by poll.
    int fd = calls.open(name, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return -1;
    // The advisory lock keeps out a second opener even when it runs as root,
    // whom the terminal's exclusive mode does not stop.
    if (calls.flock(fd, LOCK_EX | LOCK_NB) != 0) {
        calls.close(fd);
        return -1;
    }
    if (calls.is_tty(fd)) {
        // Reads never block either way: the raw mode's zero minimum and time
        // make a read with nothing waiting come back at once.
        if (calls.set_exclusive(fd) != 0 || calls.make_raw(fd) != 0 ||
            (calls.wake_signal() > 0 && calls.set_blocking(fd) != 0)) {
            calls.close(fd);
            return -1;
        }
    }
    return fd;
}

void linux_serial_close(int32_t handle)
{
    if (handle >= 0)
        calls.close(handle);
}

int32_t linux_serial_read(int32_t handle, void *buf, uint32_t count, int *err)
{
    if (count == 0)
        return 0;
    double deadline = monotonic_ms() + READ_IDLE_MS;
    bool hung_up = false;
    for (;;) {
        long n = calls.read(handle, buf, count);
        if (n > 0)
            return (int32_t)n;
        // A raw terminal with nothing waiting reads 0 rather than EAGAIN.
        if (n < 0 && errno != EAGAIN && errno != EINTR) {
            *err = errno;
            return -1;
        }
        // Hung up and drained: the far end is gone and nothing will come.
        if (hung_up) {
            *err = EIO;
            return -1;
        }
        int left = (int)(deadline - monotonic_ms());
        if (left <= 0)
            return 0;
        short revents = 0;
        int r = calls.poll(handle, POLLIN, left, &revents);
        if (r < 0 && errno != EINTR) {
            *err = errno;
            return -1;
        }
        if (r == 0)
            return 0;
        hung_up = (revents & (POLLHUP | POLLERR | POLLNVAL)) != 0;
    }
}

// Without a wake signal: non-blocking writes, waiting for room with poll.
int32_t polled_write(int32_t handle, const uint8_t *p, uint32_t count, int *err)
{
    uint32_t done = 0;
    double deadline = monotonic_ms() + WRITE_TOTAL_MS;
    while (done < count) {
        long n = calls.write(handle, p + done, count - done);
        if (n > 0) {
            done += (uint32_t)n;
            continue;
        }
        if (n < 0 && errno != EAGAIN && errno != EINTR) {
            if (done > 0)
                return (int32_t)done;
            *err = errno;
            return -1;
        }
        int left = (int)(deadline - monotonic_ms());
        if (left <= 0)
            break;
        short revents = 0;
        int r = calls.poll(handle, POLLOUT, left, &revents);
        if (r < 0 && errno != EINTR) {
            if (done > 0)
                break;
            *err = errno;
            return -1;
        }
        if (r == 0)
            break;
        if ((revents & (POLLERR | POLLHUP)) && !(revents & POLLOUT)) {
            if (done > 0)
                break;
            *err = EIO;
            return -1;
        }
    }
    return (int32_t)done;
}

// A blocking write lets the kernel wait for room itself: a MiB costs one
// call where the polled loop makes thousands of writes and polls, each of
// them charged to the caller. A timer of the calling thread bounds it: its
// signal breaks the wait off at the limit, and it repeats every 10 ms in
// case one lands just before the write starts to wait.
int32_t timed_write(int32_t handle, const uint8_t *p, uint32_t count, int *err)
{
    // Threads that leave signals to another thread often block them all;
    // ours must reach this one while it writes, so it is let through until
    // the timer is gone.
    struct mask_guard {
        sigset_t old;
        explicit mask_guard(int sig)
        {
            sigset_t wake;
            sigemptyset(&wake);
            sigaddset(&wake, sig);
            pthread_sigmask(SIG_UNBLOCK, &wake, &old);
        }
        ~mask_guard() { pthread_sigmask(SIG_SETMASK, &old, nullptr); }
    } mask{calls.wake_signal()};
    struct sigevent ev = {};
    ev.sigev_notify = SIGEV_THREAD_ID;
    ev.sigev_signo = calls.wake_signal();
    ev._sigev_un._tid = ::gettid(); // the thread-id member has no name here
    timer_t timer;
    if (::timer_create(CLOCK_MONOTONIC, &ev, &timer) != 0) {
        *err = errno;
        return -1;
    }
    struct timer_guard {
        timer_t t;
        ~timer_guard() { ::timer_delete(t); }
    } guard{timer};
    const struct itimerspec when = {{0, 10 * 1000000L}, {WRITE_TOTAL_MS / 1000, 0}};
    double deadline = monotonic_ms() + WRITE_TOTAL_MS;
    if (::timer_settime(timer, 0, &when, nullptr) != 0) {
        *err = errno;
        return -1;
    }
    uint32_t done = 0;
    while (done < count) {
        long n = calls.write(handle, p + done, count - done);
        if (n > 0)
            done += (uint32_t)n;
        else if (n == 0 || errno != EINTR) {
            if (done > 0)
                break;
            *err = n == 0 ? EIO : errno;
            return -1;
        }
        // Short or broken off: by our timer at the limit, or by a signal of
        // someone else's, after which the write goes on.
        if (done < count && monotonic_ms() >= deadline)
            break;
    }
    return (int32_t)done;
}

int32_t linux_serial_write(int32_t handle, const void *buf, uint32_t count, int *err)
{
    const uint8_t *p = static_cast<const uint8_t *>(buf);
    if (count == 0)
        return 0;
    int flags = ::fcntl(handle, F_GETFL);
    if (flags < 0) {
        *err = errno;
        return -1;
    }
    return (flags & O_NONBLOCK) ? polled_write(handle, p, count, err)
                                : timed_write(handle, p, count, err);
}

void linux_sleep_ms(uint32_t ms)
{
    struct timespec ts = {(time_t)(ms / 1000), (long)(ms % 1000) * 1000000L};
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

double linux_wall_clock()
{
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return (double)tv.tv_sec + (double)tv.tv_usec / 1000000.0;
}

bool linux_local_time(struct tm *out)
{
    time_t t = time(nullptr);
    return localtime_r(&t, out) != nullptr;
}

const platform_ops linux_ops = {linux_serial_open, linux_serial_close, linux_serial_read,
                                linux_serial_write, linux_sleep_ms,    linux_wall_clock,
                                linux_local_time};

std::atomic<const platform_ops *> installed{&linux_ops};

} // namespace

const platform_ops &platform() { return *installed.load(std::memory_order_acquire); }

void platform_install(const platform_ops *ops)
{
    installed.store(ops ? ops : &linux_ops, std::memory_order_release);
}

const platform_ops &platform_linux() { return linux_ops; }

posix_calls &platform_posix_calls() { return calls; }
void platform_posix_reset() { calls = real_calls; }

uint32_t platform_tls_alloc(void (*destructor)(void *))
{
    pthread_key_t key;
    if (pthread_key_create(&key, destructor) != 0)
        return PLATFORM_TLS_INVALID;
    return (uint32_t)key;
}

void platform_tls_free(uint32_t index)
{
    if (index != PLATFORM_TLS_INVALID)
        pthread_key_delete((pthread_key_t)index);
}

void *platform_tls_get(uint32_t index)
{
    if (index == PLATFORM_TLS_INVALID)
        return nullptr;
    return pthread_getspecific((pthread_key_t)index);
}

bool platform_tls_set(uint32_t index, void *value)
{
    if (index == PLATFORM_TLS_INVALID)
        return false;
    return pthread_setspecific((pthread_key_t)index, value) == 0;
}

static_assert(sizeof(pthread_t) <= sizeof(unsigned long));

bool platform_thread_start(platform_thread *t, void *(*fn)(void *), void *arg)
{
    pthread_t id;
    if (pthread_create(&id, nullptr, fn, arg) != 0)
        return false;
    t->id = (unsigned long)id;
    return true;
}

void platform_thread_join(platform_thread *t) { pthread_join((pthread_t)t->id, nullptr); }

} // namespace ravik
