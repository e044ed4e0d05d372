#include "signals.h"

#include "log.h"
#include "raii.h"
#include "table.h"

#include <cstdlib>
#include <mutex>

volatile sigset_t blocked_signals;

static table_t *signals_table;

// One run of a signal's handlers at a time. The dump handlers of every module
// write several lines each into the debug log and were written for the main
// thread alone; a SIGUSR1 arriving while the "orkad.dump" event runs them on
// the listener thread would interleave two dumps (and the reader of the
// second could not tell its lines apart) and race on the counters and on
// hits. Serialising the runs keeps every handler as simple as it is.
static std::mutex signal_runs[NSIG];

void signals_init(void)
{
    signals_table = table_create("signals_table", 32);
    if (signals_table == nullptr)
        log_fprint(orkad_log, "%s: failed to create signals table\n", __func__);

    sigset_t *set = const_cast<sigset_t *>(&blocked_signals);
    sigemptyset(set);
    sigaddset(set, SIGUSR1);
    sigaddset(set, SIGUSR2);
    sigaddset(set, SIGALRM);
    sigaddset(set, SIGTERM);
    pthread_sigmask(SIG_BLOCK, set, nullptr);
}

struct handler *signals_lookup(int sig)
{
    if (signals_table == nullptr)
        return nullptr;
    return static_cast<struct handler *>(table_lookup(signals_table, &sig, sizeof(sig)));
}

int signals_register(int sig, void (*fn)(int), const char *name)
{
    malloc_ptr<struct handler> h(static_cast<struct handler *>(calloc(1, sizeof(struct handler))));
    if (!h) {
        log_fprint(orkad_log, "%s: out of memory\n", __func__);
        return -2;
    }
    h->signal = sig;
    h->name = name;
    h->fn = fn;

    if (signals_lookup(sig) == nullptr &&
        !sigismember(const_cast<sigset_t *>(&blocked_signals), sig))
        log_fprint(orkad_log, "******* registering callback for signal %d that is not blocked!\n",
                   sig);
    int rc = signals_table != nullptr
                 ? table_append(signals_table, h.get(), &h->signal, sizeof(h->signal))
                 : -1;
    if (rc != 0) {
        // Not in the table, the handler would never run: say so, not
        // "registered".
        log_fprint(orkad_log, "%s: cannot insert handler '%s' for signal %d (%d)\n", __func__, name,
                   sig, rc);
        return -2;
    }
    h.release();
    log_fprint(orkad_log, "registered new handler '%s' for signal %d\n", name, sig);
    return 0;
}

void signals_handler(int sig, void (*mark)(void *arg, bool after), void *arg)
{
    struct handler *h = signals_lookup(sig);
    if (h == nullptr || sig <= 0 || sig >= NSIG) {
        log_fprint(orkad_log, "%s: signal %d has no registered handler\n", __func__, sig);
        return;
    }
    std::lock_guard<std::mutex> run(signal_runs[sig]);
    if (mark != nullptr)
        mark(arg, false);
    for (; h != nullptr; h = h->next) {
        h->fn(sig);
        h->hits++;
    }
    if (mark != nullptr)
        mark(arg, true);
}
