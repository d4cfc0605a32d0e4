// A whole session with backup and restore against the scripted line of the
// fake platform: a small container, and everything a good target says to it.
#pragma once

#include "ravik.h"
#include "sahara/target_script.h"
#include "storage/script.h"

namespace ravik::test {

inline const std::string PROGRAMMER(100, 'p');
// The contents of the marked partition "persist" (sectors 64 to 71).
inline const std::string PERSIST(4096, 's');

// The recipe saves the marked partition, writes another one, and restores.
inline void make_demo(const char *path)
{
    write_container(path, {
        {"index.xml", "<board id=\"0x0BEE\" name=\"b\" storage.type=\"eMMC\"/><package filename=\"package.xml\"/>"},
        {"package.xml", "<programmer filename=\"p.elf\"/><recipe filename=\"r.xml\"/>"},
        {"p.elf", PROGRAMMER},
        {"boot.img", std::string(1000, 'b')},
        {"r.xml", "<configure SkipStorageInit=\"0\"/><backup commit=\"1\"/>"
                  "<program SECTOR_SIZE_IN_BYTES=\"512\" label=\"boot\" filename=\"boot.img\" "
                  "physical_partition_number=\"0\" start_sector=\"8\"/><restore why=\"flashed\"/>"}});
}

// A session on the demo, its line scripted afresh with what a good target
// says, in order; its code.
inline int32_t demo_session(fake_platform &fake)
{
    fake.clear_script();
    fake.written.clear();
    fake.push_all({hello(0), command_ready(), exec_resp(1, 8), u32s({0x1234, 0x0BEE}), hello(0),
                   read_data(0, (uint32_t)PROGRAMMER.size()), end_image(0), done_resp(1)});
    // nop, getvar of cpu.ver, cpu.vername and secure, then the storage discovery
    fake.push_all({ack(), ack("cpu.ver=\"1\""), ack("cpu.vername=\"v1\""), ack("secure=\"0\"")});
    push_discovery(fake, 512, {{8ull << 20, make_gpt({{"persist", 64, 71, 1ull << 5}}, 512, 8ull << 20)}});
    // the backup's dump, the program, the restore's erase and write, the power
    fake.push_all({raw_ack(), PERSIST, ack(), raw_ack(), ack(), raw_ack(), ack(), raw_ack(), ack(), ack()});
    return rk_flash_singleimage("dev", "demo.img", DEVICE_FLAG_BNR, nullptr, nullptr);
}

} // namespace ravik::test
