// A session against a fresh simulated target, with the LUN files at hand
// before and after, for the storage tests.
#pragma once

#ifdef RAVIK_HAVE_SIM

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "container/container.h"
#include "firehose/scripted_target.h"
#include "ravik.h"
#include "sim.h"
#include "storage/gpt_check.h"
#include "support/helpers.h"

namespace ravik::test {

inline std::string pattern(size_t n, int seed)
{
    std::string s(n, '\0');
    for (size_t i = 0; i < n; i++)
        s[i] = (char)(i * 31 + seed);
    return s;
}

// A container's bytes, written through the library's own writer.
inline std::string container_bytes(const std::string &path, const std::map<std::string, std::string> &entries)
{
    write_container(path, entries);
    return read_file(path);
}

const char *const SIM_INDEX = "<index>\n  <board id=\"0x0BEE\" name=\"simboard\"/>\n"
                              "  <package compatible=\"protocol:ravik\" filename=\"package.xml\"/>\n</index>\n";

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
        if (!ufs_layout)
            return;
        o.storage = ravik_sim::storage_kind::ufs;
        o.lun_bytes = 4 << 20;
        o.layout = "0 persist 64K bnr\n0 system 512K\n0 userdata *\n"
                   "1 bootloader_a 256K\n1 spare_a *\n2 bootloader_b 256K\n2 spare_b *\n";
    }
    void start()
    {
        t = std::make_unique<ravik_sim::target>(o);
        t->start();
    }
    // A session on an image file; its code, and its log lines in `text`.
    int32_t run(const std::string &image, uint32_t flags = 0)
    {
        if (!t)
            start();
        log = {};
        on_fresh_thread([&] { code = rk_flash_singleimage(o.link.c_str(), image.c_str(), flags, record_events, &log); });
        text.clear();
        for (auto &l : log.lines)
            text += l;
        return code;
    }
    // A session on a container of `entries` and the demo programmer.
    void run_entries(std::map<std::string, std::string> entries, uint32_t flags)
    {
        auto programmer = ravik_sim::demo_programmer();
        entries["programmer.elf"] = std::string(programmer.begin(), programmer.end());
        container_bytes("flash.img", entries);
        run("flash.img", flags);
    }
    // The package runs one recipe, "run.xml", with the given flags.
    void flash(std::map<std::string, std::string> entries, const std::string &recipe_attrs = "", uint32_t flags = 0)
    {
        entries["index.xml"] = SIM_INDEX;
        entries["package.xml"] = "<package>\n  <programmer filename=\"programmer.elf\"/>\n  <recipe filename=\"run.xml\" " +
                                 recipe_attrs + "/>\n</package>\n";
        run_entries(entries, flags);
    }
    std::string lun(unsigned n) const { return read_file(t->lun_path(n)); }
    std::string lun(unsigned n, uint64_t at, size_t len) const
    {
        std::ifstream f(t->lun_path(n), std::ios::binary);
        f.seekg((std::streamoff)at);
        std::string s(len, '\0');
        f.read(s.data(), (std::streamsize)len);
        return s;
    }
    void poke(unsigned n, uint64_t at, const std::string &bytes) const
    {
        std::fstream f(t->lun_path(n), std::ios::in | std::ios::out | std::ios::binary);
        f.seekp((std::streamoff)at);
        f.write(bytes.data(), (std::streamsize)bytes.size());
    }
    size_t count(const std::string &line) const
    {
        size_t n = 0;
        for (auto &l : log.lines)
            n += l.size() >= line.size() && l.compare(l.size() - line.size(), line.size(), line) == 0;
        return n;
    }
};

// Byte range of a partition, from the primary table of a LUN image.
struct part_range {
    uint64_t offset = 0, size = 0;
};
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

} // namespace ravik::test

#endif
