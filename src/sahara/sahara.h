// The boot ROM's binary protocol: greeting, identification, image upload.
#pragma once

#include <cstdint>

namespace ravik {

// Takes a freshly opened target into command mode and identifies it:
// "cpu.serial", "cpu.id" and (unless embedded in the serial) "cpu.sv_sbl".
// Three tries, the port reopened between them.
int32_t sahara_greet_device();

// Serves the image to the target range by range until it has all it wants,
// then ends the transfer so the target starts the image. From command mode,
// or from a reset target greeting afresh.
int32_t sahara_download(const void *image, uint32_t size);

} // namespace ravik
