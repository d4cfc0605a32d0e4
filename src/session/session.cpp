// The one working entry: the order of a flash session, start to end.
#include "ravik.h"

#include "backup/bnr.h"
#include "container/container.h"
#include "core/core.h"
#include "firehose/engine.h"
#include "link/device.h"
#include "link/properties.h"
#include "sahara/sahara.h"
#include "session/package.h"

namespace ravik {

namespace {

// What a session holds beside the device object; freed on every road out.
struct session_locals {
    simg *image = nullptr;
    xtags *package = nullptr;
    void release()
    {
        xtags_free(package);
        package = nullptr;
        simg_close(image);
        image = nullptr;
    }
    ~session_locals() { release(); }
};

int32_t upload_programmer(session_locals &s)
{
    RK_LOGI("Loading programmer\n");
    const char *name = nullptr;
    list_for_each_safe(it, tmp, &s.package->lines)
    {
        tagline *line = list_entry(it, tagline, link);
        if (tagline_is(line, "programmer")) {
            name = tagline_get(line, "filename");
            break;
        }
    }
    simg_entry *entry = name ? simg_load(s.image, name) : nullptr;
    if (!entry)
        return ERR_LOAD_PROGRAMMER;
    int32_t code = device_set("sahara.programmer", entry->name);
    if (code == 0) {
        RK_LOGI("...filename = %s\n", entry->name);
        RK_LOGI("Sending programmer\n");
        code = sahara_download(entry->data, (uint32_t)entry->size);
    }
    simg_unload(s.image, name);
    return code;
}

// Steps from the first Sahara hello to the last recipe; the first failure
// ends them.
int32_t run_target_stages(session_locals &s, const char *image_path)
{
    RK_LOGI("Detecting device\n");
    int32_t code = sahara_greet_device();
    if (code != 0)
        return code;
    RK_LOGI("Opening singleimage\n");
    if (!(s.image = simg_open(image_path, 0)))
        return ERR_OPEN_SIMG;
    RK_LOGI("Loading package\n");
    if (!(s.package = load_package(s.image)))
        return ERR_LOAD_PACKAGE;
    if ((code = upload_programmer(s)) != 0)
        return code;
    RK_LOGI("Handling things over to programmer\n");
    firehose_set_input(s.image);
    // A link that did not wake has said so; running the package would only
    // wait for it once more.
    if ((code = get_error()) != 0)
        return code;
    firehose_do_pkg(s.package);
    return get_error();
}

} // namespace

} // namespace ravik

using namespace ravik;

extern "C" RK_API int32_t rk_flash_singleimage(const char *device, const char *image_path,
                                               uint32_t flags, rk_callback callback, void *context)
{
    double start = now();
    int32_t code = 0;
    session_locals locals;

    device_object *dev = get_device();
    if (!dev) {
        code = get_error();
    } else {
        device_set_name(device);
        device_set_flag(flags);
        // Without memory for it the session runs on, just without callback.
        if (callback)
            device_subscribe(callback, context);
        RK_LOGI("Opening device: %s\n", dev->name);
        code = device_open();
        if (code == 0)
            code = run_target_stages(locals, image_path);
    }

    if (code != 0) {
        RK_LOGE("ERROR: %s\n", format_error(code));
        // Without a device object there are no flags to ask; asking would
        // make one that nothing ends.
        if (dev && device_has_flag(DEVICE_FLAG_SAVE_LOG))
            RK_LOGI("Check ravik_log.txt for more details\n");
    } else {
        // A target that refuses to reboot still had a good flash.
        firehose_do_fmt("power value=\"reset_to_fastboot\"");
        device_clr_flag(DEVICE_FLAG_SAVE_LOG);
    }
    RK_LOGI("Total time: %.3fs\n", now() - start);
    // May ask for the log to be saved, also after a session without error.
    if (dev && device_has_flag(DEVICE_FLAG_BNR))
        bnr_review();

    locals.release();
    if (dev)
        free_device();
    return __add_context("rk_flash_singleimage", code);
}

extern "C" RK_API const char *rk_describe_error(int32_t code) { return format_error(code); }

extern "C" RK_API void rk_enable_forced_bnr(void) { bnr_enable_forced(); }

extern "C" RK_API int32_t rk_get_version(int32_t *major, int32_t *minor)
{
    *major = RAVIK_VERSION_MAJOR;
    *minor = RAVIK_VERSION_MINOR;
    return 0;
}
