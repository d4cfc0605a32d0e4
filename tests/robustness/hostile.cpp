// Hostile and flaky targets: whole sessions against simulated targets that
// vanish, refuse, fall silent, cut their answers into bytes, babble between
// documents or take too long to reboot. Each case must end with its code,
// within its time-outs, with nothing written beyond the commands that ran and
// no backup lost.
//
// The cases of one test run side by side, each on its own target and thread:
// most of their time is spent waiting for time-outs. Every case prints one
// line "fault case: ..." for tests/robustness/run.sh to collect.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <thread>

#include "ravik.h"
#include "session/scripted_session.h"
#include "support/helpers.h"

using namespace ravik;
using namespace ravik::test;

namespace {
// One exchange that gets nothing: ten empty reads of a second, 100 ms apart.
const double SILENT = 11.5;
} // namespace

#ifdef RAVIK_HAVE_SIM

#include "backup/backup_files.h"
#include "robustness/sim_targets.h"
#include "storage/sim_session.h"

using fk = ravik_sim::tag_fault::kind;
using ravik_sim::phase;

namespace {

const char *const LAYOUT = "0 persist 16K bnr\n0 system 64K\n0 cache 16K\n0 userdata *\n"
                           "1 bootloader_a 16K\n1 spare_a *\n2 spare_b *\n";
const uint32_t BLK = 4096;

// The steps of the main recipe that matter to storage, in order; a case
// names the step at which its fault strikes.
enum step {
    CONFIGURE,
    BACKUP,      // discovery, then the marked partition is saved
    PROGRAM,     // by sector
    FLASH,       // by name: erase, then write
    WIPE,
    PATCH,
    SCRUB,       // persist overwritten by sector under another label
    RESTORE,     // persist written back
    SETBOOTABLE,
    ALL_DONE,
};
const char *const STEP_NAMES[] = {"configure", "backup", "program", "flash", "wipe",
                                  "patch", "scrub", "restore", "setbootable", "end"};

// Where each step writes: a byte range of one LUN and what it holds after.
struct region {
    unsigned lun = 0;
    uint64_t at = 0;
    std::string after;
};

struct layout_facts {
    part_range persist, system, cache, userdata, bla;
};

layout_facts read_layout(const ravik_sim::target &t)
{
    std::string l0 = read_file(t.lun_path(0)), l1 = read_file(t.lun_path(1));
    return {find_part(l0, BLK, "persist"), find_part(l0, BLK, "system"), find_part(l0, BLK, "cache"),
            find_part(l0, BLK, "userdata"), find_part(l1, BLK, "bootloader_a")};
}

const std::string BL_IMG = pattern(12000, 41), SYSTEM_IMG = pattern(20000, 42);

std::string main_recipe(const layout_facts &f)
{
    auto sector = [](uint64_t bytes) { return std::to_string(bytes / BLK); };
    return "<configure SkipStorageInit=\"0\"/>\n"
           "<backup commit=\"1\" why=\"marked ones\"/>\n"
           "<program SECTOR_SIZE_IN_BYTES=\"4096\" label=\"bootloader_a\" filename=\"bl.img\" "
           "physical_partition_number=\"1\" start_sector=\"" + sector(f.bla.offset) + "\"/>\n"
           "<flash partition=\"system\" filename=\"system.img\"/>\n"
           "<wipe partition=\"cache\"/>\n"
           "<patch SECTOR_SIZE_IN_BYTES=\"4096\" filename=\"DISK\" physical_partition_number=\"0\" "
           "start_sector=\"" + sector(f.userdata.offset) +
           "\" byte_offset=\"8\" size_in_bytes=\"4\" value=\"0x11223344\" what=\"marker\"/>\n"
           "<program SECTOR_SIZE_IN_BYTES=\"4096\" label=\"scrub\" filename=\"scrub.img\" "
           "physical_partition_number=\"0\" start_sector=\"" + sector(f.persist.offset) + "\"/>\n"
           "<restore why=\"after the flash\"/>\n"
           "<setbootablestoragedrive value=\"1\"/>\n";
}

// The same up to the scrub, with a provisioning commit in the middle.
std::string ufs_recipe(const layout_facts &f)
{
    return "<configure SkipStorageInit=\"0\"/>\n<backup commit=\"1\" why=\"marked ones\"/>\n"
           "<program SECTOR_SIZE_IN_BYTES=\"4096\" label=\"bootloader_a\" filename=\"bl.img\" "
           "physical_partition_number=\"1\" start_sector=\"" + std::to_string(f.bla.offset / BLK) + "\"/>\n"
           "<ufs bNumberLU=\"3\" bConfigDescrLock=\"0\"/>\n<ufs LUNum=\"0\" bLUEnable=\"1\"/>\n"
           "<ufs commit=\"1\"/>\n<flash partition=\"system\" filename=\"system.img\"/>\n"
           "<restore why=\"after the flash\"/>\n";
}

struct hostile_case {
    std::string name;     // fault/where
    std::function<void(ravik_sim::options &)> fault;
    int code;             // low byte of the session's result
    step failing;         // steps before it are whole, it may be partly done, later ones absent
    double seconds;       // time-outs the fault may cost, beyond a healthy session
    bool ufs = false;     // runs the provisioning recipe (its steps: PROGRAM, then FLASH)
    bool may_lose_backup = false; // storage unknown at backup time: nothing to save
};

ravik_sim::tag_fault tag(const char *name, fk what, int skip = 0, int count = 1)
{
    ravik_sim::tag_fault f;
    f.tag = name;
    f.what = what;
    f.skip = skip;
    f.count = count;
    return f;
}
std::function<void(ravik_sim::options &)> on_tag(const char *name, fk what, int skip = 0, int count = 1)
{
    return [=](ravik_sim::options &o) { o.fault.tags.push_back(tag(name, what, skip, count)); };
}
std::function<void(ravik_sim::options &)> vanish(phase at, int skip = 0, int ms = 500)
{
    return [=](ravik_sim::options &o) {
        o.fault.vanish_at = at;
        o.fault.vanish_skip = skip;
        o.fault.vanish_ms = ms;
    };
}

// What a healthy session may take, settle times and uploads included.
const double HEALTHY = 25;
// A power cycle that gives up.
const double GIVE_UP = 60 + SILENT;

struct outcome {
    int32_t code = -1;
    double seconds = 0;
    std::string text;
};

// Runs the cases at once, each against its own target, in one working
// directory; backup files keep apart by the serial number of each target.
void run_cases(const std::vector<hostile_case> &cases)
{
    temp_cwd cwd;
    const size_t n = cases.size();
    std::vector<std::unique_ptr<ravik_sim::target>> targets(n);
    std::vector<std::vector<std::string>> before(n);
    std::vector<uint32_t> serial(n);
    layout_facts f{};
    for (size_t i = 0; i < n; i++) {
        serial[i] = 0x5EED0000u + (uint32_t)i;
        ravik_sim::options o = numbered_ufs_target(cwd.path(), i, LAYOUT, serial[i]);
        cases[i].fault(o);
        targets[i] = std::make_unique<ravik_sim::target>(o);
        targets[i]->start();
        f = read_layout(*targets[i]);
        // Known contents everywhere a step writes, so that a write shows.
        std::fstream lun0(targets[i]->lun_path(0), std::ios::in | std::ios::out | std::ios::binary);
        for (auto [p, seed] : {std::pair{f.persist, 1}, {f.system, 2}, {f.cache, 3}, {f.userdata, 4}}) {
            lun0.seekp((std::streamoff)p.offset);
            lun0.write(pattern(p.size, seed).data(), (std::streamsize)p.size);
        }
        lun0.close();
        std::fstream lun1(targets[i]->lun_path(1), std::ios::in | std::ios::out | std::ios::binary);
        lun1.seekp((std::streamoff)f.bla.offset);
        lun1.write(pattern(f.bla.size, 5).data(), (std::streamsize)f.bla.size);
        lun1.close();
        for (unsigned l = 0; l < 3; l++)
            before[i].push_back(read_file(targets[i]->lun_path(l)));
    }
    const std::string old_persist = before[0][0].substr(f.persist.offset, f.persist.size);
    auto programmer = ravik_sim::demo_programmer();
    std::map<std::string, std::string> entries = {
        {"programmer.elf", std::string(programmer.begin(), programmer.end())},
        {"index.xml", SIM_INDEX},
        {"package.xml", "<package>\n  <programmer filename=\"programmer.elf\"/>\n  <recipe filename=\"run.xml\"/>\n"
                        "</package>\n"},
        {"bl.img", BL_IMG},
        {"system.img", SYSTEM_IMG},
        {"scrub.img", std::string(f.persist.size, '\x5A')}};
    entries["run.xml"] = main_recipe(f);
    container_bytes("main.img", entries);
    entries["run.xml"] = ufs_recipe(f);
    container_bytes("ufs.img", entries);

    std::vector<outcome> out(n);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < n; i++)
        threads.emplace_back([&, i] {
            event_log log;
            auto t0 = std::chrono::steady_clock::now();
            out[i].code = rk_flash_singleimage(targets[i]->link().c_str(), cases[i].ufs ? "ufs.img" : "main.img",
                                               DEVICE_FLAG_BNR, record_events, &log);
            out[i].seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
            for (auto &l : log.lines)
                out[i].text += l;
        });
    for (auto &t : threads)
        t.join();

    for (size_t i = 0; i < n; i++) {
        const hostile_case &c = cases[i];
        SCOPED_TRACE(c.name);
        const double limit = HEALTHY + c.seconds;
        const std::string tail = out[i].text.substr(out[i].text.size() > 3000 ? out[i].text.size() - 3000 : 0);
        EXPECT_EQ(out[i].code & 0xFF, c.code) << tail;
        EXPECT_LT(out[i].seconds, limit);

        // The storage: every step before the failing one whole, the failing
        // one perhaps in part (each byte old, zero or new), nothing after it.
        std::vector<std::string> want = before[i];
        std::vector<std::pair<step, region>> writes = {
            {PROGRAM, {1, f.bla.offset, BL_IMG + std::string(12288 - BL_IMG.size(), '\0')}},
            {FLASH, {0, f.system.offset, SYSTEM_IMG + std::string(f.system.size - SYSTEM_IMG.size(), '\0')}},
            {WIPE, {0, f.cache.offset, std::string(f.cache.size, '\0')}},
            {PATCH, {0, f.userdata.offset + 8, "\x44\x33\x22\x11"}},
            {SCRUB, {0, f.persist.offset, std::string(f.persist.size, '\x5A')}},
            {RESTORE, {0, f.persist.offset, old_persist}}};
        if (c.ufs)
            writes = {writes[0], writes[1], {RESTORE, {0, f.persist.offset, old_persist}}};
        std::vector<std::string> newer = want;
        for (auto &[s, r] : writes) {
            if (s > c.failing)
                break;
            newer[r.lun].replace(r.at, r.after.size(), r.after);
            if (s < c.failing)
                want[r.lun].replace(r.at, r.after.size(), r.after);
        }
        for (unsigned l = 0; l < 3; l++) {
            std::string got = read_file(targets[i]->lun_path(l));
            ASSERT_EQ(got.size(), want[l].size());
            size_t bad = 0;
            for (size_t b = 0; b < got.size(); b++)
                if (got[b] != want[l][b] && got[b] != newer[l][b] && got[b] != '\0' && !bad++) {
                    ADD_FAILURE() << "LUN " << l << " differs first at byte " << b;
                }
            EXPECT_EQ(bad, 0u) << "LUN " << l;
        }

        // No backup lost: the old persist is on the target or in a backup
        // file, and every backup file left is a container that opens.
        char prefix[32];
        std::snprintf(prefix, sizeof prefix, "backup_0x%08X_", serial[i]);
        bool saved = false;
        size_t kept = 0;
        for (auto &file : backup_files(prefix)) {
            auto names = entry_names(file);
            EXPECT_FALSE(names.empty()) << file;
            kept += names.size();
            simg *h = simg_open(file.c_str(), 0);
            simg_entry *e = h ? simg_load(h, "persist.img") : nullptr;
            if (e) {
                saved = std::string(reinterpret_cast<char *>(e->data), e->size) == old_persist;
                EXPECT_TRUE(saved) << file << " holds another persist";
            }
            simg_close(h);
        }
        std::string persist_now = read_file(targets[i]->lun_path(0)).substr(f.persist.offset, f.persist.size);
        std::printf("fault case: %s | step=%s expected=%d code=%d seconds=%.1f limit=%.0f persist=%s backup=%zu\n",
                    c.name.c_str(), STEP_NAMES[c.failing], c.code, out[i].code & 0xFF, out[i].seconds, limit,
                    persist_now == old_persist ? "on-target" : saved ? "in-backup" : "lost", kept);
        EXPECT_TRUE(c.may_lose_backup || saved || persist_now == old_persist) << "persist lost";
    }
}

} // namespace

// Faults before and around the upload, and in the answers' form.
TEST(HostileTarget, GreetingUploadAndTheFormOfAnswers)
{
    auto stray = [](ravik_sim::options &o) { o.fault.stray = "\r\n<?xml junk\n"; };
    run_cases({
        {"none", [](ravik_sim::options &) {}, 0, ALL_DONE, 0},
        {"vanish/greeting, back in 0.5 s", vanish(phase::on_open), 0, ALL_DONE, 3},
        {"vanish/greeting, for good", vanish(phase::on_open, 0, -1), ERR_OPEN_DEVICE, CONFIGURE, 3},
        {"vanish/identification", vanish(phase::command_mode), ERR_IO, CONFIGURE, 2},
        {"vanish/upload", vanish(phase::image_transfer), ERR_IO, CONFIGURE, 2},
        {"stray/bytes between documents", stray, 0, ALL_DONE, 5},
        {"nak/nop", on_tag("nop", fk::nak), 0, ALL_DONE, 2},
        // Taken for eMMC, which this target refuses to configure.
        {"nak/getvar, all four", on_tag("getvar", fk::nak, 0, 4), ERR_BAD_RESPONSE, CONFIGURE, 0},
    });
}

TEST(HostileTarget, RefusedCommands)
{
    run_cases({
        {"nak/configure", on_tag("configure", fk::nak), ERR_BAD_RESPONSE, CONFIGURE, 0},
        {"nak/getStorageInfo", on_tag("getStorageInfo", fk::nak), 0, RESTORE, 0, false, true},
        {"nak/patch", on_tag("patch", fk::nak), ERR_NAK, PATCH, 0},
        {"nak/setbootablestoragedrive", on_tag("setbootablestoragedrive", fk::nak), ERR_NAK, SETBOOTABLE, 0},
        {"nak/power", on_tag("power", fk::nak), 0, ALL_DONE, 0},
    });
}

namespace {

// The cases that wait out a time-out of the link run beside the reboot that
// takes a minute. A refused raw-mode switch looks like silence to the host.
std::vector<hostile_case> refused_raw_transfers()
{
    return {
        {"nak/dump of the first partition table", on_tag("dump", fk::nak), ERR_NOT_FOUND, FLASH, SILENT},
        {"nak/dump of the marked partition", on_tag("dump", fk::nak, 6), ERR_NO_RESPONSE, PROGRAM, SILENT},
        {"nak/program by sector", on_tag("program", fk::nak), ERR_NO_RESPONSE, PROGRAM, SILENT},
        {"nak/program of a flash by name", on_tag("program", fk::nak, 1), ERR_NO_RESPONSE, FLASH, SILENT},
    };
}

std::vector<hostile_case> silent_commands()
{
    return {
        {"silence/nop", on_tag("nop", fk::silence), 0, ALL_DONE, SILENT + 1},
        {"silence/getvar secure", on_tag("getvar", fk::silence, 3), 0, ALL_DONE, SILENT},
        {"silence/configure", on_tag("configure", fk::silence), ERR_NO_RESPONSE, CONFIGURE, SILENT},
        {"silence/getStorageInfo", on_tag("getStorageInfo", fk::silence), 0, RESTORE, SILENT, false, true},
        {"silence/patch", on_tag("patch", fk::silence), ERR_NO_RESPONSE, PATCH, SILENT},
        {"silence/setbootablestoragedrive", on_tag("setbootablestoragedrive", fk::silence), ERR_NO_RESPONSE,
         SETBOOTABLE, SILENT},
        {"silence/power", on_tag("power", fk::silence), 0, ALL_DONE, SILENT},
        // The raw-mode answer is recognised by its response tag; the rest of
        // its document, still on its way, is taken for the first partition
        // table's data, whose last bytes then hide every later answer.
        {"split/every answer in single bytes", [](ravik_sim::options &o) { o.fault.split = 1; }, ERR_NO_RESPONSE,
         PROGRAM, SILENT},
    };
}

} // namespace

// The port goes while the programmer runs: no command is repeated, the
// session ends at the first one that gets nothing.
TEST(HostileTarget, PortVanishingAtEachCommand)
{
    run_cases({
        {"vanish/configure", on_tag("configure", fk::vanish), ERR_NO_RESPONSE, CONFIGURE, 9},
        {"vanish/getStorageInfo", on_tag("getStorageInfo", fk::vanish), ERR_IO, PROGRAM, 3},
        {"vanish/dump of the marked partition", on_tag("dump", fk::vanish, 6), ERR_NO_RESPONSE, PROGRAM, 3},
        {"vanish/program by sector", on_tag("program", fk::vanish), ERR_NO_RESPONSE, PROGRAM, 3},
        {"vanish/patch", on_tag("patch", fk::vanish), ERR_NO_RESPONSE, PATCH, 3},
        {"vanish/setbootablestoragedrive", on_tag("setbootablestoragedrive", fk::vanish), ERR_NO_RESPONSE,
         SETBOOTABLE, 3},
        {"vanish/power", on_tag("power", fk::vanish), 0, ALL_DONE, 3},
    });
}

TEST(HostileTarget, PortVanishingInRawTransfers)
{
    auto small_payload = [](ravik_sim::options &o) { o.max_payload = 4096; };
    auto mid_dump = [=](ravik_sim::options &o) {
        small_payload(o);
        vanish(phase::raw_out, 3)(o);
    };
    run_cases({
        {"vanish/mid program by sector", vanish(phase::raw_in), ERR_NO_RESPONSE, PROGRAM, 3},
        {"vanish/mid program of a flash by name", vanish(phase::raw_in, 2), ERR_NO_RESPONSE, FLASH, 3},
        {"vanish/mid program of the restore", vanish(phase::raw_in, 6), ERR_IO, RESTORE, 3},
        {"vanish/mid dump of the marked partition", mid_dump, ERR_IO, PROGRAM, 3},
    });
}

// A failed commit is retried once on a fresh programmer after a power
// cycle, which gives the target a minute from its start: the last case takes
// longer, and sets the pace of this test.
TEST(HostileTarget, ProvisioningARebootLongerThanAMinuteAndTimeOuts)
{
    auto slow_reboot = [](ravik_sim::options &o) { o.reboot_ms = 65000; };
    std::vector<hostile_case> cases = {
        {"nak/ufs", on_tag("ufs", fk::nak), ERR_NAK, FLASH, 0, true},
        {"nak/ufs commit", on_tag("ufs", fk::nak, 2), 0, RESTORE, SILENT + 8, true},
        {"silence/ufs commit", on_tag("ufs", fk::silence, 2), 0, RESTORE, SILENT + 8, true},
        {"vanish/ufs commit", on_tag("ufs", fk::vanish, 2), ERR_NO_RESPONSE, FLASH, 12, true},
        {"reboot/longer than 60 s", slow_reboot, ERR_OPEN_DEVICE, FLASH, GIVE_UP, true},
    };
    for (auto more : {refused_raw_transfers(), silent_commands()})
        cases.insert(cases.end(), more.begin(), more.end());
    run_cases(cases);
}

#endif

// The port goes for good as the programmer starts. Each question of the
// bring-up and then the first command wait out the whole minute of the
// wake-up, which the virtual clock makes cheap.
TEST(HostileTarget, PortGoneForGoodAtTheWakeUp)
{
    temp_cwd cwd;
    make_demo("demo.img");
    fake_platform fake;
    script_target(fake, false);
    struct gone {
        fake_platform *fake;
        int waits = 0;
    } g{&fake};
    auto on_event = [](int32_t event, void *payload, void *context) -> int32_t {
        auto *g = static_cast<gone *>(context);
        if (event == DEVICE_EVENT_LOG && std::strstr(static_cast<const char *>(payload), "Waiting for firehose")) {
            g->fake->open_fails = true;
            g->waits++;
        }
        return 0;
    };
    const double t0 = fake.clock;
    int32_t code = -1;
    on_fresh_thread([&] { code = rk_flash_singleimage("dev", "demo.img", 0, on_event, &g); });
    const double seconds = fake.clock - t0;
    std::printf("fault case: vanish/wake-up, for good (virtual clock) | step=configure expected=%d code=%d "
                "seconds=%.1f limit=%.0f persist=on-target backup=0\n",
                ERR_OPEN_DEVICE, code & 0xFF, seconds, 8 * (60 + SILENT) + 5);
    EXPECT_EQ(code & 0xFF, ERR_OPEN_DEVICE);
    // Three questions (the board names the storage), then each of the five
    // link operations of the configure: latency, NAK logging, the command,
    // and both put back.
    EXPECT_EQ(g.waits, 8);
    EXPECT_GE(seconds, 8 * 60.0);
    EXPECT_LT(seconds, 8 * (60 + SILENT) + 5);
    EXPECT_EQ(fake.written.find("<configure"), std::string::npos);
}
