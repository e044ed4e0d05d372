#include "devroot.h"
#include "testkit.h"

#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <syslog.h>

namespace
{

struct DevrootPathTest : ::testing::Test {
    void SetUp() override
    {
        setenv("ORKAD_ROOT", "/tmp/devroot-test/", 1);
        devroot_init();
    }
    void TearDown() override
    {
        unsetenv("ORKAD_ROOT");
        devroot_init();
    }
};

TEST_F(DevrootPathTest, MapsDevicePathsUnderTheRoot)
{
    char buf[64];
    ASSERT_NE(devroot_path("/rw/orkad.log", buf, sizeof(buf)), nullptr);
    EXPECT_STREQ(buf, "/tmp/devroot-test/rw/orkad.log");
}

TEST_F(DevrootPathTest, LeavesKernelAndRelativePathsAlone)
{
    char buf[64];
    EXPECT_STREQ(devroot_path("/proc/net/dev", buf, sizeof(buf)), "/proc/net/dev");
    EXPECT_STREQ(devroot_path("relative/file", buf, sizeof(buf)), "relative/file");
}

TEST_F(DevrootPathTest, MapsInPlace)
{
    char buf[64] = "/etc/ca-bundle.pem";
    ASSERT_EQ(devroot_path(buf, buf, sizeof(buf)), buf);
    EXPECT_STREQ(buf, "/tmp/devroot-test/etc/ca-bundle.pem");
    // An unmapped path copied onto itself stays as it was.
    char rel[16] = "a/b";
    ASSERT_EQ(devroot_path(rel, rel, sizeof(rel)), rel);
    EXPECT_STREQ(rel, "a/b");
}

TEST_F(DevrootPathTest, RefusesWhatDoesNotFitIncludingTheTerminator)
{
    // "/tmp/devroot-test" + "/x" is 19 characters.
    char exact[20];
    EXPECT_NE(devroot_path("/x", exact, sizeof(exact)), nullptr);
    EXPECT_STREQ(exact, "/tmp/devroot-test/x");
    char small[19];
    EXPECT_EQ(devroot_path("/x", small, sizeof(small)), nullptr);
}

TEST(DevrootPathNoRoot, CopiesThePathAsItIs)
{
    unsetenv("ORKAD_ROOT");
    devroot_init();
    char buf[8];
    EXPECT_STREQ(devroot_path("/rw/log", buf, sizeof(buf)), "/rw/log");
    EXPECT_EQ(devroot_path("/rw/logs", buf, sizeof(buf)), nullptr);
}

TEST(DevrootSyslog, FirstLineOpensTheSocketWithTheIdentItHolds)
{
    testkit::DeviceRoot root;
    testkit::SyslogSink sink(root);
    // No dev_openlog yet: the first line opens the socket itself, passing the
    // ident it already holds.
    dev_syslog(LOG_INFO, "first %d", 1);
    EXPECT_NE(sink.wait_for("orkad: first 1"), "");
    dev_openlog("orkad-bench", 0, LOG_DAEMON);
    dev_syslog(LOG_INFO, "second");
    EXPECT_NE(sink.wait_for("orkad-bench: second"), "");
}

} // namespace
