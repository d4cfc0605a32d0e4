// Containers: the same bytes opened from memory and from a file, every entry
// loaded both ways (heap copy or file mapping on the file side) and held
// against the bytes it came from; then an entry stored and one deleted, and
// the file opened again.
//
// Input: one byte N (allocation nth_allocation(N) from the opens on fails, 0
// none), one byte E (above 240, (E - 240) × 256 KiB of zeros follow the image, so
// entries can reach the size that loads by mapping), then the image.
#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

#include "container/container.h"
#include "core/core.h"
#include "fuzz/fuzz.h"

namespace ravik::fuzz {

namespace {

// One scratch file for the whole process, on a memory file system where
// there is one. It is unlinked at once, since libFuzzer ends a run without
// running exit handlers, and reached through the descriptor held open.
const std::string &scratch_path()
{
    static const std::string path = [] {
        std::string dir = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
        std::string name = dir + "/ravik-fuzz-XXXXXX";
        int fd = mkstemp(name.data());
        check(fd >= 0, "scratch file");
        unlink(name.c_str());
        return "/proc/self/fd/" + std::to_string(fd);
    }();
    return path;
}

void write_file(const std::string &path, const uint8_t *bytes, size_t n, uint64_t size)
{
    int fd = open(path.c_str(), O_RDWR | O_TRUNC);
    check(fd >= 0, "scratch file");
    check(write(fd, bytes, n) == (ssize_t)n && ftruncate(fd, (off_t)size) == 0, "scratch file write");
    close(fd);
}

uint64_t padded(uint64_t size) { return (size + SIMG_BLKSZ - 1) & ~(SIMG_BLKSZ - 1); }

bool zeros(const uint8_t *p, uint64_t n)
{
    for (uint64_t i = 0; i < n; i++)
        if (p[i])
            return false;
    return true;
}

// The image: the input's bytes, then zeros.
struct image_view {
    const uint8_t *bytes;
    uint64_t n, size;
    // [at, at + len) of the image equals p.
    bool same(const uint8_t *p, uint64_t at, uint64_t len) const
    {
        uint64_t in = at < n ? std::min(len, n - at) : 0;
        return memcmp(p, bytes + at, (size_t)in) == 0 && zeros(p + in, len - in);
    }
};

// A loaded entry holds its bytes of the image and zeros to the end of its
// last block.
void check_loads(simg *h, const image_view &image)
{
    for (int32_t i = 0; i < h->num_entries; i++) {
        simg_entry *e = &h->entries[i];
        simg_entry *got = simg_load(h, e->name);
        if (!got)
            continue;
        check(got == simg_find(h, e->name), "a load gave another record");
        check(got->offset <= image.size && got->size <= image.size - got->offset, "loaded past the image");
        check(image.same(got->data, got->offset, got->size), "loaded bytes differ");
        check(zeros(got->data + got->size, padded(got->size) - got->size), "padding not zero");
    }
    for (int32_t i = 0; i < h->num_entries; i++) {
        simg_entry *e = &h->entries[i];
        if (simg_entry *t = simg_loads(h, e->name))
            check(t->data[padded(t->size) - 1] == 0, "text without its terminator");
        if (i % 2)
            simg_unload(h, e->name);
    }
}

// Stores one entry and deletes the first, then the file must show just that.
// Closes the handle.
void check_writer(simg *h, const std::string &path)
{
    // Only where the new entry lands close to the start: a header may place
    // the end of the table terabytes into the file.
    const simg_entry *last = h->num_entries ? &h->entries[h->num_entries - 1] : nullptr;
    if (h->num_entries == SIMG_MAX_ENTRIES || simg_find(h, "fuzz.new") ||
        (last && (last->size > (64u << 20) || last->offset > (64u << 20)))) {
        simg_close(h);
        return;
    }
    static const char payload[] = "stored by the fuzzer";
    int32_t before = h->num_entries;
    std::string first = before ? h->entries[0].name : "";
    bool stored = simg_store(h, payload, sizeof(payload), "fuzz.new") != nullptr;
    check(stored, "store into an open container");
    if (before && simg_find(h, first.c_str()) == &h->entries[0])
        check(simg_delete(h, first.c_str()) == 0, "delete of the first entry");
    int32_t expect = h->num_entries;
    simg_close(h);
    simg *again = simg_open(path.c_str(), 0);
    check(again != nullptr, "container lost by a store");
    check(again->num_entries == expect, "entries after a store and a delete");
    simg_entry *e = simg_load(again, "fuzz.new");
    check(e && e->size == sizeof(payload) && memcmp(e->data, payload, sizeof(payload)) == 0, "stored entry");
    simg_close(again);
}

} // namespace

void container_one(const uint8_t *data, size_t size)
{
    input in{data, size};
    uint8_t fail_at = in.byte();
    uint8_t e = in.byte();
    image_view image{in.p, in.n, in.n + (e > 240 ? (e - 240) * (256u << 10) : 0)};
    const std::string &path = scratch_path();
    write_file(path, image.bytes, image.n, image.size);
    run_isolated([&] {
        // Loads write into a memory image, so it gets a copy of its own.
        std::vector<uint8_t> memory(image.bytes, image.bytes + image.n);
        memory.resize(image.size);
        if (fail_at)
            mem_fail_nth(nth_allocation(fail_at));
        simg *m = simg_mopen(memory.data(), memory.size());
        simg *f = simg_open(path.c_str(), 0);
        bool exact = !fail_at;
        if (m && f && exact) {
            // The file walk sees whatever the memory walk saw, and may go on.
            check(f->num_entries >= m->num_entries, "file walk shorter than memory walk");
            for (int32_t i = 0; i < m->num_entries; i++)
                check(strcmp(f->entries[i].name, m->entries[i].name) == 0 &&
                          f->entries[i].size == m->entries[i].size && f->entries[i].offset == m->entries[i].offset,
                      "walks disagree");
        }
        if (m) {
            for (int32_t i = 0; i < m->num_entries; i++)
                check(m->entries[i].data == memory.data() + m->entries[i].offset, "memory entry not in place");
            check_loads(m, image);
        }
        if (f) {
            check_loads(f, image);
            if (exact)
                check_writer(f, path);
            else
                simg_close(f);
        }
        simg_close(m);
    });
}

} // namespace ravik::fuzz

RAVIK_FUZZ_ENTRY(ravik::fuzz::container_one)
