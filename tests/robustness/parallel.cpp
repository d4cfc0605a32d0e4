// Four threads flash four simulated targets at once, round after round, each
// running two sessions before it ends; one target is secure, so the once-only
// note of provisioning is contended too. Built again under ThreadSanitizer
// with more rounds.
#include <gtest/gtest.h>

#ifdef RAVIK_HAVE_SIM

#include <thread>

#include "robustness/sim_targets.h"
#include "support/sim_session.h"

#ifndef RAVIK_PARALLEL_ROUNDS
#define RAVIK_PARALLEL_ROUNDS 1
#endif

using namespace ravik;
using namespace ravik::test;

TEST(ParallelSessions, FourThreadsOnFourTargets)
{
    const int threads = 4, per_thread = 2;
    temp_cwd cwd;
    std::vector<std::unique_ptr<ravik_sim::target>> targets;
    for (int i = 0; i < threads; i++) {
        ravik_sim::options o = numbered_ufs_target(cwd.path(), i, "0 persist 16K bnr\n0 system 64K\n0 userdata *\n"
                                                   "1 a *\n2 b *\n", 0xCAFE0000u + i);
        o.id.secure = i == threads - 1, o.reboot_ms = 50;
        targets.push_back(std::make_unique<ravik_sim::target>(o));
        targets.back()->start();
    }
    const std::string system = pattern(30000, 7);
    auto programmer = ravik_sim::demo_programmer();
    container_bytes("flash.img", {{"programmer.elf", std::string(programmer.begin(), programmer.end())},
                                  {"index.xml", SIM_INDEX}, {"system.img", system},
                                  {"package.xml", "<package><programmer filename=\"programmer.elf\"/>"
                                                  "<recipe filename=\"run.xml\"/></package>"},
                                  {"run.xml", "<configure SkipStorageInit=\"0\"/>\n<backup commit=\"1\"/>\n"
                                              "<flash partition=\"system\" filename=\"system.img\"/>\n"
                                              "<ufs bNumberLU=\"3\"/>\n<restore why=\"x\"/>\n"}});
    const part_range part = find_part(read_file(targets[0]->lun_path(0)), 4096, "system");
    for (int round = 0; round < RAVIK_PARALLEL_ROUNDS; round++) {
        std::vector<std::thread> pool;
        std::vector<std::string> texts(threads);
        for (int i = 0; i < threads; i++)
            pool.emplace_back([&, i] {
                for (int k = 0; k < per_thread; k++) {
                    // Back from the reboot that ended the session before; should it not come, the code tells.
                    targets[i]->wire().wait_kind("power-on", round * per_thread + k + 1, 60000);
                    event_log log;
                    EXPECT_EQ(rk_flash_singleimage(targets[i]->link().c_str(), "flash.img", DEVICE_FLAG_BNR |
                                                   (i == 0 ? DEVICE_FLAG_DEBUG : 0), record_events, &log), 0) << i;
                    for (auto &l : log.lines)
                        texts[i] += l;
                }
            });
        for (auto &t : pool)
            t.join();
        for (int i = 0; i < threads; i++) {
            // Each session logged its own target only, at its own level.
            char own[48];
            std::snprintf(own, sizeof own, "...cpu.sn  = %u (0x%x)\n", 0xCAFE0000u + i, 0xCAFE0000u + i);
            for (const std::string &line : {std::string("...cpu.sn  = "), std::string(own)}) {
                size_t n = 0;
                for (size_t at = texts[i].find(line); at != std::string::npos; at = texts[i].find(line, at + 1))
                    n++;
                EXPECT_EQ(n, (size_t)per_thread) << "target " << i << ": " << line;
            }
            EXPECT_EQ(texts[i].find("H->D: ") != std::string::npos, i == 0);
            EXPECT_TRUE(read_file(targets[i]->lun_path(0)).substr(part.offset, system.size()) == system);
        }
    }
    std::printf("parallel sessions: rounds=%d threads=%d sessions=%d\n", RAVIK_PARALLEL_ROUNDS, threads,
                RAVIK_PARALLEL_ROUNDS * threads * per_thread);
}

#endif
