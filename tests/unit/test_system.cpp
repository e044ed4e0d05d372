// set.system and set.reboot against an in-process controller and the
// simulated switch: stored properties, the failure list and its cut, the password on
// the switch, the reboot's order of events and its failure reports.
#include "agent_fixture.h"
#include "db.h"
#include "icos-openapi.h"
#include "logging.h"
#include "system.h"

#include <syslog.h>

using namespace agent_test;

namespace
{

std::vector<unsigned int> logging_sleeps;
std::vector<unsigned int> system_sleeps;

unsigned int record_logging_sleep(unsigned int s)
{
    logging_sleeps.push_back(s);
    return 0;
}
unsigned int record_system_sleep(unsigned int s)
{
    system_sleeps.push_back(s);
    return 0;
}

class SystemTest : public AgentTest
{
  protected:
    void SetUp() override
    {
        AgentTest::SetUp();
        logging_init();
        logging_sleep = record_logging_sleep;
        system_sleep = record_system_sleep;
        icos_openapi_sleep = no_sleep;
        use_controller();
    }

    struct Result {
        int code;
        std::string message;
    };

    // Runs the handler with this command text; the answers posted for its id.
    std::vector<Result> run(cmd_fn fn, const char *name, const std::string &command, const char *id,
                            size_t answers = 1)
    {
        run_handler(fn, name, command);
        std::vector<Result> out;
        for (auto &a : answers_for(id, (int)answers))
            out.push_back({a.first, a.second});
        return out;
    }

    Result set_system(const std::string &params, const char *id = "sys-1")
    {
        std::string c = std::string(R"({"action":"set","context":"system","id":")") + id +
                        R"(","params":)" + params + "}";
        auto r = run(cmd_set_system, "set.system", c, id);
        return r.empty() ? Result{99, "<no answer>"} : r[0];
    }

    std::vector<Result> set_reboot(const std::string &params, const char *id, size_t answers)
    {
        std::string c = std::string(R"({"action":"set","context":"reboot","id":")") + id +
                        R"(","params":)" + params + "}";
        return run(cmd_set_reboot, "set.reboot", c, id, answers);
    }

    std::vector<std::string> journal_calls() { return testkit::journal_calls(root); }
};

// A name of n characters, unique by its first letters.
std::string name_of(int i, size_t n)
{
    std::string s = "p" + std::to_string(i) + "_";
    s.resize(n, 'x');
    return s;
}

} // namespace

TEST_F(SystemTest, InitRegistersBothCommands)
{
    set_system_init();
    EXPECT_TRUE(logged("registered 'set.system' command handler"));
    EXPECT_TRUE(logged("registered 'set.reboot' command handler"));
    auto m = main_log();
    auto sys = std::find(m.begin(), m.end(), "registered 'set.system' command handler");
    auto reb = std::find(m.begin(), m.end(), "registered 'set.reboot' command handler");
    EXPECT_LT(sys, reb);
}

// ---- set.system ----------------------------------------------------------

TEST_F(SystemTest, StoresTextMembersAndCountsTheOthers)
{
    Result r = set_system(R"({"a":"1","b":2})");
    EXPECT_EQ(r.code, 1);
    EXPECT_EQ(r.message, "failed to set properties: b");
    EXPECT_EQ(setting("a"), "1");
    EXPECT_EQ(setting("b"), "<none>");
    EXPECT_TRUE(logged("set.system: command (set.system) received"));
    EXPECT_TRUE(logged("set.system: invalid value type for 'b'"));
    EXPECT_TRUE(logged("set.system: failed to set properties: b"));
}

TEST_F(SystemTest, PropertyNamesFromTheControllerAreStoredNotRun)
{
    Result r = set_system(R"({"x', 'y'); DELETE FROM system; --":"v","rack's":"4"})");
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.message, "");
    // Read back with the name quoted, as it was stored.
    auto stored = [](const char *name) {
        std::string key = std::string("system.") + name;
        return db_get("system", "value", "key=?", {key.c_str()}).value_or("<none>");
    };
    EXPECT_EQ(stored("x', 'y'); DELETE FROM system; --"), "v");
    EXPECT_EQ(stored("rack's"), "4");
    // Nothing else was touched.
    EXPECT_EQ(setting("x"), "<none>");
    EXPECT_EQ(setting("cloud-controller"), base_url());
}

TEST_F(SystemTest, EmptyParamsIsSuccessWithAnEmptyMessage)
{
    Result r = set_system("{}");
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.message, "");
}

TEST_F(SystemTest, LaterMembersAreStoredAfterAFailureInDocumentOrder)
{
    Result r = set_system(R"({"z":null,"y":"2","x":[1],"w":"4"})");
    EXPECT_EQ(r.code, 2);
    EXPECT_EQ(r.message, "failed to set properties: z,x");
    EXPECT_EQ(setting("y"), "2");
    EXPECT_EQ(setting("w"), "4");
}

TEST_F(SystemTest, LongFailureListEndsWithDots)
{
    // Seven names of 50 take 7 x 51 = 357 of the 383 bytes; the eighth no
    // longer fits and every later one writes the mark again.
    std::string params = "{";
    std::string expected;
    for (int i = 0; i < 10; i++) {
        std::string n = name_of(i, 50);
        params += (i ? "," : "") + std::string("\"") + n + "\":" + std::to_string(i);
        if (i < 7)
            expected += (i ? "," : "") + n;
    }
    params += "}";
    Result r = set_system(params);
    EXPECT_EQ(r.code, 10);
    EXPECT_EQ(r.message, "failed to set properties: " + expected + ",...");
}

TEST_F(SystemTest, NameThatJustFitsIsListedAndTheNextIsCut)
{
    // 379 + 4 = 383: still fits, leaving 3 bytes; nothing fits after that.
    std::string big = name_of(1, 379);
    Result r = set_system("{\"" + big + R"(":1,"a":2,"b":3})");
    EXPECT_EQ(r.code, 3);
    EXPECT_EQ(r.message, "failed to set properties: " + big + ",...");

    std::string over = name_of(2, 380);
    r = set_system("{\"" + over + R"(":1,"a":2})", "sys-2");
    EXPECT_EQ(r.code, 2);
    EXPECT_EQ(r.message, "failed to set properties: ...");
}

TEST_F(SystemTest, PasswordGoesToTheSwitchAndIsSaved)
{
    Result r = set_system(R"({"password":"s3cret","hostname":"lab-sw"})");
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(journal_calls(),
              (std::vector<std::string>{"rpcclt_openapiUserSet", "rpcclt_openapiSaveConfig"}));
    EXPECT_EQ(journal_value(root, 0, "userName"), "admin");
    EXPECT_EQ(journal_value(root, 0, "password"), "s3cret");
    EXPECT_EQ(setting("password"), "s3cret");
    EXPECT_EQ(setting("hostname"), "lab-sw");
}

TEST_F(SystemTest, PasswordTheSwitchRefusesIsStillStored)
{
    write_file(root.at("/var/switch/faults.json"),
               R"([{"call":"rpcclt_openapiUserSet","result":-26}])");
    Result r = set_system(R"({"password":"nope"})");
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(setting("password"), "nope");
}

TEST_F(SystemTest, StoreFailureIsLoggedWithNameAndValue)
{
    // The store refuses this one name.
    ASSERT_EQ(db_command("CREATE TRIGGER refuse BEFORE INSERT ON system WHEN "
                         "NEW.key = 'system.refused' BEGIN SELECT RAISE(ABORT, 'refused'); END"),
              0);
    Result r = set_system(R"({"refused":"x","ok":"y"})");
    EXPECT_EQ(r.code, 1);
    EXPECT_EQ(r.message, "failed to set properties: refused");
    EXPECT_TRUE(logged("set.system: error (-2) setting 'refused' to 'x'"));
    EXPECT_EQ(setting("ok"), "y");
}

TEST_F(SystemTest, StoreFailureOfThePasswordLogsTheMarker)
{
    ASSERT_EQ(db_command("CREATE TRIGGER refuse BEFORE INSERT ON system WHEN "
                         "NEW.key = 'system.password' BEGIN SELECT RAISE(ABORT, 'no'); END"),
              0);
    write_file(root.at("/var/switch/faults.json"),
               R"([{"call":"rpcclt_openapiUserSet","result":-26}])");
    Result r = set_system(R"({"password":"n0t-2-b-seen"})");
    EXPECT_EQ(r.code, 1);
    EXPECT_EQ(r.message, "failed to set properties: password");
    EXPECT_TRUE(logged("set.system: error (-2) setting 'password' to '********'"));
    EXPECT_TRUE(logged("icos_set_password: failed to set user/password for 'admin'/'********' "
                       "(result = -26)"));
    for (const char *name : {"/rw/orkad.log", "/rw/command.log", "/rw/http.log"})
        EXPECT_EQ(read_file(root.at(name)).find("n0t-2-b-seen"), std::string::npos) << name;
}

TEST_F(SystemTest, EnvelopeErrors)
{
    auto r = run(cmd_set_system, "set.system", R"({"id":"e1","params":"x"})", "e1");
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].code, -1);
    EXPECT_EQ(r[0].message, "missing or invalid 'params' element");
    EXPECT_TRUE(logged("set.system: missing or invalid 'params' element"));

    cmd_set_system(strdup("set.system"), json_loads(R"({"id":5,"params":{}})", 0, nullptr),
                   strdup("/response/t"));
    auto res = controller->wait_answers("");
    ASSERT_EQ(res.size(), 1u);
    EXPECT_EQ(res[0].code, -1);
    EXPECT_EQ(res[0].message, "missing or invalid 'id' element in command");
    EXPECT_TRUE(logged("set.system: missing or invalid 'id' element in command"));
}

// ---- set.reboot ----------------------------------------------------------

TEST_F(SystemTest, RebootMessageMustBeText)
{
    auto r = set_reboot(R"({"message":5})", "rb-1", 1);
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].code, -1);
    EXPECT_EQ(r[0].message, "missing or invalid 'message' element type");
    EXPECT_TRUE(logged("cmd_set_reboot: missing or invalid 'message' element type"));
    EXPECT_TRUE(journal_calls().empty());
    EXPECT_TRUE(logging_sleeps.empty());
}

TEST_F(SystemTest, RebootEnvelopeErrors)
{
    auto r = set_reboot(R"([])", "rb-2", 1);
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].code, -1);
    EXPECT_EQ(r[0].message, "missing or invalid 'params' element");
    EXPECT_TRUE(logged("cmd_set_reboot: missing or invalid 'params' element"));
    EXPECT_TRUE(journal_calls().empty());
}

namespace
{
// What the controller had received when the switch was asked to reload.
const CannedController *reload_controller;
size_t results_at_reload = 99;
unsigned int note_reload(unsigned int)
{
    results_at_reload = reload_controller->answers().size();
    return 0;
}
} // namespace

TEST_F(SystemTest, RebootWithoutMessageAnswersFirstThenReloads)
{
    SyslogSink sink(root);
    reload_controller = controller.get();
    // Called right after the reload request succeeds.
    icos_openapi_sleep = note_reload;
    logging_stream.interval = 30;

    auto r = set_reboot("{}", "rb-3", 2);
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(r[0].code, 0);
    EXPECT_EQ(r[0].message, "");
    EXPECT_EQ(results_at_reload, 1u);
    EXPECT_EQ(journal_calls(), std::vector<std::string>{"rpcclt_openapiSystemReload"});

    std::string line = sink.wait_for("reboot initiated");
    EXPECT_NE(line.find(": reboot initiated by cloud-services"), std::string::npos) << line;
    EXPECT_EQ(line.rfind("<13>", 0), 0u) << line; // LOG_USER | LOG_NOTICE

    // The forwarded log was flushed: interval 0, five seconds, nothing waiting.
    EXPECT_EQ(logging_stream.interval, 0);
    EXPECT_EQ(logging_sleeps, std::vector<unsigned int>{5});

    // The switch is still here half a minute after it was asked to go.
    EXPECT_EQ(system_sleeps, std::vector<unsigned int>{30});
    EXPECT_EQ(r[1].code, -1);
    EXPECT_EQ(r[1].message, "Reboot failed!");
    // The reload's own line has no line end, so ours (with its index and
    // time) follows it on the same line.
    auto m = main_log();
    auto joined = std::find_if(m.begin(), m.end(), [](const std::string &s) {
        return s.rfind("icos_system_reload: system restart initiated successfully.", 0) == 0;
    });
    ASSERT_NE(joined, m.end());
    const std::string tail = " cmd_set_reboot: Reboot failed!";
    ASSERT_GT(joined->size(), tail.size());
    EXPECT_EQ(joined->substr(joined->size() - tail.size()), tail) << *joined;
    std::string crit = sink.wait_for("Reboot failed!");
    EXPECT_EQ(crit.rfind("<10>", 0), 0u) << crit; // LOG_USER | LOG_CRIT
}

TEST_F(SystemTest, RebootMessageIsTheReasonInSyslog)
{
    SyslogSink sink(root);
    auto r = set_reboot(R"({"message":"maintenance window"})", "rb-4", 2);
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(r[0].code, 0);
    std::string line = sink.wait_for("reboot initiated");
    EXPECT_NE(line.find(": reboot initiated: 'maintenance window'"), std::string::npos) << line;
}

TEST_F(SystemTest, RefusedReloadIsReportedWithItsCode)
{
    SyslogSink sink(root);
    write_file(root.at("/var/switch/faults.json"),
               R"([{"call":"rpcclt_openapiSystemReload","result":-26}])");
    auto r = set_reboot("{}", "rb-5", 2);
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(r[0].code, 0);
    EXPECT_EQ(r[1].code, -1);
    EXPECT_EQ(r[1].message, "Failed to reboot, error code: 1");
    EXPECT_TRUE(logged("cmd_set_reboot: Failed to reboot, error code: 1"));
    EXPECT_TRUE(system_sleeps.empty());
    EXPECT_NE(sink.wait_for("Failed to reboot").find("Failed to reboot, error code: 1"),
              std::string::npos);
}
