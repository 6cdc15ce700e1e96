#include "reporters/gwa_link.h"

#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/log_of.h"

namespace {

// One message of `type` that claims `claimed` bytes and brings `bytes`.
std::string message(uint16_t type, uint32_t claimed, size_t bytes) {
    nlmsghdr header{};
    header.nlmsg_len = claimed;
    header.nlmsg_type = type;
    std::string made(std::max(bytes, sizeof header), '\0');
    memcpy(made.data(), &header, sizeof header);
    made.resize(bytes);
    return made;
}

TEST(LinkWalk, FindsWhatAsksForARestartAndStopsAtWhatIsNotWhole) {
    const std::string address = message(RTM_NEWADDR, 20, 20);
    const std::string removed = message(RTM_DELADDR, 17, 20);  // the next one is aligned to 4
    const struct {
        const char* what;
        std::string datagram;
        bool restart;
    } cases[] = {
        {"nothing", "", false},
        {"a new address", address, true},
        {"a link, up or down", message(RTM_NEWLINK, 16, 16), true},
        {"a removed address", removed, false},
        {"removed, then new", removed + address, true},
        {"other, then new", message(RTM_NEWROUTE, 16, 16) + address, true},
        {"behind the end mark", message(NLMSG_DONE, 16, 16) + address, false},
        {"a length beyond the end", message(RTM_NEWADDR, 21, 20), false},
        {"a length beyond the end, then new", message(RTM_NEWROUTE, 41, 16) + address, false},
        {"a length below the header", message(RTM_NEWADDR, 15, 20) + address, false},
        {"a length of zero", message(RTM_NEWROUTE, 0, 20) + address, false},
        {"a length that is huge", message(RTM_NEWADDR, UINT32_MAX, 20), false},
        {"a length that rounds up beyond the end", message(RTM_DELADDR, 17, 17), false},
        {"half a header", message(RTM_NEWADDR, 16, 15), false},
        {"half a header behind a message", removed + address.substr(0, 15), false},
    };
    gwa_log_level_set(GWA_LOG_OFF);
    for (const auto& [what, datagram, restart] : cases) {
        for (size_t shift = 0; shift < 4; shift++) {  // of exactly this size, at any address
            std::vector<uint8_t> exact(shift + datagram.size());
            std::copy(datagram.begin(), datagram.end(), exact.begin() + static_cast<long>(shift));
            EXPECT_EQ(gwa_link_walk(exact.data() + shift, datagram.size()), restart) << what;
        }
    }
    gwa_log_level_set(GWA_LEVEL_DEBUG);
}

TEST(LinkWalk, SaysWhatHasHappened) {
    const std::string bytes = message(RTM_DELADDR, 16, 16) + message(RTM_NEWADDR, 16, 16);
    const auto walk = [](const std::string& datagram) {
        return log_lines_of(GWA_LEVEL_DEBUG, [&] {
            gwa_link_walk(reinterpret_cast<const uint8_t*>(datagram.data()), datagram.size());
        });
    };
    EXPECT_EQ(walk(bytes),
              (std::vector<std::string>{"<0> remove a address !!!",
                                        "<0> detect a new address, restart the connection now"}));
    EXPECT_EQ(walk(message(RTM_NEWLINK, 16, 16)),
              std::vector<std::string>{"<0> detect link up, restart the connection now"});
    gwa_log_level_set(GWA_LEVEL_DEBUG);
}

TEST(LinkMonitor, OpensWithoutBlocking) {
    const int fd = gwa_link_init();
    ASSERT_NE(fd, -1);
    gwa_link_handle(1, const_cast<int*>(&fd));  // nothing has happened: it comes back
    gwa_link_close(fd);
    gwa_link_close(-1);
}

}  // namespace
