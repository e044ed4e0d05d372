#include "devroot.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <mutex>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

namespace
{

char root[512];
size_t root_len;

char log_ident[64] = "orkad";
int log_option;
int log_facility = LOG_USER;
// Opened under log_mutex, looked at without it by every syslog line.
std::atomic<int> log_fd{-1};
std::mutex log_mutex;

bool kernel_path(const char *p)
{
    auto under = [p](const char *dir) {
        size_t n = strlen(dir);
        return strncmp(p, dir, n) == 0 && (p[n] == '\0' || p[n] == '/');
    };
    // strchr() also matches the terminator, so "/dev/null" alone counts.
    return under("/proc") || under("/sys") ||
           (strncmp(p, "/dev/null", 9) == 0 && strchr(" \t;|&)>'\"", p[9]) != nullptr);
}

bool already_mapped(const char *p)
{
    return root_len > 0 && strncmp(p, root, root_len) == 0 &&
           (p[root_len] == '/' || p[root_len] == '\0');
}

} // namespace

const char *devroot(void)
{
    return root;
}

void devroot_init(void)
{
    const char *r = getenv("ORKAD_ROOT");
    root[0] = '\0';
    root_len = 0;
    if (r == nullptr || r[0] == '\0')
        return;
    snprintf(root, sizeof(root), "%s", r);
    root_len = strlen(root);
    while (root_len > 1 && root[root_len - 1] == '/')
        root[--root_len] = '\0';

    // Tools the daemon finds through the search path resolve inside the root.
    std::string path = std::string(root) + "/usr/sbin:" + root + "/sbin:" + root + "/bin";
    const char *old = getenv("PATH");
    std::string prefix = path + ":";
    if (old == nullptr || strncmp(old, prefix.c_str(), prefix.size()) != 0) {
        if (old != nullptr && old[0] != '\0')
            path += std::string(":") + old;
        setenv("PATH", path.c_str(), 1);
    }
}

// Callers may map a path in place (buf == path), so the copy must allow
// the source and the destination to overlap.
char *devroot_path(const char *path, char *buf, size_t size)
{
    size_t prefix = 0;
    if (!(root_len == 0 || path[0] != '/' || kernel_path(path) || already_mapped(path)))
        prefix = root_len;
    size_t len = strlen(path);
    if (prefix + len >= size)
        return nullptr;
    memmove(buf + prefix, path, len + 1);
    memcpy(buf, root, prefix);
    return buf;
}

char *devroot_command(const char *cmd, char *buf, size_t size)
{
    size_t o = 0;
    for (size_t i = 0; cmd[i] != '\0'; i++) {
        bool word_start = i == 0 || strchr(" \t<>|;&=\"'(`", cmd[i - 1]) != nullptr;
        if (cmd[i] == '/' && word_start && root_len > 0 && !kernel_path(cmd + i) &&
            !already_mapped(cmd + i)) {
            if (o + root_len >= size)
                return nullptr;
            memcpy(buf + o, root, root_len);
            o += root_len;
        }
        if (o + 1 >= size)
            return nullptr;
        buf[o++] = cmd[i];
    }
    if (o >= size)
        return nullptr;
    buf[o] = '\0';
    return buf;
}

namespace
{

// Calls `use` with `text` mapped by `map` into Size bytes. Text too long to
// map fails the way the system fails it, with `too_long` in errno, and gives
// `failed`.
template <size_t Size, typename R, typename Use>
R on_mapped(char *(*map)(const char *, char *, size_t), int too_long, const char *text, R failed,
            Use use)
{
    char buf[Size];
    if (map(text, buf, sizeof(buf)) == nullptr) {
        errno = too_long;
        return failed;
    }
    return use(buf);
}

template <typename R, typename Use> R on_mapped_path(const char *path, R failed, Use use)
{
    return on_mapped<1024>(devroot_path, ENAMETOOLONG, path, failed, use);
}

template <typename R, typename Use> R on_mapped_command(const char *cmd, R failed, Use use)
{
    return on_mapped<4096>(devroot_command, E2BIG, cmd, failed, use);
}

} // namespace

FILE *dev_fopen(const char *path, const char *mode)
{
    return on_mapped_path<FILE *>(path, nullptr, [mode](const char *p) { return fopen(p, mode); });
}

int dev_open(const char *path, int flags, int mode)
{
    return on_mapped_path(path, -1, [=](const char *p) { return open(p, flags, mode); });
}

int dev_access(const char *path, int how)
{
    return on_mapped_path(path, -1, [how](const char *p) { return access(p, how); });
}

int dev_remove(const char *path)
{
    return on_mapped_path(path, -1, [](const char *p) { return remove(p); });
}

int dev_rename(const char *from, const char *to)
{
    return on_mapped_path(from, -1, [to](const char *a) {
        return on_mapped_path(to, -1, [a](const char *b) { return rename(a, b); });
    });
}

int dev_truncate(const char *path, long length)
{
    return on_mapped_path(path, -1, [length](const char *p) { return truncate(p, length); });
}

int dev_system(const char *cmd)
{
    return on_mapped_command(cmd, -1, [](const char *c) { return system(c); });
}

FILE *dev_popen(const char *cmd, const char *mode)
{
    return on_mapped_command<FILE *>(cmd, nullptr,
                                     [mode](const char *c) { return popen(c, mode); });
}

void dev_openlog(const char *ident, int option, int facility)
{
    if (root_len == 0) {
        openlog(ident, option, facility);
        return;
    }
    std::lock_guard<std::mutex> g(log_mutex);
    // The ident may be the one already held (a re-open with the same
    // name), so the copy must allow overlap.
    size_t n = strnlen(ident, sizeof(log_ident) - 1);
    memmove(log_ident, ident, n);
    log_ident[n] = '\0';
    log_option = option;
    log_facility = facility;
    if (log_fd < 0)
        log_fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
}

void dev_syslog(int priority, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    if (root_len == 0) {
        vsyslog(priority, fmt, ap);
        va_end(ap);
        return;
    }

    char msg[1024];
    vsnprintf(msg, sizeof(msg), fmt, ap);
    va_end(ap);

    int pri = (priority & LOG_PRIMASK) |
              ((priority & LOG_FACMASK) ? (priority & LOG_FACMASK) : log_facility);
    time_t now = time(nullptr);
    struct tm tm;
    localtime_r(&now, &tm);
    char stamp[32];
    strftime(stamp, sizeof(stamp), "%b %e %H:%M:%S", &tm);

    char line[1280];
    int n;
    if (log_option & LOG_PID)
        n = snprintf(line, sizeof(line), "<%d>%s %s[%d]: %s", pri, stamp, log_ident, (int)getpid(),
                     msg);
    else
        n = snprintf(line, sizeof(line), "<%d>%s %s: %s", pri, stamp, log_ident, msg);
    if (n < 0)
        return;
    if ((size_t)n >= sizeof(line))
        n = sizeof(line) - 1;

    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    if (root_len + sizeof("/dev/log") > sizeof(addr.sun_path))
        return;
    memcpy(addr.sun_path, root, root_len);
    memcpy(addr.sun_path + root_len, "/dev/log", sizeof("/dev/log"));

    // No lock around the send: a datagram goes out whole, and a forked copy of
    // the agent must be able to log even if another thread was mid-send.
    if (log_fd < 0)
        dev_openlog(log_ident, log_option, log_facility);
    if (int fd = log_fd.load(); fd >= 0)
        sendto(fd, line, n, MSG_NOSIGNAL, (struct sockaddr *)&addr, sizeof(addr));
}
