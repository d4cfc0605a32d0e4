// The simulated target as a sound reference, checked through a host of the test's
// own written from the protocol, so that a misreading shared with the library
// cannot hide behind it: the boot ROM takes exactly the programmer, every LUN
// holds a valid table of its layout, patches land where their arithmetic says.
#include <gtest/gtest.h>

#ifdef RAVIK_HAVE_SIM

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include "support/sim_session.h"

using namespace ravik::test;

namespace {

std::string words(std::initializer_list<uint32_t> w, size_t pad_to = 0)
{
    std::string s;
    for (uint32_t v : w)
        put_le(s, 4, v);
    s.resize(std::max(s.size(), pad_to), '\0');
    return s;
}

struct host {
    int fd;
    std::string in;
    explicit host(const std::string &link) : fd(::open(link.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC))
    {
        termios t;
        if (::tcgetattr(fd, &t) == 0)
            ::cfmakeraw(&t), ::tcsetattr(fd, TCSANOW, &t);
    }
    ~host() { ::close(fd); }
    // A blocking terminal takes the whole of a write.
    void write(const std::string &s) { EXPECT_EQ(::write(fd, s.data(), s.size()), (ssize_t)s.size()); }
    bool fill() // false once the line is quiet for longer than any answer takes
    {
        char buf[65536];
        pollfd q = {fd, POLLIN, 0};
        ssize_t n = ::poll(&q, 1, 5000) == 1 ? ::read(fd, buf, sizeof buf) : 0;
        in.append(buf, n > 0 ? (size_t)n : 0);
        return n > 0;
    }
    std::string take(size_t n)
    {
        while (in.size() < n && fill()) {
        }
        std::string out = in.substr(0, n);
        return in.erase(0, out.size()), out;
    }
    std::string packet() { std::string p = take(8); return p.size() < 8 ? p : p + take(le(p, 4, 4) - 8); }
    // Log documents come first; the answer is the one with the response.
    bool command(const std::string &tag)
    {
        write("<?xml version=\"1.0\"?><data><" + tag + "/></data>");
        size_t at = 0, end = 0;
        while ((at = in.find("<response")) == std::string::npos || (end = in.find("</data>", at)) == std::string::npos)
            if (!fill())
                return false;
        const bool ack = in.substr(at, end - at).find("value=\"ACK\"") != std::string::npos;
        in.erase(0, end + 7);
        return ack;
    }
};

// From HELLO straight into image transfer, serving every range asked for:
// the status of END_IMAGE_TX, or -1 on a protocol failure.
int upload(host &h, const std::string &image)
{
    if (le(h.packet(), 0, 4) != 1)
        return -1;
    h.write(words({2, 48, 2, 2, 0, 0}, 48));
    for (;;) {
        const std::string p = h.packet();
        const uint32_t cmd = p.size() < 8 ? 0 : (uint32_t)le(p, 0, 4);
        if (cmd == 4 && le(p, 12, 4) != 0)
            return (int)le(p, 12, 4);
        if (cmd == 4)
            break;
        const bool wide = cmd == 18;
        const uint64_t off = le(p, wide ? 16 : 12, wide ? 8 : 4), n = le(p, wide ? 24 : 16, wide ? 8 : 4);
        if ((cmd != 3 && !wide) || off + n > image.size())
            return -1;
        h.write(image.substr(off, n));
    }
    h.write(words({5, 8}));
    return le(h.packet(), 0, 4) == 6 ? 0 : -1;
}

// The table of one LUN as layout text, sizes in KiB, "*" for the rest. Beyond
// a sound table it holds what the simulator promises: a protective MBR, the
// primary array at LBA 2, the backup array just before its header, the usable
// range the arrays leave, and the partitions in order without overlap.
std::string layout_of(const std::string &disk, uint32_t bs, unsigned lun)
{
    EXPECT_EQ(check_gpt(disk, bs), "");
    EXPECT_EQ(disk.substr(510, 2) + disk[450], "\x55\xAA\xEE");
    const std::string h = disk.substr(bs, bs);
    const uint64_t count = le(h, 80, 4), array = (count * 128 + bs - 1) / bs;
    const uint64_t backup_at = le(disk, disk.size() - bs + 72, 8), last_usable = le(h, 48, 8);
    EXPECT_EQ(std::vector<uint64_t>({le(h, 12, 4), le(h, 84, 4), le(h, 72, 8), backup_at + array, le(h, 40, 8)}),
              std::vector<uint64_t>({92, 128, 2, disk.size() / bs - 1, 2 + array}));
    EXPECT_EQ(last_usable, backup_at - 1);
    EXPECT_TRUE(disk.substr(2 * bs, count * 128) == disk.substr(backup_at * bs, count * 128));
    std::string out;
    for (size_t e = 2 * bs, prev = 0; e < 2 * bs + count * 128; e += 128) {
        const uint64_t first = le(disk, e + 32, 8), last = le(disk, e + 40, 8), attrs = le(disk, e + 48, 8);
        if (disk.compare(e, 16, std::string(16, '\0')) == 0)
            continue;
        EXPECT_GT(first, prev);
        prev = last;
        out += std::to_string(lun) + " ";
        for (int k = 0; k < 36 && disk[e + 56 + 2 * k]; k++)
            out += disk[e + 56 + 2 * k];
        out += last == last_usable ? " *" : " " + std::to_string((last - first + 1) * bs / 1024) + "K";
        out += attrs == 1u << 5 ? " bnr\n" : attrs ? " ?\n" : "\n";
    }
    return out;
}

} // namespace

TEST(SimReference, BootRomTakesExactlyTheProgrammer)
{
    const std::string image = read_file(RAVIK_SIM_DEMO_ELF);
    ASSERT_EQ(image.compare(0, 5, "\x7F" "ELF\x02"), 0);
    const uint64_t phoff = le(image, 32, 8), phnum = le(image, 56, 2);
    uint64_t loaded = 0, last_byte = 0;
    for (uint64_t p = phoff; p < phoff + 56 * phnum; p += 56)
        if (le(image, p, 4) == 1 && le(image, p + 32, 8) > 0)
            loaded += le(image, p + 32, 8), last_byte = le(image, p + 8, 8) + le(image, p + 32, 8) - 1;
    ASSERT_LT(last_byte, image.size());
    const size_t intact = SIZE_MAX;
    struct row { const char *what; size_t flip; int read64; } const rows[] = { // flip: this byte altered
        {"64-bit reads", intact, -1}, {"32-bit reads", intact, 0}, {"in the header", 24, -1},
        {"in the first segment", 0x1000 + 30000, -1}, {"the last loaded byte", last_byte, 0}};
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        sim_session s(false);
        s.o.read64 = r.read64;
        s.o.sahara_chunk = 0x800;
        const auto &wire = s.start().wire();
        std::string sent = image;
        if (r.flip != intact)
            sent[r.flip] ^= 0x01;
        host h(s.o.link);
        EXPECT_EQ(upload(h, sent), r.flip == intact ? 0 : 34);
        ASSERT_EQ(wire.of_kind("image").size(), 1u);
        EXPECT_EQ(wire.of_kind("image")[0].text, r.flip == intact ? "verified" : "mismatch");
        // The programmer starts as the boot ROM hands over, just after its last answer.
        EXPECT_TRUE(r.flip == intact ? wire.wait_kind("programmer-start", 1, 5000) : wire.of_kind("programmer-start").empty());
        // Header, program headers and every loaded byte, in pieces of the chunk.
        uint64_t served = 0;
        for (auto &e : wire.of_kind("read-data")) {
            EXPECT_LE(e.size, 0x800u);
            served += e.size;
        }
        EXPECT_EQ(served, 64 + 56 * phnum + loaded);
    }
}

TEST(SimReference, EveryLunHoldsAValidTableOfItsLayout)
{
    using ravik_sim::storage_kind;
    struct row { storage_kind kind; unsigned luns; const char *layout, *want; } const rows[] = {
        {storage_kind::emmc, 1, "",
         "0 firmware 1024K\n0 boot 8192K\n0 config 512K bnr\n0 persist 2048K bnr\n0 system 24576K\n0 userdata *\n"},
        {storage_kind::ufs, 3, "",
         "0 persist 1024K bnr\n0 system 8192K\n0 userdata *\n1 bootloader_a 2048K\n1 spare_a *\n"
         "2 bootloader_b 2048K\n2 spare_b *\n"},
        // A LUN the layout does not name still gets an empty, valid table.
        {storage_kind::ufs, 2, "# comment line\n1 alpha 12K bnr\n1 beta 0x2000   # trailing comment\n1 gamma *\n",
         "1 alpha 12K bnr\n1 beta 8K\n1 gamma *\n"},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.want);
        sim_session s(false);
        s.o.storage = r.kind;
        s.o.luns = *r.layout ? r.luns : 0; // else as many as the storage has by default
        s.o.layout = r.layout;
        const auto &t = s.start();
        const uint32_t bs = r.kind == storage_kind::ufs ? 4096 : 512;
        ASSERT_EQ(std::make_pair(t.sector_size(), t.luns()), std::make_pair(bs, r.luns));
        std::string got;
        for (unsigned lun = 0; lun < r.luns; lun++) {
            const std::string disk = s.lun(lun);
            ASSERT_EQ(disk.size(), t.lun_bytes());
            got += layout_of(disk, bs, lun);
        }
        EXPECT_EQ(got, r.want);
    }
    for (const char *bad : {"0 a 0\n", "9 a 1M\n", "0 a 1X\n", "0 a\n", "0 a 1M weird\n", "0 a 100M\n"}) {
        sim_session s(false);
        s.o.layout = bad;
        EXPECT_THROW(s.start(), std::runtime_error) << bad;
    }
}

TEST(SimReference, PatchesLandWhereTheirArithmeticSays)
{
    sim_session s(false);
    const uint64_t n = s.start().lun_bytes() / 512;
    host h(s.o.link);
    ASSERT_EQ(upload(h, read_file(RAVIK_SIM_DEMO_ELF)), 0);
    ASSERT_TRUE(h.command("configure MemoryName=\"eMMC\" MaxPayloadSizeToTargetInBytes=\"1048576\""));
    const std::string array = s.lun(0, 2 * 512, 16384);
    const std::string disk = "patch SECTOR_SIZE_IN_BYTES=\"512\" filename=\"DISK\" physical_partition_number=\"0\" ";
    struct row { std::string tag; bool ack; uint64_t at; std::string want; } const rows[] = { // want: then at `at`
        {disk + "start_sector=\"NUM_DISK_SECTORS-1.\" byte_offset=\"16\" size_in_bytes=\"8\" value=\"NUM_DISK_SECTORS-34.\"",
         true, (n - 1) * 512 + 16, words({(uint32_t)(n - 34), (uint32_t)((n - 34) >> 32)})},
        // Over what is on the disk at that moment.
        {disk + "start_sector=\"100\" byte_offset=\"0\" size_in_bytes=\"4\" value=\"CRC32(2,16384)\"", true, 100 * 512,
         words({ref_crc32(array.data(), array.size())})},
        // Files are not the disk's business.
        {"patch filename=\"gpt_main0.bin\" start_sector=\"1\" byte_offset=\"0\" size_in_bytes=\"4\" value=\"1\" "
         "SECTOR_SIZE_IN_BYTES=\"512\"",
         true, 512, "EFI "},
        {disk + "start_sector=\"NUM_DISK_SECTORS-1\" byte_offset=\"510\" size_in_bytes=\"4\" value=\"1\"", false, 0, ""},
        {disk + "start_sector=\"5\" byte_offset=\"0\" size_in_bytes=\"9\" value=\"1\"", false, 0, ""},
        {"setbootablestoragedrive value=\"0\"", true, 0, ""},
        {"setbootablestoragedrive value=\"x\"", false, 0, ""},
    };
    for (const row &r : rows) {
        EXPECT_EQ(h.command(r.tag), r.ack) << r.tag;
        EXPECT_EQ(s.lun(0, r.at, r.want.size()), r.want) << r.tag;
    }
}

#endif
