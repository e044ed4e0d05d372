// The statistics stream: set.statistics and its limits, the tick handler's
// pace for samples and periods, the sender's documents and where they go,
// posting with its token retries, the heartbeat provider, the clock and the
// two key/value parsers.
#include "agent_fixture.h"
#include "auth.h"
#include "heartbeat.h"
#include "stats.h"
#include "stats_ifs.h"

#include <atomic>
#include <condition_variable>
#include <dirent.h>
#include <mutex>
#include <regex>

using namespace agent_test;

namespace
{

std::atomic<int> samples{0};

// True when the thread of that name sleeps on a futex: a mutex or, for a
// thread between jobs, its condition variable.
bool thread_in_futex(const std::string &name)
{
    DIR *d = opendir("/proc/self/task");
    if (d == nullptr)
        return false;
    bool found = false;
    while (struct dirent *e = readdir(d)) {
        std::string task = std::string("/proc/self/task/") + e->d_name;
        if (e->d_name[0] == '.' || read_file(task + "/comm") != name + "\n")
            continue;
        found = read_file(task + "/wchan").find("futex") != std::string::npos;
        break;
    }
    closedir(d);
    return found;
}

// How many times the thread of that name went to sleep of its own accord.
long thread_sleeps(const std::string &name)
{
    DIR *d = opendir("/proc/self/task");
    if (d == nullptr)
        return -1;
    long sleeps = -1;
    while (struct dirent *e = readdir(d)) {
        std::string task = std::string("/proc/self/task/") + e->d_name;
        if (e->d_name[0] == '.' || read_file(task + "/comm") != name + "\n")
            continue;
        std::string status = read_file(task + "/status");
        size_t at = status.find("voluntary_ctxt_switches:");
        if (at != std::string::npos && (at == 0 || status[at - 1] == '\n'))
            sleeps = strtol(status.c_str() + at + strlen("voluntary_ctxt_switches:"), nullptr, 10);
        break;
    }
    closedir(d);
    return sleeps;
}

unsigned long counting_clock(unsigned long)
{
    samples++;
    return 0;
}

// The sender's posts, kept instead of sent: the tick count each one started
// at and its body. While `hold` is set a post does not return, like one
// hanging on a slow controller.
struct Posts {
    std::mutex m;
    std::condition_variable cv;
    std::vector<unsigned int> at_tick;
    std::vector<std::string> bodies;
    bool hold = false;
} posts;

int recording_poster(const char *, const char *payload, int length)
{
    std::unique_lock<std::mutex> lk(posts.m);
    posts.at_tick.push_back(stats_ticks());
    posts.bodies.emplace_back(payload, (size_t)length);
    posts.cv.wait(lk, [] { return !posts.hold; });
    return 0;
}

size_t posted()
{
    std::lock_guard<std::mutex> lk(posts.m);
    return posts.at_tick.size();
}

std::vector<unsigned int> posted_at()
{
    std::lock_guard<std::mutex> lk(posts.m);
    return posts.at_tick;
}

void hold_posts(bool hold)
{
    std::lock_guard<std::mutex> lk(posts.m);
    posts.hold = hold;
    posts.cv.notify_all();
}

// A kernel with one interface, eth0 (index 2), whose counters and clock
// the test sets before each sample.
std::atomic<unsigned long> eth0_ms{0};
std::string eth0_proc;

unsigned long eth0_clock(unsigned long)
{
    samples++;
    return eth0_ms;
}

std::string params(long long ms, const std::string &href = "/st")
{
    return R"({"interval":)" + std::to_string(ms) + R"(,"serviceLink":{"href":")" + href + R"("}})";
}

class StatsTest : public AgentTest
{
  protected:
    void SetUp() override
    {
        AgentTest::SetUp();
        stats_init();
    }

    // Runs set.statistics; returns (code, message) as posted.
    Answer set_stats(const std::string &params, const char *id)
    {
        return run_command(cmd_set_stats, "set", "statistics", id, params, "/response/s");
    }

    // The tick as the signal thread runs it.
    static void tick() { do_stats(SIGALRM); }

    // Once the thread of that name was woken and has gone back to sleep
    // (after `before` sleeps): whatever that wake-up made it do is done.
    static bool slept_again(const std::string &name, long before)
    {
        return wait_for([&] { return thread_sleeps(name) > before && thread_in_futex(name); });
    }

    void fake_eth0()
    {
        eth0_proc = root.path() + "/fake_net_dev";
        stats_proc_net_dev = eth0_proc.c_str();
        stats_if_nametoindex = [](const char *n) -> unsigned int {
            return strcmp(n, "eth0") ? 0 : 2;
        };
        stats_if_indextoname = [](unsigned int i, char *n) -> char * {
            if (i != 2)
                return nullptr;
            strcpy(n, "eth0");
            return n;
        };
        stats_clock = eth0_clock;
        static std::string sys;
        sys = root.path() + "/fake_sys";
        stats_sys_class_net = sys.c_str();
        mkdir(sys.c_str(), 0755);
        mkdir((sys + "/eth0").c_str(), 0755);
        write_file(sys + "/eth0/operstate", "up\n");
        write_file(sys + "/eth0/speed", "1000\n");
        write_file(sys + "/eth0/duplex", "full\n");
    }
    // What the next sample of eth0 reads.
    static void eth0_at(unsigned long ms, unsigned long long rx, unsigned long long tx)
    {
        write_file(eth0_proc, "Inter-| x\n face | y\n  eth0: " + std::to_string(rx) +
                                  " 1 0 0 0 0 0 0 " + std::to_string(tx) + " 1 0 0 0 0 0 0\n");
        eth0_ms = ms;
    }
    // Ticks on to tick `to`, waiting for each sample the tick asks for (the
    // test's clock counts them).
    static void ticks_to(unsigned int to)
    {
        for (unsigned int t = stats_ticks() + 1; t <= to; t++) {
            tick();
            if (t % 5 == 0) {
                ASSERT_TRUE(wait_for([&] { return samples == (int)(t / 5); })) << "tick " << t;
            }
        }
    }
    // Starts a 15-second stream whose posts are recorded and held; returns
    // once the first period's post, at tick 15, hangs.
    void first_post_hangs()
    {
        stats_clock = counting_clock;
        stats_proc_net_dev = "/nonexistent";
        stats_poster = recording_poster;
        hold_posts(true);
        ASSERT_EQ(set_stats(params(15000), "a"), std::make_pair(0, std::string()));
        ticks_to(15);
        ASSERT_TRUE(wait_for([] { return posted() == 1; }));
    }
};

// The same against the lab: the headers on the wire, a refusal that takes
// its time to come.
class StatsLabTest : public StatsTest
{
  protected:
    bool with_lab() override { return true; }
    void SetUp() override
    {
        StatsTest::SetUp();
        lab->add_link("/response/s", "response");
    }
};

} // namespace

// ---- set.statistics ------------------------------------------------------

TEST_F(StatsTest, RegistersCommandAndTick)
{
    struct handler *h = signals_lookup(SIGALRM);
    ASSERT_NE(h, nullptr);
    EXPECT_STREQ(h->name, "do_stats");
    EXPECT_EQ(h->fn, do_stats);
    EXPECT_TRUE(logged("registered new handler 'do_stats' for signal 14"));
    // "set.statistics" is in the dispatcher's table: the name cannot be taken
    // twice, and a command of that name in a heartbeat reply reaches the
    // statistics handler, which answers with its own wording.
    EXPECT_TRUE(logged("registered 'set.statistics' command handler"));
    EXPECT_EQ(command_register("set.statistics", cmd_set_stats), -1);
    // Nothing runs before the first command.
    EXPECT_FALSE(stats_stream.enabled);
    EXPECT_EQ(get_stats_interval(), 0);
    struct itimerspec its;
    ASSERT_EQ(timer_gettime(stats_timer, &its), 0);
    EXPECT_EQ(its.it_value.tv_sec, 0);
    EXPECT_EQ(its.it_value.tv_nsec, 0);

    use_controller();
    Json list(json_loads(R"([{"action":"set","context":"statistics","flags":"","id":"reg",)"
                         R"("params":{"interval":14999}}])",
                         0, nullptr));
    process_bundle(list.get(), 1, "/response/s");
    EXPECT_EQ(answer_for("reg"), std::make_pair(-1, std::string("logging interval out of range")));
    EXPECT_TRUE(logged("set.statistics: command (set.statistics) received"));
}

TEST_F(StatsTest, IntervalLimitsKeepTheirOddWording)
{
    EXPECT_EQ(set_stats(params(14999), "a"),
              std::make_pair(-1, std::string("logging interval out of range")));
    EXPECT_FALSE(stats_stream.enabled);
    EXPECT_EQ(get_stats_interval(), 0);
    EXPECT_TRUE(logged("set.statistics: logging interval out of range"));
    EXPECT_TRUE(logged("set.statistics: command (set.statistics) received"));

    EXPECT_EQ(set_stats(params(15000), "b"), std::make_pair(0, std::string()));
    EXPECT_TRUE(stats_stream.enabled);
    EXPECT_EQ(get_stats_interval(), 15);
    EXPECT_EQ(set_stats(params(300999), "c"), std::make_pair(0, std::string()));
    EXPECT_EQ(get_stats_interval(), 300);
    EXPECT_EQ(set_stats(params(301000), "d"),
              std::make_pair(-1, std::string("logging interval out of range")));
    EXPECT_EQ(get_stats_interval(), 300);
}

TEST_F(StatsTest, MalformedCommandsAreAnsweredWithTheirMessage)
{
    use_controller();
    struct Case {
        const char *id, *command, *message;
    } cases[] = {
        {"m1", R"({"params":{}})", "missing or invalid 'id' element in command"},
        {"m2", R"({"id":"m2"})", "missing or invalid 'params' element"},
        {"m3", R"({"id":"m3","params":{"interval":"15000"}})",
         "missing or invalid 'interval' element in params"},
        {"m4", R"({"id":"m4","params":{"interval":15000}})",
         "missing or invalid 'serviceLink' element in params"},
        {"m5", R"({"id":"m5","params":{"interval":15000,"serviceLink":{"href":5}}})",
         "missing or invalid 'href' element in params"},
    };
    for (const auto &c : cases) {
        cmd_set_stats(strdup("set.statistics"), json_loads(c.command, 0, nullptr),
                      strdup("/response/s"));
        EXPECT_TRUE(logged(std::string("set.statistics: ") + c.message)) << c.message;
    }
    auto res = controller->wait_answers(5);
    ASSERT_EQ(res.size(), 5u);
    for (size_t i = 0; i < 5; i++) {
        EXPECT_EQ(res[i].code, -1);
        EXPECT_EQ(res[i].message, cases[i].message);
    }
    EXPECT_EQ(res[0].id, "");
    EXPECT_EQ(res[1].id, "m2");
    EXPECT_FALSE(stats_stream.enabled);
}

TEST_F(StatsTest, FirstCommandStartsEverythingOnce)
{
    ASSERT_EQ(set_stats(params(60000), "a"), std::make_pair(0, std::string()));
    EXPECT_TRUE(wait_logged("stats_collector: Started"));
    EXPECT_TRUE(wait_logged("stats_send: Started '/st','60'"));
    EXPECT_TRUE(logged("heartbeat_register_provider: registered 'status' heartbeat provider"));
    heartbeat_provider *first = heartbeat_providers.load();
    ASSERT_NE(first, nullptr);
    EXPECT_STREQ(first->name, "status");
    EXPECT_EQ(first->fn, status_hb_provider);
    struct itimerspec its;
    ASSERT_EQ(timer_gettime(stats_timer, &its), 0);
    EXPECT_EQ(its.it_interval.tv_sec, 1);
    EXPECT_EQ(its.it_interval.tv_nsec, 0);
    EXPECT_GT(its.it_value.tv_sec + its.it_value.tv_nsec, 0);

    int running = next_thread;
    ASSERT_EQ(set_stats(params(30000, "/other"), "b"), std::make_pair(0, std::string()));
    EXPECT_EQ(next_thread, running);
    EXPECT_EQ(get_stats_interval(), 30);
    int collector_tid = -1, sender_tid = -1;
    for (int i = 0; i < next_thread; i++) {
        if (strcmp(threads[i].name, "stats_collector") == 0)
            collector_tid = i;
        if (strcmp(threads[i].name, "stats_sender") == 0)
            sender_tid = i;
    }
    EXPECT_TRUE(logged("stats_start: stats collector is already running, tid " +
                       std::to_string(collector_tid)));
    EXPECT_TRUE(
        logged("stats_start: stats sender is already running, tid " + std::to_string(sender_tid)));
    EXPECT_TRUE(logged("stats_start: status heartbeat provider is already registered"));
    int providers = 0;
    for (heartbeat_provider *p = heartbeat_providers.load(); p != nullptr; p = p->next)
        providers += strcmp(p->name, "status") == 0;
    EXPECT_EQ(providers, 1);
}

// ---- the tick's pace -----------------------------------------------------

TEST_F(StatsTest, SamplesEveryFiveTicksAndPeriodsEveryInterval)
{
    stats_clock = counting_clock;
    stats_proc_net_dev = "/nonexistent"; // each sample ends at once
    ASSERT_EQ(set_stats(params(60000), "a"), std::make_pair(0, std::string()));
    EXPECT_EQ(stats_ticks(), 0u);
    std::vector<unsigned int> sampled_at, closed_at;
    for (unsigned int t = 1; t <= 120; t++) {
        int before = samples;
        unsigned long docs_before = stats_periods();
        tick();
        if (t % 5 == 0) {
            ASSERT_TRUE(wait_for([&] { return samples == before + 1; })) << "tick " << t;
            sampled_at.push_back(t);
        }
        if (t % 60 == 0) {
            ASSERT_TRUE(wait_for([&] { return stats_periods() == docs_before + 1; }))
                << "tick " << t;
            closed_at.push_back(t);
        }
    }
    EXPECT_EQ(stats_ticks(), 120u);
    // No tick in between woke either thread.
    EXPECT_EQ(samples, 24);
    EXPECT_EQ(stats_periods(), 2u);
    EXPECT_EQ(sampled_at.front(), 5u);
    EXPECT_EQ(sampled_at[1], 10u);
    EXPECT_EQ(sampled_at[2], 15u);
    EXPECT_EQ(closed_at, (std::vector<unsigned int>{60, 120}));
}

TEST_F(StatsTest, IntervalNotAMultipleOfFiveStillClosesEveryInterval)
{
    stats_clock = counting_clock;
    stats_proc_net_dev = "/nonexistent";
    ASSERT_EQ(set_stats(params(17000), "a"), std::make_pair(0, std::string()));
    std::vector<unsigned int> closed_at;
    for (unsigned int t = 1; t <= 51; t++) {
        unsigned long docs_before = stats_periods();
        int before = samples;
        tick();
        if (t % 5 == 0) {
            ASSERT_TRUE(wait_for([&] { return samples == before + 1; })) << "tick " << t;
        }
        if (t % 17 == 0) {
            ASSERT_TRUE(wait_for([&] { return stats_periods() == docs_before + 1; }))
                << "tick " << t;
            closed_at.push_back(t);
        }
    }
    EXPECT_EQ(closed_at, (std::vector<unsigned int>{17, 34, 51}));
    EXPECT_EQ(stats_periods(), 3u);
    EXPECT_EQ(samples, 10);
}

TEST_F(StatsTest, TicksBeforeTheFirstCommandOnlyCount)
{
    stats_clock = counting_clock;
    for (int t = 0; t < 10; t++)
        do_stats(SIGALRM);
    EXPECT_EQ(stats_ticks(), 10u);
    EXPECT_EQ(samples, 0);
    EXPECT_EQ(stats_periods(), 0u);
}

// ---- documents and posting -----------------------------------------------

TEST_F(StatsTest, SecondCommandKeepsPostingToTheFirstHref)
{
    stats_proc_net_dev = "/nonexistent";
    ASSERT_EQ(set_stats(params(15000, "/st1"), "a"), std::make_pair(0, std::string()));
    ASSERT_TRUE(wait_logged("stats_send: Started '/st1','15'"));
    ASSERT_EQ(set_stats(params(15000, "/st2"), "b"), std::make_pair(0, std::string()));
    for (int t = 1; t <= 15; t++)
        tick();
    ASSERT_EQ(controller->wait_requests("/st").size(), 1u);
    auto got = controller->requests("/st");
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].path, "/st1");
    EXPECT_EQ(sent_to("/st2").size(), 0u);
    // Compact, in this order, with the local time and its zone offset.
    std::string body = got[0].body;
    EXPECT_TRUE(std::regex_match(
        body,
        std::regex(
            R"(\{"statisticsTime":"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d[+-]\d{4}","interface":\[\]\})")))
        << body;
}

TEST_F(StatsTest, StatisticsTimeIn2040)
{
    setenv("TZ", "UTC", 1);
    tzset();
    stats_proc_net_dev = "/nonexistent";
    stats_time = fake_time;
    fake_now = LEAP_DAY_2040;
    ASSERT_EQ(set_stats(params(15000, "/st1"), "a"), std::make_pair(0, std::string()));
    ASSERT_TRUE(wait_logged("stats_send: Started '/st1','15'"));
    for (int t = 1; t <= 15; t++)
        tick();
    auto got = controller->wait_requests("/st1");
    stats_time = time;
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].body, R"({"statisticsTime":"2040-02-29T12:34:56+0000","interface":[]})");
}

TEST_F(StatsTest, DocumentCarriesTheRowsOfThePeriod)
{
    fake_eth0();
    ASSERT_EQ(set_stats(params(15000, "/st1"), "a"), std::make_pair(0, std::string()));
    ticks_to(4);
    eth0_at(5000, 0, 0);
    ticks_to(9);
    eth0_at(10000, 50000, 10000);
    ticks_to(15);
    auto got = controller->wait_requests("/st1");
    ASSERT_EQ(got.size(), 1u);
    Json posted_doc = json_parse(got[0].body);
    json_t *doc = posted_doc.get();
    // Tick 15 wakes the collector and the sender together; its sample reads
    // the same time as tick 10's and is ignored, so the period holds the
    // step from tick 5 to tick 10 whichever thread runs first.
    EXPECT_EQ(json_text(json_object_get(doc, "interface")),
              R"([{"id":"eth0","rx_max":10000,"rx_avg":10000,"tx_max":2000,"tx_avg":2000}])");

    // The heartbeat provider now reports the new interface once.
    auto provided = [] {
        Json hb(json_object());
        status_hb_provider(hb.get(), false);
        return json_text(hb.get());
    };
    EXPECT_EQ(provided(),
              R"({"interface":[{"id":"eth0","status":"up","speed":"1000","duplex":"full"}]})");
    EXPECT_EQ(provided(), "{}");
}

TEST_F(StatsTest, WithoutControllerThePostIsSkippedAndCountsAsSuccess)
{
    ASSERT_EQ(config_get("system", nullptr, "cloud-controller"), std::nullopt);
    EXPECT_EQ(stats_post("/st", "{}", 2), 0);
    EXPECT_TRUE(controller->requests().empty());
}

TEST_F(StatsTest, PostRetriesOnlyARefusedToken)
{
    use_controller();
    controller->answer("/st", 401);
    EXPECT_EQ(stats_post("/st", R"({"a":1})", 7), 0);
    EXPECT_EQ(sent_to("/st").size(), 2u);
    EXPECT_EQ(sent_to("/oauth/token").size(), 2u);

    controller->answer("/st", 500, "busy");
    EXPECT_EQ(stats_post("/st", R"({"a":1})", 7), 500);
    EXPECT_EQ(sent_to("/st").size(), 3u);
    EXPECT_TRUE(logged("stats_post: err = 500, reply = 'busy'"));

    controller->answer("/st", 401, "no", 3);
    EXPECT_EQ(stats_post("/st", R"({"a":1})", 7), 401);
    EXPECT_EQ(sent_to("/st").size(), 6u);
    EXPECT_TRUE(logged("stats_post: err = 401, reply = 'no'"));

    // 2xx other than 200 is success too.
    controller->answer("/st", 204, "");
    EXPECT_EQ(stats_post("/st", R"({"a":1})", 7), 0);
}

TEST_F(StatsLabTest, DocumentGoesAsJsonWithABearerToken)
{
    stats_proc_net_dev = "/nonexistent";
    lab->add_link("/st1", "statistics");
    ASSERT_EQ(set_stats(params(15000, "/st1"), "a"), std::make_pair(0, std::string()));
    ASSERT_TRUE(wait_logged("stats_send: Started '/st1','15'"));
    for (int t = 1; t <= 15; t++)
        tick();
    Json got = lab->wait_requests({{"kind", "statistics"}});
    ASSERT_EQ(json_array_size(got.get()), 1u);
    json_t *headers = json_object_get(item(got, 0), "headers");
    EXPECT_EQ(json_str(headers, "content-type"), "application/json");
    EXPECT_EQ(json_str(headers, "authorization").rfind("Bearer ", 0), 0u);
}

// A clock for the documents' "statisticsTime" that tells the periods apart:
// one second a tick, from 2023-11-14T22:13:20Z.
time_t tick_time(time_t *now)
{
    time_t t = static_cast<time_t>(1700000000LL) + stats_ticks();
    if (now != nullptr)
        *now = t;
    return t;
}

TEST_F(StatsLabTest, SenderDropsAPeriodItCouldNotPostAndGoesOn)
{
    setenv("TZ", "UTC", 1);
    tzset();
    fake_eth0();
    stats_time = tick_time;
    ASSERT_EQ(set_stats(params(15000, "/st"), "a"), std::make_pair(0, std::string()));
    lab->add_link("/st", "statistics");
    // The refusal takes a second to come, as from a struggling controller.
    lab->script(R"({"path":"/api/st","status":500,"text":"down","delay":1})");
    // Two periods that tell each other apart: 10000 B/s received in the
    // first, 20000 B/s in the second.
    ticks_to(4);
    eth0_at(5000, 0, 0);
    ticks_to(9);
    eth0_at(10000, 50000, 10000);
    ticks_to(15);
    ASSERT_TRUE(wait_for([] { return stats_periods() == 1; }));
    // The second period's ticks come while the first is still being
    // refused: its tick is not lost.
    ticks_to(19);
    eth0_at(20000, 250000, 30000);
    ticks_to(24);
    eth0_at(25000, 350000, 40000);
    long sleeps = thread_sleeps("stats_sender");
    ticks_to(30);
    Json got = lab->wait_requests({{"path", "/api/st"}}, 2);
    ASSERT_EQ(json_array_size(got.get()), 2u);
    ASSERT_TRUE(slept_again("stats_sender", sleeps));
    // A third period, posted as well: had the refused one been kept for
    // another try, it would have gone before this one.
    ticks_to(34);
    eth0_at(30000, 400000, 50000);
    ticks_to(39);
    eth0_at(35000, 450000, 60000);
    sleeps = thread_sleeps("stats_sender");
    ticks_to(45);
    got = lab->wait_requests({{"path", "/api/st"}}, 3);
    ASSERT_EQ(json_array_size(got.get()), 3u);
    ASSERT_TRUE(slept_again("stats_sender", sleeps));
    EXPECT_TRUE(logged("stats_post: err = 500, reply = 'down'"));
    auto doc = [&](size_t i) { return json_object_get(item(got, i), "json"); };
    EXPECT_EQ(json_integer_value(json_object_get(item(got, 0), "status")), 500);
    EXPECT_EQ(json_text(json_object_get(doc(0), "interface")),
              R"([{"id":"eth0","rx_max":10000,"rx_avg":10000,"tx_max":2000,"tx_avg":2000}])");
    // The second request is the second period, not the first sent again.
    EXPECT_EQ(json_integer_value(json_object_get(item(got, 1), "status")), 200);
    EXPECT_EQ(json_text(json_object_get(doc(1), "interface")),
              R"([{"id":"eth0","rx_max":20000,"rx_avg":20000,"tx_max":2000,"tx_avg":2000}])");
    EXPECT_EQ(json_integer_value(json_object_get(item(got, 2), "status")), 200);
    EXPECT_EQ(json_text(json_object_get(doc(2), "interface")),
              R"([{"id":"eth0","rx_max":10000,"rx_avg":10000,"tx_max":2000,"tx_avg":2000}])");
    // Each period once, at the moment it closed: the refused one (tick 15)
    // never comes again.
    std::vector<std::string> stamps;
    for (size_t i = 0; i < 3; i++)
        stamps.push_back(json_str(doc(i), "statisticsTime"));
    stats_time = time;
    EXPECT_EQ(stamps,
              (std::vector<std::string>{"2023-11-14T22:13:35+0000", "2023-11-14T22:13:50+0000",
                                        "2023-11-14T22:14:05+0000"}));
    EXPECT_EQ(count({{"path", "/api/st"}}), 3u);
    EXPECT_EQ(stats_periods(), 3u);
}

// ---- wake-ups the tick did not ask for, ticks during a post ---------------

// A wake-up with no tick behind it (spurious, or a broadcast) neither closes
// a period nor takes a sample: both threads go back to sleep, and the period
// closes at its own tick.
TEST_F(StatsTest, WakeUpWithoutATickClosesNoPeriodAndTakesNoSample)
{
    stats_clock = counting_clock;
    stats_proc_net_dev = "/nonexistent";
    stats_poster = recording_poster;
    ASSERT_EQ(set_stats(params(15000), "a"), std::make_pair(0, std::string()));
    ticks_to(14);
    for (int round = 0; round < 3; round++) {
        ASSERT_TRUE(wait_for(
            [] { return thread_in_futex("stats_sender") && thread_in_futex("stats_collector"); }));
        long sender = thread_sleeps("stats_sender");
        long collector = thread_sleeps("stats_collector");
        stats_ready.notify_all();
        collector_ready.notify_all();
        ASSERT_TRUE(slept_again("stats_sender", sender)) << "round " << round;
        ASSERT_TRUE(slept_again("stats_collector", collector)) << "round " << round;
        EXPECT_EQ(posted(), 0u) << "round " << round;
        EXPECT_EQ(samples, 2) << "round " << round;
    }
    tick();
    ASSERT_TRUE(wait_for([] { return posted() == 1 && samples == 3; }));
    EXPECT_EQ(posted_at(), (std::vector<unsigned int>{15}));
    EXPECT_EQ(stats_periods(), 1u);
}

// The period tick that comes while the sender is still posting the previous
// document is not lost: the sender closes that period as soon as its post
// returns.
TEST_F(StatsTest, PeriodTickDuringAPostIsNotLost)
{
    first_post_hangs();
    // The first post hangs; the second period comes due meanwhile.
    ticks_to(30);
    EXPECT_EQ(posted(), 1u);
    hold_posts(false);
    ASSERT_TRUE(wait_for([] { return posted() == 2; }));
    EXPECT_EQ(posted_at(), (std::vector<unsigned int>{15, 30}));
    EXPECT_EQ(stats_periods(), 2u);
}

// Periods that come due while a post hangs make one document once it
// returns, not one per missed tick, and the pace stays on the interval's
// ticks afterwards.
TEST_F(StatsTest, PeriodsDueDuringAHangingPostMakeOneDocument)
{
    first_post_hangs();
    // Ticks 30, 45 and 60 find the sender in its post.
    ticks_to(60);
    long sleeps = thread_sleeps("stats_sender");
    hold_posts(false);
    ASSERT_TRUE(wait_for([] { return posted() == 2; }));
    ASSERT_TRUE(slept_again("stats_sender", sleeps));
    EXPECT_EQ(posted(), 2u);
    ticks_to(74);
    EXPECT_EQ(posted(), 2u);
    ticks_to(75);
    ASSERT_TRUE(wait_for([] { return posted() == 3; }));
    EXPECT_EQ(posted_at(), (std::vector<unsigned int>{15, 60, 75}));
    EXPECT_EQ(stats_periods(), 3u);
}

// ---- the clock -------------------------------------------------------------

namespace
{
int failing_clock(clockid_t, struct timespec *)
{
    return -1;
}
} // namespace

TEST(StatsClock, MonotonicMillisecondsWrapAtThirtyTwoBits)
{
    struct timespec a, b;
    clock_gettime(CLOCK_MONOTONIC, &a);
    unsigned long t = st_time(1000);
    clock_gettime(CLOCK_MONOTONIC, &b);
    uint32_t lo = (uint32_t)(a.tv_sec * 1000ULL + a.tv_nsec / 1000000);
    uint32_t hi = (uint32_t)(b.tv_sec * 1000ULL + b.tv_nsec / 1000000);
    EXPECT_LE(t, 0xffffffffUL);
    EXPECT_LE((uint32_t)(t - lo), (uint32_t)(hi - lo));
    unsigned long s = st_time(1);
    EXPECT_GE(s, (unsigned long)a.tv_sec);
    EXPECT_LE(s, (unsigned long)b.tv_sec + 1);
}

TEST(StatsClock, FailedClockFallsBackToWallTimeForGood)
{
    stats_clock_gettime = failing_clock;
    time_t before = time(nullptr);
    unsigned long t = st_time(1000);
    time_t after = time(nullptr);
    // Whole seconds in the clock's own width: a 32-bit long wraps the count.
    EXPECT_TRUE(t == (unsigned long)before * 1000 || t == (unsigned long)after * 1000) << t;
    // Even once the clock works again.
    stats_clock_gettime = clock_gettime;
    EXPECT_EQ(st_time(1), (unsigned long)time(nullptr));
}

// ---- the parsers ---------------------------------------------------------

namespace
{
std::vector<std::string> seen;
int record(stats_parser_t *e, char *value)
{
    seen.push_back(std::string(e->match ? e->match : "*") + "=" + value);
    return 0;
}
int refuse(stats_parser_t *, char *)
{
    return 1;
}
} // namespace

class StatsParseTest : public ::testing::Test
{
  protected:
    DeviceRoot root;
    void SetUp() override
    {
        log_init();
        seen.clear();
    }
    bool logged(const std::string &line) { return testkit::logged(root, line); }

    // Parses text with `parse` through a control array of these (label,
    // handler) entries closed by one whose handler is `rest`; the count.
    using Entry = std::pair<const char *, stats_parser_func_t>;
    static int parse_with(int (*parse)(char *, stats_parser_t *), std::string text,
                          const std::vector<Entry> &entries, stats_parser_func_t rest = nullptr)
    {
        std::vector<stats_parser_t> ctrl;
        for (const Entry &e : entries)
            ctrl.push_back({0, e.first, e.second, nullptr, nullptr});
        ctrl.push_back({0, nullptr, rest, nullptr, nullptr});
        return parse(text.data(), ctrl.data());
    }
};

TEST_F(StatsParseTest, KeyValueLinesCountTheirMatches)
{
    EXPECT_EQ(parse_with(stats_parse_buf, "a=1\nb=2\nno equals here\nc=3",
                         {{"a", record}, {"c", record}}),
              2);
    EXPECT_EQ(seen, (std::vector<std::string>{"a=1", "c=3"}));
}

TEST_F(StatsParseTest, TerminatorTakesUnknownKeysAndFailuresAreLogged)
{
    EXPECT_EQ(parse_with(stats_parse_buf, "a=1\nb=x=y\nz=\nc=3\n", {{"a", record}, {"c", refuse}},
                         record),
              3);
    // Cut at the first equals sign only.
    EXPECT_EQ(seen, (std::vector<std::string>{"a=1", "*=x=y", "*="}));
    EXPECT_TRUE(logged("stats_parse_buf: match func failed for <c> val <3>"));
}

TEST_F(StatsParseTest, NullInputsAreRefused)
{
    stats_parser_t ctrl[] = {{0, nullptr, nullptr, nullptr, nullptr}};
    char buf[] = "a=1";
    EXPECT_EQ(stats_parse_buf(nullptr, ctrl), 0);
    EXPECT_EQ(stats_parse_buf(buf, nullptr), 0);
    EXPECT_TRUE(logged("stats_parse_buf: Null buffer or control array!"));
    EXPECT_EQ(stats_parse_line(nullptr, ctrl), 0);
    EXPECT_EQ(stats_parse_line(buf, nullptr), 0);
    EXPECT_TRUE(logged("stats_parse_line: Null line buffer or control array!"));
}

TEST_F(StatsParseTest, LabelsCutValuesStandingBeforeThem)
{
    EXPECT_EQ(parse_with(stats_parse_line, "54 Mb/s rate 12 dBm signal",
                         {{" Mb/s", record}, {" rate ", nullptr}, {" dBm", record}}),
              3);
    EXPECT_EQ(seen, (std::vector<std::string>{" Mb/s=54", " dBm=12"}));
}

TEST_F(StatsParseTest, MissingLabelTakesTheRestAndStopsTheWalk)
{
    EXPECT_EQ(parse_with(stats_parse_line, "10 rx 20",
                         {{" rx ", record}, {" tx", record}, {" never", record}}),
              2);
    EXPECT_EQ(seen, (std::vector<std::string>{" rx =10", " tx=20"}));
}

TEST_F(StatsParseTest, FailingHandlerStopsTheWalkUncounted)
{
    EXPECT_EQ(parse_with(stats_parse_line, "1 a 2 b 3 c",
                         {{" a", record}, {" b", refuse}, {" c", record}}),
              1);
    EXPECT_EQ(seen, (std::vector<std::string>{" a=1"}));
}

// ---- the debug dump --------------------------------------------------------

TEST_F(StatsTest, DebugDumpShowsTheStream)
{
    stats_proc_net_dev = "/nonexistent";
    ASSERT_EQ(set_stats(params(20000, "/st"), "a"), std::make_pair(0, std::string()));
    for (int t = 1; t <= 3; t++)
        do_stats(SIGALRM);
    stats_debug(SIGUSR1);
    auto lines = log_messages(root.at("/tmp/debug.log"));
    bool found = false;
    for (auto &l : lines)
        found =
            found || l.find("stats_debug: enabled = 1, interval = 20, ticks = 3, collector = ") !=
                         std::string::npos;
    EXPECT_TRUE(found);
}
