// The agent's side of the switch API: one OpEN client for the whole process,
// the port status collection and the switch settings operations.
#include "icos-openapi.h"
#include "raii.h"

#include "log.h"
#include "openapi.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <mutex>
#include <new>
#include <unistd.h>
#include <utility>

unsigned int (*icos_openapi_sleep)(unsigned int seconds) = sleep;

namespace
{

std::atomic<bool> icos_openapi_initialized{false};
openapiClientHandle_t icos_openapi_client;
// Serialises every sequence of OpEN calls: the client handle is not shared
// safely by the library.
std::mutex icos_openapi_client_lock;

// Caller-supplied message buffers are 512 bytes.
constexpr size_t message_size = 512;

// Longest LLDP text the agent is prepared to read.
constexpr uint32_t lldp_str_limit = 8192;

const char *const collect_fn = "platform_collect_port_status";

// An input text as OpEN takes it: the size counts the terminator.
open_buffdesc text_desc(const char *text)
{
    return open_buffdesc{(uint32_t)strlen(text) + 1, const_cast<char *>(text)};
}

// An input text cut to at most `chars` characters, with its descriptor.
struct cut_text {
    const std::string text;
    open_buffdesc desc;

    cut_text(const char *src, size_t chars)
        : text(src, strnlen(src, chars)), desc(text_desc(text.c_str()))
    {
    }
    cut_text(const cut_text &) = delete;
    cut_text &operator=(const cut_text &) = delete;
};

// One operation on the switch: holds the client lock from its first OpEN call
// to its return, and logs a failed call under the operation's name.
class switch_op
{
  public:
    explicit switch_op(const char *fn) : fn_(fn), hold_(icos_openapi_client_lock) {}

    openapiClientHandle_t *client() const { return &icos_openapi_client; }

    // 0 when the call went through; otherwise logs "<fn>: <what> (result =
    // <r>)" and gives -1.
    [[gnu::format(printf, 3, 4)]] int check(open_error_t r, const char *what, ...) const
    {
        if (r == OPEN_E_NONE)
            return 0;
        va_list ap, again;
        va_start(ap, what);
        va_copy(again, ap);
        int n = vsnprintf(nullptr, 0, what, ap);
        va_end(ap);
        std::string text(n > 0 ? (size_t)n : 0, '\0');
        vsnprintf(text.data(), text.size() + 1, what, again);
        va_end(again);
        log_fprint(orkad_log, "%s: %s (result = %d)\n", fn_, text.c_str(), r);
        return -1;
    }

    // Gives the lock back early, before a long wait of the caller.
    void release() { hold_.unlock(); }

  private:
    const char *fn_;
    std::unique_lock<std::mutex> hold_;
};

// ---- neighbour and VLAN lists --------------------------------------------

// A text for a record; a copy that finds no memory is logged and ends the
// list being built.
bool keep_text(std::string &field, const char *text, const char *who)
{
    try {
        field.assign(text);
        return true;
    } catch (const std::bad_alloc &) {
        log_fprint(orkad_log, "%s: %s\n", who, "Out of memory");
        return false;
    }
}

// A port reports the last two records its walk found: from the third on,
// the oldest drops off the front. False (logged) when there is no memory for
// the record; the list then stays as it was.
template <typename T>
bool append_last_two(std::vector<T> &list, T &&record, const char *who, const char *type)
{
    try {
        if (list.size() == 2)
            list.erase(list.begin());
        list.push_back(std::move(record));
        return true;
    } catch (const std::bad_alloc &) {
        log_fprint(orkad_log, "%s: cannot allocate %s; out of memory!\n", who, type);
        return false;
    }
}

// Keeps the stored list when the fresh one says the same, else takes the
// fresh one and marks the port changed.
template <typename T>
void replace_if_changed(port_status_t *ps, std::vector<T> &stored, std::vector<T> &&fresh)
{
    if (fresh == stored)
        return;
    stored = std::move(fresh);
    ps->changed = true;
}

// ---- collection ----------------------------------------------------------

// Mbit/s by OpEN speed value; 100FX counts as 1000 and 20G as 0, which is
// what the controller has always been sent for these ports. Auto-negotiate,
// 25G and up are 0 too.
constexpr int speed_mbits[] = {0, 0, 100, 100, 10, 10, 1000, 1000, 10000, 0, 40000};

int icos_convert_speed(OPEN_PORT_SPEEDS_t speed)
{
    return speed >= 0 && (size_t)speed < std::size(speed_mbits) ? speed_mbits[speed] : 0;
}

// One field of a remote device: the read, the text it fills and the call's
// name for the failure line.
struct lldp_field {
    const char *call;
    std::string lldp_neighbor::*text;
    open_error_t (*read)(uint32_t port, uint32_t index, uint32_t stamp, open_buffdesc *d,
                         lldp_neighbor &n);
};

typedef open_error_t (*lldp_text_get)(openapiClientHandle_t *, uint32_t, uint32_t, uint32_t,
                                      open_buffdesc *);

template <lldp_text_get get>
open_error_t lldp_text(uint32_t port, uint32_t index, uint32_t stamp, open_buffdesc *d,
                       lldp_neighbor &)
{
    return get(&icos_openapi_client, port, index, stamp, d);
}

// The two IDs come with their subtype.
template <typename S,
          open_error_t (*get)(openapiClientHandle_t *, uint32_t, uint32_t, uint32_t, S *,
                              open_buffdesc *),
          int lldp_neighbor::*subtype>
open_error_t lldp_id(uint32_t port, uint32_t index, uint32_t stamp, open_buffdesc *d,
                     lldp_neighbor &n)
{
    S value = (S)0;
    open_error_t r = get(&icos_openapi_client, port, index, stamp, &value, d);
    n.*subtype = value;
    return r;
}

// In the order the switch is asked.
const lldp_field lldp_fields[] = {
    {"openapiLldpIntfRemoteDeviceChassisIdGet", &lldp_neighbor::chassis_id,
     lldp_id<OPEN_LLDP_CHASSIS_ID_SUBTYPE_t, rpcclt_openapiLldpIntfRemoteDeviceChassisIdGet,
             &lldp_neighbor::chassis_id_subtype>},
    {"openapiLldpIntfRemoteDevicePortIdGet", &lldp_neighbor::port_id,
     lldp_id<OPEN_LLDP_PORT_ID_SUBTYPE_t, rpcclt_openapiLldpIntfRemoteDevicePortIdGet,
             &lldp_neighbor::port_id_subtype>},
    {"openapiLldpIntfRemoteDeviceSystemNameGet", &lldp_neighbor::system_name,
     lldp_text<rpcclt_openapiLldpIntfRemoteDeviceSystemNameGet>},
    {"openapiLldpIntfRemoteDeviceSystemDescGet", &lldp_neighbor::system_description,
     lldp_text<rpcclt_openapiLldpIntfRemoteDeviceSystemDescGet>},
    {"openapiLldpIntfRemoteDeviceSysCapSuppGet", &lldp_neighbor::system_caps_supported,
     lldp_text<rpcclt_openapiLldpIntfRemoteDeviceSysCapSuppGet>},
    {"openapiLldpIntfRemoteDeviceSysCapEnabledGet", &lldp_neighbor::system_caps_enabled,
     lldp_text<rpcclt_openapiLldpIntfRemoteDeviceSysCapEnabledGet>},
    // A failed address read is logged with the port-ID read's text.
    {"openapiLldpIntfRemoteDevicePortIdGet", &lldp_neighbor::mgmt_address,
     [](uint32_t port, uint32_t index, uint32_t stamp, open_buffdesc *d, lldp_neighbor &) {
         OPEN_AF_t family = OPEN_AF_NONE;
         uint8_t addr_len = 0;
         return rpcclt_openapiLldpIntfRemoteDeviceMgmtAddressNextGet(
             &icos_openapi_client, port, index, stamp, &family, d, &addr_len);
     }},
};

// 0 and "unavailable" both count as read; an unavailable field is empty.
bool lldp_read(open_error_t r, char *buf)
{
    if (r == OPEN_E_UNAVAIL) {
        buf[0] = '\0';
        return true;
    }
    return r == OPEN_E_NONE;
}

// Reads the LLDP neighbours of one port into a new list. Ports that do not
// receive LLDP yet are switched on and report their neighbours from the next
// cycle on.
std::vector<lldp_neighbor> icos_collect_neighbors(uint32_t port)
{
    std::vector<lldp_neighbor> list;
    OPEN_CONTROL_t mode = OPEN_DISABLE;
    open_error_t r = rpcclt_openapiLldpIntfReceiveModeGet(&icos_openapi_client, port, &mode);
    if (r != OPEN_E_NONE) {
        log_fprint(orkad_log, "%s: openapiLldpIntfReceiveModeGet() failed (result = %d)\n",
                   __func__, r);
        return list;
    }
    if (mode != OPEN_ENABLE) {
        r = rpcclt_openapiLldpIntfReceiveModeSet(&icos_openapi_client, port, OPEN_ENABLE);
        if (r != OPEN_E_NONE)
            log_fprint(orkad_log, "%s: openapiLldpIntfReceiveModeSet() failed (result = %d)\n",
                       __func__, r);
        return list;
    }
    uint32_t len = 0;
    r = rpcclt_openapiLldpMgmtStrLenGet(&icos_openapi_client, &len);
    if (r != OPEN_E_NONE) {
        log_fprint(orkad_log, "%s: openapiLldpMgmtStrLenGet() failed (result = %d)\n", __func__, r);
        return list;
    }
    if (len > lldp_str_limit) {
        log_fprint(orkad_log, "%s: MgmtStrLen = %d > limit 8192\n", __func__, (int)len);
        return list;
    }
    // One scratch buffer for every text of this port, emptied and at full
    // size again before each read. OpEN writes at most `len` bytes, so the
    // byte past them keeps a text that fills the buffer terminated.
    char buf[lldp_str_limit + 1];
    open_buffdesc desc;
    auto fresh = [&]() {
        buf[0] = buf[len] = '\0';
        desc = open_buffdesc{len, buf};
        return &desc;
    };

    uint32_t rem_index = 0, timestamp = 0;
    while (rpcclt_openapiLldpIntfRemoteDeviceNextGet(&icos_openapi_client, port, &rem_index,
                                                     &timestamp) == OPEN_E_NONE) {
        lldp_neighbor n;
        const lldp_field *failed = nullptr;
        for (const lldp_field &f : lldp_fields) {
            r = f.read(port, rem_index, timestamp, fresh(), n);
            if (!lldp_read(r, buf)) {
                failed = &f;
                break;
            }
            if (!keep_text(n.*f.text, buf, __func__))
                return list;
        }
        // A neighbour that cannot be read whole is left out; the others
        // still count.
        if (failed != nullptr) {
            log_fprint(orkad_log, "%s: %s(%d, %d) result = %d\n", __func__, failed->call, (int)port,
                       (int)rem_index, r);
            continue;
        }
        if (!append_last_two(list, std::move(n), __func__, "lldp_neighbor"))
            break;
    }
    return list;
}

// Reads the VLANs one port takes part in into a new list.
std::vector<vlan_info> icos_collect_vlans(uint32_t port)
{
    std::vector<vlan_info> list;
    uint32_t vid = 0;
    while (openapiVlanNextGet(&icos_openapi_client, vid, &vid) == OPEN_E_NONE) {
        uint32_t participating = 0;
        if (openapiVlanIfParticipationStatusGet(&icos_openapi_client, vid, port, &participating) !=
                OPEN_E_NONE ||
            participating == 0)
            continue;
        vlan_info v;
        v.vid = (int)vid;
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
        if (!keep_text(v.name, name, __func__) ||
            !append_last_two(list, std::move(v), __func__, "vlan_info"))
            break;
    }
    return list;
}

// True when one attribute of a port was read; a failed read is logged and
// leaves its field as it was.
bool port_read(open_error_t r, const char *call, uint32_t port)
{
    if (r == OPEN_E_NONE)
        return true;
    log_fprint(orkad_log, "%s: %s(%d) result = %d\n", collect_fn, call, (int)port, r);
    return false;
}

// One attribute of a port, read with `get` and turned into the field's value
// by `value`; a new value marks the port changed.
template <typename R, typename T, typename F>
void update(port_status_t *ps, T &field, const char *call, uint32_t port,
            open_error_t (*get)(openapiClientHandle_t *, uint32_t, R *), F value)
{
    R raw{};
    if (!port_read(get(&icos_openapi_client, port, &raw), call, port))
        return;
    T v = value(raw);
    if (field != v) {
        field = v;
        ps->changed = true;
    }
}

// A text attribute, read into a buffer the size of its field.
template <size_t N>
void update_text(port_status_t *ps, char (&field)[N], const char *call, uint32_t port,
                 open_error_t (*get)(openapiClientHandle_t *, uint32_t, open_buffdesc *))
{
    char text[N] = "";
    open_buffdesc d{N, text};
    if (!port_read(get(&icos_openapi_client, port, &d), call, port))
        return;
    text[N - 1] = '\0';
    if (strcmp(field, text) != 0) {
        memcpy(field, text, N);
        ps->changed = true;
    }
}

// Reads every attribute of one port; the walk goes on past a failed read.
void collect_port(port_status_t *ps, uint32_t port)
{
    ps->valid = true;

    update(ps, ps->link_up, "openapiIfLinkStateGet", port, openapiIfLinkStateGet,
           [](OPEN_LINK_STATE_t v) { return v == OPEN_LINK_UP; });
    update(ps, ps->link_enabled, "openapiIfAdminStateGet", port, openapiIfAdminStateGet,
           [](OPEN_CONTROL_t v) { return v == OPEN_ENABLE; });
    update(ps, ps->speed, "openapiIfSpeedGet", port, openapiIfSpeedGet, icos_convert_speed);
    update(ps, ps->full_duplex, "openapiIfDuplexModeGet", port, rpcclt_openapiIfDuplexModeGet,
           [](OPEN_PORT_DUPLEX_t v) { return v == OPEN_PORT_DUPLEX_FULL; });
    update_text(ps, ps->mac_addr, "openapiIfMacAddrGet", port, rpcclt_openapiIfMacAddrGet);
    update_text(ps, ps->port_name, "openapiIfNameGet", port, openapiIfNameGet);

    replace_if_changed(ps, ps->neighbors, icos_collect_neighbors(port));
    replace_if_changed(ps, ps->vlans, icos_collect_vlans(port));
}

int icos_set_port_admin_status(int port, OPEN_CONTROL_t state, char *message)
{
    switch_op op(__func__);
    open_error_t r = rpcclt_openapiIfAdminStateSet(op.client(), (uint32_t)port, state);
    if (r != OPEN_E_NONE) {
        snprintf(message, message_size, "Setting admin_status of port %d failed (result = %d)",
                 port, r);
        log_fprint(orkad_log, "%s: %s\n", __func__, message);
        return -1;
    }
    return 0;
}

// One identity value, read from the switch once and kept. It counts as read
// once its first byte is non-zero, so a MAC address beginning with 00 is
// asked for again on every call.
template <size_t N> struct identity_cache {
    std::atomic<bool> filled{false};
    unsigned char bytes[N] = {};

    // False (logged) when the read fails; the cache then stays empty. Texts
    // are kept terminated.
    bool fill(const char *fn, const char *what, bool text,
              open_error_t (*get)(openapiClientHandle_t *, open_buffdesc *))
    {
        if (filled.load(std::memory_order_acquire))
            return true;
        switch_op op(fn);
        // Another caller may have read it while this one waited for the lock.
        if (filled.load(std::memory_order_relaxed))
            return true;
        open_buffdesc d{N, bytes};
        if (op.check(get(op.client(), &d), "cannot get %s", what) != 0) {
            bytes[0] = 0;
            return false;
        }
        if (text)
            bytes[N - 1] = 0;
        filled.store(bytes[0] != 0, std::memory_order_release);
        return true;
    }
};

} // namespace

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
    switch_op op(__func__);
    uint32_t port = 0;
    open_error_t r = openapiIfFirstGet(op.client(), OPEN_INTF_TYPE_PHY, &port);
    while (r == OPEN_E_NONE) {
        if (port == 0 || (long long)port >= (long long)max_port_count)
            log_fprint(orkad_log, "%s: port %d, out of range\n", __func__, (int)port);
        else
            collect_port(&port_status[port], port);
        r = openapiIfNextGet(op.client(), OPEN_INTF_TYPE_PHY, port, &port);
    }
}

int platform_set_port_config(const char *id, const char *admin_status, const char *name,
                             char *message)
{
    int port = id != nullptr ? (int)strtol(id, nullptr, 10) : 0;
    if (admin_status != nullptr) {
        bool up = strcmp(admin_status, "up") == 0;
        if (!up && strcmp(admin_status, "down") != 0) {
            snprintf(message, message_size, "invalid admin_status for port %d", port);
            return -1;
        }
        if (icos_set_port_admin_status(port, up ? OPEN_ENABLE : OPEN_DISABLE, message) != 0)
            return -1;
    }
    // Port names are fixed on this switch family; an admin change made above
    // stays in effect.
    if (name != nullptr) {
        snprintf(message, message_size, "Port names cannot be changed on this device");
        return -1;
    }
    return 0;
}

// ---- switch settings -----------------------------------------------------

int icos_add_logging_host(const char *host, int port)
{
    switch_op op(__func__);
    open_buffdesc h = text_desc(host);
    open_error_t r = rpcclt_openapiLoggingHostAdd(op.client(), &h);
    // A host the switch already has only needs its port.
    if (op.check(r == OPEN_E_EXISTS ? OPEN_E_NONE : r, "failed to add logging host %s", host) != 0)
        return -1;
    h = text_desc(host);
    return op.check(rpcclt_openapiLoggingHostPortSet(op.client(), &h, (uint16_t)port),
                    "failed to set logging host port %d", port);
}

int icos_set_syslog_mode(bool enabled)
{
    switch_op op(__func__);
    return op.check(rpcclt_openapiSysLogModeSet(op.client(), enabled ? OPEN_ENABLE : OPEN_DISABLE),
                    "failed to set syslog logging mode %d", (int)enabled);
}

int icos_set_logging_severity(const char *host, int severity)
{
    switch_op op(__func__);
    open_buffdesc h = text_desc(host);
    return op.check(
        rpcclt_openapiLoggingHostSeveritySet(op.client(), &h, (OPEN_LOG_SEVERITY_t)severity),
        "failed to set logging severity for '%s' to %d", host, severity);
}

int icos_set_sntp(const char *server)
{
    switch_op op(__func__);
    open_buffdesc s = text_desc(server);
    if (op.check(rpcclt_openapiSntpServerAdd(op.client(), &s), "failed to set sntp server '%s'",
                 server) != 0)
        return -1;
    return op.check(rpcclt_openapiSntpClientModeSet(op.client(), OPEN_SNTP_CLIENT_UNICAST),
                    "failed to set sntp client mode");
}

int icos_set_password(const char *user, const char *pass)
{
    cut_text u(user, 64), p(pass, 64);
    switch_op op(__func__);
    // The password itself never reaches the log.
    return op.check(rpcclt_openapiUserSet(op.client(), &u.desc, &p.desc),
                    "failed to set user/password for '%s'/'%s'", u.text.c_str(), LOG_SECRET_MARKER);
}

int icos_set_fiber_no_autoneg(void)
{
    static const uint32_t fiber_ports[] = {25, 26, 27, 28};
    int result = 0;
    switch_op op(__func__);
    for (uint32_t port : fiber_ports)
        if (op.check(rpcclt_openapiIfAutoNegSet(op.client(), port, OPEN_PORT_AUTO_NEG_DISABLE),
                     "cannot disable auto-negotiation on interface %d'", (int)port) != 0)
            result = -1;
    return result;
}

int icos_save_configuration(void)
{
    switch_op op(__func__);
    return op.check(rpcclt_openapiSaveConfig(op.client()), "cannot save configuration");
}

int icos_set_system_prompt(const char *prompt)
{
    switch_op op(__func__);
    uint32_t max_size = 0;
    if (op.check(rpcclt_openapiSystemPromptMaxSizeGet(op.client(), &max_size),
                 "cannot get max_size of system prompt") != 0)
        return -1;
    cut_text p(prompt, max_size);
    return op.check(rpcclt_openapiSystemPromptSet(op.client(), &p.desc),
                    "cannot set system prompt");
}

int icos_set_agent_version(const char *name, const char *version)
{
    cut_text n(name, 16), v(version, 19);
    switch_op op(__func__);
    return op.check(rpcclt_openapiAppCtrlVersionSet(op.client(), &n.desc, &v.desc),
                    "cannot set application version");
}

int icos_set_agent_status(const char *name, const char *status)
{
    cut_text n(name, 16), s(status, 511);
    switch_op op(__func__);
    return op.check(rpcclt_openapiAppCtrlStatusSet(op.client(), &n.desc, &s.desc),
                    "cannot set application status");
}

int platform_cloud_management_enabled(void)
{
    icos_openapi_client_init();
    OPEN_CONTROL_t mode = OPEN_DISABLE;
    switch_op op(__func__);
    open_error_t r = rpcclt_openapiCloudManagedModeGet(op.client(), &mode);
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
    switch_op op(__func__);
    return op.check(rpcclt_openapiCloudManagedServerUrlGet(op.client(), &u),
                    "cannot get cloud management server url");
}

const char *icos_get_serial_number(void)
{
    static identity_cache<256> serial;
    if (!serial.fill(__func__, "serial number", true, rpcclt_openapiSystemRegSerialNumGet))
        return nullptr;
    return reinterpret_cast<const char *>(serial.bytes);
}

const char *platform_get_model_number(void)
{
    static identity_cache<256> model;
    if (!model.fill(__func__, "model number", true, rpcclt_openapiSystemRegMachineModelGet))
        return nullptr;
    return reinterpret_cast<const char *>(model.bytes);
}

const uint8_t *platform_get_system_mac_addr(void)
{
    static identity_cache<6> mac;
    if (!mac.fill(__func__, "system MAC address", false, rpcclt_openapiSystemMacAddrGet))
        return nullptr;
    return mac.bytes;
}

int icos_system_reload(void)
{
    switch_op op(__func__);
    if (op.check(rpcclt_openapiSystemReload(op.client()), "could not initiate system restart") != 0)
        return 1;
    op.release();
    log_fprint(orkad_log, "%s: system restart initiated successfully.", __func__);
    // The switch takes the agent down with it; until then the caller must
    // not carry on as if nothing happened.
    icos_openapi_sleep(60);
    return 0;
}

int platform_get_support_data(const char *file)
{
    switch_op op(__func__);
    uint32_t max_filename_len = 0;
    if (op.check(rpcclt_openapiSystemFileNameMaxLengthGet(op.client(), &max_filename_len),
                 "cannot get max_filename_len") != 0)
        return -1;
    size_t size = (size_t)max_filename_len + 1;
    malloc_ptr<char> name(static_cast<char *>(malloc(size)));
    if (!name) {
        log_fprint(orkad_log, "%s: cannot allocate filename buffer (%d bytes)\n", __func__,
                   (int)size);
        return -1;
    }
    snprintf(name.get(), size, "%s", file);
    open_buffdesc d{(uint32_t)size, name.get()};
    open_error_t r = rpcclt_openapiSupportFileGenerate(op.client(), &d);
    if (r != OPEN_E_NONE) {
        log_fprint(orkad_log, "%s: cannot get support data (result = %d, file = '%s')\n", __func__,
                   r, name.get());
        return -1;
    }
    return 0;
}
