// How the daemon comes back: through the box's init script, or by itself where there is none.
#include "peer.h"

// A restart leaves a successor behind, which only a machine of the test's own takes away again.
struct Restart : testing::Test, session {
    void SetUp() override {
        if (!isolated()) {
            GTEST_SKIP() << "needs private namespaces";
        }
        ASSERT_TRUE(log_in());
    }
};

TEST_F(Restart, RunsTheInitScriptForANewAddress) {
    constexpr char SCRIPT[] = "/etc/init.d/gwadsh";
    const std::string mark = device.home.path + "/started";
    file_write(SCRIPT, "#!/bin/sh\necho \"$0 $*\" >" + mark, true);
    ASSERT_TRUE(device.logs("init port info success"));  // the last of the reporters
    child({"/usr/bin/env", "ip", "address", "replace", "10.9.9.9/32", "dev", "lo"}).wait();
    EXPECT_TRUE(device.restarts());
    EXPECT_TRUE(eventually([&] { return file_read(mark) == "/etc/init.d/gwadsh start\n"; }));
    EXPECT_EQ(text_count(device.log(), "gwad start"), 1);
    remove(SCRIPT);
}

TEST_F(Restart, RunsItselfAgainWithoutAnInitScript) {
    const pid_t before = device.pid();
    ASSERT_TRUE(sends(heartbeat_frame(1) + heartbeat_frame(1) + heartbeat_frame(1)));
    EXPECT_TRUE(device.restarts());
    EXPECT_TRUE(device.logs("max heartbeat timeout counter overflow, reinit now"));
    EXPECT_TRUE(relay() && echoes(data, 1));
    EXPECT_NE(device.pid(), before);
    // The successor is as good as the first: it ends in order.
    kill(device.pid(), SIGTERM);
    EXPECT_TRUE(device.logs("login exit success"));
}
