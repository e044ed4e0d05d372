// Keyed tables over byte-string keys of explicit length. Values are the
// caller's; a key can be present once only.
#pragma once

#include <cstddef>

typedef struct table table_t;
typedef struct table_iterator table_iterator_t;

// Allocates the entries; tests replace it to see a refused insertion.
extern void *(*table_alloc)(size_t size);

void table_init(void);
table_t *table_create(const char *name, unsigned size);
// 0; -1 when the key is present already (the first value stays), -2 when
// the entry cannot be allocated.
int table_insert(table_t *t, void *data, const void *key, size_t keylen);
void *table_remove(table_t *t, const void *key, size_t keylen);
void *table_lookup(table_t *t, const void *key, size_t keylen);
void table_destroy(table_t *t);
table_iterator_t *table_iterator_create(void);
void table_iterator_destroy(table_iterator_t *it);
// Iteration in bucket order; *key receives the entry's key bytes.
void *table_first(table_t *t, table_iterator_t *it, const void **key);
void *table_next(table_t *t, table_iterator_t *it, const void **key);

// Registries keep several records under one key, chained through each
// record's `next` in registration order, the table holding the first. Puts
// `item` at the end of the key's chain, or in the table as its first; 0, or
// what table_insert refused with.
template <typename T> int table_append(table_t *t, T *item, const void *key, size_t keylen)
{
    T *last = static_cast<T *>(table_lookup(t, key, keylen));
    if (last == nullptr)
        return table_insert(t, item, key, keylen);
    while (last->next != nullptr)
        last = last->next;
    last->next = item;
    return 0;
}
