// How the daemon comes back: through the box's init script, or by itself where there is none.
#include <gtest/gtest.h>

#include "peer.h"
#include "support/isolation.h"

namespace {

constexpr char INIT_SCRIPT[] = "/etc/init.d/gwadsh";  // on a file system of the test's own

struct Restart : testing::Test, session {
    void SetUp() override {
        if (!isolated()) {
            GTEST_SKIP() << "needs a private mount namespace for the init script";
        }
        ASSERT_TRUE(log_in());
    }
    void TearDown() override { remove(INIT_SCRIPT); }
};

}  // namespace

TEST_F(Restart, RunsTheInitScript) {
    const std::string mark = device.home.path + "/started";
    file_write(INIT_SCRIPT,
               "#!/bin/sh\necho \"$0 $*\" >" + mark + ".part; mv " + mark + ".part " + mark, true);
    control.reset();
    EXPECT_TRUE(device.restarts());
    EXPECT_TRUE(eventually([&] { return file_read(mark) == "/etc/init.d/gwadsh start\n"; }))
        << file_read(mark);
    EXPECT_EQ(text_count(device.log(), "gwad start"), 1);
}

TEST_F(Restart, RunsItselfAgainWithoutAnInitScript) {
    const pid_t before = device.pid();
    control.reset();
    EXPECT_TRUE(device.restarts());
    EXPECT_TRUE(log_in());
    const pid_t after = device.pid();
    EXPECT_NE(after, before);
    EXPECT_EQ(text_count(device.log(), "gwad start"), 2);
    // The successor is as good as the first: it ends in order.
    kill(after, SIGTERM);
    EXPECT_TRUE(device.logs("login exit success"));
}
