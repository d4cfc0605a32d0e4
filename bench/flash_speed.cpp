// The host must never be what limits a flash: the link is. Every figure of
// a whole session through the library is set against a plain copy through a
// pty in the same round, and against a plain writer filling the simulator's
// raw phase; three rounds, medians reported.
//
// The simulator runs in a child process, so the CPU time and memory taken
// here are the library's own. The wire is watched through the platform's
// serial calls: a write that is no XML document, after the first document,
// is raw data; "DATA" requests start the reads of a dump; every `patch`
// command marks the border between two measured stretches.
#include "pty_host.h"
#include "sim.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "container/container.h"
#include "platform/platform.h"
#include "ravik.h"

namespace {

using namespace pty_host;
using namespace ravik;

constexpr uint64_t MiB = 1u << 20;
constexpr uint64_t ENTRY = 256 * MiB;
constexpr uint64_t BIG_ENTRY = 1024 * MiB;
constexpr int ROUNDS = 3;
constexpr int PATCHES = 8;

double mono()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (double)ts.tv_sec + (double)ts.tv_nsec / 1e9;
}

struct cpu {
    double user = 0, sys = 0;
};

cpu cpu_now()
{
    struct rusage ru;
    getrusage(RUSAGE_SELF, &ru);
    return {(double)ru.ru_utime.tv_sec + (double)ru.ru_utime.tv_usec / 1e6,
            (double)ru.ru_stime.tv_sec + (double)ru.ru_stime.tv_usec / 1e6};
}

// A field of /proc/self/status in KiB.
long status_kib(const char *key)
{
    FILE *f = std::fopen("/proc/self/status", "r");
    if (!f)
        return -1;
    char line[256];
    long v = -1;
    size_t n = std::strlen(key);
    while (std::fgets(line, sizeof line, f))
        if (std::strncmp(line, key, n) == 0 && line[n] == ':')
            v = std::atol(line + n + 1);
    std::fclose(f);
    return v;
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

// --- the wire as the library uses it ---------------------------------------

struct stretch {
    double start = 0, end = 0;                // marker to marker
    uint64_t out_bytes = 0, in_bytes = 0;
    double out_first = 0, out_last = 0;       // first raw write to the answer after the last
    double in_first = 0, in_last = 0;         // first dump request to the last byte read
};

struct wire_watch {
    bool firehose = false, awaiting_ack = false, dumping = false, sample_memory = false;
    double slept = 0, first_configure = 0;
    std::vector<double> patches;
    std::vector<stretch> stretches;
    stretch cur;
    long anon_peak = 0;
    unsigned writes = 0;
    std::vector<std::pair<double, std::string>> trace; // for "program" alone: every write
    bool tracing = false;

    void reset() { *this = wire_watch(); }
} watch;

int32_t watched_write(int32_t handle, const void *buf, uint32_t count, int *err)
{
    double t = mono();
    const char *p = static_cast<const char *>(buf);
    if (watch.tracing && watch.trace.size() < 400)
        watch.trace.emplace_back(t, std::string(p, std::min<uint32_t>(count, 60)));
    if (count >= 5 && std::memcmp(p, "<?xml", 5) == 0) {
        watch.firehose = true;
        watch.dumping = false;
        std::string head(p, std::min<uint32_t>(count, 128));
        if (!watch.first_configure && head.find("<configure") != std::string::npos)
            watch.first_configure = t;
        if (head.find("<patch") != std::string::npos) {
            watch.patches.push_back(t);
            watch.cur.end = t;
            watch.stretches.push_back(watch.cur);
            watch.cur = stretch();
            watch.cur.start = t;
        }
    } else if (watch.firehose && count == 8 && std::memcmp(p, "DATA", 4) == 0) {
        watch.dumping = true;
        if (!watch.cur.in_first)
            watch.cur.in_first = t;
    } else if (watch.firehose) {
        if (!watch.cur.out_first)
            watch.cur.out_first = t;
        watch.cur.out_bytes += count;
        watch.awaiting_ack = true;
        if (watch.sample_memory && (++watch.writes & 15) == 0)
            watch.anon_peak = std::max(watch.anon_peak, status_kib("RssAnon"));
    }
    return platform_linux().serial_write(handle, buf, count, err);
}

int32_t watched_read(int32_t handle, void *buf, uint32_t count, int *err)
{
    int32_t n = platform_linux().serial_read(handle, buf, count, err);
    if (n > 0) {
        if (watch.awaiting_ack) {
            watch.cur.out_last = mono();
            watch.awaiting_ack = false;
        }
        if (watch.dumping) {
            watch.cur.in_bytes += (uint32_t)n;
            watch.cur.in_last = mono();
        }
    }
    return n;
}

void watched_sleep(uint32_t ms)
{
    watch.slept += ms / 1000.0;
    platform_linux().sleep_ms(ms);
}

platform_ops watched_ops()
{
    platform_ops ops = platform_linux();
    ops.serial_write = watched_write;
    ops.serial_read = watched_read;
    ops.sleep_ms = watched_sleep;
    return ops;
}

// --- the simulated target in a child process -------------------------------

std::string scratch;
// The simulated target's storage lives in memory where the system has it, as
// a real target's flash is no load on the host's disk: on this machine a
// fresh 1 MiB write costs the simulator 1.3 ms on ext4 and 0.3 ms on tmpfs,
// and at the pty's 8 ms per MiB that alone made the simulator the slower end.
std::string sim_store;

void remove_scratch()
{
    std::error_code ec;
    std::filesystem::remove_all(scratch, ec);
    std::filesystem::remove_all(std::filesystem::path(sim_store).parent_path(), ec);
}

const char *LAYOUT = "0 target 512M\n0 keep 256M bnr\n0 rest *\n";
constexpr uint64_t LUN_BYTES = 1280 * MiB;

struct sim_child {
    pid_t pid = -1;
    int stop_fd = -1;
    std::string link;

    explicit sim_child(uint32_t chip_id)
    {
        link = scratch + "/tty";
        int ready[2], stop[2];
        if (::pipe(ready) || ::pipe(stop))
            die("pipe");
        pid = ::fork();
        if (pid < 0)
            die("fork");
        if (pid == 0) {
            ::close(ready[0]);
            ::close(stop[1]);
            {
                ravik_sim::options o;
                o.link = link;
                o.storage_dir = sim_store;
                o.lun_bytes = LUN_BYTES;
                o.layout = LAYOUT;
                o.id.chip_id = chip_id;
                ravik_sim::target t(o);
                t.start();
                (void)!::write(ready[1], "r", 1);
                char c;
                while (::read(stop[0], &c, 1) > 0) {
                }
            }
            ::_exit(0);
        }
        ::close(ready[1]);
        ::close(stop[0]);
        stop_fd = stop[1];
        char c;
        if (::read(ready[0], &c, 1) != 1)
            die("simulator did not start");
        ::close(ready[0]);
    }
    ~sim_child()
    {
        ::close(stop_fd);
        int status;
        ::waitpid(pid, &status, 0);
        std::error_code ec;
        std::filesystem::remove_all(sim_store, ec);
    }
};

// --- the plain references ---------------------------------------------------

struct plain_figure {
    double mbs;
    cpu used; // the writer's, per GiB
};

// 256 MiB through a bare pty in 1 MiB writes, the host on the terminal's
// side as the library is; the target's end is another process. Towards the
// host the bytes land in a buffer of their own, as a partition read does.
plain_figure plain_pty(bool to_target)
{
    auto [m, s] = open_pty_pair();
    pid_t pid = ::fork();
    if (pid == 0) {
        std::vector<char> buf(MiB, 'z');
        for (uint64_t done = 0; done < ENTRY;) {
            if (to_target) {
                done += read_some(m, buf.data(), buf.size());
            } else {
                write_all(m, buf.data(), buf.size());
                done += MiB;
            }
        }
        ::_exit(0);
    }
    // 256 MiB of its own, as the library sends an entry, not one hot MiB.
    std::vector<char> data(ENTRY, 'x');
    cpu c0 = cpu_now();
    double t0 = mono();
    if (to_target)
        for (uint64_t sent = 0; sent < ENTRY; sent += MiB)
            write_blocking(s, data.data() + sent, MiB);
    else
        read_all(s, data.data(), ENTRY);
    cpu c1 = cpu_now();
    int status;
    ::waitpid(pid, &status, 0);
    double t = mono() - t0;
    ::close(s);
    ::close(m);
    double gib = (double)ENTRY / (1024.0 * MiB);
    return {ENTRY / t / 1e6, {(c1.user - c0.user) / gib, (c1.sys - c0.sys) / gib}};
}

// Starts `command` over the entry's range of a fresh simulator, up to its
// raw phase.
void start_raw_phase(link_host &h, const std::string &command)
{
    bring_up(h);
    std::string range = "SECTOR_SIZE_IN_BYTES=\"512\" num_partition_sectors=\"" +
                        std::to_string(ENTRY / 512) +
                        "\" physical_partition_number=\"0\" start_sector=\"2048\"";
    if (h.command(command + " " + range).find("rawmode=\"true\"") == std::string::npos)
        die((command + " refused").c_str());
}

// A plain reader taking a dump from the simulator in 1 MiB requests.
double plain_sim_dump()
{
    sim_child sim(0x0A01);
    link_host h(sim.link);
    start_raw_phase(h, "dump");
    std::vector<char> dst(ENTRY, 'y');
    double t0 = mono();
    uint8_t req[8] = {'D', 'A', 'T', 'A'};
    uint32_t chunk = MiB;
    std::memcpy(req + 4, &chunk, 4);
    for (uint64_t got = 0; got < ENTRY; got += MiB) {
        write_all(h.fd, req, sizeof req);
        read_all(h.fd, dst.data() + got, MiB);
    }
    return ENTRY / (mono() - t0) / 1e6;
}

// A plain writer filling the simulator's raw phase, as the library would.
plain_figure plain_sim()
{
    sim_child sim(0x0A01);
    link_host h(sim.link);
    start_raw_phase(h, "program");
    std::vector<char> src(ENTRY, 'y');
    cpu c0 = cpu_now();
    double t0 = mono();
    for (uint64_t sent = 0; sent < ENTRY; sent += MiB)
        write_blocking(h.fd, src.data() + sent, MiB);
    if (h.reply().find("value=\"ACK\"") == std::string::npos)
        die("program failed");
    double t = mono() - t0;
    cpu c1 = cpu_now();
    double gib = (double)ENTRY / (1024.0 * MiB);
    return {ENTRY / t / 1e6, {(c1.user - c0.user) / gib, (c1.sys - c0.sys) / gib}};
}

// --- sessions through the library -------------------------------------------

const char *PATCH = "<patch SECTOR_SIZE_IN_BYTES=\"512\" byte_offset=\"0\" filename=\"DISK\" "
                    "physical_partition_number=\"0\" size_in_bytes=\"4\" start_sector=\"2600000\" "
                    "value=\"0\" what=\"mark\"/>\n";

std::string recipe(const std::string &body)
{
    return "<recipe>\n<configure SkipStorageInit=\"0\"/>\n" + body + "</recipe>\n";
}

struct session_result {
    double wall = 0;
    cpu used;
    long anon_before = 0;
};

std::vector<std::string> last_lines;

int32_t keep_log(int32_t event, void *payload, void *)
{
    if (event == DEVICE_EVENT_LOG && payload) {
        last_lines.push_back(static_cast<const char *>(payload));
        if (last_lines.size() > 40)
            last_lines.erase(last_lines.begin());
    }
    return 0;
}

session_result session(uint32_t chip_id, uint32_t flags, bool sample_memory = false)
{
    sim_child sim(chip_id);
    bool tracing = watch.tracing;
    watch.reset();
    watch.tracing = tracing;
    watch.sample_memory = sample_memory;
    last_lines.clear();
    session_result r;
    if (sample_memory) {
        // Resets the peak resident set to the present one.
        FILE *f = std::fopen("/proc/self/clear_refs", "w");
        if (f) {
            std::fputs("5", f);
            std::fclose(f);
        }
        r.anon_before = status_kib("RssAnon");
        watch.anon_peak = r.anon_before;
    }
    cpu c0 = cpu_now();
    double t0 = mono();
    int32_t code = rk_flash_singleimage(sim.link.c_str(), (scratch + "/bench.img").c_str(), flags,
                                        keep_log, nullptr);
    r.wall = mono() - t0;
    cpu c1 = cpu_now();
    r.used = {c1.user - c0.user, c1.sys - c0.sys};
    if (code != 0) {
        for (auto &l : last_lines)
            std::fputs(l.c_str(), stderr);
        std::fprintf(stderr, "session failed: %s\n", rk_describe_error(code));
        std::exit(1);
    }
    if (sample_memory)
        watch.anon_peak = std::max(watch.anon_peak, status_kib("RssAnon"));
    watch.first_configure -= t0;
    return r;
}

// One container for all sessions: the board id of the simulated target
// picks the package, and so the recipe.
void make_container(bool with_big)
{
    pid_t pid = ::fork();
    if (pid == 0) {
        std::string path = scratch + "/bench.img";
        simg *w = simg_open(path.c_str(), SIMG_CREATE);
        if (!w)
            ::_exit(1);
        auto put = [&](const std::string &name, const std::string &text) {
            if (!simg_store(w, text.data(), text.size(), name.c_str()))
                ::_exit(1);
        };
        auto programmer = ravik_sim::demo_programmer();
        if (!simg_store(w, programmer.data(), programmer.size(), "programmer.elf"))
            ::_exit(1);
        std::string index = "<?xml version=\"1.0\"?>\n<index>\n";
        const char *names[] = {"program", "flash", "bnr", "memory"};
        for (int i = 0; i < 4; i++) {
            char board[128];
            std::snprintf(board, sizeof board, "  <board id=\"0x0A0%d\" name=\"%s\"/>\n", i + 1,
                          names[i]);
            index += board;
            index += std::string("  <package compatible=\"protocol:ravik cpu.name:") + names[i] +
                     "\" filename=\"" + names[i] + ".xml\"/>\n";
            put(std::string(names[i]) + ".xml",
                std::string("<package>\n  <programmer filename=\"programmer.elf\"/>\n"
                            "  <recipe filename=\"") +
                    names[i] + "_recipe.xml\" compatible=\"storage.type:eMMC\"/>\n</package>\n");
        }
        put("index.xml", index + "</index>\n");
        std::string patches;
        for (int i = 0; i < PATCHES; i++)
            patches += PATCH;
        const char *program = "<program SECTOR_SIZE_IN_BYTES=\"512\" label=\"target\" "
                              "filename=\"%s\" physical_partition_number=\"0\" "
                              "start_sector=\"2048\"/>\n";
        char line[256];
        std::snprintf(line, sizeof line, program, "image.bin");
        put("program_recipe.xml", recipe(patches + line + PATCH));
        put("flash_recipe.xml", recipe("<storage operation=\"reinit\"/>\n" + std::string(PATCH) +
                                       "<flash partition=\"target\" filename=\"image.bin\"/>\n" +
                                       PATCH));
        put("bnr_recipe.xml", recipe("<storage operation=\"reinit\"/>\n" + std::string(PATCH) +
                                     "<backup name=\"keep\" commit=\"1\"/>\n" + PATCH +
                                     "<restore why=\"all\"/>\n" + PATCH));
        std::snprintf(line, sizeof line, program, "big.bin");
        put("memory_recipe.xml", recipe(line + std::string(PATCH)));
        std::vector<uint8_t> data(ENTRY);
        for (size_t i = 0; i < data.size(); i += 8)
            std::memcpy(&data[i], &i, 8);
        if (!simg_store(w, data.data(), data.size(), "image.bin"))
            ::_exit(1);
        data = std::vector<uint8_t>();
        // The 1 GiB entry is imported from a sparse file, never held here.
        if (!with_big) {
            simg_close(w);
            ::_exit(0);
        }
        std::string big = scratch + "/big.bin";
        int fd = ::open(big.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0600);
        if (fd < 0 || ::ftruncate(fd, (off_t)BIG_ENTRY) != 0)
            ::_exit(1);
        ::close(fd);
        if (!simg_import(w, big.c_str(), "big.bin"))
            ::_exit(1);
        ::unlink(big.c_str());
        simg_close(w);
        ::_exit(0);
    }
    int status;
    ::waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        die("container not made");
}

void row(const char *name, double value, const char *unit, const char *against, double ratio,
         double goal, bool at_most)
{
    bool met = at_most ? ratio <= goal : ratio >= goal;
    std::printf("%-44s %9.3f %-7s %-16s %7.3f  %s %5.2f  %s\n", name, value, unit, against,
                ratio, at_most ? "<=" : ">=", goal, met ? "PASS" : "FAIL");
}

} // namespace

int main(int argc, char **argv)
{
    // "program", "flash" or "bnr": that session alone, for a profiler;
    // "links": the plain references alone, to see the simulator against
    // the pty.
    const char *only = argc > 1 ? argv[1] : nullptr;
    bool once = only != nullptr;
    char tmpl[] = "/tmp/ravik-perf-XXXXXX";
    if (!::mkdtemp(tmpl))
        die("mkdtemp");
    scratch = tmpl;
    char shm[] = "/dev/shm/ravik-perf-XXXXXX";
    sim_store = (::mkdtemp(shm) ? std::string(shm) : scratch) + "/storage";
    // Backup files land in the working directory.
    if (::chdir(scratch.c_str()) != 0)
        die("chdir");
    if (only && std::strcmp(only, "links") == 0) {
        for (int i = 0; i < ROUNDS; i++)
            std::printf("pty %.1f, simulator %.1f; to host: pty %.1f, simulator's dump %.1f MB/s\n",
                        plain_pty(true).mbs, plain_sim().mbs, plain_pty(false).mbs,
                        plain_sim_dump());
        remove_scratch();
        return 0;
    }
    make_container(!once);
    static platform_ops ops = watched_ops();
    platform_install(&ops);
    if (once) {
        bool bnr = std::strcmp(only, "bnr") == 0;
        uint32_t board = std::strcmp(only, "flash") == 0 ? 0x0A02 : bnr ? 0x0A03 : 0x0A01;
        watch.tracing = true;
        double t0 = mono();
        session_result s = session(board, bnr ? DEVICE_FLAG_BNR : 0);
        for (auto &[t, text] : watch.trace) {
            std::string shown;
            for (char c : text)
                shown += c >= 32 && c < 127 ? c : '.';
            std::printf("%9.3f ms %s\n", (t - t0) * 1e3, shown.c_str());
        }
        std::printf("slept %.3f s\n", watch.slept);
        for (const stretch &t : watch.stretches)
            std::printf("stretch %.3f s: out %llu in %llu, dump %.3f s\n", t.end - t.start,
                        (unsigned long long)t.out_bytes, (unsigned long long)t.in_bytes,
                        t.in_last - t.in_first);
        std::printf("%s session: %.3f s, user %.3f s, system %.3f s\n", only, s.wall, s.used.user,
                    s.used.sys);
        remove_scratch();
        return 0;
    }

    // Each library figure lies between two measurements of the plain copy
    // and of a plain writer into the simulator, and is judged against the
    // mean of the lower of the two before and after it: the load of the
    // shared machine changes by the minute.
    std::vector<double> raw, puser, psys, sim_raw, r_sim, limit, wuser, wsys, wcpu;
    std::vector<double> program, flash, backup, dump, restore, user, sys, setup, rtt,
        anon, hwm;
    std::vector<double> r_program, r_flash, r_backup, r_restore, r_cpu;
    std::vector<double> raw_in, sim_dump, limit_in;
    // Towards the host too, around the backup.
    auto reference = [&](bool both_ways) {
        if (both_ways) {
            raw_in.push_back(plain_pty(false).mbs);
            sim_dump.push_back(plain_sim_dump());
            limit_in.push_back(std::min(raw_in.back(), sim_dump.back()));
        }
        plain_figure p = plain_pty(true), q = plain_sim();
        raw.push_back(p.mbs);
        puser.push_back(p.used.user);
        psys.push_back(p.used.sys);
        sim_raw.push_back(q.mbs);
        r_sim.push_back(q.mbs / p.mbs);
        limit.push_back(std::min(p.mbs, q.mbs));
        wuser.push_back(q.used.user);
        wsys.push_back(q.used.sys);
        wcpu.push_back(q.used.user + q.used.sys);
    };
    auto around = [&](std::vector<double> &v) { return (v.end()[-1] + v.end()[-2]) / 2; };
    double gib = (double)ENTRY / (1024.0 * MiB);
    reference(false);
    for (int round = 0; round < ROUNDS; round++) {
        // program: configure, patches, the program, a last patch.
        session_result s = session(0x0A01, 0);
        const stretch pg = watch.stretches.back();
        double setup_s = watch.first_configure - watch.slept;
        std::vector<double> gaps;
        for (size_t i = 1; i < (size_t)PATCHES; i++)
            gaps.push_back(watch.patches[i] - watch.patches[i - 1]);
        reference(false);
        program.push_back(pg.out_bytes / (pg.out_last - pg.out_first) / 1e6);
        r_program.push_back(program.back() / around(limit));
        user.push_back(s.used.user / gib);
        sys.push_back(s.used.sys / gib);
        r_cpu.push_back((user.back() + sys.back()) / around(wcpu));
        setup.push_back(setup_s);
        rtt.push_back(median(gaps));

        // flash by name: erase and write, marker to marker.
        session(0x0A02, 0);
        const stretch fl = watch.stretches.back();
        reference(true);
        flash.push_back(fl.out_bytes / (fl.end - fl.start) / 1e6);
        r_flash.push_back(flash.back() / around(limit));

        // backup of the marked partition, then its restore.
        session(0x0A03, DEVICE_FLAG_BNR);
        const stretch bk = watch.stretches[watch.stretches.size() - 2];
        const stretch rs = watch.stretches.back();
        reference(true);
        backup.push_back(bk.in_bytes / (bk.end - bk.start) / 1e6);
        dump.push_back(bk.in_bytes / (bk.in_last - bk.in_first) / 1e6);
        r_backup.push_back(backup.back() / around(limit_in));
        restore.push_back(rs.out_bytes / (rs.end - rs.start) / 1e6);
        r_restore.push_back(restore.back() / around(limit));

        // memory while a 1 GiB entry goes out.
        s = session(0x0A04, 0, true);
        anon.push_back((watch.anon_peak - s.anon_before) / 1024.0);
        hwm.push_back(status_kib("VmHWM") / 1024.0);
        std::fprintf(stderr,
                     "round %d of %d: program %.1f, flash %.1f, backup %.1f (its dump %.1f), "
                     "restore %.1f MB/s; ratios %.2f %.2f %.2f %.2f\n",
                     round + 1, ROUNDS, program.back(), flash.back(), backup.back(), dump.back(),
                     restore.back(), r_program.back(), r_flash.back(), r_backup.back(),
                     r_restore.back());
    }
    platform_install(nullptr);
    remove_scratch();

    double pty = median(raw), simr = median(sim_raw);
    std::printf("medians of %d rounds; each ratio is taken against the plain figures measured\n"
                "just before and just after it (the lower of pty and simulator, mean of both)\n",
                ROUNDS);
    std::printf("%-44s %9s %-7s %-16s %7s  %-8s\n", "figure", "median", "unit", "against",
                "ratio", "goal");
    std::printf("%-44s %9.1f %-7s\n", "raw pty copy, 256 MiB in 1 MiB writes", pty, "MB/s");
    std::printf("%-44s %9.3f %-7s\n", "  its writer's user CPU", median(puser), "s/GiB");
    std::printf("%-44s %9.3f %-7s\n", "  its writer's system CPU", median(psys), "s/GiB");
    row("plain writer into ravik-sim's raw phase", simr, "MB/s", "raw pty", median(r_sim), 0.9,
        false);
    row("program of 256 MiB, raw phase", median(program), "MB/s", "lower of the two",
        median(r_program), 0.9, false);
    row("flash by name into 512 MiB, bytes on wire", median(flash), "MB/s", "lower of the two",
        median(r_flash), 0.9, false);
    std::printf("%-44s %9.1f %-7s\n", "raw pty copy towards the host", median(raw_in), "MB/s");
    std::vector<double> r_dump;
    for (size_t i = 0; i < raw_in.size(); i++)
        r_dump.push_back(sim_dump[i] / raw_in[i]);
    row("plain reader of ravik-sim's dump", median(sim_dump), "MB/s", "raw pty, to host",
        median(r_dump), 0.9, false);
    row("backup of a 256 MiB partition", median(backup), "MB/s", "lower, to host",
        median(r_backup), 0.8, false);
    std::printf("%-44s %9.1f %-7s\n", "  its dump phase alone", median(dump), "MB/s");
    row("restore of a 256 MiB partition, on wire", median(restore), "MB/s", "lower of the two",
        median(r_restore), 0.8, false);
    std::printf("%-44s %9.3f %-7s\n", "plain writer into ravik-sim, user CPU", median(wuser),
                "s/GiB");
    std::printf("%-44s %9.3f %-7s\n", "plain writer into ravik-sim, system CPU", median(wsys),
                "s/GiB");
    row("library CPU per GiB flashed, user", median(user), "s/GiB", "goal", median(user), 0.1,
        true);
    std::printf("%-44s %9.3f %-7s\n", "library CPU per GiB flashed, system", median(sys), "s/GiB");
    row("  user + system", median(user) + median(sys), "s/GiB", "plain writer's", median(r_cpu),
        1.25, true);
    row("RssAnon growth flashing a 1 GiB entry", median(anon), "MiB", "goal", median(anon), 16,
        true);
    std::printf("%-44s %9.1f %-7s\n", "  peak resident set (VmHWM)", median(hwm), "MiB");
    row("session fixed cost beyond required waits", median(setup) * 1e3, "ms", "goal",
        median(setup) * 1e3, 50, true);
    std::printf("%-44s %9.3f %-7s\n", "round trip of a patch", median(rtt) * 1e3, "ms");
    return 0;
}
