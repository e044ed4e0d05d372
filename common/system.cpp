#include "system.h"

#include "command.h"
#include "devroot.h"
#include "log.h"
#include "logging.h"
#include "lsql.h"
#include "platform_utils.h"

#include <cstdio>
#include <cstring>
#include <syslog.h>
#include <unistd.h>

unsigned int (*system_sleep)(unsigned int seconds) = sleep;

namespace
{

// The names of failed properties, each after a comma. Once a name no longer
// fits, ",..." marks the cut and every later failure writes it again at the
// same place.
class failure_list
{
  public:
    void add(const char *name)
    {
        size_t len = strlen(name);
        if (len + 4 > room_) {
            memcpy(text_ + used_, ",...", 5);
            room_ = 0;
            return;
        }
        text_[used_] = ',';
        memcpy(text_ + used_ + 1, name, len + 1);
        used_ += len + 1;
        room_ -= len + 1;
    }
    // Without the leading comma.
    const char *text() const { return text_[0] == ',' ? text_ + 1 : text_; }

  private:
    // The marker may start where only three bytes of room are left.
    char text_[SET_SYSTEM_FAILED_SIZE + 2] = "";
    size_t used_ = 0;
    size_t room_ = SET_SYSTEM_FAILED_SIZE - 1;
};

} // namespace

void set_system_init(void)
{
    command_register("set.system", cmd_set_system);
    command_register("set.reboot", cmd_set_reboot);
}

void cmd_set_system(char *command, json_t *js_command, char *resp_href)
{
    log_fprint(orkad_log, "set.system: command (%s) received\n", command);
    cmd_envelope cmd("set.system", command, js_command, resp_href);
    if (!cmd.open())
        return;
    int failures = 0;
    failure_list failed;
    // Every member is tried, in the document's order, whatever failed before.
    for (void *it = json_object_iter(cmd.params); it != nullptr;
         it = json_object_iter_next(cmd.params, it)) {
        const char *name = json_object_iter_key(it);
        if (name == nullptr) {
            log_fprint(orkad_log, "set.system: failed to iterate over 'params'\n");
            failures++;
            failed.add("unknown");
            continue;
        }
        json_t *value = json_object_iter_value(it);
        const char *text = nullptr;
        if (value == nullptr) {
            log_fprint(orkad_log, "set.system: failed to get value of '%s'\n", name);
        } else if (!json_is_string(value)) {
            log_fprint(orkad_log, "set.system: invalid value type for '%s'\n", name);
        } else if ((text = json_string_value(value)) == nullptr) {
            log_fprint(orkad_log, "set.system: null value for '%s'\n", name);
        } else {
            int err = platform_set_system(name, text);
            if (err == 0)
                continue;
            // The password itself never goes into a log.
            log_fprint(orkad_log, "set.system: error (%d) setting '%s' to '%s'\n", err, name,
                       strcmp(name, "password") == 0 ? LOG_SECRET_MARKER : text);
        }
        failures++;
        failed.add(name);
    }
    if (failures != 0)
        cmd.fail("failed to set properties: %s", failed.text());
    cmd.answer(failures);
}

void cmd_set_reboot(char *command, json_t *js_command, char *resp_href)
{
    cmd_envelope cmd("cmd_set_reboot", command, js_command, resp_href);
    const char *message;
    if (!cmd.open_optional_text("message", "missing or invalid 'message' element type", &message))
        return;
    if (message != nullptr)
        dev_syslog(LOG_NOTICE, "reboot initiated: '%s'", message);
    else
        dev_syslog(LOG_NOTICE, "reboot initiated by cloud-services");

    // The controller should get the device's last lines before it goes.
    logging_flush(60);
    // Answer first: a rebooted device cannot.
    cmd.answer(0);

    int err = platform_reboot();
    if (err == 0) {
        system_sleep(30);
        cmd.fail("Reboot failed!");
    } else {
        cmd.fail("Failed to reboot, error code: %d", err);
    }
    dev_syslog(LOG_CRIT, "%s", cmd.message);
    cmd.answer(-1);
}
