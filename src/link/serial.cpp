#include "core/core.h"
#include "link/device.h"
#include "platform/platform.h"

namespace ravik {

int32_t serial_open(const char *name) { return platform().serial_open(name); }

int32_t serial_close(int32_t handle)
{
    platform().serial_close(handle);
    return 0;
}

// The log texts keep the wording users and tools have long searched for.
int32_t serial_read(int32_t handle, void *buf, uint32_t count)
{
    int err = 0;
    int32_t n = platform().serial_read(handle, buf, count, &err);
    if (n < 0) {
        RK_LOGE("ReadFile() failed, GetLastError()=%d\n", err);
        return 0;
    }
    return n;
}

int32_t serial_write(int32_t handle, const void *buf, uint32_t count)
{
    int err = 0;
    int32_t n = platform().serial_write(handle, buf, count, &err);
    if (n < 0) {
        RK_LOGE("WriteFile() failed, GetLastError()=%d\n", err);
        return 0;
    }
    return n;
}

// This layer copes with zero-length packets, so the answer is always yes.
bool serial_zlp_aware() { return true; }

} // namespace ravik
