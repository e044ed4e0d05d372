// The interface statistics stream: "set.statistics", the one-second tick,
// the collector and sender threads, the heartbeat provider for interface
// changes, the agent's millisecond clock and two small key/value parsers.
#pragma once

#include "stream.h"

#include <condition_variable>
#include <ctime>
#include <jansson.h>
#include <mutex>

constexpr int STATS_INTERVAL_MIN = 15;
constexpr int STATS_INTERVAL_MAX = 300;
// Samples are taken every this many ticks.
constexpr unsigned int STATS_SAMPLE_TICKS = 5;

struct _stats_parser;
typedef int (*stats_parser_func_t)(struct _stats_parser *entry, char *value);

// One entry of a parser control array; the array ends with an entry whose
// match is null (its func, when set, takes the keys nothing else matched).
typedef struct _stats_parser {
    int flags;
    const char *match;
    stats_parser_func_t func;
    void *param1;
    void *param2;
} stats_parser_t;

// stats_lock guards the period's rows and the heartbeat provider,
// collector_lock the sampling table; where both are taken, stats_lock first.
extern std::mutex stats_lock;
extern std::mutex collector_lock;
// Signalled by the tick when a sample (every 5 ticks) or a period (every
// interval) is due. The threads wait on them under a lock of the tick's own
// and only for a tick that is due, so a wake-up with nothing due is slept
// through and a tick that comes while a thread is busy is not lost.
extern std::condition_variable &collector_ready;
extern std::condition_variable &stats_ready;
// The stream "set.statistics" turns on: its switch and interval, read by the
// tick handler and the statistics threads on every pass, and its
// "stats_sender" thread.
extern stream_record stats_stream;
extern timer_t stats_timer;

void stats_init(void);
void cmd_set_stats(char *command, json_t *js_command, char *resp_href);
void do_stats(int sig);
void stats_collector(void *p1, void *p2, void *p3);
void stats_send(stream_record &stream);
// The last post's result as http_post gives it; 0 when there is no
// controller.
int stats_post(const char *slink, const char *payload, int length);
void status_hb_provider(json_t *js_hb, bool last_failed);
unsigned long st_time(unsigned long fractions);
int get_stats_interval(void);
// The lines of buf taken by an entry of ctrl; 0 for a null argument.
int stats_parse_buf(char *buf, stats_parser_t *ctrl);
// The entries of ctrl that took their part of the line; 0 for a null
// argument.
int stats_parse_line(char *buf, stats_parser_t *ctrl);
// Ticks, threads, interval and table use to the debug log.
void stats_debug(int sig);

// Seconds counted by the tick handler since the timer was armed.
unsigned int stats_ticks(void);
// Statistics documents made and handed to stats_post so far.
unsigned long stats_periods(void);
// How the sender posts a document: stats_post unless a test stands in.
extern int (*stats_poster)(const char *slink, const char *payload, int length);
// Where the clock is read; tests point it at a failing one.
extern int (*stats_clock_gettime)(clockid_t clock, struct timespec *ts);
// The wall clock of "statisticsTime" and of st_time without a monotonic clock.
extern time_t (*stats_time)(time_t *now);
