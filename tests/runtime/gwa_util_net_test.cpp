#include "runtime/gwa_util_net.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "runtime/gwa_types.h"

TEST(Resolve, AnswersTheFirstAddress) {
    uint32_t address = 0;
    char text[16] = "";
    EXPECT_EQ(gwa_getaddrinfo("192.0.2.7", &address, text, sizeof text), 0);
    EXPECT_EQ(ntohl(address), 0xc0000207);
    EXPECT_STREQ(text, "192.0.2.7");
    EXPECT_EQ(gwa_getaddrinfo("192.0.2.7", nullptr, nullptr, 0), 0);
    EXPECT_EQ(gwa_getaddrinfo("192.0.2.7", nullptr, text, 4), GWA_FAILED);
    EXPECT_NE(gwa_getaddrinfo("not a name", &address, text, sizeof text), 0);
}

TEST(Interface, TellsAddressesOfTheLoopback) {
    uint8_t address[4] = {}, mac[6] = {1, 2, 3, 4, 5, 6};
    EXPECT_EQ(gwa_interface_addr_get("lo", &address), 0);
    EXPECT_EQ(load_be32(address), INADDR_LOOPBACK);
    EXPECT_EQ(gwa_interface_mac_get("lo", &mac), 0);
    EXPECT_EQ(load_be32(mac) + load_be32(mac + 2), 0U);
    for (const char* name : {static_cast<const char*>(nullptr), "", "a name of twenty-one"}) {
        EXPECT_EQ(gwa_interface_addr_get(name, &address), GWA_FAILED);
        EXPECT_EQ(gwa_interface_mac_get(name, &mac), GWA_FAILED);
    }
}
