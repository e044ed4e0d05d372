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
int table_insert(table_t *t, void *data, const void *key, size_t keylen);
void *table_remove(table_t *t, const void *key, size_t keylen);
void *table_lookup(table_t *t, const void *key, size_t keylen);
void table_destroy(table_t *t);
table_iterator_t *table_iterator_create(void);
void table_iterator_destroy(table_iterator_t *it);
// Iteration in bucket order; *key receives the entry's key bytes.
void *table_first(table_t *t, table_iterator_t *it, const void **key);
void *table_next(table_t *t, table_iterator_t *it, const void **key);
