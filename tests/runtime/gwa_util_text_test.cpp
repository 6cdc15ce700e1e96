#include "runtime/gwa_util_text.h"

#include <gtest/gtest.h>

#include <cstdio>

TEST(SizeFormat, ScalesByUnits) {
    constexpr uint64_t KIB = 1024, MIB = KIB * KIB, GIB = MIB * KIB, TIB = GIB * KIB;
    const std::pair<uint64_t, const char*> sizes[] = {{1023, "1023"},
                                                      {KIB, "1.000K"},
                                                      {MIB + MIB / 2, "1.500M"},
                                                      {GIB - 1, "1023.999M"},
                                                      {KIB * TIB - TIB, "1023.000T"},
                                                      {KIB * TIB, "XXX"}};
    for (const auto& [value, text] : sizes) {
        EXPECT_STREQ(gwa_size_format(value, nullptr, 0), text);
    }
    char small[15] = "untouched";
    EXPECT_STREQ(gwa_size_format(1, small, sizeof small), "ERROR");
    EXPECT_STREQ(small, "untouched");
}

TEST(Hexdump, PrintsRowsOfSixteen) {
    testing::internal::CaptureStdout();
    gwa_hexdump("0123456789 \n~\x7f\xff.!", 17);
    fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "         0  1  2  3  4  5  6  7  8  9  a  b  c  d  e  f\n"
              "        -- -- -- -- -- -- -- -- -- -- -- -- -- -- -- --\n"
              "0x0000  30 31 32 33 34 35 36 37 38 39 20 0a 7e 7f ff 2e  0123456789 .~...\n"
              "0x0010  21 \n");
}
