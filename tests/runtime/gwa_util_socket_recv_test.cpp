#include "runtime/gwa_util_socket_recv.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>

#include "runtime/gwa_types.h"
#include "support/fake_time.h"
#include "support/run_flags.h"
#include "support/socket_pair.h"

namespace {

// The exact reads, which differ in how they wait and in what they answer.
struct exact_read {
    const char* name;
    std::function<int(int fd, void* buffer, size_t length)> run;
    int whole;      // result for 8 bytes
    int cut_short;  // result when the process run flag clears after 3 of them
    int nothing;    // result for 0 bytes
};
const exact_read EXACT_READS[] = {
    {"recvn_timeout", [](int f, void* b, size_t n) { return gwa_recvn_timeout(f, b, n, 9); }, 0, -1,
     0},
    {"recvn", gwa_recvn, 8, -1, -1},
    {"recvn_timeout_fast",
     [](int f, void* b, size_t n) { return gwa_recvn_timeout_fast(f, b, n, 9); }, 8, 3, -1},
};

struct Sockets : testing::Test {
    fake_time time;
    socket_pair sockets;
    char buffer[9] = "";
    static constexpr size_t SIZE = 8;
};
using RecvnTimeout = Sockets;
using RecvnTimeoutFast = Sockets;
using RecvTimeout = Sockets;
using RecvDiscard = Sockets;

}  // namespace

TEST(ExactRead, PutsPiecesTogetherUntilThePeerClosesOrTheProcessStops) {
    for (const exact_read& read : EXACT_READS) {
        SCOPED_TRACE(read.name);
        fake_time time;
        socket_pair sockets;
        run_flags flags{true};
        char buffer[9] = "";
        EXPECT_EQ(read.run(sockets.ours, buffer, 0), read.nothing);
        EXPECT_EQ(time.now_us, 0) << "at once";

        ASSERT_TRUE(sockets.peer_says("abc"));
        size_t said = 0;
        time.event = [&] {  // one byte whenever the code finds nothing and looks at the clock
            said < 5 && sockets.peer_says(std::string_view("defgh").substr(said++, 1));
        };
        EXPECT_EQ(read.run(sockets.ours, buffer, 8), read.whole);
        EXPECT_STREQ(buffer, "abcdefgh");

        int looks = 0;
        time.event = [&] { gwa_process_run = ++looks < 5; };
        ASSERT_TRUE(sockets.peer_says("abc"));
        EXPECT_EQ(read.run(sockets.ours, buffer, 8), read.cut_short);
        ASSERT_TRUE(sockets.peer_says("abc"));
        sockets.peer.reset();
        EXPECT_EQ(read.run(sockets.ours, buffer, 8), GWA_FAILED);
    }
}

TEST_F(RecvnTimeout, TellsARunOutWaitFromALateStart) {
    EXPECT_EQ(gwa_recvn_timeout(sockets.ours, buffer, SIZE, 0), GWA_FAILED);
    EXPECT_EQ(gwa_recvn_timeout(sockets.ours, buffer, SIZE, 1), GWA_TIMED_OUT);
    EXPECT_EQ(time.now_us, GWA_US_PER_SECOND);
    time.tick_us = 2 * GWA_US_PER_SECOND;
    EXPECT_EQ(gwa_recvn_timeout(sockets.ours, buffer, SIZE, 1), GWA_FAILED);
}

TEST_F(RecvnTimeout, FindsARemainderBelowTheLowWaterMark) {
    const socket_pair tcp{AF_INET};
    const int mark = 16;
    ASSERT_EQ(setsockopt(tcp.ours, SOL_SOCKET, SO_RCVLOWAT, &mark, sizeof mark), 0);
    int looks = 0;
    time.event = [&] { ++looks == 3 && tcp.peer_says("hello"); };  // after the first try
    EXPECT_EQ(gwa_recvn_timeout(tcp.ours, buffer, 5, 5), GWA_OK);
    EXPECT_STREQ(buffer, "hello");
    EXPECT_EQ(time.now_us, 50000) << "the wait that did not tell of it";
}

TEST_F(RecvnTimeoutFast, ReturnsWhatCameBeforeTheDeadline) {
    EXPECT_EQ(gwa_recvn_timeout_fast(sockets.ours, buffer, SIZE, 10), 0);
    EXPECT_EQ(time.now_us, 10 * GWA_US_PER_SECOND);
    ASSERT_TRUE(sockets.peer_says("abc"));
    int looks = 0;
    time.event = [&] { time.set_us -= ++looks == 9 ? 3600 * GWA_US_PER_SECOND : 0; };
    EXPECT_EQ(gwa_recvn_timeout_fast(sockets.ours, buffer, SIZE, 10), 3);
    EXPECT_EQ(time.now_us, 20 * GWA_US_PER_SECOND) << "a clock set back prolongs nothing";
}

TEST_F(RecvTimeout, ReceivesOnce) {
    ASSERT_TRUE(sockets.peer_says("abc"));
    EXPECT_EQ(gwa_recv_timeout(sockets.ours, buffer, SIZE, 0), GWA_FAILED);
    EXPECT_EQ(gwa_recv_timeout(sockets.ours, buffer, SIZE, 1), 3);
    EXPECT_EQ(gwa_recv_timeout(sockets.ours, buffer, SIZE, 1), GWA_TIMED_OUT);
    sockets.peer.reset();
    EXPECT_EQ(gwa_recv_timeout(sockets.ours, buffer, SIZE, 1), 0);
    for (const int nobody : {1500, -1}) {
        EXPECT_EQ(gwa_recv_timeout(nobody, buffer, SIZE, 1), GWA_FAILED);
    }
}

TEST_F(RecvTimeout, OutlastsASignalAndAClockThatIsSet) {
    static int waits, peer;
    waits = 0, peer = sockets.peer.get();
    gwa_time.poll = [](pollfd* entries, nfds_t count, int) {
        switch (waits++) {
            case 0: errno = EINTR; return -1;
            case 1: fake_time::set_us = 3600 * GWA_US_PER_SECOND; return 0;
            default: write_all(peer, "x"); return poll(entries, count, 0);
        }
    };
    EXPECT_EQ(gwa_recv_timeout(sockets.ours, buffer, SIZE, 10), 1);
}

TEST_F(RecvDiscard, DropsExactlyTheCount) {
    ASSERT_TRUE(sockets.peer_says(std::string(8192, 'x') + "rest"));
    const std::pair<int, int> counts[] = {{0, 0}, {-5, 0}, {8193, -1}, {8192, 0}, {5, -1}};
    for (const auto& [count, result] : counts) {
        EXPECT_EQ(gwa_recv_discard(sockets.ours, count), result) << count;
    }
    EXPECT_EQ(time.now_us, 120 * GWA_US_PER_SECOND) << "spent on the one byte that was not there";
}
