// The one working entry: the order of a flash session, start to end.
#include "ravik.h"

#include "backup/bnr.h"
#include "core/core.h"
#include "link/device.h"

namespace ravik {

namespace {

// Steps 4 to 12: identify the target, open the container, choose the package,
// upload the programmer and run the recipes. They join with the Sahara,
// container and Firehose modules; until those exist a session that reached a
// target ends here, saying so, rather than claiming a flash it did not make.
int32_t run_target_stages(const char *image_path)
{
    (void)image_path;
    RK_RETURN(ERR_NOT_SUPPORTED);
}

} // namespace

} // namespace ravik

using namespace ravik;

extern "C" RK_API int32_t rk_flash_singleimage(const char *device, const char *image_path,
                                               uint32_t flags, rk_callback callback, void *context)
{
    double start = now();
    int32_t code = 0;

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
            code = run_target_stages(image_path);
    }

    if (code != 0) {
        RK_LOGE("ERROR: %s\n", format_error(code));
        if (device_has_flag(DEVICE_FLAG_SAVE_LOG))
            RK_LOGI("Check ravik_log.txt for more details\n");
    } else {
        // A good run reboots the target to fastboot; the command joins with
        // the Firehose module, and its result never changes the session's.
        device_clr_flag(DEVICE_FLAG_SAVE_LOG);
    }
    RK_LOGI("Total time: %.3fs\n", now() - start);

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
