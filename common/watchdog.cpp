#include "watchdog.h"

#include "db.h"
#include "devroot.h"
#include "http.h"

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

namespace
{

// Written by the child, read by the supervisor: counters only, so neither
// side ever waits for the other and a child that dies in the middle of a
// store leaves nothing half-done behind.
struct board {
    std::atomic<unsigned int> beats;    // signs of life of the heartbeat loop
    std::atomic<int> interval;          // the seconds it sleeps next
    std::atomic<unsigned int> started;  // commands started on the runner
    std::atomic<unsigned int> finished; // commands ended
};
static_assert(std::atomic<unsigned int>::is_always_lock_free &&
                  std::atomic<int>::is_always_lock_free,
              "the board is shared between processes: its atomics must not need a lock");

// A pulse is at most two posts (the second after a refused token), each
// after a token; a token waits for every other thread that may be fetching
// one first (the command runner, the status, statistics and syslog senders),
// each fetch up to the HTTP time-out.
constexpr int POST_ATTEMPTS = 2;
constexpr int OTHER_TOKEN_USERS = 4;
// What a transfer may run over its time-out (name lookup, TLS teardown).
constexpr int REQUEST_OVERRUN = 2;
// The providers, the settings read and the status word given to the switch.
constexpr int PULSE_LOCAL_WORK = 16;
// Settings statements of one pulse (the controller's address, read again for
// each of the two tokens, and the status word), each of which may wait out
// another program's lock on the settings file.
constexpr int PULSE_SETTINGS_STATEMENTS = 4;
// The longest command: firmware downloads and diagnostics uploads have no
// time-out of their own. Three attempts at a 100 MB image over a 1 Mbit/s
// link take 40 minutes; this is three times that.
constexpr int LONGEST_COMMAND = 2 * 60 * 60;
constexpr int INTERVALS = 3;
// Between SIGABRT and SIGKILL: time for the core to be written.
constexpr long long ABORT_GRACE_MS = 5000;
// How often the supervisor looks at the board.
constexpr long long LOOK_MS = 1000;

board *shared;

// Test knobs, read once by the supervisor; every child inherits them.
int longest_pulse_setting;
int longest_command_setting;
unsigned int hang_heartbeat_at; // the loop stops for good at this sign of life
bool hang_commands;             // the runner stops for good at its first command

watchdog_watch watch;
long long kill_at; // SIGKILL due; 0 none pending, -1 sent

// systemd
int notify_fd = -1;
char notify_address[sizeof(((struct sockaddr_un *)nullptr)->sun_path) + 1];
long long feed_every_ms; // 0: no watchdog to feed
long long next_feed_ms;
bool ready_sent;

long long now_ms(void)
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (long long)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

int env_seconds(const char *name)
{
    const char *v = getenv(name);
    if (v == nullptr || *v == '\0')
        return 0;
    long n = strtol(v, nullptr, 10);
    return n > 0 && n < 1000000 ? (int)n : 0;
}

[[noreturn]] void stand_still(void)
{
    for (;;)
        pause();
}

void setup_notify(void)
{
    const char *address = getenv("NOTIFY_SOCKET");
    const char *usec = getenv("WATCHDOG_USEC");
    const char *for_pid = getenv("WATCHDOG_PID");
    if (usec != nullptr && (for_pid == nullptr || strtol(for_pid, nullptr, 10) == getpid())) {
        unsigned long long us = strtoull(usec, nullptr, 10);
        if (us > 0)
            feed_every_ms = (long long)(us / 2000) > 0 ? (long long)(us / 2000) : 1;
    }
    if (address != nullptr && (address[0] == '/' || address[0] == '@') &&
        strlen(address) < sizeof(notify_address) - 1) {
        snprintf(notify_address, sizeof(notify_address), "%s", address);
        notify_fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    }
    if (notify_fd < 0)
        feed_every_ms = 0;
    // Only the supervisor speaks to systemd; the agent's programs (openvpn
    // among them) would otherwise take the socket for theirs.
    unsetenv("NOTIFY_SOCKET");
    unsetenv("WATCHDOG_USEC");
    unsetenv("WATCHDOG_PID");
}

void feed(long long now)
{
    if (feed_every_ms == 0 || now < next_feed_ms)
        return;
    watchdog_notify(notify_fd, notify_address, "WATCHDOG=1");
    next_feed_ms = now + feed_every_ms;
}

void look(pid_t child, long long now)
{
    if (shared == nullptr || kill_at != 0)
        return;
    int longest_pulse =
        longest_pulse_setting > 0 ? longest_pulse_setting : watchdog_longest_pulse();
    int longest_command =
        longest_command_setting > 0 ? longest_command_setting : watchdog_longest_command();
    // Finished before started: a command ending between the two loads then
    // shows as the next one starting, never as one that never ends.
    unsigned int finished = shared->finished.load(std::memory_order_acquire);
    unsigned int started = shared->started.load(std::memory_order_acquire);
    int silent = 0;
    watchdog_verdict v = watchdog_judge(&watch, shared->beats.load(std::memory_order_acquire),
                                        shared->interval.load(std::memory_order_relaxed), started,
                                        finished, now, longest_pulse, longest_command, &silent);
    if (v == WATCHDOG_HEALTHY)
        return;
    if (v == WATCHDOG_HEARTBEAT_HUNG)
        dev_syslog(LOG_CRIT, " ****  Program hung: no heartbeat for %d seconds, aborting it",
                   silent);
    else
        dev_syslog(LOG_CRIT, " ****  Program hung: command running for %d seconds, aborting it",
                   silent);
    // SIGABRT leaves the core a crash leaves; a stopped child holds it
    // pending for ever, so SIGKILL follows when it has not ended.
    kill(child, SIGABRT);
    kill_at = now + ABORT_GRACE_MS;
}

} // namespace

void watchdog_heartbeat(int interval)
{
    if (shared == nullptr)
        return;
    shared->interval.store(interval, std::memory_order_relaxed);
    unsigned int n = shared->beats.fetch_add(1, std::memory_order_release) + 1;
    if (hang_heartbeat_at != 0 && n >= hang_heartbeat_at)
        stand_still();
}

void watchdog_command_started(void)
{
    if (shared == nullptr)
        return;
    shared->started.fetch_add(1, std::memory_order_release);
    if (hang_commands)
        stand_still();
}

void watchdog_command_finished(void)
{
    if (shared != nullptr)
        shared->finished.fetch_add(1, std::memory_order_release);
}

int watchdog_longest_pulse(void)
{
    int request = HTTP_TIMEOUT_SECONDS + REQUEST_OVERRUN;
    int token = (OTHER_TOKEN_USERS + 1) * request;
    return POST_ATTEMPTS * (token + request) + PULSE_LOCAL_WORK +
           PULSE_SETTINGS_STATEMENTS * DB_BUSY_TIMEOUT_MS / 1000;
}

int watchdog_longest_command(void)
{
    return LONGEST_COMMAND;
}

int watchdog_heartbeat_bound(int interval, int longest_pulse)
{
    return INTERVALS * interval > longest_pulse ? INTERVALS * interval : longest_pulse;
}

watchdog_verdict watchdog_judge(watchdog_watch *w, unsigned int beats, int interval,
                                unsigned int started, unsigned int finished, long long now_ms,
                                int longest_pulse, int longest_command, int *silent_s)
{
    if (beats != w->beats) {
        w->beats = beats;
        w->beat_seen_ms = now_ms;
    }
    if (started != w->started) {
        w->started = started;
        w->command_seen_ms = now_ms;
    }
    // Until its first sign of life the loop has not started: the child is
    // still starting up.
    if (beats != 0) {
        long long silent = now_ms - w->beat_seen_ms;
        if (silent >= (long long)watchdog_heartbeat_bound(interval, longest_pulse) * 1000) {
            *silent_s = (int)(silent / 1000);
            return WATCHDOG_HEARTBEAT_HUNG;
        }
    }
    if (started != finished) {
        long long running = now_ms - w->command_seen_ms;
        if (running >= (long long)longest_command * 1000) {
            *silent_s = (int)(running / 1000);
            return WATCHDOG_COMMAND_HUNG;
        }
    }
    return WATCHDOG_HEALTHY;
}

int watchdog_notify(int fd, const char *address, const char *message)
{
    struct sockaddr_un sa;
    memset(&sa, 0, sizeof(sa));
    sa.sun_family = AF_UNIX;
    size_t n = strlen(address);
    if (fd < 0 || n == 0 || n >= sizeof(sa.sun_path))
        return -1;
    memcpy(sa.sun_path, address, n);
    socklen_t len = (socklen_t)(offsetof(struct sockaddr_un, sun_path) + n);
    if (address[0] == '@')
        sa.sun_path[0] = '\0'; // abstract: the name is the bytes after the NUL
    else
        len++; // a path carries its terminator
    ssize_t sent;
    do
        sent = sendto(fd, message, strlen(message), MSG_NOSIGNAL, (struct sockaddr *)&sa, len);
    while (sent < 0 && errno == EINTR);
    return sent == (ssize_t)strlen(message) ? 0 : -1;
}

void watchdog_init(void)
{
    if (shared != nullptr)
        return;
    void *p =
        mmap(nullptr, sizeof(board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) {
        // The agent still runs and is still restarted when it ends.
        dev_syslog(LOG_ERR, "%s: cannot map the watchdog board (%s)", __func__, strerror(errno));
    } else {
        shared = new (p) board();
    }
    longest_pulse_setting = env_seconds("ORKAD_TEST_LONGEST_PULSE");
    longest_command_setting = env_seconds("ORKAD_TEST_LONGEST_COMMAND");
    hang_heartbeat_at = (unsigned int)env_seconds("ORKAD_TEST_HANG_HEARTBEAT");
    hang_commands = env_seconds("ORKAD_TEST_HANG_COMMAND") != 0;
    setup_notify();
}

void watchdog_reset(void)
{
    if (shared != nullptr) {
        shared->beats.store(0, std::memory_order_relaxed);
        shared->interval.store(0, std::memory_order_relaxed);
        shared->started.store(0, std::memory_order_relaxed);
        shared->finished.store(0, std::memory_order_relaxed);
    }
    long long now = now_ms();
    watch = {0, now, 0, now};
    kill_at = 0;
}

void watchdog_child(void)
{
    if (notify_fd >= 0)
        close(notify_fd);
    notify_fd = -1;
    feed_every_ms = 0;
}

void watchdog_ready(void)
{
    if (ready_sent || notify_fd < 0)
        return;
    watchdog_notify(notify_fd, notify_address, "READY=1");
    ready_sent = true;
}

pid_t watchdog_wait(pid_t child, int *status)
{
    sigset_t chld;
    sigemptyset(&chld);
    sigaddset(&chld, SIGCHLD);
    for (;;) {
        pid_t pid = waitpid(-1, status, WNOHANG);
        if (pid != 0)
            return pid;
        long long now = now_ms();
        feed(now);
        look(child, now);
        if (kill_at > 0 && now >= kill_at) {
            kill(child, SIGKILL);
            kill_at = -1;
        }
        // Sleep until the child ends, the next look or whatever is due first.
        long long nap = LOOK_MS;
        if (feed_every_ms > 0 && next_feed_ms - now < nap)
            nap = next_feed_ms - now;
        if (kill_at > 0 && kill_at - now < nap)
            nap = kill_at - now;
        if (nap < 1)
            nap = 1;
        struct timespec ts = {(time_t)(nap / 1000), (long)(nap % 1000) * 1000000};
        sigtimedwait(&chld, nullptr, &ts);
    }
}
