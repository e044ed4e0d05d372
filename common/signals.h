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
int signals_register(int sig, void (*fn)(int), const char *name);
void signals_handler(int sig);
// The first handler registered for sig, or null (for dumps and tests).
struct handler *signals_lookup(int sig);
