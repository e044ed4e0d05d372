#include "stats.h"
#include "raii.h"

#include "auth.h"
#include "command.h"
#include "heartbeat.h"
#include "http.h"
#include "log.h"
#include "signals.h"
#include "stats_ifs.h"
#include "work.h"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/syscall.h>
#include <unistd.h>

std::mutex stats_lock;
std::mutex collector_lock;
// Never destroyed: the collector and the sender may still wait on them when
// the process exits, and destroying a condition variable that has waiters
// blocks for good.
std::condition_variable &collector_ready = *new std::condition_variable;
std::condition_variable &stats_ready = *new std::condition_variable;
stream_record stats_stream("stats_sender", stats_send);
timer_t stats_timer;
int (*stats_clock_gettime)(clockid_t clock, struct timespec *ts) = clock_gettime;
time_t (*stats_time)(time_t *now) = time;
int (*stats_poster)(const char *slink, const char *payload, int length) = stats_post;

namespace
{

constexpr size_t STATS_TIME_SIZE = 32;

struct itimerspec itimer;
bool timer_created = false;
// Only the tick handler writes it, on the signal thread; others read it.
std::atomic<unsigned int> ticks{0};
bool no_clock = false;
// The collector thread's number, -1 before the first command; shown by the
// debug dump on the signal thread.
std::atomic<int> collector{-1};
int hb_provider = -1;
// Statistics documents handed to stats_post, for the debug dump.
std::atomic<unsigned long> documents{0};

// What the tick hands the two threads: a sample is due, a period is due.
// Set by the tick handler and cleared by the thread that acts on it, both
// under tick_lock, which guards nothing else: the signal thread never waits
// behind a sample, a period end or a heartbeat. A flag rather than a count,
// so ticks that come due while a thread is still busy (a post hanging on a
// slow controller) make it act once more as soon as it is free, not once per
// missed tick: the next document then covers the whole time since the last
// one.
std::mutex tick_lock;
bool sample_due = false;
bool period_due = false;

// Sleeps until the tick sets *due, then clears it. Wake-ups with nothing
// due (spurious ones, or a broadcast) go back to sleep.
void wait_due(std::condition_variable &ready, bool &due)
{
    std::unique_lock<std::mutex> hold(tick_lock);
    ready.wait(hold, [&due] { return due; });
    due = false;
}

// Starts what the first valid command starts; the threads and the provider
// only once. Returns 0, or -1 with the message set.
int stats_start(cmd_envelope &cmd)
{
    // Before the collector starts: it runs while the stream is on.
    stats_stream.turn_on(cmd.seconds);
    if (collector < 0)
        collector = thread_start("stats_collector", stats_collector, nullptr, nullptr, nullptr);
    else
        log_fprint(orkad_log, "%s: stats collector is already running, tid %d\n", __func__,
                   collector.load());
    if (collector < 0) {
        snprintf(cmd.message, sizeof(cmd.message), "failed to start the stats collector");
        return -1;
    }
    bool running;
    int sender = stats_stream.start(cmd.service_href, &running);
    // The running sender keeps posting where the first command said.
    if (running)
        log_fprint(orkad_log, "%s: stats sender is already running, tid %d\n", __func__, sender);
    if (sender < 0) {
        snprintf(cmd.message, sizeof(cmd.message), "failed to start the stats sender");
        return -1;
    }
    if (hb_provider < 0) {
        if (heartbeat_register_provider("status", status_hb_provider) == 0)
            hb_provider = 0;
        else
            log_fprint(orkad_log, "%s: failed to register status heartbeat provider", __func__);
    } else {
        log_fprint(orkad_log, "%s: status heartbeat provider is already registered\n", __func__);
    }
    itimer.it_value.tv_sec = 1;
    itimer.it_value.tv_nsec = 0;
    itimer.it_interval.tv_sec = 1;
    itimer.it_interval.tv_nsec = 0;
    if (timer_created && timer_settime(stats_timer, 0, &itimer, nullptr) != 0)
        log_fprint(orkad_log, "%s: error %d arming the statistics timer\n", __func__, errno);
    return 0;
}

// The document of one period, or null when this period is to be dropped.
// *fatal is set when not even the object could be made.
json_t *stats_document(bool *fatal)
{
    json_ptr doc(json_object());
    if (!doc) {
        log_fprint(orkad_log, "%s: Can't allocate JSON object\n", "stats_send");
        *fatal = true;
        return nullptr;
    }
    char stamp[STATS_TIME_SIZE] = "";
    time_t now = stats_time(nullptr);
    struct tm tm;
    if (localtime_r(&now, &tm) == nullptr || strftime(stamp, sizeof(stamp), "%FT%T%z", &tm) == 0 ||
        json_object_set_new(doc.get(), "statisticsTime", json_string(stamp)) != 0) {
        log_fprint(orkad_log, "%s: Error adding timestamp <%s>\n", "stats_send", stamp);
        return nullptr;
    }
    int err;
    {
        std::lock_guard<std::mutex> rows(stats_lock);
        {
            std::lock_guard<std::mutex> table(collector_lock);
            calc_stats_for_interfaces();
        }
        err = stats_interfaces(doc.get());
    }
    if (err != 0) {
        log_fprint(orkad_log, "%s: JSON, error adding interface stats\n", "stats_send");
        return nullptr;
    }
    return doc.release();
}

} // namespace

void stats_init(void)
{
    int err = init_stats_ifs();
    if (err != 0)
        log_fprint(orkad_log, "%s: error %d initializing interface statistics\n", __func__, err);
    command_register("set.statistics", cmd_set_stats);
    signals_register(SIGALRM, do_stats, "do_stats");
    // Default notification: every expiry raises SIGALRM, which only the
    // signal thread takes.
    if (timer_create(CLOCK_REALTIME, nullptr, &stats_timer) == 0)
        timer_created = true;
    else
        log_fprint(orkad_log, "%s: error %d creating the statistics timer\n", __func__, errno);
}

void cmd_set_stats(char *command, json_t *js_command, char *resp_href)
{
    log_fprint(orkad_log, "set.statistics: command (%s) received\n", command);
    cmd_envelope cmd("set.statistics", command, js_command, resp_href);
    // The controller has always been told "logging" here.
    if (!cmd.open_service(STATS_INTERVAL_MIN, STATS_INTERVAL_MAX, "logging interval out of range"))
        return;
    cmd.answer(stats_start(cmd));
}

void do_stats(int)
{
    unsigned int tick = ticks.load(std::memory_order_relaxed) + 1;
    ticks.store(tick, std::memory_order_relaxed);
    if (!stats_stream.enabled)
        return;
    bool sample = tick % STATS_SAMPLE_TICKS == 0;
    int interval = stats_stream.interval;
    bool period = interval > 0 && tick % (unsigned int)interval == 0;
    if (!sample && !period)
        return;
    std::lock_guard<std::mutex> hold(tick_lock);
    if (sample) {
        sample_due = true;
        collector_ready.notify_one();
    }
    if (period) {
        period_due = true;
        stats_ready.notify_one();
    }
}

void stats_collector(void *, void *, void *)
{
    log_fprint(orkad_log, "%s: Started\n", __func__);
    while (stats_stream.enabled) {
        wait_due(collector_ready, sample_due);
        std::lock_guard<std::mutex> hold(collector_lock);
        collect_interface_stats();
    }
}

void stats_send(stream_record &stream)
{
    const std::string slink = stream.href();
    log_fprint(orkad_log, "%s: Started '%s','%d'\n", __func__, slink.c_str(),
               stream.interval.load());
    log_fprint(orkad_log, "%s: my TID: %d\n", __func__, (int)syscall(SYS_gettid));
    while (stream.enabled) {
        wait_due(stats_ready, period_due);

        bool fatal = false;
        json_ptr doc(stats_document(&fatal));
        if (fatal)
            break;
        if (!doc)
            continue;
        malloc_ptr<char> payload(json_dumps(doc.get(), JSON_COMPACT | JSON_PRESERVE_ORDER));
        if (!payload) {
            log_fprint(orkad_log, "%s: json_dumps() has failed\n", __func__);
            continue;
        }
        documents++;
        // A period that did not get through is not sent again.
        stats_poster(slink.c_str(), payload.get(), (int)strlen(payload.get()));
    }
    stream.id = -1;
}

int stats_post(const char *slink, const char *payload, int length)
{
    // Without a controller there is nobody to count the period for.
    return controller_post(controller_call::statistics, slink, payload, length, 0);
}

void status_hb_provider(json_t *js_hb, bool last_failed)
{
    std::lock_guard<std::mutex> hold(stats_lock);
    stats_hb_if(js_hb, last_failed);
}

unsigned long st_time(unsigned long fractions)
{
    if (!no_clock) {
        struct timespec ts;
        if (stats_clock_gettime(CLOCK_MONOTONIC, &ts) == 0) {
            unsigned long long sub =
                fractions == 0 || fractions > 1000000000UL
                    ? 0
                    : (unsigned long long)ts.tv_nsec / (1000000000ULL / fractions);
            return (uint32_t)((unsigned long long)ts.tv_sec * fractions + sub);
        }
        no_clock = true;
    }
    return (unsigned long)stats_time(nullptr) * fractions;
}

int get_stats_interval(void)
{
    return stats_stream.interval;
}

int stats_parse_buf(char *buf, stats_parser_t *ctrl)
{
    if (buf == nullptr || ctrl == nullptr) {
        log_fprint(orkad_log, "%s: Null buffer or control array!\n", __func__);
        return 0;
    }
    int matches = 0;
    char *line = buf;
    while (line != nullptr && *line != '\0') {
        char *end = strchr(line, '\n');
        if (end != nullptr)
            *end = '\0';
        char *next = end != nullptr ? end + 1 : nullptr;
        char *eq = strchr(line, '=');
        if (eq == nullptr) {
            line = next;
            continue;
        }
        *eq = '\0';
        char *value = eq + 1;
        stats_parser_t *e = ctrl;
        while (e->match != nullptr && strcmp(e->match, line) != 0)
            e++;
        if (e->func != nullptr) {
            if (e->func(e, value) != 0)
                log_fprint(orkad_log, "%s: match func failed for <%s> val <%s>\n", __func__, line,
                           value);
            else
                matches++;
        } else if (e->match != nullptr) {
            matches++;
        }
        line = next;
    }
    return matches;
}

int stats_parse_line(char *buf, stats_parser_t *ctrl)
{
    if (buf == nullptr || ctrl == nullptr) {
        log_fprint(orkad_log, "%s: Null line buffer or control array!\n", __func__);
        return 0;
    }
    int count = 0;
    char *rest = buf;
    for (stats_parser_t *e = ctrl; e->match != nullptr; e++) {
        char *label = strstr(rest, e->match);
        if (label != nullptr)
            *label = '\0';
        if (e->func != nullptr && e->func(e, rest) != 0)
            break;
        count++;
        if (label == nullptr)
            break;
        rest = label + strlen(e->match);
    }
    return count;
}

unsigned int stats_ticks(void)
{
    return ticks;
}

unsigned long stats_periods(void)
{
    return documents;
}

void stats_debug(int)
{
    int rows;
    {
        std::lock_guard<std::mutex> hold(stats_lock);
        rows = num_stats;
    }
    log_fprint(dbg_log,
               "%s: enabled = %d, interval = %d, ticks = %u, collector = %d, sender = %d, "
               "rows = %d, documents = %lu\n",
               __func__, stats_stream.enabled ? 1 : 0, stats_stream.interval.load(), ticks.load(),
               collector.load(), stats_stream.id.load(), rows, documents.load());
}
