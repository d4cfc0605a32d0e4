// Sessions against simulated targets, their LUN files at hand.
#pragma once

#ifdef RAVIK_HAVE_SIM

#include <memory>
#include <numeric>

#include "ravik.h"
#include "sim.h"
#include "support/firehose.h"
#include "support/gpt.h"
#include "support/helpers.h"

namespace ravik::test {

const char *const SIM_INDEX = "<index>\n  <board id=\"0x0BEE\" name=\"simboard\"/>\n"
                              "  <package compatible=\"protocol:ravik\" filename=\"package.xml\"/>\n</index>\n";

// A container of `entries` and the demo programmer; unless they bring their
// own, the package runs one recipe, "run.xml".
inline void sim_package(const std::string &path, std::map<std::string, std::string> entries,
                        const std::string &recipe_attrs = "")
{
    entries.emplace("programmer.elf", read_file(RAVIK_SIM_DEMO_ELF));
    entries.emplace("index.xml", SIM_INDEX);
    entries.emplace("package.xml", "<package>\n  <programmer filename=\"programmer.elf\"/>\n  <recipe "
                                   "filename=\"run.xml\" " + recipe_attrs + "/>\n</package>\n");
    write_container(path, entries);
}

inline std::string padded(const std::string &image, size_t size) { return image + std::string(size - image.size(), '\0'); }

// An entry of a container, or "<missing>".
inline std::string entry_data(const std::string &path, const std::string &name)
{
    simg *h = simg_open(path.c_str(), 0);
    simg_entry *e = h ? simg_load(h, name.c_str()) : nullptr;
    std::string s = e ? std::string((char *)e->data, e->size) : "<missing>";
    return simg_close(h), s;
}

// UFS targets side by side in one scratch directory, told apart by their number.
inline ravik_sim::options numbered_ufs_target(const std::string &dir, size_t i, const char *layout, uint32_t serial)
{
    ravik_sim::options o;
    o.link = dir + "/t" + std::to_string(i), o.storage_dir = dir + "/s" + std::to_string(i);
    o.storage = ravik_sim::storage_kind::ufs, o.lun_bytes = 1 << 20, o.layout = layout, o.id.serial = serial;
    return o;
}

inline std::string lun_read(const ravik_sim::target &t, unsigned n, uint64_t at, size_t len)
{
    std::string s(len, '\0');
    std::ifstream(t.lun_path(n), std::ios::binary).seekg((std::streamoff)at).read(s.data(), (std::streamsize)len);
    return s;
}
inline void lun_write(const ravik_sim::target &t, unsigned n, uint64_t at, const std::string &bytes)
{
    std::fstream(t.lun_path(n), std::ios::in | std::ios::out | std::ios::binary)
        .seekp((std::streamoff)at).write(bytes.data(), (std::streamsize)bytes.size());
}

// Byte range of a partition, from the primary table of a LUN image.
struct part_range { uint64_t offset = 0, size = 0; };
inline part_range find_part(const std::string &lun, uint32_t blksz, const std::string &name)
{
    const std::string h = lun.substr(blksz, blksz);
    for (uint64_t e = le(h, 72, 8) * blksz, end = e + le(h, 80, 4) * le(h, 84, 4); e < end; e += le(h, 84, 4)) {
        std::string got;
        for (int k = 0; k < 36 && lun[e + 56 + 2 * k]; k++)
            got += lun[e + 56 + 2 * k];
        if (got == name)
            return {le(lun, e + 32, 8) * blksz, (le(lun, e + 40, 8) - le(lun, e + 32, 8) + 1) * blksz};
    }
    return {};
}
// From the table as it stands, without loading a LUN of any size.
inline part_range find_part(const ravik_sim::target &t, unsigned n, const std::string &name)
{
    return find_part(lun_read(t, n, 0, 64 << 10), t.sector_size(), name);
}

// A fresh target in a scratch directory: a UFS one of three small LUNs with
// a layout, or the plain one.
struct sim_session {
    temp_cwd cwd;
    ravik_sim::options o;
    std::unique_ptr<ravik_sim::target> t;
    event_log log;
    int32_t code = -1;
    std::string text;

    explicit sim_session(bool ufs_layout = true)
        : o(numbered_ufs_target(cwd.path(), 0, "0 persist 64K bnr\n0 system 512K\n0 userdata *\n1 bootloader_a 256K\n"
                                "1 spare_a *\n2 bootloader_b 256K\n2 spare_b *\n", ravik_sim::identity().serial))
    {
        o.lun_bytes = 4 << 20;
        if (!ufs_layout)
            o.storage = ravik_sim::storage_kind::emmc, o.lun_bytes = 0, o.layout = "";
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
    int32_t flash(const std::map<std::string, std::string> &entries, const std::string &attrs = "", uint32_t flags = 0)
    {
        return sim_package("flash.img", entries, attrs), run("flash.img", flags);
    }
    std::string lun(unsigned n) const { return read_file(t->lun_path(n)); }
    std::string lun(unsigned n, uint64_t at, size_t len) const { return lun_read(*t, n, at, len); }
    void poke(unsigned n, uint64_t at, const std::string &bytes) const { lun_write(*t, n, at, bytes); }
    part_range part(unsigned n, const std::string &name) const { return find_part(*t, n, name); }
    size_t count(const std::string &line) const
    {
        return std::count_if(log.lines.begin(), log.lines.end(), [&](auto &l) { return l.ends_with(line); });
    }
};

} // namespace ravik::test

#endif
