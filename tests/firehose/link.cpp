// The command exchange with a scripted programmer: wake-up, envelope,
// answers cut anywhere, NAKs, time-outs and raw-mode answers.
#include <gtest/gtest.h>

#include "firehose/link.h"
#include "support/firehose.h"
#include "tags/doc_view.h"

using namespace ravik;
using namespace ravik::test;

namespace {
const std::string ACK = ack(), NAK = nak(), HEAD = "<?xml version=\"1.0\" ?><data>";
const std::string RAW = HEAD + "\n" + RAWMODE_START2 + "\n</data>";
std::string log_doc(const std::string &v) { return HEAD + "\n<log value=\"" + v + "\" />\n</data>"; }
} // namespace

// Answers cut into single bytes are Roads.RoadsBySector's ("one-byte answers").
TEST(FirehoseLink, WhatMakesAnAnswer)
{
    enum { plain, raw, commit };
    const std::vector<std::string> logs_ack = {"log", "log", "response"}, none;
    struct { int send; std::vector<std::string> in, names; bool ack; } rows[] = {
        {plain, {log_doc("a") + log_doc("b"), ACK}, logs_ack, true},
        {plain, {log_doc("bad sector") + NAK}, {"log", "response"}, false},
        // One ACK among NAKs is enough; case does not count.
        {plain, {HEAD + "<response value=\"NAK\" /><RESPONSE VALUE=\"ack\" /></DATA>"}, {"response", "RESPONSE"}, true},
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

// A port gone for good at the wake-up is HostileTarget.PortGoneForGoodAtTheWakeUp's.
TEST(FirehoseLink, WakeUpSettlesOnceKeepsSettingsAndGivesUpAfterSixtySeconds)
{
    with_open_device([&](fake_platform &fake) {
        log_capture c;
        fake.push_all({ACK, ACK, ACK});
        double t0 = fake.clock;
        ASSERT_NE(fh_send_fmt("getvar value=\"%s\"", "secure"), nullptr);
        EXPECT_GE(fake.clock - t0, 3.0);
        fh_send_fmt("nop value=\"again\"");
        EXPECT_EQ(commands(fake.written), (std::vector<std::string>{"nop value=\"Hello\"", "getvar value=\"secure\"",
                                                                    "nop value=\"again\""}));
        EXPECT_EQ(c.count("Waiting for firehose to get ready\n"), 1);
        // Settings outlive an invalidation, which wakes the link anew.
        // Setting answers the old value; 0 and below only ask.
        EXPECT_EQ((std::tuple{fh_read_latency(8.0), fh_read_latency(0), fh_read_latency(-1)}), std::tuple(1.5, 8.0, 8.0));
        fh_log_naks(false);
        fh *before = get_fh();
        ASSERT_NE(before, nullptr);
        fh_invalidate();
        fake.push_bytes(ACK);
        t0 = fake.clock;
        EXPECT_EQ(get_fh(), before);
        EXPECT_GE(fake.clock - t0, 3.0);
        EXPECT_EQ(c.count("Waiting for firehose to get ready\n"), 2);
        EXPECT_EQ(std::tuple(before->read_latency, before->flags & FH_LOG_NAKS), std::tuple(8.0, 0u));
        // The programmer refuses the nop every time: the port is reopened every 500 ms.
        fh_invalidate();
        for (int i = 0; i < 200; i++)
            fake.push_bytes(NAK);
        int opens = fake.open_calls;
        t0 = fake.clock;
        EXPECT_EQ(fh_send_fmt("nop value=\"x\""), nullptr);
        EXPECT_EQ(get_error() & 0xFF, ERR_NAK);
        EXPECT_GE(fake.clock - t0, 60.0);
        EXPECT_LT(fake.clock - t0, 62.0);
        EXPECT_GT(fake.open_calls - opens, 10);
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
        EXPECT_EQ(names_of(&final_answer->lines), (std::vector<std::string>{"log", "response"}));
        EXPECT_TRUE(fh_check_ack());
        EXPECT_EQ(fake.clock, t0); // nothing had to be waited for
        // A new programmer is owed nothing of the old one's words.
        fake.push_bytes(RAW + ACK);
        ASSERT_NE(fh_send_and_switch_to_raw(cmd.first()), nullptr);
        fh_invalidate();
        fake.push_bytes(ACK); // the wake-up nop
        EXPECT_NE(get_fh(), nullptr);
        EXPECT_EQ(fh_read_resp(), nullptr);
    });
}
