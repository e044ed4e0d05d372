#include "fuzz_env.h"

#include "command.h"
#include "config.h"
#include "db.h"
#include "devroot.h"
#include "http.h"
#include "icos-openapi.h"
#include "listener.h"
#include "log.h"
#include "lsql.h"
#include "platform_utils.h"
#include "signals.h"
#include "utils.h"
#include "work.h"

#include "../unit/sample_env.h"

#include "auto-updates.h"
#include "diags.h"
#include "heartbeat.h"
#include "logging.h"
#include "mgmtvpn.h"
#include "phone-home.h"
#include "stats.h"
#include "status.h"
#include "system.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <pthread.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace fuzz
{

namespace
{

std::string device_root;
bool started;

struct scripted {
    std::string what;
    std::string body;
    int status;
};
// Never destroyed: threads of the agent may still ask while the process
// exits.
std::mutex &answers_lock = *new std::mutex;
std::vector<scripted> &answers = *new std::vector<scripted>;

unsigned int no_sleep(unsigned int)
{
    return 0;
}

pthread_t fuzz_thread;

// The agent's own threads (status, syslog and statistics senders, update
// retries) wait here for good: what they send is not what is fuzzed, and
// they must not work beside the input under test. The input's own thread
// (a handler waiting for the syslog to drain, say) goes straight on.
unsigned int park(unsigned int)
{
    if (pthread_equal(pthread_self(), fuzz_thread))
        return 0;
    for (;;)
        pause();
    return 0;
}

int fake_settimeofday(const struct timeval *, const struct timezone *)
{
    return 0;
}

// The controller: scripted bodies by path, "{}" for everything else, and a
// token whenever one is asked for.
int exchange(const char *url, const char *, int, reply *r)
{
    std::string body = "{}";
    int status = 200;
    {
        std::lock_guard<std::mutex> hold(answers_lock);
        bool found = false;
        for (const auto &a : answers) {
            if (strstr(url, a.what.c_str()) != nullptr) {
                body = a.body;
                status = a.status;
                found = true;
                break;
            }
        }
        if (!found && strstr(url, "/oauth/token") != nullptr)
            body = R"({"access_token":"fuzz-token","expires_in":3600})";
    }
    ReceiveFn(body.data(), 1, body.size(), r);
    return status >= 200 && status <= 299 ? 0 : status;
}

void remove_root(void)
{
    if (device_root.empty() || getenv("ORKAD_KEEP_ROOT") != nullptr)
        return;
    std::string cmd = "rm -rf '" + device_root + "'";
    if (system(cmd.c_str()) != 0) {
    }
}

// Stands in for a platform tool: the fuzz targets must never start a VPN,
// reset or update anything, whatever a command asks.
void stub_tool(const char *device_path)
{
    std::string p = at(device_path);
    unlink(p.c_str());
    FILE *f = fopen(p.c_str(), "w");
    if (f == nullptr)
        return;
    fputs("#!/bin/sh\nexit 0\n", f);
    fclose(f);
    chmod(p.c_str(), 0755);
}

} // namespace

const std::string &root(void)
{
    return device_root;
}

std::string at(const char *device_path)
{
    return device_root + device_path;
}

void write_file(const std::string &path, const uint8_t *data, size_t size)
{
    FILE *f = fopen(path.c_str(), "wb");
    if (f == nullptr)
        return;
    if (size > 0 && fwrite(data, 1, size, f) != size) {
    }
    fclose(f);
}

void answer(const char *what, const uint8_t *data, size_t size, int status)
{
    std::lock_guard<std::mutex> hold(answers_lock);
    for (auto &a : answers) {
        if (a.what == what) {
            a.body.assign(reinterpret_cast<const char *>(data), size);
            a.status = status;
            return;
        }
    }
    answers.push_back({what, std::string(reinterpret_cast<const char *>(data), size), status});
}

void forget_answers(void)
{
    std::lock_guard<std::mutex> hold(answers_lock);
    answers.clear();
}

void start_agent(bool commands)
{
    if (started)
        return;
    started = true;
    fuzz_thread = pthread_self();
    char tmpl[] = "/tmp/orkad-fuzz-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) {
        perror("mkdtemp");
        abort();
    }
    device_root = tmpl;
    atexit(remove_root);
    std::string cmd =
        "python3 " ORKAD_SOURCE_DIR "/lab/devroot.py '" + device_root + "' > /dev/null";
    if (system(cmd.c_str()) != 0) {
        fprintf(stderr, "fuzz: cannot build the device root\n");
        abort();
    }
    for (const char *tool : {"/sbin/openvpn", "/usr/sbin/varnex-factory-reset",
                             "/usr/sbin/varnex-updates", "/usr/sbin/varnex-diagnostic-dump"})
        stub_tool(tool);
    setenv("ORKAD_ROOT", device_root.c_str(), 1);
    devroot_init();

    http_exchange = exchange;
    platform_sleep = no_sleep;
    phone_home_sleep = no_sleep;
    phone_home_settimeofday = fake_settimeofday;
    system_sleep = no_sleep;
    icos_openapi_sleep = no_sleep;
    heartbeat_sleep = park;
    updates_sleep = park;
    logging_sleep = park;
    status_sleep = park;

    log_init();
    signals_init();
    utils_init();
    command_init();
    thread_init();
    db_init();
    http_init();
    listener_init();
    set_sample_env();
    // Known but unreachable: every request goes to exchange() above.
    config_set("system", nullptr, "cloud-controller", "https://controller.invalid");
    if (commands) {
        config_init();
        mgmtvpn_init();
        set_system_init();
        logging_init();
        stats_init();
        diags_init();
        status_init();
        heartbeat_setup();
        auto_updates();
    }
}

} // namespace fuzz
