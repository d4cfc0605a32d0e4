// Four threads flash four simulated targets at once, round after round, each
// thread running two sessions before it ends. One target reports itself
// secure, so the once-only note of provisioning is contended too. Built a
// second time under ThreadSanitizer with more rounds.
#include <gtest/gtest.h>

#ifdef RAVIK_HAVE_SIM

#include <cstdio>
#include <cstring>
#include <thread>

#include "robustness/sim_targets.h"
#include "storage/sim_session.h"

#ifndef RAVIK_PARALLEL_ROUNDS
#define RAVIK_PARALLEL_ROUNDS 1
#endif

using namespace ravik;
using namespace ravik::test;

TEST(ParallelSessions, FourThreadsOnFourTargets)
{
    const int threads = 4, rounds = RAVIK_PARALLEL_ROUNDS, per_thread = 2;
    temp_cwd cwd;
    std::vector<std::unique_ptr<ravik_sim::target>> targets;
    for (int i = 0; i < threads; i++) {
        ravik_sim::options o = numbered_ufs_target(cwd.path(), (size_t)i,
                                                   "0 persist 16K bnr\n0 system 64K\n0 userdata *\n1 a *\n2 b *\n",
                                                   0xCAFE0000u + (uint32_t)i);
        o.id.secure = i == threads - 1;
        o.reboot_ms = 50;
        targets.push_back(std::make_unique<ravik_sim::target>(o));
        targets.back()->start();
    }
    const std::string system = pattern(30000, 7);
    auto programmer = ravik_sim::demo_programmer();
    container_bytes("flash.img",
                    {{"programmer.elf", std::string(programmer.begin(), programmer.end())},
                     {"index.xml", SIM_INDEX},
                     {"package.xml", "<package><programmer filename=\"programmer.elf\"/>"
                                     "<recipe filename=\"run.xml\"/></package>"},
                     {"system.img", system},
                     {"run.xml", "<configure SkipStorageInit=\"0\"/>\n<backup commit=\"1\"/>\n"
                                 "<flash partition=\"system\" filename=\"system.img\"/>\n"
                                 "<ufs bNumberLU=\"3\"/>\n<restore why=\"x\"/>\n"}});
    const part_range part = find_part(read_file(targets[0]->lun_path(0)), 4096, "system");

    for (int round = 0; round < rounds; round++) {
        std::vector<std::thread> pool;
        std::vector<int32_t> codes(threads * per_thread, -1);
        std::vector<std::string> texts(threads);
        for (int i = 0; i < threads; i++)
            pool.emplace_back([&, i] {
                for (int k = 0; k < per_thread; k++) {
                    // Back from the reboot that ended the session before.
                    size_t sessions = (size_t)(round * per_thread + k);
                    ASSERT_TRUE(targets[i]->wire().wait_kind("power-on", sessions + 1, 10000));
                    event_log log;
                    codes[i * per_thread + k] =
                        rk_flash_singleimage(targets[i]->link().c_str(), "flash.img",
                                             DEVICE_FLAG_BNR | (i == 0 ? DEVICE_FLAG_DEBUG : 0), record_events, &log);
                    for (auto &l : log.lines)
                        texts[i] += l;
                }
            });
        for (auto &t : pool)
            t.join();
        for (int i = 0; i < threads; i++) {
            for (int k = 0; k < per_thread; k++)
                EXPECT_EQ(codes[i * per_thread + k], 0) << "target " << i;
            // Each session logged its own target only, at its own level.
            char own[32];
            std::snprintf(own, sizeof own, "(0x%x)\n", 0xCAFE0000u + (unsigned)i);
            size_t mine = 0;
            for (size_t at = texts[i].find("...cpu.sn  = "); at != std::string::npos;
                 at = texts[i].find("...cpu.sn  = ", at + 1))
                mine += texts[i].compare(texts[i].find('(', at), strlen(own), own) == 0;
            EXPECT_EQ(mine, (size_t)per_thread) << "target " << i;
            EXPECT_EQ(texts[i].find("H->D: ") != std::string::npos, i == 0);
            EXPECT_TRUE(read_file(targets[i]->lun_path(0)).substr(part.offset, system.size()) == system);
        }
    }
    std::printf("parallel sessions: rounds=%d threads=%d sessions=%d\n", rounds, threads,
                rounds * threads * per_thread);
}

#endif
