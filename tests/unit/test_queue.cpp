#include "log.h"
#include "queue.h"
#include "testkit.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <gtest/gtest.h>
#include <thread>

using namespace testkit;
using namespace std::chrono_literals;

namespace
{

struct item {
    link_t link;
    int value;
};

class QueueTest : public ::testing::Test
{
  protected:
    DeviceRoot root;
    queue_t *q = nullptr;
    void SetUp() override
    {
        log_init();
        q = queue_create("test_q");
        ASSERT_NE(q, nullptr);
    }
    // Queues live as long as the agent does; the test's own goes with it.
    void TearDown() override { delete q; }
    std::vector<std::string> traces() { return log_messages(root.at("/tmp/debug.log")); }
};

// Debug trace lines carry "<sec>.<usec> " rather than the log prefix.
std::vector<std::string> trace_texts(const std::string &path)
{
    std::vector<std::string> out;
    for (const auto &line : lines_of(read_file(path))) {
        size_t sp = line.find(' ');
        out.push_back(line.substr(sp + 1));
    }
    return out;
}

} // namespace

TEST_F(QueueTest, FifoOrderAndHead)
{
    item a{}, b{}, c{};
    queue_add_tail(q, &a.link);
    queue_add_tail(q, &b.link);
    queue_add_head(q, &c.link);
    EXPECT_EQ(queue_count(q), 3);
    EXPECT_EQ(queue_get(q), &c.link);
    EXPECT_EQ(queue_get(q), &a.link);
    EXPECT_EQ(queue_try_get(q), &b.link);
    EXPECT_EQ(queue_count(q), 0);
}

TEST_F(QueueTest, TracesAddsAndRemoves)
{
    item a{};
    queue_add_tail(q, &a.link);
    queue_get(q);
    auto t = trace_texts(root.at("/tmp/debug.log"));
    char added[128], removed[128];
    snprintf(added, sizeof(added), "queue_add_tail (id=-1, 'test_q', count=1): added @%p",
             (void *)&a.link);
    snprintf(removed, sizeof(removed), "queue_get (id=-1, 'test_q', count=0): removed @%p",
             (void *)&a.link);
    ASSERT_GE(t.size(), 3u);
    EXPECT_EQ(t[t.size() - 2], added);
    EXPECT_EQ(t[t.size() - 1], removed);
}

TEST_F(QueueTest, GetBlocksUntilAddAndOnlyOneOfTwoConsumersWins)
{
    std::atomic<int> got{0};
    std::atomic<link_t *> seen{nullptr};
    std::atomic<link_t *> took[2] = {nullptr, nullptr};
    auto consumer = [&](int i) {
        link_t *l = queue_get(q);
        took[i] = l;
        seen = l;
        got++;
    };
    std::thread t1(consumer, 0), t2(consumer, 1);
    // Both consumers are asleep on the empty queue.
    auto deadline = std::chrono::steady_clock::now() + 5s;
    auto waiting = [&] {
        auto t = traces();
        return std::count_if(t.begin(), t.end(), [](const std::string &s) {
            return s.find("queue_get: wait 'not_empty'") == 0;
        });
    };
    while (waiting() < 2 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(5ms);
    ASSERT_EQ(waiting(), 2);
    EXPECT_EQ(got.load(), 0);

    item a{};
    queue_add_tail(q, &a.link);
    deadline = std::chrono::steady_clock::now() + 5s;
    while (got.load() < 1 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(1ms);
    EXPECT_EQ(got.load(), 1);
    EXPECT_EQ(seen.load(), &a.link);
    EXPECT_EQ(queue_count(q), 0);

    // The other one went back to sleep: it returns with the next item, not
    // with nothing.
    item b{};
    queue_add_tail(q, &b.link);
    t1.join();
    t2.join();
    EXPECT_EQ(got.load(), 2);
    std::vector<link_t *> both = {took[0].load(), took[1].load()};
    std::sort(both.begin(), both.end());
    std::vector<link_t *> items = {&a.link, &b.link};
    std::sort(items.begin(), items.end());
    EXPECT_EQ(both, items);
    EXPECT_EQ(queue_count(q), 0);
}

TEST_F(QueueTest, WaitCountersStepByTwo)
{
    std::thread consumer([&] { queue_get(q); });
    // Wake the waiter without giving it an item: it must wait again.
    auto wait_lines = [&] {
        int n = 0;
        for (const auto &s : traces())
            if (s.find("queue_get: wait 'not_empty'") == 0)
                n++;
        return n;
    };
    auto deadline = std::chrono::steady_clock::now() + 5s;
    while (wait_lines() < 1 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(2ms);
    {
        std::lock_guard<std::mutex> hold(q->lock);
        q->not_empty.notify_all();
    }
    deadline = std::chrono::steady_clock::now() + 5s;
    while (wait_lines() < 2 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(2ms);
    item a{};
    queue_add_tail(q, &a.link);
    consumer.join();

    std::vector<std::string> log_waits, trace_waits;
    for (const auto &s : traces())
        if (s.find("queue_get: wait 'not_empty'") == 0)
            log_waits.push_back(s.substr(s.rfind(' ') + 1));
    for (const auto &s : trace_texts(root.at("/tmp/debug.log")))
        if (s.find("queue_get wait 'not_empty' (id=-1, 'test_q') ") == 0)
            trace_waits.push_back(s.substr(s.rfind(' ') + 1));
    EXPECT_EQ(trace_waits, (std::vector<std::string>{"0", "2"}));
    EXPECT_EQ(log_waits, (std::vector<std::string>{"1", "3"}));
}

TEST_F(QueueTest, TryGetOnEmptyReturnsNullWithoutTrace)
{
    long before = file_size(root.at("/tmp/debug.log"));
    EXPECT_EQ(queue_try_get(q), nullptr);
    EXPECT_EQ(file_size(root.at("/tmp/debug.log")), before);
}

TEST_F(QueueTest, GetItemNotInQueue)
{
    item a{}, b{};
    queue_add_tail(q, &a.link);
    EXPECT_EQ(queue_get_item(q, &b.link), nullptr);
    EXPECT_EQ(queue_count(q), 1);
    auto t = trace_texts(root.at("/tmp/debug.log"));
    char removed[128];
    snprintf(removed, sizeof(removed), "queue_get_item (id=-1, 'test_q', count=1): removed @%p",
             (void *)&b.link);
    EXPECT_EQ(t.back(), removed);
    EXPECT_EQ(queue_get_item(q, nullptr), nullptr);
    EXPECT_EQ(queue_count(q), 1);
}

TEST_F(QueueTest, GetItemUnlinksFromMiddleAndEnds)
{
    item a{}, b{}, c{};
    queue_add_tail(q, &a.link);
    queue_add_tail(q, &b.link);
    queue_add_tail(q, &c.link);
    EXPECT_EQ(queue_get_item(q, &b.link), &b.link);
    EXPECT_EQ(queue_count(q), 2);
    EXPECT_EQ(a.link.next, &c.link);
    EXPECT_EQ(c.link.prev, &a.link);
    EXPECT_EQ(queue_get_item(q, &c.link), &c.link);
    EXPECT_EQ(q->tail, &a.link);
    EXPECT_EQ(queue_get_item(q, &a.link), &a.link);
    EXPECT_EQ(queue_count(q), 0);
}

TEST_F(QueueTest, RemovingTheOnlyItemLeavesEndsAndNextAddResetsThem)
{
    item a{}, b{};
    queue_add_tail(q, &a.link);
    EXPECT_EQ(queue_get(q), &a.link);
    EXPECT_EQ(queue_count(q), 0);
    // The ends are not cleared when the queue empties: the tail still points
    // at the item taken, and the head is whatever that item's next was.
    EXPECT_EQ(q->tail, &a.link);
    EXPECT_EQ(q->head, a.link.next);
    EXPECT_EQ(q->head, nullptr);
    queue_add_tail(q, &b.link);
    EXPECT_EQ(q->head, &b.link);
    EXPECT_EQ(q->tail, &b.link);
    EXPECT_EQ(b.link.prev, nullptr);
    EXPECT_EQ(queue_count(q), 1);
}

TEST_F(QueueTest, ScanFindsFirstMatchAndLeavesItQueued)
{
    item a{{}, 1}, b{{}, 2}, c{{}, 2};
    queue_add_tail(q, &a.link);
    queue_add_tail(q, &b.link);
    queue_add_tail(q, &c.link);
    int want = 2;
    link_t *hit = queue_scan(q, &want, [](link_t *l, void *arg) {
        return reinterpret_cast<item *>(l)->value == *static_cast<int *>(arg) ? 1 : 0;
    });
    EXPECT_EQ(hit, &b.link);
    EXPECT_EQ(queue_count(q), 3);
    want = 9;
    EXPECT_EQ(queue_scan(q, &want,
                         [](link_t *l, void *arg) {
                             return reinterpret_cast<item *>(l)->value == *static_cast<int *>(arg)
                                        ? 1
                                        : 0;
                         }),
              nullptr);
}

TEST_F(QueueTest, StatsReportNoAddsAndNoFull)
{
    item a{}, b{};
    queue_add_tail(q, &a.link);
    queue_add_tail(q, &b.link);
    int count = -1;
    unsigned adds = 99, full = 99;
    queue_stats(q, &count, &adds, &full);
    EXPECT_EQ(count, 2);
    EXPECT_EQ(adds, 0u);
    EXPECT_EQ(full, 0u);
    queue_stats(q, nullptr, nullptr, nullptr);
}
