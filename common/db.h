// The settings database: one SQLite connection on the settings file, created
// and migrated at start-up by the device's sqlite3 shell, and a few thin
// operations over it. Nothing else in the agent touches SQLite.
#pragma once

#include <sqlite3.h>

#define DB_VERSION 9

// How long a statement waits for a lock that another program holds on the
// settings file before it fails (every connection the agent opens waits so).
// The switch's own configuration tools and the diagnostics dump hold it for
// well under this; the heartbeat, whose every pulse reads the controller's
// address, is held up by at most this per statement, far less than the time
// after which a stalled heartbeat counts as stuck. docs/hardening.md.
#define DB_BUSY_TIMEOUT_MS 10000

// Result record of a multi-value read. The caller provides `values` with
// `size` slots; each filled slot is a heap copy (or null for an SQL NULL) that
// the caller frees.
typedef struct db_values {
    int size;      // slots in values
    int count;     // slots filled so far
    int found;     // columns the engine delivered, including those that did not fit
    char **values; // caller's slots
} db_values;

extern sqlite3 *db_main;
extern const char *db_startup;
extern int db_version;

// Opens, creates or migrates the settings file; exits with status 1 when it
// cannot.
void db_init(void);

// Formats fmt with SQLite's own printf (%q, %Q, %w are available) and runs
// it. 0 on success, -1 when the text could not be formatted, -2 when the
// engine refused it. Not marked as printf-like: the compiler does not know
// SQLite's conversions.
int db_command(const char *fmt, ...);
// db_command for a statement that carries a secret: the log shows every
// string literal that holds exactly `secret` as LOG_SECRET_MARKER; the engine
// gets the statement as formatted.
int db_command_secret(const char *secret, const char *fmt, ...);

// First column of the first row, as a heap copy the caller frees; null when
// there is no row, the value is NULL or the read fails.
char *db_get(const char *cls, const char *properties, const char *qualifiers);
// 0 on success (also with no rows), 1 on failure.
int db_get_multiple(const char *cls, const char *properties, const char *qualifiers,
                    db_values *values);
void db_reset_values(db_values *values);

int db_create_table(const char *name, const char *fields);

bool db_begin(char **errmsg);
bool db_commit(char **errmsg);
bool db_rollback(char **errmsg);
void db_free(char *errmsg);

// Whole-database copies with the engine's online backup; both return the
// engine's status code.
int db_load(sqlite3 *db, const char *filename);
int db_save(sqlite3 *db, const char *filename);

// Runs a script on the settings file with the sqlite3 shell; returns what
// system() returns.
int db_run_sql(const char *sqlfile, const char *logmsg);
