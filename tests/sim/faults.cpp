// Fault injection and the less common answers of the simulator.
#ifdef RAVIK_HAVE_SIM

#include "sim/host.h"

#include <chrono>
#include <gtest/gtest.h>
#include <thread>
#include <unistd.h>

using namespace simtest;

namespace {

bool configure(host &h, const char *mem = "eMMC")
{
    return h.command(std::string("configure MemoryName=\"") + mem +
                     "\" MaxPayloadSizeToTargetInBytes=\"65536\"")
        .ack;
}

} // namespace

TEST(SimFaults, NakAndSilenceForTheFirstCommandsOfATag)
{
    ravik_sim::options o;
    o.fault.tags = {{"nop", ravik_sim::tag_fault::kind::nak, 2},
                    {"GETVAR", ravik_sim::tag_fault::kind::silence, 1}};
    sandbox box(o);
    host h(box.target->link());
    ASSERT_TRUE(bring_up(h));

    reply r = h.command("nop value=\"Hello\"");
    ASSERT_TRUE(r.complete);
    EXPECT_FALSE(r.ack);
    EXPECT_EQ(r.response["value"], "NAK");
    EXPECT_FALSE(h.command("nop value=\"Hello\"").ack);
    EXPECT_TRUE(h.command("nop value=\"Hello\"").ack);

    EXPECT_FALSE(h.command("getvar value=\"secure\"", 300).complete);
    EXPECT_TRUE(h.command("getvar value=\"secure\"").ack);
    EXPECT_EQ(box.target->wire().of_kind("fault").size(), 3u);
}

TEST(SimFaults, AnswersInSingleBytesWithStrayBytesBetweenDocuments)
{
    ravik_sim::options o;
    o.fault.split = 1;
    o.fault.split_pause_us = 50;
    o.fault.stray = "\r\n#";
    sandbox box(o);
    host h(box.target->link());
    ASSERT_TRUE(bring_up(h));
    int before = h.reads();
    reply r = h.command("getvar value=\"cpu.vername\"");
    ASSERT_TRUE(r.ack) << r.text;
    EXPECT_EQ(r.response["cpu.vername"], "rev-a");
    EXPECT_GT(h.reads() - before, 20); // it really came in pieces
    EXPECT_EQ(r.text.rfind("\r\n#<?xml", 0), 0u);

    // A raw-mode switch under the same faults still opens raw mode.
    ASSERT_TRUE(configure(h));
    reply final;
    ASSERT_TRUE(program(h,
                        "SECTOR_SIZE_IN_BYTES=\"512\" num_partition_sectors=\"1\" "
                        "physical_partition_number=\"0\" start_sector=\"9\"",
                        std::vector<uint8_t>(512, 1), final));
    EXPECT_TRUE(final.ack);
}

TEST(SimFaults, PortVanishesAtAChosenPhaseAndComesBack)
{
    {
        ravik_sim::options o;
        o.fault.vanish_at = ravik_sim::phase::programmer_start;
        o.fault.vanish_ms = 100;
        sandbox box(o);
        host h(box.target->link());
        ASSERT_TRUE(bring_up(h)); // DONE_RESP came, then the port went
        EXPECT_TRUE(h.hung_up(2000));
        ASSERT_TRUE(box.target->wire().wait_kind("vanish", 1, 2000));
        EXPECT_NE(::access(box.target->link().c_str(), F_OK), 0);
        ASSERT_TRUE(box.target->wire().wait_kind("power-on", 2, 2000));
        host again(box.target->link());
        // Back in the boot ROM, and it happens only once.
        ASSERT_TRUE(bring_up(again));
        EXPECT_TRUE(again.command("nop value=\"Hello\"").ack);
    }
    {
        ravik_sim::options o;
        o.fault.vanish_at = ravik_sim::phase::raw_in;
        o.fault.vanish_ms = -1;
        sandbox box(o);
        host h(box.target->link());
        ASSERT_TRUE(bring_up(h));
        ASSERT_TRUE(configure(h));
        h.send_command("program SECTOR_SIZE_IN_BYTES=\"512\" num_partition_sectors=\"64\" "
                       "physical_partition_number=\"0\" start_sector=\"100\"");
        ASSERT_TRUE(h.read_reply().ack);
        h.write(std::vector<uint8_t>(64 * 512, 3));
        EXPECT_TRUE(h.hung_up(2000));
        EXPECT_TRUE(box.target->wire().wait_kind("vanish", 1, 2000));
        EXPECT_EQ(box.target->wire().of_kind("raw-in").size(), 0u);
    }
}

TEST(SimFaults, SlowBootAndSlowProgrammer)
{
    ravik_sim::options o;
    o.fault.boot_delay_ms = 300;
    o.fault.programmer_start_ms = 400;
    sandbox box(o);
    EXPECT_NE(::access(box.target->link().c_str(), F_OK), 0); // not there yet
    auto t0 = std::chrono::steady_clock::now();
    host h(box.target->link(), 3000);
    ASSERT_TRUE(h.is_open());
    EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(200));
    ASSERT_TRUE(bring_up(h));
    // The programmer is still starting: the first nop is lost.
    EXPECT_FALSE(h.command("nop value=\"Hello\"", 200).complete);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_TRUE(h.command("nop value=\"Hello\"").ack);
}

TEST(SimFaults, RefusalsAndTheEdgesOfTheCommandText)
{
    ravik_sim::options o;
    o.storage = ravik_sim::storage_kind::ufs;
    o.info_wording = 1;
    sandbox box(o);
    host h(box.target->link());
    ASSERT_TRUE(bring_up(h));

    EXPECT_FALSE(h.command("frobnicate value=\"1\"").ack);
    EXPECT_FALSE(h.command("getvar value=\"no.such\"").ack);
    EXPECT_FALSE(configure(h, "eMMC"));
    reply final;
    EXPECT_FALSE(program(h,
                         "SECTOR_SIZE_IN_BYTES=\"4096\" num_partition_sectors=\"1\" "
                         "physical_partition_number=\"0\" start_sector=\"9\"",
                         {}, final)); // not configured yet

    // A command padded to 512 bytes comes with its line end, and is one command.
    std::string tag = "nop value=\"";
    const size_t frame = std::string("<?xml version=\"1.0\"?><data><\"/></data>").size();
    tag += std::string(512 - frame - tag.size(), 'x') + "\"";
    reply r = h.command(tag);
    EXPECT_TRUE(r.ack);
    auto cmds = box.target->wire().commands();
    ASSERT_FALSE(cmds.empty());
    EXPECT_EQ(cmds.back().size(), 513u);
    EXPECT_EQ(cmds.back().back(), '\n');

    // Attributes with no blank between them are read all the same.
    ASSERT_TRUE(h.command("configure MemoryName=\"ufs\"MaxPayloadSizeToTargetInBytes=\"8192\"").ack);
    r = h.command("getStorageInfo physical_partition_number=\"1\"");
    ASSERT_TRUE(r.ack);
    EXPECT_TRUE(r.has_log("INFO: Device Block Size in Bytes: 0x1000"));
    EXPECT_TRUE(r.has_log("INFO: Device Total Physical Partitions: 0x3"));
    EXPECT_TRUE(r.has_log("INFO: Device Total Logical Blocks: 0x1000"));
    EXPECT_TRUE(std::any_of(r.logs.begin(), r.logs.end(), [](const std::string &l) {
        return l.rfind("UFS Inquiry Command Output: ", 0) == 0;
    }));

    // A dump request out of step ends raw mode with a refusal.
    h.send_command("dump SECTOR_SIZE_IN_BYTES=\"4096\" num_partition_sectors=\"1\" "
                   "physical_partition_number=\"0\" start_sector=\"0\"");
    ASSERT_TRUE(h.read_reply().ack);
    h.write(std::string("JUNKJUNK"));
    EXPECT_FALSE(h.read_reply().ack);
    EXPECT_TRUE(h.command("nop value=\"Hello\"").ack);
}

TEST(SimFaults, UfsCommitResultFollowsWhatTheDeviceHolds)
{
    ravik_sim::options o;
    o.storage = ravik_sim::storage_kind::ufs;
    sandbox box(o);
    auto provision = [&](host &h) {
        EXPECT_TRUE(h.command("ufs LUNum=\"0\" bLUEnable=\"1\" size_in_kb=\"1024\"").ack);
        EXPECT_TRUE(h.command("ufs LUNum=\"1\" bLUEnable=\"1\" size_in_kb=\"2048\"").ack);
        reply r = h.command("ufs bNumberLU=\"2\" commit=\"1\"");
        EXPECT_TRUE(r.ack);
        return r.response["commit_result"];
    };
    {
        host h(box.target->link());
        ASSERT_TRUE(bring_up(h));
        EXPECT_EQ(provision(h), "0");
        EXPECT_TRUE(h.command("power value=\"reset\"").ack);
    }
    ASSERT_TRUE(box.target->wire().wait_kind("power-on", 2, 3000));
    host h(box.target->link());
    ASSERT_TRUE(bring_up(h));
    EXPECT_EQ(provision(h), "2");
    EXPECT_EQ(h.command("ufs commit=\"0x1\"").response["commit_result"], "2");
}

#endif
