// UFS provisioning, with the power cycle in the middle of a recipe. A new
// layout takes effect only after a reboot, so the host resets the target,
// uploads the programmer again and carries on with the same recipe.
#include <atomic>
#include <cstdlib>

#include "container/container.h"
#include "core/core.h"
#include "firehose/commands.h"
#include "firehose/engine.h"
#include "firehose/link.h"
#include "link/device.h"
#include "link/properties.h"
#include "platform/platform.h"
#include "sahara/sahara.h"
#include "storage/storage.h"

namespace ravik {

namespace {

constexpr double UFS_LATENCY = 8.0;
constexpr int32_t COMMIT_UNCHANGED = 2;
constexpr uint32_t RESET_SETTLE_MS = 3000;
constexpr uint32_t REOPEN_PAUSE_MS = 500;
constexpr double RETURN_LIMIT = 60.0;

// Shared by all sessions of the process and never set back: the skip on a
// secure target is told once.
std::atomic<bool> do_info{true};

// The commit again on a fresh programmer: configure without storage init,
// every staged tag, then the commit itself.
xtags *retry_commit(firehose_module *m, tagline *commit, int32_t *code)
{
    RK_LOGI("Provisioning failed, power cycling to try again\n");
    if ((*code = power_cycle()) != 0)
        return nullptr;
    firehose_do_fmt("configure SkipStorageInit=\"1\"");
    if ((*code = get_error()) != 0)
        return nullptr;
    list_for_each_safe(it, tmp, &m->ufs_commands)
    {
        fh_send(list_entry(it, tagline, aux_link));
        fh_check_ack();
        if ((*code = get_error()) != 0)
            return nullptr;
    }
    xtags *doc = fh_send_and_wait_commit_result(commit);
    fh_check_ack();
    *code = get_error();
    return doc;
}

void clear_ufs_commands(firehose_module *m)
{
    list_for_each_safe(it, tmp, &m->ufs_commands)
        list_del(it);
}

} // namespace

int32_t power_cycle()
{
    simg *input = firehose_get_input();
    double start = now();
    const char *name = device_get("sahara.programmer", nullptr);
    simg_entry *entry = simg_load(input, name);
    int32_t code = get_error();
    if (entry) {
        fh_send_fmt("power value=\"reset\"");
        fh_check_ack();
        code = get_error();
    }
    if (entry && code == 0) {
        device_close();
        platform().sleep_ms(RESET_SETTLE_MS);
        for (;;) {
            // The port comes and goes while the target reboots: what the
            // attempts log stays out of the subscribers' way.
            logger_mute();
            code = device_open();
            logger_unmute();
            if (code == 0) {
                RK_LOGI("Downloading programmer\n");
                code = sahara_download(entry->data, (uint32_t)entry->size);
            }
            if (code == 0 || now() - start >= RETURN_LIMIT)
                break;
            device_close();
            platform().sleep_ms(REOPEN_PAUSE_MS);
        }
        if (code == 0 && (code = device_unset("fh.storage_inited")) == 0)
            code = fh_invalidate();
    }
    if (entry)
        simg_unload(input, entry->name);
    else if (code == 0)
        code = ERR_LOAD_PROGRAMMER; // no container or no programmer name
    code = __add_context("power_cycle", code);
    set_error(code);
    return code;
}

xtags *do_ufs(tagline *tag)
{
    firehose_module *m = get_firehose();
    if (!m)
        return nullptr;
    bool commit = tagline_getl(tag, "commit", 0) != 0;
    double old_latency = fh_read_latency(UFS_LATENCY);
    xtags *doc = nullptr;
    int32_t code = 0;
    bool cycled = false;
    do {
        if (device_has_flag(DEVICE_FLAG_SECURE)) {
            if (do_info.exchange(false))
                RK_LOGI("Skipping UFS provsioning as target is secure\n");
            break;
        }
        if (tagline_get(tag, "bConfigDescrLock")) {
            if (device_has_flag(DEVICE_FLAG_UFS_LOCK) && (code = tagline_set(tag, "bConfigDescrLock", "1")) != 0)
                break;
            bool lock = strtol(tagline_get(tag, "bConfigDescrLock"), nullptr, 0) != 0;
            RK_LOGI("Provisioning UFS%s\n", lock ? " (will lock!)" : "");
        }
        if (!commit) {
            list_add_tail(&m->ufs_commands, &tag->aux_link);
            fh_log_naks(false);
            doc = fh_send(tag);
            fh_check_ack();
            code = get_error();
            fh_log_naks(true);
            break;
        }
        if (device_get("provisioning_may_hang", nullptr)) {
            // Only a fresh programmer, without storage init, gets the commit.
            RK_LOGD("Forcing failure as provisioning may hang\n");
            code = ERR_GENERAL;
        } else {
            fh_log_naks(false);
            doc = fh_send_and_wait_commit_result(tag);
            fh_check_ack();
            code = get_error();
            fh_log_naks(true);
        }
        if (code != 0) {
            cycled = true;
            doc = retry_commit(m, tag, &code);
            if (code != 0)
                break;
        }
        if (xtags_geti(doc, "response", "commit_result") == COMMIT_UNCHANGED) {
            RK_LOGI("SKIPPED (already provisioned with identical settings)\n");
            break;
        }
        RK_LOGI("Rebooting for provisioning to take effect\n");
        cycled = true;
        if ((code = power_cycle()) == 0)
            storage_invalidate();
    } while (false);
    if (commit)
        clear_ufs_commands(m);
    // After a power cycle this wakes the link again, with the longer limit
    // still in force.
    fh_read_latency(old_latency);
    if (cycled) {
        // Whatever came before the reset is gone; the answer at hand is the
        // wake-up's, if it worked.
        int32_t wake = get_error();
        doc = fh_last_response();
        if (!doc && code == 0)
            code = wake != 0 ? wake : ERR_NO_RESPONSE;
    }
    set_error(__add_context("do_ufs", code));
    return doc;
}

} // namespace ravik
