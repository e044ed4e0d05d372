// Phone-home against the lab controller: the query, the controller handling,
// the clock, the decommissioned and unregistered states, the address wait
// and the background loop's pace.
#include "agent_fixture.h"
#include "auth.h"
#include "auto-updates.h"
#include "debug.h"
#include "netutils.h"
#include "orkad.h"
#include "phone-home.h"

#include <cerrno>
#include <ctime>
#include <mutex>
#include <unistd.h>

using namespace agent_test;

namespace
{

char loopback[] = "lo";
char missing_if[] = "nosuch0";

std::vector<struct timeval> clock_calls;
int clock_result;

int fake_settimeofday(const struct timeval *tv, const struct timezone *)
{
    clock_calls.push_back(*tv);
    if (clock_result != 0)
        errno = EPERM;
    return clock_result;
}

class PhoneHomeLabTest : public AgentLabTest
{
  protected:
    void SetUp() override
    {
        AgentTest::SetUp();
        phone_home_sleep = record_wait;
        phone_home_settimeofday = fake_settimeofday;
        updates_sleep = no_sleep;
        mgmt_ifname = loopback;
        home_site = lab->base_url;
    }

    void answer(const std::string &setting) { lab->call("POST", "/phone-home", setting); }
    Json queries() { return lab->requests({{"kind", "phone_home"}}); }
    size_t tokens() { return json_array_size(lab->tokens().get()); }
    // Where a line stands in the main log (its size when it is not there).
    long log_index(const std::string &line)
    {
        auto log = main_log();
        return std::find(log.begin(), log.end(), line) - log.begin();
    }
};

class PhoneHomeOffLabTest : public PhoneHomeLabTest
{
  protected:
    std::vector<std::string> devroot_args() override { return {"--env", "phone_home=NO"}; }
};

} // namespace

// ---- the query and the controller -----------------------------------------

TEST_F(PhoneHomeLabTest, QueryAsTheSiteTakesIt)
{
    write_file(root.at("/tmp/TZ"), "XYZ-3\n");
    phone_home_call();
    Json q = queries();
    ASSERT_EQ(json_array_size(q.get()), 1u);
    EXPECT_EQ(at(q, 0, "method"), "GET");
    EXPECT_EQ(at(q, 0, "path"), "/api/phone_home");
    // Bracketed names and values exactly as they are: nothing is encoded.
    EXPECT_EQ(at(q, 0, "query"),
              "[phone_home]serial=VX0123456789&[phone_home]uuid=e9d6ecc0-23bb-11e3-932d-"
              "020000000001&[phone_home]hardware=VX-S28-A1&[phone_home]country=US&[phone_home]"
              "boot=0&[phone_home]primary=1.0.0.1&[phone_home]secondary=1.0.0.2&[phone_home]"
              "ipaddr=127.0.0.1&[phone_home]tz=XYZ&[phone_home]utcoffset=180&[phone_home]"
              "ethaddr=02:00:00:00:00:01");
    EXPECT_EQ(json_str(json_object_get(item(q, 0), "headers"), "authorization"), "");
    EXPECT_STREQ(ip_addr, "127.0.0.1");
    EXPECT_EQ(phone_home_count, 1);

    EXPECT_EQ(setting("cloud-controller"), lab->base_url);
    EXPECT_EQ(setting("varnex-initialized"), "yes");
    EXPECT_TRUE(logged("phone_home: new cloud_controller = '" + lab->base_url + "'"));
    EXPECT_TRUE(phone_home_done);
    // The firmware check follows, on the new controller.
    EXPECT_EQ(count({{"kind", "current_firmware"}}), 1u);
}

TEST_F(PhoneHomeLabTest, SameControllerKeepsTheToken)
{
    use_controller();
    char token[ACCESS_TOKEN_SIZE];
    ASSERT_EQ(get_access_token(token), 1);
    phone_home_call();
    EXPECT_TRUE(logged("phone_home: same controller '" + lab->base_url + "'"));
    EXPECT_FALSE(logged_prefix("phone_home: new cloud_controller"));
    EXPECT_TRUE(phone_home_done);
    ASSERT_EQ(get_access_token(token), 1);
    EXPECT_EQ(tokens(), 1u);
    EXPECT_EQ(count({{"kind", "current_firmware"}}), 1u);
}

TEST_F(PhoneHomeLabTest, NewControllerDropsTheToken)
{
    use_controller();
    char token[ACCESS_TOKEN_SIZE];
    ASSERT_EQ(get_access_token(token), 1);
    std::string other = lab->base_url + "/";
    answer(R"({"cloud_controller":")" + other + "\"}");
    phone_home_call();
    EXPECT_TRUE(logged("phone_home: new cloud_controller = '" + other + "'"));
    EXPECT_EQ(setting("cloud-controller"), other);
    ASSERT_EQ(get_access_token(token), 1);
    EXPECT_EQ(tokens(), 2u);
}

TEST_F(PhoneHomeLabTest, LongControllerIsStoredAndComparedWhole)
{
    developer_build = true; // no firmware check on a controller that is not there
    std::string controller = "https://ctl.example/" + std::string(2048 - 20, 'p');
    ASSERT_EQ(controller.size(), 2048u);
    answer(R"({"cloud_controller":")" + controller + "\"}");
    phone_home_call();
    EXPECT_TRUE(phone_home_done);
    EXPECT_EQ(setting("cloud-controller"), controller);
    EXPECT_EQ(get_cloud_controller(), controller);
    EXPECT_TRUE(logged("phone_home: new cloud_controller = '" + controller + "'"));
    // Asked again, the site names the same controller: it is known as such.
    phone_home_call();
    EXPECT_TRUE(logged("phone_home: same controller '" + controller + "'"));
    EXPECT_EQ(count_logged("phone_home: new cloud_controller = '" + controller + "'"), 1u);
}

TEST_F(PhoneHomeLabTest, LongSiteIsAskedWhole)
{
    // A site address longer than the query used to have room for, with all
    // of the query after it.
    std::string site = lab->base_url + "/" + std::string(2048, 's');
    home_site = site;
    phone_home_call();
    Json q = lab->requests({});
    ASSERT_EQ(json_array_size(q.get()), 1u);
    std::string path = at(q, 0, "path");
    EXPECT_EQ(path, "/" + std::string(2048, 's') + "/api/phone_home");
    EXPECT_NE(at(q, 0, "query").find("&[phone_home]ethaddr=02:00:00:00:00:01"), std::string::npos);
}

TEST_F(PhoneHomeLabTest, RepliesThatCannotBeUsedAreRetried)
{
    answer(R"({"body":{"code":"frozen"}})");
    phone_home_call();
    EXPECT_TRUE(logged("phone_home_call: unknown 'code' element..."));
    EXPECT_TRUE(logged("reply = '" + at(queries(), 0, "reply") + "'"));
    answer(R"({"body":{"cloud_controller":5}})");
    phone_home_call();
    EXPECT_TRUE(logged("Missing or invalid 'cloud_controller' element..."));
    EXPECT_TRUE(logged("reply = '" + at(queries(), 1, "reply") + "'"));
    lab->script(R"({"path":"/api/phone_home","text":"{\"cloud_"})");
    phone_home_call();
    EXPECT_TRUE(logged_prefix("error decoding phone-home data: "));
    // Transport and HTTP failures are left to the HTTP layer.
    lab->script(R"({"path":"/api/phone_home","status":500})");
    size_t lines = main_log().size();
    phone_home_call();
    auto log = main_log();
    for (size_t i = lines; i < log.size(); i++)
        EXPECT_EQ(log[i].find("phone_home"), std::string::npos) << log[i];
    EXPECT_FALSE(phone_home_done);
    EXPECT_EQ(phone_home_count, 4);
    EXPECT_EQ(setting("cloud-controller"), "<none>");
    EXPECT_EQ(count({{"kind", "current_firmware"}}), 0u);
}

TEST_F(PhoneHomeLabTest, FailedFirmwareCheckStartsTheRetries)
{
    lab->script(R"({"path":"/api/current-firmware","body":{}})");
    phone_home_call();
    EXPECT_TRUE(logged("check_updates: missing or invalid 'currentFirmware' object"));
    EXPECT_TRUE(logged("starting deferred_updates"));
    EXPECT_TRUE(phone_home_done);
    // The retry thread asks again at once and is told all is current.
    EXPECT_TRUE(wait_logged("thread_run: thread 'deferred_updates' terminated!"));
    EXPECT_EQ(count({{"kind", "current_firmware"}}), 2u);
}

TEST_F(PhoneHomeLabTest, DeveloperBuildDoesNotCheckFirmware)
{
    developer_build = true;
    phone_home_call();
    EXPECT_TRUE(phone_home_done);
    EXPECT_EQ(count({{"kind", "current_firmware"}}), 0u);
}

// ---- phone_home() ----------------------------------------------------------

TEST_F(PhoneHomeOffLabTest, BootVariableNoStopsEverything)
{
    phone_home();
    EXPECT_TRUE(logged("phone_home: found 'phone_home=NO' in boot env, exiting!"));
    EXPECT_EQ(count({}), 0u);
    EXPECT_TRUE(waits.empty());
    EXPECT_EQ(phone_home_count, 0);
    EXPECT_FALSE(phone_home_done);
    EXPECT_FALSE(logged_prefix("ipaddr="));
}

TEST_F(PhoneHomeOffLabTest, BootVariableNoIsIgnoredWhenDebugging)
{
    debug = 1;
    phone_home();
    EXPECT_FALSE(logged_prefix("phone_home: found 'phone_home="));
    EXPECT_EQ(json_array_size(queries().get()), 1u);
    EXPECT_TRUE(phone_home_done);
}

TEST_F(PhoneHomeLabTest, NoAddressAfterTwelveTriesStillAsks)
{
    mgmt_ifname = missing_if;
    phone_home();
    EXPECT_EQ(waits, std::vector<unsigned int>(12, 10));
    EXPECT_EQ(count_logged("waiting... (err = -1, ipaddr = '')"), 12u);
    EXPECT_TRUE(logged("ipaddr=''"));
    Json q = queries();
    ASSERT_EQ(json_array_size(q.get()), 1u);
    EXPECT_NE(at(q, 0, "query").find("&[phone_home]ipaddr=&"), std::string::npos);
    EXPECT_STREQ(mgmt_ifname, "nosuch0");
    EXPECT_TRUE(phone_home_done);
    EXPECT_FALSE(logged("starting background 'phone_home' thread"));
}

TEST_F(PhoneHomeLabTest, AnAddressAtOnceMeansNoWait)
{
    phone_home();
    EXPECT_TRUE(waits.empty());
    EXPECT_TRUE(logged("ipaddr='127.0.0.1'"));
    EXPECT_EQ(json_array_size(queries().get()), 1u);
}

TEST_F(PhoneHomeLabTest, ControllerFromTheBootEnvironmentSkipsTheQuery)
{
    env_controller = "https://ctl.example";
    phone_home();
    EXPECT_TRUE(logged("phone_home: using controller from bootenv <https://ctl.example>"));
    EXPECT_EQ(setting("cloud-controller"), "https://ctl.example");
    EXPECT_EQ(setting("varnex-initialized"), "yes");
    EXPECT_TRUE(phone_home_done);
    EXPECT_EQ(count({}), 0u);
}

TEST_F(PhoneHomeLabTest, SameControllerFromTheBootEnvironmentChangesNothing)
{
    config_set("system", nullptr, "cloud-controller", "https://ctl.example");
    config_set("system", nullptr, "varnex-initialized", "no");
    env_controller = "https://ctl.example";
    phone_home();
    EXPECT_EQ(setting("varnex-initialized"), "no");
    EXPECT_TRUE(phone_home_done);
    EXPECT_EQ(count({}), 0u);
}

TEST_F(PhoneHomeLabTest, BackgroundLoopRunsUntilAControllerIsKnown)
{
    answer(R"({"code":"unregistered"})");
    std::atomic<bool> answered{false};
    at_wait = [&](size_t n) {
        if (n == 1) {
            answer("{}");
            answered = true;
        }
    };
    phone_home();
    EXPECT_TRUE(logged("starting background 'phone_home' thread"));
    ASSERT_TRUE(wait_for([] { return phone_home_done.load(); }));
    ASSERT_TRUE(wait_for([] {
        std::lock_guard<std::mutex> hold(waits_lock);
        return waits.size() == 2;
    }));
    EXPECT_EQ(waits, (std::vector<unsigned int>{600, 600}));
    EXPECT_EQ(json_array_size(queries().get()), 2u);
    EXPECT_EQ(setting("cloud-controller"), lab->base_url);
}

// ---- states ------------------------------------------------------------------

TEST_F(PhoneHomeLabTest, UnregisteredForgetsTheControllerOnce)
{
    config_set("system", nullptr, "cloud-controller", "https://ctl.example");
    config_set("system", nullptr, "varnex-initialized", "yes");
    answer(R"({"code":"unregistered"})");
    phone_home_call();
    EXPECT_EQ(phone_home_interval, 600);
    EXPECT_EQ(setting("cloud-controller"), "");
    EXPECT_EQ(setting("varnex-initialized"), "no");
    EXPECT_TRUE(
        logged("phone_home_call: in 'unregistered' state, will continue trying every 600 seconds"));
    EXPECT_FALSE(phone_home_done);

    // Again: nothing more happens.
    config_set("system", nullptr, "cloud-controller", "https://other.example");
    phone_home_call();
    EXPECT_EQ(phone_home_interval, 600);
    EXPECT_EQ(setting("cloud-controller"), "https://other.example");
    EXPECT_EQ(
        count_logged(
            "phone_home_call: in 'unregistered' state, will continue trying every 600 seconds"),
        1u);
    EXPECT_EQ(phone_home_count, 2);
}

TEST_F(PhoneHomeLabTest, DecommissionedNewDeviceAsksEveryTenSecondsThenEveryTwoMinutes)
{
    // A device that was never set up, said so explicitly: only the pace changes.
    config_set("system", nullptr, "varnex-initialized", "no");
    ASSERT_EQ(setting("varnex-initialized"), "no");
    answer(R"({"code":"decommissioned"})");
    at_wait = [&](size_t n) {
        if (n == 15)
            answer("{}");
    };
    do_phone_home(nullptr, nullptr, nullptr);
    std::vector<unsigned int> expected = {30};
    expected.insert(expected.end(), 12, 10);
    expected.insert(expected.end(), {120, 120, 120});
    EXPECT_EQ(waits, expected);
    EXPECT_EQ(
        count_logged(
            "phone_home_call: in 'decommissioned' state, will continue trying every 10 seconds"),
        12u);
    EXPECT_EQ(
        count_logged(
            "phone_home_call: in 'decommissioned' state, will continue trying every 120 seconds"),
        1u);
    EXPECT_FALSE(file_exists(root.at("/rw/factory-reset.log")));
    EXPECT_FALSE(logged_prefix("phone_home_call: in 'decommissioned' state, performing"));
    EXPECT_TRUE(phone_home_done);
    EXPECT_EQ(phone_home_count, 15);
}

TEST_F(PhoneHomeLabTest, DecommissionedInitialisedDeviceSoftReset)
{
    config_set("system", nullptr, "varnex-initialized", "yes");
    answer(R"({"code":"decommissioned","reset_mode":"soft"})");
    phone_home_call();
    long soft =
        log_index("phone_home_call: in 'decommissioned' state, performing soft factory-reset "
                  "and reboot...");
    long full = log_index(
        "phone_home_call: in 'decommissioned' state, performing factory-reset and reboot...");
    long unable = log_index("phone_home_call: unable to perform factory-reset!");
    // The soft reset came back, so it failed: the full reset follows it.
    ASSERT_LT(unable, (long)main_log().size());
    EXPECT_LT(soft, full);
    EXPECT_LT(full, unable);
    EXPECT_EQ(lines_of(read_file(root.at("/rw/factory-reset.log"))).size(), 2u);
    EXPECT_EQ(count_logged("phone_home_call: unable to perform factory-reset!"), 1u);
    EXPECT_EQ(phone_home_interval, 10);
    EXPECT_FALSE(phone_home_done);
}

TEST_F(PhoneHomeLabTest, DecommissionedInitialisedDeviceFullReset)
{
    config_set("system", nullptr, "varnex-initialized", "yes");
    answer(R"({"code":"decommissioned"})");
    phone_home_call();
    EXPECT_TRUE(logged(
        "phone_home_call: in 'decommissioned' state, performing factory-reset and reboot..."));
    EXPECT_FALSE(logged("phone_home_call: invalid 'reset-mode' element"));
    EXPECT_TRUE(file_exists(root.at("/rw/factory-reset.log")));
    EXPECT_TRUE(logged("phone_home_call: unable to perform factory-reset!"));
}

TEST_F(PhoneHomeLabTest, DecommissionedWithAResetModeThatIsNoTextResetsFully)
{
    config_set("system", nullptr, "varnex-initialized", "yes");
    answer(R"({"body":{"code":"decommissioned","reset-mode":1}})");
    phone_home_call();
    long invalid = log_index("phone_home_call: invalid 'reset-mode' element");
    long full = log_index(
        "phone_home_call: in 'decommissioned' state, performing factory-reset and reboot...");
    long unable = log_index("phone_home_call: unable to perform factory-reset!");
    ASSERT_LT(unable, (long)main_log().size());
    EXPECT_LT(invalid, full);
    EXPECT_LT(full, unable);
}

// ---- the clock -----------------------------------------------------------------

TEST_F(PhoneHomeLabTest, ClockIsSetOnceFromTheReply)
{
    SyslogSink sink(root);
    answer(R"({"timeofday":1700000000})");
    phone_home_call();
    ASSERT_EQ(clock_calls.size(), 1u);
    EXPECT_EQ(clock_calls[0].tv_sec, 1700000000);
    EXPECT_EQ(clock_calls[0].tv_usec, 0);
    time_t t = 1700000000;
    struct tm tm;
    char when[64];
    strftime(when, sizeof(when), "%Y-%m-%d %H:%M:%S", localtime_r(&t, &tm));
    std::string line = sink.wait_for("set time-of-day");
    EXPECT_NE(line.find(std::string(": set time-of-day to ") + when + " UTC (1700000000)"),
              std::string::npos)
        << line;
    EXPECT_EQ(line.rfind("<14>", 0), 0u) << line;

    phone_home_done = false;
    phone_home_call();
    EXPECT_EQ(clock_calls.size(), 1u);
}

TEST_F(PhoneHomeLabTest, ClockIsSetTo2040Exactly)
{
    setenv("TZ", "UTC", 1);
    tzset();
    SyslogSink sink(root);
    // 2040-02-29T12:34:56Z: past what 32 bits of seconds can hold.
    answer(R"({"timeofday":2214131696})");
    phone_home_call();
    ASSERT_EQ(clock_calls.size(), 1u);
    EXPECT_EQ((long long)clock_calls[0].tv_sec, 2214131696LL);
    EXPECT_EQ(clock_calls[0].tv_usec, 0);
    std::string line = sink.wait_for("set time-of-day");
    EXPECT_NE(line.find(": set time-of-day to 2040-02-29 12:34:56 UTC (2214131696)"),
              std::string::npos)
        << line;
}

TEST_F(PhoneHomeLabTest, ClockLeftAloneWhenSntpSetIt)
{
    write_file(root.at("/tmp/time_set"), "1\n");
    answer(R"({"timeofday":1700000000})");
    phone_home_call();
    EXPECT_TRUE(clock_calls.empty());
    EXPECT_TRUE(phone_home_done);
}

TEST_F(PhoneHomeLabTest, RefusedClockIsLoggedAndTriedAgain)
{
    clock_result = -1;
    answer(R"({"timeofday":1700000000})");
    phone_home_call();
    EXPECT_TRUE(logged("phone_home_call: settimeofday failed, (Operation not permitted)"));
    phone_home_call();
    EXPECT_EQ(clock_calls.size(), 2u);
}

TEST_F(PhoneHomeLabTest, TimeOfDayThatIsNoNumber)
{
    answer(R"({"timeofday":"noon"})");
    phone_home_call();
    EXPECT_TRUE(logged("phone_home_call: invalid 'timeofday' element"));
    EXPECT_TRUE(clock_calls.empty());
    EXPECT_TRUE(phone_home_done);
}

TEST_F(PhoneHomeLabTest, DeeplyNestedReplyIsADecodingError)
{
    const std::string deep = std::string(3000, '[') + std::string(3000, ']');
    lab->script(R"({"path":"/api/phone_home","text":")" + deep + "\"}");
    phone_home_call();
    EXPECT_TRUE(logged("error decoding phone-home data: maximum parsing depth reached"));
}
