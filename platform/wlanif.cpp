#include "wlanif.h"

#include "log.h"
#include "lsql.h"

#include <cstdio>
#include <cstring>

const char *const wlanlist[2] = {"wlan0", "wlan1"};
const char *const radiolist[2] = {"radio0", "radio1"};

const char *platform_wlan_to_radio(const char *wlan)
{
    for (int i = 0; i < 2; i++)
        if (strcmp(wlan, wlanlist[i]) == 0)
            return radiolist[i];
    log_fprint(orkad_log, "%s: Invalid wlan = '%s'\n", "platform_wlan_to_radio", wlan);
    return nullptr;
}

const char *platform_radio_to_wlan(const char *radio)
{
    for (int i = 0; i < 2; i++)
        if (strcmp(radio, radiolist[i]) == 0)
            return wlanlist[i];
    log_fprint(orkad_log, "%s: Invalid radio = '%s'\n", "platform_radio_to_wlan", radio);
    return nullptr;
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
