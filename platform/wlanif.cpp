#include "wlanif.h"

#include "log.h"
#include "lsql.h"

#include <cstdio>
#include <cstring>

const char *const wlanlist[2] = {"wlan0", "wlan1"};
const char *const radiolist[2] = {"radio0", "radio1"};

namespace
{

// The name in `to` at the index of `name` in `from`; for any other name,
// null and a line in the caller's name that says which kind was not known.
const char *map_name(const char *name, const char *const from[2], const char *const to[2],
                     const char *kind, const char *who)
{
    for (int i = 0; i < 2; i++)
        if (strcmp(name, from[i]) == 0)
            return to[i];
    log_fprint(orkad_log, "%s: Invalid %s = '%s'\n", who, kind, name);
    return nullptr;
}

} // namespace

const char *platform_wlan_to_radio(const char *wlan)
{
    return map_name(wlan, wlanlist, radiolist, "wlan", __func__);
}

const char *platform_radio_to_wlan(const char *radio)
{
    return map_name(radio, radiolist, wlanlist, "radio", __func__);
}

char *get_wlan_ifname(int radio, int vap, char *buf, int size)
{
    if (vap == 0)
        snprintf(buf, size, "wlan%d", radio);
    else
        snprintf(buf, size, "wlan%d-%d", radio, vap);
    return buf;
}

std::string get_wlan_backhaul(int radio, int vap)
{
    std::string instance = "vap" + std::to_string(vap);
    std::string wlan = "wlan" + std::to_string(radio);
    return config_get_qualified("vap", instance.c_str(), "backhaul", "radio", wlan.c_str())
        .value_or("eth0");
}

bool is_wlan_if(const char *ifname, char *radio)
{
    if (strncmp(ifname, "wlan", 4) != 0)
        return false;
    if (radio != nullptr) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wstringop-truncation"
        strncpy(radio, ifname, 5);
#pragma GCC diagnostic pop
        radio[5] = '\0';
    }
    return true;
}

int platform_iflist_from_band(char *iflist, int size, json_t *, char *)
{
    if (size > 0)
        iflist[0] = '\0';
    return 0;
}
