// Unbounded, intrusive, blocking FIFO: the one container for handing records
// between threads. A record embeds a link_t as its first member.
#pragma once

#include <pthread.h>

typedef struct link {
    struct link *next;
    struct link *prev;
} link_t;

typedef struct queue {
    struct link *head;
    struct link *tail;
    int count; // the only authority on emptiness
    const char *name;
    pthread_mutex_t lock;
    pthread_cond_t not_empty;
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
