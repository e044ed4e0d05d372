// Port status: the per-port record the switch adapter fills and the status
// reporter turns into documents.
#pragma once

// One remote LLDP device on a port; every text is a heap copy owned by the
// record.
typedef struct lldp_neighbor {
    struct lldp_neighbor *next;
    char *chassis_id;
    int chassis_id_subtype; // 1 chassis component ... 4 MAC address ... 7 locally assigned
    char *port_id;
    int port_id_subtype; // 1 interface alias ... 5 interface name ... 7 locally assigned
    char *system_name;
    char *system_description;
    char *mgmt_address;
    char *system_caps_supported;
    char *system_caps_enabled;
} lldp_neighbor_t;

// One VLAN the port takes part in; name is a heap copy owned by the record.
typedef struct vlan_info {
    struct vlan_info *next;
    int vid;
    char *name;
} vlan_info_t;

// One record per switch interface number; the table is indexed by that
// number directly and entry 0 is never used.
typedef struct port_status {
    bool valid;   // seen by a collection at least once; never cleared
    bool changed; // set by collection when a field below changed; the reporter clears it
    bool link_up;
    bool link_enabled;
    bool full_duplex;
    int speed; // Mbit/s, 0 when unknown
    char port_name[32];
    char mac_addr[18];
    lldp_neighbor_t *neighbors;
    vlan_info_t *vlans;
} port_status_t;
