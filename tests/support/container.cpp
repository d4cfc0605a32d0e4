#include "support/container.h"

#include <cerrno>
#include <fstream>

#include "core/core.h"

namespace ravik::test {

std::string simg_block(const std::string &text) { return text + std::string(256 - text.size(), '\0'); }

std::string simg_bytes(const std::vector<raw_entry> &entries, bool tail)
{
    std::string out = simg_block("SINGLE_N_LONELY");
    for (const auto &e : entries) {
        std::string header = simg_block(e.name.substr(0, 248));
        set_le(header, 248, 8, e.size.value_or(e.data.size()));
        out += header + e.data + std::string((4096 - e.data.size() % 4096) % 4096, '\0');
    }
    return tail ? out + simg_block("LONELY_N_SINGLE") : out;
}

void write_file(const std::string &path, const std::string &bytes)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc).write(bytes.data(), (std::streamsize)bytes.size());
}

std::vector<listed> table_of(const simg *h)
{
    std::vector<listed> v;
    for (int32_t i = 0; i < h->num_entries; i++)
        v.push_back({h->entries[i].name, h->entries[i].size, h->entries[i].offset});
    return v;
}

std::string got(const simg_entry *e, size_t n)
{
    return e ? std::string((const char *)e->data, n == SIZE_MAX ? e->size : n) : err(get_error());
}

std::string opened(simg *h)
{
    std::string r = h ? "open" : err(get_error());
    simg_close(h);
    return r;
}

static io_hook *self;

bool io_hook::record(uint64_t at, std::string bytes)
{
    writes.push_back({at, std::move(bytes)});
    if ((long)writes.size() - 1 != fail_at)
        return false;
    errno = EIO;
    return true;
}

io_hook::io_hook() : saved(simg_io())
{
    self = this;
    simg_io_calls &io = simg_io();
    io.pwrite = [](int fd, const void *buf, size_t n, uint64_t at) -> long {
        if (!self->record(at, std::string((const char *)buf, n)))
            return self->saved.pwrite(fd, buf, n, at);
        if (self->torn && n > 1)
            self->saved.pwrite(fd, buf, n / 2, at);
        errno = EIO;
        return -1;
    };
    io.fdatasync = [](int fd) { return self->record(SYNC) ? -1 : self->saved.fdatasync(fd); };
    io.writeback = [](int fd, uint64_t at, uint64_t n) {
        return self->record(WRITEBACK) ? -1 : self->saved.writeback(fd, at, n);
    };
    io.map_file = [](void *at, size_t len, int fd, uint64_t off) {
        return self->fail_map ? nullptr : self->saved.map_file(at, len, fd, off);
    };
}

io_hook::~io_hook() { simg_io() = saved; }

} // namespace ravik::test
