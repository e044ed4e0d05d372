// How the daemon is doing, for an operator who asks: the figures behind the
// "orkad.status" event, kept where the work is done (one call each, atomics
// and timestamps written in place), and the "orkad.status" and "orkad.dump"
// events answered from them on the local listener socket.
#pragma once

#include "http.h"

#include <cstdint>
#include <ctime>
#include <jansson.h>
#include <string>

// Where the controller in use came from.
enum class controller_source {
    none,
    phone_home, // the vendor's phone-home site answered with it
    boot,       // the boot environment's "controller" override
    site,       // another phone-home site (-s or the boot environment's "homesite") answered
    stored,     // read from the settings database, nobody has confirmed it yet
};

enum class phone_home_state {
    idle,    // not started
    asking,  // waiting for an address or for the site's answer
    done,    // a controller is known
    failed,  // the last query got no controller; the background loop asks again
    skipped, // "phone_home=no" in the boot environment: the site is never asked
};

// The wall clock the figures are stamped with; tests put it anywhere.
extern time_t (*health_time)(time_t *now);

// Registers "orkad.status" and "orkad.dump" on the default listener socket
// and notes this child's start.
void health_init(void);
void health_child_started(void);

// A request to the controller ended (controller_request calls it once per
// request it was asked to make): outcome and result as in controller_result.
void health_request(controller_call call, int outcome, int result);
void health_phone_home(phone_home_state state);
// A phone-home query ended with this http_get result.
void health_phone_home_result(int result);
void health_controller(const std::string &url, controller_source source);
void health_token(bool held, time_t expires);
void health_vpn_started(bool started);
void health_firmware_running(const char *version);
// null: nothing pending.
void health_firmware_pending(const char *version);

// The "orkad.status" answer (null when out of memory).
json_ptr health_status(void);
// Runs the SIGUSR1 dump handlers and says where their lines went: the
// "orkad.dump" answer.
json_ptr health_dump(void);

// The listener callbacks.
void health_status_event(const char *event, json_t *params);
void health_dump_event(const char *event, json_t *params);

// The URL without "user:password@", so credentials never leave in an answer.
std::string health_url_without_userinfo(const std::string &url);
