// Signal dispatch: a fixed set of signals is blocked in every thread and
// collected by the main thread, which runs the handlers registered here.
#pragma once

#include <csignal>

struct handler {
    int signal;
    const char *name;
    struct handler *next;
    void (*fn)(int);
    unsigned int hits;
};

extern volatile sigset_t blocked_signals;

void signals_init(void);
// 0, or -2 when the handler could not be kept (out of memory, or no room in
// the table): it would never run.
int signals_register(int sig, void (*fn)(int), const char *name);
// Runs every handler registered for sig, in registration order, on the
// calling thread: the main thread's sigwait loop and the "orkad.dump" event
// both come here. mark, when given, is called with false just before the
// first handler and with true just after the last, inside the same run.
void signals_handler(int sig, void (*mark)(void *arg, bool after) = nullptr, void *arg = nullptr);
// The first handler registered for sig, or null (for dumps and tests).
struct handler *signals_lookup(int sig);
