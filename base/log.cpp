#include "log.h"

#include "devroot.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <fcntl.h>
#include <sys/stat.h>
#include <cstring>
#include <ctime>
#include <sys/sysinfo.h>
#include <sys/time.h>
#include <unistd.h>

namespace
{

constexpr int LOG_MAXSIZE = 262144;
constexpr int LOG_CUTSIZE = 270336;
constexpr int LOG_MAXFILE = LOG_GENERATIONS;

// The logs carry what the agent is told and sends (settings with the
// administrator password, bearer tokens, command documents): for the agent
// alone, including a file an older agent left open to others.
FILE *open_log_file(const char *path)
{
    int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (fd < 0)
        return nullptr;
    fchmod(fd, 0600);
    FILE *f = fdopen(fd, "a");
    if (f == nullptr) {
        int err = errno;
        close(fd);
        errno = err;
    }
    return f;
}

// Every handle is alike but for its path.
constexpr log_t log_handle(const char *path)
{
    return {nullptr, path, LOG_MAXSIZE, LOG_CUTSIZE, LOG_MAXFILE, 0, {}};
}

log_t orkad_handle = log_handle(LOG_MAIN_NAME);
log_t http_handle = log_handle("/rw/http");
log_t cmd_handle = log_handle("/rw/command");
log_t sys_handle = log_handle("/rw/syslog");
log_t dbg_handle = log_handle("/tmp/debug");
log_t broker_handle = log_handle("/rw/broker");
log_t rfscan_handle = log_handle("/rw/rfscan");
log_t redirect_handle = log_handle("/rw/redirect");
log_t prbd_handle = log_handle("/rw/prbd");
log_t of_handle = log_handle("/rw/of");

uint64_t line_index = 1;
std::mutex line_index_lock;

// The stream as a writer sees it before it takes the handle's lock, and as
// the holder of the lock reads and replaces it.
FILE *stream_of(log_t *log)
{
    return log->file.load(std::memory_order_relaxed);
}

void set_stream(log_t *log, FILE *file)
{
    log->file.store(file, std::memory_order_relaxed);
}

// Generation 0 is the current file, generation k >= 1 the k-th rotated one.
void generation_path(const log_t *log, int k, char *buf, size_t size)
{
    char dev[256];
    if (k == 0)
        snprintf(dev, sizeof(dev), "%s.log", log->name);
    else
        snprintf(dev, sizeof(dev), "%s%d.log", log->name, k);
    if (devroot_path(dev, buf, size) == nullptr)
        buf[0] = '\0';
}

} // namespace

log_t *orkad_log = &orkad_handle;
log_t *http_log = &http_handle;
log_t *cmd_log = &cmd_handle;
log_t *sys_log = &sys_handle;
log_t *dbg_log = &dbg_handle;
log_t *broker_log = &broker_handle;
log_t *rfscan_log = &rfscan_handle;
log_t *redirect_log = &redirect_handle;
log_t *prbd_log = &prbd_handle;
log_t *of_log = &of_handle;

log_t *logs[LOG_HANDLES] = {&orkad_handle, &http_handle,   &cmd_handle,    &sys_handle,
                            &dbg_handle,   &broker_handle, &rfscan_handle, &redirect_handle,
                            &prbd_handle,  &of_handle};

int nolog;
time_t (*log_clock)(time_t *now) = time;

void log_init(void)
{
    for (log_t *log : logs) {
        if (log->name == nullptr)
            continue;
        char path[1024];
        generation_path(log, 0, path, sizeof(path));
        set_stream(log, open_log_file(path));
        if (stream_of(log) == nullptr) {
            printf("Failed to open log file '%s'\n", log->name);
            continue;
        }
        log_fprint(log, "============================ %s started ============================\n",
                   log->name);
    }
}

void log_rotate(log_t *log)
{
    if (log->name == nullptr)
        return;
    if (FILE *old = stream_of(log); old != nullptr)
        fclose(old);
    set_stream(log, nullptr);

    char from[1024], to[1024];
    generation_path(log, log->maxfile, to, sizeof(to));
    remove(to);
    for (int i = log->maxfile; i >= 1; i--) {
        generation_path(log, i - 1, from, sizeof(from));
        generation_path(log, i, to, sizeof(to));
        rename(from, to);
    }
    generation_path(log, 0, to, sizeof(to));
    set_stream(log, open_log_file(to));
}

void log_fprint(log_t *log, const char *fmt, ...)
{
    if (log->name == nullptr || nolog || stream_of(log) == nullptr)
        return;

    std::lock_guard<std::mutex> hold(log->lock);
    // The stream may have been lost by a failed reopen while we waited.
    FILE *file = stream_of(log);
    if (file == nullptr)
        return;

    time_t now = log_clock(nullptr);
    struct tm tm;
    localtime_r(&now, &tm);

    unsigned long long index;
    {
        std::lock_guard<std::mutex> take(line_index_lock);
        index = line_index++;
    }

    int n = fprintf(file, "%llu %d.%02d.%02d %02d:%02d:%02d ", index, tm.tm_year + 1900,
                    tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
    if (n > 0)
        log->total += n;

    va_list ap;
    va_start(ap, fmt);
    n = vfprintf(file, fmt, ap);
    va_end(ap);
    if (n > 0)
        log->total += n;

    long pos = ftell(file);
    if (pos > log->cutsize) {
        // One huge message: keep the first cutsize bytes and mark the cut.
        fflush(file);
        if (ftruncate(fileno(file), log->cutsize) == 0) {
            fseek(file, 0, SEEK_END);
        }
        n = fprintf(file, "...\n");
        if (n > 0)
            log->total += n;
        log_rotate(log);
    } else if (pos > log->maxsize) {
        log_rotate(log);
    } else {
        fflush(file);
    }
}

void debug_print_with_time(int force, const char *fmt, ...)
{
    (void)force; // the trace is written whether or not anyone asked for it
    log_t *log = dbg_log;
    if (log->name == nullptr || nolog || stream_of(log) == nullptr)
        return;

    std::lock_guard<std::mutex> hold(log->lock);
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    FILE *file = stream_of(log);
    if (file != nullptr && ftell(file) > log->maxsize) {
        log_rotate(log);
        file = stream_of(log);
    }
    if (file == nullptr)
        return;
    // long long: a 32-bit long would wrap the seconds in 2038.
    fprintf(file, "%lld.%06ld ", (long long)tv.tv_sec, (long)tv.tv_usec);
    va_list ap;
    va_start(ap, fmt);
    vfprintf(file, fmt, ap);
    va_end(ap);
    fflush(file);
}

void log_debug(int sig)
{
    log_t *out = sig ? dbg_log : orkad_log;
    struct sysinfo si;
    long uptime = sysinfo(&si) == 0 ? si.uptime : 0;
    log_fprint(out, "%s: uptime %d seconds\n", __func__, (int)uptime);
    for (log_t *log : logs) {
        unsigned long long total;
        {
            // Each handle counts under its own lock.
            std::lock_guard<std::mutex> hold(log->lock);
            total = log->total;
        }
        log_fprint(out, "%s: %s %llu bytes\n", __func__, log->name, total);
    }
}

void log_lock_all(void)
{
    // The order every writer takes them in: a handle, then the line index.
    for (log_t *log : logs)
        log->lock.lock();
    line_index_lock.lock();
}

void log_unlock_all(void)
{
    line_index_lock.unlock();
    for (int i = LOG_HANDLES - 1; i >= 0; i--)
        logs[i]->lock.unlock();
}

long log_position(log_t *log, uint64_t *total)
{
    std::lock_guard<std::mutex> hold(log->lock);
    FILE *file = stream_of(log);
    long pos = file != nullptr ? ftell(file) : 0;
    *total = log->total;
    return pos < 0 ? 0 : pos;
}

uint64_t log_line_index(void)
{
    std::lock_guard<std::mutex> hold(line_index_lock);
    return line_index;
}
