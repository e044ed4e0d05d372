// Management VPN: the controller hands over a complete OpenVPN client
// configuration; the agent keeps it, runs the client as a daemon of its own
// and reports the tunnel's address in the heartbeat.
#pragma once

#include <jansson.h>

// A macro: pasted into the OpenVPN command line.
#define MGMTVPN_CONFIG "/etc/openvpn/client.ovpn"
constexpr int MGMTVPN_IFNAME_SIZE = 32;
constexpr int MGMTVPN_IPADDR_SIZE = 16;

// The tunnel interface ("tun0") and its address as last read by
// mgmtvpn_connected().
extern char mgmtvpn_ifname[MGMTVPN_IFNAME_SIZE];
extern char mgmtvpn_ipaddr[MGMTVPN_IPADDR_SIZE];

void mgmtvpn_init(void);
// 1 when the tunnel interface has an address, else 0.
int mgmtvpn_connected(void);
void mgmtvpn_heartbeat_provider(json_t *hb_obj, bool last_failed);
void mgmtvpn_cleanup(int sig);
void cmd_set_sslvpn(char *command, json_t *js_command, char *resp_href);
void cmd_del_sslvpn(char *command, json_t *js_command, char *resp_href);
