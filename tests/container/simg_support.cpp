#include "container/simg_support.h"

#include <cerrno>
#include <fstream>

namespace ravik::test {

std::string simg_block(const std::string &text)
{
    std::string b(256, '\0');
    b.replace(0, text.size(), text);
    return b;
}

std::string simg_header(const std::string &name, uint64_t size)
{
    std::string b(256, '\0');
    b.replace(0, name.size() < 248 ? name.size() : 248, name.substr(0, 248));
    for (int i = 0; i < 8; i++)
        b[248 + i] = (char)(size >> (8 * i));
    return b;
}

std::string simg_bytes(const std::vector<raw_entry> &entries, bool tail)
{
    std::string out = simg_block("SINGLE_N_LONELY");
    for (const auto &e : entries) {
        out += simg_header(e.name, e.size.value_or(e.data.size()));
        out += e.data;
        out.append((4096 - e.data.size() % 4096) % 4096, '\0');
    }
    if (tail)
        out += simg_block("LONELY_N_SINGLE");
    return out;
}

std::string pattern(size_t n, uint32_t seed)
{
    std::string s(n, '\0');
    uint32_t x = seed * 2654435761u + 1;
    for (size_t i = 0; i < n; i++) {
        x = x * 1664525u + 1013904223u;
        s[i] = (char)(x >> 24);
    }
    return s;
}

void write_file(const std::string &path, const std::string &bytes)
{
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f.write(bytes.data(), (std::streamsize)bytes.size());
}

std::vector<listed> table_of(const simg *h)
{
    std::vector<listed> v;
    for (int32_t i = 0; i < h->num_entries; i++)
        v.push_back({h->entries[i].name, h->entries[i].size, h->entries[i].offset});
    return v;
}

io_hook *io_hook::self = nullptr;

io_hook::io_hook() : saved_(simg_io())
{
    self = this;
    simg_io().pwrite = s_pwrite;
    simg_io().fdatasync = s_fdatasync;
    simg_io().writeback = s_writeback;
    simg_io().map_file = s_map_file;
    simg_io().map_anon = s_map_anon;
    simg_io().file_size = s_file_size;
}

io_hook::~io_hook()
{
    simg_io() = saved_;
    self = nullptr;
}

long io_hook::s_pwrite(int fd, const void *buf, size_t n, uint64_t at)
{
    const char *p = static_cast<const char *>(buf);
    long index = (long)self->writes.size();
    self->writes.push_back({at, std::string(p, n)});
    if (index == self->fail_at) {
        if (self->torn && n > 1)
            self->saved_.pwrite(fd, buf, n / 2, at);
        errno = EIO;
        return -1;
    }
    return self->saved_.pwrite(fd, buf, n, at);
}

int io_hook::s_fdatasync(int fd)
{
    long index = (long)self->writes.size();
    self->writes.push_back({UINT64_MAX, {}});
    if (index == self->fail_at) {
        errno = EIO;
        return -1;
    }
    return self->saved_.fdatasync(fd);
}

int io_hook::s_writeback(int fd, uint64_t at, uint64_t n)
{
    long index = (long)self->writes.size();
    self->writes.push_back({WRITEBACK, {}});
    if (index == self->fail_at) {
        errno = EIO;
        return -1;
    }
    return self->saved_.writeback(fd, at, n);
}

void *io_hook::s_map_file(void *at, size_t len, int fd, uint64_t offset)
{
    if (self->fail_map)
        return nullptr;
    return self->saved_.map_file(at, len, fd, offset);
}

void *io_hook::s_map_anon(size_t len)
{
    if (self->fail_anon)
        return nullptr;
    return self->saved_.map_anon(len);
}

int io_hook::s_file_size(int fd, uint64_t *size)
{
    if (self->fail_file_size)
        return -1;
    return self->saved_.file_size(fd, size);
}

} // namespace ravik::test
