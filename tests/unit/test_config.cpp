// Device identity, the "set.config" / "del.config" commands and the refresh
// notice, against an in-process controller and the simulated switch (the
// lab controller where the headers matter).
#include "auth.h"
#include "command.h"
#include "config.h"
#include "db.h"
#include "http.h"
#include "icos-openapi.h"
#include "log.h"
#include "lsql.h"
#include "orkad.h"
#include "platform_utils.h"
#include "signals.h"
#include "testkit.h"

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <sys/stat.h>

using namespace testkit;

namespace
{

const char HREF[] = "/response/t";

unsigned int no_sleep(unsigned int)
{
    return 0;
}

void no_command(char *name, json_t *command, char *link)
{
    free(name);
    json_decref(command);
    free(link);
}

struct Answer {
    std::string id;
    long long code;
    std::string message;
};

class ConfigTest : public ::testing::Test
{
  protected:
    DeviceRoot root;
    std::unique_ptr<Lab> lab;
    std::unique_ptr<CannedController> controller;

    void SetUp() override
    {
        devroot({});
        log_init();
        signals_init();
        db_init();
        http_init();
        icos_openapi_sleep = no_sleep;
        platform_sleep = no_sleep;
        ASSERT_EQ(icos_openapi_client_init(), 0);
        snprintf(env_serial, sizeof(env_serial), "%s", "VX0123456789");
    }
    // (Re)builds the device root, with boot variables and options.
    void devroot(const std::vector<std::string> &args) { ASSERT_TRUE(root.build(args)); }
    void start_controller()
    {
        controller = std::make_unique<CannedController>();
        config_set("system", nullptr, "cloud-controller", CannedController::base_url);
    }
    void start_lab()
    {
        lab = std::make_unique<Lab>(root);
        config_set("system", nullptr, "cloud-controller", lab->base_url.c_str());
        lab->add_link(HREF, "response");
    }
    size_t requests(const std::string &path) { return controller->requests(path).size(); }
    // A reset asked for with this "reset-mode" text: the kind the handler
    // said it performs, never the other, and the reset ran.
    void reset_with(const std::string &id, const std::string &mode, const std::string &kind,
                    const std::string &not_kind)
    {
        start_controller();
        run(cmd_del_config, "del.config",
            R"({"id":")" + id + R"(","params":{"reset-mode":")" + mode + R"("}})");
        EXPECT_TRUE(logged("cmd_del_config: performing " + kind + " reset"));
        EXPECT_FALSE(logged("cmd_del_config: performing " + not_kind + " reset"));
        EXPECT_TRUE(file_exists(root.at("/rw/factory-reset.log")));
    }

    std::vector<std::string> main_log() { return log_messages(root.at("/rw/orkad.log")); }
    bool logged(const std::string &line)
    {
        auto m = main_log();
        return std::find(m.begin(), m.end(), line) != m.end();
    }
    // Runs a handler the way the command runner does: it owns what it gets.
    void run(cmd_fn fn, const char *name, const std::string &command)
    {
        fn(strdup(name), json_parse(command).release(), strdup(HREF));
    }
    std::vector<Answer> answers()
    {
        std::vector<Answer> out;
        for (auto &a : controller->answers()) {
            EXPECT_EQ(a.path, HREF);
            out.push_back({a.id, a.code, a.message});
        }
        return out;
    }
    // The one answer of a handler.
    Answer answer_of(cmd_fn fn, const char *name, const std::string &command)
    {
        run(fn, name, command);
        auto a = answers();
        EXPECT_EQ(a.size(), 1u);
        return a.empty() ? Answer{"", 99, "(none)"} : a.back();
    }
    std::vector<Json> admin_writes()
    {
        std::vector<Json> out;
        for (const std::string &line : journal_lines_of(root, "rpcclt_openapiIfAdminStateSet"))
            out.push_back(json_parse(line));
        return out;
    }
    static long long num(const Json &j, const char *key)
    {
        return json_integer_value(json_object_get(j.get(), key));
    }
    // Validation through the section handlers alone; the message they leave.
    std::string port_message(const std::string &ports, int expect = -1)
    {
        char message[CMD_MESSAGE_SIZE] = "";
        Json j = json_parse(ports);
        EXPECT_EQ(set_port_config(j.get(), message), expect) << ports;
        return message;
    }
    std::string lan_message(const std::string &lan, int expect = -1)
    {
        char message[CMD_MESSAGE_SIZE] = "";
        Json j = json_parse(lan);
        EXPECT_EQ(set_lan_config(j.get(), message), expect) << lan;
        return message;
    }
};

const char GOOD_LAN[] = R"({"ip_proto":"static","ip_address":"10.0.0.2","subnet_mask":
    "255.255.255.0","default_gateway":"10.0.0.1","dns_server1":"10.0.0.53",
    "dns_server2":"10.0.0.54"})";

} // namespace

// ---- set.config -------------------------------------------------------------

TEST_F(ConfigTest, EmptyParamsAnswerFailureWithNoMessage)
{
    start_controller();
    Answer a = answer_of(cmd_set_config, "set.config",
                         R"({"id":"c1","action":"set","context":"config","params":{}})");
    EXPECT_EQ(a.id, "c1");
    EXPECT_EQ(a.code, -1);
    EXPECT_EQ(a.message, "");
}

TEST_F(ConfigTest, EmptyPortListAnswersSuccess)
{
    start_controller();
    Answer a =
        answer_of(cmd_set_config, "set.config", R"({"id":"c2","params":{"portConfiguration":[]}})");
    EXPECT_EQ(a.code, 0);
    EXPECT_EQ(a.message, "");
    EXPECT_TRUE(admin_writes().empty());
}

TEST_F(ConfigTest, PortWithOnlyAnIdHasNothingToConfigure)
{
    start_controller();
    Answer a = answer_of(cmd_set_config, "set.config",
                         R"({"id":"c3","params":{"portConfiguration":[{"id":"4"}]}})");
    EXPECT_EQ(a.code, -1);
    EXPECT_EQ(a.message, "missing properties to configure");
    EXPECT_EQ(main_log().back(), "set_port_config: missing properties to configure");
}

TEST_F(ConfigTest, LowerCaseDhcpIsRefused)
{
    start_controller();
    Answer a = answer_of(cmd_set_config, "set.config", R"({"id":"c4","params":{
        "lanConfiguration":{"ip_proto":"dhcp","ip_address":"","subnet_mask":"",
        "default_gateway":"","dns_server1":"","dns_server2":""}}})");
    EXPECT_EQ(a.code, -1);
    EXPECT_EQ(a.message, "invalid 'ip_proto' element value 'dhcp'");
    EXPECT_EQ(main_log().back(), "set_lan_config: invalid 'ip_proto' element value 'dhcp'");
}

TEST_F(ConfigTest, ValidLanSettingsAreAcknowledgedOnly)
{
    start_controller();
    Answer a =
        answer_of(cmd_set_config, "set.config",
                  std::string(R"({"id":"c5","params":{"lanConfiguration":)") + GOOD_LAN + "}}");
    EXPECT_EQ(a.code, 0);
    EXPECT_EQ(a.message, "");
    EXPECT_TRUE(journal_lines(root).empty());
    // "DHCP" in capitals is the other accepted protocol.
    EXPECT_EQ(lan_message(R"({"ip_proto":"DHCP","ip_address":"","subnet_mask":"",
        "default_gateway":"","dns_server1":"","dns_server2":""})",
                          0),
              "");
}

TEST_F(ConfigTest, EnvelopeErrors)
{
    start_controller();
    run(cmd_set_config, "set.config", R"({"params":{}})");
    EXPECT_EQ(main_log().back(), "cmd_set_config: missing or invalid 'id' element in command");
    run(cmd_set_config, "set.config", R"({"id":"c6","params":[]})");
    EXPECT_EQ(main_log().back(), "cmd_set_config: missing or invalid 'params' element");
    auto a = answers();
    ASSERT_EQ(a.size(), 2u);
    EXPECT_EQ(a[0].id, "");
    EXPECT_EQ(a[0].code, -1);
    EXPECT_EQ(a[0].message, "missing or invalid 'id' element in command");
    EXPECT_EQ(a[1].id, "c6");
    EXPECT_EQ(a[1].code, -1);
    EXPECT_EQ(a[1].message, "missing or invalid 'params' element");
}

TEST_F(ConfigTest, LongIdsAreCutTo41Characters)
{
    start_controller();
    const std::string id(50, 'i');
    run(cmd_set_config, "set.config",
        R"({"id":")" + id + R"(","params":{"portConfiguration":[]}})");
    run(cmd_del_config, "del.config", R"({"id":")" + id + R"(","params":{"reset-mode":2}})");
    auto a = answers();
    ASSERT_EQ(a.size(), 2u);
    EXPECT_EQ(a[0].id, id.substr(0, 41));
    EXPECT_EQ(a[0].code, 0);
    EXPECT_EQ(a[1].id, id.substr(0, 41));
    EXPECT_EQ(a[1].code, -1);
}

TEST_F(ConfigTest, PortValidationMessages)
{
    EXPECT_EQ(port_message(R"(["port"])"), "missing configuration object");
    EXPECT_EQ(main_log().back(), "set_port_config: missing configuration object");
    EXPECT_EQ(port_message(R"([{"name":"uplink"}])"),
              "missing or invalid 'id' element in port configuration");
    EXPECT_EQ(port_message(R"([{"id":3,"name":"uplink"}])"),
              "missing or invalid 'id' element in port configuration");
    EXPECT_EQ(port_message(R"([{"id":"3","name":5}])"),
              "invalid 'name' element in port configuration");
    EXPECT_EQ(port_message(R"([{"id":"3","admin_status":true}])"),
              "invalid 'admin_status' element in port configuration");
    EXPECT_EQ(main_log().back(),
              "set_port_config: invalid 'admin_status' element in port configuration");
    EXPECT_EQ(port_message(R"([{"id":"3"}])"), "missing properties to configure");
    // Not a list: nothing to do.
    EXPECT_EQ(port_message(R"({"id":"3","admin_status":"down"})", 0), "");
    EXPECT_TRUE(admin_writes().empty());
}

TEST_F(ConfigTest, IpProtoIsKeptToEightCharacters)
{
    // Eight characters fit whole; the ninth is cut off.
    EXPECT_EQ(lan_message(R"({"ip_proto":"DHCPDHCP"})"),
              "invalid 'ip_proto' element value 'DHCPDHCP'");
    EXPECT_EQ(lan_message(R"({"ip_proto":"staticXYZ"})"),
              "invalid 'ip_proto' element value 'staticXY'");
    EXPECT_EQ(main_log().back(), "set_lan_config: invalid 'ip_proto' element value 'staticXY'");
}

TEST_F(ConfigTest, LanValidationMessages)
{
    EXPECT_EQ(lan_message(R"({})"), "missing or invalid 'ip_proto' element in LAN configuration");
    EXPECT_EQ(main_log().back(),
              "set_lan_config: missing or invalid 'ip_proto' element in LAN configuration");
    EXPECT_EQ(lan_message(R"({"ip_proto":4})"),
              "missing or invalid 'ip_proto' element in LAN configuration");
    EXPECT_EQ(lan_message(R"({"ip_proto":"Static"})"), "invalid 'ip_proto' element value 'Static'");
    EXPECT_EQ(lan_message(R"({"ip_proto":"static"})"),
              "missing or invalid 'ip_address' element in LAN configuration");
    EXPECT_EQ(lan_message(R"({"ip_proto":"static","ip_address":"10.0.0.2"})"),
              "invalid 'subnet_mask' element in LAN configuration");
    EXPECT_EQ(lan_message(R"({"ip_proto":"static","ip_address":"10.0.0.2","subnet_mask":"x"})"),
              "invalid 'default_gateway' element in LAN configuration");
    EXPECT_EQ(lan_message(R"({"ip_proto":"static","ip_address":"10.0.0.2","subnet_mask":"x",
        "default_gateway":"y"})"),
              "invalid 'dns_server1' element in LAN configuration");
    EXPECT_EQ(lan_message(R"({"ip_proto":"static","ip_address":"10.0.0.2","subnet_mask":"x",
        "default_gateway":"y","dns_server1":"z","dns_server2":null})"),
              "invalid 'dns_server2' element in LAN configuration");
    EXPECT_EQ(main_log().back(),
              "set_lan_config: invalid 'dns_server2' element in LAN configuration");
    EXPECT_EQ(lan_message(GOOD_LAN, 0), "");
}

TEST_F(ConfigTest, AdminChangeReachesTheSwitch)
{
    start_controller();
    Answer a = answer_of(cmd_set_config, "set.config", R"({"id":"c7","params":{
        "portConfiguration":[{"id":"3","admin_status":"down"},{"id":"5","admin_status":"up"}]}})");
    EXPECT_EQ(a.code, 0);
    EXPECT_EQ(a.message, "");
    auto w = admin_writes();
    ASSERT_EQ(w.size(), 2u);
    EXPECT_EQ(num(w[0], "ifNum"), 3);
    EXPECT_EQ(num(w[0], "adminState"), 0); // disable
    EXPECT_EQ(num(w[0], "result"), 0);
    EXPECT_EQ(num(w[1], "ifNum"), 5);
    EXPECT_EQ(num(w[1], "adminState"), 1); // enable
    // The model keeps the change.
    Json model = json_parse(read_file(root.at("/var/switch/model.json")));
    json_t *ports = json_object_get(model.get(), "ports");
    std::string admin3;
    for (size_t i = 0; i < json_array_size(ports); i++) {
        json_t *p = json_array_get(ports, i);
        if (json_integer_value(json_object_get(p, "ifnum")) == 3)
            admin3 = json_text(json_object_get(p, "admin"));
    }
    EXPECT_EQ(admin3, "\"disable\"");
}

TEST_F(ConfigTest, PortNamesCannotBeChanged)
{
    start_controller();
    Answer a = answer_of(cmd_set_config, "set.config", R"({"id":"c8","params":{
        "portConfiguration":[{"id":"2","name":"uplink"}]}})");
    EXPECT_EQ(a.code, -1);
    EXPECT_EQ(a.message, "Port names cannot be changed on this device");
    EXPECT_TRUE(admin_writes().empty());
}

TEST_F(ConfigTest, FailingPortStopsTheWalkAndKeepsEarlierOnes)
{
    start_controller();
    Answer a = answer_of(cmd_set_config, "set.config", R"({"id":"c9","params":{
        "portConfiguration":[{"id":"1","admin_status":"down"},{"id":"2"},
                             {"id":"6","admin_status":"down"}],
        "lanConfiguration":{}}})");
    EXPECT_EQ(a.code, -1);
    EXPECT_EQ(a.message, "missing properties to configure");
    auto w = admin_writes();
    ASSERT_EQ(w.size(), 1u);
    EXPECT_EQ(num(w[0], "ifNum"), 1);
    // The LAN section after the failing one was not looked at.
    auto m = main_log();
    EXPECT_EQ(std::count_if(m.begin(), m.end(),
                            [](const std::string &s) { return s.rfind("set_lan_config", 0) == 0; }),
              0);
}

TEST_F(ConfigTest, BothSectionsInOrder)
{
    start_controller();
    Answer a = answer_of(cmd_set_config, "set.config", R"({"id":"c10","params":{
        "lanConfiguration":{"ip_proto":"dhcp"},
        "portConfiguration":[{"id":"7","admin_status":"down"}]}})");
    // Ports go first whatever the order in the document; the LAN refusal is
    // the answer.
    EXPECT_EQ(a.code, -1);
    EXPECT_EQ(a.message, "invalid 'ip_proto' element value 'dhcp'");
    auto w = admin_writes();
    ASSERT_EQ(w.size(), 1u);
    EXPECT_EQ(num(w[0], "ifNum"), 7);
}

// ---- del.config -------------------------------------------------------------

TEST_F(ConfigTest, ResetAnswersBeforeItResets)
{
    start_controller();
    run(cmd_del_config, "del.config", R"({"id":"d1","params":{}})");
    auto res = controller->answers();
    ASSERT_EQ(res.size(), 2u);
    EXPECT_EQ(res[0].id, "d1");
    EXPECT_EQ(res[0].code, 0);
    EXPECT_EQ(res[0].message, "");

    // The reset ran once, after the controller had the answer.
    std::string reset_log = root.at("/rw/factory-reset.log");
    ASSERT_EQ(lines_of(read_file(reset_log)).size(), 1u);
    struct stat st;
    ASSERT_EQ(stat(reset_log.c_str(), &st), 0);
    double reset_at = st.st_mtim.tv_sec + st.st_mtim.tv_nsec / 1e9;
    EXPECT_LT(res[0].time, reset_at);

    auto m = main_log();
    auto did = std::find(m.begin(), m.end(), "cmd_del_config: performing default/normal reset");
    ASSERT_NE(did, m.end());
    // Here the reset comes back (the device would be gone), so the handler
    // reports the handshake as failed.
    ASSERT_NE(did + 1, m.end());
    EXPECT_EQ(did[1], "cmd_del_config: failed 'del.config' handshake (response/reply phase)");
    EXPECT_EQ(res[1].id, "d1");
    EXPECT_EQ(res[1].code, -1);
    EXPECT_EQ(res[1].message, "failed 'del.config' handshake (response/reply phase)");
}

TEST_F(ConfigTest, UpperCaseSoftIsTheDefaultReset)
{
    reset_with("d2", "SOFT", "default/normal", "soft");
}

TEST_F(ConfigTest, SoftReset)
{
    reset_with("d3", "soft", "soft", "default/normal");
    auto a = answers();
    ASSERT_EQ(a.size(), 2u);
    EXPECT_EQ(a[0].code, 0);
}

TEST_F(ConfigTest, FailedHandshakeDoesNotReset)
{
    start_controller();
    controller->answer(HREF, 503, "{}", 4);
    run(cmd_del_config, "del.config", R"({"id":"d4","params":{"reset-mode":"soft"}})");
    EXPECT_FALSE(file_exists(root.at("/rw/factory-reset.log")));
    EXPECT_FALSE(logged("cmd_del_config: performing soft reset"));
    EXPECT_EQ(main_log().back(),
              "cmd_del_config: failed 'del.config' handshake (response/reply phase)");
    // Four refused attempts at the answer, then the second status.
    EXPECT_EQ(requests(HREF), 5u);
    auto a = answers();
    ASSERT_EQ(a.size(), 1u);
    EXPECT_EQ(a[0].id, "d4");
    EXPECT_EQ(a[0].code, -1);
    EXPECT_EQ(a[0].message, "failed 'del.config' handshake (response/reply phase)");
}

TEST_F(ConfigTest, ResetCommandErrors)
{
    start_controller();
    run(cmd_del_config, "del.config", R"({"id":7,"params":{}})");
    EXPECT_EQ(main_log().back(), "cmd_del_config: missing or invalid 'id' element in command");
    run(cmd_del_config, "del.config", R"({"id":"d5"})");
    EXPECT_EQ(main_log().back(), "cmd_del_config: missing or invalid 'params' element");
    run(cmd_del_config, "del.config", R"({"id":"d6","params":{"reset-mode":1}})");
    EXPECT_EQ(main_log().back(), "cmd_del_config: invalid 'reset-mode' element in params");
    auto a = answers();
    ASSERT_EQ(a.size(), 3u);
    EXPECT_EQ(a[0].id, "");
    EXPECT_EQ(a[0].message, "missing or invalid 'id' element in command");
    EXPECT_EQ(a[1].id, "d5");
    EXPECT_EQ(a[1].message, "missing or invalid 'params' element");
    EXPECT_EQ(a[2].id, "d6");
    EXPECT_EQ(a[2].message, "invalid 'reset-mode' element in params");
    for (const Answer &x : a)
        EXPECT_EQ(x.code, -1);
    EXPECT_FALSE(file_exists(root.at("/rw/factory-reset.log")));
}

// ---- identity -----------------------------------------------------------------

TEST_F(ConfigTest, DefaultUuidFromTheMacAddress)
{
    devroot({"--env", "ethaddr=00:1A:2B:3C:4D:5E", "--env", "hardware_version=HW-T2", "--env",
             "country_code=de", "--env", "active=image2", "--env",
             "homesite=https://home.example/ph", "--env", "heartbeat=30", "--version", "3.1.0.7"});
    write_file(root.at("/mnt/fastpath/image1"), "version=3.1.0.7\n");
    write_file(root.at("/mnt/fastpath/image2"), "version=3.0.9.2\n");
    ASSERT_EQ(read_file(root.at("/etc/bootenv")).find("uuid="), std::string::npos);
    command_init();
    config_init();

    const std::string uuid = "e9d6ecc0-23bb-11e3-932d-001a2b3c4d5e";
    EXPECT_STREQ(env_uuid, uuid.c_str());
    EXPECT_NE(read_file(root.at("/etc/bootenv")).find("\nuuid=" + uuid + "\n"), std::string::npos);
    char stored[64] = "";
    get_env_variable("uuid", stored, sizeof(stored));
    EXPECT_EQ(std::string(stored), uuid);

    auto m = main_log();
    auto added = std::find(m.begin(), m.end(), "added default uuid = " + uuid);
    ASSERT_NE(added, m.end());
    std::vector<std::string> expected = {
        "hw='HW-T2'",          "serial='VX0123456789'",
        "country='DE'",        "boot='1'",
        "primary='3.1.0.7'",   "secondary='3.0.9.2'",
        "uuid='" + uuid + "'", "homesite='https://home.example/ph'",
        "heartbeat='30'",      "ethaddr='00:1A:2B:3C:4D:5E'",
        "model='VX-S28'",
    };
    ASSERT_GE(m.end() - added, (long)expected.size() + 1);
    for (size_t i = 0; i < expected.size(); i++)
        EXPECT_EQ(added[1 + i], expected[i]);
    EXPECT_STREQ(env_country, "DE");
    EXPECT_STREQ(env_boot, "1");
    EXPECT_FALSE(developer_build);

    // Both commands are registered.
    EXPECT_EQ(command_register("set.config", no_command), -1);
    EXPECT_EQ(command_register("del.config", no_command), -1);
}

TEST_F(ConfigTest, ModelThatCannotBeReadShowsEmpty)
{
    devroot({"--env", "active=image1"});
    write_file(root.at("/var/switch/faults.json"),
               R"([{"call":"rpcclt_openapiSystemRegMachineModelGet","result":-26}])");
    command_init();
    config_init();
    auto m = main_log();
    auto shown = std::find(m.begin(), m.end(), "ethaddr='" + std::string(env_ethaddr) + "'");
    ASSERT_NE(shown, m.end());
    // The failed read says why, then the model line shows nothing.
    std::vector<std::string> after(shown + 1, std::min(shown + 3, m.end()));
    EXPECT_EQ(after, (std::vector<std::string>{
                         "platform_get_model_number: cannot get model number (result = -26)",
                         "model=''",
                     }));
}

TEST_F(ConfigTest, KnownUuidIsKept)
{
    const std::string uuid = "0f0e0d0c-0000-1111-2222-333344445555";
    devroot({"--env", "uuid=" + uuid, "--env", "active=image1"});
    std::string before = read_file(root.at("/etc/bootenv"));
    command_init();
    config_init();
    EXPECT_STREQ(env_uuid, uuid.c_str());
    EXPECT_EQ(read_file(root.at("/etc/bootenv")), before);
    EXPECT_STREQ(env_boot, "0");
    auto m = main_log();
    EXPECT_EQ(std::count_if(m.begin(), m.end(),
                            [](const std::string &s) { return s.rfind("added default", 0) == 0; }),
              0);
    EXPECT_TRUE(logged("uuid='" + uuid + "'"));
}

TEST_F(ConfigTest, TheBootEnvironmentsSiteAndControllerAreReadWhole)
{
    const std::string site = "https://home.example/" + std::string(2048, 'h');
    const std::string controller = "https://ctl.example/" + std::string(2048, 'c');
    devroot({"--env", "homesite=" + site, "--env", "controller=" + controller});
    command_init();
    config_init();
    EXPECT_EQ(env_homesite, site);
    EXPECT_EQ(env_controller, controller);
    EXPECT_TRUE(logged("homesite='" + site + "'"));
}

TEST_F(ConfigTest, CloudManagementUrlReplacesTheHomeSite)
{
    devroot({"--env", "homesite=https://home.example/ph", "--version", "2.0.0-developer"});
    Json model = json_parse(read_file(root.at("/var/switch/model.json")));
    json_object_set_new(json_object_get(model.get(), "system"), "cloud_server_url",
                        json_string("https://cm.example/site"));
    write_file(root.at("/var/switch/model.json"), json_text(model.get()));
    command_init();
    config_init();
    EXPECT_EQ(env_homesite, "https://cm.example/site");
    auto m = main_log();
    auto said =
        std::find(m.begin(), m.end(), "config_init: homesite = url:'https://cm.example/site'");
    auto shown = std::find(m.begin(), m.end(), "homesite='https://cm.example/site'");
    EXPECT_NE(said, m.end());
    EXPECT_NE(shown, m.end());
    EXPECT_LT(said, shown);
    EXPECT_TRUE(developer_build);
}

// ---- refresh notice -------------------------------------------------------------

std::string capabilities_text()
{
    json_t *c = platform_capabilities();
    EXPECT_NE(c, nullptr);
    char *text = json_dumps(c, JSON_COMPACT | JSON_PRESERVE_ORDER);
    std::string out = text != nullptr ? text : "";
    free(text);
    json_decref(c);
    return out;
}

// The order of the headers and the token in them are seen by a real server
// only.
class ConfigLabTest : public ConfigTest
{
};

TEST_F(ConfigLabTest, RefreshAfterABootSaysReboot)
{
    start_lab();
    restarts = 0;
    EXPECT_EQ(send_refresh_config(), 0);
    Json recs = lab->requests({{"kind", "refresh"}});
    ASSERT_EQ(json_array_size(recs.get()), 1u);
    json_t *rec = json_array_get(recs.get(), 0);
    EXPECT_EQ(json_str(rec, "path"), "/api/refresh-config");
    // The text the controller has always had: members in this order, compact.
    std::string body = json_str(rec, "body");
    EXPECT_EQ(body, "{\"reason\":\"reboot\",\"capabilities\":" + capabilities_text() + "}");
    EXPECT_EQ(
        body.rfind("{\"reason\":\"reboot\",\"capabilities\":{\"set-reboot\":{\"allowed\":true},"
                   "\"set-broker\":{\"allowed\":false},",
                   0),
        0u);
    EXPECT_EQ(body.substr(body.size() - 62),
              ",\"set-status\":{\"allowed\":true},\"edit-vnet\":{\"allowed\":false}}}");
    json_t *doc = json_object_get(rec, "json");
    EXPECT_EQ(json_str(doc, "reason"), "reboot");
    EXPECT_TRUE(json_is_object(json_object_get(doc, "capabilities")));
    // Content type first, then the bearer token the lab issued.
    json_t *raw = json_object_get(rec, "raw_headers");
    int type_at = -1, auth_at = -1;
    std::string auth;
    for (size_t i = 0; i < json_array_size(raw); i++) {
        std::string name = json_string_value(json_array_get(json_array_get(raw, i), 0));
        if (name == "Content-Type")
            type_at = (int)i;
        if (name == "Authorization") {
            auth_at = (int)i;
            auth = json_string_value(json_array_get(json_array_get(raw, i), 1));
        }
    }
    EXPECT_GE(type_at, 0);
    EXPECT_LT(type_at, auth_at);
    EXPECT_EQ(auth, "Bearer " + json_str(json_array_get(lab->tokens().get(), 0), "token"));
    EXPECT_EQ(queue_count(free_replies), 32);
}

TEST_F(ConfigTest, RefreshAfterARestartSaysRestart)
{
    start_controller();
    restarts = 2;
    EXPECT_EQ(send_refresh_config(), 0);
    auto recs = controller->requests("/refresh-config");
    ASSERT_EQ(recs.size(), 1u);
    EXPECT_EQ(recs[0].body,
              "{\"reason\":\"restart\",\"capabilities\":" + capabilities_text() + "}");
}

TEST_F(ConfigTest, RefreshRetriesOnceWithANewTokenOnAClientError)
{
    start_controller();
    controller->answer("/refresh-config", 401, R"({"error":"invalid_token"})");
    EXPECT_EQ(send_refresh_config(), 0);
    EXPECT_EQ(requests("/refresh-config"), 2u);
    EXPECT_EQ(requests("/oauth/token"), 2u);

    // Twice refused: the second refusal is the result.
    controller->answer("/refresh-config", 404, "{}", 2);
    EXPECT_EQ(send_refresh_config(), 404);
    EXPECT_EQ(requests("/refresh-config"), 4u);
}

TEST_F(ConfigTest, RefreshIsNotRetriedOnAServerError)
{
    start_controller();
    controller->answer("/refresh-config", 500);
    EXPECT_EQ(send_refresh_config(), 500);
    EXPECT_EQ(requests("/refresh-config"), 1u);
    EXPECT_EQ(requests("/oauth/token"), 1u);
}

TEST_F(ConfigTest, RefreshWithoutControllerOrToken)
{
    EXPECT_EQ(send_refresh_config(), 1);
    EXPECT_EQ(queue_count(free_replies), 32);

    start_controller();
    controller->answer("/oauth/token", 503);
    EXPECT_EQ(send_refresh_config(), 1);
    EXPECT_EQ(requests("/refresh-config"), 0u);
    EXPECT_EQ(queue_count(free_replies), 32);
}
