#include "db.h"

#include "devroot.h"
#include "log.h"
#include "utils.h"

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
int db_version = -1;

namespace
{

const char create_script[] = "/etc/varnex/config/sql/db-create-tables.sql";
const char migrate_script[] = "/etc/varnex/config/sql/db-migrate-tables-%d.sql";

struct sqlite_free_deleter {
    void operator()(char *p) const { sqlite3_free(p); }
};
using sqlite_text = std::unique_ptr<char, sqlite_free_deleter>;

int open_startup(sqlite3 **db)
{
    char path[1024];
    if (devroot_path(db_startup, path, sizeof(path)) == nullptr)
        return SQLITE_CANTOPEN;
    // Never create the file here: a missing file must go through the create
    // script so it gets the full schema.
    int rc = sqlite3_open_v2(path, db, SQLITE_OPEN_READWRITE, nullptr);
    if (rc != SQLITE_OK) {
        sqlite3_close(*db);
        *db = nullptr;
        return rc;
    }
    sqlite3_busy_timeout(*db, DB_BUSY_TIMEOUT_MS);
    // The settings hold secrets (the administrator password among them): a
    // file left readable by an older agent is closed to group and others. The
    // engine gives its journal the same mode as the file.
    struct stat st;
    if (stat(path, &st) == 0 && (st.st_mode & 077) != 0 && chmod(path, st.st_mode & 0700) != 0)
        log_fprint(orkad_log, "db_init: cannot restrict access to '%s' (%s)\n", db_startup,
                   strerror(errno));
    return rc;
}

void close_startup(void)
{
    sqlite3_close(db_main);
    db_main = nullptr;
}

void db_get_version(void)
{
    char *value = db_get("system", "value", "key='db.version'");
    if (value != nullptr) {
        db_version = (int)strtol(value, nullptr, 10);
        free(value);
    } else {
        log_fprint(orkad_log, "db_init: cannot get db.version\n");
    }
    log_fprint(orkad_log, "db_init: db version %d\n", db_version);
}

int db_get_callback(void *arg, int argc, char **argv, char **)
{
    auto *v = static_cast<db_values *>(arg);
    v->found += argc;
    for (int i = 0; i < argc && v->count < v->size; i++)
        v->values[v->count++] = strdup_with_error(argv[i], "db_get_callback: %s\n", nullptr);
    return 0;
}

void db_migrate(void)
{
    log_fprint(orkad_log, "db_init: migrating database from version %d to %d\n", db_version,
               DB_VERSION);

    if (db_version < 0) {
        // Without a version we cannot know what the file holds: start over.
        close_startup();
        dev_remove(db_startup);
        if (db_run_sql(create_script, "errors creating default database") != 0) {
            log_fprint(orkad_log, "db_migrate: critical error, cannot proceed.\n");
            exit(1);
        }
        if (open_startup(&db_main) != SQLITE_OK) {
            log_fprint(orkad_log, "db_migrate: cannot open '%s' database; cannot proceed\n",
                       db_startup);
            exit(1);
        }
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
                log_fprint(orkad_log, "db_migrate: errors migrating from version %d\n", from);
                exit(1);
            }
        }
    }

    if (open_startup(&db_main) != SQLITE_OK) {
        log_fprint(orkad_log, "db_migrate: cannot open '%s' database; cannot proceed\n",
                   db_startup);
        exit(1);
    }
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
        log_fprint(orkad_log, "%s: %s (error = %d)\n", "db_run_sql", logmsg, rc);
    return rc;
}

void db_init(void)
{
    if (open_startup(&db_main) != SQLITE_OK) {
        log_fprint(orkad_log, "db_init: cannot open '%s' database\n", db_startup);
        log_fprint(orkad_log, "db_init: attempting to start with a default database\n");
        if (db_run_sql(create_script, "errors creating default database") != 0) {
            log_fprint(orkad_log, "db_init: critical error, cannot proceed.\n");
            exit(1);
        }
        if (open_startup(&db_main) != SQLITE_OK) {
            log_fprint(orkad_log, "db_init: cannot open '%s' database; cannot proceed\n",
                       db_startup);
            exit(1);
        }
    }
    db_get_version();
    if (db_version >= DB_VERSION)
        return;
    db_migrate();
}

namespace
{

// Runs a finished statement; `shown` is what the log gets of it.
int run_command(const char *fmt, const char *sql, const char *shown)
{
    log_fprint(orkad_log, "%s: '%s'\n", "db_command", shown);

    char *errmsg = nullptr;
    sqlite3_exec(db_main, sql, nullptr, nullptr, &errmsg);
    if (errmsg != nullptr) {
        // Only the start of the format: the statement itself was logged above.
        log_fprint(orkad_log, "%s: '%.20s%s' failed with errmsg = '%s'\n", "db_command", fmt,
                   strlen(fmt) > 20 ? "..." : "", errmsg);
        sqlite3_free(errmsg);
        return -2;
    }
    return 0;
}

// The statement with the body of every string literal that holds exactly
// `secret` (as %q quotes it) replaced by the log's marker. Literals are
// found by their quotes, so the secret is hidden wherever it stands as a
// value and nothing else is touched.
std::string hide_secret(const char *sql, const char *secret)
{
    sqlite_text quoted(sqlite3_mprintf("%q", secret));
    std::string shown;
    const char *p = sql;
    while (*p != '\0') {
        if (*p != '\'') {
            shown += *p++;
            continue;
        }
        // A literal ends at a quote that is not doubled.
        const char *body = p + 1;
        const char *end = body;
        while (*end != '\0' && (*end != '\'' || end[1] == '\''))
            end += *end == '\'' ? 2 : 1;
        size_t n = (size_t)(end - body);
        shown += '\'';
        if (quoted && strlen(quoted.get()) == n && memcmp(body, quoted.get(), n) == 0)
            shown += LOG_SECRET_MARKER;
        else
            shown.append(body, n);
        if (*end == '\0')
            break;
        shown += '\'';
        p = end + 1;
    }
    return shown;
}

} // namespace

namespace
{

// Formats and runs one statement; with a secret, the log shows the statement
// with the secret hidden.
int command_v(const char *secret, const char *fmt, va_list ap)
{
    sqlite_text sql(sqlite3_vmprintf(fmt, ap));
    if (!sql) {
        log_fprint(orkad_log, "%s: Out of memory\n", "db_command");
        return -1;
    }
    if (secret == nullptr)
        return run_command(fmt, sql.get(), sql.get());
    return run_command(fmt, sql.get(), hide_secret(sql.get(), secret).c_str());
}

} // namespace

int db_command(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int rc = command_v(nullptr, fmt, ap);
    va_end(ap);
    return rc;
}

int db_command_secret(const char *secret, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int rc = command_v(secret, fmt, ap);
    va_end(ap);
    return rc;
}

int db_get_multiple(const char *cls, const char *properties, const char *qualifiers,
                    db_values *values)
{
    sqlite_text sql(sqlite3_mprintf("SELECT %s FROM %s %s %s", properties, cls,
                                    qualifiers ? "WHERE" : "", qualifiers ? qualifiers : ""));
    if (!sql) {
        log_fprint(orkad_log, "%s: out of memory!\n", "db_get_multiple");
        return 1;
    }
    char *errmsg = nullptr;
    sqlite3_exec(db_main, sql.get(), db_get_callback, values, &errmsg);
    if (errmsg != nullptr) {
        log_fprint(orkad_log, "db_get: '%s' failed, errmsg = '%s'\n", sql.get(), errmsg);
        sqlite3_free(errmsg);
        return 1;
    }
    return 0;
}

char *db_get(const char *cls, const char *properties, const char *qualifiers)
{
    char *slot = nullptr;
    db_values v = {1, 0, 0, &slot};
    db_get_multiple(cls, properties, qualifiers, &v);
    return slot;
}

void db_reset_values(db_values *values)
{
    values->count = 0;
    values->found = 0;
}

int db_create_table(const char *name, const char *fields)
{
    char sql[4096];
    snprintf(sql, sizeof(sql), "CREATE TABLE %s (%s)", name, fields);
    char *errmsg = nullptr;
    int rc = sqlite3_exec(db_main, sql, nullptr, nullptr, &errmsg);
    if (errmsg != nullptr) {
        log_fprint(orkad_log, "db_table_create: CREATE TABLE failed, errmsg = '%s'\n", errmsg);
        log_fprint(orkad_log, "db_table_create: table '%s' fields '%s'\n", name, fields);
        sqlite3_free(errmsg);
    }
    return rc;
}

bool db_begin(char **errmsg)
{
    log_fprint(orkad_log, "SQL BEGIN\n");
    return sqlite3_exec(db_main, "BEGIN", nullptr, nullptr, errmsg) == SQLITE_OK;
}

bool db_commit(char **errmsg)
{
    log_fprint(orkad_log, "SQL COMMIT\n");
    return sqlite3_exec(db_main, "COMMIT", nullptr, nullptr, errmsg) == SQLITE_OK;
}

bool db_rollback(char **errmsg)
{
    log_fprint(orkad_log, "SQL ROLLBACK\n");
    return sqlite3_exec(db_main, "ROLLBACK", nullptr, nullptr, errmsg) == SQLITE_OK;
}

void db_free(char *errmsg)
{
    sqlite3_free(errmsg);
}

// Copies one whole database over another with the online backup; the status
// is the destination's.
static int backup_copy(sqlite3 *db, const char *filename, bool to_file)
{
    char path[1024];
    if (devroot_path(filename, path, sizeof(path)) == nullptr)
        return SQLITE_CANTOPEN;
    sqlite3 *file = nullptr;
    int flags = to_file ? SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE : SQLITE_OPEN_READONLY;
    int rc = sqlite3_open_v2(path, &file, flags, nullptr);
    if (rc != SQLITE_OK) {
        sqlite3_close(file);
        return rc;
    }
    // The copy takes its lock on the file through this connection.
    sqlite3_busy_timeout(file, DB_BUSY_TIMEOUT_MS);
    sqlite3 *dst = to_file ? file : db;
    sqlite3 *src = to_file ? db : file;
    sqlite3_backup *backup = sqlite3_backup_init(dst, "main", src, "main");
    if (backup != nullptr) {
        sqlite3_backup_step(backup, -1);
        sqlite3_backup_finish(backup);
    }
    rc = sqlite3_errcode(dst);
    sqlite3_close(file);
    return rc;
}

int db_load(sqlite3 *db, const char *filename)
{
    return backup_copy(db, filename, false);
}

int db_save(sqlite3 *db, const char *filename)
{
    return backup_copy(db, filename, true);
}
