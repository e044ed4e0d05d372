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

#define LOG_HANDLE(var, path)                                                                      \
    log_t var = {nullptr, path, LOG_MAXSIZE, LOG_CUTSIZE, LOG_MAXFILE, 0, PTHREAD_MUTEX_INITIALIZER}

LOG_HANDLE(orkad_handle, LOG_MAIN_NAME);
LOG_HANDLE(http_handle, "/rw/http");
LOG_HANDLE(cmd_handle, "/rw/command");
LOG_HANDLE(sys_handle, "/rw/syslog");
LOG_HANDLE(dbg_handle, "/tmp/debug");
LOG_HANDLE(broker_handle, "/rw/broker");
LOG_HANDLE(rfscan_handle, "/rw/rfscan");
LOG_HANDLE(redirect_handle, "/rw/redirect");
LOG_HANDLE(prbd_handle, "/rw/prbd");
LOG_HANDLE(of_handle, "/rw/of");

uint64_t line_index = 1;
pthread_mutex_t line_index_lock = PTHREAD_MUTEX_INITIALIZER;

// Writers look at the stream before they take the handle's lock (a silent
// handle costs nothing), while a rotation under the lock replaces it.
FILE *stream_of(log_t *log)
{
    return std::atomic_ref<FILE *>(log->file).load(std::memory_order_relaxed);
}

void set_stream(log_t *log, FILE *file)
{
    std::atomic_ref<FILE *>(log->file).store(file, std::memory_order_relaxed);
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
        if (log->file == nullptr) {
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
    if (log->file != nullptr)
        fclose(log->file);
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

    pthread_mutex_lock(&log->lock);
    // The stream may have been lost by a failed reopen while we waited.
    if (log->file == nullptr) {
        pthread_mutex_unlock(&log->lock);
        return;
    }

    time_t now = log_clock(nullptr);
    struct tm tm;
    localtime_r(&now, &tm);

    pthread_mutex_lock(&line_index_lock);
    unsigned long long index = line_index++;
    pthread_mutex_unlock(&line_index_lock);

    int n = fprintf(log->file, "%llu %d.%02d.%02d %02d:%02d:%02d ", index, tm.tm_year + 1900,
                    tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
    if (n > 0)
        log->total += n;

    va_list ap;
    va_start(ap, fmt);
    n = vfprintf(log->file, fmt, ap);
    va_end(ap);
    if (n > 0)
        log->total += n;

    long pos = ftell(log->file);
    if (pos > log->cutsize) {
        // One huge message: keep the first cutsize bytes and mark the cut.
        fflush(log->file);
        if (ftruncate(fileno(log->file), log->cutsize) == 0) {
            fseek(log->file, 0, SEEK_END);
        }
        n = fprintf(log->file, "...\n");
        if (n > 0)
            log->total += n;
        log_rotate(log);
    } else if (pos > log->maxsize) {
        log_rotate(log);
    } else {
        fflush(log->file);
    }
    pthread_mutex_unlock(&log->lock);
}

void debug_print_with_time(int force, const char *fmt, ...)
{
    (void)force; // the trace is written whether or not anyone asked for it
    log_t *log = dbg_log;
    if (log->name == nullptr || nolog || stream_of(log) == nullptr)
        return;

    pthread_mutex_lock(&log->lock);
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    if (log->file != nullptr && ftell(log->file) > log->maxsize)
        log_rotate(log);
    if (log->file != nullptr) {
        // long long: a 32-bit long would wrap the seconds in 2038.
        fprintf(log->file, "%lld.%06ld ", (long long)tv.tv_sec, (long)tv.tv_usec);
        va_list ap;
        va_start(ap, fmt);
        vfprintf(log->file, fmt, ap);
        va_end(ap);
        fflush(log->file);
    }
    pthread_mutex_unlock(&log->lock);
}

void log_debug(int sig)
{
    log_t *out = sig ? dbg_log : orkad_log;
    struct sysinfo si;
    long uptime = sysinfo(&si) == 0 ? si.uptime : 0;
    log_fprint(out, "%s: uptime %d seconds\n", "log_debug", (int)uptime);
    for (log_t *log : logs) {
        // Each handle counts under its own lock.
        pthread_mutex_lock(&log->lock);
        unsigned long long total = log->total;
        pthread_mutex_unlock(&log->lock);
        log_fprint(out, "%s: %s %llu bytes\n", "log_debug", log->name, total);
    }
}

void log_lock_all(void)
{
    // The order every writer takes them in: a handle, then the line index.
    for (log_t *log : logs)
        pthread_mutex_lock(&log->lock);
    pthread_mutex_lock(&line_index_lock);
}

void log_unlock_all(void)
{
    pthread_mutex_unlock(&line_index_lock);
    for (int i = LOG_HANDLES - 1; i >= 0; i--)
        pthread_mutex_unlock(&logs[i]->lock);
}

long log_position(log_t *log, uint64_t *total)
{
    pthread_mutex_lock(&log->lock);
    long pos = log->file != nullptr ? ftell(log->file) : 0;
    *total = log->total;
    pthread_mutex_unlock(&log->lock);
    return pos < 0 ? 0 : pos;
}

uint64_t log_line_index(void)
{
    pthread_mutex_lock(&line_index_lock);
    uint64_t v = line_index;
    pthread_mutex_unlock(&line_index_lock);
    return v;
}
