// A whole session against the simulator, driven by the scripted host:
// greeting, identification, upload, nop, configure, program, read-back,
// reset and reconnect.
#ifdef RAVIK_HAVE_SIM

#include "sim/host.h"

#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <sys/stat.h>

using namespace simtest;

namespace {

std::vector<uint8_t> pattern(size_t n, uint32_t seed)
{
    std::vector<uint8_t> v(n);
    for (size_t i = 0; i < n; i++) {
        seed = seed * 1103515245u + 12345u;
        v[i] = (uint8_t)(seed >> 16);
    }
    return v;
}

} // namespace

TEST(SimSession, FlashReadBackResetAndReconnect)
{
    ravik_sim::options o;
    o.max_payload = 4096;
    o.id.serial = 0xCAFE0001;
    o.id.chip_id = 0x0123;
    o.id.sbl_version = 7;
    sandbox box(o);
    host h(box.target->link());
    ASSERT_TRUE(h.is_open());

    // Greeting and identification.
    chip_facts facts;
    std::string why;
    ASSERT_TRUE(greet(h, facts, why)) << why;
    EXPECT_EQ(facts.serial, 0xCAFE0001u);
    EXPECT_EQ(facts.serial_payload.size(), 4u);
    EXPECT_EQ((facts.hwid_word >> 12) & 0xFFFF, 0x0123u);
    EXPECT_EQ(facts.sbl, 7u);

    // Upload: the boot ROM pulls header, program headers and segments.
    ASSERT_EQ(upload(h, ravik_sim::demo_programmer(), why), 0) << why;
    auto images = box.target->wire().of_kind("image");
    ASSERT_EQ(images.size(), 1u);
    EXPECT_EQ(images[0].text, "verified");

    // The programmer answers with log documents and one response.
    reply r = h.command("nop value=\"Hello\"");
    ASSERT_TRUE(r.complete) << r.text;
    EXPECT_TRUE(r.ack);
    EXPECT_FALSE(r.logs.empty());

    for (const char *var : {"boot_device", "cpu.ver", "cpu.vername", "secure"}) {
        r = h.command(std::string("getvar value=\"") + var + "\"");
        ASSERT_TRUE(r.ack) << var;
        EXPECT_EQ(r.response.count(var), 1u) << r.text;
    }
    EXPECT_EQ(h.command("getvar value=\"boot_device\"").response["boot_device"], "eMMC");
    EXPECT_EQ(h.command("getvar value=\"secure\"").response["secure"], "0");

    // Storage commands wait for configure; too large an offer is refused
    // with the size the target takes.
    EXPECT_FALSE(h.command("getStorageInfo physical_partition_number=\"0\"").ack);
    r = h.command("configure MemoryName=\"eMMC\" Verbose=\"0\" ZlpAwareHost=\"1\" "
                  "MaxPayloadSizeToTargetInBytes=\"1048576\"");
    ASSERT_TRUE(r.complete);
    EXPECT_FALSE(r.ack);
    EXPECT_EQ(r.response["MaxPayloadSizeToTargetInBytes"], "4096");
    r = h.command("configure MemoryName=\"eMMC\" MaxPayloadSizeToTargetInBytes=\"4096\"");
    EXPECT_TRUE(r.ack) << r.text;
    EXPECT_FALSE(h.command("configure MemoryName=\"UFS\" MaxPayloadSizeToTargetInBytes=\"4096\"").ack);

    // Program 20 sectors, read them back with dump in three requests.
    const std::vector<uint8_t> data = pattern(20 * 512, 42);
    reply final;
    ASSERT_TRUE(program(h,
                        "SECTOR_SIZE_IN_BYTES=\"512\" num_partition_sectors=\"20\" "
                        "physical_partition_number=\"0\" start_sector=\"2048\"",
                        data, final));
    EXPECT_TRUE(final.ack) << final.text;
    EXPECT_EQ(box.file_bytes(0, 2048 * 512, data.size()), std::string(data.begin(), data.end()));

    auto back = dump(h,
                     "label=\"x\" SECTOR_SIZE_IN_BYTES=\"512\" num_partition_sectors=\"20\" "
                     "physical_partition_number=\"0\" start_sector=\"2048\" save_to=\"buffer\"",
                     data.size(), 4096);
    EXPECT_EQ(back, data);
    auto requests = box.target->wire().of_kind("dump-request");
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(requests[2].size, 4096u); // the last one still asks for a full chunk
    auto raw_in = box.target->wire().of_kind("raw-in");
    ASSERT_EQ(raw_in.size(), 1u);
    EXPECT_EQ(raw_in[0].size, data.size());

    // The dump leaves no answer behind: the next command gets its own.
    EXPECT_TRUE(h.command("nop value=\"again\"").ack);

    // Reset: the answer, then the port goes and comes back under the same
    // link, speaking Sahara.
    r = h.command("power value=\"reset\"");
    EXPECT_TRUE(r.ack);
    EXPECT_TRUE(h.hung_up(2000));
    h.close();
    ASSERT_TRUE(box.target->wire().wait_kind("reset", 1, 2000));
    host again(box.target->link(), 3000);
    ASSERT_TRUE(again.is_open());
    // Straight from its HELLO into image transfer, as after a power cycle.
    ASSERT_EQ(upload(again, ravik_sim::demo_programmer(), why, false), 0) << why;
    // A fresh programmer: configure again before storage.
    EXPECT_FALSE(again.command("getStorageInfo physical_partition_number=\"0\"").ack);
    EXPECT_EQ(box.target->wire().of_kind("power-on").size(), 2u);

    // The transcript has every command as received, in order.
    auto cmds = box.target->wire().commands();
    ASSERT_GE(cmds.size(), 10u);
    EXPECT_EQ(cmds.front(), "<?xml version=\"1.0\"?><data><nop value=\"Hello\"/></data>");
}

TEST(SimSession, UfsLunsWithBigSectorsAndReadCommand)
{
    ravik_sim::options o;
    o.storage = ravik_sim::storage_kind::ufs;
    o.luns = 4;
    o.info_wording = 2;
    sandbox box(o);
    host h(box.target->link());
    ASSERT_TRUE(bring_up(h));
    ASSERT_TRUE(h.command("configure MemoryName=\"UFS\" MaxPayloadSizeToTargetInBytes=\"65536\"").ack);

    reply r = h.command("getStorageInfo physical_partition_number=\"3\"");
    ASSERT_TRUE(r.ack);
    EXPECT_TRUE(r.has_log("SECTOR_SIZE_IN_BYTES=4096"));
    EXPECT_TRUE(r.has_log("num_physical_partitions=4"));
    EXPECT_TRUE(r.has_log("num_partition_sectors=4096"));
    EXPECT_FALSE(h.command("getStorageInfo physical_partition_number=\"4\"").ack);

    // 512-byte sectors are refused on a 4096-byte device.
    reply final;
    EXPECT_FALSE(program(h,
                         "SECTOR_SIZE_IN_BYTES=\"512\" num_partition_sectors=\"1\" "
                         "physical_partition_number=\"2\" start_sector=\"10\"",
                         std::vector<uint8_t>(512), final));

    const std::vector<uint8_t> data = pattern(3 * 4096, 7);
    ASSERT_TRUE(program(h,
                        "SECTOR_SIZE_IN_BYTES=\"4096\" num_partition_sectors=\"3\" "
                        "physical_partition_number=\"2\" start_sector=\"10\"",
                        data, final));
    EXPECT_TRUE(final.ack);
    EXPECT_EQ(box.file_bytes(2, 10 * 4096, data.size()), std::string(data.begin(), data.end()));
    // Other LUNs are untouched at that place.
    EXPECT_EQ(box.file_bytes(1, 10 * 4096, 4096), std::string(4096, '\0'));

    // read: an ACK, the raw data, a final answer.
    h.send_command("read SECTOR_SIZE_IN_BYTES=\"4096\" num_partition_sectors=\"2\" "
                   "physical_partition_number=\"2\" start_sector=\"11\"");
    reply ack = h.read_reply();
    ASSERT_TRUE(ack.ack);
    auto raw = h.read_exact(2 * 4096, 2000);
    EXPECT_EQ(raw, std::vector<uint8_t>(data.begin() + 4096, data.end()));
    EXPECT_TRUE(h.read_reply().ack);

    // A range past the end of the LUN is refused before any raw data.
    EXPECT_FALSE(h.command("read SECTOR_SIZE_IN_BYTES=\"4096\" num_partition_sectors=\"2\" "
                           "physical_partition_number=\"0\" start_sector=\"4095\"")
                     .ack);
}

TEST(SimSession, IdentityVariantsAndReopenInCommandMode)
{
    ravik_sim::options o;
    o.id.id_in_serial = true;
    o.id.chip_id = 0x00ABCDEF;
    sandbox box(o);
    {
        host h(box.target->link());
        chip_facts facts;
        std::string why;
        ASSERT_TRUE(greet(h, facts, why)) << why;
        ASSERT_EQ(facts.serial_payload.size(), 8u);
        EXPECT_EQ(word_at(facts.serial_payload, 4), 0x00ABCDEFu);
        // A client command the ROM does not know ends with its status.
        h.write(words({13, 12, 99}));
        auto end = h.read_once(48, 2000);
        EXPECT_EQ(word_at(end, 0), 4u);
        EXPECT_EQ(word_at(end, 12), 31u);
        // A packet that does not belong to command mode.
        h.write(words({5, 8}));
        end = h.read_once(48, 2000);
        EXPECT_EQ(word_at(end, 0), 4u);
        EXPECT_EQ(word_at(end, 12), 1u);
    }
    // Closing and opening again starts over with HELLO.
    host h(box.target->link());
    auto hello = h.read_once(48, 2000);
    ASSERT_EQ(hello.size(), 48u);
    EXPECT_EQ(word_at(hello, 0), 1u);
    EXPECT_GE(box.target->wire().of_kind("open").size(), 2u);
}

TEST(SimSession, ProgrammerIsCheckedByteForByte)
{
    sandbox box;
    host h(box.target->link());
    chip_facts facts;
    std::string why;
    ASSERT_TRUE(greet(h, facts, why)) << why;
    auto image = ravik_sim::demo_programmer();
    image[0x1000 + 30000] ^= 0x01; // inside the first loadable segment
    EXPECT_EQ(upload(h, image, why), 34);
    auto images = box.target->wire().of_kind("image");
    ASSERT_EQ(images.size(), 1u);
    EXPECT_EQ(images[0].text, "mismatch");
    EXPECT_EQ(box.target->wire().of_kind("programmer-start").size(), 0u);
}

TEST(SimSession, ElfIsPulledInChunksOfItsSegments)
{
    // The demo programmer is the build's file, and a valid 64-bit ELF.
    std::ifstream f(RAVIK_SIM_DEMO_ELF, std::ios::binary);
    std::vector<uint8_t> file((std::istreambuf_iterator<char>(f)), {});
    const auto image = ravik_sim::demo_programmer();
    ASSERT_EQ(file, image);
    ASSERT_GE(image.size(), 64u);
    EXPECT_EQ(std::string(image.begin(), image.begin() + 4), "\x7F" "ELF");
    EXPECT_EQ(image[4], 2); // 64-bit
    uint64_t phoff = word_at(image, 32);
    uint32_t phnum = image[56] | image[57] << 8;
    uint64_t loaded = 0;
    for (uint32_t i = 0; i < phnum; i++) {
        size_t p = phoff + 56 * i;
        uint64_t off = word_at(image, p + 8), size = word_at(image, p + 32);
        ASSERT_LE(off + size, image.size());
        if (word_at(image, p) == 1)
            loaded += size;
    }

    for (int read64 : {-1, 0}) {
        ravik_sim::options o;
        o.read64 = read64;
        o.sahara_chunk = 0x800;
        sandbox box(o);
        host h(box.target->link());
        ASSERT_TRUE(bring_up(h));
        auto tx = box.target->wire().of_kind("sahara-tx");
        size_t r32 = 0, r64 = 0;
        for (auto &e : tx) {
            r32 += e.text.rfind("READ_DATA ", 0) == 0;
            r64 += e.text.rfind("READ_DATA_64 ", 0) == 0;
        }
        if (read64 < 0) {
            EXPECT_EQ(r32, 1u); // the first 52 bytes, before the class is known
            EXPECT_GT(r64, 0u);
        } else {
            EXPECT_EQ(r64, 0u);
        }
        uint64_t served = 0;
        for (auto &e : box.target->wire().of_kind("read-data")) {
            EXPECT_LE(e.size, 0x800u);
            served += e.size;
        }
        EXPECT_EQ(served, 64 + 3 * 56 + loaded); // header, program headers, segments
    }
}

#endif
