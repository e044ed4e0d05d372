// The status stream: once the controller asks for it with "set.status", a
// thread posts a document built by the status providers at a fixed pace. The
// port provider sends every port the first time and after a failed post, and
// otherwise only the ports whose data changed.
#include "status.h"
#include "raii.h"

#include "auth.h"
#include "command.h"
#include "http.h"
#include "log.h"
#include "signals.h"
#include "utils.h"
#include "work.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <new>
#include <unistd.h>

stream_record status_stream("status_send", status_send);
std::unique_ptr<port_status_t[]> port_status;
std::atomic<status_provider_t *> status_providers{nullptr};
unsigned int (*status_sleep)(unsigned int seconds) = sleep;

namespace
{

const char *const port_fn = "status_port_provider";

// A member that is always a JSON string, numbers included: the controller
// reads every value of a port as text.
bool set_text(json_t *obj, const char *key, const char *value)
{
    json_t *s = json_string(value);
    return s != nullptr && json_object_set_new(obj, key, s) == 0;
}

bool set_number(json_t *obj, const char *key, int value)
{
    char text[16];
    snprintf(text, sizeof(text), "%d", value);
    return set_text(obj, key, text);
}

bool set_caps(json_t *obj, const char *key, const char *caps)
{
    json_t *a = str_to_json_array(caps, ',');
    return a != nullptr && json_object_set_new(obj, key, a) == 0;
}

// One neighbour object, or null after logging the member that failed.
json_t *neighbor_object(int port, const lldp_neighbor_t &n)
{
    json_ptr obj(json_object());
    if (!obj) {
        log_fprint(orkad_log, "%s: Can't allocate JSON object\n", port_fn);
        return nullptr;
    }
    const char *failed = nullptr;
    if (!set_text(obj.get(), "chassis_id", n.chassis_id.c_str()))
        failed = "chassis_id";
    else if (!set_number(obj.get(), "chassis_id_subtype", n.chassis_id_subtype))
        failed = "chassis_id_subtype";
    else if (!set_text(obj.get(), "port_id", n.port_id.c_str()))
        failed = "port_id";
    else if (!set_number(obj.get(), "port_id_subtype", n.port_id_subtype))
        failed = "port_id_subtype";
    else if (!set_text(obj.get(), "system_name", n.system_name.c_str()))
        failed = "system_name";
    else if (!set_text(obj.get(), "system_description", n.system_description.c_str()))
        failed = "system_description";
    else if (!set_text(obj.get(), "mgmt_address", n.mgmt_address.c_str()))
        failed = "mgmt_address";
    else if (!set_caps(obj.get(), "system_caps_supported", n.system_caps_supported.c_str()))
        failed = "system_caps_supported";
    else if (!set_caps(obj.get(), "system_caps_enabled", n.system_caps_enabled.c_str()))
        failed = "system_caps_enabled";
    if (failed != nullptr) {
        log_fprint(orkad_log, "%s: Can't set port %d '%s'\n", port_fn, port, failed);
        return nullptr;
    }
    return obj.release();
}

// The neighbours in list order; a neighbour that cannot be made ends the
// list there and the port goes out with the ones made so far.
void add_neighbors(json_t *array, int port, const std::vector<lldp_neighbor_t> &list)
{
    for (const lldp_neighbor_t &n : list) {
        json_t *obj = neighbor_object(port, n);
        if (obj == nullptr)
            return;
        if (json_array_append_new(array, obj) != 0) {
            log_fprint(orkad_log, "%s: JSON error adding neighbors for port %d to array\n", port_fn,
                       port);
            return;
        }
    }
}

void add_vlans(json_t *array, int port, const std::vector<vlan_info_t> &list)
{
    for (const vlan_info_t &v : list) {
        json_ptr obj(json_object());
        if (!obj) {
            log_fprint(orkad_log, "%s: Can't allocate JSON object\n", port_fn);
            return;
        }
        if (!set_number(obj.get(), "id", v.vid)) {
            log_fprint(orkad_log, "%s: Can't set port %d 'vlan id'\n", port_fn, port);
            return;
        }
        if (!set_text(obj.get(), "name", v.name.c_str())) {
            log_fprint(orkad_log, "%s: Can't set port %d 'vlan name'\n", port_fn, port);
            return;
        }
        if (json_array_append_new(array, obj.release()) != 0) {
            log_fprint(orkad_log, "%s: JSON error adding vlans for port %d to array\n", port_fn,
                       port);
            return;
        }
    }
}

// One port object, or null after logging why; the caller then stops the
// walk.
json_t *port_object(int port, const port_status_t *ps)
{
    json_ptr obj(json_object());
    if (!obj) {
        log_fprint(orkad_log, "%s: Can't allocate JSON object\n", port_fn);
        return nullptr;
    }
    const char *failed = nullptr;
    if (!set_number(obj.get(), "id", port))
        failed = "id";
    else if (!set_text(obj.get(), "name", ps->port_name))
        failed = "name";
    else if (!set_number(obj.get(), "speed", ps->speed))
        failed = "speed";
    else if (!set_text(obj.get(), "duplex", ps->full_duplex ? "full" : "half"))
        failed = "duplex";
    else if (!set_text(obj.get(), "operational_status", ps->link_up ? "up" : "down"))
        failed = "operational_status";
    else if (!set_text(obj.get(), "admin_status", ps->link_enabled ? "up" : "down"))
        failed = "admin_status";
    else if (!set_text(obj.get(), "mac_address", ps->mac_addr))
        failed = "mac_address";
    if (failed != nullptr) {
        log_fprint(orkad_log, "%s: Can't set port %d '%s'\n", port_fn, port, failed);
        return nullptr;
    }

    json_t *neighbors = json_array();
    if (neighbors == nullptr) {
        log_fprint(orkad_log, "%s: Failed to allocate neighbors JSON array\n", port_fn);
        return nullptr;
    }
    add_neighbors(neighbors, port, ps->neighbors);
    if (json_object_set_new(obj.get(), "neighbor", neighbors) != 0) {
        log_fprint(orkad_log, "%s: Can't set port %d 'neighbor'\n", port_fn, port);
        return nullptr;
    }

    json_t *vlans = json_array();
    if (vlans == nullptr) {
        log_fprint(orkad_log, "%s: Failed to allocate vlans JSON array\n", port_fn);
        return nullptr;
    }
    add_vlans(vlans, port, ps->vlans);
    if (json_object_set_new(obj.get(), "vlan", vlans) != 0) {
        log_fprint(orkad_log, "%s: Can't set port %d 'vlan'\n", port_fn, port);
        return nullptr;
    }
    return obj.release();
}

// What became of one pass's document.
enum class sent { nothing, ok, failed };

// Builds the document from every provider and posts it; *result is the
// post's result.
sent send_document(const char *slink, bool last_failed, int *result)
{
    json_ptr st_obj(json_object());
    if (!st_obj) {
        log_fprint(orkad_log, "%s: Can't allocate JSON object\n", "status_send");
        return sent::nothing;
    }
    for (status_provider_t *p = status_providers.load(std::memory_order_acquire); p != nullptr;
         p = p->next)
        p->fn(st_obj.get(), last_failed);
    // Nothing changed since the last post: no document at all.
    if (json_object_size(st_obj.get()) == 0)
        return sent::nothing;
    malloc_ptr<char> payload(
        json_dumps(st_obj.get(), JSON_INDENT(4) | JSON_COMPACT | JSON_PRESERVE_ORDER));
    if (!payload) {
        log_fprint(orkad_log, "%s: failed to convert st_obj to payload\n", "status_send");
        return sent::nothing;
    }
    st_obj.reset();
    *result = status_post(slink, payload.get(), (int)strlen(payload.get()));
    return *result == 0 ? sent::ok : sent::failed;
}

} // namespace

void status_init(void)
{
    command_register("set.status", cmd_set_status);
    signals_register(SIGUSR1, status_debug, "status_debug");
    status_register_provider("status_port_provider", status_port_provider);
}

int status_register_provider(const char *name, status_fn fn)
{
    return provider_push(status_providers, name, fn, __func__, "status");
}

void status_debug(int)
{
    log_fprint(dbg_log, "%s: status_enabled = %d, status_interval = %d\n", __func__,
               (int)status_stream.enabled.load(), status_stream.interval.load());
}

void cmd_set_status(char *command, json_t *js_command, char *resp_href)
{
    cmd_envelope cmd("set.status", command, js_command, resp_href);
    if (!cmd.open_service(STATUS_MIN_INTERVAL, STATUS_MAX_INTERVAL, "status interval out of range"))
        return;
    // A running thread takes the new interval up at its next step and keeps
    // posting to the link it was started with.
    cmd.answer(status_stream.start_at(cmd.seconds, cmd.service_href, "status_start", "status"));
}

void status_send(stream_record &stream)
{
    const std::string slink = stream.href();
    log_fprint(orkad_log, "%s: Started '%d','%s','%d'\n", __func__, stream.interval.load(),
               slink.c_str(), (int)stream.enabled.load());

    // timer counts the seconds since the last successful post, in steps.
    int timer = 0;
    bool last_failed = true;
    bool show_err = true;
    while (stream.enabled) {
        if (stream.interval < timer) {
            int result = 0;
            sent what = send_document(slink.c_str(), last_failed, &result);
            // The document's tree and text were the biggest things this
            // process ever holds; hand the pages they left free back to the
            // kernel instead of keeping them dirty until the next one.
            if (what != sent::nothing)
                malloc_trim(0);
            switch (what) {
            case sent::nothing:
                timer += STATUS_STEP;
                break;
            case sent::ok:
                if (!show_err)
                    log_fprint(orkad_log, "%s: post successful\n", __func__);
                show_err = true;
                last_failed = false;
                timer = STATUS_STEP;
                break;
            case sent::failed:
                // Only the first of a run of failures is worth a line.
                if (show_err)
                    log_fprint(orkad_log, "%s: post errors (err = %d)\n", __func__, result);
                show_err = false;
                last_failed = true;
                timer += STATUS_STEP;
                break;
            }
        } else {
            timer += STATUS_STEP;
        }
        status_sleep(STATUS_STEP);
    }
    log_fprint(orkad_log, "%s: Stopped\n", __func__);
    stream.id = -1;
}

int status_post(const char *path, const char *payload, int length)
{
    return controller_post(controller_call::status, path, payload, length, -1);
}

json_t *str_to_json_array(const char *text, char sep)
{
    json_t *array = json_array();
    if (array == nullptr) {
        log_fprint(orkad_log, "%s: Failed to allocate JSON array\n", __func__);
        return nullptr;
    }
    if (text == nullptr)
        return array;
    const char *p = text;
    for (;;) {
        const char *end = strchr(p, sep);
        if (end == nullptr)
            end = p + strlen(p);
        while (p < end &&
               (*p == ' ' || *p == '\t' || *p == '\n' || *p == '\v' || *p == '\f' || *p == '\r'))
            p++;
        json_t *s = json_stringn(p, (size_t)(end - p));
        if (s == nullptr || json_array_append_new(array, s) != 0) {
            log_fprint(orkad_log, "%s: Can't add new string to caps array\n", __func__);
            return array;
        }
        if (*end == '\0')
            break;
        p = end + 1;
    }
    return array;
}

void status_port_provider(json_t *st_obj, bool last_failed)
{
    if (port_status == nullptr) {
        port_status.reset(new (std::nothrow) port_status_t[STATUS_MAX_PORTS]());
        if (port_status == nullptr) {
            log_fprint(orkad_log, "%s: Failed to allocate port_status\n", __func__);
            return;
        }
    }
    platform_collect_port_status(port_status.get(), STATUS_MAX_PORTS);

    json_ptr ports(json_array());
    if (!ports) {
        log_fprint(orkad_log, "%s: Failed to allocate JSON array\n", __func__);
        return;
    }
    for (int i = 0; i < STATUS_MAX_PORTS; i++) {
        port_status_t *ps = &port_status[i];
        if (!ps->valid || !(ps->changed || last_failed))
            continue;
        json_t *obj = port_object(i, ps);
        // The ports from here on keep their changes for the next pass.
        if (obj == nullptr)
            break;
        if (json_array_append_new(ports.get(), obj) != 0) {
            log_fprint(orkad_log, "%s: JSON error adding port %d to array\n", __func__, i);
            break;
        }
        ps->changed = false;
    }
    if (json_array_size(ports.get()) == 0)
        return;
    if (json_object_set_new(st_obj, "port", ports.release()) != 0)
        log_fprint(orkad_log, "%s: cannot add '%s' to status data\n", __func__, "port");
}
