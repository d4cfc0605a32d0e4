// A whole session with every allocation made to fail in turn: each run ends
// with a clean code, never a crash or a leak.
#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <string>

#include "container/container.h"
#include "core/core.h"
#include "firehose/scripted_target.h"
#include "ravik.h"
#include "sahara/target_script.h"
#include "support/fake_platform.h"
#include "support/helpers.h"

using namespace ravik;
using namespace ravik::test;

namespace {

const std::string PROGRAMMER(100, 'p');

void make_demo(const char *path)
{
    std::remove(path);
    std::map<std::string, std::string> entries = {
        {"index.xml", "<board id=\"0x0BEE\" name=\"b\" storage.type=\"eMMC\"/><package filename=\"package.xml\"/>"},
        {"package.xml", "<programmer filename=\"p.elf\"/><recipe filename=\"r.xml\"/>"},
        {"p.elf", PROGRAMMER},
        {"boot.img", std::string(1000, 'b')},
        {"r.xml", "<configure SkipStorageInit=\"0\"/><program SECTOR_SIZE_IN_BYTES=\"512\" label=\"boot\" "
                  "filename=\"boot.img\" physical_partition_number=\"0\" start_sector=\"8\"/>"}};
    simg *w = simg_open(path, SIMG_CREATE);
    for (auto &[name, data] : entries)
        simg_store(w, data.data(), data.size(), name.c_str());
    simg_close(w);
}

// Everything a good target says in one session, in order.
void script_target(fake_platform &fake)
{
    std::string sn;
    le32(sn, 0x1234);
    le32(sn, 0x0BEE);
    fake.push_bytes(hello(0));
    fake.push_bytes(command_ready());
    fake.push_bytes(exec_resp(1, 8));
    fake.push_bytes(sn);
    fake.push_bytes(hello(0));
    fake.push_bytes(read_data(0, (uint32_t)PROGRAMMER.size()));
    fake.push_bytes(end_image(0));
    fake.push_bytes(done_resp(1));
    fake.push_bytes(ack());                            // nop
    fake.push_bytes(ack("cpu.ver=\"1\""));             // getvar cpu.ver
    fake.push_bytes(ack("cpu.vername=\"v1\""));        // getvar cpu.vername
    fake.push_bytes(ack("secure=\"0\""));              // getvar secure
    fake.push_bytes(ack());                            // configure
    fake.push_bytes(raw_ack());                        // program
    fake.push_bytes(ack());                            // its final answer
    fake.push_bytes(ack());                            // power
}

int32_t run_session(uint64_t fail_at)
{
    fake_platform fake;
    script_target(fake);
    int32_t code = -1;
    on_fresh_thread([&] {
        mem_fail_nth(fail_at);
        code = rk_flash_singleimage("dev", "demo.img", 0, nullptr, nullptr);
        mem_fail_nth(0);
    });
    return code;
}

} // namespace

TEST(SessionAllocationFailure, EveryAllocationFailingInTurnEndsCleanly)
{
    temp_cwd cwd;
    make_demo("demo.img");
    uint64_t before = mem_alloc_count();
    ASSERT_EQ(run_session(0), 0);
    uint64_t allocations = mem_alloc_count() - before;
    ASSERT_GT(allocations, 20u);
    int64_t outstanding = mem_outstanding();
    int clean_no_memory = 0;
    for (uint64_t n = 1; n <= allocations + 2; n++) {
        int32_t code = run_session(n);
        int low = code & 0xFF;
        // Either the failure surfaced as a code of the system, or the road
        // that failed had a fallback and the session still succeeded.
        EXPECT_TRUE(code == 0 || (low >= ERR_GENERAL && low <= ERR_NOT_STARTED) || low >= ERR_SAHARA_BASE)
            << "allocation " << n << " gave " << code;
        clean_no_memory += low == ERR_NO_MEMORY;
        EXPECT_EQ(mem_outstanding(), outstanding) << "leak after failing allocation " << n << " code " << code;
    }
    EXPECT_GT(clean_no_memory, 0);
}
