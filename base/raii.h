// Owners for the C handles the daemon works with, so every return path
// releases them.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <curl/curl.h>
#include <jansson.h>
#include <memory>
#include <sqlite3.h>
#include <unistd.h>

// The deleter of a handle that one C function releases. The owner is only
// ever asked to release a handle it holds, never a null one.
template <auto Release> struct c_release {
    template <typename T> void operator()(T *p) const { Release(p); }
};

// An owner of a C handle: the handle's type and the function that releases
// it say everything (file_ptr is c_owner<FILE, fclose>).
template <typename T, auto Release> using c_owner = std::unique_ptr<T, c_release<Release>>;

// jansson's release is a static inline function, a different one in every
// file; this one is the same everywhere, so json_ptr is one type.
inline void json_release(json_t *j)
{
    json_decref(j);
}

// A reply borrowed from the pool goes back to it.
struct reply;
void free_reply(struct reply *r);

using file_ptr = c_owner<FILE, fclose>;
using pipe_ptr = c_owner<FILE, pclose>;
using json_ptr = c_owner<json_t, json_release>;
using easy_ptr = c_owner<CURL, curl_easy_cleanup>;
using slist_ptr = c_owner<curl_slist, curl_slist_free_all>;
template <typename T> using malloc_ptr = c_owner<T, free>;
using reply_ptr = c_owner<struct reply, free_reply>;

// A connection the agent opened for itself (the settings file, or a file it
// copies from or to).
using sqlite_ptr = c_owner<sqlite3, sqlite3_close>;
// A prepared statement.
using sqlite_stmt_ptr = c_owner<sqlite3_stmt, sqlite3_finalize>;
// An online copy between two connections.
using sqlite_backup_ptr = c_owner<sqlite3_backup, sqlite3_backup_finish>;
// Text the engine allocated: sqlite3_mprintf's results, error texts.
using sqlite_text = c_owner<char, sqlite3_free>;

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
