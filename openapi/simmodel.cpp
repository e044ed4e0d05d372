// The simulated switch's files and model helpers (simmodel.h).
#include "simmodel.h"

#include "devroot.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace opensim
{

namespace
{

bool read_all(const char *path, std::string &out)
{
    file_ptr f(fopen(path, "rb"));
    char buf[8192];
    size_t n;
    out.clear();
    while (f && (n = fread(buf, 1, sizeof(buf), f.get())) > 0)
        out.append(buf, n);
    return f && !ferror(f.get());
}

// A file changed within the last two seconds is never taken as unchanged: its
// modification time may not have moved since.
bool unchanged(const struct stat &a, const struct stat &b)
{
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
           a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec &&
           a.st_ctim.tv_sec == b.st_ctim.tv_sec && a.st_ctim.tv_nsec == b.st_ctim.tv_nsec &&
           now.tv_sec - std::max(a.st_mtim.tv_sec, a.st_ctim.tv_sec) >= 2;
}

} // namespace

bool make_parents(const std::string &path)
{
    for (size_t i = path.find('/', 1); i != std::string::npos; i = path.find('/', i + 1))
        if (mkdir(path.substr(0, i).c_str(), 0755) != 0 && errno != EEXIST)
            return false;
    return true;
}

void refresh(followed &w)
{
    char p[1024];
    struct stat st;
    std::string raw;
    json_error_t err;
    if (devroot_path(w.device_path, p, sizeof(p)) == nullptr)
        return;
    if (w.path != p) {
        // Another device root: nothing of the old one applies.
        w = followed(w.device_path, w.want_array);
        w.path = p;
    }
    if (stat(p, &st) != 0) {
        if (w.present) {
            w.present = false;
            w.raw.clear();
            w.value.reset();
        }
        return;
    }
    if ((w.present && unchanged(st, w.st)) || !read_all(p, raw))
        return;
    if (w.present && raw == w.raw) {
        w.st = st;
        return;
    }
    json_ptr j(json_loadb(raw.data(), raw.size(), 0, &err));
    if (!j || (w.want_array ? !json_is_array(j.get()) : !json_is_object(j.get()))) {
        if (raw != w.refused)
            fprintf(stderr, "switch simulator: ignoring %s: %s\n", p,
                    j ? (w.want_array ? "not an array" : "not an object") : err.text);
        w.refused = raw;
        return;
    }
    w.value = std::move(j);
    w.present = true;
    w.st = st;
    w.raw = std::move(raw);
}

void save(followed &w)
{
    malloc_ptr<char> text(json_dumps(w.value.get(), JSON_INDENT(2) | JSON_PRESERVE_ORDER));
    if (w.path.empty() || !make_parents(w.path) || !text)
        return;
    std::string raw = std::string(text.get()) + "\n", tmp = w.path + ".tmp";
    {
        file_ptr f(fopen(tmp.c_str(), "wb"));
        if (!f || fwrite(raw.data(), 1, raw.size(), f.get()) != raw.size())
            return;
    }
    struct stat st;
    if (rename(tmp.c_str(), w.path.c_str()) == 0 && stat(w.path.c_str(), &st) == 0) {
        w.st = st;
        w.present = true;
        w.raw = std::move(raw);
    }
}

json_t *member(json_t *obj, const char *key, json_t *(*make)(void))
{
    json_t *v = json_object_get(obj, key);
    if (v == nullptr && json_is_object(obj)) {
        v = make();
        json_object_set_new(obj, key, v);
    }
    return v;
}

const char *text_member(json_t *obj, const char *key, const char *dflt)
{
    json_t *v = json_object_get(obj, key);
    return json_is_string(v) ? json_string_value(v) : dflt;
}

json_t *text_value(const std::string &s)
{
    std::string clean(s);
    for (char &c : clean)
        if ((unsigned char)c >= 0x80)
            c = '?';
    json_t *v = json_string(s.c_str());
    return v != nullptr ? v : json_string(clean.c_str());
}

int64_t number_member(json_t *obj, const char *key, int64_t dflt, const spelling &s)
{
    json_t *v = json_object_get(obj, key);
    if (json_is_integer(v))
        return (int64_t)json_integer_value(v);
    if (json_is_boolean(v) && s.word[0] != nullptr)
        return json_is_true(v) ? s.on : 1 - s.on;
    for (int64_t i = 0; i < 4 && json_is_string(v); i++)
        if (s.word[i] != nullptr && strcmp(json_string_value(v), s.word[i]) == 0)
            return i;
    return dflt;
}

json_t *spelled(int64_t v, const spelling &s)
{
    if (s.word[0] != nullptr)
        return json_string(s.word[v]);
    return s.on >= 0 ? json_boolean(v == s.on) : json_integer(v);
}

int64_t type_of(json_t *port)
{
    if (!json_is_string(json_object_get(port, "type")))
        return OPEN_INTF_TYPE_PHY;
    return number_member(port, "type", OPEN_INTF_TYPE_OTHER, intf_types);
}

json_t *build_default_model(void)
{
    json_t *ports = json_array();
    json_t *members = json_array();
    for (int i = 1; i <= default_port_count; i++) {
        char name[16], mac[18];
        snprintf(name, sizeof(name), "0/%d", i);
        snprintf(mac, sizeof(mac), "02:00:00:00:01:%02x", i);
        // 24 copper gigabit ports and four 10G fibre uplinks.
        int speed =
            i <= 24 ? OPEN_PORTCTRL_PORTSPEED_FULL_1000SX : OPEN_PORTCTRL_PORTSPEED_FULL_10GSX;
        json_array_append_new(ports,
                              json_pack("{s:i,s:s,s:s,s:s,s:s,s:i,s:s,s:b,s:s,s:[]}", "ifnum", i,
                                        "name", name, "mac", mac, "link", "down", "admin", "enable",
                                        "speed", speed, "duplex", "full", "autoneg", 1,
                                        "lldp_receive", "enable", "neighbors"));
        json_array_append_new(members, json_integer(i));
    }
    return json_pack("{s:{s:s,s:s,s:s,s:s,s:s,s:s,s:I,s:I,s:I},s:o,s:[{s:i,s:s,s:o}]}", "system",
                     "serial_number", default_serial, "machine_model", default_model, "mac_address",
                     default_mac, "cloud_managed_mode", "enable", "cloud_server_url", "", "prompt",
                     default_model, "prompt_max_size", default_prompt_max_size,
                     "filename_max_length", default_filename_max_length, "lldp_mgmt_str_len",
                     default_lldp_str_len, "ports", ports, "vlans", "id", 1, "name", "default",
                     "ports", members);
}

} // namespace opensim
