// Captive-portal hooks: shared with wireless devices, inert on this switch.
#pragma once

#include <jansson.h>

void cap_init(void);
void platform_cap_new_station(const char *vnet, const char *ssid, const char *sta_mac,
                              const char *dev_mac);
void platform_cap_accept_station(const char *vnet);
void platform_cap_continue_station(const char *vnet);
void platform_cap_block_station(const char *vnet);
void platform_cap_expire_station(const char *vnet);
void platform_cap_config_add_vnet(const char *vnet);
void platform_cap_config_del_vnet(const char *vnet);
int platform_cap_session_response(json_t *params, char *response, int size);
