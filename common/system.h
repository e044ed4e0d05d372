// The system commands: "set.system" stores system properties (and sets the
// switch's administrator password), "set.reboot" restarts the switch after
// acknowledging the command.
#pragma once

#include <jansson.h>

// Room for the names of failed properties in a "set.system" answer.
constexpr size_t SET_SYSTEM_FAILED_SIZE = 384;

// The wait after a reboot request that returned; tests point it elsewhere.
extern unsigned int (*system_sleep)(unsigned int seconds);

void set_system_init(void);
void cmd_set_system(char *command, json_t *js_command, char *resp_href);
void cmd_set_reboot(char *command, json_t *js_command, char *resp_href);
