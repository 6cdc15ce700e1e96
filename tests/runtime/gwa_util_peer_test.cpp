#include "runtime/gwa_util_peer.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include "runtime/gwa_util_time.h"
#include "support/fake_time.h"
#include "support/socket_pair.h"

namespace {

constexpr int64_t START = INT32_MAX - 30;  // s; the coarse clock wraps meanwhile

struct Peer : testing::Test {
    fake_time time;
    gwa_peer_watch watch;
    int64_t now = 0;

    static void set_clock(int64_t seconds) {
        fake_time::now_us = (START + seconds) * 1'000'000;
        gwa_now_refresh();
    }
    // Looks each second up to that one, as long as the state is the same, and older each time.
    bool gone_at(int64_t seconds, gwa_peer_state state) {
        bool gone = false;
        for (; now <= seconds && !gone; now++) {
            set_clock(now);
            gone = gwa_peer_judge(&watch, state);
            state.acknowledged_s++;
            state.received_s++;
        }
        return gone;
    }
};

TEST_F(Peer, IsGoneWhenItAcknowledgesNothingForFiftyThreeSeconds) {
    EXPECT_FALSE(gone_at(9, {false, false, 0, 5000, 5000})) << "idle for long";
    EXPECT_FALSE(gone_at(62, {false, true, 0, 5010, 5010})) << "bytes have just left";
    EXPECT_TRUE(gone_at(63, {false, true, 0, 5063, 5063}));
}

TEST_F(Peer, IsGoneAsSoonForWhoLooksAsSeldomAsTheControlConnection) {
    gwa_peer_state state{false, true, 0, 0, 0};
    for (int64_t looked_ms = 900; looked_ms < 59'000; looked_ms += 2100) {
        set_clock(looked_ms / 1000);
        state.acknowledged_s = state.received_s = static_cast<uint32_t>((looked_ms - 900) / 1000);
        EXPECT_EQ(gwa_peer_judge(&watch, state), looked_ms >= 53'900) << looked_ms;
    }
}

TEST_F(Peer, IsThereAsLongAsAcknowledgementsCome) {
    EXPECT_FALSE(gone_at(50, {false, true, 0, 0, 0})) << "always some bytes on their way";
    EXPECT_FALSE(gone_at(90, {false, true, 0, 1, 51}));
    EXPECT_FALSE(gone_at(99, {false, false, 0, 42, 91})) << "all of them acknowledged";
    now = 103;
    EXPECT_FALSE(gone_at(103, {false, true, 0, 46, 95})) << "nobody has looked for a while";
    EXPECT_FALSE(gone_at(150, {false, true, 0, 47, 96})) << "which says nothing of then";
    EXPECT_TRUE(gone_at(201, {true, false, 0, 0, 0})) << "the kernel has given up, or was told to";
}

TEST_F(Peer, BehindAShutWindowIsGoneWhenTwoProbesAreLost) {
    EXPECT_FALSE(gone_at(120, {false, false, 1, 60, 60})) << "the next one may be answered";
    EXPECT_FALSE(gone_at(150, {false, false, 2, 180, 0})) << "it says something";
    now = 300;
    EXPECT_FALSE(gone_at(352, {false, false, 2, 280, 100}));
    EXPECT_TRUE(gone_at(353, {false, false, 2, 335, 155}));
}

TEST_F(Peer, IsLookedAtOnceASecond) {
    socket_pair sockets(AF_INET);
    tcp_info info{};
    socklen_t size = sizeof info;
    getsockopt(sockets.ours, IPPROTO_TCP, TCP_INFO, &info, &size);
    if (info.tcpi_state != TCP_ESTABLISHED) {
        GTEST_SKIP() << "qemu passes on one word alone, with its bytes in the other order";
    }
    set_clock(1);
    EXPECT_FALSE(gwa_peer_is_gone(&watch, sockets.ours));
    const linger reset{1, 0};
    setsockopt(sockets.peer.get(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    sockets.peer.reset();
    EXPECT_FALSE(gwa_peer_is_gone(&watch, sockets.ours));
    set_clock(2);
    EXPECT_TRUE(gwa_peer_is_gone(&watch, sockets.ours));
    const socket_pair others(AF_UNIX);
    now = 10;
    EXPECT_FALSE(gone_at(62, {false, true, 0, 60, 60}));
    set_clock(now++);
    EXPECT_FALSE(gwa_peer_is_gone(&watch, others.ours)) << "nothing is known of it";
    EXPECT_FALSE(gone_at(70, {false, true, 0, 116, 116})) << "and no longer what was before";
}

}  // namespace
