#include "cap_utils.h"

// A switch runs no captive portal; the hooks keep the shared callers linking.
void cap_init(void) {}

void platform_cap_new_station(const char *, const char *, const char *, const char *) {}

void platform_cap_accept_station(const char *) {}

void platform_cap_continue_station(const char *) {}

void platform_cap_block_station(const char *) {}

void platform_cap_expire_station(const char *) {}

void platform_cap_config_add_vnet(const char *) {}

void platform_cap_config_del_vnet(const char *) {}

int platform_cap_session_response(json_t *, char *, int)
{
    return 0;
}
