#include "health.h"

#include "db.h"
#include "devroot.h"
#include "heartbeat.h"
#include "listener.h"
#include "log.h"
#include "logging.h"
#include "mgmtvpn.h"
#include "netutils.h"
#include "orkad.h"
#include "raii.h"
#include "signals.h"
#include "stats.h"
#include "status.h"

#include <atomic>
#include <climits>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <mutex>
#include <optional>
#include <sys/un.h>
#include <unistd.h>

time_t (*health_time)(time_t *now) = time;

namespace
{

// A result nobody has seen yet: null in the answer.
constexpr int NO_RESULT = INT_MIN;
constexpr int CALLS = static_cast<int>(controller_call::token) + 1;

// What became of the requests of one kind. Each is written by whichever
// thread made the request and read by the listener; none depends on another's
// order, so relaxed words do.
struct call_figures {
    std::atomic<int64_t> last{0}; // 0: never
    std::atomic<int> result{NO_RESULT};
    std::atomic<int64_t> last_ok{0};
    std::atomic<uint64_t> ok{0};
    std::atomic<uint64_t> failed{0};
    std::atomic<int> failures{0}; // consecutive
};

call_figures calls[CALLS];

std::atomic<int64_t> started{0};
std::atomic<int64_t> started_mono{-1};
std::atomic<int> phone_state{static_cast<int>(phone_home_state::idle)};
std::atomic<int64_t> phone_last{0};
std::atomic<int> phone_result{NO_RESULT};
std::atomic<bool> token_held{false};
std::atomic<int64_t> token_expires{0};
std::atomic<bool> vpn_started{false};

// The few texts: written seldom (a new controller, a firmware check), copied
// out under this lock, never held across anything else.
std::mutex text_lock;
std::string known_url;
controller_source source = controller_source::none;
std::string firmware_running;
std::optional<std::string> firmware_pending;

int64_t now(void)
{
    return (int64_t)health_time(nullptr);
}

int64_t monotonic_seconds(void)
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (int64_t)ts.tv_sec;
}

json_t *time_or_null(int64_t t)
{
    return t != 0 ? json_integer((json_int_t)t) : json_null();
}

json_t *result_or_null(int result)
{
    return result != NO_RESULT ? json_integer(result) : json_null();
}

json_t *text_or_null(const std::string &text)
{
    return text.empty() ? json_null() : json_string(text.c_str());
}

// The answer's name of an enum value: names[] follows the enum's order;
// a value out of its range gets the first.
template <typename E, size_t N> const char *name_of(E value, const char *const (&names)[N])
{
    auto i = static_cast<size_t>(value);
    return i < N ? names[i] : names[0];
}

// Null for none: the answer says null.
const char *const source_names[] = {nullptr, "phone-home", "boot", "site", "stored"};
const char *const phone_state_names[] = {"idle", "asking", "done", "failed", "skipped"};
static_assert(std::size(source_names) == static_cast<size_t>(controller_source::stored) + 1);
static_assert(std::size(phone_state_names) == static_cast<size_t>(phone_home_state::skipped) + 1);

const call_figures &of(controller_call call)
{
    return calls[static_cast<int>(call)];
}

// A stream has failed while its last post failed; the next good one clears
// it.
bool failing(const call_figures &f)
{
    return f.failures.load(std::memory_order_relaxed) > 0;
}

json_t *stream_object(const stream_record &stream, const call_figures &f)
{
    json_t *o = json_object();
    if (o == nullptr)
        return nullptr;
    json_object_set_new(o, "enabled", json_boolean(stream.enabled.load()));
    json_object_set_new(o, "interval", json_integer(stream.interval.load()));
    json_object_set_new(o, "last", time_or_null(f.last.load(std::memory_order_relaxed)));
    json_object_set_new(o, "result", result_or_null(f.result.load(std::memory_order_relaxed)));
    json_object_set_new(o, "posted",
                        json_integer((json_int_t)f.ok.load(std::memory_order_relaxed)));
    json_object_set_new(o, "failed",
                        json_integer((json_int_t)f.failed.load(std::memory_order_relaxed)));
    return o;
}

// The reply path of an event's params, or null (logged) when it is not one
// we can answer to: an absolute path that fits a Unix socket address, here
// and under the device root.
const char *reply_path(const char *event, json_t *params)
{
    json_t *reply = json_object_get(params, "reply");
    const char *path = json_is_string(reply) ? json_string_value(reply) : nullptr;
    char mapped[1024];
    if (path == nullptr || path[0] != '/' || strlen(path) != json_string_length(reply) ||
        strlen(path) >= sizeof(((struct sockaddr_un *)nullptr)->sun_path) ||
        devroot_path(path, mapped, sizeof(mapped)) == nullptr ||
        strlen(mapped) >= sizeof(((struct sockaddr_un *)nullptr)->sun_path)) {
        log_fprint(orkad_log, "%s: bad 'reply' parameter\n", event);
        return nullptr;
    }
    return path;
}

void send_answer(const char *event, const char *path, const json_ptr &answer)
{
    malloc_ptr<char> text(answer ? json_dumps(answer.get(), JSON_COMPACT | JSON_PRESERVE_ORDER)
                                 : nullptr);
    if (!text) {
        log_fprint(orkad_log, "%s: cannot build the answer\n", event);
        return;
    }
    listener_response(path, text.get(), (int)strlen(text.get()));
}

// Positions of the debug log around one run of the dump handlers.
struct dump_marks {
    long from = 0, to = 0;
    uint64_t total_from = 0, total_to = 0;
};

void mark_dump(void *arg, bool after)
{
    auto *m = static_cast<dump_marks *>(arg);
    if (after)
        m->to = log_position(dbg_log, &m->total_to);
    else
        m->from = log_position(dbg_log, &m->total_from);
}

} // namespace

void health_child_started(void)
{
    started = now();
    started_mono = monotonic_seconds();
}

void health_init(void)
{
    listener_register("orkad.status", health_status_event, nullptr);
    listener_register("orkad.dump", health_dump_event, nullptr);
}

void health_request(controller_call call, int outcome, int result)
{
    int i = static_cast<int>(call);
    if (i < 0 || i >= CALLS)
        return;
    if (outcome == controller_result::no_token) {
        // Nothing went out: say why with what the token request got.
        int why =
            calls[static_cast<int>(controller_call::token)].result.load(std::memory_order_relaxed);
        result = why != NO_RESULT && why != 0 ? why : 1;
    } else if (outcome != controller_result::done) {
        return;
    }
    call_figures &f = calls[i];
    int64_t t = now();
    f.last.store(t, std::memory_order_relaxed);
    f.result.store(result, std::memory_order_relaxed);
    if (result == 0) {
        f.ok.fetch_add(1, std::memory_order_relaxed);
        f.failures.store(0, std::memory_order_relaxed);
        f.last_ok.store(t, std::memory_order_relaxed);
    } else {
        f.failed.fetch_add(1, std::memory_order_relaxed);
        f.failures.fetch_add(1, std::memory_order_relaxed);
    }
}

void health_phone_home(phone_home_state state)
{
    phone_state.store(static_cast<int>(state), std::memory_order_relaxed);
}

void health_phone_home_result(int result)
{
    phone_last.store(now(), std::memory_order_relaxed);
    phone_result.store(result, std::memory_order_relaxed);
}

void health_controller(const std::string &url, controller_source from)
{
    std::lock_guard<std::mutex> hold(text_lock);
    known_url = url;
    source = url.empty() ? controller_source::none : from;
}

void health_token(bool held, time_t expires)
{
    token_expires.store(held ? (int64_t)expires : 0, std::memory_order_relaxed);
    token_held.store(held, std::memory_order_relaxed);
}

void health_vpn_started(bool running)
{
    vpn_started.store(running, std::memory_order_relaxed);
}

void health_firmware_running(const char *version)
{
    std::lock_guard<std::mutex> hold(text_lock);
    firmware_running = version != nullptr ? version : "";
}

void health_firmware_pending(const char *version)
{
    std::lock_guard<std::mutex> hold(text_lock);
    if (version != nullptr)
        firmware_pending = version;
    else
        firmware_pending.reset();
}

std::string health_url_without_userinfo(const std::string &url)
{
    size_t scheme = url.find("://");
    size_t host = scheme == std::string::npos ? 0 : scheme + 3;
    size_t end = url.find_first_of("/?#", host);
    size_t at = url.rfind('@', end == std::string::npos ? std::string::npos : end);
    if (at == std::string::npos || at < host)
        return url;
    return url.substr(0, host) + url.substr(at + 1);
}

json_ptr health_status(void)
{
    std::string url, running;
    std::optional<std::string> pending;
    controller_source from;
    {
        std::lock_guard<std::mutex> hold(text_lock);
        url = known_url;
        from = source;
        running = firmware_running;
        pending = firmware_pending;
    }
    url = health_url_without_userinfo(url);

    json_ptr doc(json_object());
    json_ptr problems(json_array());
    if (!doc || !problems)
        return nullptr;
    json_t *d = doc.get();
    json_object_set_new(d, "version", json_string(ORKAD_VERSION));
    json_object_set_new(d, "pid", json_integer(getpid()));
    int64_t since = started_mono.load();
    json_object_set_new(d, "started", time_or_null(started.load()));
    json_object_set_new(d, "uptime",
                        since >= 0 ? json_integer(monotonic_seconds() - since) : json_null());
    json_object_set_new(d, "restarts", json_integer(restarts));

    const char *src = name_of(from, source_names);
    json_object_set_new(d, "controller",
                        json_pack("{s:o,s:o}", "url", text_or_null(url), "source",
                                  src != nullptr ? json_string(src) : json_null()));
    json_object_set_new(
        d, "phone_home",
        json_pack("{s:s,s:o,s:o}", "state", name_of(phone_state.load(), phone_state_names), "last",
                  time_or_null(phone_last.load()), "result", result_or_null(phone_result.load())));

    const call_figures &hb = of(controller_call::heartbeat);
    int interval = heartbeat_interval.load(std::memory_order_relaxed);
    json_object_set_new(d, "heartbeat",
                        json_pack("{s:i,s:o,s:o,s:o,s:i}", "interval", interval, "last",
                                  time_or_null(hb.last.load()), "result",
                                  result_or_null(hb.result.load()), "last_ok",
                                  time_or_null(hb.last_ok.load()), "failures", hb.failures.load()));

    // A token past its time is no longer held, whether or not anyone has
    // asked for a new one yet.
    int64_t expires = token_expires.load();
    bool held = token_held.load() && now() < expires;
    json_object_set_new(d, "token",
                        json_pack("{s:b,s:o}", "held", held, "expires",
                                  held ? json_integer((json_int_t)expires) : json_null()));

    json_t *streams = json_object();
    json_object_set_new(d, "streams", streams);
    const call_figures &st = of(controller_call::status);
    const call_figures &sx = of(controller_call::statistics);
    const call_figures &sl = of(controller_call::syslog);
    json_object_set_new(streams, "status", stream_object(status_stream, st));
    json_object_set_new(streams, "statistics", stream_object(stats_stream, sx));
    json_t *syslog = stream_object(logging_stream, sl);
    int overflow = 0, oversize = 0, ready = 0, filling = 0;
    logging_counts(&overflow, &oversize, &ready, &filling);
    json_object_set_new(syslog, "lines_waiting", json_integer(logging_waiting_lines()));
    json_object_set_new(syslog, "batches_waiting", json_integer(ready + (filling > 0 ? 1 : 0)));
    json_object_set_new(syslog, "dropped",
                        json_integer((json_int_t)overflow + oversize + logging_refused()));
    json_object_set_new(streams, "syslog", syslog);

    char vpn_ip[16] = "";
    if (get_ipv4_address(mgmtvpn_ifname, vpn_ip) != 0 || strcmp(vpn_ip, "0.0.0.0") == 0)
        vpn_ip[0] = '\0';
    const char *vpn_state = vpn_ip[0] != '\0' ? "up" : vpn_started.load() ? "starting" : "off";
    json_object_set_new(d, "vpn",
                        json_pack("{s:s,s:o}", "state", vpn_state, "address",
                                  vpn_ip[0] != '\0' ? json_string(vpn_ip) : json_null()));
    json_object_set_new(d, "firmware",
                        json_pack("{s:o,s:o}", "running", text_or_null(running), "pending",
                                  pending ? json_string(pending->c_str()) : json_null()));
    int version = db_version.load();
    json_object_set_new(
        d, "database",
        json_pack("{s:o}", "schema", version >= 0 ? json_integer(version) : json_null()));

    if (url.empty())
        json_array_append_new(problems.get(), json_string("no controller"));
    if (failing(hb))
        json_array_append_new(problems.get(), json_string("heartbeats failing"));
    if (status_stream.enabled && failing(st))
        json_array_append_new(problems.get(), json_string("status stream failing"));
    if (stats_stream.enabled && failing(sx))
        json_array_append_new(problems.get(), json_string("statistics stream failing"));
    if (logging_stream.enabled && failing(sl))
        json_array_append_new(problems.get(), json_string("syslog stream failing"));
    json_object_set(d, "problems", problems.get());
    return doc;
}

json_ptr health_dump(void)
{
    dump_marks m;
    signals_handler(SIGUSR1, mark_dump, &m);
    std::string name = dbg_log->name != nullptr ? dbg_log->name : "/tmp/debug";
    std::string file = name + ".log";
    long from = m.from, to = m.to;
    uint64_t written = m.total_to - m.total_from;
    // Fewer new bytes in the file than were written: it was rotated during
    // the dump (a dump is far smaller than a log file, so at most once). The
    // dump starts where it started, in what is now the first rotated file;
    // when the rotation came with its last line, all of it is there.
    if (to < from || (uint64_t)(to - from) < written) {
        if (to == 0) {
            file = name + "1.log";
            to = from + (long)written;
        } else {
            from = 0;
        }
    }
    return json_ptr(json_pack("{s:b,s:s,s:I,s:I}", "dumped", 1, "file", file.c_str(), "from",
                              (json_int_t)from, "to", (json_int_t)to));
}

void health_status_event(const char *event, json_t *params)
{
    const char *path = reply_path(event, params);
    if (path == nullptr)
        return;
    send_answer(event, path, health_status());
}

void health_dump_event(const char *event, json_t *params)
{
    const char *path = reply_path(event, params);
    if (path == nullptr)
        return;
    send_answer(event, path, health_dump());
}
