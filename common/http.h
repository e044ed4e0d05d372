// The agent's only HTTP client: blocking GET/POST/PUT, file transfers, the
// pool of reply buffers and the per-command status record.
#pragma once

#include "queue.h"
#include "raii.h"

#include <jansson.h>
#include <string>

constexpr int REPLY_POOL_SIZE = 32;
constexpr int REPLY_BUFFER_SIZE = 1500;
// The ceiling of one GET, POST or PUT, connecting included.
constexpr int HTTP_TIMEOUT_SECONDS = 30;

typedef struct reply {
    link_t link;
    int length; // body bytes held; the body is not NUL-terminated
    char *data; // the inline buffer while the body fits, else a heap block
    int size;   // capacity of data
    char buffer[REPLY_BUFFER_SIZE];
} reply;

extern queue_t *free_replies;

void http_init(void);
reply *alloc_reply(void);
void free_reply(reply *r);
// The reply's body as JSON (nesting bounded); null after logging
// "error decoding <what> data: <reason>".
json_ptr reply_json(const reply *r, const char *what);

// 0 for a 2xx status, the status otherwise, 1 when no handle could be made,
// 2 when the transfer failed.
int http_get(const char *url, const char *const *headers, reply *r);
int http_post(const char *url, const char *data, int length, const char *const *headers, reply *r);
int http_put(const char *url, const char *data, int length, const char *const *headers, reply *r);
// Downloads check the peer against the device's CA bundle and the system's
// certificate store; a status outside 2xx is a failed attempt.
int http_download_file(const char *url, const char *path);
int http_upload_file(const char *url, const char *path, const char *const *headers);
int http_upload_file_multipart(const char *url, const char *path, const char *const *headers);

// The requests the daemon makes to its controller, one row each in the
// policy table: how often a request is tried, which results are tried
// again, whether the token is dropped first, and what is logged.
enum class controller_call {
    heartbeat,
    status,
    statistics,
    syslog,
    command_answer,
    refresh,
    diagnostics,
    firmware_check,
    token,
};

enum class retry_on {
    nothing,       // one result, whatever it is
    unauthorized,  // 401 only
    client_errors, // 400 to 499
    any_failure,   // every result but 0
};

// What is written around the attempts.
enum class attempt_log {
    none,
    sending, // before each attempt, to the syslog log: "sending (retry = N) <body>"
};
enum class failure_log {
    none,
    each_attempt, // after each failed attempt: "http_post err = ..., post = ..., reply = ..."
    once,         // once the request has failed: "<who>: err = N, reply = '...'"
};

enum class request_method { get, post, multipart };

struct controller_policy {
    controller_call call;
    const char *who; // the caller's name in its log lines
    request_method method;
    int attempts;     // requests at most
    retry_on retry;   // which results are tried again
    bool drop_token;  // the token is thrown away after a result that is tried again
    bool needs_token; // without a token no request is made
    bool bearer;      // "Authorization: Bearer <token>" is sent
    bool json;        // "Content-Type: application/json" is sent
    bool type_first;  // ... and before the bearer header
    attempt_log before;
    failure_log after;
};

// Every row, in the order of controller_call.
extern const controller_policy controller_policies[];
extern const int controller_policy_count;
const controller_policy &policy_of(controller_call call);

// What became of a request to the controller.
struct controller_result {
    enum outcome_t {
        done,          // requests were made; result says how the last one ended
        no_controller, // no controller is known: nothing was sent
        no_token,      // the call needs a token and none could be had: nothing was sent
        too_large,     // the body is over the call's limit: nothing was sent
    } outcome = no_controller;
    // The last request's result as http_post gives it: 0 for 2xx, the
    // status otherwise, 1 without a handle, 2 for a failed transfer.
    int result = -1;
    long status = 0;  // the last HTTP status, 0 when none came
    int attempts = 0; // requests made
    reply_ptr body;   // the last reply (back to the pool with the result)
    bool ok() const { return outcome == done && result == 0; }
};

// One request to the controller: the URL is the stored controller's, "/api"
// and path; the policy of `call` says the rest. `upload` names the file a
// multipart call sends; `extra` is one more header line (the token
// request's credentials) or null.
controller_result controller_request(controller_call call, const std::string &path,
                                     const char *body = nullptr, int length = 0,
                                     const char *upload = nullptr, const char *extra = nullptr);

// controller_request for a caller that wants only a number: the last
// result, or not_sent when nothing was sent.
int controller_post(controller_call call, const std::string &path, const char *body, int length,
                    int not_sent);

// The controller's base URL from the settings, whole; "" when none is set.
// A copy: the caller keeps it however the setting changes.
std::string get_cloud_controller(void);
// The URL of path on the controller's API at base.
std::string controller_url(const std::string &base, const std::string &path);

// The command-answer body: {"response":[{"commandId":..,"code":..,"message":..[,"data":..]}]},
// built as JSON (texts escaped, invalid UTF-8 replaced); data is added as it
// is when not null. Null when it cannot be built.
malloc_ptr<char> command_answer_body(const char *commandId, int code, const char *message,
                                     json_t *data);
// Answers a command: posts the body above to path. 1 when there is no
// controller or the body is 512 bytes or more (nothing is sent), else the
// last post's result.
int send_command_status(const char *path, const char *commandId, int code, const char *message,
                        json_t *data = nullptr);
void http_debug(int sig);

// When set, takes the place of the transfer in http_get, http_post and
// http_put: it fills r and returns what the request would have. The fuzz
// targets hand replies to the daemon in-process this way.
extern int (*http_exchange)(const char *url, const char *data, int length, reply *r);
// The receive callback, shared with tests.
size_t ReceiveFn(void *ptr, size_t size, size_t nmemb, void *userp);
