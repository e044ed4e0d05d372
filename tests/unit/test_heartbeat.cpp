// The heartbeat: pulses against the lab controller over real HTTPS, the
// status bookkeeping, the reply checks and the set.heartbeat command.
#include "agent_fixture.h"
#include "auth.h"
#include "heartbeat.h"
#include "netutils.h"
#include "utils.h"

#include <array>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <syslog.h>
#include <thread>
#include <unistd.h>
#include <utility>

using namespace agent_test;

namespace
{

char loopback[] = "lo";

class HeartbeatTest : public AgentTest
{
  protected:
    void SetUp() override
    {
        AgentTest::SetUp();
        // A management interface with an address every machine has.
        mgmt_ifname = loopback;
        if (lab)
            lab->add_link("/response/t", "response");
    }

    // Runs set.heartbeat with these params; returns (code, message) as posted.
    Answer set_heartbeat(const std::string &params, const char *id = "hb-1")
    {
        return run_command(cmd_set_heartbeat, "set", "heartbeat", id, params);
    }

    Json heartbeats() { return lab->requests({{"kind", "heartbeat"}}); }
    // The body of the i-th heartbeat post.
    std::string body(size_t i)
    {
        if (lab)
            return at(heartbeats(), i, "body");
        auto posts = controller->requests("/heartbeat");
        return i < posts.size() ? posts[i].body : "<no post>";
    }
    size_t heartbeat_posts()
    {
        return lab ? json_array_size(heartbeats().get())
                   : controller->requests("/heartbeat").size();
    }
};

// Headers on the wire, tokens the lab revokes, commands it queues and its
// timed scripts need the real server.
class HeartbeatLabTest : public HeartbeatTest
{
  protected:
    bool with_lab() override { return true; }
};

std::string params(long long ms, const std::string &href = "/hb")
{
    return R"({"interval":)" + std::to_string(ms) + R"(,"serviceLink":{"href":")" + href + R"("}})";
}

} // namespace

// ---- set.heartbeat -----------------------------------------------------

TEST_F(HeartbeatTest, IntervalLimitsOfSetHeartbeat)
{
    EXPECT_EQ(set_heartbeat(params(999), "a"),
              std::make_pair(-1, std::string("heartbeat interval out of range")));
    EXPECT_EQ(heartbeat_interval, 10);
    EXPECT_EQ(set_heartbeat(params(61000), "b"),
              std::make_pair(-1, std::string("heartbeat interval out of range")));
    EXPECT_EQ(heartbeat_interval, 10);
    EXPECT_STREQ(heartbeat_link, "/heartbeat");
    EXPECT_EQ(count_logged("set.heartbeat: heartbeat interval out of range"), 2u);

    EXPECT_EQ(set_heartbeat(params(1000, "/one"), "c"), std::make_pair(0, std::string()));
    EXPECT_EQ(heartbeat_interval, 1);
    EXPECT_STREQ(heartbeat_link, "/one");
    EXPECT_EQ(set_heartbeat(params(60999, "/sixty"), "d"), std::make_pair(0, std::string()));
    EXPECT_EQ(heartbeat_interval, 60);
    EXPECT_STREQ(heartbeat_link, "/sixty");
}

TEST_F(HeartbeatTest, SetHeartbeatLogsToSyslog)
{
    SyslogSink sink(root);
    EXPECT_EQ(set_heartbeat(params(30000, "/v2/hb")).first, 0);
    std::string line = sink.wait_for("Heartbeat interval=");
    EXPECT_NE(line.find(": Heartbeat interval=30 seconds, link='/v2/hb'"), std::string::npos)
        << line;
    EXPECT_EQ(line.rfind("<14>", 0), 0u) << line; // LOG_USER | LOG_INFO
}

TEST_F(HeartbeatTest, SetHeartbeatMessages)
{
    expect_refusals(
        cmd_set_heartbeat, "set", "heartbeat",
        {
            {R"("x")", "missing or invalid 'params' element"},
            {R"({"serviceLink":{"href":"/h"}})", "missing or invalid 'interval' element in params"},
            {R"({"interval":"5000","serviceLink":{"href":"/h"}})",
             "missing or invalid 'interval' element in params"},
            {R"({"interval":5000})", "missing or invalid 'serviceLink' element in params"},
            {R"({"interval":5000,"serviceLink":"/h"})",
             "missing or invalid 'serviceLink' element in params"},
            {R"({"interval":5000,"serviceLink":{"href":5}})",
             "missing or invalid 'href' element in params"},
        });
    // 127 characters fit the link, 128 do not.
    std::string fits = "/" + std::string(126, 'a');
    EXPECT_EQ(set_heartbeat(params(5000, fits + "b"), "long"),
              std::make_pair(-1, std::string("the 'href' element in params is too large")));
    EXPECT_EQ(set_heartbeat(params(5000, fits), "fits").first, 0);
    EXPECT_EQ(std::string(heartbeat_link), fits);
    EXPECT_EQ(heartbeat_interval, 5);

    // Without an id the answer carries an empty one.
    use_controller();
    cmd_set_heartbeat(strdup("set.heartbeat"),
                      json_loads(R"({"params":{"interval":5000}})", 0, nullptr),
                      strdup("/response/t"));
    auto res = controller->wait_answers(9);
    ASSERT_EQ(res.size(), 9u);
    EXPECT_EQ(res[8].id, "");
    EXPECT_EQ(res[8].message, "missing or invalid 'id' element in command");
}

// ---- the thread's start ------------------------------------------------

TEST_F(HeartbeatTest, BootEnvironmentZeroIsIgnored)
{
    snprintf(env_heartbeat, sizeof(env_heartbeat), "0");
    heartbeat_setup();
    EXPECT_EQ(heartbeat_interval, 10);
    EXPECT_TRUE(logged("heartbeat: interval value (0) is out of range"));
}

TEST_F(HeartbeatTest, BootEnvironmentSixtyOneIsIgnored)
{
    snprintf(env_heartbeat, sizeof(env_heartbeat), "61");
    heartbeat_setup();
    EXPECT_EQ(heartbeat_interval, 10);
    EXPECT_TRUE(logged("heartbeat: interval value (61) is out of range"));
}

TEST_F(HeartbeatTest, BootEnvironmentThirtyIsTaken)
{
    snprintf(env_heartbeat, sizeof(env_heartbeat), "30");
    heartbeat_setup();
    EXPECT_EQ(heartbeat_interval, 30);
    EXPECT_TRUE(logged("heartbeat: new interval = 30 seconds"));
    EXPECT_FALSE(logged("heartbeat: interval value (30) is out of range"));
}

TEST_F(HeartbeatTest, BootEnvironmentEqualToTheDefaultIsNotLogged)
{
    snprintf(env_heartbeat, sizeof(env_heartbeat), "10");
    heartbeat_setup();
    EXPECT_EQ(heartbeat_interval, 10);
    for (auto &m : main_log())
        EXPECT_EQ(m.find("new interval"), std::string::npos) << m;
}

TEST_F(HeartbeatTest, SetupRegistersCommandSignalAndProvidersInOrder)
{
    env_heartbeat[0] = '\0';
    heartbeat_setup();
    auto log = main_log();
    auto pos = [&](const std::string &l) {
        return std::find(log.begin(), log.end(), l) - log.begin();
    };
    EXPECT_LT(pos("registered 'set.heartbeat' command handler"),
              pos("registered new handler 'heartbeat_debug' for signal 10"));
    EXPECT_LT(pos("registered new handler 'heartbeat_debug' for signal 10"),
              pos("heartbeat_register_provider: registered 'lanIp' heartbeat provider"));
    EXPECT_LT(pos("heartbeat_register_provider: registered 'lanIp' heartbeat provider"),
              pos("heartbeat_register_provider: registered 'uptime' heartbeat provider"));
    EXPECT_LT(pos("heartbeat_register_provider: registered 'uptime' heartbeat provider"),
              (long)log.size());
    heartbeat_provider *first = heartbeat_providers.load();
    ASSERT_NE(first, nullptr);
    EXPECT_STREQ(first->name, "uptime");
    EXPECT_STREQ(first->next->name, "lanIp");
    EXPECT_EQ(first->next->next, nullptr);
    bool tid = std::any_of(log.begin(), log.end(), [](const std::string &l) {
        return l.rfind("heartbeat: my TID: ", 0) == 0;
    });
    EXPECT_TRUE(tid);

    heartbeat_count = 7;
    heartbeat_debug(SIGUSR1);
    auto d = log_messages(root.at("/tmp/debug.log"));
    ASSERT_FALSE(d.empty());
    EXPECT_EQ(d.back(), "heartbeat_debug: heartbeat_interval = 10, heartbeat_count = 7");
}

// ---- pulses ------------------------------------------------------------

TEST_F(HeartbeatLabTest, ProvidersAndTheAddressRule)
{
    env_heartbeat[0] = '\0';
    heartbeat_setup();
    use_controller();
    ASSERT_EQ(heartbeat_pulse(), 0);
    Json hb = heartbeats();
    ASSERT_EQ(json_array_size(hb.get()), 1u);
    // The last registered runs first.
    EXPECT_EQ(body(0).rfind("{\"uptime\":", 0), 0u) << body(0);
    EXPECT_NE(body(0).find(",\"lanIp\":\"127.0.0.1\"}"), std::string::npos) << body(0);
    json_t *h = json_object_get(item(hb, 0), "headers");
    EXPECT_EQ(json_str(h, "content-type"), "application/json");
    EXPECT_EQ(json_str(h, "authorization").rfind("Bearer ", 0), 0u);

    // Healthy and unchanged: no address.
    ASSERT_EQ(heartbeat_pulse(), 0);
    EXPECT_EQ(body(1).find("lanIp"), std::string::npos) << body(1);

    // After a failure the full data goes again.
    lab->script(R"({"path":"/api/heartbeat","status":503})");
    EXPECT_EQ(heartbeat_pulse(), -1);
    ASSERT_EQ(heartbeat_pulse(), 0);
    EXPECT_NE(body(3).find("\"lanIp\":\"127.0.0.1\""), std::string::npos) << body(3);
    EXPECT_EQ(heartbeat_count, 4u);
}

TEST_F(HeartbeatTest, SixFailuresAreToleratedTheSeventhIsDown)
{
    heartbeat_setup();
    use_controller();
    ASSERT_EQ(heartbeat_pulse(), 0);
    EXPECT_EQ(heartbeat_cloud_connected(), 1);
    EXPECT_EQ(switch_statuses(), std::vector<std::string>{"up"});
    EXPECT_EQ(setting("cloud-controller-status"), "up");

    controller->answer("/heartbeat", 500, "", 7);
    for (int i = 1; i <= 6; i++) {
        EXPECT_EQ(heartbeat_pulse(), -1);
        EXPECT_EQ(heartbeat_cloud_missed(), i);
    }
    EXPECT_EQ(heartbeat_cloud_connected(), 1);
    EXPECT_EQ(switch_statuses(), std::vector<std::string>{"up"});
    EXPECT_EQ(setting("cloud-controller-status"), "up");

    EXPECT_EQ(heartbeat_pulse(), -1);
    EXPECT_EQ(heartbeat_cloud_connected(), 0);
    EXPECT_EQ(heartbeat_cloud_missed(), 6);
    EXPECT_EQ(switch_statuses(), (std::vector<std::string>{"up", "down"}));
    EXPECT_EQ(setting("cloud-controller-status"), "down");

    ASSERT_EQ(heartbeat_pulse(), 0);
    EXPECT_EQ(heartbeat_cloud_connected(), 1);
    EXPECT_EQ(heartbeat_cloud_missed(), 0);
    EXPECT_EQ(switch_statuses(), (std::vector<std::string>{"up", "down", "up"}));
    EXPECT_EQ(setting("cloud-controller-status"), "up");
    // A status word is written on a change only.
    ASSERT_EQ(heartbeat_pulse(), 0);
    EXPECT_EQ(switch_statuses().size(), 3u);
    // 500 is no token trouble: one post per pulse.
    EXPECT_EQ(heartbeat_posts(), 10u);
}

TEST_F(HeartbeatTest, FailuresFromTheStartWriteDownOnTheSeventh)
{
    use_controller();
    controller->answer("/heartbeat", 0, "", 7);
    for (int i = 0; i < 6; i++)
        EXPECT_EQ(heartbeat_pulse(), -1);
    EXPECT_EQ(heartbeat_cloud_connected(), -1);
    EXPECT_TRUE(switch_statuses().empty());
    EXPECT_EQ(heartbeat_pulse(), -1);
    EXPECT_EQ(switch_statuses(), std::vector<std::string>{"down"});
}

TEST_F(HeartbeatLabTest, RefusedTokenIsRenewedWithinThePulse)
{
    use_controller();
    ASSERT_EQ(heartbeat_pulse(), 0);
    lab->set_token(R"({"revoke":true})");
    uint64_t before = heartbeat_count;
    ASSERT_EQ(heartbeat_pulse(), 0);
    EXPECT_EQ(heartbeat_count, before + 1);
    EXPECT_EQ(heartbeat_cloud_missed(), 0);

    Json all = lab->requests({{"since", "0"}});
    std::vector<std::string> seq;
    for (size_t i = 0; i < json_array_size(all.get()); i++)
        seq.push_back(at(all, i, "kind") + " " +
                      std::to_string(json_integer_value(json_object_get(item(all, i), "status"))));
    EXPECT_EQ(seq, (std::vector<std::string>{"token 200", "heartbeat 200", "heartbeat 401",
                                             "token 200", "heartbeat 200"}));
    EXPECT_EQ(json_array_size(lab->tokens().get()), 2u);
    EXPECT_EQ(switch_statuses(), std::vector<std::string>{"up"});
}

TEST_F(HeartbeatTest, TwoRefusalsFailThePulse)
{
    use_controller();
    controller->answer("/heartbeat", 403, "", 2);
    EXPECT_EQ(heartbeat_pulse(), -1);
    EXPECT_EQ(heartbeat_cloud_missed(), 1);
    EXPECT_EQ(heartbeat_posts(), 2u);
    EXPECT_EQ(controller->requests("/oauth/token").size(), 2u);
}

TEST_F(HeartbeatTest, NoTokenIsAFailedPulseWithoutAPost)
{
    use_controller();
    // Every token request fails (more answers than the pulse can ask for).
    controller->answer("/oauth/token", 500, "", 10);
    EXPECT_EQ(heartbeat_pulse(), -1);
    EXPECT_EQ(heartbeat_count, 1u);
    EXPECT_EQ(heartbeat_cloud_missed(), 1);
    EXPECT_EQ(heartbeat_posts(), 0u);
}

TEST_F(HeartbeatTest, NoControllerSkipsAndSaysSoOnce)
{
    EXPECT_EQ(heartbeat_pulse(), -1);
    EXPECT_EQ(heartbeat_pulse(), -1);
    EXPECT_EQ(count_logged("cloud_controller not set, skipping heartbeats!"), 1u);
    EXPECT_EQ(switch_statuses(), std::vector<std::string>{"down"});
    EXPECT_EQ(heartbeat_count, 0u);
    // Contact in between clears the warning; "down" stays until then.
    use_controller();
    ASSERT_EQ(heartbeat_pulse(), 0);
    config_set("system", nullptr, "cloud-controller", "");
    EXPECT_EQ(heartbeat_pulse(), -1);
    EXPECT_EQ(count_logged("cloud_controller not set, skipping heartbeats!"), 2u);
    EXPECT_EQ(switch_statuses(), (std::vector<std::string>{"down", "up", "down"}));
}

TEST_F(HeartbeatLabTest, CountMismatchRunsNothing)
{
    use_controller();
    lab->script(
        R"({"path":"/api/heartbeat","body":{"totalCount":2,"responseLink":{"href":"/response/t"},
        "commandList":[
          {"action":"set","context":"heartbeat","id":"x1","flags":"","params":{"interval":2000,"serviceLink":{"href":"/x1"}}},
          {"action":"set","context":"heartbeat","id":"x2","flags":"","params":{"interval":3000,"serviceLink":{"href":"/x2"}}},
          {"action":"set","context":"heartbeat","id":"x3","flags":"","params":{"interval":4000,"serviceLink":{"href":"/x3"}}}]}})");
    heartbeat_setup();
    ASSERT_EQ(heartbeat_pulse(), 0);
    EXPECT_TRUE(logged("totalCount (2) != commandList size (3)"));
    // Still contact with the controller.
    EXPECT_EQ(switch_statuses(), std::vector<std::string>{"up"});
    // The next reply's command, which keeps pace and link as they are, is
    // the first answered: commands run in arrival order, so none of the
    // refused list was queued.
    lab->queue_command(R"({"action":"set","context":"heartbeat","id":"after","params":)" +
                       params(10000, "/heartbeat") + "}");
    ASSERT_EQ(heartbeat_pulse(), 0);
    Json res = lab->wait_results({{"command_id", "after"}});
    ASSERT_EQ(json_array_size(res.get()), 1u);
    EXPECT_EQ(json_array_size(lab->results().get()), 1u);
    EXPECT_EQ(heartbeat_interval, 10);
    EXPECT_STREQ(heartbeat_link, "/heartbeat");
}

TEST_F(HeartbeatLabTest, MatchingCountRunsTheCommandsInOrder)
{
    use_controller();
    heartbeat_setup();
    lab->queue_command(
        R"({"action":"set","context":"heartbeat","id":"y1","params":{"interval":2000,"serviceLink":{"href":"/y1"}}})");
    lab->queue_command(
        R"({"action":"set","context":"heartbeat","id":"y2","params":{"interval":3000,"serviceLink":{"href":"/y2"}}})");
    ASSERT_EQ(heartbeat_pulse(), 0);
    Json res = lab->wait_results({}, 2);
    ASSERT_EQ(json_array_size(res.get()), 2u);
    EXPECT_EQ(at(res, 0, "commandId"), "y1");
    EXPECT_EQ(at(res, 1, "commandId"), "y2");
    EXPECT_EQ(heartbeat_interval, 3);
    EXPECT_STREQ(heartbeat_link, "/y2");
    auto log = main_log();
    std::string reply = at(lab->requests({{"kind", "heartbeat"}}), 0, "reply");
    EXPECT_TRUE(logged("reply = '" + reply + "'"));
    auto cmds = log_messages(root.at("/rw/command.log"));
    EXPECT_NE(std::find(cmds.begin(), cmds.end(), "commands = '" + reply + "'"), cmds.end());

    // The next pulse goes to the new link.
    ASSERT_EQ(heartbeat_pulse(), 0);
    EXPECT_EQ(count({{"path", "/api/y2"}}), 1u);
}

TEST_F(HeartbeatLabTest, LogsShowAMarkerForThePassword)
{
    use_controller();
    heartbeat_setup();
    lab->queue_command(
        R"({"action":"set","context":"system","id":"p1","params":{"location":"bench",)"
        R"("password":"n0t-2-b-seen"}})");
    ASSERT_EQ(heartbeat_pulse(), 0);
    std::string reply = at(lab->requests({{"kind", "heartbeat"}}), 0, "reply");
    auto secret = reply.find("n0t-2-b-seen");
    ASSERT_NE(secret, std::string::npos);
    std::string masked = reply.replace(secret, strlen("n0t-2-b-seen"), "********");
    EXPECT_TRUE(logged("reply = '" + masked + "'"));
    auto cmds = log_messages(root.at("/rw/command.log"));
    EXPECT_NE(std::find(cmds.begin(), cmds.end(), "commands = '" + masked + "'"), cmds.end());
    auto http = log_messages(root.at("/rw/http.log"));
    EXPECT_TRUE(std::any_of(http.begin(), http.end(), [&](const std::string &l) {
        return l.size() > masked.size() &&
               l.compare(l.size() - masked.size() - 11, std::string::npos,
                         " reply = '" + masked + "'") == 0;
    }));
    for (const char *name : {"/rw/orkad.log", "/rw/command.log", "/rw/http.log"})
        EXPECT_EQ(read_file(root.at(name)).find("n0t-2-b-seen"), std::string::npos) << name;
}

TEST_F(HeartbeatLabTest, ReplyChecks)
{
    use_controller();
    auto replies_logged = [this] {
        auto log = main_log();
        return std::count_if(log.begin(), log.end(),
                             [](const std::string &l) { return l.rfind("reply = ", 0) == 0; });
    };
    // totalCount 0: nothing to say about the reply.
    ASSERT_EQ(heartbeat_pulse(), 0);
    EXPECT_EQ(replies_logged(), 0);
    struct {
        const char *reply;
        const char *line;
    } cases[] = {
        {R"({"commandList":[]})", "Missing or non-integer 'totalCount' item"},
        {R"({"totalCount":"1"})", "Missing or non-integer 'totalCount' item"},
        {R"({"totalCount":1,"responseLink":"/r","commandList":[]})",
         "Missing or non-object 'responseLink' item"},
        {R"({"totalCount":1,"responseLink":{"href":1},"commandList":[]})",
         "Missing or invalid 'href' element in 'responseLink' object"},
        {R"({"totalCount":1,"responseLink":{"href":"/r"},"commandList":{}})",
         "Missing or non-array 'commandList' item"},
    };
    for (auto &c : cases) {
        lab->script(std::string(R"({"path":"/api/heartbeat","body":)") + c.reply + "}");
        EXPECT_EQ(heartbeat_pulse(), 0) << c.reply;
        EXPECT_TRUE(logged(c.line)) << c.reply;
    }
    // Not JSON at all: logged, and still contact.
    lab->script(R"({"path":"/api/heartbeat","text":"{\"totalCount\":"})");
    EXPECT_EQ(heartbeat_pulse(), 0);
    auto log = main_log();
    EXPECT_TRUE(std::any_of(log.begin(), log.end(), [](const std::string &l) {
        return l.rfind("error decoding heartbeat data: ", 0) == 0;
    }));
    EXPECT_EQ(heartbeat_cloud_missed(), 0);
    EXPECT_EQ(switch_statuses(), std::vector<std::string>{"up"});
    // Only the replies that carried commands were logged whole.
    EXPECT_EQ(replies_logged(), 3);
}

// ---- the thread's pace -------------------------------------------------

namespace
{

std::mutex pace_lock;
std::condition_variable pace_cv;
std::vector<unsigned int> paces;
std::function<void(size_t)> at_pace;

unsigned int record_pace(unsigned int seconds)
{
    std::unique_lock<std::mutex> hold(pace_lock);
    paces.push_back(seconds);
    pace_cv.notify_all();
    size_t n = paces.size();
    hold.unlock();
    if (at_pace)
        at_pace(n);
    if (n >= 4) {
        // Enough seen: park the thread for the rest of the test (not on
        // the condition variable, which is destroyed at exit).
        for (;;)
            pause();
    }
    return 0;
}

} // namespace

TEST_F(HeartbeatLabTest, TheThreadSleepsTheCurrentIntervalAfterEachPulse)
{
    snprintf(env_heartbeat, sizeof(env_heartbeat), "2");
    use_controller();
    lab->add_link("/seven", "heartbeat");
    heartbeat_sleep = record_pace;
    at_pace = [this](size_t n) {
        if (n == 2) {
            EXPECT_EQ(set_heartbeat(params(7000, "/seven"), "p").first, 0);
        }
    };
    std::thread t(heartbeat, nullptr, nullptr, nullptr);
    t.detach();
    {
        std::unique_lock<std::mutex> hold(pace_lock);
        ASSERT_TRUE(
            pace_cv.wait_for(hold, std::chrono::seconds(20), [] { return paces.size() >= 4; }));
        EXPECT_EQ(paces, (std::vector<unsigned int>{2, 2, 7, 7}));
    }
    // One pulse before each sleep; the new link from the third on.
    EXPECT_EQ(count({{"path", "/api/heartbeat"}}), 2u);
    EXPECT_EQ(count({{"path", "/api/seven"}}), 2u);
}

// A reply nested a few thousand levels deep used to run the heartbeat
// thread off its stack; now it is a decoding error like any other, the
// pulse still counts as contact, and the next reply is read as usual.
TEST_F(HeartbeatLabTest, DeeplyNestedReplyOnTheThreadStackIsADecodingError)
{
    use_controller();
    const std::string deep = std::string(3000, '[') + std::string(3000, ']');
    lab->script(R"({"path":"/api/heartbeat","text":")" + deep + "\"}");
    struct pulse_job {
        int result = 99;
        std::atomic<bool> done{false};
    } job;
    // The pulse runs where it runs in the daemon: on a thread of ours.
    ASSERT_GE(thread_start(
                  "heartbeat",
                  [](void *p, void *, void *) {
                      pulse_job *j = static_cast<pulse_job *>(p);
                      j->result = heartbeat_pulse();
                      j->done = true;
                  },
                  &job, nullptr, nullptr),
              0);
    ASSERT_TRUE(wait_for([&job] { return job.done.load(); }, 30000));
    EXPECT_EQ(job.result, 0);
    EXPECT_TRUE(logged("error decoding heartbeat data: maximum parsing depth reached"));
    EXPECT_EQ(heartbeat_cloud_missed(), 0);

    const std::string ok =
        std::string(JSON_MAX_DEPTH - 1, '[') + std::string(JSON_MAX_DEPTH - 1, ']');
    lab->script(R"({"path":"/api/heartbeat","text":"{\"totalCount\":0,\"x\":)" + ok + "}\"}");
    EXPECT_EQ(heartbeat_pulse(), 0);
    EXPECT_EQ(count_logged("error decoding heartbeat data: maximum parsing depth reached"), 1u);
}

namespace
{

std::atomic<bool> parked{false};
std::atomic<bool> resting{false};

// A quick pace; once parked, the thread waits out the rest of the test
// process there, asleep: nothing it waits on is torn down at exit.
unsigned int short_pace(unsigned int)
{
    usleep(5000);
    if (parked) {
        resting = true;
        for (;;)
            pause();
    }
    return 0;
}

} // namespace

// set.heartbeat rewrites the link on the command thread while the heartbeat
// thread builds every URL from it: each post goes to a whole link, old or new.
TEST_F(HeartbeatLabTest, LinkRewrittenWhileTheThreadPulses)
{
    env_heartbeat[0] = '\0';
    use_controller();
    lab->add_link("/left-side-of-the-link", "heartbeat");
    lab->add_link("/r", "heartbeat");
    heartbeat_sleep = short_pace;
    std::thread t(heartbeat, nullptr, nullptr, nullptr);
    t.detach();
    lab->wait_requests({{"kind", "heartbeat"}}, 1, 20);
    for (int k = 0; k < 6; k++) {
        const char *href = k % 2 == 0 ? "/left-side-of-the-link" : "/r";
        std::string id = "flip-" + std::to_string(k);
        EXPECT_EQ(set_heartbeat(params(1000, href), id.c_str()).first, 0);
        Json seen = lab->wait_requests({{"path", std::string("/api") + href}}, k / 2 + 1, 20);
        ASSERT_GE(json_array_size(seen.get()), (size_t)(k / 2 + 1)) << href;
    }
    Json all = heartbeats();
    ASSERT_GE(json_array_size(all.get()), 7u);
    for (size_t i = 0; i < json_array_size(all.get()); i++) {
        std::string path = at(all, i, "path");
        EXPECT_TRUE(path == "/api/heartbeat" || path == "/api/left-side-of-the-link" ||
                    path == "/api/r")
            << path;
    }
    EXPECT_EQ(heartbeat_interval, 1);
    // No pulse may run into the test's end.
    parked = true;
    EXPECT_TRUE(wait_for([] { return resting.load(); }, 20000));
}

namespace
{

constexpr int LATE = 24;
std::atomic<int> late_calls[LATE];

template <int I> void late_provider(json_t *, bool)
{
    late_calls[I]++;
}

template <int... I>
std::array<heartbeat_fn, sizeof...(I)> late_providers(std::integer_sequence<int, I...>)
{
    return {late_provider<I>...};
}

} // namespace

// "set.statistics" registers its provider from the command runner while the
// heartbeat thread walks the list: registrations on another thread, one
// between each two pulses, while pulses keep running. Each pulse sees a
// whole list (ThreadSanitizer watches the head), and the pulse after the
// last registration calls every provider once.
TEST_F(HeartbeatLabTest, ProvidersRegisteredWhilePulsesRun)
{
    use_controller();
    const auto fns = late_providers(std::make_integer_sequence<int, LATE>());
    static char names[LATE][16];
    std::atomic<int> pulses{0};
    std::atomic<bool> registered{false};
    std::thread registrar([&] {
        for (int i = 0; i < LATE; i++) {
            while (pulses < i)
                usleep(100);
            snprintf(names[i], sizeof(names[i]), "late%d", i);
            EXPECT_EQ(heartbeat_register_provider(names[i], fns[i]), 0);
        }
        registered = true;
    });
    int failed = 0;
    while (!registered) {
        failed += heartbeat_pulse() != 0;
        pulses++;
    }
    registrar.join();
    EXPECT_EQ(failed, 0);
    EXPECT_GE(pulses, LATE);

    int before[LATE];
    for (int i = 0; i < LATE; i++)
        before[i] = late_calls[i];
    ASSERT_EQ(heartbeat_pulse(), 0);
    for (int i = 0; i < LATE; i++)
        EXPECT_EQ(late_calls[i], before[i] + 1) << names[i];
    // The last registered first, each once.
    std::vector<std::string> order;
    for (heartbeat_provider *p = heartbeat_providers.load(); p != nullptr; p = p->next)
        order.push_back(p->name);
    ASSERT_EQ(order.size(), (size_t)LATE);
    for (int i = 0; i < LATE; i++)
        EXPECT_EQ(order[i], "late" + std::to_string(LATE - 1 - i));
    EXPECT_EQ(count_logged("heartbeat_register_provider: registered 'late7' heartbeat provider"),
              1u);
}
