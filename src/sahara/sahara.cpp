#include "sahara/sahara.h"

#include "core/core.h"
#include "link/buffer.h"
#include "link/device.h"
#include "link/properties.h"
#include "platform/platform.h"
#include "sahara/packet.h"

namespace ravik {

namespace {

enum client_command : uint32_t {
    CMD_READ_SN = 1,
    CMD_READ_HWID = 2,
    CMD_READ_PK_HASH = 3,
    CMD_READ_DEBUG_DATA = 6,
    CMD_READ_SV_SBL = 7,
};

constexpr int GREETING_RETRIES = 2;
constexpr uint32_t REOPEN_PAUSE_MS = 500;

int32_t receive(sahara_packet *packet, uint32_t *command)
{
    memset(packet, 0, sizeof(*packet));
    int32_t n = device_read(packet->bytes, SAHARA_PACKET_MAX);
    if (n < 8 || get32(*packet, 4) != (uint32_t)n)
        return ERR_IO;
    *command = get32(*packet, 0);
    return 0;
}

int32_t do_hello(uint32_t mode)
{
    sahara_packet p;
    RK_LOGD("Receiving HELLO packet\n");
    int32_t code = rx_packet(&p, SAHARA_HELLO);
    if (code == 0) {
        RK_LOGD("...protocol version: %u\n", get32(p, 8));
        RK_LOGD("...compatible with: %u\n", get32(p, 12));
        RK_LOGD("...max. packet size: %u\n", get32(p, 16));
        RK_LOGD("...current mode: %s\n", mode_name(get32(p, 20)));
        device_setu(SAHARA_MODE_KEY, get32(p, 20));
        // The host always answers as version 2, whatever the target says.
        sahara_packet resp = make_packet(SAHARA_HELLO_RESP, SAHARA_PACKET_MAX);
        put32(resp, 8, 2);
        put32(resp, 12, 2);
        put32(resp, 16, 0);
        put32(resp, 20, mode);
        RK_LOGD("Sending HELLO_RESP packet\n");
        code = tx_packet(&resp);
    }
    return __add_context("do_hello", code);
}

// The payload stays in the transfer buffer after the release, until the
// next acquire.
int32_t exec_command(uint32_t command)
{
    sahara_packet p = make_packet(SAHARA_CMD_EXEC, 12);
    put32(p, 8, command);
    RK_LOGD("Sending CMD_EXEC packet, cmd=%s\n", command_name(command));
    int32_t result = tx_packet(&p);
    if (result != 0)
        return result;
    RK_LOGD("Receiving CMD_EXEC_RESP packet\n");
    result = rx_packet(&p, SAHARA_CMD_EXEC_RESP);
    if (result != 0)
        return result;
    if (get32(p, 8) != command)
        return ERR_GENERAL;
    result = __buffer_acquire();
    if (result != 0)
        return result;
    int32_t length = (int32_t)get32(p, 12);
    RK_LOGD("...payload: %d byte(s)\n", length);
    if (length > BUFFER_SIZE) {
        // More than the buffer holds: refuse before asking for it, so the
        // buffer's bounds hold and nothing is left in flight.
        result = ERR_RANGE;
    } else if (length > 0) {
        RK_LOGD("Receiving payload\n");
        sahara_packet data = make_packet(SAHARA_CMD_EXEC_DATA, 12);
        put32(data, 8, command);
        result = tx_packet(&data);
        if (result == 0 && buffer_read(length) != length)
            result = ERR_IO;
    }
    __buffer_release();
    return result;
}

uint32_t payload_word(uint32_t offset)
{
    const uint8_t *b = reinterpret_cast<const uint8_t *>(buffer_base());
    sahara_packet p;
    memset(&p, 0, sizeof(p));
    memcpy(p.bytes, b + offset, 4);
    return get32(p, 0);
}

int32_t stat_device()
{
    int32_t code = 0;
    if (!get_device())
        return get_error();
    do {
        RK_LOGD("Reading CPU serial number\n");
        if ((code = exec_command(CMD_READ_SN)) != 0)
            break;
        int32_t have = buffer_avail();
        if (have < 4) {
            code = ERR_GENERAL;
            break;
        }
        device_setu("cpu.serial", payload_word(0));
        uint32_t embedded = have >= 8 ? payload_word(4) : 0;
        if (embedded != 0) {
            RK_LOGI("Using CPU id embedded within serial number\n");
            if ((code = device_setu("cpu.id", embedded)) != 0)
                break;
        } else {
            RK_LOGD("Reading CPU id\n");
            if ((code = exec_command(CMD_READ_HWID)) != 0)
                break;
            if (buffer_avail() < 8) {
                code = ERR_GENERAL;
                break;
            }
            if ((code = device_setu("cpu.id", (payload_word(4) >> 12) & 0xFFFF)) != 0)
                break;
            RK_LOGD("Reading SBL SV\n");
            if ((code = exec_command(CMD_READ_SV_SBL)) != 0)
                break;
            if (buffer_avail() < 4) {
                code = ERR_GENERAL;
                break;
            }
            device_setu("cpu.sv_sbl", payload_word(0));
        }
        if (device_has_flag(DEVICE_FLAG_DEBUG)) {
            RK_LOGD("Reading debug data\n");
            if ((code = exec_command(CMD_READ_DEBUG_DATA)) != 0)
                break;
            if (buffer_avail() > 0) {
                RK_LOGI("Debug data dump follows\n");
                hexdump(buffer_base(), (size_t)buffer_avail());
            }
        }
    } while (false);
    RK_RETURN(code);
}

} // namespace

const char *mode_name(uint32_t mode)
{
    switch (mode) {
    case SAHARA_MODE_IMAGE_TX_PENDING:
        return "Image transfer pending";
    case SAHARA_MODE_IMAGE_TX_COMPLETE:
        return "Image transfer complete";
    case SAHARA_MODE_MEMORY_DEBUG:
        return "Memory debug";
    case SAHARA_MODE_COMMAND:
        return "Command";
    default:
        return "unknown";
    }
}

const char *command_name(uint32_t command)
{
    switch (command) {
    case CMD_READ_SN:
        return "CMD_READ_SN";
    case CMD_READ_HWID:
        return "CMD_READ_HWID";
    case CMD_READ_PK_HASH:
        return "CMD_READ_PK_HASH";
    case CMD_READ_DEBUG_DATA:
        return "CMD_READ_DEBUG_DATA";
    case CMD_READ_SV_SBL:
        return "CMD_READ_SV_SBL";
    default:
        return "Unknown";
    }
}

int32_t rx_packet(sahara_packet *packet, uint32_t expected)
{
    uint32_t command = 0;
    int32_t code = receive(packet, &command);
    if (code != 0)
        return code;
    if (command == expected)
        return 0;
    if (command == SAHARA_END_IMAGE_TX)
        return sahara_status_code(get32(*packet, 12));
    RK_LOGE("Unexpected command, expecting %d, got %d instead.\n", (int)expected, (int)command);
    return ERR_GENERAL;
}

int32_t rx_packet_3(sahara_packet *packet, uint32_t first, uint32_t second, uint32_t third)
{
    uint32_t command = 0;
    int32_t code = receive(packet, &command);
    if (code != 0)
        return code;
    if (command == first || command == second || command == third)
        return 0;
    if (command == SAHARA_END_IMAGE_TX)
        return sahara_status_code(get32(*packet, 12));
    RK_LOGE("Unexpected command, expecting %d or %d or %d, got %d instead.\n", (int)first,
            (int)second, (int)third, (int)command);
    return ERR_GENERAL;
}

int32_t tx_packet(const sahara_packet *packet)
{
    uint32_t length = get32(*packet, 4);
    if (device_write(packet->bytes, length) != (int32_t)length)
        return ERR_IO;
    return 0;
}

int32_t change_mode(uint32_t mode)
{
    int32_t code = 0;
    uint32_t held = device_getu(SAHARA_MODE_KEY, 0);
    bool transfer_state = held == SAHARA_MODE_IMAGE_TX_PENDING || held == SAHARA_MODE_IMAGE_TX_COMPLETE;
    do {
        if (transfer_state) {
            if ((code = do_hello(mode)) != 0)
                break;
        } else {
            sahara_packet p = make_packet(SAHARA_CMD_SWITCH_MODE, 12);
            put32(p, 8, mode);
            RK_LOGD("Sending CMD_SWITCH_MODE packet\n");
            if ((code = tx_packet(&p)) != 0)
                break;
        }
        if (mode == SAHARA_MODE_COMMAND) {
            sahara_packet p;
            RK_LOGD("Receiving COMMAND_READY packet\n");
            if ((code = rx_packet(&p, SAHARA_COMMAND_READY)) != 0)
                break;
        }
        if (!transfer_state && (mode == SAHARA_MODE_IMAGE_TX_PENDING || mode == SAHARA_MODE_IMAGE_TX_COMPLETE)) {
            if ((code = do_hello(mode)) != 0)
                break;
        }
        code = device_setu(SAHARA_MODE_KEY, mode);
    } while (false);
    RK_RETURN(code);
}

int32_t sahara_greet_device()
{
    int32_t result = 0;
    int retries = GREETING_RETRIES;
    for (;;) {
        RK_LOGD("Switching to command mode\n");
        if (result == 0)
            result = change_mode(SAHARA_MODE_COMMAND);
        if (result == 0 || retries == 0)
            break;
        retries--;
        RK_LOGD("Retrying\n");
        device_close();
        platform().sleep_ms(REOPEN_PAUSE_MS);
        result = device_open();
    }
    if (result == 0) {
        RK_LOGD("Identifying device\n");
        result = stat_device();
    }
    if (result == 0) {
        uint32_t id = device_getu("cpu.id", 0);
        uint32_t sn = device_getu("cpu.serial", 0);
        RK_LOGI("...cpu.id  = %u (0x%x)\n", id, id);
        RK_LOGI("...cpu.sn  = %u (0x%x)\n", sn, sn);
    }
    RK_RETURN(result);
}

} // namespace ravik
