// Every seed of the fuzz corpus and every input that once found a bug, run
// through the fuzz targets' bodies.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "fuzz/fuzz.h"

namespace {

namespace fs = std::filesystem;

void run_all(const char *target, void (*body)(const uint8_t *, size_t))
{
    int files = 0;
    for (const char *kind : {"corpus", "regressions"}) {
        fs::path dir = fs::path(RAVIK_FUZZ_DIR) / kind / target;
        if (!fs::is_directory(dir))
            continue;
        for (auto &f : fs::directory_iterator(dir)) {
            std::ifstream in(f.path(), std::ios::binary);
            std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
            SCOPED_TRACE(f.path().string());
            body(bytes.data(), bytes.size());
            files++;
        }
    }
    EXPECT_GT(files, 0) << "no inputs for " << target;
}

} // namespace

TEST(FuzzInputs, Tags) { run_all("tags", ravik::fuzz::tags_one); }
TEST(FuzzInputs, Container) { run_all("container", ravik::fuzz::container_one); }
TEST(FuzzInputs, Gpt) { run_all("gpt", ravik::fuzz::gpt_one); }
TEST(FuzzInputs, Sahara) { run_all("sahara", ravik::fuzz::sahara_one); }
TEST(FuzzInputs, Response) { run_all("response", ravik::fuzz::response_one); }
