// Choosing the board and the package from a container's index.
#include <gtest/gtest.h>

#include "session/package.h"
#include "support/firehose.h"

using namespace ravik;
using namespace ravik::test;

TEST(PackageSelection, BoardByIdAndPackageByFilter)
{
    using entries = std::map<std::string, std::string>;
    const entries files = {
        {"index.xml", "<?xml version=\"1.0\"?>\n<index>\n<!-- boards -->\n<board id=\"0x0BEE\" name=\"\"/>\n"
                      "<board id=\"0x0BEE\" name=\"alpha\" storage.type=\"UFS\"/>\n<board id=\"3054\" name=\"beta\"/>\n"
                      "<package compatible=\"protocol:fastboot\" filename=\"fb.xml\"/>\n"
                      "<package compatible=\"protocol:ravik cpu.name:alpha\"/>\n"
                      "<package compatible=\"cpu.name:alpha\" filename=\"alpha.xml\"/>\n"
                      "<package filename=\"later.xml\"/>\n</index>"},
        {"fb.xml", "<fastboot x=\"1\"/>"}, {"alpha.xml", "<alpha x=\"1\"/>"}, {"later.xml", "<later x=\"1\"/>"}};
    // The board's name stays set for the dump.
    struct { uint32_t id; entries in; std::string first, log; const char *name, *type; } rows[] = {
        // Hex in the file, decimal in the property; an empty name is passed over.
        {3054, files, "alpha", "...filename = alpha.xml\n", "alpha", "UFS"},
        {1, {{"index.xml", "<board id=\"1\" name=\"gamma\"/><package compatible=\"protocol:x\" filename=\"f\"/>"}}, "",
         "No suitable package found for gamma\n", "gamma", nullptr},
    };
    for (auto &r : rows) {
        temp_cwd cwd;
        in_session([&] {
            test_container c("c.img", r.in);
            device_setu("cpu.id", r.id);
            log_capture log;
            xtags *pkg = load_package(c.handle);
            std::string first = pkg && !list_empty(&pkg->lines) ? list_entry(pkg->lines.next, tagline, link)->name : "";
            xtags_free(pkg);
            EXPECT_EQ(first, r.first) << r.id;
            EXPECT_TRUE(log.has(r.log)) << r.log;
            EXPECT_STREQ(device_get("cpu.name", nullptr), r.name);
            EXPECT_STREQ(device_get("storage.type", nullptr), r.type);
        });
    }
}
