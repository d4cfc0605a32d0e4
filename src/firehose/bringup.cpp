// Between the upload and the first recipe: what storage, which chip
// revision, secure or not. Silence is information here: each question has a
// fallback, and a dead target shows at its first real command.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "backup/bnr.h"
#include "core/core.h"
#include "firehose/commands.h"
#include "firehose/link.h"
#include "link/device.h"
#include "link/properties.h"

namespace ravik {

namespace {

constexpr uint32_t MAX_PAYLOAD = 0x100000;
constexpr double CONFIGURE_LATENCY = 8.0;

char *getvar(const char *name, char *buffer, size_t size)
{
    char *result = nullptr;
    xtags *doc = fh_send_fmt("getvar value=\"%s\"", name);
    int32_t code = get_error();
    if (doc) {
        if (!fh_check_ack()) {
            code = ERR_NAK;
            RK_LOGW("...target does support 'getvar %s'\n", name);
        } else if (const char *value = xtags_get(doc, "response", name)) {
            snprintf(buffer, size, "%s", value);
            result = buffer;
            code = 0;
        } else {
            code = 0;
        }
    }
    set_error(__add_context("getvar", code));
    return result;
}

int32_t detect_storage_type()
{
    if (device_get("storage.type", nullptr))
        return 0;
    RK_LOGI("Identifying storage type\n");
    char buf[16];
    const char *value = getvar("boot_device", buf, sizeof(buf));
    if (value && *value) {
        RK_LOGI("...%s\n", value);
    } else {
        RK_LOGW("Could not determine storage type. Assuming eMMC...\n");
        value = "eMMC";
    }
    return device_set("storage.type", value);
}

int32_t detect_cpu_ver()
{
    if (device_get("cpu.vername", nullptr))
        return 0;
    RK_LOGI("Identifying CPU version\n");
    char buf[32];
    uint32_t number = 0;
    const char *value = getvar("cpu.ver", buf, sizeof(buf));
    if (value && *value)
        number = (uint32_t)strtoul(value, nullptr, 0);
    char name[32] = "unknown";
    value = getvar("cpu.vername", buf, sizeof(buf));
    if (number != 0 && value && *value)
        snprintf(name, sizeof(name), "%s", value);
    int32_t code = device_setu("cpu.ver", number) | device_set("cpu.vername", name);
    if (code != 0)
        RK_LOGE("Error updating device properties");
    else
        RK_LOGI("...%s %s\n", device_get("cpu.name", ""), name);
    return code;
}

int32_t check_security()
{
    RK_LOGI("Determining target secure state\n");
    char buf[16];
    const char *value = getvar("secure", buf, sizeof(buf));
    bool secure = value && (value[0] == '1' || strcasecmp(value, "true") == 0 ||
                            strcasecmp(value, "yes") == 0);
    RK_LOGI("...%s\n", secure ? "secure = yes" : "secure = no");
    if (secure) {
        device_set_flag(DEVICE_FLAG_SECURE);
        if (!bnr_is_forced())
            device_clr_flag(DEVICE_FLAG_BNR);
    }
    return 0;
}

// The offer, the target's counter-proposal and the second offer.
xtags *negotiate(tagline *tag, uint32_t size, uint32_t *settled, int32_t *code)
{
    *code = 0;
    if ((*code = tagline_setu(tag, "MaxPayloadSizeToTargetInBytes", size)) != 0)
        return nullptr;
    fh_log_naks(false);
    xtags *doc = fh_send(tag);
    *code = no_response_code(doc, get_error());
    if (*code != 0 || fh_check_ack()) {
        *settled = size;
        return doc;
    }
    uint32_t proposal = xtags_getu(doc, "response", "MaxPayloadSizeToTargetInBytes");
    if (proposal == 0) {
        *code = ERR_BAD_RESPONSE;
        return doc;
    }
    size = proposal < MAX_PAYLOAD ? proposal : MAX_PAYLOAD;
    if ((*code = tagline_setu(tag, "MaxPayloadSizeToTargetInBytes", size)) != 0)
        return doc;
    doc = fh_send(tag);
    *code = no_response_code(doc, get_error());
    *settled = size;
    return doc;
}

} // namespace

int32_t init_firehose()
{
    int32_t code = detect_storage_type();
    if (code != 0) {
        RK_LOGE("Error detecting target storage\n");
    } else if ((code = detect_cpu_ver()) != 0) {
        RK_LOGE("Error detecting target cpu\n");
    } else {
        check_security();
    }
    RK_RETURN(code);
}

xtags *do_configure(tagline *tag)
{
    double old_latency = fh_read_latency(CONFIGURE_LATENCY);
    xtags *doc = nullptr;
    int32_t code = 0;
    do {
        if (device_getu("fh.storage_inited", 0) != 0) {
            RK_LOGD("device storage has already been initialized\n");
            RK_LOGD("skipping\n");
            break;
        }
        RK_LOGI("Configuring device...\n");
        tagline_set(tag, "Verbose", "0");
        if ((code = tagline_set(tag, "ZlpAwareHost", device_has_flag(DEVICE_FLAG_ZLP_AWARE) ? "1" : "0")) != 0)
            break;
        const char *memory = device_get("storage.type", nullptr);
        if (!memory) {
            RK_LOGE("missing storage type!");
            code = ERR_GENERAL;
            break;
        }
        if ((code = tagline_set(tag, "MemoryName", memory)) != 0)
            break;
        // A size settled by an earlier exchange wins over the recipe's.
        uint32_t size = device_getu("fh.max_packet_sz", 0);
        if (size == 0)
            size = tagline_getu(tag, "MaxPayloadSizeToTargetInBytes", 0);
        if (size == 0 || size > MAX_PAYLOAD)
            size = MAX_PAYLOAD;
        uint32_t settled = 0;
        doc = negotiate(tag, size, &settled, &code);
        if (code != 0 || !fh_check_ack())
            break;
        uint32_t supported = xtags_getu(doc, "response", "MaxPayloadSizeToTargetInBytesSupported");
        if (supported > settled)
            RK_LOGW("Performance could be improved as target supports a larger payload size (%u bytes) "
                    "then what the host could support (%u bytes)\n",
                    supported, settled);
        device_setu("fh.max_packet_sz", settled);
        if (tagline_getu(tag, "SkipStorageInit", 0) == 0)
            code = device_setu("fh.storage_inited", 1);
    } while (false);
    fh_log_naks(true);
    fh_read_latency(old_latency);
    set_error(__add_context("do_configure", code));
    return doc;
}

} // namespace ravik
