#include "logging.h"

#include "auth.h"
#include "command.h"
#include "http.h"
#include "listener.h"
#include "log.h"
#include "platform_utils.h"
#include "raii.h"
#include "signals.h"
#include "utils.h"
#include "work.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <unistd.h>

stream_record logging_stream("logging_send", logging_send);
int logging_priority = 3;
unsigned int (*logging_sleep)(unsigned int seconds) = sleep;

namespace
{

constexpr int MIN_INTERVAL = 1;
constexpr int MAX_INTERVAL = 86400;

std::mutex logbuf_lock;
struct _logbuf *logbuf;
int overflow;
// Counted outside the lock, and read by the sender without it.
std::atomic<int> oversize{0};
// Lines of batches the controller refused for good; counted by the sender.
std::atomic<int> refused{0};
// Lines taken and not yet delivered or given up: added by the receiver, taken
// off by the sender a batch at a time.
std::atomic<int> waiting{0};
// Made by logging_init, after the local listeners are up: an operator's
// status request may count it from the listener thread before it exists.
std::atomic<queue_t *> ready_logs_queue{nullptr};

int ready_count(void)
{
    queue_t *q = ready_logs_queue.load(std::memory_order_acquire);
    return q != nullptr ? queue_count(q) : 0;
}

// Caller holds logbuf_lock.
void retire_logbuf(void)
{
    queue_add_tail(ready_logs_queue, &logbuf->link);
    logbuf = nullptr;
}

// {"log":[line,line,...]}: every line is one event the receiver built as
// JSON; the batch is built as JSON around them. Null when it cannot be.
malloc_ptr<char> build_body(const struct _logbuf *b)
{
    json_ptr lines(json_array());
    json_ptr doc(json_object());
    if (!lines || !doc || json_object_set(doc.get(), "log", lines.get()) != 0)
        return nullptr;
    int pos = 0;
    while (pos + 4 <= b->length) {
        int len;
        memcpy(&len, b->buffer + pos, sizeof(len));
        pos += 4;
        if (len < 0 || pos + len > b->length)
            break;
        json_error_t err;
        json_t *line = json_loadb(b->buffer + pos, (size_t)len, JSON_DECODE_ANY, &err);
        if (line == nullptr)
            log_fprint(orkad_log, "logging_send: a line is not JSON, left out: %s\n", err.text);
        else if (json_array_append_new(lines.get(), line) != 0)
            return nullptr;
        pos += len;
    }
    return malloc_ptr<char>(json_dumps(doc.get(), JSON_COMPACT | JSON_PRESERVE_ORDER));
}

// The lines a batch holds, for the count of those dropped with it.
int batch_lines(const struct _logbuf *b)
{
    int lines = 0;
    for (int pos = 0; pos + 4 <= b->length; lines++) {
        int len;
        memcpy(&len, b->buffer + pos, sizeof(len));
        if (len < 0)
            break;
        pos += 4 + len;
    }
    return lines;
}

// A 4xx other than 401 says the controller will never take this batch:
// sending it again would stop every later line behind it. A refused token
// (401, already retried by logging_post) and everything else (transport
// errors, 5xx) may pass, so those batches are kept.
bool refused_for_good(int err)
{
    return err >= 400 && err <= 499 && err != 401;
}

} // namespace

void logging_init(void)
{
    ready_logs_queue.store(queue_create("ready_logs_queue"), std::memory_order_release);
    if (ready_logs_queue.load(std::memory_order_relaxed) == nullptr)
        log_fprint(orkad_log, "%s: cannot create ready_logs_queue\n", __func__);
    command_register("set.logging", cmd_set_logging);
    signals_register(SIGUSR1, logging_debug, "logging_debug");
    listener_register("syslog", logging_listener, LOGGING_SOCKET);
}

void logging_listener(const char *, json_t *params)
{
    if (!json_is_string(params))
        return;
    const char *text = json_string_value(params);
    int len = (int)json_string_length(params);
    if (!platform_logging_filter(text, len))
        return;
    if (len > LOGGING_MAX_LINE) {
        oversize.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    {
        std::lock_guard<std::mutex> hold(logbuf_lock);
        if (logbuf != nullptr && logbuf->length + 4 + len >= LOGBUF_SIZE)
            retire_logbuf();
        if (logbuf == nullptr && ready_count() < LOGGING_MAX_READY)
            logbuf = static_cast<struct _logbuf *>(calloc(1, sizeof(struct _logbuf)));
        if (logbuf == nullptr) {
            overflow++;
            return;
        }
        memcpy(logbuf->buffer + logbuf->length, &len, sizeof(len));
        memcpy(logbuf->buffer + logbuf->length + 4, text, len);
        logbuf->length += 4 + len;
        // Before the batch can be taken by the sender, so the count never
        // goes below what waits.
        waiting.fetch_add(1, std::memory_order_relaxed);
    }
    log_fprint(sys_log, "listener: %.*s\n", len, text);
}

void cmd_set_logging(char *command, json_t *js_command, char *resp_href)
{
    cmd_envelope cmd("set.logging", command, js_command, resp_href);
    int seconds;
    if (!cmd.open() ||
        !cmd.interval(MIN_INTERVAL, MAX_INTERVAL, "logging interval out of range", &seconds))
        return;
    // Only an object is refused; any other priority is taken and ignored,
    // and logging_priority stays as it is. Controllers rely on both. It is
    // looked at before the link, so a command wrong in both hears of this.
    if (json_is_object(json_object_get(cmd.params, "priority")))
        return cmd.refuse("invalid 'priority' element in params");
    const char *href = cmd.service_link();
    if (href == nullptr)
        return;

    int err = platform_start_logging();
    if (err != 0)
        log_fprint(orkad_log, "%s: platform_start_logging() failed, err = %d\n", __func__, err);

    // A running thread takes the new interval up at its next pass and keeps
    // the link it was started with.
    cmd.answer(logging_stream.start_at(seconds, href, "logging_start", "logging"));
}

void logging_send(stream_record &stream)
{
    // The interval and the switch are read on every pass: set.logging and
    // logging_flush change them while we run.
    const std::string href = stream.href();
    log_fprint(orkad_log, "%s: Started '%d','%s','%d'\n", __func__, stream.interval.load(),
               href.c_str(), (int)stream.enabled.load());
    if (stream.enabled) {
        int idle = 0;
        do {
            if (stream.interval < idle) {
                std::lock_guard<std::mutex> hold(logbuf_lock);
                if (logbuf != nullptr && logbuf->length > 0)
                    retire_logbuf();
            }
            link_t *l = queue_try_get(ready_logs_queue);
            if (l == nullptr) {
                idle++;
            } else {
                malloc_ptr<struct _logbuf> b(reinterpret_cast<struct _logbuf *>(l));
                int lost;
                {
                    std::lock_guard<std::mutex> hold(logbuf_lock);
                    lost = overflow;
                }
                log_fprint(orkad_log, "%s: overflow = %d, oversize = %d, ready-logs-count = %d\n",
                           __func__, lost, oversize.load(std::memory_order_relaxed), ready_count());
                malloc_ptr<char> body = build_body(b.get());
                // Out of memory: the batch waits for the next pass.
                int err =
                    body ? logging_post(href.c_str(), body.get(), (int)strlen(body.get())) : 2;
                if (err == 0) {
                    waiting.fetch_sub(batch_lines(b.get()), std::memory_order_relaxed);
                    idle = 1;
                } else if (refused_for_good(err)) {
                    int lines = batch_lines(b.get());
                    refused.fetch_add(lines, std::memory_order_relaxed);
                    waiting.fetch_sub(lines, std::memory_order_relaxed);
                    log_fprint(orkad_log, "%s: batch refused (err = %d), dropped %d lines\n",
                               __func__, err, lines);
                    idle++;
                } else {
                    log_fprint(orkad_log, "%s: post errors (err = %d)\n", __func__, err);
                    // Retried first, so the controller still gets them in order.
                    queue_add_head(ready_logs_queue, &b.release()->link);
                    idle++;
                }
            }
            logging_sleep(1);
        } while (stream.enabled);
    }
    log_fprint(orkad_log, "%s: Stopped\n", __func__);
    stream.id = -1;
}

int logging_post(const char *href, const char *data, int length)
{
    // Nowhere to send it: the batch counts as sent.
    return controller_post(controller_call::syslog, href, data, length, 0);
}

int logging_flush(int seconds)
{
    // The batch being filled goes out at the sender's next pass.
    logging_stream.interval = 0;
    logging_sleep(5);
    int spent = 5;
    while (spent < seconds && ready_count() > 0) {
        logging_sleep(2);
        spent += 2;
    }
    return ready_count();
}

void logging_debug(int)
{
    std::lock_guard<std::mutex> hold(logbuf_lock);
    log_fprint(dbg_log, "%s: logging_enabled = %d, logging_interval = %d\n", __func__,
               (int)logging_stream.enabled, logging_stream.interval.load());
    log_fprint(dbg_log,
               "%s: logbuf = %p (%d), overflow = %d, oversize = %d, ready-logs-count = %d\n",
               __func__, static_cast<void *>(logbuf), logbuf != nullptr ? logbuf->length : 0,
               overflow, oversize.load(std::memory_order_relaxed), ready_count());
    log_fprint(dbg_log, "%s: refused = %d\n", __func__, refused.load(std::memory_order_relaxed));
}

void logging_counts(int *overflow_out, int *oversize_out, int *ready, int *filling)
{
    std::lock_guard<std::mutex> hold(logbuf_lock);
    if (overflow_out != nullptr)
        *overflow_out = overflow;
    if (oversize_out != nullptr)
        *oversize_out = oversize.load(std::memory_order_relaxed);
    if (ready != nullptr)
        *ready = ready_count();
    if (filling != nullptr)
        *filling = logbuf != nullptr ? logbuf->length : 0;
}

int logging_refused(void)
{
    return refused.load(std::memory_order_relaxed);
}

int logging_waiting_lines(void)
{
    return waiting.load(std::memory_order_relaxed);
}
