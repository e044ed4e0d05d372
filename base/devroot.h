// Device-root mapping and the syslog sink.
//
// The daemon names files by their path on the switch ("/rw/orkad.log",
// "/sbin/fw_printenv", ...). When ORKAD_ROOT is set in the environment every
// such path lives under that folder instead, so the agent runs unchanged on an
// ordinary machine; /proc and /sys stay the kernel's. Syslog follows the same
// rule: with a root, lines go as datagrams to $ORKAD_ROOT/dev/log.
#pragma once

#include <cstddef>
#include <cstdio>

// The folder the device lives in, or "" when the daemon runs on the switch.
const char *devroot(void);

// Re-reads ORKAD_ROOT and, when set, puts the root's tool folders in front of
// PATH. Called once at process start; tests call it after changing the
// environment.
void devroot_init(void);

// Maps one device path into buf. Returns buf, or null if it does not fit.
// Relative paths, /proc, /sys and /dev/null are left as they are.
char *devroot_path(const char *path, char *buf, size_t size);

// Maps every absolute path inside a shell command line (words that begin with
// '/' after a blank, a redirection, a quote or '=' ) into buf. Returns buf, or
// null if the result does not fit.
char *devroot_command(const char *cmd, char *buf, size_t size);

// Thin wrappers that map their path argument.
FILE *dev_fopen(const char *path, const char *mode);
int dev_open(const char *path, int flags, int mode = 0);
int dev_access(const char *path, int how);
int dev_remove(const char *path);
int dev_rename(const char *from, const char *to);
int dev_truncate(const char *path, long length);

// Runs a shell command line through /bin/sh after mapping its paths; returns
// what system() returns.
int dev_system(const char *cmd);
// Like popen() for reading, with the command line mapped.
FILE *dev_popen(const char *cmd, const char *mode);

// Syslog through the device: identity and options as openlog().
void dev_openlog(const char *ident, int option, int facility);
void dev_syslog(int priority, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
