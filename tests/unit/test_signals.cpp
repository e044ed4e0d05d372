#include "log.h"
#include "signals.h"
#include "table.h"
#include "testkit.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <gtest/gtest.h>
#include <mutex>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace testkit;

namespace
{

std::vector<int> calls;

template <int N> void handler_n(int sig)
{
    EXPECT_EQ(sig, SIGUSR1);
    calls.push_back(N);
}

using SignalsTest = SignalTest;

} // namespace

TEST_F(SignalsTest, BlockedSetIsExactlyTheFour)
{
    sigset_t *set = const_cast<sigset_t *>(&blocked_signals);
    for (int s : {SIGUSR1, SIGUSR2, SIGALRM, SIGTERM})
        EXPECT_TRUE(sigismember(set, s)) << s;
    for (int s : {SIGHUP, SIGINT, SIGCHLD, SIGPIPE})
        EXPECT_FALSE(sigismember(set, s)) << s;
    sigset_t current;
    pthread_sigmask(SIG_BLOCK, nullptr, &current);
    for (int s : {SIGUSR1, SIGUSR2, SIGALRM, SIGTERM})
        EXPECT_TRUE(sigismember(&current, s)) << s;
}

TEST_F(SignalsTest, SixHandlersRunOnceInRegistrationOrder)
{
    void (*fns[])(int) = {handler_n<1>, handler_n<2>, handler_n<3>,
                          handler_n<4>, handler_n<5>, handler_n<6>};
    const char *names[] = {"h1", "h2", "h3", "h4", "h5", "h6"};
    for (int i = 0; i < 6; i++)
        EXPECT_EQ(signals_register(SIGUSR1, fns[i], names[i]), 0);
    // Delivered the way the main loop gets it.
    raise(SIGUSR1);
    int sig = 0;
    ASSERT_EQ(sigwait(const_cast<sigset_t *>(&blocked_signals), &sig), 0);
    ASSERT_EQ(sig, SIGUSR1);
    signals_handler(sig);
    EXPECT_EQ(calls, (std::vector<int>{1, 2, 3, 4, 5, 6}));
    int n = 0;
    for (struct handler *h = signals_lookup(SIGUSR1); h != nullptr; h = h->next, n++) {
        EXPECT_EQ(h->hits, 1u);
        EXPECT_STREQ(h->name, names[n]);
        EXPECT_EQ(h->signal, SIGUSR1);
    }
    EXPECT_EQ(n, 6);
    auto log = main_log();
    for (int i = 0; i < 6; i++)
        EXPECT_EQ(log[1 + i],
                  std::string("registered new handler '") + names[i] + "' for signal 10");
}

TEST_F(SignalsTest, UnblockedSignalIsWarnedAndNeverDispatched)
{
    EXPECT_EXIT(
        {
            signals_register(SIGHUP, handler_n<9>, "hup");
            raise(SIGHUP); // default action: the handler never sees it
            fprintf(stderr, "survived\n");
            exit(0);
        },
        ::testing::KilledBySignal(SIGHUP), "");
    signals_register(SIGHUP, handler_n<9>, "hup");
    auto log = main_log();
    ASSERT_GE(log.size(), 3u);
    EXPECT_EQ(log[log.size() - 2],
              "******* registering callback for signal 1 that is not blocked!");
    EXPECT_EQ(log.back(), "registered new handler 'hup' for signal 1");
    EXPECT_TRUE(calls.empty());
}

TEST_F(SignalsTest, BlockedSignalWithoutHandlerIsLogged)
{
    signals_handler(SIGALRM);
    EXPECT_EQ(main_log().back(), "signals_handler: signal 14 has no registered handler");
}

TEST_F(SignalsTest, SecondSignalHasItsOwnChain)
{
    signals_register(SIGUSR1, handler_n<1>, "one");
    signals_register(
        SIGUSR2, [](int) { calls.push_back(20); }, "two");
    signals_handler(SIGUSR2);
    EXPECT_EQ(calls, (std::vector<int>{20}));
    EXPECT_EQ(signals_lookup(SIGUSR1)->hits, 0u);
    EXPECT_EQ(signals_lookup(SIGUSR2)->hits, 1u);
}

namespace
{
void *refuse_alloc(size_t)
{
    return nullptr;
}
} // namespace

TEST_F(SignalsTest, RefusedInsertionIsReportedNotRegistered)
{
    table_alloc = refuse_alloc;
    int rc = signals_register(SIGUSR2, handler_n<1>, "refused");
    table_alloc = malloc;
    EXPECT_EQ(rc, -2);
    auto m = main_log();
    EXPECT_EQ(m.back(), "signals_register: cannot insert handler 'refused' for signal 12 (-2)");
    EXPECT_EQ(std::count(m.begin(), m.end(), "registered new handler 'refused' for signal 12"), 0);
    // Nothing half-registered: the signal still has no handler, and the next
    // registration takes the first place.
    signals_handler(SIGUSR2);
    EXPECT_EQ(main_log().back(), "signals_handler: signal 12 has no registered handler");
    EXPECT_EQ(signals_register(SIGUSR2, handler_n<2>, "second"), 0);
    EXPECT_EQ(main_log().back(), "registered new handler 'second' for signal 12");
}

namespace
{

std::mutex order_lock;
std::vector<std::string> order;
std::atomic<int> inside{0};
std::mutex gate_lock;
std::condition_variable gate_cv;
bool gate_open = false;

void slow_half(int)
{
    {
        std::lock_guard<std::mutex> g(order_lock);
        order.push_back("begin");
    }
    inside++;
    // Held here until the test has seen the other run start or wait.
    {
        std::unique_lock<std::mutex> g(gate_lock);
        gate_cv.wait(g, [] { return gate_open; });
    }
    {
        std::lock_guard<std::mutex> g(order_lock);
        order.push_back("end");
    }
}

void note_mark(void *arg, bool after)
{
    static_cast<std::vector<std::string> *>(arg)->push_back(after ? "after" : "before");
}

} // namespace

// The main loop and the "orkad.dump" event may run SIGUSR1's handlers at the
// same moment: the second run waits for the first, so two dumps never mix.
TEST_F(SignalsTest, RunsOfOneSignalFromTwoThreadsDoNotOverlap)
{
    ASSERT_EQ(signals_register(SIGUSR1, slow_half, "slow_half"), 0);
    std::thread other([] { signals_handler(SIGUSR1); });
    // The other run has started before this one is asked for.
    EXPECT_TRUE(wait_for([] { return inside.load() == 1; }));
    std::atomic<pid_t> tid{0};
    std::thread second([&tid] {
        tid = gettid();
        signals_handler(SIGUSR1);
    });
    // The second run is asleep waiting for the first, or, were nothing
    // holding it, inside the handler too.
    EXPECT_TRUE(wait_for([&tid] {
        pid_t t = tid.load();
        return inside.load() == 2 || (t != 0 && thread_asleep(t));
    }));
    {
        std::lock_guard<std::mutex> g(gate_lock);
        gate_open = true;
    }
    gate_cv.notify_all();
    other.join();
    second.join();
    EXPECT_EQ(order, (std::vector<std::string>{"begin", "end", "begin", "end"}));
    EXPECT_EQ(signals_lookup(SIGUSR1)->hits, 2u);
}

TEST_F(SignalsTest, MarksComeRightBeforeAndAfterTheHandlers)
{
    std::vector<std::string> seen;
    calls.clear();
    ASSERT_EQ(signals_register(SIGUSR1, handler_n<1>, "h1"), 0);
    signals_handler(SIGUSR1, note_mark, &seen);
    EXPECT_EQ(seen, (std::vector<std::string>{"before", "after"}));
    EXPECT_EQ(calls, std::vector<int>{1});
}
