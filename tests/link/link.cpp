// The device object, its property store and the transfer buffer over a
// scripted line.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <regex>

#include "core/core.h"
#include "link/buffer.h"
#include "link/properties.h"
#include "support/fake_platform.h"
#include "support/helpers.h"
#include "tags/tags.h"

using namespace ravik;
using namespace ravik::test;

namespace {
std::string chain() { return format_error(get_error()); }
// The result of a call and the error code it left.
#define R(call, want, err) do { EXPECT_EQ(call, want); EXPECT_EQ(get_error() & ERR_CODE_MASK, err); } while (0)
} // namespace

TEST(TransferBuffer, HoldPrintsReadsWritesAndTheirLimits)
{
    with_open_device([](fake_platform &fake) {
        R(buffer_printf("x"), 0, ERR_GENERAL); // never acquired: limit 0
        ASSERT_EQ(__buffer_acquire(), 0);
        ASSERT_EQ(buffer_printf("first %d", 1), 7);
        EXPECT_STREQ(format_error(__buffer_acquire()), "__buffer_acquire()->general error");
        EXPECT_NE(current_log().find("*** BUFFER IN USE! BUFFER IN USE!! ***\n"), std::string::npos);
        EXPECT_STREQ(buffer_base(), "first 1"); // the first hold stands
        EXPECT_EQ(__buffer_release() + __buffer_release(), 0); // one release ends any hold
        ASSERT_EQ(__buffer_acquire(), 0);
        EXPECT_EQ(buffer_avail(), 0);
        std::string all(BUFFER_SIZE, 'a');
        R(buffer_printf("%s", all.c_str()), 0, ERR_RANGE); // exactly the room: none for the NUL
        R(buffer_printf("%s", all.c_str() + 1), BUFFER_SIZE - 1, 0);
        R(buffer_printf("b"), 0, ERR_RANGE);
        EXPECT_EQ(chain(), "buffer_printf()->out of room or range");
        R(buffer_printf("%s", ""), 0, 0);
        EXPECT_EQ(buffer_rewind(), 0);
        fake.push_all({"hello", "world and more"});
        R(buffer_read(8), 5, 0);
        R(buffer_read(8), 3, 0); // the mark is absolute
        R(buffer_read(8), 0, ERR_RANGE);
        EXPECT_STREQ(buffer_base(), "hellowor");
        EXPECT_EQ(buffer_rewind(), 0); // keeps the limit for a print
        R(buffer_printf("%s", "12345678"), 0, ERR_RANGE);
        R(buffer_write(), 0, ERR_GENERAL); // nothing to write
        R(buffer_printf("%s", "<data/>"), 7, 0);
        fake.write_caps = {UINT32_MAX, 3, 0};
        R(buffer_write(), 7, 0);
        R(buffer_write(), 3, 0); // short, and no error at this layer; not consumed either
        R(buffer_write(), 0, ERR_IO);
        EXPECT_EQ(chain(), "buffer_write()->device_write()->IO error");
        EXPECT_EQ(buffer_rewind(), 0);
        R(buffer_read(100), 11, 0);
        R(buffer_read(100), 0, 0); // an idle line is no error here
        fake.push_bytes("z");
        R(buffer_read(4), 0, ERR_RANGE);
        R(buffer_write(), 0, ERR_GENERAL); // a fill above a smaller limit is refused
        EXPECT_EQ(fake.written, "<data/><da");
    });
}

TEST(TransferBuffer, TheLimitNeverPassesTheBuffer)
{
    with_open_device([](fake_platform &fake) {
        fake.push_bytes(std::string(2 * BUFFER_SIZE, 'y'));
        ASSERT_EQ(__buffer_acquire(), 0);
        for (int32_t wanted : {BUFFER_SIZE + 1, 2 * BUFFER_SIZE, INT32_MAX}) {
            R(buffer_read(wanted), 0, ERR_RANGE);
            R(buffer_printf("p"), 1, 0);
            R(buffer_printf("%s", std::string(BUFFER_SIZE - 1, 'q').c_str()), 0, ERR_RANGE);
            EXPECT_EQ(buffer_write(), 1);
            EXPECT_EQ(buffer_rewind(), 0);
        }
        EXPECT_EQ(fake.read_calls, 0);
        ASSERT_EQ(buffer_printf("head"), 4);
        R(buffer_read(0), BUFFER_SIZE - 4, 0); // 0: up to the whole buffer
        EXPECT_EQ(strlen(buffer_base()), (size_t)BUFFER_SIZE); // still a text when full
        R(buffer_read(0), 0, ERR_RANGE);
        EXPECT_EQ(fake.written, "ppp");
    });
}

TEST(TransferBuffer, AServiceOfTheSessionAndNoHalfOneWithoutMemory)
{
    fake_platform fake;
    in_session([] {
        char *base = buffer_base();
        ASSERT_NE(base, nullptr);
        EXPECT_EQ(device_getp("api.buffer", nullptr), static_cast<void *>(base));
        EXPECT_EQ(buffer_base(), base); // found again, not made again
        int64_t before = mem_outstanding();
        free_device();
        EXPECT_LT(mem_outstanding(), before);
        ASSERT_NE(get_device(), nullptr);
        int failures = 0; // the block, the subscription, the property's tagline and texts
        for (uint64_t n = 1; !failing_nth(n, buffer_base) && n < 20; n++, failures++) {
            EXPECT_EQ(chain().rfind("get_buffer()->", 0), 0u) << chain(); // no half service
            EXPECT_EQ(device_getp("api.buffer", nullptr), nullptr);       // (the leak check sees a block)
            EXPECT_EQ(failing_nth(n, buffer_avail), 0);
            EXPECT_EQ(failing_nth(n, __buffer_acquire) & ERR_CODE_MASK, ERR_NO_MEMORY);
            R(failing_nth(n, [] { return buffer_printf("x"); }), 0, ERR_NO_MEMORY);
        }
        EXPECT_GE(failures, 5);
        EXPECT_EQ(__buffer_acquire(), 0);
    });
}

TEST(DeviceIo, ReadsWritesAndTheirFailures)
{
    with_open_device([&](fake_platform &fake) {
        log_capture c;
        set_error(ERR_NAK);
        double t0 = fake.clock;
        char buf[48];
        R(device_read(buf, sizeof(buf)), 0, 0); // idle: 10 reads, 11 s
        EXPECT_EQ(fake.read_calls, 10);
        EXPECT_NEAR(fake.clock - t0, 11.0, 1e-3);
        fake.push_idle(3);
        fake.push_bytes("hello");
        EXPECT_EQ(device_read(buf, sizeof(buf)), 5); // what comes, not a full buffer
        EXPECT_EQ(std::string(buf, 5) + std::to_string(fake.read_calls) + "/" + std::to_string(fake.slept_ms), "hello14/1300");
        EXPECT_TRUE(c.lines.empty());
        for (int i = 0; i < 10; i++)
            fake.push_read_error(EIO);
        EXPECT_EQ(device_read(buf, sizeof(buf)), 0);
        EXPECT_EQ(c.lines, std::vector<std::string>(10, "ReadFile() failed, GetLastError()=5\n"));
        fake.write_caps = {3, 0};
        R(device_write("abcdef", 6), 3, 0);
        R(device_write("abcdef", 6), 0, ERR_IO);
        EXPECT_EQ(chain(), "device_write()->IO error");
        fake.write_error = EPIPE;
        R(device_write("x", 1), 0, ERR_IO);
        EXPECT_EQ(c.lines.back(), "WriteFile() failed, GetLastError()=32\n");
        EXPECT_EQ(fake.written, "abc");
        fake.write_error = 0;
        device_set_flag(DEVICE_FLAG_HEXDUMP | DEVICE_FLAG_DEBUG);
        c.lines.clear();
        fake.push_bytes("ping");
        device_read(buf, sizeof(buf)), device_write("pong", 4);
        ASSERT_EQ(c.lines.size(), 4u);
        EXPECT_EQ(c.lines[0] + c.lines[1].substr(0, 21) + c.lines[2] + c.lines[3].substr(0, 21),
                  "Dumping 4 bytes read\n00000000  70 69 6e 67Dumping 4 bytes written\n00000000  70 6f 6e 67");
    });
}

namespace {
template <int N> int32_t hear(int32_t ev, void *, void *ctx)
{
    static_cast<std::string *>(ctx)->append(std::to_string(N) + ":" + std::to_string(ev) + " ");
    if (N == 1) // takes itself off the list as it hears
        device_unsubscribe(hear<1>);
    return 0;
}
} // namespace

TEST(DeviceEventsAndFlags, OrderSelfRemovalDoubleSubscriptionAndTheDebugLevel)
{
    fake_platform fake;
    in_session([] {
        std::string heard;
        for (device_fn cb : {hear<0>, hear<1>, hear<2>, hear<0>})
            device_subscribe(cb, &heard);
        device_broadcast(7, nullptr);
        device_unsubscribe(hear<0>); // both entries go
        device_broadcast(8, nullptr);
        EXPECT_EQ(heard, "0:7 1:7 2:7 0:7 2:8 ");
        device_unsubscribe(hear<2>);
        std::string levels; // the debug flag forces level 3 on every setting, not on a clearing
        for (auto [set, flag] : std::initializer_list<std::pair<bool, uint32_t>>{{true, DEVICE_FLAG_DEBUG}, {false, DEVICE_FLAG_BNR}, {true, DEVICE_FLAG_BNR}}) {
            set ? device_set_flag(flag) : device_clr_flag(flag);
            levels += std::to_string(logger_get_level());
            logger_set_level(LOG_WARN);
        }
        EXPECT_EQ(levels, "313");
        EXPECT_TRUE(device_has_flag(DEVICE_FLAG_BNR | DEVICE_FLAG_SAVE_LOG)); // any of them
        device_clr_flag(DEVICE_FLAG_BNR | DEVICE_FLAG_DEBUG);
        EXPECT_FALSE(device_has_flag(DEVICE_FLAG_BNR | DEVICE_FLAG_DEBUG));
        EXPECT_EQ(logger_get_level(), (uint32_t)LOG_WARN);
    });
}

TEST(DeviceLifecycle, EndOfSessionDumpEventsAndWhatStays)
{
    fake_platform fake;
    in_session([&] {
        event_log log;
        device_set_name("keep-me");
        device_set_flag(DEVICE_FLAG_UFS_LOCK);
        ASSERT_EQ(device_open(), 0);
        device_subscribe(record_events, &log);
        device_setu("cpu.id", 0x1234);
        device_setp("api.test", reinterpret_cast<void *>(uintptr_t{0x7FFFABCD12345678}));
        RK_LOGI("visible\n");
        free_device();
        ASSERT_EQ(log.lines.size(), 1u); // the dump and its end reach no subscriber
        EXPECT_TRUE(any_holds(log.lines, "visible\n"));
        EXPECT_EQ(missing_in_order(previous_log(), {"DEVICE {\n", "  addr  = \"0x", "  cpu.id = \"4660\",\n",
                                                   "  api.test = \"0x7FFFABCD12345678\",\n", "}\n"}), "") << previous_log();
        EXPECT_NE(current_log().find("Session ended\n"), std::string::npos); // the new ring begins with it
        ASSERT_GE(log.events.size(), 2u);
        EXPECT_EQ(std::tuple(log.events.end()[-2], log.events.back(), log.free_names), std::tuple(DEVICE_EVENT_SAVE_LOGS, DEVICE_EVENT_FREE,
                                                                                                   std::vector<std::string>{"keep-me"}));
        device_object *dev = get_device();
        ASSERT_TRUE(dev && fake.close_calls == 1);
        EXPECT_EQ(std::tuple(std::string(dev->name), dev->flags, dev->handle, list_empty(&dev->subscribers)),
                  std::tuple("keep-me", DEVICE_FLAG_UFS_LOCK | DEVICE_FLAG_ZLP_AWARE, -1, true)); // the serial layer copes
        EXPECT_EQ(device_get("cpu.id", nullptr), nullptr); // a new store
    });
    temp_cwd cwd;
    in_session([] { // below info level: no dump, but the file and the events
        logger_set_level(LOG_WARN);
        event_log log;
        device_subscribe(record_events, &log);
        device_set_flag(DEVICE_FLAG_SAVE_LOG);
        RK_LOGE("an error line\n");
        free_device();
        std::string file = read_file(LOG_FILE_NAME);
        EXPECT_TRUE(file.find("an error line\n") != std::string::npos && file.find("DEVICE {") == std::string::npos);
        EXPECT_EQ(log.events.back(), DEVICE_EVENT_FREE);
    });
    in_session([] {
        get_error(); // the error block exists
        EXPECT_EQ(failing_nth(1, get_device), nullptr);
        EXPECT_EQ(chain(), "get_device()->TLS error");
        ASSERT_NE(get_device(), nullptr);
        free_device(); // the next get_device makes a new store first
        EXPECT_EQ(failing_nth(1, [] { return device_set("k", "v"); }), 1);
        EXPECT_EQ(chain(), "get_device()->out of memory");
        EXPECT_EQ(failing_nth(1, [] { return device_getu("k", 5); }), 5u);
        EXPECT_STREQ(failing_nth(1, [] { return device_get("k", "d"); }), "d");
        EXPECT_EQ(failing_nth(1, [] { return device_unset("k"); }), 1);
        EXPECT_EQ(device_set("k", "v"), 0); // whole again once memory is there
        EXPECT_STREQ(device_get("k", nullptr), "v");
    });
}

TEST(DeviceProperties, TextNumbersAndPointers)
{
    in_session([] {
        EXPECT_EQ((std::vector<int32_t>{device_set("cpu.name", "abc"), device_set("storage.type", "ufs"), device_set("CPU.NAME", "def")}),
                  std::vector<int32_t>(3, 0)); // keys ignore case and keep their place
        EXPECT_STREQ(device_get("cpu.Name", nullptr), "def");
        tagline *line = list_entry(get_device()->properties->lines.next, tagline, link);
        EXPECT_EQ(std::string(line->name) + " " + line->attrs, "device cpu.name=\"def\" storage.type=\"ufs\"");
        EXPECT_EQ(device_set("cpu.name", nullptr) + device_set(nullptr, "x") + device_unset(nullptr), -3);
        EXPECT_STREQ(device_get(nullptr, "d"), "d");
        EXPECT_EQ(device_unset("CPU.name") + device_unset("cpu.name"), 0);
        EXPECT_STREQ(device_get("cpu.name", "gone"), "gone");
        EXPECT_EQ((std::vector<int32_t>{device_setu("zero", 0), device_setu("max", 4294967295u), device_seti("signed", -1),
                                        device_set("hex", "0x000A50E1")}), std::vector<int32_t>(4, 0));
        EXPECT_EQ(std::string(device_get("zero", "")) + "|" + device_get("signed", ""), "0|-1");
        EXPECT_EQ((std::vector<uint32_t>{device_getu("zero", 7), device_getu("missing", 7), device_getu("max", 0), device_getu("hex", 0),
                                         (uint32_t)device_geti("signed", 0), (uint32_t)device_geti("none", -9)}),
                  (std::vector<uint32_t>{7, 7, 4294967295u, 0xA50E1u, (uint32_t)-1, (uint32_t)-9})); // a stored 0 reads as the default
        int here = 0;
        for (auto [p, text] : {std::pair<uintptr_t, const char *>{0x7FFFABCD12345678, "0x7FFFABCD12345678"},
                               {0xFFFFFFFF00000010, "0xFFFFFFFF00000010"}}) {
            ASSERT_EQ(device_setp("api.test", reinterpret_cast<void *>(p)), 0);
            EXPECT_EQ(device_getp("api.test", nullptr), reinterpret_cast<void *>(p));
            EXPECT_STREQ(device_get("api.test", ""), text);
        }
        EXPECT_EQ(device_getp("api.none", &here), &here);
        int failures = 0; // a copy that fails changes nothing
        for (uint64_t n = 1; n < 20; n++, failures++) {
            int32_t r = failing_nth(n, [] { return device_set("b", "2"); });
            if (r == 0)
                break;
            EXPECT_TRUE(std::regex_match(format_error(r), std::regex("device_set\\(\\)->xtags_set\\(\\)->tagline_set\\(\\)->.*out of memory")))
                << format_error(r);
            EXPECT_STREQ(device_get("storage.type", nullptr), "ufs");
            device_unset("b");
        }
        EXPECT_GT(failures, 0);
        EXPECT_STREQ(device_get("b", nullptr), "2");
    });
}
