// The supervisor's watch over the working child, and systemd's over the
// supervisor.
//
// The child cannot be trusted to notice its own hang, so it only leaves
// signs of life on a board of counters that the supervisor maps, shared,
// before the first fork: the heartbeat loop at each turn, the command runner
// as each command starts and ends. The supervisor, which waits for the
// child anyway, looks at the board every second and aborts a child whose
// heartbeat loop (or running command) has stood still for longer than a
// healthy one can. docs/hardening.md says how the bounds were chosen.
#pragma once

#include <sys/types.h>

// ---- the child's side: free when no supervisor set the board up ---------

// The heartbeat loop is alive; it will next sleep `interval` seconds.
void watchdog_heartbeat(int interval);
// A command starts, or has ended, on the command runner.
void watchdog_command_started(void);
void watchdog_command_finished(void);

// ---- the bounds ----------------------------------------------------------

// The longest one healthy pulse can take, in seconds: every request the
// heartbeat makes waiting out the HTTP time-out, behind every other thread
// that may fetch a token first.
int watchdog_longest_pulse(void);
// The longest one healthy command can run, in seconds.
int watchdog_longest_command(void);
// How long the heartbeat loop may show no progress before it counts as hung:
// three intervals, and never less than the longest pulse.
int watchdog_heartbeat_bound(int interval, int longest_pulse);

// ---- the supervisor's side -----------------------------------------------

// Once, before the first fork: the shared board, systemd's notify socket
// ($NOTIFY_SOCKET, $WATCHDOG_USEC; taken out of the environment so the
// child and its programs never see them) and the test knobs
// (docs/hardening.md).
void watchdog_init(void);
// Before each fork: a clean board for the next child.
void watchdog_reset(void);
// In each new child, at once: drops what only the supervisor uses.
void watchdog_child(void);
// Tells systemd, once, that the service is up.
void watchdog_ready(void);
// Waits for a child to end, as wait() does, while watching `child` and
// feeding systemd. A child that hangs gets SIGABRT, and SIGKILL when it has
// not ended a few seconds later. Needs SIGCHLD blocked.
pid_t watchdog_wait(pid_t child, int *status);

// ---- the parts, for the tests --------------------------------------------

// Sends one datagram to a notify socket address ("/path" or "@abstract");
// 0 when sent.
int watchdog_notify(int fd, const char *address, const char *message);

// What the supervisor remembers of one child's board between looks.
struct watchdog_watch {
    unsigned int beats;        // the loop's count at the last change
    long long beat_seen_ms;    // when it last changed (supervisor's clock)
    unsigned int started;      // commands started, at the last change
    long long command_seen_ms; // when that last changed
};

enum watchdog_verdict { WATCHDOG_HEALTHY, WATCHDOG_HEARTBEAT_HUNG, WATCHDOG_COMMAND_HUNG };

// One look at a board's values at `now_ms`: updates the watch and says
// whether the child hangs; *silent_s is how long it has stood still.
watchdog_verdict watchdog_judge(watchdog_watch *w, unsigned int beats, int interval,
                                unsigned int started, unsigned int finished, long long now_ms,
                                int longest_pulse, int longest_command, int *silent_s);
