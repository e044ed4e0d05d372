#include "work.h"

#include "devroot.h"
#include "log.h"
#include "signals.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <syslog.h>

thread_t threads[THREAD_SLOTS];
std::atomic<int> next_thread;
queue_t *work_free_queue;
queue_t *work_pending_queue;

namespace
{

pthread_key_t thread_id_key;
// Set once the key exists; threads started earlier may look at any time.
std::atomic<bool> thread_id_key_ready{false};

// Claims slots in thread_start, which any thread may call, and orders a
// slot's tid: the thread clears it only after thread_start has set it.
std::mutex slot_lock;

int slots_in_use(void)
{
    return next_thread.load(std::memory_order_acquire);
}

unsigned long tid_of(thread_t *t)
{
    return (unsigned long)t->tid.load(std::memory_order_relaxed);
}

thread_t *own_slot(void)
{
    if (!thread_id_key_ready.load(std::memory_order_acquire))
        return nullptr;
    int *id = static_cast<int *>(pthread_getspecific(thread_id_key));
    return id == nullptr ? nullptr : &threads[*id];
}

void *thread_run(void *arg)
{
    thread_t *t = static_cast<thread_t *>(arg);
    // Threads started before thread_init have no key yet and so no number.
    if (thread_id_key_ready.load(std::memory_order_acquire))
        pthread_setspecific(thread_id_key, &t->id);
    // Named from inside: a short body may be gone before thread_start could
    // name it from outside. The system keeps the first 15 characters.
    char comm[16];
    snprintf(comm, sizeof(comm), "%s", t->name);
    pthread_setname_np(pthread_self(), comm);
    t->fn(t->p1, t->p2, t->p3);
    log_fprint(orkad_log, "%s: thread '%s' terminated!\n", __func__, t->name);
    std::lock_guard<std::mutex> hold(slot_lock);
    t->tid.store(0, std::memory_order_relaxed);
    return nullptr;
}

void worker_run(void *, void *, void *)
{
    thread_t *self = own_slot();
    if (self != nullptr)
        self->runs.store(0, std::memory_order_relaxed);
    for (;;) {
        work_t *w = work_get();
        if (w == nullptr)
            continue;
        for (work_t *p = w; p != nullptr; p = p->next) {
            if (self != nullptr)
                self->runs.fetch_add(1, std::memory_order_relaxed);
            p->fn(p->p1, p->p2, p->p3);
        }
        work_free(w);
    }
}

} // namespace

void thread_init(void)
{
    work_free_queue = queue_create("work_free");
    work_pending_queue = queue_create("work_pending");
    if (work_free_queue == nullptr || work_pending_queue == nullptr) {
        log_fprint(orkad_log, "Cannot create 'work' queues.\n");
        exit(1);
    }
    // The pool is made once and never grows: no allocation at run time.
    for (int i = 0; i < WORK_RECORDS; i++) {
        work_t *w = static_cast<work_t *>(calloc(1, sizeof(work_t)));
        if (w == nullptr) {
            log_fprint(orkad_log, "Cannot allocate 'work' items.\n");
            exit(1);
        }
        work_free(w);
    }
    if (pthread_key_create(&thread_id_key, nullptr) == 0)
        thread_id_key_ready.store(true, std::memory_order_release);
    for (int n = 0; n < WORKER_THREADS; n++) {
        char name[32];
        snprintf(name, sizeof(name), "worker%d", n);
        thread_start(strdup(name), worker_run, nullptr, nullptr, nullptr);
    }
    signals_register(SIGUSR1, worker_debug, "worker_debug");
}

int thread_start(const char *name, work_fn fn, void *p1, void *p2, void *)
{
    std::unique_lock<std::mutex> hold(slot_lock);
    int n = next_thread.load(std::memory_order_relaxed);
    if (n > THREAD_SLOTS - 1) {
        hold.unlock();
        dev_syslog(LOG_ERR, "%s: thread limit exceeded while attempting to start '%s'", __func__,
                   name);
        log_fprint(orkad_log, "%s: thread limit exceeded while attempting to start '%s'\n",
                   __func__, name);
        return -1;
    }

    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, THREAD_STACK_SIZE);
    // Nobody joins a thread of the agent: a short-lived one gives its stack
    // back as soon as its body returns.
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);

    // The slot is used up even if the thread cannot be created. It is filled
    // in before it is counted, so the dump never reads a half-made slot.
    thread_t *t = &threads[n];
    t->id = n;
    t->fn = fn;
    t->p1 = p1;
    t->p2 = p2;
    t->name = name;
    // Every body gets its own thread number as third argument.
    t->p3 = reinterpret_cast<void *>(static_cast<intptr_t>(n));
    next_thread.store(n + 1, std::memory_order_release);

    pthread_t tid;
    int err = pthread_create(&tid, &attr, thread_run, t);
    pthread_attr_destroy(&attr);
    if (err == 0)
        t->tid.store(tid, std::memory_order_relaxed);
    hold.unlock();
    if (err != 0) {
        dev_syslog(LOG_ERR, "%s: Failed to start thread '%s', error = %d", __func__, name, err);
        log_fprint(orkad_log, "%s: Failed to start thread '%s', error = %d\n", __func__, name, err);
        return -2;
    }

    debug_print_with_time(0, "started thread '%s' with tid = %08X\n", name, (unsigned)tid);
    return n;
}

int thread_get_id(void)
{
    thread_t *t = own_slot();
    return t == nullptr ? -1 : t->id;
}

const char *thread_get_name(void)
{
    thread_t *t = own_slot();
    return t == nullptr ? nullptr : t->name;
}

void ttrace(const char *fn, int ln)
{
    thread_t *t = own_slot();
    if (t == nullptr)
        return;
    std::lock_guard<std::mutex> hold(t->trace.lock);
    marker_t *m = &t->trace.marker[t->trace.index];
    gettimeofday(&m->tv, nullptr);
    m->fn = fn;
    m->ln = ln;
    t->trace.index = (t->trace.index + 1) % TRACE_MARKERS;
}

work_t *work_alloc(void)
{
    work_t *w = reinterpret_cast<work_t *>(queue_get(work_free_queue));
    memset(w, 0, sizeof(*w));
    return w;
}

work_t *work_try_alloc(void)
{
    work_t *w = reinterpret_cast<work_t *>(queue_try_get(work_free_queue));
    if (w != nullptr)
        memset(w, 0, sizeof(*w));
    return w;
}

void work_submit(work_t *w)
{
    queue_add_tail(work_pending_queue, &w->link);
}

void work_submit_urgent(work_t *w)
{
    queue_add_head(work_pending_queue, &w->link);
}

work_t *work_get(void)
{
    return reinterpret_cast<work_t *>(queue_get(work_pending_queue));
}

void work_free(work_t *w)
{
    while (w != nullptr) {
        work_t *next = w->next;
        queue_add_head(work_free_queue, &w->link);
        w = next;
    }
}

void worker_debug(int)
{
    int count;
    unsigned adds, full;
    queue_stats(work_free_queue, &count, &adds, &full);
    log_fprint(dbg_log, "work_free_queue: count=%d, adds=%u, full=%u\n", count, adds, full);
    queue_stats(work_pending_queue, &count, &adds, &full);
    log_fprint(dbg_log, "work_pending_queue: count=%d, adds=%u, full=%u\n", count, adds, full);

    int slots = slots_in_use();
    for (int i = 0; i < slots; i++) {
        thread_t *t = &threads[i];
        log_fprint(dbg_log, "thread %d, tid = 0x%08x, name = '%s', runs = %d\n", i,
                   (unsigned)tid_of(t), t->name, t->runs.load(std::memory_order_relaxed));
        std::lock_guard<std::mutex> hold(t->trace.lock);
        for (int k = 0; k < TRACE_MARKERS; k++) {
            const marker_t *m = &t->trace.marker[(t->trace.index + k) % TRACE_MARKERS];
            // The seconds in 64 bits: an int wraps in 2038.
            log_fprint(dbg_log, "  @%s.%d (%lld.%06d)\n", m->fn ? m->fn : "(null)", m->ln,
                       (long long)m->tv.tv_sec, (int)m->tv.tv_usec);
        }
    }
}

void worker_show_stats(void) {}
