// Packages, recipes and their commands against a scripted programmer.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "backup/bnr.h"
#include "firehose/engine.h"
#include "firehose/link.h"
#include "firehose/scripted_target.h"
#include "support/helpers.h"

using namespace ravik;
using namespace ravik::test;

namespace {


// Runs a package whose recipes are given, from a container in a temp dir.
int32_t run_package(const std::string &package, const std::map<std::string, std::string> &files)
{
    std::map<std::string, std::string> entries = files;
    entries["package.xml"] = package;
    test_container c("c.img", entries);
    firehose_set_input(c.handle);
    xtags *doc = xtags_create();
    xtags_parse(doc, package.c_str());
    firehose_do_pkg(doc);
    int32_t code = get_error();
    xtags_free(doc);
    firehose_set_input(nullptr);
    return code;
}

// One command of a recipe; its code.
int32_t do_cmd(const std::string &cmd)
{
    firehose_do_fmt("%s", cmd.c_str());
    return get_error();
}

// A command with buffer="0x..." of `p` appended; its code.
int32_t to_buffer(const std::string &cmd, const void *p)
{
    firehose_do_fmt("%s buffer=\"0x%lX\"", cmd.c_str(), (unsigned long)(uintptr_t)p);
    return get_error();
}
} // namespace

TEST(RecipeEngine, FilteredPackagesAndRecipes)
{
    with_link([&](fake_platform &) {
        log_capture c;
        // Every recipe filtered out, and no recipe at all: the same end.
        int32_t code = run_package("<recipe filename=\"r.xml\" compatible=\"storage.type:UFS\"/>",
                                   {{"r.xml", "<print what=\"x\"/>"}});
        EXPECT_EQ(code & 0xFF, ERR_NOT_FOUND);
        EXPECT_TRUE(c.has("No compatible recipe found!\n"));
        EXPECT_EQ(run_package("<programmer filename=\"p\"/>", {}) & 0xFF, ERR_NOT_FOUND);

        // ignore_errors does not soften a recipe with nothing for this target.
        c.lines.clear();
        code = run_package("<recipe filename=\"r.xml\" ignore_errors=\"true\"/>",
                           {{"r.xml", "<print what=\"x\" compatible=\"storage.type:UFS\"/><restore/>"}});
        EXPECT_EQ(code & 0xFF, ERR_NOT_FOUND);
        EXPECT_TRUE(c.has("No compatible command found!\n"));
        EXPECT_FALSE(c.has("x\n"));

        // Recipe files are named exactly; a missing one ends the package.
        c.lines.clear();
        EXPECT_EQ(run_package("<recipe filename=\"R.xml\"/>", {{"r.xml", "<print what=\"x\"/>"}}) & 0xFF,
                  ERR_LOAD_ENTRY);
        EXPECT_TRUE(c.has("Error loading R.xml\n"));
        EXPECT_EQ(run_package("<recipe filename=\"\"/>", {}) & 0xFF, ERR_GENERAL);
    });
}

TEST(RecipeEngine, FailuresAndIgnoreErrors)
{
    with_link([&](fake_platform &fake) {
        log_capture c;
        // An unknown tag goes to the target as it stands; its NAK fails.
        fake.written.clear();
        fake.push_bytes(nak());
        int32_t code = run_package("<recipe filename=\"r.xml\"/>",
                                   {{"r.xml", "<frobnicate level=\"9\"  mode=\"x\"/><print what=\"after\"/>"}});
        EXPECT_EQ(code & 0xFF, ERR_NAK);
        EXPECT_EQ(commands(fake.written), (std::vector<std::string>{"frobnicate level=\"9\"  mode=\"x\""}));
        EXPECT_FALSE(c.has("after\n"));

        // With ignore_errors the walk goes on, two lines a failure.
        c.lines.clear();
        fake.push_bytes(nak());
        code = run_package("<recipe filename=\"r.xml\" ignore_errors=\"TRUE\"/>",
                           {{"r.xml", "<frobnicate level=\"9\"/><SLEEP ms=\"10\"/><print what=\"after\"/>"}});
        EXPECT_EQ(code, 0);
        EXPECT_TRUE(c.has("frobnicate level=\"9\": Error: fh_send()->send_command()->read_response()->NAK\n") ||
                    c.has("frobnicate level=\"9\": Error: NAK\n"));
        EXPECT_TRUE(c.has("Continuing\n"));
        EXPECT_TRUE(c.has("Sleeping for 10 ms - \n"));
        EXPECT_TRUE(c.has("after\n"));

        // "1" is not true.
        fake.push_bytes(nak());
        EXPECT_EQ(run_package("<recipe filename=\"r.xml\" ignore_errors=\"1\"/>",
                              {{"r.xml", "<frobnicate level=\"9\"/>"}}) & 0xFF,
                  ERR_NAK);

        // Silence is a failure of the command.
        EXPECT_EQ(run_package("<recipe filename=\"r.xml\"/>", {{"r.xml", "<frobnicate level=\"9\"/>"}}) & 0xFF,
                  ERR_NO_RESPONSE);
    });
}

TEST(RecipeEngine, OneLineCommands)
{
    with_link([&](fake_platform &fake) {
        log_capture c;
        EXPECT_EQ(do_cmd("print what=\"hello\""), 0);
        EXPECT_TRUE(c.has("hello\n"));
        EXPECT_EQ(do_cmd("restore") & 0xFF, ERR_NOT_FOUND);
        EXPECT_EQ(do_cmd("sleep ms=\"0\"") & 0xFF, ERR_MISSING_PARAM);
        uint64_t slept = fake.slept_ms;
        firehose_do_fmt("sleep ms=\"0x10\" why=\"w\"");
        EXPECT_EQ(fake.slept_ms - slept, 16u);
        EXPECT_TRUE(c.has("Sleeping for 16 ms - w\n"));

        firehose_do_fmt("logger level=\"debug\"");
        EXPECT_EQ(logger_get_level(), (uint32_t)LOG_INFO);
        firehose_do_fmt("logger level=\"Error\"");
        EXPECT_EQ(logger_get_level(), (uint32_t)LOG_ERROR);
        c.lines.clear();
        firehose_do_fmt("print what=\"hidden\"");
        EXPECT_FALSE(c.has("hidden\n"));
        firehose_do_fmt("logger level=\"I\"");

        fake.written.clear();
        fake.push_bytes(ack());
        EXPECT_EQ(do_cmd("power value=\"RESET\""), 0);
        EXPECT_TRUE(c.has("Rebooting\n"));
        fake.push_bytes(ack());
        EXPECT_EQ(do_cmd("power value=\"sleep\""), 0);
        EXPECT_TRUE(c.has("unknown reboot type: sleep\n"));
        EXPECT_EQ(commands(fake.written), (std::vector<std::string>{"power value=\"RESET\"", "power value=\"sleep\""}));
        EXPECT_EQ(do_cmd("power why=\"x\"") & 0xFF, ERR_MISSING_PARAM);

        // patch of anything but the disk is passed over.
        fake.written.clear();
        EXPECT_EQ(do_cmd("patch filename=\"gpt.bin\" what=\"x\""), 0);
        fake.push_bytes(ack());
        EXPECT_EQ(do_cmd("patch filename=\"disk\" what=\"crc\" start_sector=\"5\""), 0);
        EXPECT_TRUE(c.has("Patching disk -- crc\n"));
        EXPECT_EQ(commands(fake.written).size(), 1u);
    });
}

TEST(TargetBringUp, QuestionsAndFallbacks)
{
    fake_platform fake;
    in_session([&] {
        log_capture c;
        device_open();
        device_set("cpu.name", "board");
        device_set_flag(DEVICE_FLAG_BNR);
        fake.push_all({ack(), ack("boot_device=\"UFS-and-a-long-name\""), ack("cpu.ver=\"0x10\""),
                       ack("cpu.vername=\"v2\""), ack("secure=\"10\"")});
        ASSERT_NE(get_firehose(), nullptr);
        EXPECT_STREQ(device_get("storage.type", nullptr), "UFS-and-a-long-"); // 15 characters
        EXPECT_EQ(device_getu("cpu.ver", 0), 16u);
        EXPECT_STREQ(device_get("cpu.vername", nullptr), "v2");
        EXPECT_TRUE(c.has("...board v2\n"));
        EXPECT_TRUE(c.has("...secure = yes\n"));
        EXPECT_TRUE(device_has_flag(DEVICE_FLAG_SECURE));
        EXPECT_FALSE(device_has_flag(DEVICE_FLAG_BNR));
        EXPECT_EQ(commands(fake.written),
                  (std::vector<std::string>{"nop value=\"Hello\"", "getvar value=\"boot_device\"",
                                            "getvar value=\"cpu.ver\"", "getvar value=\"cpu.vername\"",
                                            "getvar value=\"secure\""}));
    });
    in_session([&] {
        log_capture c;
        fake.clear_script();
        device_open();
        device_set_flag(DEVICE_FLAG_BNR);
        fake.push_all({ack(), nak() /* boot_device */, ack("cpu.ver=\"abc\""), ack("cpu.vername=\"v3\""),
                       ack("secure=\"no\"")});
        ASSERT_NE(get_firehose(), nullptr);
        EXPECT_STREQ(device_get("storage.type", nullptr), "eMMC");
        EXPECT_STREQ(device_get("cpu.vername", nullptr), "unknown");
        EXPECT_TRUE(c.has("...target does support 'getvar boot_device'\n"));
        EXPECT_TRUE(c.has("Could not determine storage type. Assuming eMMC...\n"));
        EXPECT_FALSE(device_has_flag(DEVICE_FLAG_SECURE));
        EXPECT_TRUE(device_has_flag(DEVICE_FLAG_BNR));
    });
    // Forced backup keeps the flag on a secure target.
    rk_enable_forced_bnr();
    in_session([&] {
        fake.clear_script();
        device_set_flag(DEVICE_FLAG_BNR);
        bring_up(fake, "true");
        ASSERT_NE(get_firehose(), nullptr);
        EXPECT_TRUE(device_has_flag(DEVICE_FLAG_SECURE));
        EXPECT_TRUE(device_has_flag(DEVICE_FLAG_BNR));
    });
}

TEST(TargetBringUp, ConfigureNegotiatesThePayload)
{
    with_link([&](fake_platform &fake) {
        fake.written.clear();
        log_capture c;
        fake.push_all({nak("MaxPayloadSizeToTargetInBytes=\"65536\""),
                       ack("MaxPayloadSizeToTargetInBytesSupported=\"2097152\"")});
        EXPECT_EQ(do_cmd("configure SkipStorageInit=\"0\""), 0);
        EXPECT_EQ(commands(fake.written),
                  (std::vector<std::string>{
                      "configure SkipStorageInit=\"0\" Verbose=\"0\" ZlpAwareHost=\"1\" MemoryName=\"eMMC\" "
                      "MaxPayloadSizeToTargetInBytes=\"1048576\"",
                      "configure SkipStorageInit=\"0\" Verbose=\"0\" ZlpAwareHost=\"1\" MemoryName=\"eMMC\" "
                      "MaxPayloadSizeToTargetInBytes=\"65536\""}));
        EXPECT_EQ(device_getu("fh.max_packet_sz", 0), 65536u);
        EXPECT_EQ(device_getu("fh.storage_inited", 0), 1u);
        EXPECT_FALSE(c.has("Target NAK!\n"));
        EXPECT_TRUE(c.has("Performance could be improved as target supports a larger payload size (2097152 "
                          "bytes) then what the host could support (65536 bytes)\n"));

        // Storage is set up: a second configure goes nowhere and counts as done.
        fake.written.clear();
        EXPECT_EQ(do_cmd("configure SkipStorageInit=\"0\""), 0);
        EXPECT_TRUE(fake.written.empty());
        // A NAK without a proposal, and a second NAK.
        device_unset("fh.storage_inited");
        fake.push_bytes(nak());
        EXPECT_EQ(do_cmd("configure SkipStorageInit=\"1\"") & 0xFF, ERR_BAD_RESPONSE);
        fake.push_all({nak("MaxPayloadSizeToTargetInBytes=\"9999999\""), nak()});
        fake.written.clear();
        EXPECT_EQ(do_cmd("configure SkipStorageInit=\"1\"") & 0xFF, ERR_NAK);
        // The stored size wins; the cap holds on the second offer.
        ASSERT_EQ(commands(fake.written).size(), 2u);
        EXPECT_NE(commands(fake.written)[0].find("MaxPayloadSizeToTargetInBytes=\"65536\""), std::string::npos);
        EXPECT_NE(commands(fake.written)[1].find("MaxPayloadSizeToTargetInBytes=\"1048576\""), std::string::npos);
        EXPECT_EQ(device_getu("fh.max_packet_sz", 0), 65536u);
    });
}

TEST(ImageTransfer, ProgramSendsTheEntryPaddedToSectors)
{
    with_link([&](fake_platform &fake) {
        device_setu("fh.max_packet_sz", 512);
        std::string image(1000, 'i');
        fake.written.clear();
        fake.push_all({raw_ack(), ack()});
        int32_t code = run_package("<recipe filename=\"r.xml\"/>",
                                   {{"boot.img", image},
                                    {"r.xml", "<program SECTOR_SIZE_IN_BYTES=\"512\" label=\"boot\" filename=\"boot.img\" "
                                              "physical_partition_number=\"0\" start_sector=\"34\" num_partition_sectors=\"9\"/>"
                                              "<program SECTOR_SIZE_IN_BYTES=\"512\" label=\"x\" filename=\"none.img\"/>"
                                              "<program SECTOR_SIZE_IN_BYTES=\"512\" label=\"y\" filename=\"\"/>"}});
        EXPECT_EQ(code, 0);
        std::string head = "<?xml version=\"1.0\"?><data><program SECTOR_SIZE_IN_BYTES=\"512\" label=\"boot\" "
                           "filename=\"boot.img\" physical_partition_number=\"0\" start_sector=\"34\" "
                           "num_partition_sectors=\"2\"/></data>";
        ASSERT_EQ(fake.written.size(), head.size() + 1024);
        EXPECT_EQ(fake.written.substr(0, head.size()), head);
        EXPECT_EQ(fake.written.substr(head.size(), 1000), image);
        EXPECT_EQ(fake.written.substr(head.size() + 1000), std::string(24, '\0'));

        // Bad sector sizes are refused before anything goes out.
        fake.written.clear();
        for (const char *size : {"3000", "8192"}) {
            code = run_package("<recipe filename=\"r.xml\"/>",
                               {{"boot.img", image},
                                {"r.xml", std::string("<program SECTOR_SIZE_IN_BYTES=\"") + size +
                                              "\" label=\"boot\" filename=\"boot.img\"/>"}});
            EXPECT_EQ(code & 0xFF, ERR_BAD_PARAM);
        }
        EXPECT_EQ(run_package("<recipe filename=\"r.xml\"/>",
                              {{"boot.img", image},
                               {"r.xml", "<program SECTOR_SIZE_IN_BYTES=\"512\" label=\"\" filename=\"boot.img\"/>"}}) &
                      0xFF,
                  ERR_MISSING_PARAM);
        EXPECT_TRUE(fake.written.empty());
    });
}

TEST(ImageTransfer, ProgramFromMemoryAndDumpBack)
{
    with_link([&](fake_platform &fake) {
        device_setu("fh.max_packet_sz", 4096);
        std::string data(10240, '\0');
        for (size_t i = 0; i < data.size(); i++)
            data[i] = (char)(i * 13);
        fake.written.clear();
        fake.push_all({raw_ack(), ack()});
        EXPECT_EQ(to_buffer("program SECTOR_SIZE_IN_BYTES=\"512\" num_partition_sectors=\"20\" load_from=\"BUFFER\"",
                            data.data()),
                  0);
        // Raw chunks go out as they are, 4096 + 4096 + 2048.
        EXPECT_EQ(fake.written.substr(fake.written.size() - 10240), data);

        // dump: an 8-byte request per chunk, the full size every time.
        std::string back(10240, '\0');
        fake.written.clear();
        fake.push_all({raw_ack(), data.substr(0, 4096), data.substr(4096, 4096), data.substr(8192)});
        EXPECT_EQ(to_buffer("dump SECTOR_SIZE_IN_BYTES=\"512\" num_partition_sectors=\"20\" save_to=\"buffer\"",
                            back.data()),
                  0);
        EXPECT_EQ(back, data);
        std::string request("DATA\x00\x10\x00\x00", 8);
        EXPECT_EQ(fake.written.substr(fake.written.size() - 24), request + request + request);

        // A chunk size that is no multiple of the sector size is refused.
        device_setu("fh.max_packet_sz", 1000);
        const std::string dump1 = "dump SECTOR_SIZE_IN_BYTES=\"512\" num_partition_sectors=\"1\"";
        EXPECT_EQ(to_buffer(dump1, back.data()) & 0xFF, ERR_BAD_PARAM);
        // A stalled target fails the dump.
        device_setu("fh.max_packet_sz", 512);
        fake.clear_script();
        fake.push_all({raw_ack(), std::string(100, 'x')});
        EXPECT_EQ(to_buffer(dump1, back.data()) & 0xFF, ERR_IO);
    });
}

TEST(ImageTransfer, ReadShrinksAndGrowsItsChunk)
{
    with_link([&](fake_platform &fake) {
        std::string out(64 * 16, '\0');
        std::string disk(64 * 16, '\0');
        for (size_t i = 0; i < disk.size(); i++)
            disk[i] = (char)(i * 7 + 1);
        // First attempt: ACK, then only part of the data, and silence.
        fake.push_all({ack(), disk.substr(0, 100)});
        fake.push_idle(10); // one whole empty device read
        // Then chunks of 16, 32, 16 (the rest) sectors succeed.
        size_t at = 0;
        for (size_t count : {16u, 32u, 16u}) {
            fake.push_all({ack(), disk.substr(at, count * 16), ack()});
            at += count * 16;
        }
        fake.written.clear();
        log_capture c;
        EXPECT_EQ(to_buffer("read SECTOR_SIZE_IN_BYTES=\"16\" start_sector=\"100\" num_partition_sectors=\"64\"",
                            out.data()),
                  0);
        EXPECT_EQ(out, disk);
        auto cmds = commands(fake.written);
        ASSERT_EQ(cmds.size(), 4u);
        EXPECT_NE(cmds[0].find("start_sector=\"100\" num_partition_sectors=\"64\""), std::string::npos);
        EXPECT_NE(cmds[1].find("start_sector=\"100\" num_partition_sectors=\"16\""), std::string::npos);
        EXPECT_NE(cmds[2].find("start_sector=\"116\" num_partition_sectors=\"32\""), std::string::npos);
        EXPECT_NE(cmds[3].find("start_sector=\"148\" num_partition_sectors=\"16\""), std::string::npos);
        EXPECT_TRUE(c.has("...retry\n"));

        EXPECT_EQ(to_buffer("read SECTOR_SIZE_IN_BYTES=\"16\" start_sector=\"0\" num_partition_sectors=\"1\"",
                            out.data()) & 0xFF,
                  ERR_BAD_PARAM);
    });
}

TEST(ImageTransfer, ReadOutlastsSixteenRefusals)
{
    with_link([&](fake_platform &fake) {
        std::string out(64, '\0');
        std::string disk(64, 'd');
        for (int i = 0; i < 16; i++)
            fake.push_bytes(nak());
        fake.push_all({ack(), disk, ack()});
        fake.written.clear();
        const std::string read4 = "read SECTOR_SIZE_IN_BYTES=\"16\" start_sector=\"8\" num_partition_sectors=\"4\"";
        EXPECT_EQ(to_buffer(read4, out.data()), 0);
        EXPECT_EQ(out, disk);
        // The chunk stays whole through refusals of the command.
        for (auto &cmd : commands(fake.written))
            EXPECT_NE(cmd.find("num_partition_sectors=\"4\""), std::string::npos) << cmd;
        EXPECT_EQ(commands(fake.written).size(), 17u);

        // The seventeenth refusal in a row ends it with the refusal's code.
        for (int i = 0; i < 17; i++)
            fake.push_bytes(nak());
        EXPECT_EQ(to_buffer(read4, out.data()) & 0xFF, ERR_NAK);
    });
}
