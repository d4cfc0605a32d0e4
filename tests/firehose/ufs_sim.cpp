// UFS provisioning against the simulated target: the commit and the reboot
// behind it, the retry when the commit may hang, and secure targets.
#include <gtest/gtest.h>

#ifdef RAVIK_HAVE_SIM

#include "storage/sim_session.h"

using namespace ravik;
using namespace ravik::test;

namespace {

// The wire from the first command that contains `from`: commands by their
// text inside the envelope, uploads as "<upload>".
std::vector<std::string> wire_from(const ravik_sim::target &t, const std::string &from)
{
    std::vector<std::string> out;
    const std::string head = "<?xml version=\"1.0\"?><data><";
    bool on = false;
    for (auto &e : t.wire().events()) {
        if (e.kind == "command") {
            std::string c = e.text.substr(head.size());
            c = c.substr(0, c.rfind("/></data>"));
            on = on || c.find(from) != std::string::npos;
            if (on)
                out.push_back(c);
        } else if (on && e.kind == "image") {
            out.push_back("<upload>");
        }
    }
    return out;
}

} // namespace

TEST(UfsSim, CommitRebootsAndTheRecipeGoesOn)
{
    sim_session s;
    s.flash({{"run.xml", "<ufs bNumberLU=\"3\" bConfigDescrLock=\"0\"/>\n<ufs LUNum=\"0\" bLUEnable=\"1\"/>\n"
                         "<ufs commit=\"1\"/>\n<print what=\"after commit\"/>\n"
                         "<ufs bNumberLU=\"3\" bConfigDescrLock=\"0\"/>\n<ufs LUNum=\"0\" bLUEnable=\"1\"/>\n"
                         "<ufs commit=\"0x1\"/>\n"}},
            "", DEVICE_FLAG_UFS_LOCK);
    ASSERT_EQ(s.code, 0) << s.text;
    EXPECT_EQ(s.count("Provisioning UFS (will lock!)\n"), 2u);
    EXPECT_EQ(s.count("Rebooting for provisioning to take effect\n"), 1u);
    EXPECT_EQ(s.count("Downloading programmer\n"), 1u);
    EXPECT_EQ(s.count("after commit\n"), 1u);
    // The same settings again: the target says so, and nothing reboots.
    EXPECT_EQ(s.count("SKIPPED (already provisioned with identical settings)\n"), 1u);
    EXPECT_EQ(s.t->wire().of_kind("reset").size(), 1u);
    EXPECT_EQ(s.t->wire().of_kind("image").size(), 2u);
    auto wire = wire_from(*s.t, "ufs commit=\"1\"");
    ASSERT_GE(wire.size(), 6u);
    EXPECT_EQ(std::vector<std::string>(wire.begin() + 1, wire.begin() + 6),
              (std::vector<std::string>{"power value=\"reset\"", "<upload>", "nop value=\"Hello\"",
                                        "ufs bNumberLU=\"3\" bConfigDescrLock=\"1\"",
                                        "ufs LUNum=\"0\" bLUEnable=\"1\""}));
}

TEST(UfsSim, CommitThatMayHangIsRetriedOnAFreshProgrammer)
{
    sim_session s;
    s.o.fault.tags = {{"getStorageInfo", ravik_sim::tag_fault::kind::nak, 1}};
    s.flash({{"run.xml", "<wipe partition=\"persist\"/>\n<ufs bNumberLU=\"3\"/>\n<ufs LUNum=\"0\"/>\n"
                         "<ufs LUNum=\"1\"/>\n<ufs commit=\"1\"/>\n<print what=\"after commit\"/>\n"}},
            "ignore_errors=\"true\"");
    ASSERT_EQ(s.code, 0) << s.text;
    EXPECT_EQ(s.count("Forcing failure as provisioning may hang\n"), 0u); // a debug line
    EXPECT_EQ(s.count("Provisioning failed, power cycling to try again\n"), 1u);
    EXPECT_EQ(s.count("after commit\n"), 1u);
    // The running programmer never sees the commit.
    auto wire = wire_from(*s.t, "ufs LUNum=\"1\"");
    ASSERT_EQ(wire.size(), 13u) << ::testing::PrintToString(wire);
    EXPECT_EQ(wire[4].rfind("configure SkipStorageInit=\"1\" Verbose=\"0\"", 0), 0u) << wire[4];
    EXPECT_NE(wire[4].find("MemoryName=\"UFS\""), std::string::npos);
    wire[4] = "configure";
    EXPECT_EQ(wire, (std::vector<std::string>{"ufs LUNum=\"1\"", "power value=\"reset\"", "<upload>",
                                              "nop value=\"Hello\"", "configure", "ufs bNumberLU=\"3\"",
                                              "ufs LUNum=\"0\"", "ufs LUNum=\"1\"", "ufs commit=\"1\"",
                                              "power value=\"reset\"", "<upload>", "nop value=\"Hello\"",
                                              "power value=\"reset_to_fastboot\""}));
}

TEST(UfsSim, SecureTargetSkipsWithOneLinePerProcess)
{
    sim_session s;
    s.o.id.secure = true;
    const std::map<std::string, std::string> recipe = {
        {"run.xml", "<ufs bNumberLU=\"3\"/>\n<ufs commit=\"1\"/>\n<ufs commit=\"1\"/>\n"}};
    s.flash(recipe);
    ASSERT_EQ(s.code, 0) << s.text;
    EXPECT_EQ(s.count("Skipping UFS provsioning as target is secure\n"), 1u);
    // The target comes back after the session's reboot.
    ASSERT_TRUE(s.t->wire().wait_kind("power-on", 2, 5000));
    s.flash(recipe);
    ASSERT_EQ(s.code, 0) << s.text;
    EXPECT_EQ(s.count("Skipping UFS provsioning as target is secure\n"), 0u);
    for (auto &c : s.t->wire().commands())
        EXPECT_EQ(c.find("<ufs "), std::string::npos) << c;
}

#endif
