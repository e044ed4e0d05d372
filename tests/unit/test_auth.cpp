// Access tokens against the lab controller over real HTTPS.
#include "auth.h"
#include "config.h"
#include "db.h"
#include "http.h"
#include "log.h"
#include "lsql.h"
#include "platform_utils.h"
#include "signals.h"
#include "testkit.h"

#include <algorithm>
#include <cstring>
#include <curl/curl.h>
#include <gtest/gtest.h>
#include <memory>
#include <thread>
#include <ctime>
#include <unistd.h>

using namespace testkit;

namespace
{

const char SERIAL[] = "VX0123456789"; // what lab/devroot.py puts in the boot environment

unsigned int no_sleep(unsigned int)
{
    return 0;
}

// Our own encoder, so the expectation does not come from the code under test.
std::string base64(const std::string &in)
{
    static const char abc[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    size_t i = 0;
    for (; i + 2 < in.size(); i += 3) {
        unsigned v =
            (unsigned char)in[i] << 16 | (unsigned char)in[i + 1] << 8 | (unsigned char)in[i + 2];
        out += {abc[v >> 18], abc[(v >> 12) & 63], abc[(v >> 6) & 63], abc[v & 63]};
    }
    if (i + 1 == in.size()) {
        unsigned v = (unsigned char)in[i] << 16;
        out += {abc[v >> 18], abc[(v >> 12) & 63], '=', '='};
    } else if (i + 2 == in.size()) {
        unsigned v = (unsigned char)in[i] << 16 | (unsigned char)in[i + 1] << 8;
        out += {abc[v >> 18], abc[(v >> 12) & 63], abc[(v >> 6) & 63], '='};
    }
    return out;
}

class AuthLabTest : public ::testing::Test
{
  protected:
    DeviceRoot root;
    std::unique_ptr<Lab> lab;

    void SetUp() override
    {
        ASSERT_TRUE(root.build());
        lab = std::make_unique<Lab>(root);
        log_init();
        signals_init();
        db_init();
        http_init();
        snprintf(env_serial, sizeof(env_serial), "%s", SERIAL);
        platform_sleep = no_sleep;
    }
    void TearDown() override { auth_time = time; }
    void use_controller()
    {
        config_set("system", nullptr, "cloud-controller", lab->base_url.c_str());
    }

    std::vector<std::string> main_log() { return log_messages(root.at("/rw/orkad.log")); }
    std::string main_log_text() { return read_file(root.at("/rw/orkad.log")); }
    bool logged(const std::string &line)
    {
        auto m = main_log();
        return std::find(m.begin(), m.end(), line) != m.end();
    }
    size_t token_requests() { return json_array_size(lab->requests({{"kind", "token"}}).get()); }
    // Fetches a token; returns it, with the result in *valid.
    std::string fetch(int *valid)
    {
        char token[ACCESS_TOKEN_SIZE];
        memset(token, 'x', sizeof(token));
        *valid = get_access_token(token);
        EXPECT_LT(strlen(token), sizeof(token));
        return token;
    }

    // A lifetime out of range is logged and taken as a minute; a minute is
    // still ahead, so the token is held.
    void expect_a_minute_for(const std::string &expires_in)
    {
        use_controller();
        lab->set_token(R"({"expires_in":)" + expires_in + "}");
        int valid;
        std::string token = fetch(&valid);
        EXPECT_EQ(valid, 1);
        EXPECT_FALSE(token.empty());
        EXPECT_TRUE(
            logged("get_access_token: expires_in (" + expires_in + ") is out of range, using 60"));
        EXPECT_EQ(fetch(&valid), token);
        EXPECT_EQ(token_requests(), 1u);
    }
};

} // namespace

TEST_F(AuthLabTest, LifetimeOfADayIsKept)
{
    use_controller();
    lab->set_token(R"({"expires_in":86400})");
    int valid;
    std::string first = fetch(&valid);
    EXPECT_EQ(valid, 1);
    Json issued = lab->tokens();
    ASSERT_EQ(json_array_size(issued.get()), 1u);
    EXPECT_EQ(first, json_str(json_array_get(issued.get(), 0), "token"));
    EXPECT_EQ(first.size(), 40u);

    // Held: the second call asks nobody.
    std::string second = fetch(&valid);
    EXPECT_EQ(valid, 1);
    EXPECT_EQ(second, first);
    EXPECT_EQ(token_requests(), 1u);
    EXPECT_EQ(main_log_text().find("out of range"), std::string::npos);
}

TEST_F(AuthLabTest, LifetimeAboveADayBecomesAMinute)
{
    expect_a_minute_for("86401");
}

TEST_F(AuthLabTest, NegativeLifetimeBecomesAMinute)
{
    expect_a_minute_for("-5");
}

TEST_F(AuthLabTest, LifetimeOfZeroIsStoredButExpiredAtOnce)
{
    use_controller();
    lab->set_token(R"({"expires_in":0})");
    int valid;
    std::string first = fetch(&valid);
    EXPECT_EQ(valid, 1);
    EXPECT_FALSE(first.empty());
    std::string second = fetch(&valid);
    EXPECT_EQ(valid, 1);
    EXPECT_NE(second, first);
    EXPECT_EQ(token_requests(), 2u);
}

TEST_F(AuthLabTest, LifetimeIsTheThirtyTwoBitsThatWereChecked)
{
    use_controller();
    // 2^32 passes the check as 0: stored, but already expired.
    lab->set_token(R"({"expires_in":4294967296})");
    int valid;
    std::string first = fetch(&valid);
    EXPECT_EQ(valid, 1);
    EXPECT_FALSE(first.empty());
    std::string second = fetch(&valid);
    EXPECT_EQ(valid, 1);
    EXPECT_NE(second, first);
    EXPECT_EQ(token_requests(), 2u);
    EXPECT_EQ(main_log_text().find("out of range"), std::string::npos);
}

TEST_F(AuthLabTest, LifetimeJustAboveThirtyTwoBitsLastsOneSecond)
{
    use_controller();
    // 2^32 + 1 passes the check as 1: the token must run out a second
    // after it was taken, not live for ever.
    lab->set_token(R"({"expires_in":4294967297})");
    auth_time = fake_time;
    const time_t taken = 1795262400; // 2026-11-21 12:00:00 UTC
    fake_now = taken;
    int valid;
    std::string first = fetch(&valid);
    EXPECT_EQ(valid, 1);
    ASSERT_FALSE(first.empty());
    // Good for the second it was taken in, and no longer.
    EXPECT_EQ(fetch(&valid), first);
    EXPECT_EQ(token_requests(), 1u);
    fake_now = taken + 1;
    std::string next = fetch(&valid);
    EXPECT_EQ(valid, 1);
    EXPECT_NE(next, first);
    EXPECT_EQ(token_requests(), 2u);
}

TEST_F(AuthLabTest, HourTakenBefore2038LastsItsHourAcrossTheWrap)
{
    use_controller();
    lab->set_token(R"({"expires_in":3600})");
    auth_time = fake_time;
    fake_now = Y2038_0300;
    int valid;
    std::string token = fetch(&valid);
    EXPECT_EQ(valid, 1);
    ASSERT_FALSE(token.empty());
    // Held through the last 32-bit second, the first one after it, and up
    // to the end of its hour: nobody is asked again.
    for (time_t t : {Y2038_LAST, Y2038_WRAP, Y2038_WRAP + 1, Y2038_0400 - 1}) {
        fake_now = t;
        EXPECT_EQ(fetch(&valid), token) << "at " << (long long)t;
        EXPECT_EQ(valid, 1);
    }
    EXPECT_EQ(token_requests(), 1u);
    // At 04:00:00 it has run out.
    fake_now = Y2038_0400;
    std::string next = fetch(&valid);
    EXPECT_EQ(valid, 1);
    EXPECT_NE(next, token);
    EXPECT_EQ(token_requests(), 2u);
    // The new one is good for an hour from then.
    fake_now = Y2038_0400 + 3599;
    EXPECT_EQ(fetch(&valid), next);
    fake_now = Y2038_0400 + 3600;
    EXPECT_NE(fetch(&valid), next);
    EXPECT_EQ(token_requests(), 3u);
}

TEST_F(AuthLabTest, TextLifetimeLeavesTheTokenUnstored)
{
    use_controller();
    lab->set_token(R"({"expires_in":"soon"})");
    int valid;
    EXPECT_EQ(fetch(&valid), "");
    EXPECT_EQ(valid, 0);
    auto m = main_log();
    auto wrong = std::find(m.begin(), m.end(), "expected integer type for 'expires_in' element");
    auto missing = std::find(m.begin(), m.end(), "missing or invalid 'expires_in' element");
    EXPECT_NE(wrong, m.end());
    EXPECT_NE(missing, m.end());
    EXPECT_LT(wrong, missing);
    // Nothing held: the next call asks again.
    fetch(&valid);
    EXPECT_EQ(token_requests(), 2u);
}

TEST_F(AuthLabTest, MissingLifetimeLeavesTheTokenUnstored)
{
    use_controller();
    lab->script(R"({"path":"/api/oauth/token","body":{"access_token":"abc"}})");
    int valid;
    EXPECT_EQ(fetch(&valid), "");
    EXPECT_EQ(valid, 0);
    EXPECT_EQ(main_log().back(), "missing or invalid 'expires_in' element");
}

TEST_F(AuthLabTest, TokenOf255CharactersIsStored)
{
    use_controller();
    lab->set_token(R"({"token_length":255})");
    int valid;
    std::string token = fetch(&valid);
    EXPECT_EQ(valid, 1);
    EXPECT_EQ(token.size(), 255u);
    EXPECT_EQ(token, json_str(json_array_get(lab->tokens().get(), 0), "token"));
}

TEST_F(AuthLabTest, TokenOf256CharactersIsRefused)
{
    use_controller();
    lab->set_token(R"({"token_length":256})");
    int valid;
    EXPECT_EQ(fetch(&valid), "");
    EXPECT_EQ(valid, 0);
    EXPECT_EQ(main_log().back(), "access token too large, should be less than 256 bytes");
}

TEST_F(AuthLabTest, MissingOrWrongTypedTokenIsNotStored)
{
    use_controller();
    lab->script(R"({"path":"/api/oauth/token","body":{"access_token":5,"expires_in":60}})");
    int valid;
    EXPECT_EQ(fetch(&valid), "");
    EXPECT_EQ(valid, 0);
    auto m = main_log();
    ASSERT_GE(m.size(), 2u);
    EXPECT_EQ(m[m.size() - 2], "expected string type for 'access_token' element");
    EXPECT_EQ(m.back(), "missing or invalid 'access_token' element");

    lab->script(R"({"path":"/api/oauth/token","body":{}})");
    EXPECT_EQ(fetch(&valid), "");
    EXPECT_EQ(main_log().back(), "missing or invalid 'access_token' element");
}

TEST_F(AuthLabTest, MessageMemberIsLogged)
{
    use_controller();
    lab->set_token(R"({"extra":{"message":"welcome back, switch"}})");
    int valid;
    fetch(&valid);
    EXPECT_EQ(valid, 1);
    EXPECT_TRUE(logged("message: welcome back, switch"));

    invalidate_access_token();
    lab->set_token(R"({"extra":{"message":42}})");
    fetch(&valid);
    EXPECT_EQ(valid, 1); // the token itself is fine
    EXPECT_TRUE(logged("expected string type for 'message' element"));
}

TEST_F(AuthLabTest, BodyThatIsNotJsonLogsTheDecodingError)
{
    use_controller();
    const std::string body = "this is {not json";
    lab->script(R"({"path":"/api/oauth/token","status":200,"text":")" + body + "\"}");
    json_error_t err;
    ASSERT_EQ(json_loadb(body.data(), body.size(), 0, &err), nullptr);
    int valid;
    EXPECT_EQ(fetch(&valid), "");
    EXPECT_EQ(valid, 0);
    std::string expected =
        " reply = '" + body + "'\nerror decoding oauth/token data: " + std::string(err.text) + "\n";
    EXPECT_NE(main_log_text().find(expected), std::string::npos) << main_log_text();
}

TEST_F(AuthLabTest, RefusalWithAnotherErrorChangesNothing)
{
    use_controller();
    lab->script(R"({"path":"/api/oauth/token","status":400,"body":{"error":"invalid_scope"}})");
    size_t before = main_log().size();
    int valid;
    EXPECT_EQ(fetch(&valid), "");
    EXPECT_EQ(valid, 0);
    EXPECT_EQ(main_log().size(), before);
    EXPECT_FALSE(file_exists(root.at("/rw/factory-reset.log")));
    // The next call is an ordinary fetch.
    EXPECT_FALSE(fetch(&valid).empty());
    EXPECT_EQ(valid, 1);
    EXPECT_EQ(token_requests(), 2u);
}

TEST_F(AuthLabTest, RefusalWithoutErrorOrJson)
{
    use_controller();
    lab->script(R"({"path":"/api/oauth/token","status":400,"body":{"error":7}})");
    int valid;
    fetch(&valid);
    EXPECT_EQ(valid, 0);
    EXPECT_EQ(main_log().back(), "get_access_token: Missing or invalid 'error' element in "
                                 "oauth/token response (response code == 400)");

    const std::string body = "<html>";
    lab->script(R"({"path":"/api/oauth/token","status":400,"text":")" + body + "\"}");
    json_error_t err;
    ASSERT_EQ(json_loadb(body.data(), body.size(), 0, &err), nullptr);
    fetch(&valid);
    EXPECT_EQ(valid, 0);
    EXPECT_NE(main_log_text().find(" reply = '" + body +
                                   "'\nerror decoding oauth/token response data: " + err.text +
                                   "\n"),
              std::string::npos);
    EXPECT_FALSE(file_exists(root.at("/rw/factory-reset.log")));
}

TEST_F(AuthLabTest, DeactivatedAccountResetsTheDevice)
{
    use_controller();
    lab->script(
        R"({"path":"/api/oauth/token","status":400,"body":{"error":"account_deactivated"}})");
    int valid;
    EXPECT_EQ(fetch(&valid), "");
    EXPECT_EQ(valid, 0);
    auto m = main_log();
    auto said = std::find(m.begin(), m.end(),
                          "get_access_token: received response code 401 with error = "
                          "'account_deactivated'");
    ASSERT_NE(said, m.end());
    ASSERT_NE(said + 1, m.end());
    EXPECT_EQ(*(said + 1), "get_access_token: performing 'factory-reset'...");
    EXPECT_EQ(lines_of(read_file(root.at("/rw/factory-reset.log"))).size(), 1u);
    // The settings database went with it.
    EXPECT_FALSE(file_exists(root.at("/etc/varnex/config/startup.db")));
}

TEST_F(AuthLabTest, ConcurrentCallersWithAnExpiredTokenMakeOneRequest)
{
    use_controller();
    // First a token that is expired by the time anyone asks again.
    lab->set_token(R"({"expires_in":0})");
    int valid;
    std::string old = fetch(&valid);
    ASSERT_EQ(valid, 1);
    ASSERT_EQ(token_requests(), 1u);

    lab->set_token(R"({"expires_in":3600})");
    // Slow enough that the second caller arrives while the first one waits.
    lab->script(R"({"path":"/api/oauth/token","delay":0.3})");
    std::string got[2];
    int ok[2] = {0, 0};
    std::thread a([&] { got[0] = fetch(&ok[0]); });
    std::thread b([&] { got[1] = fetch(&ok[1]); });
    a.join();
    b.join();
    EXPECT_EQ(ok[0], 1);
    EXPECT_EQ(ok[1], 1);
    EXPECT_EQ(got[0], got[1]);
    EXPECT_NE(got[0], old);
    EXPECT_EQ(token_requests(), 2u);
}

TEST_F(AuthLabTest, BasicCredentialsAreTheSerialTwice)
{
    use_controller();
    int valid;
    fetch(&valid);
    ASSERT_EQ(valid, 1);
    Json reqs = lab->requests({{"kind", "token"}});
    ASSERT_EQ(json_array_size(reqs.get()), 1u);
    json_t *rec = json_array_get(reqs.get(), 0);
    EXPECT_EQ(json_str(rec, "method"), "POST");
    EXPECT_EQ(json_str(rec, "path"), "/api/oauth/token");
    EXPECT_EQ(json_str(rec, "query"), "grant_type=client_credentials");
    EXPECT_EQ(json_str(rec, "body"), "");
    EXPECT_EQ(json_str(json_object_get(rec, "headers"), "authorization"),
              "Basic " + base64(std::string(SERIAL) + ":" + SERIAL));
    EXPECT_EQ(json_str(rec, "serial"), SERIAL);
}

TEST_F(AuthLabTest, NoControllerNoToken)
{
    int valid;
    EXPECT_EQ(fetch(&valid), "");
    EXPECT_EQ(valid, 0);
    EXPECT_EQ(main_log().back(), "get_access_token: controller not set yet!");
    EXPECT_EQ(queue_count(free_replies), 32);
    EXPECT_EQ(token_requests(), 0u);
}

TEST_F(AuthLabTest, InvalidateForcesANewRequest)
{
    use_controller();
    int valid;
    std::string first = fetch(&valid);
    EXPECT_EQ(fetch(&valid), first);
    EXPECT_EQ(token_requests(), 1u);
    invalidate_access_token();
    std::string second = fetch(&valid);
    EXPECT_EQ(valid, 1);
    EXPECT_NE(second, first);
    EXPECT_EQ(token_requests(), 2u);
    EXPECT_EQ(queue_count(free_replies), 32);
}

TEST_F(AuthLabTest, WrongCaFailsEveryRequest)
{
    use_controller();
    // Any bundle without the lab's CA will do: the system's.
    write_file(root.at("/etc/ca-bundle.pem"), read_file("/etc/ssl/certs/ca-certificates.crt"));
    int valid;
    EXPECT_EQ(fetch(&valid), "");
    EXPECT_EQ(valid, 0);

    std::string url = lab->base_url + "/api/heartbeat";
    reply *r = alloc_reply();
    EXPECT_EQ(http_get(url.c_str(), nullptr, r), 2);
    EXPECT_EQ(http_post(url.c_str(), "{}", 2, nullptr, r), 2);
    EXPECT_EQ(http_put(url.c_str(), "{}", 2, nullptr, r), 2);
    free_reply(r);
    lab->add_link("/response/t", "response");
    EXPECT_EQ(send_command_status("/response/t", "c1", 0, "", nullptr), 2);

    const std::string what = curl_easy_strerror(CURLE_PEER_FAILED_VERIFICATION);
    auto h = log_messages(root.at("/rw/http.log"));
    for (const char *fn : {"http_get", "http_post", "http_put"}) {
        char prefix[64];
        snprintf(prefix, sizeof(prefix), "%s: %08x ", fn, (unsigned)(uintptr_t)r);
        std::string p = prefix;
        EXPECT_NE(std::find(h.begin(), h.end(),
                            p + "curl_easy_perform() failed: (CURLcode = 60) " + what),
                  h.end())
            << fn;
        EXPECT_NE(std::find_if(h.begin(), h.end(),
                               [&](const std::string &s) {
                                   return s.rfind(p + "curl error-buffer = 'SSL certificate "
                                                      "problem: ",
                                                  0) == 0;
                               }),
                  h.end())
            << fn;
    }
    // Nothing reached the controller's API; the lab saw only failed handshakes.
    EXPECT_EQ(json_array_size(lab->requests().get()), 0u);
    EXPECT_GT(
        json_array_size(json_object_get(lab->call("GET", "/connection-errors").get(), "errors")),
        0u);
}

TEST_F(AuthLabTest, DeeplyNestedBodiesAreRefusedBeforeParsing)
{
    use_controller();
    const std::string body = std::string(3000, '[') + std::string(3000, ']');
    lab->script(R"({"path":"/api/oauth/token","status":200,"text":")" + body + "\"}");
    int valid;
    EXPECT_EQ(fetch(&valid), "");
    EXPECT_EQ(valid, 0);
    EXPECT_NE(main_log_text().find(" reply = '" + body +
                                   "'\nerror decoding oauth/token data: maximum parsing depth "
                                   "reached\n"),
              std::string::npos);

    lab->script(R"({"path":"/api/oauth/token","status":400,"text":")" + body + "\"}");
    fetch(&valid);
    EXPECT_EQ(valid, 0);
    EXPECT_NE(main_log_text().find(" reply = '" + body +
                                   "'\nerror decoding oauth/token response data: maximum parsing "
                                   "depth reached\n"),
              std::string::npos);
    EXPECT_FALSE(file_exists(root.at("/rw/factory-reset.log")));
    // The next ordinary reply is taken.
    EXPECT_FALSE(fetch(&valid).empty());
    EXPECT_EQ(valid, 1);
}
