#include "http.h"
#include "testkit.h"
#include "watchdog.h"
#include "db.h"

#include <cstddef>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using namespace testkit;

namespace
{

constexpr int PULSE = 400;
constexpr int COMMAND = 7200;

} // namespace

TEST(WatchdogBounds, LongestPulseIsEveryRequestAtTheTimeOutBehindEveryOtherTokenFetch)
{
    // Two attempts, each: four other threads' token fetches, our own, the
    // post; every request 30 s plus 2 s of overrun; 16 s of local work; four
    // settings statements, each waiting out a held settings file.
    ASSERT_EQ(HTTP_TIMEOUT_SECONDS, 30);
    ASSERT_EQ(DB_BUSY_TIMEOUT_MS, 10000);
    EXPECT_EQ(watchdog_longest_pulse(), 2 * (5 * 32 + 32) + 16 + 4 * 10);
    EXPECT_EQ(watchdog_longest_pulse(), 440);
    EXPECT_EQ(watchdog_longest_command(), 2 * 60 * 60);
}

TEST(WatchdogBounds, ThreeIntervalsButNeverLessThanTheLongestPulse)
{
    EXPECT_EQ(watchdog_heartbeat_bound(1, 400), 400);
    EXPECT_EQ(watchdog_heartbeat_bound(10, 400), 400);
    // The longest interval a command can set still leaves the pulse longer.
    EXPECT_EQ(watchdog_heartbeat_bound(60, 400), 400);
    EXPECT_EQ(watchdog_heartbeat_bound(60, 100), 180);
    EXPECT_EQ(watchdog_heartbeat_bound(10, 3), 30);
    EXPECT_EQ(watchdog_heartbeat_bound(0, 3), 3);
}

TEST(WatchdogJudge, AChildStillStartingUpIsNeverJudged)
{
    watchdog_watch w = {0, 0, 0, 0};
    int silent = -1;
    EXPECT_EQ(watchdog_judge(&w, 0, 0, 0, 0, 3600 * 1000LL, PULSE, COMMAND, &silent),
              WATCHDOG_HEALTHY);
    EXPECT_EQ(silent, -1);
}

TEST(WatchdogJudge, ALoopThatStandsStillForTheBoundIsHung)
{
    watchdog_watch w = {0, 0, 0, 0};
    int silent = -1;
    // First sign of life seen at 5 s, the loop sleeps 10 s between pulses.
    EXPECT_EQ(watchdog_judge(&w, 1, 10, 0, 0, 5000, PULSE, COMMAND, &silent), WATCHDOG_HEALTHY);
    EXPECT_EQ(watchdog_judge(&w, 1, 10, 0, 0, 5000 + 399999, PULSE, COMMAND, &silent),
              WATCHDOG_HEALTHY);
    EXPECT_EQ(silent, -1);
    EXPECT_EQ(watchdog_judge(&w, 1, 10, 0, 0, 5000 + 400000, PULSE, COMMAND, &silent),
              WATCHDOG_HEARTBEAT_HUNG);
    EXPECT_EQ(silent, 400);
}

TEST(WatchdogJudge, EverySignOfLifeStartsTheBoundAfresh)
{
    watchdog_watch w = {0, 0, 0, 0};
    int silent = -1;
    for (unsigned int beat = 1; beat <= 10; beat++)
        EXPECT_EQ(watchdog_judge(&w, beat, 60, 0, 0, beat * 399000LL, PULSE, COMMAND, &silent),
                  WATCHDOG_HEALTHY);
    // Three intervals of 60 s are less than a pulse: the pulse wins.
    EXPECT_EQ(watchdog_judge(&w, 10, 60, 0, 0, 10 * 399000LL + 399000, PULSE, COMMAND, &silent),
              WATCHDOG_HEALTHY);
    // With short pulses, three intervals decide.
    watchdog_watch v = {0, 0, 0, 0};
    EXPECT_EQ(watchdog_judge(&v, 1, 60, 0, 0, 1000, 3, COMMAND, &silent), WATCHDOG_HEALTHY);
    EXPECT_EQ(watchdog_judge(&v, 1, 60, 0, 0, 1000 + 179999, 3, COMMAND, &silent),
              WATCHDOG_HEALTHY);
    EXPECT_EQ(watchdog_judge(&v, 1, 60, 0, 0, 1000 + 180000, 3, COMMAND, &silent),
              WATCHDOG_HEARTBEAT_HUNG);
    EXPECT_EQ(silent, 180);
}

TEST(WatchdogJudge, AnIdleRunnerIsNeverHungAndABusyOneOnlyAfterTheLongestCommand)
{
    watchdog_watch w = {0, 0, 0, 0};
    int silent = -1;
    // Idle for a day: three commands started, three ended.
    EXPECT_EQ(watchdog_judge(&w, 0, 0, 3, 3, 86400 * 1000LL, PULSE, COMMAND, &silent),
              WATCHDOG_HEALTHY);
    // The fourth starts and runs.
    EXPECT_EQ(watchdog_judge(&w, 0, 0, 4, 3, 86400 * 1000LL, PULSE, COMMAND, &silent),
              WATCHDOG_HEALTHY);
    EXPECT_EQ(watchdog_judge(&w, 0, 0, 4, 3, (86400 + 7199) * 1000LL, PULSE, COMMAND, &silent),
              WATCHDOG_HEALTHY);
    // It ends and the fifth starts between two looks: a new command, a new bound.
    EXPECT_EQ(watchdog_judge(&w, 0, 0, 5, 4, (86400 + 7200) * 1000LL, PULSE, COMMAND, &silent),
              WATCHDOG_HEALTHY);
    EXPECT_EQ(watchdog_judge(&w, 0, 0, 5, 4, (86400 + 14400) * 1000LL, PULSE, COMMAND, &silent),
              WATCHDOG_COMMAND_HUNG);
    EXPECT_EQ(silent, 7200);
}

TEST(WatchdogNotify, ReachesAPathSocket)
{
    char dir[] = "/tmp/notifyXXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    std::string path = std::string(dir) + "/notify";
    NotifySocket systemd(path);
    ASSERT_TRUE(systemd.bound());
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(watchdog_notify(fd, path.c_str(), "READY=1"), 0);
    EXPECT_EQ(watchdog_notify(fd, path.c_str(), "WATCHDOG=1"), 0);
    EXPECT_EQ(systemd.next(), "READY=1");
    EXPECT_EQ(systemd.next(), "WATCHDOG=1");
    close(fd);
    unlink(path.c_str());
    rmdir(dir);
}

TEST(WatchdogNotify, ReachesAnAbstractSocket)
{
    std::string name = "@orkad-test-notify-" + std::to_string(getpid());
    NotifySocket systemd(name);
    ASSERT_TRUE(systemd.bound());
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(watchdog_notify(fd, name.c_str(), "WATCHDOG=1"), 0);
    EXPECT_EQ(systemd.next(), "WATCHDOG=1");
    close(fd);
}

TEST(WatchdogNotify, NoListenerNoSocketNoAddress)
{
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(watchdog_notify(fd, "/nonexistent/notify", "READY=1"), -1);
    EXPECT_EQ(watchdog_notify(-1, "@anything", "READY=1"), -1);
    EXPECT_EQ(watchdog_notify(fd, "", "READY=1"), -1);
    close(fd);
}
