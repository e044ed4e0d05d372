// A device root, a controller (in process or the lab) and the agent's
// cloud-link start-up, for the tests of the modules that talk to it.
#pragma once

#include "command.h"
#include "config.h"
#include "db.h"
#include "http.h"
#include "log.h"
#include "lsql.h"
#include "platform_utils.h"
#include "sample_env.h"
#include "signals.h"
#include "testkit.h"
#include "work.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace agent_test
{

using namespace testkit;

inline unsigned int no_sleep(unsigned int)
{
    return 0;
}

// The agent's cloud-link start-up in a fresh device root. Requests to the
// controller are answered in process (CannedController); a suite that needs
// a real server (TLS, HTTP, the lab's scripts) derives from AgentLabTest.
// A sleep seam that records the seconds asked of it and sleeps not at all;
// at_wait, when set, hears the count so far after each.
inline std::mutex waits_lock;
inline std::vector<unsigned int> waits;
inline std::function<void(size_t)> at_wait;

inline unsigned int record_wait(unsigned int seconds)
{
    size_t n;
    {
        std::lock_guard<std::mutex> hold(waits_lock);
        waits.push_back(seconds);
        n = waits.size();
    }
    if (at_wait)
        at_wait(n);
    return 0;
}

class AgentTest : public ::testing::Test
{
  protected:
    DeviceRoot root;
    std::unique_ptr<CannedController> controller;
    std::unique_ptr<Lab> lab;

    // Extra options for the device root, e.g. {"--env", "heartbeat=30"}.
    virtual std::vector<std::string> devroot_args() { return {}; }
    virtual bool with_lab() { return false; }

    void SetUp() override
    {
        ASSERT_TRUE(root.build(devroot_args()));
        if (with_lab())
            lab = std::make_unique<Lab>(root);
        else
            controller = std::make_unique<CannedController>();
        log_init();
        signals_init(); // before any thread, as in the daemon
        command_init();
        thread_init_once();
        db_init();
        http_init();
        platform_sleep = no_sleep;
        set_sample_env();
    }

    std::string base_url() const { return lab ? lab->base_url : CannedController::base_url; }
    void use_controller() { config_set("system", nullptr, "cloud-controller", base_url().c_str()); }

    // One answer the agent posted for a command: code and message.
    using Answer = std::pair<int, std::string>;

    // Hands a command text to its handler, as the command runner does.
    static void run_handler(cmd_fn fn, const char *name, const std::string &command,
                            const char *link = "/response/t")
    {
        json_t *js = json_loads(command.c_str(), 0, nullptr);
        EXPECT_NE(js, nullptr) << command;
        fn(strdup(name), js, strdup(link));
    }

    // The answers posted for this command id ("" for any id), once `count`
    // of them came or the wait ended.
    std::vector<Answer> answers_for(const std::string &id, int count = 1)
    {
        std::vector<Answer> out;
        if (!lab) {
            auto got = id.empty() ? controller->wait_answers((size_t)count)
                                  : controller->wait_answers(id, (size_t)count);
            for (auto &a : got)
                out.push_back({a.code, a.message});
            return out;
        }
        Json res = id.empty() ? lab->wait_results({}, count)
                              : lab->wait_results({{"command_id", id}}, count);
        for (size_t i = 0; i < json_array_size(res.get()); i++)
            out.push_back(
                {(int)json_integer_value(json_object_get(json_array_get(res.get(), i), "code")),
                 json_str(json_array_get(res.get(), i), "message")});
        return out;
    }

    // The one answer posted for this id; a command is answered exactly once.
    Answer answer_for(const std::string &id)
    {
        auto all = answers_for(id);
        EXPECT_EQ(all.size(), 1u) << "answers for '" << id << "'";
        return all.empty() ? Answer{99, "<no result>"} : all.back();
    }

    // Runs "action.context" with this id and params (JSON text); its answer.
    Answer run_command(cmd_fn fn, const char *action, const char *context, const std::string &id,
                       const std::string &params, const char *link = "/response/t")
    {
        use_controller();
        std::string name = std::string(action) + "." + context;
        run_handler(fn, name.c_str(),
                    std::string(R"({"action":")") + action + R"(","context":")" + context +
                        R"(","id":")" + id + R"(","params":)" + params + "}",
                    link);
        return answer_for(id);
    }

    // A command's answers to params it cannot take: each case runs under an
    // id of its own ("m0", "m1", ...), is answered -1 with its message and
    // logs "<action>.<context>: <message>". How many ran.
    struct Refusal {
        const char *params;
        const char *message;
    };
    int expect_refusals(cmd_fn fn, const char *action, const char *context,
                        const std::vector<Refusal> &cases)
    {
        std::string name = std::string(action) + "." + context;
        int n = 0;
        for (auto &c : cases) {
            std::string id = "m" + std::to_string(n++);
            EXPECT_EQ(run_command(fn, action, context, id, c.params),
                      std::make_pair(-1, std::string(c.message)))
                << c.params;
            EXPECT_TRUE(logged(name + ": " + c.message)) << c.message;
        }
        return n;
    }

    std::string setting(const char *property)
    {
        return config_get("system", nullptr, property).value_or("<none>");
    }

    std::vector<std::string> main_log() { return log_messages(root.at("/rw/orkad.log")); }
    bool logged(const std::string &line) { return testkit::logged(root, line); }
    // Whether a line of the main log starts with prefix.
    bool logged_prefix(const std::string &prefix)
    {
        auto m = main_log();
        return std::any_of(m.begin(), m.end(),
                           [&](const std::string &l) { return l.rfind(prefix, 0) == 0; });
    }
    size_t count_logged(const std::string &line)
    {
        auto m = main_log();
        return (size_t)std::count(m.begin(), m.end(), line);
    }
    bool wait_logged(const std::string &line, int timeout_ms = 10000)
    {
        return wait_for([&] { return logged(line); }, timeout_ms);
    }

    static bool wait_for(const std::function<bool()> &fn, int timeout_ms = 10000)
    {
        return testkit::wait_for(fn, timeout_ms);
    }

    // The connection words given to the switch, in order.
    std::vector<std::string> switch_statuses()
    {
        std::vector<std::string> out;
        for (auto &line : journal_lines_of(root, "rpcclt_openapiAppCtrlStatusSet")) {
            std::string s = json_str(json_parse(line).get(), "status");
            while (!s.empty() && (s.back() == '\n' || s.back() == ' '))
                s.pop_back();
            out.push_back(s.substr(s.rfind(' ') + 1));
        }
        return out;
    }
    bool switch_reloaded() { return !journal_lines_of(root, "rpcclt_openapiSystemReload").empty(); }

    size_t count(const Lab::Query &filters)
    {
        return json_array_size(lab->requests(filters).get());
    }

    // The requests the in-process controller took on exactly this path
    // (after "/api"), oldest first.
    std::vector<CannedController::Request> sent_to(const std::string &path) const
    {
        std::vector<CannedController::Request> out;
        for (auto &r : controller->requests(path))
            if (r.path == path)
                out.push_back(r);
        return out;
    }
};

// The same, against the lab controller (lab/controller.py) over HTTPS.
class AgentLabTest : public AgentTest
{
  protected:
    bool with_lab() override { return true; }
};

// Member `key` of element i of a JSON array, as text ("" when absent).
inline std::string at(const Json &array, size_t i, const char *key)
{
    return json_str(json_array_get(array.get(), i), key);
}
inline json_t *item(const Json &array, size_t i)
{
    return json_array_get(array.get(), i);
}

} // namespace agent_test
