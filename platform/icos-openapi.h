// The agent's side of the switch API: the one OpEN client connection, port
// status collection, the port write and the switch settings operations.
//
// Every sequence of OpEN calls made here holds icos_openapi_client_lock, so
// callers on any thread are serialised against each other and against the
// status collection.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// One remote LLDP device on a port.
struct lldp_neighbor {
    std::string chassis_id;
    int chassis_id_subtype = 0; // 1 chassis component ... 4 MAC address ... 7 locally assigned
    std::string port_id;
    int port_id_subtype = 0; // 1 interface alias ... 5 interface name ... 7 locally assigned
    std::string system_name;
    std::string system_description;
    std::string mgmt_address;
    std::string system_caps_supported;
    std::string system_caps_enabled;

    bool operator==(const lldp_neighbor &) const = default;
};
using lldp_neighbor_t = lldp_neighbor;

// One VLAN the port takes part in.
struct vlan_info {
    int vid = 0;
    std::string name;

    bool operator==(const vlan_info &) const = default;
};
using vlan_info_t = vlan_info;

// One record per switch interface number; the table is indexed by that
// number directly and entry 0 is never used. A port's neighbours and VLANs
// are the last two its walk found, in the order the switch gave them.
struct port_status {
    bool valid = false;   // seen by a collection at least once; never cleared
    bool changed = false; // set by collection when a field below changed; the reporter clears it
    bool link_up = false;
    bool link_enabled = false;
    bool full_duplex = false;
    int speed = 0; // Mbit/s, 0 when unknown
    char port_name[32] = {};
    char mac_addr[18] = {};
    std::vector<lldp_neighbor> neighbors;
    std::vector<vlan_info> vlans;
};
using port_status_t = port_status;

// Registers the OpEN client once and waits, without limit, until the switch's
// API service answers. 0 on success (also when already registered), -1 when
// the registration is refused.
int icos_openapi_client_init(void);

// Refreshes the table (indexed by interface number, max_port_count entries)
// from the switch and marks what changed.
void platform_collect_port_status(port_status_t *port_status, int max_port_count);

// Changes one port: id is the decimal interface number, admin_status "up",
// "down" or null, name the requested port name or null. message (512 bytes)
// receives the reason on failure. 0 on success, -1 on failure.
int platform_set_port_config(const char *id, const char *admin_status, const char *name,
                             char *message);

// Switch settings. 0 on success, -1 on failure unless noted.
int icos_add_logging_host(const char *host, int port);
int icos_set_syslog_mode(bool enabled);
int icos_set_logging_severity(const char *host, int severity);
int icos_set_sntp(const char *server);
int icos_set_password(const char *user, const char *pass);
int icos_set_fiber_no_autoneg(void);
int icos_save_configuration(void);
int icos_set_system_prompt(const char *prompt);
int icos_set_agent_version(const char *name, const char *version);
int icos_set_agent_status(const char *name, const char *status);

// 1 when the switch's cloud management is enabled, else 0 (also when the mode
// cannot be read).
int platform_cloud_management_enabled(void);
int platform_cloud_management_get_url(char *url, int url_size);

// Identity, read once and cached; null when the switch cannot tell. The MAC
// address is 6 raw bytes.
const char *icos_get_serial_number(void);
const char *platform_get_model_number(void);
const uint8_t *platform_get_system_mac_addr(void);

// Asks the switch to restart, then keeps the caller asleep for a minute while
// it goes down: 0 when the restart was accepted, 1 when it was refused.
int icos_system_reload(void);

// Has the switch write its support data to the named file.
int platform_get_support_data(const char *file);

// Every sleep of this unit goes through here (the connectivity retry and the
// wait after a reload); tests point it elsewhere.
extern unsigned int (*icos_openapi_sleep)(unsigned int seconds);
