// Work records, the worker pool and the thread table: every thread of the
// agent is started through thread_start.
#pragma once

#include "queue.h"

#include <atomic>
#include <mutex>
#include <pthread.h>
#include <sys/time.h>

constexpr int THREAD_SLOTS = 40;
constexpr int WORK_RECORDS = 64;
constexpr int WORKER_THREADS = 6;
constexpr size_t THREAD_STACK_SIZE = 131072;
constexpr int TRACE_MARKERS = 4;

typedef void (*work_fn)(void *p1, void *p2, void *p3);

typedef struct work {
    link_t link; // first: a record is its own queue item
    struct work *next;
    work_fn fn;
    void *p1, *p2, *p3;
} work_t;

typedef struct marker {
    const char *fn;
    int ln;
    struct timeval tv;
} marker_t;

typedef struct trace {
    marker_t marker[TRACE_MARKERS];
    std::mutex lock;
    int index; // where the next marker goes; also the oldest one
} trace_t;

typedef struct thread {
    // Set by thread_start, 0 again when the thread's body returns; the dump
    // reads it meanwhile.
    std::atomic<pthread_t> tid;
    int id;
    std::atomic<int> runs; // counted by a worker, read by the dump
    const char *name;
    work_fn fn;
    void *p1, *p2, *p3;
    trace_t trace;
} thread_t;

extern thread_t threads[THREAD_SLOTS];
// Slots below this are filled in and may be read by any thread; the dump
// reads it while thread_start raises it.
extern std::atomic<int> next_thread;
extern queue_t *work_free_queue;
extern queue_t *work_pending_queue;

void thread_init(void);
// The new thread's number, or -1 when every slot is taken, -2 when the
// system could not create it (the slot is used up all the same).
int thread_start(const char *name, work_fn fn, void *p1, void *p2, void *p3);
int thread_get_id(void);
const char *thread_get_name(void);
void ttrace(const char *fn, int ln);

work_t *work_alloc(void);
work_t *work_try_alloc(void);
void work_submit(work_t *w);
void work_submit_urgent(work_t *w);
work_t *work_get(void);
void work_free(work_t *w);

void worker_debug(int sig);
void worker_show_stats(void);
