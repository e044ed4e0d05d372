#include "platform_utils.h"
#include "raii.h"

#include "devroot.h"
#include "icos-openapi.h"
#include "listener.h"
#include "log.h"
#include "lsql.h"
#include "utils.h"
#include "work.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

const char *const firmware_image[2] = {"/mnt/fastpath/image1", "/mnt/fastpath/image2"};
const char localhost[10] = "127.0.0.1";

unsigned int (*platform_sleep)(unsigned int seconds) = sleep;
int platform_syslog_port = PLATFORM_SYSLOG_PORT;

namespace
{

const char agent_name[] = "tq_agent";

// Only the firmware versions are cached; the identity buffers are refilled on
// every call.
char firmware_version[128];
char primary_version[64];
char secondary_version[64];
char serial_number[32];
char ethaddr[18];
char hw_version[32];

bool logging_started;
int syslog_reader_id = -1;

const char capabilities[] = "{"
                            "\"set-reboot\":{\"allowed\":true},"
                            "\"set-broker\":{\"allowed\":false},"
                            "\"set-probe\":{\"allowed\":false},"
                            "\"set-vnet\":{\"allowed\":false},"
                            "\"del-vnet\":{\"allowed\":false},"
                            "\"get-status\":{\"allowed\":true},"
                            "\"set-ssl-vpn\":{\"allowed\":true},"
                            "\"del-ssl-vpn\":{\"allowed\":true},"
                            "\"set-logging\":{\"allowed\":true},"
                            "\"set-statistics\":{\"allowed\":true},"
                            "\"set-openflow\":{\"allowed\":false},"
                            "\"del-openflow\":{\"allowed\":false},"
                            "\"set-credentials\":{\"allowed\":true},"
                            "\"set-config\":{\"allowed\":true},"
                            "\"del-config\":{\"allowed\":true},"
                            "\"set-firmware\":{\"allowed\":true},"
                            "\"set-heartbeat\":{\"allowed\":true},"
                            "\"get-diagnostics\":{\"allowed\":true},"
                            "\"set-refresh-complete\":{\"allowed\":true},"
                            "\"disable-radio\":{\"allowed\":false},"
                            "\"has-ports\":{\"allowed\":true},"
                            "\"has-radios\":{\"allowed\":false},"
                            "\"set-status\":{\"allowed\":true},"
                            "\"edit-vnet\":{\"allowed\":false}}";

void chop_newline(char *s)
{
    size_t len = strlen(s);
    if (len > 0 && s[len - 1] == '\n')
        s[len - 1] = '\0';
}

// Reads the first line a command prints, without its newline.
char *read_command_line(const char *cmd, char *buf, int n)
{
    pipe_ptr fp(dev_popen(cmd, "r"));
    if (!fp)
        return nullptr;
    buf[0] = '\0';
    if (fgets(buf, n, fp.get()) == nullptr) {
        buf[0] = '\0';
        return nullptr;
    }
    chop_newline(buf);
    return buf;
}

// The whole first line a command prints, without its newline; "" when it
// prints none.
std::string read_command_text(const char *cmd)
{
    pipe_ptr fp(dev_popen(cmd, "r"));
    if (!fp)
        return "";
    std::string line;
    int c;
    while ((c = fgetc(fp.get())) != EOF && c != '\n')
        line += (char)c;
    return line;
}

const char *env_or_empty(const char *name, char *buf, int n)
{
    if (get_env_variable(name, buf, n) == nullptr)
        buf[0] = '\0';
    return buf;
}

const char *cached_image_version(int image, char *cache, int n)
{
    if (cache[0] == '\0')
        platform_get_firmware_version(image, cache, n);
    return cache;
}

} // namespace

char *get_env_variable(const char *name, char *buf, int n)
{
    char cmd[64];
    snprintf(cmd, sizeof(cmd), "/sbin/fw_printenv -n %s 2> /dev/null", name);
    return read_command_line(cmd, buf, n);
}

std::string get_env_text(const char *name)
{
    char cmd[64];
    snprintf(cmd, sizeof(cmd), "/sbin/fw_printenv -n %s 2> /dev/null", name);
    return read_command_text(cmd);
}

int set_env_variable(const char *name, const char *value)
{
    char cmd[256];
    snprintf(cmd, sizeof(cmd), "/sbin/fw_setenv %s %s", name, value);
    return dev_system(cmd);
}

const char *get_firmware_version(void)
{
    if (firmware_version[0] != '\0')
        return firmware_version;
    // Not found yet: try the file again on the next call.
    file_ptr fp(dev_fopen("/etc/version", "r"));
    if (!fp)
        return "";
    if (fgets(firmware_version, sizeof(firmware_version), fp.get()) == nullptr)
        firmware_version[0] = '\0';
    chop_newline(firmware_version);
    return firmware_version;
}

char *platform_get_firmware_version(int image, char *buf, int n)
{
    char cmd[128];
    snprintf(cmd, sizeof(cmd), "varnex-get-version %s", firmware_image[image]);
    return read_command_line(cmd, buf, n);
}

const char *platform_get_primary_firmware_version(void)
{
    return cached_image_version(0, primary_version, sizeof(primary_version));
}

const char *platform_get_secondary_firmware_version(void)
{
    return cached_image_version(1, secondary_version, sizeof(secondary_version));
}

const char *platform_get_serial_number(void)
{
    const char *serial = icos_get_serial_number();
    if (serial != nullptr && serial[0] != '\0')
        return serial;
    return env_or_empty("serial#", serial_number, sizeof(serial_number));
}

const char *platform_get_ethaddr(void)
{
    return env_or_empty("ethaddr", ethaddr, sizeof(ethaddr));
}

const char *platform_get_hw_version(void)
{
    return env_or_empty("hardware_version", hw_version, sizeof(hw_version));
}

int platform_get_if_mac_str(const char *ifname, char *buf)
{
    char path[64];
    snprintf(path, sizeof(path), "/sys/class/net/%.16s/address", ifname);
    file_ptr fp(dev_fopen(path, "r"));
    if (!fp) {
        log_fprint(orkad_log, "%s: cannot open '%s'\n", __func__, path);
        return -1;
    }
    int got = (int)fread(buf, 1, 17, fp.get());
    if (got < 17) {
        log_fprint(orkad_log, "%s: cannot read '%s', read %d bytes\n", __func__, path, got);
        return -2;
    }
    return 0;
}

json_t *platform_capabilities(void)
{
    return json_loads(capabilities, 0, nullptr);
}

int platform_reboot(void)
{
    return icos_system_reload();
}

void platform_factory_reset(void)
{
    _system("/usr/sbin/varnex-factory-reset");
    // The script takes the device down; give it the time to do so.
    platform_sleep(10);
}

// The script decides what a reset keeps, so both kinds are the same here.
void platform_factory_reset_soft(void)
{
    platform_factory_reset();
}

int _system(const char *cmd)
{
    return dev_system(cmd);
}

void platform_init(void) {}

void platform_apply_updates(void) {}

void platform_pre_init(void)
{
    // The agent has nothing to do on a switch that is not cloud managed.
    if (platform_cloud_management_enabled() == 0)
        exit(0);
    icos_set_agent_version(agent_name, get_firmware_version());
}

int platform_update_agent_status(const char *status)
{
    char text[512];
    snprintf(text, sizeof(text), "Connection:       %s\n", status);
    return icos_set_agent_status(agent_name, text);
}

int platform_start_logging(void)
{
    if (logging_started)
        return 0;
    int rc = 0;
    icos_add_logging_host(localhost, PLATFORM_SYSLOG_PORT);
    icos_set_logging_severity(localhost, 7); // debug: the switch sends everything
    icos_set_syslog_mode(true);
    syslog_reader_id =
        thread_start("platform_syslog_reader", platform_syslog_reader, nullptr, nullptr, nullptr);
    if (syslog_reader_id < 0)
        rc = -1;
    // Once only, even when the thread did not start: the switch side is set.
    logging_started = true;
    return rc;
}

bool platform_logging_filter(const char *, int)
{
    return true;
}

namespace
{

const char replacement[] = "\xef\xbf\xbd"; // U+FFFD

// "<priority>" and the switch's text from `from`, into message (room for
// the worst case: every byte replaced). The text ends at a NUL or at the
// datagram's end; carriage returns and line feeds are dropped; at most
// PLATFORM_SYSLOG_TEXT bytes of it are taken, never half a character; each
// byte that is not part of well-formed UTF-8 becomes U+FFFD. Returns the
// message's length.
int syslog_message(const char *text, int from, int n, int priority, char *message)
{
    int j = snprintf(message, 16, "<%d>", priority);
    const unsigned char *u = reinterpret_cast<const unsigned char *>(text);
    int taken = 0;
    for (int i = from; i < n && text[i] != '\0';) {
        if (text[i] == '\r' || text[i] == '\n') {
            i++;
            continue;
        }
        int len = utf8_sequence(u + i, n - i);
        if (taken + (len > 0 ? len : 1) > PLATFORM_SYSLOG_TEXT)
            break;
        if (len == 0) {
            memcpy(message + j, replacement, 3);
            j += 3;
            taken++;
            i++;
        } else {
            memcpy(message + j, text + i, len);
            j += len;
            taken += len;
            i += len;
        }
    }
    return j;
}

constexpr size_t SYSLOG_JSON_FLAGS = JSON_COMPACT | JSON_PRESERVE_ORDER;

// The longest event a datagram can give: each byte of the text as a control
// character (\u00XX in the line, a backslash more in the event), the line's
// own frame with its quotes escaped, the widest numbers and time, the event
// frame.
constexpr int SYSLOG_EVENT_WORST = 7 * PLATFORM_SYSLOG_TEXT + 2 * (64 + 64 + 20 + 11 + 2) + 64;
static_assert(PLATFORM_SYSLOG_EVENT > SYSLOG_EVENT_WORST, "a syslog event could be cut");

} // namespace

int platform_syslog_event(const char *dgram, int n, time_t now, unsigned long long sequence,
                          char *event, int size)
{
    if (n < 0)
        n = 0;
    if (n > PLATFORM_SYSLOG_DATAGRAM)
        n = PLATFORM_SYSLOG_DATAGRAM;
    char text[PLATFORM_SYSLOG_DATAGRAM + 1];
    memcpy(text, dgram, n);
    text[n] = '\0';

    int priority = 0;
    int offset = -1;
    int got = sscanf(text, "<%d> %n", &priority, &offset);
    if (got < 1) {
        // No head: forwarded whole, with the priority a relay gives such a
        // line (user.notice).
        priority = 13;
        offset = 0;
    } else if (offset < 0) {
        offset = n;
    }

    // The switch's timestamp carries no year: the current one is kept. A
    // line without one is stamped with the time it arrived.
    struct tm arrived;
    localtime_r(&now, &arrived);
    struct tm stamp = arrived;
    if (strptime(text + offset, "%b %d %T ", &stamp) == nullptr)
        stamp = arrived;
    char log_time[64];
    strftime(log_time, sizeof(log_time), "%FT%T%z", &stamp);

    char message[16 + 3 * PLATFORM_SYSLOG_TEXT];
    int mlen = syslog_message(text, offset, n, priority, message);

    // The line is the text of a JSON object carried as a JSON string: it is
    // decoded twice on its way (by our listener, then by the controller), so
    // jansson escapes it twice and the controller reads the switch's text
    // whatever quotes, backslashes or control characters it holds.
    json_ptr line(json_object());
    if (line == nullptr ||
        json_object_set_new(line.get(), "sequence", json_integer((json_int_t)sequence)) != 0 ||
        json_object_set_new(line.get(), "logTime", json_string(log_time)) != 0 ||
        json_object_set_new(line.get(), "message", json_stringn(message, mlen)) != 0)
        return -1;
    malloc_ptr<char> params(json_dumps(line.get(), SYSLOG_JSON_FLAGS));
    if (params == nullptr)
        return -1;
    json_ptr ev(json_object());
    if (ev == nullptr || json_object_set_new(ev.get(), "event", json_string("syslog")) != 0 ||
        json_object_set_new(ev.get(), "params", json_string(params.get())) != 0)
        return -1;
    size_t len = json_dumpb(ev.get(), event, size, SYSLOG_JSON_FLAGS);
    if (len == 0 || len >= (size_t)size)
        return -1;
    event[len] = '\0';
    return (int)len;
}

int platform_syslog_pump(void)
{
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) {
        log_fprint(orkad_log, "%s: fatal error! cannot open socket descriptor: %s", __func__,
                   strerror(errno));
        return -1;
    }
    struct sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    // The switch sends from and to the loopback; nothing else may add lines.
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(platform_syslog_port));
    if (bind(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof(addr)) < 0) {
        int err = errno;
        log_fprint(orkad_log, "%s: failed bind, port %d (errno = '%s', %d)\n", __func__,
                   platform_syslog_port, strerror(err), err);
        close(fd);
        return -1;
    }

    unsigned long long sequence = 0;
    char buf[PLATFORM_SYSLOG_DATAGRAM];
    char event[PLATFORM_SYSLOG_EVENT];
    for (;;) {
        // Longer datagrams are cut to the first 1024 bytes.
        ssize_t n = recv(fd, buf, sizeof(buf), 0);
        time_t now = time(nullptr);
        if (n < 0) {
            // The socket stays open as it is, so every later pump fails to
            // bind until the process restarts.
            log_fprint(orkad_log, "%s: recv errors on socket\n", __func__);
            return -1;
        }
        int len =
            platform_syslog_event(buf, static_cast<int>(n), now, ++sequence, event, sizeof(event));
        if (len < 0) {
            log_fprint(orkad_log, "%s: cannot build event %llu\n", __func__, sequence);
            continue;
        }
        listener_internal_send(LOGGING_SOCKET, event, len);
    }
}

void platform_syslog_reader(void *, void *, void *)
{
    for (;;) {
        platform_syslog_pump();
        // Not platform_sleep: the receiver paces itself whatever tests do to
        // the start-up gates.
        sleep(1);
    }
}

bool sntp_time_set(void)
{
    return dev_access("/tmp/time_set", F_OK) == 0;
}

int wait_for_sntp(int seconds)
{
    while (seconds > 0) {
        if (sntp_time_set())
            return seconds;
        platform_sleep(1);
        seconds--;
    }
    return 0;
}

int wait_for_dhcp(int seconds)
{
    if (config_get("management", nullptr, "dhcp-status") != "up")
        return seconds;

    // Until DHCP hands out an address of its own, the interface still carries
    // the static one.
    std::string ip;
    std::string static_ip;
    while (ip == static_ip && seconds > 0) {
        seconds--;
        ip = config_get("management", nullptr, "ip").value_or("");
        static_ip = config_get("management", nullptr, "static-ip").value_or("");
        platform_sleep(1);
    }
    return seconds;
}

void platform_init_delay(void)
{
    log_fprint(orkad_log, "%s: waiting for config system to initialize\n", __func__);
    for (int polls = 0; polls < 46; polls++) {
        if (config_get("system", nullptr, "model"))
            return;
        platform_sleep(1);
    }
    log_fprint(orkad_log, "%s: slept too long, continuing\n", __func__);
}

int platform_start_cluster(const char *name, const char *location, const char *ipversion,
                           char *errbuf)
{
    if (config_set("cluster", nullptr, "clustered", "0") != 0 ||
        config_set("cluster", nullptr, "cluster-name", name) != 0 ||
        config_set("cluster", nullptr, "location", location) != 0 ||
        config_set("cluster", nullptr, "ipversion", ipversion) != 0 ||
        config_set("cluster", nullptr, "clustered", "1") != 0) {
        strcpy(errbuf, "errors starting clustering configuration");
        return -1;
    }
    return 0;
}

int platform_stop_cluster(const char *name, char *errbuf)
{
    if (config_get("cluster", nullptr, "clustered") != "1") {
        strcpy(errbuf, "clustering not currently enabled\n");
        return -1;
    }
    if (config_get("cluster", nullptr, "cluster-name").value_or("") != name) {
        strcpy(errbuf, "cluster name mismatch");
        return -1;
    }
    if (config_set("cluster", nullptr, "clustered", "0") != 0) {
        strcpy(errbuf, "error stopping cluster configuration");
        return -1;
    }
    return 0;
}

std::string platform_get_cluster_name(void)
{
    if (config_get("cluster", nullptr, "operational-mode") != "1")
        return "";
    return config_get("cluster", nullptr, "cluster-name").value_or("");
}
