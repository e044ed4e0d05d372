// The network helpers against real kernel state: every test that touches
// interfaces first moves its process into a network namespace of its own.
#include "log.h"
#include "testkit.h"
#include "utils.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/if_tun.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace testkit;

namespace
{

int sh(const std::string &cmd)
{
    return system(cmd.c_str());
}

class NetTest : public ::testing::Test
{
  protected:
    DeviceRoot root;
    void SetUp() override { log_init(); }

    std::vector<std::string> messages() const { return log_messages(root.at("/rw/orkad.log")); }
    bool logged(const std::string &line) const
    {
        for (const std::string &m : messages())
            if (m == line)
                return true;
        return false;
    }
    int count(const std::string &line) const
    {
        int n = 0;
        for (const std::string &m : messages())
            n += m == line;
        return n;
    }
    // A namespace with lo up and eth0 as one end of a veth pair, holding
    // 192.0.2.10/24 and the given MAC.
    void netns()
    {
        ASSERT_EQ(unshare(CLONE_NEWNET), 0) << strerror(errno);
        ASSERT_EQ(sh("ip link set lo up"), 0);
        ASSERT_EQ(sh("ip link add eth0 type veth peer name peer0"), 0);
        ASSERT_EQ(sh("ip link set eth0 address 02:00:00:00:00:0a"), 0);
        ASSERT_EQ(sh("ip addr add 192.0.2.10/24 dev eth0"), 0);
        ASSERT_EQ(sh("ip link set eth0 up"), 0);
        ASSERT_EQ(sh("ip link set peer0 up"), 0);
    }
    // A link passes traffic only once the kernel has attached its queue,
    // which happens after "up" and can lag by a second or more while many
    // namespaces come and go; until then the first ARP request is dropped.
    static bool link_passes_traffic(const std::string &ifname)
    {
        std::string show = "ip -o link show dev " + ifname;
        return wait_for([&] {
            return sh(show + " | grep -q 'state UP' && ! " + show + " | grep -q 'qdisc noop'") == 0;
        });
    }
    // An executable in the device root that records its arguments.
    void recording_tool(const std::string &device_path, const std::string &record, int status)
    {
        std::string path = root.at(device_path);
        sh("mkdir -p '" + path.substr(0, path.rfind('/')) + "'");
        write_file(path, "#!/bin/sh\necho \"$*\" >> '" + root.at(record) + "'\nexit " +
                             std::to_string(status) + "\n");
        chmod(path.c_str(), 0755);
    }
};

std::string gw_at(const char (*arr)[16], int i)
{
    return arr[i];
}

} // namespace

TEST_F(NetTest, AddressMaskAndMac)
{
    netns();
    char addr[16], mask[16], mac[18];
    EXPECT_EQ(get_ipv4_address("eth0", addr), 0);
    EXPECT_STREQ(addr, "192.0.2.10");
    EXPECT_EQ(get_ipv4_subnetmask("eth0", mask), 0);
    EXPECT_STREQ(mask, "255.255.255.0");
    EXPECT_EQ(get_mac_address("eth0", mac), 0);
    EXPECT_STREQ(mac, "02:00:00:00:00:0A");
    unsigned char raw[6];
    EXPECT_EQ(get_mac_address_raw("eth0", raw), 0);
    const unsigned char want[6] = {0x02, 0, 0, 0, 0, 0x0a};
    EXPECT_EQ(memcmp(raw, want, 6), 0);
}

TEST_F(NetTest, MissingInterfaceGivesEmptyStrings)
{
    netns();
    char addr[16] = "junk", mask[16] = "junk", mac[18] = "junk";
    unsigned char raw[6];
    EXPECT_EQ(get_ipv4_address("nosuch0", addr), -1);
    EXPECT_STREQ(addr, "");
    EXPECT_EQ(get_ipv4_subnetmask("nosuch0", mask), -1);
    EXPECT_STREQ(mask, "");
    EXPECT_EQ(get_mac_address("nosuch0", mac), -1);
    EXPECT_STREQ(mac, "");
    EXPECT_EQ(get_mac_address_raw("nosuch0", raw), -1);
    // An interface without an address has no IPv4 address either.
    EXPECT_EQ(get_ipv4_address("peer0", addr), -1);
    EXPECT_STREQ(addr, "");
}

TEST_F(NetTest, MgmtIfname)
{
    char name[16];
    memset(name, 'x', sizeof(name));
    get_mgmt_ifname(name);
    EXPECT_STREQ(name, "eth0");
    for (int i = 5; i < 16; i++)
        EXPECT_EQ(name[i], '\0');

    char *saved = mgmt_ifname;
    char longname[] = "abcdefghijklmnopqrst";
    mgmt_ifname = longname;
    get_mgmt_ifname(name);
    mgmt_ifname = saved;
    EXPECT_EQ(std::string(name, 16), std::string("abcdefghijklmno") + '\0');
}

TEST_F(NetTest, EtherEtoa)
{
    const unsigned char e[6] = {0xde, 0xad, 0xbe, 0xef, 0x00, 0x7f};
    char a[18];
    EXPECT_EQ(ether_etoa(e, a), a);
    EXPECT_STREQ(a, "DE:AD:BE:EF:00:7F");
    EXPECT_EQ(ether_etoa(nullptr, a), nullptr);
    EXPECT_EQ(ether_etoa(e, nullptr), nullptr);
}

TEST_F(NetTest, IsValidIpAddr)
{
    EXPECT_TRUE(is_valid_ip_addr("10.0.0.255"));
    EXPECT_TRUE(is_valid_ip_addr("0.0.0.0"));
    EXPECT_TRUE(is_valid_ip_addr("010.001.000.255")); // leading zeros allowed
    EXPECT_FALSE(is_valid_ip_addr("10.0.0.256"));
    EXPECT_FALSE(is_valid_ip_addr("1.2.3"));
    EXPECT_FALSE(is_valid_ip_addr("1.2.3.4.5"));
    EXPECT_FALSE(is_valid_ip_addr("1.2.3.a"));
    EXPECT_FALSE(is_valid_ip_addr(""));
    EXPECT_FALSE(is_valid_ip_addr("1..2.3"));
    EXPECT_FALSE(is_valid_ip_addr("1.2.3.4."));
    EXPECT_FALSE(is_valid_ip_addr(" 1.2.3.4"));
    EXPECT_FALSE(is_valid_ip_addr("1.2.3.4 "));
    EXPECT_FALSE(is_valid_ip_addr("-1.2.3.4"));
}

TEST_F(NetTest, HostnameToIp)
{
    netns();
    char ip[46] = "";
    EXPECT_EQ(hostname_to_ip("localhost", ip), 0);
    EXPECT_STREQ(ip, "127.0.0.1");

    // The namespace reaches no name server, so resolution fails here.
    EXPECT_EQ(hostname_to_ip("no-such-host.invalid", ip), -1);
    EXPECT_TRUE(logged(
        "hostname_to_ip: gethostbyname returned error for the hostname:no-such-host.invalid"));
}

TEST_F(NetTest, GatewaysOfTheMgmtInterfaceFromTheRouteTable)
{
    netns();
    char gw[3][16], mask[3][16];
    EXPECT_EQ(get_ipv4_gateways("eth0", gw[0], mask[0], 3, 16), -1); // no default route yet
    EXPECT_STREQ(gw[0], "");

    ASSERT_EQ(sh("ip route add default via 192.0.2.1"), 0);
    ASSERT_EQ(
        sh("ip link add eth1 type veth peer name peer1 && ip addr add 198.51.100.2/25 dev eth1 && "
           "ip link set eth1 up && ip route add default via 198.51.100.1 metric 10"),
        0);
    // Every default route counts, with the management interface's mask.
    EXPECT_EQ(get_ipv4_gateways("eth0", gw[0], mask[0], 3, 16), 0);
    std::vector<std::string> got = {gw_at(gw, 0), gw_at(gw, 1)};
    std::sort(got.begin(), got.end());
    EXPECT_EQ(got[0], "192.0.2.1");
    EXPECT_EQ(got[1], "198.51.100.1");
    EXPECT_STREQ(mask[0], "255.255.255.0");
    EXPECT_STREQ(mask[1], "255.255.255.0");

    char one_gw[1][16], one_mask[1][16];
    strcpy(one_mask[0], "untouched");
    EXPECT_EQ(get_ipv4_gateways("eth0", one_gw[0], one_mask[0], 1, 16), 0);
    EXPECT_EQ(std::string(one_mask[0]), "255.255.255.0");
}

TEST_F(NetTest, GatewaysOfManyRecordsWithLongInterfaceNames)
{
    netns();
    // Interface names of the full 15 characters; every record of the table
    // is read whole, and each default route is found once.
    ASSERT_EQ(sh("ip route add default via 192.0.2.1"), 0);
    for (int i = 1; i <= 3; i++) {
        std::string n = "longinterface0" + std::to_string(i);
        std::string net = "198.51.10" + std::to_string(i);
        ASSERT_EQ(sh("ip link add " + n + " type veth peer name p" + n.substr(5) +
                     " && ip addr add " + net + ".2/24 dev " + n + " && ip link set " + n +
                     " up && ip route add default via " + net + ".1 metric " +
                     std::to_string(10 * i)),
                  0);
    }
    char gw[8][16], mask[8][16];
    EXPECT_EQ(get_ipv4_gateways("eth0", gw[0], mask[0], 8, 16), 0);
    std::vector<std::string> got;
    for (int i = 0; i < 4; i++)
        got.push_back(gw[i]);
    std::sort(got.begin(), got.end());
    EXPECT_EQ(got, (std::vector<std::string>{"192.0.2.1", "198.51.101.1", "198.51.102.1",
                                             "198.51.103.1"}));
}

TEST_F(NetTest, GatewaysWithoutAMaskStillCount)
{
    netns();
    // The management interface named by the platform has no address here.
    char *saved = mgmt_ifname;
    char name[] = "peer0";
    mgmt_ifname = name;
    ASSERT_EQ(sh("ip route add default via 192.0.2.1"), 0);
    char gw[1][16], mask[1][16];
    int rc = get_ipv4_gateways("peer0", gw[0], mask[0], 1, 16);
    mgmt_ifname = saved;
    EXPECT_EQ(rc, 0);
    EXPECT_STREQ(gw[0], "192.0.2.1");
    EXPECT_STREQ(mask[0], "");
    EXPECT_TRUE(logged("get_ipv4_gateways: can't get subnet mask for peer0"));
}

TEST_F(NetTest, GatewaysOfOtherInterfacesFromTheirFile)
{
    char gw[4][16], mask[4][16];
    strcpy(gw[0], "junk");
    EXPECT_EQ(get_ipv4_gateways("vlan5", gw[0], mask[0], 4, 16), -1); // no file
    EXPECT_STREQ(gw[0], "");

    write_file(root.at("/tmp/vlan5.gw"), "192.0.2.1 255.255.255.0\n198.51.100.1 255.255.0.0\n");
    EXPECT_EQ(get_ipv4_gateways("vlan5", gw[0], mask[0], 4, 16), 0);
    EXPECT_STREQ(gw[0], "192.0.2.1");
    EXPECT_STREQ(mask[0], "255.255.255.0");
    EXPECT_STREQ(gw[1], "198.51.100.1");
    EXPECT_STREQ(mask[1], "255.255.0.0");

    // array_len lines are enough; the broken third line is never read.
    write_file(root.at("/tmp/vlan6.gw"), "192.0.2.1 255.255.255.0\n192.0.2.2 255.255.255.0\nx\n");
    EXPECT_EQ(get_ipv4_gateways("vlan6", gw[0], mask[0], 2, 16), 0);
    EXPECT_STREQ(gw[1], "192.0.2.2");

    // A line of 7 characters with its newline is too short.
    write_file(root.at("/tmp/vlan7.gw"), "1.2 3.4\n1.2 34\n");
    EXPECT_EQ(get_ipv4_gateways("vlan7", gw[0], mask[0], 4, 16), -1);
    // 8 is enough.
    write_file(root.at("/tmp/vlan7.gw"), "1.2 3.4\n");
    EXPECT_EQ(get_ipv4_gateways("vlan7", gw[0], mask[0], 4, 16), 0);
    EXPECT_STREQ(gw[0], "1.2");
    EXPECT_STREQ(mask[0], "3.4");
    // 33 characters with the newline is too long, 32 is not.
    write_file(root.at("/tmp/vlan8.gw"), "192.000.002.001 255.255.255.0000\n");
    EXPECT_EQ(get_ipv4_gateways("vlan8", gw[0], mask[0], 4, 16), -1);
    write_file(root.at("/tmp/vlan8.gw"), "192.000.002.001 255.255.255.000\n");
    EXPECT_EQ(get_ipv4_gateways("vlan8", gw[0], mask[0], 4, 16), 0);
    // An empty file finds nothing.
    write_file(root.at("/tmp/vlan9.gw"), "");
    EXPECT_EQ(get_ipv4_gateways("vlan9", gw[0], mask[0], 4, 16), -1);
}

TEST_F(NetTest, ClientMacFromANeighbourEntry)
{
    netns();
    ASSERT_EQ(sh("ip neigh add 192.0.2.20 lladdr 02:00:00:00:00:14 dev eth0 nud permanent"), 0);
    char mac[18] = "junk";
    EXPECT_EQ(get_client_mac_address("eth0", "192.0.2.20", mac, 0), 0);
    EXPECT_STREQ(mac, "02:00:00:00:00:14");

    // The interface's own address gives its own MAC.
    EXPECT_EQ(get_client_mac_address("eth0", "192.0.2.10", mac, 0), 0);
    EXPECT_STREQ(mac, "02:00:00:00:00:0A");
}

TEST_F(NetTest, ClientMacFailures)
{
    netns();
    char mac[18] = "junk";
    EXPECT_EQ(get_client_mac_address("eth0", "192.0.2.99", mac, 0), -1);
    EXPECT_STREQ(mac, "");
    EXPECT_TRUE(logged("get_client_mac_address: ARP request error - No such device or address"));

    strcpy(mac, "junk");
    EXPECT_EQ(get_client_mac_address("eth0", "192.0.2.x", mac, 1), -1);
    EXPECT_STREQ(mac, "");
    EXPECT_TRUE(logged("send_udp_junk: inet_aton() failed"));
    EXPECT_TRUE(logged("get_client_mac_address: bad client address: 192.0.2.x"));
}

TEST_F(NetTest, ClientMacGivesUpOnAnIncompleteEntry)
{
    netns();
    // peer0 holds no address, so the nudge's ARP request stays unanswered.
    char mac[18] = "junk";
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(get_client_mac_address("eth0", "192.0.2.30", mac, 1), -1);
    auto took = std::chrono::steady_clock::now() - start;
    EXPECT_STREQ(mac, "");
    EXPECT_TRUE(logged("get_client_mac_address: Incomplete ARP request"));
    EXPECT_GE(took, std::chrono::milliseconds(2900)); // three tries, a second after each
    EXPECT_LT(took, std::chrono::milliseconds(6000));
}

TEST_F(NetTest, ClientMacNudgeResolvesARealNeighbour)
{
    netns();
    // The peer end lives in a namespace of a child process that holds
    // 192.0.2.20 and listens on the nudge's port.
    int to_child[2], from_child[2];
    ASSERT_EQ(pipe(to_child), 0);
    ASSERT_EQ(pipe(from_child), 0);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        char c;
        if (unshare(CLONE_NEWNET) != 0)
            _exit(1);
        if (write(from_child[1], "r", 1) != 1 || read(to_child[0], &c, 1) != 1)
            _exit(1);
        if (sh("ip link set lo up && ip link set peer0 address 02:00:00:00:00:20 && "
               "ip addr add 192.0.2.20/24 dev peer0 && ip link set peer0 up") != 0 ||
            !link_passes_traffic("peer0"))
            _exit(1);
        int s = socket(AF_INET, SOCK_DGRAM, 0);
        struct sockaddr_in a = {};
        a.sin_family = AF_INET;
        a.sin_port = htons(8113);
        if (bind(s, reinterpret_cast<struct sockaddr *>(&a), sizeof(a)) != 0)
            _exit(1);
        if (write(from_child[1], "b", 1) != 1)
            _exit(1);
        struct pollfd p = {s, POLLIN, 0};
        char buf[64];
        unsigned char got = 0;
        if (poll(&p, 1, 10000) == 1) {
            ssize_t n = recv(s, buf, sizeof(buf), 0);
            got = n < 0 ? 0 : static_cast<unsigned char>(n);
        }
        if (write(from_child[1], &got, 1) != 1)
            _exit(1);
        _exit(0);
    }
    char c = 0;
    ASSERT_EQ(read(from_child[0], &c, 1), 1);
    ASSERT_EQ(sh("ip link set peer0 netns " + std::to_string(pid)), 0);
    ASSERT_EQ(write(to_child[1], "g", 1), 1);
    ASSERT_EQ(read(from_child[0], &c, 1), 1);
    ASSERT_EQ(c, 'b');
    ASSERT_TRUE(link_passes_traffic("eth0"));

    char mac[18] = "";
    EXPECT_EQ(get_client_mac_address("eth0", "192.0.2.20", mac, 1), 0);
    EXPECT_STREQ(mac, "02:00:00:00:00:20");

    unsigned char got = 0;
    ASSERT_EQ(read(from_child[0], &got, 1), 1);
    EXPECT_EQ(got, 4); // the 4-byte datagram to port 8113 arrived
    int status;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST_F(NetTest, CreateVlanIfRunsTheThreeCommands)
{
    // The tools' own exit statuses do not matter.
    recording_tool("/usr/local/bin/ovs-vsctl", "/tmp/ovs.calls", 1);
    recording_tool("/sbin/udhcpc", "/tmp/udhcpc.calls", 1);
    EXPECT_EQ(create_vlan_if("vlan7", 7), 0);

    std::vector<std::string> want = {
        "create_vlan_if: trying: /usr/local/bin/ovs-vsctl add-port eth0 vlan7 -- set interface "
        "vlan7 type=internal",
        "create_vlan_if: trying: /usr/local/bin/ovs-vsctl set port vlan7 tag=7 vlan_mode=access",
        "create_vlan_if: trying: /sbin/udhcpc -i vlan7 -n -T 10 -p /tmp/dhcp_vlan7.pid -s "
        "/usr/share/udhcpc/varnex_dhcp_client.script",
    };
    auto msgs = messages();
    ASSERT_GE(msgs.size(), 3u);
    EXPECT_EQ(std::vector<std::string>(msgs.end() - 3, msgs.end()), want);

    EXPECT_EQ(read_file(root.at("/tmp/ovs.calls")),
              "add-port eth0 vlan7 -- set interface vlan7 type=internal\n"
              "set port vlan7 tag=7 vlan_mode=access\n");
    // Device paths inside the command line are the device root's.
    EXPECT_EQ(read_file(root.at("/tmp/udhcpc.calls")),
              "-i vlan7 -n -T 10 -p " + root.at("/tmp/dhcp_vlan7.pid") + " -s " +
                  root.at("/usr/share/udhcpc/varnex_dhcp_client.script") + "\n");
}

TEST_F(NetTest, DeleteVlanIfOfTheMgmtInterfaceDoesNothing)
{
    recording_tool("/usr/local/bin/ovs-vsctl", "/tmp/ovs.calls", 0);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        pause();
        _exit(0);
    }
    write_file(root.at("/tmp/dhcp_eth0.pid"), std::to_string(child) + "\n");
    size_t before = messages().size();

    delete_vlan_if("eth0");

    EXPECT_FALSE(file_exists(root.at("/tmp/ovs.calls")));
    EXPECT_EQ(messages().size(), before);
    int status;
    EXPECT_EQ(waitpid(child, &status, WNOHANG), 0); // still running
    kill(child, SIGTERM);
    waitpid(child, &status, 0);
}

TEST_F(NetTest, DeleteVlanIfRemovesThePortAndKillsItsDhcpClient)
{
    recording_tool("/usr/local/bin/ovs-vsctl", "/tmp/ovs.calls", 0);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        signal(SIGTERM, SIG_IGN);
        pause();
        _exit(0);
    }
    write_file(root.at("/tmp/dhcp_vlan7.pid"), std::to_string(child) + "\n");

    delete_vlan_if("vlan7");

    EXPECT_EQ(read_file(root.at("/tmp/ovs.calls")), "del-port vlan7\n");
    EXPECT_TRUE(logged("delete_vlan_if: sending SIGKILL to " + std::to_string(child)));
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGKILL);

    write_file(root.at("/tmp/dhcp_vlan8.pid"), "none\n");
    delete_vlan_if("vlan8");
    EXPECT_TRUE(logged("delete_vlan_if: cannot read pid from /tmp/dhcp_vlan8.pid"));

    // Without a pid file only the port goes.
    size_t before = messages().size();
    delete_vlan_if("vlan9");
    EXPECT_EQ(messages().size(), before);
    EXPECT_EQ(read_file(root.at("/tmp/ovs.calls")),
              "del-port vlan7\ndel-port vlan8\ndel-port vlan9\n");
}

TEST_F(NetTest, WaitForDeviceWithoutTimeDoesNotProbe)
{
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(wait_for_device("nosuch0", 0, 2), 0);
    EXPECT_EQ(wait_for_device("nosuch0", 10, 0), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
    EXPECT_EQ(count("..waiting for nosuch0.."), 2);
    EXPECT_EQ(count("..wait failed"), 2);
    for (const std::string &m : messages())
        EXPECT_EQ(m.rfind("..sleeping", 0), std::string::npos) << m;

    size_t before = messages().size();
    EXPECT_EQ(wait_for_device(nullptr, 10, 1), 0);
    EXPECT_EQ(messages().size(), before);
}

TEST_F(NetTest, WaitForDeviceThatExists)
{
    netns();
    EXPECT_EQ(wait_for_device("eth0", 10, 2), 1);
    EXPECT_TRUE(logged("..waiting for eth0.."));
    EXPECT_TRUE(logged("..wait OK"));
    EXPECT_EQ(count("..sleeping..-1, 19"), 0);
}

TEST_F(NetTest, WaitForDeviceThatAppears)
{
    netns();
    std::thread later([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        sh("ip link add late0 type veth peer name late1");
    });
    EXPECT_EQ(wait_for_device("late0", 10, 1), 1);
    later.join();
    EXPECT_EQ(count("..sleeping..-1, 19"), 2); // ENODEV, probed at 0 s and 1 s
    EXPECT_TRUE(logged("..wait OK"));
}

TEST_F(NetTest, WaitForDeviceGivesUp)
{
    netns();
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(wait_for_device("never0", 2, 1), 0);
    auto took = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(count("..sleeping..-1, 19"), 2);
    EXPECT_TRUE(logged("..wait failed"));
    EXPECT_GE(took, std::chrono::milliseconds(1900));
    EXPECT_LT(took, std::chrono::milliseconds(3500));
}

TEST_F(NetTest, TuntapAllocNamesTheDeviceAndClosesIt)
{
    netns();
    char name[16] = "orka%d";
    int fd = tuntap_alloc(name, IFF_TUN | IFF_NO_PI);
    ASSERT_GE(fd, 0);
    EXPECT_STREQ(name, "orka0");
    // The descriptor is not kept open.
    errno = 0;
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    EXPECT_EQ(errno, EBADF);

    char tap[16] = "orkatap";
    EXPECT_GE(tuntap_alloc(tap, IFF_TAP | IFF_NO_PI), 0);
    EXPECT_STREQ(tap, "orkatap");
}

TEST_F(NetTest, TuntapAllocRefusals)
{
    netns();
    EXPECT_EQ(tuntap_alloc(nullptr, IFF_TUN), -1);
    char name[16] = "orka%d";
    EXPECT_LT(tuntap_alloc(name, 0), 0); // neither tun nor tap
    EXPECT_STREQ(name, "orka%d");
}
