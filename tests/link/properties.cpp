// The device's property store: text and number forms, keys, the dump at the
// end of a session, and the store's life with the device object.
#include <gtest/gtest.h>

#include <cstdio>
#include <regex>
#include <string>

#include "core/core.h"
#include "link/buffer.h"
#include "link/device.h"
#include "link/properties.h"
#include "support/fake_platform.h"
#include "support/helpers.h"
#include "tags/tags.h"

using namespace ravik;
using namespace ravik::test;

TEST(DeviceProperties, TextKeysIgnoreCaseAndKeepTheirPlace)
{
    in_session([] {
        EXPECT_EQ(device_set("cpu.name", "abc"), 0);
        EXPECT_EQ(device_set("storage.type", "ufs"), 0);
        EXPECT_EQ(device_set("CPU.NAME", "def"), 0);
        EXPECT_STREQ(device_get("cpu.Name", nullptr), "def");
        EXPECT_STREQ(device_get("none", "dflt"), "dflt");
        tagline *line = list_entry(get_device()->properties->lines.next, tagline, link);
        EXPECT_STREQ(line->name, "device");
        EXPECT_STREQ(line->attrs, "cpu.name=\"def\" storage.type=\"ufs\"");

        EXPECT_EQ(device_set("cpu.name", nullptr), -1);
        EXPECT_EQ(device_set(nullptr, "x"), -1);
        EXPECT_STREQ(device_get("cpu.name", nullptr), "def");
        EXPECT_EQ(device_get(nullptr, "d"), std::string("d"));

        EXPECT_EQ(device_unset("CPU.name"), 0);
        EXPECT_EQ(device_unset("cpu.name"), 0);
        EXPECT_EQ(device_unset(nullptr), -1);
        EXPECT_STREQ(device_get("cpu.name", "gone"), "gone");
    });
}

TEST(DeviceProperties, NumbersAndTheZeroRule)
{
    in_session([] {
        ASSERT_EQ(device_setu("fh.storage_inited", 0), 0);
        EXPECT_STREQ(device_get("fh.storage_inited", nullptr), "0");
        EXPECT_EQ(device_getu("fh.storage_inited", 7), 7u); // a stored 0 reads as the default
        EXPECT_EQ(device_getu("missing", 7), 7u);
        ASSERT_EQ(device_setu("cpu.serial", 4294967295u), 0);
        EXPECT_EQ(device_getu("cpu.serial", 0), 4294967295u);
        ASSERT_EQ(device_seti("signed", -1), 0);
        EXPECT_STREQ(device_get("signed", nullptr), "-1");
        EXPECT_EQ(device_geti("signed", 0), -1);
        EXPECT_EQ(device_geti("none", -9), -9);
        // Base detection: a value may be written in hex.
        ASSERT_EQ(device_set("cpu.id", "0x000A50E1"), 0);
        EXPECT_EQ(device_getu("cpu.id", 0), 0xA50E1u);
    });
}

TEST(DeviceProperties, PointersRoundTripOnSixtyFourBitAddresses)
{
    in_session([] {
        int on_the_heap = 0;
        void *addrs[] = {&on_the_heap, reinterpret_cast<void *>(uintptr_t{0x7FFFABCD12345678}),
                         reinterpret_cast<void *>(uintptr_t{0xFFFFFFFF00000010})};
        for (void *p : addrs) {
            ASSERT_EQ(device_setp("api.test", p), 0);
            EXPECT_EQ(device_getp("api.test", nullptr), p);
            char expect[32];
            snprintf(expect, sizeof(expect), "0x%lX", (unsigned long)(uintptr_t)p);
            EXPECT_STREQ(device_get("api.test", nullptr), expect);
        }
        void *dflt = &on_the_heap;
        EXPECT_EQ(device_getp("api.none", dflt), dflt);
    });
}

TEST(DeviceProperties, DumpListsEveryPropertyInStoreOrder)
{
    temp_cwd cwd;
    in_session([] {
        device_set_name("ttyTEST");
        device_setu("cpu.id", 0x1234);
        device_set("cpu.name", "abc");
        char *buf = buffer_base(); // a service registers itself in the store
        ASSERT_NE(buf, nullptr);
        free_device();
        std::string log = previous_log();
        char buffer_line[64];
        snprintf(buffer_line, sizeof(buffer_line), "  api.buffer = \"0x%lX\",\n",
                 (unsigned long)(uintptr_t)buf);
        EXPECT_EQ(missing_in_order(log, {"DEVICE {\n", "  addr  = \"0x", "  cpu.id = \"4660\",\n",
                                         "  cpu.name = \"abc\",\n", buffer_line, "}\n"}),
                  "")
            << log;
        // The services are gone with the session, the store is a new one.
        EXPECT_EQ(device_get("cpu.name", nullptr), nullptr);
        EXPECT_EQ(device_getp("api.buffer", nullptr), nullptr);
        EXPECT_STREQ(device_get_name(), "ttyTEST");
    });
}

TEST(DeviceProperties, NoStoreWithoutMemory)
{
    in_session([] {
        ASSERT_NE(get_device(), nullptr);
        free_device();
        // The next get_device makes a new store first: that allocation fails.
        mem_fail_nth(1);
        EXPECT_EQ(device_set("k", "v"), 1);
        mem_fail_nth(0);
        EXPECT_EQ(get_error() & ERR_CODE_MASK, ERR_NO_MEMORY);
        EXPECT_STREQ(format_error(get_error()), "get_device()->out of memory");
        mem_fail_nth(1);
        EXPECT_EQ(device_getu("k", 5), 5u);
        mem_fail_nth(1);
        EXPECT_STREQ(device_get("k", "d"), "d");
        mem_fail_nth(1);
        EXPECT_EQ(device_unset("k"), 1);
        mem_fail_nth(0);
        // The object is whole again once memory is there.
        EXPECT_EQ(device_set("k", "v"), 0);
        EXPECT_STREQ(device_get("k", nullptr), "v");
    });
}

TEST(DeviceProperties, CopyFailuresGiveNoMemoryAndChangeNothing)
{
    in_session([] {
        ASSERT_EQ(device_set("a", "1"), 0);
        int failures = 0;
        for (uint64_t n = 1; n < 20; n++) {
            mem_fail_nth(n);
            int32_t r = device_set("b", "2");
            mem_fail_nth(0);
            if (r == 0)
                break;
            failures++;
            EXPECT_EQ(r & ERR_CODE_MASK, ERR_NO_MEMORY);
            EXPECT_TRUE(std::regex_match(format_error(r),
                                         std::regex(R"(device_set\(\)->xtags_set\(\)->tagline_set\(\)->.*out of memory)")))
                << format_error(r);
            EXPECT_STREQ(device_get("a", nullptr), "1");
            device_unset("b");
        }
        EXPECT_EQ(failures, 4);
        EXPECT_STREQ(device_get("b", nullptr), "2");
    });
}
