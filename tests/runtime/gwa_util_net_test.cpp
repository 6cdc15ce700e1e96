#include "runtime/gwa_util_net.h"

#include <gtest/gtest.h>

TEST(Interface, TellsTheHardwareAddressOfTheLoopback) {
    uint8_t mac[6] = {1, 2, 3, 4, 5, 6};
    EXPECT_EQ(gwa_interface_mac_get("lo", &mac), 0);
    for (const uint8_t byte : mac) {
        EXPECT_EQ(byte, 0);
    }
}

TEST(Resolve, KnowsNoOtherAddressesThanThoseOfFourBytes) {
    EXPECT_EQ(gwa_getaddrinfo("192.0.2.7", nullptr, nullptr, 0), 0);
    EXPECT_NE(gwa_getaddrinfo("::1", nullptr, nullptr, 0), 0);
}
