// ravik: the command line of the flashing library.
#include <cstdio>
#include <cstring>

#include "cli.h"

namespace ravik::cli {

void fail_line(const std::string &what) { fprintf(stderr, "ravik: %s\n", what.c_str()); }

namespace {

// A new subcommand goes into its own file and gets one line here.
const subcommand *const commands[] = {
    &flash_command,
    &simg_command,
};

void usage(FILE *to)
{
    fprintf(to, "usage: ravik COMMAND [ARGS...]\n\ncommands:\n");
    for (const subcommand *c : commands)
        fprintf(to, "  %-8s %s\n", c->name, c->summary);
    fprintf(to, "\nRun 'ravik COMMAND --help' for the arguments of one command.\n");
}

} // namespace

} // namespace ravik::cli

int main(int argc, char **argv)
{
    using namespace ravik::cli;
    if (argc < 2) {
        usage(stderr);
        return EXIT_USAGE;
    }
    if (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0) {
        usage(stdout);
        return EXIT_OK;
    }
    for (const subcommand *c : commands)
        if (strcmp(argv[1], c->name) == 0)
            return c->run(argc - 1, argv + 1);
    fail_line(std::string("unknown command '") + argv[1] + "' (try 'ravik --help')");
    return EXIT_USAGE;
}
