#include "platform_utils.h"

#include "devroot.h"

#include <cstdio>
#include <cstring>

namespace {

char firmware_version[128];
char serial_number[32];

// Reads the first line a command prints, without its newline.
char *read_command_line(const char *cmd, char *buf, int n)
{
    FILE *fp = dev_popen(cmd, "r");
    if (fp == nullptr)
        return nullptr;
    buf[0] = '\0';
    char *got = fgets(buf, n, fp);
    pclose(fp);
    if (got == nullptr) {
        buf[0] = '\0';
        return nullptr;
    }
    size_t len = strlen(buf);
    if (len > 0 && buf[len - 1] == '\n')
        buf[len - 1] = '\0';
    return buf;
}

} // namespace

char *get_env_variable(const char *name, char *buf, int n)
{
    char cmd[64];
    snprintf(cmd, sizeof(cmd), "/sbin/fw_printenv -n %s 2> /dev/null", name);
    return read_command_line(cmd, buf, n);
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
    FILE *fp = dev_fopen("/etc/version", "r");
    if (fp == nullptr)
        return "";
    if (fgets(firmware_version, sizeof(firmware_version), fp) == nullptr)
        firmware_version[0] = '\0';
    fclose(fp);
    size_t len = strlen(firmware_version);
    if (len > 0 && firmware_version[len - 1] == '\n')
        firmware_version[len - 1] = '\0';
    return firmware_version;
}

const char *platform_get_serial_number(void)
{
    if (get_env_variable("serial#", serial_number, sizeof(serial_number)) == nullptr)
        serial_number[0] = '\0';
    return serial_number;
}

int _system(const char *cmd)
{
    return dev_system(cmd);
}

void platform_init(void) {}

void platform_apply_updates(void) {}
