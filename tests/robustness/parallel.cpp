// Four threads flash four simulated targets at once, round after round, each
// running two sessions before it ends; one target is secure, so the once-only
// note of provisioning is contended too. Built again under ThreadSanitizer
// with more rounds.
#include <gtest/gtest.h>

#ifdef RAVIK_HAVE_SIM

#include <regex>
#include <thread>

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
    sim_package("flash.img", {{"system.img", system}, {"run.xml", "<configure SkipStorageInit=\"0\"/>\n<backup commit="
                              "\"1\"/>\n<flash partition=\"system\" filename=\"system.img\"/>\n<ufs bNumberLU=\"3\"/>\n"
                              "<restore why=\"x\"/>\n"}});
    const part_range part = find_part(*targets[0], 0, "system");
    for (int round = 0; round < RAVIK_PARALLEL_ROUNDS; round++) {
        std::vector<std::thread> pool;
        for (int i = 0; i < threads; i++)
            pool.emplace_back([&, i] {
                std::string text;
                for (int k = 0; k < per_thread; k++) {
                    // Back from the reboot that ended the session before; should it not come, the code tells.
                    targets[i]->wire().wait_kind("power-on", round * per_thread + k + 1, 60000);
                    event_log log;
                    EXPECT_EQ(rk_flash_singleimage(targets[i]->link().c_str(), "flash.img", DEVICE_FLAG_BNR |
                                                   (i == 0 ? DEVICE_FLAG_DEBUG : 0), record_events, &log), 0) << i;
                    text = std::accumulate(log.lines.begin(), log.lines.end(), text);
                }
                // Each session logged its own target only, at its own level.
                const std::regex serial(R"(\.\.\.cpu\.sn  = (\d+) \(0x([0-9a-f]+)\)\n)");
                std::vector<std::string> seen;
                for (std::sregex_iterator m(text.begin(), text.end(), serial), end; m != end; ++m)
                    seen.push_back((*m)[1].str() + " " + (*m)[2].str());
                EXPECT_EQ(seen, std::vector<std::string>(per_thread, std::to_string(0xCAFE0000u + i) + " cafe000" +
                                                                         std::to_string(i)));
                EXPECT_EQ(text.find("H->D: ") != std::string::npos, i == 0) << i;
                EXPECT_TRUE(lun_read(*targets[i], 0, part.offset, system.size()) == system) << i;
            });
        for (auto &t : pool)
            t.join();
    }
    std::printf("parallel sessions: rounds=%d threads=%d sessions=%d\n", RAVIK_PARALLEL_ROUNDS, threads,
                RAVIK_PARALLEL_ROUNDS * threads * per_thread);
}

#endif
