// Helpers shared by the unit tests.
#pragma once

#include <ctime>
#include <functional>
#include <gtest/gtest.h>
#include <sys/types.h>
#include <string>
#include <vector>

namespace testkit
{

// A fresh device root in a temporary folder, with ORKAD_ROOT pointing at it
// for as long as the object lives.
class DeviceRoot
{
  public:
    DeviceRoot();
    ~DeviceRoot();
    const std::string &path() const { return root_; }
    std::string at(const std::string &device_path) const { return root_ + device_path; }
    // Fills the folder the way the lab does for a switch (lab/devroot.py:
    // the SQL scripts, the boot environment, the device tools, the sample
    // switch), with that script's options, e.g. {"--env", "heartbeat=30"}.
    // Run again, it builds the root anew. Whether it worked.
    bool build(const std::vector<std::string> &args = {}) const;

  private:
    std::string root_;
};

std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &text);
bool file_exists(const std::string &path);
long file_size(const std::string &path);
std::vector<std::string> lines_of(const std::string &text);
// Lines of a log file with their "index date time " prefix taken off.
std::vector<std::string> log_messages(const std::string &path);
// Whether the main log ($ORKAD_ROOT/rw/orkad.log) has this message.
bool logged(const DeviceRoot &root, const std::string &line);
// Polls fn every 10 ms until it holds or timeout_ms have passed; whether it
// held.
bool wait_for(const std::function<bool()> &fn, int timeout_ms = 10000);
// Whether thread `tid` of this process is asleep in the kernel (a lock, a
// condition, a blocking call): the proof that a thread the test started has
// got as far as a wait it should be held in.
bool thread_asleep(pid_t tid);

// A device root with the main log open: where the tests of the base's
// modules start, and the lines they look for in that log.
class LoggedTest : public ::testing::Test
{
  protected:
    DeviceRoot root;
    void SetUp() override;
    std::string log_text() const;
    // The main log's messages, without their "index date time " prefix.
    std::vector<std::string> messages() const;
    std::vector<std::string> main_log() const { return messages(); }
    // How often exactly this message was logged.
    int count(const std::string &line) const;
    bool logged(const std::string &line) const { return count(line) > 0; }
    bool wait_logged(const std::string &line) const;
};

// LoggedTest on a device root built the way the lab builds a switch's
// (DeviceRoot::build).
class DeviceTest : public LoggedTest
{
  protected:
    void SetUp() override;
};

// LoggedTest with the signal table made too, before any thread, as in the
// daemon.
class SignalTest : public LoggedTest
{
  protected:
    void SetUp() override;
};

// thread_init for a test: the work pool and its workers are made once per
// process. A worker waits on its own pool's queue for ever, so a pool per
// test would fill the thread table when one process runs every test. Later
// calls put the workers' SIGUSR1 dump back into the signal table the test
// has just made, as thread_init would.
void thread_init_once();

// A wall clock the test sets, for the modules' time seams (auth_time,
// log_clock, stats_time): fake_time answers fake_now.
extern time_t fake_now;
time_t fake_time(time_t *now);

// Moments around the end of 32-bit time (2038-01-19T03:14:07Z is its last
// second). Cast, not converted: on a target whose time_t is still 32 bits
// they wrap, and the tests that use them fail there as they should.
constexpr time_t Y2038_0300 = static_cast<time_t>(2147482800LL);    // 2038-01-19T03:00:00Z
constexpr time_t Y2038_LAST = static_cast<time_t>(2147483647LL);    // 2038-01-19T03:14:07Z
constexpr time_t Y2038_WRAP = static_cast<time_t>(2147483648LL);    // 2038-01-19T03:14:08Z
constexpr time_t Y2038_0400 = static_cast<time_t>(2147486400LL);    // 2038-01-19T04:00:00Z
constexpr time_t LEAP_DAY_2040 = static_cast<time_t>(2214131696LL); // 2040-02-29T12:34:56Z

// Listens on $ORKAD_ROOT/dev/log the way the system logger would.
class SyslogSink
{
  public:
    explicit SyslogSink(const DeviceRoot &root);
    ~SyslogSink();
    // The next datagram, or "" when none comes within the timeout.
    std::string next(int timeout_ms = 2000);
    // Waits for a datagram containing text; returns it or "".
    std::string wait_for(const std::string &text, int timeout_ms = 5000);

  private:
    int fd_ = -1;
};

// The simulated switch's journal in a device root: one JSON object per line,
// one line per write the agent made to the switch, oldest first.
std::vector<std::string> journal_lines(const DeviceRoot &root);
// The "call" member of each line ("<bad line>" for a line that does not
// parse).
std::vector<std::string> journal_calls(const DeviceRoot &root);
// The lines whose "call" is call.
std::vector<std::string> journal_lines_of(const DeviceRoot &root, const std::string &call);
// Member `member` of line i as text: a string as it is, an integer in
// decimal, "<absent>" when missing or of another type, "<no line>" past the
// end.
std::string journal_value(const DeviceRoot &root, size_t i, const char *member);

// A datagram socket bound where systemd listens for a service's notices:
// a path, or an abstract name written with a leading '@'.
class NotifySocket
{
  public:
    explicit NotifySocket(const std::string &address);
    ~NotifySocket();
    bool bound() const { return bound_; }
    // The next notice, or "" when none comes within the timeout.
    std::string next(int timeout_ms = 2000);

  private:
    int fd_ = -1;
    bool bound_ = false;
};

} // namespace testkit

// ---- the lab controller -------------------------------------------------

#include "http.h"
#include "raii.h"

#include <jansson.h>
#include <memory>
#include <mutex>
#include <sys/types.h>
#include <utility>

namespace testkit
{

// An owned jansson reference: the daemon's own owner.
using Json = json_ptr;

// Parses JSON text; throws std::runtime_error when it does not parse.
Json json_parse(const std::string &text);
// Compact text of a JSON value ("" for null).
std::string json_text(const json_t *value);
// A string member of an object, or "" when it is missing or not a string.
std::string json_str(const json_t *object, const char *key);

// Bytes the process has allocated and not yet released, from the C
// library's heap or, in a sanitizer build, from the sanitizer's allocator.
size_t heap_in_use();

// The lab controller (lab/controller.py) as a subprocess serving HTTPS on
// 127.0.0.1 with its CA written into the device root's /etc/ca-bundle.pem,
// its control API on a loopback TCP port. Stopped by the destructor.
class Lab
{
  public:
    using Query = std::vector<std::pair<std::string, std::string>>;

    explicit Lab(const DeviceRoot &root, const std::vector<std::string> &extra_args = {},
                 int ready_timeout_ms = 20000);
    ~Lab();
    Lab(const Lab &) = delete;
    Lab &operator=(const Lab &) = delete;

    std::string base_url;    // https://127.0.0.1:<port>
    std::string control_url; // http://127.0.0.1:<port>
    std::string state_dir;

    // One control call; the reply's JSON. Throws when the call fails or the
    // lab answers with an error status.
    Json call(const std::string &method, const std::string &path, const std::string &body = "",
              const Query &query = {}, long timeout_s = 15);

    // Queues one command object (JSON text); returns its id.
    std::string queue_command(const std::string &command);
    // Adds a script (JSON text of one script, see docs/lab-api.md).
    void script(const std::string &script_json);
    // Token settings: {"expires_in":..., "token_length":..., "extra":{...}, "revoke":...}.
    void set_token(const std::string &settings);
    // Controller settings (POST /config).
    void config(const std::string &settings);
    // Adds a controller link, e.g. ("/response/t", "response").
    void add_link(const std::string &path, const std::string &kind);
    // Sets the firmware on offer (POST /firmware).
    void set_firmware(const std::string &settings);

    // Request records matching the filters (path, kind, method, ...), as a
    // JSON array.
    Json requests(const Query &filters = {});
    // Waits up to timeout_s until `count` requests match; the array found.
    Json wait_requests(const Query &filters, int count = 1, double timeout_s = 10);
    // Result records (filters command_id, serial, since), as a JSON array.
    Json results(const Query &filters = {});
    Json wait_results(const Query &filters, int count = 1, double timeout_s = 10);
    // Tokens issued so far, as a JSON array.
    Json tokens();

    // Output of the controller process (for failure messages).
    std::string output() const;

  private:
    pid_t pid_ = -1;
    void stop();
};

// A controller inside the test process: while it lives, every request the
// agent's HTTP client makes (GET, POST, PUT; not the multipart upload) is
// answered here through http_exchange instead of going out. Answers come
// from a queue the test fills per path; a path with nothing queued gets
// 200 and "{}", the token path a fresh token. Every request is recorded.
// For tests that need a canned answer and not TLS, HTTP or a real server.
class CannedController
{
  public:
    // Where the agent is told its controller is; never resolved.
    static constexpr const char *base_url = "https://controller.invalid";

    struct Request {
        std::string url;
        std::string path; // after base_url + "/api", without the query
        std::string body;
        double time = 0; // when it came, seconds since the epoch
        long status = 0; // what it was answered (0: the transfer failed)
    };
    // One command answer the agent posted ({"response":[...]}).
    struct Answer {
        std::string path;
        std::string id;
        int code = 0;
        std::string message;
        std::string data; // compact JSON text of "data", "" when absent
        double time = 0;
    };

    CannedController();
    ~CannedController();
    CannedController(const CannedController &) = delete;
    CannedController &operator=(const CannedController &) = delete;

    // The next `times` requests to path get this status and body; status 0
    // stands for a transfer that failed (no answer at all).
    void answer(const std::string &path, long status, const std::string &body = "{}",
                int times = 1);

    // Requests so far whose path starts with prefix ("" for all).
    std::vector<Request> requests(const std::string &prefix = "") const;
    // Waits until `count` of them came; those found.
    std::vector<Request> wait_requests(const std::string &prefix, size_t count = 1,
                                       int timeout_ms = 10000) const;
    // Command answers the controller took (answered 2xx) so far: all of
    // them, or those for exactly this id.
    std::vector<Answer> answers() const;
    std::vector<Answer> answers(const std::string &id) const;
    // Waits until `count` of them came; those found.
    std::vector<Answer> wait_answers(size_t count = 1, int timeout_ms = 10000) const;
    std::vector<Answer> wait_answers(const std::string &id, size_t count = 1,
                                     int timeout_ms = 10000) const;

  private:
    struct Canned {
        std::string path;
        long status;
        std::string body;
    };
    static int exchange(const char *url, const char *data, int length, reply *r);
    int serve(const char *url, const char *data, int length, reply *r);
    std::vector<Answer> answers(const std::string *id) const;
    std::vector<Answer> wait_answers(const std::string *id, size_t count, int timeout_ms) const;
    mutable std::mutex lock_;
    std::vector<Canned> queue_;
    std::vector<Request> requests_;
};

} // namespace testkit
