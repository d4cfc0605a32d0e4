// The ravik simg command line, run as built: round trips, failures as one
// line with a non-zero status, and names that try to leave the directory.
#include <gtest/gtest.h>

#include <filesystem>
#include <sys/stat.h>

#include "container/container.h"
#include "container/simg_support.h"
#include "support/helpers.h"
#include "tools/cli.h"

#ifdef RAVIK_CLI_PATH

using namespace ravik;
using namespace ravik::test;
namespace fs = std::filesystem;

namespace {

// A failure: the status, one line on stderr that names the program, nothing
// on stdout.
void expect_failure(const std::vector<std::string> &args, int status, const std::string &has)
{
    cli_result r = run_cli(args);
    std::string what = args.empty() ? "" : args.size() > 1 ? args[1] : args[0];
    EXPECT_EQ(r.status, status) << what << ": " << r.err;
    EXPECT_EQ(r.out, "") << what;
    EXPECT_EQ(r.err.rfind("ravik: ", 0), 0u) << what << ": " << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << what << ": " << r.err;
    EXPECT_NE(r.err.find(has), std::string::npos) << what << ": " << r.err;
}

std::vector<std::string> listed_names(const std::string &img)
{
    simg *h = simg_open(img.c_str(), 0);
    std::vector<std::string> v;
    for (int32_t i = 0; h && i < h->num_entries; i++)
        v.push_back(h->entries[i].name);
    simg_close(h);
    return v;
}

} // namespace

TEST(SimgCli, PackListUnpackRoundTrip)
{
    temp_cwd cwd;
    fs::create_directories("src/sub/deeper");
    write_file("src/b.txt", "bee\n");
    write_file("src/A.bin", pattern(5000, 1));
    write_file("src/sub/deeper/c", pattern(9000, 2));
    write_file("src/sub/a", "x");
    fs::create_symlink("/etc/hostname", "src/link");

    cli_result r = run_cli({"simg", "pack", "src", "out.img"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.err.find("skipping src/link"), std::string::npos) << r.err;
    EXPECT_EQ(listed_names("out.img"),
              (std::vector<std::string>{"A.bin", "b.txt", "sub/a", "sub/deeper/c"}));

    r = run_cli({"simg", "list", "out.img"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "        SIZE       OFFSET  NAME\n"
                     "        5000          512  A.bin\n"
                     "           4         8960  b.txt\n"
                     "           1        13312  sub/a\n"
                     "        9000        17664  sub/deeper/c\n");

    r = run_cli({"simg", "unpack", "out.img", "dest"});
    ASSERT_EQ(r.status, 0) << r.err;
    for (const char *f : {"b.txt", "A.bin", "sub/deeper/c", "sub/a"})
        EXPECT_EQ(read_file(std::string("dest/") + f), read_file(std::string("src/") + f)) << f;
    EXPECT_FALSE(fs::exists("dest/link"));

    ASSERT_EQ(run_cli({"simg", "add", "out.img", "src/b.txt", "--name", "renamed"}).status, 0);
    ASSERT_EQ(run_cli({"simg", "extract", "out.img", "renamed", "-o", "got"}).status, 0);
    EXPECT_EQ(read_file("got"), "bee\n");
    r = run_cli({"simg", "extract", "out.img", "sub/deeper/c", "-o", "-"});
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(r.out == read_file("src/sub/deeper/c"));
    fs::create_directory("here");
    ASSERT_EQ(chdir("here"), 0);
    ASSERT_EQ(run_cli({"simg", "extract", "../out.img", "sub/a"}).status, 0);
    EXPECT_EQ(read_file("sub/a"), "x");
    ASSERT_EQ(chdir(".."), 0);

    ASSERT_EQ(run_cli({"simg", "delete", "out.img", "b.txt"}).status, 0);
    EXPECT_EQ(listed_names("out.img"),
              (std::vector<std::string>{"A.bin", "sub/a", "sub/deeper/c", "renamed"}));
    ASSERT_EQ(run_cli({"simg", "create", "empty.img"}).status, 0);
    EXPECT_EQ(read_file("empty.img"), simg_bytes({}));
    ASSERT_EQ(run_cli({"simg", "add", "empty.img", "src/sub/a"}).status, 0);
    EXPECT_EQ(listed_names("empty.img"), (std::vector<std::string>{"a"}));
}

TEST(SimgCli, HelpEverywhere)
{
    temp_cwd cwd;
    for (const char *a : {"create", "list", "add", "extract", "delete", "pack", "unpack"}) {
        cli_result r = run_cli({"simg", a, "--help"});
        EXPECT_EQ(r.status, 0) << a;
        EXPECT_EQ(r.out.rfind(std::string("usage: ravik simg ") + a + " ", 0), 0u) << r.out;
    }
    cli_result r = run_cli({"--help"});
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("simg"), std::string::npos);
    r = run_cli({"simg", "--help"});
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("unpack IMG DIR"), std::string::npos);
    EXPECT_EQ(run_cli({}).status, 2);
}

TEST(SimgCli, BadInputIsOneLineAndNonZero)
{
    temp_cwd cwd;
    write_file("small", "x");
    write_file("empty", "");
    write_file("not.img", std::string(1000, 'n'));
    write_file("ok.img", simg_bytes({{"a", "1"}}));

    expect_failure({"frobnicate"}, 2, "unknown command");
    expect_failure({"simg", "frob"}, 2, "unknown action");
    expect_failure({"simg", "list"}, 2, "usage: ravik simg list IMG");
    expect_failure({"simg", "list", "a", "b"}, 2, "usage");
    expect_failure({"simg", "add", "ok.img", "small", "--bogus"}, 2, "unknown option --bogus");
    expect_failure({"simg", "add", "ok.img", "small", "--name"}, 2, "--name needs a value");
    expect_failure({"simg", "list", "missing.img"}, 1, "No such file");
    expect_failure({"simg", "list", "small"}, 1, "not a container");
    expect_failure({"simg", "list", "not.img"}, 1, "not a container");
    expect_failure({"simg", "create", "ok.img"}, 1, "already exists");
    expect_failure({"simg", "add", "ok.img", "small", "--name", "a"}, 1, "already exists");
    expect_failure({"simg", "add", "ok.img", "empty"}, 1, "empty");
    expect_failure({"simg", "add", "ok.img", "missing"}, 1, "missing");
    expect_failure({"simg", "add", "ok.img", "small", "--name", std::string(200, 'n')}, 1,
                   "longer than 127");
    expect_failure({"simg", "add", "ok.img", "small", "--name", ""}, 1, "empty");
    expect_failure({"simg", "extract", "ok.img", "nope"}, 1, "no such entry");
    expect_failure({"simg", "delete", "ok.img", "nope"}, 1, "no such entry");
    expect_failure({"simg", "unpack", "not.img", "d"}, 1, "not a container");
    EXPECT_EQ(read_file("ok.img"), simg_bytes({{"a", "1"}})) << "failures change nothing";

    fs::create_directory("many");
    for (int i = 0; i < 129; i++)
        write_file("many/f" + std::to_string(i), "x");
    expect_failure({"simg", "pack", "many", "many.img"}, 1, "129 files");
    EXPECT_FALSE(fs::exists("many.img"));
}

TEST(SimgCli, ExtractionStaysInsideItsDirectory)
{
    temp_cwd cwd;
    fs::create_directory("outside");
    const std::string outside = fs::absolute("outside").string();
    for (const std::string &bad : {std::string("../escaped"), outside + "/abs", std::string("a/../../escaped"),
                                   std::string("a//b"), std::string("./a"), std::string("a/.")}) {
        write_file("evil.img", simg_bytes({{"fine", "1"}, {bad, "2"}}));
        fs::remove_all("dest");
        fs::create_directory("dest");
        expect_failure({"simg", "unpack", "evil.img", "dest"}, 1, "would leave");
        EXPECT_TRUE(fs::is_empty("dest")) << bad << ": nothing is written once a name is bad";
        expect_failure({"simg", "extract", "evil.img", bad}, 1, "would leave");
    }
    EXPECT_TRUE(fs::is_empty("outside"));
    EXPECT_FALSE(fs::exists("escaped"));

    // A link inside the target directory is not followed, wherever it points.
    write_file("ok.img", simg_bytes({{"sub/file", "1"}, {"top", "2"}}));
    fs::create_directory("dest2");
    fs::create_directory_symlink(outside, "dest2/sub");
    fs::create_symlink(outside + "/top", "dest2/top");
    expect_failure({"simg", "unpack", "ok.img", "dest2"}, 1, "sub");
    EXPECT_TRUE(fs::is_empty("outside"));
    fs::remove("dest2/sub");
    expect_failure({"simg", "unpack", "ok.img", "dest2"}, 1, "top");
    EXPECT_TRUE(fs::is_empty("outside"));
}

#endif
