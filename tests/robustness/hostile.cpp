// Hostile and flaky targets: whole sessions against simulated targets that
// vanish, refuse, fall silent, cut their answers into bytes, babble or take
// too long to reboot. Each case ends with its code, within its time-outs on
// the session's clock, nothing written beyond the commands that ran and no
// backup lost. A test's cases run side by side, one target and thread each.
#include <gtest/gtest.h>

#ifdef RAVIK_HAVE_SIM

#include <poll.h>
#include <thread>
#include <unistd.h>

#include "backup/backup_files.h"
#include "support/sim_session.h"

using namespace ravik;
using namespace ravik::test;
using fk = ravik_sim::tag_fault::kind;
using ravik_sim::phase;

namespace {

// The real line, but the session's clock runs SPEED times faster while it
// waits: an idle read or a sleep lasts a SPEED-th of its time, the rest is
// skipped. The target keeps real time: its reboots and vanishing are scaled.
constexpr int SPEED = 10;
thread_local double skipped;
struct brisk_platform {
    platform_ops ops = platform_linux();
    brisk_platform()
    {
        ops.wall_clock = [] { return platform_linux().wall_clock() + skipped; };
        ops.sleep_ms = [](uint32_t ms) { usleep(ms * 1000 / SPEED), skipped += ms * (SPEED - 1) / 1000.0 / SPEED; };
        ops.serial_read = [](int32_t h, void *buf, uint32_t n, int *err) -> int32_t {
            pollfd p = {h, POLLIN, 0};
            if (h >= 0 && n && poll(&p, 1, 1000 / SPEED) == 0)
                return skipped += (SPEED - 1) / (double)SPEED, 0;
            return platform_linux().serial_read(h, buf, n, err);
        };
        platform_install(&ops);
    }
    ~brisk_platform() { platform_install(nullptr); }
};

// One exchange that gets nothing: ten empty reads of a second, 100 ms apart.
const double SILENT = 11.5;
// What a healthy session may take, settle times and uploads included.
const double HEALTHY = 25;

// The steps of the main recipe, in order; the provisioning recipe has only
// PROGRAM, FLASH and RESTORE of them.
enum step { CONFIGURE, BACKUP, PROGRAM, FLASH, WIPE, PATCH, SCRUB, RESTORE, SETBOOTABLE, ALL_DONE };

// The low byte of the session's code; the step the fault strikes: steps
// before it whole, it perhaps in part, later ones absent; the time-outs it
// may cost beyond a healthy session; whether nothing is saved, the storage
// being unknown at backup time; what the session must wait out.
using fault_fn = std::function<void(ravik_sim::options &)>;
struct hostile_case { std::string name; fault_fn fault; int code; step failing; double seconds;
                      bool ufs = false, may_lose_backup = false; double at_least = 0; };

fault_fn on_tag(const char *name, fk what, int skip = 0, int count = 1)
{
    return [=](ravik_sim::options &o) { o.fault.tags.push_back({name, what, count, skip}); };
}
fault_fn nak(const char *tag, int skip = 0) { return on_tag(tag, fk::nak, skip); }
fault_fn silence(const char *tag, int skip = 0) { return on_tag(tag, fk::silence, skip); }
fault_fn gone(const char *tag, int skip = 0) { return on_tag(tag, fk::vanish, skip); }
fault_fn vanish(phase at, int skip = 0, int ms = 500)
{
    return [=](ravik_sim::options &o) { o.fault.vanish_at = at, o.fault.vanish_skip = skip, o.fault.vanish_ms = ms; };
}

// Backup files in the one working directory keep apart by each target's serial number.
void run_cases(const std::vector<hostile_case> &cases)
{
    brisk_platform brisk;
    temp_cwd cwd;
    std::vector<std::unique_ptr<ravik_sim::target>> targets;
    for (size_t i = 0; i < cases.size(); i++) {
        ravik_sim::options o = numbered_ufs_target(cwd.path(), i, "0 persist 16K bnr\n0 system 64K\n0 cache 16K\n"
                               "0 userdata *\n1 bootloader_a 16K\n1 spare_a *\n2 spare_b *\n", 0x5EED0000u + (uint32_t)i);
        cases[i].fault(o);
        o.reboot_ms /= SPEED, o.fault.vanish_ms = o.fault.vanish_ms < 0 ? -1 : o.fault.vanish_ms / SPEED;
        targets.push_back(std::make_unique<ravik_sim::target>(o));
        targets.back()->start();
    }
    const ravik_sim::target &t0 = *targets[0];
    const part_range persist = find_part(t0, 0, "persist"), system = find_part(t0, 0, "system");
    const part_range cache = find_part(t0, 0, "cache"), userdata = find_part(t0, 0, "userdata");
    const part_range bla = find_part(t0, 1, "bootloader_a");
    const std::string old_persist = pattern(persist.size, 1), bl = pattern(12000, 41), sys = pattern(20000, 42);
    auto at = [](part_range p) { return "\" start_sector=\"" + std::to_string(p.offset / 4096) + "\"/>\n"; };
    const std::string head = "<configure SkipStorageInit=\"0\"/>\n<backup commit=\"1\" why=\"marked ones\"/>\n"
                             "<program SECTOR_SIZE_IN_BYTES=\"4096\" label=\"bootloader_a\" filename=\"bl.img\" "
                             "physical_partition_number=\"1" + at(bla);
    const std::string flash = "<flash partition=\"system\" filename=\"system.img\"/>\n";
    const std::string restore = "<restore why=\"after the flash\"/>\n";
    std::map<std::string, std::string> entries = {
        {"bl.img", bl}, {"system.img", sys}, {"scrub.img", std::string(persist.size, '\x5A')}};
    entries["run.xml"] = head + flash + "<wipe partition=\"cache\"/>\n<patch SECTOR_SIZE_IN_BYTES=\"4096\" filename="
                         "\"DISK\" physical_partition_number=\"0\" byte_offset=\"8\" size_in_bytes=\"4\" value="
                         "\"0x11223344\" what=\"marker" + at(userdata) + "<program SECTOR_SIZE_IN_BYTES=\"4096\" label="
                         "\"scrub\" filename=\"scrub.img\" physical_partition_number=\"0" + at(persist) + restore +
                         "<setbootablestoragedrive value=\"1\"/>\n";
    sim_package("main.img", entries);
    entries["run.xml"] = head + "<ufs bNumberLU=\"3\" bConfigDescrLock=\"0\"/>\n<ufs LUNum=\"0\" bLUEnable=\"1\"/>\n"
                                "<ufs commit=\"1\"/>\n" + flash + restore;
    sim_package("ufs.img", entries);
    const std::vector<std::tuple<step, unsigned, uint64_t, std::string>> writes = {
        {PROGRAM, 1, bla.offset, padded(bl, 12288)}, {FLASH, 0, system.offset, padded(sys, system.size)},
        {WIPE, 0, cache.offset, std::string(cache.size, '\0')}, {PATCH, 0, userdata.offset + 8, "\x44\x33\x22\x11"},
        {SCRUB, 0, persist.offset, std::string(persist.size, '\x5A')}, {RESTORE, 0, persist.offset, old_persist}};

    std::vector<std::thread> threads;
    for (size_t i = 0; i < cases.size(); i++)
        threads.emplace_back([&, i] {
            const hostile_case &c = cases[i];
            const ravik_sim::target &t = *targets[i];
            SCOPED_TRACE(c.name);
            // Known contents everywhere a step writes, so that a write shows.
            int seed = 1;
            for (auto [lun, p] : {std::pair{0, persist}, {0, system}, {0, cache}, {0, userdata}, {1, bla}})
                lun_write(t, lun, p.offset, pattern(p.size, seed++));
            // Every byte of a step before the failing one new, of the failing
            // one old, zero or new, of a later one old.
            std::vector<std::string> want, newer;
            for (unsigned l = 0; l < 3; l++)
                want.push_back(read_file(t.lun_path(l)));
            newer = want;
            for (auto &[s, lun, offset, after] : writes)
                for (auto [copy, upto] : {std::pair{&newer, c.failing + 1}, {&want, +c.failing}})
                    if (s < upto && (!c.ufs || s == PROGRAM || s == FLASH || s == RESTORE))
                        (*copy)[lun].replace(offset, after.size(), after);

            event_log log;
            const double start = platform().wall_clock();
            const int32_t code = rk_flash_singleimage(t.link().c_str(), c.ufs ? "ufs.img" : "main.img",
                                                      DEVICE_FLAG_BNR, record_events, &log);
            const double seconds = platform().wall_clock() - start;
            EXPECT_EQ(code & 0xFF, c.code) << std::accumulate(log.lines.begin(), log.lines.end(), std::string());
            EXPECT_LT(seconds, HEALTHY + c.seconds);
            EXPECT_GE(seconds, c.at_least);
            for (unsigned l = 0; l < 3; l++) {
                const std::string got = read_file(t.lun_path(l));
                ASSERT_EQ(got.size(), want[l].size());
                size_t b = 0;
                while (b < got.size() && (got[b] == want[l][b] || got[b] == newer[l][b] || got[b] == '\0'))
                    b++;
                EXPECT_EQ(b, got.size()) << "LUN " << l << " differs first at this byte";
            }
            // The old persist on the target or in a backup file; every backup file opens.
            char prefix[32];
            std::snprintf(prefix, sizeof prefix, "backup_0x%08X_", 0x5EED0000u + (uint32_t)i);
            bool saved = false;
            for (auto &file : backup_files(prefix)) {
                EXPECT_FALSE(entry_names(file).empty()) << file;
                const std::string kept = entry_data(file, "persist.img");
                EXPECT_TRUE(kept == old_persist || kept == "<missing>") << file << " holds another persist";
                saved |= kept == old_persist;
            }
            const bool on_target = lun_read(t, 0, persist.offset, persist.size) == old_persist;
            EXPECT_TRUE(c.may_lose_backup || saved || on_target) << "persist lost";
            std::printf("fault case: | %s | %d | %d | %.1f | %.0f | %s |\n", c.name.c_str(), c.code, code & 0xFF,
                        seconds, HEALTHY + c.seconds, on_target ? "on-target" : saved ? "in-backup" : "lost");
        });
    for (auto &thread : threads)
        thread.join();
}

} // namespace

// Faults before and around the upload, in the answers' form, and refusals.
TEST(HostileTarget, GreetingUploadAndTheFormOfAnswers)
{
    run_cases({
        {"none", [](ravik_sim::options &) {}, 0, ALL_DONE, 0},
        {"vanish/greeting, back in 0.5 s", vanish(phase::on_open), 0, ALL_DONE, 3},
        {"vanish/greeting, for good", vanish(phase::on_open, 0, -1), ERR_OPEN_DEVICE, CONFIGURE, 3},
        {"vanish/identification", vanish(phase::command_mode), ERR_IO, CONFIGURE, 2},
        {"vanish/upload", vanish(phase::image_transfer), ERR_IO, CONFIGURE, 2},
        {"stray/bytes between documents", [](auto &o) { o.fault.stray = "\r\n<?xml junk\n"; }, 0, ALL_DONE, 5},
        {"nak/nop", nak("nop"), 0, ALL_DONE, 2},
        // Taken for eMMC, which this target refuses to configure.
        {"nak/getvar, all four", on_tag("getvar", fk::nak, 0, 4), ERR_BAD_RESPONSE, CONFIGURE, 0},
        {"nak/configure", nak("configure"), ERR_BAD_RESPONSE, CONFIGURE, 0},
        {"nak/getStorageInfo", nak("getStorageInfo"), 0, RESTORE, 0, false, true},
        {"nak/patch", nak("patch"), ERR_NAK, PATCH, 0},
        {"nak/setbootablestoragedrive", nak("setbootablestoragedrive"), ERR_NAK, SETBOOTABLE, 0},
        {"nak/power", nak("power"), 0, ALL_DONE, 0},
    });
}

// A refused raw-mode switch looks like silence to the host.
TEST(HostileTarget, SilenceAndRefusedRawTransfers)
{
    const double WAITED = SILENT - 1;
    run_cases({
        {"nak/dump of the first partition table", nak("dump"), ERR_NOT_FOUND, FLASH, SILENT},
        {"nak/dump of the marked partition", nak("dump", 6), ERR_NO_RESPONSE, PROGRAM, SILENT},
        {"nak/program by sector", nak("program"), ERR_NO_RESPONSE, PROGRAM, SILENT},
        {"nak/program of a flash by name", nak("program", 1), ERR_NO_RESPONSE, FLASH, SILENT},
        {"silence/nop", silence("nop"), 0, ALL_DONE, SILENT + 1, false, false, WAITED},
        {"silence/getvar secure", silence("getvar", 3), 0, ALL_DONE, SILENT, false, false, WAITED},
        {"silence/configure", silence("configure"), ERR_NO_RESPONSE, CONFIGURE, SILENT},
        {"silence/getStorageInfo", silence("getStorageInfo"), 0, RESTORE, SILENT, false, true},
        {"silence/patch", silence("patch"), ERR_NO_RESPONSE, PATCH, SILENT, false, false, WAITED},
        {"silence/setbootablestoragedrive", silence("setbootablestoragedrive"), ERR_NO_RESPONSE, SETBOOTABLE, SILENT},
        {"silence/power", silence("power"), 0, ALL_DONE, SILENT},
        // The raw-mode answer is recognised by its response tag; the rest of
        // its document, still on its way, is taken for the first partition
        // table's data, whose last bytes then hide every later answer.
        {"split/every answer in single bytes", [](auto &o) { o.fault.split = 1; }, ERR_NO_RESPONSE, PROGRAM, SILENT},
    });
}

// The port goes while the programmer runs: no command is repeated, the
// session ends at the first one that gets nothing.
TEST(HostileTarget, PortVanishingAtEachCommandAndInRawTransfers)
{
    run_cases({
        {"vanish/configure", gone("configure"), ERR_NO_RESPONSE, CONFIGURE, 9},
        {"vanish/getStorageInfo", gone("getStorageInfo"), ERR_IO, PROGRAM, 3},
        {"vanish/dump of the marked partition", gone("dump", 6), ERR_NO_RESPONSE, PROGRAM, 3},
        {"vanish/program by sector", gone("program"), ERR_NO_RESPONSE, PROGRAM, 3},
        {"vanish/patch", gone("patch"), ERR_NO_RESPONSE, PATCH, 3},
        {"vanish/setbootablestoragedrive", gone("setbootablestoragedrive"), ERR_NO_RESPONSE, SETBOOTABLE, 3},
        {"vanish/power", gone("power"), 0, ALL_DONE, 3},
        {"vanish/mid program by sector", vanish(phase::raw_in), ERR_NO_RESPONSE, PROGRAM, 3},
        {"vanish/mid program of a flash by name", vanish(phase::raw_in, 2), ERR_NO_RESPONSE, FLASH, 3},
        {"vanish/mid program of the restore", vanish(phase::raw_in, 6), ERR_IO, RESTORE, 3},
        {"vanish/mid dump of the marked partition", [](auto &o) { o.max_payload = 4096, vanish(phase::raw_out, 3)(o); },
         ERR_IO, PROGRAM, 3},
    });
}

// A failed commit is retried once on a fresh programmer after a power
// cycle, which gives the target a minute from its start.
TEST(HostileTarget, ProvisioningARebootLongerThanAMinuteAndTimeOuts)
{
    run_cases({
        {"nak/ufs", nak("ufs"), ERR_NAK, FLASH, 0, true},
        {"nak/ufs commit", nak("ufs", 2), 0, RESTORE, SILENT + 8, true},
        {"silence/ufs commit", silence("ufs", 2), 0, RESTORE, SILENT + 8, true, false, SILENT - 1},
        {"vanish/ufs commit", gone("ufs", 2), ERR_NO_RESPONSE, FLASH, 12, true},
        // Away for longer than the whole wait, however slowly the host runs.
        {"reboot/an hour long", [](auto &o) { o.reboot_ms = 3600000; }, ERR_OPEN_DEVICE, FLASH, 60 + SILENT, true,
         false, 60},
    });
}

#endif
