// Command dispatch: controller commands from a heartbeat reply are matched to
// the handlers that modules registered and run one at a time, in arrival
// order, on the "command_runner" thread.
#pragma once

#include "work.h"

#include <jansson.h>

// The handler owns all three arguments: it frees name and response_link and
// drops its reference to command before it returns, and answers the
// controller itself.
typedef void (*cmd_fn)(char *name, json_t *command, char *response_link);

#define CMD_NAME_SIZE 40

struct cmd_processor {
    char name[CMD_NAME_SIZE];
    cmd_fn fn;
    unsigned int hits;
};

// Bits computed from a command's "flags" text; they do not change how
// commands run.
#define CMD_FLAG_CHAIN 1
#define CMD_FLAG_LAST 2

void command_init(void);
int command_register(const char *name, cmd_fn fn);
void process_bundle(json_t *list, int count, const char *response_link);
work_t *process_command(json_t *command, int *flags, const char *response_link);
void command_runner(void *p1, void *p2, void *p3);
