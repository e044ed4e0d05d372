#include "mgmtvpn.h"

#include "command.h"
#include "devroot.h"
#include "health.h"
#include "heartbeat.h"
#include "log.h"
#include "netutils.h"
#include "raii.h"
#include "signals.h"
#include "utils.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

char mgmtvpn_ifname[MGMTVPN_IFNAME_SIZE] = "tun0";
char mgmtvpn_ipaddr[MGMTVPN_IPADDR_SIZE];

namespace
{

const char start_command[] = "/sbin/openvpn --daemon mgmtvpn --config " MGMTVPN_CONFIG;
const char stop_command[] = "killall -9 openvpn 2> /dev/null";
const char start_failed[] = "Failed to start vpn";

// What the provider reported last, so an unchanged address is sent only
// after a failed pulse.
char last_vpn_ip[MGMTVPN_IPADDR_SIZE];

int start_vpn(void)
{
    int rc = _sys("%s", start_command);
    health_vpn_started(rc == 0);
    return rc;
}

void stop_vpn(void)
{
    _sys("%s", stop_command);
    health_vpn_started(false);
}

// Writes the configuration as text: it ends at its first NUL byte. A file
// that could not be written completely is removed again, so that a restart
// never brings up half a configuration. Returns 0 or the errno.
int save_config(const char *text)
{
    // The configuration carries the tunnel's keys: for the agent (and the
    // VPN client it starts) alone, whatever the umask.
    int fd = dev_open(MGMTVPN_CONFIG, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0)
        return errno;
    FILE *f = nullptr;
    if (fchmod(fd, 0600) != 0 || (f = fdopen(fd, "w")) == nullptr) {
        int err = errno;
        close(fd);
        dev_remove(MGMTVPN_CONFIG);
        return err;
    }
    int err = 0;
    if (fputs(text, f) == EOF)
        err = errno;
    if (fclose(f) != 0 && err == 0)
        err = errno;
    if (err != 0)
        dev_remove(MGMTVPN_CONFIG);
    return err;
}

} // namespace

void mgmtvpn_init(void)
{
    // The VPN outlives the agent on purpose: the controller may still need
    // the tunnel to reach a switch whose agent is being restarted.
    signals_register(SIGTERM, mgmtvpn_cleanup, "mgmtvpn_cleanup");
    command_register("set.sslVpn", cmd_set_sslvpn);
    command_register("del.sslVpn", cmd_del_sslvpn);
    heartbeat_register_provider("vpnIp", mgmtvpn_heartbeat_provider);

    file_ptr stored(dev_fopen(MGMTVPN_CONFIG, "r"));
    if (!stored)
        return;
    stored.reset();
    stop_vpn();
    if (start_vpn() != 0)
        log_fprint(orkad_log, "%s: %s\n", __func__, start_failed);
}

void mgmtvpn_cleanup(int) {}

int mgmtvpn_connected(void)
{
    return get_ipv4_address(mgmtvpn_ifname, mgmtvpn_ipaddr) == 0 ? 1 : 0;
}

void mgmtvpn_heartbeat_provider(json_t *hb_obj, bool last_failed)
{
    char ip[MGMTVPN_IPADDR_SIZE];
    get_ipv4_address(mgmtvpn_ifname, ip);
    if (last_failed || strcmp(ip, last_vpn_ip) != 0) {
        if (json_object_set_new(hb_obj, "vpnIp", json_string(ip)) != 0)
            log_fprint(orkad_log, "%s: cannot add '%s' to heartbeat data\n", __func__, "vpnIp");
    }
    memcpy(last_vpn_ip, ip, sizeof(last_vpn_ip));
}

void cmd_set_sslvpn(char *command, json_t *js_command, char *resp_href)
{
    cmd_envelope cmd("set.sslVpn", command, js_command, resp_href);
    if (!cmd.open())
        return;
    json_t *ovpn = json_object_get(cmd.params, "clientOvpn");
    if (!json_is_string(ovpn))
        return cmd.refuse("missing or invalid 'clientOvpn' element in params");
    int len = (int)json_string_length(ovpn);
    malloc_ptr<char> text(base64_decode(json_string_value(ovpn), &len, nullptr));
    // The running VPN stays as it is.
    if (!text)
        return cmd.refuse("error decoding 'clientOvpn' element content");

    stop_vpn();
    dev_remove(MGMTVPN_CONFIG);
    int err = save_config(text.get());
    if (err != 0)
        return cmd.refuse("failed to save '%s' file (errno = %d)", MGMTVPN_CONFIG, err);
    if (start_vpn() != 0)
        return cmd.refuse("%s", start_failed);
    cmd.answer(0);
}

void cmd_del_sslvpn(char *command, json_t *js_command, char *resp_href)
{
    cmd_envelope cmd("del.sslVpn", command, js_command, resp_href);
    if (!cmd.open(false))
        return;
    stop_vpn();
    dev_remove(MGMTVPN_CONFIG);
    cmd.answer(0);
}
