// A programmer played by script, answers queued in the order asked, and containers made for a test.
#pragma once

#include <cstdio>
#include <map>
#include <tuple>

#include "container/container.h"
#include "core/core.h"
#include "firehose/engine.h"
#include "link/device.h"
#include "link/properties.h"
#include "support/bytes.h"
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
inline std::string ack(const std::string &more = "") { return answer("value=\"ACK\"" + (more.empty() ? "" : " " + more)); }
inline std::string nak(const std::string &more = "") { return answer("value=\"NAK\"" + (more.empty() ? "" : " " + more)); }
inline std::string raw_ack() { return answer("value=\"ACK\" rawmode=\"true\""); }

// The text of each command the host sent, raw bytes left out.
inline std::vector<std::string> commands(const std::string &wire)
{
    std::vector<std::string> out;
    const std::string head = "<?xml version=\"1.0\"?><data><";
    for (size_t at = wire.find(head), end; at != std::string::npos; at = wire.find(head, end)) {
        end = wire.find("/></data>", at);
        out.push_back(wire.substr(at + head.size(), end - at - head.size()));
    }
    return out;
}

// Values of an attribute in the commands sent that begin with `name`, in order.
inline std::vector<std::string> attr_of(const std::string &wire, const std::string &name, const std::string &key)
{
    std::vector<std::string> out;
    for (auto &c : commands(wire))
        if (size_t at = c.find(" " + key + "=\""); c.rfind(name + " ", 0) == 0 && at != std::string::npos)
            out.push_back(c.substr(at + key.size() + 3, c.find('"', at + key.size() + 3) - at - key.size() - 3));
    return out;
}

// A call's result with the code it left in the thread's error slot.
template <typename T> std::tuple<T, int> and_code(T result) { return {result, get_error() & 0xFF}; }

// The link up with storage type and chip known: only the wake-up nop and the secure question go out.
inline void bring_up(fake_platform &fake, const std::string &secure = "0")
{
    device_open();
    device_set("storage.type", "eMMC");
    device_set("cpu.vername", "v1");
    fake.push_all({ack(), ack("secure=\"" + secure + "\"")});
    get_firehose();
    fake.written.clear();
}

// A session on a fresh thread in a temporary directory, the link up on the scripted line.
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
    simg *handle;
    test_container(const std::string &path, const std::map<std::string, std::string> &entries)
        : handle((write_container(path, entries), simg_open(path.c_str(), 0))) {}
    ~test_container() { simg_close(handle); }
};

} // namespace ravik::test
