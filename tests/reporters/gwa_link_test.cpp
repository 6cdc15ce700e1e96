#include "reporters/gwa_link.h"

#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "connection/gwa_connection.h"
#include "support/log_of.h"
#include "support/sockets.h"

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
        {"a new address", address, true},
        {"a link, up or down", message(RTM_NEWLINK, 16, 16), true},
        {"removed, then new", removed + address, true},
        {"another", message(RTM_NEWROUTE, 16, 16), false},
        {"another, then new", message(RTM_NEWROUTE, 16, 16) + address, true},
        {"behind the end mark", message(NLMSG_DONE, 16, 16) + address, false},
        {"a length beyond the end", message(RTM_NEWADDR, 21, 20), false},
        {"a length beyond the end, then new", message(RTM_NEWROUTE, 41, 16) + address, false},
        {"a length below the header", message(RTM_NEWADDR, 15, 20) + address, false},
        {"a length that is huge", message(RTM_NEWADDR, UINT32_MAX, 20), false},
        {"a length that rounds up beyond the end", message(RTM_DELADDR, 17, 17), false},
        {"half a header behind a message", removed + address.substr(0, 15), false},
    };
    for (const auto& [what, datagram, restart] : cases) {
        for (size_t shift = 0; shift < 4; shift++) {  // of exactly this size, at any address
            std::vector<uint8_t> exact(shift + datagram.size());
            std::copy(datagram.begin(), datagram.end(), exact.begin() + static_cast<long>(shift));
            EXPECT_EQ(gwa_link_walk(exact.data() + shift, datagram.size()), restart) << what;
        }
    }
}

TEST(LinkMonitor, StartsAnewWithoutBlockingOrLosingADescriptor) {
    gwa_connection_table_init();
    gwa_connection_cntl& cntl = gwa_connections.cntl;
    const auto start = [&] {  // how many lines complain, and the number of the next descriptor
        const size_t lines =
            log_lines_of(GWA_LEVEL_ERROR, [&] { EXPECT_EQ(gwa_link_start(&cntl), 0); }).size();
        return std::pair(lines, unique_fd(dup(STDIN_FILENO)).get());
    };
    poll_init(&cntl.poller);
    EXPECT_EQ(start().first, 0U);
    EXPECT_EQ(poll_now(&cntl.poller), 0) << "nothing has happened: it comes back";
    poll_exit(&cntl.poller);
    poll_init(&cntl.poller);
    close(std::exchange(cntl.poller.epfd, -1));  // a poller that takes nobody in
    const auto failed = start();
    EXPECT_EQ(failed.first, 2U);
    EXPECT_EQ(start(), failed) << "the socket of the start before is closed";
    poll_exit(&cntl.poller);
    gwa_link_stop();
    gwa_log_level_set(GWA_LEVEL_DEBUG);
}

}  // namespace
