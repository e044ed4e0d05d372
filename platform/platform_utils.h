// The agent's layer over the device itself: boot environment, firmware
// versions, device control, the syslog hand-over, start-up gates, cluster
// settings and the capabilities we announce.
#pragma once

#include <cstddef>
#include <ctime>
#include <jansson.h>
#include <string>

// The syslog receiver hands each line on as a "syslog" event to the
// forwarding module's socket.
constexpr char LOGGING_SOCKET[] = "unix:/tmp/orkad_syslog_socket";
// The switch sends its syslog to this local UDP port once we ask it to.
constexpr int PLATFORM_SYSLOG_PORT = 46180;
// The receiver reads datagrams of at most 1024 bytes and takes at most 1023
// bytes of a datagram's text. Escaped twice, a text of control characters
// grows sevenfold: the event buffer holds the longest event there can be,
// so no event is ever cut.
constexpr int PLATFORM_SYSLOG_DATAGRAM = 1024;
constexpr int PLATFORM_SYSLOG_TEXT = 1023;
constexpr int PLATFORM_SYSLOG_EVENT = 8192;

extern const char *const firmware_image[2];
extern const char localhost[10];

// Every sleep of this unit (factory resets, start-up gates) goes through
// here; tests point it elsewhere.
extern unsigned int (*platform_sleep)(unsigned int seconds);

// Boot environment and identity. Reads are not cached here.
char *get_env_variable(const char *name, char *buf, int n);
// A boot-environment value whole; "" when it is not set.
std::string get_env_text(const char *name);
int set_env_variable(const char *name, const char *value);
const char *get_firmware_version(void);
char *platform_get_firmware_version(int image, char *buf, int n);
const char *platform_get_primary_firmware_version(void);
const char *platform_get_secondary_firmware_version(void);
const char *platform_get_serial_number(void);
const char *platform_get_ethaddr(void);
const char *platform_get_hw_version(void);
// Copies the 17 characters of the interface's MAC address text into buf,
// without a terminator. 0, or -1 (cannot open) / -2 (short read).
int platform_get_if_mac_str(const char *ifname, char *buf);
// What the device can do, as the refresh notice tells the controller: a new
// object the caller owns.
json_t *platform_capabilities(void);

// Device control.
int platform_reboot(void);
void platform_factory_reset(void);
void platform_factory_reset_soft(void);
int _system(const char *cmd);
void platform_apply_updates(void);
void platform_init(void);
void platform_pre_init(void);
int platform_update_agent_status(const char *status);

// Syslog hand-over. 0, or -1 when the receiver's thread could not start.
int platform_start_logging(void);
bool platform_logging_filter(const char *msg, int len);

// The syslog receiver. The switch is always pointed at PLATFORM_SYSLOG_PORT;
// the receiver binds this port, which tests move out of each other's way.
extern int platform_syslog_port;
// Thread body "platform_syslog_reader": runs the pump for ever, one second
// apart.
void platform_syslog_reader(void *p1, void *p2, void *p3);
// Receives datagrams and hands each to the syslog listener as an event;
// returns -1 only when the socket fails.
int platform_syslog_pump(void);
// The "syslog" event for one datagram of n bytes received at `now`, into
// event (size bytes, NUL-terminated); returns its length, or -1 when it does
// not fit (PLATFORM_SYSLOG_EVENT bytes always do) or memory ran out.
int platform_syslog_event(const char *dgram, int n, time_t now, unsigned long long sequence,
                          char *event, int size);

// Start-up gates: each gives up when its time runs out.
bool sntp_time_set(void);
int wait_for_sntp(int seconds);
int wait_for_dhcp(int seconds);
void platform_init_delay(void);

// Cluster settings. The error buffer receives a reason on failure.
int platform_start_cluster(const char *name, const char *location, const char *ipversion,
                           char *errbuf);
int platform_stop_cluster(const char *name, char *errbuf);
// The cluster's name while the device operates in a cluster, else "".
std::string platform_get_cluster_name(void);
