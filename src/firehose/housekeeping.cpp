// The small commands: host-side sleep, print and logger, the power and
// bootable-drive orders passed to the programmer, and the glue to storage
// and to backup and restore.
#include <strings.h>

#include "backup/bnr.h"
#include "container/container.h"
#include "core/core.h"
#include "firehose/commands.h"
#include "firehose/link.h"
#include "firehose/engine.h"
#include "link/device.h"
#include "link/properties.h"
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

namespace {

// The programmer of the running session goes into the backup file, so that
// the file can be flashed on its own. Without one the backup goes on.
int32_t save_programmer()
{
    simg *input = firehose_get_input();
    const char *name = device_get("sahara.programmer", nullptr);
    if (!input || !name || !simg_find(input, name))
        return 0;
    simg_entry *entry = simg_load(input, name);
    if (!entry)
        return 0;
    int32_t code = bnr_save_programmer(entry);
    simg_unload(input, entry->name);
    return code;
}

} // namespace

xtags *do_backup(tagline *tag)
{
    if (!device_has_flag(DEVICE_FLAG_BNR)) {
        RK_LOGD("Skipping backup and restore\n");
        set_error(0);
        return nullptr;
    }
    const char *name = tagline_get(tag, "name");
    int32_t commit = tagline_geti(tag, "commit", 0);
    int32_t code = 0;
    if (name) {
        code = bnr_add(name);
        if (code == 0 && tagline_getb(tag, "skip", false))
            code = bnr_skip(name);
    }
    if (code == 0 && commit != 0) {
        code = save_programmer();
        if (code == 0)
            code = bnr_backup(tagline_getb(tag, "ignore_gpt", false));
    }
    set_error(__add_context("do_backup", code));
    return nullptr;
}

xtags *do_restore(tagline *)
{
    if (!device_has_flag(DEVICE_FLAG_BNR))
        RK_LOGD("Skipping backup and restore\n");
    else
        bnr_restore(); // the outcome is for the review at the session's end
    set_error(0);
    return nullptr;
}


} // namespace ravik
