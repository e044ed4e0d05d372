#include "netutils.h"
#include "raii.h"

#include "devroot.h"
#include "log.h"

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <linux/if_tun.h>
#include <memory>
#include <net/if.h>
#include <net/if_arp.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{
char default_mgmt_ifname[] = "eth0";
}
char *mgmt_ifname = default_mgmt_ifname;

namespace
{

const char ovs_vsctl[] = "/usr/local/bin/ovs-vsctl";
const char udhcpc[] = "/sbin/udhcpc";
const char udhcpc_script[] = "/usr/share/udhcpc/varnex_dhcp_client.script";
const char pid_dir[] = "/tmp";
constexpr int arp_nudge_port = 8113;

void set_ifr_name(struct ifreq *ifr, const char *iface)
{
    memset(ifr, 0, sizeof(*ifr));
    strncpy(ifr->ifr_name, iface, IFNAMSIZ - 1);
}

void dotted(const void *in_addr_bytes, char *out)
{
    const unsigned char *b = static_cast<const unsigned char *>(in_addr_bytes);
    sprintf(out, "%u.%u.%u.%u", b[0], b[1], b[2], b[3]);
}

// An IPv4 address or mask of the interface through one SIOCGIF* request.
int ifaddr_query(const char *iface, unsigned long request, char *out)
{
    out[0] = '\0';
    fd_guard s(socket(AF_INET, SOCK_DGRAM, 0));
    if (!s.ok())
        return -1;
    struct ifreq ifr;
    set_ifr_name(&ifr, iface);
    ifr.ifr_addr.sa_family = AF_INET;
    if (ioctl(s.get(), request, &ifr) < 0)
        return -1;
    const struct sockaddr_in *sin = reinterpret_cast<const struct sockaddr_in *>(&ifr.ifr_addr);
    dotted(&sin->sin_addr.s_addr, out);
    return 0;
}

// A datagram nobody listens for, only to make the kernel resolve clientIp.
void send_udp_junk(const char *iface, const char *clientIp)
{
    fd_guard s(socket(AF_INET, SOCK_DGRAM, 0));
    if (!s.ok())
        return;
    if (setsockopt(s.get(), SOL_SOCKET, SO_BINDTODEVICE, iface, strlen(iface) + 1) < 0)
        log_fprint(orkad_log, "%s: SO_BINDTODEVICE failed\n", __func__);
    struct sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_port = htons(arp_nudge_port);
    if (inet_aton(clientIp, &to.sin_addr) == 0) {
        log_fprint(orkad_log, "%s: inet_aton() failed\n", __func__);
        return;
    }
    const char junk[4] = {0, 0, 0, 0};
    if (sendto(s.get(), junk, sizeof(junk), 0, reinterpret_cast<struct sockaddr *>(&to),
               sizeof(to)) < 0) {
        // best effort: the ARP query below tells whether it worked
    }
}

void pid_file_name(const char *ifname, char *buf, size_t size)
{
    snprintf(buf, size, "%s/dhcp_%s.pid", pid_dir, ifname);
}

bool is_mgmt_ifname(const char *iface)
{
    return mgmt_ifname != nullptr && strcmp(iface, mgmt_ifname) == 0;
}

} // namespace

void get_mgmt_ifname(char *ifname)
{
    memset(ifname, 0, 16);
    strncpy(ifname, mgmt_ifname, 15);
}

int get_ipv4_address(const char *iface, char *addr)
{
    return ifaddr_query(iface, SIOCGIFADDR, addr);
}

int get_ipv4_subnetmask(const char *iface, char *mask)
{
    return ifaddr_query(iface, SIOCGIFNETMASK, mask);
}

int get_mac_address_raw(const char *iface, unsigned char *addr)
{
    fd_guard s(socket(AF_INET, SOCK_DGRAM, 0));
    if (!s.ok())
        return -1;
    struct ifreq ifr;
    set_ifr_name(&ifr, iface);
    if (ioctl(s.get(), SIOCGIFHWADDR, &ifr) < 0)
        return -1;
    memcpy(addr, ifr.ifr_hwaddr.sa_data, 6);
    return 0;
}

int get_mac_address(const char *iface, char *addr)
{
    unsigned char raw[6];
    addr[0] = '\0';
    if (get_mac_address_raw(iface, raw) < 0)
        return -1;
    ether_etoa(raw, addr);
    return 0;
}

char *ether_etoa(const unsigned char *e, char *a)
{
    if (e == nullptr || a == nullptr)
        return nullptr;
    sprintf(a, "%02X:%02X:%02X:%02X:%02X:%02X", e[0], e[1], e[2], e[3], e[4], e[5]);
    return a;
}

bool is_valid_ip_addr(const char *ip)
{
    int fields = 0;
    const char *p = ip;
    for (;;) {
        int digits = 0;
        int value = 0;
        while (*p >= '0' && *p <= '9') {
            value = value * 10 + (*p - '0');
            if (value > 255)
                return false;
            digits++;
            p++;
        }
        if (digits == 0)
            return false;
        fields++;
        if (*p == '\0')
            return fields == 4;
        if (*p != '.' || fields == 4)
            return false;
        p++;
    }
}

int hostname_to_ip(const char *hostname, char *ip)
{
    struct hostent he;
    struct hostent *result = nullptr;
    char buf[2048];
    int herr = 0;
    if (gethostbyname_r(hostname, &he, buf, sizeof(buf), &result, &herr) != 0 ||
        result == nullptr) {
        log_fprint(orkad_log, "%s: gethostbyname returned error for the hostname:%s\n", __func__,
                   hostname);
        return 1;
    }
    if (result->h_addrtype != AF_INET || result->h_addr_list[0] == nullptr)
        return 1;
    char text[INET_ADDRSTRLEN];
    dotted(result->h_addr_list[0], text);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wstringop-truncation"
    strncpy(ip, text, 46);
#pragma GCC diagnostic pop
    return 0;
}

const char *netutils_proc_net_route = "/proc/net/route";

int get_ipv4_gateways(const char *iface, char *gw, char *mask, int array_len, int element_size)
{
    gw[0] = '\0';
    int found = 0;
    // A route record is 127 characters and its newline: room for both and
    // the terminator, so each record is read whole, in one piece.
    char line[256];

    if (!is_mgmt_ifname(iface)) {
        char path[64];
        snprintf(path, sizeof(path), "/tmp/%s.gw", iface);
        file_ptr fp(dev_fopen(path, "r"));
        if (fp == nullptr)
            return -1;
        while (fgets(line, sizeof(line), fp.get()) != nullptr) {
            size_t len = strlen(line);
            if (len < 8 || len > 32)
                return -1;
            if (line[len - 1] == '\n')
                line[len - 1] = '\0';
            char g[33] = "", m[33] = "";
            sscanf(line, "%32s %32s", g, m);
            snprintf(gw + found * element_size, element_size, "%s", g);
            snprintf(mask + found * element_size, element_size, "%s", m);
            if (++found == array_len)
                return 0;
        }
        return found > 0 ? 0 : -1;
    }

    char ifmask[16];
    if (get_ipv4_subnetmask(iface, ifmask) < 0)
        log_fprint(orkad_log, "%s: can't get subnet mask for %s\n", __func__, iface);
    file_ptr fp(fopen(netutils_proc_net_route, "r"));
    if (fp == nullptr)
        return -1;
    if (fgets(line, sizeof(line), fp.get()) == nullptr)
        return -1;
    while (fgets(line, sizeof(line), fp.get()) != nullptr) {
        if (strchr(line, '\n') == nullptr && !feof(fp.get())) {
            // Longer than any record: skip the rest rather than read a piece
            // of it as a route of its own.
            int ch;
            while ((ch = fgetc(fp.get())) != EOF && ch != '\n')
                ;
            continue;
        }
        // Every default route counts, whichever interface it leaves by.
        const char *p = line;
        while (*p != '\0' && *p != ' ' && *p != '\t')
            p++;
        while (*p == ' ' || *p == '\t')
            p++;
        unsigned long dest, gateway;
        if (sscanf(p, "%lx%lx", &dest, &gateway) != 2 || dest != 0)
            continue;
        uint32_t g = static_cast<uint32_t>(gateway);
        char text[16];
        dotted(&g, text);
        snprintf(gw + found * element_size, element_size, "%s", text);
        snprintf(mask + found * element_size, element_size, "%s", ifmask);
        if (++found == array_len)
            return 0;
    }
    return found > 0 ? 0 : -1;
}

int get_client_mac_address(const char *iface, const char *clientIp, char *addr, int invoke_arp)
{
    char own[16];
    if (get_ipv4_address(iface, own) == 0 && strcmp(own, clientIp) == 0)
        return get_mac_address(iface, addr);

    if (invoke_arp)
        send_udp_junk(iface, clientIp);

    addr[0] = '\0';
    fd_guard s(socket(AF_INET, SOCK_DGRAM, 0));
    if (!s.ok()) {
        log_fprint(orkad_log, "%s: socket open error - %s\n", __func__, strerror(errno));
        return -1;
    }
    struct arpreq req;
    memset(&req, 0, sizeof(req));
    struct sockaddr_in *sin = reinterpret_cast<struct sockaddr_in *>(&req.arp_pa);
    sin->sin_family = AF_INET;
    if (inet_aton(clientIp, &sin->sin_addr) == 0) {
        log_fprint(orkad_log, "%s: bad client address: %s\n", __func__, clientIp);
        return -1;
    }
    req.arp_ha.sa_family = ARPHRD_ETHER;
    strncpy(req.arp_dev, iface, sizeof(req.arp_dev) - 1);

    for (int tries = 0; tries < 3; tries++) {
        if (ioctl(s.get(), SIOCGARP, &req) < 0) {
            log_fprint(orkad_log, "%s: ARP request error - %s\n", __func__, strerror(errno));
            return -1;
        }
        if (req.arp_flags != 0) {
            ether_etoa(reinterpret_cast<const unsigned char *>(req.arp_ha.sa_data), addr);
            return 0;
        }
        sleep(1);
    }
    log_fprint(orkad_log, "%s: Incomplete ARP request\n", __func__);
    return -1;
}

int create_vlan_if(const char *ifname, int vlan)
{
    char cmd[512];
    char pidfile[128];

    snprintf(cmd, sizeof(cmd), "%s add-port %s %s -- set interface %s type=internal", ovs_vsctl,
             mgmt_ifname, ifname, ifname);
    log_fprint(orkad_log, "%s: trying: %s\n", __func__, cmd);
    if (dev_system(cmd) == -1) {
        log_fprint(orkad_log, "%s: Failed system() with %s: errno=%s\n", __func__, cmd,
                   strerror(errno));
        return -1;
    }

    snprintf(cmd, sizeof(cmd), "%s set port %s tag=%d vlan_mode=access", ovs_vsctl, ifname, vlan);
    log_fprint(orkad_log, "%s: trying: %s\n", __func__, cmd);
    if (dev_system(cmd) == -1) {
        log_fprint(orkad_log, "%s: Failed system() with %s: errno=%s\n", __func__, cmd,
                   strerror(errno));
        return -1;
    }

    pid_file_name(ifname, pidfile, sizeof(pidfile));
    snprintf(cmd, sizeof(cmd), "%s -i %s -n -T 10 -p %s -s %s", udhcpc, ifname, pidfile,
             udhcpc_script);
    log_fprint(orkad_log, "%s: trying: %s\n", __func__, cmd);
    if (dev_system(cmd) == -1) {
        log_fprint(orkad_log, "%s: Failed system() with %s: errno=\n", __func__, cmd);
        // Take the port off the bridge again so a retry starts clean.
        snprintf(cmd, sizeof(cmd), "%s del-port %s", ovs_vsctl, ifname);
        if (dev_system(cmd) == -1)
            log_fprint(orkad_log, "%s: Failed system() with %s: errno=%s\n", __func__, cmd,
                       strerror(errno));
        return -1;
    }
    return 0;
}

void delete_vlan_if(const char *ifname)
{
    if (is_mgmt_ifname(ifname))
        return;

    char cmd[256];
    snprintf(cmd, sizeof(cmd), "%s del-port %s", ovs_vsctl, ifname);
    if (dev_system(cmd) == -1)
        log_fprint(orkad_log, "%s: Failed system() with %s: errno=%s\n", __func__, cmd,
                   strerror(errno));

    char pidfile[128];
    pid_file_name(ifname, pidfile, sizeof(pidfile));
    file_ptr fp(dev_fopen(pidfile, "r"));
    if (fp == nullptr)
        return;
    int pid;
    if (fscanf(fp.get(), "%d", &pid) == 1) {
        log_fprint(orkad_log, "%s: sending SIGKILL to %d\n", __func__, pid);
        kill(pid, SIGKILL);
    } else {
        log_fprint(orkad_log, "%s: cannot read pid from %s\n", __func__, pidfile);
    }
}

int wait_for_device(const char *devname, int secs, int intvl)
{
    if (devname == nullptr)
        return 0;
    log_fprint(orkad_log, "..waiting for %s..\n", devname);
    if (secs == 0 || intvl == 0) {
        log_fprint(orkad_log, "..wait %s\n", "failed");
        return 0;
    }
    fd_guard s(socket(AF_INET, SOCK_DGRAM, 0));
    if (!s.ok()) {
        log_fprint(orkad_log, "..wait %s\n", "failed");
        return 0;
    }
    struct ifreq ifr;
    set_ifr_name(&ifr, devname);
    int elapsed = intvl;
    int rc;
    while ((rc = ioctl(s.get(), SIOCGIFINDEX, &ifr)) < 0) {
        log_fprint(orkad_log, "..sleeping..%d, %d\n", rc, errno);
        sleep(intvl);
        if (secs <= elapsed) {
            log_fprint(orkad_log, "..wait %s\n", "failed");
            return 0;
        }
        elapsed += intvl;
    }
    log_fprint(orkad_log, "..wait %s\n", "OK");
    return 1;
}

int tuntap_alloc(char *ifname, int flags)
{
    // A kernel device node, like /proc: never under the device root.
    int fd = open("/dev/net/tun", O_RDWR);
    if (fd < 0)
        return fd;
    fd_guard guard(fd);
    if (ifname == nullptr)
        return -1;
    struct ifreq ifr;
    memset(&ifr, 0, sizeof(ifr));
    ifr.ifr_flags = static_cast<short>(flags);
    strncpy(ifr.ifr_name, ifname, IFNAMSIZ - 1);
    int err = ioctl(fd, TUNSETIFF, &ifr);
    if (err < 0)
        return err;
    strcpy(ifname, ifr.ifr_name);
    return fd;
}
