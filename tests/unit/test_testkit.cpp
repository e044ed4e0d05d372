// The test kit's own promises, where breaking one would reach past a test's
// device root.
#include "testkit.h"

#include "db.h"
#include "lsql.h"
#include "http.h"
#include "log.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace testkit;

TEST(TestKitTest, WriteFileReplacesALinkInsteadOfWritingThroughIt)
{
    DeviceRoot host, root;
    // A device root links some tools to the host's programs; a stand-in
    // written there must not land on the host's program.
    write_file(host.at("/openvpn"), "the host's program\n");
    ASSERT_EQ(symlink(host.at("/openvpn").c_str(), root.at("/openvpn").c_str()), 0);

    write_file(root.at("/openvpn"), "#!/bin/sh\nexit 0\n");

    EXPECT_EQ(read_file(host.at("/openvpn")), "the host's program\n");
    struct stat st;
    ASSERT_EQ(lstat(root.at("/openvpn").c_str(), &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(read_file(root.at("/openvpn")), "#!/bin/sh\nexit 0\n");
}

TEST(TestKitTest, CannedControllerAnswersFromItsQueueAndRecordsEveryRequest)
{
    DeviceRoot root;
    ASSERT_TRUE(root.build());
    log_init();
    db_init();
    http_init();
    CannedController controller;
    config_set("system", nullptr, "cloud-controller", CannedController::base_url);
    controller.answer("/response/t", 503, R"({"busy":1})");

    // Refused once, then taken with a fresh token: the command-answer policy.
    EXPECT_EQ(send_command_status("/response/t", "c1", -1, "no"), 0);
    auto asked = controller.requests("/response/t");
    ASSERT_EQ(asked.size(), 2u);
    EXPECT_EQ(asked[0].status, 503);
    EXPECT_EQ(asked[1].status, 200);
    EXPECT_EQ(asked[1].url, "https://controller.invalid/api/response/t");
    EXPECT_EQ(asked[1].body, R"({"response":[{"commandId":"c1","code":-1,"message":"no"}]})");
    EXPECT_EQ(controller.requests("/oauth/token").size(), 2u);

    auto taken = controller.answers("c1");
    ASSERT_EQ(taken.size(), 1u);
    EXPECT_EQ(taken[0].path, "/response/t");
    EXPECT_EQ(taken[0].code, -1);
    EXPECT_EQ(taken[0].message, "no");
    EXPECT_TRUE(controller.answers("c2").empty());

    // A failed transfer is no answer at all.
    controller.answer("/response/t", 0, "", 4);
    EXPECT_EQ(send_command_status("/response/t", "c2", 0, ""), 2);
    EXPECT_TRUE(controller.answers("c2").empty());
}

TEST(TestKitTest, JournalReaderNamesEachCallAndItsMembers)
{
    DeviceRoot root;
    mkdir(root.at("/var").c_str(), 0755);
    mkdir(root.at("/var/switch").c_str(), 0755);
    write_file(root.at("/var/switch/journal"),
               "{\"call\":\"a\",\"port\":3}\nnot json\n{\"call\":\"b\",\"name\":\"x\"}\n");
    EXPECT_EQ(journal_calls(root), (std::vector<std::string>{"a", "<bad line>", "b"}));
    EXPECT_EQ(journal_lines_of(root, "b"),
              std::vector<std::string>{"{\"call\":\"b\",\"name\":\"x\"}"});
    EXPECT_EQ(journal_value(root, 0, "port"), "3");
    EXPECT_EQ(journal_value(root, 2, "name"), "x");
    EXPECT_EQ(journal_value(root, 2, "port"), "<absent>");
    EXPECT_EQ(journal_value(root, 3, "call"), "<no line>");
}
