// The backup files a session left in the working directory.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "container/container.h"

namespace ravik::test {

inline std::vector<std::string> backup_files(const std::string &prefix = "backup_0x")
{
    std::vector<std::string> out;
    for (auto &e : std::filesystem::directory_iterator("."))
        if (e.path().filename().string().rfind(prefix, 0) == 0)
            out.push_back(e.path().filename().string());
    return out;
}

inline std::vector<std::string> entry_names(const std::string &path)
{
    std::vector<std::string> out;
    simg *h = simg_open(path.c_str(), 0);
    for (int32_t i = 0; h && i < h->num_entries; i++)
        out.push_back(h->entries[i].name);
    simg_close(h);
    return out;
}

} // namespace ravik::test
