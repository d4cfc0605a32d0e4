// Choosing the board and the package from a container's index.
#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "container/container.h"
#include "core/core.h"
#include "link/device.h"
#include "link/properties.h"
#include "session/package.h"
#include "support/fake_platform.h"
#include "firehose/scripted_target.h"
#include "support/helpers.h"

using namespace ravik;
using namespace ravik::test;

namespace {

// Runs load_package for chip id `id` on a container of these entries; the
// name of the first tag of the chosen package, or "" for none.
std::string choose(uint32_t id, const std::map<std::string, std::string> &entries, log_capture &c)
{
    write_container("c.img", entries);
    simg *image = simg_open("c.img", 0);
    device_setu("cpu.id", id);
    c.lines.clear();
    xtags *pkg = load_package(image);
    std::string first;
    if (pkg && !list_empty(&pkg->lines))
        first = list_entry(pkg->lines.next, tagline, link)->name;
    xtags_free(pkg);
    simg_close(image);
    return first;
}
} // namespace

TEST(PackageSelection, BoardByIdAndPackageByFilter)
{
    fake_platform fake;
    temp_cwd cwd;
    in_session([&] {
        log_capture c;
        std::map<std::string, std::string> files = {
            {"index.xml", "<?xml version=\"1.0\"?>\n<index>\n<!-- boards -->\n"
                          "<board id=\"0x0BEE\" name=\"\"/>\n"
                          "<board id=\"0x0BEE\" name=\"alpha\" storage.type=\"UFS\"/>\n"
                          "<board id=\"3054\" name=\"beta\"/>\n"
                          "<package compatible=\"protocol:fastboot\" filename=\"fb.xml\"/>\n"
                          "<package compatible=\"protocol:ravik cpu.name:alpha\"/>\n"
                          "<package compatible=\"cpu.name:alpha\" filename=\"alpha.xml\"/>\n"
                          "<package filename=\"later.xml\"/>\n</index>"},
            {"fb.xml", "<fastboot x=\"1\"/>"},
            {"alpha.xml", "<alpha x=\"1\"/>"},
            {"later.xml", "<later x=\"1\"/>"}};
        // Hex in the file, decimal in the property; an empty name is passed over.
        EXPECT_EQ(choose(3054, files, c), "alpha");
        EXPECT_STREQ(device_get("cpu.name", nullptr), "alpha");
        EXPECT_STREQ(device_get("storage.type", nullptr), "UFS");
        EXPECT_TRUE(c.has("...filename = alpha.xml\n"));

        // No board of this id.
        EXPECT_EQ(choose(7, files, c), "");
        EXPECT_TRUE(c.has("Failed identify board. Wrong package?\n"));

        // Only a package for another protocol.
        device_unset("storage.type");
        EXPECT_EQ(choose(1, {{"index.xml", "<board id=\"1\" name=\"gamma\"/>"
                                           "<package compatible=\"protocol:fastboot\" filename=\"fb.xml\"/>"},
                             {"fb.xml", "<x a=\"1\"/>"}},
                         c),
                  "");
        EXPECT_TRUE(c.has("No suitable package found for gamma\n"));
        // The board's name stays set for the dump, and no storage type came.
        EXPECT_STREQ(device_get("cpu.name", nullptr), "gamma");
        EXPECT_EQ(device_get("storage.type", nullptr), nullptr);

        // An empty filename stops the search there.
        EXPECT_EQ(choose(1, {{"index.xml", "<board id=\"1\" name=\"gamma\"/><package filename=\"\"/>"
                                           "<package filename=\"p.xml\"/>"},
                             {"p.xml", "<x a=\"1\"/>"}},
                         c),
                  "");
        EXPECT_TRUE(c.has("No suitable package found for gamma\n"));

        // A chip id of 0 matches a board without id; the package entry is missing.
        device_unset("cpu.id");
        EXPECT_EQ(choose(0, {{"index.xml", "<board name=\"zero\"/><package filename=\"gone.xml\"/>"}}, c), "");
        EXPECT_FALSE(c.has("Failed identify board. Wrong package?\n"));

        // No index at all.
        EXPECT_EQ(choose(1, {{"other", "x"}}, c), "");
        EXPECT_TRUE(c.has("Error loading index.xml from c.img\n"));
    });
}
