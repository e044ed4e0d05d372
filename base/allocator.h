#pragma once

#include <string>

// The C library's per-thread cache of freed blocks keeps up to seven blocks
// of every size to 1 KiB in each of the daemon's threads; they count as in
// use and are never handed back while the thread lives, so over hours they
// lift the child's private memory by the better part of a MiB. The daemon
// turns that cache off. The setting is a loader tunable, read only when the
// program starts, so the daemon runs itself again once with it set.

// The name of the tunable and the setting the daemon asks for.
extern const char ALLOCATOR_TUNABLE[];
extern const char ALLOCATOR_SETTING[];

// The tunables the daemon runs with, given the environment's (nullptr when
// there are none): the environment's with the cache turned off added, or
// "" when the environment already chooses the cache's size (the operator's
// choice is kept).
std::string allocator_tunables(const char *current);

// At the start of main: when the allocator is not tuned yet, set the
// tunables and run this program again with the same arguments (nothing is
// open yet). In the program run again, put the environment back as it was,
// so the scripts and programs the daemon starts do not inherit the setting.
// When running itself again fails, the daemon goes on untuned.
void allocator_tune(char **argv);
