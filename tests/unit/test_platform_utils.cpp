#include "cap_utils.h"
#include "db.h"
#include "icos-openapi.h"
#include "log.h"
#include "netutils.h"
#include "lsql.h"
#include "platform_utils.h"
#include "stats_aps.h"
#include "testkit.h"
#include "wlanif.h"
#include "work.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <jansson.h>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

using namespace testkit;

namespace
{

// Sleeps asked for through platform_sleep, and what to do at each.
std::vector<unsigned int> sleeps;
std::function<void(size_t)> on_sleep;

unsigned int fake_sleep(unsigned int seconds)
{
    sleeps.push_back(seconds);
    if (on_sleep)
        on_sleep(sleeps.size());
    return 0;
}

unsigned int total_sleep()
{
    unsigned int total = 0;
    for (unsigned int s : sleeps)
        total += s;
    return total;
}

class PlatformTest : public ::testing::Test
{
  protected:
    DeviceRoot root;

    void SetUp() override
    {
        ASSERT_TRUE(
            root.build({"--version", "2.3.4.5", "--env", "controller=https://ctl.example"}));
        log_init();
        icos_openapi_sleep = [](unsigned int) -> unsigned int { return 0; };
        sleeps.clear();
        on_sleep = nullptr;
    }

    void open_db()
    {
        db_init();
        ASSERT_EQ(db_version, 9);
    }

    void use_fake_sleep() { platform_sleep = fake_sleep; }

    // DHCP up, with these management addresses stored (null: none), and
    // sleeps counted rather than slept.
    void dhcp_up(const char *static_ip, const char *ip)
    {
        open_db();
        ASSERT_EQ(config_set("management", nullptr, "dhcp-status", "up"), 0);
        if (static_ip != nullptr) {
            ASSERT_EQ(config_set("management", nullptr, "static-ip", static_ip), 0);
        }
        if (ip != nullptr) {
            ASSERT_EQ(config_set("management", nullptr, "ip", ip), 0);
        }
        use_fake_sleep();
    }

    std::vector<std::string> log() const { return log_messages(root.at("/rw/orkad.log")); }
    std::vector<std::string> log_since(size_t n) const
    {
        auto all = log();
        return std::vector<std::string>(all.begin() + std::min(n, all.size()), all.end());
    }

    void fail_switch_call(const std::string &call)
    {
        write_file(root.at("/var/switch/faults.json"),
                   "[{\"call\":\"" + call + "\",\"result\":-1}]");
    }
    void set_switch_model(const std::string &json)
    {
        write_file(root.at("/var/switch/model.json"), json);
    }

    std::string bootenv() const { return read_file(root.at("/etc/bootenv")); }
};

double seconds_of(const std::function<void()> &fn)
{
    auto start = std::chrono::steady_clock::now();
    fn();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

} // namespace

// ---- boot environment ------------------------------------------------------

TEST_F(PlatformTest, ReadsBootVariables)
{
    char buf[64] = "junk";
    EXPECT_EQ(get_env_variable("controller", buf, sizeof(buf)), buf);
    EXPECT_STREQ(buf, "https://ctl.example");
}

TEST_F(PlatformTest, UnknownBootVariableIsAbsentAndEmpty)
{
    char buf[64] = "junk";
    EXPECT_EQ(get_env_variable("no_such_variable", buf, sizeof(buf)), nullptr);
    EXPECT_STREQ(buf, "");
}

TEST_F(PlatformTest, BootVariableIsCutToTheBuffer)
{
    char buf[5];
    EXPECT_EQ(get_env_variable("controller", buf, sizeof(buf)), buf);
    EXPECT_STREQ(buf, "http");
}

TEST_F(PlatformTest, OnlyOneTrailingNewlineIsRemoved)
{
    // A value that is itself empty reads as an empty line.
    write_file(root.at("/etc/bootenv"), "empty=\n");
    char buf[16] = "junk";
    EXPECT_EQ(get_env_variable("empty", buf, sizeof(buf)), buf);
    EXPECT_STREQ(buf, "");
}

TEST_F(PlatformTest, SetsBootVariables)
{
    EXPECT_EQ(set_env_variable("heartbeat", "30"), 0);
    EXPECT_NE(bootenv().find("\nheartbeat=30\n"), std::string::npos) << bootenv();
    char buf[16];
    EXPECT_STREQ(get_env_variable("heartbeat", buf, sizeof(buf)), "30");
    // The value is not quoted: words after the first blank are the tool's
    // own arguments, which it joins again.
    EXPECT_EQ(set_env_variable("note", "two words"), 0);
    EXPECT_STREQ(get_env_variable("note", buf, sizeof(buf)), "two words");
}

// ---- firmware versions -----------------------------------------------------

TEST_F(PlatformTest, RunningFirmwareVersionIsCached)
{
    EXPECT_STREQ(get_firmware_version(), "2.3.4.5");
    write_file(root.at("/etc/version"), "9.9.9.9\n");
    EXPECT_STREQ(get_firmware_version(), "2.3.4.5");
}

TEST_F(PlatformTest, MissingVersionFileIsTriedAgain)
{
    ASSERT_EQ(unlink(root.at("/etc/version").c_str()), 0);
    EXPECT_STREQ(get_firmware_version(), "");
    write_file(root.at("/etc/version"), "3.0.0.1\nsecond line\n");
    EXPECT_STREQ(get_firmware_version(), "3.0.0.1");
}

TEST_F(PlatformTest, ImageVersionsComeFromTheVersionTool)
{
    write_file(root.at("/mnt/fastpath/image2"), "version=2.2.0.0\n");
    char buf[64];
    EXPECT_STREQ(platform_get_firmware_version(0, buf, sizeof(buf)), "2.3.4.5");
    EXPECT_STREQ(platform_get_firmware_version(1, buf, sizeof(buf)), "2.2.0.0");
    ASSERT_EQ(unlink(root.at("/mnt/fastpath/image2").c_str()), 0);
    EXPECT_EQ(platform_get_firmware_version(1, buf, sizeof(buf)), nullptr);
    EXPECT_STREQ(buf, "");
}

TEST_F(PlatformTest, ImageVersionsAreCachedOnceKnown)
{
    ASSERT_EQ(unlink(root.at("/mnt/fastpath/image2").c_str()), 0);
    EXPECT_STREQ(platform_get_primary_firmware_version(), "2.3.4.5");
    EXPECT_STREQ(platform_get_secondary_firmware_version(), "");
    write_file(root.at("/mnt/fastpath/image1"), "version=7.7.7.7\n");
    write_file(root.at("/mnt/fastpath/image2"), "version=1.1.1.1\n");
    EXPECT_STREQ(platform_get_primary_firmware_version(), "2.3.4.5");
    // Asked again while still unknown.
    EXPECT_STREQ(platform_get_secondary_firmware_version(), "1.1.1.1");
}

// ---- identity --------------------------------------------------------------

TEST_F(PlatformTest, SerialNumberComesFromTheSwitch)
{
    set_switch_model("{\"system\":{\"serial_number\":\"SW-42\"}}");
    EXPECT_STREQ(platform_get_serial_number(), "SW-42");
}

TEST_F(PlatformTest, SerialNumberFallsBackToTheBootEnvironment)
{
    fail_switch_call("rpcclt_openapiSystemRegSerialNumGet");
    EXPECT_STREQ(platform_get_serial_number(), "VX0123456789");
}

TEST_F(PlatformTest, EthaddrAndHardwareAreReadEveryTime)
{
    EXPECT_STREQ(platform_get_ethaddr(), "02:00:00:00:00:01");
    EXPECT_STREQ(platform_get_hw_version(), "VX-S28-A1");
    ASSERT_EQ(set_env_variable("ethaddr", "02:00:00:00:00:99"), 0);
    ASSERT_EQ(set_env_variable("hardware_version", "VX-S28-B2"), 0);
    EXPECT_STREQ(platform_get_ethaddr(), "02:00:00:00:00:99");
    EXPECT_STREQ(platform_get_hw_version(), "VX-S28-B2");
    ASSERT_EQ(set_env_variable("hardware_version", ""), 0); // deletes it
    EXPECT_STREQ(platform_get_hw_version(), "");
}

TEST_F(PlatformTest, InterfaceMacIsSeventeenCharactersWithoutTerminator)
{
    // The loopback's address file holds 17 characters and a newline.
    ASSERT_EQ(read_file("/sys/class/net/lo/address"), "00:00:00:00:00:00\n");
    char buf[20];
    memset(buf, 'Z', sizeof(buf));
    EXPECT_EQ(platform_get_if_mac_str("lo", buf), 0);
    EXPECT_EQ(std::string(buf, 17), "00:00:00:00:00:00");
    EXPECT_EQ(buf[17], 'Z');
}

TEST_F(PlatformTest, InterfaceMacOfAMissingInterface)
{
    char buf[18];
    EXPECT_EQ(platform_get_if_mac_str("nosuch0", buf), -1);
    EXPECT_EQ(log().back(),
              "platform_get_if_mac_str: cannot open '/sys/class/net/nosuch0/address'");
    // Names are cut to 16 characters.
    EXPECT_EQ(platform_get_if_mac_str("abcdefghijklmnopqrstuvwxyz", buf), -1);
    EXPECT_EQ(log().back(),
              "platform_get_if_mac_str: cannot open '/sys/class/net/abcdefghijklmnop/address'");
}

TEST_F(PlatformTest, CapabilitiesFragment)
{
    const std::vector<std::pair<const char *, bool>> caps = {
        {"set-reboot", true},
        {"set-broker", false},
        {"set-probe", false},
        {"set-vnet", false},
        {"del-vnet", false},
        {"get-status", true},
        {"set-ssl-vpn", true},
        {"del-ssl-vpn", true},
        {"set-logging", true},
        {"set-statistics", true},
        {"set-openflow", false},
        {"del-openflow", false},
        {"set-credentials", true},
        {"set-config", true},
        {"del-config", true},
        {"set-firmware", true},
        {"set-heartbeat", true},
        {"get-diagnostics", true},
        {"set-refresh-complete", true},
        {"disable-radio", false},
        {"has-ports", true},
        {"has-radios", false},
        {"set-status", true},
        {"edit-vnet", false},
    };
    ASSERT_EQ(caps.size(), 24u);
    std::string want = "{";
    for (size_t i = 0; i < caps.size(); i++) {
        if (i > 0)
            want += ",";
        want += std::string("\"") + caps[i].first +
                "\":{\"allowed\":" + (caps[i].second ? "true" : "false") + "}";
    }
    want += "}";
    // An object the caller owns, in this order.
    json_t *j = platform_capabilities();
    ASSERT_NE(j, nullptr);
    char *text = json_dumps(j, JSON_COMPACT | JSON_PRESERVE_ORDER);
    EXPECT_EQ(std::string(text), want);
    free(text);
    EXPECT_EQ(json_object_size(j), 24u);
    json_decref(j);
}

// ---- device control --------------------------------------------------------

TEST_F(PlatformTest, RebootAsksTheSwitch)
{
    EXPECT_EQ(platform_reboot(), 0);
    EXPECT_EQ(journal_calls(root), std::vector<std::string>{"rpcclt_openapiSystemReload"});
    fail_switch_call("rpcclt_openapiSystemReload");
    EXPECT_NE(platform_reboot(), 0);
}

TEST_F(PlatformTest, FactoryResetRunsTheScriptThenWaitsTenSeconds)
{
    open_db();
    ASSERT_TRUE(file_exists(root.at("/etc/varnex/config/startup.db")));
    use_fake_sleep();
    bool ran_before_sleep = false;
    on_sleep = [&](size_t) { ran_before_sleep = file_exists(root.at("/rw/factory-reset.log")); };
    platform_factory_reset();
    EXPECT_EQ(sleeps, std::vector<unsigned int>{10});
    EXPECT_TRUE(ran_before_sleep);
    EXPECT_EQ(lines_of(read_file(root.at("/rw/factory-reset.log"))).size(), 1u);
    // What a reset erases, and what it keeps.
    EXPECT_FALSE(file_exists(root.at("/etc/varnex/config/startup.db")));
    EXPECT_EQ(bootenv().find("controller="), std::string::npos);
    EXPECT_NE(bootenv().find("serial#=VX0123456789"), std::string::npos);
}

TEST_F(PlatformTest, SoftFactoryResetIsTheSameOperation)
{
    use_fake_sleep();
    platform_factory_reset_soft();
    EXPECT_EQ(sleeps, std::vector<unsigned int>{10});
    EXPECT_EQ(lines_of(read_file(root.at("/rw/factory-reset.log"))).size(), 1u);
    EXPECT_EQ(bootenv().find("controller="), std::string::npos);
}

TEST_F(PlatformTest, FactoryResetReallySleepsInTheDaemon)
{
    EXPECT_EQ(platform_sleep, &sleep);
}

TEST_F(PlatformTest, SystemPassesThrough)
{
    EXPECT_EQ(_system("exit 3"), 3 << 8);
    EXPECT_EQ(_system("echo ran > /tmp/ran"), 0);
    EXPECT_EQ(read_file(root.at("/tmp/ran")), "ran\n");
}

TEST_F(PlatformTest, InitAndUpdatesDoNothing)
{
    platform_init();
    platform_apply_updates();
    EXPECT_TRUE(journal_calls(root).empty());
    EXPECT_EQ(log().size(), 1u); // the banner only
}

TEST_F(PlatformTest, PreInitAnnouncesTheAgentVersion)
{
    platform_pre_init();
    auto calls = journal_calls(root);
    ASSERT_EQ(calls, std::vector<std::string>{"rpcclt_openapiAppCtrlVersionSet"});
    EXPECT_EQ(journal_value(root, 0, "appName"), "tq_agent");
    EXPECT_EQ(journal_value(root, 0, "version"), "2.3.4.5");
}

TEST_F(PlatformTest, PreInitEndsTheProgramWithoutCloudManagement)
{
    set_switch_model("{\"system\":{\"cloud_managed_mode\":\"disable\"}}");
    EXPECT_EXIT(platform_pre_init(), ::testing::ExitedWithCode(0), "");
    EXPECT_TRUE(journal_calls(root).empty());
}

TEST_F(PlatformTest, PreInitEndsTheProgramWhenTheModeCannotBeRead)
{
    fail_switch_call("rpcclt_openapiCloudManagedModeGet");
    EXPECT_EXIT(platform_pre_init(), ::testing::ExitedWithCode(0), "");
}

TEST_F(PlatformTest, AgentStatusGoesToTheSwitch)
{
    EXPECT_EQ(platform_update_agent_status("down"), 0);
    EXPECT_EQ(journal_calls(root), std::vector<std::string>{"rpcclt_openapiAppCtrlStatusSet"});
    EXPECT_EQ(journal_value(root, 0, "appName"), "tq_agent");
    EXPECT_EQ(journal_value(root, 0, "status"), "Connection:       down\n");
    fail_switch_call("rpcclt_openapiAppCtrlStatusSet");
    EXPECT_NE(platform_update_agent_status("up"), 0);
}

// ---- syslog hand-over ------------------------------------------------------

TEST_F(PlatformTest, StartLoggingPointsTheSwitchSyslogAtUsOnce)
{
    thread_init();
    platform_syslog_port = 0; // any free port: the receiver only has to start
    int rc = platform_start_logging();
    EXPECT_EQ(journal_calls(root), (std::vector<std::string>{
                                       "rpcclt_openapiLoggingHostAdd",
                                       "rpcclt_openapiLoggingHostPortSet",
                                       "rpcclt_openapiLoggingHostSeveritySet",
                                       "rpcclt_openapiSysLogModeSet",
                                   }));
    EXPECT_EQ(journal_value(root, 0, "host"), "127.0.0.1");
    EXPECT_EQ(journal_value(root, 1, "port"), "46180");
    EXPECT_EQ(journal_value(root, 2, "host"), "127.0.0.1");
    EXPECT_EQ(journal_value(root, 2, "severity"), "7");
    EXPECT_EQ(journal_value(root, 3, "mode"), "1");

    int started = 0;
    for (int i = 0; i < next_thread; i++)
        if (threads[i].name != nullptr && strcmp(threads[i].name, "platform_syslog_reader") == 0)
            started++;
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(started, 1);

    // The second call does nothing at all.
    EXPECT_EQ(platform_start_logging(), 0);
    EXPECT_EQ(journal_calls(root).size(), 4u);
}

TEST_F(PlatformTest, StartLoggingActsOnceEvenWhenTheSwitchRefuses)
{
    thread_init();
    fail_switch_call("rpcclt_openapiSysLogModeSet");
    platform_start_logging();
    size_t n = journal_calls(root).size();
    EXPECT_EQ(platform_start_logging(), 0);
    EXPECT_EQ(journal_calls(root).size(), n);
}

TEST_F(PlatformTest, LoggingFilterAcceptsEverything)
{
    EXPECT_TRUE(platform_logging_filter("<13>anything", 12));
    EXPECT_TRUE(platform_logging_filter("", 0));
}

// ---- start-up gates --------------------------------------------------------

TEST_F(PlatformTest, ClockIsSetWhenTheFileExists)
{
    EXPECT_FALSE(sntp_time_set());
    write_file(root.at("/tmp/time_set"), "");
    EXPECT_TRUE(sntp_time_set());
}

TEST_F(PlatformTest, WaitForSntpWithoutTimeReturnsAtOnce)
{
    use_fake_sleep();
    EXPECT_EQ(wait_for_sntp(0), 0);
    EXPECT_TRUE(sleeps.empty());
}

TEST_F(PlatformTest, WaitForSntpGivesUpWhenTimeRunsOut)
{
    // Real sleeps: the gate takes the time it is given.
    double took = seconds_of([] { EXPECT_EQ(wait_for_sntp(2), 0); });
    EXPECT_GE(took, 1.9);
    EXPECT_LT(took, 4.0);
}

TEST_F(PlatformTest, WaitForSntpReturnsTheSecondsLeft)
{
    use_fake_sleep();
    write_file(root.at("/tmp/time_set"), "");
    EXPECT_EQ(wait_for_sntp(5), 5);
    EXPECT_TRUE(sleeps.empty());

    ASSERT_EQ(unlink(root.at("/tmp/time_set").c_str()), 0);
    on_sleep = [&](size_t n) {
        if (n == 2)
            write_file(root.at("/tmp/time_set"), "");
    };
    EXPECT_EQ(wait_for_sntp(5), 3);
    EXPECT_EQ(sleeps, (std::vector<unsigned int>{1, 1}));
}

TEST_F(PlatformTest, WaitForSntpChecksBeforeTheLastSecondOnly)
{
    use_fake_sleep();
    on_sleep = [&](size_t n) {
        if (n == 3)
            write_file(root.at("/tmp/time_set"), "");
    };
    // The clock is set during the last second: the time has run out.
    EXPECT_EQ(wait_for_sntp(3), 0);
    EXPECT_EQ(total_sleep(), 3u);
}

TEST_F(PlatformTest, WaitForDhcpReturnsAtOnceWhenDhcpIsDown)
{
    open_db();
    ASSERT_EQ(config_set("management", nullptr, "dhcp-status", "down"), 0);
    use_fake_sleep();
    double took = seconds_of([] { EXPECT_EQ(wait_for_dhcp(30), 30); });
    EXPECT_TRUE(sleeps.empty());
    EXPECT_LT(took, 1.0);
    // Only the exact word "up" waits.
    ASSERT_EQ(config_set("management", nullptr, "dhcp-status", "upx"), 0);
    EXPECT_EQ(wait_for_dhcp(30), 30);
    ASSERT_EQ(config_remove("management", nullptr, "dhcp-status"), 0);
    EXPECT_EQ(wait_for_dhcp(30), 30);
    EXPECT_TRUE(sleeps.empty());
}

TEST_F(PlatformTest, WaitForDhcpWaitsForAnAddressOfItsOwn)
{
    dhcp_up("192.168.0.239", "192.168.0.239");
    on_sleep = [&](size_t n) {
        if (n == 3)
            config_set("management", nullptr, "ip", "10.1.2.3");
    };
    // Each round takes a second off, reads both, then sleeps.
    EXPECT_EQ(wait_for_dhcp(10), 6);
    EXPECT_EQ(total_sleep(), 4u);
}

TEST_F(PlatformTest, WaitForDhcpComparesAddressesWhole)
{
    // Alike in their first 16 characters: only the whole texts tell them
    // apart.
    dhcp_up("2001:db8:0:1::a:1", "2001:db8:0:1::a:2");
    EXPECT_EQ(wait_for_dhcp(5), 4);
    EXPECT_EQ(total_sleep(), 1u);
}

TEST_F(PlatformTest, WaitForDhcpGivesUp)
{
    dhcp_up(nullptr, nullptr);
    // Neither address known: both read empty, so they stay equal.
    EXPECT_EQ(wait_for_dhcp(4), 0);
    EXPECT_EQ(total_sleep(), 4u);
}

TEST_F(PlatformTest, WaitForDhcpWithADifferentAddressStillTakesOneRound)
{
    dhcp_up(nullptr, "10.1.2.3");
    EXPECT_EQ(wait_for_dhcp(5), 4);
    EXPECT_EQ(total_sleep(), 1u);
}

TEST_F(PlatformTest, InitDelayGivesUpAfterFortySixSeconds)
{
    open_db();
    use_fake_sleep();
    size_t n = log().size();
    platform_init_delay();
    EXPECT_EQ(sleeps, std::vector<unsigned int>(46, 1));
    EXPECT_EQ(log_since(n), (std::vector<std::string>{
                                "platform_init_delay: waiting for config system to initialize",
                                "platform_init_delay: slept too long, continuing",
                            }));
}

TEST_F(PlatformTest, InitDelayEndsWhenTheModelAppears)
{
    open_db();
    use_fake_sleep();
    on_sleep = [&](size_t n) {
        if (n == 5)
            config_set("system", nullptr, "model", "VX-S28");
    };
    size_t n = log().size();
    platform_init_delay();
    EXPECT_EQ(total_sleep(), 5u);
    auto lines = log_since(n);
    EXPECT_EQ(std::count(lines.begin(), lines.end(),
                         "platform_init_delay: waiting for config system to initialize"),
              1);
    EXPECT_EQ(
        std::count(lines.begin(), lines.end(), "platform_init_delay: slept too long, continuing"),
        0);
}

TEST_F(PlatformTest, InitDelayWithTheModelPresentDoesNotSleep)
{
    open_db();
    ASSERT_EQ(config_set("system", nullptr, "model", ""), 0); // presence is enough
    use_fake_sleep();
    platform_init_delay();
    EXPECT_TRUE(sleeps.empty());
}

// ---- clusters --------------------------------------------------------------

TEST_F(PlatformTest, StartClusterRecordsItsSettings)
{
    open_db();
    size_t n = log().size();
    char err[128] = "";
    EXPECT_EQ(platform_start_cluster("core", "lab", "4", err), 0);
    EXPECT_STREQ(err, "");
    std::vector<std::string> keys;
    for (auto &line : log_since(n)) {
        auto a = line.find("('cluster.");
        ASSERT_NE(a, std::string::npos) << line;
        keys.push_back(line.substr(a + 2, line.find("')", a) - a - 2));
    }
    EXPECT_EQ(keys, (std::vector<std::string>{
                        "cluster.clustered', '0",
                        "cluster.cluster-name', 'core",
                        "cluster.location', 'lab",
                        "cluster.ipversion', '4",
                        "cluster.clustered', '1",
                    }));
}

TEST_F(PlatformTest, StartClusterStopsAtTheFirstFailure)
{
    open_db();
    ASSERT_EQ(db_command("DROP TABLE system"), 0);
    size_t n = log().size();
    char err[128] = "";
    EXPECT_EQ(platform_start_cluster("core", "lab", "4", err), -1);
    EXPECT_STREQ(err, "errors starting clustering configuration");
    auto lines = log_since(n);
    ASSERT_EQ(lines.size(), 2u); // one statement and its failure
    EXPECT_NE(lines[0].find("cluster.clustered"), std::string::npos);
}

TEST_F(PlatformTest, StopClusterWhenNotClustered)
{
    open_db();
    char err[128] = "";
    EXPECT_EQ(platform_stop_cluster("core", err), -1);
    EXPECT_STREQ(err, "clustering not currently enabled\n");
}

TEST_F(PlatformTest, StopClusterWithAnotherNameChangesNothing)
{
    open_db();
    char err[128] = "";
    ASSERT_EQ(platform_start_cluster("core", "lab", "4", err), 0);
    EXPECT_EQ(platform_stop_cluster("edge", err), -1);
    EXPECT_STREQ(err, "cluster name mismatch");
    EXPECT_EQ(config_get("cluster", nullptr, "clustered"), "1");
}

TEST_F(PlatformTest, StopClusterWithItsName)
{
    open_db();
    char err[128] = "";
    ASSERT_EQ(platform_start_cluster("core", "lab", "4", err), 0);
    EXPECT_EQ(platform_stop_cluster("core", err), 0);
    EXPECT_EQ(config_get("cluster", nullptr, "clustered"), "0");
    // Stopped clusters cannot be stopped again.
    EXPECT_EQ(platform_stop_cluster("core", err), -1);
    EXPECT_STREQ(err, "clustering not currently enabled\n");
}

TEST_F(PlatformTest, StopClusterWriteFailure)
{
    open_db();
    ASSERT_EQ(db_command("INSERT INTO system VALUES ('cluster.clustered', '1'), "
                         "('cluster.cluster-name', 'core')"),
              0);
    // From here on the store refuses every write.
    ASSERT_EQ(db_command("CREATE TRIGGER ro BEFORE INSERT ON system BEGIN SELECT RAISE(FAIL, "
                         "'read only'); END"),
              0);
    char err[128] = "";
    EXPECT_EQ(platform_stop_cluster("core", err), -1);
    EXPECT_STREQ(err, "error stopping cluster configuration");
}

TEST_F(PlatformTest, ClusterNameOnlyInClusterMode)
{
    open_db();
    char err[128];
    ASSERT_EQ(platform_start_cluster("core", "lab", "4", err), 0);
    EXPECT_EQ(platform_get_cluster_name(), "");
    ASSERT_EQ(config_set("cluster", nullptr, "operational-mode", "1"), 0);
    EXPECT_EQ(platform_get_cluster_name(), "core");
    ASSERT_EQ(config_set("cluster", nullptr, "operational-mode", "10"), 0);
    EXPECT_EQ(platform_get_cluster_name(), "");
}

TEST_F(PlatformTest, LongClusterNamesAreComparedAndReadWhole)
{
    open_db();
    // Two names alike in their first 200 characters.
    std::string name = std::string(200, 'n') + "-east";
    std::string other = std::string(200, 'n') + "-west";
    char err[128] = "";
    ASSERT_EQ(platform_start_cluster(name.c_str(), "lab", "4", err), 0);
    ASSERT_EQ(config_set("cluster", nullptr, "operational-mode", "1"), 0);
    EXPECT_EQ(platform_get_cluster_name(), name);
    EXPECT_EQ(platform_stop_cluster(other.c_str(), err), -1);
    EXPECT_STREQ(err, "cluster name mismatch");
    EXPECT_EQ(config_get("cluster", nullptr, "clustered"), "1");
    EXPECT_EQ(platform_stop_cluster(name.c_str(), err), 0);
    EXPECT_EQ(config_get("cluster", nullptr, "clustered"), "0");
}

// ---- names -----------------------------------------------------------------

TEST_F(PlatformTest, WlanAndRadioNames)
{
    EXPECT_STREQ(platform_wlan_to_radio("wlan0"), "radio0");
    EXPECT_STREQ(platform_wlan_to_radio("wlan1"), "radio1");
    EXPECT_STREQ(platform_radio_to_wlan("radio0"), "wlan0");
    EXPECT_STREQ(platform_radio_to_wlan("radio1"), "wlan1");
    size_t n = log().size();
    EXPECT_EQ(platform_wlan_to_radio("wlan2"), nullptr);
    EXPECT_EQ(platform_radio_to_wlan("eth0"), nullptr);
    EXPECT_EQ(log_since(n), (std::vector<std::string>{
                                "platform_wlan_to_radio: Invalid wlan = 'wlan2'",
                                "platform_radio_to_wlan: Invalid radio = 'eth0'",
                            }));
}

TEST_F(PlatformTest, WlanInterfaceNames)
{
    char buf[16];
    EXPECT_STREQ(get_wlan_ifname(1, 0, buf, sizeof(buf)), "wlan1");
    EXPECT_STREQ(get_wlan_ifname(0, 3, buf, sizeof(buf)), "wlan0-3");
}

TEST_F(PlatformTest, BackhaulFallsBackToTheManagementPort)
{
    open_db();
    ASSERT_EQ(config_set("vap", "vap1", "backhaul", "eth7"), 0);
    EXPECT_EQ(get_wlan_backhaul(0, 1), "eth0");
}

TEST_F(PlatformTest, WirelessInterfaceTest)
{
    char radio[8];
    memset(radio, 'Z', sizeof(radio));
    EXPECT_TRUE(is_wlan_if("wlan1-2", radio));
    EXPECT_STREQ(radio, "wlan1");
    EXPECT_TRUE(is_wlan_if("wlan0", nullptr));
    EXPECT_FALSE(is_wlan_if("eth0", radio));
    EXPECT_FALSE(is_wlan_if("wla", nullptr));
}

TEST_F(PlatformTest, InterfaceListFromBandIsEmpty)
{
    char list[16] = "eth0 eth1";
    char msg[32] = "";
    json_t *band = json_string("5GHz");
    EXPECT_EQ(platform_iflist_from_band(list, sizeof(list), band, msg), 0);
    EXPECT_STREQ(list, "");
    json_decref(band);
}

TEST_F(PlatformTest, FixedTables)
{
    EXPECT_STREQ(wlanlist[0], "wlan0");
    EXPECT_STREQ(wlanlist[1], "wlan1");
    EXPECT_STREQ(radiolist[0], "radio0");
    EXPECT_STREQ(radiolist[1], "radio1");
    EXPECT_STREQ(firmware_image[0], "/mnt/fastpath/image1");
    EXPECT_STREQ(firmware_image[1], "/mnt/fastpath/image2");
    EXPECT_STREQ(mgmt_ifname, "eth0");
    EXPECT_STREQ(localhost, "127.0.0.1");
    EXPECT_EQ(sizeof(localhost), 10u);
}

// ---- inert wireless and captive-portal hooks -------------------------------

TEST_F(PlatformTest, WirelessAndCaptivePortalHooksAreInert)
{
    json_t *obj = json_object();
    EXPECT_EQ(init_stats_aps(), 0);
    EXPECT_EQ(stats_aps(obj), 0);
    EXPECT_EQ(json_object_size(obj), 0u);
    cap_init();
    platform_cap_new_station("vnet0", "guest", "02:00:00:00:00:02", "02:00:00:00:00:01");
    platform_cap_accept_station("vnet0");
    platform_cap_continue_station("vnet0");
    platform_cap_block_station("vnet0");
    platform_cap_expire_station("vnet0");
    platform_cap_config_add_vnet("vnet0");
    platform_cap_config_del_vnet("vnet0");
    char response[16] = "keep";
    EXPECT_EQ(platform_cap_session_response(obj, response, sizeof(response)), 0);
    EXPECT_STREQ(response, "keep");
    json_decref(obj);
    EXPECT_TRUE(journal_calls(root).empty());
    EXPECT_EQ(log().size(), 1u);
}
