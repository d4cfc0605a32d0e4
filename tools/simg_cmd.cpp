// ravik simg: make, inspect and change single-image containers.
#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <set>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "cli.h"
#include "container/container.h"
#include "core/core.h"

namespace ravik::cli {

namespace {

struct action {
    const char *name;
    const char *args;    // the usage line after the action's name
    const char *help;    // what it does, lines ending in \n
    const char *option;  // the one option that takes a value, or null
    size_t positionals;
    int (*run)(const std::vector<std::string> &pos, const std::string *opt);
};

// "ravik simg ACTION: " + text, as the one line of a failure.
int fail(const char *act, const std::string &text)
{
    fail_line(std::string("simg ") + act + ": " + text);
    return EXIT_FAIL;
}

std::string message(int32_t code) { return err_str(code & ERR_CODE_MASK); }

struct handle {
    simg *h = nullptr;
    ~handle() { simg_close(h); }
};

bool open_container(const char *act, const std::string &path, handle &out)
{
    errno = 0;
    out.h = simg_open(path.c_str(), 0);
    if (out.h)
        return true;
    int err = errno;
    switch (get_error() & ERR_CODE_MASK) {
    case ERR_RANGE:
        fail(act, path + ": more than " + std::to_string(SIMG_MAX_ENTRIES) + " entries");
        break;
    case ERR_IO:
        if (err != 0) {
            fail(act, path + ": cannot open: " + strerror(err));
            break;
        }
        [[fallthrough]]; // too short to hold a head block
    default:
        fail(act, path + ": not a container");
    }
    return false;
}

bool exists(const std::string &path)
{
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

// Names that a reader can find: not empty, and within what its table holds.
std::string name_problem(const std::string &name)
{
    if (name.empty())
        return "an entry name cannot be empty";
    if (name.size() > SIMG_NAME_MAX)
        return "entry name longer than " + std::to_string(SIMG_NAME_MAX) + " characters: " + name;
    return "";
}

// A name that stays inside the output directory: relative, with no empty,
// "." or ".." component.
bool safe_relative(const std::string &name)
{
    if (name.empty() || name[0] == '/')
        return false;
    size_t at = 0;
    while (at <= name.size()) {
        size_t end = name.find('/', at);
        if (end == std::string::npos)
            end = name.size();
        std::string part = name.substr(at, end - at);
        if (part.empty() || part == "." || part == "..")
            return false;
        at = end + 1;
    }
    return true;
}

// Opens `rel` for writing under the directory `dir`, making directories on
// the way. No symbolic link is followed at any step, so the file lands
// inside `dir` whatever links stand there.
int open_under(int dir, const std::string &rel, std::string *err)
{
    int cur = dup(dir);
    size_t at = 0;
    for (;;) {
        size_t slash = rel.find('/', at);
        std::string part = rel.substr(at, slash == std::string::npos ? std::string::npos : slash - at);
        if (slash == std::string::npos) {
            int fd = openat(cur, part.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
            if (fd < 0)
                *err = rel + ": " + strerror(errno);
            close(cur);
            return fd;
        }
        if (mkdirat(cur, part.c_str(), 0755) != 0 && errno != EEXIST) {
            *err = rel + ": " + strerror(errno);
            close(cur);
            return -1;
        }
        int next = openat(cur, part.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        close(cur);
        if (next < 0) {
            *err = rel + ": " + rel.substr(0, slash) + " is not a directory";
            return -1;
        }
        cur = next;
        at = slash + 1;
    }
}

bool export_to_fd(const char *act, simg *h, const std::string &name, int fd, const std::string &out)
{
    int32_t code = simg_export_fd(h, name.c_str(), fd);
    if (code != 0) {
        fail(act, out + ": " + message(code));
        return false;
    }
    return true;
}

bool export_under(const char *act, simg *h, int dir, const std::string &name)
{
    std::string err;
    int fd = open_under(dir, name, &err);
    if (fd < 0) {
        fail(act, err);
        return false;
    }
    bool ok = export_to_fd(act, h, name, fd, name);
    if (close(fd) != 0 && ok) {
        fail(act, name + ": " + strerror(errno));
        ok = false;
    }
    return ok;
}

int do_create(const std::vector<std::string> &pos, const std::string *)
{
    const std::string &out = pos[0];
    if (exists(out))
        return fail("create", out + ": already exists");
    handle c;
    c.h = simg_open(out.c_str(), SIMG_CREATE);
    if (!c.h)
        return fail("create", out + ": cannot create: " + strerror(errno));
    return EXIT_OK;
}

int do_list(const std::vector<std::string> &pos, const std::string *)
{
    handle c;
    if (!open_container("list", pos[0], c))
        return EXIT_FAIL;
    printf("%12s %12s  %s\n", "SIZE", "OFFSET", "NAME");
    for (int32_t i = 0; i < c.h->num_entries; i++) {
        const simg_entry &e = c.h->entries[i];
        printf("%12" PRIu64 " %12" PRIu64 "  %s\n", e.size, e.offset, e.name);
    }
    return EXIT_OK;
}

std::string base_name(const std::string &path)
{
    std::string p = path;
    while (p.size() > 1 && p.back() == '/')
        p.pop_back();
    size_t slash = p.rfind('/');
    return slash == std::string::npos ? p : p.substr(slash + 1);
}

int add_file(const char *act, simg *h, const std::string &file, const std::string &name)
{
    struct stat st;
    if (stat(file.c_str(), &st) != 0)
        return fail(act, file + ": " + strerror(errno));
    if (!S_ISREG(st.st_mode))
        return fail(act, file + ": not a regular file");
    if (st.st_size == 0)
        return fail(act, file + ": empty files cannot be stored");
    if (simg_find(h, name.c_str()))
        return fail(act, "entry already exists: " + name);
    if (!simg_import(h, file.c_str(), name.c_str()))
        return fail(act, file + ": " + message(get_error()));
    return EXIT_OK;
}

int do_add(const std::vector<std::string> &pos, const std::string *opt)
{
    std::string name = opt ? *opt : base_name(pos[1]);
    std::string problem = name_problem(name);
    if (!problem.empty())
        return fail("add", problem);
    handle c;
    if (!open_container("add", pos[0], c))
        return EXIT_FAIL;
    if (c.h->num_entries == SIMG_MAX_ENTRIES)
        return fail("add", pos[0] + ": container is full (" + std::to_string(SIMG_MAX_ENTRIES) + " entries)");
    return add_file("add", c.h, pos[1], name);
}

int do_extract(const std::vector<std::string> &pos, const std::string *opt)
{
    handle c;
    if (!open_container("extract", pos[0], c))
        return EXIT_FAIL;
    const std::string &name = pos[1];
    if (!simg_find(c.h, name.c_str()))
        return fail("extract", "no such entry: " + name);
    if (opt && *opt == "-")
        return export_to_fd("extract", c.h, name, STDOUT_FILENO, "standard output") ? EXIT_OK : EXIT_FAIL;
    if (opt) {
        int fd = open(opt->c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd < 0)
            return fail("extract", *opt + ": " + strerror(errno));
        bool ok = export_to_fd("extract", c.h, name, fd, *opt);
        if (close(fd) != 0 && ok)
            return fail("extract", *opt + ": " + strerror(errno));
        return ok ? EXIT_OK : EXIT_FAIL;
    }
    if (!safe_relative(name))
        return fail("extract", "entry name would leave the current directory: " + name +
                                   " (use -o PATH)");
    int dir = open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir < 0)
        return fail("extract", std::string("current directory: ") + strerror(errno));
    bool ok = export_under("extract", c.h, dir, name);
    close(dir);
    return ok ? EXIT_OK : EXIT_FAIL;
}

int do_delete(const std::vector<std::string> &pos, const std::string *)
{
    handle c;
    if (!open_container("delete", pos[0], c))
        return EXIT_FAIL;
    int32_t code = simg_delete(c.h, pos[1].c_str());
    if ((code & ERR_CODE_MASK) == ERR_NOT_FOUND)
        return fail("delete", "no such entry: " + pos[1]);
    if (code != 0)
        return fail("delete", pos[0] + ": " + message(code));
    return EXIT_OK;
}

// Regular files under `root`, by their path relative to it; anything else
// is skipped with a note, and symbolic links are not followed.
bool collect(const std::string &root, const std::string &rel, std::vector<std::string> &out)
{
    std::string path = rel.empty() ? root : root + "/" + rel;
    std::vector<std::string> names;
    if (DIR *d = opendir(path.c_str())) {
        while (dirent *de = readdir(d)) {
            if (strcmp(de->d_name, ".") != 0 && strcmp(de->d_name, "..") != 0)
                names.push_back(de->d_name);
        }
        closedir(d);
    } else {
        fail("pack", path + ": " + strerror(errno));
        return false;
    }
    for (const std::string &n : names) {
        std::string sub = rel.empty() ? n : rel + "/" + n;
        struct stat st;
        if (lstat((root + "/" + sub).c_str(), &st) != 0) {
            fail("pack", root + "/" + sub + ": " + strerror(errno));
            return false;
        }
        if (S_ISDIR(st.st_mode)) {
            if (!collect(root, sub, out))
                return false;
        } else if (S_ISREG(st.st_mode)) {
            out.push_back(sub);
        } else {
            fprintf(stderr, "ravik: simg pack: skipping %s/%s: not a regular file\n", root.c_str(),
                    sub.c_str());
        }
    }
    return true;
}

int do_pack(const std::vector<std::string> &pos, const std::string *)
{
    const std::string &dir = pos[0], &out = pos[1];
    if (exists(out))
        return fail("pack", out + ": already exists");
    std::vector<std::string> files;
    if (!collect(dir, "", files))
        return EXIT_FAIL;
    std::sort(files.begin(), files.end());
    if (files.size() > (size_t)SIMG_MAX_ENTRIES)
        return fail("pack", dir + ": " + std::to_string(files.size()) + " files, a container holds " +
                                std::to_string(SIMG_MAX_ENTRIES));
    for (const std::string &f : files) {
        std::string problem = name_problem(f);
        if (!problem.empty())
            return fail("pack", problem);
        struct stat st;
        if (stat((dir + "/" + f).c_str(), &st) == 0 && st.st_size == 0)
            return fail("pack", dir + "/" + f + ": empty files cannot be stored");
    }
    handle c;
    c.h = simg_open(out.c_str(), SIMG_CREATE);
    if (!c.h)
        return fail("pack", out + ": cannot create: " + strerror(errno));
    for (const std::string &f : files) {
        if (add_file("pack", c.h, dir + "/" + f, f) != EXIT_OK) {
            unlink(out.c_str());
            return EXIT_FAIL;
        }
    }
    return EXIT_OK;
}

int do_unpack(const std::vector<std::string> &pos, const std::string *)
{
    handle c;
    if (!open_container("unpack", pos[0], c))
        return EXIT_FAIL;
    // Every name is checked before anything is written.
    std::set<std::string> seen;
    for (int32_t i = 0; i < c.h->num_entries; i++) {
        std::string name = c.h->entries[i].name;
        if (!safe_relative(name))
            return fail("unpack", "entry name would leave " + pos[1] + ": " + name);
        if (!seen.insert(name).second)
            return fail("unpack", "entry name appears twice: " + name);
    }
    if (mkdir(pos[1].c_str(), 0755) != 0 && errno != EEXIST)
        return fail("unpack", pos[1] + ": " + strerror(errno));
    int dir = open(pos[1].c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir < 0)
        return fail("unpack", pos[1] + ": " + strerror(errno));
    bool ok = true;
    for (int32_t i = 0; i < c.h->num_entries && ok; i++)
        ok = export_under("unpack", c.h, dir, c.h->entries[i].name);
    close(dir);
    return ok ? EXIT_OK : EXIT_FAIL;
}

const action actions[] = {
    {"create", "OUT", "Creates an empty container. OUT must not exist yet.\n", nullptr, 1, do_create},
    {"list", "IMG", "Lists the entries: size in bytes, offset of the data in the file, name.\n",
     nullptr, 1, do_list},
    {"add", "IMG FILE [--name NAME]",
     "Appends FILE as a new entry, named NAME or else the last part of FILE's path.\n"
     "Names have 1 to 127 characters and must not be in the container yet.\n",
     "--name", 2, do_add},
    {"extract", "IMG NAME [-o PATH]",
     "Writes the entry NAME to PATH ('-' for standard output), or else to NAME under\n"
     "the current directory. Names that would leave the directory are refused.\n",
     "-o", 2, do_extract},
    {"delete", "IMG NAME", "Removes the entry NAME; later entries move down.\n", nullptr, 2,
     do_delete},
    {"pack", "DIR OUT",
     "Creates OUT from every regular file under DIR, subdirectories included, each\n"
     "named by its path relative to DIR and stored in byte order of those names.\n"
     "Symbolic links and special files are skipped. OUT must not exist yet.\n",
     nullptr, 2, do_pack},
    {"unpack", "IMG DIR",
     "Writes every entry into DIR (created if missing) under its name, making\n"
     "subdirectories for names with '/'. Refuses containers whose names would\n"
     "leave DIR; never follows symbolic links.\n",
     nullptr, 2, do_unpack},
};

void overview(FILE *to)
{
    fprintf(to, "usage: ravik simg ACTION ARGS...\n\nactions:\n");
    for (const action &a : actions)
        fprintf(to, "  %s %s\n", a.name, a.args);
    fprintf(to, "\nRun 'ravik simg ACTION --help' for one action.\n");
}

int run_action(const action &a, int argc, char **argv)
{
    std::vector<std::string> pos;
    std::string opt;
    bool have_opt = false, options_done = false;
    for (int i = 1; i < argc; i++) {
        std::string arg = argv[i];
        if (!options_done && (arg == "--help" || arg == "-h")) {
            printf("usage: ravik simg %s %s\n\n%s", a.name, a.args, a.help);
            return EXIT_OK;
        }
        if (!options_done && arg == "--") {
            options_done = true;
        } else if (!options_done && a.option && arg == a.option) {
            if (i + 1 >= argc) {
                fail_line(std::string("simg ") + a.name + ": " + a.option + " needs a value");
                return EXIT_USAGE;
            }
            opt = argv[++i];
            have_opt = true;
        } else if (!options_done && arg.size() > 1 && arg[0] == '-') {
            fail_line(std::string("simg ") + a.name + ": unknown option " + arg +
                      " (usage: ravik simg " + a.name + " " + a.args + ")");
            return EXIT_USAGE;
        } else {
            pos.push_back(arg);
        }
    }
    if (pos.size() != a.positionals) {
        fail_line(std::string("simg ") + a.name + ": usage: ravik simg " + a.name + " " + a.args);
        return EXIT_USAGE;
    }
    return a.run(pos, have_opt ? &opt : nullptr);
}

int run_simg(int argc, char **argv)
{
    if (argc < 2) {
        overview(stderr);
        return EXIT_USAGE;
    }
    std::string act = argv[1];
    if (act == "--help" || act == "-h") {
        overview(stdout);
        return EXIT_OK;
    }
    for (const action &a : actions)
        if (act == a.name)
            return run_action(a, argc - 1, argv + 1);
    fail_line("simg: unknown action '" + act + "' (try 'ravik simg --help')");
    return EXIT_USAGE;
}

} // namespace

const subcommand simg_command = {"simg", "make, list and change single-image containers", run_simg};

} // namespace ravik::cli
