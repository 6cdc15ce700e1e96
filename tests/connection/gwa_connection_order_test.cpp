#include "connection/gwa_connection_order.h"

#include <gtest/gtest.h>

#include <string>

TEST(HostList, NeedsFiveUsablePairs) {
    const std::string longest(63, 'h');
    const std::pair<std::string, uint16_t> third_pairs[] = {
        // and the port it gives; 0: refused
        {R"("host3":"c","port3":"0008003",)", 8003},
        {R"("host3":"c","port3":"65537",)", 1},
        {R"("host3":")" + longest + R"(cut","port3":"1",)", 1},
        {R"("port3":"8003",)", 0},
        {R"("host3":"c","port3":"",)", 0},
        {R"("host3":"c","port3":"65536",)", 0},
        {R"("host3":"c","port3":"00008003",)", 0},
        {R"("host3":"c",)", 0}};
    for (const auto& [third, port] : third_pairs) {
        const std::string text = R"({"host1":"a","port1":"8001","host2":"b","port2":"8002",)" +
                                 third +
                                 R"("host4":"d","port4":"8004","host5":"10.0.0.5","port5":"85"})";
        gwa_host_list list;
        EXPECT_EQ(gwa_host_list_get(text.c_str(), &list), port == 0 ? -1 : 0) << text;
        EXPECT_EQ(list.ports[2], port) << text;
        EXPECT_STREQ(list.hosts[4], port == 0 ? "" : "10.0.0.5") << text;
        EXPECT_TRUE(text.find(longest) == std::string::npos || list.hosts[2] == longest);
    }
}
