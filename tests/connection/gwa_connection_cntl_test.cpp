#include "connection/gwa_connection_cntl.h"

#include "connection/connection_floor.h"

namespace {

using ControlLoop = control_floor;

TEST_F(ControlLoop, HeartbeatsFollowTheClockAndWaitForTheirAnswer) {
    const std::tuple<int32_t, int32_t, bool> cases[] = {
        {60, 240, false}, {61, 0, true}, {60, 241, true}, {0, 0, false}};
    uint32_t sequence = 0;
    for (const auto& [silent_out, silent_in, beats] : cases) {
        set_clock(START);
        cntl->heartbeat.last_in_time = coarse(START + silent_out - silent_in);
        const std::string answer = beats ? heartbeat_frame(sequence) : "";
        rounds(2, [&, silent = silent_out] {
            set_clock(START + silent);
            server_sends(answer);
        });
        EXPECT_EQ(sent(), answer) << silent_out << " s out, " << silent_in << " s in";
        sequence += beats ? 1 : 0;
    }
    EXPECT_EQ(cntl->heartbeat_misses, 0);
    // A long wait for an answer counts from its end.
    set_clock(START);
    cntl->heartbeat.last_in_time = coarse(START - 241);
    fake_time::event = [&, asked = false]() mutable {  // the wait looks at the clock
        if (!std::exchange(asked, true)) {
            set_clock(START + 100);
            server_sends(heartbeat_frame(sequence));
        }
    };
    rounds(2);
    EXPECT_EQ(cntl->heartbeat.last_in_time, coarse(START + 100 - 180));
}

TEST_F(ControlLoop, WithoutAnyInputTheFirstHeartbeatIsDueAtOnce) {
    for (const int64_t now : {int64_t{1'800'000'000}, START, START + 100}) {
        set_clock(now);
        cntl->heartbeat.last_in_time = 0;
        const std::string beat = heartbeat_frame(cntl->heartbeat.seq);
        rounds(2, [&] { server_sends(beat); });
        EXPECT_EQ(sent(), beat) << now;
    }
}

TEST_F(ControlLoop, EndsForAJumpOrAPollerThatFails) {
    gwa_process_jump = GWA_JUMP_REINIT;
    EXPECT_EQ(gwa_connection_cntl_manage(cntl), GWA_JUMP_REINIT);
    EXPECT_EQ(gwa_process_jump, GWA_JUMP_NONE);
    const int epfd = std::exchange(cntl->poller.epfd, -1);
    EXPECT_EQ(gwa_connection_cntl_manage(cntl), GWA_JUMP_NONE);
    EXPECT_EQ(restarts, 1);
    cntl->poller.epfd = epfd;
}

TEST_F(ControlLoop, APassThatBeginsAnewFindsNothingOfTheOldOne) {
    server_sends(frame_bytes(SESSION_ID, 0, "rest"));
    rounds(1);
    report('o', 1);
    EXPECT_EQ(gwa_connection_cntl_exit(cntl), 0);
    EXPECT_EQ(cntl->reports, 0U) << "what was queued is gone";
    const unique_fd file(open("/dev/null", O_RDWR | O_CLOEXEC));  // epoll takes no such file
    EXPECT_EQ(gwa_connection_cntl_init(cntl, file.get()), GWA_FAILED);
    EXPECT_EQ(cntl->socket, -1);
    EXPECT_NE(fcntl(file.get(), F_GETFD), -1) << "it is still the caller's";
    report('b', 1);  // between two connections
    const socket_pair next(AF_INET);
    ASSERT_EQ(gwa_connection_cntl_init(cntl, dup(next.ours)), GWA_OK);
    const std::string told = report('n', 1);
    next.peer_says(frame_bytes(PRIVACY));
    const uint64_t before = packets_in();
    rounds(1);
    EXPECT_EQ(next.peer_hears(), told);
    EXPECT_EQ(packets_in(), before + 1);
}

}  // namespace
