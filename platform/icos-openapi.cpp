// The agent's side of the switch API: one OpEN client for the whole process,
// the port status collection and the switch settings operations.
#include "icos-openapi.h"
#include "raii.h"

#include "log.h"
#include "openapi.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <unistd.h>

unsigned int (*icos_openapi_sleep)(unsigned int seconds) = sleep;

namespace
{

std::atomic<bool> icos_openapi_initialized{false};
openapiClientHandle_t icos_openapi_client;
// Serialises every sequence of OpEN calls: the client handle is not shared
// safely by the library.
std::mutex icos_openapi_client_lock;

// Caller-supplied message buffers are 512 bytes.
const size_t message_size = 512;

// Longest LLDP text the agent is prepared to read.
const uint32_t lldp_str_limit = 8192;

const char *const collect_fn = "platform_collect_port_status";

// Heap copy of a text for a record; a failed copy is logged under the
// collecting function's name and gives null.
char *copy_text(const char *text, const char *who)
{
    char *copy = strdup(text);
    if (copy == nullptr)
        log_fprint(orkad_log, "%s: %s\n", who, "Out of memory");
    return copy;
}

// Copies at most `chars` characters of src into dst, which holds chars + 1.
void copy_cut(char *dst, size_t chars, const char *src)
{
    size_t n = strnlen(src, chars);
    memcpy(dst, src, n);
    dst[n] = '\0';
}

// An input text as OpEN takes it: the size counts the terminator.
open_buffdesc text_desc(const char *text)
{
    return open_buffdesc{(uint32_t)strlen(text) + 1, const_cast<char *>(text)};
}

bool same_text(const char *a, const char *b)
{
    if (a == nullptr || b == nullptr)
        return a == b;
    return strcmp(a, b) == 0;
}

// ---- neighbour and VLAN records ------------------------------------------

void free_neighbor(lldp_neighbor_t **neighbor)
{
    lldp_neighbor_t *n = *neighbor;
    if (n == nullptr)
        return;
    free(n->port_id);
    free(n->chassis_id);
    free(n->system_name);
    free(n->mgmt_address);
    free(n->system_description);
    free(n->system_caps_enabled);
    free(n->system_caps_supported);
    free(n);
    *neighbor = nullptr;
}

void free_vlan(vlan_info_t **vlan)
{
    vlan_info_t *v = *vlan;
    if (v == nullptr)
        return;
    free(v->name);
    free(v);
    *vlan = nullptr;
}

// Appends by walking the list head itself to the end, so the head ends up on
// the record that was last before the append: from the third record on only
// the last two stay in the list, which is what the status documents carry
// for a port. The records the head walks past are released here.
template <typename T> void append_advancing_head(T **list, T *record, void (*release)(T **))
{
    if (*list == nullptr) {
        *list = record;
        return;
    }
    while ((*list)->next != nullptr) {
        T *passed = *list;
        *list = passed->next;
        release(&passed);
    }
    (*list)->next = record;
}

// ---- collection ----------------------------------------------------------

int icos_convert_speed(OPEN_PORT_SPEEDS_t speed)
{
    // 100FX counts as 1000 and 20G as 0: that is what the controller has
    // always been sent for these ports.
    switch (speed) {
    case OPEN_PORTCTRL_PORTSPEED_HALF_100TX:
    case OPEN_PORTCTRL_PORTSPEED_FULL_100TX:
        return 100;
    case OPEN_PORTCTRL_PORTSPEED_HALF_10T:
    case OPEN_PORTCTRL_PORTSPEED_FULL_10T:
        return 10;
    case OPEN_PORTCTRL_PORTSPEED_FULL_100FX:
    case OPEN_PORTCTRL_PORTSPEED_FULL_1000SX:
        return 1000;
    case OPEN_PORTCTRL_PORTSPEED_FULL_10GSX:
        return 10000;
    case OPEN_PORTCTRL_PORTSPEED_FULL_40GSX:
        return 40000;
    default:
        return 0;
    }
}

// 0 and "unavailable" both count as read; an unavailable field is empty.
bool lldp_read(open_error_t r, char *buf)
{
    if (r == OPEN_E_UNAVAIL) {
        buf[0] = '\0';
        return true;
    }
    return r == OPEN_E_NONE;
}

typedef open_error_t (*lldp_text_get)(openapiClientHandle_t *, uint32_t, uint32_t, uint32_t,
                                      open_buffdesc *);

// Reads the LLDP neighbours of one port into a new list. Ports that do not
// receive LLDP yet are switched on and report their neighbours from the next
// cycle on.
lldp_neighbor_t *icos_collect_neighbors(uint32_t port)
{
    lldp_neighbor_t *list = nullptr;
    OPEN_CONTROL_t mode = OPEN_DISABLE;
    open_error_t r = rpcclt_openapiLldpIntfReceiveModeGet(&icos_openapi_client, port, &mode);
    if (r != OPEN_E_NONE) {
        log_fprint(orkad_log, "%s: openapiLldpIntfReceiveModeGet() failed (result = %d)\n",
                   __func__, r);
        return nullptr;
    }
    if (mode != OPEN_ENABLE) {
        r = rpcclt_openapiLldpIntfReceiveModeSet(&icos_openapi_client, port, OPEN_ENABLE);
        if (r != OPEN_E_NONE)
            log_fprint(orkad_log, "%s: openapiLldpIntfReceiveModeSet() failed (result = %d)\n",
                       __func__, r);
        return nullptr;
    }
    uint32_t len = 0;
    r = rpcclt_openapiLldpMgmtStrLenGet(&icos_openapi_client, &len);
    if (r != OPEN_E_NONE) {
        log_fprint(orkad_log, "%s: openapiLldpMgmtStrLenGet() failed (result = %d)\n", __func__, r);
        return nullptr;
    }
    if (len > lldp_str_limit) {
        log_fprint(orkad_log, "%s: MgmtStrLen = %d > limit 8192\n", __func__, (int)len);
        return nullptr;
    }

    // One scratch buffer for every text of this port; the byte past `len`
    // keeps a text that fills the buffer terminated.
    char buf[lldp_str_limit + 1];
    open_buffdesc desc;
    auto empty = [&]() {
        buf[0] = '\0';
        buf[len] = '\0';
        desc.size = len;
        desc.pstart = buf;
    };
    const char *who = __func__;
    auto keep = [&]() {
        buf[len] = '\0';
        return copy_text(buf, who);
    };

    static const struct {
        lldp_text_get get;
        char *lldp_neighbor_t::*field;
        const char *name;
    } texts[] = {
        {rpcclt_openapiLldpIntfRemoteDeviceSystemNameGet, &lldp_neighbor_t::system_name,
         "openapiLldpIntfRemoteDeviceSystemNameGet"},
        {rpcclt_openapiLldpIntfRemoteDeviceSystemDescGet, &lldp_neighbor_t::system_description,
         "openapiLldpIntfRemoteDeviceSystemDescGet"},
        {rpcclt_openapiLldpIntfRemoteDeviceSysCapSuppGet, &lldp_neighbor_t::system_caps_supported,
         "openapiLldpIntfRemoteDeviceSysCapSuppGet"},
        {rpcclt_openapiLldpIntfRemoteDeviceSysCapEnabledGet, &lldp_neighbor_t::system_caps_enabled,
         "openapiLldpIntfRemoteDeviceSysCapEnabledGet"},
    };

    uint32_t rem_index = 0, timestamp = 0;
    while (rpcclt_openapiLldpIntfRemoteDeviceNextGet(&icos_openapi_client, port, &rem_index,
                                                     &timestamp) == OPEN_E_NONE) {
        auto *n = static_cast<lldp_neighbor_t *>(calloc(1, sizeof(lldp_neighbor_t)));
        if (n == nullptr) {
            log_fprint(orkad_log, "%s: cannot allocate lldp_neighbor; out of memory!\n", __func__);
            break;
        }
        const char *failed = nullptr;

        OPEN_LLDP_CHASSIS_ID_SUBTYPE_t chassis_subtype = (OPEN_LLDP_CHASSIS_ID_SUBTYPE_t)0;
        empty();
        r = rpcclt_openapiLldpIntfRemoteDeviceChassisIdGet(&icos_openapi_client, port, rem_index,
                                                           timestamp, &chassis_subtype, &desc);
        if (lldp_read(r, buf)) {
            n->chassis_id_subtype = chassis_subtype;
            n->chassis_id = keep();
        } else {
            failed = "openapiLldpIntfRemoteDeviceChassisIdGet";
        }

        if (failed == nullptr) {
            OPEN_LLDP_PORT_ID_SUBTYPE_t port_subtype = (OPEN_LLDP_PORT_ID_SUBTYPE_t)0;
            empty();
            r = rpcclt_openapiLldpIntfRemoteDevicePortIdGet(&icos_openapi_client, port, rem_index,
                                                            timestamp, &port_subtype, &desc);
            if (lldp_read(r, buf)) {
                n->port_id_subtype = port_subtype;
                n->port_id = keep();
            } else {
                failed = "openapiLldpIntfRemoteDevicePortIdGet";
            }
        }

        for (const auto &t : texts) {
            if (failed != nullptr)
                break;
            empty();
            r = t.get(&icos_openapi_client, port, rem_index, timestamp, &desc);
            if (lldp_read(r, buf))
                n->*t.field = keep();
            else
                failed = t.name;
        }

        if (failed == nullptr) {
            OPEN_AF_t family = OPEN_AF_NONE;
            uint8_t addr_len = 0;
            empty();
            r = rpcclt_openapiLldpIntfRemoteDeviceMgmtAddressNextGet(
                &icos_openapi_client, port, rem_index, timestamp, &family, &desc, &addr_len);
            if (lldp_read(r, buf))
                n->mgmt_address = keep();
            else
                // Reported under the port-ID read's name, as it always was.
                failed = "openapiLldpIntfRemoteDevicePortIdGet";
        }

        if (failed != nullptr) {
            log_fprint(orkad_log, "%s: %s(%d, %d) result = %d\n", __func__, failed, (int)port,
                       (int)rem_index, r);
            free_neighbor(&n);
            continue;
        }
        append_advancing_head(&list, n, free_neighbor);
    }
    return list;
}

// Reads the VLANs one port takes part in into a new list.
vlan_info_t *icos_collect_vlans(uint32_t port)
{
    vlan_info_t *list = nullptr;
    uint32_t vid = 0;
    while (openapiVlanNextGet(&icos_openapi_client, vid, &vid) == OPEN_E_NONE) {
        uint32_t participating = 0;
        if (openapiVlanIfParticipationStatusGet(&icos_openapi_client, vid, port, &participating) !=
                OPEN_E_NONE ||
            participating == 0)
            continue;
        auto *v = static_cast<vlan_info_t *>(calloc(1, sizeof(vlan_info_t)));
        if (v == nullptr) {
            log_fprint(orkad_log, "%s: cannot allocate vlan_info; out of memory!\n", __func__);
            break;
        }
        v->vid = (int)vid;
        char name[128];
        name[0] = '\0';
        open_buffdesc desc{sizeof(name), name};
        open_error_t r = rpcclt_openapiVlanNameGet(&icos_openapi_client, vid, &desc);
        if (r != OPEN_E_NONE) {
            log_fprint(orkad_log, "%s: cannot retreive vlan name; port %d, vid %d (result = %d)\n",
                       __func__, (int)port, (int)vid, r);
            strcpy(name, " ");
        }
        name[sizeof(name) - 1] = '\0';
        v->name = copy_text(name, __func__);
        append_advancing_head(&list, v, free_vlan);
    }
    return list;
}

// Keeps the stored list when the fresh one says the same, else takes the
// fresh one and marks the port changed.
void neighbors_changed(port_status_t *ps, lldp_neighbor_t *fresh)
{
    bool differ = false;
    lldp_neighbor_t *a = fresh, *b = ps->neighbors;
    for (; a != nullptr && b != nullptr && !differ; a = a->next, b = b->next)
        differ = a->chassis_id_subtype != b->chassis_id_subtype ||
                 a->port_id_subtype != b->port_id_subtype ||
                 !same_text(a->chassis_id, b->chassis_id) || !same_text(a->port_id, b->port_id) ||
                 !same_text(a->system_name, b->system_name) ||
                 !same_text(a->system_description, b->system_description) ||
                 !same_text(a->mgmt_address, b->mgmt_address) ||
                 !same_text(a->system_caps_supported, b->system_caps_supported) ||
                 !same_text(a->system_caps_enabled, b->system_caps_enabled);
    if (!differ && a == nullptr && b == nullptr) {
        free_neighbor_list(&fresh);
        return;
    }
    free_neighbor_list(&ps->neighbors);
    ps->neighbors = fresh;
    ps->changed = true;
}

void vlans_changed(port_status_t *ps, vlan_info_t *fresh)
{
    bool differ = false;
    vlan_info_t *a = fresh, *b = ps->vlans;
    for (; a != nullptr && b != nullptr && !differ; a = a->next, b = b->next)
        differ = a->vid != b->vid || !same_text(a->name, b->name);
    if (!differ && a == nullptr && b == nullptr) {
        free_vlan_list(&fresh);
        return;
    }
    free_vlan_list(&ps->vlans);
    ps->vlans = fresh;
    ps->changed = true;
}

template <typename T> void update(port_status_t *ps, T &field, T value)
{
    if (field != value) {
        field = value;
        ps->changed = true;
    }
}

void update_text(port_status_t *ps, char *field, size_t size, const char *value)
{
    if (strcmp(field, value) != 0) {
        copy_cut(field, size - 1, value);
        ps->changed = true;
    }
}

// Reads every attribute of one port; a failed read leaves its field as it
// was and the walk goes on.
void collect_port(port_status_t *ps, uint32_t port)
{
    ps->valid = true;

    OPEN_LINK_STATE_t link = OPEN_LINK_DOWN;
    open_error_t r = openapiIfLinkStateGet(&icos_openapi_client, port, &link);
    if (r != OPEN_E_NONE)
        log_fprint(orkad_log, "%s: openapiIfLinkStateGet(%d) result = %d\n", collect_fn, (int)port,
                   r);
    else
        update(ps, ps->link_up, link == OPEN_LINK_UP);

    OPEN_CONTROL_t admin = OPEN_DISABLE;
    r = openapiIfAdminStateGet(&icos_openapi_client, port, &admin);
    if (r != OPEN_E_NONE)
        log_fprint(orkad_log, "%s: openapiIfAdminStateGet(%d) result = %d\n", collect_fn, (int)port,
                   r);
    else
        update(ps, ps->link_enabled, admin == OPEN_ENABLE);

    OPEN_PORT_SPEEDS_t speed = (OPEN_PORT_SPEEDS_t)0;
    r = openapiIfSpeedGet(&icos_openapi_client, port, &speed);
    if (r != OPEN_E_NONE)
        log_fprint(orkad_log, "%s: openapiIfSpeedGet(%d) result = %d\n", collect_fn, (int)port, r);
    else
        update(ps, ps->speed, icos_convert_speed(speed));

    OPEN_PORT_DUPLEX_t duplex = OPEN_PORT_DUPLEX_UNKNOWN;
    r = rpcclt_openapiIfDuplexModeGet(&icos_openapi_client, port, &duplex);
    if (r != OPEN_E_NONE)
        log_fprint(orkad_log, "%s: openapiIfDuplexModeGet(%d) result = %d\n", collect_fn, (int)port,
                   r);
    else
        update(ps, ps->full_duplex, duplex == OPEN_PORT_DUPLEX_FULL);

    char mac[18];
    mac[0] = '\0';
    open_buffdesc mac_desc{sizeof(mac), mac};
    r = rpcclt_openapiIfMacAddrGet(&icos_openapi_client, port, &mac_desc);
    if (r != OPEN_E_NONE) {
        log_fprint(orkad_log, "%s: openapiIfMacAddrGet(%d) result = %d\n", collect_fn, (int)port,
                   r);
    } else {
        mac[sizeof(mac) - 1] = '\0';
        update_text(ps, ps->mac_addr, sizeof(ps->mac_addr), mac);
    }

    char name[32];
    name[0] = '\0';
    open_buffdesc name_desc{sizeof(name), name};
    r = openapiIfNameGet(&icos_openapi_client, port, &name_desc);
    if (r != OPEN_E_NONE) {
        log_fprint(orkad_log, "%s: openapiIfNameGet(%d) result = %d\n", collect_fn, (int)port, r);
    } else {
        name[sizeof(name) - 1] = '\0';
        update_text(ps, ps->port_name, sizeof(ps->port_name), name);
    }

    neighbors_changed(ps, icos_collect_neighbors(port));
    vlans_changed(ps, icos_collect_vlans(port));
}

int icos_set_port_admin_status(int port, OPEN_CONTROL_t state, char *message)
{
    std::lock_guard<std::mutex> hold(icos_openapi_client_lock);
    open_error_t r = rpcclt_openapiIfAdminStateSet(&icos_openapi_client, (uint32_t)port, state);
    if (r != OPEN_E_NONE) {
        snprintf(message, message_size, "Setting admin_status of port %d failed (result = %d)",
                 port, r);
        log_fprint(orkad_log, "%s: %s\n", __func__, message);
        return -1;
    }
    return 0;
}

// Port names are fixed on this switch family.
int icos_set_port_name(int, const char *, char *message)
{
    snprintf(message, message_size, "Port names cannot be changed on this device");
    return -1;
}

} // namespace

void free_neighbor_list(lldp_neighbor_t **list)
{
    while (*list != nullptr) {
        lldp_neighbor_t *next = (*list)->next;
        free_neighbor(list);
        *list = next;
    }
}

void free_vlan_list(vlan_info_t **list)
{
    while (*list != nullptr) {
        vlan_info_t *next = (*list)->next;
        free_vlan(list);
        *list = next;
    }
}

int icos_openapi_client_init(void)
{
    if (icos_openapi_initialized)
        return 0;
    open_error_t r = openapiClientRegister("cloud_mgmt_agent_stats", &icos_openapi_client);
    if (r != OPEN_E_NONE) {
        log_fprint(orkad_log, "%s: Failed to initialize RPC to OpEN (result = %d)\n", __func__, r);
        return -1;
    }
    // Nothing the agent does makes sense without the switch, so wait for its
    // API service however long it takes to come up.
    while (rpcclt_openapiConnectivityCheck(&icos_openapi_client) != OPEN_E_NONE) {
        log_fprint(orkad_log, "%s: openapiConnectivityCheck() failed, retrying...\n", __func__);
        icos_openapi_sleep(1);
    }
    log_fprint(orkad_log, "%s: client registeration complete\n", __func__);
    icos_openapi_initialized = true;
    return 0;
}

void platform_collect_port_status(port_status_t *port_status, int max_port_count)
{
    std::lock_guard<std::mutex> hold(icos_openapi_client_lock);
    uint32_t port = 0;
    open_error_t r = openapiIfFirstGet(&icos_openapi_client, OPEN_INTF_TYPE_PHY, &port);
    while (r == OPEN_E_NONE) {
        if (port == 0 || (long long)port >= (long long)max_port_count)
            log_fprint(orkad_log, "%s: port %d, out of range\n", __func__, (int)port);
        else
            collect_port(&port_status[port], port);
        r = openapiIfNextGet(&icos_openapi_client, OPEN_INTF_TYPE_PHY, port, &port);
    }
}

int platform_set_port_config(const char *id, const char *admin_status, const char *name,
                             char *message)
{
    int port = id != nullptr ? (int)strtol(id, nullptr, 10) : 0;
    if (admin_status != nullptr) {
        OPEN_CONTROL_t state;
        if (strcmp(admin_status, "up") == 0) {
            state = OPEN_ENABLE;
        } else if (strcmp(admin_status, "down") == 0) {
            state = OPEN_DISABLE;
        } else {
            snprintf(message, message_size, "invalid admin_status for port %d", port);
            return -1;
        }
        if (icos_set_port_admin_status(port, state, message) != 0)
            return -1;
    }
    // An admin change made above stays in effect even when the name fails.
    if (name != nullptr)
        return icos_set_port_name(port, name, message);
    return 0;
}

// ---- switch settings -----------------------------------------------------

int icos_add_logging_host(const char *host, int port)
{
    std::lock_guard<std::mutex> hold(icos_openapi_client_lock);
    open_buffdesc h = text_desc(host);
    open_error_t r = rpcclt_openapiLoggingHostAdd(&icos_openapi_client, &h);
    // A host the switch already has only needs its port.
    if (r != OPEN_E_NONE && r != OPEN_E_EXISTS) {
        log_fprint(orkad_log, "%s: failed to add logging host %s (result = %d)\n", __func__, host,
                   r);
        return -1;
    }
    h = text_desc(host);
    r = rpcclt_openapiLoggingHostPortSet(&icos_openapi_client, &h, (uint16_t)port);
    if (r != OPEN_E_NONE) {
        log_fprint(orkad_log, "%s: failed to set logging host port %d (result = %d)\n", __func__,
                   port, r);
        return -1;
    }
    return 0;
}

int icos_set_syslog_mode(bool enabled)
{
    std::lock_guard<std::mutex> hold(icos_openapi_client_lock);
    open_error_t r =
        rpcclt_openapiSysLogModeSet(&icos_openapi_client, enabled ? OPEN_ENABLE : OPEN_DISABLE);
    if (r != OPEN_E_NONE) {
        log_fprint(orkad_log, "%s: failed to set syslog logging mode %d (result = %d)\n", __func__,
                   (int)enabled, r);
        return -1;
    }
    return 0;
}

int icos_set_logging_severity(const char *host, int severity)
{
    std::lock_guard<std::mutex> hold(icos_openapi_client_lock);
    open_buffdesc h = text_desc(host);
    open_error_t r = rpcclt_openapiLoggingHostSeveritySet(&icos_openapi_client, &h,
                                                          (OPEN_LOG_SEVERITY_t)severity);
    if (r != OPEN_E_NONE) {
        log_fprint(orkad_log, "%s: failed to set logging severity for '%s' to %d (result = %d)\n",
                   __func__, host, severity, r);
        return -1;
    }
    return 0;
}

int icos_set_sntp(const char *server)
{
    std::lock_guard<std::mutex> hold(icos_openapi_client_lock);
    open_buffdesc s = text_desc(server);
    open_error_t r = rpcclt_openapiSntpServerAdd(&icos_openapi_client, &s);
    if (r != OPEN_E_NONE) {
        log_fprint(orkad_log, "%s: failed to set sntp server '%s' (result = %d)\n", __func__,
                   server, r);
        return -1;
    }
    r = rpcclt_openapiSntpClientModeSet(&icos_openapi_client, OPEN_SNTP_CLIENT_UNICAST);
    if (r != OPEN_E_NONE) {
        log_fprint(orkad_log, "%s: failed to set sntp client mode (result = %d)\n", __func__, r);
        return -1;
    }
    return 0;
}

int icos_set_password(const char *user, const char *pass)
{
    char user_buf[64 + 1], pass_buf[64 + 1];
    copy_cut(user_buf, 64, user);
    copy_cut(pass_buf, 64, pass);
    std::lock_guard<std::mutex> hold(icos_openapi_client_lock);
    open_buffdesc u = text_desc(user_buf), p = text_desc(pass_buf);
    open_error_t r = rpcclt_openapiUserSet(&icos_openapi_client, &u, &p);
    if (r != OPEN_E_NONE) {
        log_fprint(orkad_log, "%s: failed to set user/password for '%s'/'%s' (result = %d)\n",
                   __func__, user_buf, LOG_SECRET_MARKER, r);
        return -1;
    }
    return 0;
}

int icos_set_fiber_no_autoneg(void)
{
    static const uint32_t fiber_ports[] = {25, 26, 27, 28};
    int result = 0;
    std::lock_guard<std::mutex> hold(icos_openapi_client_lock);
    for (uint32_t port : fiber_ports) {
        open_error_t r =
            rpcclt_openapiIfAutoNegSet(&icos_openapi_client, port, OPEN_PORT_AUTO_NEG_DISABLE);
        if (r != OPEN_E_NONE) {
            log_fprint(orkad_log,
                       "%s: cannot disable auto-negotiation on interface %d' (result = %d)\n",
                       __func__, (int)port, r);
            result = -1;
        }
    }
    return result;
}

int icos_save_configuration(void)
{
    std::unique_lock<std::mutex> hold(icos_openapi_client_lock);
    open_error_t r = rpcclt_openapiSaveConfig(&icos_openapi_client);
    hold.unlock();
    if (r != OPEN_E_NONE) {
        log_fprint(orkad_log, "%s: cannot save configuration (result = %d)\n", __func__, r);
        return -1;
    }
    return 0;
}

int icos_set_system_prompt(const char *prompt)
{
    std::lock_guard<std::mutex> hold(icos_openapi_client_lock);
    uint32_t max_size = 0;
    open_error_t r = rpcclt_openapiSystemPromptMaxSizeGet(&icos_openapi_client, &max_size);
    if (r != OPEN_E_NONE) {
        log_fprint(orkad_log, "%s: cannot get max_size of system prompt (result = %d)\n", __func__,
                   r);
        return -1;
    }
    malloc_ptr<char> buf(static_cast<char *>(malloc((size_t)max_size + 1)));
    if (!buf) {
        log_fprint(orkad_log, "%s: cannot allocate prompt buffer (%u bytes)\n", __func__,
                   max_size + 1);
        return -1;
    }
    copy_cut(buf.get(), max_size, prompt);
    open_buffdesc p = text_desc(buf.get());
    r = rpcclt_openapiSystemPromptSet(&icos_openapi_client, &p);
    if (r != OPEN_E_NONE) {
        log_fprint(orkad_log, "%s: cannot set system prompt (result = %d)\n", __func__, r);
        return -1;
    }
    return 0;
}

int icos_set_agent_version(const char *name, const char *version)
{
    char name_buf[16 + 1], version_buf[19 + 1];
    copy_cut(name_buf, 16, name);
    copy_cut(version_buf, 19, version);
    std::unique_lock<std::mutex> hold(icos_openapi_client_lock);
    open_buffdesc n = text_desc(name_buf), v = text_desc(version_buf);
    open_error_t r = rpcclt_openapiAppCtrlVersionSet(&icos_openapi_client, &n, &v);
    hold.unlock();
    if (r != OPEN_E_NONE) {
        log_fprint(orkad_log, "%s: cannot set application version (result = %d)\n", __func__, r);
        return -1;
    }
    return 0;
}

int icos_set_agent_status(const char *name, const char *status)
{
    char name_buf[16 + 1], status_buf[511 + 1];
    copy_cut(name_buf, 16, name);
    copy_cut(status_buf, 511, status);
    std::unique_lock<std::mutex> hold(icos_openapi_client_lock);
    open_buffdesc n = text_desc(name_buf), s = text_desc(status_buf);
    open_error_t r = rpcclt_openapiAppCtrlStatusSet(&icos_openapi_client, &n, &s);
    hold.unlock();
    if (r != OPEN_E_NONE) {
        log_fprint(orkad_log, "%s: cannot set application status (result = %d)\n", __func__, r);
        return -1;
    }
    return 0;
}

int platform_cloud_management_enabled(void)
{
    icos_openapi_client_init();
    OPEN_CONTROL_t mode = OPEN_DISABLE;
    std::unique_lock<std::mutex> hold(icos_openapi_client_lock);
    open_error_t r = rpcclt_openapiCloudManagedModeGet(&icos_openapi_client, &mode);
    hold.unlock();
    if (r != OPEN_E_NONE) {
        // Asked before the log files exist, so this goes to standard output.
        printf("%s: cannot get cloud management administrative mode (result = %d)\n", __func__, r);
        fflush(stdout);
        return 0;
    }
    return mode == OPEN_ENABLE ? 1 : 0;
}

int platform_cloud_management_get_url(char *url, int url_size)
{
    open_buffdesc u{(uint32_t)(url_size < 0 ? 0 : url_size), url};
    std::unique_lock<std::mutex> hold(icos_openapi_client_lock);
    open_error_t r = rpcclt_openapiCloudManagedServerUrlGet(&icos_openapi_client, &u);
    hold.unlock();
    if (r != OPEN_E_NONE) {
        log_fprint(orkad_log, "%s: cannot get cloud management server url (result = %d)\n",
                   __func__, r);
        return -1;
    }
    return 0;
}

// The identity caches count as filled once their first byte is non-zero; a
// MAC address beginning with 00 is therefore asked for again on every call.

const char *icos_get_serial_number(void)
{
    static char serial[256];
    if (serial[0] != '\0')
        return serial;
    open_buffdesc d{sizeof(serial), serial};
    std::unique_lock<std::mutex> hold(icos_openapi_client_lock);
    open_error_t r = rpcclt_openapiSystemRegSerialNumGet(&icos_openapi_client, &d);
    hold.unlock();
    if (r != OPEN_E_NONE) {
        serial[0] = '\0';
        log_fprint(orkad_log, "%s: cannot get serial number (result = %d)\n", __func__, r);
        return nullptr;
    }
    serial[sizeof(serial) - 1] = '\0';
    return serial;
}

const char *platform_get_model_number(void)
{
    static char model[256];
    if (model[0] != '\0')
        return model;
    open_buffdesc d{sizeof(model), model};
    std::unique_lock<std::mutex> hold(icos_openapi_client_lock);
    open_error_t r = rpcclt_openapiSystemRegMachineModelGet(&icos_openapi_client, &d);
    hold.unlock();
    if (r != OPEN_E_NONE) {
        model[0] = '\0';
        log_fprint(orkad_log, "%s: cannot get model number (result = %d)\n", __func__, r);
        return nullptr;
    }
    model[sizeof(model) - 1] = '\0';
    return model;
}

const uint8_t *platform_get_system_mac_addr(void)
{
    static uint8_t mac[6];
    if (mac[0] != 0)
        return mac;
    open_buffdesc d{sizeof(mac), mac};
    std::unique_lock<std::mutex> hold(icos_openapi_client_lock);
    open_error_t r = rpcclt_openapiSystemMacAddrGet(&icos_openapi_client, &d);
    hold.unlock();
    if (r != OPEN_E_NONE) {
        mac[0] = 0;
        log_fprint(orkad_log, "%s: cannot get system MAC address (result = %d)\n", __func__, r);
        return nullptr;
    }
    return mac;
}

int icos_system_reload(void)
{
    std::unique_lock<std::mutex> hold(icos_openapi_client_lock);
    open_error_t r = rpcclt_openapiSystemReload(&icos_openapi_client);
    hold.unlock();
    if (r != OPEN_E_NONE) {
        log_fprint(orkad_log, "%s: could not initiate system restart (result = %d)\n", __func__, r);
        return 1;
    }
    log_fprint(orkad_log, "%s: system restart initiated successfully.", __func__);
    // The switch takes the agent down with it; until then the caller must
    // not carry on as if nothing happened.
    icos_openapi_sleep(60);
    return 0;
}

int platform_get_support_data(const char *file)
{
    std::lock_guard<std::mutex> hold(icos_openapi_client_lock);
    uint32_t max_filename_len = 0;
    open_error_t r =
        rpcclt_openapiSystemFileNameMaxLengthGet(&icos_openapi_client, &max_filename_len);
    if (r != OPEN_E_NONE) {
        log_fprint(orkad_log, "%s: cannot get max_filename_len (result = %d)\n", __func__, r);
        return -1;
    }
    size_t size = (size_t)max_filename_len + 1;
    malloc_ptr<char> name(static_cast<char *>(malloc(size)));
    if (!name) {
        log_fprint(orkad_log, "%s: cannot allocate filename buffer (%d bytes)\n", __func__,
                   (int)size);
        return -1;
    }
    copy_cut(name.get(), max_filename_len, file);
    open_buffdesc d{(uint32_t)size, name.get()};
    r = rpcclt_openapiSupportFileGenerate(&icos_openapi_client, &d);
    if (r != OPEN_E_NONE) {
        log_fprint(orkad_log, "%s: cannot get support data (result = %d, file = '%s')\n", __func__,
                   r, name.get());
        return -1;
    }
    return 0;
}
