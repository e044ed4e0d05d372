// Syslog forwarding: the events the receiver builds from datagrams, the
// batches the listener packs, set.logging, the sender against the lab
// controller, the post's retries, the flush before a reboot and the dump.
#include "agent_fixture.h"
#include "listener.h"
#include "logging.h"

#include <arpa/inet.h>
#include <atomic>
#include <cstdlib>
#include <netinet/in.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using namespace agent_test;

namespace
{

// 2026-11-21 12:00:00 UTC.
constexpr time_t NOON = 1795262400;

unsigned int short_sleep(unsigned int)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return 0;
}

std::vector<unsigned int> sleeps;
unsigned int record_sleep(unsigned int s)
{
    sleeps.push_back(s);
    return 0;
}

std::string event_of(const std::string &dgram, unsigned long long seq = 1,
                     int size = PLATFORM_SYSLOG_EVENT)
{
    std::vector<char> ev(size);
    int n = platform_syslog_event(dgram.data(), (int)dgram.size(), NOON, seq, ev.data(), size);
    if (n < 0)
        throw std::runtime_error("no event for " + dgram);
    return std::string(ev.data(), n);
}

// The params text of an event, as the listener hands it on.
std::string line_of(const std::string &event)
{
    Json j = json_parse(event);
    return json_str(j.get(), "params");
}

class LoggingTest : public AgentTest
{
  protected:
    void SetUp() override
    {
        setenv("TZ", "UTC", 1);
        tzset();
        AgentTest::SetUp();
        logging_init();
        logging_sleep = short_sleep;
        // Out of the way of other test processes; the receiver test picks
        // a port of its own.
        platform_syslog_port = 0;
        if (lab)
            lab->add_link("/response/t", "response");
    }

    void TearDown() override
    {
        // Park the sender before the process goes.
        logging_stream.enabled = false;
        wait_for([] { return logging_stream.id < 0; }, 5000);
    }

    void feed(const std::string &line)
    {
        json_t *s = json_stringn(line.data(), line.size());
        logging_listener("syslog", s);
        json_decref(s);
    }

    int counts(int which)
    {
        int v[4];
        logging_counts(&v[0], &v[1], &v[2], &v[3]);
        return v[which];
    }
    int overflow() { return counts(0); }
    int oversize() { return counts(1); }
    int ready() { return counts(2); }
    int filling() { return counts(3); }

    Answer set_logging(const std::string &params, const char *id = "lg-1")
    {
        return run_command(cmd_set_logging, "set", "logging", id, params);
    }

    // The syslog handle's lines without its start banner.
    std::vector<std::string> sys_messages()
    {
        std::vector<std::string> out;
        for (auto &m : log_messages(root.at("/rw/syslog.log")))
            if (m.rfind("=====", 0) != 0)
                out.push_back(m);
        return out;
    }

    // The bodies the controller took (answered 200) on exactly this path,
    // in order.
    std::vector<std::string> taken_bodies(const std::string &path)
    {
        std::vector<std::string> out;
        if (lab) {
            Json reqs = lab->requests({{"path", "/api" + path}, {"status", "200"}});
            for (size_t i = 0; i < json_array_size(reqs.get()); i++)
                out.push_back(json_str(item(reqs, i), "body"));
            return out;
        }
        for (auto &r : controller->requests(path))
            if (r.path == path && r.status == 200)
                out.push_back(r.body);
        return out;
    }

    // The "log" arrays the controller took on a path, in order, as texts.
    std::vector<std::string> posted_lines(const std::string &path)
    {
        std::vector<std::string> out;
        for (auto &text : taken_bodies(path)) {
            Json body = json_parse(text);
            json_t *log = json_object_get(body.get(), "log");
            for (size_t k = 0; k < json_array_size(log); k++)
                out.push_back(json_text(json_array_get(log, k)));
        }
        return out;
    }

    // Requests that came to exactly this path, whatever their answer.
    std::vector<CannedController::Request> posts(const std::string &path)
    {
        std::vector<CannedController::Request> out;
        for (auto &r : controller->requests(path))
            if (r.path == path)
                out.push_back(r);
        return out;
    }
    std::vector<CannedController::Request> wait_posts(const std::string &path, size_t n,
                                                      int timeout_ms = 10000)
    {
        wait_for([&] { return posts(path).size() >= n; }, timeout_ms);
        return posts(path);
    }
    // Waits until the controller took n bodies on this path.
    void wait_taken(const std::string &path, size_t n, int timeout_ms = 15000)
    {
        wait_for([&] { return taken_bodies(path).size() >= n; }, timeout_ms);
    }
    size_t tokens_issued() { return controller->requests("/oauth/token").size(); }
};

// The headers on the wire need a real server.
class LoggingLabTest : public LoggingTest
{
  protected:
    bool with_lab() override { return true; }
};

std::string params(long long ms, const std::string &href = "/syslog")
{
    return R"({"interval":)" + std::to_string(ms) + R"(,"serviceLink":{"href":")" + href + R"("}})";
}

// A line of exactly n characters, the text of a JSON object.
std::string line_n(size_t n, int tag = 0)
{
    std::string head = "{\"sequence\":" + std::to_string(tag) + ",\"message\":\"";
    std::string s = head;
    s.resize(n - 2, 'm');
    return s + "\"}";
}

} // namespace

// ---- the receiver's events ------------------------------------------------

TEST(SyslogEvent, TimestampHeadAndTextAreAsTheSwitchSentThem)
{
    setenv("TZ", "UTC", 1);
    tzset();
    EXPECT_EQ(
        event_of("<13>Nov 21 10:11:12 sw1 app: hello", 7),
        R"({"event":"syslog","params":"{\"sequence\":7,\"logTime\":\"2026-11-21T10:11:12+0000\",)"
        R"(\"message\":\"<13>Nov 21 10:11:12 sw1 app: hello\"}"})");
    // A single-digit day is padded with a blank; the year is the current one.
    EXPECT_EQ(
        line_of(event_of("<30>Feb  3 01:02:03 x")),
        R"({"sequence":1,"logTime":"2026-02-03T01:02:03+0000","message":"<30>Feb  3 01:02:03 x"})");
}

TEST(SyslogEvent, LogTimeIn2040CarriesThatYear)
{
    setenv("TZ", "UTC", 1);
    tzset();
    auto line_at = [](const std::string &dgram, time_t now) {
        std::vector<char> ev(PLATFORM_SYSLOG_EVENT);
        int n = platform_syslog_event(dgram.data(), (int)dgram.size(), now, 1, ev.data(),
                                      (int)ev.size());
        EXPECT_GT(n, 0) << dgram;
        return line_of(std::string(ev.data(), n > 0 ? n : 0));
    };
    // The switch's stamp has no year: the one of the moment it arrived.
    EXPECT_EQ(line_at("<13>Feb 29 12:34:56 sw1 app: leap", LEAP_DAY_2040),
              R"({"sequence":1,"logTime":"2040-02-29T12:34:56+0000",)"
              R"("message":"<13>Feb 29 12:34:56 sw1 app: leap"})");
    // A line without a stamp is stamped with its arrival.
    EXPECT_EQ(line_at("<13>no stamp", LEAP_DAY_2040),
              R"({"sequence":1,"logTime":"2040-02-29T12:34:56+0000","message":"<13>no stamp"})");
    EXPECT_EQ(line_at("<13>bare", Y2038_WRAP),
              R"({"sequence":1,"logTime":"2038-01-19T03:14:08+0000","message":"<13>bare"})");
}

TEST(SyslogEvent, QuoteAndBackslashAreEscapedForBothDecodingsLineEndsDropped)
{
    setenv("TZ", "UTC", 1);
    tzset();
    std::string ev = event_of("<13>Nov 21 10:11:12 h: say \"hi\" C:\\temp\r\nnext");
    // The quote keeps the form it always had; the backslash is escaped the
    // same way now.
    EXPECT_EQ(
        ev,
        R"({"event":"syslog","params":"{\"sequence\":1,\"logTime\":\"2026-11-21T10:11:12+0000\",)"
        R"(\"message\":\"<13>Nov 21 10:11:12 h: say \\\"hi\\\" C:\\\\tempnext\"}"})");
    // Decoded once by the listener: the line the batch carries.
    std::string line = line_of(ev);
    EXPECT_EQ(line, R"({"sequence":1,"logTime":"2026-11-21T10:11:12+0000",)"
                    R"("message":"<13>Nov 21 10:11:12 h: say \"hi\" C:\\tempnext"})");
    // Decoded again by the controller: the switch's text.
    EXPECT_EQ(json_str(json_parse(line).get(), "message"),
              "<13>Nov 21 10:11:12 h: say \"hi\" C:\\tempnext");
}

namespace
{
// The message the controller reads out of the event of one datagram: the
// event decoded (by the listener), then its line (by the controller).
std::string controller_message(const std::string &dgram)
{
    std::string line = line_of(event_of(dgram));
    return json_str(json_parse(line).get(), "message");
}
} // namespace

TEST(SyslogEvent, BackslashesQuotesAndControlCharactersArriveAsSent)
{
    const char *texts[] = {
        "ends in a backslash \\",
        "quote \\\" after a backslash",
        "no escape \\d here",
        "C:\\temp\\new",
        "\\\\ two, \\u0041 not a code",
        "tab\there, escape \x1b[1m, bell \x07, delete \x7f",
        "slash / and unicode \xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80",
    };
    for (const char *t : texts)
        EXPECT_EQ(controller_message(std::string("<13>") + t), std::string("<13>") + t) << t;
    // Control characters travel as JSON escapes, never raw.
    std::string ev = event_of("<13>a\tb\x1b");
    EXPECT_NE(ev.find(R"(a\\tb\\u001B)"), std::string::npos) << ev;
}

TEST(SyslogEvent, TextStopsAtANul)
{
    // A syslog line is a C string: what precedes the NUL is the line.
    EXPECT_EQ(controller_message(std::string("<13>before\0after", 16)), "<13>before");
    EXPECT_EQ(controller_message(std::string("<13>\\\0\\", 7)), "<13>\\");
}

TEST(SyslogEvent, BytesThatAreNotUtf8BecomeReplacementCharacters)
{
    const std::string r = "\xef\xbf\xbd"; // U+FFFD
    struct {
        std::string sent;
        std::string arrives;
    } cases[] = {
        {"\xff", r},
        {"a\x80z", "a" + r + "z"},
        {"\xc3\x28", r + "("},               // lead byte without its follower
        {"\xc0\xaf", r + r},                 // overlong '/'
        {"\xe0\x80\xaf", r + r + r},         // overlong, three bytes
        {"\xed\xa0\x80", r + r + r},         // a surrogate
        {"\xf4\x90\x80\x80", r + r + r + r}, // above U+10FFFF
        {"end \xe2\x82", "end " + r + r},    // cut short by the datagram's end
        {"\xc3\xa9\xff\xe2\x82\xac", "\xc3\xa9" + r + "\xe2\x82\xac"},
    };
    for (auto &c : cases)
        EXPECT_EQ(controller_message("<13>" + c.sent), "<13>" + c.arrives) << c.sent;
}

TEST(SyslogEvent, LongestEventFitsAndDecodes)
{
    // 1024 bytes of control characters without a head: 1023 are taken, each
    // six characters in the line and seven in the event.
    std::string worst(1024, '\x01');
    std::string ev = event_of(worst, 9223372036854775807ull);
    EXPECT_GT(ev.size(), 7000u);
    EXPECT_LT(ev.size(), (size_t)PLATFORM_SYSLOG_EVENT);
    EXPECT_EQ(controller_message(worst), "<13>" + std::string(1023, '\x01'));
    // Invalid bytes: three each, the event still fits.
    std::string bad(1024, '\xff');
    std::string r;
    for (int i = 0; i < 1023; i++)
        r += "\xef\xbf\xbd";
    EXPECT_EQ(controller_message(bad), "<13>" + r);
    // A buffer too small for the event is not written half: nothing is sent.
    std::vector<char> small(1024);
    EXPECT_EQ(platform_syslog_event(worst.data(), (int)worst.size(), NOON, 1, small.data(), 1024),
              -1);
}

TEST(SyslogEvent, WithoutTimestampTheArrivalTimeIsTaken)
{
    setenv("TZ", "UTC", 1);
    tzset();
    EXPECT_EQ(line_of(event_of("<4>kernel: oops")),
              R"({"sequence":1,"logTime":"2026-11-21T12:00:00+0000","message":"<4>kernel: oops"})");
    // The blank after the head is skipped.
    EXPECT_EQ(line_of(event_of("<4>   spaced")),
              R"({"sequence":1,"logTime":"2026-11-21T12:00:00+0000","message":"<4>spaced"})");
}

TEST(SyslogEvent, LocalTimeCarriesItsOffset)
{
    setenv("TZ", "CET-1", 1);
    tzset();
    EXPECT_EQ(
        line_of(event_of("<13>Nov 21 10:11:12 x")),
        R"({"sequence":1,"logTime":"2026-11-21T10:11:12+0100","message":"<13>Nov 21 10:11:12 x"})");
    EXPECT_EQ(line_of(event_of("<13>x")),
              R"({"sequence":1,"logTime":"2026-11-21T13:00:00+0100","message":"<13>x"})");
    setenv("TZ", "UTC", 1);
    tzset();
}

TEST(SyslogEvent, NoHeadIsForwardedWholeAsUserNotice)
{
    setenv("TZ", "UTC", 1);
    tzset();
    EXPECT_EQ(line_of(event_of("plain text")),
              R"({"sequence":1,"logTime":"2026-11-21T12:00:00+0000","message":"<13>plain text"})");
    EXPECT_EQ(line_of(event_of("<x>odd")),
              R"({"sequence":1,"logTime":"2026-11-21T12:00:00+0000","message":"<13><x>odd"})");
}

TEST(SyslogEvent, CopyStopsAtNulAndAtTheDatagramEnd)
{
    setenv("TZ", "UTC", 1);
    tzset();
    std::string d("<13>ab\0cd", 9);
    EXPECT_EQ(line_of(event_of(d)),
              R"({"sequence":1,"logTime":"2026-11-21T12:00:00+0000","message":"<13>ab"})");
    std::vector<char> ev(4096);
    int n = platform_syslog_event("<13>abcdef", 7, NOON, 1, ev.data(), 4096);
    EXPECT_EQ(line_of(std::string(ev.data(), n)),
              R"({"sequence":1,"logTime":"2026-11-21T12:00:00+0000","message":"<13>abc"})");
}

namespace
{
std::string message_of(const std::string &event)
{
    const std::string open = R"(\"message\":\")";
    size_t b = event.find(open) + open.size();
    size_t e = event.rfind(R"(\"}"})");
    return event.substr(b, e - b);
}
} // namespace

TEST(SyslogEvent, TextIsCutAfter1023Bytes)
{
    // 1020 characters of text after a 4-byte head: all of it fits.
    std::string text(1020, 'a');
    EXPECT_EQ(message_of(event_of("<13>" + text)), "<13>" + text);
    // The datagram holds at most 1024 bytes, so 1020 of text is the most
    // there can be.
    std::string longer(2000, 'b');
    EXPECT_EQ(message_of(event_of("<1>" + longer)), "<1>" + std::string(1021, 'b'));

    // Without a head the whole datagram is text: the copy stops at 1023.
    std::string plain(1024, 'c');
    EXPECT_EQ(message_of(event_of(plain)), "<13>" + std::string(1023, 'c'));
    // A quote is one byte of the text, however it is escaped.
    std::string quoted = std::string(1022, 'd') + "\"" + "e";
    EXPECT_EQ(message_of(event_of(quoted)), "<13>" + std::string(1022, 'd') + "\\\\\\\"");
    // A character is never cut in half: the euro sign that would end past
    // 1023 is left out whole.
    std::string euro = std::string(1021, 'f') + "\xe2\x82\xac";
    EXPECT_EQ(controller_message(euro), "<13>" + std::string(1021, 'f'));
}

// ---- the listener's batches -------------------------------------------------

TEST_F(LoggingTest, InitRegistersCommandDumpAndListener)
{
    EXPECT_TRUE(logged("registered 'set.logging' command handler"));
    struct handler *h = signals_lookup(SIGUSR1);
    bool found = false;
    for (; h != nullptr; h = h->next)
        if (strcmp(h->name, "logging_debug") == 0 && h->fn == logging_debug)
            found = true;
    EXPECT_TRUE(found);
    struct listener *l = listener_lookup("unix:/tmp/orkad_syslog_socket", "syslog");
    ASSERT_NE(l, nullptr);
    EXPECT_EQ(l->fn, logging_listener);
    EXPECT_TRUE(logged("registered 'syslog' listener on 'unix:/tmp/orkad_syslog_socket'"));
}

TEST_F(LoggingTest, Line512IsForwarded513IsOversize)
{
    feed(line_n(512));
    EXPECT_EQ(filling(), 4 + 512);
    EXPECT_EQ(oversize(), 0);
    feed(line_n(513));
    EXPECT_EQ(filling(), 4 + 512);
    EXPECT_EQ(oversize(), 1);
    EXPECT_EQ(overflow(), 0);
    auto m = sys_messages();
    ASSERT_EQ(m.size(), 1u);
    EXPECT_EQ(m[0], "listener: " + line_n(512));
}

TEST_F(LoggingTest, NonStringParamsAreIgnored)
{
    logging_listener("syslog", nullptr);
    json_t *n = json_integer(5);
    logging_listener("syslog", n);
    json_decref(n);
    EXPECT_EQ(filling(), 0);
    EXPECT_EQ(oversize() + overflow(), 0);
}

TEST_F(LoggingTest, HundredCharacterLinesFillABatchAfter39)
{
    for (int i = 0; i < 39; i++)
        feed(line_n(100, i));
    EXPECT_EQ(filling(), 39 * 104);
    EXPECT_EQ(ready(), 0);
    feed(line_n(100, 39));
    EXPECT_EQ(ready(), 1);
    EXPECT_EQ(filling(), 104);
}

TEST_F(LoggingTest, SixtyThreeWaitingAndAFullBatchLeaveNoRoom)
{
    for (int i = 0; i < 64 * 39; i++)
        feed(line_n(100, i));
    EXPECT_EQ(ready(), 63);
    EXPECT_EQ(filling(), 39 * 104);
    EXPECT_EQ(overflow(), 0);
    // The full batch becomes the 64th waiting one; a new one may not be had.
    feed(line_n(100, 99));
    EXPECT_EQ(ready(), 64);
    EXPECT_EQ(filling(), 0);
    EXPECT_EQ(overflow(), 1);
    feed(line_n(10, 100));
    EXPECT_EQ(overflow(), 2);
}

namespace
{
std::atomic<bool> hold_sender{false};
unsigned int gate_sleep(unsigned int)
{
    while (hold_sender)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return 0;
}

// A controller slow to take syslog: a post to /syslog waits while
// hold_answers is set, then goes on to the in-process controller.
std::atomic<bool> hold_answers{false};
int (*canned_exchange)(const char *, const char *, int, reply *);
int held_exchange(const char *url, const char *data, int length, reply *r)
{
    bool syslog = std::string(url) == std::string(CannedController::base_url) + "/api/syslog";
    while (syslog && hold_answers)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return canned_exchange(url, data, length, r);
}
} // namespace

TEST_F(LoggingTest, SixtyFourWaitingAndAFullBatchMeansOverflow)
{
    // 63 waiting and a full batch being filled.
    for (int i = 0; i < 64 * 39; i++)
        feed(line_n(100, i));
    ASSERT_EQ(ready(), 63);
    // The controller answers slowly and badly: while the sender holds the
    // oldest batch, a new batch is filled; the failed batch then goes back.
    controller->answer("/syslog", 500, "");
    canned_exchange = http_exchange;
    http_exchange = held_exchange;
    hold_answers = true;
    logging_sleep = gate_sleep;
    hold_sender = true;
    EXPECT_EQ(set_logging(params(86400000), "of").first, 0);
    bool taken = wait_for([&] { return ready() == 62; });
    for (int i = 0; taken && i < 39; i++)
        feed(line_n(100, 200 + i));
    EXPECT_EQ(ready(), 63);
    hold_answers = false;
    ASSERT_TRUE(taken);
    ASSERT_TRUE(wait_logged("logging_send: post errors (err = 500)"));
    EXPECT_EQ(ready(), 64);
    EXPECT_EQ(filling(), 39 * 104);
    EXPECT_EQ(overflow(), 0);

    feed(line_n(100, 300));
    EXPECT_EQ(ready(), 65);
    EXPECT_EQ(filling(), 0);
    EXPECT_EQ(overflow(), 1);
    hold_sender = false;
}

TEST_F(LoggingTest, DumpShowsStateAndCounters)
{
    feed(line_n(100));
    feed(line_n(600));
    logging_debug(SIGUSR1);
    auto d = log_messages(root.at("/tmp/debug.log"));
    ASSERT_GE(d.size(), 3u);
    d.erase(d.begin(), d.end() - 3);
    EXPECT_EQ(d[0], "logging_debug: logging_enabled = 0, logging_interval = 0");
    EXPECT_NE(d[1].find("logging_debug: logbuf = 0x"), std::string::npos) << d[1];
    EXPECT_NE(d[1].find(" (104), overflow = 0, oversize = 1, ready-logs-count = 0"),
              std::string::npos)
        << d[1];
    EXPECT_EQ(d[2], "logging_debug: refused = 0");
}

TEST_F(LoggingTest, DecodedEventsReachTheBatchAsTheirParamsText)
{
    std::string ev = event_of("<13>Nov 21 10:11:12 h: say \"hi\"", 3);
    ASSERT_EQ(listener_internal_send("unix:/tmp/orkad_syslog_socket", ev.data(), (int)ev.size()),
              0);
    auto m = sys_messages();
    ASSERT_EQ(m.size(), 1u);
    EXPECT_EQ(m[0], "listener: {\"sequence\":3,\"logTime\":\"2026-11-21T10:11:12+0000\","
                    "\"message\":\"<13>Nov 21 10:11:12 h: say \\\"hi\\\"\"}");
    EXPECT_EQ(filling(), 4 + (int)m[0].size() - 10);
}

TEST_F(LoggingTest, LongLinesAreCountedAsOversizeNotLostInDecoding)
{
    // A thousand characters make an event of more than 1024 bytes: it is
    // decoded whole, and the line is too long to forward.
    std::string ev = event_of("<13>" + std::string(1000, 'a'));
    ASSERT_GT(ev.size(), 1024u);
    ASSERT_EQ(listener_internal_send(LOGGING_SOCKET, ev.data(), (int)ev.size()), 0);
    EXPECT_EQ(oversize(), 1);
    EXPECT_FALSE(logged("listener: error decoding message"));
    // The longest event there is goes the same way.
    ev = event_of(std::string(1024, '\x01'), 2);
    ASSERT_EQ(listener_internal_send(LOGGING_SOCKET, ev.data(), (int)ev.size()), 0);
    EXPECT_EQ(oversize(), 2);
    EXPECT_FALSE(logged("listener: error decoding message"));
}

// ---- set.logging --------------------------------------------------------------

TEST_F(LoggingTest, IntervalLimits)
{
    EXPECT_EQ(set_logging(params(999), "a"),
              std::make_pair(-1, std::string("logging interval out of range")));
    EXPECT_EQ(set_logging(params(86401000), "b"),
              std::make_pair(-1, std::string("logging interval out of range")));
    EXPECT_FALSE(logging_stream.enabled);
    EXPECT_EQ(logging_stream.id, -1);
    EXPECT_EQ(count_logged("set.logging: logging interval out of range"), 2u);

    EXPECT_EQ(set_logging(params(1000), "c"), std::make_pair(0, std::string()));
    EXPECT_EQ(logging_stream.interval, 1);
    EXPECT_TRUE(logging_stream.enabled);
    EXPECT_GE(logging_stream.id, 0);
    EXPECT_EQ(set_logging(params(86400000), "d"), std::make_pair(0, std::string()));
    EXPECT_EQ(logging_stream.interval, 86400);
    EXPECT_EQ(set_logging(params(86400999), "e"), std::make_pair(0, std::string()));
    EXPECT_EQ(logging_stream.interval, 86400);
}

TEST_F(LoggingTest, SetLoggingMessages)
{
    int n = expect_refusals(
        cmd_set_logging, "set", "logging",
        {
            {R"("x")", "missing or invalid 'params' element"},
            {R"({"serviceLink":{"href":"/s"}})", "missing or invalid 'interval' element in params"},
            {R"({"interval":"5000","serviceLink":{"href":"/s"}})",
             "missing or invalid 'interval' element in params"},
            {R"({"interval":5000,"priority":{"level":3},"serviceLink":{"href":"/s"}})",
             "invalid 'priority' element in params"},
            {R"({"interval":5000})", "missing or invalid 'serviceLink' element in params"},
            {R"({"interval":5000,"serviceLink":"/s"})",
             "missing or invalid 'serviceLink' element in params"},
            {R"({"interval":5000,"serviceLink":{"href":5}})",
             "missing or invalid 'href' element in params"},
        });
    EXPECT_FALSE(logging_stream.enabled);
    EXPECT_EQ(logging_stream.id, -1);
    // Nothing reached the switch.
    EXPECT_FALSE(file_exists(root.at("/var/switch/journal")));

    use_controller();
    cmd_set_logging(strdup("set.logging"), json_loads(R"({"params":{}})", 0, nullptr),
                    strdup("/response/t"));
    auto res = controller->wait_answers((size_t)n + 1);
    ASSERT_EQ(res.size(), (size_t)n + 1);
    EXPECT_EQ(res[n].id, "");
    EXPECT_EQ(res[n].message, "missing or invalid 'id' element in command");
}

TEST_F(LoggingTest, PriorityOtherThanAnObjectIsAcceptedAndIgnored)
{
    EXPECT_EQ(
        set_logging(R"({"interval":2000,"priority":7,"serviceLink":{"href":"/s"}})", "p1").first,
        0);
    EXPECT_EQ(logging_priority, 3);
    EXPECT_EQ(
        set_logging(R"({"interval":2000,"priority":"debug","serviceLink":{"href":"/s"}})", "p2")
            .first,
        0);
    EXPECT_EQ(logging_priority, 3);
    EXPECT_EQ(
        set_logging(R"({"interval":2000,"priority":[1],"serviceLink":{"href":"/s"}})", "p3").first,
        0);
    EXPECT_EQ(logging_priority, 3);
}

TEST_F(LoggingTest, OneSenderKeepsItsLinkAndTakesTheNewInterval)
{
    EXPECT_EQ(set_logging(params(5000, "/first"), "s1").first, 0);
    int id = logging_stream.id;
    EXPECT_TRUE(wait_logged("logging_send: Started '5','/first','1'"));
    EXPECT_EQ(set_logging(params(1000, "/second"), "s2").first, 0);
    EXPECT_EQ(logging_stream.id, id);
    EXPECT_EQ(logging_stream.interval, 1);
    EXPECT_TRUE(logged("logging_start: logging thread " + std::to_string(id) +
                       " already running, new interval = 1, enable = true"));
    int senders = 0;
    for (int i = 0; i < next_thread; i++)
        if (threads[i].name != nullptr && strcmp(threads[i].name, "logging_send") == 0)
            senders++;
    EXPECT_EQ(senders, 1);

    // The switch was pointed at us once.
    auto journal = journal_lines(root);
    ASSERT_EQ(journal.size(), 4u);
    EXPECT_EQ(json_str(json_parse(journal[0]).get(), "call"), "rpcclt_openapiLoggingHostAdd");

    feed(line_n(50, 1));
    wait_posts("/first", 1);
    EXPECT_EQ(posted_lines("/first"), std::vector<std::string>{line_n(50, 1)});
    EXPECT_EQ(posts("/second").size(), 0u);
}

TEST_F(LoggingTest, ThreadThatCannotStartIsTheAnswer)
{
    // Every thread slot taken: neither the receiver nor the sender can start.
    int saved = next_thread;
    next_thread = THREAD_SLOTS;
    auto r = set_logging(params(1000), "t1");
    next_thread = saved;
    EXPECT_EQ(r.first, -1);
    EXPECT_EQ(r.second, "");
    EXPECT_TRUE(logged("cmd_set_logging: platform_start_logging() failed, err = -1"));
    EXPECT_EQ(logging_stream.id, -1);
}

// ---- the sender ----------------------------------------------------------------

TEST_F(LoggingLabTest, PartialBatchGoesOutAfterTheIntervalFullOnesAtOnce)
{
    // Forty lines: one full batch of 39 and one line in the next.
    std::vector<std::string> lines;
    for (int i = 0; i < 40; i++) {
        lines.push_back(line_n(100, i));
        feed(lines.back());
    }
    EXPECT_EQ(set_logging(params(1000), "go").first, 0);
    lab->wait_requests({{"path", "/api/syslog"}}, 2, 10);
    Json reqs = lab->requests({{"path", "/api/syslog"}});
    ASSERT_EQ(json_array_size(reqs.get()), 2u);
    EXPECT_EQ(posted_lines("/syslog"), lines);
    // The frame: lines separated by commas, nothing else.
    std::string body = at(reqs, 1, "body");
    EXPECT_EQ(body, "{\"log\":[" + lines[39] + "]}");
    json_t *h = json_object_get(item(reqs, 0), "headers");
    EXPECT_EQ(json_str(h, "content-type"), "application/json");
    EXPECT_EQ(json_str(h, "authorization").rfind("Bearer ", 0), 0u);
    EXPECT_TRUE(logged("logging_send: overflow = 0, oversize = 0, ready-logs-count = 0"));
    auto s = sys_messages();
    EXPECT_NE(std::find(s.begin(), s.end(), "sending (retry = 3) " + body), s.end());
}

TEST_F(LoggingTest, FailedBatchIsRetriedFirstAndOrderIsKept)
{
    controller->answer("/syslog", 500, "", 3);
    std::vector<std::string> lines;
    for (int i = 0; i < 80; i++) {
        lines.push_back(line_n(100, i));
        feed(lines.back());
    }
    EXPECT_EQ(ready(), 2);
    EXPECT_EQ(set_logging(params(1000), "retry").first, 0);
    wait_taken("/syslog", 3);
    EXPECT_EQ(posted_lines("/syslog"), lines);
    EXPECT_EQ(count_logged("logging_send: post errors (err = 500)"), 3u);
    EXPECT_TRUE(logged("logging_post: err = 500, reply = ''"));
    // The first three posts all carried the oldest batch.
    auto reqs = posts("/syslog");
    ASSERT_GE(reqs.size(), 4u);
    for (int i = 1; i < 4; i++)
        EXPECT_EQ(reqs[i].body, reqs[0].body);
}

TEST_F(LoggingTest, RefusedBatchesAreDroppedCountedAndForwardingGoesOn)
{
    // The controller refuses the first two batches for good.
    controller->answer("/syslog", 400, "bad");
    controller->answer("/syslog", 403, "no");
    std::vector<std::string> lines;
    for (int i = 0; i < 80; i++) {
        lines.push_back(line_n(100, i));
        feed(lines.back());
    }
    EXPECT_EQ(ready(), 2);
    EXPECT_EQ(set_logging(params(1000), "refused").first, 0);
    wait_taken("/syslog", 1);
    // Only the two lines of the last batch reached the controller.
    EXPECT_EQ(posted_lines("/syslog"), std::vector<std::string>(lines.begin() + 78, lines.end()));
    EXPECT_EQ(count_logged("logging_send: batch refused (err = 400), dropped 39 lines"), 1u);
    EXPECT_EQ(count_logged("logging_send: batch refused (err = 403), dropped 39 lines"), 1u);
    EXPECT_TRUE(logged("logging_post: err = 400, reply = 'bad'"));
    EXPECT_TRUE(logged("logging_post: err = 403, reply = 'no'"));
    for (auto &m : main_log())
        EXPECT_EQ(m.rfind("logging_send: post errors", 0), std::string::npos) << m;
    EXPECT_EQ(logging_refused(), 78);
    // Each refused batch was posted once.
    auto reqs = posts("/syslog");
    ASSERT_EQ(reqs.size(), 3u);
    EXPECT_NE(reqs[0].body, reqs[1].body);
    logging_debug(SIGUSR1);
    auto d = log_messages(root.at("/tmp/debug.log"));
    ASSERT_FALSE(d.empty());
    EXPECT_EQ(d.back(), "logging_debug: refused = 78");
}

TEST_F(LoggingTest, RefusedTokenKeepsTheBatch)
{
    // Four 401s use up the post's tries; the token, not the batch, was
    // refused, so the batch is posted again.
    controller->answer("/syslog", 401, "", 4);
    feed(line_n(100, 1));
    EXPECT_EQ(set_logging(params(1000), "token").first, 0);
    wait_taken("/syslog", 1);
    EXPECT_EQ(posted_lines("/syslog"), std::vector<std::string>{line_n(100, 1)});
    EXPECT_TRUE(logged("logging_send: post errors (err = 401)"));
    EXPECT_EQ(logging_refused(), 0);
}

TEST_F(LoggingTest, SenderThatIsNotEnabledStopsAtOnce)
{
    logging_stream.interval = 4;
    logging_stream.enabled = false;
    logging_stream.set_href("/x");
    logging_stream.id = 7;
    logging_send(logging_stream);
    EXPECT_TRUE(logged("logging_send: Started '4','/x','0'"));
    EXPECT_TRUE(logged("logging_send: Stopped"));
    EXPECT_EQ(logging_stream.id, -1);
}

// ---- the post -------------------------------------------------------------------

TEST_F(LoggingTest, PostWithoutControllerCountsAsSent)
{
    EXPECT_EQ(logging_post("/syslog", "{\"log\":[]}", 10), 0);
    EXPECT_EQ(posts("/syslog").size(), 0u);
}

TEST_F(LoggingTest, PostTriesFourTimesOnRefusedTokens)
{
    use_controller();
    controller->answer("/syslog", 401, "", 4);
    EXPECT_EQ(logging_post("/syslog", "{\"log\":[]}", 10), 401);
    EXPECT_EQ(posts("/syslog").size(), 4u);
    EXPECT_EQ(tokens_issued(), 4u);
    auto s = sys_messages();
    std::vector<std::string> sending;
    for (auto &m : s)
        if (m.rfind("sending (retry = ", 0) == 0)
            sending.push_back(m);
    EXPECT_EQ(sending, (std::vector<std::string>{"sending (retry = 3) {\"log\":[]}",
                                                 "sending (retry = 2) {\"log\":[]}",
                                                 "sending (retry = 1) {\"log\":[]}",
                                                 "sending (retry = 0) {\"log\":[]}"}));
    EXPECT_TRUE(logged("logging_post: err = 401, reply = ''"));
}

TEST_F(LoggingTest, PostRenewsTheTokenOnceAndSucceeds)
{
    use_controller();
    controller->answer("/syslog", 401, "");
    EXPECT_EQ(logging_post("/syslog", "{\"log\":[]}", 10), 0);
    EXPECT_EQ(posts("/syslog").size(), 2u);
}

TEST_F(LoggingTest, OtherErrorsAreNotRetried)
{
    use_controller();
    controller->answer("/syslog", 503, "busy");
    EXPECT_EQ(logging_post("/syslog", "{\"log\":[]}", 10), 503);
    EXPECT_EQ(posts("/syslog").size(), 1u);
    EXPECT_TRUE(logged("logging_post: err = 503, reply = 'busy'"));
}

// ---- the flush --------------------------------------------------------------------

TEST_F(LoggingTest, FlushWithNothingWaitingTakesFiveSeconds)
{
    logging_sleep = record_sleep;
    logging_stream.interval = 30;
    EXPECT_EQ(logging_flush(60), 0);
    EXPECT_EQ(sleeps, std::vector<unsigned int>{5});
    EXPECT_EQ(logging_stream.interval, 0);
}

TEST_F(LoggingTest, FlushGivesUpAfterItsSeconds)
{
    logging_sleep = record_sleep;
    for (int i = 0; i < 80; i++)
        feed(line_n(100, i));
    // Nobody sends: 5, then 2 at a time while less than 60 have passed.
    EXPECT_EQ(logging_flush(60), 2);
    EXPECT_EQ(sleeps.size(), 29u);
    EXPECT_EQ(sleeps[0], 5u);
    EXPECT_EQ(std::count(sleeps.begin(), sleeps.end(), 2u), 28);
}

TEST_F(LoggingTest, FlushSendsTheBatchBeingFilled)
{
    EXPECT_EQ(set_logging(params(86400000), "fl").first, 0);
    feed(line_n(60, 1));
    // The interval is a day, yet the flush makes the line go now.
    EXPECT_EQ(logging_flush(60), 0);
    wait_posts("/syslog", 1);
    EXPECT_EQ(posted_lines("/syslog"), std::vector<std::string>{line_n(60, 1)});
}

// ---- the receiver over UDP -------------------------------------------------------

namespace
{

void send_udp(int port, const std::string &data, const char *addr = "127.0.0.1")
{
    int s = socket(AF_INET, SOCK_DGRAM, 0);
    struct sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_port = htons((uint16_t)port);
    inet_pton(AF_INET, addr, &to.sin_addr);
    sendto(s, data.data(), data.size(), 0, reinterpret_cast<struct sockaddr *>(&to), sizeof(to));
    close(s);
}

// A UDP socket bound to a port the kernel picked on every address; its
// number goes to *port. Tests run side by side, so no port is fixed.
int bound_udp_socket(int *port)
{
    int s = socket(AF_INET, SOCK_DGRAM, 0);
    struct sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_ANY);
    socklen_t len = sizeof(a);
    if (s < 0 || bind(s, reinterpret_cast<struct sockaddr *>(&a), sizeof(a)) != 0 ||
        getsockname(s, reinterpret_cast<struct sockaddr *>(&a), &len) != 0) {
        *port = -1;
        return s;
    }
    *port = ntohs(a.sin_port);
    return s;
}

// A port free a moment ago, for the receiver to bind.
int test_port()
{
    int port;
    int s = bound_udp_socket(&port);
    close(s);
    return port;
}

// Starts the receiver on a free port. Until it is bound, datagrams are
// lost: `first` is sent again until arrived() holds. The port, or -1 when
// it never did.
int start_receiver(const std::string &first, const std::function<bool()> &arrived)
{
    int port = test_port();
    platform_syslog_port = port;
    thread_start("platform_syslog_reader", platform_syslog_reader, nullptr, nullptr, nullptr);
    bool up = testkit::wait_for(
        [&] {
            send_udp(port, first);
            return arrived();
        },
        5000);
    return up ? port : -1;
}

} // namespace

TEST_F(LoggingTest, ReceiverNumbersDatagramsAndSurvivesBadOnes)
{
    int port = start_receiver("<13>first", [&] { return filling() > 0; });
    ASSERT_GT(port, 0);
    int base = (int)sys_messages().size();

    send_udp(port, "no head here");
    send_udp(port, std::string("<13>bin\x01\xff\xfe", 10));
    send_udp(port, "<13>" + std::string(65000, 'x'));
    send_udp(port, "<13>bad \\q escape");
    send_udp(port, "<14>Nov 21 10:11:12 good");
    ASSERT_TRUE(wait_for(
        [&] {
            auto m = sys_messages();
            return !m.empty() && m.back().find("good") != std::string::npos;
        },
        5000));
    std::vector<std::string> m;
    auto all = sys_messages();
    for (size_t i = base; i < all.size(); i++)
        if (all[i].find("<13>first") == std::string::npos)
            m.push_back(all[i]);
    ASSERT_EQ(m.size(), 4u);
    // The binary bytes and the stray backslash are taken like any line; the
    // 64-KiB datagram, cut to 1024 bytes, is too long to forward. Each takes
    // its number.
    EXPECT_NE(m[0].find("\"message\":\"<13>no head here\""), std::string::npos) << m[0];
    Json first = json_parse(m[0].substr(10));
    Json bin = json_parse(m[1].substr(10));
    Json stray = json_parse(m[2].substr(10));
    Json last = json_parse(m[3].substr(10));
    EXPECT_EQ(json_str(bin.get(), "message"), "<13>bin\x01\xef\xbf\xbd\xef\xbf\xbd");
    EXPECT_EQ(json_str(stray.get(), "message"), "<13>bad \\q escape");
    EXPECT_EQ(json_integer_value(json_object_get(last.get(), "sequence")) -
                  json_integer_value(json_object_get(first.get(), "sequence")),
              4);
    EXPECT_EQ(json_str(last.get(), "message"), "<14>Nov 21 10:11:12 good");
    for (auto &l : main_log())
        EXPECT_NE(l.rfind("listener: error decoding message: ", 0), 0u) << l;
    EXPECT_EQ(oversize(), 1);
    EXPECT_EQ(overflow(), 0);
}

// The switch is told to send to 127.0.0.1, and only that address is bound:
// nothing sent to another address reaches the batches.
TEST_F(LoggingTest, ReceiverTakesDatagramsOnlyOn127001)
{
    int port = start_receiver("<13>from the switch", [&] { return filling() > 0; });
    ASSERT_GT(port, 0);
    // 127.0.0.2 is a local address too, but not the one the switch uses.
    send_udp(port, "<13>from elsewhere", "127.0.0.2");
    send_udp(port, "<13>marker");
    ASSERT_TRUE(wait_for(
        [&] {
            auto m = sys_messages();
            return !m.empty() && m.back().find("<13>marker") != std::string::npos;
        },
        5000));
    for (auto &m : sys_messages())
        EXPECT_EQ(m.find("from elsewhere"), std::string::npos) << m;
}

TEST_F(LoggingTest, EveryDatagramArrivesOnceAsSentInPostsThatParse)
{
    platform_syslog_port = test_port();
    EXPECT_EQ(set_logging(params(1000), "road").first, 0);
    // Until the receiver is bound, datagrams are lost: repeat a probe.
    ASSERT_TRUE(wait_for(
        [&] {
            send_udp(platform_syslog_port, "<13>probe");
            auto m = sys_messages();
            return !m.empty() && m.back().find("<13>probe") != std::string::npos;
        },
        5000));
    struct {
        std::string sent;
        std::string arrives;
    } cases[] = {
        {"<13>ends in \\", "<13>ends in \\"},
        {"<13>say \\\"hi\\\"", "<13>say \\\"hi\\\""},
        {"<13>\\d", "<13>\\d"},
        {"<13>C:\\temp\\new", "<13>C:\\temp\\new"},
        {std::string("<13>nul\0after", 13), "<13>nul"},
        {"<13>bad \xff\xfe utf8", "<13>bad \xef\xbf\xbd\xef\xbf\xbd utf8"},
        {"<13>tab\there", "<13>tab\there"},
    };
    std::vector<std::string> expected;
    for (auto &c : cases) {
        send_udp(platform_syslog_port, c.sent);
        expected.push_back(c.arrives);
    }
    std::vector<std::string> got;
    ASSERT_TRUE(wait_for(
        [&] {
            // Every post must parse as JSON: json_parse throws otherwise.
            got.clear();
            for (auto &text : taken_bodies("/syslog")) {
                Json body = json_parse(text);
                json_t *log = json_object_get(body.get(), "log");
                for (size_t k = 0; k < json_array_size(log); k++) {
                    std::string m = json_str(json_array_get(log, k), "message");
                    if (m != "<13>probe")
                        got.push_back(m);
                }
            }
            return got.size() >= expected.size();
        },
        10000));
    EXPECT_EQ(got, expected);
    for (auto &l : main_log())
        EXPECT_NE(l.rfind("listener: error decoding message: ", 0), 0u) << l;
}

TEST_F(LoggingTest, ReceiverThatCannotBindSaysSo)
{
    int port;
    int s = bound_udp_socket(&port);
    ASSERT_GT(port, 0);
    platform_syslog_port = port;
    EXPECT_EQ(platform_syslog_pump(), -1);
    EXPECT_TRUE(logged("platform_syslog_pump: failed bind, port " + std::to_string(port) +
                       " (errno = 'Address already in use', 98)"));
    close(s);
}

// The local listeners start before syslog forwarding does, so an operator's
// status request may count the waiting batches while logging_init is making
// their queue. The ThreadSanitizer build fails this test if that races.
class LoggingStartTest : public AgentTest
{
};

TEST_F(LoggingStartTest, CountedFromAnotherThreadWhileForwardingStarts)
{
    std::atomic<bool> stop{false};
    std::atomic<int> asks{0};
    std::thread asker([&] {
        while (!stop.load()) {
            int ready = -1, filling = -1;
            logging_counts(nullptr, nullptr, &ready, &filling);
            EXPECT_EQ(ready, 0);
            EXPECT_EQ(filling, 0);
            asks.fetch_add(1);
        }
    });
    ASSERT_TRUE(wait_for([&] { return asks.load() > 0; }));
    logging_init();
    int seen = asks.load();
    ASSERT_TRUE(wait_for([&] { return asks.load() > seen; }));
    stop.store(true);
    asker.join();
}
