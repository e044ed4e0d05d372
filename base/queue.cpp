#include "queue.h"

#include "log.h"
#include "work.h"

#include <cstdlib>

queue_t *queue_create(const char *name)
{
    queue_t *q = static_cast<queue_t *>(calloc(1, sizeof(queue_t)));
    if (q == nullptr)
        return nullptr;
    q->name = name;
    pthread_mutex_init(&q->lock, nullptr);
    pthread_cond_init(&q->not_empty, nullptr);
    return q;
}

// The count changes under the queue's lock and is read without it by
// queue_count (a gauge for the dumps and the pacing of callers).
static void set_count(queue_t *q, int count)
{
    __atomic_store_n(&q->count, count, __ATOMIC_RELAXED);
}

void queue_add_tail(queue_t *q, link_t *l)
{
    pthread_mutex_lock(&q->lock);
    if (q->count == 0) {
        pthread_cond_broadcast(&q->not_empty);
        q->head = q->tail = l;
    } else {
        l->prev = q->tail;
        q->tail->next = l;
        q->tail = l;
    }
    set_count(q, q->count + 1);
    debug_print_with_time(0, "%s (id=%d, '%s', count=%d): added @%p\n", "queue_add_tail",
                          thread_get_id(), q->name, q->count, (void *)l);
    pthread_mutex_unlock(&q->lock);
}

void queue_add_head(queue_t *q, link_t *l)
{
    pthread_mutex_lock(&q->lock);
    if (q->count == 0) {
        pthread_cond_broadcast(&q->not_empty);
        q->head = q->tail = l;
    } else {
        l->next = q->head;
        q->head->prev = l;
        q->head = l;
    }
    set_count(q, q->count + 1);
    debug_print_with_time(0, "%s (id=%d, '%s', count=%d): added @%p\n", "queue_add_head",
                          thread_get_id(), q->name, q->count, (void *)l);
    pthread_mutex_unlock(&q->lock);
}

// Takes the head; the caller holds the lock and has seen count > 0.
static link_t *remove_head(queue_t *q, const char *who)
{
    link_t *l = q->head;
    q->head = l->next;
    set_count(q, q->count - 1);
    debug_print_with_time(0, "%s (id=%d, '%s', count=%d): removed @%p\n", who, thread_get_id(),
                          q->name, q->count, (void *)l);
    return l;
}

link_t *queue_get(queue_t *q)
{
    pthread_mutex_lock(&q->lock);
    int waits = 0;
    while (q->count == 0) {
        debug_print_with_time(0, "%s wait 'not_empty' (id=%d, '%s') %d\n", "queue_get",
                              thread_get_id(), q->name, waits++);
        log_fprint(dbg_log, "%s: wait 'not_empty' (id=%d, tid=0x%08x, '%s') %d\n", "queue_get",
                   thread_get_id(), (unsigned)pthread_self(), q->name, waits++);
        pthread_cond_wait(&q->not_empty, &q->lock);
    }
    link_t *l = remove_head(q, "queue_get");
    pthread_mutex_unlock(&q->lock);
    return l;
}

link_t *queue_try_get(queue_t *q)
{
    pthread_mutex_lock(&q->lock);
    link_t *l = q->count == 0 ? nullptr : remove_head(q, "queue_try_get");
    pthread_mutex_unlock(&q->lock);
    return l;
}

link_t *queue_get_item(queue_t *q, link_t *l)
{
    pthread_mutex_lock(&q->lock);
    link_t *found = nullptr;
    if (l != nullptr && q->head != nullptr) {
        for (link_t *p = q->head; p != nullptr; p = p->next) {
            if (p == l) {
                found = p;
                break;
            }
        }
    }
    if (found != nullptr) {
        if (found->next != nullptr)
            found->next->prev = found->prev;
        else
            q->tail = found->prev;
        if (found->prev != nullptr)
            found->prev->next = found->next;
        else
            q->head = found->next;
        set_count(q, q->count - 1);
    }
    debug_print_with_time(0, "%s (id=%d, '%s', count=%d): removed @%p\n", "queue_get_item",
                          thread_get_id(), q->name, q->count, (void *)l);
    pthread_mutex_unlock(&q->lock);
    return found;
}

link_t *queue_scan(queue_t *q, void *arg, int (*fn)(link_t *, void *))
{
    pthread_mutex_lock(&q->lock);
    link_t *hit = nullptr;
    for (link_t *p = q->head; p != nullptr; p = p->next) {
        if (fn(p, arg) != 0) {
            hit = p;
            break;
        }
    }
    pthread_mutex_unlock(&q->lock);
    return hit;
}

int queue_count(queue_t *q)
{
    return __atomic_load_n(&q->count, __ATOMIC_RELAXED);
}

void queue_stats(queue_t *q, int *count, unsigned *adds, unsigned *full)
{
    pthread_mutex_lock(&q->lock);
    if (count != nullptr)
        *count = q->count;
    pthread_mutex_unlock(&q->lock);
    // The queue keeps no counters of its own.
    if (adds != nullptr)
        *adds = 0;
    if (full != nullptr)
        *full = 0;
}
