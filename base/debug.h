// Console printers for interactive debugging (the "-d" option).
#pragma once

extern int debug;

void debug_print(int force, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
void xxdebug_print_with_time(int force, const char *fmt, ...)
    __attribute__((format(printf, 2, 3)));
