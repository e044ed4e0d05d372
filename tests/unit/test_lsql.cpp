#include "db.h"
#include "icos-openapi.h"
#include "log.h"
#include "lsql.h"
#include "testkit.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <jansson.h>
#include <map>
#include <optional>
#include <string>
#include <vector>

using namespace testkit;

namespace
{

// The rows of table system, read with a connection of the test's own.
std::map<std::string, std::string> rows_of(const std::string &file)
{
    std::map<std::string, std::string> rows;
    sqlite3 *db = nullptr;
    if (sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
        sqlite3_close(db);
        ADD_FAILURE() << "cannot open " << file;
        return rows;
    }
    sqlite3_exec(
        db, "SELECT key, value FROM system",
        [](void *arg, int, char **argv, char **) {
            (*static_cast<std::map<std::string, std::string> *>(arg))[argv[0]] =
                argv[1] ? argv[1] : "<null>";
            return 0;
        },
        &rows, nullptr);
    sqlite3_close(db);
    return rows;
}

class LsqlTest : public DeviceTest
{
  protected:
    void SetUp() override
    {
        DeviceTest::SetUp();
        db_init();
        ASSERT_EQ(db_version, 9);
        icos_openapi_sleep = [](unsigned int) -> unsigned int { return 0; };
        ASSERT_EQ(icos_openapi_client_init(), 0);
    }

    std::map<std::string, std::string> rows() const
    {
        auto all = rows_of(root.at("/etc/varnex/config/startup.db"));
        all.erase("db.version");
        return all;
    }

    std::vector<std::string> log() const { return log_messages(root.at("/rw/orkad.log")); }

    void fail_switch_call(const std::string &call)
    {
        write_file(root.at("/var/switch/faults.json"),
                   "[{\"call\":\"" + call + "\",\"result\":-1}]");
    }
};

} // namespace

TEST_F(LsqlTest, MissingAndEmptyAreTold)
{
    EXPECT_EQ(config_get("system", nullptr, "cloud-controller"), std::nullopt);
    ASSERT_EQ(config_set("system", nullptr, "cloud-controller", ""), 0);
    auto v = config_get("system", nullptr, "cloud-controller");
    ASSERT_TRUE(v.has_value());
    EXPECT_EQ(*v, "");
}

TEST_F(LsqlTest, LongValuesAreReadBackWhole)
{
    // Longer than any buffer a reader ever had: a controller address of 300
    // characters and a value of 2 KiB.
    std::string controller = "https://controller.example/" + std::string(273, 'c');
    ASSERT_EQ(controller.size(), 300u);
    std::string big(2048, 'v');
    big.back() = 'z'; // the last character is there too
    ASSERT_EQ(config_set("system", nullptr, "cloud-controller", controller.c_str()), 0);
    ASSERT_EQ(config_set("uplink-tunnel", "tun0", "description", big.c_str()), 0);
    EXPECT_EQ(config_get("system", nullptr, "cloud-controller"), controller);
    EXPECT_EQ(config_get("uplink-tunnel", "tun0", "description"), big);
    EXPECT_EQ(rows()["uplink-tunnel.tun0.description"], big);
}

TEST_F(LsqlTest, ValueWithSingleQuotesIsStoredUnchanged)
{
    const char value[] = "it's a 'quoted' \"value\"; DROP TABLE system; --";
    EXPECT_EQ(config_set("system", nullptr, "note", value), 0);
    EXPECT_EQ(rows()["system.note"], value);
    EXPECT_EQ(config_get("system", nullptr, "note"), value);
}

TEST_F(LsqlTest, AnyTextIsStoredAndReadBackExactly)
{
    // Quotes, a backslash and what a formatter would take for conversions,
    // past the length of the old buffers.
    std::string value = "it's \"q\" back\\slash %q %Q %s %w %% %n ''";
    value += std::string(300, '\'');
    ASSERT_EQ(config_set("system", nullptr, "note", value.c_str()), 0);
    EXPECT_EQ(rows()["system.note"], value);
    EXPECT_EQ(config_get("system", nullptr, "note"), value);
    // The log shows the value as the literal that holds it.
    std::string quoted;
    for (char c : value)
        quoted += c == '\'' ? std::string("''") : std::string(1, c);
    EXPECT_EQ(log().back(),
              "db_command: 'REPLACE INTO system (key, value) VALUES ('system.note', '" + quoted +
                  "')'");
}

TEST_F(LsqlTest, NamesWithQuotesAreOrdinaryNames)
{
    ASSERT_EQ(config_set("system", nullptr, "keep", "1"), 0);
    // Written into the statement, these names would end the key's literal
    // early: the statement would fail or empty the table.
    const char *cls = "cl'ass";
    const char *property = "x'); DELETE FROM system; --";
    EXPECT_EQ(config_set(cls, "in%qst", property, "v"), 0);
    std::string key = std::string(cls) + ".in%qst." + property;
    EXPECT_EQ(rows(), (std::map<std::string, std::string>{{"system.keep", "1"}, {key, "v"}}));
    EXPECT_EQ(config_get(cls, "in%qst", property), "v");
    EXPECT_EQ(log().back(), "db_command: 'REPLACE INTO system (key, value) VALUES "
                            "('cl''ass.in%qst.x''); DELETE FROM system; --', 'v')'");
    EXPECT_EQ(config_remove(cls, "in%qst", property), 0);
    EXPECT_EQ(config_get(cls, "in%qst", property), std::nullopt);
    EXPECT_EQ(rows(), (std::map<std::string, std::string>{{"system.keep", "1"}}));
}

TEST_F(LsqlTest, KeysJoinClassInstanceAndProperty)
{
    size_t n = log().size();
    EXPECT_EQ(config_set("uplink-tunnel", "tun0", "remote-ip", "10.0.0.1"), 0);
    EXPECT_EQ(config_set("system", nullptr, "cloud-controller", "https://c"), 0);
    EXPECT_EQ(rows(), (std::map<std::string, std::string>{
                          {"uplink-tunnel.tun0.remote-ip", "10.0.0.1"},
                          {"system.cloud-controller", "https://c"},
                      }));
    auto lines = log();
    EXPECT_EQ(std::vector<std::string>(lines.begin() + n, lines.end()),
              (std::vector<std::string>{
                  "db_command: 'REPLACE INTO system (key, value) VALUES "
                  "('uplink-tunnel.tun0.remote-ip', '10.0.0.1')'",
                  "db_command: 'REPLACE INTO system (key, value) VALUES "
                  "('system.cloud-controller', 'https://c')'",
              }));
    EXPECT_EQ(config_get("uplink-tunnel", "tun0", "remote-ip"), "10.0.0.1");
    EXPECT_EQ(config_get("uplink-tunnel", nullptr, "remote-ip"), std::nullopt);
}

TEST_F(LsqlTest, SetReplacesAndRemoveDeletes)
{
    EXPECT_EQ(config_set("system", nullptr, "x", "1"), 0);
    EXPECT_EQ(config_set("system", nullptr, "x", "2"), 0);
    EXPECT_EQ(config_set("a", "b", "c", "3"), 0);
    EXPECT_EQ(rows(), (std::map<std::string, std::string>{{"system.x", "2"}, {"a.b.c", "3"}}));
    size_t n = log().size();
    EXPECT_EQ(config_remove("system", nullptr, "x"), 0);
    EXPECT_EQ(config_remove("a", "b", "c"), 0);
    EXPECT_TRUE(rows().empty());
    auto lines = log();
    EXPECT_EQ(std::vector<std::string>(lines.begin() + n, lines.end()),
              (std::vector<std::string>{
                  "db_command: 'DELETE FROM system WHERE (key = 'system.x')'",
                  "db_command: 'DELETE FROM system WHERE (key = 'a.b.c')'",
              }));
}

TEST_F(LsqlTest, WriteFailureIsPassedBack)
{
    ASSERT_EQ(db_command("DROP TABLE system"), 0);
    size_t n = log().size();
    EXPECT_EQ(config_set("system", nullptr, "x", "1"), -2);
    EXPECT_EQ(config_remove("system", nullptr, "x"), -2);
    auto written = log();
    EXPECT_EQ(std::vector<std::string>(written.begin() + n, written.end()),
              (std::vector<std::string>{
                  "db_command: 'REPLACE INTO system (key, value) VALUES ('system.x', '1')'",
                  "db_command: 'REPLACE INTO system ...' failed with errmsg = 'no such table: "
                  "system'",
                  "db_command: 'DELETE FROM system WHERE (key = 'system.x')'",
                  "db_command: 'DELETE FROM system W...' failed with errmsg = 'no such table: "
                  "system'",
              }));
    n = log().size();
    EXPECT_EQ(config_get("system", nullptr, "x"), std::nullopt);
    auto lines = log();
    EXPECT_EQ(std::vector<std::string>(lines.begin() + n, lines.end()),
              std::vector<std::string>{"db_get: 'SELECT value FROM system WHERE key='system.x'' "
                                       "failed, errmsg = 'no such table: system'"});
}

TEST_F(LsqlTest, PasswordGoesToTheSwitchAndIsSaved)
{
    EXPECT_EQ(platform_set_system("password", "n3w-secret"), 0);
    EXPECT_EQ(journal_calls(root),
              (std::vector<std::string>{"rpcclt_openapiUserSet", "rpcclt_openapiSaveConfig"}));
    EXPECT_EQ(journal_value(root, 0, "userName"), "admin");
    EXPECT_EQ(journal_value(root, 0, "password"), "n3w-secret");
    EXPECT_EQ(rows(), (std::map<std::string, std::string>{{"system.password", "n3w-secret"}}));
    // The statement is logged with a marker in place of the password.
    EXPECT_EQ(log().back(), "db_command: 'REPLACE INTO system (key, value) VALUES "
                            "('system.password', '********')'");
    for (auto &line : log())
        EXPECT_EQ(line.find("n3w-secret"), std::string::npos) << line;
}

TEST_F(LsqlTest, RefusedPasswordIsStillRecorded)
{
    fail_switch_call("rpcclt_openapiUserSet");
    EXPECT_EQ(platform_set_system("password", "refused"), 0);
    // No save after a refused change.
    EXPECT_EQ(journal_calls(root), std::vector<std::string>{"rpcclt_openapiUserSet"});
    EXPECT_EQ(rows()["system.password"], "refused");
    auto lines = log();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(std::vector<std::string>(lines.end() - 2, lines.end()),
              (std::vector<std::string>{
                  "icos_set_password: failed to set user/password for 'admin'/'********' "
                  "(result = -1)",
                  "db_command: 'REPLACE INTO system (key, value) VALUES ('system.password', "
                  "'********')'",
              }));
}

TEST_F(LsqlTest, OtherSystemPropertiesStayOffTheSwitch)
{
    EXPECT_EQ(platform_set_system("location", "rack 4"), 0);
    EXPECT_TRUE(journal_calls(root).empty());
    EXPECT_EQ(rows(), (std::map<std::string, std::string>{{"system.location", "rack 4"}}));
    // Only the exact word counts.
    EXPECT_EQ(platform_set_system("password2", "x"), 0);
    EXPECT_TRUE(journal_calls(root).empty());
}

TEST_F(LsqlTest, SystemPropertyNameCannotInjectSql)
{
    ASSERT_EQ(config_set("system", nullptr, "keep", "1"), 0);
    // Were the name put into the statement as it stands, the first statement
    // would store "system.x" and the second empty the table.
    const char *name = "x', 'y'); DELETE FROM system; --";
    EXPECT_EQ(platform_set_system(name, "v"), 0);
    EXPECT_EQ(rows(), (std::map<std::string, std::string>{
                          {"system.keep", "1"},
                          {std::string("system.") + name, "v"},
                      }));
    // A name with a quote is an ordinary name: stored and overwritten.
    EXPECT_EQ(platform_set_system("it's", "a"), 0);
    EXPECT_EQ(platform_set_system("it's", "b"), 0);
    EXPECT_EQ(rows()["system.it's"], "b");
    EXPECT_EQ(rows().size(), 3u);
    EXPECT_TRUE(journal_calls(root).empty());
}

TEST_F(LsqlTest, SetPasswordResults)
{
    EXPECT_EQ(platform_set_password("admin", "a"), 0);
    fail_switch_call("rpcclt_openapiSaveConfig");
    EXPECT_NE(platform_set_password("admin", "b"), 0);
    fail_switch_call("rpcclt_openapiUserSet");
    EXPECT_EQ(platform_set_password("admin", "c"), -1);
    EXPECT_EQ(journal_calls(root), (std::vector<std::string>{
                                       "rpcclt_openapiUserSet",
                                       "rpcclt_openapiSaveConfig",
                                       "rpcclt_openapiUserSet",
                                       "rpcclt_openapiSaveConfig",
                                       "rpcclt_openapiUserSet",
                                   }));
    EXPECT_TRUE(rows().empty());
}

TEST_F(LsqlTest, ControllerStatusIsShownOnTheSwitchAndRecorded)
{
    EXPECT_EQ(set_cloud_controller_status("up"), 0);
    EXPECT_EQ(journal_calls(root), std::vector<std::string>{"rpcclt_openapiAppCtrlStatusSet"});
    EXPECT_EQ(journal_value(root, 0, "appName"), "tq_agent");
    EXPECT_EQ(journal_value(root, 0, "status"), "Connection:       up\n");
    EXPECT_EQ(rows(),
              (std::map<std::string, std::string>{{"system.cloud-controller-status", "up"}}));

    // The switch refusing the status does not keep it from the store.
    fail_switch_call("rpcclt_openapiAppCtrlStatusSet");
    EXPECT_EQ(set_cloud_controller_status("down"), 0);
    EXPECT_EQ(rows()["system.cloud-controller-status"], "down");
}

TEST_F(LsqlTest, SslVpnTunnelHasNoRemoteAddress)
{
    size_t n = log().size();
    EXPECT_EQ(config_add_tunnel("tun0", "ssl-vpn", "192.0.2.1", "mgmt vpn", "yes", "up"), 1);
    EXPECT_EQ(rows(), (std::map<std::string, std::string>{
                          {"uplink-tunnel.tun0.type", "uplink-tunnel"},
                          {"uplink-tunnel.tun0.tun-type", "ssl-vpn"},
                          {"uplink-tunnel.tun0.status", "up"},
                          {"uplink-tunnel.tun0.dynamic", "yes"},
                          {"uplink-tunnel.tun0.description", "mgmt vpn"},
                          {"uplink-tunnel.tun0.mode", "up"},
                      }));
    // Written in a fixed order.
    std::vector<std::string> order;
    auto lines = log();
    for (size_t i = n; i < lines.size(); i++) {
        auto a = lines[i].find("('uplink-tunnel.tun0.");
        ASSERT_NE(a, std::string::npos) << lines[i];
        auto b = lines[i].find('\'', a + 2);
        order.push_back(lines[i].substr(a + 21, b - a - 21));
    }
    EXPECT_EQ(order, (std::vector<std::string>{"type", "tun-type", "status", "dynamic",
                                               "description", "mode"}));
}

TEST_F(LsqlTest, OtherTunnelsRecordTheirRemoteAddress)
{
    EXPECT_EQ(config_add_tunnel("gre1", "gre", "192.0.2.9", "uplink", "no", "down"), 1);
    auto r = rows();
    EXPECT_EQ(r.size(), 7u);
    EXPECT_EQ(r["uplink-tunnel.gre1.remote-ip"], "192.0.2.9");
    EXPECT_EQ(r["uplink-tunnel.gre1.mode"], "down");
    EXPECT_EQ(r["uplink-tunnel.gre1.status"], "down");
}

TEST_F(LsqlTest, TunnelWriteFailuresAreIgnored)
{
    ASSERT_EQ(db_command("DROP TABLE system"), 0);
    EXPECT_EQ(config_add_tunnel("gre1", "gre", "192.0.2.9", "uplink", "no", "down"), 1);
}

TEST_F(LsqlTest, OpenflowControllerLogsAndStoresAllButSsl)
{
    size_t n = log().size();
    EXPECT_EQ(config_set_openflow_controller("192.0.2.5", "6653", "6634", "yes", "secure"), 0);
    auto lines = log();
    ASSERT_GT(lines.size(), n);
    EXPECT_EQ(lines[n], "setting 'openflow' config properties (ip='192.0.2.5', port='6653', "
                        "ptcp='6634', ssl='yes' mode='secure')");
    EXPECT_EQ(rows(), (std::map<std::string, std::string>{
                          {"openflow.controller", "192.0.2.5"},
                          {"openflow.port", "6653"},
                          {"openflow.ptcp", "6634"},
                          {"openflow.mode", "secure"},
                      }));
    ASSERT_EQ(db_command("DROP TABLE system"), 0);
    EXPECT_EQ(config_set_openflow_controller("a", "b", "c", "d", "e"), 0);
}

TEST_F(LsqlTest, QualifiedLookupNeverFindsAnything)
{
    ASSERT_EQ(config_set("vap", "vap0", "backhaul", "eth1"), 0);
    EXPECT_EQ(config_get_qualified("vap", "vap0", "backhaul", "radio", "wlan0"), std::nullopt);
}

TEST_F(LsqlTest, InertOperationsWriteNothing)
{
    auto before = rows();
    size_t n = log().size();
    EXPECT_EQ(config_set_qualified("vap", "vap0", "ssid", "radio", "wlan0", "net"), 0);
    EXPECT_EQ(config_add("system", nullptr, "x", "1"), 0);
    config_txn_t *txn = nullptr;
    config_add_txn(&txn, 1, "system", nullptr, "x", "1", nullptr, nullptr);
    char *err = nullptr;
    config_do_txn(txn, &err);
    config_del_txn(txn);
    config_chain_t *chain = nullptr;
    config_add_chain(&chain, "ssid", "net");
    EXPECT_EQ(config_set_chain("vap", "vap0", "radio", "wlan0", chain), 0);
    config_del_chain(chain);
    EXPECT_EQ(txn, nullptr);
    EXPECT_EQ(chain, nullptr);
    EXPECT_EQ(err, nullptr);
    EXPECT_EQ(rows(), before);
    EXPECT_EQ(log().size(), n);
}
