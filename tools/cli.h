// The command-line program's subcommands: each one a name, a line for the
// overview and an entry that gets the arguments after its name.
#pragma once

#include <string>

namespace ravik::cli {

struct subcommand {
    const char *name;
    const char *summary;
    int (*run)(int argc, char **argv); // argv[0] is the subcommand's name
};

// Exit statuses.
constexpr int EXIT_OK = 0;
constexpr int EXIT_FAIL = 1;
constexpr int EXIT_USAGE = 2;

// Prints "ravik: " + what on stderr, as one line.
void fail_line(const std::string &what);

extern const subcommand flash_command;
extern const subcommand simg_command;

} // namespace ravik::cli
