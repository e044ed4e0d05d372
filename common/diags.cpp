#include "diags.h"

#include "auth.h"
#include "command.h"
#include "devroot.h"
#include "http.h"
#include "icos-openapi.h"
#include "log.h"
#include "utils.h"

#include <cstdio>
#include <mutex>

namespace
{

const char dump_command[] = "/usr/sbin/varnex-diagnostic-dump > /dev/null 2>&1";
const char gzip_command[] = "/bin/gzip -9 " DIAGS_TAR " > /dev/null 2>&1";
const char upload_failed[] = "failed to upload diagnostics data";

// Collections share fixed file names in /tmp, so one runs at a time.
std::mutex diags_lock;

// Collects the archive and uploads it to href on the controller; 0 or -1.
int collect_and_upload(const char *href)
{
    std::lock_guard<std::mutex> hold(diags_lock);
    dev_remove(DIAGS_ARCHIVE);
    platform_get_support_data(DIAGS_SUPPORT_FILE);
    // The dump script's own status says nothing: what counts is the tar it
    // leaves, and gzip finds out about that.
    _sys("%s", dump_command);
    if (_sys("%s", gzip_command) != 0) {
        log_fprint(orkad_log, "cannot gzip diags tar file\n");
        // Whatever gzip left (the tar, or half an archive) holds the logs
        // and settings all the same.
        dev_remove(DIAGS_TAR);
        dev_remove(DIAGS_ARCHIVE);
        return -1;
    }
    controller_result res =
        controller_request(controller_call::diagnostics, href, nullptr, 0, DIAGS_ARCHIVE);
    int rc = res.ok() ? 0 : -1;
    // The archive carries the device's logs and settings: once it has been
    // offered to the controller it has no reason to stay, and a failed
    // upload is asked for again with a new collection.
    dev_remove(DIAGS_ARCHIVE);
    return rc;
}

} // namespace

void diags_init(void)
{
    command_register("get.diagnostics", cmd_get_diagnostics);
}

void cmd_get_diagnostics(char *command, json_t *js_command, char *resp_href)
{
    cmd_envelope cmd("get.diagnostics", command, js_command, resp_href);
    const char *href;
    if (!cmd.open() || (href = cmd.service_link()) == nullptr)
        return;
    if (get_cloud_controller().empty())
        return cmd.refuse("%s", upload_failed);

    // The uptime and log statistics go into the main log first, so that the
    // dump carries them.
    log_debug(0);

    int result = collect_and_upload(href);
    if (result != 0)
        cmd.fail("%s", upload_failed);
    cmd.answer(result);
}
