// The command-line program run as built, in the current directory: ravik
// simg and ravik flash against simulated targets.
#include <gtest/gtest.h>

#ifdef RAVIK_CLI_PATH

#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <sstream>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include "backup/backup_files.h"
#include "ravik.h"
#include "support/container.h"
#include "support/helpers.h"
#include "support/pty.h"
#include "support/sim_session.h"

using namespace ravik;
using namespace ravik::test;
namespace fs = std::filesystem;

namespace {

struct cli_result { int status; std::string out, err; };

// tty: stderr on a terminal, drained while the program runs so that it never blocks on it.
cli_result run_cli(std::vector<std::string> args, bool tty = false)
{
    args.insert(args.begin(), RAVIK_CLI_PATH);
    std::vector<char *> argv;
    for (auto &a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    std::unique_ptr<pty_pair> pty(tty ? new pty_pair : nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(open("cli.out", O_WRONLY | O_CREAT | O_TRUNC, 0666), 1);
        dup2(pty ? open(pty->slave_path().c_str(), O_RDWR | O_NOCTTY)
                 : open("cli.err", O_WRONLY | O_CREAT | O_TRUNC, 0666), 2);
        execv(RAVIK_CLI_PATH, argv.data());
        _exit(127);
    }
    int st = 0;
    std::string tty_text;
    while (waitpid(pid, &st, pty ? WNOHANG : 0) != pid)
        tty_text += pty ? pty->read_master(1 << 20, 50) : "";
    tty_text += pty ? pty->read_master(1 << 20, 50) : read_file("cli.err");
    return {WIFEXITED(st) ? WEXITSTATUS(st) : -1, read_file("cli.out"), tty_text};
}

std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> v;
    std::istringstream in(text);
    for (std::string l; std::getline(in, l);)
        v.push_back(l);
    return v;
}

bool starts(const std::string &s, const std::string &p) { return s.rfind(p, 0) == 0; }
bool has(const std::string &s, const std::string &part) { return s.find(part) != std::string::npos; }

// A failure: the status, nothing on stdout, one line on stderr from the program that says `part`.
void expect_failure(const std::vector<std::string> &args, int status, const std::string &part)
{
    cli_result r = run_cli(args);
    EXPECT_TRUE(r.status == status && r.out.empty() && starts(r.err, "ravik: ") && lines_of(r.err).size() == 1 &&
                has(r.err, part)) << args.back() << ": " << r.status << " " << r.err;
}

} // namespace

TEST(SimgCli, PackListUnpackRoundTrip)
{
    temp_cwd cwd;
    fs::create_directories("src/sub/deeper");
    for (auto [path, data] : {std::pair<const char *, std::string>{"src/b.txt", "bee\n"}, {"src/A.bin", pattern(5000, 1)},
                              {"src/sub/deeper/c", pattern(9000, 2)}, {"src/sub/a", "x"}})
        write_file(path, data);
    fs::create_symlink("/etc/hostname", "src/link");
    cli_result r = run_cli({"simg", "pack", "src", "out.img"});
    ASSERT_TRUE(r.status == 0 && has(r.err, "skipping src/link")) << r.err;
    EXPECT_EQ(run_cli({"simg", "list", "out.img"}).out, "        SIZE       OFFSET  NAME\n"
                                                        "        5000          512  A.bin\n"
                                                        "           4         8960  b.txt\n"
                                                        "           1        13312  sub/a\n"
                                                        "        9000        17664  sub/deeper/c\n");
    ASSERT_EQ(run_cli({"simg", "unpack", "out.img", "dest"}).status, 0);
    for (const char *f : {"b.txt", "A.bin", "sub/deeper/c", "sub/a"})
        EXPECT_EQ(read_file(std::string("dest/") + f), read_file(std::string("src/") + f)) << f;
    r = run_cli({"simg", "extract", "out.img", "sub/deeper/c", "-o", "-"});
    EXPECT_TRUE(r.status == 0 && r.out == read_file("src/sub/deeper/c"));
    // Without -o an entry lands at its name, directories made on the way.
    for (const std::vector<std::string> &args :
         {std::vector<std::string>{"simg", "add", "out.img", "src/b.txt", "--name", "renamed"},
          {"simg", "extract", "out.img", "renamed", "-o", "got"}, {"simg", "extract", "out.img", "sub/a"},
          {"simg", "delete", "out.img", "b.txt"}, {"simg", "create", "empty.img"},
          {"simg", "add", "empty.img", "src/sub/a"}})
        ASSERT_EQ(run_cli(args).status, 0) << args[1] << " " << args[2];
    EXPECT_TRUE(read_file("got") == "bee\n" && read_file("sub/a") == "x" && !fs::exists("dest/link"));
    EXPECT_EQ(entry_names("out.img"), (std::vector<std::string>{"A.bin", "sub/a", "sub/deeper/c", "renamed"}));
    EXPECT_EQ(entry_names("empty.img"), (std::vector<std::string>{"a"}));
}

// Wrong arguments of flash exit with 64, which no failed session gives. Nothing is
// written once an entry name is bad, and a link inside the target directory is not followed.
TEST(SimgCli, BadInputIsOneLine)
{
    temp_cwd cwd;
    EXPECT_EQ(run_cli({}).status, 2);
    write_file("small", "x");
    write_file("empty", "");
    write_file("not.img", std::string(1000, 'n'));
    write_file("ok.img", simg_bytes({{"a", "1"}}));
    fs::create_directory("many");
    for (int i = 0; i < 129; i++)
        write_file("many/f" + std::to_string(i), "x");
    const struct { std::vector<std::string> args; int status; const char *part; } cases[] = {
        {{"frobnicate"}, 2, "unknown command"}, {{"simg", "frob"}, 2, "unknown action"},
        {{"simg", "list"}, 2, "usage: ravik simg list IMG"}, {{"simg", "list", "a", "b"}, 2, "usage"},
        {{"simg", "list", "missing.img"}, 1, "No such file"}, {{"simg", "list", "small"}, 1, "not a container"},
        {{"simg", "list", "not.img"}, 1, "not a container"}, {{"simg", "unpack", "not.img", "d"}, 1, "not a container"},
        {{"simg", "create", "ok.img"}, 1, "already exists"}, {{"simg", "pack", "many", "m.img"}, 1, "129 files"},
        {{"simg", "add", "ok.img", "small", "--bogus"}, 2, "unknown option --bogus"},
        {{"simg", "add", "ok.img", "small", "--name"}, 2, "--name needs a value"},
        {{"simg", "add", "ok.img", "small", "--name", "a"}, 1, "already exists"},
        {{"simg", "add", "ok.img", "small", "--name", std::string(200, 'n')}, 1, "longer than 127"},
        {{"simg", "add", "ok.img", "small", "--name", ""}, 1, "empty"}, {{"simg", "add", "ok.img", "empty"}, 1, "empty"},
        {{"simg", "add", "ok.img", "missing"}, 1, "missing"}, {{"simg", "extract", "ok.img", "nope"}, 1, "no such entry"},
        {{"simg", "delete", "ok.img", "nope"}, 1, "no such entry"}, {{"flash"}, 64, "ravik: flash: "},
        {{"flash", "dev"}, 64, "usage"}, {{"flash", "a", "b", "c"}, 64, "usage"}, {{"flash", "a", "--x", "b"}, 64, "--x"},
        {{"flash", "--device", "a", "x", "y"}, 64, "usage"}, {{"flash", "a", "b", "--device"}, 64, "needs a value"},
        {{"flash", "--device", "a", "--device", "b", "--device", "a", "x"}, 64, "a is given more than once"},
    };
    for (auto &c : cases)
        expect_failure(c.args, c.status, c.part);
    EXPECT_TRUE(read_file("ok.img") == simg_bytes({{"a", "1"}}) && !fs::exists("m.img")) << "failures change nothing";
    fs::create_directory("outside");
    const std::string outside = fs::absolute("outside").string();
    for (const std::string &bad : {std::string("../escaped"), outside + "/abs", std::string("a/../../escaped"),
                                   std::string("a//b"), std::string("./a"), std::string("a/.")}) {
        write_file("evil.img", simg_bytes({{"fine", "1"}, {bad, "2"}}));
        fs::remove_all("dest");
        fs::create_directory("dest");
        expect_failure({"simg", "unpack", "evil.img", "dest"}, 1, "would leave");
        EXPECT_TRUE(fs::is_empty("dest")) << bad;
        expect_failure({"simg", "extract", "evil.img", bad}, 1, "would leave");
    }
    EXPECT_FALSE(fs::exists("escaped"));
    write_file("ok.img", simg_bytes({{"sub/file", "1"}, {"top", "2"}}));
    fs::create_directories("dest2");
    fs::create_directory_symlink(outside, "dest2/sub");
    fs::create_symlink(outside + "/top", "dest2/top");
    expect_failure({"simg", "unpack", "ok.img", "dest2"}, 1, "sub");
    fs::remove("dest2/sub");
    expect_failure({"simg", "unpack", "ok.img", "dest2"}, 1, "top");
    EXPECT_TRUE(fs::is_empty("outside"));
}

#ifdef RAVIK_HAVE_SIM

// Alone on a terminal, the status line names the stages and is taken back with \r before every
// log line. Side by side, off a terminal: plain lines, each its device's or the program's, one
// failure stops no other target, and the first failure in the order given names the status.
TEST(FlashCli, TargetsSideBySideOneFailing)
{
    temp_cwd cwd;
    const std::string boot = pattern(5000, 3);
    write_container("s.img", {{"index.xml", SIM_INDEX}, {"boot.img", boot}, {"p.elf", read_file(RAVIK_SIM_DEMO_ELF)},
                              {"package.xml", "<programmer filename=\"p.elf\"/><recipe filename=\"r.xml\"/>"},
                              {"r.xml", "<configure SkipStorageInit=\"0\"/><program SECTOR_SIZE_IN_BYTES=\"512\" "
                                        "label=\"boot\" filename=\"boot.img\" physical_partition_number=\"0\" "
                                        "start_sector=\"2048\"/><patch SECTOR_SIZE_IN_BYTES=\"512\" filename="
                                        "\"DISK\" physical_partition_number=\"0\" start_sector=\"10\" byte_offset="
                                        "\"0\" size_in_bytes=\"4\" value=\"1\" what=\"mark\"/>"}});
    std::vector<std::unique_ptr<ravik_sim::target>> targets;
    auto add = [&](const std::string &name, uint32_t chip_id = 0x0BEE) {
        ravik_sim::options o;
        o.link = fs::absolute(name).string(), o.storage_dir = o.link + ".storage";
        o.id.serial = 0x1000 + (uint32_t)targets.size(), o.id.chip_id = chip_id;
        targets.push_back(std::make_unique<ravik_sim::target>(o));
        targets.back()->start();
        return o.link;
    };
    auto landed = [&](size_t i) { return read_file(targets[i]->lun_path(0)).substr(2048 * 512, 5000) == boot; };
    cli_result r = run_cli({"flash", add("single"), "s.img"}, true);
    ASSERT_EQ(r.status, 0) << r.err;
    for (const char *stage : {"identify ", "bring-up ", "partition boot ", "patch ", "["})
        EXPECT_TRUE(has(r.err, std::string("\r\033[K") + stage)) << stage << r.err;
    EXPECT_TRUE(landed(0));
    // -v: each device's stage times; --save-log: the log of the failures.
    std::vector<std::string> devices{add("a"), add("stranger", 0x0DAD), add("c"), add("d"), fs::absolute("unplugged")};
    std::vector<std::string> args{"flash", "-v", "--save-log"};
    for (auto &d : devices)
        args.insert(args.end(), {"--device", d});
    args.push_back("s.img");
    r = run_cli(args);
    EXPECT_EQ(r.status, ERR_LOAD_PACKAGE) << r.err;
    EXPECT_TRUE(landed(1) && !landed(2) && landed(3) && landed(4));
    EXPECT_EQ(r.err.find_first_of("\r\033"), std::string::npos);
    for (auto &l : lines_of(r.err))
        EXPECT_TRUE(std::any_of(devices.begin(), devices.end(), [&](auto &d) {
            return starts(l, d + ": ") || starts(l, "ravik: " + d + ": ");
        })) << l;
    for (size_t i : {0, 1, 2, 3})
        EXPECT_TRUE(has(r.err, devices[i] + ": [") && has(r.err, devices[i] + ": stage times: open ")) << devices[i];
    EXPECT_TRUE(has(r.err, "ravik: " + devices[1] + ": failed (9): ") &&
                has(r.err, "ravik: " + devices[4] + ": failed (7): ")) << r.err;
    EXPECT_TRUE(has(read_file("ravik_log.txt"), "Opening singleimage"));
    const auto table = lines_of(r.out);
    const std::string why[] = {"", "error loading package", "", "", "error opening device; no such device: " +
                               devices[4] + "; is the target connected and in emergency download mode?"};
    ASSERT_TRUE(table.size() == 6u && starts(table[0], "DEVICE ")) << r.out;
    for (size_t i = 0; i < devices.size(); i++)
        EXPECT_TRUE(starts(table[i + 1], devices[i] + " ") && has(table[i + 1], why[i].empty() ? " ok " : " failed ") &&
                    (why[i].empty() ? !has(table[i + 1], "failed") : has(table[i + 1], why[i]))) << table[i + 1];
}

#endif

// A device that is not there is told in the side-by-side test. Quiet: the failure and its reason.
TEST(FlashCli, OpenFailuresSayWhatToDo)
{
    temp_cwd cwd;
    const std::string dir = cwd.path();
    // A link left behind by a port that went away; log lines come without -q.
    fs::create_symlink(dir + "/ttyGONE", "port-link");
    cli_result r = run_cli({"flash", "port-link", "x.img"});
    EXPECT_TRUE(r.status == ERR_OPEN_DEVICE && has(r.err, "] Opening device: port-link\n") &&
                has(r.err, "ravik: no such device: port-link points to " + dir + "/ttyGONE, which is gone")) << r.err;
    // Held by another process: this one.
    write_file("held", "");
    int fd = open("held", O_RDWR);
    ASSERT_EQ(flock(fd, LOCK_EX), 0);
    r = run_cli({"flash", "-q", "held", "x.img"});
    close(fd);
    EXPECT_TRUE(r.status == ERR_OPEN_DEVICE && r.out.empty() && lines_of(r.err).size() == 2 &&
                starts(r.err, "ravik: failed (7): rk_flash_singleimage()->device_open()->error opening device\n") &&
                has(r.err, "\nravik: device busy: held is held by process " + std::to_string(getpid()) + " ("))
        << r.err;
}

#endif
