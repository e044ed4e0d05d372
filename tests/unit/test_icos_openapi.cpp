// The switch adapter, driven through the simulated switch: its model, its
// forced results and its journal.
#include "icos-openapi.h"
#include "log.h"
#include "testkit.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace testkit;

namespace
{

std::vector<unsigned> slept;
// What the unit starts with, before any test points it elsewhere.
unsigned int (*const initial_sleep)(unsigned int) = icos_openapi_sleep;

unsigned record_sleep(unsigned seconds)
{
    slept.push_back(seconds);
    return 0;
}

// One physical port of a model; `extra` adds members (not ifnum, name, mac,
// admin or duplex unless the test means to repeat a key, which the model's
// reader resolves to the last one).
std::string port(int ifnum, const std::string &extra = "")
{
    char head[256];
    snprintf(head, sizeof(head),
             "{\"ifnum\":%d,\"name\":\"0/%d\",\"mac\":\"02:00:00:00:01:%02x\",\"admin\":\"enable\","
             "\"duplex\":\"full\"",
             ifnum, ifnum, ifnum & 0xff);
    return std::string(head) + (extra.empty() ? "" : "," + extra) + "}";
}

std::string neighbor(const std::string &name)
{
    return "{\"chassis_id\":\"aa:bb:cc:00:00:" + name.substr(name.size() - 2) +
           "\",\"chassis_id_subtype\":4,\"port_id\":\"gi0/" + name +
           "\",\"port_id_subtype\":5,\"system_name\":\"" + name +
           "\",\"system_description\":\"desc " + name +
           "\",\"system_caps_supported\":\"Bridge, Router\",\"system_caps_enabled\":\"Bridge\","
           "\"mgmt_address\":\"10.0.0." +
           name.substr(name.size() - 2) + "\"}";
}

std::string model_of(const std::vector<std::string> &ports, const std::string &vlans = "[]",
                     const std::string &system = "{}")
{
    std::string out = "{\"system\":" + system + ",\"ports\":[";
    for (size_t i = 0; i < ports.size(); i++)
        out += (i ? "," : "") + ports[i];
    return out + "],\"vlans\":" + vlans + "}";
}

class IcosTest : public ::testing::Test
{
  protected:
    DeviceRoot root;
    port_status_t table[128] = {};

    void SetUp() override
    {
        log_init();
        mkdir(root.at("/var").c_str(), 0755);
        mkdir(root.at("/var/switch").c_str(), 0755);
        slept.clear();
        icos_openapi_sleep = record_sleep;
    }

    void model(const std::string &json) { write_file(root.at("/var/switch/model.json"), json); }
    void faults(const std::string &json) { write_file(root.at("/var/switch/faults.json"), json); }
    std::string model_text() { return read_file(root.at("/var/switch/model.json")); }
    std::vector<std::string> log() { return log_messages(root.at("/rw/orkad.log")); }
    bool logged(const std::string &line)
    {
        auto l = log();
        return std::find(l.begin(), l.end(), line) != l.end();
    }
    size_t logged_count(const std::string &line)
    {
        auto l = log();
        return std::count(l.begin(), l.end(), line);
    }
    void collect() { platform_collect_port_status(table, 128); }
    void clear_changed()
    {
        for (port_status_t &p : table)
            p.changed = false;
    }
};

std::vector<std::string> names_of(const std::vector<lldp_neighbor_t> &list)
{
    std::vector<std::string> out;
    for (const lldp_neighbor_t &n : list)
        out.push_back(n.system_name);
    return out;
}

std::vector<std::pair<int, std::string>> vlans_of(const std::vector<vlan_info_t> &list)
{
    std::vector<std::pair<int, std::string>> out;
    for (const vlan_info_t &v : list)
        out.emplace_back(v.vid, v.name);
    return out;
}

using names = std::vector<std::string>;

} // namespace

// ---- client registration -------------------------------------------------

TEST_F(IcosTest, ClientInitRetriesConnectivityUntilTheSwitchAnswers)
{
    faults(R"([{"call":"rpcclt_openapiConnectivityCheck","result":-20,"count":3}])");
    EXPECT_EQ(icos_openapi_client_init(), 0);
    EXPECT_EQ(
        logged_count("icos_openapi_client_init: openapiConnectivityCheck() failed, retrying..."),
        3u);
    EXPECT_TRUE(logged("icos_openapi_client_init: client registeration complete"));
    EXPECT_EQ(slept, std::vector<unsigned>({1, 1, 1}));

    // Registered once for the life of the process: a refusal now goes unseen.
    faults(R"([{"call":"openapiClientRegister","result":-21}])");
    EXPECT_EQ(icos_openapi_client_init(), 0);
    EXPECT_EQ(logged_count("icos_openapi_client_init: client registeration complete"), 1u);
}

TEST_F(IcosTest, ClientInitFailsWhenRegistrationIsRefused)
{
    faults(R"([{"call":"openapiClientRegister","result":-21,"count":1}])");
    EXPECT_EQ(icos_openapi_client_init(), -1);
    EXPECT_TRUE(
        logged("icos_openapi_client_init: Failed to initialize RPC to OpEN (result = -21)"));
    EXPECT_FALSE(logged("icos_openapi_client_init: client registeration complete"));
    // Not registered, so the next call tries again.
    EXPECT_EQ(icos_openapi_client_init(), 0);
    EXPECT_TRUE(logged("icos_openapi_client_init: client registeration complete"));
}

// ---- port attributes -----------------------------------------------------

TEST_F(IcosTest, CollectsEveryAttributeOfEveryPhysicalPort)
{
    model(model_of({port(1, R"("link":"up","speed":7,"mac":"00:11:22:33:44:01")"),
                    port(2, R"("link":"down","admin":"disable","speed":3,"duplex":"half")"),
                    port(3, R"("type":"lag","link":"up")")}));
    collect();
    EXPECT_TRUE(table[1].valid);
    EXPECT_TRUE(table[1].changed);
    EXPECT_TRUE(table[1].link_up);
    EXPECT_TRUE(table[1].link_enabled);
    EXPECT_TRUE(table[1].full_duplex);
    EXPECT_EQ(table[1].speed, 1000);
    EXPECT_STREQ(table[1].port_name, "0/1");
    EXPECT_STREQ(table[1].mac_addr, "00:11:22:33:44:01");
    EXPECT_TRUE(table[2].valid);
    EXPECT_FALSE(table[2].link_up);
    EXPECT_FALSE(table[2].link_enabled);
    EXPECT_FALSE(table[2].full_duplex);
    EXPECT_EQ(table[2].speed, 100);
    // Only physical interfaces are walked.
    EXPECT_FALSE(table[3].valid);
    EXPECT_FALSE(table[0].valid);
}

TEST_F(IcosTest, OutOfRangePortsAreSkipped)
{
    model(model_of({port(0), port(1), port(127), port(128), port(300)}));
    collect();
    EXPECT_TRUE(logged("platform_collect_port_status: port 0, out of range"));
    EXPECT_TRUE(logged("platform_collect_port_status: port 128, out of range"));
    EXPECT_TRUE(logged("platform_collect_port_status: port 300, out of range"));
    EXPECT_FALSE(logged("platform_collect_port_status: port 127, out of range"));
    EXPECT_FALSE(table[0].valid);
    EXPECT_TRUE(table[1].valid);
    EXPECT_TRUE(table[127].valid);

    // A smaller table is bounded by its own size.
    port_status_t small[10] = {};
    model(model_of({port(9), port(10)}));
    platform_collect_port_status(small, 10);
    EXPECT_TRUE(small[9].valid);
    EXPECT_TRUE(logged("platform_collect_port_status: port 10, out of range"));
}

TEST_F(IcosTest, SpeedTable)
{
    // OpEN speed value -> Mbit/s, 100FX and 20G as the controller knows them.
    const std::vector<std::pair<int, int>> speeds = {
        {1, 0},     {2, 100}, {3, 100},    {4, 10},  {5, 10}, {6, 1000}, {7, 1000},
        {8, 10000}, {9, 0},   {10, 40000}, {11, 0},  {12, 0}, {13, 0},   {14, 0},
        {15, 0},    {128, 0}, {129, 0},    {130, 0}, {0, 0},  {99, 0}};
    std::vector<std::string> ports;
    for (size_t i = 0; i < speeds.size(); i++)
        ports.push_back(port((int)i + 1, "\"speed\":" + std::to_string(speeds[i].first)));
    model(model_of(ports));
    // A port that was fast before must really be written back to 0.
    for (port_status_t &p : table)
        p.speed = -1;
    collect();
    for (size_t i = 0; i < speeds.size(); i++)
        EXPECT_EQ(table[i + 1].speed, speeds[i].second) << "OpEN speed " << speeds[i].first;
}

TEST_F(IcosTest, Speed100FxIs1000And25GIsZero)
{
    model(model_of({port(1, R"("speed":6)"), port(2, R"("speed":11)")}));
    collect();
    EXPECT_EQ(table[1].speed, 1000);
    EXPECT_EQ(table[2].speed, 0);
}

TEST_F(IcosTest, LinkAndAdminValuesOtherThanTheKnownOnesAreFalse)
{
    model(
        model_of({port(1, R"("link":2,"admin":2,"duplex":2)"), port(2, R"("link":0,"admin":1)")}));
    table[1].link_up = table[1].link_enabled = table[1].full_duplex = true;
    collect();
    EXPECT_FALSE(table[1].link_up);
    EXPECT_FALSE(table[1].link_enabled);
    EXPECT_FALSE(table[1].full_duplex);
    EXPECT_TRUE(table[2].link_up);
    EXPECT_TRUE(table[2].link_enabled);
}

TEST_F(IcosTest, FailedReadsAreLoggedAndLeaveTheirFieldAlone)
{
    model(model_of({port(1, R"("link":"up","speed":8)"), port(2, R"("link":"up","speed":8)")}));
    collect();
    ASSERT_EQ(table[2].speed, 10000);
    model(model_of({port(1, R"("link":"down","admin":"disable","speed":3,"duplex":"half",)"
                            R"("mac":"02:00:00:00:09:01")"),
                    port(2, R"("link":"down","admin":"disable","speed":3,"duplex":"half",)"
                            R"("mac":"02:00:00:00:09:02")")}));
    faults(R"([{"call":"openapiIfLinkStateGet","port":2,"result":-26},
               {"call":"openapiIfAdminStateGet","port":2,"result":-25},
               {"call":"openapiIfSpeedGet","port":2,"result":-21},
               {"call":"rpcclt_openapiIfDuplexModeGet","port":2,"result":-20},
               {"call":"rpcclt_openapiIfMacAddrGet","port":2,"result":-29},
               {"call":"openapiIfNameGet","port":2,"result":-31}])");
    clear_changed();
    collect();
    EXPECT_TRUE(logged("platform_collect_port_status: openapiIfLinkStateGet(2) result = -26"));
    EXPECT_TRUE(logged("platform_collect_port_status: openapiIfAdminStateGet(2) result = -25"));
    EXPECT_TRUE(logged("platform_collect_port_status: openapiIfSpeedGet(2) result = -21"));
    EXPECT_TRUE(logged("platform_collect_port_status: openapiIfDuplexModeGet(2) result = -20"));
    EXPECT_TRUE(logged("platform_collect_port_status: openapiIfMacAddrGet(2) result = -29"));
    EXPECT_TRUE(logged("platform_collect_port_status: openapiIfNameGet(2) result = -31"));
    // Port 2 keeps everything it had; port 1 took the new values.
    EXPECT_TRUE(table[2].link_up);
    EXPECT_TRUE(table[2].link_enabled);
    EXPECT_EQ(table[2].speed, 10000);
    EXPECT_TRUE(table[2].full_duplex);
    EXPECT_STREQ(table[2].mac_addr, "02:00:00:00:01:02");
    EXPECT_STREQ(table[2].port_name, "0/2");
    EXPECT_FALSE(table[2].changed);
    EXPECT_FALSE(table[1].link_up);
    EXPECT_EQ(table[1].speed, 100);
    EXPECT_STREQ(table[1].mac_addr, "02:00:00:00:09:01");
    EXPECT_TRUE(table[1].changed);
}

TEST_F(IcosTest, AWalkFailureEndsTheCycleAndReleasesTheLock)
{
    model(model_of({port(1), port(2), port(3)}));
    faults(R"([{"call":"openapiIfNextGet","port":1,"result":-20,"count":1}])");
    collect();
    EXPECT_TRUE(table[1].valid);
    EXPECT_FALSE(table[2].valid);
    // The lock was given back: other operations and the next cycle run.
    EXPECT_STREQ(platform_get_model_number(), "VX-S28");
    collect();
    EXPECT_TRUE(table[3].valid);

    faults(R"([{"call":"openapiIfFirstGet","result":-20,"count":1}])");
    port_status_t other[128] = {};
    platform_collect_port_status(other, 128);
    EXPECT_FALSE(other[1].valid);
}

TEST_F(IcosTest, CollectingTwiceWithoutChangeLeavesChangedAlone)
{
    model(model_of(
        {port(1, "\"link\":\"up\",\"neighbors\":[" + neighbor("sw01") + "]"),
         port(2, "\"neighbors\":[" + neighbor("sw02") + "," + neighbor("sw03") + "]")},
        R"([{"id":1,"name":"default","ports":[1,2]},{"id":10,"name":"office","ports":[2]}])"));
    collect();
    ASSERT_TRUE(table[1].changed);
    ASSERT_TRUE(table[2].changed);
    const lldp_neighbor_t *kept = table[2].neighbors.data();
    const vlan_info_t *kept_vlans = table[2].vlans.data();
    clear_changed();
    collect();
    EXPECT_FALSE(table[1].changed);
    EXPECT_FALSE(table[2].changed);
    // Equal lists are not replaced.
    EXPECT_EQ(table[2].neighbors.data(), kept);
    EXPECT_EQ(table[2].vlans.data(), kept_vlans);

    // And a flag the reporter left set stays set.
    table[1].changed = true;
    collect();
    EXPECT_TRUE(table[1].changed);
    EXPECT_FALSE(table[2].changed);
}

TEST_F(IcosTest, AnEditedModelIsPickedUpByTheNextCollection)
{
    model(model_of({port(1, R"("link":"up")"), port(2, R"("link":"up")")}));
    collect();
    ASSERT_TRUE(table[2].link_up);
    clear_changed();
    model(model_of({port(1, R"("link":"up")"), port(2, R"("link":"down")")}));
    collect();
    EXPECT_FALSE(table[2].link_up);
    EXPECT_TRUE(table[2].changed);
    EXPECT_FALSE(table[1].changed);

    // Same size, same instant: still seen.
    clear_changed();
    model(model_of({port(1, R"("link":0)"), port(2, R"("link":1)")}));
    collect();
    model(model_of({port(1, R"("link":1)"), port(2, R"("link":0)")}));
    collect();
    EXPECT_FALSE(table[1].link_up);
    EXPECT_TRUE(table[2].link_up);
}

TEST_F(IcosTest, AModelEditedWhileCollectionRunsIsPickedUpAtTheNextCollection)
{
    std::vector<std::string> ports;
    for (int i = 1; i <= 28; i++)
        ports.push_back(port(i, R"("link":"down")"));
    const std::string down = model_of(ports);
    ports[4] = port(5, R"("link":"up","neighbors":[)" + neighbor("sw05") + "]");
    const std::string up = model_of(ports);
    model(down);

    // Rewrite the file in place (half-written files included) while
    // collections run, the way an editor or a test would.
    std::atomic<bool> stop{false};
    std::atomic<int> writes{0};
    std::thread writer([&] {
        bool flip = false;
        while (!stop) {
            write_file(root.at("/var/switch/model.json"), flip ? up : down);
            flip = !flip;
            writes++;
        }
    });
    for (int i = 0; i < 30 || writes < 20; i++)
        collect();
    stop = true;
    writer.join();

    model(up);
    collect();
    EXPECT_TRUE(table[5].link_up);
    EXPECT_EQ(names_of(table[5].neighbors), names({"sw05"}));
    for (int i = 1; i <= 28; i++)
        EXPECT_TRUE(table[i].valid) << i;

    model(down);
    collect();
    EXPECT_FALSE(table[5].link_up);
    EXPECT_TRUE(table[5].neighbors.empty());
}

// ---- LLDP neighbours -----------------------------------------------------

TEST_F(IcosTest, OnlyTheLastTwoOfThreeNeighboursAreReported)
{
    model(model_of({port(1, "\"neighbors\":[" + neighbor("sw01") + "]"),
                    port(2, "\"neighbors\":[" + neighbor("sw01") + "," + neighbor("sw02") + "]"),
                    port(3, "\"neighbors\":[" + neighbor("sw01") + "," + neighbor("sw02") + "," +
                                neighbor("sw03") + "]"),
                    port(4, "\"neighbors\":[" + neighbor("sw01") + "," + neighbor("sw02") + "," +
                                neighbor("sw03") + "," + neighbor("sw04") + "]"),
                    port(5)}));
    collect();
    EXPECT_EQ(names_of(table[1].neighbors), names({"sw01"}));
    EXPECT_EQ(names_of(table[2].neighbors), names({"sw01", "sw02"}));
    EXPECT_EQ(names_of(table[3].neighbors), names({"sw02", "sw03"}));
    EXPECT_EQ(names_of(table[4].neighbors), names({"sw03", "sw04"}));
    EXPECT_TRUE(table[5].neighbors.empty());

    ASSERT_EQ(table[1].neighbors.size(), 1u);
    const lldp_neighbor_t *n = &table[1].neighbors[0];
    EXPECT_EQ(n->chassis_id, "aa:bb:cc:00:00:01");
    EXPECT_EQ(n->chassis_id_subtype, 4);
    EXPECT_EQ(n->port_id, "gi0/sw01");
    EXPECT_EQ(n->port_id_subtype, 5);
    EXPECT_EQ(n->system_description, "desc sw01");
    EXPECT_EQ(n->system_caps_supported, "Bridge, Router");
    EXPECT_EQ(n->system_caps_enabled, "Bridge");
    EXPECT_EQ(n->mgmt_address, "10.0.0.01");
}

TEST_F(IcosTest, DisabledReceptionIsSwitchedOnAndReportsFromTheNextCycle)
{
    model(model_of(
        {port(7, "\"lldp_receive\":\"disable\",\"neighbors\":[" + neighbor("sw07") + "]")}));
    collect();
    EXPECT_TRUE(table[7].valid);
    EXPECT_TRUE(table[7].neighbors.empty());
    EXPECT_EQ(
        journal_lines(root),
        names(
            {R"({"call":"rpcclt_openapiLldpIntfReceiveModeSet","ifNum":7,"mode":1,"result":0})"}));
    EXPECT_NE(model_text().find("\"lldp_receive\": \"enable\""), std::string::npos);

    clear_changed();
    collect();
    EXPECT_EQ(names_of(table[7].neighbors), names({"sw07"}));
    EXPECT_TRUE(table[7].changed);
    EXPECT_EQ(journal_lines(root).size(), 1u);
}

TEST_F(IcosTest, ReceptionSwitchOnFailureStillReportsNoNeighbours)
{
    model(model_of(
        {port(7, "\"lldp_receive\":\"disable\",\"neighbors\":[" + neighbor("sw07") + "]")}));
    faults(R"([{"call":"rpcclt_openapiLldpIntfReceiveModeSet","result":-26,"count":1},
               {"call":"rpcclt_openapiLldpIntfReceiveModeGet","port":8,"result":-20}])");
    collect();
    EXPECT_TRUE(table[7].neighbors.empty());
    EXPECT_TRUE(
        logged("icos_collect_neighbors: openapiLldpIntfReceiveModeSet() failed (result = -26)"));
    EXPECT_EQ(
        journal_lines(root),
        names(
            {R"({"call":"rpcclt_openapiLldpIntfReceiveModeSet","ifNum":7,"mode":1,"result":-26})"}));
    collect();
    EXPECT_TRUE(table[7].neighbors.empty());
    collect();
    EXPECT_EQ(names_of(table[7].neighbors), names({"sw07"}));

    model(model_of({port(8, "\"neighbors\":[" + neighbor("sw08") + "]")}));
    collect();
    EXPECT_TRUE(table[8].neighbors.empty());
    EXPECT_TRUE(
        logged("icos_collect_neighbors: openapiLldpIntfReceiveModeGet() failed (result = -20)"));
}

TEST_F(IcosTest, ManagementStringLengthLimit)
{
    model(model_of({port(1, "\"neighbors\":[" + neighbor("sw01") + "]")}, "[]",
                   R"({"lldp_mgmt_str_len":8193})"));
    collect();
    EXPECT_TRUE(table[1].neighbors.empty());
    EXPECT_TRUE(logged("icos_collect_neighbors: MgmtStrLen = 8193 > limit 8192"));

    model(model_of({port(1, "\"neighbors\":[" + neighbor("sw01") + "]")}, "[]",
                   R"({"lldp_mgmt_str_len":8192})"));
    collect();
    EXPECT_EQ(names_of(table[1].neighbors), names({"sw01"}));
    EXPECT_FALSE(logged("icos_collect_neighbors: MgmtStrLen = 8192 > limit 8192"));

    faults(R"([{"call":"rpcclt_openapiLldpMgmtStrLenGet","result":-21,"count":1}])");
    collect();
    EXPECT_TRUE(table[1].neighbors.empty());
    EXPECT_TRUE(logged("icos_collect_neighbors: openapiLldpMgmtStrLenGet() failed (result = -21)"));
}

TEST_F(IcosTest, TextsUpToTheManagementStringLengthAreRead)
{
    // The length counts the terminator: a 15-character name fits 16.
    model(model_of({port(1, R"("neighbors":[{"chassis_id":"c","port_id":"p",)"
                            R"("system_name":"fifteen-chars-x"}])"),
                    port(2, R"("neighbors":[{"chassis_id":"c","port_id":"p",)"
                            R"("system_name":"sixteen-chars-xx"}])")},
                   "[]", R"({"lldp_mgmt_str_len":16})"));
    collect();
    EXPECT_EQ(names_of(table[1].neighbors), names({"fifteen-chars-x"}));
    EXPECT_TRUE(table[2].neighbors.empty());
    EXPECT_TRUE(logged(
        "icos_collect_neighbors: openapiLldpIntfRemoteDeviceSystemNameGet(2, 1) result = -22"));
}

TEST_F(IcosTest, UnavailableFieldsAreEmptyAndOtherErrorsDropOnlyThatNeighbour)
{
    // sw02 advertises nothing but its IDs: every other field is unavailable.
    model(
        model_of({port(3, "\"neighbors\":[" + neighbor("sw01") +
                              R"(,{"chassis_id":"aa:bb:cc:00:00:02","port_id":"gi0/2"})" + "]")}));
    collect();
    ASSERT_EQ(names_of(table[3].neighbors), names({"sw01", ""}));
    const lldp_neighbor_t *bare = &table[3].neighbors[1];
    EXPECT_EQ(bare->system_description, "");
    EXPECT_EQ(bare->system_caps_supported, "");
    EXPECT_EQ(bare->system_caps_enabled, "");
    EXPECT_EQ(bare->mgmt_address, "");
    EXPECT_EQ(bare->chassis_id, "aa:bb:cc:00:00:02");

    // A forced "unavailable" empties a field the neighbour does have.
    faults(
        R"([{"call":"rpcclt_openapiLldpIntfRemoteDeviceChassisIdGet","port":3,"result":-28,"count":1}])");
    collect();
    ASSERT_EQ(names_of(table[3].neighbors), names({"sw01", ""}));
    EXPECT_EQ(table[3].neighbors[0].chassis_id, "");

    // Any other error drops that neighbour only, whichever field fails.
    struct {
        const char *call;
        const char *text;
    } fails[] = {
        {"rpcclt_openapiLldpIntfRemoteDeviceChassisIdGet",
         "openapiLldpIntfRemoteDeviceChassisIdGet"},
        {"rpcclt_openapiLldpIntfRemoteDevicePortIdGet", "openapiLldpIntfRemoteDevicePortIdGet"},
        {"rpcclt_openapiLldpIntfRemoteDeviceSystemNameGet",
         "openapiLldpIntfRemoteDeviceSystemNameGet"},
        {"rpcclt_openapiLldpIntfRemoteDeviceSystemDescGet",
         "openapiLldpIntfRemoteDeviceSystemDescGet"},
        {"rpcclt_openapiLldpIntfRemoteDeviceSysCapSuppGet",
         "openapiLldpIntfRemoteDeviceSysCapSuppGet"},
        {"rpcclt_openapiLldpIntfRemoteDeviceSysCapEnabledGet",
         "openapiLldpIntfRemoteDeviceSysCapEnabledGet"},
        // The management address read reports under the port-ID name.
        {"rpcclt_openapiLldpIntfRemoteDeviceMgmtAddressNextGet",
         "openapiLldpIntfRemoteDevicePortIdGet"},
    };
    model(model_of({port(3, "\"neighbors\":[" + neighbor("sw01") + "," + neighbor("sw02") + "]")}));
    for (auto &f : fails) {
        faults(std::string(R"([{"call":")") + f.call + R"(","port":3,"result":-26,"count":1}])");
        collect();
        EXPECT_EQ(names_of(table[3].neighbors), names({"sw02"})) << f.call;
        EXPECT_EQ(log().back(),
                  std::string("icos_collect_neighbors: ") + f.text + "(3, 1) result = -26")
            << f.call;
        collect();
        EXPECT_EQ(names_of(table[3].neighbors), names({"sw01", "sw02"})) << f.call;
    }
}

TEST_F(IcosTest, NeighbourChangesReplaceTheStoredList)
{
    model(model_of({port(1, "\"neighbors\":[" + neighbor("sw01") + "]")}));
    collect();
    ASSERT_EQ(names_of(table[1].neighbors), names({"sw01"}));

    // A changed field, a changed subtype, a longer list, an empty list.
    const std::vector<std::string> variants = {
        R"({"chassis_id":"aa:bb:cc:00:00:01","chassis_id_subtype":4,"port_id":"gi0/sw01","port_id_subtype":5,"system_name":"sw01","system_description":"desc sw01","system_caps_supported":"Bridge, Router","system_caps_enabled":"Bridge, Router","mgmt_address":"10.0.0.01"})",
        R"({"chassis_id":"aa:bb:cc:00:00:01","chassis_id_subtype":7,"port_id":"gi0/sw01","port_id_subtype":5,"system_name":"sw01","system_description":"desc sw01","system_caps_supported":"Bridge, Router","system_caps_enabled":"Bridge, Router","mgmt_address":"10.0.0.01"})",
    };
    for (const std::string &v : variants) {
        clear_changed();
        model(model_of({port(1, "\"neighbors\":[" + v + "]")}));
        collect();
        EXPECT_TRUE(table[1].changed) << v;
    }
    EXPECT_EQ(table[1].neighbors.at(0).chassis_id_subtype, 7);
    EXPECT_EQ(table[1].neighbors[0].system_caps_enabled, "Bridge, Router");

    clear_changed();
    model(model_of({port(1, "\"neighbors\":[" + variants[1] + "," + neighbor("sw02") + "]")}));
    collect();
    EXPECT_TRUE(table[1].changed);
    EXPECT_EQ(names_of(table[1].neighbors), names({"sw01", "sw02"}));

    clear_changed();
    model(model_of({port(1)}));
    collect();
    EXPECT_TRUE(table[1].changed);
    EXPECT_TRUE(table[1].neighbors.empty());
}

// ---- VLANs ---------------------------------------------------------------

TEST_F(IcosTest, VlansOfAPortKeepTheLastTwo)
{
    model(model_of({port(1), port(2), port(3)},
                   R"([{"id":1,"name":"default","ports":[1,2,3]},
                       {"id":10,"name":"office","ports":[2,3]},
                       {"id":20,"name":"voice","ports":[3]},
                       {"id":30,"name":"cameras","ports":[3]}])"));
    collect();
    using vl = std::vector<std::pair<int, std::string>>;
    EXPECT_EQ(vlans_of(table[1].vlans), vl({{1, "default"}}));
    EXPECT_EQ(vlans_of(table[2].vlans), vl({{1, "default"}, {10, "office"}}));
    EXPECT_EQ(vlans_of(table[3].vlans), vl({{20, "voice"}, {30, "cameras"}}));
}

// A trunk port with five neighbours and five VLANs: the last two of each are
// reported, and the three the list walks past are released, pass after pass.
TEST_F(IcosTest, FiveNeighboursAndVlansReportTheLastTwoAndLeaveNothingBehind)
{
    model(model_of(
        {port(1, "\"neighbors\":[" + neighbor("sw01") + "," + neighbor("sw02") + "," +
                     neighbor("sw03") + "," + neighbor("sw04") + "," + neighbor("sw05") + "]")},
        R"([{"id":1,"name":"default","ports":[1]},
                       {"id":10,"name":"office","ports":[1]},
                       {"id":20,"name":"voice","ports":[1]},
                       {"id":30,"name":"cameras","ports":[1]},
                       {"id":40,"name":"guests","ports":[1]}])"));
    collect();
    using vl = std::vector<std::pair<int, std::string>>;
    EXPECT_EQ(names_of(table[1].neighbors), names({"sw04", "sw05"}));
    EXPECT_EQ(vlans_of(table[1].vlans), vl({{30, "cameras"}, {40, "guests"}}));

    // Every later pass builds the lists anew and drops them again (nothing
    // changed); three neighbours and three VLANs fall off each time, a few
    // hundred bytes a pass when they are not released.
    collect();
    size_t before = heap_in_use();
    for (int i = 0; i < 50; i++)
        collect();
    size_t after = heap_in_use();
    EXPECT_LE(after, before + 2048) << "grew by " << (after - before) << " bytes in 50 passes";
    EXPECT_EQ(names_of(table[1].neighbors), names({"sw04", "sw05"}));
    EXPECT_EQ(vlans_of(table[1].vlans), vl({{30, "cameras"}, {40, "guests"}}));
}

TEST_F(IcosTest, AVlanWhoseNameCannotBeReadIsNamedBlank)
{
    model(model_of({port(1), port(2)}, R"([{"id":1,"name":"default","ports":[1,2]},
                                         {"id":20,"name":"voice","ports":[1]}])"));
    faults(R"([{"call":"rpcclt_openapiVlanNameGet","vlan":20,"result":-26,"count":1}])");
    collect();
    using vl = std::vector<std::pair<int, std::string>>;
    EXPECT_EQ(vlans_of(table[1].vlans), vl({{1, "default"}, {20, " "}}));
    EXPECT_TRUE(
        logged("icos_collect_vlans: cannot retreive vlan name; port 1, vid 20 (result = -26)"));
    EXPECT_EQ(vlans_of(table[2].vlans), vl({{1, "default"}}));

    // The name comes back: the list changes.
    clear_changed();
    collect();
    EXPECT_TRUE(table[1].changed);
    EXPECT_FALSE(table[2].changed);
    EXPECT_EQ(vlans_of(table[1].vlans), vl({{1, "default"}, {20, "voice"}}));
}

TEST_F(IcosTest, VlanParticipationFailuresSkipTheVlan)
{
    model(model_of({port(1)}, R"([{"id":1,"name":"default","ports":[1]},
                                 {"id":20,"name":"voice","ports":[1]}])"));
    faults(R"([{"call":"openapiVlanIfParticipationStatusGet","vlan":1,"result":-26,"count":1}])");
    collect();
    using vl = std::vector<std::pair<int, std::string>>;
    EXPECT_EQ(vlans_of(table[1].vlans), vl({{20, "voice"}}));

    clear_changed();
    model(model_of({port(1)}, R"([{"id":1,"name":"default","ports":[1]},
                                 {"id":20,"name":"voice","ports":[]}])"));
    collect();
    EXPECT_TRUE(table[1].changed);
    EXPECT_EQ(vlans_of(table[1].vlans), vl({{1, "default"}}));
}

// ---- running out of memory -------------------------------------------------

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// Refuses heap blocks of one size on the thread that asks, so that one chosen
// text or list of a collection cannot be made.
extern "C" void *__libc_malloc(size_t);
static thread_local size_t refused_size = 0;
static thread_local int refusals = 0;
extern "C" void *malloc(size_t n)
{
    if (refused_size != 0 && n == refused_size) {
        refusals++;
        return nullptr;
    }
    return __libc_malloc(n);
}

class IcosMemoryTest : public IcosTest
{
  protected:
    // One collection in which no block of `size` bytes can be had.
    void collect_refusing(size_t size)
    {
        refusals = 0;
        refused_size = size;
        collect();
        refused_size = 0;
    }
};

TEST_F(IcosMemoryTest, ANeighbourTextWithoutMemoryEndsThatPortsList)
{
    const std::string big(300, 'x'); // the only 300-character text
    std::string n2 = neighbor("sw02");
    n2.replace(n2.find("desc sw02"), 9, big);
    model(model_of({port(1, "\"neighbors\":[" + neighbor("sw01") + "," + n2 + "]"),
                    port(2, "\"neighbors\":[" + neighbor("sw03") + "]")},
                   "[]", R"({"lldp_mgmt_str_len":512})"));
    collect();
    ASSERT_EQ(names_of(table[1].neighbors), names({"sw01", "sw02"}));
    EXPECT_EQ(table[1].neighbors[1].system_description, big);

    clear_changed();
    collect_refusing(big.size() + 1);
    EXPECT_GT(refusals, 0);
    EXPECT_EQ(logged_count("icos_collect_neighbors: Out of memory"), 1u);
    EXPECT_EQ(names_of(table[1].neighbors), names({"sw01"}));
    EXPECT_TRUE(table[1].changed);
    EXPECT_EQ(names_of(table[2].neighbors), names({"sw03"}));
    EXPECT_FALSE(table[2].changed);

    collect();
    EXPECT_EQ(names_of(table[1].neighbors), names({"sw01", "sw02"}));
}

TEST_F(IcosMemoryTest, ANeighbourWithoutRoomKeepsTheOnesBeforeIt)
{
    model(model_of({port(1, "\"neighbors\":[" + neighbor("sw01") + "," + neighbor("sw02") + "," +
                                neighbor("sw03") + "]")}));
    // The list's room for a second record.
    collect_refusing(2 * sizeof(lldp_neighbor_t));
    EXPECT_GT(refusals, 0);
    EXPECT_TRUE(logged("icos_collect_neighbors: cannot allocate lldp_neighbor; out of memory!"));
    EXPECT_EQ(names_of(table[1].neighbors), names({"sw01"}));
    collect();
    EXPECT_EQ(names_of(table[1].neighbors), names({"sw02", "sw03"}));
}

TEST_F(IcosMemoryTest, AVlanWithoutMemoryEndsThatPortsList)
{
    using vl = std::vector<std::pair<int, std::string>>;
    const std::string big(100, 'v');
    model(model_of({port(1)}, R"([{"id":1,"name":"default","ports":[1]},
                                 {"id":20,"name":")" +
                                  big + R"(","ports":[1]},
                                 {"id":30,"name":"cameras","ports":[1]}])"));
    collect();
    ASSERT_EQ(vlans_of(table[1].vlans), vl({{20, big}, {30, "cameras"}}));

    collect_refusing(big.size() + 1);
    EXPECT_GT(refusals, 0);
    EXPECT_TRUE(logged("icos_collect_vlans: Out of memory"));
    EXPECT_EQ(vlans_of(table[1].vlans), vl({{1, "default"}}));

    collect_refusing(2 * sizeof(vlan_info_t));
    EXPECT_GT(refusals, 0);
    EXPECT_TRUE(logged("icos_collect_vlans: cannot allocate vlan_info; out of memory!"));
    EXPECT_EQ(vlans_of(table[1].vlans), vl({{1, "default"}}));

    collect();
    EXPECT_EQ(vlans_of(table[1].vlans), vl({{20, big}, {30, "cameras"}}));
}
#endif

// ---- port configuration --------------------------------------------------

TEST_F(IcosTest, AdminUpWithANameEnablesThePortAndStillFails)
{
    model(model_of({port(5, R"("admin":"disable")")}));
    char message[512] = "";
    EXPECT_EQ(platform_set_port_config("5", "up", "uplink", message), -1);
    EXPECT_STREQ(message, "Port names cannot be changed on this device");
    EXPECT_EQ(
        journal_lines(root),
        names({R"({"call":"rpcclt_openapiIfAdminStateSet","ifNum":5,"adminState":1,"result":0})"}));
    collect();
    EXPECT_TRUE(table[5].link_enabled);
}

TEST_F(IcosTest, PortConfiguration)
{
    model(model_of({port(5), port(6, R"("admin":"disable")")}));
    char message[512] = "";
    EXPECT_EQ(platform_set_port_config("5", "down", nullptr, message), 0);
    EXPECT_EQ(platform_set_port_config("6", "up", nullptr, message), 0);
    EXPECT_EQ(platform_set_port_config("6", nullptr, nullptr, message), 0);
    EXPECT_EQ(
        journal_lines(root),
        names({R"({"call":"rpcclt_openapiIfAdminStateSet","ifNum":5,"adminState":0,"result":0})",
               R"({"call":"rpcclt_openapiIfAdminStateSet","ifNum":6,"adminState":1,"result":0})"}));
    collect();
    EXPECT_FALSE(table[5].link_enabled);
    EXPECT_TRUE(table[6].link_enabled);

    EXPECT_EQ(platform_set_port_config("6", "off", nullptr, message), -1);
    EXPECT_STREQ(message, "invalid admin_status for port 6");
    EXPECT_EQ(platform_set_port_config("6", nullptr, "x", message), -1);
    EXPECT_STREQ(message, "Port names cannot be changed on this device");
    EXPECT_EQ(journal_lines(root).size(), 2u);

    faults(R"([{"call":"rpcclt_openapiIfAdminStateSet","port":7,"result":-26}])");
    EXPECT_EQ(platform_set_port_config("7", "up", "x", message), -1);
    EXPECT_STREQ(message, "Setting admin_status of port 7 failed (result = -26)");
    EXPECT_TRUE(
        logged("icos_set_port_admin_status: Setting admin_status of port 7 failed (result = -26)"));
    // No range check: an unknown port goes to the switch as it is.
    EXPECT_EQ(platform_set_port_config("99", "up", nullptr, message), -1);
    EXPECT_STREQ(message, "Setting admin_status of port 99 failed (result = -29)");
}

// ---- switch settings -----------------------------------------------------

TEST_F(IcosTest, AnExistingLoggingHostOnlyGetsItsPortSet)
{
    model(R"({"logging":{"hosts":[{"host":"127.0.0.1","port":514,"severity":3}]}})");
    EXPECT_EQ(icos_add_logging_host("127.0.0.1", 46180), 0);
    EXPECT_EQ(
        journal_lines(root),
        names(
            {R"({"call":"rpcclt_openapiLoggingHostAdd","host":"127.0.0.1","result":-24})",
             R"({"call":"rpcclt_openapiLoggingHostPortSet","host":"127.0.0.1","port":46180,"result":0})"}));
    EXPECT_NE(model_text().find("\"port\": 46180"), std::string::npos);
}

TEST_F(IcosTest, LoggingHostSeverityAndMode)
{
    EXPECT_EQ(icos_add_logging_host("127.0.0.1", 46180), 0);
    EXPECT_EQ(icos_set_logging_severity("127.0.0.1", 7), 0);
    EXPECT_EQ(icos_set_syslog_mode(true), 0);
    EXPECT_EQ(
        journal_lines(root),
        names(
            {R"({"call":"rpcclt_openapiLoggingHostAdd","host":"127.0.0.1","result":0})",
             R"({"call":"rpcclt_openapiLoggingHostPortSet","host":"127.0.0.1","port":46180,"result":0})",
             R"({"call":"rpcclt_openapiLoggingHostSeveritySet","host":"127.0.0.1","severity":7,"result":0})",
             R"({"call":"rpcclt_openapiSysLogModeSet","mode":1,"result":0})"}));

    faults(R"([{"call":"rpcclt_openapiLoggingHostAdd","result":-23,"count":1},
               {"call":"rpcclt_openapiLoggingHostPortSet","result":-22,"count":1},
               {"call":"rpcclt_openapiLoggingHostSeveritySet","result":-29,"count":1},
               {"call":"rpcclt_openapiSysLogModeSet","result":-26,"count":1}])");
    EXPECT_EQ(icos_add_logging_host("10.1.1.1", 514), -1);
    EXPECT_TRUE(
        logged("icos_add_logging_host: failed to add logging host 10.1.1.1 (result = -23)"));
    EXPECT_EQ(journal_lines(root).size(), 5u); // the port was not set after a failed add
    EXPECT_EQ(icos_add_logging_host("10.1.1.1", 514), -1);
    EXPECT_TRUE(
        logged("icos_add_logging_host: failed to set logging host port 514 (result = -22)"));
    EXPECT_EQ(icos_set_logging_severity("10.1.1.1", 3), -1);
    EXPECT_TRUE(logged("icos_set_logging_severity: failed to set logging severity for '10.1.1.1' "
                       "to 3 (result = -29)"));
    EXPECT_EQ(icos_set_syslog_mode(false), -1);
    EXPECT_TRUE(logged("icos_set_syslog_mode: failed to set syslog logging mode 0 (result = -26)"));
}

TEST_F(IcosTest, Sntp)
{
    EXPECT_EQ(icos_set_sntp("pool.ntp.org"), 0);
    EXPECT_EQ(journal_lines(root),
              names({R"({"call":"rpcclt_openapiSntpServerAdd","server":"pool.ntp.org","result":0})",
                     R"({"call":"rpcclt_openapiSntpClientModeSet","mode":1,"result":0})"}));
    // The mode is set only after the server went in.
    faults(R"([{"call":"rpcclt_openapiSntpServerAdd","result":-23,"count":1}])");
    EXPECT_EQ(icos_set_sntp("time.example.net"), -1);
    EXPECT_TRUE(
        logged("icos_set_sntp: failed to set sntp server 'time.example.net' (result = -23)"));
    EXPECT_EQ(journal_lines(root).size(), 3u);
    faults(R"([{"call":"rpcclt_openapiSntpClientModeSet","result":-26,"count":1}])");
    EXPECT_EQ(icos_set_sntp("time.example.net"), -1);
    EXPECT_TRUE(logged("icos_set_sntp: failed to set sntp client mode (result = -26)"));
}

TEST_F(IcosTest, PasswordTakesAtMost64Characters)
{
    const std::string user(70, 'u'), pass(80, 'p');
    EXPECT_EQ(icos_set_password(user.c_str(), pass.c_str()), 0);
    EXPECT_EQ(journal_lines(root),
              names({R"({"call":"rpcclt_openapiUserSet","userName":")" + std::string(64, 'u') +
                     R"(","password":")" + std::string(64, 'p') + R"(","result":0})"}));
    faults(R"([{"call":"rpcclt_openapiUserSet","result":-26,"count":1}])");
    EXPECT_EQ(icos_set_password("admin", "secret"), -1);
    // The password stays out of the log.
    EXPECT_TRUE(logged(
        "icos_set_password: failed to set user/password for 'admin'/'********' (result = -26)"));
}

TEST_F(IcosTest, FibreAutonegotiationGoesOnAfterAFailure)
{
    faults(R"([{"call":"rpcclt_openapiIfAutoNegSet","port":26,"result":-26}])");
    EXPECT_EQ(icos_set_fiber_no_autoneg(), -1);
    EXPECT_EQ(
        journal_lines(root),
        names({R"({"call":"rpcclt_openapiIfAutoNegSet","ifNum":25,"autoNeg":0,"result":0})",
               R"({"call":"rpcclt_openapiIfAutoNegSet","ifNum":26,"autoNeg":0,"result":-26})",
               R"({"call":"rpcclt_openapiIfAutoNegSet","ifNum":27,"autoNeg":0,"result":0})",
               R"({"call":"rpcclt_openapiIfAutoNegSet","ifNum":28,"autoNeg":0,"result":0})"}));
    EXPECT_TRUE(logged("icos_set_fiber_no_autoneg: cannot disable auto-negotiation on interface "
                       "26' (result = -26)"));
    faults("[]");
    EXPECT_EQ(icos_set_fiber_no_autoneg(), 0);
}

TEST_F(IcosTest, SaveConfigurationAndPrompt)
{
    model(R"({"system":{"prompt_max_size":8}})");
    EXPECT_EQ(icos_save_configuration(), 0);
    EXPECT_EQ(icos_set_system_prompt("switch-in-the-hall"), 0);
    EXPECT_EQ(
        journal_lines(root),
        names({R"({"call":"rpcclt_openapiSaveConfig","result":0})",
               R"({"call":"rpcclt_openapiSystemPromptSet","prompt":"switch-i","result":0})"}));
    faults(R"([{"call":"rpcclt_openapiSaveConfig","result":-26,"count":1},
               {"call":"rpcclt_openapiSystemPromptMaxSizeGet","result":-21,"count":1},
               {"call":"rpcclt_openapiSystemPromptSet","result":-22,"count":1}])");
    EXPECT_EQ(icos_save_configuration(), -1);
    EXPECT_TRUE(logged("icos_save_configuration: cannot save configuration (result = -26)"));
    EXPECT_EQ(icos_set_system_prompt("x"), -1);
    EXPECT_TRUE(
        logged("icos_set_system_prompt: cannot get max_size of system prompt (result = -21)"));
    EXPECT_EQ(icos_set_system_prompt("x"), -1);
    EXPECT_TRUE(logged("icos_set_system_prompt: cannot set system prompt (result = -22)"));
}

TEST_F(IcosTest, AgentVersionAndStatusAreCut)
{
    EXPECT_EQ(icos_set_agent_version("tq_agent_with_a_long_name", "1.2.3.4-build-567890123"), 0);
    const std::string status = "Connection:       up\n" + std::string(600, 's');
    EXPECT_EQ(icos_set_agent_status("tq_agent", status.c_str()), 0);
    auto j = journal_lines(root);
    ASSERT_EQ(j.size(), 2u);
    EXPECT_EQ(
        j[0],
        R"({"call":"rpcclt_openapiAppCtrlVersionSet","appName":"tq_agent_with_a_","version":"1.2.3.4-build-56789","result":0})");
    EXPECT_EQ(
        j[1],
        R"({"call":"rpcclt_openapiAppCtrlStatusSet","appName":"tq_agent","status":"Connection:       up\n)" +
            std::string(511 - 21, 's') + R"(","result":0})");
    faults(R"([{"call":"rpcclt_openapiAppCtrlVersionSet","result":-26,"count":1},
               {"call":"rpcclt_openapiAppCtrlStatusSet","result":-20,"count":1}])");
    EXPECT_EQ(icos_set_agent_version("tq_agent", "1"), -1);
    EXPECT_TRUE(logged("icos_set_agent_version: cannot set application version (result = -26)"));
    EXPECT_EQ(icos_set_agent_status("tq_agent", "x"), -1);
    EXPECT_TRUE(logged("icos_set_agent_status: cannot set application status (result = -20)"));
}

TEST_F(IcosTest, CloudManagementMode)
{
    model(R"({"system":{"cloud_managed_mode":"enable"}})");
    EXPECT_EQ(platform_cloud_management_enabled(), 1);
    EXPECT_TRUE(logged("icos_openapi_client_init: client registeration complete"));
    model(R"({"system":{"cloud_managed_mode":"disable"}})");
    EXPECT_EQ(platform_cloud_management_enabled(), 0);
}

TEST_F(IcosTest, AFailedCloudManagementModeReadReportsOff)
{
    model(R"({"system":{"cloud_managed_mode":"enable"}})");
    faults(R"([{"call":"rpcclt_openapiCloudManagedModeGet","result":-20,"count":1}])");
    testing::internal::CaptureStdout();
    int enabled = platform_cloud_management_enabled();
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(enabled, 0);
    EXPECT_EQ(out, "platform_cloud_management_enabled: cannot get cloud management administrative "
                   "mode (result = -20)\n");
    EXPECT_FALSE(logged("platform_cloud_management_enabled: cannot get cloud management "
                        "administrative mode (result = -20)"));
    EXPECT_EQ(platform_cloud_management_enabled(), 1);
}

TEST_F(IcosTest, CloudManagementUrl)
{
    model(R"({"system":{"cloud_server_url":"https://cloud.example.com"}})");
    char url[256] = "";
    EXPECT_EQ(platform_cloud_management_get_url(url, sizeof(url)), 0);
    EXPECT_STREQ(url, "https://cloud.example.com");
    char small[8] = "";
    EXPECT_EQ(platform_cloud_management_get_url(small, sizeof(small)), -1);
    EXPECT_TRUE(logged("platform_cloud_management_get_url: cannot get cloud management server url "
                       "(result = -22)"));
}

TEST_F(IcosTest, ASecondSerialNumberReadComesFromTheCache)
{
    model(R"({"system":{"serial_number":"SN-FIRST"}})");
    faults(R"([{"call":"rpcclt_openapiSystemRegSerialNumGet","result":-26,"count":1}])");
    EXPECT_EQ(icos_get_serial_number(), nullptr);
    EXPECT_TRUE(logged("icos_get_serial_number: cannot get serial number (result = -26)"));
    // A failed read leaves the cache empty: the switch is asked again.
    const char *sn = icos_get_serial_number();
    ASSERT_NE(sn, nullptr);
    EXPECT_STREQ(sn, "SN-FIRST");

    model(R"({"system":{"serial_number":"SN-SECOND"}})");
    faults(R"([{"call":"rpcclt_openapiSystemRegSerialNumGet","result":-26,"count":1}])");
    EXPECT_STREQ(icos_get_serial_number(), "SN-FIRST");
    // The switch was not asked: the forced failure is still waiting.
    EXPECT_NE(read_file(root.at("/var/switch/faults.json")).find("SerialNumGet"),
              std::string::npos);
}

// Callers on several threads at once, before anything is cached: each gets
// the whole answer, and none reads a cache another is still filling.
TEST_F(IcosTest, IdentityAskedFromManyThreadsAtOnce)
{
    model(R"({"system":{"serial_number":"SN-MANY","machine_model":"VX-MANY",)"
          R"("mac_address":"02:11:22:33:44:55"}})");
    std::atomic<int> waiting{8}, right{0};
    std::vector<std::thread> callers;
    for (int i = 0; i < 8; i++)
        callers.emplace_back([&] {
            waiting--;
            while (waiting > 0)
                std::this_thread::yield();
            const char *sn = icos_get_serial_number();
            const char *model = platform_get_model_number();
            const uint8_t *mac = platform_get_system_mac_addr();
            if (sn != nullptr && strcmp(sn, "SN-MANY") == 0 && model != nullptr &&
                strcmp(model, "VX-MANY") == 0 && mac != nullptr && mac[0] == 0x02 && mac[5] == 0x55)
                right++;
        });
    for (std::thread &t : callers)
        t.join();
    EXPECT_EQ(right, 8);
}

TEST_F(IcosTest, ModelNumberIsCached)
{
    model(R"({"system":{"machine_model":"VX-S28P"}})");
    faults(R"([{"call":"rpcclt_openapiSystemRegMachineModelGet","result":-21,"count":1}])");
    EXPECT_EQ(platform_get_model_number(), nullptr);
    EXPECT_TRUE(logged("platform_get_model_number: cannot get model number (result = -21)"));
    EXPECT_STREQ(platform_get_model_number(), "VX-S28P");
    model(R"({"system":{"machine_model":"VX-OTHER"}})");
    EXPECT_STREQ(platform_get_model_number(), "VX-S28P");
}

TEST_F(IcosTest, AMacAddressBeginningWithZeroIsReadEveryTime)
{
    model(R"({"system":{"mac_address":"00:11:22:33:44:55"}})");
    const uint8_t *mac = platform_get_system_mac_addr();
    ASSERT_NE(mac, nullptr);
    EXPECT_EQ(std::vector<uint8_t>(mac, mac + 6),
              std::vector<uint8_t>({0x00, 0x11, 0x22, 0x33, 0x44, 0x55}));
    model(R"({"system":{"mac_address":"00:66:77:88:99:aa"}})");
    mac = platform_get_system_mac_addr();
    ASSERT_NE(mac, nullptr);
    EXPECT_EQ(std::vector<uint8_t>(mac, mac + 6),
              std::vector<uint8_t>({0x00, 0x66, 0x77, 0x88, 0x99, 0xaa}));
    faults(R"([{"call":"rpcclt_openapiSystemMacAddrGet","result":-26,"count":1}])");
    EXPECT_EQ(platform_get_system_mac_addr(), nullptr);
    EXPECT_TRUE(
        logged("platform_get_system_mac_addr: cannot get system MAC address (result = -26)"));
}

TEST_F(IcosTest, AnyOtherMacAddressIsCached)
{
    model(R"({"system":{"mac_address":"02:11:22:33:44:55"}})");
    const uint8_t *mac = platform_get_system_mac_addr();
    ASSERT_NE(mac, nullptr);
    model(R"({"system":{"mac_address":"02:66:77:88:99:aa"}})");
    mac = platform_get_system_mac_addr();
    ASSERT_NE(mac, nullptr);
    EXPECT_EQ(std::vector<uint8_t>(mac, mac + 6),
              std::vector<uint8_t>({0x02, 0x11, 0x22, 0x33, 0x44, 0x55}));
}

TEST_F(IcosTest, ReloadSleepsAMinuteAfterTheRequest)
{
    EXPECT_EQ(icos_system_reload(), 0);
    EXPECT_EQ(slept, std::vector<unsigned>({60}));
    EXPECT_EQ(journal_lines(root), names({R"({"call":"rpcclt_openapiSystemReload","result":0})"}));
    // The line has no end of its own.
    const std::string text = read_file(root.at("/rw/orkad.log"));
    const std::string line = "icos_system_reload: system restart initiated successfully.";
    ASSERT_GE(text.size(), line.size());
    EXPECT_EQ(text.substr(text.size() - line.size()), line);

    slept.clear();
    faults(R"([{"call":"rpcclt_openapiSystemReload","result":-26,"count":1}])");
    EXPECT_EQ(icos_system_reload(), 1);
    EXPECT_TRUE(slept.empty());
    // The next line is written straight after it, on the same line.
    const std::string last = log().back();
    const std::string failed =
        "icos_system_reload: could not initiate system restart (result = -26)";
    EXPECT_EQ(last.rfind(line, 0), 0u) << last;
    ASSERT_GE(last.size(), failed.size());
    EXPECT_EQ(last.substr(last.size() - failed.size()), failed);
}

// The adapter stands on the base and the switch API alone: its header pulls
// in nothing of the agent (the status stream includes it, not the other way
// round).
TEST(IcosHeader, IncludesNothingOfTheAgent)
{
    std::string src = __FILE__;
    src = src.substr(0, src.rfind("/tests/unit/")) + "/platform/icos-openapi.h";
    const std::string text = read_file(src);
    ASSERT_FALSE(text.empty()) << src;
    for (const std::string &line : lines_of(text)) {
        if (line.rfind("#include", 0) == 0) {
            EXPECT_EQ(line.find('"'), std::string::npos) << line;
        }
    }
}

TEST(IcosSleep, TheDaemonReallySleeps)
{
    EXPECT_EQ(initial_sleep, &sleep);
}

TEST_F(IcosTest, SupportData)
{
    EXPECT_EQ(platform_get_support_data("/tmp/platform-tech-support.txt"), 0);
    EXPECT_EQ(
        journal_lines(root),
        names(
            {R"({"call":"rpcclt_openapiSupportFileGenerate","fileName":"/tmp/platform-tech-support.txt","result":0})"}));
    EXPECT_NE(read_file(root.at("/tmp/platform-tech-support.txt")).find("VX0123456789"),
              std::string::npos);

    // The name is cut to what the switch takes.
    model(R"({"system":{"filename_max_length":10}})");
    EXPECT_EQ(platform_get_support_data("/tmp/platform-tech-support.txt"), 0);
    EXPECT_EQ(journal_lines(root).back(),
              R"({"call":"rpcclt_openapiSupportFileGenerate","fileName":"/tmp/platf","result":0})");

    faults(R"([{"call":"rpcclt_openapiSystemFileNameMaxLengthGet","result":-21,"count":1},
               {"call":"rpcclt_openapiSupportFileGenerate","result":-26,"count":1}])");
    EXPECT_EQ(platform_get_support_data("/tmp/x"), -1);
    EXPECT_TRUE(logged("platform_get_support_data: cannot get max_filename_len (result = -21)"));
    EXPECT_EQ(platform_get_support_data("/tmp/x"), -1);
    EXPECT_TRUE(logged(
        "platform_get_support_data: cannot get support data (result = -26, file = '/tmp/x')"));
}

TEST_F(IcosTest, TheSampleSwitch)
{
    std::string src = __FILE__;
    src = src.substr(0, src.rfind("/tests/unit/")) + "/device/switch/model.json";
    const std::string sample = read_file(src);
    ASSERT_FALSE(sample.empty()) << src;
    model(sample);
    collect();
    for (int i = 1; i <= 28; i++)
        EXPECT_TRUE(table[i].valid) << i;
    EXPECT_EQ(table[29].valid, false);
    EXPECT_TRUE(table[1].link_up);
    EXPECT_EQ(table[25].speed, 10000);
    EXPECT_EQ(table[8].speed, 100);
    EXPECT_FALSE(table[12].full_duplex);
    EXPECT_FALSE(table[20].link_enabled);
    EXPECT_EQ(names_of(table[5].neighbors), names({"lab-pi-2", "lab-pi-3"}));
    EXPECT_EQ(table[25].neighbors.at(0).mgmt_address, "2001:db8::1");
    // Port 9 had LLDP reception off: switched on now, neighbours next time.
    EXPECT_TRUE(table[9].neighbors.empty());
    using vl = std::vector<std::pair<int, std::string>>;
    EXPECT_EQ(vlans_of(table[1].vlans), vl({{10, "office"}, {20, "voice"}}));
    EXPECT_EQ(vlans_of(table[26].vlans), vl({{1, "default"}, {99, "management"}}));
    collect();
    EXPECT_EQ(names_of(table[9].neighbors), names({"build-server"}));
    EXPECT_EQ(
        journal_lines(root),
        names(
            {R"({"call":"rpcclt_openapiLldpIntfReceiveModeSet","ifNum":9,"mode":1,"result":0})"}));
}
