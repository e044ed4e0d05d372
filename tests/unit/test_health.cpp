// The figures behind "orkad.status" in each state that matters, the answers
// of "orkad.status" and "orkad.dump" on the local socket, the reply path's
// checks, and secrets kept out of every answer.
#include "health.h"

#include "agent_fixture.h"
#include "auth.h"
#include "heartbeat.h"
#include "listener.h"
#include "logging.h"
#include "mgmtvpn.h"
#include "netutils.h"
#include "orkad.h"
#include "phone-home.h"
#include "stats.h"
#include "status.h"

#include <csignal>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using namespace agent_test;

namespace
{

char loopback[] = "lo";
constexpr time_t T0 = 1700000000;

// Member path of an answer as compact text ("" when absent).
std::string part(const Json &doc, const char *key, const char *sub = nullptr)
{
    json_t *v = json_object_get(doc.get(), key);
    if (sub != nullptr)
        v = json_object_get(v, sub);
    return json_text(v);
}

Json status_now()
{
    json_ptr doc = health_status();
    EXPECT_NE(doc, nullptr);
    return doc;
}

// A client's reply socket inside the device root, as orkadctl binds it.
class ReplySocket
{
  public:
    ReplySocket(const DeviceRoot &root, const std::string &device_path)
        : path_(root.at(device_path))
    {
        fd_ = socket(AF_UNIX, SOCK_DGRAM, 0);
        struct sockaddr_un a = {};
        a.sun_family = AF_UNIX;
        snprintf(a.sun_path, sizeof(a.sun_path), "%s", path_.c_str());
        unlink(path_.c_str());
        EXPECT_EQ(bind(fd_, reinterpret_cast<struct sockaddr *>(&a), sizeof(a)), 0);
    }
    ~ReplySocket()
    {
        close(fd_);
        unlink(path_.c_str());
    }
    // The next datagram, or "" when none comes in time.
    std::string next(int timeout_ms = 3000)
    {
        struct pollfd p = {fd_, POLLIN, 0};
        if (poll(&p, 1, timeout_ms) != 1)
            return "";
        char buf[8192];
        ssize_t n = recv(fd_, buf, sizeof(buf), 0);
        return n > 0 ? std::string(buf, (size_t)n) : "";
    }

  private:
    std::string path_;
    int fd_ = -1;
};

// Hands one datagram to the daemon's socket, as a client does.
void send_event(const DeviceRoot &root, const std::string &msg)
{
    std::string path = root.at("/tmp/orkad_socket");
    ASSERT_TRUE(wait_for([&] { return file_exists(path); }));
    int s = socket(AF_UNIX, SOCK_DGRAM, 0);
    struct sockaddr_un to = {};
    to.sun_family = AF_UNIX;
    snprintf(to.sun_path, sizeof(to.sun_path), "%s", path.c_str());
    ssize_t n =
        sendto(s, msg.data(), msg.size(), 0, reinterpret_cast<struct sockaddr *>(&to), sizeof(to));
    close(s);
    ASSERT_EQ(n, (ssize_t)msg.size());
}

// The child starts at T0 on the test's clock, which tokens expire on too.
void start_child_at_t0()
{
    fake_now = T0;
    health_time = fake_time;
    auth_time = fake_time;
    health_child_started();
}

// Nothing but a device root and the logs: no database, no controller.
class HealthBareTest : public ::testing::Test
{
  protected:
    DeviceRoot root;
    void SetUp() override
    {
        log_init();
        start_child_at_t0();
    }
};

class HealthTest : public AgentTest
{
  protected:
    void SetUp() override
    {
        AgentTest::SetUp();
        start_child_at_t0();
        // Phone-home neither waits nor looks for a real interface.
        phone_home_sleep = no_sleep;
        mgmt_ifname = loopback;
    }

    // The controller taken the way the daemon takes it at start-up.
    void boot_controller()
    {
        env_controller = base_url();
        phone_home();
    }

    // Sends `event` with an answer wanted at `reply` (under the device
    // root); the datagram that came back.
    std::string ask(const char *event, const std::string &reply)
    {
        health_init();
        ReplySocket client(root, reply);
        send_event(root, std::string(R"({"event":")") + event + R"(","params":{"reply":")" + reply +
                             "\"}}");
        return client.next();
    }
};

class HealthOffTest : public HealthTest
{
  protected:
    std::vector<std::string> devroot_args() override { return {"--env", "phone_home=NO"}; }
};

} // namespace

// ---- every field, nothing known yet ------------------------------------------

TEST_F(HealthBareTest, NothingKnownYet)
{
    Json s = status_now();
    EXPECT_EQ(json_str(s.get(), "version"), "1.2.0");
    EXPECT_EQ(json_integer_value(json_object_get(s.get(), "pid")), getpid());
    EXPECT_EQ(part(s, "started"), std::to_string(T0));
    json_int_t up = json_integer_value(json_object_get(s.get(), "uptime"));
    EXPECT_TRUE(json_is_integer(json_object_get(s.get(), "uptime")));
    EXPECT_GE(up, 0);
    EXPECT_LE(up, 1);
    EXPECT_EQ(part(s, "restarts"), "0");
    EXPECT_EQ(part(s, "controller"), R"({"url":null,"source":null})");
    EXPECT_EQ(part(s, "phone_home"), R"({"state":"idle","last":null,"result":null})");
    EXPECT_EQ(part(s, "heartbeat"),
              R"({"interval":10,"last":null,"result":null,"last_ok":null,"failures":0})");
    EXPECT_EQ(part(s, "token"), R"({"held":false,"expires":null})");
    const char *idle =
        R"({"enabled":false,"interval":0,"last":null,"result":null,"posted":0,"failed":0)";
    EXPECT_EQ(part(s, "streams", "status"), std::string(idle) + "}");
    EXPECT_EQ(part(s, "streams", "statistics"), std::string(idle) + "}");
    EXPECT_EQ(part(s, "streams", "syslog"),
              std::string(idle) + R"(,"lines_waiting":0,"batches_waiting":0,"dropped":0})");
    EXPECT_EQ(part(s, "vpn"), R"({"state":"off","address":null})");
    EXPECT_EQ(part(s, "firmware"), R"({"running":null,"pending":null})");
    EXPECT_EQ(part(s, "database"), R"({"schema":null})");
    EXPECT_EQ(part(s, "problems"), R"(["no controller"])");
    // Nothing else.
    EXPECT_EQ(json_object_size(s.get()), 14u);
}

TEST_F(HealthBareTest, RestartsAndFirmwareAsTheChildKnowsThem)
{
    restarts = 3;
    health_firmware_running("1.0.0.1");
    health_firmware_pending("2.0.0.0");
    Json s = status_now();
    EXPECT_EQ(part(s, "restarts"), "3");
    EXPECT_EQ(part(s, "firmware"), R"({"running":"1.0.0.1","pending":"2.0.0.0"})");
    health_firmware_pending(nullptr);
    EXPECT_EQ(part(status_now(), "firmware"), R"({"running":"1.0.0.1","pending":null})");
}

TEST_F(HealthBareTest, UptimeCountsFromTheChildsStartNotTheWallClock)
{
    // The wall clock jumps (phone-home sets it); the uptime does not.
    fake_now = T0 + 86400;
    Json s = status_now();
    EXPECT_EQ(part(s, "started"), std::to_string(T0));
    EXPECT_LE(json_integer_value(json_object_get(s.get(), "uptime")), 1);
}

// ---- controller, heartbeat and token -------------------------------------------

TEST_F(HealthTest, SchemaVersionFromTheDatabase)
{
    EXPECT_EQ(part(status_now(), "database"), R"({"schema":9})");
}

TEST_F(HealthTest, HeartbeatOk)
{
    boot_controller();
    heartbeat_setup();
    ASSERT_EQ(heartbeat_pulse(), 0);
    Json s = status_now();
    EXPECT_EQ(part(s, "controller"), R"({"url":")" + base_url() + R"(","source":"boot"})");
    EXPECT_EQ(part(s, "phone_home"), R"({"state":"done","last":null,"result":null})");
    EXPECT_EQ(part(s, "heartbeat"), "{\"interval\":10,\"last\":" + std::to_string(T0) +
                                        ",\"result\":0,\"last_ok\":" + std::to_string(T0) +
                                        ",\"failures\":0}");
    EXPECT_EQ(part(s, "token"), "{\"held\":true,\"expires\":" + std::to_string(T0 + 3600) + "}");
    EXPECT_EQ(part(s, "problems"), "[]");
}

TEST_F(HealthTest, HeartbeatFailing)
{
    boot_controller();
    heartbeat_setup();
    ASSERT_EQ(heartbeat_pulse(), 0);
    fake_now = T0 + 10;
    controller->answer("/heartbeat", 500, "{}", 2);
    EXPECT_EQ(heartbeat_pulse(), -1);
    fake_now = T0 + 20;
    EXPECT_EQ(heartbeat_pulse(), -1);
    Json s = status_now();
    EXPECT_EQ(part(s, "heartbeat"), "{\"interval\":10,\"last\":" + std::to_string(T0 + 20) +
                                        ",\"result\":500,\"last_ok\":" + std::to_string(T0) +
                                        ",\"failures\":2}");
    EXPECT_EQ(part(s, "problems"), R"(["heartbeats failing"])");

    // One good pulse and all is well again.
    fake_now = T0 + 30;
    ASSERT_EQ(heartbeat_pulse(), 0);
    s = status_now();
    EXPECT_EQ(part(s, "heartbeat", "failures"), "0");
    EXPECT_EQ(part(s, "heartbeat", "last_ok"), std::to_string(T0 + 30));
    EXPECT_EQ(part(s, "problems"), "[]");
}

TEST_F(HealthTest, NoTokenMeansNoPulseAndTheTokenRequestsResultShows)
{
    boot_controller();
    heartbeat_setup();
    controller->answer("/oauth/token", 401, "{}", 100);
    EXPECT_EQ(heartbeat_pulse(), -1);
    EXPECT_EQ(sent_to("/heartbeat").size(), 0u);
    Json s = status_now();
    EXPECT_EQ(part(s, "heartbeat", "result"), "401");
    EXPECT_EQ(part(s, "heartbeat", "failures"), "1");
    EXPECT_EQ(part(s, "heartbeat", "last_ok"), "null");
    EXPECT_EQ(part(s, "token"), R"({"held":false,"expires":null})");
    EXPECT_EQ(part(s, "problems"), R"(["heartbeats failing"])");
}

TEST_F(HealthTest, TokenPastItsTimeIsNotHeld)
{
    controller->answer("/oauth/token", 200,
                       R"({"access_token":"t60","token_type":"bearer","expires_in":60})");
    boot_controller();
    char token[ACCESS_TOKEN_SIZE];
    ASSERT_EQ(get_access_token(token), 1);
    EXPECT_EQ(part(status_now(), "token"),
              "{\"held\":true,\"expires\":" + std::to_string(T0 + 60) + "}");
    fake_now = T0 + 60;
    EXPECT_EQ(part(status_now(), "token"), R"({"held":false,"expires":null})");
    fake_now = T0;
    invalidate_access_token();
    EXPECT_EQ(part(status_now(), "token"), R"({"held":false,"expires":null})");
}

TEST_F(HealthOffTest, StoredControllerWhenPhoneHomeIsOff)
{
    config_set("system", nullptr, "cloud-controller", "https://ctl.example");
    phone_home();
    Json s = status_now();
    EXPECT_EQ(part(s, "controller"), R"({"url":"https://ctl.example","source":"stored"})");
    EXPECT_EQ(part(s, "phone_home"), R"({"state":"skipped","last":null,"result":null})");
}

TEST_F(HealthTest, ControllerFromAnotherSite)
{
    home_site = base_url();
    controller->answer("/phone_home", 200, R"({"cloud_controller":")" + base_url() + "\"}");
    phone_home_call();
    Json s = status_now();
    EXPECT_EQ(part(s, "controller"), R"({"url":")" + base_url() + R"(","source":"site"})");
    EXPECT_EQ(part(s, "phone_home"),
              "{\"state\":\"done\",\"last\":" + std::to_string(T0) + ",\"result\":0}");
}

TEST_F(HealthTest, PhoneHomeSiteDown)
{
    // The site cannot be reached.
    home_site = base_url();
    controller->answer("/phone_home", 0);
    phone_home_call();
    EXPECT_EQ(part(status_now(), "phone_home"),
              "{\"state\":\"failed\",\"last\":" + std::to_string(T0) + ",\"result\":2}");
}

TEST_F(HealthTest, UnregisteredDropsTheStoredController)
{
    use_controller();
    health_controller(base_url(), controller_source::stored);
    home_site = base_url();
    controller->answer("/phone_home", 200, R"({"code":"unregistered"})");
    phone_home_call();
    Json s = status_now();
    // The site said this device has no controller: the stored one is gone.
    EXPECT_EQ(part(s, "controller"), R"({"url":null,"source":null})");
    EXPECT_EQ(part(s, "phone_home"),
              "{\"state\":\"failed\",\"last\":" + std::to_string(T0) + ",\"result\":0}");
    EXPECT_EQ(part(s, "problems"), R"(["no controller"])");
}

// ---- streams ----------------------------------------------------------------

TEST_F(HealthTest, StreamCounters)
{
    boot_controller();
    status_stream.turn_on(30);
    stats_stream.turn_on(60);
    logging_stream.turn_on(5);
    ASSERT_EQ(status_post("/st", "{}", 2), 0);
    ASSERT_EQ(status_post("/st", "{}", 2), 0);
    ASSERT_EQ(stats_post("/sx", "{}", 2), 0);
    ASSERT_EQ(logging_post("/sl", R"({"log":[]})", 10), 0);
    fake_now = T0 + 5;
    controller->answer("/st", 500);
    EXPECT_EQ(status_post("/st", "{}", 2), 500);
    controller->answer("/sl", 503);
    EXPECT_EQ(logging_post("/sl", R"({"log":[]})", 10), 503);

    Json s = status_now();
    EXPECT_EQ(part(s, "streams", "status"),
              "{\"enabled\":true,\"interval\":30,\"last\":" + std::to_string(T0 + 5) +
                  ",\"result\":500,\"posted\":2,\"failed\":1}");
    EXPECT_EQ(part(s, "streams", "statistics"),
              "{\"enabled\":true,\"interval\":60,\"last\":" + std::to_string(T0) +
                  ",\"result\":0,\"posted\":1,\"failed\":0}");
    EXPECT_EQ(part(s, "streams", "syslog"),
              "{\"enabled\":true,\"interval\":5,\"last\":" + std::to_string(T0 + 5) +
                  ",\"result\":503,\"posted\":1,\"failed\":1,\"lines_waiting\":0,"
                  "\"batches_waiting\":0,\"dropped\":0}");
    EXPECT_EQ(part(s, "problems"), R"(["status stream failing","syslog stream failing"])");

    // A stream turned off is no problem, however its last post went.
    status_stream.enabled = false;
    EXPECT_EQ(part(status_now(), "problems"), R"(["syslog stream failing"])");
}

TEST_F(HealthTest, SyslogWaitingAndDropped)
{
    logging_init();
    for (int i = 0; i < 3; i++) {
        json_ptr line(json_string(R"({"text":"hello"})"));
        logging_listener("syslog", line.get());
    }
    json_ptr big(json_string(std::string(LOGGING_MAX_LINE + 1, 'x').c_str()));
    logging_listener("syslog", big.get());
    Json s = status_now();
    json_t *sl = json_object_get(json_object_get(s.get(), "streams"), "syslog");
    EXPECT_EQ(json_text(json_object_get(sl, "lines_waiting")), "3");
    EXPECT_EQ(json_text(json_object_get(sl, "batches_waiting")), "1");
    EXPECT_EQ(json_text(json_object_get(sl, "dropped")), "1");

    // Enough lines to fill a batch: one waits to be sent, one fills.
    std::string text(400, 'y');
    for (int i = 0; i < 10; i++) {
        json_ptr line(json_string(text.c_str()));
        logging_listener("syslog", line.get());
    }
    s = status_now();
    sl = json_object_get(json_object_get(s.get(), "streams"), "syslog");
    EXPECT_EQ(json_text(json_object_get(sl, "lines_waiting")), "13");
    EXPECT_EQ(json_text(json_object_get(sl, "batches_waiting")), "2");
}

// ---- VPN --------------------------------------------------------------------

TEST_F(HealthTest, VpnStartingThenUpWithItsAddress)
{
    // The device's openvpn, replaced by one that starts and says nothing.
    write_file(root.at("/sbin/openvpn"), "#!/bin/sh\nexit 0\n");
    chmod(root.at("/sbin/openvpn").c_str(), 0755);
    write_file(root.at("/etc/openvpn/client.ovpn"), "client\n");
    snprintf(mgmtvpn_ifname, sizeof(mgmtvpn_ifname), "orkadnotun9");
    mgmtvpn_init();
    EXPECT_EQ(part(status_now(), "vpn"), R"({"state":"starting","address":null})");
    // The tunnel has its address.
    snprintf(mgmtvpn_ifname, sizeof(mgmtvpn_ifname), "lo");
    EXPECT_EQ(part(status_now(), "vpn"), R"({"state":"up","address":"127.0.0.1"})");
}

// ---- secrets ------------------------------------------------------------------

TEST_F(HealthTest, TheAnswerNeverCarriesASecret)
{
    // A token long enough that no other text could hold it by chance.
    const std::string token(64, 'T');
    controller->answer("/oauth/token", 200,
                       R"({"access_token":")" + token +
                           R"(","token_type":"bearer","expires_in":3600})");
    // A controller URL that carries credentials of its own.
    std::string host = base_url().substr(strlen("https://"));
    std::string with_password = "https://admin:Pa55word-9@" + host;
    health_controller(with_password, controller_source::stored);
    use_controller();
    heartbeat_setup();
    ASSERT_EQ(heartbeat_pulse(), 0);
    // The administrator password the controller set, in the settings.
    config_set("system", nullptr, "password", "Adm1n-Secret");
    ASSERT_EQ(sent_to("/oauth/token").size(), 1u);

    Json s = status_now();
    std::string text = json_text(s.get());
    EXPECT_EQ(text.find(token), std::string::npos);
    EXPECT_EQ(text.find("Pa55word-9"), std::string::npos);
    EXPECT_EQ(text.find("admin:"), std::string::npos);
    EXPECT_EQ(text.find("Adm1n-Secret"), std::string::npos);
    // The device's client credentials are its serial, twice.
    EXPECT_EQ(text.find(env_serial), std::string::npos);
    EXPECT_EQ(part(s, "controller", "url"), "\"" + base_url() + "\"");
    EXPECT_EQ(part(s, "token", "held"), "true");
}

TEST(HealthUrl, UserinfoIsTakenOut)
{
    EXPECT_EQ(health_url_without_userinfo("https://u:p@ctl.example:8443/x"),
              "https://ctl.example:8443/x");
    EXPECT_EQ(health_url_without_userinfo("https://u@ctl.example"), "https://ctl.example");
    EXPECT_EQ(health_url_without_userinfo("https://ctl.example/a@b"), "https://ctl.example/a@b");
    EXPECT_EQ(health_url_without_userinfo("https://ctl.example?x=a@b"),
              "https://ctl.example?x=a@b");
    EXPECT_EQ(health_url_without_userinfo(""), "");
}

// ---- the events on the socket ----------------------------------------------

TEST_F(HealthTest, StatusEventAnswersTheReplySocket)
{
    std::string got = ask("orkad.status", "/tmp/orkadctl.1");
    ASSERT_FALSE(got.empty());
    Json answer = json_parse(got);
    EXPECT_EQ(json_str(answer.get(), "version"), "1.2.0");
    EXPECT_EQ(part(answer, "problems"), R"(["no controller"])");
    // The answer as health_status builds it, compact, in one datagram.
    EXPECT_EQ(got, json_text(status_now().get()));
    EXPECT_LT(got.size(), 4096u);
}

TEST_F(HealthTest, BadReplyParametersAreLoggedAndDropped)
{
    health_init();
    ReplySocket client(root, "/tmp/orkadctl.2");
    const std::string bad[] = {
        R"({"event":"orkad.status"})",
        R"({"event":"orkad.status","params":"/tmp/orkadctl.2"})",
        R"({"event":"orkad.status","params":{"reply":5}})",
        R"({"event":"orkad.status","params":{"reply":"tmp/orkadctl.2"}})",
        R"({"event":"orkad.status","params":{"reply":"/)" + std::string(107, 'a') + "\"}}",
        R"({"event":"orkad.dump","params":{"reply":""}})",
    };
    for (const std::string &msg : bad)
        send_event(root, msg);
    // Answered in order: the first datagram to come is the good one's.
    send_event(root, R"({"event":"orkad.dump","params":{"reply":"/tmp/orkadctl.2"}})");
    std::string got = client.next();
    EXPECT_EQ(json_str(json_parse(got).get(), "file"), "/tmp/debug.log");
    EXPECT_EQ(count_logged("orkad.status: bad 'reply' parameter"), 5u);
    EXPECT_EQ(count_logged("orkad.dump: bad 'reply' parameter"), 1u);
}

TEST_F(HealthTest, ReplyPathWithANulOrTooLongUnderTheDeviceRootIsRefused)
{
    json_ptr nul(json_object());
    json_object_set_new(nul.get(), "reply", json_stringn("/tmp/x\0y", 8));
    health_status_event("orkad.status", nul.get());
    // 107 bytes fit a socket address, but not once the device root is put
    // in front of them.
    json_ptr longest(json_pack("{s:s}", "reply", ("/" + std::string(106, 'b')).c_str()));
    health_status_event("orkad.status", longest.get());
    EXPECT_EQ(count_logged("orkad.status: bad 'reply' parameter"), 2u);
}

// ---- the dump -----------------------------------------------------------------

namespace
{
void marker_handler(int)
{
    log_fprint(dbg_log, "%s: the last dump line\n", "marker_handler");
}
} // namespace

TEST_F(HealthTest, DumpCoversTheDumpedLines)
{
    // Last after the handlers the modules registered at their start.
    signals_register(SIGUSR1, log_debug, "log_debug");
    signals_register(SIGUSR1, marker_handler, "marker_handler");
    log_fprint(dbg_log, "before the dump\n");
    std::string got = ask("orkad.dump", "/tmp/orkadctl.3");
    ASSERT_FALSE(got.empty());
    Json answer = json_parse(got);
    EXPECT_EQ(part(answer, "dumped"), "true");
    EXPECT_EQ(json_str(answer.get(), "file"), "/tmp/debug.log");
    json_int_t from = json_integer_value(json_object_get(answer.get(), "from"));
    json_int_t to = json_integer_value(json_object_get(answer.get(), "to"));
    std::string file = read_file(root.at("/tmp/debug.log"));
    ASSERT_EQ((json_int_t)file.size(), to);
    std::vector<std::string> lines = lines_of(file.substr((size_t)from, (size_t)(to - from)));
    ASSERT_GE(lines.size(), 2u);
    // Whole lines, the first registered handler's first (the workers').
    ASSERT_GT(from, 0);
    EXPECT_EQ(file[(size_t)from - 1], '\n');
    EXPECT_NE(lines.front().find("work_free_queue: "), std::string::npos) << lines.front();
    std::string dumped = file.substr((size_t)from, (size_t)(to - from));
    EXPECT_NE(dumped.find("log_debug: uptime "), std::string::npos);
    EXPECT_NE(dumped.find("free_replies: count="), std::string::npos);
    EXPECT_NE(lines.back().find("marker_handler: the last dump line"), std::string::npos);
    // Nothing from before it.
    EXPECT_EQ(file.substr((size_t)from, (size_t)(to - from)).find("before the dump"),
              std::string::npos);
    EXPECT_NE(file.substr(0, (size_t)from).find("before the dump"), std::string::npos);
    // The same handlers SIGUSR1 runs, counted as runs of theirs.
    for (struct handler *h = signals_lookup(SIGUSR1); h != nullptr; h = h->next)
        EXPECT_EQ(h->hits, 1u) << h->name;
}

TEST_F(HealthBareTest, DumpThatRotatedTheLogIsFoundInTheRotatedFile)
{
    signals_init();
    signals_register(SIGUSR1, marker_handler, "marker_handler");
    // The dump's one line takes the file past its size: it is rotated right
    // after that line.
    long before = file_size(root.at("/tmp/debug.log"));
    dbg_log->maxsize = (int)before + 10;
    Json answer = health_dump();
    ASSERT_TRUE(file_exists(root.at("/tmp/debug1.log")));
    EXPECT_EQ(json_str(answer.get(), "file"), "/tmp/debug1.log");
    EXPECT_EQ(part(answer, "from"), std::to_string(before));
    std::string rotated = read_file(root.at("/tmp/debug1.log"));
    EXPECT_EQ(part(answer, "to"), std::to_string(rotated.size()));
    EXPECT_NE(rotated.substr((size_t)before).find("marker_handler: the last dump line"),
              std::string::npos);
}

namespace
{
void first_marker(int)
{
    log_fprint(dbg_log, "%s: the first dump line\n", "first_marker");
}
} // namespace

TEST_F(HealthBareTest, DumpRotatedInTheMiddleGivesItsEndInTheNewFile)
{
    signals_init();
    signals_register(SIGUSR1, first_marker, "first_marker");
    signals_register(SIGUSR1, marker_handler, "marker_handler");
    dbg_log->maxsize = (int)file_size(root.at("/tmp/debug.log")) + 10;
    Json answer = health_dump();
    ASSERT_TRUE(file_exists(root.at("/tmp/debug1.log")));
    std::string now = read_file(root.at("/tmp/debug.log"));
    EXPECT_EQ(json_text(answer.get()), R"({"dumped":true,"file":"/tmp/debug.log","from":0,"to":)" +
                                           std::to_string(now.size()) + "}");
    EXPECT_NE(now.find("marker_handler: the last dump line"), std::string::npos);
    EXPECT_NE(read_file(root.at("/tmp/debug1.log")).find("first_marker: the first dump line"),
              std::string::npos);
}
