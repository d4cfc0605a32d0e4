// Against a scripted programmer: the command exchange, then recipes and their commands.
#include <gtest/gtest.h>

#include "firehose/commands.h"
#include "firehose/link.h"
#include "support/firehose.h"
#include "tags/doc_view.h"

using namespace ravik;
using namespace ravik::test;
using strings = std::vector<std::string>;

namespace {
const std::string ACK = ack(), NAK = nak(), HEAD = "<?xml version=\"1.0\" ?><data>";
const std::string RAW = HEAD + "\n" + RAWMODE_START2 + "\n</data>";
std::string log_doc(const std::string &v) { return HEAD + "\n<log value=\"" + v + "\" />\n</data>"; }
} // namespace

TEST(FirehoseLink, WhatMakesAnAnswer)
{
    enum { plain, raw, commit };
    const strings logs_ack = {"log", "log", "response"}, none;
    struct { int send; strings in, names; bool ack; } rows[] = {
        {plain, {log_doc("a") + log_doc("b"), ACK}, logs_ack, true},
        {plain, {log_doc("bad sector") + NAK}, {"log", "response"}, false},
        // No blank before "/>", cut before </data>, a NUL that ends the text.
        {plain, {HEAD + "<response value=\"ACK\"/></data>"}, none, false},
        {plain, {HEAD + "<response value=\"ACK\" />"}, none, false},
        {plain, {HEAD + std::string(1, '\0') + "<response value=\"ACK\" /></data>"}, none, false},
        {raw, {RAWMODE_START1}, {"response"}, true}, // the exact form
        // Log lines before and a line end after: the prepared document, without the logs.
        {raw, {log_doc("starting") + RAW}, {"response"}, true},
        {raw, {NAK}, none, false}, // a NAK does not end a raw-mode wait
        {commit, {log_doc("committing") + ACK, HEAD + "<response value=\"ACK\" commit_result=\"2\" /></data>"},
         {"log", "response", "response"}, true},
    };
    for (auto &r : rows)
        with_link([&](fake_platform &fake) {
            for (auto &p : r.in)
                fake.push_bytes(p);
            doc_of cmd(r.send == commit ? "<ufs commit=\"1\" />" : "<program SECTOR_SIZE_IN_BYTES=\"512\" />");
            xtags *doc = r.send == plain ? fh_send_fmt("nop value=\"x\"")
                         : r.send == raw ? fh_send_and_switch_to_raw(cmd.first())
                                         : fh_send_and_wait_commit_result(cmd.first());
            EXPECT_EQ(get_error(), 0); // neither a NAK nor a time-out is a code by itself
            EXPECT_EQ(doc ? names_of(&doc->lines) : none, r.names) << r.in[0];
            EXPECT_EQ(fh_check_ack(), r.ack);
            EXPECT_EQ(get_error(), r.ack ? 0 : doc ? ERR_NAK : ERR_NO_RESPONSE);
        });
}

TEST(FirehoseLink, NakLogsItsLinesUnlessTurnedOffAndNoCommandIsAMultipleOf512Bytes)
{
    with_link([&](fake_platform &fake) {
        log_capture c;
        fake.push_all({log_doc("bad sector") + log_doc("") + NAK, NAK});
        fh_send_fmt("nop value=\"x\"");
        fh_log_naks(false);
        fh_send_fmt("nop value=\"x\"");
        EXPECT_EQ(std::tuple(c.count("Target NAK!\n"), c.count("...bad sector\n"), c.count("...\n")), std::tuple(1, 1, 0));
        logger_set_level(LOG_DEBUG);
        // head (28) + "x v=\"" (5) + pad + "\"" (1) + tail (9)
        for (size_t total : {511u, 512u, 513u, 1024u}) {
            fake.written.clear();
            fake.push_bytes(ACK);
            fh_send_fmt("x v=\"%s\"", std::string(total - 43, 'p').c_str());
            EXPECT_EQ(fake.written, fake.written.substr(0, total) + (total % 512 ? "" : "\n"));
        }
        EXPECT_EQ(c.count("H->D: " + fake.written + "\n"), 1);
    });
}

// A programmer that refuses the wake-up nop every time: the port reopened every 500 ms for a minute.
TEST(FirehoseLink, WakeUpGivesUpAfterSixtySeconds)
{
    with_open_device([&](fake_platform &fake) {
        for (int i = 0; i < 200; i++)
            fake.push_bytes(NAK);
        double t0 = fake.clock;
        EXPECT_EQ(fh_send_fmt("nop value=\"x\""), nullptr);
        EXPECT_EQ(get_error() & 0xFF, ERR_NAK);
        EXPECT_GE(fake.clock - t0, 60.0);
        EXPECT_LT(fake.clock - t0, 62.0);
        EXPECT_GT(fake.open_calls, 10);
    });
}

TEST(FirehoseLink, AnswerBehindARawModeAnswerIsKeptForTheNextRead)
{
    with_link([&](fake_platform &fake) {
        doc_of cmd("<program SECTOR_SIZE_IN_BYTES=\"512\" num_partition_sectors=\"0\" />");
        // A program of 0 sectors: the target answers twice in one burst.
        fake.push_all({RAW.substr(0, 3), RAW.substr(3) + log_doc("done") + ACK});
        ASSERT_NE(fh_send_and_switch_to_raw(cmd.first()), nullptr);
        double t0 = fake.clock;
        xtags *final_answer = fh_read_resp();
        ASSERT_NE(final_answer, nullptr);
        EXPECT_EQ(names_of(&final_answer->lines), (strings{"log", "response"}));
        EXPECT_TRUE(fh_check_ack());
        EXPECT_EQ(fake.clock, t0); // nothing had to be waited for
    });
}

TEST(RecipeEngine, PackagesRecipesAndCommands)
{
    const std::string R = "<recipe filename=\"r.xml\"/>", frob = "frobnicate level=\"9\"",
                      boot = "program SECTOR_SIZE_IN_BYTES=\"512\" label=\"boot\" filename=\"boot.img\" start_sector=\"34\" ";
    // No package: the recipe is one command. "!" before a log: not there. boot.img is one whole sector.
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
        // The entry's own size counts, in whole sectors; entries missing or unnamed are passed over.
        {R, "<" + boot + "num_partition_sectors=\"9\"/>", {raw_ack(), ack()}, {boot + "num_partition_sectors=\"1\""}, {}, 0},
        {R, "<program SECTOR_SIZE_IN_BYTES=\"512\" label=\"x\" filename=\"none.img\"/>", {}, {}, {}, 0},
        {R, "<program SECTOR_SIZE_IN_BYTES=\"512\" label=\"y\" filename=\"\"/>", {}, {}, {}, 0},
        // Any level but debug is taken, and hides what lies below it.
        {"", "logger level=\"Error\"", {}, {}, {}, 0}, {"", "logger level=\"debug\"", {}, {}, {}, 0},
        {"", "print what=\"hidden\"", {}, {}, {"!hidden\n"}, 0},
    };
    with_link([&](fake_platform &fake) {
        device_setu("fh.max_packet_sz", 512);
        for (auto &r : rows) {
            log_capture c;
            fake.written.clear();
            fake.clear_script();
            uint64_t slept = fake.slept_ms;
            for (auto &a : r.answers)
                fake.push_bytes(a);
            test_container box("c.img", {{"package.xml", r.package}, {"r.xml", r.recipe}, {"boot.img", pattern(512, 2)}});
            doc_of package(r.package.c_str());
            firehose_set_input(box.handle);
            r.package.empty() ? (void)firehose_do_fmt("%s", r.recipe.c_str()) : firehose_do_pkg(package.doc);
            int32_t code = get_error();
            firehose_set_input(nullptr);
            EXPECT_EQ(code & 0xFF, r.code) << r.recipe;
            EXPECT_EQ(commands(fake.written), r.sent) << r.recipe;
            for (auto &l : r.logs)
                EXPECT_EQ(c.has(l.substr(l[0] == '!')), l[0] != '!') << l;
            EXPECT_TRUE(r.slept < 0 || fake.slept_ms - slept == (uint64_t)r.slept) << r.recipe;
        }
    });
}

TEST(TargetBringUp, ConfigureNegotiatesThePayload)
{
    with_link([&](fake_platform &fake) {
        log_capture c;
        const std::string conf = "configure SkipStorageInit=\"0\" Verbose=\"0\" ZlpAwareHost=\"1\" MemoryName=\"eMMC\" "
                                 "MaxPayloadSizeToTargetInBytes=";
        fake.push_all({nak("MaxPayloadSizeToTargetInBytes=\"65536\""),
                       ack("MaxPayloadSizeToTargetInBytesSupported=\"2097152\"")});
        firehose_do_fmt("configure SkipStorageInit=\"0\"");
        EXPECT_EQ(get_error(), 0);
        EXPECT_EQ(commands(fake.written), (strings{conf + "\"1048576\"", conf + "\"65536\""}));
        EXPECT_EQ(std::tuple(device_getu("fh.max_packet_sz", 0), device_getu("fh.storage_inited", 0)), std::tuple(65536u, 1u));
        EXPECT_FALSE(c.has("Target NAK!\n"));
        EXPECT_TRUE(c.has("Performance could be improved as target supports a larger payload size (2097152 "
                          "bytes) then what the host could support (65536 bytes)\n"));
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

TEST(ImageTransfer, DumpRequestsEachChunk)
{
    auto dump = [](int sectors, void *to) {
        firehose_do_fmt("dump SECTOR_SIZE_IN_BYTES=\"512\" num_partition_sectors=\"%d\" buffer=\"0x%lX\"", sectors,
                        (unsigned long)(uintptr_t)to);
        return get_error();
    };
    with_link([&](fake_platform &fake) {
        device_setu("fh.max_packet_sz", 4096);
        std::string data = pattern(10240, 3), back(10240, '\0');
        // An 8-byte request per chunk, the full size every time.
        fake.push_all({raw_ack(), data.substr(0, 4096), data.substr(4096, 4096), data.substr(8192)});
        EXPECT_EQ(dump(20, back.data()), 0);
        EXPECT_EQ(back, data);
        std::string request("DATA\x00\x10\x00\x00", 8);
        EXPECT_EQ(fake.written.substr(fake.written.size() - 24), request + request + request);
        // A chunk of 16 MiB: every byte of the size has its place.
        device_setu("fh.max_packet_sz", 0x1000000);
        fake.written.clear();
        fake.push_all({raw_ack(), data});
        EXPECT_EQ(dump(20, back.data()), 0);
        EXPECT_EQ(fake.written.substr(fake.written.size() - 8), std::string("DATA\x00\x00\x00\x01", 8));
    });
}
