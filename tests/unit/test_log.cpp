#include "log.h"
#include "testkit.h"

#include <gtest/gtest.h>

using namespace testkit;

namespace {

class LogTest : public ::testing::Test {
  protected:
    DeviceRoot root;
    void SetUp() override { log_init(); }
};

} // namespace

TEST_F(LogTest, BannerOpensEveryFile)
{
    for (const char *name : {"/rw/orkad", "/rw/http", "/rw/command", "/rw/syslog", "/tmp/debug",
                             "/rw/broker", "/rw/rfscan", "/rw/redirect", "/rw/prbd", "/rw/of"}) {
        auto msgs = log_messages(root.at(std::string(name) + ".log"));
        ASSERT_EQ(msgs.size(), 1u) << name;
        EXPECT_EQ(msgs[0], std::string("============================ ") + name +
                               " started ============================");
    }
}
