// Unbounded, intrusive, blocking FIFO: the one container for handing records
// between threads. A record embeds a link_t as its first member.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>

typedef struct link {
    struct link *next;
    struct link *prev;
} link_t;

typedef struct queue {
    struct link *head;
    struct link *tail;
    // The only authority on emptiness. It changes under the lock and is read
    // without it by queue_count (a gauge for the dumps and the pacing of
    // callers).
    std::atomic<int> count;
    const char *name;
    std::mutex lock;
    std::condition_variable not_empty;
} queue_t;

queue_t *queue_create(const char *name);
void queue_add_tail(queue_t *q, link_t *l);
void queue_add_head(queue_t *q, link_t *l);
link_t *queue_get(queue_t *q);
link_t *queue_try_get(queue_t *q);
link_t *queue_get_item(queue_t *q, link_t *l);
link_t *queue_scan(queue_t *q, void *arg, int (*fn)(link_t *, void *));
int queue_count(queue_t *q);
void queue_stats(queue_t *q, int *count, unsigned *adds, unsigned *full);
