#include "log.h"
#include "signals.h"
#include "testkit.h"
#include "work.h"
#include "devroot.h"

#include <syslog.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>
#include <regex>
#include <sys/resource.h>
#include <thread>
#include <cstring>

using namespace testkit;
using namespace std::chrono_literals;

namespace
{

template <typename F> bool eventually(F f, std::chrono::milliseconds limit = 5000ms)
{
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (!f()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(2ms);
    }
    return true;
}

// A gate that work bodies can wait on, so tests hold workers busy.
struct Gate {
    std::mutex m;
    std::condition_variable cv;
    bool open = false;
    std::atomic<int> waiting{0};
    void wait()
    {
        std::unique_lock<std::mutex> g(m);
        waiting++;
        cv.wait(g, [this] { return open; });
    }
    void release()
    {
        std::lock_guard<std::mutex> g(m);
        open = true;
        cv.notify_all();
    }
};

Gate gate;

void hold(void *, void *, void *)
{
    gate.wait();
}

std::atomic<int> ran{0};
std::mutex order_lock;
std::vector<intptr_t> order;

void record(void *p1, void *, void *)
{
    std::lock_guard<std::mutex> g(order_lock);
    order.push_back(reinterpret_cast<intptr_t>(p1));
    ran++;
}

void nothing(void *, void *, void *) {}

using WorkTest = SignalTest;

} // namespace

TEST_F(WorkTest, InitMakesPoolAndSixNamedWorkers)
{
    thread_init();
    EXPECT_EQ(next_thread, 6);
    EXPECT_TRUE(eventually([] { return queue_count(work_free_queue) == 64; }));
    for (int i = 0; i < 6; i++) {
        EXPECT_EQ(std::string(threads[i].name), "worker" + std::to_string(i));
        EXPECT_TRUE(eventually([i] {
            char comm[16] = "";
            pthread_getname_np(threads[i].tid, comm, sizeof(comm));
            return strcmp(comm, threads[i].name) == 0;
        })) << i;
        size_t stack = 0;
        pthread_attr_t attr;
        pthread_getattr_np(threads[i].tid, &attr);
        pthread_attr_getstacksize(&attr, &stack);
        pthread_attr_destroy(&attr);
#if defined(__SANITIZE_THREAD__)
        // The thread sanitizer raises every stack to a minimum of its own.
        EXPECT_GE(stack, 131072u);
#else
        EXPECT_EQ(stack, 131072u);
#endif
    }
    auto log = main_log();
    EXPECT_NE(
        std::find(log.begin(), log.end(), "registered new handler 'worker_debug' for signal 10"),
        log.end());
}

TEST_F(WorkTest, ThreadLimitIsFortyAndFailedCreationUsesASlot)
{
    // Make creation fail once: no room for the thread's stack. Warm up what
    // the failure path uses first, so it needs no fresh memory.
    SyslogSink warm_sink(root);
    dev_syslog(LOG_ERR, "warm-up");
    log_fprint(orkad_log, "warm-up\n");
    struct rlimit old;
    getrlimit(RLIMIT_AS, &old);
    std::string status = read_file("/proc/self/status");
    std::smatch m;
    ASSERT_TRUE(std::regex_search(status, m, std::regex(R"(VmSize:\s+(\d+) kB)")));
    struct rlimit tight = {(rlim_t)std::stoul(m[1]) * 1024 + 65536, old.rlim_max};
    setrlimit(RLIMIT_AS, &tight);
    int r = thread_start("doomed", nothing, nullptr, nullptr, nullptr);
    setrlimit(RLIMIT_AS, &old);
    EXPECT_EQ(r, -2);
    EXPECT_EQ(next_thread, 1);
    auto log = main_log();
    ASSERT_FALSE(log.empty());
    EXPECT_EQ(log.back().substr(0, 55),
              std::string("thread_start: Failed to start thread 'doomed', error = "));

    for (int i = 1; i < 40; i++)
        ASSERT_EQ(thread_start("filler", nothing, nullptr, nullptr, nullptr), i);
    SyslogSink sink(root);
    EXPECT_EQ(thread_start("one-too-many", nothing, nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(next_thread, 40);
    // The fillers log their own ends meanwhile, so the line need not be last.
    auto lines = main_log();
    EXPECT_EQ(std::count(lines.begin(), lines.end(),
                         "thread_start: thread limit exceeded while attempting to start "
                         "'one-too-many'"),
              1);
    std::string d = sink.next();
    EXPECT_NE(d.find("thread_start: thread limit exceeded while attempting to start "
                     "'one-too-many'"),
              std::string::npos);
    EXPECT_EQ(d.substr(0, 3), "<11"); // LOG_USER | LOG_ERR
}

TEST_F(WorkTest, BodyGetsOwnNumberAsThirdArgument)
{
    static std::atomic<intptr_t> got{-100};
    static std::atomic<int> id{-100};
    static std::atomic<const char *> name{nullptr};
    thread_start("first", nothing, nullptr, nullptr, nullptr);
    int n = thread_start(
        "second",
        [](void *, void *, void *p3) {
            id = -5; // set before the key exists: see below
            got = reinterpret_cast<intptr_t>(p3);
        },
        nullptr, nullptr, reinterpret_cast<void *>(777));
    EXPECT_EQ(n, 1);
    EXPECT_TRUE(eventually([] { return got.load() != -100; }));
    EXPECT_EQ(got.load(), 1);
    // Ends are logged and the slot keeps its place.
    EXPECT_TRUE(eventually([this] {
        auto l = main_log();
        return std::find(l.begin(), l.end(), "thread_run: thread 'second' terminated!") != l.end();
    }));
    EXPECT_TRUE(eventually([] { return threads[1].tid.load() == 0; }));
    EXPECT_EQ(next_thread, 2);

    // After thread_init threads know their number and name.
    thread_init();
    thread_start(
        "named",
        [](void *, void *, void *) {
            id = thread_get_id();
            name = thread_get_name();
        },
        nullptr, nullptr, nullptr);
    EXPECT_TRUE(eventually([] { return name.load() != nullptr; }));
    EXPECT_EQ(id.load(), 8);
    EXPECT_STREQ(name.load(), "named");
    EXPECT_EQ(thread_get_id(), -1);
    EXPECT_EQ(thread_get_name(), nullptr);
}

TEST_F(WorkTest, ExhaustedPoolTryAllocNullAndAllocBlocks)
{
    thread_init();
    ASSERT_TRUE(eventually([] { return queue_count(work_free_queue) == 64; }));
    std::vector<work_t *> taken;
    for (int i = 0; i < 64; i++) {
        work_t *w = work_try_alloc();
        ASSERT_NE(w, nullptr);
        taken.push_back(w);
    }
    EXPECT_EQ(work_try_alloc(), nullptr);

    std::atomic<work_t *> got{nullptr};
    std::thread waiter([&] { got = work_alloc(); });
    // The waiter says, in the debug log, that it waits on the empty pool.
    EXPECT_TRUE(eventually([this] {
        for (const std::string &line : log_messages(root.at("/tmp/debug.log")))
            if (line.rfind("queue_get: wait 'not_empty'", 0) == 0 &&
                line.find("'work_free')") != std::string::npos)
                return true;
        return false;
    }));
    EXPECT_EQ(got.load(), nullptr);
    taken.back()->fn = nothing; // dirty it: alloc must hand it back zeroed
    taken.back()->p1 = &got;
    work_free(taken.back());
    waiter.join();
    ASSERT_EQ(got.load(), taken.back());
    EXPECT_EQ(got.load()->fn, nullptr);
    EXPECT_EQ(got.load()->p1, nullptr);
    for (work_t *w : taken)
        work_free(w);
}

TEST_F(WorkTest, UrgentWorkIsTakenFirst)
{
    thread_init();
    // Keep all six workers busy so the pending queue is ours to read.
    for (int i = 0; i < 6; i++) {
        work_t *w = work_alloc();
        w->fn = hold;
        work_submit(w);
    }
    ASSERT_TRUE(eventually([] { return gate.waiting.load() == 6; }));
    work_t *a = work_alloc(), *b = work_alloc(), *c = work_alloc();
    work_submit(a);
    work_submit(b);
    work_submit_urgent(c);
    EXPECT_EQ(work_get(), c);
    EXPECT_EQ(work_get(), a);
    EXPECT_EQ(work_get(), b);
    gate.release();
}

TEST_F(WorkTest, ChainRunsInOrderOnOneWorkerAndFreesEveryRecord)
{
    thread_init();
    ASSERT_TRUE(eventually([] { return queue_count(work_free_queue) == 64; }));
    work_t *a = work_alloc(), *b = work_alloc(), *c = work_alloc();
    a->fn = b->fn = c->fn = record;
    a->p1 = reinterpret_cast<void *>(1);
    b->p1 = reinterpret_cast<void *>(2);
    c->p1 = reinterpret_cast<void *>(3);
    a->next = b;
    b->next = c;
    EXPECT_EQ(queue_count(work_free_queue), 61);
    work_submit(a);
    ASSERT_TRUE(eventually([] { return ran.load() == 3; }));
    EXPECT_EQ(order, (std::vector<intptr_t>{1, 2, 3}));
    EXPECT_TRUE(eventually([] { return queue_count(work_free_queue) == 64; }));
    int runs = 0;
    for (int i = 0; i < 6; i++)
        runs += threads[i].runs;
    EXPECT_EQ(runs, 3);
}

TEST_F(WorkTest, FreeOfChainOfThreeReturnsThree)
{
    thread_init();
    ASSERT_TRUE(eventually([] { return queue_count(work_free_queue) == 64; }));
    work_t *a = work_alloc(), *b = work_alloc(), *c = work_alloc();
    a->next = b;
    b->next = c;
    EXPECT_EQ(queue_count(work_free_queue), 61);
    work_free(a);
    EXPECT_EQ(queue_count(work_free_queue), 64);
    work_free(nullptr);
    EXPECT_EQ(queue_count(work_free_queue), 64);
}

TEST_F(WorkTest, WorkerDebugDumpsQueuesThreadsAndMarkers)
{
    thread_init();
    ASSERT_TRUE(eventually([] { return queue_count(work_free_queue) == 64; }));
    static std::atomic<bool> traced{false};
    thread_start(
        "tracer",
        [](void *, void *, void *) {
            for (int i = 1; i <= 5; i++)
                ttrace("tracer_body", i);
            traced = true;
        },
        nullptr, nullptr, nullptr);
    ASSERT_TRUE(eventually([] { return traced.load(); }));
    worker_debug(SIGUSR1);
    auto d = log_messages(root.at("/tmp/debug.log"));
    auto at = std::find(d.begin(), d.end(), "work_free_queue: count=64, adds=0, full=0");
    ASSERT_NE(at, d.end());
    EXPECT_EQ(*(at + 1), "work_pending_queue: count=0, adds=0, full=0");
    std::regex thread0(R"(^thread 0, tid = 0x[0-9a-f]{8}, name = 'worker0', runs = 0$)");
    EXPECT_TRUE(std::regex_match(*(at + 2), thread0)) << *(at + 2);
    EXPECT_EQ((at + 3)->substr(0, 11), "  @(null).0");
    // The tracer's ring holds the last four markers, oldest first.
    auto t = std::find_if(d.begin(), d.end(), [](const std::string &s) {
        return s.find("thread 6, ") == 0 && s.find("name = 'tracer'") != std::string::npos;
    });
    ASSERT_NE(t, d.end());
    for (int k = 0; k < 4; k++)
        EXPECT_EQ((t + 1 + k)->substr(0, 16), "  @tracer_body." + std::to_string(k + 2)) << k;
}

// Short-lived threads start from any thread of the agent (the firmware retry
// from the command runner) while the main thread dumps the table on SIGUSR1
// and the workers count their runs.
TEST_F(WorkTest, ThreadsStartFromManyThreadsWhileTheTableIsDumped)
{
    thread_init();
    ASSERT_TRUE(eventually([] { return queue_count(work_free_queue) == 64; }));
    static std::atomic<int> finished{0};
    std::atomic<bool> starting{true};
    std::thread dumper([&starting] {
        while (starting)
            worker_debug(SIGUSR1);
    });
    std::vector<std::thread> starters;
    std::mutex ids_lock;
    std::vector<int> ids;
    for (int s = 0; s < 4; s++)
        starters.emplace_back([s, &ids, &ids_lock] {
            for (int k = 0; k < 6; k++) {
                char name[32];
                snprintf(name, sizeof(name), "short%d_%d", s, k);
                int n = thread_start(
                    strdup(name), [](void *, void *, void *) { finished++; }, nullptr, nullptr,
                    nullptr);
                std::lock_guard<std::mutex> g(ids_lock);
                ids.push_back(n);
            }
        });
    for (int i = 0; i < 30; i++) {
        work_t *w = work_alloc();
        w->fn = nothing;
        work_submit(w);
    }
    for (auto &t : starters)
        t.join();
    ASSERT_TRUE(eventually([] { return finished == 24; }));
    ASSERT_TRUE(eventually([] { return queue_count(work_free_queue) == 64; }));
    starting = false;
    dumper.join();

    // Every start got a slot of its own, right after the six workers.
    std::sort(ids.begin(), ids.end());
    std::vector<int> want;
    for (int n = 6; n < 30; n++)
        want.push_back(n);
    EXPECT_EQ(ids, want);
    EXPECT_EQ(next_thread, 30);
    for (int n = 6; n < 30; n++) {
        EXPECT_EQ(threads[n].id, n);
        EXPECT_EQ(std::string(threads[n].name).rfind("short", 0), 0u) << n;
    }
    int runs = 0;
    for (int n = 0; n < 6; n++)
        runs += threads[n].runs;
    EXPECT_EQ(runs, 30);
    // A finished thread shows tid 0 in the dump.
    ASSERT_TRUE(eventually([] {
        for (int n = 6; n < 30; n++)
            if (threads[n].tid.load() != 0)
                return false;
        return true;
    }));
    worker_debug(SIGUSR1);
    auto d = log_messages(root.at("/tmp/debug.log"));
    auto last = std::find_if(d.rbegin(), d.rend(),
                             [](const std::string &s) { return s.rfind("thread 29, ", 0) == 0; });
    ASSERT_NE(last, d.rend());
    EXPECT_EQ(last->substr(0, 29), "thread 29, tid = 0x00000000, ");
}

// Threads started before the thread table's key exists have no number; ones
// started while it is being made look at it at once.
TEST_F(WorkTest, ThreadsStartedAroundInitAskForTheirNumber)
{
    static std::atomic<int> asked{0};
    static std::atomic<bool> go{false};
    for (int k = 0; k < 4; k++)
        thread_start(
            "early",
            [](void *, void *, void *) {
                while (!go)
                    std::this_thread::yield();
                int id = thread_get_id();
                EXPECT_TRUE(id == -1 || (id >= 0 && id < 4)) << id;
                asked++;
            },
            nullptr, nullptr, nullptr);
    go = true;
    thread_init();
    ASSERT_TRUE(eventually([] { return asked == 4; }));
    EXPECT_EQ(next_thread, 10);
}
