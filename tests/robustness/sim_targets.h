// Simulated UFS targets side by side in one scratch directory, told apart by
// their number.
#pragma once

#include <cstdint>
#include <string>

#include "sim.h"

namespace ravik::test {

inline ravik_sim::options numbered_ufs_target(const std::string &dir, size_t i, const std::string &layout,
                                              uint32_t serial)
{
    ravik_sim::options o;
    o.link = dir + "/t" + std::to_string(i);
    o.storage_dir = dir + "/s" + std::to_string(i);
    o.storage = ravik_sim::storage_kind::ufs;
    o.lun_bytes = 1 << 20;
    o.layout = layout;
    o.id.serial = serial;
    return o;
}

} // namespace ravik::test
