// The simulator must never be the bottleneck of a measurement: its program
// and dump phases are timed against a plain copy through a pty, both in
// this run, in both directions.
#include "pty_host.h"
#include "sim.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <string>
#include <termios.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using namespace pty_host;

constexpr size_t TOTAL = 128u << 20;
constexpr size_t CHUNK = 1u << 20;
constexpr int ROUNDS = 3;

using clk = std::chrono::steady_clock;

double seconds_since(clk::time_point t0)
{
    return std::chrono::duration<double>(clk::now() - t0).count();
}

// A bare pty: one side copies, the other drains into a buffer.
double plain_copy(bool host_to_target)
{
    auto [m, s] = open_pty_pair();
    std::vector<char> src(CHUNK, 'x'), dst(CHUNK);
    int from = host_to_target ? s : m, to = host_to_target ? m : s;
    auto t0 = clk::now();
    std::thread reader([&] {
        for (size_t got = 0; got < TOTAL;)
            got += read_some(to, dst.data(), dst.size());
    });
    for (size_t sent = 0; sent < TOTAL; sent += CHUNK)
        write_all(from, src.data(), CHUNK);
    reader.join();
    double t = seconds_since(t0);
    ::close(s);
    ::close(m);
    return TOTAL / t / 1e6;
}

void simulated(double &program_mbs, double &dump_mbs)
{
    char tmpl[] = "/tmp/ravik-sim-bench-XXXXXX";
    std::string dir = ::mkdtemp(tmpl);
    {
        ravik_sim::options o;
        o.link = dir + "/tty";
        o.storage_dir = dir + "/storage";
        o.lun_bytes = 2 * TOTAL;
        ravik_sim::target t(o);
        t.start();
        link_host h(t.link());
        bring_up(h);
        std::vector<char> data(CHUNK, 'y');
        const std::string range = "SECTOR_SIZE_IN_BYTES=\"512\" num_partition_sectors=\"" +
                                  std::to_string(TOTAL / 512) +
                                  "\" physical_partition_number=\"0\" start_sector=\"2048\"";
        program_mbs = dump_mbs = 0;
        for (int round = 0; round < ROUNDS; round++) {
            if (h.command("program " + range).find("rawmode=\"true\"") == std::string::npos)
                die("program refused");
            auto t0 = clk::now();
            for (size_t sent = 0; sent < TOTAL; sent += CHUNK)
                write_all(h.fd, data.data(), CHUNK);
            if (h.reply().find("value=\"ACK\"") == std::string::npos)
                die("program failed");
            program_mbs = std::max(program_mbs, TOTAL / seconds_since(t0) / 1e6);

            if (h.command("dump " + range).find("rawmode=\"true\"") == std::string::npos)
                die("dump refused");
            t0 = clk::now();
            uint8_t req[8] = {'D', 'A', 'T', 'A'};
            uint32_t chunk = CHUNK;
            std::memcpy(req + 4, &chunk, 4);
            for (size_t got = 0; got < TOTAL; got += CHUNK) {
                write_all(h.fd, req, sizeof req);
                read_all(h.fd, data.data(), CHUNK);
            }
            dump_mbs = std::max(dump_mbs, TOTAL / seconds_since(t0) / 1e6);
        }
    }
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
}

} // namespace

int main()
{
    double plain_in = 0, plain_out = 0;
    for (int round = 0; round < ROUNDS; round++) {
        plain_in = std::max(plain_in, plain_copy(true));
        plain_out = std::max(plain_out, plain_copy(false));
    }
    double program = 0, dump = 0;
    simulated(program, dump);
    std::printf("%-34s %10s %10s %8s\n", "direction", "pty MB/s", "sim MB/s", "ratio");
    std::printf("%-34s %10.1f %10.1f %8.3f\n", "host to target (program)", plain_in, program,
                program / plain_in);
    std::printf("%-34s %10.1f %10.1f %8.3f\n", "target to host (dump)", plain_out, dump,
                dump / plain_out);
    bool ok = program / plain_in >= 0.9 && dump / plain_out >= 0.9;
    std::printf("target: sim at least 0.900 of the plain pty: %s\n", ok ? "met" : "NOT MET");
    return ok ? 0 : 1;
}
