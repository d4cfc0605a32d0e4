// The Sahara client against a boot ROM that says what the input says: the
// greeting and identification, then a download of a small image.
//
// Input: a flags byte (bit 0: debug run, bit 1: hexdump of the line, bit 2:
// debug log, bit 3: download even after a failed greeting, bits 4-5: the
// mode held before, 0, 3 or 7, or none), one byte N (allocation
// nth_allocation(N) from the greeting on fails, 0 none), then the reads of
// the line.
#include "core/core.h"
#include "fuzz/fuzz.h"
#include "link/device.h"
#include "link/properties.h"
#include "sahara/sahara.h"

namespace ravik::fuzz {

void sahara_one(const uint8_t *data, size_t size)
{
    input in{data, size};
    uint8_t flags = in.byte();
    uint8_t fail_at = in.byte();
    static const uint32_t held_modes[] = {0, 3, 7};
    run_isolated([&] {
        test::fake_platform fake;
        push_reads(fake, in);
        if (flags & 4)
            logger_set_level(LOG_DEBUG);
        device_open();
        if (flags & 1)
            device_set_flag(DEVICE_FLAG_DEBUG);
        if (flags & 2)
            device_set_flag(DEVICE_FLAG_HEXDUMP);
        if (((flags >> 4) & 3) != 3)
            device_setu("sahara.current_mode", held_modes[(flags >> 4) & 3]);
        if (fail_at)
            mem_fail_nth(nth_allocation(fail_at));
        int32_t code = sahara_greet_device();
        // A failed store of the serial number goes unreported by design.
        if (code == 0 && !fail_at)
            check(device_get("cpu.id", nullptr) && device_get("cpu.serial", nullptr), "identified without an id");
        if (code == 0 || (flags & 8)) {
            uint8_t image[3000];
            for (size_t i = 0; i < sizeof(image); i++)
                image[i] = (uint8_t)(i * 7);
            sahara_download(image, sizeof(image));
        }
        free_device();
    });
}

} // namespace ravik::fuzz

RAVIK_FUZZ_ENTRY(ravik::fuzz::sahara_one)
