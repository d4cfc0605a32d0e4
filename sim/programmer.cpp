// The programmer: Firehose from the target's side. One command document in,
// an answer out made of log documents and one response document, in the
// form the host tests for. Storage commands switch to raw data as the host
// expects: program takes data, read and dump give it.
#include "engine.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>
#include <unistd.h>

namespace ravik_sim {

namespace {

const char RAW_ACK[] = "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<data>\n"
                       "<response value=\"ACK\" rawmode=\"true\" />\n</data>";

constexpr size_t MAX_DOCUMENT = 1 << 20;
constexpr size_t IO_CHUNK = 1 << 20;

std::string lower(std::string s)
{
    for (char &c : s)
        c = (char)std::tolower((unsigned char)c);
    return s;
}

std::string printf_s(const char *f, ...) __attribute__((format(printf, 1, 2)));
std::string printf_s(const char *f, ...)
{
    char buf[512];
    va_list ap;
    va_start(ap, f);
    std::vsnprintf(buf, sizeof buf, f, ap);
    va_end(ap);
    return buf;
}

using attr_list = std::vector<std::pair<std::string, std::string>>;

attr_list normalized(attr_list a)
{
    for (auto &kv : a)
        kv.first = lower(kv.first);
    std::sort(a.begin(), a.end());
    return a;
}

} // namespace

// ---- the loop ----------------------------------------------------------------

void engine::programmer()
{
    if (opt.fault.programmer_start_ms > 0) {
        // Still starting: whatever the host sends meanwhile is lost.
        sleep_ms(opt.fault.programmer_start_ms);
        discard_input();
        uint8_t junk[4096];
        for (;;) {
            ssize_t n = ::read(pty.fd(), junk, sizeof junk);
            if (n > 0)
                continue;
            if (n < 0 && errno == EAGAIN)
                break;
            reconnect();
            break;
        }
    }
    for (;;) {
        try {
            serve();
        } catch (host_closed &) {
            reconnect();
        }
    }
}

bool engine::next_document(std::string &doc)
{
    static const char END[] = "</data>";
    size_t searched = in_pos_;
    for (;;) {
        auto begin = in_.begin() + (ptrdiff_t)searched;
        auto hit = std::search(begin, in_.end(), END, END + 7);
        if (hit != in_.end()) {
            size_t end = (size_t)(hit - in_.begin()) + 7;
            // The host ends a document with a line end when its length would
            // otherwise be a multiple of 512; it belongs to that command.
            if (end < in_.size() && in_[end] == '\n')
                end++;
            size_t from = in_pos_;
            while (from < end && std::isspace(in_[from]))
                from++;
            doc.assign(in_.begin() + (ptrdiff_t)from, in_.begin() + (ptrdiff_t)end);
            in_pos_ = end;
            return true;
        }
        if (in_.size() - in_pos_ > MAX_DOCUMENT) {
            discard_input();
            return false;
        }
        searched = in_.size() >= 6 ? std::max(in_pos_, in_.size() - 6) : in_pos_;
        size_t before = in_pos_;
        fill();
        if (in_pos_ != before) // fill() compacted the buffer
            searched = in_pos_;
        else
            searched = std::min(searched, in_.size());
    }
}

void engine::serve()
{
    for (;;) {
        std::string doc;
        if (!next_document(doc)) {
            nak("XML document too long");
            continue;
        }
        wire.add("command", doc);
        command c;
        if (!parse_command(doc, c)) {
            nak("XML parse error");
            continue;
        }
        const std::string name = lower(c.name);

        bool faulted = false;
        for (const auto &f : opt.fault.tags) {
            if (lower(f.tag) != name)
                continue;
            int &seen = fault_seen_[name];
            if (seen >= f.skip + f.count)
                continue;
            if (seen++ < f.skip)
                break;
            faulted = true;
            if (f.what == tag_fault::kind::silence) {
                wire.add("fault", "silence " + name);
            } else if (f.what == tag_fault::kind::vanish) {
                wire.add("fault", "vanish " + name);
                throw vanishing{};
            } else {
                wire.add("fault", "nak " + name);
                nak("injected failure");
            }
            break;
        }
        if (faulted)
            continue;

        if (name == "nop")
            answer({"ravik-sim programmer ready"}, true);
        else if (name == "getvar")
            do_getvar(c);
        else if (name == "configure")
            do_configure(c);
        else if (name == "getstorageinfo")
            do_storage_info(c);
        else if (name == "program")
            do_program(c);
        else if (name == "read")
            do_read(c);
        else if (name == "dump")
            do_dump(c);
        else if (name == "patch")
            do_patch(c);
        else if (name == "setbootablestoragedrive")
            do_setbootable(c);
        else if (name == "ufs")
            do_ufs(c);
        else if (name == "power")
            do_power(c);
        else
            nak("Unknown command " + c.name);
    }
}

// ---- answers -----------------------------------------------------------------

void engine::send_text(const std::string &text)
{
    if (opt.fault.split == 0) {
        write_all(text.data(), text.size());
        return;
    }
    for (size_t i = 0; i < text.size(); i += opt.fault.split) {
        if (i > 0)
            std::this_thread::sleep_for(std::chrono::microseconds(opt.fault.split_pause_us));
        write_all(text.data() + i, std::min(opt.fault.split, text.size() - i));
    }
}

void engine::send_document(const std::string &body)
{
    send_text(opt.fault.stray + "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<data>\n" + body +
              "\n</data>");
}

void engine::answer(const std::vector<std::string> &logs, bool ack, const attr_list &attrs)
{
    for (const auto &l : logs)
        send_document("<log value=\"" + xml_escape(l) + "\" />");
    std::string r = std::string("<response value=\"") + (ack ? "ACK" : "NAK") + "\"";
    if (attrs.empty())
        r += " rawmode=\"false\"";
    for (const auto &kv : attrs)
        r += " " + kv.first + "=\"" + xml_escape(kv.second) + "\"";
    send_document(r + " />");
}

// ---- commands ------------------------------------------------------------------

namespace {

bool number(const command &c, const char *key, const expr_env &env, int64_t &v)
{
    const std::string *s = c.get(key);
    return s && eval_expr(*s, env, v);
}

} // namespace

bool engine::storage_args(const command &c, unsigned &lun, uint64_t &start, uint64_t &count,
                          bool need_count)
{
    if (!configured_) {
        nak("storage is not configured, send configure first");
        return false;
    }
    expr_env env;
    int64_t v = 0;
    if (!number(c, "SECTOR_SIZE_IN_BYTES", env, v) || v != (int64_t)store.blksz()) {
        nak(printf_s("SECTOR_SIZE_IN_BYTES must be %u", store.blksz()));
        return false;
    }
    v = 0;
    if (c.get("physical_partition_number") && !number(c, "physical_partition_number", env, v)) {
        nak("bad physical_partition_number");
        return false;
    }
    if (v < 0 || v >= (int64_t)store.luns()) {
        nak(printf_s("physical partition %lld does not exist", (long long)v));
        return false;
    }
    lun = (unsigned)v;
    env.disk_sectors = store.sectors();
    int64_t s = 0, n = 0;
    if (!number(c, "start_sector", env, s) || s < 0) {
        nak("bad start_sector");
        return false;
    }
    if (need_count && (!number(c, "num_partition_sectors", env, n) || n < 0)) {
        nak("bad num_partition_sectors");
        return false;
    }
    if ((uint64_t)s > store.sectors() || (uint64_t)n > store.sectors() - (uint64_t)s) {
        nak(printf_s("sectors %lld+%lld are beyond the end of physical partition %u",
                     (long long)s, (long long)n, lun));
        return false;
    }
    start = (uint64_t)s;
    count = (uint64_t)n;
    return true;
}

void engine::do_getvar(const command &c)
{
    const std::string *var = c.get("value");
    if (!var) {
        nak("getvar needs a value");
        return;
    }
    std::string v = lower(*var), out;
    if (v == "boot_device")
        out = opt.storage == storage_kind::ufs ? "UFS" : "eMMC";
    else if (v == "cpu.ver")
        out = opt.id.cpu_ver;
    else if (v == "cpu.vername")
        out = opt.id.cpu_vername;
    else if (v == "secure")
        out = opt.id.secure ? "1" : "0";
    else {
        nak("Unknown variable " + *var);
        return;
    }
    answer({*var + " = " + out}, true, {{*var, out}});
}

void engine::do_configure(const command &c)
{
    const char *mine = opt.storage == storage_kind::ufs ? "UFS" : "eMMC";
    if (const std::string *mem = c.get("MemoryName"); mem && lower(*mem) != lower(mine)) {
        nak("MemoryName " + *mem + " is not the storage of this target (" + mine + ")");
        return;
    }
    const uint32_t max = opt.max_payload;
    const uint32_t supported = std::max(opt.max_payload_supported, max);
    int64_t offer = max;
    if (c.get("MaxPayloadSizeToTargetInBytes") &&
        (!number(c, "MaxPayloadSizeToTargetInBytes", {}, offer) || offer <= 0)) {
        nak("bad MaxPayloadSizeToTargetInBytes");
        return;
    }
    if (offer > (int64_t)max) {
        // Refused, with the size this target takes.
        answer({printf_s("Host offered %lld bytes of payload, the most is %u", (long long)offer,
                         max)},
               false,
               {{"MaxPayloadSizeToTargetInBytes", std::to_string(max)},
                {"MaxPayloadSizeToTargetInBytesSupported", std::to_string(supported)}});
        return;
    }
    configured_ = true;
    payload_ = (uint32_t)offer;
    answer({"Configured " + std::string(mine) + " storage"}, true,
           {{"MinVersionSupported", "1"},
            {"MemoryName", mine},
            {"MaxPayloadSizeFromTargetInBytes", "4096"},
            {"MaxPayloadSizeToTargetInBytes", std::to_string(payload_)},
            {"MaxPayloadSizeToTargetInBytesSupported", std::to_string(supported)},
            {"MaxXMLSizeInBytes", "4096"},
            {"Version", "1"}});
}

void engine::do_storage_info(const command &c)
{
    if (!configured_) {
        nak("storage is not configured, send configure first");
        return;
    }
    int64_t lun = 0;
    if (c.get("physical_partition_number") && !number(c, "physical_partition_number", {}, lun)) {
        nak("bad physical_partition_number");
        return;
    }
    if (lun < 0 || lun >= (int64_t)store.luns()) {
        nak(printf_s("physical partition %lld does not exist", (long long)lun));
        return;
    }
    const unsigned long long blocks = store.sectors(), bs = store.blksz(), luns = store.luns();
    const bool ufs = opt.storage == storage_kind::ufs;
    std::vector<std::string> lines;
    switch (opt.info_wording) {
    case 1:
        lines = {printf_s("INFO: Device Serial Number: 0x%08x", opt.id.serial),
                 printf_s("INFO: Device Total Logical Blocks: 0x%llx", blocks),
                 printf_s("INFO: Device Block Size in Bytes: 0x%llx", bs),
                 printf_s("INFO: Device Total Physical Partitions: 0x%llx", luns),
                 "INFO: Device Manufacturer ID: 0x0000"};
        break;
    case 2:
        lines = {printf_s("{\"storage_info\": {\"total_blocks\":%llu, \"block_size\":%llu, "
                          "\"num_physical\":%llu, \"serial_num\":%u}}",
                          blocks, bs, luns, opt.id.serial),
                 printf_s("SECTOR_SIZE_IN_BYTES=%llu", bs),
                 printf_s("num_physical_partitions=%llu", luns),
                 printf_s("num_partition_sectors=%llu", blocks)};
        break;
    default:
        lines = {printf_s("Device Serial Number: 0x%08x", opt.id.serial),
                 printf_s("Device Total Logical Blocks: 0x%llx", blocks),
                 printf_s("Device Block Size in Bytes: 0x%llx", bs),
                 printf_s("Device Total Physical Paritions: 0x%llx", luns),
                 "Device Manufacturer ID: 0x0000"};
    }
    if (ufs)
        lines.push_back("UFS Inquiry Command Output: SIMDISK  UFS-SIM          0100");
    answer(lines, true);
}

void engine::do_program(const command &c)
{
    unsigned lun;
    uint64_t start, count;
    if (!storage_args(c, lun, start, count, true))
        return;
    send_text(opt.fault.stray + RAW_ACK);

    const uint64_t total = count * store.blksz();
    const uint64_t base = start * store.blksz();
    // pty reads come in small pieces; gather them so the file sees few writes.
    std::vector<uint8_t> buf(std::min<uint64_t>(IO_CHUNK, std::max<uint64_t>(total, 1)));
    uint64_t done = 0;
    size_t held = 0;
    bool ok = true, halfway = false;
    while (done + held < total) {
        size_t want = (size_t)std::min<uint64_t>(buf.size() - held, total - done - held);
        held += read_some(buf.data() + held, want);
        if (held == buf.size() || done + held == total) {
            ok = store.write(lun, base + done, buf.data(), held) && ok;
            done += held;
            held = 0;
        }
        if (!halfway && done + held >= total / 2 && total > 0) {
            halfway = true;
            check_vanish(phase::raw_in);
        }
    }
    wire.add("raw-in", printf_s("lun=%u start=%llu", lun, (unsigned long long)start), total);
    if (!ok) {
        nak("write to storage failed");
        return;
    }
    answer({printf_s("Finished programming %llu sectors at %llu", (unsigned long long)count,
                     (unsigned long long)start)},
           true);
}

void engine::do_read(const command &c)
{
    unsigned lun;
    uint64_t start, count;
    if (!storage_args(c, lun, start, count, true))
        return;
    answer({}, true, {{"rawmode", "true"}});
    const uint64_t total = count * store.blksz();
    const uint64_t base = start * store.blksz();
    std::vector<uint8_t> buf(std::min<uint64_t>(IO_CHUNK, std::max<uint64_t>(total, 1)));
    bool ok = true;
    for (uint64_t done = 0; done < total;) {
        size_t n = (size_t)std::min<uint64_t>(buf.size(), total - done);
        if (!store.read(lun, base + done, buf.data(), n)) {
            ok = false;
            std::memset(buf.data(), 0, n);
        }
        write_all(buf.data(), n);
        done += n;
    }
    wire.add("raw-out", printf_s("lun=%u start=%llu", lun, (unsigned long long)start), total);
    answer({printf_s("Finished reading %llu sectors at %llu", (unsigned long long)count,
                     (unsigned long long)start)},
           ok);
}

void engine::do_dump(const command &c)
{
    unsigned lun;
    uint64_t start, count;
    if (!storage_args(c, lun, start, count, true))
        return;
    send_text(opt.fault.stray + RAW_ACK);
    const uint64_t total = count * store.blksz();
    const uint64_t base = start * store.blksz();
    std::vector<uint8_t> buf;
    uint64_t done = 0;
    bool halfway = false;
    while (done < total) {
        uint8_t req[8];
        read_exact(req, sizeof req);
        uint32_t size = get32(req + 4);
        wire.add("dump-request", "", size);
        if (std::memcmp(req, "DATA", 4) != 0 || size == 0) {
            // Out of step with the host: leave raw mode and say so.
            wire.add("fault", "bad dump request");
            nak("bad dump request");
            return;
        }
        size_t n = (size_t)std::min<uint64_t>(size, total - done);
        buf.resize(n);
        if (!store.read(lun, base + done, buf.data(), n))
            std::memset(buf.data(), 0, n);
        write_all(buf.data(), n);
        done += n;
        if (!halfway && done >= total / 2 && done < total) {
            halfway = true;
            check_vanish(phase::raw_out);
        }
    }
    // A dump ends with its data: no final answer.
    wire.add("raw-out", printf_s("lun=%u start=%llu", lun, (unsigned long long)start), total);
}

void engine::do_patch(const command &c)
{
    const std::string *file = c.get("filename");
    if (!file || lower(*file) != "disk") {
        answer({"Skipping patch of " + (file ? *file : std::string("(no file)"))}, true);
        return;
    }
    unsigned lun;
    uint64_t start, unused;
    if (!storage_args(c, lun, start, unused, false))
        return;
    expr_env env;
    env.disk_sectors = store.sectors();
    env.crc = [this, lun](uint64_t sector, uint64_t bytes, uint32_t &crc) {
        if (bytes > (64u << 20))
            return false;
        std::vector<uint8_t> buf(bytes);
        if (!store.read(lun, sector * store.blksz(), buf.data(), buf.size()))
            return false;
        crc = crc32(buf.data(), buf.size());
        return true;
    };
    int64_t offset = 0, size = 0, value = 0;
    if (!number(c, "byte_offset", env, offset) || offset < 0) {
        nak("bad byte_offset");
        return;
    }
    if (!number(c, "size_in_bytes", env, size) || size < 1 || size > 8) {
        nak("size_in_bytes must be 1 to 8");
        return;
    }
    if (!number(c, "value", env, value)) {
        nak("bad value");
        return;
    }
    uint8_t bytes[8];
    put64(bytes, (uint64_t)value);
    uint64_t pos = start * store.blksz() + (uint64_t)offset;
    if (!store.write(lun, pos, bytes, (size_t)size)) {
        nak("patch is beyond the end of the physical partition");
        return;
    }
    const std::string *what = c.get("what");
    answer({printf_s("Patched %lld bytes at sector %llu + %lld with 0x%llx", (long long)size,
                     (unsigned long long)start, (long long)offset, (unsigned long long)value),
            what ? *what : std::string()},
           true);
}

void engine::do_setbootable(const command &c)
{
    int64_t v = -1;
    if (!number(c, "value", {}, v) || v < 0 || v > 7) {
        nak("bad bootable drive");
        return;
    }
    bootable_ = (int)v;
    answer({printf_s("Set bootable drive to %d", bootable_)}, true);
}

void engine::do_ufs(const command &c)
{
    int64_t commit = 0;
    if (c.get("commit") && !number(c, "commit", {}, commit)) {
        nak("bad commit");
        return;
    }
    if (commit == 0) {
        ufs_staged_.push_back(normalized(c.attrs));
        answer({"UFS settings staged"}, true);
        return;
    }
    auto staged = ufs_staged_;
    ufs_staged_.clear();
    // The device holds what the last commit wrote, from the next reset on.
    const auto &held = ufs_pending_set_ ? ufs_pending_ : ufs_provisioned_;
    int result = 2;
    if (!staged.empty() && staged != held) {
        ufs_pending_ = staged;
        ufs_pending_set_ = true;
        result = 0;
    }
    answer({result == 2 ? "UFS already holds these settings" : "UFS settings written"}, true,
           {{"commit_result", std::to_string(result)}});
}

void engine::do_power(const command &c)
{
    const std::string *v = c.get("value");
    std::string value = v ? lower(*v) : "";
    answer({"Power " + value}, true);
    bool reset = value == "reset" || value == "reset_to_edl";
    bool leave = value == "off" || value == "reset_to_fastboot";
    if (!reset && !leave)
        return;
    let_host_read();
    throw rebooting{reset || opt.come_back, reset ? "reset" : "off", value};
}

} // namespace ravik_sim
