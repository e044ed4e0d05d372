// orkadctl: asks the running orkad how it is, and reads its main log.
//
// The daemon answers two events of its own on its local event listener
// ("unix:/tmp/orkad_socket"): "orkad.status" and "orkad.dump", each with the
// path of a socket of ours to send its one answer datagram to. We bind that
// socket at /tmp/orkadctl.<pid>, root only, wait at most a second for the
// answer and remove the socket however we end. Every path goes through the
// daemon's own device-path mapping, so under ORKAD_ROOT (the lab, the tests)
// the client finds exactly what the daemon made.

#include "devroot.h"
#include "listener.h"
#include "log.h"
#include "orkad.h"
#include "raii.h"
#include "utf8.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/inotify.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

namespace
{

constexpr int EXIT_WELL = 0;      // the daemon answers and all is well
constexpr int EXIT_WRONG = 1;     // it answers, and says something is wrong
constexpr int EXIT_NO_ANSWER = 2; // no daemon, no answer in time, or a usage error

constexpr int ANSWER_WAIT_MS = 1000;
constexpr size_t WIDTH = 79; // longest line printed for people
constexpr size_t LABEL = 13; // label column of the status
constexpr long DEFAULT_LINES = 20;
constexpr char REPLY_PATH_FORMAT[] = "/tmp/orkadctl.%d";

// SIGINT, SIGTERM, SIGHUP and SIGQUIT are blocked and read here, so that every
// way out, an interrupted `log -f` included, goes back through main and
// removes our socket.
int signal_fd = -1;

void complain(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void complain(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    fputs("orkadctl: ", stderr);
    vfprintf(stderr, fmt, ap);
    fputc('\n', stderr);
    va_end(ap);
}

void usage(FILE *out)
{
    fputs("Usage: orkadctl [--json] status\n"
          "       orkadctl [--json] dump\n"
          "       orkadctl [--json] log [-f] [-n N]\n"
          "       orkadctl -h | --help\n"
          "       orkadctl -v | --version\n"
          "\n"
          "Asks the running orkad how it is, over its socket /tmp/orkad_socket.\n"
          "  status      controller, phone-home, heartbeat, token, streams, VPN,\n"
          "              firmware, uptime, restarts, settings schema, problems\n"
          "  dump        the counters every module dumps on SIGUSR1, and where\n"
          "  log         the last lines of /rw/orkad.log, newest last\n"
          "    -n N      that many lines (default 20)\n"
          "    -f        then follow the log, across rotation, until interrupted\n"
          "  --json      machine-readable output\n"
          "\n"
          "Exit status: 0 all well; 1 orkad answers but something is wrong;\n"
          "2 no answer from orkad within 1 s, or a usage error. Root only.\n",
          out);
}

// A device path as it lies on this machine ("" when it does not fit).
std::string mapped(const char *device_path)
{
    char buf[PATH_MAX];
    if (devroot_path(device_path, buf, sizeof(buf)) == nullptr)
        return "";
    return buf;
}

bool unix_address(const std::string &path, struct sockaddr_un *addr)
{
    memset(addr, 0, sizeof(*addr));
    addr->sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(addr->sun_path))
        return false;
    memcpy(addr->sun_path, path.c_str(), path.size() + 1);
    return true;
}

// Our answer socket: removed when the client ends, however it ends.
struct bound_socket {
    fd_guard fd;
    std::string path; // set once bound
    explicit bound_socket(int f) : fd(f) {}
    ~bound_socket()
    {
        if (!path.empty())
            unlink(path.c_str());
    }
    bound_socket(const bound_socket &) = delete;
    bound_socket &operator=(const bound_socket &) = delete;
};

long remaining_ms(const struct timespec &deadline)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    long ms = (deadline.tv_sec - now.tv_sec) * 1000 + (deadline.tv_nsec - now.tv_nsec) / 1000000;
    return ms > 0 ? ms : 0;
}

bool interrupted()
{
    struct signalfd_siginfo si;
    return read(signal_fd, &si, sizeof(si)) == (ssize_t)sizeof(si);
}

// Waits for fd to become ready for events (or for a signal) until the
// deadline: 1 ready, 0 timed out, -1 interrupted by a signal.
int wait_ready(int fd, short events, const struct timespec &deadline)
{
    for (;;) {
        struct pollfd p[2] = {{fd, events, 0}, {signal_fd, POLLIN, 0}};
        int n = poll(p, 2, (int)remaining_ms(deadline));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return 0;
        if (p[1].revents & POLLIN)
            return interrupted() ? -1 : 0;
        return 1;
    }
}

void no_answer()
{
    complain("no answer from orkad within 1 s (is it running?)");
}

// Sends event to the daemon and takes its one answer, a JSON object.
int ask(const char *event, json_ptr &answer)
{
    struct timespec deadline;
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += ANSWER_WAIT_MS / 1000;

    char reply_dev[64];
    snprintf(reply_dev, sizeof(reply_dev), REPLY_PATH_FORMAT, (int)getpid());
    const char *daemon_dev = LISTENER_DEFAULT_SOCKET + strlen("unix:");
    std::string reply_path = mapped(reply_dev);
    std::string daemon_path = mapped(daemon_dev);
    struct sockaddr_un me, daemon;
    if (!unix_address(reply_path, &me) || !unix_address(daemon_path, &daemon)) {
        complain("socket paths under '%s' are too long for a Unix socket", devroot());
        return EXIT_NO_ANSWER;
    }

    bound_socket s(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!s.fd.ok()) {
        complain("cannot open a socket: %s", strerror(errno));
        return EXIT_NO_ANSWER;
    }
    // One of ours left by a client of the same pid that was killed.
    unlink(reply_path.c_str());
    if (bind(s.fd.get(), reinterpret_cast<struct sockaddr *>(&me), sizeof(me)) < 0) {
        complain("cannot bind %s: %s", reply_path.c_str(), strerror(errno));
        return EXIT_NO_ANSWER;
    }
    s.path = reply_path;
    // The umask made it root's alone already; the mode is the agreed one.
    chmod(reply_path.c_str(), 0600);

    // Sent from a second socket, connected, so that a daemon whose queue is
    // full makes us wait with poll until the deadline rather than block for
    // ever. The answer comes to the bound one: a Unix datagram socket that is
    // connected takes datagrams from its peer only.
    fd_guard out(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!out.ok()) {
        complain("cannot open a socket: %s", strerror(errno));
        return EXIT_NO_ANSWER;
    }
    if (connect(out.get(), reinterpret_cast<struct sockaddr *>(&daemon), sizeof(daemon)) < 0) {
        int err = errno;
        if (err == ENOENT || err == ECONNREFUSED)
            complain("orkad is not running (nothing listens on %s)", daemon_path.c_str());
        else
            complain("cannot reach orkad on %s: %s", daemon_path.c_str(), strerror(err));
        return EXIT_NO_ANSWER;
    }
    json_ptr request(json_pack("{s:s, s:{s:s}}", "event", event, "params", "reply", reply_dev));
    malloc_ptr<char> text(request ? json_dumps(request.get(), JSON_COMPACT) : nullptr);
    if (!text) {
        complain("out of memory");
        return EXIT_NO_ANSWER;
    }
    for (;;) {
        if (send(out.get(), text.get(), strlen(text.get()), 0) >= 0)
            break;
        int err = errno;
        if (err == EINTR)
            continue;
        if (err != EAGAIN) {
            complain("cannot reach orkad on %s: %s", daemon_path.c_str(), strerror(err));
            return EXIT_NO_ANSWER;
        }
        // Its queue is full: wait for room, within the same second.
        int r = wait_ready(out.get(), POLLOUT, deadline);
        if (r <= 0) {
            if (r == 0)
                no_answer();
            return EXIT_NO_ANSWER;
        }
    }

    std::vector<char> buf(65536);
    for (;;) {
        int r = wait_ready(s.fd.get(), POLLIN, deadline);
        if (r <= 0) {
            if (r == 0)
                no_answer();
            return EXIT_NO_ANSWER;
        }
        ssize_t n = recv(s.fd.get(), buf.data(), buf.size(), MSG_DONTWAIT);
        if (n < 0)
            continue;
        json_error_t error;
        json_ptr got(json_loadb(buf.data(), (size_t)n, 0, &error));
        // Only root can send to the socket, so anything else is a stray
        // datagram; keep waiting for the answer.
        if (json_is_object(got.get())) {
            answer = std::move(got);
            return EXIT_WELL;
        }
    }
}

// ---- output for people ----------------------------------------------------

// What the daemon reports comes partly from the network (the controller's
// URL, log lines): control characters are shown as '?' so that nothing read
// on a console can steer the terminal.
std::string printable(const std::string &text)
{
    std::string out = text;
    for (char &c : out) {
        unsigned char u = (unsigned char)c;
        if ((u < 0x20 && u != '\t') || u == 0x7f)
            c = '?';
    }
    return out;
}

void row(const char *label, const std::string &value)
{
    std::string line = label;
    line.append(line.size() < LABEL ? LABEL - line.size() : 1, ' ');
    line += printable(value);
    if (line.size() > WIDTH) {
        size_t cut = WIDTH - 3;
        // Not in the middle of a UTF-8 sequence.
        while (cut > LABEL && ((unsigned char)line[cut] & 0xc0) == 0x80)
            cut--;
        line.resize(cut);
        line += "...";
    }
    printf("%s\n", line.c_str());
}

bool integer(json_t *v, long long *out)
{
    if (!json_is_integer(v))
        return false;
    *out = json_integer_value(v);
    return true;
}

std::string number(json_t *v)
{
    long long n;
    return integer(v, &n) ? std::to_string(n) : "?";
}

std::string text(json_t *v, const char *none)
{
    return json_is_string(v) ? json_string_value(v) : none;
}

// "2024-03-07 14:05:09 (12s ago)" in UTC, "never" for null.
std::string when(json_t *v, time_t now)
{
    long long t;
    if (!integer(v, &t))
        return "never";
    time_t tt = (time_t)t;
    struct tm tm;
    char stamp[64];
    if (gmtime_r(&tt, &tm) == nullptr ||
        strftime(stamp, sizeof(stamp), "%Y-%m-%d %H:%M:%S", &tm) == 0)
        snprintf(stamp, sizeof(stamp), "@%lld", t);
    long long d = (long long)now - t;
    char rel[48];
    if (d >= 0)
        snprintf(rel, sizeof(rel), " (%llds ago)", d);
    else
        snprintf(rel, sizeof(rel), " (in %llds)", -d);
    return std::string(stamp) + rel;
}

// The daemon's request results: 0, an HTTP status, or its transport codes.
std::string result(json_t *v)
{
    long long r;
    if (!integer(v, &r))
        return "";
    if (r == 0)
        return "ok";
    if (r == 1)
        return "cannot start request (1)";
    if (r == 2)
        return "transport error (2)";
    return "HTTP " + std::to_string(r);
}

std::string joined(std::initializer_list<std::string> parts)
{
    std::string out;
    for (const std::string &p : parts) {
        if (p.empty())
            continue;
        if (!out.empty())
            out += ", ";
        out += p;
    }
    return out;
}

std::string source_text(json_t *v)
{
    std::string s = text(v, "");
    if (s == "phone-home")
        return "phone-home";
    if (s == "site")
        return "phone-home (-s or homesite)";
    if (s == "boot")
        return "boot environment override";
    if (s == "stored")
        return "settings database";
    return s.empty() ? "unknown" : s;
}

void print_stream(const char *name, json_t *s, time_t now)
{
    if (!json_is_object(s)) {
        row(name, "unknown");
        return;
    }
    if (!json_is_true(json_object_get(s, "enabled"))) {
        row(name, "off");
        return;
    }
    row(name, "every " + number(json_object_get(s, "interval")) + "s, " +
                  number(json_object_get(s, "posted")) + " posted, " +
                  number(json_object_get(s, "failed")) + " failed");
    if (json_object_get(s, "lines_waiting") != nullptr)
        row("  queued", "lines " + number(json_object_get(s, "lines_waiting")) + ", batches " +
                            number(json_object_get(s, "batches_waiting")) + ", dropped " +
                            number(json_object_get(s, "dropped")));
    row("  last",
        joined({when(json_object_get(s, "last"), now), result(json_object_get(s, "result"))}));
}

void print_status(json_t *a, time_t now)
{
    row("orkad", text(json_object_get(a, "version"), "?") + ", pid " +
                     number(json_object_get(a, "pid")) + ", up " +
                     number(json_object_get(a, "uptime")) + "s, restarts " +
                     number(json_object_get(a, "restarts")));

    json_t *ctl = json_object_get(a, "controller");
    json_t *url = json_object_get(ctl, "url");
    if (json_is_string(url)) {
        row("controller", json_string_value(url));
        row("  from", source_text(json_object_get(ctl, "source")));
    } else {
        row("controller", "none");
    }

    json_t *ph = json_object_get(a, "phone_home");
    json_t *ph_last = json_object_get(ph, "last");
    row("phone-home",
        joined({text(json_object_get(ph, "state"), "?"), result(json_object_get(ph, "result")),
                json_is_integer(ph_last) ? when(ph_last, now) : ""}));

    json_t *hb = json_object_get(a, "heartbeat");
    row("heartbeat", "every " + number(json_object_get(hb, "interval")) + "s, " +
                         number(json_object_get(hb, "failures")) + " failed in a row");
    row("  last",
        joined({when(json_object_get(hb, "last"), now), result(json_object_get(hb, "result"))}));
    row("  last ok", when(json_object_get(hb, "last_ok"), now));

    json_t *tok = json_object_get(a, "token");
    json_t *expires = json_object_get(tok, "expires");
    if (!json_is_true(json_object_get(tok, "held")))
        row("token", "none");
    else if (json_is_integer(expires))
        row("token", "held, expires " + when(expires, now));
    else
        row("token", "held, no expiry");

    json_t *streams = json_object_get(a, "streams");
    for (const char *name : {"status", "statistics", "syslog"})
        print_stream(name, json_object_get(streams, name), now);

    json_t *vpn = json_object_get(a, "vpn");
    json_t *address = json_object_get(vpn, "address");
    row("vpn", joined({text(json_object_get(vpn, "state"), "?"),
                       json_is_string(address) ? json_string_value(address) : ""}));

    json_t *fw = json_object_get(a, "firmware");
    json_t *pending = json_object_get(fw, "pending");
    row("firmware", text(json_object_get(fw, "running"), "unknown") + ", " +
                        (json_is_string(pending)
                             ? std::string("update to ") + json_string_value(pending) + " pending"
                             : std::string("nothing pending")));

    row("database", "schema " + number(json_object_get(json_object_get(a, "database"), "schema")));

    json_t *problems = json_object_get(a, "problems");
    if (!json_is_array(problems)) {
        row("problems", "unknown (orkad did not say)");
    } else if (json_array_size(problems) == 0) {
        row("problems", "none");
    } else {
        size_t i;
        json_t *p;
        json_array_foreach(problems, i, p) row(i == 0 ? "problems" : "", text(p, "?"));
    }
}

// All well only when the daemon says so.
int status_exit(json_t *answer)
{
    json_t *problems = json_object_get(answer, "problems");
    return json_is_array(problems) && json_array_size(problems) == 0 ? EXIT_WELL : EXIT_WRONG;
}

bool print_json(json_t *j)
{
    malloc_ptr<char> text(json_dumps(j, JSON_COMPACT | JSON_ENCODE_ANY));
    if (!text)
        return false;
    printf("%s\n", text.get());
    return true;
}

bool stdout_ok()
{
    return fflush(stdout) == 0 && !ferror(stdout);
}

int do_status(bool as_json)
{
    json_ptr answer;
    int rc = ask("orkad.status", answer);
    if (rc != EXIT_WELL)
        return rc;
    rc = status_exit(answer.get());
    if (as_json) {
        json_object_set_new(answer.get(), "exit", json_integer(rc));
        print_json(answer.get());
    } else {
        print_status(answer.get(), time(nullptr));
    }
    return rc;
}

// ---- files ------------------------------------------------------------------

// Bytes [from, to) of an open file (to < 0: to its end).
std::string read_range(int fd, off_t from, off_t to)
{
    std::string out;
    char buf[65536];
    off_t at = from;
    while (to < 0 || at < to) {
        size_t want = sizeof(buf);
        if (to >= 0 && (off_t)want > to - at)
            want = (size_t)(to - at);
        ssize_t n = pread(fd, buf, want, at);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        out.append(buf, (size_t)n);
        at += n;
    }
    return out;
}

// Whole lines of text; a last line without its newline is one too.
std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> out;
    size_t at = 0;
    while (at < text.size()) {
        size_t nl = text.find('\n', at);
        if (nl == std::string::npos) {
            out.push_back(text.substr(at));
            break;
        }
        out.push_back(text.substr(at, nl - at));
        at = nl + 1;
    }
    return out;
}

json_ptr json_lines(const std::vector<std::string> &lines)
{
    json_ptr arr(json_array());
    for (const std::string &l : lines)
        json_array_append_new(arr.get(), json_utf8_string(l.c_str()));
    return arr;
}

// "/tmp/debug.log" -> "/tmp/debug1.log": how the daemon names a log's
// rotated generations.
std::string generation_of(const std::string &device_file, int k)
{
    std::string base = device_file;
    if (base.size() > 4 && base.compare(base.size() - 4, 4, ".log") == 0)
        base.resize(base.size() - 4);
    return k == 0 ? base + ".log" : base + std::to_string(k) + ".log";
}

std::string read_device_file(const std::string &device_file, off_t from, off_t to, off_t *size)
{
    *size = -1;
    fd_guard fd(open(mapped(device_file.c_str()).c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.ok())
        return "";
    struct stat st;
    if (fstat(fd.get(), &st) == 0)
        *size = st.st_size;
    return read_range(fd.get(), from, to);
}

int do_dump(bool as_json)
{
    json_ptr answer;
    int rc = ask("orkad.dump", answer);
    if (rc != EXIT_WELL)
        return rc;
    json_t *a = answer.get();
    long long from = 0, to = 0;
    const char *file = json_string_value(json_object_get(a, "file"));
    if (!json_is_true(json_object_get(a, "dumped")) || file == nullptr ||
        !integer(json_object_get(a, "from"), &from) || !integer(json_object_get(a, "to"), &to) ||
        from < 0 || to < 0) {
        complain("orkad did not dump");
        if (as_json) {
            json_object_set_new(a, "exit", json_integer(EXIT_WRONG));
            print_json(a);
        }
        return EXIT_WRONG;
    }

    // The debug log may have rotated while the dump was written (it begins in
    // the generation before, where "to" < "from") or since (both lie there).
    off_t size = -1;
    std::string bytes = read_device_file(file, from, to, &size);
    bool whole = to >= from && size >= to;
    if (to < from) {
        off_t older = -1;
        bytes = read_device_file(generation_of(file, 1), from, -1, &older) +
                read_device_file(file, 0, to, &size);
        whole = older >= from && size >= to;
    } else if (!whole) {
        bytes = read_device_file(generation_of(file, 1), from, to, &size);
        whole = size >= to;
    }
    if (!whole)
        rc = EXIT_WRONG;
    std::vector<std::string> lines = lines_of(bytes);
    if (as_json) {
        json_object_set_new(a, "lines", json_lines(lines).release());
        json_object_set_new(a, "exit", json_integer(rc));
        print_json(a);
    } else {
        for (const std::string &l : lines)
            printf("%s\n", printable(l).c_str());
        if (whole)
            printf("dumped into %s, bytes %lld to %lld\n", file, from, to);
        else
            complain("the dump in %s (bytes %lld to %lld) is no longer there whole", file, from,
                     to);
    }
    return rc;
}

// ---- the main log -----------------------------------------------------------

struct log_printer {
    bool as_json;
    // One line, as it is for people, or as one JSON string.
    void line(const std::string &l) const
    {
        if (as_json) {
            json_ptr s(json_utf8_string(l.c_str()));
            print_json(s.get());
        } else {
            printf("%s\n", printable(l).c_str());
        }
    }
};

// Follows the current file: what it holds past pos, then every line added,
// across the daemon's rotations (the current file is renamed to generation 1
// and a fresh one opened), until a signal. Blocks in poll between changes.
int follow(const std::string &path, fd_guard &file, off_t pos, std::string pending,
           const log_printer &out)
{
    fd_guard in(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (!in.ok()) {
        complain("cannot follow %s: %s", path.c_str(), strerror(errno));
        return EXIT_NO_ANSWER;
    }
    size_t slash = path.rfind('/');
    std::string dir = slash == 0 ? "/" : path.substr(0, slash);
    if (inotify_add_watch(in.get(), dir.c_str(),
                          IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE) < 0) {
        complain("cannot follow %s: %s", path.c_str(), strerror(errno));
        return EXIT_NO_ANSWER;
    }
    int file_wd = file.ok() ? inotify_add_watch(in.get(), path.c_str(), IN_MODIFY) : -1;

    auto drain = [&](int f) {
        struct stat st;
        if (fstat(f, &st) != 0)
            return;
        if (st.st_size < pos) {
            // Cut back (a line too long for the log is cut and marked "..."):
            // read the line we were in the middle of again, as it now is.
            off_t line_start = pos - (off_t)pending.size();
            pos = std::min(line_start, (off_t)st.st_size);
            pending.clear();
        }
        std::string got = read_range(f, pos, -1);
        pos += (off_t)got.size();
        pending += got;
        size_t at = 0, nl;
        while ((nl = pending.find('\n', at)) != std::string::npos) {
            out.line(pending.substr(at, nl - at));
            at = nl + 1;
        }
        pending.erase(0, at);
    };

    for (;;) {
        int f = file.get();
        if (f >= 0)
            drain(f);
        struct stat named, open_st;
        if (stat(path.c_str(), &named) == 0 &&
            (f < 0 || fstat(f, &open_st) != 0 || open_st.st_ino != named.st_ino ||
             open_st.st_dev != named.st_dev)) {
            // Rotated: take what was written before the rename, then the new
            // file from its start.
            if (f >= 0) {
                drain(f);
                if (!pending.empty())
                    out.line(pending);
                pending.clear();
                if (file_wd >= 0)
                    inotify_rm_watch(in.get(), file_wd);
            }
            file.reset(open(path.c_str(), O_RDONLY | O_CLOEXEC));
            if (!file.ok() && errno != ENOENT) {
                complain("cannot read %s: %s", path.c_str(), strerror(errno));
                return EXIT_NO_ANSWER;
            }
            pos = 0;
            file_wd = file.ok() ? inotify_add_watch(in.get(), path.c_str(), IN_MODIFY) : -1;
            continue;
        }
        if (!stdout_ok())
            return EXIT_WELL; // the reader went away
        struct pollfd p[2] = {{in.get(), POLLIN, 0}, {signal_fd, POLLIN, 0}};
        if (poll(p, 2, -1) < 0 && errno != EINTR) {
            complain("cannot follow %s: %s", path.c_str(), strerror(errno));
            return EXIT_NO_ANSWER;
        }
        if ((p[1].revents & POLLIN) && interrupted())
            return EXIT_WELL;
        char events[4096];
        while (read(in.get(), events, sizeof(events)) > 0) {
        }
    }
}

int do_log(bool as_json, bool follow_it, long count)
{
    char dev[64];
    snprintf(dev, sizeof(dev), "%s.log", LOG_MAIN_NAME);
    std::string path = mapped(dev);
    fd_guard owner(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!owner.ok() && (errno != ENOENT || !follow_it)) {
        complain("cannot read %s: %s", path.c_str(), strerror(errno));
        return EXIT_NO_ANSWER;
    }

    // The newest lines: the current file, then the rotated generations
    // before it while there are not enough.
    std::string current = owner.ok() ? read_range(owner.get(), 0, -1) : "";
    off_t pos = (off_t)current.size();
    std::string pending;
    if (follow_it && !current.empty() && current.back() != '\n') {
        size_t nl = current.rfind('\n');
        size_t start = nl == std::string::npos ? 0 : nl + 1;
        pending = current.substr(start);
        current.resize(start);
    }
    std::vector<std::string> lines = lines_of(current);
    for (int k = 1; k <= LOG_GENERATIONS && (long)lines.size() < count; k++) {
        off_t size;
        std::string older = read_device_file(generation_of(dev, k), 0, -1, &size);
        if (size < 0)
            break;
        std::vector<std::string> before = lines_of(older);
        lines.insert(lines.begin(), before.begin(), before.end());
    }
    if ((long)lines.size() > count)
        lines.erase(lines.begin(), lines.end() - count);

    log_printer out{as_json};
    if (as_json && !follow_it) {
        print_json(json_lines(lines).get());
        return stdout_ok() ? EXIT_WELL : EXIT_NO_ANSWER;
    }
    for (const std::string &l : lines)
        out.line(l);
    if (!follow_it)
        return stdout_ok() ? EXIT_WELL : EXIT_NO_ANSWER;
    return follow(path, owner, pos, pending, out);
}

} // namespace

int main(int argc, char **argv)
{
    devroot_init();
    bool as_json = false, follow_it = false;
    long count = DEFAULT_LINES;
    const char *verb = nullptr;
    for (int i = 1; i < argc; i++) {
        const char *a = argv[i];
        bool log_verb = verb != nullptr && strcmp(verb, "log") == 0;
        if (strcmp(a, "--json") == 0) {
            as_json = true;
        } else if (strcmp(a, "-h") == 0 || strcmp(a, "--help") == 0) {
            usage(stdout);
            return EXIT_WELL;
        } else if (strcmp(a, "-v") == 0 || strcmp(a, "--version") == 0) {
            printf("orkadctl %s\n", ORKAD_VERSION);
            return EXIT_WELL;
        } else if (verb == nullptr && a[0] != '-') {
            verb = a;
        } else if (log_verb && strcmp(a, "-f") == 0) {
            follow_it = true;
        } else if (log_verb && strncmp(a, "-n", 2) == 0) {
            const char *v = a[2] != '\0' ? a + 2 : (i + 1 < argc ? argv[++i] : "");
            char *end;
            errno = 0;
            count = strtol(v, &end, 10);
            if (v[0] < '0' || v[0] > '9' || *end != '\0' || errno != 0) {
                complain("-n wants a number of lines, not '%s'", v);
                return EXIT_NO_ANSWER;
            }
        } else {
            complain("unknown argument '%s' (orkadctl --help says what it takes)", a);
            return EXIT_NO_ANSWER;
        }
    }
    if (verb == nullptr ||
        (strcmp(verb, "status") != 0 && strcmp(verb, "dump") != 0 && strcmp(verb, "log") != 0)) {
        if (verb == nullptr)
            usage(stderr);
        else
            complain("unknown verb '%s' (orkadctl --help says what it takes)", verb);
        return EXIT_NO_ANSWER;
    }
    // The daemon's socket and logs are root's; say so rather than fail on a
    // permission later.
    if (geteuid() != 0) {
        complain("only root can ask orkad");
        return EXIT_NO_ANSWER;
    }
    umask(077);

    sigset_t set;
    sigemptyset(&set);
    for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGQUIT})
        sigaddset(&set, sig);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    signal_fd = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    signal(SIGPIPE, SIG_IGN);
    if (signal_fd < 0) {
        complain("cannot take signals: %s", strerror(errno));
        return EXIT_NO_ANSWER;
    }

    if (strcmp(verb, "status") == 0)
        return do_status(as_json);
    if (strcmp(verb, "dump") == 0)
        return do_dump(as_json);
    return do_log(as_json, follow_it, count);
}
