// Flash and wipe by name, a partition table fitted to its LUN, and nested
// containers, against the simulated UFS target.
#include <gtest/gtest.h>

#ifdef RAVIK_HAVE_SIM

#include "storage/sim_session.h"

using namespace ravik;
using namespace ravik::test;

TEST(StorageFlashSim, ByNameWipeTableAndReinit)
{
    sim_session s;
    s.start();
    const std::string lun0 = s.lun(0), lun2 = s.lun(2);
    part_range system = find_part(lun0, 4096, "system"), blb = find_part(lun2, 4096, "bootloader_b");
    ASSERT_EQ(system.size, 512u << 10);
    ASSERT_EQ(blb.size, 256u << 10);
    // Old contents everywhere the recipe writes.
    s.poke(0, system.offset, std::string(system.size, '\xAA'));
    s.poke(2, blb.offset, std::string(blb.size, '\x55'));

    // A table image for a LUN of any size: the last partition grows.
    gpt_bytes table = make_gpt({{"fresh", 16, 79}, {"rest", 80, 100}}, 4096, 128, 2, 128, false);
    std::string image = pattern(10000, 1), fresh = pattern(5000, 2);
    s.flash({{"system.img", image},
             {"gpt1.img", table.image(4096)},
             {"fresh.img", fresh},
             {"run.xml", "<flash partition=\"system\" filename=\"system.img\" verbose=\"true\"/>\n"
                         "<wipe partition=\"bootloader_b\"/>\n"
                         "<flash partition=\"partition:1\" filename=\"gpt1.img\"/>\n"
                         "<storage operation=\"reinit\"/>\n"
                         "<flash partition=\"fresh\" filename=\"fresh.img\"/>\n"}});
    ASSERT_EQ(s.code, 0) << s.text;
    EXPECT_EQ(s.count("Flashing system with system.img\n"), 1u);

    // The image, then zeros to the partition's end; nothing beyond it.
    std::string after0 = s.lun(0);
    EXPECT_TRUE(after0.substr(system.offset, system.size) == image + std::string(system.size - image.size(), '\0'));
    EXPECT_TRUE(after0.substr(0, system.offset) == lun0.substr(0, system.offset));
    EXPECT_TRUE(after0.substr(system.offset + system.size) == lun0.substr(system.offset + system.size));
    EXPECT_TRUE(s.lun(2).substr(blb.offset, blb.size) == std::string(blb.size, '\0'));

    // LUN 1 holds a sound table fitted to it, the backup at its last sector.
    std::string lun1 = s.lun(1);
    const uint64_t sectors = lun1.size() / 4096;
    EXPECT_EQ(check_gpt(lun1, 4096), "");
    EXPECT_EQ(le(lun1, (sectors - 1) * 4096 + 24, 8), sectors - 1);
    EXPECT_EQ(le(lun1, 4096 + 48, 8), sectors - 6);
    part_range rest = find_part(lun1, 4096, "rest"), got = find_part(lun1, 4096, "fresh");
    EXPECT_EQ(rest.offset + rest.size, (sectors - 5) * 4096);
    // Named from the new table after the reinit.
    ASSERT_EQ(got.offset, 16u * 4096);
    EXPECT_TRUE(lun1.substr(got.offset, got.size) == fresh + std::string(got.size - fresh.size(), '\0'));
    EXPECT_EQ(find_part(lun1, 4096, "bootloader_a").size, 0u);

    // Discovery ran twice: one getStorageInfo per LUN each time.
    int infos = 0;
    for (auto &c : s.t->wire().commands())
        infos += c.find("<getStorageInfo ") != std::string::npos;
    EXPECT_EQ(infos, 6);
}

TEST(StorageFlashSim, NestedContainersSwitchInputAndPutItBack)
{
    sim_session s;
    s.start();
    part_range bla = find_part(s.lun(1), 4096, "bootloader_a"), system = find_part(s.lun(0), 4096, "system");
    std::string inner_image = pattern(6000, 7), after = pattern(4096, 8);
    // The inner package's recipe carries a filter for another target and
    // runs all the same; its second recipe fails.
    std::string inner = container_bytes(
        "inner.img", {{"index.xml", "<package compatible=\"storage.type:eMMC\" filename=\"wrong.xml\"/>\n"
                                    "<package compatible=\"protocol:ravik\" filename=\"p.xml\"/>"},
                      {"p.xml", "<recipe filename=\"r.xml\" compatible=\"cpu.name:elsewhere\"/>\n"
                                "<recipe filename=\"bad.xml\"/>\n<recipe filename=\"never.xml\"/>"},
                      {"r.xml", "<flash partition=\"bootloader_a\" filename=\"bl.img\"/>"},
                      {"bad.xml", "<flash partition=\"nosuch\" filename=\"bl.img\"/>"},
                      {"never.xml", "<print what=\"inner goes on\"/>"},
                      {"bl.img", inner_image}});
    s.flash({{"inner.img", inner},
             {"after.img", after},
             {"run.xml", "<flash partition=\"anything\" filename=\"inner.img\"/>\n"
                         "<flash partition=\"system\" filename=\"after.img\"/>\n"
                         "<flash partition=\"system\" filename=\"bl.img\"/>\n"
                         "<print what=\"outer goes on\"/>\n"}},
            "ignore_errors=\"true\"");
    ASSERT_EQ(s.code, 0) << s.text;
    EXPECT_TRUE(s.lun(1).substr(bla.offset, bla.size) == inner_image + std::string(bla.size - inner_image.size(), '\0'))
        << s.text;
    EXPECT_EQ(s.count("partition nosuch not found!\n"), 1u);
    EXPECT_EQ(s.text.find("inner goes on"), std::string::npos);
    EXPECT_EQ(s.count("outer goes on\n"), 1u);
    // The outer container is input again: its file is found, the inner one is not.
    EXPECT_TRUE(s.lun(0).substr(system.offset, after.size()) == after);
    EXPECT_EQ(s.count("file bl.img not found in flash.img!\n"), 1u);
}

#endif
