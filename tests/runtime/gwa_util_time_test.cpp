#include "runtime/gwa_util_time.h"

#include <gtest/gtest.h>

#include "support/fake_time.h"
#include "support/run_flags.h"

TEST(SleepDeathTest, IsCutShortBetweenSecondsOnly) {
    fake_time time;
    EXPECT_EQ(gwa_sleep(3), 0);
    EXPECT_EQ(time.now_us, 3000000);
    EXPECT_EQ(gwa_sleep(2592000), 0);
    EXPECT_DEATH(gwa_sleep(2592001), "<3> sleep too long, may error");
    time.now_us = 0;
    const run_flags stopped{false};
    EXPECT_EQ(gwa_sleep(10), 0);
    EXPECT_EQ(gwa_time_seconds(), 1) << "one second is always slept";
    EXPECT_EQ(gwa_usleep(1500000), 0);
    EXPECT_EQ(time.now_us, 2500000);
}
