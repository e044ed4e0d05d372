// Work records, the worker pool and the thread table: every thread of the
// agent is started through thread_start.
#pragma once

#include "queue.h"

#include <pthread.h>
#include <sys/time.h>

#define THREAD_SLOTS 40
#define WORK_RECORDS 64
#define WORKER_THREADS 6
#define THREAD_STACK_SIZE 131072
#define TRACE_MARKERS 4

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
    pthread_mutex_t lock;
    int index; // where the next marker goes; also the oldest one
} trace_t;

typedef struct thread {
    pthread_t tid;
    int id;
    int runs;
    const char *name;
    work_fn fn;
    void *p1, *p2, *p3;
    trace_t trace;
} thread_t;

extern thread_t threads[THREAD_SLOTS];
extern int next_thread;
extern queue_t *work_free_queue;
extern queue_t *work_pending_queue;

void thread_init(void);
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
