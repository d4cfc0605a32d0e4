// A whole session against the scripted line of the fake platform: a small
// container, and everything a good target says to it, in order.
#pragma once

#include "sahara/target_script.h"
#include "storage/script.h"

namespace ravik::test {

inline const std::string PROGRAMMER(100, 'p');
// The contents of the marked partition "persist" (sectors 64 to 71).
inline const std::string PERSIST(4096, 's');

// The recipe saves the marked partition, writes another one, and restores;
// without DEVICE_FLAG_BNR the backup and restore pass over without a word.
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

// Everything a good target says in one session, in order; without the
// programmer, only what its boot ROM says. With bnr, the storage discovery,
// the backup's dump and the restore's erase and write are answered too.
inline void script_target(fake_platform &fake, bool programmer = true, bool bnr = false)
{
    fake.push_all({hello(0), command_ready(), exec_resp(1, 8), u32s({0x1234, 0x0BEE}), hello(0),
                   read_data(0, (uint32_t)PROGRAMMER.size()), end_image(0), done_resp(1)});
    if (!programmer)
        return;
    // nop, getvar of cpu.ver, cpu.vername and secure
    fake.push_all({ack(), ack("cpu.ver=\"1\""), ack("cpu.vername=\"v1\""), ack("secure=\"0\"")});
    if (bnr) { // discovery, then the backup's dump
        push_discovery(fake, 512, {{8ull << 20, make_gpt({{"persist", 64, 71, 1ull << 5}}, 512, 8ull << 20)}});
        fake.push_all({raw_ack(), PERSIST, ack()});
    } else {
        fake.push_bytes(ack()); // configure
    }
    fake.push_all({raw_ack(), ack()}); // program
    for (int i = 0; bnr && i < 2; i++) // the restore's erase and write
        fake.push_all({raw_ack(), ack()});
    fake.push_bytes(ack()); // power
}

} // namespace ravik::test
