// A whole session, backup and restore included, with every allocation made
// to fail in turn: each run ends with a clean code, never a crash or a leak,
// and a backup file is either gone or a container that opens.
#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <string>

#include "backup/backup_files.h"
#include "container/container.h"
#include "core/core.h"
#include "ravik.h"
#include "sahara/target_script.h"
#include "storage/script.h"
#include "support/fake_platform.h"
#include "support/helpers.h"

using namespace ravik;
using namespace ravik::test;

namespace {

const std::string PROGRAMMER(100, 'p');
constexpr uint64_t NEEDS_BNR = 1ull << 5;

void make_demo(const char *path)
{
    std::remove(path);
    std::map<std::string, std::string> entries = {
        {"index.xml", "<board id=\"0x0BEE\" name=\"b\" storage.type=\"eMMC\"/><package filename=\"package.xml\"/>"},
        {"package.xml", "<programmer filename=\"p.elf\"/><recipe filename=\"r.xml\"/>"},
        {"p.elf", PROGRAMMER},
        {"boot.img", std::string(1000, 'b')},
        {"r.xml", "<configure SkipStorageInit=\"0\"/><backup commit=\"1\"/>"
                  "<program SECTOR_SIZE_IN_BYTES=\"512\" label=\"boot\" filename=\"boot.img\" "
                  "physical_partition_number=\"0\" start_sector=\"8\"/><restore why=\"flashed\"/>"}};
    simg *w = simg_open(path, SIMG_CREATE);
    for (auto &[name, data] : entries)
        simg_store(w, data.data(), data.size(), name.c_str());
    simg_close(w);
}

// Everything a good target says in one session, in order.
void script_target(fake_platform &fake)
{
    std::string sn;
    le32(sn, 0x1234);
    le32(sn, 0x0BEE);
    fake.push_bytes(hello(0));
    fake.push_bytes(command_ready());
    fake.push_bytes(exec_resp(1, 8));
    fake.push_bytes(sn);
    fake.push_bytes(hello(0));
    fake.push_bytes(read_data(0, (uint32_t)PROGRAMMER.size()));
    fake.push_bytes(end_image(0));
    fake.push_bytes(done_resp(1));
    fake.push_bytes(ack());                            // nop
    fake.push_bytes(ack("cpu.ver=\"1\""));             // getvar cpu.ver
    fake.push_bytes(ack("cpu.vername=\"v1\""));        // getvar cpu.vername
    fake.push_bytes(ack("secure=\"0\""));              // getvar secure
    push_discovery(fake, 512,                          // configure, storage facts, tables
                   {{8ull << 20, make_gpt({{"persist", 64, 71, NEEDS_BNR}}, 512, 8ull << 20)}});
    fake.push_bytes(raw_ack());                        // the backup's dump
    fake.push_bytes(std::string(4096, 's'));
    fake.push_bytes(ack());
    fake.push_bytes(raw_ack());                        // program
    fake.push_bytes(ack());                            // its final answer
    for (int i = 0; i < 2; i++) {                      // the restore's erase and write
        fake.push_bytes(raw_ack());
        fake.push_bytes(ack());
    }
    fake.push_bytes(ack());                            // power
}

struct run {
    int32_t code = -1;
    int backups = 0;      // backup files left behind
    bool all_open = true; // every one opens with all its entries
    bool erased = false;            // the restore began
    bool erased_unrestored = false; // and persist's saved bytes were never written back
};

run run_session(uint64_t fail_at)
{
    run r;
    fake_platform fake;
    script_target(fake);
    on_fresh_thread([&] {
        mem_fail_nth(fail_at);
        r.code = rk_flash_singleimage("dev", "demo.img", DEVICE_FLAG_BNR, nullptr, nullptr);
        mem_fail_nth(0);
    });
    // The restore erases persist (sector 64) with zeros, then writes it back.
    size_t erase = std::string::npos;
    for (auto &c : commands(fake.written))
        if (erase == std::string::npos && c.rfind("program ", 0) == 0 && c.find("start_sector=\"64\"") != c.npos)
            erase = fake.written.find(c);
    r.erased = erase != std::string::npos;
    r.erased_unrestored = r.erased && fake.written.find(std::string(4096, 's'), erase) == std::string::npos;
    // On a thread of its own, so the reader's per-thread blocks go with it.
    on_fresh_thread([&] {
        for (auto &f : backup_files()) {
            r.backups++;
            simg *h = simg_open(f.c_str(), 0);
            for (int32_t i = 0; h && i < h->num_entries; i++)
                r.all_open = r.all_open && simg_load(h, h->entries[i].name) != nullptr;
            r.all_open = r.all_open && h != nullptr && h->num_entries > 0;
            simg_close(h);
            std::remove(f.c_str());
        }
    });
    return r;
}

} // namespace

TEST(SessionAllocationFailure, EveryAllocationFailingInTurnEndsCleanly)
{
    simg_io().fdatasync = [](int) { return 0; }; // thrown away with the directory
    temp_cwd cwd;
    make_demo("demo.img");
    uint64_t before = mem_alloc_count();
    run clean = run_session(0);
    ASSERT_EQ(clean.code, 0);
    ASSERT_EQ(clean.backups, 0); // a clean restore leaves no file
    uint64_t allocations = mem_alloc_count() - before;
    ASSERT_GT(allocations, 50u);
    int64_t outstanding = mem_outstanding();
    int no_memory = 0, kept = 0, restores = 0;
    for (uint64_t n = 1; n <= allocations + 2; n++) {
        run r = run_session(n);
        int low = r.code & 0xFF;
        // Either the failure surfaced as a code of the system, or the road
        // that failed had a fallback and the session still succeeded.
        EXPECT_TRUE(r.code == 0 || (low >= ERR_GENERAL && low <= ERR_NOT_STARTED) || low >= ERR_SAHARA_BASE)
            << "allocation " << n << " gave " << r.code;
        EXPECT_LE(r.backups, 1) << "allocation " << n;
        EXPECT_TRUE(r.all_open) << "allocation " << n;
        // An erase without the write back is allowed only while the backup file stays.
        EXPECT_TRUE(!r.erased_unrestored || r.backups == 1) << "allocation " << n;
        no_memory += low == ERR_NO_MEMORY;
        kept += r.backups;
        restores += r.erased;
        EXPECT_EQ(mem_outstanding(), outstanding) << "leak after failing allocation " << n << " code " << r.code;
    }
    simg_io_reset();
    EXPECT_GT(no_memory, 0);
    EXPECT_GT(kept, 0);
    EXPECT_GT(restores, 0);
    // Collected by the robustness report.
    std::printf("allocation-failure runs: whole session %llu, no memory %d, restores begun %d, backup kept %d\n",
                (unsigned long long)allocations + 2, no_memory, restores, kept);
}
