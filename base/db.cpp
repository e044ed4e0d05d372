#include "db.h"

#include "devroot.h"
#include "log.h"
#include "raii.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <sys/stat.h>

// One connection for every thread. We take no lock of our own: the SQLite
// library is built serialised, so it does the locking for us. Other programs
// on the switch use the file too; while one of them holds it, a statement
// waits for it (DB_BUSY_TIMEOUT_MS) instead of failing.
sqlite3 *db_main;
const char *db_startup = "/etc/varnex/config/startup.db";
std::atomic<int> db_version{-1};

namespace
{

const char create_script[] = "/etc/varnex/config/sql/db-create-tables.sql";
const char migrate_script[] = "/etc/varnex/config/sql/db-migrate-tables-%d.sql";

int open_startup(sqlite3 **db)
{
    char path[1024];
    if (devroot_path(db_startup, path, sizeof(path)) == nullptr)
        return SQLITE_CANTOPEN;
    // Never create the file here: a missing file must go through the create
    // script so it gets the full schema.
    sqlite3 *opened = nullptr;
    int rc = sqlite3_open_v2(path, &opened, SQLITE_OPEN_READWRITE, nullptr);
    sqlite_ptr conn(opened);
    if (rc != SQLITE_OK)
        return rc;
    sqlite3_busy_timeout(conn.get(), DB_BUSY_TIMEOUT_MS);
    // The settings hold secrets (the administrator password among them): a
    // file left readable by an older agent is closed to group and others. The
    // engine gives its journal the same mode as the file.
    struct stat st;
    if (stat(path, &st) == 0 && (st.st_mode & 077) != 0 && chmod(path, st.st_mode & 0700) != 0)
        log_fprint(orkad_log, "%s: cannot restrict access to '%s' (%s)\n", __func__, db_startup,
                   strerror(errno));
    *db = conn.release();
    return rc;
}

void close_startup(void)
{
    sqlite3_close(db_main);
    db_main = nullptr;
}

// The version lines say db_init, whoever reads the version: operators know
// them by that name.
void db_get_version(void)
{
    std::optional<std::string> value = db_get("system", "value", "key=?", {"db.version"});
    if (value)
        db_version = (int)strtol(value->c_str(), nullptr, 10);
    else
        log_fprint(orkad_log, "db_init: cannot get db.version\n");
    log_fprint(orkad_log, "db_init: db version %d\n", db_version.load());
}

// Opens the settings file again after the shell worked on it; the agent
// cannot go on without it.
void reopen_or_exit(const char *who)
{
    if (open_startup(&db_main) != SQLITE_OK) {
        log_fprint(orkad_log, "%s: cannot open '%s' database; cannot proceed\n", who, db_startup);
        exit(1);
    }
}

// Makes a fresh settings file with the create script and opens it.
void create_or_exit(const char *who)
{
    if (db_run_sql(create_script, "errors creating default database") != 0) {
        log_fprint(orkad_log, "%s: critical error, cannot proceed.\n", who);
        exit(1);
    }
    reopen_or_exit(who);
}

void db_migrate(void)
{
    log_fprint(orkad_log, "db_init: migrating database from version %d to %d\n", db_version.load(),
               DB_VERSION);

    if (db_version < 0) {
        // Without a version we cannot know what the file holds: start over.
        close_startup();
        dev_remove(db_startup);
        create_or_exit(__func__);
        db_get_version();
    }

    // The shell works on the file while we hold no connection to it.
    close_startup();

    int from = db_version;
    if (from >= 1 && from < DB_VERSION) {
        for (int n = from + 1; n <= DB_VERSION; n++) {
            char script[256];
            snprintf(script, sizeof(script), migrate_script, n);
            if (db_run_sql(script, "errors migrating database") != 0) {
                log_fprint(orkad_log, "%s: errors migrating from version %d\n", __func__, from);
                exit(1);
            }
        }
    }

    reopen_or_exit(__func__);
    db_get_version();
}

} // namespace

int db_run_sql(const char *sqlfile, const char *logmsg)
{
    char cmd[256];
    snprintf(cmd, sizeof(cmd), "/bin/sqlite3 %s < %s > %s.out", db_startup, sqlfile, sqlfile);
    // Whatever the shell creates (the database above all) is for the agent
    // alone. Only start-up runs scripts, before anything else creates files.
    mode_t mask = umask(077);
    int rc = dev_system(cmd);
    umask(mask);
    if (rc != 0)
        log_fprint(orkad_log, "%s: %s (error = %d)\n", __func__, logmsg, rc);
    return rc;
}

void db_init(void)
{
    if (open_startup(&db_main) != SQLITE_OK) {
        log_fprint(orkad_log, "%s: cannot open '%s' database\n", __func__, db_startup);
        log_fprint(orkad_log, "%s: attempting to start with a default database\n", __func__);
        create_or_exit(__func__);
    }
    db_get_version();
    if (db_version >= DB_VERSION)
        return;
    db_migrate();
}

namespace
{

// Holds the settings connection for one statement, so that the error text
// read after a failure is the one of that statement and not of another
// thread's.
class connection_hold
{
  public:
    // Without a connection (none opened yet) there is nothing to hold, and
    // the statement fails as the engine's misuse.
    connection_hold() : mutex_(db_main != nullptr ? sqlite3_db_mutex(db_main) : nullptr)
    {
        sqlite3_mutex_enter(mutex_);
    }
    ~connection_hold() { sqlite3_mutex_leave(mutex_); }
    connection_hold(const connection_hold &) = delete;
    connection_hold &operator=(const connection_hold &) = delete;

  private:
    sqlite3_mutex *mutex_;
};

// The text as the SQL literal that holds it, as %q writes it.
std::string literal(const char *text)
{
    if (text == nullptr)
        return "NULL";
    std::string out = "'";
    for (const char *p = text; *p != '\0'; p++) {
        if (*p == '\'')
            out += '\'';
        out += *p;
    }
    return out + "'";
}

// What the log shows of a statement: every ? written in as the literal of
// its parameter, a parameter equal to `secret` as the marker.
std::string shown(const char *sql, db_params params, const char *secret)
{
    std::string out;
    auto param = params.begin();
    bool quoted = false;
    for (const char *p = sql; *p != '\0'; p++) {
        if (*p == '\'')
            quoted = !quoted;
        if (*p != '?' || quoted || param == params.end()) {
            out += *p;
            continue;
        }
        const char *value = *param++;
        if (secret != nullptr && value != nullptr && strcmp(value, secret) == 0)
            out += std::string("'") + LOG_SECRET_MARKER + "'";
        else
            out += literal(value);
    }
    return out;
}

// Prepares sql on the settings connection and binds its parameters; null
// (and the engine's error text in `error`) when either fails. The caller
// holds the connection.
sqlite_stmt_ptr prepare(const char *sql, db_params params, std::string &error)
{
    sqlite3_stmt *raw = nullptr;
    int rc = sqlite3_prepare_v2(db_main, sql, -1, &raw, nullptr);
    sqlite_stmt_ptr stmt(raw);
    if (rc == SQLITE_OK && !stmt) // no statement in the text at all
        rc = SQLITE_MISUSE;
    int i = 1;
    for (auto p = params.begin(); rc == SQLITE_OK && p != params.end(); ++p, ++i)
        rc = sqlite3_bind_text(stmt.get(), i, *p, -1, SQLITE_STATIC);
    if (rc != SQLITE_OK) {
        error = sqlite3_errmsg(db_main);
        return nullptr;
    }
    return stmt;
}

// Says db_command for db_write too: operators know every write's lines by
// that name.
void log_command_failure(const char *fmt, const char *error)
{
    // Only the start of the statement's form: the statement itself has
    // been logged in full already.
    log_fprint(orkad_log, "%s: '%.20s%s' failed with errmsg = '%s'\n", "db_command", fmt,
               strlen(fmt) > 20 ? "..." : "", error);
}

} // namespace

int db_command(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    sqlite_text sql(sqlite3_vmprintf(fmt, ap));
    va_end(ap);
    if (!sql) {
        log_fprint(orkad_log, "%s: Out of memory\n", __func__);
        return -1;
    }
    log_fprint(orkad_log, "%s: '%s'\n", __func__, sql.get());
    char *raw = nullptr;
    sqlite3_exec(db_main, sql.get(), nullptr, nullptr, &raw);
    sqlite_text errmsg(raw);
    if (errmsg) {
        log_command_failure(fmt, errmsg.get());
        return -2;
    }
    return 0;
}

int db_write(const char *sql, db_params params, const char *secret)
{
    // Logged as db_command logs its statements: one name for every write.
    log_fprint(orkad_log, "%s: '%s'\n", "db_command", shown(sql, params, secret).c_str());
    std::string error;
    {
        connection_hold hold;
        sqlite_stmt_ptr stmt = prepare(sql, params, error);
        if (stmt) {
            int rc;
            while ((rc = sqlite3_step(stmt.get())) == SQLITE_ROW)
                ;
            if (rc != SQLITE_DONE)
                error = sqlite3_errmsg(db_main);
            else
                return 0;
        }
    }
    log_command_failure(sql, error.c_str());
    return -2;
}

int db_get_multiple(const char *table, const char *columns, const char *where, db_values *values,
                    db_params params)
{
    std::string sql = std::string("SELECT ") + columns + " FROM " + table + " " +
                      (where ? "WHERE" : "") + " " + (where ? where : "");
    std::string error;
    {
        connection_hold hold;
        sqlite_stmt_ptr stmt = prepare(sql.c_str(), params, error);
        if (stmt) {
            int rc;
            while ((rc = sqlite3_step(stmt.get())) == SQLITE_ROW) {
                int n = sqlite3_column_count(stmt.get());
                values->found += n;
                for (int i = 0; i < n && values->values.size() < values->size; i++) {
                    auto text = (const char *)sqlite3_column_text(stmt.get(), i);
                    if (text == nullptr)
                        values->values.emplace_back(std::nullopt);
                    else
                        values->values.emplace_back(
                            std::string(text, (size_t)sqlite3_column_bytes(stmt.get(), i)));
                }
            }
            if (rc == SQLITE_DONE)
                return 0;
            error = sqlite3_errmsg(db_main);
        }
    }
    // Operators know a failed read by db_get's name.
    log_fprint(orkad_log, "db_get: '%s' failed, errmsg = '%s'\n",
               shown(sql.c_str(), params, nullptr).c_str(), error.c_str());
    return 1;
}

std::optional<std::string> db_get(const char *table, const char *columns, const char *where,
                                  db_params params)
{
    db_values v;
    if (db_get_multiple(table, columns, where, &v, params) != 0 || v.values.empty())
        return std::nullopt;
    return v.values.front();
}

void db_reset_values(db_values *values)
{
    values->values.clear();
    values->found = 0;
}

int db_create_table(const char *name, const char *fields)
{
    char sql[4096];
    snprintf(sql, sizeof(sql), "CREATE TABLE %s (%s)", name, fields);
    char *raw = nullptr;
    int rc = sqlite3_exec(db_main, sql, nullptr, nullptr, &raw);
    sqlite_text errmsg(raw);
    if (errmsg) {
        log_fprint(orkad_log, "db_table_create: CREATE TABLE failed, errmsg = '%s'\n",
                   errmsg.get());
        log_fprint(orkad_log, "db_table_create: table '%s' fields '%s'\n", name, fields);
    }
    return rc;
}

namespace
{

// Runs one transaction statement; false, with the engine's text in `error`,
// when it fails.
bool transaction_step(const char *sql, std::string &error)
{
    log_fprint(orkad_log, "SQL %s\n", sql);
    char *raw = nullptr;
    int rc = sqlite3_exec(db_main, sql, nullptr, nullptr, &raw);
    sqlite_text errmsg(raw);
    if (rc == SQLITE_OK)
        return true;
    error = errmsg ? errmsg.get() : sqlite3_errstr(rc);
    return false;
}

} // namespace

db_transaction::db_transaction()
{
    begun_ = transaction_step("BEGIN", error_);
}

bool db_transaction::commit()
{
    if (!begun_ || committed_)
        return committed_;
    committed_ = transaction_step("COMMIT", error_);
    return committed_;
}

db_transaction::~db_transaction()
{
    // A transaction this guard did not begin (BEGIN failed) is not ours to
    // end.
    if (begun_ && !committed_)
        transaction_step("ROLLBACK", error_);
}

// Copies one whole database over another with the online backup; the status
// is the destination's.
static int backup_copy(sqlite3 *db, const char *filename, bool to_file)
{
    char path[1024];
    if (devroot_path(filename, path, sizeof(path)) == nullptr)
        return SQLITE_CANTOPEN;
    sqlite3 *opened = nullptr;
    int flags = to_file ? SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE : SQLITE_OPEN_READONLY;
    int rc = sqlite3_open_v2(path, &opened, flags, nullptr);
    sqlite_ptr file(opened);
    if (rc != SQLITE_OK)
        return rc;
    // The copy takes its lock on the file through this connection.
    sqlite3_busy_timeout(file.get(), DB_BUSY_TIMEOUT_MS);
    sqlite3 *dst = to_file ? file.get() : db;
    sqlite3 *src = to_file ? db : file.get();
    {
        sqlite_backup_ptr backup(sqlite3_backup_init(dst, "main", src, "main"));
        if (backup)
            sqlite3_backup_step(backup.get(), -1);
    }
    // Finishing the copy sets the destination's error code.
    return sqlite3_errcode(dst);
}

int db_load(sqlite3 *db, const char *filename)
{
    return backup_copy(db, filename, false);
}

int db_save(sqlite3 *db, const char *filename)
{
    return backup_copy(db, filename, true);
}
