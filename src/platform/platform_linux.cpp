#include "platform/platform.h"

#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
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

const posix_calls real_calls = {sys_open, sys_close, sys_read, sys_write, sys_poll,
                                sys_flock, sys_set_exclusive, sys_make_raw, sys_is_tty};
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
        if (calls.set_exclusive(fd) != 0 || calls.make_raw(fd) != 0) {
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

int32_t linux_serial_write(int32_t handle, const void *buf, uint32_t count, int *err)
{
    const uint8_t *p = static_cast<const uint8_t *>(buf);
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
