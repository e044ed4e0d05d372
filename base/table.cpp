#include "table.h"
#include "raii.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace
{

struct entry {
    struct entry *next;
    void *data;
    size_t keylen;
    unsigned char key[]; // copied: the caller's key buffer may go away
};

uint32_t hash_key(const void *key, size_t len)
{
    // FNV-1a: cheap and good enough for a few dozen short keys.
    const unsigned char *p = static_cast<const unsigned char *>(key);
    uint32_t h = 2166136261u;
    for (size_t i = 0; i < len; i++) {
        h ^= p[i];
        h *= 16777619u;
    }
    return h;
}

} // namespace

void *(*table_alloc)(size_t size) = malloc;

struct table {
    unsigned size;
    struct entry **buckets;
};

// Two words, like a cursor over a chained table: the bucket and the entry.
struct table_iterator {
    unsigned bucket;
    struct entry *entry;
};

void table_init(void) {}

table_t *table_create(const char *, unsigned size)
{
    if (size == 0)
        size = 1;
    malloc_ptr<table_t> t(static_cast<table_t *>(calloc(1, sizeof(table_t))));
    if (!t)
        return nullptr;
    t->buckets = static_cast<struct entry **>(calloc(size, sizeof(struct entry *)));
    if (t->buckets == nullptr)
        return nullptr;
    t->size = size;
    return t.release();
}

static struct entry **find(table_t *t, const void *key, size_t keylen)
{
    struct entry **pp = &t->buckets[hash_key(key, keylen) % t->size];
    for (; *pp != nullptr; pp = &(*pp)->next)
        if ((*pp)->keylen == keylen && memcmp((*pp)->key, key, keylen) == 0)
            return pp;
    return pp;
}

int table_insert(table_t *t, void *data, const void *key, size_t keylen)
{
    struct entry **pp = find(t, key, keylen);
    if (*pp != nullptr)
        return -1; // the first value stays
    struct entry *e = static_cast<struct entry *>(table_alloc(sizeof(struct entry) + keylen));
    if (e == nullptr)
        return -2;
    e->next = nullptr;
    e->data = data;
    e->keylen = keylen;
    memcpy(e->key, key, keylen);
    *pp = e;
    return 0;
}

void *table_remove(table_t *t, const void *key, size_t keylen)
{
    struct entry **pp = find(t, key, keylen);
    struct entry *e = *pp;
    if (e == nullptr)
        return nullptr;
    *pp = e->next;
    void *data = e->data;
    free(e);
    return data;
}

void *table_lookup(table_t *t, const void *key, size_t keylen)
{
    struct entry *e = *find(t, key, keylen);
    return e == nullptr ? nullptr : e->data;
}

void table_destroy(table_t *t)
{
    if (t == nullptr)
        return;
    for (unsigned i = 0; i < t->size; i++) {
        struct entry *e = t->buckets[i];
        while (e != nullptr) {
            struct entry *next = e->next;
            free(e);
            e = next;
        }
    }
    free(t->buckets);
    free(t);
}

table_iterator_t *table_iterator_create(void)
{
    return static_cast<table_iterator_t *>(calloc(1, sizeof(table_iterator_t)));
}

void table_iterator_destroy(table_iterator_t *it)
{
    free(it);
}

static void *settle(table_t *t, table_iterator_t *it, const void **key)
{
    while (it->entry == nullptr && ++it->bucket < t->size)
        it->entry = t->buckets[it->bucket];
    if (it->entry == nullptr)
        return nullptr;
    if (key != nullptr)
        *key = it->entry->key;
    return it->entry->data;
}

void *table_first(table_t *t, table_iterator_t *it, const void **key)
{
    it->bucket = 0;
    it->entry = t->buckets[0];
    return settle(t, it, key);
}

void *table_next(table_t *t, table_iterator_t *it, const void **key)
{
    if (it->entry == nullptr)
        return nullptr;
    it->entry = it->entry->next;
    return settle(t, it, key);
}
