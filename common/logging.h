// Syslog forwarding: the switch's syslog lines, received as "syslog" events
// on the agent's syslog socket, are packed into 4-KiB batches and posted to
// the controller by the "logging_send" thread that "set.logging" starts.
#pragma once

#include "platform_utils.h"
#include "queue.h"
#include "stream.h"

#include <jansson.h>

// Bytes of line records (length word plus text) one batch holds.
constexpr int LOGBUF_SIZE = 4096;
// Longest line forwarded; longer ones are counted as oversize.
constexpr int LOGGING_MAX_LINE = 512;
// Batches that may wait before new lines are dropped as overflow.
constexpr int LOGGING_MAX_READY = 64;

// One forwarded line inside a batch. Records are packed back to back, so a
// length word is not aligned: read and write it with memcpy.
struct _linbuf {
    int length;
    char buffer[];
};

// One batch: a single zero-filled heap block.
struct _logbuf {
    link_t link;
    int length; // bytes used in buffer
    char buffer[LOGBUF_SIZE];
};

// The stream "set.logging" turns on: its switch and interval, read by the
// sender on every pass, and its "logging_send" thread.
extern stream_record logging_stream;
// The forwarding priority; nothing changes it (see cmd_set_logging).
extern int logging_priority;

// Every sleep of this module (the sender's pace, the flush before a reboot)
// goes through here; tests point it elsewhere.
extern unsigned int (*logging_sleep)(unsigned int seconds);

void logging_init(void);
void logging_listener(const char *event, json_t *params);
void cmd_set_logging(char *command, json_t *js_command, char *resp_href);
// Body of the "logging_send" thread.
void logging_send(stream_record &stream);
// The last post's result as http_post gives it; 0 when there is no
// controller (the batch counts as sent).
int logging_post(const char *href, const char *data, int length);
// Sends what waits, for at most about `seconds`; the batches still waiting.
int logging_flush(int seconds);
void logging_debug(int sig);

// The counters and queue lengths as logging_debug shows them, for tests and
// measurements. Any pointer may be null.
void logging_counts(int *overflow, int *oversize, int *ready, int *filling);
// Lines dropped with the batches the controller refused for good.
int logging_refused(void);
// Lines received and not yet delivered (in the batch being filled and in
// those waiting to be sent).
int logging_waiting_lines(void);
