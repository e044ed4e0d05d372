// The test kit's own promises, where breaking one would reach past a test's
// device root.
#include "testkit.h"

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
