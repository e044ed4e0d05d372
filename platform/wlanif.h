// Wireless interface names. This switch has no radios: the mappings exist for
// the parts of the agent that are shared with wireless devices.
#pragma once

#include <jansson.h>
#include <string>

extern const char *const wlanlist[2];
extern const char *const radiolist[2];

// "wlan0" <-> "radio0", "wlan1" <-> "radio1"; null for any other name.
const char *platform_wlan_to_radio(const char *wlan);
const char *platform_radio_to_wlan(const char *radio);
char *get_wlan_ifname(int radio, int vap, char *buf, int size);
// The interface that carries a virtual AP's traffic: "eth0" unless one is
// configured.
std::string get_wlan_backhaul(int radio, int vap);
// True for "wlan..." names; radio (at least 6 bytes), when given, receives
// the first five characters of the name.
bool is_wlan_if(const char *ifname, char *radio);
int platform_iflist_from_band(char *iflist, int size, json_t *band, char *message);
