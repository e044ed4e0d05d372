// The settings database: one SQLite connection on the settings file, created
// and migrated at start-up by the device's sqlite3 shell, and a few thin
// operations over it. Nothing else in the agent touches SQLite.
#pragma once

#include <atomic>
#include <initializer_list>
#include <optional>
#include <sqlite3.h>
#include <string>
#include <vector>

// The schema this agent migrates the settings file to. A package one schema
// behind (the previous release's, for the upgrade test) is built with
// -DORKAD_DB_VERSION=8, which sets it for db.cpp alone.
#ifndef DB_VERSION
#define DB_VERSION 9
#endif

// How long a statement waits for a lock that another program holds on the
// settings file before it fails (every connection the agent opens waits so).
// The switch's own configuration tools and the diagnostics dump hold it for
// well under this; the heartbeat, whose every pulse reads the controller's
// address, is held up by at most this per statement, far less than the time
// after which a stalled heartbeat counts as stuck. docs/hardening.md.
constexpr int DB_BUSY_TIMEOUT_MS = 10000;

// Parameters of a statement: each ? of its text, in order, is bound to one
// of these as text (a null pointer binds SQL NULL). Values never become part
// of the SQL text, whatever they hold.
using db_params = std::initializer_list<const char *>;

// Result record of a multi-value read: the values kept, in order, at most
// `size` of them (nullopt for an SQL NULL).
struct db_values {
    size_t size = 1; // the most values kept
    int found = 0;   // columns the engine delivered, including those that did not fit
    std::vector<std::optional<std::string>> values;
};

extern sqlite3 *db_main;
extern const char *db_startup;
// The schema version read at start-up, -1 until then or when unreadable.
// Atomic because the status answer reads it from the listener thread.
extern std::atomic<int> db_version;

// Opens, creates or migrates the settings file; exits with status 1 when it
// cannot.
void db_init(void);

// Formats fmt with SQLite's own printf (%q, %Q, %w are available) and runs
// it. For statements whose text is the agent's own (schema work); a
// statement that carries values from anywhere else goes through db_write.
// 0 on success, -1 when the text could not be formatted, -2 when the engine
// refused it. Not marked as printf-like: the compiler does not know SQLite's
// conversions.
int db_command(const char *fmt, ...);

// Runs one statement with its ? bound to `params`. The log shows the
// statement with each parameter written in as a quoted literal, every one
// that equals `secret` (when given) as LOG_SECRET_MARKER. 0 on success, -2
// when the engine refused it.
int db_write(const char *sql, db_params params, const char *secret = nullptr);

// "SELECT columns FROM table [WHERE where]" with the ? of `where` bound to
// `params`: 0 on success (also with no rows), 1 on failure (logged): the
// number its callers have always tested for.
// `table`, `columns` and `where` are the agent's own text, never values.
int db_get_multiple(const char *table, const char *columns, const char *where, db_values *values,
                    db_params params = {});
// First column of the first row, whole; nullopt when there is no row, the
// value is NULL or the read fails.
std::optional<std::string> db_get(const char *table, const char *columns, const char *where,
                                  db_params params = {});
void db_reset_values(db_values *values);

// The engine's status code: SQLITE_OK (0), or the engine's code for the
// failure (logged).
int db_create_table(const char *name, const char *fields);

// One transaction on the settings connection: begun when made; rolled back
// when it goes out of scope unless commit() succeeded. The connection is
// shared: statements other threads run meanwhile join the transaction.
class db_transaction
{
  public:
    db_transaction();
    ~db_transaction();
    db_transaction(const db_transaction &) = delete;
    db_transaction &operator=(const db_transaction &) = delete;

    // BEGIN succeeded.
    bool ok() const { return begun_; }
    // true when COMMIT succeeded; otherwise the destructor rolls back.
    bool commit();
    // The engine's text for the last step that failed ("" when none did).
    const std::string &error() const { return error_; }

  private:
    bool begun_ = false;
    bool committed_ = false;
    std::string error_;
};

// Whole-database copies with the engine's online backup; both return the
// engine's status code.
int db_load(sqlite3 *db, const char *filename);
int db_save(sqlite3 *db, const char *filename);

// Runs a script on the settings file with the sqlite3 shell; returns what
// system() returns.
int db_run_sql(const char *sqlfile, const char *logmsg);
