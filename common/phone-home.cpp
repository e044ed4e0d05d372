#include "phone-home.h"
#include "raii.h"

#include "auth.h"
#include "auto-updates.h"
#include "config.h"
#include "debug.h"
#include "devroot.h"
#include "health.h"
#include "http.h"
#include "log.h"
#include "lsql.h"
#include "netutils.h"
#include "orkad.h"
#include "platform_utils.h"
#include "utils.h"
#include "work.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <jansson.h>
#include <memory>
#include <string>
#include <strings.h>
#include <syslog.h>
#include <unistd.h>

int phone_home_interval = 30;
std::atomic<bool> phone_home_done{false};
std::atomic<int> phone_home_count{0};
char ip_addr[16];
unsigned int (*phone_home_sleep)(unsigned int seconds) = sleep;
int (*phone_home_settimeofday)(const struct timeval *tv, const struct timezone *tz) = settimeofday;

namespace
{

constexpr int ADDRESS_TRIES = 12;
constexpr int ADDRESS_WAIT = 10;
constexpr int DECOMMISSIONED_FAST = 10;
constexpr int DECOMMISSIONED_SLOW = 120;
constexpr int UNREGISTERED_PACE = 600;

char dtl0[] = "dtl0";

bool time_set;
int total_wait;

bool usable(int err, const char *addr)
{
    return err == 0 && addr[0] != '\0' && strcmp(addr, "0.0.0.0") != 0;
}

void wait_for_address(void)
{
    for (int tries = 0; tries < ADDRESS_TRIES; tries++) {
        char ifname[16];
        get_mgmt_ifname(ifname);
        int err = get_ipv4_address(ifname, ip_addr);
        if (usable(err, ip_addr))
            return;
        // Some boards come up with only the internal link addressed.
        err = get_ipv4_address(dtl0, ip_addr);
        if (usable(err, ip_addr)) {
            mgmt_ifname = dtl0;
            return;
        }
        log_fprint(orkad_log, "waiting... (err = %d, ipaddr = '%s')\n", err, ip_addr);
        phone_home_sleep(ADDRESS_WAIT);
    }
}

void set_clock(json_t *root)
{
    // SNTP is the better clock; ours is only a first guess, taken once.
    if (time_set || sntp_time_set())
        return;
    json_t *tod = json_object_get(root, "timeofday");
    if (tod == nullptr)
        return;
    if (!json_is_integer(tod)) {
        log_fprint(orkad_log, "%s: invalid 'timeofday' element\n", "phone_home_call");
        return;
    }
    struct timeval tv = {};
    tv.tv_sec = (time_t)json_integer_value(tod);
    if (phone_home_settimeofday(&tv, nullptr) != 0) {
        log_fprint(orkad_log, "%s: settimeofday failed, (%s)\n", "phone_home_call",
                   strerror(errno));
        return;
    }
    time_set = true;
    char when[64];
    struct tm tm;
    strftime(when, sizeof(when), "%F %T", localtime_r(&tv.tv_sec, &tm));
    dev_syslog(LOG_INFO, "set time-of-day to %s UTC (%lu)", when, (unsigned long)tv.tv_sec);
}

void decommissioned(json_t *root)
{
    // Only a device that had been set up is wiped; a new one just waits.
    if (config_get("system", nullptr, "varnex-initialized") == "yes") {
        json_t *mode = json_object_get(root, "reset-mode");
        if (json_is_string(mode) && strcmp(json_string_value(mode), "soft") == 0) {
            log_fprint(orkad_log,
                       "%s: in 'decommissioned' state, performing soft factory-reset and "
                       "reboot...\n",
                       "phone_home_call");
            // A soft reset that comes back has failed: the full one follows.
            platform_factory_reset_soft();
        } else if (mode != nullptr && !json_is_string(mode)) {
            log_fprint(orkad_log, "%s: invalid 'reset-mode' element\n", "phone_home_call");
        }
        log_fprint(orkad_log,
                   "%s: in 'decommissioned' state, performing factory-reset and reboot...\n",
                   "phone_home_call");
        platform_factory_reset();
        log_fprint(orkad_log, "%s: unable to perform factory-reset!\n", "phone_home_call");
    }
    if (phone_home_interval == DECOMMISSIONED_SLOW)
        return;
    // Ask often for about two minutes in case the release is undone, then
    // settle down.
    if (total_wait < DECOMMISSIONED_SLOW) {
        phone_home_interval = DECOMMISSIONED_FAST;
        total_wait += DECOMMISSIONED_FAST;
    } else {
        phone_home_interval = DECOMMISSIONED_SLOW;
    }
    log_fprint(orkad_log, "%s: in 'decommissioned' state, will continue trying every %d seconds\n",
               "phone_home_call", phone_home_interval);
}

void unregistered(void)
{
    if (phone_home_interval == UNREGISTERED_PACE)
        return;
    phone_home_interval = UNREGISTERED_PACE;
    log_fprint(orkad_log, "%s: in 'unregistered' state, will continue trying every %d seconds\n",
               "phone_home_call", phone_home_interval);
    config_set("system", nullptr, "varnex-initialized", "no");
    // No controller, no heartbeats.
    config_set("system", nullptr, "cloud-controller", "");
    health_controller("", controller_source::none);
}

void take_controller(const char *controller)
{
    // The site that answered: the vendor's, or one named on the command
    // line or in the boot environment.
    health_controller(controller, home_site == ORKAD_HOME_SITE ? controller_source::phone_home
                                                               : controller_source::site);
    if (get_cloud_controller() == controller) {
        log_fprint(orkad_log, "phone_home: same controller '%s'\n", controller);
    } else {
        config_set("system", nullptr, "cloud-controller", controller);
        config_set("system", nullptr, "varnex-initialized", "yes");
        log_fprint(orkad_log, "phone_home: new cloud_controller = '%s'\n", controller);
        // A token of another controller is worth nothing here.
        invalidate_access_token();
    }
    if (!developer_build && check_updates() != 0)
        start_deferred_updates();
    phone_home_done = true;
}

void handle_reply(const reply *r)
{
    json_ptr root = reply_json(r, "phone-home");
    if (!root)
        return;
    set_clock(root.get());

    json_t *code = json_object_get(root.get(), "code");
    if (json_is_string(code)) {
        const char *c = json_string_value(code);
        if (strcmp(c, "decommissioned") == 0) {
            decommissioned(root.get());
        } else if (strcmp(c, "unregistered") == 0) {
            unregistered();
        } else {
            log_fprint(orkad_log, "%s: unknown 'code' element...\n", "phone_home_call");
            log_fprint(orkad_log, "reply = '%.*s'\n", r->length, r->data);
        }
        return;
    }
    json_t *controller = json_object_get(root.get(), "cloud_controller");
    if (!json_is_string(controller)) {
        log_fprint(orkad_log, "Missing or invalid 'cloud_controller' element...\n");
        log_fprint(orkad_log, "reply = '%.*s'\n", r->length, r->data);
        return;
    }
    take_controller(json_string_value(controller));
}

} // namespace

void phone_home_call(void)
{
    char ifname[16];
    get_mgmt_ifname(ifname);
    char tz[32] = "";
    int offset = 0;
    get_timezone(tz, &offset);
    get_ipv4_address(ifname, ip_addr);

    // The site takes the values as they are: nothing here is URL-encoded.
    const std::string utcoffset = std::to_string(offset);
    const struct {
        const char *name;
        const char *value;
    } query[] = {
        {"serial", env_serial},           {"uuid", env_uuid},       {"hardware", env_hardware},
        {"country", env_country},         {"boot", env_boot},       {"primary", env_primary},
        {"secondary", env_secondary},     {"ipaddr", ip_addr},      {"tz", tz},
        {"utcoffset", utcoffset.c_str()}, {"ethaddr", env_ethaddr},
    };
    std::string url = controller_url(home_site, "/phone_home");
    char sep = '?';
    for (const auto &q : query) {
        url += sep;
        url += "[phone_home]";
        url += q.name;
        url += '=';
        url += q.value;
        sep = '&';
    }

    reply_ptr r(alloc_reply());
    int result = http_get(url.c_str(), nullptr, r.get());
    health_phone_home_result(result);
    if (result == 0)
        handle_reply(r.get());
    health_phone_home(phone_home_done ? phone_home_state::done : phone_home_state::failed);
    phone_home_count = phone_home_count + 1;
}

void do_phone_home(void *, void *, void *)
{
    // The reply handling changes the pace, so it is read again each time.
    phone_home_sleep((unsigned int)phone_home_interval);
    while (!phone_home_done) {
        phone_home_call();
        phone_home_sleep((unsigned int)phone_home_interval);
    }
}

void phone_home(void)
{
    // What an earlier run stored stays in use until someone says otherwise.
    health_controller(get_cloud_controller(), controller_source::stored);
    if (!debug) {
        char setting[8] = "";
        get_env_variable("phone_home", setting, sizeof(setting));
        if (strcasecmp(setting, "no") == 0) {
            log_fprint(orkad_log, "%s: found 'phone_home=%s' in boot env, exiting!\n", __func__,
                       setting);
            health_phone_home(phone_home_state::skipped);
            return;
        }
    }
    health_phone_home(phone_home_state::asking);

    wait_for_address();
    log_fprint(orkad_log, "ipaddr='%s'\n", ip_addr);

    if (!env_controller.empty()) {
        log_fprint(orkad_log, "%s: using controller from bootenv <%s>\n", __func__,
                   env_controller.c_str());
        if (get_cloud_controller() != env_controller) {
            config_set("system", nullptr, "cloud-controller", env_controller.c_str());
            config_set("system", nullptr, "varnex-initialized", "yes");
            invalidate_access_token();
        }
        health_controller(env_controller, controller_source::boot);
        health_phone_home(phone_home_state::done);
        phone_home_done = true;
        return;
    }

    phone_home_call();
    if (phone_home_done)
        return;
    log_fprint(orkad_log, "starting background 'phone_home' thread\n");
    work_t *w = work_alloc();
    w->fn = do_phone_home;
    work_submit(w);
}
