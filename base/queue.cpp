#include "queue.h"

#include "log.h"
#include "work.h"

#include <new>

queue_t *queue_create(const char *name)
{
    queue_t *q = new (std::nothrow) queue_t{};
    if (q == nullptr)
        return nullptr;
    q->name = name;
    return q;
}

namespace
{

// The one count of items as the queue's lock holder writes it.
int items(const queue_t *q)
{
    return q->count.load(std::memory_order_relaxed);
}

void set_count(queue_t *q, int count)
{
    q->count.store(count, std::memory_order_relaxed);
}

// Links l in at one end: at the tail, or at the head when `at_head`. The
// sleepers are woken on the change from empty; they test the count again
// under the lock, so they find the item.
void add(queue_t *q, link_t *l, bool at_head, const char *who)
{
    std::lock_guard<std::mutex> hold(q->lock);
    if (items(q) == 0) {
        q->not_empty.notify_all();
        q->head = q->tail = l;
    } else if (at_head) {
        l->next = q->head;
        q->head->prev = l;
        q->head = l;
    } else {
        l->prev = q->tail;
        q->tail->next = l;
        q->tail = l;
    }
    set_count(q, items(q) + 1);
    debug_print_with_time(0, "%s (id=%d, '%s', count=%d): added @%p\n", who, thread_get_id(),
                          q->name, items(q), (void *)l);
}

// Takes the head; the caller holds the lock and has seen count > 0.
link_t *remove_head(queue_t *q, const char *who)
{
    link_t *l = q->head;
    q->head = l->next;
    set_count(q, items(q) - 1);
    debug_print_with_time(0, "%s (id=%d, '%s', count=%d): removed @%p\n", who, thread_get_id(),
                          q->name, items(q), (void *)l);
    return l;
}

} // namespace

void queue_add_tail(queue_t *q, link_t *l)
{
    add(q, l, false, __func__);
}

void queue_add_head(queue_t *q, link_t *l)
{
    add(q, l, true, __func__);
}

link_t *queue_get(queue_t *q)
{
    std::unique_lock<std::mutex> hold(q->lock);
    int waits = 0;
    while (items(q) == 0) {
        debug_print_with_time(0, "%s wait 'not_empty' (id=%d, '%s') %d\n", __func__,
                              thread_get_id(), q->name, waits++);
        log_fprint(dbg_log, "%s: wait 'not_empty' (id=%d, tid=0x%08x, '%s') %d\n", __func__,
                   thread_get_id(), (unsigned)pthread_self(), q->name, waits++);
        q->not_empty.wait(hold);
    }
    return remove_head(q, __func__);
}

link_t *queue_try_get(queue_t *q)
{
    std::lock_guard<std::mutex> hold(q->lock);
    return items(q) == 0 ? nullptr : remove_head(q, __func__);
}

link_t *queue_get_item(queue_t *q, link_t *l)
{
    std::lock_guard<std::mutex> hold(q->lock);
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
        set_count(q, items(q) - 1);
    }
    debug_print_with_time(0, "%s (id=%d, '%s', count=%d): removed @%p\n", __func__, thread_get_id(),
                          q->name, items(q), (void *)l);
    return found;
}

link_t *queue_scan(queue_t *q, void *arg, int (*fn)(link_t *, void *))
{
    std::lock_guard<std::mutex> hold(q->lock);
    for (link_t *p = q->head; p != nullptr; p = p->next)
        if (fn(p, arg) != 0)
            return p;
    return nullptr;
}

int queue_count(queue_t *q)
{
    return items(q);
}

void queue_stats(queue_t *q, int *count, unsigned *adds, unsigned *full)
{
    if (count != nullptr) {
        std::lock_guard<std::mutex> hold(q->lock);
        *count = items(q);
    }
    // The queue keeps no counters of its own.
    if (adds != nullptr)
        *adds = 0;
    if (full != nullptr)
        *full = 0;
}
