// Hostile and flaky targets: whole sessions against simulated targets that
// vanish, refuse, fall silent, cut their answers into bytes, babble or take
// too long to reboot. Each case ends with its code, within its time-outs on
// the session's clock, nothing written beyond the commands that ran and no
// backup lost. A test's cases run side by side, one target and thread each.
#include <gtest/gtest.h>

#include <cstring>
#include <poll.h>
#include <thread>
#include <unistd.h>

#include "ravik.h"
#include "session/scripted_session.h"
#include "support/helpers.h"

using namespace ravik;
using namespace ravik::test;

// One exchange that gets nothing: ten empty reads of a second, 100 ms apart.
static const double SILENT = 11.5;

// The port goes for good as the programmer starts: each question of the
// bring-up, then each link operation of the first command, waits out the
// whole minute of the wake-up, and the command never goes out.
TEST(HostileTarget, PortGoneForGoodAtTheWakeUp)
{
    temp_cwd cwd;
    make_demo("demo.img");
    fake_platform fake;
    script_target(fake, false);
    static int waits;
    waits = 0;
    auto on_event = [](int32_t event, void *payload, void *fake) -> int32_t {
        if (event == DEVICE_EVENT_LOG && std::strstr(static_cast<const char *>(payload), "Waiting for firehose"))
            static_cast<fake_platform *>(fake)->open_fails = true, waits++;
        return 0;
    };
    const double t0 = fake.clock;
    int32_t code = -1;
    on_fresh_thread([&] { code = rk_flash_singleimage("dev", "demo.img", 0, on_event, &fake); });
    EXPECT_EQ(code & 0xFF, ERR_OPEN_DEVICE);
    // Three questions (the board names the storage), then the configure's
    // latency, NAK logging, the command, and both put back.
    EXPECT_EQ(waits, 8);
    EXPECT_GE(fake.clock - t0, 8 * 60.0);
    EXPECT_LT(fake.clock - t0, 8 * (60 + SILENT) + 5);
    EXPECT_EQ(fake.written.find("<configure"), std::string::npos);
}

#ifdef RAVIK_HAVE_SIM

#include "backup/backup_files.h"
#include "robustness/sim_targets.h"
#include "support/sim_session.h"

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

const uint32_t BLK = 4096;
const std::string BL_IMG = pattern(12000, 41), SYSTEM_IMG = pattern(20000, 42);
const double HEALTHY = 25; // what a healthy session may take, settle times and uploads included

// The steps of the main recipe, in order; a case names the one its fault strikes.
enum step { CONFIGURE, BACKUP, PROGRAM, FLASH, WIPE, PATCH, SCRUB, RESTORE, SETBOOTABLE, ALL_DONE };

struct hostile_case {
    std::string name;
    std::function<void(ravik_sim::options &)> fault;
    int code;                     // low byte of the session's result
    step failing;                 // steps before it whole, it perhaps in part, later ones absent
    double seconds;               // time-outs the fault may cost beyond a healthy session
    bool ufs = false;             // the provisioning recipe: PROGRAM, FLASH, RESTORE
    bool may_lose_backup = false; // storage unknown at backup time: nothing to save
    double at_least = 0;          // what the session must wait out
};

std::function<void(ravik_sim::options &)> on_tag(const char *name, fk what, int skip = 0, int count = 1)
{
    return [=](ravik_sim::options &o) { o.fault.tags.push_back({name, what, count, skip}); };
}
std::function<void(ravik_sim::options &)> vanish(phase at, int skip = 0, int ms = 500)
{
    return [=](ravik_sim::options &o) { o.fault.vanish_at = at, o.fault.vanish_skip = skip, o.fault.vanish_ms = ms; };
}

// Backup files in the one working directory keep apart by each target's serial number.
void run_cases(const std::vector<hostile_case> &cases)
{
    brisk_platform brisk;
    temp_cwd cwd;
    struct run {
        std::unique_ptr<ravik_sim::target> t;
        std::vector<std::string> before;
        int32_t code = -1;
        double seconds = 0;
        std::string text;
    };
    std::vector<run> runs(cases.size());
    part_range persist, system, cache, userdata, bla;
    for (size_t i = 0; i < runs.size(); i++) {
        ravik_sim::options o = numbered_ufs_target(cwd.path(), i, "0 persist 16K bnr\n0 system 64K\n0 cache 16K\n"
                               "0 userdata *\n1 bootloader_a 16K\n1 spare_a *\n2 spare_b *\n", 0x5EED0000u + (uint32_t)i);
        cases[i].fault(o);
        o.reboot_ms /= SPEED;
        o.fault.vanish_ms = o.fault.vanish_ms < 0 ? -1 : o.fault.vanish_ms / SPEED;
        auto &t = runs[i].t = std::make_unique<ravik_sim::target>(o);
        t->start();
        std::string l0 = read_file(t->lun_path(0));
        persist = find_part(l0, BLK, "persist"), system = find_part(l0, BLK, "system");
        cache = find_part(l0, BLK, "cache"), userdata = find_part(l0, BLK, "userdata");
        bla = find_part(read_file(t->lun_path(1)), BLK, "bootloader_a");
        // Known contents everywhere a step writes, so that a write shows.
        int seed = 1;
        for (auto [lun, p] : {std::pair{0, persist}, {0, system}, {0, cache}, {0, userdata}, {1, bla}}) {
            std::fstream f(t->lun_path(lun), std::ios::in | std::ios::out | std::ios::binary);
            f.seekp((std::streamoff)p.offset).write(pattern(p.size, seed++).data(), (std::streamsize)p.size);
        }
        for (unsigned l = 0; l < 3; l++)
            runs[i].before.push_back(read_file(t->lun_path(l)));
    }
    const std::string old_persist = runs[0].before[0].substr(persist.offset, persist.size);
    auto at = [](part_range p) { return "\" start_sector=\"" + std::to_string(p.offset / BLK) + "\"/>\n"; };
    const std::string head = "<configure SkipStorageInit=\"0\"/>\n<backup commit=\"1\" why=\"marked ones\"/>\n"
                             "<program SECTOR_SIZE_IN_BYTES=\"4096\" label=\"bootloader_a\" filename=\"bl.img\" "
                             "physical_partition_number=\"1" + at(bla);
    const std::string flash = "<flash partition=\"system\" filename=\"system.img\"/>\n";
    const std::string restore = "<restore why=\"after the flash\"/>\n";
    auto programmer = ravik_sim::demo_programmer();
    std::map<std::string, std::string> entries = {
        {"programmer.elf", std::string(programmer.begin(), programmer.end())}, {"index.xml", SIM_INDEX},
        {"package.xml", "<package><programmer filename=\"programmer.elf\"/><recipe filename=\"run.xml\"/></package>"},
        {"bl.img", BL_IMG}, {"system.img", SYSTEM_IMG}, {"scrub.img", std::string(persist.size, '\x5A')}};
    entries["run.xml"] = head + flash + "<wipe partition=\"cache\"/>\n<patch SECTOR_SIZE_IN_BYTES=\"4096\" "
                         "filename=\"DISK\" physical_partition_number=\"0\" byte_offset=\"8\" size_in_bytes=\"4\" "
                         "value=\"0x11223344\" what=\"marker" + at(userdata) + "<program SECTOR_SIZE_IN_BYTES=\"4096\" "
                         "label=\"scrub\" filename=\"scrub.img\" physical_partition_number=\"0" + at(persist) +
                         restore + "<setbootablestoragedrive value=\"1\"/>\n";
    container_bytes("main.img", entries);
    entries["run.xml"] = head + "<ufs bNumberLU=\"3\" bConfigDescrLock=\"0\"/>\n<ufs LUNum=\"0\" bLUEnable=\"1\"/>\n"
                                "<ufs commit=\"1\"/>\n" + flash + restore;
    container_bytes("ufs.img", entries);

    std::vector<std::thread> threads;
    for (size_t i = 0; i < runs.size(); i++)
        threads.emplace_back([&, i] {
            event_log log;
            double t0 = platform().wall_clock();
            runs[i].code = rk_flash_singleimage(runs[i].t->link().c_str(), cases[i].ufs ? "ufs.img" : "main.img",
                                                DEVICE_FLAG_BNR, record_events, &log);
            runs[i].seconds = platform().wall_clock() - t0;
            for (auto &l : log.lines)
                runs[i].text += l;
        });
    for (auto &t : threads)
        t.join();

    auto padded = [](const std::string &s, uint64_t size) { return s + std::string(size - s.size(), '\0'); };
    const std::vector<std::tuple<step, unsigned, uint64_t, std::string>> all_writes = {
        {PROGRAM, 1, bla.offset, padded(BL_IMG, 12288)}, {FLASH, 0, system.offset, padded(SYSTEM_IMG, system.size)},
        {WIPE, 0, cache.offset, std::string(cache.size, '\0')}, {PATCH, 0, userdata.offset + 8, "\x44\x33\x22\x11"},
        {SCRUB, 0, persist.offset, std::string(persist.size, '\x5A')}, {RESTORE, 0, persist.offset, old_persist}};
    for (size_t i = 0; i < runs.size(); i++) {
        const hostile_case &c = cases[i];
        run &r = runs[i];
        SCOPED_TRACE(c.name);
        EXPECT_EQ(r.code & 0xFF, c.code) << r.text.substr(r.text.size() > 3000 ? r.text.size() - 3000 : 0);
        EXPECT_LT(r.seconds, HEALTHY + c.seconds);
        EXPECT_GE(r.seconds, c.at_least);
        // Every byte of a step before the failing one new, of the failing one
        // old, zero or new, of a later one old.
        std::vector<std::string> want = r.before, newer = r.before;
        auto writes = c.ufs ? decltype(all_writes){all_writes[0], all_writes[1], all_writes[5]} : all_writes;
        for (auto &[s, lun, offset, after] : writes) {
            if (s <= c.failing)
                newer[lun].replace(offset, after.size(), after);
            if (s < c.failing)
                want[lun].replace(offset, after.size(), after);
        }
        for (unsigned l = 0; l < 3; l++) {
            std::string got = read_file(r.t->lun_path(l));
            ASSERT_EQ(got.size(), want[l].size());
            size_t b = got == want[l] || got == newer[l] ? got.size() : 0;
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
            simg *h = simg_open(file.c_str(), 0);
            if (simg_entry *e = h ? simg_load(h, "persist.img") : nullptr) {
                saved = std::string(reinterpret_cast<char *>(e->data), e->size) == old_persist;
                EXPECT_TRUE(saved) << file << " holds another persist";
            }
            simg_close(h);
        }
        bool on_target = read_file(r.t->lun_path(0)).substr(persist.offset, persist.size) == old_persist;
        EXPECT_TRUE(c.may_lose_backup || saved || on_target) << "persist lost";
        std::printf("fault case: | %s | %d | %d | %.1f | %.0f | %s |\n", c.name.c_str(), c.code, r.code & 0xFF,
                    r.seconds, HEALTHY + c.seconds, on_target ? "on-target" : saved ? "in-backup" : "lost");
    }
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
        {"nak/nop", on_tag("nop", fk::nak), 0, ALL_DONE, 2},
        // Taken for eMMC, which this target refuses to configure.
        {"nak/getvar, all four", on_tag("getvar", fk::nak, 0, 4), ERR_BAD_RESPONSE, CONFIGURE, 0},
        {"nak/configure", on_tag("configure", fk::nak), ERR_BAD_RESPONSE, CONFIGURE, 0},
        {"nak/getStorageInfo", on_tag("getStorageInfo", fk::nak), 0, RESTORE, 0, false, true},
        {"nak/patch", on_tag("patch", fk::nak), ERR_NAK, PATCH, 0},
        {"nak/setbootablestoragedrive", on_tag("setbootablestoragedrive", fk::nak), ERR_NAK, SETBOOTABLE, 0},
        {"nak/power", on_tag("power", fk::nak), 0, ALL_DONE, 0},
    });
}

// A refused raw-mode switch looks like silence to the host.
TEST(HostileTarget, SilenceAndRefusedRawTransfers)
{
    const double WAITED = SILENT - 1;
    run_cases({
        {"nak/dump of the first partition table", on_tag("dump", fk::nak), ERR_NOT_FOUND, FLASH, SILENT},
        {"nak/dump of the marked partition", on_tag("dump", fk::nak, 6), ERR_NO_RESPONSE, PROGRAM, SILENT},
        {"nak/program by sector", on_tag("program", fk::nak), ERR_NO_RESPONSE, PROGRAM, SILENT},
        {"nak/program of a flash by name", on_tag("program", fk::nak, 1), ERR_NO_RESPONSE, FLASH, SILENT},
        {"silence/nop", on_tag("nop", fk::silence), 0, ALL_DONE, SILENT + 1, false, false, WAITED},
        {"silence/getvar secure", on_tag("getvar", fk::silence, 3), 0, ALL_DONE, SILENT, false, false, WAITED},
        {"silence/configure", on_tag("configure", fk::silence), ERR_NO_RESPONSE, CONFIGURE, SILENT},
        {"silence/getStorageInfo", on_tag("getStorageInfo", fk::silence), 0, RESTORE, SILENT, false, true},
        {"silence/patch", on_tag("patch", fk::silence), ERR_NO_RESPONSE, PATCH, SILENT, false, false, WAITED},
        {"silence/setbootablestoragedrive", on_tag("setbootablestoragedrive", fk::silence), ERR_NO_RESPONSE,
         SETBOOTABLE, SILENT},
        {"silence/power", on_tag("power", fk::silence), 0, ALL_DONE, SILENT},
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
    auto mid_dump = [](ravik_sim::options &o) { o.max_payload = 4096, vanish(phase::raw_out, 3)(o); };
    run_cases({
        {"vanish/configure", on_tag("configure", fk::vanish), ERR_NO_RESPONSE, CONFIGURE, 9},
        {"vanish/getStorageInfo", on_tag("getStorageInfo", fk::vanish), ERR_IO, PROGRAM, 3},
        {"vanish/dump of the marked partition", on_tag("dump", fk::vanish, 6), ERR_NO_RESPONSE, PROGRAM, 3},
        {"vanish/program by sector", on_tag("program", fk::vanish), ERR_NO_RESPONSE, PROGRAM, 3},
        {"vanish/patch", on_tag("patch", fk::vanish), ERR_NO_RESPONSE, PATCH, 3},
        {"vanish/setbootablestoragedrive", on_tag("setbootablestoragedrive", fk::vanish), ERR_NO_RESPONSE,
         SETBOOTABLE, 3},
        {"vanish/power", on_tag("power", fk::vanish), 0, ALL_DONE, 3},
        {"vanish/mid program by sector", vanish(phase::raw_in), ERR_NO_RESPONSE, PROGRAM, 3},
        {"vanish/mid program of a flash by name", vanish(phase::raw_in, 2), ERR_NO_RESPONSE, FLASH, 3},
        {"vanish/mid program of the restore", vanish(phase::raw_in, 6), ERR_IO, RESTORE, 3},
        {"vanish/mid dump of the marked partition", mid_dump, ERR_IO, PROGRAM, 3},
    });
}

// A failed commit is retried once on a fresh programmer after a power
// cycle, which gives the target a minute from its start.
TEST(HostileTarget, ProvisioningARebootLongerThanAMinuteAndTimeOuts)
{
    run_cases({
        {"nak/ufs", on_tag("ufs", fk::nak), ERR_NAK, FLASH, 0, true},
        {"nak/ufs commit", on_tag("ufs", fk::nak, 2), 0, RESTORE, SILENT + 8, true},
        {"silence/ufs commit", on_tag("ufs", fk::silence, 2), 0, RESTORE, SILENT + 8, true, false, SILENT - 1},
        {"vanish/ufs commit", on_tag("ufs", fk::vanish, 2), ERR_NO_RESPONSE, FLASH, 12, true},
        // Away for longer than the whole wait, however slowly the host runs.
        {"reboot/an hour long", [](auto &o) { o.reboot_ms = 3600000; }, ERR_OPEN_DEVICE, FLASH, 60 + SILENT, true,
         false, 60},
    });
}

#endif
