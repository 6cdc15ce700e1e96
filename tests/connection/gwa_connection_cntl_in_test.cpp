#include "connection/gwa_connection_cntl_in.h"

#include "connection/connection_floor.h"
#include "connection/gwa_connection_cntl_out.h"

namespace {

using ControlInput = control_floor;

// A refused payload is taken for headers; what is left of it is shorter than one.
TEST_F(ControlInput, TheRestOfARefusedPayloadHoldsUpNobody) {
    const std::tuple<command, size_t, size_t> cases[] = {
        {REPORT_TIMES, 4, 4}, {SESSION_ID, 31, 15}, {SESSION_ID, 33, 1}, {DATA, 9, 9}};
    for (const auto& [code, length, rest] : cases) {
        SCOPED_TRACE(testing::Message() << code << " of " << length);
        const int64_t start = fake_time::now_us;
        server_sends(frame_bytes(code, 0, std::string(length, 'x')));
        const std::string told = report('t', 4);
        rounds(2);
        EXPECT_EQ(sent(), told) << "the loop goes on";
        EXPECT_EQ(cntl->input.have, rest);
        while (fake_time::now_us < start + 7'000'000) {  // a round takes 2.1 s
            rounds(1);
        }
        EXPECT_EQ(cntl->input.have, rest) << "it may still become a header";
        rounds(2);
        EXPECT_EQ(cntl->input.have, 0U) << "the connection is in step again";
    }
}

TEST_F(ControlInput, AHeaderInPiecesIsCompletedAsSoonAsItIsThere) {
    const std::string one = frame_bytes(STATUS), two = frame_bytes(PRIVACY, 0, "payload");
    for (size_t cut = 1; cut < HEADER_SIZE; cut++) {
        SCOPED_TRACE(cut);
        server_sends(one + two.substr(0, cut));
        rounds(1);
        EXPECT_EQ(cntl->input.have, cut);
        const uint64_t before = packets_in();
        const int64_t waited = fake_time::waited_us;
        set_clock(START + 5);
        server_sends(two.substr(cut));
        rounds(1);
        EXPECT_EQ(packets_in(), before + 1);
        EXPECT_EQ(cntl->heartbeat.last_in_time, coarse(START + 5));
        EXPECT_EQ(fake_time::waited_us, waited) << "the poller has told of it";
    }
    // Each byte starts the ten seconds anew.
    server_sends(one + two.substr(0, 1));
    for (size_t at = 1; at < HEADER_SIZE - 1; at++) {
        rounds(4);
        server_sends(two.substr(at, 1));
    }
    rounds(1);
    EXPECT_EQ(cntl->input.have, HEADER_SIZE - 1);
}

TEST_F(ControlInput, AHeartbeatGoesOnFromTheRestThatIsThere) {
    server_sends(frame_bytes(SESSION_ID, 0, "1234"));
    rounds(1);
    ASSERT_EQ(cntl->input.have, 4U);
    const std::string answer = heartbeat_frame(0);
    server_sends(answer);
    gwa_connection_cntl_heartbeat_handle(cntl);  // comes back, although it takes a wrong header
    EXPECT_EQ(sent(), answer);
    EXPECT_EQ(cntl->heartbeat_misses, 0);
    rounds(7);
    // The rest that was there is the beginning of the answer.
    const std::string next = heartbeat_frame(1);
    server_sends(frame_bytes(STATUS) + next.substr(0, 5));
    rounds(1);
    server_sends(next.substr(5));
    cntl->heartbeat_misses = 2;
    gwa_connection_cntl_heartbeat_handle(cntl);
    EXPECT_EQ(cntl->heartbeat_misses, 0);
}

TEST_F(ControlInput, AServerThatWritesWithoutEndLeavesTheOthersTheirTurn) {
    std::string frames;
    for (int i = 0; i < 100; i++) {
        frames += frame_bytes(STATUS);
    }
    server_sends(frames);
    gwa_connection_cntl_handle(EPOLLIN, cntl);
    EXPECT_EQ(packets_in(), 64U);
    const int64_t waited = fake_time::waited_us;
    rounds(1);
    EXPECT_EQ(packets_in(), 100U);
    EXPECT_EQ(fake_time::waited_us, waited) << "the rest is armed anew";
    // A frame that takes its time ends the pass as well.
    server_sends(frames);
    fake_time::event = [] { gwa_now = gwa_now + 1; };
    gwa_connection_cntl_remote_in_handle(cntl);
    EXPECT_EQ(packets_in(), 164U) << "nothing here looks at another clock than the coarse one";
}

TEST_F(ControlInput, ASocketThatFailsOrEndsRestartsTheProcess) {
    shutdown(sockets.peer.get(), SHUT_WR);
    gwa_connection_cntl_handle(EPOLLIN, cntl);
    EXPECT_EQ(restarts, 1);
    spoil(cntl->socket);
    const auto said =
        log_lines_of(GWA_LEVEL_ERROR, [this] { gwa_connection_cntl_handle(EPOLLIN, cntl); });
    EXPECT_EQ(said[0], "<3> recv failed fd " + std::to_string(cntl->socket) +
                           " Socket operation on non-socket");
    EXPECT_EQ(restarts, 2);
    gwa_process_run = 0;
    gwa_connection_cntl_next_frame_wait(cntl);
    EXPECT_EQ(restarts, 2) << "told to end, nobody restarts";
}

}  // namespace
