// A programmer played by script: answers queued in the order the host will
// ask, and a container file made for the test.
#pragma once

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "container/container.h"
#include "core/core.h"
#include "firehose/engine.h"
#include "link/device.h"
#include "link/properties.h"
#include "support/fake_platform.h"
#include "support/helpers.h"

namespace ravik::test {

inline std::string answer(const std::string &response_attrs, const std::vector<std::string> &logs = {})
{
    std::string s = "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<data>\n";
    for (auto &l : logs)
        s += "<log value=\"" + l + "\" />\n";
    return s + "<response " + response_attrs + " />\n</data>";
}
inline std::string ack(const std::string &extra = "")
{
    return answer(extra.empty() ? "value=\"ACK\"" : "value=\"ACK\" " + extra);
}
inline std::string nak(const std::string &extra = "")
{
    return answer(extra.empty() ? "value=\"NAK\"" : "value=\"NAK\" " + extra);
}
inline const std::string raw_ack()
{
    return "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<data>\n<response value=\"ACK\" rawmode=\"true\" />\n</data>";
}

// The commands the host sent, split at each envelope; raw bytes between
// them stay attached to the command before.
inline std::vector<std::string> commands(const std::string &wire)
{
    std::vector<std::string> out;
    const std::string head = "<?xml version=\"1.0\"?><data><";
    size_t at = wire.find(head);
    while (at != std::string::npos) {
        size_t end = wire.find("/></data>", at);
        out.push_back(wire.substr(at + head.size(), end - at - head.size()));
        at = wire.find(head, end);
    }
    return out;
}

// Brings the link up with the storage type and chip version known, so only
// the wake-up nop and the secure question go out.
inline void bring_up(fake_platform &fake, const std::string &secure = "0")
{
    device_open();
    device_set("storage.type", "eMMC");
    device_set("cpu.vername", "v1");
    fake.push_all({ack(), ack("secure=\"" + secure + "\"")});
    get_firehose();
    fake.written.clear();
}

// A session on a fresh thread in a temporary directory, the link up on the
// scripted line.
template <typename F> void with_link(F body)
{
    fake_platform fake;
    temp_cwd cwd;
    in_session([&] {
        bring_up(fake);
        body(fake);
    });
}

// A new container file with the given entries, through the library's writer.
inline void write_container(const std::string &path, const std::map<std::string, std::string> &entries)
{
    std::remove(path.c_str());
    simg *w = simg_open(path.c_str(), SIMG_CREATE);
    for (auto &[name, data] : entries)
        simg_store(w, data.data(), data.size(), name.c_str());
    simg_close(w);
}

// A container file with the given entries, opened for reading.
struct test_container {
    std::string path;
    simg *handle = nullptr;
    test_container(const std::string &p, const std::map<std::string, std::string> &entries) : path(p)
    {
        write_container(path, entries);
        handle = simg_open(path.c_str(), 0);
    }
    ~test_container() { simg_close(handle); }
};

} // namespace ravik::test
