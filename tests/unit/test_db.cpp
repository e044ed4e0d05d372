#include "db.h"
#include "log.h"
#include "testkit.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

using namespace testkit;

namespace
{

const char startup[] = "/etc/varnex/config/startup.db";
const char sqldir[] = "/etc/varnex/config/sql";

// Runs SQL on a file through a connection of the test's own.
std::vector<std::vector<std::string>> query(const std::string &file, const std::string &sql)
{
    std::vector<std::vector<std::string>> rows;
    sqlite3 *db = nullptr;
    if (sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) !=
        SQLITE_OK) {
        sqlite3_close(db);
        ADD_FAILURE() << "cannot open " << file;
        return rows;
    }
    char *err = nullptr;
    sqlite3_exec(
        db, sql.c_str(),
        [](void *arg, int argc, char **argv, char **) {
            auto *out = static_cast<std::vector<std::vector<std::string>> *>(arg);
            std::vector<std::string> row;
            for (int i = 0; i < argc; i++)
                row.push_back(argv[i] ? argv[i] : "<null>");
            out->push_back(row);
            return 0;
        },
        &rows, &err);
    if (err != nullptr) {
        ADD_FAILURE() << sql << ": " << err;
        sqlite3_free(err);
    }
    sqlite3_close(db);
    return rows;
}

std::string value_of(const std::string &file, const std::string &key)
{
    auto rows = query(file, "SELECT value FROM system WHERE key='" + key + "'");
    return rows.empty() ? "<none>" : rows[0][0];
}

// Everything that describes a schema: objects, their SQL, and for tables the
// columns as the engine sees them.
std::vector<std::string> schema_of(const std::string &file)
{
    std::vector<std::string> out;
    for (auto &r : query(file, "SELECT type, name, tbl_name, sql FROM sqlite_master "
                               "ORDER BY type, name")) {
        out.push_back(r[0] + " " + r[1] + " " + r[2] + " " + r[3]);
        if (r[0] == "table")
            for (auto &c : query(file, "PRAGMA table_info('" + r[1] + "')"))
                out.push_back("  " + c[1] + " " + c[2] + " " + c[3] + " " + c[4] + " " + c[5]);
    }
    return out;
}

class DbTest : public DeviceTest
{
  protected:
    std::string file() const { return root.at(startup); }
    std::string script(const std::string &name) const
    {
        return root.at(std::string(sqldir) + "/" + name);
    }
    std::string migration(int n) const
    {
        return script("db-migrate-tables-" + std::to_string(n) + ".sql");
    }

    // A database at schema version n, made the way the device made it: the
    // version-1 table, then every shipped migration up to n, through the shell.
    void make_version(int n)
    {
        query(file(), "CREATE TABLE system (key TEXT UNIQUE, value TEXT);"
                      "INSERT INTO system (key, value) VALUES ('db.version', '1');");
        for (int i = 2; i <= n; i++) {
            std::string cmd = "sqlite3 " + file() + " < " + migration(i) + " > /dev/null";
            ASSERT_EQ(system(cmd.c_str()), 0) << i;
        }
        ASSERT_EQ(value_of(file(), "db.version"), std::to_string(n));
    }

    // Makes every script the shell runs note its name in order in tmp/runs.
    void trace_scripts()
    {
        std::string runs = root.at("/tmp/runs");
        auto mark = [&](const std::string &path, const std::string &name) {
            std::string text = read_file(path);
            ASSERT_FALSE(text.empty()) << path;
            write_file(path, ".system echo " + name + " >> " + runs + "\n" + text);
        };
        mark(script("db-create-tables.sql"), "create");
        for (int i = 2; i <= 9; i++)
            mark(migration(i), std::to_string(i));
    }

    std::vector<std::string> runs() const { return lines_of(read_file(root.at("/tmp/runs"))); }

    std::vector<std::string> log() const { return log_messages(root.at("/rw/orkad.log")); }

    // The log lines after the banner.
    std::vector<std::string> messages() const
    {
        auto all = log();
        if (!all.empty())
            all.erase(all.begin());
        return all;
    }

    bool logged(const std::string &line) const
    {
        auto all = log();
        return std::find(all.begin(), all.end(), line) != all.end();
    }
};

} // namespace

TEST(DbEngine, LibraryIsSerialised)
{
    // One connection is shared by every thread without a lock of ours.
    EXPECT_EQ(sqlite3_threadsafe(), 1);
}

TEST_F(DbTest, StartsUnknown)
{
    EXPECT_EQ(db_version, -1);
    EXPECT_EQ(db_main, nullptr);
    EXPECT_STREQ(db_startup, "/etc/varnex/config/startup.db");
}

TEST_F(DbTest, MissingFileIsCreatedFromTheCreateScript)
{
    trace_scripts();
    ASSERT_FALSE(file_exists(file()));
    db_init();
    EXPECT_EQ(messages(), (std::vector<std::string>{
                              "db_init: cannot open '/etc/varnex/config/startup.db' database",
                              "db_init: attempting to start with a default database",
                              "db_init: db version 9",
                          }));
    EXPECT_EQ(runs(), std::vector<std::string>{"create"});
    EXPECT_EQ(db_version, 9);
    ASSERT_NE(db_main, nullptr);
    EXPECT_EQ(value_of(file(), "db.version"), "9");
    // The shell's output for a script lands beside the script.
    EXPECT_TRUE(file_exists(script("db-create-tables.sql.out")));
}

namespace
{
mode_t mode_of(const std::string &path)
{
    struct stat st;
    if (stat(path.c_str(), &st) != 0)
        return (mode_t)-1;
    return st.st_mode & 0777;
}
} // namespace

TEST_F(DbTest, CreatedDatabaseAndItsJournalAreForTheAgentAlone)
{
    mode_t old = umask(022);
    db_init();
    // The process mask is as it was.
    EXPECT_EQ(umask(old), 022);
    ASSERT_EQ(db_version, 9);
    EXPECT_EQ(mode_of(file()), 0600);
    // The journal of a write in progress gets the same mode.
    umask(022);
    {
        db_transaction txn;
        ASSERT_TRUE(txn.ok());
        ASSERT_EQ(db_write("REPLACE INTO system (key, value) VALUES (?, ?)",
                           {"system.password", "s"}, "s"),
                  0);
        EXPECT_EQ(mode_of(file() + "-journal"), 0600);
        EXPECT_TRUE(txn.commit());
    }
    umask(old);
}

TEST_F(DbTest, DatabaseLeftReadableByOthersIsClosedToThem)
{
    query(file(), "CREATE TABLE system (key TEXT UNIQUE, value TEXT);"
                  "INSERT INTO system VALUES ('db.version', '9'), ('system.password', 'p');");
    ASSERT_EQ(chmod(file().c_str(), 0644), 0);
    db_init();
    EXPECT_EQ(messages(), std::vector<std::string>{"db_init: db version 9"});
    EXPECT_EQ(mode_of(file()), 0600);
}

TEST_F(DbTest, CreateScriptWithoutVersionRowRunsTwice)
{
    std::string runs_file = root.at("/tmp/runs");
    write_file(script("db-create-tables.sql"),
               ".system echo create >> " + runs_file +
                   "\nCREATE TABLE system (key TEXT UNIQUE, value TEXT);\n");
    db_init();
    EXPECT_EQ(runs(), (std::vector<std::string>{"create", "create"}));
    EXPECT_EQ(messages(), (std::vector<std::string>{
                              "db_init: cannot open '/etc/varnex/config/startup.db' database",
                              "db_init: attempting to start with a default database",
                              "db_init: cannot get db.version",
                              "db_init: db version -1",
                              "db_init: migrating database from version -1 to 9",
                              "db_init: cannot get db.version",
                              "db_init: db version -1",
                              "db_init: cannot get db.version",
                              "db_init: db version -1",
                          }));
    EXPECT_EQ(db_version, -1);
    EXPECT_NE(db_main, nullptr);
}

TEST_F(DbTest, CurrentVersionRunsNoScript)
{
    query(file(), "CREATE TABLE system (key TEXT UNIQUE, value TEXT);"
                  "INSERT INTO system VALUES ('db.version', '9'), ('system.x', 'kept');");
    trace_scripts();
    db_init();
    EXPECT_EQ(messages(), std::vector<std::string>{"db_init: db version 9"});
    EXPECT_TRUE(runs().empty());
    EXPECT_EQ(db_get("system", "value", "key=?", {"system.x"}), "kept");
}

TEST_F(DbTest, NewerVersionIsLeftAlone)
{
    query(file(), "CREATE TABLE system (key TEXT UNIQUE, value TEXT);"
                  "INSERT INTO system VALUES ('db.version', '12abc');");
    trace_scripts();
    db_init();
    EXPECT_EQ(db_version, 12); // leading digits only
    EXPECT_TRUE(runs().empty());
}

TEST_F(DbTest, VersionThreeRunsFourToNineInOrder)
{
    make_version(3);
    query(file(), "INSERT INTO system VALUES ('system.cloud-controller', 'https://c.example')");
    trace_scripts();
    db_init();
    EXPECT_EQ(runs(), (std::vector<std::string>{"4", "5", "6", "7", "8", "9"}));
    EXPECT_EQ(messages(), (std::vector<std::string>{
                              "db_init: db version 3",
                              "db_init: migrating database from version 3 to 9",
                              "db_init: db version 9",
                          }));
    EXPECT_EQ(db_version, 9);
    EXPECT_EQ(value_of(file(), "system.cloud-controller"), "https://c.example");
}

TEST_F(DbTest, VersionZeroRunsNothingAndReopens)
{
    query(file(), "CREATE TABLE system (key TEXT UNIQUE, value TEXT);"
                  "INSERT INTO system VALUES ('db.version', '0');");
    trace_scripts();
    db_init();
    EXPECT_TRUE(runs().empty());
    EXPECT_EQ(messages(), (std::vector<std::string>{
                              "db_init: db version 0",
                              "db_init: migrating database from version 0 to 9",
                              "db_init: db version 0",
                          }));
    EXPECT_EQ(db_version, 0);
    // Reopened: the connection works.
    EXPECT_EQ(db_command("REPLACE INTO system (key, value) VALUES ('a.b', 'c')"), 0);
    EXPECT_EQ(value_of(file(), "a.b"), "c");
}

TEST_F(DbTest, MissingVersionRowRecreatesTheFile)
{
    query(file(), "CREATE TABLE system (key TEXT UNIQUE, value TEXT);"
                  "INSERT INTO system VALUES ('system.cloud-controller', 'https://lost')");
    trace_scripts();
    db_init();
    EXPECT_EQ(runs(), std::vector<std::string>{"create"});
    EXPECT_EQ(messages(), (std::vector<std::string>{
                              "db_init: cannot get db.version",
                              "db_init: db version -1",
                              "db_init: migrating database from version -1 to 9",
                              "db_init: db version 9",
                              "db_init: db version 9",
                          }));
    EXPECT_EQ(db_version, 9);
    // Every setting went with the old file.
    EXPECT_EQ(value_of(file(), "system.cloud-controller"), "<none>");
}

TEST_F(DbTest, FileThatIsNoDatabaseIsRecreated)
{
    write_file(file(), "this is not a database, just some text long enough to be a header\n");
    db_init();
    EXPECT_TRUE(logged("db_get: 'SELECT value FROM system WHERE key='db.version'' failed, "
                       "errmsg = 'file is not a database'"));
    EXPECT_TRUE(logged("db_init: migrating database from version -1 to 9"));
    EXPECT_EQ(db_version, 9);
    EXPECT_EQ(value_of(file(), "db.version"), "9");
}

class DbMigrationTest : public DbTest, public ::testing::WithParamInterface<int>
{
};

TEST_P(DbMigrationTest, EndsWithTheSchemaOfAFreshDatabase)
{
    int from = GetParam();
    make_version(from);
    query(file(), "INSERT INTO system VALUES ('system.password', 'it''s mine')");
    trace_scripts();
    db_init();

    std::vector<std::string> expected;
    for (int i = from + 1; i <= 9; i++)
        expected.push_back(std::to_string(i));
    EXPECT_EQ(runs(), expected);
    EXPECT_TRUE(
        logged("db_init: migrating database from version " + std::to_string(from) + " to 9"));
    EXPECT_EQ(db_version, 9);
    EXPECT_EQ(value_of(file(), "db.version"), "9");
    EXPECT_EQ(value_of(file(), "system.password"), "it's mine");
    for (int i = 2; i <= 9; i++)
        EXPECT_EQ(file_exists(migration(i) + ".out"), i > from) << i;

    std::string fresh = root.at("/tmp/fresh.db");
    std::string cmd = "sqlite3 " + fresh + " < " + script("db-create-tables.sql") + " > /dev/null";
    ASSERT_EQ(system(cmd.c_str()), 0);
    auto want = schema_of(fresh);
    EXPECT_GT(want.size(), 5u);
    EXPECT_EQ(schema_of(file()), want);
}

INSTANTIATE_TEST_SUITE_P(FromEveryVersion, DbMigrationTest, ::testing::Range(1, 9));

TEST_F(DbTest, FailingScriptExitsWithTheStartingVersion)
{
    make_version(3);
    write_file(migration(6), ".bail on\nSELECT * FROM no_such_table;\n");
    trace_scripts();
    // In the daemon the child's on_exit handler turns this exit into a crash;
    // no handler is registered here, so the status itself is seen.
    EXPECT_EXIT(db_init(), ::testing::ExitedWithCode(1), "");
    EXPECT_EQ(runs(), (std::vector<std::string>{"4", "5", "6"}));
    EXPECT_EQ(messages(), (std::vector<std::string>{
                              "db_init: db version 3",
                              "db_init: migrating database from version 3 to 9",
                              "db_run_sql: errors migrating database (error = 256)",
                              "db_migrate: errors migrating from version 3",
                          }));
    // What ran before the failure stays.
    EXPECT_EQ(value_of(file(), "db.version"), "5");
}

TEST_F(DbTest, FailingCreateScriptExits)
{
    write_file(script("db-create-tables.sql"), ".bail on\nCREATE TABLE broken (;\n");
    EXPECT_EXIT(db_init(), ::testing::ExitedWithCode(1), "");
    EXPECT_EQ(messages(), (std::vector<std::string>{
                              "db_init: cannot open '/etc/varnex/config/startup.db' database",
                              "db_init: attempting to start with a default database",
                              "db_run_sql: errors creating default database (error = 256)",
                              "db_init: critical error, cannot proceed.",
                          }));
}

TEST_F(DbTest, FailingRecreateAfterLostVersionExits)
{
    query(file(), "CREATE TABLE system (key TEXT UNIQUE, value TEXT);");
    write_file(script("db-create-tables.sql"), ".bail on\nCREATE TABLE broken (;\n");
    EXPECT_EXIT(db_init(), ::testing::ExitedWithCode(1), "");
    EXPECT_EQ(messages(), (std::vector<std::string>{
                              "db_init: cannot get db.version",
                              "db_init: db version -1",
                              "db_init: migrating database from version -1 to 9",
                              "db_run_sql: errors creating default database (error = 256)",
                              "db_migrate: critical error, cannot proceed.",
                          }));
    // The old file was deleted before the script ran on a new one.
    EXPECT_TRUE(query(file(), "SELECT name FROM sqlite_master WHERE name='system'").empty());
}

TEST_F(DbTest, CreateScriptThatMakesNoFileExits)
{
    // The script succeeds but leaves no file behind.
    write_file(script("db-create-tables.sql"),
               "CREATE TABLE x (y);\n.system rm -f " + file() + "\n");
    EXPECT_EXIT(db_init(), ::testing::ExitedWithCode(1), "");
    EXPECT_EQ(messages().back(),
              "db_init: cannot open '/etc/varnex/config/startup.db' database; cannot proceed");
}

TEST_F(DbTest, RunSqlUsesTheShellAndKeepsItsOutput)
{
    write_file(root.at("/tmp/hello.sql"), "SELECT 'hello';\n");
    EXPECT_EQ(db_run_sql("/tmp/hello.sql", "unused"), 0);
    EXPECT_EQ(read_file(root.at("/tmp/hello.sql.out")), "hello\n");
    // The shell created the settings file it was pointed at.
    EXPECT_TRUE(file_exists(file()));
    EXPECT_EQ(messages(), std::vector<std::string>{});

    write_file(root.at("/tmp/bad.sql"), "SELECT * FROM nowhere;\n");
    EXPECT_EQ(db_run_sql("/tmp/bad.sql", "errors in the test"), 256);
    EXPECT_EQ(messages(), std::vector<std::string>{"db_run_sql: errors in the test (error = 256)"});
}

class DbOpenTest : public DbTest
{
  protected:
    void SetUp() override
    {
        DbTest::SetUp();
        db_init();
        ASSERT_EQ(db_version, 9);
    }
    std::vector<std::string> since(size_t n) const
    {
        auto all = messages();
        return std::vector<std::string>(all.begin() + std::min(n, all.size()), all.end());
    }
};

TEST_F(DbOpenTest, CommandLogsAndQuotes)
{
    size_t n = messages().size();
    EXPECT_EQ(db_command("REPLACE INTO system (key, value) VALUES ('%s.%s', '%q')", "system",
                         "note", "it's"),
              0);
    EXPECT_EQ(since(n),
              std::vector<std::string>{"db_command: 'REPLACE INTO system (key, value) VALUES "
                                       "('system.note', 'it''s')'"});
    EXPECT_EQ(value_of(file(), "system.note"), "it's");
    EXPECT_EQ(db_get("system", "value", "key='system.note'"), "it's");
}

TEST_F(DbOpenTest, FailingCommandLogsTheFirstTwentyCharactersOfTheFormat)
{
    size_t n = messages().size();
    EXPECT_EQ(db_command("INSERT INTO nosuchtable (key) VALUES ('%q')", "x"), -2);
    EXPECT_EQ(since(n), (std::vector<std::string>{
                            "db_command: 'INSERT INTO nosuchtable (key) VALUES ('x')'",
                            "db_command: 'INSERT INTO nosuchta...' failed with errmsg = 'no "
                            "such table: nosuchtable'",
                        }));
}

TEST_F(DbOpenTest, FailingCommandLogsTheFormatNotTheFinishedStatement)
{
    size_t n = messages().size();
    // A conversion inside the first 20 characters: the format and the
    // statement differ there, and the failure line must show the format.
    EXPECT_EQ(db_command("DELETE FROM %s WHERE key='a'", "nosuchtbl"), -2);
    // A short format whose finished statement is far longer than 20.
    EXPECT_EQ(db_command("DROP TABLE %s", "a_table_that_is_not_there"), -2);
    EXPECT_EQ(since(n), (std::vector<std::string>{
                            "db_command: 'DELETE FROM nosuchtbl WHERE key='a''",
                            "db_command: 'DELETE FROM %s WHERE...' failed with errmsg = 'no "
                            "such table: nosuchtbl'",
                            "db_command: 'DROP TABLE a_table_that_is_not_there'",
                            "db_command: 'DROP TABLE %s' failed with errmsg = 'no such table: "
                            "a_table_that_is_not_there'",
                        }));
}

TEST_F(DbOpenTest, FailingShortCommandHasNoEllipsis)
{
    size_t n = messages().size();
    // exactly 20 characters
    EXPECT_EQ(db_command("DELETE FROM nothere1"), -2);
    EXPECT_EQ(since(n), (std::vector<std::string>{
                            "db_command: 'DELETE FROM nothere1'",
                            "db_command: 'DELETE FROM nothere1' failed with errmsg = 'no such "
                            "table: nothere1'",
                        }));
}

TEST_F(DbOpenTest, GetMultipleCountsWhatDidNotFit)
{
    query(file(), "CREATE TABLE t (v TEXT); INSERT INTO t VALUES ('a'), ('b'), ('c');");
    db_values v;
    v.size = 2;
    EXPECT_EQ(db_get_multiple("t", "v", nullptr, &v), 0);
    EXPECT_EQ(v.found, 3);
    EXPECT_EQ(v.values, (std::vector<std::optional<std::string>>{"a", "b"}));

    db_reset_values(&v);
    EXPECT_TRUE(v.values.empty());
    EXPECT_EQ(v.found, 0);
    EXPECT_EQ(v.size, 2u);
}

TEST_F(DbOpenTest, GetMultipleFillsColumnsInOrderAcrossRows)
{
    query(file(), "CREATE TABLE t (a TEXT, b TEXT); INSERT INTO t VALUES ('1', NULL), ('3', '4');");
    db_values v;
    v.size = 3;
    EXPECT_EQ(db_get_multiple("t", "a, b", "a <> ?", &v, {""}), 0);
    EXPECT_EQ(v.found, 4);
    // A NULL column keeps its place as no value.
    EXPECT_EQ(v.values, (std::vector<std::optional<std::string>>{"1", std::nullopt, "3"}));
}

TEST_F(DbOpenTest, GetWithoutRowOrWithNullGivesNothing)
{
    EXPECT_EQ(db_get("system", "value", "key=?", {"not.there"}), std::nullopt);
    query(file(), "INSERT INTO system VALUES ('null.value', NULL), ('empty.value', '')");
    EXPECT_EQ(db_get("system", "value", "key=?", {"null.value"}), std::nullopt);
    // An empty value is a value.
    EXPECT_EQ(db_get("system", "value", "key=?", {"empty.value"}), "");
    db_values v;
    EXPECT_EQ(db_get_multiple("system", "value", "key=?", &v, {"not.there"}), 0);
    EXPECT_EQ(v.found, 0);
    EXPECT_TRUE(v.values.empty());
}

TEST_F(DbOpenTest, FailingReadIsLogged)
{
    size_t n = messages().size();
    EXPECT_EQ(db_get("nosuch", "value", "key=?", {"x"}), std::nullopt);
    EXPECT_EQ(since(n), std::vector<std::string>{"db_get: 'SELECT value FROM nosuch WHERE key='x'' "
                                                 "failed, errmsg = 'no such table: nosuch'"});
    db_values v;
    EXPECT_EQ(db_get_multiple("nosuch", "value", nullptr, &v), 1);
    EXPECT_EQ(messages().back(),
              "db_get: 'SELECT value FROM nosuch  ' failed, errmsg = 'no such table: nosuch'");
}

TEST_F(DbOpenTest, CreateTable)
{
    EXPECT_EQ(db_create_table("extra", "k TEXT, v TEXT"), SQLITE_OK);
    EXPECT_EQ(query(file(), "SELECT sql FROM sqlite_master WHERE name='extra'")[0][0],
              "CREATE TABLE extra (k TEXT, v TEXT)");
    size_t n = messages().size();
    EXPECT_EQ(db_create_table("extra", "k TEXT"), SQLITE_ERROR);
    EXPECT_EQ(since(n), (std::vector<std::string>{
                            "db_table_create: CREATE TABLE failed, errmsg = 'table extra "
                            "already exists'",
                            "db_table_create: table 'extra' fields 'k TEXT'",
                        }));
}

TEST_F(DbOpenTest, TransactionRollsBackUnlessCommitted)
{
    const char *sql = "REPLACE INTO system (key, value) VALUES (?, ?)";
    size_t n = messages().size();
    {
        db_transaction txn;
        EXPECT_TRUE(txn.ok());
        EXPECT_EQ(db_write(sql, {"t.a", "1"}), 0);
        // Leaving the scope without commit() undoes the write.
    }
    EXPECT_EQ(value_of(file(), "t.a"), "<none>");
    {
        db_transaction txn;
        EXPECT_EQ(db_write(sql, {"t.b", "2"}), 0);
        EXPECT_TRUE(txn.commit());
        EXPECT_EQ(txn.error(), "");
    }
    EXPECT_EQ(value_of(file(), "t.b"), "2");
    EXPECT_EQ(since(n), (std::vector<std::string>{
                            "SQL BEGIN",
                            "db_command: 'REPLACE INTO system (key, value) VALUES ('t.a', '1')'",
                            "SQL ROLLBACK",
                            "SQL BEGIN",
                            "db_command: 'REPLACE INTO system (key, value) VALUES ('t.b', '2')'",
                            "SQL COMMIT",
                        }));
}

TEST_F(DbOpenTest, TransactionThatCouldNotBeginLeavesTheOpenOneAlone)
{
    const char *sql = "REPLACE INTO system (key, value) VALUES (?, ?)";
    db_transaction outer;
    ASSERT_TRUE(outer.ok());
    EXPECT_EQ(db_write(sql, {"t.c", "3"}), 0);
    size_t n = messages().size();
    {
        db_transaction inner;
        EXPECT_FALSE(inner.ok());
        EXPECT_EQ(inner.error(), "cannot start a transaction within a transaction");
        EXPECT_FALSE(inner.commit());
    }
    // Neither committed nor rolled back by the guard that did not begin it.
    EXPECT_EQ(since(n), std::vector<std::string>{"SQL BEGIN"});
    EXPECT_TRUE(outer.commit());
    EXPECT_EQ(value_of(file(), "t.c"), "3");
}

TEST_F(DbOpenTest, FailedCommitRollsBackWhenTheGuardGoes)
{
    {
        db_transaction txn;
        EXPECT_EQ(db_write("REPLACE INTO system (key, value) VALUES (?, ?)", {"t.d", "4"}), 0);
        // A reader of another program holds the file: COMMIT cannot get its
        // lock and the transaction stays open.
        sqlite3_busy_timeout(db_main, 1);
        sqlite3 *other = nullptr;
        ASSERT_EQ(sqlite3_open_v2(file().c_str(), &other, SQLITE_OPEN_READONLY, nullptr),
                  SQLITE_OK);
        ASSERT_EQ(sqlite3_exec(other, "BEGIN; SELECT * FROM system;", nullptr, nullptr, nullptr),
                  SQLITE_OK);
        EXPECT_FALSE(txn.commit());
        EXPECT_EQ(txn.error(), "database is locked");
        sqlite3_exec(other, "ROLLBACK", nullptr, nullptr, nullptr);
        sqlite3_close(other);
        sqlite3_busy_timeout(db_main, DB_BUSY_TIMEOUT_MS);
    }
    EXPECT_EQ(messages().back(), "SQL ROLLBACK");
    EXPECT_EQ(value_of(file(), "t.d"), "<none>");
    // The connection is out of the transaction: a new one begins.
    db_transaction next;
    EXPECT_TRUE(next.ok());
}

TEST_F(DbOpenTest, SaveAndLoadCopyTheWholeDatabase)
{
    EXPECT_EQ(db_command("REPLACE INTO system (key, value) VALUES ('system.saved', 'yes')"), 0);
    EXPECT_EQ(db_save(db_main, "/tmp/copy.db"), SQLITE_OK);
    EXPECT_EQ(value_of(root.at("/tmp/copy.db"), "system.saved"), "yes");
    EXPECT_EQ(schema_of(root.at("/tmp/copy.db")), schema_of(file()));

    query(root.at("/tmp/other.db"), "CREATE TABLE system (key TEXT UNIQUE, value TEXT);"
                                    "INSERT INTO system VALUES ('system.loaded', 'from file')");
    sqlite3 *mem = nullptr;
    ASSERT_EQ(sqlite3_open(":memory:", &mem), SQLITE_OK);
    EXPECT_EQ(db_load(mem, "/tmp/other.db"), SQLITE_OK);
    char *err = nullptr;
    std::string got;
    sqlite3_exec(
        mem, "SELECT value FROM system WHERE key='system.loaded'",
        [](void *arg, int, char **argv, char **) {
            *static_cast<std::string *>(arg) = argv[0];
            return 0;
        },
        &got, &err);
    EXPECT_EQ(err, nullptr);
    EXPECT_EQ(got, "from file");

    EXPECT_EQ(db_load(mem, "/tmp/missing.db"), SQLITE_CANTOPEN);
    EXPECT_FALSE(file_exists(root.at("/tmp/missing.db")));
    sqlite3_close(mem);
}

namespace
{

// Another program holding the settings file: BEGIN EXCLUSIVE on a connection
// of its own, let go after `hold`.
class exclusive_holder
{
  public:
    exclusive_holder(const std::string &file, std::chrono::milliseconds hold)
    {
        if (sqlite3_open_v2(file.c_str(), &db_, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK ||
            sqlite3_exec(db_, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr) != SQLITE_OK) {
            ADD_FAILURE() << "cannot lock " << file;
            return;
        }
        thread_ = std::thread([this, hold] {
            std::this_thread::sleep_for(hold);
            released_ = std::chrono::steady_clock::now();
            sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
        });
    }
    ~exclusive_holder()
    {
        if (thread_.joinable())
            thread_.join();
        sqlite3_close(db_);
    }
    // When the lock was let go; waits for it.
    std::chrono::steady_clock::time_point released()
    {
        if (thread_.joinable())
            thread_.join();
        return released_;
    }

  private:
    sqlite3 *db_ = nullptr;
    std::thread thread_;
    std::chrono::steady_clock::time_point released_;
};

} // namespace

TEST_F(DbOpenTest, ReadWaitsForAnotherProgramsLock)
{
    ASSERT_EQ(db_command("REPLACE INTO system (key, value) VALUES ('system.cloud-controller', "
                         "'https://c.example')"),
              0);
    size_t n = messages().size();
    exclusive_holder other(file(), std::chrono::milliseconds(1500));
    auto v = db_get("system", "value", "key=?", {"system.cloud-controller"});
    auto done = std::chrono::steady_clock::now();
    EXPECT_EQ(v, "https://c.example");
    // It got its answer only once the other program let go.
    EXPECT_GE(done, other.released());
    EXPECT_EQ(since(n), std::vector<std::string>{});
}

TEST_F(DbOpenTest, WriteWaitsForAnotherProgramsLock)
{
    size_t n = messages().size();
    exclusive_holder other(file(), std::chrono::milliseconds(1500));
    EXPECT_EQ(db_write("REPLACE INTO system (key, value) VALUES (?, ?)", {"system.note", "after"}),
              0);
    auto done = std::chrono::steady_clock::now();
    EXPECT_GE(done, other.released());
    EXPECT_EQ(since(n),
              std::vector<std::string>{"db_command: 'REPLACE INTO system (key, value) VALUES "
                                       "('system.note', 'after')'"});
    EXPECT_EQ(value_of(file(), "system.note"), "after");
}

TEST_F(DbOpenTest, CopiesWaitForAnotherProgramsLockOnTheFile)
{
    query(root.at("/tmp/other.db"), "CREATE TABLE system (key TEXT UNIQUE, value TEXT);"
                                    "INSERT INTO system VALUES ('system.loaded', 'from file')");
    sqlite3 *mem = nullptr;
    ASSERT_EQ(sqlite3_open(":memory:", &mem), SQLITE_OK);
    {
        exclusive_holder other(root.at("/tmp/other.db"), std::chrono::milliseconds(1000));
        EXPECT_EQ(db_load(mem, "/tmp/other.db"), SQLITE_OK);
        EXPECT_GE(std::chrono::steady_clock::now(), other.released());
    }
    {
        exclusive_holder other(root.at("/tmp/other.db"), std::chrono::milliseconds(1000));
        EXPECT_EQ(db_save(db_main, "/tmp/other.db"), SQLITE_OK);
        EXPECT_GE(std::chrono::steady_clock::now(), other.released());
    }
    EXPECT_EQ(value_of(root.at("/tmp/other.db"), "system.loaded"), "<none>");
    EXPECT_EQ(value_of(root.at("/tmp/other.db"), "db.version"), "9");
    sqlite3_close(mem);
}

TEST_F(DbOpenTest, WriteLogsTheSecretAsTheMarkerAndStoresIt)
{
    size_t n = messages().size();
    const char *sql = "REPLACE INTO system (key, value) VALUES (?, ?)";
    EXPECT_EQ(db_write(sql, {"system.password", "it's s3cret"}, "it's s3cret"), 0);
    // The secret may stand twice; a parameter that only holds part of it is
    // shown as it is.
    EXPECT_EQ(db_write("REPLACE INTO system (key, value) VALUES (?, ?), (?, ?)",
                       {"system.a", "pw", "system.b", "pw and more"}, "pw"),
              0);
    EXPECT_EQ(db_write(sql, {"system.empty", ""}, ""), 0);
    EXPECT_EQ(db_write("INSERT INTO nosuchtable (key) VALUES (?)", {"x"}, "x"), -2);
    EXPECT_EQ(since(n),
              (std::vector<std::string>{
                  "db_command: 'REPLACE INTO system (key, value) VALUES ('system.password', "
                  "'********')'",
                  "db_command: 'REPLACE INTO system (key, value) VALUES ('system.a', "
                  "'********'), ('system.b', 'pw and more')'",
                  "db_command: 'REPLACE INTO system (key, value) VALUES ('system.empty', "
                  "'********')'",
                  "db_command: 'INSERT INTO nosuchtable (key) VALUES ('********')'",
                  "db_command: 'INSERT INTO nosuchta...' failed with errmsg = 'no such table: "
                  "nosuchtable'",
              }));
    EXPECT_EQ(value_of(file(), "system.password"), "it's s3cret");
    EXPECT_EQ(value_of(file(), "system.a"), "pw");
    EXPECT_EQ(value_of(file(), "system.b"), "pw and more");
    EXPECT_EQ(value_of(file(), "system.empty"), "");
    for (auto &line : log())
        EXPECT_EQ(line.find("s3cret"), std::string::npos) << line;
}
