// Per-thread blocks, error chains, the log rings and the small utilities.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <regex>
#include <thread>

#include "core/core.h"
#include "support/fake_platform.h"
#include "support/helpers.h"

using namespace ravik;
using namespace ravik::test;

namespace {
uint32_t ring_count() { return [](logger_view v) { return logger_current(&v), v.count; }({}); }
constexpr size_t STAMP = 10; // the clock stands still: every stamp is "[  0.000] "
} // namespace

TEST(Tls, SlotsThreadsDetachingAndNoMemory)
{
    int64_t before = mem_outstanding();
    on_fresh_thread([] {
        EXPECT_TRUE(!tls_get(3, 16) && !tls_get(TLS_SLOT_DEVICE, 0));
        auto *a = static_cast<uint8_t *>(tls_get(TLS_SLOT_DEVICE, 64));
        ASSERT_TRUE(a && !a[63]);
        EXPECT_EQ(tls_get(TLS_SLOT_DEVICE, 8), a); // the size counts only where the block is made
        std::thread([a] { EXPECT_NE(tls_get(TLS_SLOT_DEVICE, 64), a); }).join();
        a[0] = 42;
        tls_thread_detach();
        tls_thread_detach(); // nothing left: harmless
        EXPECT_EQ(failing_nth(1, [] { return tls_get(TLS_SLOT_DEVICE, 32); }), nullptr);
        auto *b = static_cast<uint8_t *>(tls_get(TLS_SLOT_DEVICE, 64)); // tried again, and new
        ASSERT_TRUE(b && !b[0]);
        // Without an error block: ERR_TLS, codes pass unchanged, no text.
        EXPECT_EQ(failing_nth(1, get_error), ERR_TLS);
        EXPECT_EQ(failing_nth(1, [] { return __add_context("f", ERR_IO); }), ERR_IO);
        EXPECT_STREQ(failing_nth(1, [] { return format_error(ERR_IO); }), "");
        tls_thread_detach();
        tls_proc_detach(); // detached slots give null until attached again
        EXPECT_TRUE(!tls_get(TLS_SLOT_ERROR, 16) && get_error() == ERR_TLS);
        EXPECT_EQ(tls_proc_attach(), 0);
        set_error(ERR_NAK);
        EXPECT_EQ(get_error(), ERR_NAK);
        std::thread([] { EXPECT_EQ(get_error(), 0); }).join();
    });
    EXPECT_EQ(mem_outstanding(), before); // thread end frees the blocks
}

TEST(ErrorChain, ChainsSlotsRoomAndOddCodes)
{
    on_fresh_thread([] {
        int32_t c = __add_context("a", ERR_IO);
        EXPECT_EQ(c, 0x100 | ERR_IO);
        EXPECT_EQ(__add_context("b", c), c);
        __add_context("b", c); // handing the same code up twice names the function twice
        EXPECT_STREQ(format_error(c), "b()->b()->a()->IO error");
        EXPECT_EQ(__add_context("x", 0), 0);
        for (int i = 0; i < 4; i++) // the fifth chain takes the first slot over
            EXPECT_EQ(__add_context(("f" + std::to_string(i)).c_str(), ERR_NOT_FOUND), ((i + 1) % 4 + 1) << 8 | ERR_NOT_FOUND);
        EXPECT_STREQ(format_error(c), "f3()->not found");
        // A name that no longer fits is dropped: 21 bytes of message, links of 104.
        std::string name(100, 'n');
        int32_t r = __add_context(name.c_str(), ERR_RANGE);
        for (int i = 0; i < 10; i++)
            __add_context(name.c_str(), r);
        EXPECT_EQ(strlen(format_error(r)) + 1, 21u + 4 * 104u);
        EXPECT_TRUE(std::regex_match(format_error(__add_context("short", r)), std::regex("short\\(\\)->(n{100}\\(\\)->){4}out of room or range")));
        EXPECT_STREQ(format_error(__add_context("lower", -1)), "lower()->general error"); // no code: no chain
        struct { int32_t code; const char *text; } odd[] = {{0, ""}, {ERR_GENERAL, "general error"}, {0x700 | ERR_IO, "general error"}, {-1, "general error"},
                   {128, "Success"}, {129, "Invalid command received in current state"},
                   {163, "Failed to find hash table in ELF image"}, {164, "Unknown sahara error"},
                   {24, "unknown error"}, {127, "unknown error"}};
        for (auto &o : odd)
            EXPECT_STREQ(format_error(o.code), o.text) << o.code;
    });
    on_fresh_thread([] { EXPECT_STREQ(format_error(0x300 | ERR_IO), "bug!"); }); // an unused slot
}

TEST(Logger, HeaderStampsAndLogNumbers)
{
    fake_platform fake;
    on_fresh_thread([&] {
        logger_get_level(); // the ring starts here
        fake.clock += 1.5;
        logger_log("hello %d\n", 7);
        fake.clock += 2.25;
        logger_log("no line end");
        logger_log("\n");
        EXPECT_TRUE(std::regex_match(current_log(), std::regex("\n\\*\\*\\*\\* Log buffer \\[000001\\] \\d{4}-\\d\\d-\\d\\d_"
                                                               "\\d\\d:\\d\\d:\\d\\d \\*\\*\\*\\*\n\n\\[  1\\.500\\] hello 7\n"
                                                               "\\[  3\\.750\\] no line end\\[  3\\.750\\] \n")))
            << current_log();
        EXPECT_EQ(logger_get_level(), (uint32_t)LOG_INFO);
        logger_reset();
        EXPECT_NE(current_log().find("[000002]"), std::string::npos);
        on_fresh_thread([] { // each thread its own ring and numbers
            logger_log("other thread\n");
            EXPECT_EQ(current_log().find("hello"), std::string::npos);
            EXPECT_EQ(logger_log_number(), 1);
        });
        EXPECT_EQ(logger_log_number(), 2);
    });
    fake.local_time_ok = false;
    on_fresh_thread([] {
        logger_log("x\n");
        EXPECT_EQ(current_log(), "[  0.000] x\n"); // no header
        EXPECT_EQ(logger_log_number(), 0);
    });
}

TEST(Logger, RingEndsAndOverlongLines)
{
    fake_platform fake;
    temp_cwd cwd;
    on_fresh_thread([] { // a line exactly filling the ring: the next starts at its beginning
        logger_log("%s", std::string(LOG_RING_SIZE - ring_count() - STAMP, 'm').c_str());
        EXPECT_EQ(logger_save(), 0);
        std::string file = read_file(LOG_FILE_NAME); // the whole ring, header first
        EXPECT_EQ(file.size(), (size_t)LOG_RING_SIZE);
        EXPECT_EQ(file.substr(0, 10), "\n**** Log ");
        logger_log("next\n");
        EXPECT_EQ(current_log().substr(0, STAMP + 5), "[  0.000] next\n");
    });
    std::remove(LOG_FILE_NAME);
    on_fresh_thread([] { // a line crossing the ring end stays whole
        log_capture c;
        logger_log("%s", std::string(LOG_RING_SIZE - ring_count() - 2 * STAMP - 200, 'f').c_str());
        std::string msg(289, 'x');
        logger_log("%s\n", msg.c_str());
        EXPECT_EQ(c.lines.at(1), msg + "\n");
        EXPECT_EQ(ring_count(), LOG_RING_SIZE + 90);
        logger_save();
        std::string file = read_file(LOG_FILE_NAME);
        EXPECT_EQ(file.size(), (size_t)LOG_RING_SIZE);
        EXPECT_EQ(file.substr(file.size() - 300), "[  0.000] " + msg + "\n");
    });
    on_fresh_thread([] { // a huge message is cut, and the ring stays sound
        log_capture c;
        size_t header = ring_count();
        logger_log("%s", std::string(200000, 'h').c_str());
        EXPECT_EQ(ring_count(), LOG_RING_SIZE + LOG_RING_OVERHANG - 1);
        logger_log("after\n");
        EXPECT_EQ(c.lines.at(0).size() + STAMP, LOG_RING_SIZE + LOG_RING_OVERHANG - 1 - header);
        EXPECT_EQ(c.lines.at(1), "after\n");
        logger_view v;
        logger_current(&v);
        EXPECT_EQ(std::string(v.data + LOG_RING_OVERHANG - 1, STAMP + 6), "[  0.000] after\n");
    });
}

TEST(Logger, SubscribersMutingAndLastError)
{
    fake_platform fake;
    on_fresh_thread([] {
        log_capture a, b; // the same name: the second replaces the first
        auto none = [](const char *, void *) {};
        EXPECT_EQ(logger_subscribe("", none, nullptr) + logger_subscribe(nullptr, none, nullptr), -2);
        EXPECT_EQ(logger_subscribe("x", nullptr, nullptr), -1);
        logger_log("1\n");
        logger_mute();
        logger_mute();
        logger_log("muted\n");
        logger_unmute(); // one unmute ends any number of mutes
        logger_log("2\n");
        EXPECT_NE(current_log().find("muted"), std::string::npos);
        set_error(ERR_NAK); // a subscriber that clears the last error does not change it
        logger_subscribe("clear", [](const char *, void *) { set_error(0); }, nullptr);
        logger_log("3\n");
        EXPECT_EQ(get_error(), ERR_NAK);
        logger_unsubscribe("nobody");
        logger_unsubscribe("clear");
        logger_unsubscribe("test-capture");
        logger_log("4\n");
        EXPECT_TRUE(a.lines.empty());
        EXPECT_EQ(b.lines, (std::vector<std::string>{"1\n", "2\n", "3\n"}));
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
        logger_reset(); // the saved ring goes out again ahead of the next
        logger_log("second\n");
        logger_save();
        std::string added = read_file(LOG_FILE_NAME);
        EXPECT_EQ(added.substr(0, once.size()), once);
        EXPECT_TRUE(std::regex_search(added.substr(once.size()), std::regex("first[\\s\\S]*second")));
        std::ofstream(LOG_FILE_NAME, std::ios::trunc) << std::string(5 << 20, 'o');
        logger_save();
        std::string at_limit = read_file(LOG_FILE_NAME);
        EXPECT_TRUE(at_limit.size() > 5u << 20 && at_limit.rfind("ooo", 0) == 0) << at_limit.size();
        logger_save();
        std::string restarted = read_file(LOG_FILE_NAME);
        EXPECT_EQ(restarted.rfind("==== TRUNCATED TRUNCATED TRUNCATED!!! ====\n", 0), 0u);
        EXPECT_LT(restarted.size(), 5u << 20);
        std::remove(LOG_FILE_NAME);
        ASSERT_EQ(system("mkdir ravik_log.txt"), 0); // no file can be made
        EXPECT_EQ(logger_save(), ERR_IO);
    });
}

TEST(Util, HumanizeCrcStrtokAndAllocation)
{
    struct { uint64_t v; const char *text; } sizes[] = {{0, "0"}, {1000, "1000"}, {1023, "1023"}, {1024, "1K"}, {1536, "1536"}, {2048, "2K"}, {65536, "64K"},
                 {1049600, "1025K"}, {1048576, "1M"}, {1610612736, "1536M"}, {1073741824, "1G"},
                 {0x40000000ull * 5000, "5000G"}, {UINT64_MAX, "18446744073709551615"}};
    char buf[64];
    for (auto &s : sizes)
        EXPECT_STREQ(humanize_r(s.v, buf, sizeof(buf)), s.text);
    EXPECT_STREQ(humanize_r(1048576 * 123, buf, 3), "12");
    EXPECT_STREQ(humanize(2048), "2K");

    EXPECT_EQ(crc32(0, "123456789", 9), 0xCBF43926u);
    EXPECT_EQ(crc32(0x1234, "", 0), 0x1234u);
    EXPECT_EQ(crc32(crc32(0, "1234", 4), "56789", 5), 0xCBF43926u);

    char a[] = ",,one,,two;three,", b[] = "x y";
    char *sa = nullptr, *sb = nullptr;
    std::string tokens = ravik::strtok_r(a, ",;", &sa);
    tokens += ravik::strtok_r(b, " ", &sb); // two texts at once
    for (char *t; (t = ravik::strtok_r(nullptr, ",;", &sa)) || (t = ravik::strtok_r(nullptr, " ", &sb));)
        tokens += std::string("|") + t;
    EXPECT_EQ(tokens, "onex|two|three|y");
    EXPECT_EQ(ravik::strtok_r(nullptr, ",;", &sa), nullptr);

    mem_fail_nth(2); // just the second
    void *m[3] = {mem_zalloc(8), mem_zalloc(8), mem_zalloc(8)};
    mem_fail_nth(0);
    EXPECT_TRUE(m[0] && !m[1] && m[2]);
    auto *p = static_cast<char *>(mem_zalloc(4));
    memcpy(p, "abc", 4);
    EXPECT_EQ(failing_nth(1, [&] { return mem_realloc(p, 4, 64); }), nullptr); // the old block stays
    EXPECT_STREQ(p, "abc");
    p = static_cast<char *>(mem_realloc(p, 4, 64));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(std::string(p + 4, 60), std::string(60, '\0')); // a grown one comes zeroed
    for (void *q : {m[0], m[2], (void *)p})
        mem_free(q);
}

TEST(Util, HexdumpLinesAndRuns)
{
    on_fresh_thread([] {
        auto dump = [](const std::string &bytes) {
            log_capture c;
            hexdump(bytes.data(), bytes.size());
            std::string out;
            for (auto &l : c.lines)
                out += l == "*\n" ? l : l.substr(0, 8) + l.substr(58);
            return std::pair(c.lines, out);
        };
        EXPECT_TRUE(dump("abc").first.empty()); // off below level 3
        logger_set_level(LOG_DEBUG);
        EXPECT_EQ(dump(std::string(16, '0') + "\x01\x7f" + "abcdefghi").first,
                  (std::vector<std::string>{"00000000  30 30 30 30 30 30 30 30  30 30 30 30 30 30 30 30  |0000000000000000|\n",
                                            "00000010  01 7f 61 62 63 64 65 66  67 68 69                 |..abcdefghi     |\n"}));
        EXPECT_TRUE(dump("").first.empty());
        // Repeated lines collapse into one star; a partial last line after a
        // run prints with its offset; a differing line ends a run.
        EXPECT_EQ(dump(std::string(64, '\0')).second, "00000000  |................|\n*\n");
        EXPECT_EQ(dump(std::string(40, 'z')).second, "00000000  |zzzzzzzzzzzzzzzz|\n*\n00000020  |zzzzzzzz        |\n");
        EXPECT_EQ(dump(std::string(32, 'a') + std::string(16, 'b') + std::string(32, 'a')).second,
                  "00000000  |aaaaaaaaaaaaaaaa|\n*\n00000020  |bbbbbbbbbbbbbbbb|\n00000030  |aaaaaaaaaaaaaaaa|\n*\n");
    });
}
