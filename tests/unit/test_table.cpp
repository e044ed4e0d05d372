#include "table.h"

#include <gtest/gtest.h>
#include <algorithm>
#include <cstring>
#include <map>
#include <string>

TEST(Table, InsertLookupRemove)
{
    table_t *t = table_create("t", 32);
    ASSERT_NE(t, nullptr);
    int a = 1, b = 2;
    EXPECT_EQ(table_insert(t, &a, "set.config", 10), 0);
    EXPECT_EQ(table_insert(t, &b, "set.status", 10), 0);
    EXPECT_EQ(table_lookup(t, "set.config", 10), &a);
    EXPECT_EQ(table_lookup(t, "set.status", 10), &b);
    EXPECT_EQ(table_lookup(t, "set.conf", 8), nullptr);
    EXPECT_EQ(table_remove(t, "set.config", 10), &a);
    EXPECT_EQ(table_lookup(t, "set.config", 10), nullptr);
    EXPECT_EQ(table_remove(t, "set.config", 10), nullptr);
    table_destroy(t);
}

TEST(Table, DuplicateKeyIsRefusedAndFirstValueStays)
{
    table_t *t = table_create("t", 32);
    int first = 1, second = 2;
    ASSERT_EQ(table_insert(t, &first, "k", 1), 0);
    EXPECT_NE(table_insert(t, &second, "k", 1), 0);
    EXPECT_EQ(table_lookup(t, "k", 1), &first);
    table_destroy(t);
}

TEST(Table, KeysAreBytesWithExplicitLength)
{
    table_t *t = table_create("t", 4);
    int x = 1, y = 2, z = 3;
    const char k1[] = {'a', '\0', 'b'};
    const char k2[] = {'a', '\0', 'c'};
    EXPECT_EQ(table_insert(t, &x, k1, 3), 0);
    EXPECT_EQ(table_insert(t, &y, k2, 3), 0);
    EXPECT_EQ(table_insert(t, &z, "a", 1), 0); // a prefix is another key
    EXPECT_EQ(table_lookup(t, k1, 3), &x);
    EXPECT_EQ(table_lookup(t, k2, 3), &y);
    EXPECT_EQ(table_lookup(t, "a", 1), &z);
    int sig = 10;
    EXPECT_EQ(table_insert(t, &x, &sig, sizeof(sig)), 0);
    int same = 10;
    EXPECT_EQ(table_lookup(t, &same, sizeof(same)), &x);
    table_destroy(t);
}

TEST(Table, IteratesEveryEntryOnce)
{
    table_t *t = table_create("t", 3);
    std::map<std::string, int> values = {
        {"one", 1}, {"two", 2}, {"three", 3}, {"four", 4}, {"five", 5}};
    for (auto &[k, v] : values)
        ASSERT_EQ(table_insert(t, &v, k.data(), k.size()), 0);
    table_iterator_t *it = table_iterator_create();
    std::map<int, int> seen;
    const void *key = nullptr;
    for (void *d = table_first(t, it, &key); d != nullptr; d = table_next(t, it, &key)) {
        int v = *static_cast<int *>(d);
        seen[v]++;
        // The key handed back is the entry's own key.
        auto k = std::find_if(values.begin(), values.end(),
                              [v](const auto &kv) { return kv.second == v; });
        ASSERT_NE(k, values.end());
        EXPECT_EQ(memcmp(key, k->first.data(), k->first.size()), 0);
    }
    EXPECT_EQ(seen.size(), 5u);
    for (auto &[v, n] : seen)
        EXPECT_EQ(n, 1) << v;
    table_iterator_destroy(it);

    table_t *empty = table_create("e", 8);
    it = table_iterator_create();
    EXPECT_EQ(table_first(empty, it, &key), nullptr);
    table_iterator_destroy(it);
    table_destroy(empty);
    table_destroy(t);
}
