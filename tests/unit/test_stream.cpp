// The stream record that status, statistics and syslog forwarding share: it
// starts its thread once, the thread reads the pace and the link from it
// while the command thread changes them, and a stream whose thread ended
// starts again on its new link. Run under ThreadSanitizer too.
#include "log.h"
#include "stream.h"
#include "testkit.h"
#include "work.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using namespace testkit;

namespace
{

// What the bodies saw, pass by pass.
std::mutex seen_lock;
std::vector<std::string> links_seen;
std::vector<int> intervals_seen;
std::atomic<int> bodies_started{0};

// Like the stream threads: the link once at the start, the interval and the
// switch on every pass.
void pacing_body(stream_record &stream)
{
    bodies_started++;
    const std::string href = stream.href();
    {
        std::lock_guard<std::mutex> hold(seen_lock);
        links_seen.push_back(href);
    }
    while (stream.enabled) {
        {
            std::lock_guard<std::mutex> hold(seen_lock);
            if (intervals_seen.empty() || intervals_seen.back() != stream.interval)
                intervals_seen.push_back(stream.interval);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    stream.id = -1;
}

// A body that has nothing to do: it is gone at once.
void short_body(stream_record &stream)
{
    bodies_started++;
    stream.id = -1;
}

class StreamTest : public ::testing::Test
{
  protected:
    DeviceRoot root;
    void SetUp() override
    {
        log_init();
        links_seen.clear();
        intervals_seen.clear();
        bodies_started = 0;
    }

    std::vector<int> intervals()
    {
        std::lock_guard<std::mutex> hold(seen_lock);
        return intervals_seen;
    }
    std::vector<std::string> links()
    {
        std::lock_guard<std::mutex> hold(seen_lock);
        return links_seen;
    }
    // Stops the thread and waits until it is gone.
    static bool stop(stream_record &s)
    {
        s.enabled = false;
        return wait_for([&] { return s.id < 0; });
    }
};

} // namespace

TEST_F(StreamTest, SecondStartChangesThePaceAndStartsNoSecondThread)
{
    stream_record s("test_stream", pacing_body);
    s.turn_on(10);
    bool running = true;
    int id = s.start("/first", &running);
    ASSERT_GE(id, 0);
    EXPECT_FALSE(running);
    EXPECT_STREQ(threads[id].name, "test_stream");
    ASSERT_TRUE(wait_for([&] { return intervals() == std::vector<int>{10}; }));
    int slots = next_thread;

    s.turn_on(30);
    EXPECT_EQ(s.start("/second", &running), id);
    EXPECT_TRUE(running);
    EXPECT_EQ(next_thread, slots);
    // The running thread takes the new pace up and keeps its link.
    ASSERT_TRUE(wait_for([&] { return intervals() == std::vector<int>{10, 30}; }));
    EXPECT_EQ(s.href(), "/first");
    EXPECT_TRUE(stop(s));
    EXPECT_EQ(links(), std::vector<std::string>{"/first"});
    EXPECT_EQ(bodies_started, 1);
}

TEST_F(StreamTest, StreamWhoseThreadEndedStartsAgainOnItsNewLink)
{
    stream_record s("test_stream", pacing_body);
    s.turn_on(5);
    bool running;
    ASSERT_GE(s.start("/first", &running), 0);
    ASSERT_TRUE(wait_for([&] { return links().size() == 1; }));
    ASSERT_TRUE(stop(s));

    s.turn_on(7);
    int id = s.start("/second", &running);
    ASSERT_GE(id, 0);
    EXPECT_FALSE(running);
    ASSERT_TRUE(wait_for([&] { return links().size() == 2; }));
    EXPECT_EQ(links(), (std::vector<std::string>{"/first", "/second"}));
    EXPECT_TRUE(wait_for([&] { return intervals().back() == 7; }));
    EXPECT_EQ(s.id, id);
    EXPECT_TRUE(stop(s));
}

TEST_F(StreamTest, ThreadThatEndsAtOnceLeavesTheStreamStopped)
{
    // The body's -1 must not be overwritten by start() storing the number
    // of a thread that is already gone: the next command could never start
    // the stream again.
    stream_record s("test_stream", short_body);
    for (int round = 1; round <= 8; round++) {
        bool running = true;
        ASSERT_GE(s.start("/s", &running), 0) << round;
        EXPECT_FALSE(running) << round;
        ASSERT_TRUE(wait_for([&] { return bodies_started == round; })) << round;
        EXPECT_TRUE(wait_for([&] { return s.id == -1; })) << round;
    }
}

TEST_F(StreamTest, StartAtTurnsOnAndSaysWhenTheThreadRunsAlready)
{
    stream_record s("test_stream", pacing_body);
    EXPECT_EQ(s.start_at(10, "/a", "test_start", "test"), 0);
    EXPECT_EQ(s.interval, 10);
    EXPECT_TRUE(s.enabled);
    int id = s.id;
    ASSERT_GE(id, 0);
    EXPECT_EQ(s.start_at(20, "/b", "test_start", "test"), 0);
    EXPECT_EQ(s.interval, 20);
    auto log = log_messages(root.at("/rw/orkad.log"));
    EXPECT_EQ(std::count(log.begin(), log.end(),
                         "test_start: test thread " + std::to_string(id) +
                             " already running, new interval = 20, enable = true"),
              1);
    ASSERT_TRUE(wait_for([] { return bodies_started == 1; }));
    EXPECT_TRUE(stop(s));
    EXPECT_EQ(bodies_started, 1);
}

TEST_F(StreamTest, FailedStartReturnsItsResultAndLeavesTheStreamStopped)
{
    stream_record s("test_stream", short_body);
    // Use up every thread slot first.
    while (next_thread < THREAD_SLOTS)
        thread_start(
            "filler", [](void *, void *, void *) {}, nullptr, nullptr, nullptr);
    bool running = true;
    EXPECT_EQ(s.start("/s", &running), -1);
    EXPECT_FALSE(running);
    EXPECT_EQ(s.id, -1);
    EXPECT_EQ(s.start_at(5, "/s", "test_start", "test"), -1);
}
