// Firmware updates: ask the controller which firmware to run, fetch and
// install an offered image, and retry failed checks in the background.
#pragma once

#include <atomic>
#include <jansson.h>

// Where the image is downloaded; a macro, for it is pasted into the
// installer's command line and its log lines.
#define UPDATES_IMAGE "/tmp/updates.tar"

// Set while a retry thread runs (claimed by the starter, so two starts in a
// row cannot both start one).
extern std::atomic<bool> deferred_running;

// Every wait of the retry thread goes through here; tests point it elsewhere.
extern unsigned int (*updates_sleep)(unsigned int seconds);

void auto_updates(void);
// 0: up to date; -1 or the installer's exit status: failed. Restarts the
// device when an offered image was installed.
int check_updates(void);
void start_deferred_updates(void);
void deferred_updates(void *running, void *p2, void *p3);
void cmd_set_firmware(char *command, json_t *js_command, char *resp_href);
