#include "http.h"

#include "auth.h"
#include "debug.h"
#include "devroot.h"
#include "health.h"
#include "log.h"
#include "lsql.h"
#include "raii.h"
#include "signals.h"
#include "utils.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <curl/curl.h>
#include <memory>
#include <mutex>
#include <resolv.h>
#include <sys/stat.h>

queue_t *free_replies;

namespace
{

constexpr long HTTP_TIMEOUT = HTTP_TIMEOUT_SECONDS;
constexpr int DOWNLOAD_ATTEMPTS = 3;
// A command answer of this many bytes or more is not sent.
constexpr size_t ANSWER_BODY_LIMIT = 512;
constexpr int PUT_LOG_LIMIT = 400;

// The system's own certificate store, which downloads trust besides the
// device's bundle: images may come from a content network the controller
// names.
const char SYSTEM_CA_PATH[] = "/etc/ssl/certs";

// What every request may take over from the ones before it: TLS sessions
// (a resumed handshake skips the certificate exchange and its verification)
// and resolved host names. Each request still gets a connection of its own.
// Connections are deliberately not shared: curl
// silently sends a request again when a reused connection closes before
// anything came back, so the controller would see it twice and a dropped
// connection would no longer come back to the caller as a failure.
struct http_share {
    CURLSH *sh = nullptr;
    std::mutex locks[CURL_LOCK_DATA_LAST];

    http_share()
    {
        sh = curl_share_init();
        if (sh == nullptr)
            return;
        curl_share_setopt(sh, CURLSHOPT_LOCKFUNC, lock);
        curl_share_setopt(sh, CURLSHOPT_UNLOCKFUNC, unlock);
        curl_share_setopt(sh, CURLSHOPT_USERDATA, this);
        curl_share_setopt(sh, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
        curl_share_setopt(sh, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
    }

    static void lock(CURL *, curl_lock_data d, curl_lock_access, void *user)
    {
        static_cast<http_share *>(user)->locks[d].lock();
    }
    static void unlock(CURL *, curl_lock_data d, void *user)
    {
        static_cast<http_share *>(user)->locks[d].unlock();
    }
};

// Made on the first request, kept for the life of the process: handles may
// be in use on any thread until the very end.
CURLSH *shared(void)
{
    static http_share *s = new http_share;
    return s->sh;
}

unsigned addr32(const void *p)
{
    return (unsigned)(uintptr_t)p;
}

// The CA bundle lives in the device root like every other device file.
const char *ca_bundle(char *buf, size_t size)
{
    const char *p = devroot_path("/etc/ca-bundle.pem", buf, size);
    return p != nullptr ? p : "/etc/ca-bundle.pem";
}

// The controller's requests and the uploads to it trust the device's bundle
// alone, without the certificate directory libcurl may have been built to
// look in as well (curl also keeps a parsed bundle between the requests of
// a handle only when no directory is set). curl copies both texts.
void trust_device_bundle(CURL *c)
{
    char ca[1024];
    curl_easy_setopt(c, CURLOPT_CAINFO, ca_bundle(ca, sizeof(ca)));
    curl_easy_setopt(c, CURLOPT_CAPATH, nullptr);
}

bool has_headers(const char *const *headers)
{
    return headers != nullptr && headers[0] != nullptr;
}

// Hands the caller's header lines to curl; the list lives as long as the
// returned owner.
slist_ptr set_headers(CURL *c, const char *const *headers)
{
    if (!has_headers(headers))
        return nullptr;
    curl_slist *l = nullptr;
    for (int i = 0; headers[i] != nullptr; i++)
        l = curl_slist_append(l, headers[i]);
    curl_easy_setopt(c, CURLOPT_HTTPHEADER, l);
    return slist_ptr(l);
}

enum class method { get, post, put };

// An upload counts when the transfer went through and the server took it.
int upload_result(const char *who, CURL *c, CURLcode rc)
{
    if (rc != CURLE_OK) {
        log_fprint(orkad_log, "%s: curl error: (CURLcode = %d) '%s'\n", who, (int)rc,
                   curl_easy_strerror(rc));
        return -1;
    }
    long code = 0;
    curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &code);
    if (code < 200 || code > 299) {
        log_fprint(orkad_log, "%s: upload refused, response code = %ld\n", who, code);
        return -1;
    }
    return 0;
}

// The file an upload sends, open for reading; null after logging why not.
file_ptr open_upload(const char *who, const char *path)
{
    file_ptr file(dev_fopen(path, "r"));
    if (!file)
        log_fprint(orkad_log, "%s: unable to open file '%s' (%s)\n", who, path, strerror(errno));
    return file;
}

// One curl handle per calling thread, kept between requests and reset after
// each: the handle keeps the CA bundle it parsed (curl caches the store with
// the handle) and nothing else, since every request asks for a fresh
// connection that is closed when the request ends. The handle is made anew
// when the bundle file changes, so a new bundle counts from the next request.
struct thread_handle {
    easy_ptr curl;
    struct stat ca {
    };

    CURL *get(const char *ca_path)
    {
        struct stat now {
        };
        if (stat(ca_path, &now) != 0)
            now = {};
        if (curl &&
            (now.st_ino != ca.st_ino || now.st_dev != ca.st_dev || now.st_size != ca.st_size ||
             now.st_mtim.tv_sec != ca.st_mtim.tv_sec || now.st_mtim.tv_nsec != ca.st_mtim.tv_nsec))
            curl.reset();
        if (!curl) {
            curl.reset(curl_easy_init());
            ca = now;
        }
        return curl.get();
    }
};

// Forgets every option of the request, whatever way it ends, so nothing
// the handle points at outlives the request.
struct reset_after {
    CURL *c;
    ~reset_after() { curl_easy_reset(c); }
};

// GET, POST and PUT share everything but their log wording.
int http_request(method m, const char *url, const char *data, int length,
                 const char *const *headers, reply *r, long *status = nullptr)
{
    // The public function the request came through names it in the log.
    const char *who = m == method::get ? "http_get" : m == method::post ? "http_post" : "http_put";
    if (http_exchange != nullptr)
        return http_exchange(url, data, length, r);
    thread_local thread_handle handle;
    char ca[1024];
    const char *ca_path = ca_bundle(ca, sizeof(ca));
    CURL *c = handle.get(ca_path);
    if (c == nullptr) {
        log_fprint(orkad_log, "curl_easy_init() failed!\n");
        return 1;
    }
    reset_after reset{c};
    char errbuf[CURL_ERROR_SIZE] = "";
    curl_easy_setopt(c, CURLOPT_CAINFO, ca_path);
    // The bundle alone, without the certificate directory libcurl may have
    // been built to look in as well: curl keeps a parsed bundle between the
    // requests of a handle only when no directory is set.
    curl_easy_setopt(c, CURLOPT_CAPATH, nullptr);
    curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(c, CURLOPT_SHARE, shared());
    // A connection serves one request: curl would silently send a request
    // again over a new connection when a reused one closes before anything
    // came back.
    curl_easy_setopt(c, CURLOPT_FRESH_CONNECT, 1L);
    curl_easy_setopt(c, CURLOPT_FORBID_REUSE, 1L);
    if (m == method::post)
        curl_easy_setopt(c, CURLOPT_POST, 1L);
    if (m == method::put)
        curl_easy_setopt(c, CURLOPT_CUSTOMREQUEST, "PUT");
    curl_easy_setopt(c, CURLOPT_URL, url);
    curl_easy_setopt(c, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, ReceiveFn);
    curl_easy_setopt(c, CURLOPT_WRITEDATA, r);
    curl_easy_setopt(c, CURLOPT_TIMEOUT, HTTP_TIMEOUT);
    curl_easy_setopt(c, CURLOPT_CONNECTTIMEOUT, HTTP_TIMEOUT);
    curl_easy_setopt(c, CURLOPT_ERRORBUFFER, errbuf);

    if (m == method::put)
        log_fprint(http_log, "http_put: url = '%s'\n", url);
    else
        log_fprint(http_log, "%s: %08x url = '%s'\n", who, addr32(r), url);

    if (data != nullptr) {
        if (m == method::put)
            // The PUT path has always logged with the POST wording.
            log_fprint(http_log, "http_post: l = %d, data = '%.*s%s'\n", length,
                       length > PUT_LOG_LIMIT ? PUT_LOG_LIMIT : length, data,
                       length > PUT_LOG_LIMIT ? "..." : "");
        else
            log_fprint(http_log, "%s: %08x l = %d, data = '%.*s'\n", who, addr32(r), length, length,
                       data);
        curl_easy_setopt(c, CURLOPT_POSTFIELDS, data);
        curl_easy_setopt(c, CURLOPT_POSTFIELDSIZE, (long)length);
    }

    if (has_headers(headers)) {
        for (int i = 0; headers[i] != nullptr; i++) {
            if (m == method::put)
                log_fprint(http_log, "http_post: header '%s'\n", headers[i]);
            else
                log_fprint(http_log, "%s: %08x header '%s'\n", who, addr32(r), headers[i]);
        }
    }
    slist_ptr list = set_headers(c, headers);

    CURLcode rc = curl_easy_perform(c);
    if (rc != CURLE_OK) {
        log_fprint(http_log, "%s: %08x curl_easy_perform() failed: (CURLcode = %d) %s\n", who,
                   addr32(r), (int)rc, curl_easy_strerror(rc));
        log_fprint(http_log, "%s: %08x curl error-buffer = '%s'\n", who, addr32(r), errbuf);
        // A changed resolver configuration is picked up by the next attempt.
        res_init();
        return 2;
    }

    long code = 0;
    curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &code);
    if (status != nullptr)
        *status = code;
    bool ok = code >= 200 && code <= 299;
    // A heartbeat reply may carry the administrator password.
    loggable_json shown(r->data, (size_t)r->length);
    if (m == method::put) {
        log_fprint(http_log, "reply = '%.*s'\n", shown.length(), shown.data());
        if (!ok) {
            log_fprint(orkad_log, "POST '%s'\nreceived unexpected response code %ld\n", url, code);
            log_fprint(orkad_log, "reply = '%.*s'\n", shown.length(), shown.data());
        }
    } else {
        log_fprint(http_log, "%s: %08x reply = '%.*s'\n", who, addr32(r), shown.length(),
                   shown.data());
        log_fprint(http_log, "%s: %08x response code = %ld\n", who, addr32(r), code);
    }
    return ok ? 0 : (int)code;
}

} // namespace

int (*http_exchange)(const char *url, const char *data, int length, reply *r);

size_t ReceiveFn(void *ptr, size_t size, size_t nmemb, void *userp)
{
    reply *r = static_cast<reply *>(userp);
    size_t n = size * nmemb;
    size_t need = (size_t)r->length + n;
    if (need > (size_t)r->size) {
        // Exactly what is needed: replies are usually small and the pool's
        // inline buffer takes the common case without any allocation.
        char *block;
        if (r->data == r->buffer) {
            block = static_cast<char *>(malloc(need));
            if (block == nullptr)
                return 0;
            memcpy(block, r->data, r->length);
        } else {
            block = static_cast<char *>(realloc(r->data, need));
            if (block == nullptr)
                return 0;
        }
        r->data = block;
        r->size = (int)need;
    }
    memcpy(r->data + r->length, ptr, n);
    r->length += (int)n;
    return n;
}

void http_init(void)
{
    free_replies = queue_create("free_replies");
    if (free_replies == nullptr) {
        log_fprint(orkad_log, "%s: cannot create 'free_replies' queue\n", __func__);
        exit(1);
    }
    for (int i = 0; i < REPLY_POOL_SIZE; i++) {
        reply *r = static_cast<reply *>(calloc(1, sizeof(reply)));
        if (r == nullptr) {
            log_fprint(orkad_log, "call_init: cannot allocate 'free_replies'\n");
            exit(1);
        }
        r->data = r->buffer;
        free_reply(r);
    }
    signals_register(SIGUSR1, http_debug, "http_debug");
}

reply *alloc_reply(void)
{
    reply *r = reinterpret_cast<reply *>(queue_get(free_replies));
    if (r == nullptr)
        return nullptr;
    r->length = 0;
    r->data = r->buffer;
    r->size = REPLY_BUFFER_SIZE;
    return r;
}

void free_reply(reply *r)
{
    if (r == nullptr)
        return;
    if (r->data != r->buffer)
        free(r->data);
    queue_add_head(free_replies, &r->link);
}

json_ptr reply_json(const reply *r, const char *what)
{
    json_error_t err;
    json_ptr root(json_loadb_bounded(r->data, r->length, 0, &err));
    if (!root)
        log_fprint(orkad_log, "error decoding %s data: %s\n", what, err.text);
    return root;
}

std::string get_cloud_controller(void)
{
    return config_get("system", nullptr, "cloud-controller").value_or("");
}

int http_get(const char *url, const char *const *headers, reply *r)
{
    return http_request(method::get, url, nullptr, 0, headers, r);
}

int http_post(const char *url, const char *data, int length, const char *const *headers, reply *r)
{
    return http_request(method::post, url, data, length, headers, r);
}

int http_put(const char *url, const char *data, int length, const char *const *headers, reply *r)
{
    return http_request(method::put, url, data, length, headers, r);
}

int http_download_file(const char *url, const char *path)
{
    log_fprint(orkad_log, "%s: filename = '%s', url = '%s'\n", __func__, path, url);
    int result = -1;
    for (int attempt = 1; attempt <= DOWNLOAD_ATTEMPTS; attempt++) {
        file_ptr file(dev_fopen(path, "w"));
        if (!file) {
            log_fprint(orkad_log, "%s: unable to open file '%s' for writing (%s)\n", __func__, path,
                       strerror(errno));
            return result;
        }
        easy_ptr curl(curl_easy_init());
        if (!curl) {
            log_fprint(orkad_log, "%s: failed to get a curl handle\n", __func__);
            continue;
        }
        CURL *c = curl.get();
        char errbuf[CURL_ERROR_SIZE] = "";
        char ca[1024];
        curl_easy_setopt(c, CURLOPT_CAINFO, ca_bundle(ca, sizeof(ca)));
        curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(c, CURLOPT_URL, url);
        curl_easy_setopt(c, CURLOPT_FOLLOWLOCATION, 1L);
        curl_easy_setopt(c, CURLOPT_WRITEDATA, file.get());
        // Images come from wherever the controller points, a content network
        // as well: the peer must prove itself to the device's bundle or to
        // the system's store.
        curl_easy_setopt(c, CURLOPT_CAPATH, SYSTEM_CA_PATH);
        curl_easy_setopt(c, CURLOPT_ERRORBUFFER, errbuf);
        if (debug)
            curl_easy_setopt(c, CURLOPT_VERBOSE, 0L);
        CURLcode rc = curl_easy_perform(c);
        long code = 0;
        if (rc == CURLE_OK)
            curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &code);
        bool again = false;
        if (rc == CURLE_OK && code >= 200 && code <= 299) {
            result = 0;
        } else if (rc == CURLE_OK) {
            // An error page is no image.
            log_fprint(orkad_log, "%s: server answered %ld, url = '%s'\n", __func__, code, url);
            again = true;
        } else {
            log_fprint(http_log, "%s: curl_easy_perform() failed: (CURLcode = %d) %s\n", __func__,
                       (int)rc, curl_easy_strerror(rc));
            log_fprint(http_log, "%s: curl error-buffer = '%s'\n", __func__, errbuf);
            again = true;
        }
        curl.reset();
        log_fprint(orkad_log, "%s: done!  err = %d\n", __func__, (int)rc);
        if (!again)
            break;
    }
    return result;
}

int http_upload_file(const char *url, const char *path, const char *const *headers)
{
    file_ptr file = open_upload(__func__, path);
    if (!file)
        return -1;
    easy_ptr curl(curl_easy_init());
    if (!curl)
        return -1;
    CURL *c = curl.get();
    curl_easy_setopt(c, CURLOPT_URL, url);
    curl_easy_setopt(c, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(c, CURLOPT_READDATA, file.get());
    // Files go to the controller: trusted as its other requests are.
    trust_device_bundle(c);
    if (debug)
        curl_easy_setopt(c, CURLOPT_VERBOSE, 0L);
    slist_ptr list = set_headers(c, headers);
    CURLcode rc = curl_easy_perform(c);
    return upload_result(__func__, c, rc);
}

int http_upload_file_multipart(const char *url, const char *path, const char *const *headers)
{
    // curl reads the file by its name; opening it first says whether it is
    // there at all.
    file_ptr file = open_upload(__func__, path);
    if (!file)
        return -1;
    easy_ptr curl(curl_easy_init());
    if (!curl) {
        log_fprint(orkad_log, "%s: curl_easy_init() failed\n", __func__);
        return -1;
    }
    CURL *c = curl.get();
    if (debug)
        curl_easy_setopt(c, CURLOPT_VERBOSE, 0L);
    slist_ptr list = set_headers(c, headers);
    char mapped[1024];
    const char *file_path = devroot_path(path, mapped, sizeof(mapped));
    if (file_path == nullptr)
        file_path = path;
        // The form API is what the controller's upload endpoint has always been
        // fed; the newer MIME API produces the same request.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    struct curl_httppost *form = nullptr, *last = nullptr;
    curl_formadd(&form, &last, CURLFORM_COPYNAME, "file", CURLFORM_FILE, file_path, CURLFORM_END);
    curl_easy_setopt(c, CURLOPT_URL, url);
    trust_device_bundle(c);
    curl_easy_setopt(c, CURLOPT_HTTPPOST, form);
    log_fprint(orkad_log, "%s: uploading '%s' to '%s'\n", __func__, path, url);
    CURLcode rc = curl_easy_perform(c);
    log_fprint(orkad_log, "%s: done\n", __func__);
    int result = upload_result(__func__, c, rc);
    curl.reset();
    curl_formfree(form);
#pragma GCC diagnostic pop
    return result;
}

// The policy table: one row per kind of request to the controller. What a
// caller used to spell out in a loop of its own is a row here.
const controller_policy controller_policies[] = {
    // Two tries: a 4xx means the token was refused, so the second goes out
    // with a fresh one. No token, no pulse.
    {controller_call::heartbeat, "heartbeat_pulse", request_method::post, 2,
     retry_on::client_errors, true, true, true, true, false, attempt_log::none, failure_log::none},
    {controller_call::status, "status_post", request_method::post, 4, retry_on::unauthorized, true,
     false, true, true, true, attempt_log::sending, failure_log::once},
    {controller_call::statistics, "stats_post", request_method::post, 3, retry_on::unauthorized,
     true, false, true, true, true, attempt_log::none, failure_log::once},
    {controller_call::syslog, "logging_post", request_method::post, 4, retry_on::unauthorized, true,
     false, true, true, false, attempt_log::sending, failure_log::once},
    // Every failure is tried again at once, with a new token, four times.
    {controller_call::command_answer, "send_command_status", request_method::post, 4,
     retry_on::any_failure, true, false, true, true, false, attempt_log::none,
     failure_log::each_attempt},
    {controller_call::refresh, "send_refresh_config", request_method::post, 2,
     retry_on::client_errors, true, true, true, true, true, attempt_log::none, failure_log::none},
    {controller_call::diagnostics, "collect_and_upload", request_method::multipart, 1,
     retry_on::nothing, false, false, true, false, false, attempt_log::none, failure_log::none},
    // The controller answers this one without a token.
    {controller_call::firmware_check, "check_updates", request_method::get, 1, retry_on::nothing,
     false, false, false, false, false, attempt_log::none, failure_log::none},
    // The token request carries the device's credentials instead.
    {controller_call::token, "get_access_token", request_method::post, 1, retry_on::nothing, false,
     false, false, false, false, attempt_log::none, failure_log::none},
};
const int controller_policy_count = sizeof(controller_policies) / sizeof(controller_policies[0]);

const controller_policy &policy_of(controller_call call)
{
    return controller_policies[static_cast<int>(call)];
}

std::string controller_url(const std::string &base, const std::string &path)
{
    // The one place that knows where the controller's API lives.
    return base + "/api" + path;
}

namespace
{

bool tried_again(retry_on retry, int result)
{
    switch (retry) {
    case retry_on::nothing:
        return false;
    case retry_on::unauthorized:
        return result == 401;
    case retry_on::client_errors:
        return result >= 400 && result <= 499;
    case retry_on::any_failure:
        return result != 0;
    }
    return false;
}

} // namespace

controller_result controller_request(controller_call call, const std::string &path,
                                     const char *body, int length, const char *upload,
                                     const char *extra)
{
    const controller_policy &p = policy_of(call);
    controller_result out;
    std::string base = get_cloud_controller();
    if (base.empty())
        return out;
    std::string url = controller_url(base, path);
    out.body.reset(alloc_reply());
    reply *r = out.body.get();
    std::string bearer;
    const char *headers[4] = {};
    for (int attempt = 0; attempt < p.attempts; attempt++) {
        if (p.bearer) {
            char token[ACCESS_TOKEN_SIZE];
            if (!get_access_token(token) && p.needs_token) {
                out.outcome = controller_result::no_token;
                health_request(call, out.outcome, out.result);
                return out;
            }
            bearer = std::string("Authorization: Bearer ") + token;
        }
        int h = 0;
        if (p.json && p.type_first)
            headers[h++] = "Content-Type: application/json";
        if (p.bearer)
            headers[h++] = bearer.c_str();
        if (p.json && !p.type_first)
            headers[h++] = "Content-Type: application/json";
        if (extra != nullptr)
            headers[h++] = extra;
        headers[h] = nullptr;
        if (p.before == attempt_log::sending)
            log_fprint(sys_log, "sending (retry = %d) %.*s\n", p.attempts - 1 - attempt, length,
                       body);
        r->length = 0;
        out.status = 0;
        out.attempts++;
        out.outcome = controller_result::done;
        switch (p.method) {
        case request_method::get:
            out.result =
                http_request(method::get, url.c_str(), nullptr, 0, headers, r, &out.status);
            break;
        case request_method::post:
            out.result =
                http_request(method::post, url.c_str(), body, length, headers, r, &out.status);
            break;
        case request_method::multipart:
            out.result = http_upload_file_multipart(url.c_str(), upload, headers);
            break;
        }
        if (out.result == 0)
            break;
        if (p.after == failure_log::each_attempt)
            log_fprint(orkad_log, "http_post err = %d, post = '%.*s', reply = '%.*s'\n", out.result,
                       length, body, r->length, r->data);
        if (!tried_again(p.retry, out.result))
            break;
        if (p.drop_token)
            invalidate_access_token();
    }
    if (out.result != 0 && p.after == failure_log::once)
        log_fprint(orkad_log, "%s: err = %d, reply = '%.*s'\n", p.who, out.result, r->length,
                   r->data);
    health_request(call, out.outcome, out.result);
    return out;
}

int controller_post(controller_call call, const std::string &path, const char *body, int length,
                    int not_sent)
{
    controller_result res = controller_request(call, path, body, length);
    return res.outcome == controller_result::done ? res.result : not_sent;
}

malloc_ptr<char> command_answer_body(const char *commandId, int code, const char *message,
                                     json_t *data)
{
    json_ptr item(json_object());
    json_ptr doc(json_object());
    json_ptr list(json_array());
    if (!item || !doc || !list)
        return nullptr;
    if (json_object_set_new(item.get(), "commandId", json_utf8_string(commandId)) != 0 ||
        json_object_set_new(item.get(), "code", json_integer(code)) != 0 ||
        json_object_set_new(item.get(), "message", json_utf8_string(message)) != 0 ||
        (data != nullptr && json_object_set(item.get(), "data", data) != 0) ||
        json_array_append(list.get(), item.get()) != 0 ||
        json_object_set(doc.get(), "response", list.get()) != 0)
        return nullptr;
    return malloc_ptr<char>(json_dumps(doc.get(), JSON_COMPACT | JSON_PRESERVE_ORDER));
}

int send_command_status(const char *path, const char *commandId, int code, const char *message,
                        json_t *data)
{
    std::string base = get_cloud_controller();
    if (base.empty())
        return 1;
    std::string url = controller_url(base, path);
    malloc_ptr<char> body = command_answer_body(commandId, code, message, data);
    size_t n = body ? strlen(body.get()) : 0;
    if (!body || n >= ANSWER_BODY_LIMIT) {
        log_fprint(cmd_log, "%s: reply to %s exceeded the buffer size %d\n", __func__, url.c_str(),
                   (int)ANSWER_BODY_LIMIT);
        return 1;
    }
    log_fprint(cmd_log, "%s: '%s'\n", url.c_str(), body.get());
    controller_result res =
        controller_request(controller_call::command_answer, path, body.get(), (int)n);
    // The controller went away between the two looks: nothing was sent.
    if (res.outcome != controller_result::done)
        return 1;
    return res.result;
}

void http_debug(int)
{
    int count;
    unsigned adds, full;
    queue_stats(free_replies, &count, &adds, &full);
    log_fprint(dbg_log, "free_replies: count=%d, adds=%u, full=%u\n", count, adds, full);
}
