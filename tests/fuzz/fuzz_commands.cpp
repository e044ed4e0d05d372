// Every command handler's document: the first byte picks one of the twelve
// commands, the rest is the command as the controller would send it. The
// handler runs on this thread and posts its result to the in-process
// controller.
#include "fuzz_env.h"

#include "auto-updates.h"
#include "config.h"
#include "diags.h"
#include "heartbeat.h"
#include "logging.h"
#include "mgmtvpn.h"
#include "stats.h"
#include "status.h"
#include "system.h"
#include "utils.h"

#include <cstdlib>
#include <cstring>
#include <jansson.h>

namespace
{

typedef void (*handler)(char *, json_t *, char *);
const struct {
    const char *name;
    handler fn;
} commands[] = {
    {"set.heartbeat", cmd_set_heartbeat}, {"set.config", cmd_set_config},
    {"del.config", cmd_del_config},       {"set.system", cmd_set_system},
    {"set.reboot", cmd_set_reboot},       {"set.logging", cmd_set_logging},
    {"set.firmware", cmd_set_firmware},   {"set.sslVpn", cmd_set_sslvpn},
    {"del.sslVpn", cmd_del_sslvpn},       {"set.statistics", cmd_set_stats},
    {"set.status", cmd_set_status},       {"get.diagnostics", cmd_get_diagnostics},
};
constexpr size_t command_count = sizeof(commands) / sizeof(commands[0]);

} // namespace

const bool fuzz::pick_needs_commands = true;

void fuzz::pick_input(uint8_t pick, const uint8_t *data, size_t size)
{
    const auto &c = commands[pick % command_count];
    json_error_t err;
    // Parsed as the heartbeat parses the reply that carries it.
    json_t *command = json_loadb_bounded(reinterpret_cast<const char *>(data), size, 0, &err);
    if (command == nullptr)
        return;
    c.fn(strdup(c.name), command, strdup("/fuzz/responses"));
}
