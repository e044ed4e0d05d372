// Rotating, size-limited log files with one line index shared by all of them.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <mutex>

typedef struct log {
    // Open stream, appending; null while the handle is silent. Writers look
    // at it before they take the lock (a silent handle costs nothing), while
    // a rotation under the lock replaces it.
    std::atomic<FILE *> file;
    const char *name; // device path without ".log"; null: handle not in use
    int maxsize;      // rotate once the file grows past this
    int cutsize;      // cut back to this, mark with "...", then rotate
    int maxfile;      // rotated generations kept beside the current file
    uint64_t total;   // bytes written through this handle since start
    std::mutex lock;
} log_t;

constexpr int LOG_HANDLES = 10;

// The main log's device path without ".log", and how many rotated
// generations every log keeps beside its current file: generation k >= 1 of
// the main log is "/rw/orkad<k>.log". orkadctl reads and follows the main log
// by these.
constexpr char LOG_MAIN_NAME[] = "/rw/orkad";
constexpr int LOG_GENERATIONS = 4;

extern log_t *orkad_log;
extern log_t *http_log;
extern log_t *cmd_log;
extern log_t *sys_log;
extern log_t *dbg_log;
extern log_t *broker_log;
extern log_t *rfscan_log;
extern log_t *redirect_log;
extern log_t *prbd_log;
extern log_t *of_log;
extern log_t *logs[LOG_HANDLES];

extern int nolog;

// The wall clock that stamps each line; tests put it anywhere.
extern time_t (*log_clock)(time_t *now);

// What a log line shows in place of a secret (the switch's administrator
// password): the log files go into every diagnostics archive and may be read
// by anyone who looks after the switch.
constexpr char LOG_SECRET_MARKER[] = "********";

void log_init(void);
void log_fprint(log_t *log, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
void log_rotate(log_t *log);
void log_debug(int sig);
void debug_print_with_time(int force, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

// Every log lock, taken around a fork so that the copy finds none of them
// held by a thread it does not have.
void log_lock_all(void);
void log_unlock_all(void);

// Where the next byte of log goes in its current file (0 while the handle is
// silent), and *total the bytes written through it so far; read under the
// handle's lock, so a line is either wholly before or wholly after.
long log_position(log_t *log, uint64_t *total);

// The next line index, without taking it (for tests and dumps).
uint64_t log_line_index(void);
