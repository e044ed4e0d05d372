// Device identity gathered at start-up, the "set.config" / "del.config"
// commands and the refresh notice sent to the controller.
#pragma once

#include "command.h"

#include <jansson.h>
#include <string>

extern char env_serial[32];
extern char env_ethaddr[18];
extern char env_hardware[32];
extern char env_primary[64];
extern char env_secondary[64];
extern char env_country[32];
// The phone-home site and the controller the boot environment names, whole.
extern std::string env_homesite;
extern std::string env_controller;
extern char env_heartbeat[8];
extern char env_boot[8];
extern char env_uuid[64];
extern bool developer_build;

typedef struct lan_status {
    char reason[64];
    bool changed;
    char ip_proto[9]; // up to 8 characters and the terminator
    char ip_address[16];
    char subnet_mask[16];
    char default_gateway[16];
    char dns_server1[16];
    char dns_server2[16];
} lan_status;

void config_init(void);
void cmd_set_config(char *name, json_t *command, char *resp_href);
void cmd_del_config(char *name, json_t *command, char *resp_href);
// 0, or -1 with the answer's message in message (CMD_MESSAGE_SIZE bytes).
int set_port_config(json_t *ports, char *message);
int set_lan_config(json_t *lan, char *message);
// 1 when nothing was sent (no controller, no token, no notice could be
// built), else the last post's result as http_post gives it.
int send_refresh_config(void);
