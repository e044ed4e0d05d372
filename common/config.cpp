#include "config.h"

#include "auth.h"
#include "command.h"
#include "http.h"
#include "icos-openapi.h"
#include "log.h"
#include "orkad.h"
#include "platform_utils.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

char env_serial[32];
char env_ethaddr[18];
char env_hardware[32];
char env_primary[64];
char env_secondary[64];
char env_country[32];
std::string env_homesite;
std::string env_controller;
char env_heartbeat[8];
char env_boot[8];
char env_uuid[64];
bool developer_build;

namespace
{

typedef int (*section_fn)(json_t *, char *);

const struct {
    const char *name;
    section_fn fn;
} config_sections[] = {
    {"portConfiguration", set_port_config},
    {"lanConfiguration", set_lan_config},
};

// Identity texts are cut to their buffer by a bounded copy, as they have
// always been.
template <size_t N> void copy_text(char (&dst)[N], const char *src)
{
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wstringop-truncation"
    strncpy(dst, src != nullptr ? src : "", N);
#pragma GCC diagnostic pop
}

void upper(char *s)
{
    for (; *s; s++)
        *s = (char)toupper((unsigned char)*s);
}

int port_error(char *message, const char *text)
{
    snprintf(message, CMD_MESSAGE_SIZE, "%s", text);
    log_fprint(orkad_log, "%s: %s\n", "set_port_config", message);
    return -1;
}

int lan_error(char *message)
{
    log_fprint(orkad_log, "%s: %s\n", "set_lan_config", message);
    return -1;
}

// Copies a text member into a field of the given size; false when the member
// is missing or not a text.
template <size_t N> bool lan_field(json_t *lan, const char *key, char (&field)[N])
{
    json_t *v = json_object_get(lan, key);
    if (!json_is_string(v))
        return false;
    snprintf(field, N, "%s", json_string_value(v));
    return true;
}

} // namespace

void config_init(void)
{
    developer_build = strstr(get_firmware_version(), "developer") != nullptr;

    copy_text(env_serial, platform_get_serial_number());
    copy_text(env_ethaddr, platform_get_ethaddr());
    copy_text(env_hardware, platform_get_hw_version());
    copy_text(env_primary, platform_get_primary_firmware_version());
    copy_text(env_secondary, platform_get_secondary_firmware_version());

    get_env_variable("country_code", env_country, sizeof(env_country));
    env_homesite = get_env_text("homesite");
    env_controller = get_env_text("controller");
    get_env_variable("heartbeat", env_heartbeat, sizeof(env_heartbeat));
    char active[32] = "";
    get_env_variable("active", active, sizeof(active));
    copy_text(env_boot, strcmp(active, "image2") == 0 ? "1" : "0");

    char url[256] = "";
    if (platform_cloud_management_get_url(url, sizeof(url)) == 0 && url[0] != '\0') {
        env_homesite = url;
        log_fprint(orkad_log, "%s: homesite = url:'%s'\n", __func__, url);
    }

    get_env_variable("uuid", env_uuid, sizeof(env_uuid));
    if (env_uuid[0] == '\0') {
        // Same first groups everywhere, the device's own MAC as the last:
        // stable across reboots once written back.
        char mac[18];
        int n = 0;
        for (const char *p = env_ethaddr; *p && n < 12; p++)
            if (*p != ':')
                mac[n++] = (char)tolower((unsigned char)*p);
        mac[n] = '\0';
        snprintf(env_uuid, sizeof(env_uuid), "e9d6ecc0-23bb-11e3-932d-%s", mac);
        set_env_variable("uuid", env_uuid);
        log_fprint(orkad_log, "added default uuid = %s\n", env_uuid);
    }
    upper(env_country);

    log_fprint(orkad_log, "hw='%s'\n", env_hardware);
    log_fprint(orkad_log, "serial='%s'\n", env_serial);
    log_fprint(orkad_log, "country='%s'\n", env_country);
    log_fprint(orkad_log, "boot='%s'\n", env_boot);
    log_fprint(orkad_log, "primary='%s'\n", env_primary);
    log_fprint(orkad_log, "secondary='%s'\n", env_secondary);
    log_fprint(orkad_log, "uuid='%s'\n", env_uuid);
    log_fprint(orkad_log, "homesite='%s'\n", env_homesite.c_str());
    log_fprint(orkad_log, "heartbeat='%s'\n", env_heartbeat);
    log_fprint(orkad_log, "ethaddr='%s'\n", env_ethaddr);
    // The switch may not tell its model; an unknown one shows empty.
    const char *model = platform_get_model_number();
    log_fprint(orkad_log, "model='%s'\n", model != nullptr ? model : "");

    command_register("del.config", cmd_del_config);
    command_register("set.config", cmd_set_config);
}

void cmd_set_config(char *name, json_t *command, char *resp_href)
{
    cmd_envelope cmd("cmd_set_config", name, command, resp_href);
    if (!cmd.open())
        return;
    // A command that configures nothing answers -1 with an empty message.
    int result = -1;
    for (const auto &section : config_sections) {
        json_t *value = json_object_get(cmd.params, section.name);
        if (value == nullptr)
            continue;
        result = section.fn(value, cmd.message);
        if (result != 0)
            break;
    }
    cmd.answer(result);
}

int set_port_config(json_t *ports, char *message)
{
    if (!json_is_array(ports))
        return 0;
    size_t i;
    json_t *port;
    json_array_foreach(ports, i, port)
    {
        if (!json_is_object(port))
            return port_error(message, "missing configuration object");
        json_t *id = json_object_get(port, "id");
        if (!json_is_string(id))
            return port_error(message, "missing or invalid 'id' element in port configuration");
        json_t *name = json_object_get(port, "name");
        if (name != nullptr && !json_is_string(name))
            return port_error(message, "invalid 'name' element in port configuration");
        json_t *admin = json_object_get(port, "admin_status");
        if (admin != nullptr && !json_is_string(admin))
            return port_error(message, "invalid 'admin_status' element in port configuration");
        if (name == nullptr && admin == nullptr)
            return port_error(message, "missing properties to configure");
        int rc = platform_set_port_config(json_string_value(id),
                                          admin ? json_string_value(admin) : nullptr,
                                          name ? json_string_value(name) : nullptr, message);
        if (rc != 0)
            return rc;
    }
    return 0;
}

int set_lan_config(json_t *lan, char *message)
{
    lan_status status = {};
    if (!lan_field(lan, "ip_proto", status.ip_proto)) {
        snprintf(message, CMD_MESSAGE_SIZE,
                 "missing or invalid 'ip_proto' element in LAN configuration");
        return lan_error(message);
    }
    if (strcmp(status.ip_proto, "DHCP") != 0 && strcmp(status.ip_proto, "static") != 0) {
        snprintf(message, CMD_MESSAGE_SIZE, "invalid 'ip_proto' element value '%s'",
                 status.ip_proto);
        return lan_error(message);
    }
    if (!lan_field(lan, "ip_address", status.ip_address)) {
        snprintf(message, CMD_MESSAGE_SIZE,
                 "missing or invalid 'ip_address' element in LAN configuration");
        return lan_error(message);
    }
    const struct {
        const char *key;
        char *field;
    } rest[] = {{"subnet_mask", status.subnet_mask},
                {"default_gateway", status.default_gateway},
                {"dns_server1", status.dns_server1},
                {"dns_server2", status.dns_server2}};
    for (const auto &f : rest) {
        json_t *v = json_object_get(lan, f.key);
        if (!json_is_string(v)) {
            snprintf(message, CMD_MESSAGE_SIZE, "invalid '%s' element in LAN configuration", f.key);
            return lan_error(message);
        }
        snprintf(f.field, 16, "%s", json_string_value(v));
    }
    // Validated and acknowledged; this switch keeps its management LAN as it is.
    return 0;
}

void cmd_del_config(char *name, json_t *command, char *resp_href)
{
    cmd_envelope cmd("cmd_del_config", name, command, resp_href);
    const char *mode;
    if (!cmd.open_optional_text("reset-mode", "invalid 'reset-mode' element in params", &mode))
        return;

    // Answer first: once reset, the device cannot tell the controller.
    if (cmd.answer(0) == 0) {
        if (mode != nullptr && strcmp(mode, "soft") == 0) {
            log_fprint(orkad_log, "%s: performing soft reset\n", __func__);
            platform_factory_reset_soft();
        } else {
            log_fprint(orkad_log, "%s: performing default/normal reset\n", __func__);
            platform_factory_reset();
        }
    }
    cmd.answer(cmd.fail("failed 'del.config' handshake (response/reply phase)"));
}

int send_refresh_config(void)
{
    if (get_cloud_controller().empty())
        return 1;
    json_ptr doc(json_object());
    json_ptr capabilities(platform_capabilities());
    if (!doc || !capabilities ||
        json_object_set_new(doc.get(), "reason",
                            json_string(restarts > 0 ? "restart" : "reboot")) != 0 ||
        json_object_set(doc.get(), "capabilities", capabilities.get()) != 0) {
        log_fprint(orkad_log, "%s: cannot build the refresh notice\n", __func__);
        return 1;
    }
    malloc_ptr<char> body(json_dumps(doc.get(), JSON_COMPACT | JSON_PRESERVE_ORDER));
    if (!body) {
        log_fprint(orkad_log, "%s: cannot build the refresh notice\n", __func__);
        return 1;
    }
    return controller_post(controller_call::refresh, "/refresh-config", body.get(),
                           (int)strlen(body.get()), 1);
}
