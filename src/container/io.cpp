// The system calls under container files, and whole-count transfers on them.
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "container/internal.h"

namespace ravik {

namespace {

int sys_open(const char *path, int flags, int mode) { return ::open(path, flags, mode); }
int sys_close(int fd) { return ::close(fd); }
long sys_pread(int fd, void *buf, size_t n, uint64_t at) { return ::pread(fd, buf, n, (off_t)at); }
long sys_pwrite(int fd, const void *buf, size_t n, uint64_t at)
{
    return ::pwrite(fd, buf, n, (off_t)at);
}
long sys_write(int fd, const void *buf, size_t n) { return ::write(fd, buf, n); }
int sys_fdatasync(int fd) { return ::fdatasync(fd); }
int sys_writeback(int fd, uint64_t at, uint64_t n)
{
    return ::sync_file_range(fd, (off_t)at, (off_t)n, SYNC_FILE_RANGE_WRITE);
}
int sys_file_size(int fd, uint64_t *size)
{
    struct stat st;
    if (::fstat(fd, &st) != 0)
        return -1;
    *size = (uint64_t)st.st_size;
    return 0;
}
void *sys_map_file(void *at, size_t len, int fd, uint64_t offset)
{
    void *p = ::mmap(at, len, PROT_READ | PROT_WRITE, MAP_PRIVATE | (at ? MAP_FIXED : 0), fd,
                     (off_t)offset);
    if (p == MAP_FAILED)
        return nullptr;
#ifdef MADV_POPULATE_READ
    // All of it is read soon (sent, stored): one call maps every page instead
    // of a fault per few pages, and reading, unlike MAP_POPULATE, leaves the
    // pages shared with the page cache instead of copying them.
    ::madvise(p, len, MADV_POPULATE_READ);
#endif
    return p;
}
void *sys_map_anon(size_t len)
{
    void *p = ::mmap(nullptr, len, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return p == MAP_FAILED ? nullptr : p;
}
int sys_unmap(void *at, size_t len) { return ::munmap(at, len); }

const simg_io_calls real_calls = {sys_open,     sys_close,     sys_pread,     sys_pwrite,
                                  sys_write,    sys_fdatasync, sys_writeback, sys_file_size,
                                  sys_map_file, sys_map_anon,  sys_unmap};
simg_io_calls calls = real_calls;

// pread and pwrite move at most this much in one call on Linux.
constexpr size_t IO_STEP = 0x7FFFF000;

} // namespace

simg_io_calls &simg_io() { return calls; }
void simg_io_reset() { calls = real_calls; }

bool simg_is_block(const uint8_t *block, const char *text)
{
    return memcmp(block, text, strlen(text) + 1) == 0;
}

void simg_put_block(uint8_t *block, const char *text)
{
    memset(block, 0, SIMG_HDRSZ);
    memcpy(block, text, strlen(text));
}

long simg_read_at(int fd, void *buf, size_t n, uint64_t at)
{
    uint8_t *p = static_cast<uint8_t *>(buf);
    size_t done = 0;
    while (done < n) {
        size_t step = n - done < IO_STEP ? n - done : IO_STEP;
        long got = calls.pread(fd, p + done, step, at + done);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return -1;
        if (got == 0)
            break;
        done += (size_t)got;
    }
    return (long)done;
}

int simg_write_at(int fd, const void *buf, size_t n, uint64_t at)
{
    const uint8_t *p = static_cast<const uint8_t *>(buf);
    size_t done = 0;
    while (done < n) {
        size_t step = n - done < IO_STEP ? n - done : IO_STEP;
        long put = calls.pwrite(fd, p + done, step, at + done);
        if (put < 0 && errno == EINTR)
            continue;
        if (put <= 0)
            return -1;
        done += (size_t)put;
    }
    return 0;
}

int simg_write_all(int fd, const void *buf, size_t n)
{
    const uint8_t *p = static_cast<const uint8_t *>(buf);
    size_t done = 0;
    while (done < n) {
        size_t step = n - done < IO_STEP ? n - done : IO_STEP;
        long put = calls.write(fd, p + done, step);
        if (put < 0 && errno == EINTR)
            continue;
        if (put <= 0)
            return -1;
        done += (size_t)put;
    }
    return 0;
}

} // namespace ravik
