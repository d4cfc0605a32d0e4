// A session against a fresh simulated target, its LUN files at hand.
#pragma once

#ifdef RAVIK_HAVE_SIM

#include <algorithm>
#include <fstream>
#include <memory>
#include <numeric>

#include "ravik.h"
#include "sim.h"
#include "support/firehose.h"
#include "support/gpt.h"
#include "support/helpers.h"

namespace ravik::test {

// A container's bytes, written through the library's own writer.
inline std::string container_bytes(const std::string &path, const std::map<std::string, std::string> &entries)
{
    write_container(path, entries);
    return read_file(path);
}

const char *const SIM_INDEX = "<index>\n  <board id=\"0x0BEE\" name=\"simboard\"/>\n"
                              "  <package compatible=\"protocol:ravik\" filename=\"package.xml\"/>\n</index>\n";

// Byte range of a partition, from the primary table of a LUN image.
struct part_range { uint64_t offset = 0, size = 0; };
inline part_range find_part(const std::string &lun, uint32_t blksz, const std::string &name)
{
    std::string h = lun.substr(blksz, blksz);
    uint64_t at = le(h, 72, 8) * blksz, n = le(h, 80, 4), esz = le(h, 84, 4);
    for (uint64_t i = 0; i < n; i++) {
        size_t e = (size_t)(at + i * esz);
        std::string got;
        for (int k = 0; k < 36 && lun[e + 56 + 2 * k]; k++)
            got += lun[e + 56 + 2 * k];
        if (got == name) {
            uint64_t first = le(lun, e + 32, 8), last = le(lun, e + 40, 8);
            return {first * blksz, (last - first + 1) * blksz};
        }
    }
    return {};
}

struct sim_session {
    temp_cwd cwd;
    ravik_sim::options o;
    std::unique_ptr<ravik_sim::target> t;
    event_log log;
    int32_t code = -1;
    std::string text;

    // A UFS target of three small LUNs with a layout, or the plain target.
    explicit sim_session(bool ufs_layout = true)
    {
        o.link = cwd.path() + "/target";
        o.storage_dir = cwd.path() + "/storage";
        if (ufs_layout) {
            o.storage = ravik_sim::storage_kind::ufs;
            o.lun_bytes = 4 << 20;
            o.layout = "0 persist 64K bnr\n0 system 512K\n0 userdata *\n"
                       "1 bootloader_a 256K\n1 spare_a *\n2 bootloader_b 256K\n2 spare_b *\n";
        }
    }
    ravik_sim::target &start() { t = std::make_unique<ravik_sim::target>(o); t->start(); return *t; }
    // A session on an image file; its code, and its log lines in `text`.
    int32_t run(const std::string &image, uint32_t flags = 0)
    {
        if (!t)
            start();
        log = {};
        on_fresh_thread([&] { code = rk_flash_singleimage(o.link.c_str(), image.c_str(), flags, record_events, &log); });
        text = std::accumulate(log.lines.begin(), log.lines.end(), std::string());
        return code;
    }
    // On a container of `entries` and the demo programmer; unless they bring
    // their own, the package runs one recipe, "run.xml".
    int32_t flash(std::map<std::string, std::string> entries, const std::string &recipe_attrs = "", uint32_t flags = 0)
    {
        entries.emplace("programmer.elf", read_file(RAVIK_SIM_DEMO_ELF));
        entries.emplace("index.xml", SIM_INDEX);
        entries.emplace("package.xml", "<package>\n  <programmer filename=\"programmer.elf\"/>\n  <recipe "
                                       "filename=\"run.xml\" " + recipe_attrs + "/>\n</package>\n");
        container_bytes("flash.img", entries);
        return run("flash.img", flags);
    }
    std::string lun(unsigned n) const { return read_file(t->lun_path(n)); }
    std::string lun(unsigned n, uint64_t at, size_t len) const
    {
        std::string s(len, '\0');
        std::ifstream(t->lun_path(n), std::ios::binary).seekg((std::streamoff)at).read(s.data(), (std::streamsize)len);
        return s;
    }
    void poke(unsigned n, uint64_t at, const std::string &bytes) const
    {
        std::fstream f(t->lun_path(n), std::ios::in | std::ios::out | std::ios::binary);
        f.seekp((std::streamoff)at).write(bytes.data(), (std::streamsize)bytes.size());
    }
    // From the table as it stands, without loading a LUN of any size.
    part_range part(unsigned n, const std::string &name) const { return find_part(lun(n, 0, 64 << 10), t->sector_size(), name); }
    size_t count(const std::string &line) const
    {
        return std::count_if(log.lines.begin(), log.lines.end(), [&](auto &l) { return l.ends_with(line); });
    }
};

} // namespace ravik::test

#endif
