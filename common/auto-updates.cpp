#include "auto-updates.h"
#include "raii.h"

#include "command.h"
#include "config.h"
#include "devroot.h"
#include "health.h"
#include "http.h"
#include "log.h"
#include "platform_utils.h"
#include "utils.h"
#include "work.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <sys/wait.h>
#include <unistd.h>

std::atomic<bool> deferred_running{false};
unsigned int (*updates_sleep)(unsigned int seconds) = sleep;

namespace
{

constexpr int DELAY_STEP_MINUTES = 5;
constexpr int MAX_DELAY_MINUTES = 60;

const char installer[] = "/usr/sbin/varnex-updates " UPDATES_IMAGE " > /rw/varnex-updates.log 2>&1";

// One check at a time: phone-home, set.firmware and the retry thread may
// all ask at once, and a check may hold a whole download.
std::mutex check_lock;

int install(const char *href)
{
    log_fprint(orkad_log, "%s: downloading new firmware, url = '%s'\n", "check_updates", href);
    if (http_download_file(href, UPDATES_IMAGE) != 0)
        return -1;
    log_fprint(orkad_log, "%s: running /usr/sbin/varnex-updates " UPDATES_IMAGE "\n",
               "check_updates");
    int rc = dev_system(installer);
    int status = (rc != -1 && WIFEXITED(rc)) ? WEXITSTATUS(rc) : -1;
    if (status != 0) {
        // The image stays where it is; the next download overwrites it.
        log_fprint(orkad_log, "%s: varnex-updates " UPDATES_IMAGE " failed with error code %d\n",
                   "check_updates", status);
        return status;
    }
    log_fprint(orkad_log, "%s: update successfully completed, restarting system.", "check_updates");
    int rc_reboot = platform_reboot();
    // Still here: the new image is not running yet. That is no "up to date",
    // so whoever asked (the retries above all) must try again.
    log_fprint(orkad_log, "%s: system did not restart after the update (result = %d)\n",
               "check_updates", rc_reboot);
    return -1;
}

int handle_reply(const reply *r)
{
    json_error_t err;
    json_ptr root(json_loadb_bounded(r->data, r->length, 0, &err));
    if (!root) {
        log_fprint(orkad_log, "%s: error decoding auto-updates data: %s\n", "check_updates",
                   err.text);
        return -1;
    }
    json_t *current = json_object_get(root.get(), "currentFirmware");
    if (!json_is_object(current)) {
        log_fprint(orkad_log, "%s: missing or invalid 'currentFirmware' object\n", "check_updates");
        return -1;
    }
    json_t *download = json_object_get(current, "download");
    if (!json_is_object(download)) {
        health_firmware_pending(nullptr);
        return 0;
    }
    json_t *offered = json_object_get(current, "version");
    health_firmware_pending(json_is_string(offered) ? json_string_value(offered) : "unknown");
    json_t *href = json_object_get(download, "href");
    if (!json_is_string(href)) {
        log_fprint(orkad_log, "%s: missing or invalid 'href' element in 'download' object\n",
                   "check_updates");
        return -1;
    }
    return install(json_string_value(href));
}

} // namespace

void auto_updates(void)
{
    command_register("set.firmware", cmd_set_firmware);
}

int check_updates(void)
{
    std::lock_guard<std::mutex> hold(check_lock);
    int result = -1;
    // The version of the bank we booted from.
    const char *version = strcmp(env_boot, "0") == 0 ? env_primary : env_secondary;
    std::string path = std::string("/current-firmware?serial_number=") + env_serial +
                       "&firmware_version=" + version;
    controller_result res = controller_request(controller_call::firmware_check, path);
    if (res.outcome == controller_result::done) {
        result = res.result;
        if (result == 0)
            result = handle_reply(res.body.get());
    }
    return result;
}

void start_deferred_updates(void)
{
    if (deferred_running.exchange(true)) {
        log_fprint(orkad_log, "deferred_updates already running\n");
        return;
    }
    log_fprint(orkad_log, "starting deferred_updates\n");
    if (thread_start("deferred_updates", deferred_updates, &deferred_running, nullptr, nullptr) < 0)
        deferred_running = false;
}

void deferred_updates(void *running, void *, void *)
{
    auto *flag = static_cast<std::atomic<bool> *>(running);
    *flag = true;
    int delay = 0;
    // Back off by five minutes a time, up to an hour, so a controller that is
    // down is not hammered by every switch at once.
    while (check_updates() != 0) {
        if (delay < MAX_DELAY_MINUTES)
            delay += DELAY_STEP_MINUTES;
        updates_sleep((unsigned int)delay * 60);
    }
    *flag = false;
}

void cmd_set_firmware(char *command, json_t *js_command, char *resp_href)
{
    cmd_envelope cmd("set.firmware", command, js_command, resp_href);
    if (!cmd.open(false))
        return;
    // Answer first: a successful update restarts the device.
    cmd.answer(0);
    if (developer_build)
        return;
    if (check_updates() != 0)
        start_deferred_updates();
}
