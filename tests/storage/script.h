// Storage discovery played by script: the programmer's answers to
// configure, getStorageInfo and the dumps of the partition tables.
#pragma once

#include <optional>

#include "support/firehose.h"
#include "support/gpt.h"

namespace ravik::test {

// The info lines of one LUN, as most programmers word them (hexadecimal),
// or in the second wording (decimal).
inline std::vector<std::string> info_lines(int wording, uint32_t blksz, uint32_t luns, uint64_t sectors)
{
    const char *f[2][3] = {{"Device Total Logical Blocks: 0x%llx", "Device Block Size in Bytes: 0x%llx",
                            "Device Total Physical Paritions: 0x%llx"},
                           {"num_partition_sectors=%llu", "SECTOR_SIZE_IN_BYTES=%llu", "num_physical_partitions=%llu"}};
    std::vector<std::string> out;
    for (auto [i, v] : {std::pair<int, uint64_t>{0, sectors}, {1, blksz}, {2, luns}}) {
        char b[128];
        snprintf(b, sizeof b, f[wording == 2][i], (unsigned long long)v);
        out.push_back(b);
    }
    return out;
}

struct lun_script { uint64_t sectors; std::optional<gpt_bytes> gpt; }; // no table: LBA 1 is blank

// The dumps of one table as the host asks for them: header, then array.
inline void push_table(fake_platform &fake, const gpt_bytes &g)
{
    fake.push_all({raw_ack(), g.header, raw_ack(), g.array});
}

// A whole discovery; configure is answered only the first time.
inline void push_discovery(fake_platform &fake, uint32_t blksz, const std::vector<lun_script> &luns,
                           bool configure = true)
{
    if (configure)
        fake.push_bytes(ack());
    for (auto &l : luns)
        fake.push_bytes(answer("value=\"ACK\"", info_lines(0, blksz, (uint32_t)luns.size(), l.sectors)));
    for (auto &l : luns) {
        if (!l.gpt)
            return fake.push_all({raw_ack(), std::string(blksz, '\0')});
        push_table(fake, *l.gpt);
    }
}

} // namespace ravik::test
