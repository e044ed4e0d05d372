// Providers: named functions that each add their members to an outgoing
// document (the heartbeat, the status document), kept in a list that only
// grows.
#pragma once

#include "log.h"

#include <atomic>
#include <cstdlib>

template <typename Fn> struct provider_record {
    provider_record *next;
    const char *name; // not copied: callers pass literals
    Fn fn;
};

// Pushes a provider at the head of `head`, so the last registered runs first.
// A record is complete before it is published and never changes or goes away
// after, so a walk from the head (loaded with acquire) needs no lock, whatever
// thread registers. `who` and `kind` name the registering function and the
// list in the log lines. 0, or -1 when the record cannot be allocated.
template <typename Fn>
int provider_push(std::atomic<provider_record<Fn> *> &head, const char *name, Fn fn,
                  const char *who, const char *kind)
{
    auto *p = static_cast<provider_record<Fn> *>(calloc(1, sizeof(provider_record<Fn>)));
    if (p == nullptr) {
        log_fprint(orkad_log, "%s: cannot allocate '%s_provider' structure for '%s'\n", who, kind,
                   name);
        return -1;
    }
    p->name = name;
    p->fn = fn;
    p->next = head.load(std::memory_order_relaxed);
    while (!head.compare_exchange_weak(p->next, p, std::memory_order_release,
                                       std::memory_order_relaxed))
        ;
    log_fprint(orkad_log, "%s: registered '%s' %s provider\n", who, name, kind);
    return 0;
}
