// The simulated switch behind openapi.h: model, faults and journal.
#include "openapi.h"
#include "testkit.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <sys/stat.h>
#include <vector>

using namespace testkit;

namespace
{

class SimTest : public ::testing::Test
{
  protected:
    DeviceRoot root;
    openapiClientHandle_t client = {};

    void SetUp() override
    {
        mkdir(root.at("/var").c_str(), 0755);
        mkdir(root.at("/var/switch").c_str(), 0755);
        ASSERT_EQ(openapiClientRegister("sim_test", &client), OPEN_E_NONE);
    }

    std::string model_path() { return root.at("/var/switch/model.json"); }
    std::string faults_path() { return root.at("/var/switch/faults.json"); }
    void model(const std::string &json) { write_file(model_path(), json); }
    void faults(const std::string &json) { write_file(faults_path(), json); }

    std::vector<uint32_t> walk(OPEN_INTF_TYPE_t type)
    {
        std::vector<uint32_t> out;
        uint32_t n = 0;
        for (open_error_t r = openapiIfFirstGet(&client, type, &n); r == OPEN_E_NONE;
             r = openapiIfNextGet(&client, type, n, &n))
            out.push_back(n);
        return out;
    }

    std::vector<uint32_t> vlans()
    {
        std::vector<uint32_t> out;
        uint32_t v = 0;
        while (openapiVlanNextGet(&client, v, &v) == OPEN_E_NONE)
            out.push_back(v);
        return out;
    }

    std::string if_name(uint32_t port)
    {
        char buf[32] = "";
        open_buffdesc d{sizeof(buf), buf};
        return openapiIfNameGet(&client, port, &d) == OPEN_E_NONE ? buf : "(error)";
    }

    int speed(uint32_t port)
    {
        OPEN_PORT_SPEEDS_t s;
        open_error_t r = openapiIfSpeedGet(&client, port, &s);
        return r == OPEN_E_NONE ? (int)s : (int)r;
    }

    int link(uint32_t port)
    {
        OPEN_LINK_STATE_t s;
        open_error_t r = openapiIfLinkStateGet(&client, port, &s);
        return r == OPEN_E_NONE ? (int)s : (int)r;
    }

    int admin(uint32_t port)
    {
        OPEN_CONTROL_t s;
        open_error_t r = openapiIfAdminStateGet(&client, port, &s);
        return r == OPEN_E_NONE ? (int)s : (int)r;
    }
};

std::vector<uint32_t> range(uint32_t from, uint32_t to)
{
    std::vector<uint32_t> out;
    for (uint32_t i = from; i <= to; i++)
        out.push_back(i);
    return out;
}

open_buffdesc text(const char *s)
{
    return open_buffdesc{(uint32_t)strlen(s) + 1, const_cast<char *>(s)};
}

using lines = std::vector<std::string>;

} // namespace

TEST_F(SimTest, WithoutAModelFileItIsA28PortSwitch)
{
    EXPECT_EQ(walk(OPEN_INTF_TYPE_PHY), range(1, 28));
    EXPECT_TRUE(walk(OPEN_INTF_TYPE_LAG).empty());
    EXPECT_EQ(if_name(1), "0/1");
    EXPECT_EQ(if_name(28), "0/28");
    EXPECT_EQ(speed(24), OPEN_PORTCTRL_PORTSPEED_FULL_1000SX);
    EXPECT_EQ(speed(25), OPEN_PORTCTRL_PORTSPEED_FULL_10GSX);
    EXPECT_EQ(speed(29), OPEN_E_NOT_FOUND);
    EXPECT_EQ(vlans(), std::vector<uint32_t>({1}));
    uint32_t participating = 0;
    EXPECT_EQ(openapiVlanIfParticipationStatusGet(&client, 1, 17, &participating), OPEN_E_NONE);
    EXPECT_EQ(participating, 1u);
    OPEN_CONTROL_t mode;
    EXPECT_EQ(rpcclt_openapiCloudManagedModeGet(&client, &mode), OPEN_E_NONE);
    EXPECT_EQ(mode, OPEN_ENABLE);
    // Reading leaves no trace in the device root.
    EXPECT_FALSE(file_exists(model_path()));
    EXPECT_FALSE(file_exists(root.at("/var/switch/journal")));
}

TEST_F(SimTest, WritesAreAppliedSavedAndJournalled)
{
    EXPECT_EQ(rpcclt_openapiIfAdminStateSet(&client, 3, OPEN_DISABLE), OPEN_E_NONE);
    EXPECT_EQ(admin(3), OPEN_DISABLE);
    EXPECT_EQ(admin(4), OPEN_ENABLE);
    EXPECT_EQ(
        journal_lines(root),
        lines({R"({"call":"rpcclt_openapiIfAdminStateSet","ifNum":3,"adminState":0,"result":0})"}));
    // The default switch was written out with the change, so it survives.
    std::string saved = read_file(model_path());
    EXPECT_NE(saved.find("\"admin\": \"disable\""), std::string::npos);
    EXPECT_EQ(walk(OPEN_INTF_TYPE_PHY), range(1, 28));

    // Refused writes are journalled with their result and change nothing.
    EXPECT_EQ(rpcclt_openapiIfAdminStateSet(&client, 40, OPEN_ENABLE), OPEN_E_NOT_FOUND);
    EXPECT_EQ(rpcclt_openapiIfAdminStateSet(&client, 3, (OPEN_CONTROL_t)5), OPEN_E_PARAM);
    EXPECT_EQ(admin(3), OPEN_DISABLE);
    EXPECT_EQ(journal_lines(root).size(), 3u);
    EXPECT_EQ(journal_lines(root)[1],
              R"({"call":"rpcclt_openapiIfAdminStateSet","ifNum":40,"adminState":1,"result":-29})");
}

TEST_F(SimTest, EveryWriteIsJournalled)
{
    open_buffdesc host = text("10.0.0.9"), server = text("pool.ntp.org"), user = text("admin"),
                  pass = text("pw"), prompt = text("hall"), app = text("tq_agent"),
                  version = text("1.0"), status = text("up"), file = text("support.txt");
    EXPECT_EQ(rpcclt_openapiLldpIntfReceiveModeSet(&client, 2, OPEN_DISABLE), OPEN_E_NONE);
    EXPECT_EQ(rpcclt_openapiLoggingHostAdd(&client, &host), OPEN_E_NONE);
    EXPECT_EQ(rpcclt_openapiLoggingHostPortSet(&client, &host, 5514), OPEN_E_NONE);
    EXPECT_EQ(rpcclt_openapiLoggingHostSeveritySet(&client, &host, OPEN_LOG_SEVERITY_INFO),
              OPEN_E_NONE);
    EXPECT_EQ(rpcclt_openapiSysLogModeSet(&client, OPEN_ENABLE), OPEN_E_NONE);
    EXPECT_EQ(rpcclt_openapiSntpServerAdd(&client, &server), OPEN_E_NONE);
    EXPECT_EQ(rpcclt_openapiSntpClientModeSet(&client, OPEN_SNTP_CLIENT_UNICAST), OPEN_E_NONE);
    EXPECT_EQ(rpcclt_openapiUserSet(&client, &user, &pass), OPEN_E_NONE);
    EXPECT_EQ(rpcclt_openapiIfAutoNegSet(&client, 25, OPEN_PORT_AUTO_NEG_DISABLE), OPEN_E_NONE);
    EXPECT_EQ(rpcclt_openapiSaveConfig(&client), OPEN_E_NONE);
    EXPECT_EQ(rpcclt_openapiSystemPromptSet(&client, &prompt), OPEN_E_NONE);
    EXPECT_EQ(rpcclt_openapiAppCtrlVersionSet(&client, &app, &version), OPEN_E_NONE);
    EXPECT_EQ(rpcclt_openapiAppCtrlStatusSet(&client, &app, &status), OPEN_E_NONE);
    EXPECT_EQ(rpcclt_openapiSystemReload(&client), OPEN_E_NONE);
    EXPECT_EQ(rpcclt_openapiSupportFileGenerate(&client, &file), OPEN_E_NONE);
    EXPECT_EQ(
        journal_lines(root),
        lines({
            R"({"call":"rpcclt_openapiLldpIntfReceiveModeSet","ifNum":2,"mode":0,"result":0})",
            R"({"call":"rpcclt_openapiLoggingHostAdd","host":"10.0.0.9","result":0})",
            R"({"call":"rpcclt_openapiLoggingHostPortSet","host":"10.0.0.9","port":5514,"result":0})",
            R"({"call":"rpcclt_openapiLoggingHostSeveritySet","host":"10.0.0.9","severity":6,"result":0})",
            R"({"call":"rpcclt_openapiSysLogModeSet","mode":1,"result":0})",
            R"({"call":"rpcclt_openapiSntpServerAdd","server":"pool.ntp.org","result":0})",
            R"({"call":"rpcclt_openapiSntpClientModeSet","mode":1,"result":0})",
            R"({"call":"rpcclt_openapiUserSet","userName":"admin","password":"pw","result":0})",
            R"({"call":"rpcclt_openapiIfAutoNegSet","ifNum":25,"autoNeg":0,"result":0})",
            R"({"call":"rpcclt_openapiSaveConfig","result":0})",
            R"({"call":"rpcclt_openapiSystemPromptSet","prompt":"hall","result":0})",
            R"({"call":"rpcclt_openapiAppCtrlVersionSet","appName":"tq_agent","version":"1.0","result":0})",
            R"({"call":"rpcclt_openapiAppCtrlStatusSet","appName":"tq_agent","status":"up","result":0})",
            R"({"call":"rpcclt_openapiSystemReload","result":0})",
            R"({"call":"rpcclt_openapiSupportFileGenerate","fileName":"support.txt","result":0})",
        }));
    // And the model holds the result of each.
    std::string m = read_file(model_path());
    for (const char *want :
         {"\"lldp_receive\": \"disable\"", "\"host\": \"10.0.0.9\"", "\"port\": 5514",
          "\"severity\": 6", "\"mode\": \"enable\"", "\"pool.ntp.org\"",
          "\"client_mode\": \"unicast\"", "\"password\": \"pw\"", "\"autoneg\": false",
          "\"config_saves\": 1", "\"prompt\": \"hall\"", "\"version\": \"1.0\"",
          "\"status\": \"up\"", "\"reloads\": 1"})
        EXPECT_NE(m.find(want), std::string::npos) << want;
    // A name without a folder lands beside the model.
    EXPECT_NE(read_file(root.at("/var/switch/support.txt")).find("Switch support data"),
              std::string::npos);
}

TEST_F(SimTest, ForcedResultsPerCallAndPortForTheNextNCalls)
{
    faults(R"([{"call":"openapiIfSpeedGet","port":2,"result":-26,"count":2}])");
    EXPECT_EQ(speed(1), OPEN_PORTCTRL_PORTSPEED_FULL_1000SX);
    EXPECT_EQ(speed(2), OPEN_E_FAIL);
    // What is left is written back, so a person can see it.
    EXPECT_NE(read_file(faults_path()).find("\"count\": 1"), std::string::npos);
    EXPECT_EQ(speed(2), OPEN_E_FAIL);
    EXPECT_EQ(speed(2), OPEN_PORTCTRL_PORTSPEED_FULL_1000SX);
    EXPECT_EQ(read_file(faults_path()), "[]\n");

    // Without a count the fault stays; without a port it hits every port;
    // a forced 0 lets the call through.
    faults(R"([{"call":"openapiIfLinkStateGet","port":4,"result":0,"count":1},
               {"call":"openapiIfLinkStateGet","result":-25}])");
    EXPECT_EQ(link(4), OPEN_LINK_DOWN);
    EXPECT_EQ(link(4), OPEN_E_TIMEOUT);
    EXPECT_EQ(link(5), OPEN_E_TIMEOUT);
    EXPECT_EQ(link(5), OPEN_E_TIMEOUT);
    // Other calls are not touched.
    EXPECT_EQ(admin(5), OPEN_ENABLE);

    // VLAN calls are chosen by VLAN.
    model(R"({"vlans":[{"id":1,"name":"default"},{"id":7,"name":"seven"}]})");
    faults(R"([{"call":"rpcclt_openapiVlanNameGet","vlan":7,"result":-31}])");
    char name[128];
    open_buffdesc d{sizeof(name), name};
    EXPECT_EQ(rpcclt_openapiVlanNameGet(&client, 1, &d), OPEN_E_NONE);
    d.size = sizeof(name);
    EXPECT_EQ(rpcclt_openapiVlanNameGet(&client, 7, &d), OPEN_E_ERROR);
}

TEST_F(SimTest, ConnectivityFailsNTimesBeforeItAnswers)
{
    faults(R"([{"call":"rpcclt_openapiConnectivityCheck","result":-20,"count":2}])");
    EXPECT_EQ(rpcclt_openapiConnectivityCheck(&client), OPEN_E_RPC);
    EXPECT_EQ(rpcclt_openapiConnectivityCheck(&client), OPEN_E_RPC);
    EXPECT_EQ(rpcclt_openapiConnectivityCheck(&client), OPEN_E_NONE);
    EXPECT_EQ(rpcclt_openapiConnectivityCheck(&client), OPEN_E_NONE);
}

TEST_F(SimTest, AForcedWriteFailureIsJournalledAndNotApplied)
{
    faults(R"([{"call":"rpcclt_openapiIfAdminStateSet","port":6,"result":-26,"count":1}])");
    EXPECT_EQ(rpcclt_openapiIfAdminStateSet(&client, 6, OPEN_DISABLE), OPEN_E_FAIL);
    EXPECT_EQ(admin(6), OPEN_ENABLE);
    EXPECT_EQ(
        journal_lines(root),
        lines(
            {R"({"call":"rpcclt_openapiIfAdminStateSet","ifNum":6,"adminState":0,"result":-26})"}));
    EXPECT_FALSE(file_exists(model_path()));
}

TEST_F(SimTest, TheModelIsReadAgainWhenItChanges)
{
    model(R"({"ports":[{"ifnum":1,"link":"up"},{"ifnum":2,"link":"up"}]})");
    EXPECT_EQ(walk(OPEN_INTF_TYPE_PHY), std::vector<uint32_t>({1, 2}));
    EXPECT_EQ(link(2), OPEN_LINK_UP);
    model(R"({"ports":[{"ifnum":1,"link":"up"},{"ifnum":2,"link":"down"}]})");
    EXPECT_EQ(link(2), OPEN_LINK_DOWN);
    // Same length, written within the same clock tick.
    model(R"({"ports":[{"ifnum":1,"link":1},{"ifnum":2,"link":0}]})");
    EXPECT_EQ(link(1), OPEN_LINK_DOWN);
    model(R"({"ports":[{"ifnum":1,"link":0},{"ifnum":2,"link":1}]})");
    EXPECT_EQ(link(1), OPEN_LINK_UP);

    // A file that does not parse (half written, a typo) changes nothing
    // until it does.
    model(R"({"ports":[{"ifnum":1,"link":"down"},{"ifnum":2,)");
    EXPECT_EQ(link(1), OPEN_LINK_UP);
    EXPECT_EQ(walk(OPEN_INTF_TYPE_PHY), std::vector<uint32_t>({1, 2}));
    model(R"({"ports":[{"ifnum":1,"link":"down"},{"ifnum":3}]})");
    EXPECT_EQ(link(1), OPEN_LINK_DOWN);
    EXPECT_EQ(walk(OPEN_INTF_TYPE_PHY), std::vector<uint32_t>({1, 3}));

    // Without the file it is the default switch again.
    ASSERT_EQ(remove(model_path().c_str()), 0);
    EXPECT_EQ(walk(OPEN_INTF_TYPE_PHY), range(1, 28));
}

TEST_F(SimTest, ModelDefaultsAndInterfaceTypes)
{
    // Ports without "ifnum" count from 1; members left out take defaults.
    model(R"({"ports":[{}, {"type":"lag"}, {"ifnum":10, "type":"vlan"}, {"link":"up"}]})");
    EXPECT_EQ(walk(OPEN_INTF_TYPE_PHY), std::vector<uint32_t>({1, 4}));
    EXPECT_EQ(walk(OPEN_INTF_TYPE_LAG), std::vector<uint32_t>({2}));
    EXPECT_EQ(walk(OPEN_INTF_TYPE_VLAN), std::vector<uint32_t>({10}));
    EXPECT_EQ(if_name(4), "0/4");
    EXPECT_EQ(link(1), OPEN_LINK_DOWN);
    EXPECT_EQ(link(4), OPEN_LINK_UP);
    char serial[256];
    open_buffdesc d{sizeof(serial), serial};
    EXPECT_EQ(rpcclt_openapiSystemRegSerialNumGet(&client, &d), OPEN_E_NONE);
    EXPECT_STREQ(serial, "VX0123456789");
    EXPECT_TRUE(vlans().empty());
}

TEST_F(SimTest, TheSampleModelLoads)
{
    std::string src = __FILE__;
    src = src.substr(0, src.rfind("/tests/unit/")) + "/device/switch/model.json";
    std::string sample = read_file(src);
    ASSERT_FALSE(sample.empty()) << src;
    model(sample);
    EXPECT_EQ(walk(OPEN_INTF_TYPE_PHY), range(1, 28));
    EXPECT_EQ(vlans(), std::vector<uint32_t>({1, 10, 20, 30, 99}));
    int with_neighbors = 0;
    for (uint32_t p = 1; p <= 28; p++) {
        uint32_t idx = 0, ts = 0;
        OPEN_CONTROL_t rx;
        ASSERT_EQ(rpcclt_openapiLldpIntfReceiveModeGet(&client, p, &rx), OPEN_E_NONE);
        if (rx == OPEN_ENABLE &&
            rpcclt_openapiLldpIntfRemoteDeviceNextGet(&client, p, &idx, &ts) == OPEN_E_NONE)
            with_neighbors++;
    }
    EXPECT_GE(with_neighbors, 3);
}

TEST_F(SimTest, LldpRemoteDevices)
{
    model(R"({"system":{"lldp_mgmt_str_len":12},"ports":[
        {"ifnum":1,"neighbors":[
            {"chassis_id":"c1","chassis_id_subtype":7,"port_id":"p1","port_id_subtype":7,
             "system_name":"one","mgmt_address":"10.0.0.1","timestamp":500},
            {"index":9,"chassis_id":"c2","port_id":"p2","system_name":"a-long-name!",
             "mgmt_address":"fe80::1"}]},
        {"ifnum":2,"lldp_receive":"disable","neighbors":[{"chassis_id":"c3"}]}]})");
    uint32_t len = 0;
    EXPECT_EQ(rpcclt_openapiLldpMgmtStrLenGet(&client, &len), OPEN_E_NONE);
    EXPECT_EQ(len, 12u);

    uint32_t idx = 0, ts = 0;
    ASSERT_EQ(rpcclt_openapiLldpIntfRemoteDeviceNextGet(&client, 1, &idx, &ts), OPEN_E_NONE);
    EXPECT_EQ(idx, 1u);
    EXPECT_EQ(ts, 500u);
    char buf[64];
    open_buffdesc d{12, buf};
    OPEN_LLDP_CHASSIS_ID_SUBTYPE_t cs;
    EXPECT_EQ(rpcclt_openapiLldpIntfRemoteDeviceChassisIdGet(&client, 1, idx, ts, &cs, &d),
              OPEN_E_NONE);
    EXPECT_STREQ(buf, "c1");
    EXPECT_EQ(cs, OPEN_LLDP_CHASSIS_ID_SUBTYPE_LOCAL);
    EXPECT_EQ(d.size, 3u);
    d.size = 12;
    EXPECT_EQ(rpcclt_openapiLldpIntfRemoteDeviceSystemDescGet(&client, 1, idx, ts, &d),
              OPEN_E_UNAVAIL);
    OPEN_AF_t af = OPEN_AF_NONE;
    uint8_t alen = 0;
    d.size = 12;
    EXPECT_EQ(
        rpcclt_openapiLldpIntfRemoteDeviceMgmtAddressNextGet(&client, 1, idx, ts, &af, &d, &alen),
        OPEN_E_NONE);
    EXPECT_STREQ(buf, "10.0.0.1");
    EXPECT_EQ(af, OPEN_AF_INET);
    EXPECT_EQ(
        rpcclt_openapiLldpIntfRemoteDeviceMgmtAddressNextGet(&client, 1, idx, ts, &af, &d, &alen),
        OPEN_E_NOT_FOUND);

    ASSERT_EQ(rpcclt_openapiLldpIntfRemoteDeviceNextGet(&client, 1, &idx, &ts), OPEN_E_NONE);
    EXPECT_EQ(idx, 9u);
    d.size = 12;
    // Twelve characters do not fit twelve bytes.
    EXPECT_EQ(rpcclt_openapiLldpIntfRemoteDeviceSystemNameGet(&client, 1, idx, ts, &d),
              OPEN_E_PARAM);
    af = OPEN_AF_NONE;
    d.size = 12;
    EXPECT_EQ(
        rpcclt_openapiLldpIntfRemoteDeviceMgmtAddressNextGet(&client, 1, idx, ts, &af, &d, &alen),
        OPEN_E_NONE);
    EXPECT_EQ(af, OPEN_AF_INET6);
    EXPECT_EQ(rpcclt_openapiLldpIntfRemoteDeviceNextGet(&client, 1, &idx, &ts), OPEN_E_NOT_FOUND);

    // Nothing is received while reception is off.
    idx = ts = 0;
    EXPECT_EQ(rpcclt_openapiLldpIntfRemoteDeviceNextGet(&client, 2, &idx, &ts), OPEN_E_NOT_FOUND);
}

TEST_F(SimTest, LoggingHostsAndSntpServers)
{
    model(R"({"logging":{"max_hosts":1},"sntp":{"max_servers":1}})");
    open_buffdesc a = text("10.0.0.1"), b = text("10.0.0.2"), s1 = text("ntp1"), s2 = text("ntp2");
    EXPECT_EQ(rpcclt_openapiLoggingHostAdd(&client, &a), OPEN_E_NONE);
    EXPECT_EQ(rpcclt_openapiLoggingHostAdd(&client, &a), OPEN_E_EXISTS);
    EXPECT_EQ(rpcclt_openapiLoggingHostAdd(&client, &b), OPEN_E_FULL);
    EXPECT_EQ(rpcclt_openapiLoggingHostPortSet(&client, &b, 514), OPEN_E_NOT_FOUND);
    EXPECT_EQ(rpcclt_openapiLoggingHostSeveritySet(&client, &a, (OPEN_LOG_SEVERITY_t)8),
              OPEN_E_PARAM);
    EXPECT_EQ(rpcclt_openapiSntpServerAdd(&client, &s1), OPEN_E_NONE);
    EXPECT_EQ(rpcclt_openapiSntpServerAdd(&client, &s1), OPEN_E_EXISTS);
    EXPECT_EQ(rpcclt_openapiSntpServerAdd(&client, &s2), OPEN_E_FULL);
}

TEST_F(SimTest, IdentityAndLimits)
{
    model(R"({"system":{"mac_address":"0a:1b:2c:3d:4e:5f","prompt_max_size":4,
                        "filename_max_length":20,"cloud_managed_mode":false,
                        "cloud_server_url":"https://c.example"}})");
    uint8_t mac[6];
    open_buffdesc m{sizeof(mac), mac};
    EXPECT_EQ(rpcclt_openapiSystemMacAddrGet(&client, &m), OPEN_E_NONE);
    EXPECT_EQ(std::vector<uint8_t>(mac, mac + 6),
              std::vector<uint8_t>({0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x5f}));
    uint32_t n = 0;
    EXPECT_EQ(rpcclt_openapiSystemPromptMaxSizeGet(&client, &n), OPEN_E_NONE);
    EXPECT_EQ(n, 4u);
    open_buffdesc longer = text("abcde");
    EXPECT_EQ(rpcclt_openapiSystemPromptSet(&client, &longer), OPEN_E_PARAM);
    EXPECT_EQ(rpcclt_openapiSystemFileNameMaxLengthGet(&client, &n), OPEN_E_NONE);
    EXPECT_EQ(n, 20u);
    OPEN_CONTROL_t mode;
    EXPECT_EQ(rpcclt_openapiCloudManagedModeGet(&client, &mode), OPEN_E_NONE);
    EXPECT_EQ(mode, OPEN_DISABLE);
    char url[32];
    open_buffdesc u{sizeof(url), url};
    EXPECT_EQ(rpcclt_openapiCloudManagedServerUrlGet(&client, &u), OPEN_E_NONE);
    EXPECT_STREQ(url, "https://c.example");
    open_buffdesc file = text("/tmp/support-data.txt");
    EXPECT_EQ(rpcclt_openapiSupportFileGenerate(&client, &file), OPEN_E_PARAM);
}

TEST_F(SimTest, TextsThatAreNotUtf8AreJournalledReadably)
{
    open_buffdesc user = text("adm\xffn"), pass = text("p");
    EXPECT_EQ(rpcclt_openapiUserSet(&client, &user, &pass), OPEN_E_NONE);
    EXPECT_EQ(
        journal_lines(root),
        lines(
            {R"({"call":"rpcclt_openapiUserSet","userName":"adm?n","password":"p","result":0})"}));
}

TEST(SimRoots, AnotherDeviceRootIsAnotherSwitch)
{
    openapiClientHandle_t client = {};
    OPEN_PORT_SPEEDS_t s;
    {
        DeviceRoot first;
        mkdir(first.at("/var").c_str(), 0755);
        mkdir(first.at("/var/switch").c_str(), 0755);
        write_file(first.at("/var/switch/model.json"), R"({"ports":[{"ifnum":1,"speed":13}]})");
        ASSERT_EQ(openapiIfSpeedGet(&client, 1, &s), OPEN_E_NONE);
        EXPECT_EQ(s, OPEN_PORTCTRL_PORTSPEED_FULL_100GSX);
    }
    DeviceRoot second;
    ASSERT_EQ(openapiIfSpeedGet(&client, 1, &s), OPEN_E_NONE);
    EXPECT_EQ(s, OPEN_PORTCTRL_PORTSPEED_FULL_1000SX);
}

// ---- faults, one kind at a time --------------------------------------------

TEST_F(SimTest, AFaultOnACallAloneForcesEveryWriteOfItAndIsJournalled)
{
    faults(R"([{"call":"rpcclt_openapiSaveConfig","result":-20}])");
    EXPECT_EQ(rpcclt_openapiSaveConfig(&client), OPEN_E_RPC);
    EXPECT_EQ(rpcclt_openapiSaveConfig(&client), OPEN_E_RPC);
    EXPECT_EQ(journal_lines(root), lines({R"({"call":"rpcclt_openapiSaveConfig","result":-20})",
                                R"({"call":"rpcclt_openapiSaveConfig","result":-20})"}));
    // Nothing was applied, so the default switch was never written out.
    EXPECT_FALSE(file_exists(model_path()));
    // Without a count the entry stays as it was.
    EXPECT_EQ(read_file(faults_path()), R"([{"call":"rpcclt_openapiSaveConfig","result":-20}])");
}

TEST_F(SimTest, AFaultWithoutAResultFailsWithMinus26)
{
    faults(R"([{"call":"rpcclt_openapiSysLogModeSet","count":1}])");
    EXPECT_EQ(rpcclt_openapiSysLogModeSet(&client, OPEN_ENABLE), OPEN_E_FAIL);
    EXPECT_EQ(rpcclt_openapiSysLogModeSet(&client, OPEN_ENABLE), OPEN_E_NONE);
    EXPECT_EQ(journal_lines(root), lines({R"({"call":"rpcclt_openapiSysLogModeSet","mode":1,"result":-26})",
                                R"({"call":"rpcclt_openapiSysLogModeSet","mode":1,"result":0})"}));
}

TEST_F(SimTest, AFaultForAPortHitsOnlyThatPortsWrites)
{
    faults(R"([{"call":"rpcclt_openapiIfAutoNegSet","port":26,"result":-26}])");
    for (uint32_t port = 25; port <= 28; port++)
        EXPECT_EQ(rpcclt_openapiIfAutoNegSet(&client, port, OPEN_PORT_AUTO_NEG_DISABLE),
                  port == 26 ? OPEN_E_FAIL : OPEN_E_NONE);
    EXPECT_EQ(
        journal_lines(root),
        lines({R"({"call":"rpcclt_openapiIfAutoNegSet","ifNum":25,"autoNeg":0,"result":0})",
               R"({"call":"rpcclt_openapiIfAutoNegSet","ifNum":26,"autoNeg":0,"result":-26})",
               R"({"call":"rpcclt_openapiIfAutoNegSet","ifNum":27,"autoNeg":0,"result":0})",
               R"({"call":"rpcclt_openapiIfAutoNegSet","ifNum":28,"autoNeg":0,"result":0})"}));
}

TEST_F(SimTest, AFaultForAPortNeverMatchesACallWithoutOne)
{
    faults(R"([{"call":"rpcclt_openapiSaveConfig","port":1,"result":-26},
               {"call":"rpcclt_openapiSysLogModeSet","vlan":1,"result":-26}])");
    EXPECT_EQ(rpcclt_openapiSaveConfig(&client), OPEN_E_NONE);
    EXPECT_EQ(rpcclt_openapiSysLogModeSet(&client, OPEN_DISABLE), OPEN_E_NONE);
    EXPECT_EQ(journal_lines(root), lines({R"({"call":"rpcclt_openapiSaveConfig","result":0})",
                                R"({"call":"rpcclt_openapiSysLogModeSet","mode":0,"result":0})"}));
}

TEST_F(SimTest, AForcedTextWriteIsJournalledWithItsArgumentsAndNotApplied)
{
    faults(R"([{"call":"rpcclt_openapiLoggingHostAdd","result":-23,"count":1}])");
    open_buffdesc host = text("10.0.0.9");
    EXPECT_EQ(rpcclt_openapiLoggingHostAdd(&client, &host), OPEN_E_FULL);
    EXPECT_EQ(rpcclt_openapiLoggingHostPortSet(&client, &host, 514), OPEN_E_NOT_FOUND);
    EXPECT_EQ(rpcclt_openapiLoggingHostAdd(&client, &host), OPEN_E_NONE);
    EXPECT_EQ(
        journal_lines(root),
        lines(
            {R"({"call":"rpcclt_openapiLoggingHostAdd","host":"10.0.0.9","result":-23})",
             R"({"call":"rpcclt_openapiLoggingHostPortSet","host":"10.0.0.9","port":514,"result":-29})",
             R"({"call":"rpcclt_openapiLoggingHostAdd","host":"10.0.0.9","result":0})"}));
    // An added host starts on port 514 with severity 3.
    std::string m = read_file(model_path());
    for (const char *want : {"\"host\": \"10.0.0.9\"", "\"port\": 514", "\"severity\": 3"})
        EXPECT_NE(m.find(want), std::string::npos) << want;
}

TEST_F(SimTest, AForcedZeroLetsAWriteThroughAndUsesUpItsCount)
{
    faults(R"([{"call":"rpcclt_openapiSystemReload","result":0,"count":1},
               {"call":"rpcclt_openapiSystemReload","result":-25}])");
    EXPECT_EQ(rpcclt_openapiSystemReload(&client), OPEN_E_NONE);
    // The first entry is spent; the second one now matches.
    EXPECT_EQ(rpcclt_openapiSystemReload(&client), OPEN_E_TIMEOUT);
    EXPECT_EQ(journal_lines(root), lines({R"({"call":"rpcclt_openapiSystemReload","result":0})",
                                R"({"call":"rpcclt_openapiSystemReload","result":-25})"}));
    EXPECT_NE(read_file(model_path()).find("\"reloads\": 1"), std::string::npos);
}

TEST_F(SimTest, AFaultWithoutCountsLeftNeverApplies)
{
    faults(R"([{"call":"rpcclt_openapiSaveConfig","result":-26,"count":0},
               {"call":"rpcclt_openapiSaveConfig","result":-26,"count":"two"}])");
    EXPECT_EQ(rpcclt_openapiSaveConfig(&client), OPEN_E_NONE);
    EXPECT_EQ(journal_lines(root), lines({R"({"call":"rpcclt_openapiSaveConfig","result":0})"}));
}

TEST_F(SimTest, AFaultForTheCurrentPortEndsTheInterfaceWalk)
{
    faults(R"([{"call":"openapiIfNextGet","port":3,"result":-21,"count":1}])");
    EXPECT_EQ(walk(OPEN_INTF_TYPE_PHY), range(1, 3));
    EXPECT_EQ(walk(OPEN_INTF_TYPE_PHY), range(1, 28));
}

TEST_F(SimTest, AFaultForAVlanAndAPortNeedsBoth)
{
    model(R"({"vlans":[{"id":1,"ports":[1,2]},{"id":5,"ports":[2]}]})");
    faults(R"([{"call":"openapiVlanIfParticipationStatusGet","vlan":5,"port":2,"result":-27}])");
    uint32_t in = 7;
    EXPECT_EQ(openapiVlanIfParticipationStatusGet(&client, 5, 2, &in), OPEN_E_DISABLED);
    // A forced read leaves the caller's value alone.
    EXPECT_EQ(in, 7u);
    EXPECT_EQ(openapiVlanIfParticipationStatusGet(&client, 1, 2, &in), OPEN_E_NONE);
    EXPECT_EQ(in, 1u);
    EXPECT_EQ(openapiVlanIfParticipationStatusGet(&client, 5, 1, &in), OPEN_E_NONE);
    EXPECT_EQ(in, 0u);
    EXPECT_EQ(openapiVlanIfParticipationStatusGet(&client, 9, 1, &in), OPEN_E_NOT_FOUND);
}

// ---- model details the agent relies on --------------------------------------

TEST_F(SimTest, StatesInWordsBooleansAndNumbers)
{
    model(R"({"ports":[{"link":true,"admin":false,"duplex":"half"},
                       {"link":7,"admin":"disable","duplex":2},
                       {"link":"sideways","admin":"on","duplex":true}]})");
    EXPECT_EQ(link(1), OPEN_LINK_UP);
    EXPECT_EQ(admin(1), OPEN_DISABLE);
    EXPECT_EQ(link(2), 7);
    EXPECT_EQ(admin(2), OPEN_DISABLE);
    EXPECT_EQ(link(3), OPEN_LINK_DOWN);
    EXPECT_EQ(admin(3), OPEN_ENABLE);
    OPEN_PORT_DUPLEX_t d;
    EXPECT_EQ(rpcclt_openapiIfDuplexModeGet(&client, 1, &d), OPEN_E_NONE);
    EXPECT_EQ(d, OPEN_PORT_DUPLEX_HALF);
    EXPECT_EQ(rpcclt_openapiIfDuplexModeGet(&client, 2, &d), OPEN_E_NONE);
    EXPECT_EQ(d, OPEN_PORT_DUPLEX_UNKNOWN);
    EXPECT_EQ(rpcclt_openapiIfDuplexModeGet(&client, 3, &d), OPEN_E_NONE);
    EXPECT_EQ(d, OPEN_PORT_DUPLEX_FULL);

    EXPECT_EQ(rpcclt_openapiSntpClientModeSet(&client, OPEN_SNTP_CLIENT_BROADCAST), OPEN_E_NONE);
    EXPECT_EQ(rpcclt_openapiSntpClientModeSet(&client, (OPEN_SNTP_CLIENT_MODE_t)3), OPEN_E_PARAM);
    EXPECT_NE(read_file(model_path()).find("\"client_mode\": \"broadcast\""), std::string::npos);
}

TEST_F(SimTest, AMacAddressThatDoesNotParseIsAnInternalError)
{
    model(R"({"system":{"mac_address":"02:00:00:00:00"}})");
    uint8_t mac[6];
    open_buffdesc m{sizeof(mac), mac};
    EXPECT_EQ(rpcclt_openapiSystemMacAddrGet(&client, &m), OPEN_E_INTERNAL);
    m.size = 5;
    EXPECT_EQ(rpcclt_openapiSystemMacAddrGet(&client, &m), OPEN_E_PARAM);
}

TEST_F(SimTest, ASupportFileNamedByADevicePathGoesThere)
{
    mkdir(root.at("/tmp").c_str(), 0755);
    open_buffdesc file = text("/tmp/support-data.txt");
    EXPECT_EQ(rpcclt_openapiSupportFileGenerate(&client, &file), OPEN_E_NONE);
    std::string data = read_file(root.at("/tmp/support-data.txt"));
    EXPECT_EQ(data.rfind("Switch support data\nSerial number: VX0123456789\n"
                         "Machine model: VX-S28\n\n{\n",
                         0),
              0u);
    EXPECT_EQ(
        journal_lines(root),
        lines(
            {R"({"call":"rpcclt_openapiSupportFileGenerate","fileName":"/tmp/support-data.txt","result":0})"}));
}

TEST_F(SimTest, AMemberOfTheWrongKindIsLeftAlone)
{
    model(R"({"logging":5,"applications":"none"})");
    open_buffdesc host = text("10.0.0.9"), app = text("tq_agent"), version = text("1.0");
    EXPECT_EQ(rpcclt_openapiLoggingHostAdd(&client, &host), OPEN_E_NONE);
    EXPECT_EQ(rpcclt_openapiAppCtrlVersionSet(&client, &app, &version), OPEN_E_NONE);
    EXPECT_EQ(read_file(model_path()), "{\n  \"logging\": 5,\n  \"applications\": \"none\"\n}\n");
}
