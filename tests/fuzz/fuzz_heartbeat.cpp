// The heartbeat reply, and the command bundle it hands to the dispatcher:
// one whole pulse with the input as the controller's reply. Commands found
// in it are queued and run, in order, by the real command runner.
#include "fuzz_env.h"

#include "command.h"
#include "heartbeat.h"

#include <condition_variable>
#include <cstdlib>
#include <jansson.h>
#include <mutex>

namespace
{

std::mutex done_lock;
std::condition_variable done_cv;
bool done;

// Every command but "set.heartbeat" (which runs for real) only has its
// inputs released here; the commands target drives the handlers.
void release(char *name, json_t *command, char *href)
{
    free(name);
    json_decref(command);
    free(href);
}

void finished(char *name, json_t *command, char *href)
{
    release(name, command, href);
    std::lock_guard<std::mutex> hold(done_lock);
    done = true;
    done_cv.notify_one();
}

json_t *done_marker;

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz::start_agent(false);
    // The token first: the reply under test answers every other path, since
    // "set.heartbeat" may move the heartbeat anywhere under "/api/".
    static const char token[] = R"({"access_token":"fuzz-token","expires_in":3600})";
    fuzz::answer("/oauth/token", reinterpret_cast<const uint8_t *>(token), sizeof(token) - 1);
    heartbeat_setup();
    for (const char *name :
         {"set.config", "del.config", "set.system", "set.reboot", "set.logging", "set.firmware",
          "set.sslVpn", "del.sslVpn", "set.statistics", "set.status", "get.diagnostics"})
        command_register(name, release);
    command_register("fuzz.done", finished);
    done_marker = json_pack("[{s:s,s:s,s:s,s:s}]", "action", "fuzz", "context", "done", "flags", "",
                            "id", "0");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::answer("/api/", data, size);
    heartbeat_pulse();
    // The runner takes commands in order: once the done_marker has run, so has
    // everything this reply queued.
    {
        std::lock_guard<std::mutex> hold(done_lock);
        done = false;
    }
    process_bundle(done_marker, 1, "/fuzz");
    std::unique_lock<std::mutex> hold(done_lock);
    done_cv.wait(hold, [] { return done; });
    return 0;
}
