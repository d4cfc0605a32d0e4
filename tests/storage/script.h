// Storage discovery played by script: the programmer's answers to
// configure, getStorageInfo and the dumps of the partition tables.
#pragma once

#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "firehose/scripted_target.h"
#include "storage/gpt_check.h"

namespace ravik::test {

inline std::string fmt(const char *f, unsigned long long v)
{
    char b[128];
    snprintf(b, sizeof b, f, v);
    return b;
}

// The info lines of one LUN in one of the three wordings.
inline std::vector<std::string> info_lines(int wording, uint32_t blksz, uint32_t luns, uint64_t sectors)
{
    switch (wording) {
    case 1:
        return {fmt("INFO: Device Total Logical Blocks: 0x%llx", sectors),
                fmt("INFO: Device Block Size in Bytes: 0x%llx", blksz),
                fmt("INFO: Device Total Physical Partitions: 0x%llx", luns)};
    case 2:
        return {fmt("SECTOR_SIZE_IN_BYTES=%llu", blksz), fmt("num_physical_partitions=%llu", luns),
                fmt("num_partition_sectors=%llu", sectors)};
    default:
        return {fmt("Device Total Logical Blocks: 0x%llx", sectors), fmt("Device Block Size in Bytes: 0x%llx", blksz),
                fmt("Device Total Physical Paritions: 0x%llx", luns)};
    }
}

struct lun_script {
    uint64_t sectors;
    std::optional<gpt_bytes> gpt; // none: a LUN whose LBA 1 is blank
};

// The dumps of one table as the host asks for them: header, then array.
inline void push_table(fake_platform &fake, const gpt_bytes &g)
{
    fake.push_all({raw_ack(), g.header, raw_ack(), g.array});
}

// A whole discovery; configure is answered only the first time.
inline void push_discovery(fake_platform &fake, uint32_t blksz, const std::vector<lun_script> &luns,
                           bool configure = true, int wording = 0)
{
    if (configure)
        fake.push_bytes(ack());
    for (auto &l : luns)
        fake.push_bytes(answer("value=\"ACK\"", info_lines(wording, blksz, (uint32_t)luns.size(), l.sectors)));
    for (auto &l : luns) {
        if (!l.gpt) {
            fake.push_all({raw_ack(), std::string(blksz, '\0')});
            break;
        }
        push_table(fake, *l.gpt);
    }
}

// Values of an attribute in the commands sent, in order, for commands that
// begin with `name`.
inline std::vector<std::string> attr_of(const std::string &wire, const std::string &name, const std::string &key)
{
    std::vector<std::string> out;
    for (auto &c : commands(wire)) {
        if (c.compare(0, name.size() + 1, name + " ") != 0)
            continue;
        size_t at = c.find(key + "=\"");
        if (at == std::string::npos)
            continue;
        at += key.size() + 2;
        out.push_back(c.substr(at, c.find('"', at) - at));
    }
    return out;
}

} // namespace ravik::test
