// The simulated switch: serves the OpEN calls of openapi.h where the vendor's
// client library is absent.
//
// The switch's state is one JSON model in the device root, re-read whenever
// the file changes, so a test or a person can pull a link down while the agent
// runs. Faults (forced results for chosen calls) come from a second file
// beside it. Every write the agent makes is applied to the model, saved back,
// and appended as one JSON line to the journal. docs/switch.md describes all
// three files.
//
// Each OpEN call is one row: the place in the model it works on, what it does
// there, with which member and default. One body serves every row: it brings
// both files up to date, lets a fault answer instead, does the row's work and
// journals the writes. Following the files and reading and writing the
// model's JSON are in simmodel.cpp.
#include "openapi.h"

#include "devroot.h"
#include "raii.h"
#include "simmodel.h"

#include <jansson.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <initializer_list>
#include <mutex>
#include <string>
#include <sys/stat.h>

namespace
{

using namespace opensim;

struct simulator {
    std::mutex lock;
    followed model{"/var/switch/model.json", false};
    followed faults{"/var/switch/faults.json", true};
};

simulator sim;

// ---- the arguments of a call ---------------------------------------------

// One argument, under its name in openapi.h: a number, a text buffer (in or
// out), or where a number is put (and for walks, taken from).
struct arg {
    enum kind { number, text, out };
    arg(const char *n, int64_t v) : name(n), k(number), num(v) {}
    arg(const char *n, open_buffdesc *b) : name(n), k(text), buf(b) {}
    template <typename T>
    arg(const char *n, T *p)
        : name(n), k(out), at(p), put_fn([](void *to, int64_t v) { *(T *)to = (T)v; }),
          get_fn([](const void *from) { return (int64_t) * (const T *)from; })
    {
    }
    void put(int64_t v) const { put_fn(at, v); }
    int64_t get() const { return get_fn(at); }
    // The text passed in; false when there is none.
    bool text_in(std::string &s) const
    {
        if (k != text || buf == nullptr || buf->pstart == nullptr || buf->size == 0)
            return false;
        s.assign((const char *)buf->pstart, strnlen((const char *)buf->pstart, buf->size));
        return true;
    }

    const char *name;
    kind k;
    int64_t num = 0;
    open_buffdesc *buf = nullptr;
    void *at = nullptr;
    void (*put_fn)(void *, int64_t) = nullptr;
    int64_t (*get_fn)(const void *) = nullptr;
};

struct request {
    std::initializer_list<arg> args;

    const arg *find(const char *name) const
    {
        for (const arg &a : args)
            if (name != nullptr && strcmp(a.name, name) == 0)
                return &a;
        return nullptr;
    }
    int64_t number(const char *name, int64_t dflt) const
    {
        const arg *a = find(name);
        return a != nullptr && a->k == arg::number ? a->num : dflt;
    }
    // The n-th argument of a kind; an out the caller left null is none.
    const arg *nth(arg::kind k, int n) const
    {
        for (const arg &a : args)
            if (a.k == k && n-- == 0)
                return k != arg::out || a.at != nullptr ? &a : nullptr;
        return nullptr;
    }
};

// A text that does not fit the caller's buffer is refused, not cut.
open_error_t text_out(const arg *a, const char *s)
{
    size_t n = strlen(s);
    if (a == nullptr || a->buf == nullptr || a->buf->pstart == nullptr || n + 1 > a->buf->size)
        return OPEN_E_PARAM;
    memcpy(a->buf->pstart, s, n + 1);
    a->buf->size = (uint32_t)(n + 1);
    return OPEN_E_NONE;
}

// ---- places in the model -------------------------------------------------

// A member object of the parent, or an entry of a list there picked by the
// argument `by`: a number is matched against the entry's `id` (entries
// without one count from 1 when `positional`), a text against its `id` text
// (a list without `id` holds the texts themselves).
enum class scope { model, system, logging, sntp, port, vlan, neighbor, host, server, user, app };

struct place {
    scope parent;
    const char *name, *by, *id;
    bool positional;
};

constexpr place places[] = {
    {scope::model, nullptr, nullptr, nullptr, false},
    {scope::model, "system", nullptr, nullptr, false},
    {scope::model, "logging", nullptr, nullptr, false},
    {scope::model, "sntp", nullptr, nullptr, false},
    {scope::model, "ports", "ifNum", "ifnum", true},
    {scope::model, "vlans", "vlanNum", "id", false},
    {scope::port, "neighbors", "remIndex", "index", true},
    {scope::logging, "hosts", "host", "host", false},
    {scope::sntp, "servers", "server", nullptr, false},
    {scope::model, "users", "userName", "name", false},
    {scope::model, "applications", "appName", "name", false},
};
static_assert(sizeof(places) / sizeof(places[0]) == (size_t)scope::app + 1);

int64_t id_of(json_t *entry, size_t index, const place &p)
{
    return number_member(entry, p.id, p.positional ? (int64_t)index + 1 : -1);
}

// The place the arguments point at, or null. With `make`, what is missing on
// the way is created, an entry named by a text included.
json_t *locate(json_t *model, scope s, const request &q, bool make)
{
    const place &p = places[(size_t)s];
    if (s == scope::model)
        return model;
    json_t *parent = locate(model, p.parent, q, make), *e;
    json_t *list = make ? member(parent, p.name, p.by ? json_array : json_object)
                        : json_object_get(parent, p.name);
    const arg *key = q.find(p.by);
    std::string name;
    size_t i;
    if (p.by == nullptr)
        return list;
    if (key == nullptr || key->k == arg::out || (key->k == arg::text && !key->text_in(name)))
        return nullptr;
    json_array_foreach(list, i, e)
    {
        const char *n = p.id ? text_member(e, p.id, nullptr) : json_string_value(e);
        if (key->k == arg::text ? n != nullptr && name == n
                                : json_is_object(e) && id_of(e, i, p) == q.number(p.by, -1))
            return e;
    }
    if (!make || key->k != arg::text || !json_is_array(list))
        return nullptr;
    e = p.id ? json_pack("{s:o}", p.id, text_value(name)) : text_value(name);
    json_array_append_new(list, e);
    return e;
}

// ---- the calls -----------------------------------------------------------

enum class op {
    check,     // whether the arguments are usable at all
    walk,      // the entry after the one given, in ascending order
    number,    // reads a number member
    text,      // reads a text member, and the number member `extra` beside it
    address,   // a neighbour's one management address, served for family 0
    mac,       // the system MAC address as 6 raw bytes
    member_of, // whether a port is in a VLAN
    // The writes: journalled, and the model saved when they succeed.
    set,      // writes a number member as it is spelled
    set_text, // writes a text member, no longer than `extra` says
    add,      // adds an entry to a list holding no more than `extra` says
    count,    // counts a member up
    support,  // writes the support file: the identity and the whole model
};

struct row {
    op kind;
    scope where;
    const char *key = nullptr; // the member read or written
    int64_t dflt = 0;          // its value when the model leaves it out
    const spelling *form = &plain;
    const char *text = nullptr;  // a text's value when left out; null: unavailable
    const char *extra = nullptr; // a limit, or the subtype beside an LLDP ID
    int64_t extra_dflt = 0;
};

// A row from the parenthesised list an OPEN_CALL gives, initialised with
// braces, which every compiler takes for an aggregate.
template <typename... A> constexpr row row_of(A... a)
{
    return row{a...};
}

// The row's work on the model, when no fault answered instead.
open_error_t apply(const row &r, json_t *m, const request &q)
{
    const place &p = places[(size_t)r.where];
    // The system member is made on first use, even by a read.
    json_t *o = locate(m, r.where, q, r.where == scope::system), *e, *best = nullptr;
    const arg *key = q.find(p.by), *last = q.args.size() ? q.args.end() - 1 : nullptr;
    const arg *out0 = q.nth(arg::out, 0), *out1 = q.nth(arg::out, 1), *buf = q.nth(arg::text, 0);
    std::string t;
    size_t i;
    int64_t n = 0, id = -1;
    bool missing = o == nullptr && p.by != nullptr;
    // An entry picked by a text needs a text that is not empty.
    bool unnamed = key != nullptr && key->k == arg::text && !(key->text_in(t) && !t.empty());
    switch (r.kind) {
    case op::check:
        return q.number("usable", 0) != 0 ? OPEN_E_NONE : OPEN_E_PARAM;
    case op::walk:
        o = locate(m, p.parent, q, false);
        if (out0 == nullptr || (r.where == scope::neighbor && out1 == nullptr))
            return OPEN_E_PARAM;
        // Nothing is received while LLDP reception is off.
        if (r.where == scope::neighbor &&
            (o == nullptr || number_member(o, "lldp_receive", OPEN_ENABLE, control) != OPEN_ENABLE))
            return OPEN_E_NOT_FOUND;
        // A neighbour walk goes on from the index it was handed back.
        n = r.where == scope::neighbor ? out0->get() : q.number(p.by, -1);
        json_array_foreach(json_object_get(o, p.name), i, e)
        {
            int64_t k = id_of(e, i, p);
            if (json_is_object(e) && (!q.find("type") || type_of(e) == q.number("type", -1)) &&
                k > n && k <= (int64_t)UINT32_MAX && (id < 0 || k < id)) {
                best = e;
                id = k;
            }
        }
        if (id < 0)
            return OPEN_E_NOT_FOUND;
        out0->put(id);
        if (out1 != nullptr)
            out1->put(number_member(best, "timestamp", 0));
        return OPEN_E_NONE;
    case op::number:
        if (missing || out0 == nullptr)
            return missing ? OPEN_E_NOT_FOUND : OPEN_E_PARAM;
        out0->put(number_member(o, r.key, r.dflt, *r.form));
        return OPEN_E_NONE;
    case op::address:
        if (out0 == nullptr || out1 == nullptr || out0->get() != OPEN_AF_NONE)
            return out0 && out1 ? OPEN_E_NOT_FOUND : OPEN_E_PARAM;
        [[fallthrough]];
    case op::text: {
        if ((r.extra != nullptr && out0 == nullptr) || missing)
            return out0 || !r.extra ? OPEN_E_NOT_FOUND : OPEN_E_PARAM;
        if (r.extra != nullptr)
            out0->put(number_member(o, r.extra, r.extra_dflt));
        // A port the model does not name is called "0/" and its number.
        std::string dflt = r.text ? r.text : "";
        if (r.where == scope::port && strcmp(r.key, "name") == 0)
            dflt += std::to_string(q.number("ifNum", 0));
        const char *s = text_member(o, r.key, r.text ? dflt.c_str() : nullptr);
        open_error_t res = s == nullptr ? OPEN_E_UNAVAIL : text_out(buf, s);
        if (res == OPEN_E_NONE && r.kind == op::address) {
            out0->put(strchr(s, ':') ? OPEN_AF_INET6 : OPEN_AF_INET);
            out1->put(strchr(s, ':') ? 16 : 4);
        }
        return res;
    }
    case op::mac: {
        open_buffdesc *b = buf ? buf->buf : nullptr;
        unsigned int x[6];
        char tail;
        if (b == nullptr || b->pstart == nullptr || b->size < 6)
            return OPEN_E_PARAM;
        if (sscanf(text_member(o, r.key, r.text), "%2x:%2x:%2x:%2x:%2x:%2x%c", &x[0], &x[1], &x[2],
                   &x[3], &x[4], &x[5], &tail) != 6)
            return OPEN_E_INTERNAL;
        for (int k = 0; k < 6; k++)
            ((unsigned char *)b->pstart)[k] = (unsigned char)x[k];
        b->size = 6;
        return OPEN_E_NONE;
    }
    case op::member_of:
        if (out0 == nullptr || missing)
            return out0 ? OPEN_E_NOT_FOUND : OPEN_E_PARAM;
        json_array_foreach(json_object_get(o, r.key), i, e)
        {
            n |= json_is_integer(e) && json_integer_value(e) == q.number("ifNum", -1);
        }
        out0->put(n);
        return OPEN_E_NONE;
    case op::set:
        if (missing)
            return unnamed ? OPEN_E_PARAM : OPEN_E_NOT_FOUND;
        if (last->num < r.form->lo || last->num > r.form->hi)
            return OPEN_E_PARAM;
        json_object_set_new(locate(m, r.where, q, true), r.key, spelled(last->num, *r.form));
        return OPEN_E_NONE;
    case op::set_text:
        if (unnamed || !last->text_in(t) ||
            (r.extra != nullptr && (int64_t)t.size() > number_member(o, r.extra, r.extra_dflt)))
            return OPEN_E_PARAM;
        json_object_set_new(locate(m, r.where, q, true), r.key, text_value(t));
        return OPEN_E_NONE;
    case op::add:
        e = locate(m, p.parent, q, false);
        if (unnamed || o != nullptr)
            return unnamed ? OPEN_E_PARAM : OPEN_E_EXISTS;
        if ((int64_t)json_array_size(json_object_get(e, p.name)) >=
            number_member(e, r.extra, r.extra_dflt))
            return OPEN_E_FULL;
        o = locate(m, r.where, q, true);
        if (r.where == scope::host) {
            json_object_set_new(o, "port", json_integer(default_logging_port));
            json_object_set_new(o, "severity", json_integer(default_logging_severity));
        }
        return OPEN_E_NONE;
    case op::count:
        json_object_set_new(o, r.key, json_integer(number_member(o, r.key, 0) + 1));
        return OPEN_E_NONE;
    case op::support: {
        if (!last->text_in(t) || t.empty() ||
            (int64_t)t.size() > number_member(o, r.extra, r.extra_dflt))
            return OPEN_E_PARAM;
        char path[1024];
        malloc_ptr<char> dump(json_dumps(m, JSON_INDENT(2) | JSON_PRESERVE_ORDER));
        t = t[0] == '/' ? t : switch_folder + t;
        file_ptr f(devroot_path(t.c_str(), path, sizeof(path)) ? fopen(path, "w") : nullptr);
        if (!f || !dump)
            return OPEN_E_FAIL;
        fprintf(f.get(), "Switch support data\nSerial number: %s\nMachine model: %s\n\n%s\n",
                text_member(o, "serial_number", default_serial),
                text_member(o, "machine_model", default_model), dump.get());
        return fflush(f.get()) == 0 ? OPEN_E_NONE : OPEN_E_FAIL;
    }
    }
    return OPEN_E_INTERNAL;
}

// The result of the first fault entry for the call, which uses up one of its
// count; OPEN_E_NONE (also when forced) lets the call through.
open_error_t forced_result(const char *name, int64_t port, int64_t vlan)
{
    json_t *faults = sim.faults.value.get(), *f;
    size_t i;
    json_array_foreach(faults, i, f)
    {
        json_t *count = json_object_get(f, "count");
        int64_t left = number_member(f, "count", 0), r = number_member(f, "result", OPEN_E_FAIL);
        if (!json_is_object(f) || strcmp(text_member(f, "call", ""), name) != 0 ||
            (json_object_get(f, "port") && (port < 0 || number_member(f, "port", -2) != port)) ||
            (json_object_get(f, "vlan") && (vlan < 0 || number_member(f, "vlan", -2) != vlan)) ||
            (count != nullptr && left <= 0))
            continue;
        if (count != nullptr) {
            if (left == 1)
                json_array_remove(faults, i);
            else
                json_object_set_new(f, "count", json_integer(left - 1));
            save(sim.faults);
        }
        return (open_error_t)r;
    }
    return OPEN_E_NONE;
}

// The one body behind every call.
open_error_t serve(const char *name, const row &r, const request &q)
{
    std::lock_guard<std::mutex> hold(sim.lock);
    bool had_file = sim.model.present;
    refresh(sim.model);
    if (!sim.model.present && (!sim.model.value || had_file))
        sim.model.value.reset(build_default_model());
    refresh(sim.faults);
    open_error_t res = forced_result(name, q.number("ifNum", -1), q.number("vlanNum", -1));
    if (res == OPEN_E_NONE)
        res = apply(r, sim.model.value.get(), q);
    if (r.kind < op::set)
        return res;
    // A forced write is journalled with its result and changes nothing.
    json_ptr line(json_pack("{s:s}", "call", name));
    std::string t;
    for (const arg &a : q.args)
        json_object_set_new(line.get(), a.name,
                            a.k == arg::number ? json_integer(a.num)
                            : a.text_in(t)     ? text_value(t)
                                               : json_null());
    json_object_set_new(line.get(), "result", json_integer(res));
    malloc_ptr<char> text(json_dumps(line.get(), JSON_COMPACT | JSON_PRESERVE_ORDER));
    char p[1024];
    file_ptr f(text && devroot_path(journal_file, p, sizeof(p)) && make_parents(p) ? fopen(p, "a")
                                                                                   : nullptr);
    if (f)
        fprintf(f.get(), "%s\n", text.get());
    if (res == OPEN_E_NONE)
        save(sim.model);
    return res;
}

} // namespace

// ---- the OpEN calls ------------------------------------------------------

// Defines an OpEN function by its row: the name, the parameters as openapi.h
// declares them, what the call does in the model, and the arguments it hands
// over. ARG hands one over under its own name, which is what faults pick by
// ("ifNum", "vlanNum") and what a write's journal line shows.
// The client handle is not looked at.
using handle = openapiClientHandle_t;
#define ARG(x) arg(#x, x)
#define OPEN_CALL(name, params, what, ...)                                                         \
    open_error_t name params                                                                       \
    {                                                                                              \
        static constexpr row r = row_of what;                                                      \
        return serve(#name, r, {{__VA_ARGS__}});                                                   \
    }

open_error_t openapiClientRegister(const char *clientName, openapiClientHandle_t *client)
{
    static constexpr row r{op::check, scope::model};
    open_error_t res = serve(__func__, r, {{{"usable", clientName && client}}});
    if (res == OPEN_E_NONE) {
        memset(client, 0, sizeof(*client));
        snprintf((char *)client->opaque, sizeof(client->opaque), "switch simulator client %s",
                 clientName);
    }
    return res;
}

OPEN_CALL(rpcclt_openapiConnectivityCheck, (handle * client), (op::check, scope::model),
          {"usable", client != nullptr})
// The walk's first port is not the "ifNum" a fault picks by.
OPEN_CALL(openapiIfFirstGet, (handle *, OPEN_INTF_TYPE_t type, uint32_t *ifNum),
          (op::walk, scope::port), ARG(type), {"first", ifNum})
OPEN_CALL(openapiIfNextGet, (handle *, OPEN_INTF_TYPE_t type, uint32_t ifNum, uint32_t *nextIfNum),
          (op::walk, scope::port), ARG(type), ARG(ifNum), ARG(nextIfNum))
OPEN_CALL(openapiIfLinkStateGet, (handle *, uint32_t ifNum, OPEN_LINK_STATE_t *linkState),
          (op::number, scope::port, "link", OPEN_LINK_DOWN, &link_words), ARG(ifNum),
          ARG(linkState))
OPEN_CALL(openapiIfAdminStateGet, (handle *, uint32_t ifNum, OPEN_CONTROL_t *adminState),
          (op::number, scope::port, "admin", OPEN_ENABLE, &control), ARG(ifNum), ARG(adminState))
OPEN_CALL(rpcclt_openapiIfAdminStateSet, (handle *, uint32_t ifNum, OPEN_CONTROL_t adminState),
          (op::set, scope::port, "admin", 0, &control), ARG(ifNum), ARG(adminState))
OPEN_CALL(openapiIfSpeedGet, (handle *, uint32_t ifNum, OPEN_PORT_SPEEDS_t *speed),
          (op::number, scope::port, "speed", OPEN_PORTCTRL_PORTSPEED_FULL_1000SX), ARG(ifNum),
          ARG(speed))
OPEN_CALL(rpcclt_openapiIfDuplexModeGet, (handle *, uint32_t ifNum, OPEN_PORT_DUPLEX_t *duplex),
          (op::number, scope::port, "duplex", OPEN_PORT_DUPLEX_FULL, &duplex_words), ARG(ifNum),
          ARG(duplex))
OPEN_CALL(rpcclt_openapiIfMacAddrGet, (handle *, uint32_t ifNum, open_buffdesc *macAddr),
          (op::text, scope::port, "mac", 0, &plain, "00:00:00:00:00:00"), ARG(ifNum), ARG(macAddr))
OPEN_CALL(openapiIfNameGet, (handle *, uint32_t ifNum, open_buffdesc *ifName),
          (op::text, scope::port, "name", 0, &plain, "0/"), ARG(ifNum), ARG(ifName))
OPEN_CALL(rpcclt_openapiIfAutoNegSet, (handle *, uint32_t ifNum, OPEN_PORT_AUTO_NEG_t autoNeg),
          (op::set, scope::port, "autoneg", 0, &flag), ARG(ifNum), ARG(autoNeg))
OPEN_CALL(rpcclt_openapiLldpIntfReceiveModeGet, (handle *, uint32_t ifNum, OPEN_CONTROL_t *mode),
          (op::number, scope::port, "lldp_receive", OPEN_ENABLE, &control), ARG(ifNum), ARG(mode))
OPEN_CALL(rpcclt_openapiLldpIntfReceiveModeSet, (handle *, uint32_t ifNum, OPEN_CONTROL_t mode),
          (op::set, scope::port, "lldp_receive", 0, &control), ARG(ifNum), ARG(mode))
OPEN_CALL(rpcclt_openapiLldpMgmtStrLenGet, (handle *, uint32_t *strLen),
          (op::number, scope::system, "lldp_mgmt_str_len", default_lldp_str_len), ARG(strLen))
OPEN_CALL(rpcclt_openapiLldpIntfRemoteDeviceNextGet,
          (handle *, uint32_t ifNum, uint32_t *remIndex, uint32_t *timestamp),
          (op::walk, scope::neighbor), ARG(ifNum), ARG(remIndex), ARG(timestamp))
OPEN_CALL(rpcclt_openapiLldpIntfRemoteDeviceChassisIdGet,
          (handle *, uint32_t ifNum, uint32_t remIndex, uint32_t,
           OPEN_LLDP_CHASSIS_ID_SUBTYPE_t *chassisIdSubtype, open_buffdesc *chassisId),
          (op::text, scope::neighbor, "chassis_id", 0, &plain, nullptr, "chassis_id_subtype",
           OPEN_LLDP_CHASSIS_ID_SUBTYPE_MAC_ADDRESS),
          ARG(ifNum), ARG(remIndex), ARG(chassisIdSubtype), ARG(chassisId))
OPEN_CALL(rpcclt_openapiLldpIntfRemoteDevicePortIdGet,
          (handle *, uint32_t ifNum, uint32_t remIndex, uint32_t,
           OPEN_LLDP_PORT_ID_SUBTYPE_t *portIdSubtype, open_buffdesc *portId),
          (op::text, scope::neighbor, "port_id", 0, &plain, nullptr, "port_id_subtype",
           OPEN_LLDP_PORT_ID_SUBTYPE_INTERFACE_NAME),
          ARG(ifNum), ARG(remIndex), ARG(portIdSubtype), ARG(portId))
OPEN_CALL(rpcclt_openapiLldpIntfRemoteDeviceSystemNameGet,
          (handle *, uint32_t ifNum, uint32_t remIndex, uint32_t, open_buffdesc *systemName),
          (op::text, scope::neighbor, "system_name"), ARG(ifNum), ARG(remIndex), ARG(systemName))
OPEN_CALL(rpcclt_openapiLldpIntfRemoteDeviceSystemDescGet,
          (handle *, uint32_t ifNum, uint32_t remIndex, uint32_t, open_buffdesc *systemDesc),
          (op::text, scope::neighbor, "system_description"), ARG(ifNum), ARG(remIndex),
          ARG(systemDesc))
OPEN_CALL(rpcclt_openapiLldpIntfRemoteDeviceSysCapSuppGet,
          (handle *, uint32_t ifNum, uint32_t remIndex, uint32_t, open_buffdesc *sysCapSupp),
          (op::text, scope::neighbor, "system_caps_supported"), ARG(ifNum), ARG(remIndex),
          ARG(sysCapSupp))
OPEN_CALL(rpcclt_openapiLldpIntfRemoteDeviceSysCapEnabledGet,
          (handle *, uint32_t ifNum, uint32_t remIndex, uint32_t, open_buffdesc *sysCapEnabled),
          (op::text, scope::neighbor, "system_caps_enabled"), ARG(ifNum), ARG(remIndex),
          ARG(sysCapEnabled))
OPEN_CALL(rpcclt_openapiLldpIntfRemoteDeviceMgmtAddressNextGet,
          (handle *, uint32_t ifNum, uint32_t remIndex, uint32_t, OPEN_AF_t *addressFamily,
           open_buffdesc *address, uint8_t *addressLength),
          (op::address, scope::neighbor, "mgmt_address"), ARG(ifNum), ARG(remIndex),
          ARG(addressFamily), ARG(address), ARG(addressLength))
OPEN_CALL(openapiVlanNextGet, (handle *, uint32_t vlanNum, uint32_t *nextVlanNum),
          (op::walk, scope::vlan), ARG(vlanNum), ARG(nextVlanNum))
OPEN_CALL(openapiVlanIfParticipationStatusGet,
          (handle *, uint32_t vlanNum, uint32_t ifNum, uint32_t *participating),
          (op::member_of, scope::vlan, "ports"), ARG(vlanNum), ARG(ifNum), ARG(participating))
OPEN_CALL(rpcclt_openapiVlanNameGet, (handle *, uint32_t vlanNum, open_buffdesc *vlanName),
          (op::text, scope::vlan, "name", 0, &plain, ""), ARG(vlanNum), ARG(vlanName))
OPEN_CALL(rpcclt_openapiLoggingHostAdd, (handle *, open_buffdesc *host),
          (op::add, scope::host, nullptr, 0, &plain, nullptr, "max_hosts",
           default_max_logging_hosts),
          ARG(host))
OPEN_CALL(rpcclt_openapiLoggingHostPortSet, (handle *, open_buffdesc *host, uint16_t port),
          (op::set, scope::host, "port", 0, &udp_port), ARG(host), ARG(port))
OPEN_CALL(rpcclt_openapiLoggingHostSeveritySet,
          (handle *, open_buffdesc *host, OPEN_LOG_SEVERITY_t severity),
          (op::set, scope::host, "severity", 0, &severity_range), ARG(host), ARG(severity))
OPEN_CALL(rpcclt_openapiSysLogModeSet, (handle *, OPEN_CONTROL_t mode),
          (op::set, scope::logging, "mode", 0, &control), ARG(mode))
OPEN_CALL(rpcclt_openapiSntpServerAdd, (handle *, open_buffdesc *server),
          (op::add, scope::server, nullptr, 0, &plain, nullptr, "max_servers",
           default_max_sntp_servers),
          ARG(server))
OPEN_CALL(rpcclt_openapiSntpClientModeSet, (handle *, OPEN_SNTP_CLIENT_MODE_t mode),
          (op::set, scope::sntp, "client_mode", 0, &sntp_words), ARG(mode))
OPEN_CALL(rpcclt_openapiUserSet, (handle *, open_buffdesc *userName, open_buffdesc *password),
          (op::set_text, scope::user, "password"), ARG(userName), ARG(password))
OPEN_CALL(rpcclt_openapiSaveConfig, (handle *), (op::count, scope::system, "config_saves"))
OPEN_CALL(rpcclt_openapiSystemPromptMaxSizeGet, (handle *, uint32_t *maxSize),
          (op::number, scope::system, "prompt_max_size", default_prompt_max_size), ARG(maxSize))
OPEN_CALL(rpcclt_openapiSystemPromptSet, (handle *, open_buffdesc *prompt),
          (op::set_text, scope::system, "prompt", 0, &plain, nullptr, "prompt_max_size",
           default_prompt_max_size),
          ARG(prompt))
OPEN_CALL(rpcclt_openapiAppCtrlVersionSet,
          (handle *, open_buffdesc *appName, open_buffdesc *version),
          (op::set_text, scope::app, "version"), ARG(appName), ARG(version))
OPEN_CALL(rpcclt_openapiAppCtrlStatusSet, (handle *, open_buffdesc *appName, open_buffdesc *status),
          (op::set_text, scope::app, "status"), ARG(appName), ARG(status))
OPEN_CALL(rpcclt_openapiCloudManagedModeGet, (handle *, OPEN_CONTROL_t *mode),
          (op::number, scope::system, "cloud_managed_mode", OPEN_ENABLE, &control), ARG(mode))
OPEN_CALL(rpcclt_openapiCloudManagedServerUrlGet, (handle *, open_buffdesc *url),
          (op::text, scope::system, "cloud_server_url", 0, &plain, ""), ARG(url))
OPEN_CALL(rpcclt_openapiSystemRegSerialNumGet, (handle *, open_buffdesc *serialNum),
          (op::text, scope::system, "serial_number", 0, &plain, default_serial), ARG(serialNum))
OPEN_CALL(rpcclt_openapiSystemRegMachineModelGet, (handle *, open_buffdesc *model),
          (op::text, scope::system, "machine_model", 0, &plain, default_model), ARG(model))
OPEN_CALL(rpcclt_openapiSystemMacAddrGet, (handle *, open_buffdesc *macAddr),
          (op::mac, scope::system, "mac_address", 0, &plain, default_mac), ARG(macAddr))
OPEN_CALL(rpcclt_openapiSystemReload, (handle *), (op::count, scope::system, "reloads"))
OPEN_CALL(rpcclt_openapiSystemFileNameMaxLengthGet, (handle *, uint32_t *maxLen),
          (op::number, scope::system, "filename_max_length", default_filename_max_length),
          ARG(maxLen))
OPEN_CALL(rpcclt_openapiSupportFileGenerate, (handle *, open_buffdesc *fileName),
          (op::support, scope::system, nullptr, 0, &plain, nullptr, "filename_max_length",
           default_filename_max_length),
          ARG(fileName))
