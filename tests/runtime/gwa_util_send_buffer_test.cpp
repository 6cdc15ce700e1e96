#include "runtime/gwa_util_send_buffer.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "runtime/gwa_types.h"
#include "support/fake_time.h"
#include "support/run_flags.h"
#include "support/socket_pair.h"

TEST(SendBufferLevel, FollowsTheQuarterMarks) {
    const std::pair<int, int> marks[] = {{0, 0},  {1, 1},  {31, 1}, {32, 2},  {64, 2},
                                         {65, 3}, {95, 3}, {96, 4}, {127, 4}, {128, 5}};
    for (const auto& [queued, level] : marks) {
        EXPECT_EQ(gwa_socket_send_buffer_level(queued, 128), level) << queued << " of 128 bytes";
    }
}

TEST(SendBufferWait, EndsWhenDrainedOrAtTheLimit) {
    fake_time time;
    socket_pair sockets;
    run_flags running{true};
    int level = 9;
    const auto wait = [&](int fd) {
        return gwa_socket_send_buffer_wait(fd, 1000, 0, &level, 1, gwa_connection_running);
    };
    const std::string text(4000, 'x');
    ASSERT_EQ(gwa_sendn(sockets.ours, text.data(), 4000), 4000);
    EXPECT_EQ(wait(sockets.ours), GWA_TIMED_OUT);
    EXPECT_EQ(level, 5);
    EXPECT_EQ(time.now_us, GWA_US_PER_SECOND) << "in pauses of 5 ms";
    int looks = 0;
    time.event = [&] { ++looks == 9 && !sockets.peer_hears().empty(); };
    EXPECT_EQ(wait(sockets.ours), GWA_OK);
    EXPECT_EQ(level, 0);
    EXPECT_LT(time.now_us, 2 * GWA_US_PER_SECOND);
    EXPECT_EQ(wait(-1), GWA_FAILED);
    gwa_connection_run = 0;
    EXPECT_EQ(wait(sockets.ours), GWA_FAILED);
    EXPECT_EQ(level, -1);
}
