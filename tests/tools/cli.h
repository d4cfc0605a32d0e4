// The command-line program run as built, in the current directory.
#pragma once

#ifdef RAVIK_CLI_PATH

#include <chrono>
#include <fcntl.h>
#include <grp.h>
#include <memory>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "support/helpers.h"
#include "support/pty.h"

namespace ravik::test {

struct cli_result {
    int status;
    std::string out, err;
    double seconds;
};

struct cli_opts {
    bool tty = false;          // stderr on a terminal
    bool unprivileged = false; // as nobody, when run by root
};

inline cli_result run_cli(const std::vector<std::string> &args, cli_opts o = {})
{
    std::vector<std::string> all{RAVIK_CLI_PATH};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char *> argv;
    for (auto &a : all)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    std::unique_ptr<pty_pair> pty;
    if (o.tty)
        pty = std::make_unique<pty_pair>();
    const std::string slave = pty ? pty->slave_path() : "";

    auto t0 = std::chrono::steady_clock::now();
    pid_t pid = fork();
    if (pid == 0) {
        int out = open("cli.out", O_WRONLY | O_CREAT | O_TRUNC, 0666);
        int err = pty ? open(slave.c_str(), O_RDWR | O_NOCTTY) : open("cli.err", O_WRONLY | O_CREAT | O_TRUNC, 0666);
        dup2(out, 1);
        dup2(err, 2);
        if (o.unprivileged && geteuid() == 0 && (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0))
            _exit(126);
        execv(RAVIK_CLI_PATH, argv.data());
        _exit(127);
    }
    // A terminal is drained while the program runs, so it never blocks on it.
    std::string tty_text;
    int st = 0;
    do {
        if (pty)
            tty_text += pty->read_master(1 << 20, 50);
    } while (waitpid(pid, &st, pty ? WNOHANG : 0) != pid);
    double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    if (pty)
        tty_text += pty->read_master(1 << 20, 50);
    return {WIFEXITED(st) ? WEXITSTATUS(st) : -1, read_file("cli.out"), pty ? tty_text : read_file("cli.err"), secs};
}

} // namespace ravik::test

#endif
