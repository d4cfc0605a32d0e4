// The fuzz targets: one libFuzzer program each, built with RAVIK_FUZZ_MAIN
// naming its body; the test suite replays the corpus and the regressions. A
// body aborts on a finding and ends as a thread ends. Every input starts with
// a flags byte (none for tags and container) and a byte N: allocation
// N + N*N/16 from the body's chosen point on fails (0: none).
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <strings.h>
#include <unistd.h>

#include "container/container.h"
#include "core/core.h"
#include "core/tls.h"
#include "firehose/link.h"
#include "link/device.h"
#include "link/properties.h"
#include "sahara/sahara.h"
#include "storage/gpt.h"
#include "storage/script.h"
#include "storage/storage.h"
#include "tags/tags_internal.h"

namespace ravik::fuzz {
namespace {

void check(bool ok, const char *what) { if (!ok) fprintf(stderr, "fuzz: %s\n", what), abort(); }

struct input {
    const uint8_t *p;
    size_t n;
    uint8_t byte() { return n ? (n--, *p++) : 0; }
    std::string take(size_t k) { return k = std::min(k, n), p += k, n -= k, std::string((const char *)p - k, k); }
    // Runs fn, allocation `fail_at` failing from where fn calls arm(); every
    // block fn took must be back once the thread's blocks are freed.
    template <typename F> void run(uint8_t fail_at, F &&fn)
    {
        tls_thread_detach();
        int64_t before = mem_outstanding();
        fn([=] { mem_fail_nth(fail_at + (uint64_t)fail_at * fail_at / 16); });
        mem_fail_nth(0);
        tls_thread_detach();
        check(mem_outstanding() == before, "blocks of the library left behind");
    }
    // The rest as the line delivers it, read by read: a length byte and that
    // many bytes; 0 an idle read, 255 a failed one, 254 64 KiB of the next byte.
    void push_reads(test::fake_platform &fake)
    {
        for (uint8_t len; n;)
            len = byte(), !len ? fake.push_idle() : len == 255 ? fake.push_read_error(EIO)
                                                   : fake.push_bytes(len == 254 ? std::string(65536, (char)byte()) : take(len));
    }
};

std::string pairs(const tagline *line)
{
    std::string s = line->name;
    for (list_head *it = line->kvps.next; it != &line->kvps; it = it->next)
        s += std::string("\n") + list_entry(it, kvp, link)->key + "=" + list_entry(it, kvp, link)->value;
    return s;
}

// Each tag whole, where the filters put it, and sent as a command text that
// parses back to the same (unless a value holds what the grammar keeps out).
void walk(xtags *doc, bool whole)
{
    bool judged = doc->filter && !list_empty(&doc->filter->kvps);
    list_for_each_safe(it, tmp, &doc->lines)
    {
        tagline *line = list_entry(it, tagline, link);
        const kvp *first = list_empty(&line->kvps) ? nullptr : list_entry(line->kvps.next, kvp, link);
        (void)tagline_getu(line, "value", 1), (void)tagline_geti(line, first ? first->key : "value", -1);
        (void)tagline_getb(line, "compatible", false), (void)tagline_getp(line, "buffer", nullptr);
        if (!whole)
            continue;
        check(first && line->attrs && xtags_get(doc, line->name, first->key), "a parsed tag without its pairs");
        // With no filter left, a judgement keeps what the last one decided.
        check(!judged || filter_tagline(doc, line), "kept a tag the filters drop");
        if (pairs(line).find_first_of("<>") != std::string::npos)
            continue;
        std::string key = first->key, value = first->value;
        check(tagline_set(line, key.c_str(), value.c_str()) == 0, "tagline_set of a pair it has");
        size_t length = 0;
        char *text = tagline_format_xml(line, &length);
        check(text && length == strlen(text) && length % 512 != 0, "command text");
        xtags *back = xtags_create();
        check(back && xtags_parse(back, text) == 0 && back->lines.next->next == &back->lines &&
                  pairs(list_entry(back->lines.next, tagline, link)) == pairs(line), "tag changed on its way out");
        xtags_free(back);
        mem_free(text);
    }
    list_for_each_safe(it, tmp, &doc->dropped)
        check(!whole || !judged || !filter_tagline(doc, list_entry(it, tagline, link)), "dropped a tag the filters keep");
}

uint64_t padded(uint64_t size) { return (size + SIMG_BLKSZ - 1) & ~(SIMG_BLKSZ - 1); }

// Each entry loaded holds its bytes of the image and zeros to the end of its
// block; texts end in a zero.
void check_loads(simg *h, const std::vector<uint8_t> &image)
{
    for (int32_t i = 0; h && i < h->num_entries; i++)
        if (simg_entry *got = simg_load(h, h->entries[i].name)) {
            check(got == simg_find(h, got->name) && got->offset <= image.size() &&
                      got->size <= image.size() - got->offset, "loaded another record, or past the image");
            std::vector<uint8_t> want(image.begin() + got->offset, image.begin() + got->offset + got->size);
            want.resize(padded(got->size));
            check(want.empty() || memcmp(got->data, want.data(), want.size()) == 0, "loaded bytes or padding differ");
        }
    for (int32_t i = 0; h && i < h->num_entries; i++) {
        if (simg_entry *t = simg_loads(h, h->entries[i].name))
            check(t->data[padded(t->size) - 1] == 0, "text without its terminator");
        if (i % 2)
            simg_unload(h, h->entries[i].name);
    }
}

// One entry stored and the first deleted: the file shows just that. Only
// where the new entry lands near the start, as a header may place the end of
// the table terabytes into the file. Closes the handle.
void check_writer(simg *h, const std::string &path)
{
    const simg_entry *last = h->num_entries ? &h->entries[h->num_entries - 1] : nullptr;
    if (h->num_entries == SIMG_MAX_ENTRIES || simg_find(h, "fuzz.new") ||
        (last && (last->size > (64u << 20) || last->offset > (64u << 20))))
        return simg_close(h);
    static const char payload[] = "stored by the fuzzer";
    std::string first = h->num_entries ? h->entries[0].name : "";
    check(simg_store(h, payload, sizeof(payload), "fuzz.new") != nullptr, "store into an open container");
    check(first.empty() || simg_find(h, first.c_str()) != &h->entries[0] || simg_delete(h, first.c_str()) == 0,
          "delete of the first entry");
    int32_t expect = h->num_entries;
    simg_close(h);
    simg *again = simg_open(path.c_str(), 0);
    simg_entry *e = again && again->num_entries == expect ? simg_load(again, "fuzz.new") : nullptr;
    check(e && e->size == sizeof(payload) && memcmp(e->data, payload, sizeof(payload)) == 0, "stored entry");
    simg_close(again);
}

uint64_t attr(const std::string &cmd, const std::string &key)
{
    size_t at = cmd.find(key + "=\"");
    return at == std::string::npos ? 0 : strtoull(cmd.c_str() + at + key.size() + 2, nullptr, 0);
}

// A programmer that ACKs every command; getStorageInfo tells the geometry,
// dump sends sectors of the LUN, program writes them.
struct programmer {
    test::fake_platform &fake;
    std::string base;
    uint32_t blksz, luns;
    uint64_t sectors, prog_lun = 0, prog_at = 0, prog_left = 0;
    std::map<std::pair<uint64_t, uint64_t>, std::string> written; // (lun, sector)

    void on_write(const std::string &bytes)
    {
        static const std::string head = "<?xml version=\"1.0\"?><data><";
        if (prog_left) {
            std::string data = bytes.substr(0, (size_t)std::min<uint64_t>(bytes.size(), prog_left));
            for (size_t at = 0; at < data.size(); at += blksz)
                written[{prog_lun, prog_at++}] = data.substr(at, blksz);
            if (!(prog_left -= data.size()))
                fake.push_bytes(test::ack());
            return;
        }
        if (bytes.compare(0, head.size(), head) != 0)
            return;
        std::string name = bytes.substr(head.size(), bytes.find_first_of(" /", head.size()) - head.size());
        uint64_t lun = attr(bytes, "physical_partition_number"), start = attr(bytes, "start_sector");
        uint64_t count = attr(bytes, "num_partition_sectors");
        if (name == "getStorageInfo")
            return fake.push_bytes(test::answer("value=\"ACK\"", test::info_lines(0, blksz, luns, sectors)));
        if (name != "dump" && name != "program")
            return fake.push_bytes(test::ack("secure=\"0\""));
        fake.push_bytes(test::raw_ack());
        if (prog_lun = lun, prog_at = start; name == "program" && !(prog_left = count * blksz))
            fake.push_bytes(test::ack());
        std::string data;
        for (uint64_t i = start; name == "dump" && i - start < count && data.size() < (4u << 20); i++) {
            auto it = written.find({lun, i});
            std::string s = i * blksz < base.size() ? base.substr((size_t)(i * blksz), blksz) : "";
            data += it != written.end() ? it->second : s + std::string(blksz - s.size(), '\0');
        }
        if (name == "dump")
            fake.push_bytes(data);
    }
};

// Each partition found by name, its first and last sector read where its
// table entry says, whatever that is.
int32_t visit(pt *p, void *)
{
    check(pt_name(p) && strlen(pt_name(p)) <= PT_NAME_MAX && pt_find(pt_name(p), pt_lun(p)), "partition by name");
    uint32_t b = storage_blksz();
    std::string sector(b, '\0');
    if (pt_seek(p, 0, 0) == 0 && pt_read(p, sector.data(), b) == b)
        check(p->pos == b, "position after a read");
    if (pt_seek(p, -(int64_t)b, 2) == 0 && pt_read(p, sector.data(), b) == b)
        check(p->pos == p->size, "position after reading the last sector");
    return 0;
}

} // namespace

// "key:value" filter lines up to the first NUL, then a document; judged
// again with one key fewer.
void tags_one(const uint8_t *data, size_t size)
{
    input in{data, size};
    uint8_t fail_at = in.byte();
    std::string rest = in.take(in.n), text = rest.substr(std::min(rest.size(), rest.find('\0') + 1));
    std::string filters = text.size() < rest.size() ? rest.substr(0, rest.find('\0')) : "";
    in.run(fail_at, [&](auto arm) {
        xtags *doc = xtags_create();
        check(doc != nullptr, "xtags_create");
        std::string first_key, line;
        for (size_t at = 0; at < filters.size(); at += line.size() + 1) {
            line = filters.substr(at, filters.find('\n', at) - at);
            if (size_t colon = line.find(':'); colon != std::string::npos) {
                first_key = first_key.empty() ? line.substr(0, colon) : first_key;
                xtags_add_filter(doc, line.substr(0, colon).c_str(), line.substr(colon + 1).c_str());
            }
        }
        arm();
        bool whole = xtags_parse(doc, text.c_str()) == 0 && !fail_at;
        walk(doc, whole);
        xtags_del_filter(doc, first_key.c_str());
        xtags_filter(doc);
        walk(doc, whole);
        xtags_free(doc);
    });
}

// A byte E (above 240: (E - 240) x 256 KiB of zeros follow, so entries reach
// the size that loads by mapping), then the image, opened from memory and
// from a file: the same walk, the same bytes, then a store and a delete.
void container_one(const uint8_t *data, size_t size)
{
    input in{data, size};
    uint8_t fail_at = in.byte(), e = in.byte();
    std::vector<uint8_t> image(in.p, in.p + in.n);
    image.resize(in.n + (e > 240 ? (e - 240) * (256u << 10) : 0));
    // One scratch file, in memory where it can be, unlinked at once: libFuzzer ends without exit handlers.
    static const std::string path = [] {
        std::string name = (access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp") + std::string("/ravik-fuzz-XXXXXX");
        int fd = mkstemp(name.data());
        check(fd >= 0 && unlink(name.c_str()) == 0, "scratch file");
        return "/proc/self/fd/" + std::to_string(fd);
    }();
    int fd = open(path.c_str(), O_RDWR | O_TRUNC);
    check(fd >= 0 && write(fd, in.p, in.n) == (ssize_t)in.n && ftruncate(fd, (off_t)image.size()) == 0, "scratch");
    close(fd);
    in.run(fail_at, [&](auto arm) {
        std::vector<uint8_t> memory = image; // loads write into a memory image
        arm();
        simg *m = simg_mopen(memory.data(), memory.size()), *f = simg_open(path.c_str(), 0);
        // The file walk sees whatever the memory walk saw, and may go on.
        for (int32_t i = 0; m && i < m->num_entries; i++) {
            const simg_entry &a = m->entries[i], *b = f && i < f->num_entries ? &f->entries[i] : nullptr;
            check(fail_at || !f || (b && !strcmp(a.name, b->name) && a.size == b->size && a.offset == b->offset),
                  "walks disagree");
            check(a.data == memory.data() + a.offset, "memory entry not in place");
        }
        check_loads(m, image);
        check_loads(f, image);
        f && !fail_at ? check_writer(f, path) : simg_close(f);
        simg_close(m);
    });
}

// Flags (bit 0: 4096-byte sectors, bit 1: two LUNs, bit 2: the CRCs of LBA 1
// made to fit, bit 3: debug log, bits 4-7: 16 << n sectors a LUN), then each
// LUN's bytes from LBA 0: discovery, the table, and the bytes flashed as a
// table, which must open again.
void gpt_one(const uint8_t *data, size_t size)
{
    input in{data, size};
    uint8_t flags = in.byte(), fail_at = in.byte();
    uint32_t b = flags & 1 ? 4096 : 512;
    std::string lun = in.take(in.n);
    if (flags & 4 && lun.size() >= 2 * (size_t)b) {
        uint64_t at = test::le(lun, b + 72, 8), bytes = test::le(lun, b + 80, 4) * test::le(lun, b + 84, 4);
        if (at < lun.size() / b && bytes <= lun.size() - at * b)
            test::set_le(lun, b + 88, 4, test::ref_crc32(lun.data() + at * b, (size_t)bytes));
        if (uint64_t h = test::le(lun, b + 12, 4); h >= 20 && h <= b)
            test::set_le(lun, b + 16, 4, 0), test::set_le(lun, b + 16, 4, test::ref_crc32(lun.data() + b, h));
    }
    in.run(fail_at, [&](auto arm) {
        test::fake_platform fake;
        programmer target{fake, lun, b, flags & 2 ? 2u : 1u, 16ull << (flags >> 4), 0, 0, 0, {}};
        fake.on_write = [&](const std::string &bytes) { target.on_write(bytes); };
        logger_set_level(flags & 8 ? LOG_DEBUG : LOG_INFO);
        device_open();
        device_set("storage.type", "eMMC");
        device_set("cpu.vername", "v1");
        check(get_firehose() != nullptr, "bring-up");
        arm();
        if (storage_init() == 0) {
            pt_forall(-1, visit, nullptr);
            size_t skip = std::min<size_t>(lun.size(), b);
            validate_header(0, lun.data() + skip, (uint32_t)(lun.size() - skip));
            std::string image = lun;
            if (gpt_flash(0, image.data(), (uint32_t)image.size()) == 0 && !fail_at) {
                check(storage_reinit() == 0 && gpt_open(0) == 0, "a table written by gpt_flash does not open");
                gpt_close();
            }
        }
        free_device();
    });
}

// Flags (bit 0: debug run, bit 1: hexdump, bit 2: debug log, bit 3: download
// even after a failed greeting, bits 4-5: the mode held before, 0, 3 or 7,
// or none), then the line: the greeting, identification, a download.
void sahara_one(const uint8_t *data, size_t size)
{
    input in{data, size};
    uint8_t flags = in.byte(), fail_at = in.byte();
    in.run(fail_at, [&](auto arm) {
        test::fake_platform fake;
        in.push_reads(fake);
        logger_set_level(flags & 4 ? LOG_DEBUG : LOG_INFO);
        device_open();
        if (flags & 1)
            device_set_flag(DEVICE_FLAG_DEBUG);
        if (flags & 2)
            device_set_flag(DEVICE_FLAG_HEXDUMP);
        if (((flags >> 4) & 3) != 3)
            device_setu("sahara.current_mode", "\0\3\7"[(flags >> 4) & 3]);
        arm();
        int32_t code = sahara_greet_device();
        // A failed store of the serial number goes unreported by design.
        check(code || fail_at || (device_get("cpu.id", nullptr) && device_get("cpu.serial", nullptr)), "no id");
        const std::string image = test::pattern(3000, 7);
        if (code == 0 || (flags & 8))
            sahara_download(image.data(), (uint32_t)image.size());
        free_device();
    });
}

// Flags (bits 0-1: the first kind of read, the others follow in turn; bit 2:
// NAKs not logged; bit 3: debug log), then the line: the plain read, the
// standard test, the raw-mode switch and the wait for a commit, twice each.
void response_one(const uint8_t *data, size_t size)
{
    input in{data, size};
    uint8_t flags = in.byte(), fail_at = in.byte();
    in.run(fail_at, [&](auto arm) {
        test::fake_platform fake;
        logger_set_level(flags & 8 ? LOG_DEBUG : LOG_INFO);
        device_open();
        fake.push_bytes(test::ack());
        check(get_fh() != nullptr, "wake-up");
        if (flags & 4)
            fh_log_naks(false);
        in.push_reads(fake);
        arm();
        xtags *cmd = xtags_create();
        tagline *line = cmd ? xtags_add(cmd, "program") : nullptr;
        if (line)
            tagline_set(line, "value", "x");
        xtags *(*const sends[])(const tagline *) = {fh_send, fh_send_and_switch_to_raw, fh_send_and_wait_commit_result};
        for (int i = 0; i < 8; i++) {
            int kind = (flags + i) & 3;
            xtags *doc = kind == 0 ? fh_read_resp() : line ? sends[kind - 1](line) : nullptr;
            check(fail_at || doc == fh_last_response(), "answer is not the link's");
            // An answer said to hold an ACK holds a response tag with the value ACK.
            bool ack = !doc || !(doc->flags & XTAGS_FLAG_ACK);
            for (list_head *it = doc ? doc->lines.next : nullptr; it && it != &doc->lines; it = it->next) {
                const tagline *t = list_entry(it, tagline, link);
                const char *value = tagline_get(t, "value");
                ack = ack || (tagline_is(t, "response") && value && strcasecmp(value, "ACK") == 0);
            }
            check(ack, "ACK flag without an ACK");
            fh_check_ack();
        }
        xtags_free(cmd);
        free_device();
    });
}

} // namespace ravik::fuzz

#ifdef RAVIK_FUZZ_MAIN
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    ravik::fuzz::RAVIK_FUZZ_MAIN(data, size);
    return 0;
}
#else
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>

TEST(FuzzInputs, CorpusAndRegressionsOfEveryTarget)
{
    namespace fs = std::filesystem;
    using namespace ravik::fuzz;
    for (auto [target, body] : {std::pair{"tags", &tags_one}, {"container", &container_one}, {"gpt", &gpt_one},
                                {"sahara", &sahara_one}, {"response", &response_one}}) {
        int files = 0;
        for (const char *kind : {"corpus", "regressions"})
            if (fs::path dir = fs::path(RAVIK_FUZZ_DIR) / kind / target; fs::is_directory(dir))
                for (auto &f : fs::directory_iterator(dir)) {
                    std::ifstream in(f.path(), std::ios::binary);
                    std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
                    SCOPED_TRACE(f.path().string());
                    body(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size()), files++;
                }
        EXPECT_GT(files, 0) << "no inputs for " << target;
    }
}
#endif
