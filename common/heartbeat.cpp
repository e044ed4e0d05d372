#include "heartbeat.h"
#include "raii.h"

#include "auth.h"
#include "command.h"
#include "config.h"
#include "debug.h"
#include "devroot.h"
#include "http.h"
#include "log.h"
#include "lsql.h"
#include "netutils.h"
#include "signals.h"
#include "utils.h"
#include "watchdog.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <sys/syscall.h>
#include <sys/sysinfo.h>
#include <syslog.h>
#include <unistd.h>

std::atomic<heartbeat_provider *> heartbeat_providers{nullptr};
std::atomic<int> heartbeat_interval{10};
char heartbeat_link[HEARTBEAT_LINK_SIZE] = "/heartbeat";
std::atomic<uint64_t> heartbeat_count{0};
unsigned int (*heartbeat_sleep)(unsigned int seconds) = sleep;

namespace
{

constexpr int MAX_MISSED = 6;
constexpr int MIN_INTERVAL = 1;
constexpr int MAX_INTERVAL = 60;

// The link is rewritten by "set.heartbeat" on the command thread while the
// heartbeat thread builds its URL from it.
std::mutex heartbeat_link_lock;

// The interval and the count are single words written by one thread and read
// by others; nothing else depends on their order.
int interval_now(void)
{
    return heartbeat_interval.load(std::memory_order_relaxed);
}

void set_interval(int seconds)
{
    heartbeat_interval.store(seconds, std::memory_order_relaxed);
}

bool last_failed = true;
int cloud_connected = -1;
int cloud_missed;
bool skipping;
char last_ip[16];

void lanip_provider(json_t *hb_obj, bool failed)
{
    char ifname[16];
    char ip[16];
    get_mgmt_ifname(ifname);
    get_ipv4_address(ifname, ip);
    // After a healthy run the controller already knows the address.
    if (failed || strcmp(ip, last_ip) != 0)
        json_object_set_new(hb_obj, "lanIp", json_string(ip));
    memcpy(last_ip, ip, sizeof(last_ip));
}

void uptime_provider(json_t *hb_obj, bool)
{
    struct sysinfo info;
    if (sysinfo(&info) != 0)
        info.uptime = 0;
    json_object_set_new(hb_obj, "uptime", json_integer(info.uptime));
}

void connected(int state)
{
    if (cloud_connected != state)
        set_cloud_controller_status(state ? "up" : "down");
    cloud_connected = state;
}

void pulse_failed(void)
{
    last_failed = true;
    // A few lost pulses are normal on a busy uplink; only a longer run of
    // them means the controller is gone.
    if (cloud_missed < MAX_MISSED)
        cloud_missed++;
    else
        connected(0);
}

void pulse_succeeded(void)
{
    connected(1);
    last_failed = false;
    cloud_missed = 0;
}

// The member key of obj when it has the type; null after logging the
// complaint.
json_t *member(json_t *obj, const char *key, json_type type, const char *complaint)
{
    json_t *value = json_object_get(obj, key);
    if (value == nullptr || json_typeof(value) != type) {
        log_fprint(orkad_log, "%s\n", complaint);
        return nullptr;
    }
    return value;
}

void run_commands(const reply *r)
{
    json_ptr root = reply_json(r, "heartbeat");
    if (!root)
        return;
    json_t *total =
        member(root.get(), "totalCount", JSON_INTEGER, "Missing or non-integer 'totalCount' item");
    if (total == nullptr)
        return;
    int count = (int)json_integer_value(total);
    if (count == 0)
        return;
    // A set.system command may carry the administrator password: the logs
    // show a marker in its place.
    loggable_json shown(r->data, (size_t)r->length);
    log_fprint(orkad_log, "reply = '%.*s'\n", shown.length(), shown.data());
    log_fprint(cmd_log, "commands = '%.*s'\n", shown.length(), shown.data());

    json_t *link = member(root.get(), "responseLink", JSON_OBJECT,
                          "Missing or non-object 'responseLink' item");
    if (link == nullptr)
        return;
    json_t *href = member(link, "href", JSON_STRING,
                          "Missing or invalid 'href' element in 'responseLink' object");
    if (href == nullptr)
        return;
    json_t *list =
        member(root.get(), "commandList", JSON_ARRAY, "Missing or non-array 'commandList' item");
    if (list == nullptr)
        return;
    int size = (int)json_array_size(list);
    // A list that does not match its count may be cut short: run none of it.
    if (size != count) {
        log_fprint(orkad_log, "totalCount (%d) != commandList size (%d)\n", count, size);
        return;
    }
    process_bundle(list, count, json_string_value(href));
}

} // namespace

int heartbeat_register_provider(const char *name, heartbeat_fn fn)
{
    // Providers come also from other threads ("set.statistics" on the
    // command runner) while the heartbeat thread walks the list.
    return provider_push(heartbeat_providers, name, fn, __func__, "heartbeat");
}

int heartbeat_pulse(void)
{
    if (get_cloud_controller().empty()) {
        if (cloud_connected != 0) {
            set_cloud_controller_status("down");
            cloud_connected = 0;
        }
        if (!skipping) {
            log_fprint(orkad_log, "cloud_controller not set, skipping heartbeats!\n");
            skipping = true;
        }
        return -1;
    }

    json_ptr hb_obj(json_object());
    if (!hb_obj) {
        log_fprint(orkad_log, "%s: Can't allocate JSON object\n", __func__);
        return -1;
    }
    for (heartbeat_provider *p = heartbeat_providers.load(std::memory_order_acquire); p != nullptr;
         p = p->next)
        p->fn(hb_obj.get(), last_failed);
    malloc_ptr<char> payload(json_dumps(hb_obj.get(), JSON_COMPACT | JSON_PRESERVE_ORDER));
    int length = 0;
    if (!payload)
        log_fprint(orkad_log, "%s: failed to convert hb_obj to payload\n", __func__);
    else
        length = (int)strlen(payload.get());
    hb_obj.reset();
    if (debug)
        log_fprint(orkad_log, "length = %d, payload = '%s'\n", length,
                   payload ? payload.get() : "");

    std::string path;
    {
        std::lock_guard<std::mutex> hold(heartbeat_link_lock);
        path = heartbeat_link;
    }
    heartbeat_count.fetch_add(1, std::memory_order_relaxed);

    controller_result res =
        controller_request(controller_call::heartbeat, path, payload.get(), length);
    int result = res.ok() ? 0 : -1;
    if (result != 0) {
        pulse_failed();
    } else {
        reply *r = res.body.get();
        if (debug) {
            loggable_json shown(r->data, (size_t)r->length);
            log_fprint(orkad_log, "reply = '%.*s'\n", shown.length(), shown.data());
        }
        // A reply we cannot read still proves the controller is there.
        run_commands(r);
        pulse_succeeded();
    }
    skipping = false;
    return result == 0 ? 0 : -1;
}

void heartbeat_setup(void)
{
    command_register("set.heartbeat", cmd_set_heartbeat);
    signals_register(SIGUSR1, heartbeat_debug, "heartbeat_debug");
    heartbeat_register_provider("lanIp", lanip_provider);
    heartbeat_register_provider("uptime", uptime_provider);

    if (env_heartbeat[0] != '\0') {
        int interval = (int)strtol(env_heartbeat, nullptr, 10);
        if (interval >= MIN_INTERVAL && interval <= MAX_INTERVAL) {
            if (interval != interval_now())
                log_fprint(orkad_log, "%s: new interval = %d seconds\n", "heartbeat", interval);
            set_interval(interval);
        } else {
            log_fprint(orkad_log, "%s: interval value (%d) is out of range\n", "heartbeat",
                       interval);
        }
    }
    log_fprint(orkad_log, "%s: my TID: %d\n", "heartbeat", (int)syscall(SYS_gettid));
}

void heartbeat(void *, void *, void *)
{
    heartbeat_setup();
    // The period runs from the end of one pulse to the start of the next.
    // Each turn tells the supervisor the loop still moves (and how long it
    // will sleep), so a loop stuck for good gets the agent restarted.
    for (;;) {
        watchdog_heartbeat(interval_now());
        heartbeat_pulse();
        int seconds = interval_now();
        watchdog_heartbeat(seconds);
        heartbeat_sleep((unsigned int)seconds);
    }
}

void cmd_set_heartbeat(char *command, json_t *js_command, char *resp_href)
{
    cmd_envelope cmd("set.heartbeat", command, js_command, resp_href);
    if (!cmd.open_service(MIN_INTERVAL, MAX_INTERVAL, "heartbeat interval out of range"))
        return;
    if (strlen(cmd.service_href) >= sizeof(heartbeat_link))
        return cmd.refuse("the 'href' element in params is too large");
    // Not stored: a restarted agent starts from the defaults again.
    set_interval(cmd.seconds);
    {
        std::lock_guard<std::mutex> hold(heartbeat_link_lock);
        snprintf(heartbeat_link, sizeof(heartbeat_link), "%s", cmd.service_href);
    }
    dev_syslog(LOG_INFO, "Heartbeat interval=%d seconds, link='%s'", cmd.seconds, cmd.service_href);
    cmd.answer(0);
}

void heartbeat_debug(int)
{
    log_fprint(dbg_log, "%s: heartbeat_interval = %d, heartbeat_count = %llu\n", __func__,
               interval_now(), (unsigned long long)heartbeat_count.load(std::memory_order_relaxed));
}

int heartbeat_cloud_connected(void)
{
    return cloud_connected;
}

int heartbeat_cloud_missed(void)
{
    return cloud_missed;
}
