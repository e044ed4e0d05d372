#include "orkad.h"

#include "auto-updates.h"
#include "cap_utils.h"
#include "command.h"
#include "db.h"
#include "config.h"
#include "debug.h"
#include "http.h"
#include "devroot.h"
#include "diags.h"
#include "health.h"
#include "heartbeat.h"
#include "listener.h"
#include "log.h"
#include "logging.h"
#include "mgmtvpn.h"
#include "phone-home.h"
#include "platform_utils.h"
#include "signals.h"
#include "status.h"
#include "stats.h"
#include "system.h"
#include "utils.h"
#include "watchdog.h"
#include "work.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <curl/curl.h>
#include <getopt.h>
#include <signal.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

std::string home_site = ORKAD_HOME_SITE;
int restarts;

namespace
{

const char optlist[] = "hdvs:n";

const struct option options[] = {
    {"help", no_argument, nullptr, 'h'},    {"debug", no_argument, nullptr, 'd'},
    {"version", no_argument, nullptr, 'v'}, {"site", required_argument, nullptr, 's'},
    {"no-log", no_argument, nullptr, 'n'},  {nullptr, 0, nullptr, 0},
};

// The usage text advertises "--nolog" although the parser only knows
// "--no-log"; operators' scripts rely on the accepted spelling, so both stay.
const char usage[] = "Usage: %s [options]\n"
                     " -h/--help      help/usage\n"
                     " -d/--debug     show debug information\n"
                     " -v/--version   display version\n"
                     " -s/--site      phone-home site url\n"
                     " -n/--nolog     do not log anything\n";

// Read through a volatile pointer so the compiler can neither prove the store
// faults (and replace it by a trap) nor drop it: we want a real SIGSEGV.
int *volatile crash_address = nullptr;

void parse_options(int argc, char **argv)
{
    int c;
    while ((c = getopt_long(argc, argv, optlist, options, nullptr)) != -1) {
        switch (c) {
        case 'h':
            printf(usage, argv[0]);
            exit(0);
        case 'd':
            debug = 1;
            break;
        case 'v':
            printf("Version: %s\n", ORKAD_VERSION);
            exit(0);
        case 's':
            home_site = optarg;
            break;
        case 'n':
            nolog = 1;
            break;
        default:
            printf("Terminating.\n");
            exit(-1);
        }
    }
}

void factory_restore(void)
{
    if (dev_access("/etc/config/factory-restore", F_OK) != 0)
        return;
    dev_syslog(LOG_INFO, "Restoring settings after a soft factory-reset");
    if (dev_system("/etc/config/factory-restore") == -1) {
        // the result of the restore does not stop the agent
    }
    if (dev_system("mv /etc/config/factory-restore /rw/last-factory-restore") == -1) {
    }
}

#if defined(__SANITIZE_ADDRESS__)
extern "C" int __lsan_do_recoverable_leak_check(void);

// AddressSanitizer builds only. The child never exits (every end is a
// crash), so the leak checker would never look at it: SIGURG asks it to look
// now, with the agent running, and the report goes to standard error.
void leak_check(int)
{
    int found = __lsan_do_recoverable_leak_check();
    log_fprint(orkad_log, "%s: %s\n", __func__, found ? "leaks found" : "no leaks");
}

void leak_check_init(void)
{
    // Still before any thread exists: every thread inherits the mask.
    sigset_t *set = const_cast<sigset_t *>(&blocked_signals);
    sigaddset(set, SIGURG);
    pthread_sigmask(SIG_BLOCK, set, nullptr);
    signals_register(SIGURG, leak_check, "leak_check");
}
#else
void leak_check_init(void) {}
#endif

void signals_monitor(void)
{
    log_fprint(orkad_log, "%s: started\n", __func__);
    for (;;) {
        int sig;
        if (sigwait(const_cast<sigset_t *>(&blocked_signals), &sig) != 0)
            continue;
        signals_handler(sig);
    }
}

[[noreturn]] void child_main(void)
{
    on_exit(exit_handler, nullptr);
    health_child_started();
    log_init();
    log_fprint(orkad_log, "Agent version: %s\n", ORKAD_VERSION);
    platform_init();
    if (restarts)
        dev_syslog(LOG_INFO, "agent restart %d: serial#='%s' firmware='%s'", restarts,
                   platform_get_serial_number(), get_firmware_version());
    else
        dev_syslog(LOG_INFO, "device reboot: serial#='%s' firmware='%s'",
                   platform_get_serial_number(), get_firmware_version());
    health_firmware_running(get_firmware_version());
    platform_apply_updates();

    if (curl_global_init(CURL_GLOBAL_SSL) != CURLE_OK) {
        log_fprint(orkad_log, "curl_global_init() failed!\n");
        exit(-1);
    }

    // Block the dispatch signals before any thread exists so every thread
    // inherits the mask and only the loop below receives them.
    signals_init();
    signals_register(SIGUSR1, log_debug, "log_debug");
    leak_check_init();

    utils_init();
    command_init();
    config_init();
    thread_init();
    db_init();

    // The boot environment's home site wins over the command line.
    if (!env_homesite.empty())
        home_site = env_homesite;

    http_init();
    listener_init();
    health_init();
    mgmtvpn_init();
    phone_home();
    auto_updates();
    set_system_init();
    logging_init();
    stats_init();
    diags_init();
    cap_init();
    status_init();
    send_refresh_config();

    thread_start("heartbeat", heartbeat, nullptr, nullptr, nullptr);
    thread_start("radio_monitor", radio_monitor, nullptr, nullptr, nullptr);
    signals_register(SIGUSR2, live_coredump, "live_coredump");
    signals_monitor();
    exit(0);
}

} // namespace

void help(const char *progname)
{
    printf(usage, progname);
}

// The sanitizer build must not turn the deliberate store into its own report.
__attribute__((no_sanitize("undefined"))) void exit_handler(int status, void *)
{
    dev_syslog(LOG_CRIT, "unexpected program termination with exit status %d, forcing a crash\n",
               status);
    log_fprint(orkad_log, "unexpected program termination with exit status %d, forcing a crash\n",
               status);
    // Leave a core file behind for every voluntary exit.
    *crash_address = 0;
}

void live_coredump(int)
{
    // The copy writes to the logs before it crashes: a lock another thread
    // held at the fork would stay held in the copy for ever, and this thread
    // would wait for the copy for ever.
    log_lock_all();
    pid_t pid = fork();
    log_unlock_all();
    if (pid < 0) {
        log_fprint(orkad_log, "Failed to take a live coredump (%s)", strerror(errno));
        return;
    }
    if (pid == 0)
        exit_handler(0, nullptr);
    waitpid(pid, nullptr, 0);
}

void radio_monitor(void *, void *, void *) {}

int supervise(void)
{
    watchdog_init();
    // SIGCHLD is taken by the watchdog's timed wait, never delivered.
    sigset_t chld, before;
    sigemptyset(&chld);
    sigaddset(&chld, SIGCHLD);
    sigprocmask(SIG_BLOCK, &chld, &before);
    for (;;) {
        watchdog_reset();
        pid_t pid = fork();
        if (pid < 0) {
            dev_syslog(LOG_CRIT, "Failed to create child process (%s)", strerror(errno));
            exit(51);
        }
        if (pid == 0) {
            sigprocmask(SIG_SETMASK, &before, nullptr);
            watchdog_child();
            return 0;
        }
        watchdog_ready();

        int status;
        if (watchdog_wait(pid, &status) < 0) {
            dev_syslog(LOG_CRIT, "Cannot get child process status (%s)", strerror(errno));
            exit(52);
        }
        if (WIFEXITED(status))
            dev_syslog(LOG_CRIT, " ****  Program exit (status %d)", WEXITSTATUS(status));
        else if (WIFSIGNALED(status))
            dev_syslog(LOG_CRIT, " ****  Program killed by signal '%d'", WTERMSIG(status));
        else if (WIFSTOPPED(status))
            dev_syslog(LOG_CRIT, " ****  Program stopped by signal '%d'", WSTOPSIG(status));
        else
            dev_syslog(LOG_CRIT, " ****  Unexpected program termination");
        // No back-off and no limit: the agent must come back whatever happened.
        dev_syslog(LOG_CRIT, " ****  Attempting to restart!");
        restarts++;
    }
}

int orkad_main(int argc, char **argv)
{
    devroot_init();
    dev_openlog("tq_agent", LOG_PID, LOG_USER);
    parse_options(argc, argv);
    factory_restore();
    platform_pre_init();
    supervise();
    child_main();
}
