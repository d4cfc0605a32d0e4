// Packets and the mode machine, shared by the greeting and the download.
#pragma once

#include <cstdint>
#include <cstring>

namespace ravik {

enum sahara_command : uint32_t {
    SAHARA_HELLO = 1,
    SAHARA_HELLO_RESP = 2,
    SAHARA_READ_DATA = 3,
    SAHARA_END_IMAGE_TX = 4,
    SAHARA_DONE = 5,
    SAHARA_DONE_RESP = 6,
    SAHARA_COMMAND_READY = 11,
    SAHARA_CMD_SWITCH_MODE = 12,
    SAHARA_CMD_EXEC = 13,
    SAHARA_CMD_EXEC_RESP = 14,
    SAHARA_CMD_EXEC_DATA = 15,
    SAHARA_READ_DATA_64 = 18,
};

enum sahara_mode : uint32_t {
    SAHARA_MODE_IMAGE_TX_PENDING = 0,
    SAHARA_MODE_IMAGE_TX_COMPLETE = 1,
    SAHARA_MODE_MEMORY_DEBUG = 2,
    SAHARA_MODE_COMMAND = 3,
};

constexpr uint32_t SAHARA_PACKET_MAX = 48;
constexpr const char *SAHARA_MODE_KEY = "sahara.current_mode";

// Every receive goes into one of these; bytes that did not arrive read as 0.
struct sahara_packet {
    uint8_t bytes[SAHARA_PACKET_MAX];
};

inline uint32_t get32(const sahara_packet &p, uint32_t off)
{
    const uint8_t *b = p.bytes + off;
    return (uint32_t)b[0] | (uint32_t)b[1] << 8 | (uint32_t)b[2] << 16 | (uint32_t)b[3] << 24;
}
inline uint64_t get64(const sahara_packet &p, uint32_t off)
{
    return (uint64_t)get32(p, off) | (uint64_t)get32(p, off + 4) << 32;
}
inline void put32(sahara_packet &p, uint32_t off, uint32_t v)
{
    uint8_t *b = p.bytes + off;
    b[0] = (uint8_t)v;
    b[1] = (uint8_t)(v >> 8);
    b[2] = (uint8_t)(v >> 16);
    b[3] = (uint8_t)(v >> 24);
}
// A status the target reports is a whole word; a code keeps one byte for it,
// so anything past the table's room reads as an unknown Sahara error.
inline int32_t sahara_status_code(uint32_t status)
{
    return 128 + (int32_t)(status > 127 ? 127 : status);
}

// A zeroed packet with its header.
inline sahara_packet make_packet(uint32_t command, uint32_t length)
{
    sahara_packet p;
    memset(&p, 0, sizeof(p));
    put32(p, 0, command);
    put32(p, 4, length);
    return p;
}

int32_t rx_packet(sahara_packet *packet, uint32_t expected);
int32_t rx_packet_3(sahara_packet *packet, uint32_t first, uint32_t second, uint32_t third);
int32_t tx_packet(const sahara_packet *packet);
int32_t change_mode(uint32_t mode);
const char *mode_name(uint32_t mode);
const char *command_name(uint32_t command);

} // namespace ravik
