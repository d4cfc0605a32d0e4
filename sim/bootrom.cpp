// The boot ROM: Sahara from the target's side. It greets the host, answers
// client commands in command mode, and in image transfer pulls an ELF the
// way a loader does: header, program headers, then each loadable segment in
// chunks, and starts it once the host has said DONE.
#include "engine.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace ravik_sim {

namespace {

enum : uint32_t {
    HELLO = 1,
    HELLO_RESP = 2,
    READ_DATA = 3,
    END_IMAGE_TX = 4,
    DONE = 5,
    DONE_RESP = 6,
    COMMAND_READY = 11,
    CMD_SWITCH_MODE = 12,
    CMD_EXEC = 13,
    CMD_EXEC_RESP = 14,
    CMD_EXEC_DATA = 15,
    READ_DATA_64 = 18,
};

// Status words of END_IMAGE_TX.
enum : uint32_t {
    ST_INVALID_COMMAND = 1,
    ST_HOST_VERSION = 4,
    ST_PACKET_SIZE = 5,
    ST_DATA_SIZE = 8,
    ST_PHDR_COUNT = 14,
    ST_ELF_HEADER = 20,
    ST_HOST_ERROR = 21,
    ST_MODE = 24,
    ST_MODE_SWITCH = 28,
    ST_CLIENT_COMMAND = 31,
    ST_DATA_RESPONSE = 32,
    ST_SEGMENT_HASH = 34,
};

constexpr uint32_t VERSION = 2;
constexpr uint32_t OLDEST_VERSION = 1;
constexpr uint32_t MAX_PACKET = 0x400;
constexpr uint32_t IMAGE_ID = 13;
constexpr uint64_t MAX_SEGMENT = 64ull << 20;

const char *packet_name(uint32_t cmd)
{
    switch (cmd) {
    case HELLO: return "HELLO";
    case HELLO_RESP: return "HELLO_RESP";
    case READ_DATA: return "READ_DATA";
    case END_IMAGE_TX: return "END_IMAGE_TX";
    case DONE: return "DONE";
    case DONE_RESP: return "DONE_RESP";
    case COMMAND_READY: return "COMMAND_READY";
    case CMD_SWITCH_MODE: return "CMD_SWITCH_MODE";
    case CMD_EXEC: return "CMD_EXEC";
    case CMD_EXEC_RESP: return "CMD_EXEC_RESP";
    case CMD_EXEC_DATA: return "CMD_EXEC_DATA";
    case READ_DATA_64: return "READ_DATA_64";
    default: return "UNKNOWN";
    }
}

std::string fmt(const char *f, uint64_t a, uint64_t b = 0, uint64_t c = 0)
{
    char buf[128];
    std::snprintf(buf, sizeof buf, f, (unsigned long long)a, (unsigned long long)b,
                  (unsigned long long)c);
    return buf;
}

struct packet {
    uint32_t cmd = 0;
    std::vector<uint8_t> bytes;
    // Fields that did not arrive read as zero.
    uint32_t word(size_t off) const { return off + 4 <= bytes.size() ? get32(&bytes[off]) : 0; }
};

} // namespace

void engine::send_packet(const uint8_t *p, const char *what)
{
    wire.add("sahara-tx", what);
    // One write per packet: the host takes a packet to be what one read gives.
    write_all(p, get32(p + 4));
}

void engine::end_image(uint32_t status)
{
    uint8_t p[16] = {};
    put32(p, END_IMAGE_TX);
    put32(p + 4, sizeof p);
    put32(p + 8, IMAGE_ID);
    put32(p + 12, status);
    send_packet(p, fmt("END_IMAGE_TX status=%llu", status).c_str());
}

std::vector<uint8_t> engine::exec_payload(uint32_t cmd, bool &known)
{
    const identity &id = opt.id;
    std::vector<uint8_t> out;
    known = true;
    auto word = [&](uint32_t v) {
        for (int i = 0; i < 4; i++)
            out.push_back((uint8_t)(v >> (8 * i)));
    };
    switch (cmd) {
    case 1: // serial number
        word(id.serial);
        if (id.id_in_serial)
            word(id.chip_id);
        break;
    case 2: // hardware id: the chip id sits in bits 12..27 of the second word
        word(id.oem_model);
        word((id.chip_id & 0xFFFFu) << 12 | (id.hwid_low & 0xFFFu));
        break;
    case 3: // public key hash
        for (uint32_t i = 0; i < 8; i++)
            word(id.serial * 0x9E3779B1u + i * 0x85EBCA6Bu);
        break;
    case 6:
        out = id.debug_data;
        break;
    case 7:
        word(id.sbl_version);
        break;
    default:
        known = false;
    }
    return out;
}

namespace {

// Reads one packet; an impossible length gives cmd 0.
packet read_packet(std::function<void(void *, size_t)> read_exact)
{
    packet p;
    p.bytes.resize(8);
    read_exact(p.bytes.data(), 8);
    uint32_t len = get32(&p.bytes[4]);
    p.cmd = get32(&p.bytes[0]);
    if (len < 8 || len > MAX_PACKET) {
        p.cmd = 0;
        return p;
    }
    p.bytes.resize(len);
    read_exact(p.bytes.data() + 8, len - 8);
    return p;
}

} // namespace

void engine::boot_rom()
{
    auto rx = [this] {
        packet p = read_packet([this](void *d, size_t n) { read_exact(d, n); });
        if (p.cmd == 0) {
            wire.add("sahara-rx", fmt("bad length %llu", get32(&p.bytes[4])));
            discard_input();
        } else {
            wire.add("sahara-rx", std::string(packet_name(p.cmd)) +
                                      fmt(" cmd=%llu len=%llu word=0x%llx", p.cmd, p.bytes.size(),
                                          p.word(8)));
        }
        return p;
    };
    auto hello = [this](uint32_t mode) {
        uint8_t p[48] = {};
        put32(p, HELLO);
        put32(p + 4, sizeof p);
        put32(p + 8, VERSION);
        put32(p + 12, OLDEST_VERSION);
        put32(p + 16, MAX_PACKET);
        put32(p + 20, mode);
        send_packet(p, fmt("HELLO mode=%llu", mode).c_str());
    };
    auto command_ready = [this] {
        uint8_t p[8] = {};
        put32(p, COMMAND_READY);
        put32(p + 4, sizeof p);
        send_packet(p, "COMMAND_READY");
    };

    sleep_ms(opt.fault.hello_delay_ms);
    check_vanish(phase::on_open);
    hello(opt.hello_mode);

    enum { await_resp, commands, failed } state = await_resp;
    uint32_t pending = 0;
    std::vector<uint8_t> payload;
    for (;;) {
        packet p = rx();
        switch (p.cmd) {
        case 0:
            end_image(ST_PACKET_SIZE);
            break;
        case HELLO_RESP: {
            if (state != await_resp) {
                end_image(ST_INVALID_COMMAND);
                break;
            }
            uint32_t version = p.word(8), status = p.word(16), mode = p.word(20);
            if (version < OLDEST_VERSION) {
                end_image(ST_HOST_VERSION);
                state = failed;
            } else if (status != 0) {
                end_image(ST_HOST_ERROR);
                state = failed;
            } else if (mode == 3) {
                command_ready();
                state = commands;
                check_vanish(phase::command_mode);
            } else if (mode == 0) {
                if (load_image())
                    return;
                state = failed;
            } else {
                end_image(ST_MODE);
                state = failed;
            }
            break;
        }
        case CMD_EXEC: {
            if (state != commands) {
                end_image(ST_INVALID_COMMAND);
                break;
            }
            bool known = false;
            uint32_t cmd = p.word(8);
            payload = exec_payload(cmd, known);
            if (!known) {
                end_image(ST_CLIENT_COMMAND);
                break;
            }
            uint8_t r[16] = {};
            put32(r, CMD_EXEC_RESP);
            put32(r + 4, sizeof r);
            put32(r + 8, cmd);
            put32(r + 12, (uint32_t)payload.size());
            send_packet(r, fmt("CMD_EXEC_RESP cmd=%llu length=%llu", cmd, payload.size()).c_str());
            pending = payload.empty() ? 0 : cmd;
            break;
        }
        case CMD_EXEC_DATA:
            if (state != commands || pending == 0 || p.word(8) != pending) {
                end_image(ST_DATA_RESPONSE);
                break;
            }
            wire.add("sahara-tx", fmt("payload cmd=%llu", pending), payload.size());
            write_all(payload.data(), payload.size());
            pending = 0;
            break;
        case CMD_SWITCH_MODE: {
            if (state != commands) {
                end_image(ST_INVALID_COMMAND);
                break;
            }
            uint32_t mode = p.word(8);
            if (mode == 3) {
                command_ready();
            } else if (mode == 0) {
                // Leaving command mode restarts the protocol with a fresh HELLO.
                pending = 0;
                hello(0);
                state = await_resp;
            } else {
                end_image(ST_MODE_SWITCH);
            }
            break;
        }
        default:
            end_image(ST_INVALID_COMMAND);
        }
    }
}

bool engine::load_image()
{
    const std::vector<uint8_t> &want = opt.programmer;
    bool mismatch = false, first = true;
    bool use64 = opt.read64 == 1;
    std::vector<uint8_t> buf;

    auto fetch = [&](uint64_t off, uint64_t n) {
        if (use64) {
            uint8_t p[32] = {};
            put32(p, READ_DATA_64);
            put32(p + 4, sizeof p);
            put64(p + 8, IMAGE_ID);
            put64(p + 16, off);
            put64(p + 24, n);
            send_packet(p, fmt("READ_DATA_64 offset=0x%llx count=%llu", off, n).c_str());
        } else {
            uint8_t p[20] = {};
            put32(p, READ_DATA);
            put32(p + 4, sizeof p);
            put32(p + 8, IMAGE_ID);
            put32(p + 12, (uint32_t)off);
            put32(p + 16, (uint32_t)n);
            send_packet(p, fmt("READ_DATA offset=0x%llx count=%llu", off, n).c_str());
        }
        buf.resize(n);
        read_exact(buf.data(), n);
        wire.add("read-data", fmt("offset=0x%llx", off), n);
        if (opt.verify_programmer &&
            (off > want.size() || n > want.size() - off ||
             std::memcmp(buf.data(), want.data() + off, n) != 0))
            mismatch = true;
        if (first) {
            first = false;
            check_vanish(phase::image_transfer);
        }
    };
    auto refuse = [&](uint32_t status, const char *why) {
        wire.add("image", why);
        end_image(status);
        return false;
    };

    // The class decides the header size; the first 52 bytes are common.
    fetch(0, 52);
    std::vector<uint8_t> eh = buf;
    if (std::memcmp(eh.data(), "\x7F" "ELF", 4) != 0 || (eh[4] != 1 && eh[4] != 2) || eh[5] != 1)
        return refuse(ST_ELF_HEADER, "bad-elf");
    const bool is64 = eh[4] == 2;
    if (opt.read64 < 0)
        use64 = is64;
    if (is64) {
        fetch(52, 12);
        eh.insert(eh.end(), buf.begin(), buf.end());
    }
    auto h16 = [&](size_t o) { return (uint32_t)eh[o] | (uint32_t)eh[o + 1] << 8; };
    uint64_t phoff = is64 ? get64(&eh[32]) : get32(&eh[28]);
    uint32_t phent = h16(is64 ? 54 : 42), phnum = h16(is64 ? 56 : 44);
    if (phent != (is64 ? 56u : 32u) || phnum == 0 || phnum > 64)
        return refuse(ST_PHDR_COUNT, "bad-elf");

    fetch(phoff, (uint64_t)phent * phnum);
    std::vector<uint8_t> ph = buf;
    for (uint32_t i = 0; i < phnum; i++) {
        const uint8_t *p = &ph[(size_t)i * phent];
        uint32_t type = get32(p);
        uint64_t off = is64 ? get64(p + 8) : get32(p + 4);
        uint64_t size = is64 ? get64(p + 32) : get32(p + 16);
        if (type != 1 || size == 0)
            continue;
        if (size > MAX_SEGMENT || off + size < off)
            return refuse(ST_DATA_SIZE, "bad-elf");
        // A host must serve any range in any order, and the same one twice.
        std::vector<std::pair<uint64_t, uint64_t>> chunks;
        for (uint64_t done = 0; done < size;) {
            uint64_t n = std::min<uint64_t>(opt.sahara_chunk, size - done);
            chunks.emplace_back(off + done, n);
            done += n;
        }
        if (opt.scramble_ranges)
            std::reverse(chunks.begin(), chunks.end());
        for (auto &[at, n] : chunks)
            fetch(at, n);
    }
    if (opt.scramble_ranges)
        fetch(0, 52);
    if (mismatch)
        return refuse(ST_SEGMENT_HASH, "mismatch");
    wire.add("image", "verified");
    end_image(0);

    packet p = read_packet([this](void *d, size_t n) { read_exact(d, n); });
    wire.add("sahara-rx", packet_name(p.cmd));
    if (p.cmd != DONE) {
        end_image(ST_INVALID_COMMAND);
        return false;
    }
    uint8_t r[12] = {};
    put32(r, DONE_RESP);
    put32(r + 4, sizeof r);
    put32(r + 8, opt.done_status);
    send_packet(r, fmt("DONE_RESP status=%llu", opt.done_status).c_str());
    check_vanish(phase::programmer_start);
    return true;
}

} // namespace ravik_sim
