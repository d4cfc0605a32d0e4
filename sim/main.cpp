// ravik-sim: simulated targets in emergency download mode, one pty each.
#include "sim.h"
#include "storage.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

const char USAGE[] =
    "usage: ravik-sim [options]\n"
    "  --link PATH          symlink to the target's port (default ./ravik-sim;\n"
    "                       with --count, PATH-0, PATH-1, ...)\n"
    "  --count N            run N targets\n"
    "  --storage-dir DIR    LUN files (default PATH.storage)\n"
    "  --storage emmc|ufs   storage type (default emmc)\n"
    "  --luns N             UFS LUNs, 1 to 8 (default 3)\n"
    "  --lun-size SIZE      bytes per LUN, K/M/G suffix allowed\n"
    "  --layout FILE        partitions: lines of '<lun> <name> <size>|* [bnr]'\n"
    "  --serial N           chip serial number\n"
    "  --chip-id N          chip id\n"
    "  --id-in-serial       give the chip id along with the serial number\n"
    "  --secure             report a secure target\n"
    "  --wording 0|1|2      wording of the storage facts\n"
    "  --max-payload N      largest raw payload the programmer takes\n"
    "  --programmer FILE    the only programmer the boot ROM accepts (default: demo)\n"
    "  --no-verify          accept any programmer\n"
    "  --write-programmer FILE  write the demo programmer and exit\n"
    "  --verbose            print the wire transcript\n";

uint64_t parse_num(const char *s)
{
    char *end = nullptr;
    uint64_t v = std::strtoull(s, &end, 0);
    if (end == s) {
        std::fprintf(stderr, "ravik-sim: bad number %s\n", s);
        std::exit(2);
    }
    switch (*end) {
    case 'K': case 'k': v <<= 10; break;
    case 'M': case 'm': v <<= 20; break;
    case 'G': case 'g': v <<= 30; break;
    default: break;
    }
    return v;
}

bool write_file(const std::string &path, const std::vector<uint8_t> &data)
{
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f.write(reinterpret_cast<const char *>(data.data()), (std::streamsize)data.size());
    return (bool)f;
}

} // namespace

int main(int argc, char **argv)
{
    ravik_sim::options base;
    unsigned count = 1;
    bool verbose = false;
    std::string link;
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        auto arg = [&]() -> const char * {
            if (i + 1 >= argc) {
                std::fprintf(stderr, "ravik-sim: %s needs a value\n", a.c_str());
                std::exit(2);
            }
            return argv[++i];
        };
        if (a == "--link")
            link = arg();
        else if (a == "--count")
            count = (unsigned)parse_num(arg());
        else if (a == "--storage-dir")
            base.storage_dir = arg();
        else if (a == "--storage") {
            std::string t = arg();
            if (t == "emmc")
                base.storage = ravik_sim::storage_kind::emmc;
            else if (t == "ufs")
                base.storage = ravik_sim::storage_kind::ufs;
            else {
                std::fprintf(stderr, "ravik-sim: storage is emmc or ufs\n");
                return 2;
            }
        } else if (a == "--luns")
            base.luns = (unsigned)parse_num(arg());
        else if (a == "--lun-size")
            base.lun_bytes = parse_num(arg());
        else if (a == "--layout")
            base.layout_file = arg();
        else if (a == "--serial")
            base.id.serial = (uint32_t)parse_num(arg());
        else if (a == "--chip-id")
            base.id.chip_id = (uint32_t)parse_num(arg());
        else if (a == "--id-in-serial")
            base.id.id_in_serial = true;
        else if (a == "--secure")
            base.id.secure = true;
        else if (a == "--wording")
            base.info_wording = (int)parse_num(arg());
        else if (a == "--max-payload")
            base.max_payload = (uint32_t)parse_num(arg());
        else if (a == "--programmer") {
            std::ifstream f(arg(), std::ios::binary);
            base.programmer.assign(std::istreambuf_iterator<char>(f), {});
            if (base.programmer.empty()) {
                std::fprintf(stderr, "ravik-sim: cannot read %s\n", argv[i]);
                return 2;
            }
        } else if (a == "--no-verify")
            base.verify_programmer = false;
        else if (a == "--write-programmer")
            return write_file(arg(), ravik_sim::demo_programmer()) ? 0 : 1;
        else if (a == "--verbose")
            verbose = true;
        else if (a == "--help" || a == "-h") {
            std::fputs(USAGE, stdout);
            return 0;
        } else {
            std::fprintf(stderr, "ravik-sim: unknown option %s\n%s", a.c_str(), USAGE);
            return 2;
        }
    }
    if (count == 0 || count > 64) {
        std::fprintf(stderr, "ravik-sim: --count is 1 to 64\n");
        return 2;
    }
    if (link.empty()) {
        char cwd[4096];
        link = std::string(::getcwd(cwd, sizeof cwd) ? cwd : ".") + "/ravik-sim";
    }

    // The engine threads inherit a blocked set; the signals are taken here.
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);

    std::vector<std::unique_ptr<ravik_sim::target>> targets;
    try {
        for (unsigned i = 0; i < count; i++) {
            ravik_sim::options o = base;
            o.link = count == 1 ? link : link + "-" + std::to_string(i);
            o.id.serial = base.id.serial + i;
            if (!base.storage_dir.empty())
                o.storage_dir = count == 1 ? base.storage_dir
                                           : base.storage_dir + "/" + std::to_string(i);
            auto t = std::make_unique<ravik_sim::target>(o);
            if (verbose) {
                std::string name = o.link;
                t->wire().on_add([name](const ravik_sim::event &e) {
                    std::printf("[%9.3f] %s %s %s", e.time, name.c_str(), e.kind.c_str(),
                                e.text.c_str());
                    if (e.size)
                        std::printf(" (%llu bytes)", (unsigned long long)e.size);
                    std::printf("\n");
                    std::fflush(stdout);
                });
            }
            t->start();
            std::printf("%s\n", t->link().c_str());
            std::fprintf(stderr, "ravik-sim: serial 0x%08x, %s, %u LUN(s) of %llu bytes, %u-byte sectors\n",
                         o.id.serial, o.storage == ravik_sim::storage_kind::ufs ? "UFS" : "eMMC",
                         t->luns(), (unsigned long long)t->lun_bytes(), t->sector_size());
            targets.push_back(std::move(t));
        }
    } catch (const std::exception &e) {
        std::fprintf(stderr, "ravik-sim: %s\n", e.what());
        return 1;
    }
    std::fflush(stdout);
    int sig = 0;
    sigwait(&set, &sig);
    targets.clear();
    return 0;
}
