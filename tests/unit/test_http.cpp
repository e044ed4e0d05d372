#include "auth.h"
#include "db.h"
#include "http.h"
#include "log.h"
#include "lsql.h"
#include "signals.h"
#include "testkit.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <gtest/gtest.h>
#include <thread>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace testkit;
using namespace std::chrono_literals;

namespace
{

class HttpTest : public DeviceTest
{
  protected:
    void SetUp() override
    {
        DeviceTest::SetUp();
        signals_init();
        db_init();
        http_init();
    }
    std::vector<std::string> http_lines() { return log_messages(root.at("/rw/http.log")); }
    std::vector<std::string> cmd_lines() { return log_messages(root.at("/rw/command.log")); }
};

// A port on loopback where nothing listens.
int closed_port()
{
    return 9; // discard: never served on a test machine's loopback
}

} // namespace

TEST_F(HttpTest, PoolHas32RepliesAndDumpsIt)
{
    EXPECT_EQ(queue_count(free_replies), 32);
    http_debug(SIGUSR1);
    auto d = log_messages(root.at("/tmp/debug.log"));
    EXPECT_EQ(d.back(), "free_replies: count=32, adds=0, full=0");
    reply *r = alloc_reply();
    EXPECT_EQ(r->length, 0);
    EXPECT_EQ(r->data, r->buffer);
    EXPECT_EQ(r->size, 1500);
    EXPECT_EQ(queue_count(free_replies), 31);
    free_reply(r);
    free_reply(nullptr);
    EXPECT_EQ(queue_count(free_replies), 32);
}

TEST_F(HttpTest, ReceiveGrowsExactly)
{
    reply *r = alloc_reply();
    std::string chunk(1500, 'a');
    EXPECT_EQ(ReceiveFn(chunk.data(), 1, 1500, r), 1500u);
    EXPECT_EQ(r->data, r->buffer);
    EXPECT_EQ(r->length, 1500);
    EXPECT_EQ(r->size, 1500);

    char one = 'b';
    EXPECT_EQ(ReceiveFn(&one, 1, 1, r), 1u);
    EXPECT_NE(r->data, r->buffer);
    EXPECT_EQ(r->size, 1501);
    EXPECT_EQ(r->length, 1501);
    EXPECT_EQ(r->data[1500], 'b');
    EXPECT_EQ(memcmp(r->data, chunk.data(), 1500), 0);

    std::string more(10, 'c');
    EXPECT_EQ(ReceiveFn(more.data(), 2, 5, r), 10u);
    EXPECT_EQ(r->size, 1511);
    EXPECT_EQ(r->length, 1511);
    EXPECT_EQ(r->data[1510], 'c');
    free_reply(r);

    // The next borrower starts inline again.
    reply *again = alloc_reply();
    EXPECT_EQ(again, r);
    EXPECT_EQ(again->data, again->buffer);
    EXPECT_EQ(again->size, 1500);
    free_reply(again);
}

TEST_F(HttpTest, ThirtyThirdBorrowerWaits)
{
    std::vector<reply *> lent;
    for (int i = 0; i < 32; i++)
        lent.push_back(alloc_reply());
    std::atomic<reply *> got{nullptr};
    std::thread t([&] { got = alloc_reply(); });
    // The borrower says, in the debug log, that it waits on the empty pool.
    EXPECT_TRUE(wait_for([this] {
        for (const std::string &line : log_messages(root.at("/tmp/debug.log")))
            if (line.rfind("queue_get: wait 'not_empty'", 0) == 0 &&
                line.find("'free_replies')") != std::string::npos)
                return true;
        return false;
    }));
    EXPECT_EQ(got.load(), nullptr);
    free_reply(lent[7]);
    t.join();
    EXPECT_EQ(got.load(), lent[7]);
}

TEST_F(HttpTest, ConnectionRefusedIsTwoAndLogged)
{
    reply *r = alloc_reply();
    std::string url = "http://127.0.0.1:" + std::to_string(closed_port()) + "/api/x";
    EXPECT_EQ(http_get(url.c_str(), nullptr, r), 2);
    const char *hdrs[] = {"X-A: 1", nullptr};
    EXPECT_EQ(http_post(url.c_str(), "{}", 2, hdrs, r), 2);
    EXPECT_EQ(http_put(url.c_str(), "{}", 2, nullptr, r), 2);
    auto h = http_lines();
    char prefix[64];
    snprintf(prefix, sizeof(prefix), "http_get: %08x ", (unsigned)(uintptr_t)r);
    std::string p(prefix);
    EXPECT_NE(std::find(h.begin(), h.end(), p + "url = '" + url + "'"), h.end());
    EXPECT_NE(
        std::find(h.begin(), h.end(),
                  p + "curl_easy_perform() failed: (CURLcode = 7) Couldn't connect to server"),
        h.end());
    auto eb = std::find_if(h.begin(), h.end(), [&](const std::string &s) {
        return s.rfind(p + "curl error-buffer = 'Failed to connect to 127.0.0.1 port 9", 0) == 0;
    });
    EXPECT_NE(eb, h.end());
    snprintf(prefix, sizeof(prefix), "http_post: %08x ", (unsigned)(uintptr_t)r);
    p = prefix;
    EXPECT_NE(std::find(h.begin(), h.end(), p + "l = 2, data = '{}'"), h.end());
    EXPECT_NE(std::find(h.begin(), h.end(), p + "header 'X-A: 1'"), h.end());
    EXPECT_NE(std::find(h.begin(), h.end(), "http_put: url = '" + url + "'"), h.end());
    EXPECT_NE(std::find(h.begin(), h.end(), "http_post: l = 2, data = '{}'"), h.end());
    free_reply(r);
}

TEST_F(HttpTest, PutLogsAtMost400Characters)
{
    reply *r = alloc_reply();
    std::string body(401, 'x');
    std::string url = "http://127.0.0.1:9/p";
    http_put(url.c_str(), body.c_str(), (int)body.size(), nullptr, r);
    auto h = http_lines();
    EXPECT_NE(std::find(h.begin(), h.end(),
                        "http_post: l = 401, data = '" + std::string(400, 'x') + "...'"),
              h.end());
    free_reply(r);
}

TEST_F(HttpTest, NoControllerMeansNoStatusAndNoReplyTaken)
{
    EXPECT_EQ(get_cloud_controller(), "");
    EXPECT_EQ(send_command_status("/heartbeat", "c1", 0, "", nullptr), 1);
    EXPECT_EQ(queue_count(free_replies), 32);
    EXPECT_EQ(file_size(root.at("/rw/command.log")),
              (long)read_file(root.at("/rw/command.log")).size());
    EXPECT_EQ(cmd_lines().size(), 1u); // the banner only
    // An empty setting counts as none.
    config_set("system", nullptr, "cloud-controller", "");
    EXPECT_EQ(get_cloud_controller(), "");
    config_set("system", nullptr, "cloud-controller", "https://c.example");
    EXPECT_EQ(get_cloud_controller(), "https://c.example");
}

// Callers keep the returned URL across blocking requests while other threads
// look the controller up again, after phone-home may have changed it.
TEST_F(HttpTest, ControllerUrlStaysPutWhileAnotherThreadLooksItUp)
{
    config_set("system", nullptr, "cloud-controller", "https://first.example");
    std::string mine = get_cloud_controller();
    std::atomic<int> lookups{0};
    std::thread other([&lookups] {
        config_set("system", nullptr, "cloud-controller", "https://second.example:8443");
        for (int i = 0; i < 50; i++)
            if (get_cloud_controller() == "https://second.example:8443")
                lookups++;
    });
    other.join();
    EXPECT_EQ(lookups, 50);
    EXPECT_EQ(mine, "https://first.example");
    // Its next look-up sees the change.
    EXPECT_EQ(get_cloud_controller(), "https://second.example:8443");
}

TEST_F(HttpTest, AControllerOf2KiBIsUsedWhole)
{
    std::string base = "https://c.example/" + std::string(2048 - 18, 'p');
    config_set("system", nullptr, "cloud-controller", base.c_str());
    EXPECT_EQ(get_cloud_controller(), base);
    EXPECT_EQ(controller_url(get_cloud_controller(), "/heartbeat"), base + "/api/heartbeat");
}

TEST_F(HttpTest, OversizeStatusIsRefusedAndTakesNoReply)
{
    config_set("system", nullptr, "cloud-controller", "http://127.0.0.1:9");
    // {"response":[{"commandId":"c","code":0,"message":"..."}]} is 54 bytes
    // around the message.
    std::string message(512 - 54, 'm');
    EXPECT_EQ(send_command_status("/r", "c", 0, message.c_str(), nullptr), 1);
    EXPECT_EQ(cmd_lines().back(),
              "send_command_status: reply to http://127.0.0.1:9/api/r exceeded the buffer size "
              "512");
    EXPECT_EQ(queue_count(free_replies), 32);
}

TEST_F(HttpTest, DownloadToUnwritablePathTriesOnce)
{
    EXPECT_EQ(http_download_file("http://127.0.0.1:9/img", "/nonexistent/dir/file"), -1);
    auto m = main_log();
    EXPECT_EQ(m.back(), "http_download_file: unable to open file '/nonexistent/dir/file' for "
                        "writing (No such file or directory)");
    EXPECT_EQ(m[m.size() - 2], "http_download_file: filename = '/nonexistent/dir/file', url = "
                               "'http://127.0.0.1:9/img'");
}

TEST_F(HttpTest, DownloadFailingThreeTimes)
{
    write_file(root.at("/tmp/updates.tar"), "old contents");
    EXPECT_EQ(http_download_file("http://127.0.0.1:9/img", "/tmp/updates.tar"), -1);
    auto m = main_log();
    EXPECT_EQ(std::count(m.begin(), m.end(), "http_download_file: done!  err = 7"), 3);
    auto h = http_lines();
    EXPECT_EQ(std::count(h.begin(), h.end(),
                         "http_download_file: curl_easy_perform() failed: (CURLcode = 7) "
                         "Couldn't connect to server"),
              3);
    // Every attempt truncated the file.
    EXPECT_EQ(file_size(root.at("/tmp/updates.tar")), 0);
}

// Each download attempt must start from an empty file: a server that sees, at
// every connection, how long the file is, then sends a short part of a
// longer body and hangs up, so that every attempt leaves bytes behind.
TEST_F(HttpTest, EachOfTheThreeDownloadAttemptsTruncatesTheFile)
{
    const std::string path = root.at("/tmp/updates.tar");
    write_file(path, "old contents");
    int s = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(s, 0);
    struct sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(s, (struct sockaddr *)&a, sizeof(a)), 0);
    socklen_t len = sizeof(a);
    ASSERT_EQ(getsockname(s, (struct sockaddr *)&a, &len), 0);
    ASSERT_EQ(listen(s, 4), 0);
    std::vector<long> seen;
    std::thread server([&] {
        for (int n = 1; n <= 3; n++) {
            int c = accept(s, nullptr, nullptr);
            if (c < 0)
                return;
            std::string req;
            char buf[1024];
            while (req.find("\r\n\r\n") == std::string::npos) {
                ssize_t got = recv(c, buf, sizeof(buf), 0);
                if (got <= 0)
                    break;
                req.append(buf, (size_t)got);
            }
            struct stat st;
            seen.push_back(stat(path.c_str(), &st) == 0 ? (long)st.st_size : -1);
            std::string part = "part-" + std::to_string(n) + std::string(n * 10, 'x');
            std::string answer =
                "HTTP/1.1 200 OK\r\nContent-Length: 1000\r\nConnection: close\r\n\r\n" + part;
            (void)!send(c, answer.data(), answer.size(), MSG_NOSIGNAL);
            close(c);
        }
    });
    std::string url = "http://127.0.0.1:" + std::to_string(ntohs(a.sin_port)) + "/img";
    EXPECT_EQ(http_download_file(url.c_str(), "/tmp/updates.tar"), -1);
    server.join();
    close(s);
    // Attempt 1 found the old contents gone, attempts 2 and 3 the part the
    // attempt before had written.
    EXPECT_EQ(seen, (std::vector<long>{0, 0, 0}));
    EXPECT_EQ(read_file(path), "part-3" + std::string(30, 'x'));
    auto m = main_log();
    EXPECT_EQ(std::count(m.begin(), m.end(), "http_download_file: done!  err = 18"), 3);
}

TEST_F(HttpTest, UploadOfMissingFileFails)
{
    EXPECT_EQ(http_upload_file("http://127.0.0.1:9/u", "/tmp/none", nullptr), -1);
    EXPECT_EQ(main_log().back(),
              "http_upload_file: unable to open file '/tmp/none' (No such file or directory)");
    EXPECT_EQ(http_upload_file_multipart("http://127.0.0.1:9/u", "/tmp/none", nullptr), -1);
    EXPECT_EQ(main_log().back(), "http_upload_file_multipart: unable to open file '/tmp/none' "
                                 "(No such file or directory)");
}

TEST_F(HttpTest, ReplyJsonDecodesTheBodyOrSaysWhyNot)
{
    reply_ptr r(alloc_reply());
    const char good[] = "{\"totalCount\":1}";
    ASSERT_EQ(ReceiveFn((void *)good, 1, strlen(good), r.get()), strlen(good));
    json_ptr root = reply_json(r.get(), "heartbeat");
    ASSERT_TRUE(root);
    EXPECT_EQ(json_integer_value(json_object_get(root.get(), "totalCount")), 1);

    r->length = 0;
    const char bad[] = "{\"totalCount\":";
    ASSERT_EQ(ReceiveFn((void *)bad, 1, strlen(bad), r.get()), strlen(bad));
    EXPECT_FALSE(reply_json(r.get(), "phone-home"));
    EXPECT_EQ(main_log().back().rfind("error decoding phone-home data: ", 0), 0u);
}

TEST_F(HttpTest, StatusOf511BytesIsSentAndFourFailuresGiveTheLastResult)
{
    config_set("system", nullptr, "cloud-controller", "http://127.0.0.1:9");
    std::string message(511 - 54, 'm');
    EXPECT_EQ(send_command_status("/r", "c", 0, message.c_str(), nullptr), 2);
    std::string body =
        "{\"response\":[{\"commandId\":\"c\",\"code\":0,\"message\":\"" + message + "\"}]}";
    ASSERT_EQ(body.size(), 511u);
    EXPECT_EQ(cmd_lines().back(), "http://127.0.0.1:9/api/r: '" + body + "'");
    auto m = main_log();
    EXPECT_EQ(
        std::count(m.begin(), m.end(), "http_post err = 2, post = '" + body + "', reply = ''"), 4);
    // The reply went back to the pool.
    EXPECT_EQ(queue_count(free_replies), 32);
}

// ---- against the lab controller over real HTTPS ---------------------------

#include "config.h"

#include <curl/curl.h>
#include <memory>

namespace
{

std::string base64_of(const std::string &in)
{
    static const char abc[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    for (size_t i = 0; i < in.size(); i += 3) {
        unsigned v = (unsigned char)in[i] << 16;
        if (i + 1 < in.size())
            v |= (unsigned char)in[i + 1] << 8;
        if (i + 2 < in.size())
            v |= (unsigned char)in[i + 2];
        out += abc[v >> 18];
        out += abc[(v >> 12) & 63];
        out += i + 1 < in.size() ? abc[(v >> 6) & 63] : '=';
        out += i + 2 < in.size() ? abc[v & 63] : '=';
    }
    return out;
}

class HttpLabTest : public HttpTest
{
  protected:
    std::unique_ptr<Lab> lab;
    void SetUp() override
    {
        HttpTest::SetUp();
        if (HasFatalFailure())
            return;
        lab = std::make_unique<Lab>(root);
        config_set("system", nullptr, "cloud-controller", lab->base_url.c_str());
        snprintf(env_serial, sizeof(env_serial), "%s", "VX0123456789");
        lab->add_link("/response/t", "response");
    }
    std::string url(const std::string &path) { return lab->base_url + path; }
    static std::string prefix(const char *fn, const reply *r)
    {
        char p[64];
        snprintf(p, sizeof(p), "%s: %08x ", fn, (unsigned)(uintptr_t)r);
        return p;
    }
    bool has(const std::vector<std::string> &lines, const std::string &line)
    {
        return std::find(lines.begin(), lines.end(), line) != lines.end();
    }
    std::string token()
    {
        char t[256];
        EXPECT_EQ(get_access_token(t), 1);
        return t;
    }
    json_t *only(const Json &array)
    {
        EXPECT_EQ(json_array_size(array.get()), 1u) << json_text(array.get());
        return json_array_get(array.get(), 0);
    }
    size_t count_of(const Lab::Query &filters)
    {
        return json_array_size(lab->requests(filters).get());
    }
};

// The value of the first raw header with that name, and its position.
std::pair<int, std::string> raw_header(json_t *rec, const std::string &name)
{
    json_t *list = json_object_get(rec, "raw_headers");
    for (size_t i = 0; i < json_array_size(list); i++) {
        json_t *h = json_array_get(list, i);
        if (strcasecmp(json_string_value(json_array_get(h, 0)), name.c_str()) == 0)
            return {(int)i, json_string_value(json_array_get(h, 1))};
    }
    return {-1, ""};
}

} // namespace

TEST_F(HttpLabTest, NoContentIsSuccess)
{
    lab->script(R"({"path":"/api/x","status":204,"count":2})");
    reply *r = alloc_reply();
    EXPECT_EQ(http_get(url("/api/x").c_str(), nullptr, r), 0);
    EXPECT_EQ(r->length, 0);
    EXPECT_EQ(http_post(url("/api/x").c_str(), "{}", 2, nullptr, r), 0);
    auto h = http_lines();
    EXPECT_TRUE(has(h, prefix("http_get", r) + "response code = 204"));
    EXPECT_TRUE(has(h, prefix("http_post", r) + "response code = 204"));
    free_reply(r);
}

TEST_F(HttpLabTest, StatusOutsideSuccessIsTheResult)
{
    lab->script(R"({"path":"/api/x","status":300,"body":{"choices":[]},"count":2})");
    reply *r = alloc_reply();
    EXPECT_EQ(http_get(url("/api/x").c_str(), nullptr, r), 300);
    EXPECT_EQ(std::string(r->data, r->length), "{\"choices\":[]}");
    r->length = 0;
    EXPECT_EQ(http_post(url("/api/x").c_str(), "{}", 2, nullptr, r), 300);
    // An unknown resource: the controller's own 404.
    r->length = 0;
    EXPECT_EQ(http_get(url("/api/nowhere").c_str(), nullptr, r), 404);
    EXPECT_EQ(std::string(r->data, r->length), R"({"error":"not found","path":"/api/nowhere"})");
    free_reply(r);
}

// A final status of 199 never reaches the daemon: curl takes every 1xx
// status line as an interim answer and reads on for the real one. The body
// that follows is then read as a status line, which curl refuses as
// HTTP/0.9, so the transfer fails and the caller gets 2, not 199.
TEST_F(HttpLabTest, Status199IsATransportFailureUnderCurl)
{
    lab->script(R"({"path":"/api/x","status":199,"body":{"a":1}})");
    reply *r = alloc_reply();
    EXPECT_EQ(http_get(url("/api/x").c_str(), nullptr, r), 2);
    auto h = http_lines();
    EXPECT_TRUE(has(h, prefix("http_get", r) + "curl_easy_perform() failed: (CURLcode = 1) " +
                           curl_easy_strerror(CURLE_UNSUPPORTED_PROTOCOL)));
    EXPECT_TRUE(has(h, prefix("http_get", r) + "curl error-buffer = 'Received HTTP/0.9 when not "
                                               "allowed'"));
    free_reply(r);
}

TEST_F(HttpLabTest, BodyIsReceivedAndLoggedExactly)
{
    const std::string body = R"({"hello":"world","n":[1,2,3]})";
    lab->script(R"({"path":"/api/x","text":")" +
                std::string(R"({\"hello\":\"world\",\"n\":[1,2,3]})") + "\"}");
    reply *r = alloc_reply();
    std::string u = url("/api/x?a=1");
    EXPECT_EQ(http_get(u.c_str(), nullptr, r), 0);
    EXPECT_EQ(std::string(r->data, r->length), body);
    EXPECT_EQ(r->data, r->buffer);
    auto h = http_lines();
    std::string p = prefix("http_get", r);
    auto at = std::find(h.begin(), h.end(), p + "url = '" + u + "'");
    ASSERT_NE(at, h.end());
    ASSERT_GE(h.end() - at, 3);
    EXPECT_EQ(at[1], p + "reply = '" + body + "'");
    EXPECT_EQ(at[2], p + "response code = 200");
    Json rec = lab->requests({{"path", "/api/x"}});
    EXPECT_EQ(json_str(only(rec), "method"), "GET");
    EXPECT_EQ(json_str(only(rec), "query"), "a=1");
    free_reply(r);
}

TEST_F(HttpLabTest, LargeBodyMovesToTheHeap)
{
    std::string body(5000, 'z');
    lab->script(R"({"path":"/api/x","text":")" + body + "\"}");
    reply *r = alloc_reply();
    EXPECT_EQ(http_get(url("/api/x").c_str(), nullptr, r), 0);
    EXPECT_EQ(r->length, 5000);
    EXPECT_NE(r->data, r->buffer);
    EXPECT_EQ(r->size, 5000); // grown to exactly what arrived
    EXPECT_EQ(std::string(r->data, r->length), body);
    EXPECT_TRUE(has(http_lines(), prefix("http_get", r) + "reply = '" + body + "'"));
    free_reply(r);
}

TEST_F(HttpLabTest, PostCarriesBodyAndHeaders)
{
    std::string bearer = "Authorization: Bearer " + token();
    const char *hdrs[] = {bearer.c_str(), "Content-Type: application/json", "X-Probe: 7", nullptr};
    const std::string body = R"({"ports":[{"id":"1"}]})";
    reply *r = alloc_reply();
    std::string u = url("/api/status");
    EXPECT_EQ(http_post(u.c_str(), body.c_str(), (int)body.size(), hdrs, r), 0);
    EXPECT_EQ(std::string(r->data, r->length), "{}");
    Json recs = lab->requests({{"path", "/api/status"}});
    json_t *rec = only(recs);
    EXPECT_EQ(json_str(rec, "method"), "POST");
    EXPECT_EQ(json_str(rec, "body"), body);
    EXPECT_EQ(raw_header(rec, "X-Probe").second, "7");
    EXPECT_EQ(json_integer_value(json_object_get(rec, "status")), 200);

    auto h = http_lines();
    std::string p = prefix("http_post", r);
    auto at = std::find(h.begin(), h.end(), p + "url = '" + u + "'");
    ASSERT_NE(at, h.end());
    ASSERT_GE(h.end() - at, 7);
    EXPECT_EQ(at[1], p + "l = " + std::to_string(body.size()) + ", data = '" + body + "'");
    EXPECT_EQ(at[2], p + "header '" + bearer + "'");
    EXPECT_EQ(at[3], p + "header 'Content-Type: application/json'");
    EXPECT_EQ(at[4], p + "header 'X-Probe: 7'");
    EXPECT_EQ(at[5], p + "reply = '{}'");
    EXPECT_EQ(at[6], p + "response code = 200");
    free_reply(r);
}

TEST_F(HttpLabTest, PutCarriesItsBodyAndLogsWithThePostWording)
{
    std::string bearer = "Authorization: Bearer " + token();
    const char *hdrs[] = {bearer.c_str(), "Content-Type: application/json", nullptr};
    const std::string body = R"({"a":1})";
    reply *r = alloc_reply();
    std::string u = url("/api/statistics");
    EXPECT_EQ(http_put(u.c_str(), body.c_str(), (int)body.size(), hdrs, r), 0);
    Json recs = lab->requests({{"path", "/api/statistics"}});
    EXPECT_EQ(json_str(only(recs), "method"), "PUT");
    EXPECT_EQ(json_str(only(recs), "body"), body);
    auto h = http_lines();
    auto at = std::find(h.begin(), h.end(), "http_put: url = '" + u + "'");
    ASSERT_NE(at, h.end());
    ASSERT_GE(h.end() - at, 5);
    EXPECT_EQ(at[1], "http_post: l = 7, data = '" + body + "'");
    EXPECT_EQ(at[2], "http_post: header '" + bearer + "'");
    EXPECT_EQ(at[3], "http_post: header 'Content-Type: application/json'");
    EXPECT_EQ(at[4], "reply = '{}'");

    // Refused: the main log hears of it too.
    r->length = 0;
    std::string nowhere = url("/api/nowhere");
    EXPECT_EQ(http_put(nowhere.c_str(), body.c_str(), (int)body.size(), hdrs, r), 404);
    EXPECT_NE(read_file(root.at("/rw/orkad.log"))
                  .find(" POST '" + nowhere + "'\nreceived unexpected response code 404\n"),
              std::string::npos);
    EXPECT_EQ(main_log().back(), R"(reply = '{"error":"not found","path":"/api/nowhere"}')");
    free_reply(r);
}

TEST_F(HttpLabTest, CommandStatusWithoutData)
{
    EXPECT_EQ(send_command_status("/response/t", "lab-7", -1, "port 3 is gone", nullptr), 0);
    const std::string body =
        R"({"response":[{"commandId":"lab-7","code":-1,"message":"port 3 is gone"}]})";
    Json res = lab->results();
    json_t *r = only(res);
    EXPECT_EQ(json_str(r, "body"), body);
    EXPECT_EQ(json_str(r, "path"), "/api/response/t");
    EXPECT_TRUE(json_is_true(json_object_get(r, "valid_json")));
    EXPECT_EQ(json_str(r, "commandId"), "lab-7");
    EXPECT_EQ(json_integer_value(json_object_get(r, "code")), -1);
    EXPECT_EQ(json_str(r, "message"), "port 3 is gone");
    EXPECT_EQ(json_object_get(r, "data"), nullptr);
    EXPECT_EQ(cmd_lines().back(), lab->base_url + "/api/response/t: '" + body + "'");
    EXPECT_EQ(queue_count(free_replies), 32);
}

TEST_F(HttpLabTest, CommandStatusWithData)
{
    json_t *data = json_loads(R"({"ports":[1,2]})", 0, nullptr);
    EXPECT_EQ(send_command_status("/response/t", "lab-8", 0, "", data), 0);
    json_decref(data);
    Json res = lab->results();
    json_t *r = only(res);
    EXPECT_EQ(
        json_str(r, "body"),
        R"({"response":[{"commandId":"lab-8","code":0,"message":"","data":{"ports":[1,2]}}]})");
    EXPECT_EQ(json_text(json_object_get(r, "data")), R"({"ports":[1,2]})");
    EXPECT_EQ(json_integer_value(json_object_get(r, "code")), 0);
}

TEST_F(HttpLabTest, CommandStatusCarriesHostileTextsExactlyAsJson)
{
    // An id and a message with quotes, backslashes, control characters and
    // bytes that are not UTF-8: the answer is JSON and carries them, the
    // bad bytes replaced by U+FFFD each.
    const std::string id = "lab\"9\\x";
    const std::string message = "bad \"name\" C:\\temp\\new\t\x01 \xff\xfe end \xc3\xa9";
    EXPECT_EQ(send_command_status("/response/t", id.c_str(), -1, message.c_str(), nullptr), 0);
    Json res = lab->results();
    json_t *r = only(res);
    EXPECT_TRUE(json_is_true(json_object_get(r, "valid_json")));
    EXPECT_EQ(json_str(r, "commandId"), id);
    EXPECT_EQ(json_str(r, "message"),
              "bad \"name\" C:\\temp\\new\t\x01 \xef\xbf\xbd\xef\xbf\xbd end \xc3\xa9");
    EXPECT_EQ(json_str(r, "body"),
              R"({"response":[{"commandId":"lab\"9\\x","code":-1,"message":"bad \"name\" )"
              R"(C:\\temp\\new\t\u0001 )"
              "\xef\xbf\xbd\xef\xbf\xbd end \xc3\xa9\"}]}");
    EXPECT_EQ(queue_count(free_replies), 32);
}

TEST_F(HttpLabTest, AHundredFailedAnswersLeaveThePoolWhole)
{
    const std::string lab_url = lab->base_url;
    const std::string big(600, 'm');
    for (int i = 0; i < 100; i++) {
        std::string id = "fail-" + std::to_string(i);
        switch (i % 6) {
        case 0: // the controller fails every attempt
            lab->script(R"({"path":"/api/response/t","status":500,"count":4})");
            EXPECT_EQ(send_command_status("/response/t", id.c_str(), 0, "", nullptr), 500);
            break;
        case 1: // the token is refused every time
            lab->script(R"({"path":"/api/response/t","status":401,"count":4})");
            EXPECT_EQ(send_command_status("/response/t", id.c_str(), 0, "", nullptr), 401);
            break;
        case 2: // a client error
            lab->script(R"({"path":"/api/response/t","status":404,"count":4})");
            EXPECT_EQ(send_command_status("/response/t", id.c_str(), 0, "", nullptr), 404);
            break;
        case 3: // too large to send
            EXPECT_EQ(send_command_status("/response/t", id.c_str(), 0, big.c_str(), nullptr), 1);
            break;
        case 4: // nobody listening
            config_set("system", nullptr, "cloud-controller", "https://127.0.0.1:9");
            EXPECT_EQ(send_command_status("/response/t", id.c_str(), 0, "", nullptr), 2);
            config_set("system", nullptr, "cloud-controller", lab_url.c_str());
            break;
        case 5: // no controller at all
            config_set("system", nullptr, "cloud-controller", "");
            EXPECT_EQ(send_command_status("/response/t", id.c_str(), 0, "", nullptr), 1);
            config_set("system", nullptr, "cloud-controller", lab_url.c_str());
            break;
        }
        ASSERT_EQ(queue_count(free_replies), 32) << "after failure " << i;
    }
    EXPECT_EQ(json_array_size(lab->results().get()), 0u);
}

// ---- the policy table ------------------------------------------------------

TEST(HttpPolicyTest, EveryRowIsWhatItsCallerDoes)
{
    struct row {
        controller_call call;
        const char *who;
        request_method method;
        int attempts;
        retry_on retry;
        bool drop, needs_token, bearer, json, type_first;
        attempt_log before;
        failure_log after;
    };
    const row want[] = {
        {controller_call::heartbeat, "heartbeat_pulse", request_method::post, 2,
         retry_on::client_errors, true, true, true, true, false, attempt_log::none,
         failure_log::none},
        {controller_call::status, "status_post", request_method::post, 4, retry_on::unauthorized,
         true, false, true, true, true, attempt_log::sending, failure_log::once},
        {controller_call::statistics, "stats_post", request_method::post, 3, retry_on::unauthorized,
         true, false, true, true, true, attempt_log::none, failure_log::once},
        {controller_call::syslog, "logging_post", request_method::post, 4, retry_on::unauthorized,
         true, false, true, true, false, attempt_log::sending, failure_log::once},
        {controller_call::command_answer, "send_command_status", request_method::post, 4,
         retry_on::any_failure, true, false, true, true, false, attempt_log::none,
         failure_log::each_attempt},
        {controller_call::refresh, "send_refresh_config", request_method::post, 2,
         retry_on::client_errors, true, true, true, true, true, attempt_log::none,
         failure_log::none},
        {controller_call::diagnostics, "collect_and_upload", request_method::multipart, 1,
         retry_on::nothing, false, false, true, false, false, attempt_log::none, failure_log::none},
        {controller_call::firmware_check, "check_updates", request_method::get, 1,
         retry_on::nothing, false, false, false, false, false, attempt_log::none,
         failure_log::none},
        {controller_call::token, "get_access_token", request_method::post, 1, retry_on::nothing,
         false, false, false, false, false, attempt_log::none, failure_log::none},
    };
    ASSERT_EQ(controller_policy_count, (int)(sizeof(want) / sizeof(want[0])));
    for (const row &w : want) {
        const controller_policy &p = policy_of(w.call);
        SCOPED_TRACE(w.who);
        EXPECT_EQ(p.call, w.call);
        EXPECT_STREQ(p.who, w.who);
        EXPECT_EQ(p.method, w.method);
        EXPECT_EQ(p.attempts, w.attempts);
        EXPECT_EQ(p.retry, w.retry);
        EXPECT_EQ(p.drop_token, w.drop);
        EXPECT_EQ(p.needs_token, w.needs_token);
        EXPECT_EQ(p.bearer, w.bearer);
        EXPECT_EQ(p.json, w.json);
        EXPECT_EQ(p.type_first, w.type_first);
        EXPECT_EQ(p.before, w.before);
        EXPECT_EQ(p.after, w.after);
    }
}

// Each JSON-posting row against a controller that keeps failing with one
// status: how many requests, how many tokens, what comes back.
struct policy_case {
    controller_call call;
    int status;
    unsigned requests; // made to the path
    unsigned tokens;   // token requests: one for each attempt when the last was dropped
};

class HttpPolicyLabTest : public HttpLabTest, public ::testing::WithParamInterface<policy_case>
{
};

TEST_P(HttpPolicyLabTest, RetriesWhatItsRowSaysAndDropsTheTokenBetween)
{
    const policy_case &c = GetParam();
    const controller_policy &p = policy_of(c.call);
    lab->script(R"({"path":"/api/p/x","status":)" + std::to_string(c.status) +
                R"(,"count":8,"body":{"error":"no"}})");
    controller_result res = controller_request(c.call, "/p/x", "{}", 2);
    EXPECT_EQ(res.outcome, controller_result::done);
    EXPECT_EQ(res.result, c.status);
    EXPECT_EQ(res.status, c.status);
    EXPECT_EQ(res.attempts, (int)c.requests);
    EXPECT_EQ(std::string(res.body->data, res.body->length), R"({"error":"no"})");
    EXPECT_EQ(count_of({{"path", "/api/p/x"}}), c.requests);
    EXPECT_EQ(count_of({{"kind", "token"}}), c.tokens);
    // A result the row tries again throws the token away, after the last
    // attempt too: the next caller asks for a new one.
    char token[ACCESS_TOKEN_SIZE];
    get_access_token(token);
    bool dropped = p.drop_token && c.requests > 1;
    EXPECT_EQ(count_of({{"kind", "token"}}), c.tokens + (dropped || !p.bearer ? 1 : 0));
    res.body.reset();
    EXPECT_EQ(queue_count(free_replies), 32);

    // The lines around the attempts.
    auto sys = log_messages(root.at("/rw/syslog.log"));
    long sending = std::count_if(sys.begin(), sys.end(), [](const std::string &l) {
        return l.rfind("sending (retry = ", 0) == 0;
    });
    EXPECT_EQ(sending, p.before == attempt_log::sending ? (long)c.requests : 0L);
    if (p.before == attempt_log::sending) {
        EXPECT_TRUE(has(sys, "sending (retry = " + std::to_string(p.attempts - 1) + ") {}"));
    }
    auto m = main_log();
    std::string once = std::string(p.who) + ": err = " + std::to_string(c.status) +
                       ", reply = '{\"error\":\"no\"}'";
    EXPECT_EQ(std::count(m.begin(), m.end(), once), p.after == failure_log::once ? 1 : 0);
    std::string each = "http_post err = " + std::to_string(c.status) +
                       ", post = '{}', reply = '{\"error\":\"no\"}'";
    EXPECT_EQ(std::count(m.begin(), m.end(), each),
              p.after == failure_log::each_attempt ? (long)c.requests : 0L);
}

INSTANTIATE_TEST_SUITE_P(Rows, HttpPolicyLabTest,
                         ::testing::Values(
                             // A refused token is tried again, with a new token, as often as the
                             // row allows.
                             policy_case{controller_call::heartbeat, 401, 2, 2},
                             policy_case{controller_call::status, 401, 4, 4},
                             policy_case{controller_call::statistics, 401, 3, 3},
                             policy_case{controller_call::syslog, 401, 4, 4},
                             policy_case{controller_call::command_answer, 401, 4, 4},
                             policy_case{controller_call::refresh, 401, 2, 2},
                             // Another client error: only the rows that take every 4xx for a token.
                             policy_case{controller_call::heartbeat, 404, 2, 2},
                             policy_case{controller_call::status, 404, 1, 1},
                             policy_case{controller_call::statistics, 404, 1, 1},
                             policy_case{controller_call::syslog, 404, 1, 1},
                             policy_case{controller_call::command_answer, 404, 4, 4},
                             policy_case{controller_call::refresh, 404, 2, 2},
                             // A server error: command answers alone try again.
                             policy_case{controller_call::heartbeat, 500, 1, 1},
                             policy_case{controller_call::status, 500, 1, 1},
                             policy_case{controller_call::statistics, 500, 1, 1},
                             policy_case{controller_call::syslog, 500, 1, 1},
                             policy_case{controller_call::command_answer, 500, 4, 4},
                             policy_case{controller_call::refresh, 500, 1, 1},
                             policy_case{controller_call::firmware_check, 500, 1, 0}));

TEST_F(HttpLabTest, RowsThatNeedATokenSendNothingWithout)
{
    lab->script(R"({"path":"/api/oauth/token","status":500,"count":8})");
    for (controller_call call : {controller_call::heartbeat, controller_call::refresh}) {
        controller_result res = controller_request(call, "/p/x", "{}", 2);
        EXPECT_EQ(res.outcome, controller_result::no_token);
        EXPECT_EQ(res.attempts, 0);
    }
    EXPECT_EQ(count_of({{"path", "/api/p/x"}}), 0u);
    // The others go with an empty token; the controller decides.
    controller_result res = controller_request(controller_call::status, "/p/x", "{}", 2);
    EXPECT_EQ(res.outcome, controller_result::done);
    Json recs = lab->requests({{"path", "/api/p/x"}});
    ASSERT_GE(json_array_size(recs.get()), 1u);
    EXPECT_EQ(raw_header(json_array_get(recs.get(), 0), "Authorization").second, "Bearer ");
}

TEST_F(HttpLabTest, HeadersGoInTheRowsOrder)
{
    for (controller_call call :
         {controller_call::heartbeat, controller_call::status, controller_call::statistics,
          controller_call::syslog, controller_call::command_answer, controller_call::refresh}) {
        const controller_policy &p = policy_of(call);
        SCOPED_TRACE(p.who);
        std::string path = std::string("/p/") + p.who;
        lab->script(R"({"path":"/api)" + path + R"(","status":200,"body":{}})");
        controller_result res = controller_request(call, path, "{}", 2);
        EXPECT_TRUE(res.ok());
        Json recs = lab->requests({{"path", "/api" + path}});
        ASSERT_EQ(json_array_size(recs.get()), 1u);
        json_t *rec = json_array_get(recs.get(), 0);
        auto auth = raw_header(rec, "Authorization");
        auto type = raw_header(rec, "Content-Type");
        EXPECT_EQ(type.second, "application/json");
        EXPECT_EQ(auth.second.rfind("Bearer ", 0), 0u);
        EXPECT_EQ(type.first < auth.first, p.type_first);
    }
}

TEST_F(HttpLabTest, NoControllerSendsNothingAndTakesNoReply)
{
    config_set("system", nullptr, "cloud-controller", "");
    for (int i = 0; i < controller_policy_count; i++) {
        controller_result res = controller_request(controller_policies[i].call, "/p/x", "{}", 2);
        EXPECT_EQ(res.outcome, controller_result::no_controller);
        EXPECT_FALSE(res.body);
    }
    EXPECT_EQ(queue_count(free_replies), 32);
    EXPECT_EQ(json_array_size(lab->requests().get()), 0u);
}

TEST_F(HttpLabTest, OrdinaryAnswersAreTheTextTheyAlwaysWere)
{
    // What a format string gave for plain texts, byte for byte.
    malloc_ptr<char> body = command_answer_body("lab-7", -1, "port 3 is gone", nullptr);
    ASSERT_TRUE(body);
    EXPECT_STREQ(body.get(),
                 R"({"response":[{"commandId":"lab-7","code":-1,"message":"port 3 is gone"}]})");
    json_t *data = json_loads(R"({"b":[1,{"c":"d"}],"a":null})", 0, nullptr);
    body = command_answer_body("x", 3, "", data);
    json_decref(data);
    ASSERT_TRUE(body);
    EXPECT_STREQ(
        body.get(),
        R"({"response":[{"commandId":"x","code":3,"message":"","data":{"b":[1,{"c":"d"}],"a":null}}]})");
}

TEST_F(HttpLabTest, CommandStatusHeadersInOrder)
{
    EXPECT_EQ(send_command_status("/response/t", "lab-1", 0, "", nullptr), 0);
    Json recs = lab->requests({{"path", "/api/response/t"}});
    json_t *rec = only(recs);
    Json issued = lab->tokens();
    std::string tok = json_str(json_array_get(issued.get(), 0), "token");
    ASSERT_FALSE(tok.empty());
    auto auth = raw_header(rec, "Authorization");
    auto type = raw_header(rec, "Content-Type");
    EXPECT_EQ(auth.second, "Bearer " + tok);
    EXPECT_EQ(type.second, "application/json");
    ASSERT_GE(auth.first, 0);
    EXPECT_LT(auth.first, type.first);
    EXPECT_EQ(json_str(rec, "method"), "POST");
}

TEST_F(HttpLabTest, FourFailingPostsInvalidateTheTokenFourTimes)
{
    // Four different failures: the result is the fourth one's, not the first.
    lab->script(R"({"path":"/api/response/t","replies":[
        {"status":500,"body":{"error":"boom"}},
        {"status":502,"body":{"error":"boom"}},
        {"status":503,"body":{"error":"boom"}},
        {"status":504,"body":{"error":"boom"}}]})");
    EXPECT_EQ(send_command_status("/response/t", "lab-2", 0, "", nullptr), 504);
    EXPECT_EQ(count_of({{"kind", "token"}}), 4u);
    EXPECT_EQ(count_of({{"path", "/api/response/t"}}), 4u);
    EXPECT_EQ(json_array_size(lab->results().get()), 0u);
    const std::string body = R"({"response":[{"commandId":"lab-2","code":0,"message":""}]})";
    auto m = main_log();
    std::vector<std::string> errs;
    for (const auto &l : m)
        if (l.rfind("http_post err = ", 0) == 0)
            errs.push_back(l);
    std::vector<std::string> expected;
    for (int st : {500, 502, 503, 504})
        expected.push_back("http_post err = " + std::to_string(st) + ", post = '" + body +
                           "', reply = '{\"error\":\"boom\"}'");
    EXPECT_EQ(errs, expected);
    EXPECT_EQ(queue_count(free_replies), 32);
}

TEST_F(HttpLabTest, OneFailedPostIsRetriedWithANewToken)
{
    lab->script(R"({"path":"/api/response/t","status":401,"body":{"error":"invalid_token"}})");
    EXPECT_EQ(send_command_status("/response/t", "lab-3", 0, "", nullptr), 0);
    EXPECT_EQ(count_of({{"kind", "token"}}), 2u);
    Json res = lab->results();
    EXPECT_EQ(json_str(only(res), "commandId"), "lab-3");
    Json issued = lab->tokens();
    Json recs = lab->requests({{"path", "/api/response/t"}});
    ASSERT_EQ(json_array_size(recs.get()), 2u);
    EXPECT_EQ(raw_header(json_array_get(recs.get(), 1), "Authorization").second,
              "Bearer " + json_str(json_array_get(issued.get(), 1), "token"));
}

TEST_F(HttpLabTest, DownloadToADeviceFile)
{
    std::string image = "version=2.0.0.0\n" + std::string(4000, 'i');
    lab->set_firmware(R"({"version":"2.0.0.0","image_base64":")" + base64_of(image) + "\"}");
    Json fw = lab->call("GET", "/firmware");
    std::string u = json_str(fw.get(), "url");
    ASSERT_FALSE(u.empty());
    write_file(root.at("/tmp/updates.tar"), "stale contents that are longer than nothing");
    EXPECT_EQ(http_download_file(u.c_str(), "/tmp/updates.tar"), 0);
    EXPECT_EQ(read_file(root.at("/tmp/updates.tar")), image);
    auto m = main_log();
    ASSERT_GE(m.size(), 2u);
    EXPECT_EQ(m[m.size() - 2],
              "http_download_file: filename = '/tmp/updates.tar', url = '" + u + "'");
    EXPECT_EQ(m.back(), "http_download_file: done!  err = 0");
    EXPECT_EQ(count_of({{"kind", "firmware_image"}}), 1u);
}

TEST_F(HttpLabTest, AnErrorPageIsAFailedDownload)
{
    // An error page is no image: three attempts, and a failure the
    // installer never sees.
    std::string u = url("/firmware/none.tar");
    EXPECT_EQ(http_download_file(u.c_str(), "/tmp/updates.tar"), -1);
    EXPECT_EQ(count_of({{"kind", "firmware_image"}}), 3u);
    auto m = main_log();
    EXPECT_EQ(std::count(m.begin(), m.end(),
                         "http_download_file: server answered 404, url = '" + u + "'"),
              3);
}

TEST_F(HttpLabTest, MultipartUploadSendsPartFile)
{
    // Binary, with a NUL and high bytes in it.
    std::string data = "\x1f\x8b\x08";
    data += '\0';
    data += "diagnostics";
    data += '\0';
    data += "\xff\xfe binary ";
    data += std::string(3000, 'd');
    write_file(root.at("/tmp/diagnostics.tar.gz"), data);
    std::string bearer = "Authorization: Bearer " + token();
    const char *hdrs[] = {bearer.c_str(), nullptr};
    std::string u = url("/api/diagnostics");
    EXPECT_EQ(http_upload_file_multipart(u.c_str(), "/tmp/diagnostics.tar.gz", hdrs), 0);
    Json recs = lab->requests({{"path", "/api/diagnostics"}});
    json_t *rec = only(recs);
    EXPECT_EQ(json_integer_value(json_object_get(rec, "status")), 200);
    json_t *files = json_object_get(rec, "files");
    ASSERT_EQ(json_array_size(files), 1u);
    json_t *part = json_array_get(files, 0);
    EXPECT_EQ(json_str(part, "name"), "file");
    EXPECT_EQ(json_str(part, "filename"), "diagnostics.tar.gz");
    EXPECT_EQ(json_integer_value(json_object_get(part, "size")), (json_int_t)data.size());
    EXPECT_EQ(json_str(part, "data_base64"), base64_of(data));
    auto m = main_log();
    ASSERT_GE(m.size(), 2u);
    EXPECT_EQ(m[m.size() - 2],
              "http_upload_file_multipart: uploading '/tmp/diagnostics.tar.gz' to '" + u + "'");
    EXPECT_EQ(m.back(), "http_upload_file_multipart: done");
}

TEST_F(HttpLabTest, RawUploadPutsTheFile)
{
    const std::string data = R"({"uploaded":true})";
    write_file(root.at("/tmp/up.json"), data);
    std::string bearer = "Authorization: Bearer " + token();
    const char *hdrs[] = {bearer.c_str(), "Content-Type: application/json", nullptr};
    EXPECT_EQ(http_upload_file(url("/api/status").c_str(), "/tmp/up.json", hdrs), 0);
    Json recs = lab->requests({{"path", "/api/status"}});
    json_t *rec = only(recs);
    EXPECT_EQ(json_str(rec, "method"), "PUT");
    EXPECT_EQ(json_str(rec, "body"), data);
    EXPECT_EQ(json_integer_value(json_object_get(rec, "status")), 200);
}

// Requests share TLS sessions but never a connection: a connection the
// controller closes without answering fails that one request, which the
// controller has seen exactly once.
TEST_F(HttpLabTest, DroppedConnectionAfterAnAnsweredOneFailsAndIsNotSentAgain)
{
    lab->script(R"({"path":"/api/x","status":200,"count":1})");
    reply *r = alloc_reply();
    EXPECT_EQ(http_get(url("/api/x").c_str(), nullptr, r), 0);
    lab->script(R"({"path":"/api/y","drop":"close","count":1})");
    r->length = 0;
    EXPECT_EQ(http_post(url("/api/y").c_str(), "{}", 2, nullptr, r), 2);
    EXPECT_EQ(count_of({{"path", "/api/y"}}), 1u);
    // And the next request goes through on a fresh connection.
    lab->script(R"({"path":"/api/y","status":204,"count":1})");
    EXPECT_EQ(http_post(url("/api/y").c_str(), "{}", 2, nullptr, r), 0);
    EXPECT_EQ(count_of({{"path", "/api/y"}}), 2u);
    free_reply(r);
}

// ---- what the daemon trusts ------------------------------------------------------

namespace
{

// Puts in the device's CA bundle a CA of its own that signed nothing the lab
// serves: the lab's certificate is then one the device has no reason to trust.
void distrust_the_lab(const DeviceRoot &root)
{
    std::string dir = root.at("/other-ca");
    std::string cmd = "mkdir -p '" + dir + "' && openssl req -x509 -newkey ec -pkeyopt " +
                      "ec_paramgen_curve:prime256v1 -nodes -keyout '" + dir + "/key.pem' -out '" +
                      dir + "/ca.pem' -days 1 -subj /CN=other-ca > /dev/null 2>&1";
    ASSERT_EQ(system(cmd.c_str()), 0);
    std::string ca = read_file(dir + "/ca.pem");
    ASSERT_NE(ca.find("BEGIN CERTIFICATE"), std::string::npos);
    write_file(root.at("/etc/ca-bundle.pem"), ca);
}

bool any_line_has(const std::vector<std::string> &lines, const std::string &part)
{
    return std::any_of(lines.begin(), lines.end(),
                       [&](const std::string &l) { return l.find(part) != std::string::npos; });
}

} // namespace

TEST_F(HttpLabTest, ControllerWithAnUntrustedCertificateIsRefused)
{
    distrust_the_lab(root);
    if (HasFatalFailure())
        return;
    reply *r = alloc_reply();
    std::string url = lab->base_url + "/api/refresh-config";
    EXPECT_EQ(http_post(url.c_str(), "{}", 2, nullptr, r), 2);
    free_reply(r);
    EXPECT_TRUE(any_line_has(http_lines(), "curl_easy_perform() failed: (CURLcode = 60)"));

    // No token is asked for, no status is delivered: nothing reaches it.
    char token[ACCESS_TOKEN_SIZE];
    EXPECT_EQ(get_access_token(token), 0);
    EXPECT_STREQ(token, "");
    EXPECT_EQ(send_command_status("/response/t", "lab-9", 0, "", nullptr), 2);
    EXPECT_EQ(json_array_size(lab->requests().get()), 0u);
    EXPECT_EQ(json_array_size(lab->tokens().get()), 0u);
    EXPECT_EQ(json_array_size(lab->results().get()), 0u);
    // The lab saw the handshakes fail.
    Json errors = lab->call("GET", "/connection-errors");
    EXPECT_GE(json_array_size(json_object_get(errors.get(), "errors")), 1u);
}

TEST_F(HttpLabTest, AFirmwareServerNothingTrustsServesNoImage)
{
    std::string image = "version=2.0.0.0\n" + std::string(100, 'i');
    lab->set_firmware(R"({"version":"2.0.0.0","image_base64":")" + base64_of(image) + "\"}");
    std::string u = json_str(lab->call("GET", "/firmware").get(), "url");
    distrust_the_lab(root);
    if (HasFatalFailure())
        return;
    EXPECT_EQ(http_download_file(u.c_str(), "/tmp/updates.tar"), -1);
    EXPECT_EQ(read_file(root.at("/tmp/updates.tar")), "");
    EXPECT_EQ(count_of({{"kind", "firmware_image"}}), 0u);
    // The reason is in the log: curl's peer-verification failure.
    EXPECT_TRUE(any_line_has(http_lines(), "http_download_file: curl_easy_perform() failed: "
                                           "(CURLcode = 60)"));
}

TEST_F(HttpLabTest, FileUploadsToAServerNothingTrustsFail)
{
    distrust_the_lab(root);
    if (HasFatalFailure())
        return;
    write_file(root.at("/tmp/diagnostics.tar.gz"), "archive");
    std::string u = lab->base_url + "/api/diagnostics";
    EXPECT_EQ(http_upload_file_multipart(u.c_str(), "/tmp/diagnostics.tar.gz", nullptr), -1);
    EXPECT_EQ(http_upload_file(u.c_str(), "/tmp/diagnostics.tar.gz", nullptr), -1);
    EXPECT_EQ(json_array_size(lab->requests({{"path", "/api/diagnostics"}}).get()), 0u);
    auto m = main_log();
    EXPECT_TRUE(any_line_has(m, "http_upload_file_multipart: curl error: (CURLcode = 60)"));
    EXPECT_TRUE(any_line_has(m, "http_upload_file: curl error: (CURLcode = 60)"));
}

TEST_F(HttpLabTest, AnUploadTheServerRefusesFails)
{
    write_file(root.at("/tmp/diagnostics.tar.gz"), "archive");
    lab->script(R"({"path":"/api/diagnostics","status":500,"count":2})");
    std::string u = lab->base_url + "/api/diagnostics";
    EXPECT_EQ(http_upload_file_multipart(u.c_str(), "/tmp/diagnostics.tar.gz", nullptr), -1);
    EXPECT_EQ(http_upload_file(u.c_str(), "/tmp/diagnostics.tar.gz", nullptr), -1);
    auto m = main_log();
    EXPECT_TRUE(has(m, "http_upload_file_multipart: upload refused, response code = 500"));
    EXPECT_TRUE(has(m, "http_upload_file: upload refused, response code = 500"));
}

// The calling thread keeps its curl handle between requests: nothing of one
// request may come along with the next.
TEST_F(HttpLabTest, NothingOfOneRequestCarriesOverToTheNext)
{
    lab->script(R"({"path":"/api/a","status":204,"count":1})");
    lab->script(R"({"path":"/api/b","status":204,"count":1})");
    const char *hdrs[] = {"X-Probe: 7", nullptr};
    reply *r = alloc_reply();
    EXPECT_EQ(http_put(url("/api/a").c_str(), "{\"a\":1}", 7, hdrs, r), 0);
    r->length = 0;
    EXPECT_EQ(http_get(url("/api/b").c_str(), nullptr, r), 0);
    Json recs = lab->requests({{"path", "/api/b"}});
    json_t *rec = only(recs);
    EXPECT_EQ(json_str(rec, "method"), "GET");
    EXPECT_EQ(json_str(rec, "body"), "");
    EXPECT_EQ(raw_header(rec, "X-Probe").first, -1);
    EXPECT_EQ(raw_header(rec, "Content-Type").first, -1);
    free_reply(r);
}

// The handle keeps the CA bundle it read; a bundle replaced on the device
// counts from the next request on.
TEST_F(HttpLabTest, AReplacedCaBundleCountsFromTheNextRequest)
{
    lab->script(R"({"path":"/api/x","status":204,"count":3})");
    reply *r = alloc_reply();
    EXPECT_EQ(http_get(url("/api/x").c_str(), nullptr, r), 0);
    std::string bundle = root.at("/etc/ca-bundle.pem");
    std::string good = read_file(bundle);
    write_file(bundle, "");
    r->length = 0;
    EXPECT_EQ(http_get(url("/api/x").c_str(), nullptr, r), 2);
    EXPECT_EQ(count_of({{"path", "/api/x"}}), 1u);
    write_file(bundle, good);
    r->length = 0;
    EXPECT_EQ(http_get(url("/api/x").c_str(), nullptr, r), 0);
    EXPECT_EQ(count_of({{"path", "/api/x"}}), 2u);
    free_reply(r);
}
