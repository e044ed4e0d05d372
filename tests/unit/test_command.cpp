#include "agent_fixture.h"
#include "command.h"
#include "log.h"
#include "queue.h"
#include "signals.h"
#include "testkit.h"
#include "work.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <future>
#include <mutex>
#include <pthread.h>
#include <string>
#include <thread>
#include <vector>

using namespace testkit;

namespace
{

struct call {
    std::string handler;
    std::string name;
    std::string id;
    std::string link;
    std::string thread;
    pthread_t tid;
    json_t *command; // the pointer seen, only compared
};

std::mutex calls_lock;
std::condition_variable calls_cv;
std::vector<call> calls;

void record(const char *handler, char *name, json_t *command, char *link)
{
    call c;
    c.handler = handler;
    c.name = name;
    json_t *id = json_object_get(command, "id");
    c.id = json_is_string(id) ? json_string_value(id) : "";
    c.link = link == nullptr ? "<null>" : link;
    char tname[16] = "";
    pthread_getname_np(pthread_self(), tname, sizeof(tname));
    c.thread = tname;
    c.tid = pthread_self();
    c.command = command;
    // The handler owns what it was given.
    free(name);
    json_decref(command);
    free(link);
    std::lock_guard<std::mutex> g(calls_lock);
    calls.push_back(c);
    calls_cv.notify_all();
}

void handler_a(char *name, json_t *command, char *link)
{
    record("a", name, command, link);
}

void handler_b(char *name, json_t *command, char *link)
{
    record("b", name, command, link);
}

// Waits until n calls were recorded (or a deadline passed) and returns them.
std::vector<call> wait_calls(size_t n, int timeout_ms = 3000)
{
    std::unique_lock<std::mutex> l(calls_lock);
    calls_cv.wait_for(l, std::chrono::milliseconds(timeout_ms), [n] { return calls.size() >= n; });
    return calls;
}

json_t *parse(const char *text)
{
    json_error_t err;
    json_t *j = json_loads(text, 0, &err);
    EXPECT_NE(j, nullptr) << err.text;
    return j;
}

json_t *cmd(const char *action, const char *context, const char *flags, const char *id)
{
    return json_pack("{s:s, s:s, s:s, s:s, s:{}}", "action", action, "context", context, "flags",
                     flags, "id", id, "params");
}

class CommandTest : public ::testing::Test
{
  protected:
    DeviceRoot root;
    void SetUp() override
    {
        log_init();
        signals_init(); // before any thread, as in the daemon
        command_init();
        thread_init_once();
        // What the handlers saw belongs to the test that ran them.
        std::lock_guard<std::mutex> g(calls_lock);
        calls.clear();
    }
    std::vector<std::string> messages() const { return log_messages(root.at("/rw/orkad.log")); }
    int count(const std::string &line) const
    {
        int n = 0;
        for (const std::string &m : messages())
            n += m == line;
        return n;
    }
    bool logged(const std::string &line) const { return count(line) > 0; }
    // Every record is back in the pool once the runner is done with it.
    bool pool_full(int timeout_ms = 3000) const
    {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
        while (queue_count(work_free_queue) != WORK_RECORDS) {
            if (std::chrono::steady_clock::now() > deadline)
                return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return true;
    }
};

} // namespace

TEST_F(CommandTest, RegisterLogsAndRefusesADuplicate)
{
    EXPECT_EQ(command_register("set.config", handler_a), 0);
    EXPECT_EQ(command_register("set.config", handler_b), -1);
    EXPECT_EQ(count("registered 'set.config' command handler"), 1);

    json_t *list = json_array();
    json_array_append_new(list, cmd("set", "config", "", "c-1"));
    process_bundle(list, 1, "/api/responses/1");
    json_decref(list);

    auto got = wait_calls(1);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].handler, "a"); // the first registration stays
}

TEST_F(CommandTest, ThreeCommandsRunInListOrderOnTheRunnerThread)
{
    ASSERT_EQ(command_register("set.heartbeat", handler_a), 0);
    ASSERT_EQ(command_register("set.config", handler_b), 0);
    ASSERT_EQ(command_register("get.diagnostics", handler_a), 0);

    json_t *list = json_array();
    json_array_append_new(list, cmd("set", "config", "", "c-1"));
    json_array_append_new(list, cmd("get", "diagnostics", "", "c-2"));
    json_array_append_new(list, cmd("set", "heartbeat", "", "c-3"));
    process_bundle(list, 3, "/api/responses/42");

    auto got = wait_calls(3);
    ASSERT_EQ(got.size(), 3u);
    EXPECT_EQ(got[0].name, "set.config");
    EXPECT_EQ(got[0].handler, "b");
    EXPECT_EQ(got[0].id, "c-1");
    EXPECT_EQ(got[1].name, "get.diagnostics");
    EXPECT_EQ(got[1].id, "c-2");
    EXPECT_EQ(got[2].name, "set.heartbeat");
    EXPECT_EQ(got[2].id, "c-3");
    for (const call &c : got) {
        EXPECT_EQ(c.thread, "command_runner");
        EXPECT_TRUE(pthread_equal(c.tid, got[0].tid));
        EXPECT_FALSE(pthread_equal(c.tid, pthread_self()));
        EXPECT_EQ(c.link, "/api/responses/42");
    }
    // Handlers get copies, never the caller's objects.
    for (size_t i = 0; i < 3; i++)
        EXPECT_NE(got[i].command, json_array_get(list, i));
    json_decref(list);
    EXPECT_TRUE(pool_full());
}

TEST_F(CommandTest, UnknownCommandIsLoggedAndDropped)
{
    ASSERT_EQ(command_register("set.config", handler_a), 0);
    json_t *c = cmd("set", "nothing", "", "c-9");
    int flags = -1;
    EXPECT_EQ(process_command(c, &flags, "/api/r"), nullptr);
    json_decref(c);
    EXPECT_TRUE(logged("Unknown command 'set.nothing'"));

    // Dropped in a bundle as well: only the known command runs, and no
    // record stays out of the pool.
    json_t *list = json_array();
    json_array_append_new(list, cmd("set", "nothing", "", "c-10"));
    json_array_append_new(list, cmd("set", "config", "", "c-11"));
    process_bundle(list, 2, "/api/r");
    json_decref(list);
    // Commands run one at a time in arrival order: once a later one has run,
    // anything the bundle had queued has run too.
    list = json_array();
    json_array_append_new(list, cmd("set", "config", "", "c-12"));
    process_bundle(list, 1, "/api/r");
    json_decref(list);
    auto got = wait_calls(2);
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].id, "c-11");
    EXPECT_EQ(got[1].id, "c-12");
    EXPECT_EQ(count("Unknown command 'set.nothing'"), 2);
    EXPECT_TRUE(pool_full());
}

TEST_F(CommandTest, RequiredMembers)
{
    ASSERT_EQ(command_register("set.config", handler_a), 0);
    int flags;
    json_t *c = parse(R"({"action":"set","context":"config","id":"x"})");
    EXPECT_EQ(process_command(c, &flags, "/r"), nullptr); // flags have no effect but must be there
    json_decref(c);
    EXPECT_TRUE(logged("Missing or invalid 'flags' element."));

    c = parse(R"({"action":"set","context":"config","flags":3})");
    EXPECT_EQ(process_command(c, &flags, "/r"), nullptr);
    json_decref(c);
    EXPECT_EQ(count("Missing or invalid 'flags' element."), 2);

    c = parse(R"({"context":"config","flags":""})");
    EXPECT_EQ(process_command(c, &flags, "/r"), nullptr);
    json_decref(c);
    EXPECT_TRUE(logged("Missing or invalid 'action' element."));

    c = parse(R"({"action":"set","context":7,"flags":""})");
    EXPECT_EQ(process_command(c, &flags, "/r"), nullptr);
    json_decref(c);
    EXPECT_TRUE(logged("Missing or invalid 'context' element."));

    EXPECT_EQ(queue_count(work_free_queue), WORK_RECORDS);
    // A known command after them runs alone: none of the refused ones was
    // queued ahead of it.
    json_t *list = json_array();
    json_array_append_new(list, cmd("set", "config", "", "c-marker"));
    process_bundle(list, 1, "/r");
    json_decref(list);
    auto got = wait_calls(1);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].id, "c-marker");
}

TEST_F(CommandTest, FlagsAreParsedAndChangeNothing)
{
    ASSERT_EQ(command_register("set.config", handler_a), 0);
    struct {
        const char *text;
        int bits;
    } cases[] = {{"chain,last", 3}, {"", 0}, {"unchained", 1}, {"last", 2}, {"none", 0}};
    for (auto &k : cases) {
        json_t *c = cmd("set", "config", k.text, "f");
        int flags = -1;
        work_t *w = process_command(c, &flags, "/api/r");
        json_decref(c);
        ASSERT_NE(w, nullptr) << k.text;
        EXPECT_EQ(flags, k.bits) << k.text;
        // Each command is a record of its own that runs its handler.
        EXPECT_EQ(w->next, nullptr);
        EXPECT_STREQ(static_cast<char *>(w->p1), "set.config");
        EXPECT_STREQ(static_cast<char *>(w->p3), "/api/r");
        size_t before = wait_calls(0, 0).size();
        w->fn(w->p1, w->p2, w->p3);
        auto ran = wait_calls(before + 1, 0);
        ASSERT_EQ(ran.size(), before + 1) << k.text;
        EXPECT_EQ(ran.back().handler, "a");
        EXPECT_EQ(ran.back().id, "f");
        work_free(w);
    }
    {
        std::lock_guard<std::mutex> g(calls_lock);
        calls.clear();
    }

    // A "chain,last" command runs just like one with empty flags.
    json_t *list = json_array();
    json_array_append_new(list, cmd("set", "config", "chain,last", "c-1"));
    json_array_append_new(list, cmd("set", "config", "", "c-2"));
    json_array_append_new(list, cmd("set", "config", "chain", "c-3"));
    process_bundle(list, 3, "/api/r");
    json_decref(list);
    auto got = wait_calls(3);
    ASSERT_EQ(got.size(), 3u);
    EXPECT_EQ(got[0].id, "c-1");
    EXPECT_EQ(got[1].id, "c-2");
    EXPECT_EQ(got[2].id, "c-3");
    EXPECT_TRUE(pool_full());
}

TEST_F(CommandTest, NonObjectElementsAreSkipped)
{
    ASSERT_EQ(command_register("set.config", handler_a), 0);
    json_t *list = json_array();
    json_array_append_new(list, cmd("set", "config", "", "c-1"));
    json_array_append_new(list, json_integer(5));
    json_array_append_new(list, json_string("set.config"));
    json_array_append_new(list, cmd("set", "config", "", "c-4"));
    process_bundle(list, 5, "/api/r"); // the fifth element is missing
    json_decref(list);

    auto got = wait_calls(2);
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].id, "c-1");
    EXPECT_EQ(got[1].id, "c-4");
    EXPECT_EQ(count("Missing or invalid 'command' in bundle"), 3);
}

TEST_F(CommandTest, ExhaustedPoolDropsTheCommandWithoutBlocking)
{
    ASSERT_EQ(command_register("set.config", handler_a), 0);
    std::vector<work_t *> taken;
    while (work_t *w = work_try_alloc())
        taken.push_back(w);
    ASSERT_EQ(taken.size(), static_cast<size_t>(WORK_RECORDS));

    json_t *list = json_array();
    json_array_append_new(list, cmd("set", "config", "", "c-1"));
    auto done = std::async(std::launch::async, [list] { process_bundle(list, 1, "/api/r"); });
    bool returned = done.wait_for(std::chrono::seconds(2)) == std::future_status::ready;
    EXPECT_TRUE(returned) << "process_bundle waited for a work record";
    if (!returned) {
        work_free(taken.back());
        taken.pop_back();
    }
    done.wait();
    EXPECT_TRUE(logged("Cannot process command; out of free work items"));

    // With the pool back, a later command runs first: the runner takes
    // commands in arrival order, so the dropped one was never queued.
    for (work_t *w : taken)
        work_free(w);
    json_t *later = json_array();
    json_array_append_new(later, cmd("set", "config", "", "c-2"));
    process_bundle(later, 1, "/api/r");
    json_decref(later);
    auto got = wait_calls(1);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].id, "c-2");

    // Sent again with records to spare, the same command runs.
    process_bundle(list, 1, "/api/r");
    json_decref(list);
    got = wait_calls(2);
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[1].id, "c-1");
    EXPECT_TRUE(pool_full());
}

// The envelope the handlers share: what it reads, what it says and logs
// when the command lacks an id or params, and that it releases what the
// handler was given (checked by the sanitizer build's leak-free run of it).
TEST_F(CommandTest, EnvelopeReadsIdAndParams)
{
    json_t *c = parse(R"({"id":"c-1","params":{"interval":5}})");
    cmd_envelope e("set.thing", strdup("set.thing"), c, strdup("/r"));
    ASSERT_TRUE(e.open());
    EXPECT_STREQ(e.id, "c-1");
    EXPECT_EQ(json_integer_value(json_object_get(e.params, "interval")), 5);
    EXPECT_STREQ(e.message, "");
    EXPECT_EQ(e.command(), c);
    EXPECT_STREQ(e.response_link(), "/r");
}

TEST_F(CommandTest, EnvelopeRefusesAMissingId)
{
    cmd_envelope e("set.thing", strdup("set.thing"), parse(R"({"id":7,"params":{}})"),
                   strdup("/r"));
    EXPECT_FALSE(e.open());
    EXPECT_STREQ(e.id, "");
    EXPECT_STREQ(e.message, "missing or invalid 'id' element in command");
    EXPECT_TRUE(logged("set.thing: missing or invalid 'id' element in command"));
}

TEST_F(CommandTest, EnvelopeRefusesMissingParamsUnlessNotNeeded)
{
    {
        cmd_envelope e("get.thing", strdup("get.thing"), parse(R"({"id":"x","params":[]})"),
                       strdup("/r"));
        EXPECT_FALSE(e.open());
        EXPECT_STREQ(e.id, "x");
        EXPECT_EQ(e.params, nullptr);
        EXPECT_STREQ(e.message, "missing or invalid 'params' element");
        EXPECT_TRUE(logged("get.thing: missing or invalid 'params' element"));
    }
    cmd_envelope e("get.thing", strdup("get.thing"), parse(R"({"id":"y"})"), strdup("/r"));
    EXPECT_TRUE(e.open(false));
    EXPECT_STREQ(e.id, "y");
    EXPECT_STREQ(e.message, "");
}

TEST_F(CommandTest, EnvelopeIdIsKeptTo41Characters)
{
    std::string long_id(60, 'i');
    json_t *c = json_pack("{s:s, s:{}}", "id", long_id.c_str(), "params");
    cmd_envelope e("set.thing", strdup("set.thing"), c, strdup("/r"));
    ASSERT_TRUE(e.open());
    EXPECT_EQ(std::string(e.id), std::string(41, 'i'));
}

TEST_F(CommandTest, EnvelopeFailFormatsLogsAndReturnsMinusOne)
{
    cmd_envelope e("set.thing", strdup("set.thing"), parse(R"({"id":"x","params":{}})"),
                   strdup("/r"));
    EXPECT_EQ(e.fail("value %d out of range", 42), -1);
    EXPECT_STREQ(e.message, "value 42 out of range");
    EXPECT_TRUE(logged("set.thing: value 42 out of range"));
}

TEST_F(CommandTest, EnvelopeIntervalIsWholeSecondsWithinItsRange)
{
    cmd_envelope e("set.thing", strdup("set.thing"),
                   parse(R"({"id":"x","params":{"interval":10999}})"), strdup("/r"));
    ASSERT_TRUE(e.open());
    int seconds = -1;
    EXPECT_TRUE(e.interval(10, 3600, "thing interval out of range", &seconds));
    EXPECT_EQ(seconds, 10); // truncated, not rounded
    EXPECT_STREQ(e.message, "");
    EXPECT_FALSE(e.interval(11, 3600, "thing interval out of range", &seconds));
    EXPECT_STREQ(e.message, "thing interval out of range");
    EXPECT_TRUE(logged("set.thing: thing interval out of range"));
    EXPECT_EQ(seconds, 10);
}

TEST_F(CommandTest, EnvelopeIntervalMustBeAnInteger)
{
    for (const char *text : {R"({"id":"x","params":{}})", R"({"id":"x","params":{"interval":"5"}})",
                             R"({"id":"x","params":{"interval":5000.0}})"}) {
        cmd_envelope e("set.thing", strdup("set.thing"), parse(text), strdup("/r"));
        ASSERT_TRUE(e.open());
        int seconds = -1;
        EXPECT_FALSE(e.interval(1, 60, "out of range", &seconds)) << text;
        EXPECT_STREQ(e.message, "missing or invalid 'interval' element in params") << text;
        EXPECT_EQ(seconds, -1);
    }
    // Far beyond an int: still refused as out of range, not wrapped into it.
    cmd_envelope e("set.thing", strdup("set.thing"),
                   parse(R"({"id":"x","params":{"interval":4294968296000}})"), strdup("/r"));
    ASSERT_TRUE(e.open());
    int seconds = -1;
    EXPECT_FALSE(e.interval(1, 60, "out of range", &seconds));
    EXPECT_STREQ(e.message, "out of range");
}

TEST_F(CommandTest, EnvelopeServiceLinkNeedsAnObjectWithAnHrefText)
{
    const struct {
        const char *text;
        const char *message;
    } cases[] = {
        {R"({"id":"x","params":{}})", "missing or invalid 'serviceLink' element in params"},
        {R"({"id":"x","params":{"serviceLink":"/s"}})",
         "missing or invalid 'serviceLink' element in params"},
        {R"({"id":"x","params":{"serviceLink":{}}})",
         "missing or invalid 'href' element in params"},
        {R"({"id":"x","params":{"serviceLink":{"href":7}}})",
         "missing or invalid 'href' element in params"},
    };
    for (const auto &c : cases) {
        cmd_envelope e("get.thing", strdup("get.thing"), parse(c.text), strdup("/r"));
        ASSERT_TRUE(e.open());
        EXPECT_EQ(e.service_link(), nullptr) << c.text;
        EXPECT_STREQ(e.message, c.message) << c.text;
    }
    cmd_envelope e("get.thing", strdup("get.thing"),
                   parse(R"({"id":"x","params":{"serviceLink":{"href":"/s/1"}}})"), strdup("/r"));
    ASSERT_TRUE(e.open());
    EXPECT_STREQ(e.service_link(), "/s/1");
    EXPECT_STREQ(e.message, "");
}

// ---- the envelope answers its own failures ----------------------------------

namespace
{

// What the last opening handed the handler.
bool opened;
int opened_seconds;
std::string opened_href;

// Opens the way the stream commands do, and answers 0 when it could.
void service_handler(char *name, json_t *command, char *link)
{
    cmd_envelope cmd("set.thing", name, command, link);
    opened = cmd.open_service(10, 3600, "thing interval out of range");
    if (!opened)
        return;
    opened_seconds = cmd.seconds;
    opened_href = cmd.service_href;
    cmd.answer(0);
}

void refusing_handler(char *name, json_t *command, char *link)
{
    cmd_envelope cmd("set.thing", name, command, link);
    if (!cmd.open())
        return;
    cmd.refuse("value %d refused", 7);
}

class EnvelopeAnswerTest : public agent_test::AgentTest
{
  protected:
    void SetUp() override
    {
        AgentTest::SetUp();
        opened = false;
        opened_seconds = -1;
        opened_href.clear();
    }
};

} // namespace

TEST_F(EnvelopeAnswerTest, EachFailureOfTheServiceOpeningIsAnsweredOnce)
{
    struct {
        const char *params;
        const char *message;
    } cases[] = {
        {R"([])", "missing or invalid 'params' element"},
        {R"({"serviceLink":{"href":"/s"}})", "missing or invalid 'interval' element in params"},
        {R"({"interval":9999,"serviceLink":{"href":"/s"}})", "thing interval out of range"},
        {R"({"interval":3601000,"serviceLink":{"href":"/s"}})", "thing interval out of range"},
        {R"({"interval":10000})", "missing or invalid 'serviceLink' element in params"},
        {R"({"interval":10000,"serviceLink":{}})", "missing or invalid 'href' element in params"},
    };
    int n = 0;
    for (const auto &c : cases) {
        std::string id = "f" + std::to_string(n++);
        EXPECT_EQ(run_command(service_handler, "set", "thing", id, c.params),
                  std::make_pair(-1, std::string(c.message)))
            << c.params;
        EXPECT_FALSE(opened) << c.params;
    }
    // Every command had its one answer and its one log line, and only those.
    EXPECT_EQ(controller->answers().size(), std::size(cases));
    for (const auto &c : cases) {
        size_t same = 0;
        for (const auto &d : cases)
            same += std::string(d.message) == c.message;
        EXPECT_EQ(count_logged(std::string("set.thing: ") + c.message), same) << c.message;
    }

    // No id: answered once all the same, with an empty one.
    run_handler(service_handler, "set.thing", R"({"params":{"interval":10000}})");
    auto res = controller->wait_answers(std::size(cases) + 1);
    ASSERT_EQ(res.size(), std::size(cases) + 1);
    EXPECT_EQ(res.back().id, "");
    EXPECT_EQ(res.back().code, -1);
    EXPECT_EQ(res.back().message, "missing or invalid 'id' element in command");
    EXPECT_TRUE(logged("set.thing: missing or invalid 'id' element in command"));
}

TEST_F(EnvelopeAnswerTest, ServiceOpeningGivesWholeSecondsAndTheLink)
{
    EXPECT_EQ(run_command(service_handler, "set", "thing", "ok",
                          R"({"interval":3600999,"serviceLink":{"href":"/v1/things/9"}})"),
              std::make_pair(0, std::string()));
    EXPECT_TRUE(opened);
    EXPECT_EQ(opened_seconds, 3600);
    EXPECT_EQ(opened_href, "/v1/things/9");
    EXPECT_EQ(controller->answers().size(), 1u);
}

TEST_F(EnvelopeAnswerTest, RefuseAnswersOnceWithItsMessage)
{
    EXPECT_EQ(run_command(refusing_handler, "set", "thing", "r1", "{}"),
              std::make_pair(-1, std::string("value 7 refused")));
    EXPECT_TRUE(logged("set.thing: value 7 refused"));
    EXPECT_EQ(controller->answers().size(), 1u);
}

namespace
{

std::string optional_seen;

void optional_handler(char *name, json_t *command, char *link)
{
    cmd_envelope cmd("set.thing", name, command, link);
    const char *mode = "<unset>";
    if (!cmd.open_optional_text("mode", "invalid 'mode' element in params", &mode))
        return;
    optional_seen = mode == nullptr ? "<null>" : mode;
    cmd.answer(0);
}

} // namespace

TEST_F(EnvelopeAnswerTest, OptionalTextMayBeLeftOutButNotBeAnythingElse)
{
    optional_seen.clear();
    EXPECT_EQ(run_command(optional_handler, "set", "thing", "o1", "{}"),
              std::make_pair(0, std::string()));
    EXPECT_EQ(optional_seen, "<null>");
    EXPECT_EQ(run_command(optional_handler, "set", "thing", "o2", R"({"mode":"soft"})"),
              std::make_pair(0, std::string()));
    EXPECT_EQ(optional_seen, "soft");
    optional_seen.clear();
    EXPECT_EQ(run_command(optional_handler, "set", "thing", "o3", R"({"mode":1})"),
              std::make_pair(-1, std::string("invalid 'mode' element in params")));
    EXPECT_EQ(optional_seen, "");
    EXPECT_EQ(run_command(optional_handler, "set", "thing", "o4", R"("x")"),
              std::make_pair(-1, std::string("missing or invalid 'params' element")));
    EXPECT_EQ(count_logged("set.thing: invalid 'mode' element in params"), 1u);
    EXPECT_EQ(controller->answers().size(), 4u);
}
