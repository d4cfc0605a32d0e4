// The command exchange with a scripted programmer: wake-up, envelope,
// answers cut anywhere, NAKs, time-outs and raw-mode answers.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "core/core.h"
#include "firehose/link.h"
#include "firehose/scripted_target.h"
#include "link/device.h"
#include "support/fake_platform.h"
#include "support/helpers.h"
#include "tags/doc_view.h"

using namespace ravik;
using namespace ravik::test;

namespace {

const std::string ACK = ack(), NAK = nak();
std::string log_doc(const std::string &v)
{
    return "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<data>\n<log value=\"" + v + "\" />\n</data>";
}

// A session whose link woke on the scripted ACK to its nop; the wake-up's
// bytes are cleared.
void with_awake_link(const std::function<void(fake_platform &)> &body)
{
    with_open_device([&](fake_platform &fake) {
        fake.push_bytes(ACK);
        ASSERT_NE(get_fh(), nullptr);
        fake.written.clear();
        body(fake);
    });
}

std::vector<std::string> names(const xtags *doc) { return names_of(&doc->lines); }
} // namespace

TEST(FirehoseLink, WakeUpSettlesOnceAndSendsTheNop)
{
    fake_platform fake;
    in_session([&] {
        log_capture c;
        ASSERT_EQ(device_open(), 0);
        fake.push_all({ACK, ACK});
        double t0 = fake.clock;
        xtags *doc = fh_send_fmt("getvar value=\"%s\"", "secure");
        ASSERT_NE(doc, nullptr);
        EXPECT_EQ(get_error(), 0);
        EXPECT_GE(fake.clock - t0, 3.0);
        EXPECT_EQ(fake.written, "<?xml version=\"1.0\"?><data><nop value=\"Hello\"/></data>"
                                "<?xml version=\"1.0\"?><data><getvar value=\"secure\"/></data>");
        fake.push_bytes(ACK);
        fh_send_fmt("nop value=\"again\"");
        EXPECT_EQ(c.count("Waiting for firehose to get ready\n"), 1);
        EXPECT_TRUE(fh_check_ack());
    });
}

TEST(FirehoseLink, NoCommandIsAMultipleOf512Bytes)
{
    with_awake_link([&](fake_platform &fake) {
        log_capture c;
        logger_set_level(LOG_DEBUG);
        // head (28) + "x v=\"" (5) + pad + "\"" (1) + tail (9)
        for (size_t total : {511u, 512u, 513u, 1024u}) {
            fake.written.clear();
            fake.push_bytes(ACK);
            std::string pad(total - 43, 'p');
            fh_send_fmt("x v=\"%s\"", pad.c_str());
            bool multiple = total % 512 == 0;
            EXPECT_EQ(fake.written.size(), total + (multiple ? 1 : 0));
            EXPECT_EQ(fake.written.back() == '\n', multiple);
        }
        EXPECT_EQ(c.count("H->D: " + fake.written + "\n"), 1);
    });
}

TEST(FirehoseLink, AnswerCutAnywhereBecomesOneDocument)
{
    with_awake_link([&](fake_platform &fake) {
        std::string whole = log_doc("a") + log_doc("b") + ACK;
        for (size_t cut : {whole.size(), (size_t)1, (size_t)7}) {
            // cut == size: all in one read; else reads of `cut` bytes.
            for (size_t at = 0; at < whole.size(); at += cut)
                fake.push_bytes(whole.substr(at, cut));
            xtags *doc = fh_send_fmt("nop value=\"x\"");
            ASSERT_NE(doc, nullptr) << cut;
            EXPECT_EQ(names(doc), (std::vector<std::string>{"log", "log", "response"}));
            EXPECT_TRUE(xtags_has_flag(doc, XTAGS_FLAG_ACK));
        }
    });
}

TEST(FirehoseLink, NakIsAnAnswerWithItsLogLines)
{
    with_awake_link([&](fake_platform &fake) {
        log_capture c;
        fake.push_bytes(log_doc("bad sector") + log_doc("") + NAK);
        xtags *doc = fh_send_fmt("nop value=\"x\"");
        ASSERT_NE(doc, nullptr);
        EXPECT_EQ(get_error(), 0);
        EXPECT_FALSE(fh_check_ack());
        EXPECT_EQ(get_error(), ERR_NAK);
        EXPECT_EQ(c.count("Target NAK!\n"), 1);
        EXPECT_EQ(c.count("...bad sector\n"), 1);
        EXPECT_EQ(c.count("...\n"), 0);

        // Without NAK logging, nothing above debug.
        c.lines.clear();
        fh_log_naks(false);
        fake.push_bytes(NAK);
        fh_send_fmt("nop value=\"x\"");
        EXPECT_EQ(c.count("Target NAK!\n"), 0);
        fh_log_naks(true);

        // One ACK among NAKs is enough; case does not count.
        fake.push_bytes("<?xml version=\"1.0\" ?><DATA><response value=\"NAK\" /><RESPONSE VALUE=\"ack\" /></DATA>");
        fh_send_fmt("nop value=\"x\"");
        EXPECT_TRUE(fh_check_ack());
    });
}

TEST(FirehoseLink, SilenceAndIncompleteAnswersTimeOut)
{
    with_awake_link([&](fake_platform &fake) {
        double t0 = fake.clock;
        EXPECT_EQ(fh_send_fmt("nop value=\"x\""), nullptr);
        EXPECT_EQ(get_error(), 0); // a time-out is no code by itself
        EXPECT_NEAR(fake.clock - t0, 11.0, 0.01);
        EXPECT_FALSE(fh_check_ack());
        EXPECT_EQ(get_error(), ERR_NO_RESPONSE);

        // No blank before "/>": the test fails and the read waits in vain.
        fake.push_bytes("<?xml version=\"1.0\" ?><data><response value=\"ACK\"/></data>");
        EXPECT_EQ(fh_send_fmt("nop value=\"x\""), nullptr);
        // Cut before </data>: not complete.
        fake.push_bytes("<?xml version=\"1.0\" ?><data><response value=\"ACK\" />");
        EXPECT_EQ(fh_send_fmt("nop value=\"x\""), nullptr);
        fake.clear_script();

        // A NUL ends the text as the tests see it.
        fake.push_bytes(std::string("<?xml version=\"1.0\" ?><data>\0<response value=\"ACK\" /></data>", 58));
        EXPECT_EQ(fh_send_fmt("nop value=\"x\""), nullptr);
        fake.clear_script();

        // A late answer after a time-out is not in the response any more.
        EXPECT_EQ(fh_read_resp(), nullptr);
        EXPECT_FALSE(fh_check_ack());
        EXPECT_EQ(get_error(), ERR_NO_RESPONSE);
    });
}

TEST(FirehoseLink, RawModeAnswers)
{
    with_awake_link([&](fake_platform &fake) {
        doc_of cmd("<program SECTOR_SIZE_IN_BYTES=\"512\" />");
        tagline *line = cmd.first();

        // Byte for byte: the exact form.
        std::string exact = RAWMODE_START1;
        for (char ch : exact)
            fake.push_bytes(std::string(1, ch));
        xtags *doc = fh_send_and_switch_to_raw(line);
        ASSERT_NE(doc, nullptr);
        EXPECT_EQ(names(doc), (std::vector<std::string>{"response"}));
        EXPECT_TRUE(fh_check_ack());

        // With log lines before and a line end after: the substring form,
        // and the document is the prepared one without the logs.
        fake.push_bytes(log_doc("starting") + "<?xml version=\"1.0\" ?><data>\n" + RAWMODE_START2 + "\n</data>");
        doc = fh_send_and_switch_to_raw(line);
        ASSERT_NE(doc, nullptr);
        EXPECT_EQ(names(doc), (std::vector<std::string>{"response"}));
        EXPECT_TRUE(fh_check_ack());
        fake.clear_script();

        // A NAK does not end a raw-mode wait: it runs into the time-out.
        fake.push_bytes(NAK);
        EXPECT_EQ(fh_send_and_switch_to_raw(line), nullptr);
        EXPECT_FALSE(fh_check_ack());
        EXPECT_EQ(get_error(), ERR_NO_RESPONSE);
    });
}

TEST(FirehoseLink, CommitResultWaitsPastOrdinaryAnswers)
{
    with_awake_link([&](fake_platform &fake) {
        doc_of cmd("<ufs commit=\"1\" />");
        tagline *line = cmd.first();
        fake.push_all({log_doc("committing") + ACK,
                       "<?xml version=\"1.0\" ?><data><response value=\"ACK\" commit_result=\"2\" /></data>"});
        xtags *doc = fh_send_and_wait_commit_result(line);
        ASSERT_NE(doc, nullptr);
        EXPECT_EQ(names(doc), (std::vector<std::string>{"log", "response", "response"}));
        EXPECT_STREQ(xtags_get(doc, "response", "commit_result"), "2");
    });
}

TEST(FirehoseLink, WakeUpGivesUpAfterSixtySeconds)
{
    with_open_device([&](fake_platform &fake) {
        // The programmer refuses the nop every time.
        for (int i = 0; i < 200; i++)
            fake.push_bytes(NAK);
        double t0 = fake.clock;
        EXPECT_EQ(fh_send_fmt("nop value=\"x\""), nullptr);
        EXPECT_EQ(get_error() & 0xFF, ERR_NAK);
        EXPECT_GE(fake.clock - t0, 60.0);
        EXPECT_LT(fake.clock - t0, 62.0);
        EXPECT_GT(fake.open_calls, 10);
        fake.clear_script();

        // The port is gone: reopen every 500 ms, then the open's failure.
        fake.open_fails = true;
        t0 = fake.clock;
        EXPECT_EQ(fh_send_fmt("nop value=\"x\""), nullptr);
        EXPECT_EQ(get_error() & 0xFF, ERR_OPEN_DEVICE);
        EXPECT_NEAR(fake.clock - t0, 60.0, 1.0);
    });
}

TEST(FirehoseLink, InvalidateKeepsSettings)
{
    with_awake_link([&](fake_platform &fake) {
        EXPECT_DOUBLE_EQ(fh_read_latency(8.0), 1.5);
        EXPECT_DOUBLE_EQ(fh_read_latency(0), 8.0);
        EXPECT_DOUBLE_EQ(fh_read_latency(-1), 8.0);
        fh_log_naks(false);
        fh *before = get_fh();
        fh_invalidate();
        log_capture c;
        fake.push_bytes(ACK);
        double t0 = fake.clock;
        EXPECT_EQ(get_fh(), before);
        EXPECT_GE(fake.clock - t0, 3.0);
        EXPECT_EQ(c.count("Waiting for firehose to get ready\n"), 1);
        EXPECT_DOUBLE_EQ(before->read_latency, 8.0);
        EXPECT_EQ(before->flags & FH_LOG_NAKS, 0u);
    });
}

TEST(FirehoseLink, LateAnswerIsTakenByTheNextCommand)
{
    with_awake_link([&](fake_platform &fake) {
        fake.push_idle(10); // one whole empty read: the first command times out
        fake.push_bytes("<?xml version=\"1.0\" ?><data><response value=\"ACK\" late=\"yes\" /></data>");
        EXPECT_EQ(fh_send_fmt("nop value=\"first\""), nullptr);
        xtags *doc = fh_send_fmt("nop value=\"second\"");
        ASSERT_NE(doc, nullptr);
        EXPECT_STREQ(xtags_get(doc, "response", "late"), "yes");
    });
}

TEST(FirehoseLink, AnswerBehindARawModeAnswerIsKeptForTheNextRead)
{
    with_awake_link([&](fake_platform &fake) {
        doc_of cmd("<program SECTOR_SIZE_IN_BYTES=\"512\" num_partition_sectors=\"0\" />");
        tagline *line = cmd.first();
        // A program of 0 sectors: the target answers twice in one burst.
        std::string raw = "<?xml version=\"1.0\" ?><data>\n" + std::string(RAWMODE_START2) + "\n</data>";
        fake.push_all({raw.substr(0, 3), raw.substr(3) + log_doc("done") + ACK});
        ASSERT_NE(fh_send_and_switch_to_raw(line), nullptr);
        double t0 = fake.clock;
        xtags *final_answer = fh_read_resp();
        ASSERT_NE(final_answer, nullptr);
        EXPECT_EQ(names(final_answer), (std::vector<std::string>{"log", "response"}));
        EXPECT_TRUE(fh_check_ack());
        EXPECT_EQ(fake.clock, t0); // nothing had to be waited for
        // A new programmer is owed nothing of the old one's words.
        fake.push_bytes(raw + ACK);
        ASSERT_NE(fh_send_and_switch_to_raw(line), nullptr);
        fh_invalidate();
        fake.push_bytes(ACK); // the wake-up nop
        EXPECT_NE(get_fh(), nullptr);
        EXPECT_EQ(fh_read_resp(), nullptr);
    });
}
