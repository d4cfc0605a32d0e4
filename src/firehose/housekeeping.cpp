// The small commands: host-side sleep, print and logger, the power and
// bootable-drive orders passed to the programmer, and the glue to storage
// and to backup and restore.
#include <strings.h>

#include "core/core.h"
#include "firehose/commands.h"
#include "firehose/link.h"
#include "link/device.h"
#include "platform/platform.h"

namespace ravik {

xtags *do_sleep(tagline *tag)
{
    int32_t ms = tagline_geti(tag, "ms", 0);
    if (ms == 0) {
        RK_LOGE("sleep command missing \"ms\" attribute!");
        set_error(ERR_MISSING_PARAM);
        return nullptr;
    }
    // A negative time has no meaning: nothing to wait for.
    const char *why = tagline_get(tag, "why");
    RK_LOGI("Sleeping for %u ms - %s\n", (uint32_t)ms, why ? why : "");
    if (ms > 0)
        platform().sleep_ms((uint32_t)ms);
    set_error(0);
    return nullptr;
}

xtags *do_print(tagline *tag)
{
    if (const char *what = tagline_get(tag, "what"))
        RK_LOGI("%s\n", what);
    set_error(0);
    return nullptr;
}

xtags *do_logger(tagline *tag)
{
    const char *level = tagline_get(tag, "level");
    switch (level ? level[0] : 0) {
    case 'D':
        logger_set_level(LOG_DEBUG);
        break;
    case 'I':
        logger_set_level(LOG_INFO);
        break;
    case 'W':
        logger_set_level(LOG_WARN);
        break;
    case 'E':
        logger_set_level(LOG_ERROR);
        break;
    default:
        break;
    }
    set_error(0);
    return nullptr;
}

xtags *do_power(tagline *tag)
{
    const char *value = tagline_get(tag, "value");
    int32_t code = 0;
    xtags *doc = nullptr;
    if (!value) {
        code = ERR_MISSING_PARAM;
    } else {
        if (strcasecmp(value, "off") == 0)
            RK_LOGI("Powering off\n");
        else if (strcasecmp(value, "reset") == 0)
            RK_LOGI("Rebooting\n");
        else if (strcasecmp(value, "reset_to_fastboot") == 0)
            RK_LOGI("Rebooting to fastboot\n");
        else if (strcasecmp(value, "reset_to_edl") == 0)
            RK_LOGI("Rebooting to emergency download mode\n");
        else
            RK_LOGW("unknown reboot type: %s\n", value);
        // The programmer judges what it understands, not the host.
        doc = fh_send(tag);
        fh_check_ack();
        code = get_error();
    }
    set_error(__add_context("do_power", code));
    return doc;
}

xtags *do_setbootable(tagline *tag)
{
    xtags *doc = fh_send(tag);
    set_error(no_response_code(doc, get_error()));
    return doc;
}

xtags *do_backup(tagline *tag)
{
    if (!device_has_flag(DEVICE_FLAG_BNR)) {
        RK_LOGD("Skipping backup and restore\n");
        set_error(0);
        return nullptr;
    }
    return not_yet(tag);
}

xtags *do_restore(tagline *tag)
{
    if (!device_has_flag(DEVICE_FLAG_BNR)) {
        RK_LOGD("Skipping backup and restore\n");
        set_error(0);
        return nullptr;
    }
    return not_yet(tag);
}


} // namespace ravik
