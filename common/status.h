// The status stream: the documents the controller asks for with "set.status",
// made from the port records the switch adapter fills.
#pragma once

#include "icos-openapi.h"
#include "provider.h"
#include "stream.h"

#include <atomic>
#include <jansson.h>
#include <memory>

// ---- the status stream ------------------------------------------------------

// Size of the port table: interface numbers 1..127.
constexpr int STATUS_MAX_PORTS = 128;
// The thread's pace is counted in steps of this many seconds.
constexpr int STATUS_STEP = 10;
constexpr int STATUS_MIN_INTERVAL = 10;
constexpr int STATUS_MAX_INTERVAL = 3600;

// Adds members to the outgoing document; last_failed is true when the
// previous post failed or none has succeeded yet (then everything is sent).
typedef void (*status_fn)(json_t *st_obj, bool last_failed);
typedef provider_record<status_fn> status_provider_t;

// The stream "set.status" turns on: its switch, its interval (seconds,
// 10..3600) and its "status_send" thread.
extern stream_record status_stream;
// The table the port provider reports from; allocated on first use.
extern std::unique_ptr<port_status_t[]> port_status;
// The last registered first (provider_push).
extern std::atomic<status_provider_t *> status_providers;

// Every wait of the status thread goes through here; tests point it
// elsewhere.
extern unsigned int (*status_sleep)(unsigned int seconds);

void status_init(void);
int status_register_provider(const char *name, status_fn fn);
void status_debug(int sig);
void cmd_set_status(char *command, json_t *js_command, char *resp_href);
// Body of the "status_send" thread.
void status_send(stream_record &stream);
// One authenticated POST of a document; 0 on success, else the last result.
int status_post(const char *path, const char *payload, int length);
// Splits text at sep into a new array of strings; null text gives [].
json_t *str_to_json_array(const char *text, char sep);
void status_port_provider(json_t *st_obj, bool last_failed);
