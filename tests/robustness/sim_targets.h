// Simulated UFS targets side by side in one scratch directory, told apart by their number.
#pragma once

#include "sim.h"

inline ravik_sim::options numbered_ufs_target(const std::string &dir, size_t i, const char *layout, uint32_t serial)
{
    ravik_sim::options o;
    o.link = dir + "/t" + std::to_string(i), o.storage_dir = dir + "/s" + std::to_string(i);
    o.storage = ravik_sim::storage_kind::ufs, o.lun_bytes = 1 << 20, o.layout = layout, o.id.serial = serial;
    return o;
}
