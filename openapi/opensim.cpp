// The simulated switch: serves the OpEN calls of openapi.h where the vendor's
// client library is absent.
//
// The switch's state is one JSON model in the device root, re-read whenever
// the file changes, so a test or a person can pull a link down while the agent
// runs. Faults (forced results for chosen calls) come from a second file
// beside it. Every write the agent makes is applied to the model, saved back,
// and appended as one JSON line to the journal. docs/switch.md describes all
// three files.
#include "openapi.h"

#include "devroot.h"
#include "raii.h"

#include <jansson.h>

#include <cerrno>
#include <cstdio>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

const char *const model_file = "/var/switch/model.json";
const char *const faults_file = "/var/switch/faults.json";
const char *const journal_file = "/var/switch/journal";

// Values served when the model leaves them out.
const int default_port_count = 28;
const char *const default_serial = "VX0123456789";
const char *const default_model = "VX-S28";
const char *const default_mac = "02:00:00:00:00:01";
const char *const default_prompt = "VX-S28";
const int64_t default_prompt_max_size = 64;
const int64_t default_filename_max_length = 128;
const int64_t default_lldp_str_len = 256;
const int64_t default_max_logging_hosts = 8;
const int64_t default_max_sntp_servers = 3;
const int64_t default_logging_port = 514;
const int64_t default_logging_severity = OPEN_LOG_SEVERITY_ERROR;

// A file the simulator follows. Its stat is remembered with the text last
// taken from it; a file changed within the last two seconds is read again on
// every call, because its modification time may not have moved since.
struct watched {
    explicit watched(const char *device) : device_path(device) {}
    const char *device_path;
    std::string path; // mapped path the state below belongs to
    bool present = false;
    struct stat st = {};
    std::string raw;
    std::string refused; // text that did not parse, reported once
};

struct simulator {
    std::mutex lock;
    watched model_w{watched(model_file)};
    watched faults_w{watched(faults_file)};
    json_ptr model;
    json_ptr faults;
};

simulator sim;

bool read_all(const char *path, std::string &out)
{
    file_ptr f(fopen(path, "rb"));
    if (!f)
        return false;
    char buf[8192];
    size_t n;
    out.clear();
    while ((n = fread(buf, 1, sizeof(buf), f.get())) > 0)
        out.append(buf, n);
    return !ferror(f.get());
}

bool same_stat(const struct stat &a, const struct stat &b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
           a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec &&
           a.st_ctim.tv_sec == b.st_ctim.tv_sec && a.st_ctim.tv_nsec == b.st_ctim.tv_nsec;
}

bool recently_changed(const struct stat &st)
{
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    time_t newest = st.st_mtim.tv_sec > st.st_ctim.tv_sec ? st.st_mtim.tv_sec : st.st_ctim.tv_sec;
    return now.tv_sec - newest < 2;
}

bool make_parents(const std::string &path)
{
    for (size_t i = 1; i < path.size(); i++) {
        if (path[i] != '/')
            continue;
        std::string dir = path.substr(0, i);
        if (mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST)
            return false;
    }
    return true;
}

// Re-reads a followed file when it changed. A text that does not parse (a
// half-written file, a typo) leaves the previous state in place and is tried
// again on the next call.
void refresh(watched &w, json_ptr &value, bool want_array)
{
    char p[1024];
    if (devroot_path(w.device_path, p, sizeof(p)) == nullptr)
        return;
    if (w.path != p) {
        // Another device root: nothing of the old one applies.
        w = watched(w.device_path);
        w.path = p;
        value.reset();
    }
    struct stat st;
    if (stat(p, &st) != 0) {
        if (w.present) {
            w.present = false;
            w.raw.clear();
            value.reset();
        }
        return;
    }
    if (w.present && same_stat(st, w.st) && !recently_changed(st))
        return;
    std::string raw;
    if (!read_all(p, raw))
        return;
    if (w.present && raw == w.raw) {
        w.st = st;
        return;
    }
    json_error_t err;
    json_ptr j(json_loadb(raw.data(), raw.size(), 0, &err));
    bool ok = j && (want_array ? json_is_array(j.get()) : json_is_object(j.get()));
    if (!ok) {
        if (raw != w.refused) {
            w.refused = raw;
            fprintf(stderr, "switch simulator: ignoring %s: %s\n", p,
                    j ? (want_array ? "not an array" : "not an object") : err.text);
        }
        return;
    }
    value = std::move(j);
    w.present = true;
    w.st = st;
    w.raw = std::move(raw);
}

// Writes a followed file through a temporary and a rename, so that readers
// never see half of it, and remembers what was written.
void save(watched &w, json_t *value)
{
    if (w.path.empty() || !make_parents(w.path))
        return;
    malloc_ptr<char> text(json_dumps(value, JSON_INDENT(2) | JSON_PRESERVE_ORDER));
    if (!text)
        return;
    std::string raw(text.get());
    raw += '\n';
    std::string tmp = w.path + ".tmp";
    {
        file_ptr f(fopen(tmp.c_str(), "wb"));
        if (!f || fwrite(raw.data(), 1, raw.size(), f.get()) != raw.size())
            return;
    }
    if (rename(tmp.c_str(), w.path.c_str()) != 0)
        return;
    struct stat st;
    if (stat(w.path.c_str(), &st) == 0) {
        w.st = st;
        w.present = true;
        w.raw = std::move(raw);
    }
}

// ---- model access --------------------------------------------------------

json_t *member(json_t *obj, const char *key, json_t *(*make)(void))
{
    json_t *v = json_object_get(obj, key);
    if (v == nullptr && make != nullptr) {
        v = make();
        json_object_set_new(obj, key, v);
    }
    return v;
}

int64_t int_member(json_t *obj, const char *key, int64_t dflt)
{
    json_t *v = json_object_get(obj, key);
    return json_is_integer(v) ? (int64_t)json_integer_value(v) : dflt;
}

const char *text_member(json_t *obj, const char *key, const char *dflt)
{
    json_t *v = json_object_get(obj, key);
    return json_is_string(v) ? json_string_value(v) : dflt;
}

// A state that people write as a word, a boolean or the OpEN number: true
// and the first word give on_value, false and the second word off_value.
int64_t state_member(json_t *obj, const char *key, int64_t dflt, const char *on_word,
                     int64_t on_value, const char *off_word, int64_t off_value)
{
    json_t *v = json_object_get(obj, key);
    if (json_is_integer(v))
        return (int64_t)json_integer_value(v);
    if (json_is_boolean(v))
        return json_is_true(v) ? on_value : off_value;
    if (json_is_string(v)) {
        if (strcmp(json_string_value(v), on_word) == 0)
            return on_value;
        if (strcmp(json_string_value(v), off_word) == 0)
            return off_value;
    }
    return dflt;
}

int64_t control_member(json_t *obj, const char *key, int64_t dflt)
{
    return state_member(obj, key, dflt, "enable", OPEN_ENABLE, "disable", OPEN_DISABLE);
}

const char *control_word(int64_t v)
{
    return v == OPEN_ENABLE ? "enable" : "disable";
}

// Texts from the agent need not be UTF-8; the model and journal are.
json_t *text_value(const char *s)
{
    json_t *v = json_string(s);
    if (v != nullptr)
        return v;
    std::string clean(s);
    for (char &c : clean)
        if ((unsigned char)c >= 0x80)
            c = '?';
    return json_string(clean.c_str());
}

json_t *system_of(json_t *model)
{
    return member(model, "system", json_object);
}

int64_t ifnum_of(json_t *port, size_t index)
{
    return int_member(port, "ifnum", (int64_t)index + 1);
}

json_t *port_of(json_t *model, uint32_t ifnum)
{
    size_t i;
    json_t *port;
    json_array_foreach(json_object_get(model, "ports"), i, port)
    {
        if (json_is_object(port) && ifnum_of(port, i) == (int64_t)ifnum)
            return port;
    }
    return nullptr;
}

int64_t type_of(json_t *port)
{
    const char *t = text_member(port, "type", "phy");
    if (strcmp(t, "phy") == 0)
        return OPEN_INTF_TYPE_PHY;
    if (strcmp(t, "cpu") == 0)
        return OPEN_INTF_TYPE_CPU;
    if (strcmp(t, "lag") == 0)
        return OPEN_INTF_TYPE_LAG;
    if (strcmp(t, "vlan") == 0)
        return OPEN_INTF_TYPE_VLAN;
    return OPEN_INTF_TYPE_OTHER;
}

// The lowest interface number of the type above `after` (-1: the first).
open_error_t next_port(json_t *model, OPEN_INTF_TYPE_t type, int64_t after, uint32_t *out)
{
    int64_t best = -1;
    size_t i;
    json_t *port;
    json_array_foreach(json_object_get(model, "ports"), i, port)
    {
        if (!json_is_object(port) || type_of(port) != type)
            continue;
        int64_t n = ifnum_of(port, i);
        if (n > after && n <= (int64_t)UINT32_MAX && (best < 0 || n < best))
            best = n;
    }
    if (best < 0)
        return OPEN_E_NOT_FOUND;
    *out = (uint32_t)best;
    return OPEN_E_NONE;
}

int64_t remote_index_of(json_t *neighbor, size_t index)
{
    return int_member(neighbor, "index", (int64_t)index + 1);
}

json_t *neighbor_of(json_t *model, uint32_t ifnum, uint32_t rem_index)
{
    json_t *port = port_of(model, ifnum);
    size_t i;
    json_t *n;
    json_array_foreach(json_object_get(port, "neighbors"), i, n)
    {
        if (json_is_object(n) && remote_index_of(n, i) == (int64_t)rem_index)
            return n;
    }
    return nullptr;
}

json_t *vlan_of(json_t *model, uint32_t vid)
{
    size_t i;
    json_t *v;
    json_array_foreach(json_object_get(model, "vlans"), i, v)
    {
        if (json_is_object(v) && int_member(v, "id", -1) == (int64_t)vid)
            return v;
    }
    return nullptr;
}

// An entry of a list of named objects ("hosts", "users", ...), or null.
json_t *named_entry(json_t *list, const char *key, const char *name)
{
    size_t i;
    json_t *e;
    json_array_foreach(list, i, e)
    {
        const char *s = text_member(e, key, nullptr);
        if (s != nullptr && strcmp(s, name) == 0)
            return e;
    }
    return nullptr;
}

json_t *build_default_model(void)
{
    json_t *model = json_object();
    json_t *sys = json_object();
    json_object_set_new(sys, "serial_number", json_string(default_serial));
    json_object_set_new(sys, "machine_model", json_string(default_model));
    json_object_set_new(sys, "mac_address", json_string(default_mac));
    json_object_set_new(sys, "cloud_managed_mode", json_string("enable"));
    json_object_set_new(sys, "cloud_server_url", json_string(""));
    json_object_set_new(sys, "prompt", json_string(default_prompt));
    json_object_set_new(sys, "prompt_max_size", json_integer(default_prompt_max_size));
    json_object_set_new(sys, "filename_max_length", json_integer(default_filename_max_length));
    json_object_set_new(sys, "lldp_mgmt_str_len", json_integer(default_lldp_str_len));
    json_object_set_new(model, "system", sys);
    json_t *ports = json_array();
    json_t *members = json_array();
    for (int i = 1; i <= default_port_count; i++) {
        char name[16], mac[18];
        snprintf(name, sizeof(name), "0/%d", i);
        snprintf(mac, sizeof(mac), "02:00:00:00:01:%02x", i);
        json_t *p = json_object();
        json_object_set_new(p, "ifnum", json_integer(i));
        json_object_set_new(p, "name", json_string(name));
        json_object_set_new(p, "mac", json_string(mac));
        json_object_set_new(p, "link", json_string("down"));
        json_object_set_new(p, "admin", json_string("enable"));
        // 24 copper gigabit ports and four 10G fibre uplinks.
        json_object_set_new(p, "speed",
                            json_integer(i <= 24 ? OPEN_PORTCTRL_PORTSPEED_FULL_1000SX
                                                 : OPEN_PORTCTRL_PORTSPEED_FULL_10GSX));
        json_object_set_new(p, "duplex", json_string("full"));
        json_object_set_new(p, "autoneg", json_true());
        json_object_set_new(p, "lldp_receive", json_string("enable"));
        json_object_set_new(p, "neighbors", json_array());
        json_array_append_new(ports, p);
        json_array_append_new(members, json_integer(i));
    }
    json_object_set_new(model, "ports", ports);
    json_t *vlan = json_object();
    json_object_set_new(vlan, "id", json_integer(1));
    json_object_set_new(vlan, "name", json_string("default"));
    json_object_set_new(vlan, "ports", members);
    json_t *vlans = json_array();
    json_array_append_new(vlans, vlan);
    json_object_set_new(model, "vlans", vlans);
    return model;
}

// ---- buffers -------------------------------------------------------------

open_error_t text_in(const open_buffdesc *d, std::string &out)
{
    if (d == nullptr || d->pstart == nullptr || d->size == 0)
        return OPEN_E_PARAM;
    out.assign((const char *)d->pstart, strnlen((const char *)d->pstart, d->size));
    return OPEN_E_NONE;
}

// A text that does not fit the caller's buffer is refused, not cut.
open_error_t text_out(open_buffdesc *d, const char *s)
{
    if (d == nullptr || d->pstart == nullptr)
        return OPEN_E_PARAM;
    size_t n = strlen(s);
    if (n + 1 > d->size)
        return OPEN_E_PARAM;
    memcpy(d->pstart, s, n + 1);
    d->size = (uint32_t)(n + 1);
    return OPEN_E_NONE;
}

// ---- one call ------------------------------------------------------------

// Holds the simulator for the length of one call: brings the model and the
// faults up to date and tells whether the call is to be answered with a
// forced result.
class call
{
  public:
    explicit call(const char *name, int64_t port = -1, int64_t vlan = -1)
        : hold_(sim.lock), name_(name)
    {
        bool had_file = sim.model_w.present;
        refresh(sim.model_w, sim.model, false);
        if (!sim.model_w.present && (!sim.model || had_file))
            sim.model.reset(build_default_model());
        refresh(sim.faults_w, sim.faults, true);
        match_fault(port, vlan);
    }

    bool forced() const { return forced_; }
    open_error_t result() const { return result_; }
    json_t *model() const { return sim.model.get(); }

    // Records a write: one journal line, and the model saved when it changed.
    open_error_t journal(open_error_t r, json_t *args)
    {
        json_ptr owned(args);
        json_ptr line(json_object());
        json_object_set_new(line.get(), "call", json_string(name_));
        if (args != nullptr)
            json_object_update(line.get(), args);
        json_object_set_new(line.get(), "result", json_integer(r));
        malloc_ptr<char> text(json_dumps(line.get(), JSON_COMPACT | JSON_PRESERVE_ORDER));
        if (text) {
            char p[1024];
            if (devroot_path(journal_file, p, sizeof(p)) != nullptr && make_parents(p)) {
                file_ptr f(fopen(p, "a"));
                if (f)
                    fprintf(f.get(), "%s\n", text.get());
            }
        }
        if (r == OPEN_E_NONE && !forced_)
            save(sim.model_w, sim.model.get());
        return r;
    }

  private:
    void match_fault(int64_t port, int64_t vlan)
    {
        json_t *faults = sim.faults.get();
        size_t i;
        json_t *f;
        json_array_foreach(faults, i, f)
        {
            if (!json_is_object(f) || strcmp(text_member(f, "call", ""), name_) != 0)
                continue;
            json_t *want_port = json_object_get(f, "port");
            if (want_port != nullptr && (port < 0 || int_member(f, "port", -2) != port))
                continue;
            json_t *want_vlan = json_object_get(f, "vlan");
            if (want_vlan != nullptr && (vlan < 0 || int_member(f, "vlan", -2) != vlan))
                continue;
            int64_t r = int_member(f, "result", OPEN_E_FAIL);
            json_t *count = json_object_get(f, "count");
            if (count != nullptr) {
                int64_t left = json_is_integer(count) ? (int64_t)json_integer_value(count) : 0;
                if (left <= 0)
                    continue;
                if (left == 1)
                    json_array_remove(faults, i);
                else
                    json_object_set_new(f, "count", json_integer(left - 1));
                save(sim.faults_w, faults);
            }
            // A forced 0 lets the call through (and still uses up one count).
            if (r != OPEN_E_NONE) {
                forced_ = true;
                result_ = (open_error_t)r;
            }
            return;
        }
    }

    std::lock_guard<std::mutex> hold_;
    const char *name_;
    bool forced_ = false;
    open_error_t result_ = OPEN_E_NONE;
};

} // namespace

namespace
{

using arg = std::pair<const char *, json_t *>;

json_t *args(std::initializer_list<arg> list)
{
    json_t *obj = json_object();
    for (const arg &a : list)
        json_object_set_new(obj, a.first, a.second);
    return obj;
}

json_t *num(int64_t v)
{
    return json_integer(v);
}

// A text argument as the journal shows it; null when the agent passed none.
json_t *text_arg(const open_buffdesc *d)
{
    std::string s;
    if (text_in(d, s) != OPEN_E_NONE)
        return json_null();
    return text_value(s.c_str());
}

// Looks up a remote device for the LLDP field reads; a field the model leaves
// out is one the neighbour did not advertise.
open_error_t lldp_text(json_t *model, uint32_t ifNum, uint32_t remIndex, const char *key,
                       open_buffdesc *out)
{
    json_t *n = neighbor_of(model, ifNum, remIndex);
    if (n == nullptr)
        return OPEN_E_NOT_FOUND;
    const char *s = text_member(n, key, nullptr);
    if (s == nullptr)
        return OPEN_E_UNAVAIL;
    return text_out(out, s);
}

bool parse_mac(const char *text, unsigned char mac[6])
{
    unsigned int b[6];
    char tail;
    if (sscanf(text, "%2x:%2x:%2x:%2x:%2x:%2x%c", &b[0], &b[1], &b[2], &b[3], &b[4], &b[5],
               &tail) != 6)
        return false;
    for (int i = 0; i < 6; i++)
        mac[i] = (unsigned char)b[i];
    return true;
}

} // namespace

// ---- client connection ---------------------------------------------------

open_error_t openapiClientRegister(const char *clientName, openapiClientHandle_t *client)
{
    call c(__func__);
    if (c.forced())
        return c.result();
    if (clientName == nullptr || client == nullptr)
        return OPEN_E_PARAM;
    memset(client, 0, sizeof(*client));
    snprintf((char *)client->opaque, sizeof(client->opaque), "switch simulator client %s",
             clientName);
    return OPEN_E_NONE;
}

open_error_t rpcclt_openapiConnectivityCheck(openapiClientHandle_t *client)
{
    call c(__func__);
    if (c.forced())
        return c.result();
    return client == nullptr ? OPEN_E_PARAM : OPEN_E_NONE;
}

// ---- interfaces ----------------------------------------------------------

open_error_t openapiIfFirstGet(openapiClientHandle_t *, OPEN_INTF_TYPE_t type, uint32_t *ifNum)
{
    call c(__func__);
    if (c.forced())
        return c.result();
    if (ifNum == nullptr)
        return OPEN_E_PARAM;
    return next_port(c.model(), type, -1, ifNum);
}

open_error_t openapiIfNextGet(openapiClientHandle_t *, OPEN_INTF_TYPE_t type, uint32_t ifNum,
                              uint32_t *nextIfNum)
{
    call c(__func__, ifNum);
    if (c.forced())
        return c.result();
    if (nextIfNum == nullptr)
        return OPEN_E_PARAM;
    return next_port(c.model(), type, ifNum, nextIfNum);
}

open_error_t openapiIfLinkStateGet(openapiClientHandle_t *, uint32_t ifNum,
                                   OPEN_LINK_STATE_t *linkState)
{
    call c(__func__, ifNum);
    if (c.forced())
        return c.result();
    json_t *port = port_of(c.model(), ifNum);
    if (port == nullptr)
        return OPEN_E_NOT_FOUND;
    if (linkState == nullptr)
        return OPEN_E_PARAM;
    *linkState = (OPEN_LINK_STATE_t)state_member(port, "link", OPEN_LINK_DOWN, "up", OPEN_LINK_UP,
                                                 "down", OPEN_LINK_DOWN);
    return OPEN_E_NONE;
}

open_error_t openapiIfAdminStateGet(openapiClientHandle_t *, uint32_t ifNum,
                                    OPEN_CONTROL_t *adminState)
{
    call c(__func__, ifNum);
    if (c.forced())
        return c.result();
    json_t *port = port_of(c.model(), ifNum);
    if (port == nullptr)
        return OPEN_E_NOT_FOUND;
    if (adminState == nullptr)
        return OPEN_E_PARAM;
    *adminState = (OPEN_CONTROL_t)control_member(port, "admin", OPEN_ENABLE);
    return OPEN_E_NONE;
}

open_error_t rpcclt_openapiIfAdminStateSet(openapiClientHandle_t *, uint32_t ifNum,
                                           OPEN_CONTROL_t adminState)
{
    call c(__func__, ifNum);
    open_error_t r = c.result();
    if (!c.forced()) {
        json_t *port = port_of(c.model(), ifNum);
        if (port == nullptr)
            r = OPEN_E_NOT_FOUND;
        else if (adminState != OPEN_ENABLE && adminState != OPEN_DISABLE)
            r = OPEN_E_PARAM;
        else
            json_object_set_new(port, "admin", json_string(control_word(adminState)));
    }
    return c.journal(r, args({{"ifNum", num(ifNum)}, {"adminState", num(adminState)}}));
}

open_error_t openapiIfSpeedGet(openapiClientHandle_t *, uint32_t ifNum, OPEN_PORT_SPEEDS_t *speed)
{
    call c(__func__, ifNum);
    if (c.forced())
        return c.result();
    json_t *port = port_of(c.model(), ifNum);
    if (port == nullptr)
        return OPEN_E_NOT_FOUND;
    if (speed == nullptr)
        return OPEN_E_PARAM;
    *speed = (OPEN_PORT_SPEEDS_t)int_member(port, "speed", OPEN_PORTCTRL_PORTSPEED_FULL_1000SX);
    return OPEN_E_NONE;
}

open_error_t rpcclt_openapiIfDuplexModeGet(openapiClientHandle_t *, uint32_t ifNum,
                                           OPEN_PORT_DUPLEX_t *duplex)
{
    call c(__func__, ifNum);
    if (c.forced())
        return c.result();
    json_t *port = port_of(c.model(), ifNum);
    if (port == nullptr)
        return OPEN_E_NOT_FOUND;
    if (duplex == nullptr)
        return OPEN_E_PARAM;
    *duplex =
        (OPEN_PORT_DUPLEX_t)state_member(port, "duplex", OPEN_PORT_DUPLEX_FULL, "full",
                                         OPEN_PORT_DUPLEX_FULL, "half", OPEN_PORT_DUPLEX_HALF);
    return OPEN_E_NONE;
}

open_error_t rpcclt_openapiIfMacAddrGet(openapiClientHandle_t *, uint32_t ifNum,
                                        open_buffdesc *macAddr)
{
    call c(__func__, ifNum);
    if (c.forced())
        return c.result();
    json_t *port = port_of(c.model(), ifNum);
    if (port == nullptr)
        return OPEN_E_NOT_FOUND;
    return text_out(macAddr, text_member(port, "mac", "00:00:00:00:00:00"));
}

open_error_t openapiIfNameGet(openapiClientHandle_t *, uint32_t ifNum, open_buffdesc *ifName)
{
    call c(__func__, ifNum);
    if (c.forced())
        return c.result();
    json_t *port = port_of(c.model(), ifNum);
    if (port == nullptr)
        return OPEN_E_NOT_FOUND;
    char dflt[16];
    snprintf(dflt, sizeof(dflt), "0/%u", ifNum);
    return text_out(ifName, text_member(port, "name", dflt));
}

open_error_t rpcclt_openapiIfAutoNegSet(openapiClientHandle_t *, uint32_t ifNum,
                                        OPEN_PORT_AUTO_NEG_t autoNeg)
{
    call c(__func__, ifNum);
    open_error_t r = c.result();
    if (!c.forced()) {
        json_t *port = port_of(c.model(), ifNum);
        if (port == nullptr)
            r = OPEN_E_NOT_FOUND;
        else if (autoNeg != OPEN_PORT_AUTO_NEG_ENABLE && autoNeg != OPEN_PORT_AUTO_NEG_DISABLE)
            r = OPEN_E_PARAM;
        else
            json_object_set_new(port, "autoneg",
                                json_boolean(autoNeg == OPEN_PORT_AUTO_NEG_ENABLE));
    }
    return c.journal(r, args({{"ifNum", num(ifNum)}, {"autoNeg", num(autoNeg)}}));
}

// ---- LLDP ----------------------------------------------------------------

open_error_t rpcclt_openapiLldpIntfReceiveModeGet(openapiClientHandle_t *, uint32_t ifNum,
                                                  OPEN_CONTROL_t *mode)
{
    call c(__func__, ifNum);
    if (c.forced())
        return c.result();
    json_t *port = port_of(c.model(), ifNum);
    if (port == nullptr)
        return OPEN_E_NOT_FOUND;
    if (mode == nullptr)
        return OPEN_E_PARAM;
    *mode = (OPEN_CONTROL_t)control_member(port, "lldp_receive", OPEN_ENABLE);
    return OPEN_E_NONE;
}

open_error_t rpcclt_openapiLldpIntfReceiveModeSet(openapiClientHandle_t *, uint32_t ifNum,
                                                  OPEN_CONTROL_t mode)
{
    call c(__func__, ifNum);
    open_error_t r = c.result();
    if (!c.forced()) {
        json_t *port = port_of(c.model(), ifNum);
        if (port == nullptr)
            r = OPEN_E_NOT_FOUND;
        else if (mode != OPEN_ENABLE && mode != OPEN_DISABLE)
            r = OPEN_E_PARAM;
        else
            json_object_set_new(port, "lldp_receive", json_string(control_word(mode)));
    }
    return c.journal(r, args({{"ifNum", num(ifNum)}, {"mode", num(mode)}}));
}

open_error_t rpcclt_openapiLldpMgmtStrLenGet(openapiClientHandle_t *, uint32_t *strLen)
{
    call c(__func__);
    if (c.forced())
        return c.result();
    if (strLen == nullptr)
        return OPEN_E_PARAM;
    *strLen = (uint32_t)int_member(system_of(c.model()), "lldp_mgmt_str_len", default_lldp_str_len);
    return OPEN_E_NONE;
}

open_error_t rpcclt_openapiLldpIntfRemoteDeviceNextGet(openapiClientHandle_t *, uint32_t ifNum,
                                                       uint32_t *remIndex, uint32_t *timestamp)
{
    call c(__func__, ifNum);
    if (c.forced())
        return c.result();
    if (remIndex == nullptr || timestamp == nullptr)
        return OPEN_E_PARAM;
    json_t *port = port_of(c.model(), ifNum);
    if (port == nullptr)
        return OPEN_E_NOT_FOUND;
    // Nothing is received while reception is off.
    if (control_member(port, "lldp_receive", OPEN_ENABLE) != OPEN_ENABLE)
        return OPEN_E_NOT_FOUND;
    json_t *best = nullptr;
    int64_t best_index = -1;
    size_t i;
    json_t *n;
    json_array_foreach(json_object_get(port, "neighbors"), i, n)
    {
        int64_t idx = remote_index_of(n, i);
        if (json_is_object(n) && idx > (int64_t)*remIndex &&
            (best == nullptr || idx < best_index)) {
            best = n;
            best_index = idx;
        }
    }
    if (best == nullptr)
        return OPEN_E_NOT_FOUND;
    *remIndex = (uint32_t)best_index;
    *timestamp = (uint32_t)int_member(best, "timestamp", 0);
    return OPEN_E_NONE;
}

open_error_t rpcclt_openapiLldpIntfRemoteDeviceChassisIdGet(
    openapiClientHandle_t *, uint32_t ifNum, uint32_t remIndex, uint32_t,
    OPEN_LLDP_CHASSIS_ID_SUBTYPE_t *chassisIdSubtype, open_buffdesc *chassisId)
{
    call c(__func__, ifNum);
    if (c.forced())
        return c.result();
    if (chassisIdSubtype == nullptr)
        return OPEN_E_PARAM;
    json_t *n = neighbor_of(c.model(), ifNum, remIndex);
    if (n != nullptr)
        *chassisIdSubtype = (OPEN_LLDP_CHASSIS_ID_SUBTYPE_t)int_member(
            n, "chassis_id_subtype", OPEN_LLDP_CHASSIS_ID_SUBTYPE_MAC_ADDRESS);
    return lldp_text(c.model(), ifNum, remIndex, "chassis_id", chassisId);
}

open_error_t rpcclt_openapiLldpIntfRemoteDevicePortIdGet(openapiClientHandle_t *, uint32_t ifNum,
                                                         uint32_t remIndex, uint32_t,
                                                         OPEN_LLDP_PORT_ID_SUBTYPE_t *portIdSubtype,
                                                         open_buffdesc *portId)
{
    call c(__func__, ifNum);
    if (c.forced())
        return c.result();
    if (portIdSubtype == nullptr)
        return OPEN_E_PARAM;
    json_t *n = neighbor_of(c.model(), ifNum, remIndex);
    if (n != nullptr)
        *portIdSubtype = (OPEN_LLDP_PORT_ID_SUBTYPE_t)int_member(
            n, "port_id_subtype", OPEN_LLDP_PORT_ID_SUBTYPE_INTERFACE_NAME);
    return lldp_text(c.model(), ifNum, remIndex, "port_id", portId);
}

open_error_t rpcclt_openapiLldpIntfRemoteDeviceSystemNameGet(openapiClientHandle_t *,
                                                             uint32_t ifNum, uint32_t remIndex,
                                                             uint32_t, open_buffdesc *systemName)
{
    call c(__func__, ifNum);
    if (c.forced())
        return c.result();
    return lldp_text(c.model(), ifNum, remIndex, "system_name", systemName);
}

open_error_t rpcclt_openapiLldpIntfRemoteDeviceSystemDescGet(openapiClientHandle_t *,
                                                             uint32_t ifNum, uint32_t remIndex,
                                                             uint32_t, open_buffdesc *systemDesc)
{
    call c(__func__, ifNum);
    if (c.forced())
        return c.result();
    return lldp_text(c.model(), ifNum, remIndex, "system_description", systemDesc);
}

open_error_t rpcclt_openapiLldpIntfRemoteDeviceSysCapSuppGet(openapiClientHandle_t *,
                                                             uint32_t ifNum, uint32_t remIndex,
                                                             uint32_t, open_buffdesc *sysCapSupp)
{
    call c(__func__, ifNum);
    if (c.forced())
        return c.result();
    return lldp_text(c.model(), ifNum, remIndex, "system_caps_supported", sysCapSupp);
}

open_error_t rpcclt_openapiLldpIntfRemoteDeviceSysCapEnabledGet(openapiClientHandle_t *,
                                                                uint32_t ifNum, uint32_t remIndex,
                                                                uint32_t,
                                                                open_buffdesc *sysCapEnabled)
{
    call c(__func__, ifNum);
    if (c.forced())
        return c.result();
    return lldp_text(c.model(), ifNum, remIndex, "system_caps_enabled", sysCapEnabled);
}

// A neighbour has at most one management address here, served for family 0.
open_error_t rpcclt_openapiLldpIntfRemoteDeviceMgmtAddressNextGet(
    openapiClientHandle_t *, uint32_t ifNum, uint32_t remIndex, uint32_t, OPEN_AF_t *addressFamily,
    open_buffdesc *address, uint8_t *addressLength)
{
    call c(__func__, ifNum);
    if (c.forced())
        return c.result();
    if (addressFamily == nullptr || addressLength == nullptr)
        return OPEN_E_PARAM;
    if (*addressFamily != OPEN_AF_NONE)
        return OPEN_E_NOT_FOUND;
    json_t *n = neighbor_of(c.model(), ifNum, remIndex);
    if (n == nullptr)
        return OPEN_E_NOT_FOUND;
    const char *s = text_member(n, "mgmt_address", nullptr);
    if (s == nullptr)
        return OPEN_E_UNAVAIL;
    open_error_t r = text_out(address, s);
    if (r == OPEN_E_NONE) {
        bool v6 = strchr(s, ':') != nullptr;
        *addressFamily = v6 ? OPEN_AF_INET6 : OPEN_AF_INET;
        *addressLength = v6 ? 16 : 4;
    }
    return r;
}

// ---- VLANs ---------------------------------------------------------------

open_error_t openapiVlanNextGet(openapiClientHandle_t *, uint32_t vlanNum, uint32_t *nextVlanNum)
{
    call c(__func__, -1, vlanNum);
    if (c.forced())
        return c.result();
    if (nextVlanNum == nullptr)
        return OPEN_E_PARAM;
    int64_t best = -1;
    size_t i;
    json_t *v;
    json_array_foreach(json_object_get(c.model(), "vlans"), i, v)
    {
        int64_t id = int_member(v, "id", -1);
        if (id > (int64_t)vlanNum && (best < 0 || id < best))
            best = id;
    }
    if (best < 0)
        return OPEN_E_NOT_FOUND;
    *nextVlanNum = (uint32_t)best;
    return OPEN_E_NONE;
}

open_error_t openapiVlanIfParticipationStatusGet(openapiClientHandle_t *, uint32_t vlanNum,
                                                 uint32_t ifNum, uint32_t *participating)
{
    call c(__func__, ifNum, vlanNum);
    if (c.forced())
        return c.result();
    if (participating == nullptr)
        return OPEN_E_PARAM;
    json_t *v = vlan_of(c.model(), vlanNum);
    if (v == nullptr)
        return OPEN_E_NOT_FOUND;
    *participating = 0;
    size_t i;
    json_t *p;
    json_array_foreach(json_object_get(v, "ports"), i, p)
    {
        if (json_is_integer(p) && json_integer_value(p) == (json_int_t)ifNum)
            *participating = 1;
    }
    return OPEN_E_NONE;
}

open_error_t rpcclt_openapiVlanNameGet(openapiClientHandle_t *, uint32_t vlanNum,
                                       open_buffdesc *vlanName)
{
    call c(__func__, -1, vlanNum);
    if (c.forced())
        return c.result();
    json_t *v = vlan_of(c.model(), vlanNum);
    if (v == nullptr)
        return OPEN_E_NOT_FOUND;
    return text_out(vlanName, text_member(v, "name", ""));
}

// ---- logging -------------------------------------------------------------

open_error_t rpcclt_openapiLoggingHostAdd(openapiClientHandle_t *, open_buffdesc *host)
{
    call c(__func__);
    open_error_t r = c.result();
    std::string h;
    if (!c.forced()) {
        json_t *logging = member(c.model(), "logging", json_object);
        json_t *hosts = member(logging, "hosts", json_array);
        if (text_in(host, h) != OPEN_E_NONE || h.empty())
            r = OPEN_E_PARAM;
        else if (named_entry(hosts, "host", h.c_str()) != nullptr)
            r = OPEN_E_EXISTS;
        else if ((int64_t)json_array_size(hosts) >=
                 int_member(logging, "max_hosts", default_max_logging_hosts))
            r = OPEN_E_FULL;
        else
            json_array_append_new(hosts, args({{"host", text_value(h.c_str())},
                                               {"port", num(default_logging_port)},
                                               {"severity", num(default_logging_severity)}}));
    }
    return c.journal(r, args({{"host", text_arg(host)}}));
}

open_error_t rpcclt_openapiLoggingHostPortSet(openapiClientHandle_t *, open_buffdesc *host,
                                              uint16_t port)
{
    call c(__func__);
    open_error_t r = c.result();
    std::string h;
    if (!c.forced()) {
        json_t *hosts = json_object_get(json_object_get(c.model(), "logging"), "hosts");
        json_t *e =
            text_in(host, h) == OPEN_E_NONE ? named_entry(hosts, "host", h.c_str()) : nullptr;
        if (e == nullptr)
            r = h.empty() ? OPEN_E_PARAM : OPEN_E_NOT_FOUND;
        else if (port == 0)
            r = OPEN_E_PARAM;
        else
            json_object_set_new(e, "port", num(port));
    }
    return c.journal(r, args({{"host", text_arg(host)}, {"port", num(port)}}));
}

open_error_t rpcclt_openapiLoggingHostSeveritySet(openapiClientHandle_t *, open_buffdesc *host,
                                                  OPEN_LOG_SEVERITY_t severity)
{
    call c(__func__);
    open_error_t r = c.result();
    std::string h;
    if (!c.forced()) {
        json_t *hosts = json_object_get(json_object_get(c.model(), "logging"), "hosts");
        json_t *e =
            text_in(host, h) == OPEN_E_NONE ? named_entry(hosts, "host", h.c_str()) : nullptr;
        if (e == nullptr)
            r = h.empty() ? OPEN_E_PARAM : OPEN_E_NOT_FOUND;
        else if (severity < OPEN_LOG_SEVERITY_EMERGENCY || severity > OPEN_LOG_SEVERITY_DEBUG)
            r = OPEN_E_PARAM;
        else
            json_object_set_new(e, "severity", num(severity));
    }
    return c.journal(r, args({{"host", text_arg(host)}, {"severity", num(severity)}}));
}

open_error_t rpcclt_openapiSysLogModeSet(openapiClientHandle_t *, OPEN_CONTROL_t mode)
{
    call c(__func__);
    open_error_t r = c.result();
    if (!c.forced()) {
        if (mode != OPEN_ENABLE && mode != OPEN_DISABLE)
            r = OPEN_E_PARAM;
        else
            json_object_set_new(member(c.model(), "logging", json_object), "mode",
                                json_string(control_word(mode)));
    }
    return c.journal(r, args({{"mode", num(mode)}}));
}

// ---- time ----------------------------------------------------------------

open_error_t rpcclt_openapiSntpServerAdd(openapiClientHandle_t *, open_buffdesc *server)
{
    call c(__func__);
    open_error_t r = c.result();
    std::string s;
    if (!c.forced()) {
        json_t *sntp = member(c.model(), "sntp", json_object);
        json_t *servers = member(sntp, "servers", json_array);
        bool known = false;
        size_t i;
        json_t *e;
        if (text_in(server, s) == OPEN_E_NONE)
            json_array_foreach(servers, i, e) known |=
                json_is_string(e) && s == json_string_value(e);
        if (s.empty())
            r = OPEN_E_PARAM;
        else if (known)
            r = OPEN_E_EXISTS;
        else if ((int64_t)json_array_size(servers) >=
                 int_member(sntp, "max_servers", default_max_sntp_servers))
            r = OPEN_E_FULL;
        else
            json_array_append_new(servers, text_value(s.c_str()));
    }
    return c.journal(r, args({{"server", text_arg(server)}}));
}

open_error_t rpcclt_openapiSntpClientModeSet(openapiClientHandle_t *, OPEN_SNTP_CLIENT_MODE_t mode)
{
    static const char *const words[] = {"disabled", "unicast", "broadcast"};
    call c(__func__);
    open_error_t r = c.result();
    if (!c.forced()) {
        if (mode < OPEN_SNTP_CLIENT_DISABLED || mode > OPEN_SNTP_CLIENT_BROADCAST)
            r = OPEN_E_PARAM;
        else
            json_object_set_new(member(c.model(), "sntp", json_object), "client_mode",
                                json_string(words[mode]));
    }
    return c.journal(r, args({{"mode", num(mode)}}));
}

// ---- users and configuration ---------------------------------------------

open_error_t rpcclt_openapiUserSet(openapiClientHandle_t *, open_buffdesc *userName,
                                   open_buffdesc *password)
{
    call c(__func__);
    open_error_t r = c.result();
    std::string u, p;
    if (!c.forced()) {
        json_t *users = member(c.model(), "users", json_array);
        if (text_in(userName, u) != OPEN_E_NONE || u.empty() ||
            text_in(password, p) != OPEN_E_NONE) {
            r = OPEN_E_PARAM;
        } else {
            json_t *e = named_entry(users, "name", u.c_str());
            if (e == nullptr) {
                e = args({{"name", text_value(u.c_str())}});
                json_array_append_new(users, e);
            }
            json_object_set_new(e, "password", text_value(p.c_str()));
        }
    }
    return c.journal(r, args({{"userName", text_arg(userName)}, {"password", text_arg(password)}}));
}

open_error_t rpcclt_openapiSaveConfig(openapiClientHandle_t *)
{
    call c(__func__);
    open_error_t r = c.result();
    if (!c.forced()) {
        json_t *sys = system_of(c.model());
        json_object_set_new(sys, "config_saves", num(int_member(sys, "config_saves", 0) + 1));
    }
    return c.journal(r, args({}));
}

open_error_t rpcclt_openapiSystemPromptMaxSizeGet(openapiClientHandle_t *, uint32_t *maxSize)
{
    call c(__func__);
    if (c.forced())
        return c.result();
    if (maxSize == nullptr)
        return OPEN_E_PARAM;
    *maxSize =
        (uint32_t)int_member(system_of(c.model()), "prompt_max_size", default_prompt_max_size);
    return OPEN_E_NONE;
}

open_error_t rpcclt_openapiSystemPromptSet(openapiClientHandle_t *, open_buffdesc *prompt)
{
    call c(__func__);
    open_error_t r = c.result();
    std::string s;
    if (!c.forced()) {
        json_t *sys = system_of(c.model());
        if (text_in(prompt, s) != OPEN_E_NONE ||
            (int64_t)s.size() > int_member(sys, "prompt_max_size", default_prompt_max_size))
            r = OPEN_E_PARAM;
        else
            json_object_set_new(sys, "prompt", text_value(s.c_str()));
    }
    return c.journal(r, args({{"prompt", text_arg(prompt)}}));
}

// ---- application control -------------------------------------------------

namespace
{

open_error_t app_set(call &c, open_buffdesc *appName, const char *key, open_buffdesc *value)
{
    if (c.forced())
        return c.result();
    std::string name, v;
    if (text_in(appName, name) != OPEN_E_NONE || name.empty() || text_in(value, v) != OPEN_E_NONE)
        return OPEN_E_PARAM;
    json_t *apps = member(c.model(), "applications", json_array);
    json_t *e = named_entry(apps, "name", name.c_str());
    if (e == nullptr) {
        e = args({{"name", text_value(name.c_str())}});
        json_array_append_new(apps, e);
    }
    json_object_set_new(e, key, text_value(v.c_str()));
    return OPEN_E_NONE;
}

} // namespace

open_error_t rpcclt_openapiAppCtrlVersionSet(openapiClientHandle_t *, open_buffdesc *appName,
                                             open_buffdesc *version)
{
    call c(__func__);
    open_error_t r = app_set(c, appName, "version", version);
    return c.journal(r, args({{"appName", text_arg(appName)}, {"version", text_arg(version)}}));
}

open_error_t rpcclt_openapiAppCtrlStatusSet(openapiClientHandle_t *, open_buffdesc *appName,
                                            open_buffdesc *status)
{
    call c(__func__);
    open_error_t r = app_set(c, appName, "status", status);
    return c.journal(r, args({{"appName", text_arg(appName)}, {"status", text_arg(status)}}));
}

// ---- cloud management ----------------------------------------------------

open_error_t rpcclt_openapiCloudManagedModeGet(openapiClientHandle_t *, OPEN_CONTROL_t *mode)
{
    call c(__func__);
    if (c.forced())
        return c.result();
    if (mode == nullptr)
        return OPEN_E_PARAM;
    *mode = (OPEN_CONTROL_t)control_member(system_of(c.model()), "cloud_managed_mode", OPEN_ENABLE);
    return OPEN_E_NONE;
}

open_error_t rpcclt_openapiCloudManagedServerUrlGet(openapiClientHandle_t *, open_buffdesc *url)
{
    call c(__func__);
    if (c.forced())
        return c.result();
    return text_out(url, text_member(system_of(c.model()), "cloud_server_url", ""));
}

// ---- system identity and control -----------------------------------------

open_error_t rpcclt_openapiSystemRegSerialNumGet(openapiClientHandle_t *, open_buffdesc *serialNum)
{
    call c(__func__);
    if (c.forced())
        return c.result();
    return text_out(serialNum, text_member(system_of(c.model()), "serial_number", default_serial));
}

open_error_t rpcclt_openapiSystemRegMachineModelGet(openapiClientHandle_t *, open_buffdesc *model)
{
    call c(__func__);
    if (c.forced())
        return c.result();
    return text_out(model, text_member(system_of(c.model()), "machine_model", default_model));
}

open_error_t rpcclt_openapiSystemMacAddrGet(openapiClientHandle_t *, open_buffdesc *macAddr)
{
    call c(__func__);
    if (c.forced())
        return c.result();
    if (macAddr == nullptr || macAddr->pstart == nullptr || macAddr->size < 6)
        return OPEN_E_PARAM;
    unsigned char mac[6];
    if (!parse_mac(text_member(system_of(c.model()), "mac_address", default_mac), mac))
        return OPEN_E_INTERNAL;
    memcpy(macAddr->pstart, mac, 6);
    macAddr->size = 6;
    return OPEN_E_NONE;
}

open_error_t rpcclt_openapiSystemReload(openapiClientHandle_t *)
{
    call c(__func__);
    open_error_t r = c.result();
    if (!c.forced()) {
        json_t *sys = system_of(c.model());
        json_object_set_new(sys, "reloads", num(int_member(sys, "reloads", 0) + 1));
    }
    return c.journal(r, args({}));
}

open_error_t rpcclt_openapiSystemFileNameMaxLengthGet(openapiClientHandle_t *, uint32_t *maxLen)
{
    call c(__func__);
    if (c.forced())
        return c.result();
    if (maxLen == nullptr)
        return OPEN_E_PARAM;
    *maxLen = (uint32_t)int_member(system_of(c.model()), "filename_max_length",
                                   default_filename_max_length);
    return OPEN_E_NONE;
}

// The support data is the identity and the whole model; a name without a
// folder goes beside the model.
open_error_t rpcclt_openapiSupportFileGenerate(openapiClientHandle_t *, open_buffdesc *fileName)
{
    call c(__func__);
    open_error_t r = c.result();
    std::string name;
    if (!c.forced()) {
        json_t *sys = system_of(c.model());
        if (text_in(fileName, name) != OPEN_E_NONE || name.empty() ||
            (int64_t)name.size() >
                int_member(sys, "filename_max_length", default_filename_max_length)) {
            r = OPEN_E_PARAM;
        } else {
            std::string device_path = name[0] == '/' ? name : "/var/switch/" + name;
            char p[1024];
            malloc_ptr<char> dump(json_dumps(c.model(), JSON_INDENT(2) | JSON_PRESERVE_ORDER));
            file_ptr f(devroot_path(device_path.c_str(), p, sizeof(p)) ? fopen(p, "w") : nullptr);
            if (!f || !dump) {
                r = OPEN_E_FAIL;
            } else {
                fprintf(f.get(),
                        "Switch support data\nSerial number: %s\nMachine model: %s\n\n%s\n",
                        text_member(sys, "serial_number", default_serial),
                        text_member(sys, "machine_model", default_model), dump.get());
                if (fflush(f.get()) != 0)
                    r = OPEN_E_FAIL;
            }
        }
    }
    return c.journal(r, args({{"fileName", text_arg(fileName)}}));
}
