// Phone-home: learn which cloud controller this device belongs to from the
// vendor's phone-home site (or from the boot environment).
#pragma once

#include <atomic>
#include <sys/time.h>

extern int phone_home_interval;
// Written by the background loop on a worker, watched from other threads.
extern std::atomic<bool> phone_home_done;
extern std::atomic<int> phone_home_count;
extern char ip_addr[16];

// Every wait of this module goes through here, and so does the clock;
// tests point them elsewhere.
extern unsigned int (*phone_home_sleep)(unsigned int seconds);
extern int (*phone_home_settimeofday)(const struct timeval *tv, const struct timezone *tz);

void phone_home(void);
void do_phone_home(void *p1, void *p2, void *p3);
void phone_home_call(void);
