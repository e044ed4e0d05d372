// Owners for the C handles the daemon works with, so every return path
// releases them.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <curl/curl.h>
#include <jansson.h>
#include <memory>
#include <unistd.h>

struct file_closer {
    void operator()(FILE *fp) const { fclose(fp); }
};
using file_ptr = std::unique_ptr<FILE, file_closer>;

struct pipe_closer {
    void operator()(FILE *fp) const { pclose(fp); }
};
using pipe_ptr = std::unique_ptr<FILE, pipe_closer>;

struct json_deleter {
    void operator()(json_t *j) const { json_decref(j); }
};
using json_ptr = std::unique_ptr<json_t, json_deleter>;

struct easy_deleter {
    void operator()(CURL *c) const { curl_easy_cleanup(c); }
};
using easy_ptr = std::unique_ptr<CURL, easy_deleter>;

struct slist_deleter {
    void operator()(curl_slist *l) const { curl_slist_free_all(l); }
};
using slist_ptr = std::unique_ptr<curl_slist, slist_deleter>;

struct free_deleter {
    void operator()(void *p) const { free(p); }
};
template <typename T> using malloc_ptr = std::unique_ptr<T, free_deleter>;

// A reply borrowed from the pool goes back to it.
struct reply;
void free_reply(struct reply *r);
struct reply_returner {
    void operator()(struct reply *r) const { free_reply(r); }
};
using reply_ptr = std::unique_ptr<struct reply, reply_returner>;

// Owns one descriptor for the length of a call.
class fd_guard
{
  public:
    explicit fd_guard(int fd) : fd_(fd) {}
    ~fd_guard()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    fd_guard(const fd_guard &) = delete;
    fd_guard &operator=(const fd_guard &) = delete;
    int get() const { return fd_; }
    bool ok() const { return fd_ >= 0; }
    // Closes the one held and holds fd instead (a file reopened in place).
    void reset(int fd = -1)
    {
        if (fd_ >= 0)
            close(fd_);
        fd_ = fd;
    }

  private:
    int fd_;
};

// ---- SQLite ---------------------------------------------------------------

#include <sqlite3.h>

// A connection the agent opened for itself (the settings file, or a file it
// copies from or to).
struct sqlite_closer {
    void operator()(sqlite3 *db) const { sqlite3_close(db); }
};
using sqlite_ptr = std::unique_ptr<sqlite3, sqlite_closer>;

// A prepared statement.
struct sqlite_finalizer {
    void operator()(sqlite3_stmt *stmt) const { sqlite3_finalize(stmt); }
};
using sqlite_stmt_ptr = std::unique_ptr<sqlite3_stmt, sqlite_finalizer>;

// An online copy between two connections.
struct sqlite_backup_finisher {
    void operator()(sqlite3_backup *backup) const { sqlite3_backup_finish(backup); }
};
using sqlite_backup_ptr = std::unique_ptr<sqlite3_backup, sqlite_backup_finisher>;

// Text the engine allocated: sqlite3_mprintf's results, error texts.
struct sqlite_free_deleter {
    void operator()(char *p) const { sqlite3_free(p); }
};
using sqlite_text = std::unique_ptr<char, sqlite_free_deleter>;
