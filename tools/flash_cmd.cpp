// ravik flash: one session per device, through the public API only. Log
// lines go to stderr as they come; a terminal also gets a status line that
// is rewritten in place; several devices end with a table on stdout.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <mutex>
#include <pwd.h>
#include <string>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "cli.h"
#include "ravik.h"

namespace ravik::cli {

namespace {

// Message numbers stop at 23 and Sahara's start at 128, so 64 cannot be
// mistaken for the number of a failed session.
constexpr int EXIT_FLASH_USAGE = 64;

const char USAGE[] =
    "usage: ravik flash [options] DEVICE IMAGE\n"
    "       ravik flash [options] --device DEVICE [--device DEVICE...] IMAGE\n"
    "\n"
    "Flash the single-image container IMAGE onto the target waiting in\n"
    "emergency download mode behind each serial DEVICE. Several devices are\n"
    "flashed at once, one session each, and end with a table of results.\n"
    "\n"
    "options:\n"
    "  --device DEVICE  a target to flash; may be given many times\n"
    "  --debug          debug log, with the target's Sahara debug data\n"
    "  --hexdump        hex dump of all serial traffic (shown with --debug)\n"
    "  --backup         back up and restore the partitions that must survive\n"
    "  --keep-backup    keep the backup file after a clean restore\n"
    "  --force-backup   back up and restore on secure targets too (with --backup)\n"
    "  --save-log       on failure, append the log to ravik_log.txt\n"
    "  --ufs-lock       lock the UFS configuration where a recipe asks for it\n"
    "  -q, --quiet      no log lines and no status line; failures only\n"
    "  -v, --verbose    also print the time each stage took\n"
    "  -h, --help       this text\n"
    "\n"
    "Exit status: 0 when every target was flashed; otherwise the message number\n"
    "of the first failed target in the order given (7: the device could not be\n"
    "opened, 8: the container, 9: no package for the board, ...); 64 for wrong\n"
    "arguments.\n";

struct options {
    uint32_t flags = 0;
    bool forced_bnr = false;
    int verbosity = 0; // -1 quiet, 1 verbose
    std::vector<std::string> devices;
    std::string image;
};

double seconds_since(std::chrono::steady_clock::time_point t0)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

std::string fmt_seconds(double s)
{
    char buf[32];
    snprintf(buf, sizeof buf, "%.1fs", s);
    return buf;
}

// One device's session as the console sees it.
struct session {
    std::string device;
    std::string prefix; // put in front of each of its lines; empty for one device
    std::chrono::steady_clock::time_point start, stage_start;
    std::string stage = "waiting";
    std::vector<std::pair<std::string, double>> stage_times;
    std::string partial; // a log line still without its end
    bool running = false;
    double seconds = 0;
    int32_t code = 0;
    std::string error, diagnosis;
};

// The stage a log line begins, or "" when it begins none. The line is
// without its time stamp.
std::string stage_of(const std::string &line)
{
    auto starts = [&](const char *s) { return line.rfind(s, 0) == 0; };
    auto rest = [&](const char *s) {
        std::string r = line.substr(strlen(s));
        size_t end = r.find_first_of(" \n");
        return end == std::string::npos ? r : r.substr(0, end);
    };
    if (starts("Opening device: "))
        return "open";
    if (starts("Detecting device"))
        return "identify";
    if (starts("Opening singleimage") || starts("Loading package"))
        return "package";
    if (starts("Loading programmer") || starts("Sending programmer"))
        return "upload";
    if (starts("Handling things over to programmer"))
        return "bring-up";
    if (starts("Configuring device"))
        return "configure";
    if (starts("Recipe: "))
        return "recipe " + rest("Recipe: ");
    if (starts("Flashing partition "))
        return "partition " + rest("Flashing partition ");
    if (starts("Patching "))
        return "patch";
    if (starts("Rebooting") || starts("Powering off"))
        return "reboot";
    if (starts("Total time"))
        return "done";
    return "";
}

// Everything that writes to the terminal goes through here, under one lock,
// so that lines of several sessions never mix and the status line is taken
// away before a log line and put back after it.
class console {
  public:
    console(bool tty, int verbosity) : tty_(tty), quiet_(verbosity < 0) {}

    void add(session *s) { sessions_.push_back(s); }

    void log(session &s, const char *text)
    {
        std::lock_guard<std::mutex> lock(m_);
        s.partial += text;
        size_t at;
        while ((at = s.partial.find('\n')) != std::string::npos) {
            line(s, s.partial.substr(0, at + 1));
            s.partial.erase(0, at + 1);
        }
    }

    // A line of the CLI's own, under the same lock.
    void say(const std::string &text)
    {
        std::lock_guard<std::mutex> lock(m_);
        clear_status();
        fputs(text.c_str(), stderr);
        draw_status();
    }

    void begin(session &s)
    {
        std::lock_guard<std::mutex> lock(m_);
        s.start = s.stage_start = std::chrono::steady_clock::now();
        s.running = true;
    }

    void end(session &s)
    {
        std::lock_guard<std::mutex> lock(m_);
        if (!s.partial.empty())
            line(s, s.partial + "\n");
        s.partial.clear();
        set_stage(s, s.code == 0 ? "done" : "failed");
        s.running = false;
        s.seconds = seconds_since(s.start);
        draw_status();
    }

    // Keeps the times on the status line moving while nothing is logged.
    void tick()
    {
        std::lock_guard<std::mutex> lock(m_);
        draw_status();
    }

    void finish()
    {
        std::lock_guard<std::mutex> lock(m_);
        clear_status();
    }

  private:
    void line(session &s, const std::string &text)
    {
        size_t stamp = text.rfind('[', 0) == 0 ? text.find("] ") : std::string::npos;
        std::string stage = stage_of(stamp == std::string::npos ? text : text.substr(stamp + 2));
        if (!stage.empty())
            set_stage(s, stage);
        if (quiet_)
            return;
        clear_status();
        fputs((s.prefix + text).c_str(), stderr);
        draw_status();
    }

    void set_stage(session &s, const std::string &stage)
    {
        if (stage == s.stage)
            return;
        auto now = std::chrono::steady_clock::now();
        if (s.stage != "waiting")
            s.stage_times.emplace_back(s.stage, std::chrono::duration<double>(now - s.stage_start).count());
        s.stage = stage;
        s.stage_start = now;
    }

    void clear_status()
    {
        if (shown_) {
            fputs("\r\033[K", stderr);
            shown_ = false;
        }
    }

    void draw_status()
    {
        if (!tty_ || quiet_)
            return;
        std::string text;
        for (session *s : sessions_) {
            if (!text.empty())
                text += " | ";
            if (!s->prefix.empty()) // the full paths are in the log lines above
                text += s->device.substr(s->device.rfind('/') + 1) + " ";
            double total = s->running ? seconds_since(s->start) : s->seconds;
            text += s->stage;
            if (s->running) {
                text += ' ';
                text += fmt_seconds(seconds_since(s->stage_start));
            }
            text += " (";
            text += fmt_seconds(total);
            text += ')';
        }
        // A status line that wraps could no longer be taken back with \r.
        struct winsize ws {};
        size_t width = ioctl(STDERR_FILENO, TIOCGWINSZ, &ws) == 0 && ws.ws_col > 1 ? ws.ws_col - 1 : 79;
        if (text.size() > width)
            text.resize(width);
        fputs("\r\033[K", stderr);
        fputs(text.c_str(), stderr);
        fflush(stderr);
        shown_ = true;
    }

    std::mutex m_;
    std::vector<session *> sessions_;
    bool tty_;
    bool quiet_;
    bool shown_ = false;
};

struct callback_context {
    console *out;
    session *s;
};

int32_t on_event(int32_t event, void *payload, void *context)
{
    auto *c = static_cast<callback_context *>(context);
    if (event == DEVICE_EVENT_LOG && payload)
        c->out->log(*c->s, static_cast<const char *>(payload));
    return 0;
}

std::string mode_text(mode_t m)
{
    std::string t = "rwxrwxrwx";
    for (int i = 0; i < 9; i++)
        if (!(m & (0400 >> i)))
            t[i] = '-';
    return t;
}

// Processes, other than this one, that have the file open; with their names.
std::vector<std::string> holders_of(const struct stat &dev)
{
    std::vector<std::string> found;
    DIR *proc = opendir("/proc");
    if (!proc)
        return found;
    const pid_t self = getpid();
    while (struct dirent *p = readdir(proc)) {
        char *end = nullptr;
        long pid = strtol(p->d_name, &end, 10);
        if (*end || pid <= 0 || pid == self)
            continue;
        std::string fds = std::string("/proc/") + p->d_name + "/fd";
        DIR *d = opendir(fds.c_str());
        if (!d)
            continue;
        bool holds = false;
        while (struct dirent *f = readdir(d)) {
            struct stat st;
            if (f->d_name[0] != '.' && stat((fds + "/" + f->d_name).c_str(), &st) == 0 &&
                st.st_dev == dev.st_dev && st.st_ino == dev.st_ino) {
                holds = true;
                break;
            }
        }
        closedir(d);
        if (!holds)
            continue;
        std::string name;
        if (FILE *c = fopen((std::string("/proc/") + p->d_name + "/comm").c_str(), "r")) {
            char buf[64] = "";
            if (fgets(buf, sizeof buf, c))
                name = std::string(buf, strcspn(buf, "\n"));
            fclose(c);
        }
        found.push_back(std::to_string(pid) + (name.empty() ? "" : " (" + name + ")"));
    }
    closedir(proc);
    return found;
}

// The library only says it could not open the device; find out why, in
// words a user can act on.
std::string diagnose_open(const std::string &path)
{
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
        if (errno == ENOENT) {
            char target[4096];
            ssize_t n = readlink(path.c_str(), target, sizeof target - 1);
            if (n > 0)
                return "no such device: " + path + " points to " + std::string(target, (size_t)n) +
                       ", which is gone; is the target still connected?";
            return "no such device: " + path +
                   "; is the target connected and in emergency download mode?";
        }
        return path + ": " + strerror(errno);
    }
    int fd = open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0 && errno == EACCES) {
        struct group *g = getgrgid(st.st_gid);
        std::string group = g ? g->gr_name : std::to_string(st.st_gid);
        std::string what = "permission denied: " + path + " has mode " + mode_text(st.st_mode) +
                           " and belongs to group " + group;
        if ((st.st_mode & 060) == 060)
            return what + "; add yourself to that group (sudo usermod -aG " + group +
                   " $USER) and log in again";
        struct passwd *u = getpwuid(st.st_uid);
        return what + "; only its owner " + (u ? u->pw_name : std::to_string(st.st_uid)) +
               " may open it";
    }
    bool busy = fd < 0 && errno == EBUSY;
    if (fd < 0 && !busy)
        return path + ": " + strerror(errno);
    if (fd >= 0) {
        busy = flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
        close(fd);
    }
    if (!busy)
        return path + " opens now; it was busy or away for a moment, try again";
    std::vector<std::string> who = holders_of(st);
    std::string list;
    for (const auto &w : who)
        list += (list.empty() ? "" : ", ") + w;
    if (!list.empty())
        return "device busy: " + path + " is held by process " + list;
    return "device busy: " + path + " is held by another process";
}

// Returns -1 to go on, else the exit status.
int parse(int argc, char **argv, options &o)
{
    std::vector<std::string> pos;
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        if (a == "-h" || a == "--help") {
            fputs(USAGE, stdout);
            return EXIT_OK;
        }
        if (a == "--device") {
            if (i + 1 >= argc) {
                fail_line("flash: --device needs a value");
                return EXIT_FLASH_USAGE;
            }
            o.devices.push_back(argv[++i]);
        } else if (a == "--debug")
            o.flags |= DEVICE_FLAG_DEBUG;
        else if (a == "--hexdump")
            o.flags |= DEVICE_FLAG_HEXDUMP;
        else if (a == "--backup")
            o.flags |= DEVICE_FLAG_BNR;
        else if (a == "--keep-backup")
            o.flags |= DEVICE_FLAG_KEEP_BACKUP;
        else if (a == "--save-log")
            o.flags |= DEVICE_FLAG_SAVE_LOG;
        else if (a == "--ufs-lock")
            o.flags |= DEVICE_FLAG_UFS_LOCK;
        else if (a == "--force-backup")
            o.forced_bnr = true;
        else if (a == "-q" || a == "--quiet")
            o.verbosity = -1;
        else if (a == "-v" || a == "--verbose")
            o.verbosity = 1;
        else if (a == "--")
            for (i++; i < argc; i++)
                pos.push_back(argv[i]);
        else if (a.size() > 1 && a[0] == '-') {
            fail_line("flash: unknown option " + a + " (try 'ravik flash --help')");
            return EXIT_FLASH_USAGE;
        } else
            pos.push_back(a);
    }
    // A second session on a port only disturbs the first one's greeting.
    for (size_t i = 0; i < o.devices.size(); i++)
        if (std::find(o.devices.begin(), o.devices.begin() + (long)i, o.devices[i]) != o.devices.begin() + (long)i) {
            fail_line("flash: " + o.devices[i] + " is given more than once");
            return EXIT_FLASH_USAGE;
        }
    if (o.devices.empty() && pos.size() == 2) {
        o.devices.push_back(pos[0]);
        o.image = pos[1];
    } else if (!o.devices.empty() && pos.size() == 1) {
        o.image = pos[0];
    } else {
        fail_line("flash: usage: ravik flash [options] DEVICE IMAGE (or --device DEVICE... IMAGE)");
        return EXIT_FLASH_USAGE;
    }
    return -1;
}

void print_table(const std::vector<session> &all)
{
    size_t w = strlen("DEVICE");
    for (const auto &s : all)
        w = std::max(w, s.device.size());
    printf("%-*s  %-6s  %7s  %s\n", (int)w, "DEVICE", "RESULT", "TIME", "WHY");
    for (const auto &s : all) {
        std::string why;
        if (s.code != 0) {
            why = s.error;
            if (!s.diagnosis.empty())
                why += "; " + s.diagnosis;
        }
        std::string result = s.code == 0 ? "ok" : "failed";
        std::string row = std::string(s.device) + std::string(w - s.device.size(), ' ') + "  ";
        char rest[32];
        snprintf(rest, sizeof rest, "%-6s  %7s", result.c_str(), fmt_seconds(s.seconds).c_str());
        row += rest;
        if (!why.empty())
            row += "  " + why;
        puts(row.c_str());
    }
    fflush(stdout);
}

int run_flash(int argc, char **argv)
{
    options o;
    int st = parse(argc, argv, o);
    if (st >= 0)
        return st;

    const bool several = o.devices.size() > 1;
    std::vector<session> all(o.devices.size());
    console out(isatty(STDERR_FILENO) == 1, o.verbosity);
    for (size_t i = 0; i < all.size(); i++) {
        all[i].device = o.devices[i];
        if (several)
            all[i].prefix = o.devices[i] + ": ";
        out.add(&all[i]);
    }

    // The switch is process-wide; it must be set before any session starts.
    if (o.forced_bnr)
        rk_enable_forced_bnr();

    auto flash_one = [&](session &s) {
        callback_context ctx{&out, &s};
        out.begin(s);
        s.code = rk_flash_singleimage(s.device.c_str(), o.image.c_str(), o.flags, on_event, &ctx);
        // The text lives in this thread's error block: read it here.
        if (s.code != 0)
            s.error = rk_describe_error(s.code);
        out.end(s);
    };

    std::mutex tick_m;
    std::condition_variable tick_cv;
    bool done = false;
    std::thread ticker([&] {
        std::unique_lock<std::mutex> lock(tick_m);
        while (!tick_cv.wait_for(lock, std::chrono::milliseconds(200), [&] { return done; }))
            out.tick();
    });
    std::vector<std::thread> workers;
    for (auto &s : all)
        workers.emplace_back(flash_one, std::ref(s));
    for (auto &t : workers)
        t.join();
    {
        std::lock_guard<std::mutex> lock(tick_m);
        done = true;
    }
    tick_cv.notify_one();
    ticker.join();
    out.finish();

    int status = EXIT_OK;
    for (auto &s : all) {
        if (s.code != 0 && (s.code & 0xFF) == ERR_OPEN_DEVICE)
            s.diagnosis = diagnose_open(s.device);
        if (s.code != 0 && status == EXIT_OK)
            status = (s.code & 0xFF) != 0 ? (s.code & 0xFF) : EXIT_FAIL;
        if (o.verbosity > 0) {
            std::string line = s.prefix + "stage times:";
            for (const auto &[stage, secs] : s.stage_times)
                line += " " + stage + " " + fmt_seconds(secs) + ",";
            if (s.stage_times.empty())
                line += " none,";
            line.back() = '\n';
            fputs(line.c_str(), stderr);
        }
        if (s.code != 0) {
            fail_line(s.prefix + "failed (" + std::to_string(s.code & 0xFF) + "): " + s.error);
            if (!s.diagnosis.empty())
                fail_line(s.prefix + s.diagnosis);
        } else if (!several && o.verbosity >= 0) {
            fail_line(s.device + " flashed in " + fmt_seconds(s.seconds));
        }
    }
    if (several)
        print_table(all);
    return status;
}

} // namespace

const subcommand flash_command = {"flash", "flash a container onto one or more targets", run_flash};

} // namespace ravik::cli
