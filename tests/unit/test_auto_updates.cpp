// Firmware updates against the lab controller: the current-firmware query,
// the download, the installer of the device root, the retry thread's delays
// and set.firmware.
#include "agent_fixture.h"
#include "auto-updates.h"
#include "icos-openapi.h"

#include <atomic>
#include <mutex>
#include <unistd.h>

using namespace agent_test;

namespace
{

class UpdatesTest : public AgentTest
{
  protected:
    void SetUp() override
    {
        AgentTest::SetUp();
        {
            std::lock_guard<std::mutex> hold(waits_lock);
            waits.clear();
        }
        at_wait = nullptr;
        developer_build = false;
        updates_sleep = record_wait;
        // The simulated switch does not go down on a reload: no minute's wait.
        icos_openapi_sleep = no_sleep;
        if (lab)
            lab->add_link("/response/t", "response");
    }

    // The controller's answer when the device runs the firmware on offer.
    void up_to_date() { controller->answer("/current-firmware", 200, R"({"currentFirmware":{}})"); }
    std::vector<CannedController::Request> checks()
    {
        return controller->requests("/current-firmware");
    }

    // A tar archive made by the system's tar, inside this test's own root
    // (tests run side by side); its bytes.
    std::string make_image()
    {
        std::string dir = root.at("/image-src");
        std::string cmd = "mkdir -p '" + dir + "' && echo firmware > '" + dir +
                          "/fw.bin' && tar -C '" + dir + "' -cf '" + dir + "/image.tar' fw.bin";
        EXPECT_EQ(system(cmd.c_str()), 0);
        return read_file(dir + "/image.tar");
    }
    void offer(const std::string &image)
    {
        std::string path = root.at("/image.b64");
        write_file(root.at("/image.bin"), image);
        std::string cmd = "base64 -w0 '" + root.at("/image.bin") + "' > '" + path + "'";
        ASSERT_EQ(system(cmd.c_str()), 0);
        lab->set_firmware(R"({"version":"2.0.0.0","image_base64":")" + read_file(path) + "\"}");
    }
    void fail_installer(int status)
    {
        write_file(root.at("/etc/varnex-updates.fail"), std::to_string(status) + "\n");
    }
    std::string first_query()
    {
        if (lab)
            return at(lab->requests({{"kind", "current_firmware"}}), 0, "query");
        auto c = checks();
        return c.empty() ? "<no query>" : c[0].url.substr(c[0].url.find('?') + 1);
    }
    std::vector<std::string> installs() { return lines_of(read_file(root.at("/rw/updates.log"))); }
    void run_set_firmware(const char *command)
    {
        cmd_set_firmware(strdup("set.firmware"), json_loads(command, 0, nullptr),
                         strdup("/response/t"));
    }
};

// Headers on the wire and the image download need the real server.
class UpdatesLabTest : public UpdatesTest
{
  protected:
    bool with_lab() override { return true; }
};

} // namespace

TEST_F(UpdatesTest, RegistersSetFirmware)
{
    auto_updates();
    EXPECT_TRUE(logged("registered 'set.firmware' command handler"));
}

TEST_F(UpdatesLabTest, UpToDateMeansNoDownload)
{
    use_controller();
    EXPECT_EQ(check_updates(), 0);
    EXPECT_EQ(count({{"kind", "current_firmware"}}), 1u);
    EXPECT_EQ(first_query(), "serial_number=VX0123456789&firmware_version=1.0.0.1");
    // This query goes without a token.
    Json q = lab->requests({{"kind", "current_firmware"}});
    EXPECT_EQ(json_str(json_object_get(item(q, 0), "headers"), "authorization"), "");
    EXPECT_EQ(count({{"kind", "token"}}), 0u);
    EXPECT_EQ(count({{"kind", "firmware_image"}}), 0u);
    EXPECT_FALSE(file_exists(root.at("/tmp/updates.tar")));
}

TEST_F(UpdatesTest, BootBankOneSendsTheSecondaryVersion)
{
    use_controller();
    snprintf(env_boot, sizeof(env_boot), "1");
    up_to_date();
    EXPECT_EQ(check_updates(), 0);
    EXPECT_EQ(first_query(), "serial_number=VX0123456789&firmware_version=1.0.0.2");
}

TEST_F(UpdatesTest, NoControllerIsAFailureWithoutARequest)
{
    EXPECT_EQ(check_updates(), -1);
    EXPECT_EQ(controller->requests().size(), 0u);
}

TEST_F(UpdatesTest, RepliesThatCannotBeUsed)
{
    use_controller();
    controller->answer("/current-firmware", 200, R"({"firmware":{}})");
    EXPECT_EQ(check_updates(), -1);
    EXPECT_TRUE(logged("check_updates: missing or invalid 'currentFirmware' object"));

    controller->answer("/current-firmware", 200, R"({"currentFirmware":"2.0"})");
    EXPECT_EQ(check_updates(), -1);
    EXPECT_EQ(count_logged("check_updates: missing or invalid 'currentFirmware' object"), 2u);

    controller->answer("/current-firmware", 200, R"({"currentFirmware":)");
    EXPECT_EQ(check_updates(), -1);
    EXPECT_TRUE(logged_prefix("check_updates: error decoding auto-updates data: "));

    controller->answer("/current-firmware", 200, R"({"currentFirmware":{"download":{}}})");
    EXPECT_EQ(check_updates(), -1);
    EXPECT_TRUE(logged("check_updates: missing or invalid 'href' element in 'download' object"));

    // A download that is not an object: nothing to fetch.
    controller->answer("/current-firmware", 200, R"({"currentFirmware":{"download":"x"}})");
    EXPECT_EQ(check_updates(), 0);

    // An HTTP failure comes back as it is.
    controller->answer("/current-firmware", 503, "");
    EXPECT_EQ(check_updates(), 503);
    // Only the six checks: no image was asked for.
    EXPECT_EQ(controller->requests().size(), 6u);
}

TEST_F(UpdatesLabTest, OfferedImageIsInstalledAndTheSwitchReloaded)
{
    use_controller();
    std::string image = make_image();
    offer(image);
    // The reload returns here (the simulated switch stays up), so the update
    // has not taken effect: a failure, never "up to date".
    EXPECT_EQ(check_updates(), -1);
    // The line before has no newline of its own, so this one follows it.
    EXPECT_NE(read_file(root.at("/rw/orkad.log"))
                  .find("check_updates: system did not restart after the update (result = 0)\n"),
              std::string::npos);
    std::string url = json_str(lab->call("GET", "/firmware").get(), "url");
    EXPECT_TRUE(logged("check_updates: downloading new firmware, url = '" + url + "'"));
    EXPECT_TRUE(logged("check_updates: running /usr/sbin/varnex-updates /tmp/updates.tar"));
    // The line has no newline of its own.
    EXPECT_TRUE(logged_prefix("check_updates: update successfully completed, restarting system."));
    EXPECT_TRUE(switch_reloaded());
    EXPECT_EQ(read_file(root.at("/tmp/updates.tar")), image);
    auto runs = installs();
    ASSERT_EQ(runs.size(), 1u);
    std::string arg = " " + root.at("/tmp/updates.tar");
    EXPECT_EQ(runs[0].substr(runs[0].size() - arg.size()), arg);
}

TEST_F(UpdatesLabTest, FailedInstallerGivesItsStatus)
{
    use_controller();
    offer(make_image());
    fail_installer(7);
    EXPECT_EQ(check_updates(), 7);
    EXPECT_TRUE(logged("check_updates: varnex-updates /tmp/updates.tar failed with error code 7"));
    EXPECT_FALSE(switch_reloaded());
    EXPECT_FALSE(logged_prefix("check_updates: update successfully completed"));
    // The image stays; the installer's output is kept.
    EXPECT_TRUE(file_exists(root.at("/tmp/updates.tar")));
    EXPECT_NE(read_file(root.at("/rw/varnex-updates.log")).find("failing with status 7"),
              std::string::npos);
    EXPECT_EQ(installs().size(), 1u);
}

TEST_F(UpdatesLabTest, ImageThatIsNoArchiveIsRefusedByTheInstaller)
{
    use_controller();
    offer("not an archive");
    EXPECT_EQ(check_updates(), 3);
    EXPECT_TRUE(logged("check_updates: varnex-updates /tmp/updates.tar failed with error code 3"));
    EXPECT_TRUE(installs().empty());
    EXPECT_FALSE(switch_reloaded());
}

TEST_F(UpdatesTest, RetryDelaysGrowByFiveMinutesUpToAnHour)
{
    // No controller: every check fails until the fourteenth wait brings one.
    at_wait = [this](size_t n) {
        EXPECT_TRUE(deferred_running);
        if (n == 14) {
            up_to_date();
            use_controller();
        }
    };
    deferred_updates(&deferred_running, nullptr, nullptr);
    std::vector<unsigned int> minutes;
    for (unsigned int s : waits)
        minutes.push_back(s / 60);
    EXPECT_EQ(minutes,
              (std::vector<unsigned int>{5, 10, 15, 20, 25, 30, 35, 40, 45, 50, 55, 60, 60, 60}));
    for (unsigned int s : waits)
        EXPECT_EQ(s % 60, 0u);
    EXPECT_FALSE(deferred_running);
    EXPECT_EQ(checks().size(), 1u);
}

TEST_F(UpdatesTest, RetryDelaysAcross2038AreTheSameAsBefore)
{
    setenv("TZ", "UTC", 1);
    tzset();
    // Each failed check is logged; the clock moves on by each wait, from
    // 2038-01-19T00:00:00Z, so the retries cross the end of 32-bit time.
    use_controller();
    // Fourteen replies that cannot be used, then the lab's own: up to date.
    controller->answer("/current-firmware", 200, R"({"firmware":{}})", 14);
    up_to_date();
    log_clock = fake_time;
    const time_t start = Y2038_0300 - 3 * 3600;
    fake_now = start;
    at_wait = [](size_t n) { fake_now += waits[n - 1]; };
    deferred_updates(&deferred_running, nullptr, nullptr);
    log_clock = time;
    std::vector<unsigned int> minutes;
    for (unsigned int s : waits)
        minutes.push_back(s / 60);
    EXPECT_EQ(minutes,
              (std::vector<unsigned int>{5, 10, 15, 20, 25, 30, 35, 40, 45, 50, 55, 60, 60, 60}));
    // Every failure stamped with the moment it happened: before, across and
    // after 03:14:08.
    std::vector<std::string> stamps;
    for (const std::string &l : lines_of(read_file(root.at("/rw/orkad.log"))))
        if (l.find("check_updates: missing or invalid 'currentFirmware' object") !=
            std::string::npos)
            stamps.push_back(l.substr(l.find(' ') + 1, 19));
    std::vector<std::string> want;
    time_t t = start;
    for (size_t i = 0; i < 14; i++) {
        struct tm tm;
        char s[32];
        strftime(s, sizeof(s), "%Y.%m.%d %H:%M:%S", gmtime_r(&t, &tm));
        want.push_back(s);
        t += waits[i];
    }
    EXPECT_EQ(stamps, want);
    EXPECT_EQ(want[9], "2038.01.19 03:45:00");
    EXPECT_EQ(want[13], "2038.01.19 07:30:00");
    EXPECT_FALSE(deferred_running);
}

TEST_F(UpdatesLabTest, RetriesGoOnWhenTheRestartAfterAnInstallReturns)
{
    use_controller();
    offer(make_image());
    // The first retry finds the device current at last.
    at_wait = [this](size_t n) {
        if (n == 1)
            lab->set_firmware(R"({"version":"2.0.0.0","offer":"never"})");
    };
    deferred_updates(&deferred_running, nullptr, nullptr);
    EXPECT_EQ(waits, (std::vector<unsigned int>{300}));
    EXPECT_EQ(count({{"kind", "current_firmware"}}), 2u);
    EXPECT_EQ(installs().size(), 1u);
    EXPECT_TRUE(switch_reloaded());
    EXPECT_FALSE(deferred_running);
}

TEST_F(UpdatesLabTest, SecondStartOnlyLogs)
{
    std::atomic<bool> release{false};
    at_wait = [&](size_t) {
        while (!release)
            usleep(10000);
    };
    const int slots = next_thread;
    start_deferred_updates();
    ASSERT_TRUE(wait_for([] { return deferred_running.load(); }));
    ASSERT_TRUE(wait_for([] {
        std::lock_guard<std::mutex> hold(waits_lock);
        return !waits.empty();
    }));
    start_deferred_updates();
    EXPECT_TRUE(logged("deferred_updates already running"));
    EXPECT_EQ(count_logged("starting deferred_updates"), 1u);
    EXPECT_EQ(next_thread, slots + 1); // the one retry thread

    use_controller();
    release = true;
    EXPECT_TRUE(wait_for([] { return !deferred_running.load(); }));
    EXPECT_TRUE(wait_logged("thread_run: thread 'deferred_updates' terminated!"));
    // Ended: a new start makes a new thread.
    at_wait = nullptr;
    start_deferred_updates();
    EXPECT_EQ(count_logged("starting deferred_updates"), 2u);
    // Let it finish before the test's controller goes away.
    EXPECT_TRUE(wait_for(
        [this] { return count_logged("thread_run: thread 'deferred_updates' terminated!") == 2; }));
}

// set.firmware on the command runner and a phone-home on the heartbeat thread
// may both find the controller behind and start the retry at the same moment.
TEST_F(UpdatesLabTest, StartsAtTheSameMomentMakeOneRetryThread)
{
    std::atomic<bool> release{false};
    at_wait = [&](size_t) {
        while (!release)
            usleep(10000);
    };
    std::atomic<bool> go{false};
    const int slots = next_thread;
    std::vector<std::thread> starters;
    for (int i = 0; i < 4; i++)
        starters.emplace_back([&go] {
            while (!go)
                std::this_thread::yield();
            start_deferred_updates();
        });
    go = true;
    for (auto &t : starters)
        t.join();
    EXPECT_EQ(count_logged("starting deferred_updates"), 1u);
    EXPECT_EQ(count_logged("deferred_updates already running"), 3u);
    EXPECT_EQ(next_thread, slots + 1); // one retry thread for the four starts
    EXPECT_TRUE(deferred_running);

    use_controller();
    release = true;
    EXPECT_TRUE(wait_for([] { return !deferred_running.load(); }));
    EXPECT_TRUE(wait_logged("thread_run: thread 'deferred_updates' terminated!"));
}

TEST_F(UpdatesTest, SetFirmwareAnswersFirstThenChecks)
{
    use_controller();
    up_to_date();
    run_set_firmware(R"({"action":"set","context":"firmware","id":"fw-1"})");
    auto res = controller->wait_answers("fw-1");
    ASSERT_EQ(res.size(), 1u);
    EXPECT_EQ(res[0].code, 0);
    EXPECT_EQ(res[0].message, "");
    ASSERT_EQ(checks().size(), 1u);
    // The answer came in before the check.
    std::vector<std::string> order;
    for (auto &r : controller->requests())
        if (r.path != "/oauth/token")
            order.push_back(r.path);
    EXPECT_EQ(order, (std::vector<std::string>{"/response/t", "/current-firmware"}));
    EXPECT_FALSE(logged("starting deferred_updates"));
}

TEST_F(UpdatesTest, SetFirmwareWithoutIdChecksNothing)
{
    use_controller();
    run_set_firmware(R"({"action":"set","context":"firmware"})");
    auto res = controller->wait_answers();
    ASSERT_EQ(res.size(), 1u);
    EXPECT_EQ(res[0].code, -1);
    EXPECT_EQ(res[0].message, "missing or invalid 'id' element in command");
    EXPECT_TRUE(logged("set.firmware: missing or invalid 'id' element in command"));
    EXPECT_EQ(checks().size(), 0u);
}

TEST_F(UpdatesTest, SetFirmwareStartsTheRetriesWhenTheCheckFails)
{
    use_controller();
    // Three failing answers: the command's own check, then the retry
    // thread's first two; its third check finds the firmware up to date.
    controller->answer("/current-firmware", 200, "{}", 3);
    up_to_date();
    run_set_firmware(R"({"action":"set","context":"firmware","id":"fw-2"})");
    EXPECT_TRUE(logged("check_updates: missing or invalid 'currentFirmware' object"));
    EXPECT_TRUE(logged("starting deferred_updates"));
    ASSERT_TRUE(wait_for([] { return !deferred_running.load(); }));
    // Each failed retry waits, five minutes more each time; the success
    // ends the thread without a wait.
    {
        std::lock_guard<std::mutex> hold(waits_lock);
        EXPECT_EQ(waits, (std::vector<unsigned int>{300, 600}));
    }
    EXPECT_EQ(checks().size(), 4u);
}

TEST_F(UpdatesTest, DeveloperBuildNeverUpdates)
{
    use_controller();
    developer_build = true;
    const int slots = next_thread;
    run_set_firmware(R"({"action":"set","context":"firmware","id":"fw-3"})");
    auto res = controller->wait_answers("fw-3");
    ASSERT_EQ(res.size(), 1u);
    EXPECT_EQ(res[0].code, 0);
    // The handler has returned and started no thread: nothing is left that
    // could still ask.
    EXPECT_EQ(next_thread, slots);
    EXPECT_FALSE(deferred_running);
    EXPECT_EQ(checks().size(), 0u);
}

TEST_F(UpdatesTest, DeeplyNestedReplyIsADecodingError)
{
    use_controller();
    const std::string deep = std::string(3000, '{') + std::string(3000, '}');
    controller->answer("/current-firmware", 200, deep);
    EXPECT_EQ(check_updates(), -1);
    EXPECT_TRUE(logged("check_updates: error decoding auto-updates data: maximum parsing depth "
                       "reached"));
}
