#include "listener.h"
#include "log.h"
#include "table.h"
#include "testkit.h"
#include "utils.h"
#include "work.h"

#include <atomic>
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <functional>
#include <mutex>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <grp.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace testkit;

// Counts the calling thread's datagram sends, so the retries of
// listener_response can be seen.
thread_local int sendto_calls;

extern "C" ssize_t sendto(int fd, const void *buf, size_t len, int flags,
                          const struct sockaddr *addr, socklen_t alen)
{
    using fn_t = ssize_t (*)(int, const void *, size_t, int, const struct sockaddr *, socklen_t);
    static fn_t real = reinterpret_cast<fn_t>(dlsym(RTLD_NEXT, "sendto"));
    sendto_calls++;
    return real(fd, buf, len, flags, addr, alen);
}

namespace
{

struct event_call {
    std::string tag;
    std::string event;
    std::string params; // compact dump, "null" when absent
    std::string thread;
};

std::mutex calls_lock;
std::condition_variable calls_cv;
std::vector<event_call> calls;

void record(const char *tag, const char *event, json_t *params)
{
    event_call c;
    c.tag = tag;
    c.event = event;
    if (params == nullptr) {
        c.params = "null";
    } else {
        char *s = json_dumps(params, JSON_COMPACT | JSON_ENCODE_ANY);
        c.params = s;
        free(s);
    }
    char name[16] = "";
    pthread_getname_np(pthread_self(), name, sizeof(name));
    c.thread = name;
    std::lock_guard<std::mutex> g(calls_lock);
    calls.push_back(c);
    calls_cv.notify_all();
}

void first_cb(const char *event, json_t *params)
{
    record("first", event, params);
}

void second_cb(const char *event, json_t *params)
{
    record("second", event, params);
}

void third_cb(const char *event, json_t *params)
{
    record("third", event, params);
}

std::vector<event_call> wait_calls(size_t n, int timeout_ms = 3000)
{
    std::unique_lock<std::mutex> l(calls_lock);
    calls_cv.wait_for(l, std::chrono::milliseconds(timeout_ms), [n] { return calls.size() >= n; });
    return calls;
}

int threads_named(const char *name)
{
    int n = 0;
    for (int i = 0; i < next_thread; i++)
        n += threads[i].name != nullptr && strcmp(threads[i].name, name) == 0;
    return n;
}

// A message of exactly len bytes for event "big".
std::string sized_message(size_t len)
{
    std::string head = R"({"event":"big","params":")";
    std::string tail = R"("})";
    return head + std::string(len - head.size() - tail.size(), 'x') + tail;
}

class ListenerTest : public LoggedTest
{
  protected:
    // A datagram socket bound at path, its address in a; -1 when it cannot
    // be.
    static int bound_socket(const std::string &path, struct sockaddr_un &a)
    {
        int r = socket(AF_UNIX, SOCK_DGRAM, 0);
        a = {};
        a.sun_family = AF_UNIX;
        snprintf(a.sun_path, sizeof(a.sun_path), "%s", path.c_str());
        if (r >= 0 && bind(r, reinterpret_cast<struct sockaddr *>(&a), sizeof(a)) != 0) {
            close(r);
            return -1;
        }
        return r;
    }

    // A datagram of `over` bytes is cut to `limit` and then fails to parse
    // (it is logged as far as it was read); one of exactly `limit` bytes is
    // taken.
    void expect_limit(size_t limit, size_t over,
                      const std::function<void(const std::string &)> &send)
    {
        send(sized_message(over));
        send(sized_message(limit));
        auto got = wait_calls(1);
        ASSERT_EQ(got.size(), 1u);
        EXPECT_EQ(got[0].params.size(),
                  2 + limit - std::string(R"({"event":"big","params":""})").size());
        EXPECT_TRUE(wait_logged("len = " + std::to_string(limit) + ", message = '" +
                                sized_message(over).substr(0, limit) + "'"));
    }

    // Sends one datagram to the Unix socket at a device path once it exists.
    void unix_send(const std::string &device_path, const std::string &msg)
    {
        std::string path = root.at(device_path);
        ASSERT_TRUE(wait_for([&] { return file_exists(path); })) << path;
        int s = socket(AF_UNIX, SOCK_DGRAM, 0);
        struct sockaddr_un to = {};
        to.sun_family = AF_UNIX;
        snprintf(to.sun_path, sizeof(to.sun_path), "%s", path.c_str());
        ssize_t n = sendto(s, msg.data(), msg.size(), 0, reinterpret_cast<struct sockaddr *>(&to),
                           sizeof(to));
        close(s);
        ASSERT_EQ(n, static_cast<ssize_t>(msg.size())) << strerror(errno);
    }

    // A private network namespace with loopback up, so UDP ports are ours.
    void netns()
    {
        ASSERT_EQ(unshare(CLONE_NEWNET), 0) << strerror(errno);
        ASSERT_EQ(system("ip link set lo up"), 0);
    }

    static bool udp_bound(int port)
    {
        char want[16];
        snprintf(want, sizeof(want), ":%04X ", port);
        return read_file("/proc/net/udp").find(want) != std::string::npos;
    }

    void udp_send(int port, const std::string &msg)
    {
        ASSERT_TRUE(wait_for([port] { return udp_bound(port); }));
        int s = socket(AF_INET, SOCK_DGRAM, 0);
        struct sockaddr_in to = {};
        to.sin_family = AF_INET;
        to.sin_port = htons(port);
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ssize_t n = sendto(s, msg.data(), msg.size(), 0, reinterpret_cast<struct sockaddr *>(&to),
                           sizeof(to));
        close(s);
        ASSERT_EQ(n, static_cast<ssize_t>(msg.size())) << strerror(errno);
    }
};

} // namespace

TEST_F(ListenerTest, TwoCallbacksRunInRegistrationOrder)
{
    ASSERT_EQ(listener_register("ping", first_cb, nullptr), 0);
    ASSERT_EQ(listener_register("ping", second_cb, ""), 0); // "" is the default socket too
    EXPECT_EQ(count("registered 'ping' listener on 'unix:/tmp/orkad_socket'"), 2);
    EXPECT_TRUE(
        wait_logged("'unix:/tmp/orkad_socket' Unix listener started for /tmp/orkad_socket "));

    unix_send("/tmp/orkad_socket", R"({"event":"ping","params":{"n":1}})");
    auto got = wait_calls(2);
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].tag, "first");
    EXPECT_EQ(got[1].tag, "second");

    for (const event_call &c : got) {
        EXPECT_EQ(c.event, "ping");
        EXPECT_EQ(c.params, R"({"n":1})");
        EXPECT_EQ(c.thread, "Unix listener");
    }
    struct listener *l = listener_lookup(nullptr, "ping");
    ASSERT_NE(l, nullptr);
    ASSERT_NE(l->next, nullptr);
    EXPECT_EQ(l->fn, first_cb);
    EXPECT_EQ(l->next->fn, second_cb);
    EXPECT_TRUE(wait_for([l] { return l->hits.load() == 1 && l->next->hits.load() == 1; }));
    EXPECT_EQ(threads_named("Unix listener"), 1);
}

TEST_F(ListenerTest, LaterRegistrationsGoToTheEndOfTheChain)
{
    ASSERT_EQ(listener_register("pong", second_cb, nullptr), 0);
    ASSERT_EQ(listener_register("pong", third_cb, nullptr), 0);
    ASSERT_EQ(listener_register("pong", first_cb, nullptr), 0);
    const char msg[] = R"({"event":"pong"})";
    ASSERT_EQ(listener_internal_send(nullptr, msg, sizeof(msg) - 1), 0);
    auto got = wait_calls(3, 0);
    ASSERT_EQ(got.size(), 3u);
    EXPECT_EQ(got[0].tag, "second");
    EXPECT_EQ(got[1].tag, "third");
    EXPECT_EQ(got[2].tag, "first");
    for (struct listener *l = listener_lookup(nullptr, "pong"); l != nullptr; l = l->next)
        EXPECT_EQ(l->hits.load(), 1u);
}

TEST_F(ListenerTest, OneThreadPerSocketName)
{
    netns();
    ASSERT_EQ(listener_register("a", first_cb, "udp:5140"), 0);
    ASSERT_EQ(listener_register("a", first_cb, nullptr), 0);
    EXPECT_EQ(threads_named("UDP listener"), 1);
    EXPECT_EQ(threads_named("Unix listener"), 1);
    ASSERT_EQ(listener_register("b", second_cb, "udp:5140"), 0);
    ASSERT_EQ(listener_register("b", second_cb, "unix:/tmp/orkad_socket"), 0);
    EXPECT_EQ(threads_named("UDP listener"), 1);
    EXPECT_EQ(threads_named("Unix listener"), 1);
    EXPECT_EQ(next_thread, 2);
    EXPECT_TRUE(wait_logged("'udp:5140' UDP listener started on port 5140"));

    // Each socket routes only its own registrations.
    udp_send(5140, R"({"event":"b"})");
    auto got = wait_calls(1);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].tag, "second");
    EXPECT_EQ(got[0].params, "null");
    EXPECT_EQ(got[0].thread, "UDP listener");
}

TEST_F(ListenerTest, BadDatagramIsDroppedAndTheNextOneProcessed)
{
    ASSERT_EQ(listener_register("ping", first_cb, nullptr), 0);
    unix_send("/tmp/orkad_socket", "not json");
    unix_send("/tmp/orkad_socket", R"({"event":"ping","params":"text"})");
    auto got = wait_calls(1);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].params, R"("text")");

    json_error_t err;
    ASSERT_EQ(json_loadb("not json", 8, 0, &err), nullptr);
    EXPECT_TRUE(logged(std::string("listener: error decoding message: ") + err.text));
    EXPECT_TRUE(logged("len = 8, message = 'not json'"));
}

TEST_F(ListenerTest, NonStringEventUsesTheTypeWording)
{
    ASSERT_EQ(listener_register("ping", first_cb, nullptr), 0);
    const char msg[] = R"({"event":5})";
    EXPECT_EQ(listener_internal_send(nullptr, msg, sizeof(msg) - 1), 0);
    EXPECT_TRUE(logged("listener: missing or non-string 'type' element"));
    const char arr[] = R"([1,2])";
    EXPECT_EQ(listener_internal_send(nullptr, arr, sizeof(arr) - 1), 0);
    EXPECT_EQ(count("listener: missing or non-string 'type' element"), 2);
    const char other[] = R"({"event":"pong"})";
    EXPECT_EQ(listener_internal_send(nullptr, other, sizeof(other) - 1), 0);
    EXPECT_TRUE(logged("listener: no listener registered for event 'pong'"));
    EXPECT_TRUE(wait_calls(0, 0).empty());
}

TEST_F(ListenerTest, InternalSendRunsOnTheCallingThread)
{
    const char msg[] = R"({"event":"ping","params":[1,"two"]})";
    EXPECT_EQ(listener_internal_send(nullptr, msg, sizeof(msg) - 1), -1);
    EXPECT_EQ(listener_internal_send("unix:/tmp/never", msg, sizeof(msg) - 1), -1);

    ASSERT_EQ(listener_register("ping", first_cb, "unix:/tmp/orkad_syslog_socket"), 0);
    EXPECT_EQ(listener_internal_send(nullptr, msg, sizeof(msg) - 1), -1); // default not registered
    pthread_setname_np(pthread_self(), "injector");
    EXPECT_EQ(listener_internal_send("unix:/tmp/orkad_syslog_socket", msg, sizeof(msg) - 1), 0);
    auto got = wait_calls(1, 0);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].thread, "injector");
    EXPECT_EQ(got[0].params, R"([1,"two"])");
}

TEST_F(ListenerTest, NameLimits)
{
    std::string e127(127, 'e'), e128(128, 'e');
    EXPECT_EQ(listener_register(e128.c_str(), first_cb, nullptr), -1);
    EXPECT_TRUE(logged("listener_register: 'event' string too long"));
    EXPECT_EQ(next_thread, 0); // refused before any socket was made
    EXPECT_EQ(listener_register(e127.c_str(), first_cb, nullptr), 0);
    ASSERT_NE(listener_lookup(nullptr, e127.c_str()), nullptr);

    std::string s255 = "unix:/tmp/" + std::string(245, 's');
    std::string s256 = s255 + "s";
    EXPECT_EQ(listener_register("x", first_cb, s256.c_str()), -1);
    EXPECT_TRUE(logged("listener_register: 'socket_name' string too long"));
    EXPECT_EQ(listener_register("x", first_cb, s255.c_str()), 0);
}

TEST_F(ListenerTest, UnixDatagramLimit)
{
    ASSERT_EQ(listener_register("big", first_cb, nullptr), 0);
    expect_limit(1024, 1025, [this](const std::string &m) { unix_send("/tmp/orkad_socket", m); });
}

TEST_F(ListenerTest, UdpDatagramLimit)
{
    netns();
    ASSERT_EQ(listener_register("big", first_cb, "udp:5141"), 0);
    expect_limit(8192, 8200, [this](const std::string &m) { udp_send(5141, m); });
}

TEST_F(ListenerTest, ReceiverThatCannotBindEndsButInjectionStillWorks)
{
    ASSERT_EQ(listener_register("ping", first_cb, "unix:/no/such/dir/sock"), 0);
    EXPECT_TRUE(wait_logged("'/no/such/dir/sock' failed bind, 'No such file or directory' "
                            "(errno = 2)"));
    EXPECT_TRUE(wait_logged("thread_run: thread 'Unix listener' terminated!"));
    const char msg[] = R"({"event":"ping"})";
    EXPECT_EQ(listener_internal_send("unix:/no/such/dir/sock", msg, sizeof(msg) - 1), 0);
    EXPECT_EQ(wait_calls(1, 0).size(), 1u);
}

TEST_F(ListenerTest, UnixReceiverNeedsAUnixName)
{
    ASSERT_EQ(listener_register("ping", first_cb, "tcp:80"), 0);
    EXPECT_TRUE(wait_for([this] {
        // No newline of its own: the next entry follows on the same line.
        return log_text().find("Unix listener bad parameter tcp:80") != std::string::npos;
    }));
}

TEST_F(ListenerTest, ResponseReachesAUnixSocket)
{
    std::string path = root.at("/tmp/reply.sock");
    struct sockaddr_un a;
    int r = bound_socket(path, a);
    ASSERT_GE(r, 0);

    sendto_calls = 0;
    listener_response("/tmp/reply.sock", "hello", 5);
    EXPECT_EQ(sendto_calls, 1);
    char buf[16];
    struct pollfd p = {r, POLLIN, 0};
    ASSERT_EQ(poll(&p, 1, 2000), 1);
    EXPECT_EQ(recv(r, buf, sizeof(buf), 0), 5);
    EXPECT_EQ(std::string(buf, 5), "hello");
    close(r);
}

TEST_F(ListenerTest, ResponseToNobodyIsTriedOnce)
{
    sendto_calls = 0;
    listener_response("/tmp/nobody.sock", "x", 1);
    EXPECT_EQ(sendto_calls, 1);
    EXPECT_TRUE(logged("listener_response: sendto fail errno 2: No such file or directory"));
}

TEST_F(ListenerTest, ResponseToABusyReceiverIsTriedFourTimes)
{
    std::string path = root.at("/tmp/busy.sock");
    struct sockaddr_un a;
    int r = bound_socket(path, a);
    ASSERT_GE(r, 0);
    // Fill the receiver's queue until the kernel refuses more.
    int f = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    int sent = 0;
    while (sendto(f, "fill", 4, 0, reinterpret_cast<struct sockaddr *>(&a), sizeof(a)) == 4)
        ASSERT_LT(++sent, 100000);
    ASSERT_EQ(errno, EAGAIN);

    sendto_calls = 0;
    listener_response("/tmp/busy.sock", "late", 4);
    EXPECT_EQ(sendto_calls, 4);
    EXPECT_TRUE(
        logged("listener_response: sendto fail errno 11: Resource temporarily unavailable"));
    close(f);
    close(r);
}

namespace
{
void *refuse_alloc(size_t)
{
    return nullptr;
}
} // namespace

TEST_F(ListenerTest, RefusedInsertionIsReportedNotRegistered)
{
    ASSERT_EQ(listener_register("kept", first_cb, nullptr), 0);
    // The receiver's first line is written before the one looked for.
    ASSERT_TRUE(
        wait_logged("'unix:/tmp/orkad_socket' Unix listener started for /tmp/orkad_socket "));
    table_alloc = refuse_alloc;
    int rc = listener_register("lost", second_cb, nullptr);
    table_alloc = malloc;
    EXPECT_EQ(rc, -2);
    EXPECT_EQ(messages().back(),
              "listener_register: cannot insert 'lost' listener on 'unix:/tmp/orkad_socket' (-2)");
    EXPECT_EQ(count("registered 'lost' listener on 'unix:/tmp/orkad_socket'"), 0);
    EXPECT_EQ(listener_lookup(nullptr, "lost"), nullptr);
    const char msg[] = R"({"event":"lost"})";
    ASSERT_EQ(listener_internal_send(nullptr, msg, sizeof(msg) - 1), 0);
    EXPECT_TRUE(logged("listener: no listener registered for event 'lost'"));
}

// A local user who is not root cannot hand the agent an event, whatever the
// umask the agent started with; root can.
TEST_F(ListenerTest, OnlyRootCanSendToTheUnixSockets)
{
    mode_t old = umask(0);
    // Let everybody reach the socket's directory: only the socket's own
    // mode may stand in the way.
    ASSERT_EQ(chmod(root.path().c_str(), 0755), 0);
    ASSERT_EQ(chmod(root.at("/tmp").c_str(), 01777), 0);
    ASSERT_EQ(listener_register("knock", first_cb, nullptr), 0);
    std::string path = root.at("/tmp/orkad_socket");
    ASSERT_TRUE(wait_for([&] { return file_exists(path); })) << path;
    umask(old);
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);

    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        if (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0)
            _exit(2);
        int s = socket(AF_UNIX, SOCK_DGRAM, 0);
        struct sockaddr_un to = {};
        to.sun_family = AF_UNIX;
        snprintf(to.sun_path, sizeof(to.sun_path), "%s", path.c_str());
        const char msg[] = R"({"event":"knock","params":{"who":"nobody"}})";
        ssize_t n = sendto(s, msg, sizeof(msg) - 1, 0, reinterpret_cast<struct sockaddr *>(&to),
                           sizeof(to));
        _exit(n < 0 && errno == EACCES ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "a user who is not root reached the socket";

    unix_send("/tmp/orkad_socket", R"({"event":"knock","params":{"who":"root"}})");
    auto got = wait_calls(1);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].params, R"({"who":"root"})");
}

TEST_F(ListenerTest, DeeplyNestedDatagramIsDroppedAndTheNextOneProcessed)
{
    ASSERT_EQ(listener_register("ping", first_cb, nullptr), 0);
    // Well-formed, and a few levels deeper than any event may be.
    std::string deep = R"({"event":"ping","params":)" + std::string(JSON_MAX_DEPTH, '[') +
                       std::string(JSON_MAX_DEPTH, ']') + "}";
    json_error_t err;
    json_t *parsed = json_loadb(deep.data(), deep.size(), 0, &err);
    ASSERT_NE(parsed, nullptr); // jansson alone would take it
    json_decref(parsed);
    unix_send("/tmp/orkad_socket", deep);
    unix_send("/tmp/orkad_socket", R"({"event":"ping","params":"after"})");
    auto got = wait_calls(1);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].params, R"("after")");
    EXPECT_TRUE(logged("listener: error decoding message: maximum parsing depth reached"));
    EXPECT_TRUE(logged("len = " + std::to_string(deep.size()) + ", message = '" + deep + "'"));
}

namespace
{
std::atomic<int> quiet_calls{0};
void quiet_cb(const char *, json_t *)
{
    quiet_calls.fetch_add(1, std::memory_order_relaxed);
}
} // namespace

TEST_F(ListenerTest, RegisteringWhileEventsFlowOnTheSocket)
{
    // A module registers its events one after the other while the socket's
    // thread, started by the first, may already be handling one (the
    // operator's status request comes whenever it comes). The ThreadSanitizer
    // build fails this test if a lookup and a link ever race.
    ASSERT_EQ(listener_register("e0", quiet_cb, nullptr), 0);
    std::atomic<bool> stop{false};
    std::thread sender([&stop] {
        const char msg[] = R"({"event":"e0"})";
        while (!stop.load())
            listener_internal_send(nullptr, msg, sizeof(msg) - 1);
    });
    for (int i = 1; i < 40; i++) {
        std::string e = "e" + std::to_string(i % 4);
        ASSERT_EQ(listener_register(e.c_str(), quiet_cb, nullptr), 0);
    }
    ASSERT_TRUE(wait_for([] { return quiet_calls.load() > 100; }));
    stop.store(true);
    sender.join();

    // Every registration landed: e0 has its first callback and nine more,
    // e1 to e3 ten each.
    for (int i = 0; i < 4; i++) {
        std::string e = "e" + std::to_string(i);
        int n = 0;
        for (struct listener *l = listener_lookup(nullptr, e.c_str()); l != nullptr; l = l->next)
            n++;
        EXPECT_EQ(n, 10) << e;
    }
    int before = quiet_calls.load();
    const char msg[] = R"({"event":"e3"})";
    ASSERT_EQ(listener_internal_send(nullptr, msg, sizeof(msg) - 1), 0);
    EXPECT_EQ(quiet_calls.load() - before, 10);
}
