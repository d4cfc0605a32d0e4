// Loading and storing a 1 GiB container entry, against plain file I/O of the
// same bytes in the same run. Prints times, throughput and the growth of the
// process's anonymous memory (RssAnon); the figures to watch are the ratios.
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

#include "container/container.h"
#include "core/core.h"

using namespace ravik;

namespace {

constexpr uint64_t ENTRY = 1ull << 30;
constexpr int ROUNDS = 3;

double seconds()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

int64_t rss_anon_kib()
{
    FILE *f = fopen("/proc/self/status", "r");
    char line[256];
    int64_t kib = -1;
    while (f && fgets(line, sizeof(line), f))
        if (sscanf(line, "RssAnon: %" SCNd64, &kib) == 1)
            break;
    if (f)
        fclose(f);
    return kib;
}

uint64_t sum_words(const uint8_t *p, uint64_t n)
{
    uint64_t s = 0;
    for (uint64_t i = 0; i < n; i += 8) {
        uint64_t w;
        memcpy(&w, p + i, 8);
        s += w;
    }
    return s;
}

// The baseline a store is measured against: the same bytes, written and
// synced, since a store syncs its data before it commits.
double plain_write(const std::string &path, const uint8_t *buf, bool sync)
{
    double t0 = seconds();
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    uint64_t done = 0;
    while (fd >= 0 && done < ENTRY) {
        ssize_t n = write(fd, buf + done, ENTRY - done > (1u << 30) ? (1u << 30) : ENTRY - done);
        if (n <= 0)
            break;
        done += (uint64_t)n;
    }
    if (sync && fd >= 0)
        fdatasync(fd);
    if (fd >= 0)
        close(fd);
    double t = seconds() - t0;
    unlink(path.c_str());
    return done == ENTRY ? t : -1;
}

double store(const std::string &path, const uint8_t *buf)
{
    unlink(path.c_str());
    double t0 = seconds();
    simg *h = simg_open(path.c_str(), SIMG_CREATE);
    bool ok = h && simg_store(h, buf, ENTRY, "big");
    simg_close(h);
    double t = seconds() - t0;
    return ok ? t : -1;
}

double mbps(double t) { return (double)ENTRY / (1 << 20) / t; }

} // namespace

int main()
{
    char tmpl[] = "/tmp/ravik-bench-XXXXXX";
    if (!mkdtemp(tmpl))
        return 1;
    std::string dir = tmpl, plain = dir + "/plain.bin", img = dir + "/big.img";

    uint8_t *buf = static_cast<uint8_t *>(
        mmap(nullptr, ENTRY, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    if (buf == MAP_FAILED)
        return 1;
    for (uint64_t i = 0; i < ENTRY; i += 8) {
        uint64_t v = i * 0x9E3779B97F4A7C15ull;
        memcpy(buf + i, &v, 8);
    }

    // Alternating rounds, best of each, so neither side gets the warmer disk.
    double best_sync = 1e30, best_nosync = 1e30, best_store = 1e30;
    for (int r = 0; r < ROUNDS; r++) {
        double a = plain_write(plain, buf, true);
        double b = store(img, buf);
        double c = plain_write(plain, buf, false);
        if (a < 0 || b < 0 || c < 0) {
            fprintf(stderr, "write failed in %s\n", dir.c_str());
            return 1;
        }
        best_sync = a < best_sync ? a : best_sync;
        best_store = b < best_store ? b : best_store;
        best_nosync = c < best_nosync ? c : best_nosync;
    }
    printf("store 1 GiB:                     %7.3f s  %8.1f MB/s\n", best_store, mbps(best_store));
    printf("plain write + fdatasync:         %7.3f s  %8.1f MB/s\n", best_sync, mbps(best_sync));
    printf("plain write, no fdatasync:       %7.3f s  %8.1f MB/s\n", best_nosync, mbps(best_nosync));
    printf("store / plain write + fdatasync: %7.2f   (target at least 0.80)\n", best_sync / best_store);
    printf("store / plain write, no sync:    %7.2f\n", best_nosync / best_store);
    uint64_t expect = sum_words(buf, ENTRY);
    munmap(buf, ENTRY);

    // Load: the container's entry against a plain read into a heap buffer.
    simg *h = simg_open(img.c_str(), 0);
    if (!h)
        return 1;
    int64_t rss0 = rss_anon_kib();
    double t0 = seconds();
    simg_entry *e = simg_load(h, "big");
    double t_load = seconds() - t0;
    if (!e)
        return 1;
    t0 = seconds();
    uint64_t got = sum_words(e->data, ENTRY);
    double t_read = seconds() - t0;
    int64_t rss_load = rss_anon_kib();
    t0 = seconds();
    simg_unload(h, "big");
    double t_unload = seconds() - t0;
    int64_t rss_unload = rss_anon_kib();
    simg_close(h);

    int fd = open(img.c_str(), O_RDONLY);
    int64_t rss1 = rss_anon_kib();
    t0 = seconds();
    uint8_t *copy = static_cast<uint8_t *>(malloc(ENTRY));
    uint64_t done = 0;
    while (copy && done < ENTRY) {
        ssize_t n = pread(fd, copy + done, ENTRY - done > (1u << 30) ? (1u << 30) : ENTRY - done,
                          (off_t)(512 + done));
        if (n <= 0)
            break;
        done += (uint64_t)n;
    }
    uint64_t got_copy = copy ? sum_words(copy, ENTRY) : 0;
    double t_copy = seconds() - t0;
    int64_t rss_copy = rss_anon_kib();
    free(copy);
    close(fd);

    printf("load 1 GiB (mapped):             %7.3f s  then reading it %7.3f s, unload %7.3f s\n", t_load,
           t_read, t_unload);
    printf("RssAnon growth, mapped load:     %7.1f MiB  (target under 16 MiB), after unload %+.1f MiB\n",
           (rss_load - rss0) / 1024.0, (rss_unload - rss0) / 1024.0);
    printf("plain read into heap + read:     %7.3f s, RssAnon growth %7.1f MiB\n", t_copy,
           (rss_copy - rss1) / 1024.0);
    printf("heap read / mapped load+read:    %7.2f\n", t_copy / (t_load + t_read));
    if (got != expect || got_copy != expect)
        printf("CONTENT MISMATCH\n");
    unlink(img.c_str());
    rmdir(dir.c_str());
    return got == expect ? 0 : 1;
}
