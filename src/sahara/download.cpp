#include "core/core.h"
#include "link/device.h"
#include "sahara/packet.h"
#include "sahara/sahara.h"

namespace ravik {

namespace {

// The target drives: serve each range it asks for straight out of the image,
// with no copy, until it says it is through.
int32_t serve_ranges(const uint8_t *image, uint32_t size, sahara_packet *end)
{
    for (;;) {
        sahara_packet p;
        RK_LOGD("Receiving READ_DATA, READ_DATA_64, or END_IMAGE_TX packet\n");
        int32_t code = rx_packet_3(&p, SAHARA_READ_DATA, SAHARA_READ_DATA_64, SAHARA_END_IMAGE_TX);
        if (code != 0)
            return code;
        uint32_t command = get32(p, 0);
        if (command == SAHARA_END_IMAGE_TX) {
            *end = p;
            return 0;
        }
        uint64_t offset, count;
        if (command == SAHARA_READ_DATA_64) {
            offset = get64(p, 16);
            count = get64(p, 24);
            if ((offset >> 32) != 0 || (count >> 32) != 0) {
                RK_LOGE("data chunk >= 4GB not supported\n");
                return ERR_RANGE;
            }
        } else {
            offset = get32(p, 12);
            count = get32(p, 16);
        }
        if (offset + count > size)
            return ERR_RANGE;
        RK_LOGD("Sending %u bytes\n", (uint32_t)count);
        if (count == 0)
            continue;
        if (device_write(image + offset, (uint32_t)count) != (int32_t)count)
            return ERR_IO;
    }
}

int32_t finish(const sahara_packet &end)
{
    uint32_t status = get32(end, 12);
    if (status != 0)
        return sahara_status_code(status);
    sahara_packet done = make_packet(SAHARA_DONE, 8);
    RK_LOGD("Sending DONE packet\n");
    int32_t code = tx_packet(&done);
    if (code != 0)
        return code;
    sahara_packet resp;
    RK_LOGD("Receiving DONE_RESP packet\n");
    if ((code = rx_packet(&resp, SAHARA_DONE_RESP)) != 0)
        return code;
    uint32_t transfer = get32(resp, 8);
    return transfer == 0 || transfer == 1 ? 0 : ERR_GENERAL;
}

} // namespace

int32_t sahara_download(const void *image, uint32_t size)
{
    RK_LOGD("Switching to image download mode\n");
    int32_t code = change_mode(SAHARA_MODE_IMAGE_TX_PENDING);
    sahara_packet end;
    if (code == 0)
        code = serve_ranges(static_cast<const uint8_t *>(image), size, &end);
    if (code == 0)
        code = finish(end);
    RK_RETURN(code);
}

} // namespace ravik
