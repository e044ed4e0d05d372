// Entry point, supervision and the child's start-up.
#pragma once

#include <string>

constexpr char ORKAD_VERSION[] = "1.2.0";
// The vendor's phone-home site, used unless another is named.
constexpr char ORKAD_HOME_SITE[] = "https://phonehome.varnex.net";

// The phone-home site: the command line's, the boot environment's or the
// vendor's default.
extern std::string home_site;
extern int restarts;

int orkad_main(int argc, char **argv);
void help(const char *progname);

// Forks the working child and restarts it whenever it ends. Returns 0 in each
// new child; never returns in the supervisor.
int supervise(void);

void exit_handler(int status, void *arg);
void live_coredump(int sig);
void radio_monitor(void *p1, void *p2, void *p3);
