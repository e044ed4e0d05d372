// The heartbeat thread: posts what the providers gather at a fixed interval,
// hands the commands of each reply to the dispatcher and keeps the
// controller's "up"/"down" status.
#pragma once

#include "provider.h"

#include <atomic>
#include <cstdint>
#include <jansson.h>

constexpr int HEARTBEAT_LINK_SIZE = 128;

// Adds members to the outgoing document; last_failed is true when the
// previous pulse failed or none has succeeded yet.
typedef void (*heartbeat_fn)(json_t *hb_obj, bool last_failed);
typedef provider_record<heartbeat_fn> heartbeat_provider;

// The last registered first (provider_push).
extern std::atomic<heartbeat_provider *> heartbeat_providers;
// Set by "set.heartbeat" on the command runner, read by the heartbeat
// thread and the status answer.
extern std::atomic<int> heartbeat_interval;
extern char heartbeat_link[HEARTBEAT_LINK_SIZE];
extern std::atomic<uint64_t> heartbeat_count;

// Every wait between pulses goes through here; tests point it elsewhere.
extern unsigned int (*heartbeat_sleep)(unsigned int seconds);

void heartbeat(void *p1, void *p2, void *p3);
// The thread's start: command, signal and providers, the boot-environment
// interval. heartbeat() runs it once before its first pulse.
void heartbeat_setup(void);
// One pulse; 0 when the controller was reached, -1 otherwise.
int heartbeat_pulse(void);
int heartbeat_register_provider(const char *name, heartbeat_fn fn);
void cmd_set_heartbeat(char *command, json_t *js_command, char *resp_href);
void heartbeat_debug(int sig);

// -1 unknown, 1 up, 0 down; and the consecutive failed pulses so far.
int heartbeat_cloud_connected(void);
int heartbeat_cloud_missed(void);
