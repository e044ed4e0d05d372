// The management VPN against an in-process controller: set.sslVpn and del.sslVpn
// with every answer, the stored configuration at start-up and the vpnIp
// heartbeat member. The device root's openvpn is a stand-in that records how
// it was started and with which configuration.
#include "agent_fixture.h"
#include "heartbeat.h"
#include "mgmtvpn.h"
#include "utils.h"

#include <csignal>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace agent_test;

namespace
{

const char stop_line[] = "_sys: 'killall -9 openvpn 2> /dev/null' (status = 256)";
const char start_line_ok[] =
    "_sys: '/sbin/openvpn --daemon mgmtvpn --config /etc/openvpn/client.ovpn' (status = 0)";
const char start_prefix[] = "_sys: '/sbin/openvpn --daemon mgmtvpn --config "
                            "/etc/openvpn/client.ovpn' (status = ";

std::string b64(const std::string &text)
{
    int n = (int)text.size();
    char *e = base64_encode(text.data(), &n);
    std::string out(e);
    free(e);
    return out;
}

class VpnTest : public AgentTest
{
  protected:
    void SetUp() override
    {
        AgentTest::SetUp();
        use_controller();
        // openvpn as the device runs it, replaced by a recorder: one line of
        // arguments per start, and the configuration it was started with.
        std::string fake = root.at("/sbin/openvpn");
        unlink(fake.c_str());
        write_file(fake, "#!/bin/sh\n"
                         "echo \"$*\" >> \"$ORKAD_ROOT/rw/openvpn.starts\"\n"
                         "cat \"$4\" > \"$ORKAD_ROOT/rw/openvpn.config.$(wc -l < "
                         "\"$ORKAD_ROOT/rw/openvpn.starts\")\"\n"
                         "if [ -f \"$ORKAD_ROOT/etc/openvpn.fail\" ]; then exit 1; fi\n"
                         "exit 0\n");
        chmod(fake.c_str(), 0755);
    }

    std::vector<std::string> starts() { return lines_of(read_file(root.at("/rw/openvpn.starts"))); }
    std::string started_with(int n)
    {
        return read_file(root.at("/rw/openvpn.config." + std::to_string(n)));
    }
    std::string config() { return read_file(root.at("/etc/openvpn/client.ovpn")); }
    bool config_exists() { return file_exists(root.at("/etc/openvpn/client.ovpn")); }
    void fail_start() { write_file(root.at("/etc/openvpn.fail"), "1\n"); }

    // The position of a line in the main log, or -1.
    long position(const std::string &line)
    {
        auto m = main_log();
        auto it = std::find(m.begin(), m.end(), line);
        return it == m.end() ? -1 : (long)(it - m.begin());
    }

    void run(cmd_fn fn, const std::string &command)
    {
        run_handler(fn, "set.sslVpn", command, "/response/v");
    }
    void set_vpn(const std::string &id, const std::string &ovpn_b64)
    {
        run(cmd_set_sslvpn, R"({"action":"set","context":"sslVpn","id":")" + id +
                                R"(","params":{"clientOvpn":")" + ovpn_b64 + "\"}}");
    }
    Answer result_of(const std::string &id) { return answer_for(id); }
    // The command was answered -1 with this message, and the log says so.
    void expect_refused(const std::string &id, const std::string &message)
    {
        auto r = result_of(id);
        EXPECT_EQ(r.first, -1);
        EXPECT_EQ(r.second, message);
        EXPECT_TRUE(logged("set.sslVpn: " + message));
    }
    Answer only_result() { return answer_for(""); }
};

const char sample[] = "client\ndev tun\nproto udp\nremote 198.51.100.1 1194\n";

} // namespace

TEST_F(VpnTest, InitRegistersEverythingAndStartsNothingWithoutAConfiguration)
{
    mgmtvpn_init();
    EXPECT_TRUE(logged("registered new handler 'mgmtvpn_cleanup' for signal 15"));
    EXPECT_TRUE(logged("registered 'set.sslVpn' command handler"));
    EXPECT_TRUE(logged("registered 'del.sslVpn' command handler"));
    EXPECT_TRUE(logged("heartbeat_register_provider: registered 'vpnIp' heartbeat provider"));
    EXPECT_FALSE(logged(stop_line));
    EXPECT_TRUE(starts().empty());
}

TEST_F(VpnTest, InitRestartsTheStoredConfiguration)
{
    write_file(root.at("/etc/openvpn/client.ovpn"), sample);
    mgmtvpn_init();
    long stop = position(stop_line), start = position(start_line_ok);
    ASSERT_GE(stop, 0);
    ASSERT_GE(start, 0);
    EXPECT_LT(stop, start);
    ASSERT_EQ(starts().size(), 1u);
    EXPECT_EQ(starts()[0], "--daemon mgmtvpn --config " + root.at("/etc/openvpn/client.ovpn"));
    EXPECT_EQ(started_with(1), sample);
    EXPECT_FALSE(logged("mgmtvpn_init: Failed to start vpn"));
}

TEST_F(VpnTest, InitLogsAStartThatFails)
{
    write_file(root.at("/etc/openvpn/client.ovpn"), sample);
    fail_start();
    mgmtvpn_init();
    EXPECT_TRUE(logged(std::string(start_prefix) + "256)"));
    EXPECT_TRUE(logged("mgmtvpn_init: Failed to start vpn"));
}

TEST_F(VpnTest, TheSigtermHandlerLeavesTheVpnAlone)
{
    write_file(root.at("/etc/openvpn/client.ovpn"), sample);
    mgmtvpn_init();
    size_t stops = count_logged(stop_line);
    signals_handler(SIGTERM);
    EXPECT_FALSE(logged("signals_handler: signal 15 has no registered handler"));
    EXPECT_EQ(count_logged(stop_line), stops);
    EXPECT_TRUE(config_exists());
}

TEST_F(VpnTest, SetStoresTheConfigurationAndStartsTheClient)
{
    set_vpn("vpn-1", b64(sample));
    auto r = result_of("vpn-1");
    EXPECT_EQ(r.first, 0);
    EXPECT_EQ(r.second, "");
    EXPECT_EQ(config(), sample);
    long stop = position(stop_line), start = position(start_line_ok);
    ASSERT_GE(stop, 0);
    EXPECT_LT(stop, start);
    ASSERT_EQ(starts().size(), 1u);
    EXPECT_EQ(started_with(1), sample);
    // No data member in the answer.
    auto res = controller->answers("vpn-1");
    ASSERT_EQ(res.size(), 1u);
    EXPECT_EQ(res[0].data, "");
}

TEST_F(VpnTest, ConfigurationIsWrittenForTheAgentAlone)
{
    // An older file open to everybody is replaced by one that is not.
    write_file(root.at("/etc/openvpn/client.ovpn"), sample);
    ASSERT_EQ(chmod(root.at("/etc/openvpn/client.ovpn").c_str(), 0644), 0);
    mode_t old = umask(0);
    set_vpn("vpn-1", b64(sample));
    umask(old);
    EXPECT_EQ(result_of("vpn-1").first, 0);
    EXPECT_EQ(config(), sample);
    struct stat st;
    ASSERT_EQ(stat(root.at("/etc/openvpn/client.ovpn").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
}

TEST_F(VpnTest, ASecondSetReplacesTheConfigurationAndRestarts)
{
    set_vpn("vpn-1", b64(sample));
    std::string second = "client\ndev tun\nremote 203.0.113.9 443\n";
    set_vpn("vpn-2", b64(second));
    EXPECT_EQ(result_of("vpn-2").first, 0);
    EXPECT_EQ(config(), second);
    EXPECT_EQ(count_logged(stop_line), 2u);
    ASSERT_EQ(starts().size(), 2u);
    EXPECT_EQ(started_with(2), second);
}

TEST_F(VpnTest, ContentThatIsNotBase64LeavesTheRunningVpnUntouched)
{
    set_vpn("vpn-1", b64(sample));
    set_vpn("vpn-2", "abcde");
    expect_refused("vpn-2", "error decoding 'clientOvpn' element content");
    EXPECT_EQ(count_logged(stop_line), 1u);
    EXPECT_EQ(starts().size(), 1u);
    EXPECT_EQ(config(), sample);
}

TEST_F(VpnTest, ContentEndsAtItsFirstNulByte)
{
    std::string text = std::string("client\ndev tun\n") + '\0' + "remote 198.51.100.1\n";
    set_vpn("vpn-1", b64(text));
    EXPECT_EQ(result_of("vpn-1").first, 0);
    EXPECT_EQ(config(), "client\ndev tun\n");
}

TEST_F(VpnTest, AHugeConfigurationIsStoredWhole)
{
    std::string text = "client\n";
    while (text.size() < 2 * 1024 * 1024)
        text += "# a comment line that only makes the configuration longer\n";
    set_vpn("vpn-1", b64(text));
    EXPECT_EQ(result_of("vpn-1").first, 0);
    EXPECT_EQ(config(), text);
    EXPECT_EQ(started_with(1), text);
}

TEST_F(VpnTest, AClientThatDoesNotStartIsReported)
{
    fail_start();
    set_vpn("vpn-1", b64(sample));
    expect_refused("vpn-1", "Failed to start vpn");
    // The configuration stays for the next start.
    EXPECT_EQ(config(), sample);
}

TEST_F(VpnTest, AConfigurationThatCannotBeSavedIsReported)
{
    set_vpn("vpn-1", b64(sample));
    ASSERT_EQ(system(("rm -rf '" + root.at("/etc/openvpn") + "'").c_str()), 0);
    set_vpn("vpn-2", b64("client\n"));
    expect_refused("vpn-2", "failed to save '/etc/openvpn/client.ovpn' file (errno = 2)");
    // The old client was stopped and nothing new was started.
    EXPECT_EQ(count_logged(stop_line), 2u);
    EXPECT_EQ(starts().size(), 1u);
}

TEST_F(VpnTest, AConfigurationCutShortIsNotLeftBehind)
{
    // Files of this process may not grow past 256 KiB: the write fails half
    // way, and what was written goes again.
    std::string text = "client\n";
    while (text.size() < 512 * 1024)
        text += "# a comment line that only makes the configuration longer\n";
    signal(SIGXFSZ, SIG_IGN);
    struct rlimit old, lim;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old), 0);
    lim = old;
    lim.rlim_cur = 256 * 1024;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &lim), 0);
    set_vpn("vpn-1", b64(text));
    setrlimit(RLIMIT_FSIZE, &old);
    auto r = result_of("vpn-1");
    EXPECT_EQ(r.first, -1);
    EXPECT_EQ(r.second, "failed to save '/etc/openvpn/client.ovpn' file (errno = 27)");
    EXPECT_FALSE(config_exists());
    EXPECT_TRUE(starts().empty());
}

TEST_F(VpnTest, SetWithoutAnId)
{
    run(cmd_set_sslvpn, R"({"action":"set","context":"sslVpn","params":{"clientOvpn":"YQ=="}})");
    auto r = only_result();
    EXPECT_EQ(r.first, -1);
    EXPECT_EQ(r.second, "missing or invalid 'id' element in command");
    EXPECT_TRUE(logged("set.sslVpn: missing or invalid 'id' element in command"));
    EXPECT_TRUE(starts().empty());
    EXPECT_FALSE(logged(stop_line));
}

TEST_F(VpnTest, SetWithoutParams)
{
    run(cmd_set_sslvpn, R"({"action":"set","context":"sslVpn","id":"vpn-1","params":"x"})");
    expect_refused("vpn-1", "missing or invalid 'params' element");
    EXPECT_FALSE(logged(stop_line));
}

TEST_F(VpnTest, SetWithoutClientOvpn)
{
    run(cmd_set_sslvpn, R"({"action":"set","context":"sslVpn","id":"vpn-1","params":{}})");
    run(cmd_set_sslvpn,
        R"({"action":"set","context":"sslVpn","id":"vpn-2","params":{"clientOvpn":7}})");
    for (const char *id : {"vpn-1", "vpn-2"}) {
        auto r = result_of(id);
        EXPECT_EQ(r.first, -1);
        EXPECT_EQ(r.second, "missing or invalid 'clientOvpn' element in params");
    }
    EXPECT_EQ(count_logged("set.sslVpn: missing or invalid 'clientOvpn' element in params"), 2u);
    EXPECT_FALSE(logged(stop_line));
    EXPECT_FALSE(config_exists());
}

TEST_F(VpnTest, DelStopsTheClientAndRemovesTheConfiguration)
{
    set_vpn("vpn-1", b64(sample));
    run(cmd_del_sslvpn, R"({"action":"del","context":"sslVpn","id":"vpn-2"})");
    auto r = result_of("vpn-2");
    EXPECT_EQ(r.first, 0);
    EXPECT_EQ(r.second, "");
    EXPECT_EQ(count_logged(stop_line), 2u);
    EXPECT_FALSE(config_exists());
    EXPECT_EQ(starts().size(), 1u);
    // A later start of the agent brings nothing back.
    mgmtvpn_init();
    EXPECT_EQ(starts().size(), 1u);
}

TEST_F(VpnTest, DelWithoutAnId)
{
    set_vpn("vpn-1", b64(sample));
    run(cmd_del_sslvpn, R"({"action":"del","context":"sslVpn","id":5})");
    auto res = controller->wait_answers(2);
    ASSERT_EQ(res.size(), 2u);
    EXPECT_EQ(res[1].code, -1);
    EXPECT_EQ(res[1].message, "missing or invalid 'id' element in command");
    EXPECT_TRUE(logged("del.sslVpn: missing or invalid 'id' element in command"));
    EXPECT_TRUE(config_exists());
    EXPECT_EQ(count_logged(stop_line), 1u);
}

TEST_F(VpnTest, ConnectedReadsTheTunnelAddress)
{
    snprintf(mgmtvpn_ifname, sizeof(mgmtvpn_ifname), "lo");
    EXPECT_EQ(mgmtvpn_connected(), 1);
    EXPECT_STREQ(mgmtvpn_ipaddr, "127.0.0.1");
    snprintf(mgmtvpn_ifname, sizeof(mgmtvpn_ifname), "orkadnotun9");
    EXPECT_EQ(mgmtvpn_connected(), 0);
    EXPECT_STREQ(mgmtvpn_ipaddr, "");
}

TEST_F(VpnTest, TheProviderReportsChangesAndEverythingAfterAFailure)
{
    EXPECT_STREQ(mgmtvpn_ifname, "tun0");
    auto pulse = [](bool failed) {
        Json hb(json_object());
        mgmtvpn_heartbeat_provider(hb.get(), failed);
        json_t *v = json_object_get(hb.get(), "vpnIp");
        return v == nullptr ? std::string("<none>") : std::string(json_string_value(v));
    };
    snprintf(mgmtvpn_ifname, sizeof(mgmtvpn_ifname), "lo");
    EXPECT_EQ(pulse(false), "127.0.0.1"); // new
    EXPECT_EQ(pulse(false), "<none>");    // unchanged
    EXPECT_EQ(pulse(true), "127.0.0.1");  // the last pulse failed
    EXPECT_EQ(pulse(false), "<none>");
    // The tunnel went away: its now empty address is a change.
    snprintf(mgmtvpn_ifname, sizeof(mgmtvpn_ifname), "orkadnotun9");
    EXPECT_EQ(pulse(false), "");
    EXPECT_EQ(pulse(false), "<none>");
    EXPECT_EQ(pulse(true), "");
}
