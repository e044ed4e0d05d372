#include "devroot.h"
#include "log.h"
#include "orkad.h"
#include "testkit.h"
#include "watchdog.h"

#include <atomic>
#include <chrono>
#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <syslog.h>
#include <thread>
#include <unistd.h>

using namespace testkit;

namespace
{

class OrkadTest : public ::testing::Test
{
  protected:
    DeviceRoot root;
    void SetUp() override
    {
        log_init();
        dev_openlog("tq_agent", LOG_PID, LOG_USER);
    }
};

void no_core(void)
{
    struct rlimit none = {0, 0};
    setrlimit(RLIMIT_CORE, &none);
}

// The message part of a datagram: after "tq_agent[pid]: ".
std::string message_of(const std::string &datagram)
{
    size_t at = datagram.find("]: ");
    return at == std::string::npos ? datagram : datagram.substr(at + 3);
}

} // namespace

TEST_F(OrkadTest, ExitInChildBecomesARealSegfault)
{
    SyslogSink sink(root);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        no_core();
        on_exit(exit_handler, nullptr);
        exit(3);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGSEGV);

    std::string d = sink.next();
    EXPECT_EQ(d.substr(0, 4), "<10>"); // LOG_USER | LOG_CRIT
    EXPECT_NE(d.find(" tq_agent[" + std::to_string(pid) + "]: "), std::string::npos) << d;
    EXPECT_EQ(message_of(d),
              "unexpected program termination with exit status 3, forcing a crash\n");
    auto log = log_messages(root.at("/rw/orkad.log"));
    EXPECT_EQ(log.back(), "unexpected program termination with exit status 3, forcing a crash");
}

TEST_F(OrkadTest, SupervisorRestartsWhateverTheChildDid)
{
    SyslogSink sink(root);
    pid_t supervisor = fork();
    ASSERT_GE(supervisor, 0);
    if (supervisor == 0) {
        setpgid(0, 0);
        no_core();
        supervise();
        // In each new child.
        dev_syslog(LOG_INFO, "child restarts=%d", restarts);
        switch (restarts) {
        case 0:
            _exit(3);
        case 1:
            on_exit(exit_handler, nullptr);
            exit(0);
        case 2:
            raise(SIGKILL);
            break;
        default:
            for (;;)
                pause();
        }
        _exit(99);
    }

    std::vector<std::string> got;
    for (int i = 0; i < 12; i++) {
        std::string d = sink.next(5000);
        if (d.empty())
            break;
        got.push_back(message_of(d));
        if (got.back() == "child restarts=3")
            break;
    }
    kill(-supervisor, SIGKILL);
    waitpid(supervisor, nullptr, 0);

    std::vector<std::string> want = {
        "child restarts=0",
        " ****  Program exit (status 3)",
        " ****  Attempting to restart!",
        "child restarts=1",
        "unexpected program termination with exit status 0, forcing a crash\n",
        " ****  Program killed by signal '11'",
        " ****  Attempting to restart!",
        "child restarts=2",
        " ****  Program killed by signal '9'",
        " ****  Attempting to restart!",
        "child restarts=3",
    };
    EXPECT_EQ(got, want);
}

// A supervisor in a process group of its own; each child it starts runs
// child(restarts) after logging "child restarts=N".
pid_t start_supervisor(void (*child)(int),
                       const std::vector<std::pair<const char *, std::string>> &env)
{
    pid_t supervisor = fork();
    if (supervisor != 0)
        return supervisor;
    setpgid(0, 0);
    no_core();
    for (const auto &[name, value] : env)
        setenv(name, value.c_str(), 1);
    supervise();
    dev_syslog(LOG_INFO, "child restarts=%d", restarts);
    child(restarts);
    for (;;)
        pause();
}

void stop_supervisor(pid_t supervisor)
{
    kill(-supervisor, SIGKILL);
    waitpid(supervisor, nullptr, 0);
}

// The next n syslog messages.
std::vector<std::string> messages(SyslogSink &sink, size_t n, int timeout_ms = 10000)
{
    std::vector<std::string> got;
    while (got.size() < n) {
        std::string d = sink.next(timeout_ms);
        if (d.empty())
            break;
        got.push_back(message_of(d));
    }
    return got;
}

TEST_F(OrkadTest, AHeartbeatLoopThatStandsStillIsAbortedAndReplaced)
{
    SyslogSink sink(root);
    pid_t supervisor = start_supervisor(
        [](int n) {
            // The first child's loop shows one sign of life and no other.
            if (n == 0)
                watchdog_heartbeat(1);
        },
        {{"ORKAD_TEST_LONGEST_PULSE", "2"}});
    auto got = messages(sink, 5);
    stop_supervisor(supervisor);
    std::vector<std::string> want = {
        "child restarts=0",
        " ****  Program hung: no heartbeat for 3 seconds, aborting it",
        " ****  Program killed by signal '6'",
        " ****  Attempting to restart!",
        "child restarts=1",
    };
    EXPECT_EQ(got, want);
}

TEST_F(OrkadTest, AStoppedChildIsKilledWhenTheAbortCannotEndIt)
{
    SyslogSink sink(root);
    pid_t supervisor = start_supervisor(
        [](int n) {
            if (n == 0) {
                watchdog_heartbeat(1);
                raise(SIGSTOP);
            }
        },
        {{"ORKAD_TEST_LONGEST_PULSE", "1"}});
    auto got = messages(sink, 5);
    stop_supervisor(supervisor);
    // Three intervals of 1 s outlast the 1-s pulse; the abort stays pending in
    // the stopped child until SIGKILL, five seconds later.
    std::vector<std::string> want = {
        "child restarts=0",
        " ****  Program hung: no heartbeat for 3 seconds, aborting it",
        " ****  Program killed by signal '9'",
        " ****  Attempting to restart!",
        "child restarts=1",
    };
    EXPECT_EQ(got, want);
}

TEST_F(OrkadTest, ACommandThatNeverEndsIsAbortedAndReplaced)
{
    SyslogSink sink(root);
    pid_t supervisor = start_supervisor(
        [](int n) {
            if (n == 0) {
                // One command runs and ends, the next never does.
                watchdog_command_started();
                watchdog_command_finished();
                watchdog_command_started();
            }
        },
        {{"ORKAD_TEST_LONGEST_COMMAND", "2"}});
    auto got = messages(sink, 5);
    stop_supervisor(supervisor);
    std::vector<std::string> want = {
        "child restarts=0",
        " ****  Program hung: command running for 2 seconds, aborting it",
        " ****  Program killed by signal '6'",
        " ****  Attempting to restart!",
        "child restarts=1",
    };
    EXPECT_EQ(got, want);
}

TEST_F(OrkadTest, AChildStillStartingUpOrIdleIsLeftAlone)
{
    SyslogSink sink(root);
    pid_t supervisor = start_supervisor(
        [](int) {}, {{"ORKAD_TEST_LONGEST_PULSE", "1"}, {"ORKAD_TEST_LONGEST_COMMAND", "1"}});
    auto got = messages(sink, 2, 4000);
    stop_supervisor(supervisor);
    EXPECT_EQ(got, std::vector<std::string>{"child restarts=0"});
}

TEST_F(OrkadTest, SystemdHearsReadyOnceAndTheWatchdogFedByTheSupervisor)
{
    SyslogSink sink(root);
    std::string name = "@orkad-supervisor-notify-" + std::to_string(getpid());
    NotifySocket systemd(name);
    ASSERT_TRUE(systemd.bound());
    pid_t supervisor = start_supervisor(
        [](int) {
            // Only the supervisor speaks to systemd.
            dev_syslog(LOG_INFO, "child sees NOTIFY_SOCKET=%s WATCHDOG_USEC=%s",
                       getenv("NOTIFY_SOCKET") ? getenv("NOTIFY_SOCKET") : "(none)",
                       getenv("WATCHDOG_USEC") ? getenv("WATCHDOG_USEC") : "(none)");
        },
        {{"NOTIFY_SOCKET", name}, {"WATCHDOG_USEC", "400000"}});
    std::string first = sink.wait_for("child restarts=0");
    ASSERT_FALSE(first.empty());
    EXPECT_EQ(message_of(sink.next()), "child sees NOTIFY_SOCKET=(none) WATCHDOG_USEC=(none)");

    EXPECT_EQ(systemd.next(), "READY=1");
    // Every half of the 400-ms watchdog: five feeds in about a second.
    auto t0 = std::chrono::steady_clock::now();
    for (int i = 0; i < 5; i++)
        EXPECT_EQ(systemd.next(), "WATCHDOG=1");
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(1800));

    // A restarted child makes the service no readier: feeds only.
    pid_t child = std::stoi(first.substr(first.find('[') + 1));
    kill(child, SIGKILL);
    EXPECT_FALSE(sink.wait_for("child restarts=1").empty());
    for (int i = 0; i < 5; i++)
        EXPECT_EQ(systemd.next(), "WATCHDOG=1");
    stop_supervisor(supervisor);
}

TEST_F(OrkadTest, LiveCoredumpLeavesTheCallerRunning)
{
    SyslogSink sink(root);
    // Cores go to the working folder when the system names them plainly.
    std::string pattern = read_file("/proc/sys/kernel/core_pattern");
    bool countable = pattern.rfind("core", 0) == 0 && pattern.find('/') == std::string::npos;
    char cwd[1024];
    ASSERT_NE(getcwd(cwd, sizeof(cwd)), nullptr);
    ASSERT_EQ(chdir(root.path().c_str()), 0);
    struct rlimit old, unlimited = {RLIM_INFINITY, RLIM_INFINITY};
    getrlimit(RLIMIT_CORE, &old);
    setrlimit(RLIMIT_CORE, &unlimited);

    live_coredump(SIGUSR2);
    setrlimit(RLIMIT_CORE, &old);

    // Still here, and the copy said why it crashed.
    std::string d = sink.next();
    EXPECT_EQ(message_of(d),
              "unexpected program termination with exit status 0, forcing a crash\n");
    EXPECT_EQ(d.find("[" + std::to_string(getpid()) + "]"), std::string::npos);
    if (countable) {
        int cores = 0;
        DIR *dir = opendir(root.path().c_str());
        for (struct dirent *e; (e = readdir(dir)) != nullptr;)
            if (strncmp(e->d_name, "core", 4) == 0)
                cores++;
        closedir(dir);
        EXPECT_EQ(cores, 1);
    }
    EXPECT_EQ(chdir(cwd), 0);
}

TEST_F(OrkadTest, LiveCoredumpWhileAnotherThreadWritesTheLog)
{
    SyslogSink sink(root);
    struct rlimit old;
    getrlimit(RLIMIT_CORE, &old);
    no_core();
    // A writer is inside the main log when the dump is asked for. A copy made
    // at that moment would find the lock held by a thread it does not have,
    // never get to its crash, and leave the caller waiting for it for ever.
    std::atomic<bool> held{false};
    std::atomic<bool> dumping{false};
    // Let go once the dump has begun and its thread sleeps: waiting for
    // this lock, or, had it forked with the lock held, waiting for its copy.
    const pid_t dumper = gettid();
    std::thread writer([&held, &dumping, dumper] {
        std::lock_guard<std::mutex> hold(orkad_log->lock);
        held = true;
        wait_for([&dumping, dumper] { return dumping && thread_asleep(dumper); });
    });
    EXPECT_TRUE(wait_for([&held] { return held.load(); }));
    alarm(20); // a hang ends the test instead of the run
    dumping = true;
    live_coredump(SIGUSR2);
    alarm(0);
    writer.join();
    setrlimit(RLIMIT_CORE, &old);

    std::string d = sink.wait_for("forcing a crash");
    EXPECT_EQ(message_of(d),
              "unexpected program termination with exit status 0, forcing a crash\n");
    std::vector<std::string> log = log_messages(root.at("/rw/orkad.log"));
    ASSERT_FALSE(log.empty());
    EXPECT_EQ(log.back(), "unexpected program termination with exit status 0, forcing a crash");
    // Every lock came back: the caller writes on.
    log_fprint(orkad_log, "after the dump\n");
    EXPECT_EQ(log_messages(root.at("/rw/orkad.log")).back(), "after the dump");
}

// The threads of this process.
static size_t task_count()
{
    size_t n = 0;
    DIR *d = opendir("/proc/self/task");
    if (d == nullptr)
        return 0;
    while (struct dirent *e = readdir(d))
        if (e->d_name[0] != '.')
            n++;
    closedir(d);
    return n;
}

// A switch without a radio: the monitor has nothing to watch, so its thread
// ends as soon as it starts, without a word in the log and without a thread
// of its own left behind.
TEST_F(OrkadTest, RadioMonitorReturnsAtOnce)
{
    log_fprint(orkad_log, "before the monitor\n");
    const std::string log_before = read_file(root.at("/rw/orkad.log"));
    const size_t tasks_before = task_count();
    auto start = std::chrono::steady_clock::now();
    radio_monitor(nullptr, nullptr, nullptr);
    auto took = std::chrono::steady_clock::now() - start;
    // Generous for a loaded machine or an emulator; a monitor that waited
    // for anything at all would take far longer.
    EXPECT_LT(took, std::chrono::milliseconds(500));
    EXPECT_EQ(task_count(), tasks_before);
    EXPECT_EQ(read_file(root.at("/rw/orkad.log")), log_before);
}

TEST(OrkadHelp, PrintsTheUsageText)
{
    testing::internal::CaptureStdout();
    help("/usr/bin/orkad");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Usage: /usr/bin/orkad [options]\n"
                                                      " -h/--help      help/usage\n"
                                                      " -d/--debug     show debug information\n"
                                                      " -v/--version   display version\n"
                                                      " -s/--site      phone-home site url\n"
                                                      " -n/--nolog     do not log anything\n");
}
