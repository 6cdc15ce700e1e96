#include "runtime/gwa_util_send_buffer.h"

#include <gtest/gtest.h>

#include <utility>

TEST(SendBufferLevel, FollowsTheQuarterMarks) {
    const std::pair<int, int> marks[] = {{0, 0},  {1, 1},  {31, 1}, {32, 2},  {64, 2},
                                         {65, 3}, {95, 3}, {96, 4}, {127, 4}, {128, 5}};
    for (const auto& [queued, level] : marks) {
        EXPECT_EQ(gwa_socket_send_buffer_level(queued, 128), level) << queued << " of 128 bytes";
    }
}
