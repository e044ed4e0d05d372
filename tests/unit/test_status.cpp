// The status stream: set.status and its limits, the status_send thread's pace
// in 10-second steps, posting with token renewal, the port provider's
// documents from the simulated switch and their error paths, and the
// capability splitter.
#include "agent_fixture.h"
#include "auth.h"
#include "openapi.h"
#include "status.h"

#include <atomic>
#include <mutex>
#include <unistd.h>

using namespace agent_test;

namespace
{

// A small switch: port 1 with one neighbour and three VLANs, port 2 down and
// disabled at 10 Mbit/s half duplex, port 3 with three neighbours. Every text
// is one the tests can tell apart.
const char *small_model = R"({
  "system": {"lldp_mgmt_str_len": 256},
  "ports": [
    {"ifnum": 1, "name": "0/1", "mac": "02:00:00:00:01:01", "link": "up", "admin": "enable",
     "speed": 7, "duplex": "full",
     "neighbors": [{"chassis_id": "00:1b:4f:10:20:01", "chassis_id_subtype": 4,
                    "port_id": "eth0", "port_id_subtype": 5, "system_name": "pi",
                    "system_description": "Linux", "system_caps_supported": "Bridge, Router",
                    "system_caps_enabled": "", "mgmt_address": "10.0.0.1"}]},
    {"ifnum": 2, "name": "0/2", "mac": "02:00:00:00:01:02", "link": "down", "admin": "disable",
     "speed": 4, "duplex": "half"},
    {"ifnum": 3, "name": "0/3", "mac": "02:00:00:00:01:03", "link": "up", "admin": "enable",
     "speed": 8, "duplex": "full",
     "neighbors": [
       {"chassis_id": "c1", "chassis_id_subtype": 7, "port_id": "p1", "port_id_subtype": 7,
        "system_name": "n1", "system_description": "d1", "system_caps_supported": "Bridge",
        "system_caps_enabled": "Bridge", "mgmt_address": "10.0.3.1"},
       {"chassis_id": "c2", "chassis_id_subtype": 7, "port_id": "p2", "port_id_subtype": 7,
        "system_name": "n2", "system_description": "d2", "system_caps_supported": "Bridge",
        "system_caps_enabled": "Bridge", "mgmt_address": "10.0.3.2"},
       {"chassis_id": "c3", "chassis_id_subtype": 7, "port_id": "p3", "port_id_subtype": 7,
        "system_name": "n3", "system_description": "d3", "system_caps_supported": "Router",
        "system_caps_enabled": "Router", "mgmt_address": "10.0.3.3"}]}
  ],
  "vlans": [{"id": 1, "name": "default", "ports": [1, 2, 3]},
            {"id": 10, "name": "office", "ports": [1]},
            {"id": 20, "name": "voice", "ports": [1, 3]}]
})";

// The three ports of small_model as the controller must see them (written
// by hand from the model above).
const char *port1 =
    R"({"id":"1","name":"0/1","speed":"1000","duplex":"full","operational_status":"up",)"
    R"("admin_status":"up","mac_address":"02:00:00:00:01:01",)"
    R"("neighbor":[{"chassis_id":"00:1b:4f:10:20:01","chassis_id_subtype":"4","port_id":"eth0",)"
    R"("port_id_subtype":"5","system_name":"pi","system_description":"Linux",)"
    R"("mgmt_address":"10.0.0.1","system_caps_supported":["Bridge","Router"],)"
    R"("system_caps_enabled":[""]}],)"
    R"("vlan":[{"id":"10","name":"office"},{"id":"20","name":"voice"}]})";
const char *port2 =
    R"({"id":"2","name":"0/2","speed":"10","duplex":"half","operational_status":"down",)"
    R"("admin_status":"down","mac_address":"02:00:00:00:01:02","neighbor":[],)"
    R"("vlan":[{"id":"1","name":"default"}]})";
const char *port3 =
    R"({"id":"3","name":"0/3","speed":"10000","duplex":"full","operational_status":"up",)"
    R"("admin_status":"up","mac_address":"02:00:00:00:01:03",)"
    R"("neighbor":[{"chassis_id":"c2","chassis_id_subtype":"7","port_id":"p2",)"
    R"("port_id_subtype":"7","system_name":"n2","system_description":"d2",)"
    R"("mgmt_address":"10.0.3.2","system_caps_supported":["Bridge"],)"
    R"("system_caps_enabled":["Bridge"]},)"
    R"({"chassis_id":"c3","chassis_id_subtype":"7","port_id":"p3","port_id_subtype":"7",)"
    R"("system_name":"n3","system_description":"d3","mgmt_address":"10.0.3.3",)"
    R"("system_caps_supported":["Router"],"system_caps_enabled":["Router"]}],)"
    R"("vlan":[{"id":"1","name":"default"},{"id":"20","name":"voice"}]})";

// text with the first `from` replaced by `to`.
std::string replaced(std::string text, const std::string &from, const std::string &to)
{
    size_t at = text.find(from);
    if (at != std::string::npos)
        text.replace(at, from.size(), to);
    return text;
}

// port1 as reported when its one neighbour could not be added.
std::string port1_without_neighbour()
{
    std::string p1 = port1;
    size_t a = p1.find(R"("neighbor":[)") + 12;
    p1.erase(a, p1.find("]}],", a) + 2 - a);
    return p1;
}

std::string ports_doc(const std::vector<const char *> &ports)
{
    std::string s = R"({"port":[)";
    for (size_t i = 0; i < ports.size(); i++)
        s += (i ? "," : "") + std::string(ports[i]);
    return s + "]}";
}

// ---- the thread's steps -------------------------------------------------

std::atomic<int> steps_taken;
int stop_after;
std::function<void(int)> at_step;
std::mutex steps_lock;
std::vector<unsigned int> step_seconds;

unsigned int step_sleep(unsigned int seconds)
{
    int n = ++steps_taken;
    {
        std::lock_guard<std::mutex> hold(steps_lock);
        step_seconds.push_back(seconds);
    }
    if (at_step)
        at_step(n);
    if (n >= stop_after)
        status_stream.enabled = false;
    return 0;
}

// Parks the thread for the rest of the test.
unsigned int park(unsigned int)
{
    for (;;)
        pause();
    return 0;
}

// Fails jansson allocations of one size, so one chosen text of a document
// cannot be made (texts of other lengths are not touched).
std::atomic<size_t> fail_size{0};
std::atomic<int> failed_allocations{0};
void *size_failing_malloc(size_t n)
{
    if (n == fail_size) {
        failed_allocations++;
        return nullptr;
    }
    return malloc(n);
}

// Fails only the nth jansson allocation of one size. jansson's records have
// sizes of their own, in words of size_t: every value starts with its type
// and reference count (two words), an array adds its size, entries and table
// (three), an object its hash table (size, buckets, order and two lists:
// seven). On 64-bit that is 40 and 72 bytes (72 is also the member record of
// a 15-character key), on 32-bit 20 and 36. So the nth array or object the
// provider makes can be refused.
constexpr size_t json_head = 2 * sizeof(size_t);
constexpr size_t array_record = json_head + 3 * sizeof(size_t);
constexpr size_t object_record = json_head + 7 * sizeof(size_t);
std::atomic<int> allocations_to_pass{0};
void *nth_failing_malloc(size_t n)
{
    if (n == fail_size && allocations_to_pass-- == 0) {
        failed_allocations++;
        return nullptr;
    }
    return malloc(n);
}

class StatusTest : public AgentTest
{
  protected:
    void SetUp() override
    {
        AgentTest::SetUp();
        write_model(small_model);
        steps_taken = 0;
        stop_after = 1 << 30;
        at_step = nullptr;
        step_seconds.clear();
    }
    void TearDown() override { json_set_alloc_funcs(malloc, free); }

    // From here on jansson cannot make a text of this length. The switch
    // reads its model with jansson too, so it reads it first.
    void fail_texts_of(size_t length)
    {
        openapiClientHandle_t client{};
        uint32_t first = 0;
        openapiIfFirstGet(&client, OPEN_INTF_TYPE_PHY, &first);
        fail_size = length + 1;
        json_set_alloc_funcs(size_failing_malloc, free);
    }

    // One provider pass in which the nth jansson record of this size cannot
    // be made.
    std::string provide_failing(size_t size, int nth)
    {
        openapiClientHandle_t client{};
        uint32_t first = 0;
        openapiIfFirstGet(&client, OPEN_INTF_TYPE_PHY, &first);
        fail_size = size;
        allocations_to_pass = nth - 1;
        failed_allocations = 0;
        json_set_alloc_funcs(nth_failing_malloc, free);
        std::string doc = provide(true);
        json_set_alloc_funcs(malloc, free);
        EXPECT_EQ(failed_allocations, 1);
        return doc;
    }

    void write_model(const std::string &model)
    {
        write_file(root.at("/var/switch/model.json"), model);
    }
    void write_faults(const std::string &faults)
    {
        write_file(root.at("/var/switch/faults.json"), faults);
    }

    // Runs set.status with these params; (code, message) as posted.
    Answer set_status(const std::string &params, const char *id)
    {
        return run_command(cmd_set_status, "set", "status", id, params);
    }

    static std::string params(long long ms, const std::string &href = "/status")
    {
        return R"({"interval":)" + std::to_string(ms) + R"(,"serviceLink":{"href":")" + href +
               R"("}})";
    }

    // Starts the stream and lets the thread take `steps` steps; the number
    // of posts to the link the controller had received after each step.
    std::vector<size_t> run_stream(long long ms, int steps, std::function<void(int)> at = nullptr,
                                   const std::string &href = "/status")
    {
        std::vector<size_t> posts;
        status_sleep = step_sleep;
        stop_after = steps;
        at_step = [&, at](int n) {
            if (at)
                at(n);
            posts.push_back(sent_to(href).size());
        };
        EXPECT_EQ(set_status(params(ms, href), "stream"), std::make_pair(0, std::string()));
        EXPECT_TRUE(wait_logged("status_send: Stopped"));
        EXPECT_TRUE(wait_for([] { return status_stream.id == -1; }));
        at_step = nullptr;
        return posts;
    }

    // The documents received on a path, parsed.
    std::vector<std::string> documents(const std::string &path = "/status")
    {
        std::vector<std::string> out;
        for (auto &r : sent_to(path))
            out.push_back(json_text(json_parse(r.body).get()));
        return out;
    }

    // One direct pass of the port provider: the document it built.
    std::string provide(bool last_failed)
    {
        Json doc(json_object());
        status_port_provider(doc.get(), last_failed);
        return json_text(doc.get());
    }

    // What went to the system log handle, without its header line.
    std::vector<std::string> syslog_lines()
    {
        std::vector<std::string> out;
        for (auto &l : log_messages(root.at("/rw/syslog.log")))
            if (l.rfind("sending", 0) == 0)
                out.push_back(l);
        return out;
    }
};

// What only a real server sees: the headers on the wire, the token it
// revoked, the URL curl escaped.
class StatusLabTest : public StatusTest
{
  protected:
    bool with_lab() override { return true; }
};

} // namespace

// ---- set.status ----------------------------------------------------------

TEST_F(StatusTest, IntervalLimits)
{
    status_sleep = park;
    EXPECT_EQ(set_status(params(9999), "a"),
              std::make_pair(-1, std::string("status interval out of range")));
    EXPECT_EQ(set_status(params(3601000), "b"),
              std::make_pair(-1, std::string("status interval out of range")));
    EXPECT_EQ(count_logged("set.status: status interval out of range"), 2u);
    EXPECT_EQ(status_stream.id, -1);
    EXPECT_FALSE(status_stream.enabled);

    EXPECT_EQ(set_status(params(10000), "c"), std::make_pair(0, std::string()));
    EXPECT_EQ(status_stream.interval, 10);
    EXPECT_TRUE(status_stream.enabled);
    int id = status_stream.id;
    ASSERT_GE(id, 0);
    EXPECT_STREQ(threads[id].name, "status_send");
    EXPECT_TRUE(wait_logged("status_send: Started '10','/status','1'"));

    EXPECT_EQ(set_status(params(3600999, "/other"), "d"), std::make_pair(0, std::string()));
    EXPECT_EQ(status_stream.interval, 3600);
    EXPECT_EQ(status_stream.id, id);
    EXPECT_TRUE(logged("status_start: status thread " + std::to_string(id) +
                       " already running, new interval = 3600, enable = true"));
}

TEST_F(StatusTest, Messages)
{
    status_sleep = park;
    struct {
        const char *params;
        const char *message;
    } cases[] = {
        {R"("x")", "missing or invalid 'params' element"},
        {R"({"serviceLink":{"href":"/h"}})", "missing or invalid 'interval' element in params"},
        {R"({"interval":"10000","serviceLink":{"href":"/h"}})",
         "missing or invalid 'interval' element in params"},
        {R"({"interval":10000})", "missing or invalid 'serviceLink' element in params"},
        {R"({"interval":10000,"serviceLink":"/h"})",
         "missing or invalid 'serviceLink' element in params"},
        {R"({"interval":10000,"serviceLink":{"href":5}})",
         "missing or invalid 'href' element in params"},
        {R"({"interval":10000,"serviceLink":{}})", "missing or invalid 'href' element in params"},
    };
    int n = 0;
    for (auto &c : cases) {
        std::string id = "m" + std::to_string(n++);
        EXPECT_EQ(set_status(c.params, id.c_str()), std::make_pair(-1, std::string(c.message)))
            << c.params;
        EXPECT_TRUE(logged(std::string("set.status: ") + c.message));
    }
    EXPECT_EQ(status_stream.id, -1);

    // Without an id the answer carries an empty one.
    use_controller();
    cmd_set_status(strdup("set.status"), json_loads(R"({"params":{"interval":10000}})", 0, nullptr),
                   strdup("/response/t"));
    auto res = controller->wait_answers((size_t)n + 1);
    ASSERT_EQ(res.size(), (size_t)n + 1);
    EXPECT_EQ(res[n].id, "");
    EXPECT_EQ(res[n].code, -1);
    EXPECT_EQ(res[n].message, "missing or invalid 'id' element in command");
    EXPECT_TRUE(logged("set.status: missing or invalid 'id' element in command"));
    EXPECT_EQ(status_stream.id, -1);
}

TEST_F(StatusTest, InitRegistersCommandSignalAndProvider)
{
    status_init();
    auto log = main_log();
    auto pos = [&](const std::string &l) {
        return std::find(log.begin(), log.end(), l) - log.begin();
    };
    EXPECT_LT(pos("registered 'set.status' command handler"),
              pos("registered new handler 'status_debug' for signal 10"));
    EXPECT_LT(pos("registered new handler 'status_debug' for signal 10"),
              pos("status_register_provider: registered 'status_port_provider' status provider"));
    EXPECT_LT(pos("status_register_provider: registered 'status_port_provider' status provider"),
              (long)log.size());
    ASSERT_NE(status_providers.load(), nullptr);
    EXPECT_STREQ(status_providers.load()->name, "status_port_provider");
    EXPECT_EQ(status_providers.load()->fn, status_port_provider);

    // Newest first.
    status_register_provider(
        "extra", [](json_t *obj, bool) { json_object_set_new(obj, "extra", json_string("x")); });
    EXPECT_STREQ(status_providers.load()->name, "extra");
    EXPECT_STREQ(status_providers.load()->next->name, "status_port_provider");

    status_debug(SIGUSR1);
    auto d = log_messages(root.at("/tmp/debug.log"));
    ASSERT_FALSE(d.empty());
    EXPECT_EQ(d.back(), "status_debug: status_enabled = 0, status_interval = 0");

    // The newest provider's members come first in the document.
    auto posts = run_stream(10000, 3);
    EXPECT_EQ(posts, (std::vector<size_t>{0, 0, 1}));
    auto reqs = sent_to("/status");
    ASSERT_FALSE(reqs.empty());
    std::string body = reqs[0].body;
    EXPECT_EQ(body.rfind("{\n    \"extra\":\"x\",\n    \"port\":[\n        {\n            "
                         "\"id\":\"1\",\n            \"name\":\"0/1\",\n",
                         0),
              0u)
        << body;
    status_debug(SIGUSR1);
    d = log_messages(root.at("/tmp/debug.log"));
    EXPECT_EQ(d.back(), "status_debug: status_enabled = 0, status_interval = 10");
}

// ---- the thread ------------------------------------------------------------

TEST_F(StatusTest, FirstDocumentCarriesEveryPortThenOnlyChanges)
{
    status_init();
    auto posts = run_stream(10000, 7, [this](int n) {
        // After the pass that found nothing new, port 2 comes up.
        if (n == 5) {
            std::string m = small_model;
            m.replace(m.find(R"("link": "down")"), 14, R"("link": "up")");
            write_model(m);
        }
    });
    // Two steps of 10 s to the first document; an empty pass sends nothing.
    EXPECT_EQ(posts, (std::vector<size_t>{0, 0, 1, 1, 1, 2, 2}));
    EXPECT_EQ(step_seconds, std::vector<unsigned int>(7, 10));
    auto docs = documents();
    ASSERT_EQ(docs.size(), 2u);
    EXPECT_EQ(docs[0], ports_doc({port1, port2, port3}));
    std::string up2 =
        replaced(port2, R"("operational_status":"down")", R"("operational_status":"up")");
    EXPECT_EQ(docs[1], ports_doc({up2.c_str()}));
    EXPECT_TRUE(logged("status_send: Started '10','/status','1'"));
    EXPECT_EQ(count_logged("status_send: post successful"), 0u);
}

TEST_F(StatusTest, PaceFollowsTheIntervalInTenSecondSteps)
{
    status_init();
    // 30 s: after a success the timer climbs from 10 past 30, so a document
    // goes every fourth step; the switch changes before each.
    int flips = 0;
    auto posts = run_stream(30000, 9, [&](int n) {
        if (n == 3 || n == 7) {
            std::string m = small_model;
            if (++flips == 1)
                m.replace(m.find(R"("name": "0/2")"), 13, R"("name": "x/2")");
            write_model(m);
        }
    });
    EXPECT_EQ(posts, (std::vector<size_t>{0, 0, 0, 0, 1, 1, 1, 1, 2}));
    auto docs = documents();
    ASSERT_EQ(docs.size(), 2u);
    EXPECT_NE(docs[0].find(R"("name":"x/2")"), std::string::npos);
    EXPECT_NE(docs[1].find(R"("name":"0/2")"), std::string::npos);
    EXPECT_EQ(docs[1].find(R"("name":"0/1")"), std::string::npos);
    EXPECT_EQ(docs[1].find(R"("name":"0/3")"), std::string::npos);
}

TEST_F(StatusTest, SecondSetStatusChangesThePaceAndKeepsTheLink)
{
    status_init();
    auto posts = run_stream(10000, 8, [this](int n) {
        if (n == 1) {
            EXPECT_EQ(set_status(params(30000, "/st2"), "again"), std::make_pair(0, std::string()));
        }
    });
    // At 10 s the first document would have gone at the third step; at 30 s
    // it goes at the fifth, still to the first link.
    EXPECT_EQ(posts, (std::vector<size_t>{0, 0, 0, 0, 1, 1, 1, 1}));
    EXPECT_EQ(sent_to("/st2").size(), 0u);
    EXPECT_EQ(status_stream.interval, 30);
    auto log = main_log();
    EXPECT_EQ(
        std::count_if(log.begin(), log.end(),
                      [](const std::string &l) { return l.rfind("status_send: Started", 0) == 0; }),
        1);
}

TEST_F(StatusTest, FailedPostSendsEveryPortTenSecondsLater)
{
    status_init();
    controller->answer("/status", 500, R"({"error":"busy"})", 2);
    auto posts = run_stream(10000, 8, [this](int n) {
        if (n == 5) {
            std::string m = small_model;
            m.replace(m.find(R"("name": "0/3")"), 13, R"("name": "z/3")");
            write_model(m);
        }
    });
    // Failures at the third and fourth steps, each retried one step later;
    // then success, one step, and the change alone.
    EXPECT_EQ(posts, (std::vector<size_t>{0, 0, 1, 2, 3, 3, 4, 4}));
    auto docs = documents();
    ASSERT_EQ(docs.size(), 4u);
    std::string all = ports_doc({port1, port2, port3});
    EXPECT_EQ(docs[0], all);
    EXPECT_EQ(docs[1], all);
    EXPECT_EQ(docs[2], all);
    std::string z3 = port3;
    z3.replace(z3.find(R"("name":"0/3")"), 12, R"("name":"z/3")");
    EXPECT_EQ(docs[3], ports_doc({z3.c_str()}));
    // One line for the run of failures, one for the recovery.
    EXPECT_EQ(count_logged("status_send: post errors (err = 500)"), 1u);
    EXPECT_EQ(count_logged("status_send: post successful"), 1u);
    EXPECT_EQ(count_logged(R"(status_post: err = 500, reply = '{"error":"busy"}')"), 2u);
    auto log = main_log();
    auto pos = [&](const std::string &l) {
        return std::find(log.begin(), log.end(), l) - log.begin();
    };
    EXPECT_LT(pos("status_send: post errors (err = 500)"), pos("status_send: post successful"));
}

TEST_F(StatusTest, DisabledThreadStopsAtOnce)
{
    status_stream.enabled = false;
    status_stream.set_href("/status");
    status_stream.id = 5;
    status_send(status_stream);
    EXPECT_TRUE(logged("status_send: Started '0','/status','0'"));
    EXPECT_TRUE(logged("status_send: Stopped"));
    EXPECT_EQ(status_stream.id, -1);
    EXPECT_EQ(sent_to("/status").size(), 0u);
}

// ---- posting ---------------------------------------------------------------

TEST_F(StatusLabTest, RefusedTokenIsRetriedWithAFreshOne)
{
    use_controller();
    ASSERT_EQ(status_post("/status", "{\"a\":1}", 7), 0);
    lab->set_token(R"({"revoke":true})");
    ASSERT_EQ(status_post("/status", "{\"a\":2}", 7), 0);
    Json all = lab->requests({{"since", "0"}});
    std::vector<std::string> seq;
    for (size_t i = 0; i < json_array_size(all.get()); i++)
        seq.push_back(at(all, i, "kind") + " " +
                      std::to_string(json_integer_value(json_object_get(item(all, i), "status"))));
    EXPECT_EQ(seq, (std::vector<std::string>{"token 200", "status 200", "status 401", "token 200",
                                             "status 200"}));
    json_t *first = json_object_get(item(all, 1), "headers");
    EXPECT_EQ(json_str(first, "content-type"), "application/json");
    EXPECT_EQ(json_str(first, "authorization").rfind("Bearer ", 0), 0u);
    json_t *refused = json_object_get(item(all, 2), "headers");
    json_t *accepted = json_object_get(item(all, 4), "headers");
    EXPECT_NE(json_str(refused, "authorization"), json_str(accepted, "authorization"));
    EXPECT_EQ(at(all, 4, "body"), "{\"a\":2}");
    auto sys = syslog_lines();
    EXPECT_EQ(sys, (std::vector<std::string>{"sending (retry = 3) {\"a\":1}",
                                             "sending (retry = 3) {\"a\":2}",
                                             "sending (retry = 2) {\"a\":2}"}));
}

TEST_F(StatusTest, FourRefusalsAtMost)
{
    use_controller();
    controller->answer("/status", 401, "no", 5);
    EXPECT_EQ(status_post("/status", "{}", 2), 401);
    EXPECT_EQ(sent_to("/status").size(), 4u);
    EXPECT_EQ(sent_to("/oauth/token").size(), 4u);
    EXPECT_EQ(syslog_lines(),
              (std::vector<std::string>{"sending (retry = 3) {}", "sending (retry = 2) {}",
                                        "sending (retry = 1) {}", "sending (retry = 0) {}"}));
    EXPECT_TRUE(logged("status_post: err = 401, reply = 'no'"));
}

TEST_F(StatusTest, OtherStatusesEndTheAttempts)
{
    use_controller();
    controller->answer("/status", 503, "later");
    EXPECT_EQ(status_post("/status", "{}", 2), 503);
    EXPECT_EQ(sent_to("/status").size(), 1u);
    EXPECT_TRUE(logged("status_post: err = 503, reply = 'later'"));
    // 204 is success too.
    controller->answer("/status", 204, "");
    EXPECT_EQ(status_post("/status", "{}", 2), 0);
}

TEST_F(StatusTest, NoControllerNoPost)
{
    EXPECT_EQ(status_post("/status", "{}", 2), -1);
    EXPECT_TRUE(controller->requests().empty());
}

TEST_F(StatusLabTest, LinkWithOddCharacters)
{
    use_controller();
    // curl escapes the bytes a URL cannot carry; the rest goes as given.
    lab->add_link("/st-%c3%bc", "status");
    EXPECT_EQ(status_post("/st-ü?x=%41&y=~'\"", "{}", 2), 0) << json_text(lab->requests().get());
    Json r = lab->requests({{"kind", "status"}});
    EXPECT_EQ(at(r, 0, "path"), "/api/st-%c3%bc");
    EXPECT_EQ(at(r, 0, "query"), "x=%41&y=~'\"");
    // A link curl cannot make a URL of fails the post; nothing else happens.
    int err = status_post("/st us", "{}", 2);
    EXPECT_NE(err, 0);
    EXPECT_TRUE(logged("status_post: err = " + std::to_string(err) + ", reply = ''"));
}

// ---- the port provider -----------------------------------------------------

TEST_F(StatusTest, ProviderReportsEveryPortThenOnlyChanges)
{
    EXPECT_EQ(provide(true), ports_doc({port1, port2, port3}));
    // Nothing changed: nothing added.
    EXPECT_EQ(provide(false), "{}");
    // After a failed post everything again.
    EXPECT_EQ(provide(true), ports_doc({port1, port2, port3}));
    ASSERT_NE(port_status, nullptr);
    for (int i = 0; i < STATUS_MAX_PORTS; i++)
        EXPECT_FALSE(port_status[i].changed) << i;
    EXPECT_TRUE(port_status[3].valid);
    EXPECT_FALSE(port_status[4].valid);
}

TEST_F(StatusTest, ThreeNeighboursGiveTheLastTwoOneOrTwoGiveAll)
{
    // The small switch and a fourth port like the third but with exactly two
    // neighbours, named apart from the third's.
    Json model = json_parse(small_model);
    json_t *switch_ports = json_object_get(model.get(), "ports");
    Json fourth(json_deep_copy(json_array_get(switch_ports, 2)));
    json_object_set_new(fourth.get(), "ifnum", json_integer(4));
    json_object_set_new(fourth.get(), "name", json_string("0/4"));
    json_object_set_new(fourth.get(), "mac", json_string("02:00:00:00:01:04"));
    json_t *neighbours = json_object_get(fourth.get(), "neighbors");
    json_array_remove(neighbours, 2);
    json_object_set_new(json_array_get(neighbours, 0), "system_name", json_string("m1"));
    json_object_set_new(json_array_get(neighbours, 1), "system_name", json_string("m2"));
    json_array_append(switch_ports, fourth.get());
    write_model(json_text(model.get()));
    std::string doc = provide(true);
    Json d = json_parse(doc);
    json_t *ports = json_object_get(d.get(), "port");
    ASSERT_EQ(json_array_size(ports), 4u) << doc;
    auto names = [&](size_t i) {
        std::vector<std::string> out;
        json_t *n = json_object_get(json_array_get(ports, i), "neighbor");
        for (size_t k = 0; k < json_array_size(n); k++)
            out.push_back(json_str(json_array_get(n, k), "system_name"));
        return out;
    };
    EXPECT_EQ(names(0), std::vector<std::string>{"pi"});
    EXPECT_EQ(names(1), std::vector<std::string>{});
    EXPECT_EQ(names(2), (std::vector<std::string>{"n2", "n3"}));
    EXPECT_EQ(names(3), (std::vector<std::string>{"m1", "m2"}));
}

TEST_F(StatusTest, AbsurdPortRecords)
{
    std::string vlans;
    for (int v = 1; v <= 300; v++)
        vlans += (v > 1 ? "," : "") + std::string(R"({"id":)") + std::to_string(v) +
                 R"(,"name":"v)" + std::to_string(v) + R"(","ports":[1]})";
    write_model(R"({"ports":[{"ifnum":1,"name":"","mac":"","link":"up","admin":"enable",)"
                R"("speed":0,"duplex":"half"}],"vlans":[)" +
                vlans + "]}");
    EXPECT_EQ(provide(true),
              R"({"port":[{"id":"1","name":"","speed":"0","duplex":"half",)"
              R"("operational_status":"up","admin_status":"up","mac_address":"","neighbor":[],)"
              R"("vlan":[{"id":"299","name":"v299"},{"id":"300","name":"v300"}]}]})");
}

TEST_F(StatusTest, SwitchFailuresReportWhatCouldBeRead)
{
    // The walk cannot start: no port is known, nothing is sent.
    write_faults(R"([{"call":"openapiIfFirstGet","result":-20,"count":1},
                     {"call":"openapiIfSpeedGet","port":2,"result":-26,"count":1},
                     {"call":"rpcclt_openapiLldpIntfRemoteDeviceSystemDescGet","port":1,
                      "result":-26,"count":1}])");
    EXPECT_EQ(provide(true), "{}");
    // Port 2 without its speed, port 1 without its neighbour this time.
    std::string p1 = port1;
    size_t a = p1.find(R"("neighbor":[)") + 12;
    p1.erase(a, p1.find("]}],", a) + 2 - a);
    std::string p2 = port2;
    p2.replace(p2.find(R"("speed":"10")"), 12, R"("speed":"0")");
    EXPECT_EQ(provide(false), ports_doc({p1.c_str(), p2.c_str(), port3}));
    EXPECT_TRUE(logged("platform_collect_port_status: openapiIfSpeedGet(2) result = -26"));
    // Read again: the changes only.
    EXPECT_EQ(provide(false), ports_doc({port1, port2}));
}

TEST_F(StatusTest, PortMemberThatCannotBeMadeEndsTheWalk)
{
    std::string m = small_model;
    std::string name(26, 'n'); // the only 26-character text of the document
    m.replace(m.find(R"("name": "0/2")"), 13, R"("name": ")" + name + "\"");
    write_model(m);
    fail_texts_of(name.size());
    std::string doc = provide(true);
    json_set_alloc_funcs(malloc, free);
    EXPECT_GT(failed_allocations, 0);
    EXPECT_EQ(doc, ports_doc({port1}));
    EXPECT_TRUE(logged("status_port_provider: Can't set port 2 'name'"));
    // Ports 2 and 3 kept their changes for the next pass.
    std::string p2 = port2;
    p2.replace(p2.find(R"("name":"0/2")"), 12, R"("name":")" + name + "\"");
    EXPECT_EQ(provide(false), ports_doc({p2.c_str(), port3}));
}

TEST_F(StatusTest, NeighbourThatCannotBeMadeEndsTheList)
{
    std::string m = small_model;
    std::string desc(26, 'd');
    m.replace(m.find(R"("system_description": "d2")"), 26,
              R"("system_description": ")" + desc + "\"");
    write_model(m);
    fail_texts_of(desc.size());
    std::string doc = provide(true);
    json_set_alloc_funcs(malloc, free);
    EXPECT_TRUE(logged("status_port_provider: Can't set port 3 'system_description'"));
    // Port 3 goes out without n2 and what follows it; the walk goes on.
    std::string p3 = port3;
    size_t a = p3.find(R"("neighbor":[)") + 12;
    p3.erase(a, p3.find("}],", a) + 1 - a);
    EXPECT_EQ(doc, ports_doc({port1, port2, p3.c_str()}));
}

TEST_F(StatusTest, VlanThatCannotBeMadeEndsTheList)
{
    std::string m = small_model;
    std::string vname(26, 'v');
    m.replace(m.find(R"("name": "office")"), 16, R"("name": ")" + vname + "\"");
    write_model(m);
    fail_texts_of(vname.size());
    std::string doc = provide(true);
    json_set_alloc_funcs(malloc, free);
    EXPECT_TRUE(logged("status_port_provider: Can't set port 1 'vlan name'"));
    std::string p1 = port1;
    p1.replace(p1.find(R"("vlan":[)"), std::string::npos, R"("vlan":[]})");
    EXPECT_EQ(doc, ports_doc({p1.c_str(), port2, port3}));
}

TEST_F(StatusTest, CapabilityThatCannotBeAddedCutsTheArray)
{
    std::string m = small_model;
    std::string cap(26, 'c');
    m.replace(m.find(R"("system_caps_supported": "Bridge, Router")"), 41,
              R"("system_caps_supported": "Bridge, )" + cap + ", Router\"");
    write_model(m);
    fail_texts_of(cap.size());
    std::string doc = provide(true);
    json_set_alloc_funcs(malloc, free);
    EXPECT_TRUE(logged("str_to_json_array: Can't add new string to caps array"));
    std::string p1 = port1;
    p1.replace(p1.find(R"(["Bridge","Router"])"), 19, R"(["Bridge"])");
    EXPECT_EQ(doc, ports_doc({p1.c_str(), port2, port3}));
}

// The arrays the provider makes, in order: the ports, then for port 1 its
// neighbours, the two capability lists of its neighbour and its VLANs.
TEST_F(StatusTest, PortsArrayThatCannotBeMadeAddsNothing)
{
    EXPECT_EQ(provide_failing(array_record, 1), "{}");
    EXPECT_TRUE(logged("status_port_provider: Failed to allocate JSON array"));
    // Nothing was lost: the next pass has every port.
    EXPECT_EQ(provide(false), ports_doc({port1, port2, port3}));
}

TEST_F(StatusTest, NeighbourArrayThatCannotBeMadeEndsTheWalk)
{
    EXPECT_EQ(provide_failing(array_record, 2), "{}");
    EXPECT_TRUE(logged("status_port_provider: Failed to allocate neighbors JSON array"));
    EXPECT_EQ(provide(false), ports_doc({port1, port2, port3}));
}

TEST_F(StatusTest, CapabilityArrayThatCannotBeMadeDropsTheNeighbour)
{
    std::string doc = provide_failing(array_record, 3);
    EXPECT_TRUE(logged("str_to_json_array: Failed to allocate JSON array"));
    EXPECT_TRUE(logged("status_port_provider: Can't set port 1 'system_caps_supported'"));
    EXPECT_EQ(doc, ports_doc({port1_without_neighbour().c_str(), port2, port3}));
}

TEST_F(StatusTest, VlanArrayThatCannotBeMadeEndsTheWalk)
{
    EXPECT_EQ(provide_failing(array_record, 5), "{}");
    EXPECT_TRUE(logged("status_port_provider: Failed to allocate vlans JSON array"));
}

// The objects, in order: the document itself, port 1, its neighbour (whose
// "port_id_subtype" member is a record of the same size), its two VLANs,
// port 2.
TEST_F(StatusTest, PortObjectThatCannotBeMadeEndsTheWalk)
{
    EXPECT_EQ(provide_failing(object_record, 7), ports_doc({port1}));
    EXPECT_TRUE(logged("status_port_provider: Can't allocate JSON object"));
    EXPECT_EQ(provide(false), ports_doc({port2, port3}));
}

TEST_F(StatusTest, NeighbourObjectThatCannotBeMadeEndsTheList)
{
    std::string doc = provide_failing(object_record, 3);
    EXPECT_TRUE(logged("status_port_provider: Can't allocate JSON object"));
    EXPECT_EQ(doc, ports_doc({port1_without_neighbour().c_str(), port2, port3}));
}

TEST_F(StatusTest, VlanObjectThatCannotBeMadeEndsTheList)
{
    std::string doc = provide_failing(object_record, 5);
    EXPECT_TRUE(logged("status_port_provider: Can't allocate JSON object"));
    std::string p1 =
        replaced(port1, R"({"id":"10","name":"office"},{"id":"20","name":"voice"})", "");
    EXPECT_EQ(doc, ports_doc({p1.c_str(), port2, port3}));
}

// ---- splitting -------------------------------------------------------------

TEST(StrToJsonArray, WhiteSpaceAndEmptyTexts)
{
    auto split = [](const char *text) {
        Json a(str_to_json_array(text, ','));
        return json_text(a.get());
    };
    EXPECT_EQ(split(nullptr), "[]");
    EXPECT_EQ(split(""), R"([""])");
    EXPECT_EQ(split("Bridge, Router"), R"(["Bridge","Router"])");
    EXPECT_EQ(split(" \t\n\v\f\rBridge  ,Router \t"), R"(["Bridge  ","Router \t"])");
    EXPECT_EQ(split("a,,b,"), R"(["a","","b",""])");
    EXPECT_EQ(split(" , "), R"(["",""])");
    Json semi(str_to_json_array("x;y, z", ';'));
    EXPECT_EQ(json_text(semi.get()), R"(["x","y, z"])");
}
