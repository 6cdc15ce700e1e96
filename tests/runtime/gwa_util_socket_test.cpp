#include "runtime/gwa_util_socket.h"

#include <gtest/gtest.h>

#include "runtime/gwa_types.h"
#include "support/fake_time.h"
#include "support/files.h"
#include "support/run_flags.h"
#include "support/socket_pair.h"

TEST(Connect, SucceedsFailsTimesOutOrStopsWithTheProcess) {
    fake_time time;
    const loopback_listener open, unused{-1}, full{0};
    const auto attempt = [](const loopback_listener& port, int seconds) {
        const unique_fd fd(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        return gwa_connect_timeout(fd.get(), reinterpret_cast<const sockaddr*>(&port.address),
                                   sizeof port.address, seconds);
    };
    EXPECT_EQ(attempt(open, 0), GWA_FAILED);
    EXPECT_EQ(attempt(open, 10), GWA_OK);
    EXPECT_EQ(attempt(unused, 10), GWA_FAILED);
    EXPECT_EQ(attempt(full, 10), GWA_OK);
    EXPECT_EQ(attempt(full, 1), GWA_TIMED_OUT) << "nobody takes that one: the next is dropped";
    run_flags stopped{false};
    EXPECT_EQ(attempt(full, 100), GWA_FAILED);
}

TEST(Sendn, SendsEverythingInPiecesOrComesUpShort) {
    fake_time time;
    socket_pair sockets;
    constexpr int LENGTH = 4 << 20;
    const std::string text = noise(LENGTH, 1);
    std::string copy;
    time.event = [&] { copy += sockets.peer_hears(); };  // whenever the code looks at the clock
    EXPECT_EQ(gwa_sendn(sockets.ours, text.data(), LENGTH), LENGTH);
    time.event();
    EXPECT_TRUE(copy == text);

    time.event = [] {};
    EXPECT_EQ(gwa_sendn(sockets.ours, text.data(), 0), 0);
    EXPECT_EQ(gwa_sendn(-1, text.data(), 1), 0);
    run_flags stopped{false};
    const int sent = gwa_sendn(sockets.ours, text.data(), LENGTH);
    EXPECT_GT(sent, 0) << "what fits still leaves";
    EXPECT_LT(sent, LENGTH);
    sockets.peer.reset();
    EXPECT_EQ(gwa_sendn(sockets.ours, text.data(), 1), 0) << "and no SIGPIPE";
}
