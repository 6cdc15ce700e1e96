#include "runtime/gwa_util_memory.h"

#include <gtest/gtest.h>

#include <utility>

TEST(RoundUp, GivesPowersOfTwoUpTo8192) {
    const std::pair<int, int> sizes[] = {{-1, 0},      {0, 0},       {1, 32},      {32, 32},
                                         {33, 64},     {64, 64},     {65, 128},    {4096, 4096},
                                         {4097, 8192}, {8191, 8192}, {8192, 8192}, {8193, 8193}};
    for (const auto& [size, rounded] : sizes) {
        EXPECT_EQ(gwa_round_up(size), rounded) << size;
    }
}

TEST(MallocDeathTest, EndsTheProcessOnASizeBelowOne) {
    EXPECT_DEATH(GWA_MALLOC(0), "<3> size is <= 0");
}
