#include "runtime/gwa_util_peer.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "runtime/gwa_util_time.h"
#include "support/fake_time.h"
#include "support/socket_pair.h"

namespace {

constexpr int64_t START = INT32_MAX - 30;  // s; the coarse clock wraps meanwhile

struct Peer : testing::Test {
    fake_time time;
    gwa_peer_watch watch;

    static void set_clock(int64_t seconds) {
        fake_time::now_us = (START + seconds) * 1'000'000;
        gwa_now_refresh();
    }
    bool gone_at(int64_t seconds, const gwa_peer_state& state) {
        set_clock(seconds);
        return gwa_peer_judge(&watch, state);
    }
};

TEST_F(Peer, IsGoneWhenItAcknowledgesNothingForFortyFiveSeconds) {
    EXPECT_FALSE(gone_at(0, {false, false, 5000})) << "idle for long";
    EXPECT_FALSE(gone_at(100, {false, true, 5100})) << "bytes have just left";
    EXPECT_FALSE(gone_at(144, {false, true, 5144}));
    EXPECT_TRUE(gone_at(145, {false, true, 5145}));
}

TEST_F(Peer, IsThereAsLongAsAcknowledgementsCome) {
    EXPECT_FALSE(gone_at(0, {false, true, 10}));
    EXPECT_FALSE(gone_at(44, {false, true, 1})) << "always some bytes on their way";
    EXPECT_FALSE(gone_at(88, {false, true, 45}));
    EXPECT_FALSE(gone_at(89, {false, false, 46})) << "all of them acknowledged";
    EXPECT_FALSE(gone_at(200, {false, true, 157}));
    EXPECT_TRUE(gone_at(245, {false, true, 202}));
    EXPECT_TRUE(gone_at(0, {true, false, 0})) << "the kernel has given up, or was told to";
}

TEST_F(Peer, IsLookedAtOnceASecond) {
    socket_pair sockets(AF_INET);
    set_clock(1);
    EXPECT_FALSE(gwa_peer_is_gone(&watch, sockets.ours));
    const linger reset{1, 0};
    setsockopt(sockets.peer.get(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    sockets.peer.reset();
    EXPECT_FALSE(gwa_peer_is_gone(&watch, sockets.ours));
    set_clock(2);
    EXPECT_TRUE(gwa_peer_is_gone(&watch, sockets.ours));
    const socket_pair others(AF_UNIX);
    set_clock(3);
    EXPECT_FALSE(gwa_peer_is_gone(&watch, others.ours)) << "nothing is known of it";
}

}  // namespace
