// Network interface helpers: addresses, gateways, neighbours, access-VLAN
// interfaces, tun/tap devices. Each call opens what it needs and closes it
// again, so all of them are reentrant.
#pragma once

// The management interface, "eth0" unless phone-home points it at another one.
extern char *mgmt_ifname;

// ifname: 16 bytes.
void get_mgmt_ifname(char *ifname);
int get_ipv4_address(const char *iface, char *addr);
int get_ipv4_subnetmask(const char *iface, char *mask);
int get_mac_address(const char *iface, char *addr);
int get_mac_address_raw(const char *iface, unsigned char *addr);
char *ether_etoa(const unsigned char *e, char *a);
bool is_valid_ip_addr(const char *ip);
// ip: 46 bytes. 0, or 1 (the number its callers test for) when the name does
// not resolve to an IPv4 address.
int hostname_to_ip(const char *hostname, char *ip);

// gw and mask are arrays of array_len strings, element_size bytes apart.
// The kernel's routing table, which tests and fuzzing point elsewhere.
extern const char *netutils_proc_net_route;
int get_ipv4_gateways(const char *iface, char *gw, char *mask, int array_len, int element_size);
int get_client_mac_address(const char *iface, const char *clientIp, char *addr, int invoke_arp);

int create_vlan_if(const char *ifname, int vlan);
void delete_vlan_if(const char *ifname);
// 1 once the device exists, 0 when the wait runs out (or cannot start).
int wait_for_device(const char *devname, int secs, int intvl);
// Creates and names the device (the kernel's name goes back into ifname) and
// returns the number of the descriptor it used, closed again; negative when
// the device cannot be made.
int tuntap_alloc(char *ifname, int flags);
