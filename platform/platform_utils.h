// The agent's layer over the device itself: boot environment, firmware
// versions, device control and start-up gates.
#pragma once

#include <cstddef>

char *get_env_variable(const char *name, char *buf, int n);
int set_env_variable(const char *name, const char *value);
const char *get_firmware_version(void);
const char *platform_get_serial_number(void);
int _system(const char *cmd);
void platform_init(void);
void platform_apply_updates(void);
