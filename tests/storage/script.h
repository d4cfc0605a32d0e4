// Storage discovery played by script: answers to configure, getStorageInfo and the tables' dumps.
#pragma once

#include <optional>

#include "support/firehose.h"
#include "support/gpt.h"

namespace ravik::test {

// The info lines of one LUN as most programmers word them (hexadecimal), or in wording 2 (decimal).
inline std::vector<std::string> info_lines(int wording, uint32_t blksz, uint32_t luns, uint64_t sectors)
{
    auto hex = [](uint64_t v) { char b[20]; return std::string(b, snprintf(b, sizeof b, "0x%llx", (unsigned long long)v)); };
    if (wording == 2)
        return {"num_partition_sectors=" + std::to_string(sectors), "SECTOR_SIZE_IN_BYTES=" + std::to_string(blksz),
                "num_physical_partitions=" + std::to_string(luns)};
    return {"Device Total Logical Blocks: " + hex(sectors), "Device Block Size in Bytes: " + hex(blksz),
            "Device Total Physical Paritions: " + hex(luns)};
}

struct lun_script { uint64_t sectors; std::optional<gpt_bytes> gpt; }; // no table: LBA 1 is blank

// The dumps of one table as the host asks for them: header, then array.
inline void push_table(fake_platform &fake, const gpt_bytes &g)
{
    fake.push_all({raw_ack(), g.header, raw_ack(), g.array});
}

// A whole discovery, configure first.
inline void push_discovery(fake_platform &fake, uint32_t blksz, const std::vector<lun_script> &luns)
{
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
