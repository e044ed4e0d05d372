#include "debug.h"

#include <cstdarg>
#include <cstdio>
#include <sys/time.h>

int debug;

void debug_print(int force, const char *fmt, ...)
{
    if (!debug && !force)
        return;
    va_list ap;
    va_start(ap, fmt);
    vprintf(fmt, ap);
    va_end(ap);
}

void xxdebug_print_with_time(int force, const char *fmt, ...)
{
    if (!debug && !force)
        return;
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    printf("%lld.%06ld ", (long long)tv.tv_sec, (long)tv.tv_usec); // no 2038 wrap on 32 bits
    va_list ap;
    va_start(ap, fmt);
    vprintf(fmt, ap);
    va_end(ap);
}
