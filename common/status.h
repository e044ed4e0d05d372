// Port status: the per-port record the switch adapter fills (platform/
// icos-openapi) and the status reporter turns into documents.
#pragma once

#include "stream.h"

#include <jansson.h>

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

// ---- the status stream ------------------------------------------------------

// Size of the port table: interface numbers 1..127.
#define STATUS_MAX_PORTS 128
// The thread's pace is counted in steps of this many seconds.
#define STATUS_STEP 10
#define STATUS_MIN_INTERVAL 10
#define STATUS_MAX_INTERVAL 3600

// Adds members to the outgoing document; last_failed is true when the
// previous post failed or none has succeeded yet (then everything is sent).
typedef void (*status_fn)(json_t *st_obj, bool last_failed);

typedef struct status_provider {
    struct status_provider *next;
    const char *name; // not copied: callers pass literals
    status_fn fn;
} status_provider_t;

// The stream "set.status" turns on: its switch, its interval (seconds,
// 10..3600) and its "status_send" thread.
extern stream_record status_stream;
// The table the port provider reports from; allocated on first use.
extern port_status_t *port_status;
extern status_provider_t *status_providers;

// Every wait of the status thread goes through here; tests point it
// elsewhere.
extern unsigned int (*status_sleep)(unsigned int seconds);

void status_init(void);
int status_register_provider(const char *name, status_fn fn);
void status_debug(int sig);
void cmd_set_status(char *command, json_t *js_command, char *resp_href);
// Body of the "status_send" thread.
void status_send(stream_record &stream);
// One authenticated POST of a document; 0 on success, else the last result.
int status_post(const char *path, const char *payload, int length);
// Splits text at sep into a new array of strings; null text gives [].
json_t *str_to_json_array(const char *text, char sep);
void status_port_provider(json_t *st_obj, bool last_failed);
