#include "auth.h"
#include "db.h"
#include "http.h"
#include "log.h"
#include "lsql.h"
#include "signals.h"
#include "testkit.h"

#include <atomic>
#include <chrono>
#include <cstring>
#include <gtest/gtest.h>
#include <thread>

using namespace testkit;
using namespace std::chrono_literals;

namespace
{

class HttpTest : public ::testing::Test
{
  protected:
    DeviceRoot root;
    void SetUp() override
    {
        std::string cmd =
            "python3 " ORKAD_SOURCE_DIR "/lab/devroot.py " + root.path() + " > /dev/null";
        ASSERT_EQ(system(cmd.c_str()), 0);
        log_init();
        signals_init();
        db_init();
        http_init();
    }
    std::vector<std::string> main_log() { return log_messages(root.at("/rw/orkad.log")); }
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
    std::this_thread::sleep_for(100ms);
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
    EXPECT_EQ(get_cloud_controller(), nullptr);
    EXPECT_EQ(send_command_status("/heartbeat", "c1", 0, "", nullptr), 1);
    EXPECT_EQ(queue_count(free_replies), 32);
    EXPECT_EQ(file_size(root.at("/rw/command.log")),
              (long)read_file(root.at("/rw/command.log")).size());
    EXPECT_EQ(cmd_lines().size(), 1u); // the banner only
    // An empty setting counts as none.
    config_set("system", nullptr, "cloud-controller", "");
    EXPECT_EQ(get_cloud_controller(), nullptr);
    config_set("system", nullptr, "cloud-controller", "https://c.example");
    ASSERT_NE(get_cloud_controller(), nullptr);
    EXPECT_STREQ(get_cloud_controller(), "https://c.example");
}

TEST_F(HttpTest, OversizeStatusIsRefusedAndKeepsItsReply)
{
    config_set("system", nullptr, "cloud-controller", "http://127.0.0.1:9");
    // {"response":[{"commandId":"c","code":0,"message":"..."}]} is 54 bytes
    // around the message.
    std::string message(512 - 54, 'm');
    EXPECT_EQ(send_command_status("/r", "c", 0, message.c_str(), nullptr), 1);
    EXPECT_EQ(cmd_lines().back(),
              "send_command_status: reply to http://127.0.0.1:9/api/r exceeded the buffer size "
              "512");
    EXPECT_EQ(queue_count(free_replies), 31);
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

TEST_F(HttpTest, UploadOfMissingFileFails)
{
    EXPECT_EQ(http_upload_file("http://127.0.0.1:9/u", "/tmp/none", nullptr), -1);
    EXPECT_EQ(main_log().back(),
              "http_upload_file: unable to open file '/tmp/none' (No such file or directory)");
    EXPECT_EQ(http_upload_file_multipart("http://127.0.0.1:9/u", "/tmp/none", nullptr), -1);
    EXPECT_EQ(main_log().back(), "http_upload_file_multipart: unable to open file '/tmp/none' "
                                 "(No such file or directory)");
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
