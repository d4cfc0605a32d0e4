// Packages, recipes and their commands against a scripted programmer.
#include <gtest/gtest.h>

#include "firehose/commands.h"
#include "firehose/link.h"
#include "support/firehose.h"

using namespace ravik;
using namespace ravik::test;
using strings = std::vector<std::string>;

namespace {
// Runs a package from a container of these entries; its code.
int32_t run_package(const std::string &package, std::map<std::string, std::string> entries)
{
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
// A command with buffer="0x..." of `p` appended; its code.
int32_t to_buffer(const std::string &cmd, const void *p)
{
    firehose_do_fmt("%s buffer=\"0x%lX\"", cmd.c_str(), (unsigned long)(uintptr_t)p);
    return get_error();
}
} // namespace

TEST(RecipeEngine, PackagesRecipesAndCommands)
{
    const std::string R = "<recipe filename=\"r.xml\"/>", frob = "frobnicate level=\"9\"";
    // No package: the recipe is one command. "!" before a log: not there.
    struct { std::string package, recipe; strings answers, sent, logs; int code, slept = -1; } rows[] = {
        // Every recipe filtered out, no recipe at all, or none for this target even with ignore_errors.
        {"<recipe filename=\"r.xml\" compatible=\"storage.type:UFS\"/>", "<print what=\"x\"/>", {}, {},
         {"No compatible recipe found!\n"}, ERR_NOT_FOUND},
        {"<programmer filename=\"p\"/>", "", {}, {}, {}, ERR_NOT_FOUND},
        {"<recipe filename=\"r.xml\" ignore_errors=\"true\"/>", "<print what=\"x\" compatible=\"storage.type:UFS\"/><restore/>",
         {}, {}, {"No compatible command found!\n", "!x\n"}, ERR_NOT_FOUND},
        // Recipe files are named exactly; a missing one ends the package.
        {"<recipe filename=\"R.xml\"/>", "<print what=\"x\"/>", {}, {}, {"Error loading R.xml\n"}, ERR_LOAD_ENTRY},
        {"<recipe filename=\"\"/>", "", {}, {}, {}, ERR_GENERAL},
        // An unknown tag goes to the target as it stands; its NAK fails.
        {R, "<" + frob + "  mode=\"x\"/><print what=\"after\"/>", {nak()}, {frob + "  mode=\"x\""}, {"!after\n"}, ERR_NAK},
        // With ignore_errors the walk goes on, two lines a failure; "1" is not true.
        {"<recipe filename=\"r.xml\" ignore_errors=\"TRUE\"/>", "<" + frob + "/><SLEEP ms=\"10\"/><print what=\"after\"/>",
         {nak()}, {frob}, {frob + ": Error: NAK\n", "Continuing\n", "Sleeping for 10 ms - \n", "after\n"}, 0, 10},
        {"<recipe filename=\"r.xml\" ignore_errors=\"1\"/>", "<" + frob + "/>", {nak()}, {frob}, {}, ERR_NAK},
        {"", "restore", {}, {}, {}, ERR_NOT_FOUND},
        {"", "sleep ms=\"0\"", {}, {}, {}, ERR_MISSING_PARAM},
        {"", "sleep ms=\"0x10\" why=\"w\"", {}, {}, {"Sleeping for 16 ms - w\n"}, 0, 16},
        {"", "power value=\"RESET\"", {ack()}, {"power value=\"RESET\""}, {"Rebooting\n"}, 0},
        {"", "power value=\"sleep\"", {ack()}, {"power value=\"sleep\""}, {"unknown reboot type: sleep\n"}, 0},
        {"", "power value=\"reset_to_fastboot\"", {ack()}, {"power value=\"reset_to_fastboot\""},
         {"Rebooting to fastboot\n"}, 0},
        {"", "power why=\"x\"", {}, {}, {}, ERR_MISSING_PARAM},
        {"", "patch filename=\"gpt.bin\" what=\"x\"", {}, {}, {}, 0}, // only the disk is patched
        // Bad sector sizes and a missing label are refused before anything goes out.
        {R, "<program SECTOR_SIZE_IN_BYTES=\"3000\" label=\"boot\" filename=\"boot.img\"/>", {}, {}, {}, ERR_BAD_PARAM},
        {R, "<program SECTOR_SIZE_IN_BYTES=\"8192\" label=\"boot\" filename=\"boot.img\"/>", {}, {}, {}, ERR_BAD_PARAM},
        {R, "<program SECTOR_SIZE_IN_BYTES=\"512\" label=\"\" filename=\"boot.img\"/>", {}, {}, {}, ERR_MISSING_PARAM},
    };
    with_link([&](fake_platform &fake) {
        for (auto &r : rows) {
            log_capture c;
            fake.written.clear();
            fake.clear_script();
            uint64_t slept = fake.slept_ms;
            for (auto &a : r.answers)
                fake.push_bytes(a);
            int32_t code = r.package.empty() ? (firehose_do_fmt("%s", r.recipe.c_str()), get_error())
                                             : run_package(r.package, {{"r.xml", r.recipe}, {"boot.img", "b"}});
            EXPECT_EQ(code & 0xFF, r.code) << r.recipe;
            EXPECT_EQ(commands(fake.written), r.sent) << r.recipe;
            for (auto &l : r.logs)
                EXPECT_EQ(c.has(l.substr(l[0] == '!')), l[0] != '!') << l;
            EXPECT_TRUE(r.slept < 0 || fake.slept_ms - slept == (uint64_t)r.slept) << r.recipe;
        }
        // Any level but debug is taken, and hides what lies below it.
        log_capture c;
        for (auto [level, want] : {std::pair{"debug", LOG_INFO}, {"Error", LOG_ERROR}}) {
            firehose_do_fmt("logger level=\"%s\"", level);
            EXPECT_EQ(logger_get_level(), (uint32_t)want);
        }
        firehose_do_fmt("print what=\"hidden\"");
        EXPECT_FALSE(c.has("hidden\n"));
    });
}

// Whether backup survives a secure target is BackupScripted.SecureTargetTurnsBackupOffUnlessForced's.
TEST(TargetBringUp, QuestionsAndFallbacks)
{
    struct { strings answers; const char *type, *vername; uint32_t ver; bool secure; strings logs; } rows[] = {
        {{ack("boot_device=\"UFS-and-a-long-name\""), ack("cpu.ver=\"0x10\""), ack("cpu.vername=\"v2\""), ack("secure=\"10\"")},
         "UFS-and-a-long-", "v2", 16, true, {"...board v2\n", "...secure = yes\n"}},
        {{nak(), ack("cpu.ver=\"abc\""), ack("cpu.vername=\"v3\""), ack("secure=\"no\"")}, "eMMC", "unknown", 0, false,
         {"...target does support 'getvar boot_device'\n", "Could not determine storage type. Assuming eMMC...\n"}},
    };
    for (auto &r : rows) {
        fake_platform fake;
        in_session([&] {
            log_capture c;
            device_open();
            device_set("cpu.name", "board");
            fake.push_bytes(ack());
            for (auto &a : r.answers)
                fake.push_bytes(a);
            ASSERT_NE(get_firehose(), nullptr);
            EXPECT_STREQ(device_get("storage.type", nullptr), r.type); // 15 characters at most
            EXPECT_STREQ(device_get("cpu.vername", nullptr), r.vername);
            EXPECT_EQ(std::tuple(device_getu("cpu.ver", 0), device_has_flag(DEVICE_FLAG_SECURE)), std::tuple(r.ver, r.secure));
            for (auto &l : r.logs)
                EXPECT_TRUE(c.has(l)) << l;
            EXPECT_EQ(commands(fake.written), (strings{"nop value=\"Hello\"", "getvar value=\"boot_device\"",
                                                       "getvar value=\"cpu.ver\"", "getvar value=\"cpu.vername\"",
                                                       "getvar value=\"secure\""}));
        });
    }
}

TEST(TargetBringUp, ConfigureNegotiatesThePayload)
{
    with_link([&](fake_platform &fake) {
        log_capture c;
        const std::string conf = "configure SkipStorageInit=\"0\" Verbose=\"0\" ZlpAwareHost=\"1\" MemoryName=\"eMMC\" "
                                 "MaxPayloadSizeToTargetInBytes=";
        auto configure = [](const char *skip) { return firehose_do_fmt("configure SkipStorageInit=\"%s\"", skip), get_error(); };
        fake.push_all({nak("MaxPayloadSizeToTargetInBytes=\"65536\""),
                       ack("MaxPayloadSizeToTargetInBytesSupported=\"2097152\"")});
        EXPECT_EQ(configure("0"), 0);
        EXPECT_EQ(commands(fake.written), (strings{conf + "\"1048576\"", conf + "\"65536\""}));
        EXPECT_EQ(std::tuple(device_getu("fh.max_packet_sz", 0), device_getu("fh.storage_inited", 0)), std::tuple(65536u, 1u));
        EXPECT_FALSE(c.has("Target NAK!\n"));
        EXPECT_TRUE(c.has("Performance could be improved as target supports a larger payload size (2097152 "
                          "bytes) then what the host could support (65536 bytes)\n"));
        // Storage is set up: a second configure goes nowhere and counts as done.
        fake.written.clear();
        EXPECT_EQ(configure("0"), 0);
        EXPECT_TRUE(fake.written.empty());
        // A NAK without a proposal, and a second NAK.
        device_unset("fh.storage_inited");
        fake.push_all({nak(), nak("MaxPayloadSizeToTargetInBytes=\"9999999\""), nak()});
        EXPECT_EQ(configure("1") & 0xFF, ERR_BAD_RESPONSE);
        fake.written.clear();
        EXPECT_EQ(configure("1") & 0xFF, ERR_NAK);
        // The stored size wins; the cap holds on the second offer.
        EXPECT_EQ(attr_of(fake.written, "configure", "MaxPayloadSizeToTargetInBytes"), (strings{"65536", "1048576"}));
        EXPECT_EQ(device_getu("fh.max_packet_sz", 0), 65536u);
    });
}

// A target that does not come back from a power cycle is awaited a minute from the reset.
TEST(Provisioning, PowerCycleAwaitsTheTargetAMinute)
{
    with_link([&](fake_platform &fake) {
        test_container c("c.img", {{"p.elf", "p"}});
        firehose_set_input(c.handle);
        device_set("sahara.programmer", "p.elf");
        fake.push_bytes(ack());
        fake.open_fails = true;
        double t0 = fake.clock;
        EXPECT_EQ(power_cycle() & 0xFF, ERR_OPEN_DEVICE);
        EXPECT_EQ(commands(fake.written), strings{"power value=\"reset\""});
        EXPECT_GE(fake.clock - t0, 60.0);
        EXPECT_LT(fake.clock - t0, 61.0);
        firehose_set_input(nullptr);
    });
}

TEST(ImageTransfer, ProgramSendsTheEntryPaddedToSectors)
{
    // Entries missing or unnamed are passed over.
    const std::string boot = "<program SECTOR_SIZE_IN_BYTES=\"512\" label=\"boot\" filename=\"boot.img\" "
                             "physical_partition_number=\"0\" start_sector=\"34\" num_partition_sectors=",
                      rest = "<program SECTOR_SIZE_IN_BYTES=\"512\" label=\"x\" filename=\"none.img\"/>"
                             "<program SECTOR_SIZE_IN_BYTES=\"512\" label=\"y\" filename=\"\"/>";
    with_link([&](fake_platform &fake) {
        device_setu("fh.max_packet_sz", 512);
        for (size_t size : {1000u, 512u}) {
            std::string image = pattern(size, 2);
            fake.written.clear();
            fake.push_all({raw_ack(), ack()});
            EXPECT_EQ(run_package("<recipe filename=\"r.xml\"/>", {{"boot.img", image}, {"r.xml", boot + "\"9\"/>" + rest}}), 0);
            EXPECT_EQ(fake.written, "<?xml version=\"1.0\"?><data>" + boot + "\"" + std::to_string((size + 511) / 512) +
                                        "\"/></data>" + image + std::string(-size % 512, '\0'));
        }
    });
}

// Programs from memory are the storage tests' and the roads'.
TEST(ImageTransfer, DumpRequestsEachChunk)
{
    const std::string dump20 = "dump SECTOR_SIZE_IN_BYTES=\"512\" num_partition_sectors=\"20\" save_to=\"buffer\"",
                      dump1 = "dump SECTOR_SIZE_IN_BYTES=\"512\" num_partition_sectors=\"1\"";
    with_link([&](fake_platform &fake) {
        device_setu("fh.max_packet_sz", 4096);
        std::string data = pattern(10240, 3), back(10240, '\0');
        // An 8-byte request per chunk, the full size every time.
        fake.push_all({raw_ack(), data.substr(0, 4096), data.substr(4096, 4096), data.substr(8192)});
        EXPECT_EQ(to_buffer(dump20, back.data()), 0);
        EXPECT_EQ(back, data);
        std::string request("DATA\x00\x10\x00\x00", 8);
        EXPECT_EQ(fake.written.substr(fake.written.size() - 24), request + request + request);
        // A chunk of 16 MiB: every byte of the size has its place.
        device_setu("fh.max_packet_sz", 0x1000000);
        fake.written.clear();
        fake.push_all({raw_ack(), data});
        EXPECT_EQ(to_buffer(dump20, back.data()), 0);
        EXPECT_EQ(fake.written.substr(fake.written.size() - 8), std::string("DATA\x00\x00\x00\x01", 8));
        // A chunk size that is no multiple of the sector size is refused; a stalled target fails the dump.
        device_setu("fh.max_packet_sz", 1000);
        EXPECT_EQ(to_buffer(dump1, back.data()) & 0xFF, ERR_BAD_PARAM);
        device_setu("fh.max_packet_sz", 512);
        fake.clear_script();
        fake.push_all({raw_ack(), std::string(100, 'x')});
        EXPECT_EQ(to_buffer(dump1, back.data()) & 0xFF, ERR_IO);
    });
}
