#include "log.h"
#include "testkit.h"

#include <gtest/gtest.h>
#include <regex>
#include <sys/stat.h>
#include <string>

using namespace testkit;

namespace
{

class LogTest : public ::testing::Test
{
  protected:
    DeviceRoot root;
    void SetUp() override { log_init(); }
    std::string main_log(int generation = 0)
    {
        return generation == 0 ? root.at("/rw/orkad.log")
                               : root.at("/rw/orkad" + std::to_string(generation) + ".log");
    }
};

const char *const handle_names[] = {"/rw/orkad",  "/rw/http",   "/rw/command", "/rw/syslog",
                                    "/tmp/debug", "/rw/broker", "/rw/rfscan",  "/rw/redirect",
                                    "/rw/prbd",   "/rw/of"};

} // namespace

TEST_F(LogTest, BannerOpensEveryFileInOrder)
{
    for (int i = 0; i < LOG_HANDLES; i++)
        EXPECT_STREQ(logs[i]->name, handle_names[i]);
    for (const char *name : handle_names) {
        auto msgs = log_messages(root.at(std::string(name) + ".log"));
        ASSERT_EQ(msgs.size(), 1u) << name;
        EXPECT_EQ(msgs[0], std::string("============================ ") + name +
                               " started ============================");
    }
    // The banners took the first ten line numbers, in handle order.
    for (int i = 0; i < LOG_HANDLES; i++) {
        std::string line = read_file(root.at(std::string(handle_names[i]) + ".log"));
        EXPECT_EQ(line.substr(0, line.find(' ')), std::to_string(i + 1));
    }
}

TEST_F(LogTest, LineHasIndexAndLocalTimePrefix)
{
    log_fprint(orkad_log, "%s: hello %d\n", "test", 42);
    auto lines = lines_of(read_file(main_log()));
    ASSERT_EQ(lines.size(), 2u);
    std::regex prefix(R"(^11 \d{4}\.\d{2}\.\d{2} \d{2}:\d{2}:\d{2} test: hello 42$)");
    EXPECT_TRUE(std::regex_match(lines[1], prefix)) << lines[1];
    // total counts prefix and message of both lines.
    EXPECT_EQ(orkad_log->total, (uint64_t)read_file(main_log()).size());
}

TEST_F(LogTest, LineStampedIn2040ShowsTheDate)
{
    setenv("TZ", "UTC", 1);
    tzset();
    log_clock = fake_time;
    fake_now = LEAP_DAY_2040;
    log_fprint(orkad_log, "leap %d\n", 2040);
    fake_now = Y2038_WRAP;
    log_fprint(orkad_log, "first second past 32 bits\n");
    log_clock = time;
    auto lines = lines_of(read_file(main_log()));
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_TRUE(std::regex_match(lines[1], std::regex(R"(\d+ 2040\.02\.29 12:34:56 leap 2040)")))
        << lines[1];
    EXPECT_TRUE(std::regex_match(
        lines[2], std::regex(R"(\d+ 2038\.01\.19 03:14:08 first second past 32 bits)")))
        << lines[2];
}

TEST_F(LogTest, NothingAddedToFormat)
{
    log_fprint(orkad_log, "no newline");
    log_fprint(orkad_log, "-second\n");
    std::string text = read_file(main_log());
    EXPECT_NE(text.find("no newline12 "), std::string::npos);
}

TEST(LogNolog, NologWritesNothingAndKeepsIndex)
{
    DeviceRoot root;
    nolog = 1;
    uint64_t before = log_line_index();
    log_init();
    log_fprint(orkad_log, "hidden\n");
    log_fprint(http_log, "hidden\n");
    debug_print_with_time(1, "trace\n");
    EXPECT_EQ(log_line_index(), before);
    for (log_t *log : logs)
        EXPECT_EQ(log->total, 0u);
    // The files are opened, but nothing is written to them.
    EXPECT_EQ(file_size(root.at("/rw/orkad.log")), 0);
    EXPECT_EQ(file_size(root.at("/tmp/debug.log")), 0);
}

TEST(LogOpen, MissingFolderLeavesHandleSilent)
{
    DeviceRoot root;
    ASSERT_EQ(system(("rm -rf " + root.at("/rw")).c_str()), 0);
    testing::internal::CaptureStdout();
    log_init();
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("Failed to open log file '/rw/orkad'\n"), std::string::npos);
    EXPECT_EQ(orkad_log->file.load(), nullptr);
    log_fprint(orkad_log, "lost\n");
    EXPECT_EQ(orkad_log->total, 0u);
    // The debug log in /tmp still works.
    EXPECT_NE(dbg_log->file.load(), nullptr);
}

TEST_F(LogTest, CrossingMaxsizeRotatesAfterTheWholeMessage)
{
    long size = file_size(main_log());
    // The prefix of the next line is "12 YYYY.MM.DD HH:MM:SS " = 23 bytes.
    long fill = 262145 - size - 23;
    std::string msg(fill - 1, 'x');
    log_fprint(orkad_log, "%s\n", msg.c_str());
    EXPECT_FALSE(file_exists(main_log(1)) && file_size(main_log(1)) != 262145);
    ASSERT_TRUE(file_exists(main_log(1)));
    EXPECT_EQ(file_size(main_log(1)), 262145);
    EXPECT_EQ(file_size(main_log()), 0);
    log_fprint(orkad_log, "fresh\n");
    auto msgs = log_messages(main_log());
    ASSERT_EQ(msgs.size(), 1u);
    EXPECT_EQ(msgs[0], "fresh");
}

TEST_F(LogTest, ReachingMaxsizeExactlyDoesNotRotate)
{
    long size = file_size(main_log());
    std::string msg(262144 - size - 23 - 1, 'x');
    log_fprint(orkad_log, "%s\n", msg.c_str());
    EXPECT_EQ(file_size(main_log()), 262144);
    EXPECT_FALSE(file_exists(main_log(1)));
}

TEST_F(LogTest, HugeMessageIsCutAndMarked)
{
    long size = file_size(main_log());
    std::string msg(300000 - size - 23 - 1, 'y');
    uint64_t total_before = orkad_log->total;
    log_fprint(orkad_log, "%s\n", msg.c_str());
    ASSERT_TRUE(file_exists(main_log(1)));
    EXPECT_EQ(file_size(main_log(1)), 270340);
    std::string cut = read_file(main_log(1));
    EXPECT_EQ(cut.substr(cut.size() - 5), "y...\n");
    // The whole message and the marker count in total.
    EXPECT_EQ(orkad_log->total - total_before, (uint64_t)(300000 - size + 4));
    EXPECT_EQ(file_size(main_log()), 0);
}

TEST_F(LogTest, FiveRotationsKeepFiveFiles)
{
    std::string big(262200, 'z');
    for (int i = 1; i <= 5; i++)
        log_fprint(orkad_log, "gen%d %s\n", i, big.c_str());
    log_fprint(orkad_log, "current\n");
    EXPECT_TRUE(file_exists(main_log()));
    for (int g = 1; g <= 4; g++)
        EXPECT_TRUE(file_exists(main_log(g))) << g;
    EXPECT_FALSE(file_exists(main_log(5)));
    std::string out = read_file(root.at("/rw") + "/../rw/orkad.log");
    EXPECT_EQ(system(("test $(ls " + root.at("/rw") + " | grep -c '^orkad') -eq 5").c_str()), 0);
    // Newest rotated generation is 1; the first message was dropped.
    EXPECT_NE(read_file(main_log(1)).find("gen5 "), std::string::npos);
    EXPECT_NE(read_file(main_log(4)).find("gen2 "), std::string::npos);
    EXPECT_EQ(log_messages(main_log())[0], "current");
}

TEST_F(LogTest, LineIndexIsSharedAcrossFiles)
{
    log_fprint(orkad_log, "a\n");
    log_fprint(http_log, "b\n");
    auto first = lines_of(read_file(main_log())).back();
    auto second = lines_of(read_file(root.at("/rw/http.log"))).back();
    unsigned long long a = std::stoull(first.substr(0, first.find(' ')));
    unsigned long long b = std::stoull(second.substr(0, second.find(' ')));
    EXPECT_EQ(b, a + 1);
}

TEST_F(LogTest, DebugTraceHasTimeAndNoIndex)
{
    uint64_t index = log_line_index();
    uint64_t total = dbg_log->total;
    debug_print_with_time(0, "trace %d\n", 7);
    auto lines = lines_of(read_file(root.at("/tmp/debug.log")));
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_TRUE(std::regex_match(lines[1], std::regex(R"(^\d+\.\d{6} trace 7$)"))) << lines[1];
    EXPECT_EQ(log_line_index(), index);
    EXPECT_EQ(dbg_log->total, total);
}

TEST_F(LogTest, DebugTraceRotatesBeforeWritingWithoutCut)
{
    std::string big(300000, 'q');
    debug_print_with_time(0, "%s\n", big.c_str());
    // Over the limit but not cut: the trace does not apply the cut rule.
    EXPECT_GT(file_size(root.at("/tmp/debug.log")), 300000);
    debug_print_with_time(0, "next\n");
    EXPECT_GT(file_size(root.at("/tmp/debug1.log")), 300000);
    auto lines = lines_of(read_file(root.at("/tmp/debug.log")));
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find(" next"), std::string::npos);
}

TEST_F(LogTest, LogDebugDumpsUptimeAndSizes)
{
    log_fprint(http_log, "something\n");
    log_debug(1);
    auto msgs = log_messages(root.at("/tmp/debug.log"));
    ASSERT_EQ(msgs.size(), 12u);
    EXPECT_TRUE(std::regex_match(msgs[1], std::regex(R"(^log_debug: uptime \d+ seconds$)")));
    for (int i = 0; i < LOG_HANDLES; i++) {
        std::string expect = std::string("log_debug: ") + handle_names[i] + " ";
        EXPECT_EQ(msgs[2 + i].substr(0, expect.size()), expect);
    }
    EXPECT_EQ(msgs[3], "log_debug: /rw/http " + std::to_string(http_log->total) + " bytes");

    log_debug(0);
    EXPECT_EQ(log_messages(main_log()).size(), 12u);
}

TEST(LogOpen, LogFilesAreForTheAgentAlone)
{
    DeviceRoot root;
    // A file an older agent left readable by everybody is closed to them.
    write_file(root.at("/rw/http.log"), "old\n");
    ASSERT_EQ(chmod(root.at("/rw/http.log").c_str(), 0644), 0);
    mode_t old = umask(0);
    log_init();
    auto mode = [&](const std::string &p) {
        struct stat st;
        return stat(root.at(p).c_str(), &st) == 0 ? (int)(st.st_mode & 0777) : -1;
    };
    for (const char *p :
         {"/rw/orkad.log", "/rw/http.log", "/rw/command.log", "/rw/syslog.log", "/tmp/debug.log"})
        EXPECT_EQ(mode(p), 0600) << p;
    // So is the new file a rotation opens.
    log_rotate(http_log);
    umask(old);
    EXPECT_EQ(mode("/rw/http.log"), 0600);
    EXPECT_EQ(mode("/rw/http1.log"), 0600);
}
