// The simulated switch's state: the model and faults files it follows in
// the device root, and the helpers that read and write the model's JSON.
// Only the simulator (opensim.cpp) uses this.
#pragma once

#include "openapi.h"
#include "raii.h"

#include <jansson.h>

#include <cstdint>
#include <string>
#include <sys/stat.h>

namespace opensim
{

inline constexpr const char *switch_folder = "/var/switch/"; // where a bare support file name goes
inline constexpr const char *journal_file = "/var/switch/journal";

// Values served when the model leaves them out.
inline constexpr int default_port_count = 28;
inline constexpr const char *default_serial = "VX0123456789";
inline constexpr const char *default_model = "VX-S28";
inline constexpr const char *default_mac = "02:00:00:00:00:01";
inline constexpr json_int_t default_prompt_max_size = 64;
inline constexpr json_int_t default_filename_max_length = 128;
inline constexpr json_int_t default_lldp_str_len = 256;
inline constexpr json_int_t default_max_logging_hosts = 8;
inline constexpr json_int_t default_max_sntp_servers = 3;
inline constexpr json_int_t default_logging_port = 514;
inline constexpr json_int_t default_logging_severity = OPEN_LOG_SEVERITY_ERROR;

// A file the simulator follows, with the value last taken from it and the stat
// and text it had then.
struct followed {
    followed(const char *device, bool array) : device_path(device), want_array(array) {}
    const char *device_path;
    bool want_array;
    std::string path; // the mapped path the state below belongs to
    bool present = false;
    struct stat st = {};
    std::string raw;
    std::string refused; // a text that did not parse, reported once
    json_ptr value;
};

// Re-reads a followed file when it changed. A text that does not parse (a
// half-written file, a typo) leaves the previous value in place and is tried
// again on the next call.
void refresh(followed &w);
// Writes a followed file through a temporary and a rename, so that readers
// never see half of it, and remembers what was written.
void save(followed &w);
// Makes the folders above path; false when one cannot be made.
bool make_parents(const std::string &path);

// How a number is kept in the model. With words, word[v] names OpEN value v,
// and a boolean may stand for the first two: true for `on`, false for the
// other. Without words it is a boolean when `on` is set, else the number
// itself. Writes accept lo..hi.
struct spelling {
    const char *word[4];
    int64_t on, lo, hi;
};

inline constexpr spelling plain{{}, -1, INT64_MIN, INT64_MAX};
inline constexpr spelling control{{"disable", "enable"}, OPEN_ENABLE, 0, 1};
inline constexpr spelling link_words{{"up", "down"}, OPEN_LINK_UP, 0, 1};
inline constexpr spelling duplex_words{{"half", "full"}, OPEN_PORT_DUPLEX_FULL, 0, 1};
inline constexpr spelling sntp_words{{"disabled", "unicast", "broadcast"}, -1, 0, 2};
inline constexpr spelling flag{{}, OPEN_PORT_AUTO_NEG_ENABLE, 0, 1};
inline constexpr spelling udp_port{{}, -1, 1, UINT16_MAX};
inline constexpr spelling severity_range{
    {}, -1, OPEN_LOG_SEVERITY_EMERGENCY, OPEN_LOG_SEVERITY_DEBUG};
inline constexpr spelling intf_types{{"phy", "cpu", "lag", "vlan"}, -1, 0, 3};

// The member key of obj, made with make when obj is an object without it.
json_t *member(json_t *obj, const char *key, json_t *(*make)(void));
const char *text_member(json_t *obj, const char *key, const char *dflt);
// Texts from the agent need not be UTF-8; the model and journal are.
json_t *text_value(const std::string &s);
int64_t number_member(json_t *obj, const char *key, int64_t dflt, const spelling &s = plain);
json_t *spelled(int64_t v, const spelling &s);
// A port's type is only ever a word; one not known is OPEN_INTF_TYPE_OTHER.
int64_t type_of(json_t *port);
json_t *build_default_model(void);

} // namespace opensim
