#include "auth.h"

#include "config.h"
#include "health.h"
#include "http.h"
#include "log.h"
#include "platform_utils.h"
#include "raii.h"
#include "utils.h"

#include <cstdint>
#include <cstring>
#include <ctime>
#include <jansson.h>
#include <memory>
#include <mutex>

time_t (*auth_time)(time_t *now) = time;

namespace
{

constexpr int MAX_EXPIRES_IN = 86400;
constexpr int FALLBACK_EXPIRES_IN = 60;

std::mutex token_lock;
char access_token[ACCESS_TOKEN_SIZE];
bool token_valid;
time_t expires_at;
char *secret64; // made once, kept for the life of the process

void clear_token(void)
{
    access_token[0] = '\0';
    token_valid = false;
    expires_at = 0;
    health_token(false, 0);
}

void take_token(const reply *r)
{
    json_error_t err;
    json_ptr root(json_loadb_bounded(r->data, r->length, 0, &err));
    if (!root) {
        log_fprint(orkad_log, "reply = '%.*s'\nerror decoding oauth/token data: %s\n", r->length,
                   r->data, err.text);
        return;
    }
    const char *token = nullptr;
    long long expires_in = -1;
    const char *key;
    json_t *value;
    json_object_foreach(root.get(), key, value)
    {
        if (strcmp(key, "access_token") == 0) {
            if (json_is_string(value))
                token = json_string_value(value);
            else
                log_fprint(orkad_log, "expected string type for 'access_token' element\n");
        } else if (strcmp(key, "expires_in") == 0) {
            if (json_is_integer(value)) {
                expires_in = json_integer_value(value);
                // Compared unsigned, so negative lifetimes are out of range too.
                if ((uint32_t)expires_in > (uint32_t)MAX_EXPIRES_IN) {
                    log_fprint(orkad_log, "%s: expires_in (%d) is out of range, using %d\n",
                               "get_access_token", (int)expires_in, FALLBACK_EXPIRES_IN);
                    expires_in = FALLBACK_EXPIRES_IN;
                } else {
                    // Keep the lifetime that passed the check, not the wider
                    // number it came from: 4294967297 is one second, not ever.
                    expires_in = (uint32_t)expires_in;
                }
            } else {
                log_fprint(orkad_log, "expected integer type for 'expires_in' element\n");
            }
        } else if (strcmp(key, "message") == 0) {
            if (json_is_string(value))
                log_fprint(orkad_log, "message: %s\n", json_string_value(value));
            else
                log_fprint(orkad_log, "expected string type for 'message' element\n");
        }
    }
    if (token == nullptr) {
        log_fprint(orkad_log, "missing or invalid 'access_token' element\n");
    } else if (strlen(token) > ACCESS_TOKEN_SIZE - 1) {
        log_fprint(orkad_log, "access token too large, should be less than %d bytes\n",
                   ACCESS_TOKEN_SIZE);
    } else if (expires_in < 0) {
        log_fprint(orkad_log, "missing or invalid 'expires_in' element\n");
    } else {
        strcpy(access_token, token);
        token_valid = true;
        expires_at = auth_time(nullptr) + expires_in;
        health_token(true, expires_at);
    }
}

void check_refusal(const reply *r)
{
    json_error_t err;
    json_ptr root(json_loadb_bounded(r->data, r->length, 0, &err));
    if (!root) {
        log_fprint(orkad_log, "reply = '%.*s'\nerror decoding oauth/token response data: %s\n",
                   r->length, r->data, err.text);
        return;
    }
    json_t *error = json_object_get(root.get(), "error");
    if (!json_is_string(error)) {
        log_fprint(orkad_log,
                   "%s: Missing or invalid 'error' element in oauth/token response (response "
                   "code == 400)\n",
                   "get_access_token");
        return;
    }
    if (strcmp(json_string_value(error), "account_deactivated") == 0) {
        // The message has always said 401; operators grep for it as it is.
        log_fprint(orkad_log, "%s: received response code 401 with error = 'account_deactivated'\n",
                   "get_access_token");
        log_fprint(orkad_log, "%s: performing 'factory-reset'...\n", "get_access_token");
        platform_factory_reset();
    }
}

} // namespace

int get_access_token(char *token)
{
    std::lock_guard<std::mutex> hold(token_lock);
    if (token_valid && auth_time(nullptr) < expires_at) {
        strcpy(token, access_token);
        return 1;
    }
    clear_token();

    if (secret64 == nullptr) {
        char credentials[128];
        snprintf(credentials, sizeof(credentials), "%s:%s", env_serial, env_serial);
        secret64 = base64_encode(credentials, nullptr);
        if (secret64 == nullptr) {
            log_fprint(orkad_log, "%s: base64_encode returned NULL\n", __func__);
            token[0] = '\0';
            return 0;
        }
    }

    // The lock stays held across the request: one fetch, everyone else waits.
    std::string basic = std::string("Authorization: Basic ") + secret64;
    controller_result res =
        controller_request(controller_call::token, "/oauth/token?grant_type=client_credentials", "",
                           0, nullptr, basic.c_str());
    if (res.outcome == controller_result::no_controller) {
        log_fprint(orkad_log, "%s: controller not set yet!\n", __func__);
        token[0] = '\0';
        return 0;
    }
    if (res.result == 0)
        take_token(res.body.get());
    else if (res.result == 400)
        check_refusal(res.body.get());

    strcpy(token, access_token);
    return token_valid ? 1 : 0;
}

void invalidate_access_token(void)
{
    std::lock_guard<std::mutex> hold(token_lock);
    clear_token();
}
