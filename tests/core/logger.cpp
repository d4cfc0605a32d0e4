// The per-thread log rings: stamps, headers, overhang, subscribers, saving.
#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "core/core.h"
#include "support/fake_platform.h"
#include "support/helpers.h"

using namespace ravik;
using namespace ravik::test;

namespace {
struct capture {
    std::vector<std::string> lines;
    static void fn(const char *line, void *ctx) { static_cast<capture *>(ctx)->lines.push_back(line); }
};

std::string ring_text()
{
    logger_view v;
    EXPECT_TRUE(logger_current(&v));
    return std::string(v.data, v.count & (LOG_RING_SIZE - 1));
}

uint32_t ring_count()
{
    logger_view v;
    logger_current(&v);
    return v.count;
}

// The clock stands still in these tests, so every stamp is "[  0.000] ".
constexpr size_t STAMP = 10;
} // namespace

TEST(Logger, FirstLineHasHeaderThenStampedLine)
{
    fake_platform fake;
    on_fresh_thread([&] {
        logger_get_level(); // the ring starts here
        fake.clock += 1.5;
        logger_log("hello %d\n", 7);
        fake.clock += 2.25;
        logger_log("no line end");
        logger_log("\n");
        std::string t = ring_text();
        EXPECT_TRUE(std::regex_match(
            t, std::regex("\n\\*\\*\\*\\* Log buffer \\[000001\\] \\d{4}-\\d\\d-\\d\\d_\\d\\d:\\d\\d:\\d\\d "
                          "\\*\\*\\*\\*\n\n\\[  1\\.500\\] hello 7\n\\[  3\\.750\\] no line end\\[  3\\.750\\] \n")))
            << t;
        EXPECT_EQ(logger_log_number(), 1);
        logger_reset();
        EXPECT_EQ(logger_log_number(), 2);
        EXPECT_NE(ring_text().find("[000002]"), std::string::npos);
    });
}

TEST(Logger, NoLocalTimeNoHeader)
{
    fake_platform fake;
    fake.local_time_ok = false;
    on_fresh_thread([] {
        logger_log("x\n");
        EXPECT_EQ(ring_text(), "[  0.000] x\n");
        EXPECT_EQ(logger_log_number(), 0);
    });
}

TEST(Logger, LineExactlyFillingTheRingWrapsToTheStart)
{
    fake_platform fake;
    on_fresh_thread([] {
        size_t header = ring_count();
        std::string msg(LOG_RING_SIZE - header - STAMP, 'm');
        logger_log("%s", msg.c_str());
        EXPECT_EQ(ring_count(), LOG_RING_SIZE);
        temp_cwd cwd;
        logger_save();
        // A count of exactly the ring size writes the whole ring, header first.
        std::string file = read_file(LOG_FILE_NAME);
        EXPECT_EQ(file.size(), (size_t)LOG_RING_SIZE);
        EXPECT_EQ(file.substr(0, 10), "\n**** Log ");
        logger_log("next\n");
        logger_view v;
        logger_current(&v);
        EXPECT_EQ(std::string(v.data, STAMP + 5), "[  0.000] next\n");
    });
}

TEST(Logger, LineCrossingTheRingEndStaysWhole)
{
    fake_platform fake;
    on_fresh_thread([] {
        capture c;
        logger_subscribe("cap", capture::fn, &c);
        size_t header = ring_count();
        std::string filler(LOG_RING_SIZE - header - 2 * STAMP - 200, 'f');
        logger_log("%s", filler.c_str());
        std::string msg(290, 'x');
        msg.back() = '\n';
        logger_log("%s", msg.c_str());
        ASSERT_EQ(c.lines.size(), 2u);
        c.lines.erase(c.lines.begin());
        EXPECT_EQ(c.lines[0], "[  0.000] " + msg);
        EXPECT_EQ(ring_count(), LOG_RING_SIZE + 90);
        temp_cwd cwd;
        logger_save();
        std::string file = read_file(LOG_FILE_NAME);
        EXPECT_EQ(file.size(), (size_t)LOG_RING_SIZE);
        EXPECT_EQ(file.substr(file.size() - c.lines[0].size()), c.lines[0]);
        logger_unsubscribe("cap");
    });
}

TEST(Logger, HugeMessageIsCutAndTheRingStaysSound)
{
    fake_platform fake;
    on_fresh_thread([] {
        capture c;
        logger_subscribe("cap", capture::fn, &c);
        size_t header = ring_count();
        std::string msg(200000, 'h');
        logger_log("%s", msg.c_str());
        ASSERT_EQ(c.lines.size(), 1u);
        EXPECT_EQ(c.lines[0].size(), LOG_RING_SIZE + LOG_RING_OVERHANG - 1 - header);
        EXPECT_EQ(ring_count(), LOG_RING_SIZE + LOG_RING_OVERHANG - 1);
        logger_log("after\n");
        EXPECT_EQ(c.lines[1], "[  0.000] after\n");
        logger_view v;
        logger_current(&v);
        EXPECT_EQ(std::string(v.data + LOG_RING_OVERHANG - 1, STAMP + 6), "[  0.000] after\n");
        logger_unsubscribe("cap");
    });
}

TEST(Logger, SubscribersMutingAndLastError)
{
    fake_platform fake;
    on_fresh_thread([] {
        capture a, b;
        EXPECT_EQ(logger_subscribe("", capture::fn, &a), -1);
        EXPECT_EQ(logger_subscribe(nullptr, capture::fn, &a), -1);
        EXPECT_EQ(logger_subscribe("x", nullptr, &a), -1);
        ASSERT_EQ(logger_subscribe("one", capture::fn, &a), 0);
        ASSERT_EQ(logger_subscribe("one", capture::fn, &b), 0); // replaced, not added
        logger_log("1\n");
        EXPECT_TRUE(a.lines.empty());
        EXPECT_EQ(b.lines.size(), 1u);

        logger_mute();
        logger_mute();
        logger_log("muted\n");
        logger_unmute(); // one unmute ends any number of mutes
        logger_log("2\n");
        logger_unmute();
        ASSERT_EQ(b.lines.size(), 2u);
        EXPECT_EQ(b.lines[1], "[  0.000] 2\n");
        EXPECT_NE(ring_text().find("muted"), std::string::npos);
        logger_unsubscribe("nobody");
        logger_unsubscribe("one");
        logger_log("3\n");
        EXPECT_EQ(b.lines.size(), 2u);

        // A subscriber that clears the last error does not change it.
        set_error(ERR_NAK);
        logger_subscribe("clear", [](const char *, void *) { set_error(0); }, nullptr);
        logger_log("4\n");
        EXPECT_EQ(get_error(), ERR_NAK);
        logger_unsubscribe("clear");
        EXPECT_EQ(logger_get_level(), (uint32_t)LOG_INFO);
    });
}

TEST(Logger, SaveAppendsBothRingsAndRestartsPastFiveMiB)
{
    fake_platform fake;
    temp_cwd cwd;
    on_fresh_thread([] {
        logger_log("first\n");
        EXPECT_EQ(logger_save(), 0);
        std::string once = read_file(LOG_FILE_NAME);
        EXPECT_NE(once.find("first"), std::string::npos);
        // The saved ring becomes the previous one and goes out again ahead of the next.
        logger_reset();
        logger_log("second\n");
        logger_save();
        std::string twice = read_file(LOG_FILE_NAME);
        EXPECT_EQ(twice.substr(0, once.size()), once);
        std::string added = twice.substr(once.size());
        EXPECT_LT(added.find("first"), added.find("second"));

        {
            std::ofstream f(LOG_FILE_NAME, std::ios::trunc);
            f << std::string(LOG_FILE_LIMIT, 'o');
        }
        logger_save();
        std::string at_limit = read_file(LOG_FILE_NAME);
        EXPECT_EQ(at_limit.substr(0, 3), "ooo");
        EXPECT_GT(at_limit.size(), (size_t)LOG_FILE_LIMIT);
        logger_save();
        std::string restarted = read_file(LOG_FILE_NAME);
        EXPECT_EQ(restarted.rfind("==== TRUNCATED TRUNCATED TRUNCATED!!! ====\n", 0), 0u);
        EXPECT_LT(restarted.size(), (size_t)LOG_FILE_LIMIT);
    });
}

TEST(Logger, SaveFailsCleanlyWhereNoFileCanBeMade)
{
    fake_platform fake;
    temp_cwd cwd;
    on_fresh_thread([] {
        ASSERT_EQ(system("mkdir ravik_log.txt"), 0); // a directory in the file's place
        logger_log("x\n");
        EXPECT_EQ(logger_save(), ERR_IO);
    });
}

TEST(Logger, TwoThreadsHaveTheirOwnRings)
{
    fake_platform fake;
    on_fresh_thread([] {
        logger_log("main thread\n");
        on_fresh_thread([] {
            logger_log("other thread\n");
            EXPECT_EQ(ring_text().find("main thread"), std::string::npos);
            EXPECT_EQ(logger_log_number(), 1);
        });
        EXPECT_EQ(ring_text().find("other thread"), std::string::npos);
    });
}
