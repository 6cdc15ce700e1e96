#include "connection/gwa_connection_data_out.h"

#include "connection/connection_floor.h"

namespace {

using DataOutput = data_floor;

TEST_F(DataOutput, HeartbeatsFollowTheClockOneAtATime) {
    conn->heartbeat.seq = conn->heartbeat_resp = 41;
    set_clock(START + 60);
    rounds(3);
    EXPECT_EQ(sent(), "");
    set_clock(START + 61);
    rounds(3);
    EXPECT_EQ(sent(), heartbeat_frame(41));
    EXPECT_EQ(conn->heartbeat.last_out_time, coarse(START + 61));
    set_clock(START + 200);  // not answered: no further one
    rounds(3);
    EXPECT_EQ(sent(), "");
    EXPECT_EQ(reply_to(heartbeat_frame(41)), heartbeat_frame(42))
        << "answered, and still silent for a minute";
    EXPECT_EQ(gwa_counter_get(conn->traffic.bytes_in), heartbeat_frame(41).size());
    server_sends(heartbeat_frame(41));
    EXPECT_TRUE(closes_in(1)) << "a wrong number starts the connection over";
}

TEST_F(DataOutput, AKeepaliveGoesFirstAndComesAgainAMinuteLater) {
    set_clock(START + 241);
    for (const auto& [silent, expected] :
         {std::pair{240, std::string()}, {241, heartbeat_frame(0)}}) {
        heard_and_said_at(START + 241);  // busy sending, nothing comes in
        conn->heartbeat.last_in_time = coarse(START + 241 - silent);
        rounds(3);
        EXPECT_EQ(sent(), expected) << silent;
    }
    EXPECT_EQ(conn->heartbeat.last_in_time, coarse(START + 61));
    EXPECT_EQ(reply_to(heartbeat_frame(0)), "");
    queue_frame(1);
    gwa_connection_data_keepalive_handle(conn);
    rounds(1);
    EXPECT_EQ(sent(), heartbeat_frame(1) + frame_bytes(DATA, 1));
}

TEST_F(DataOutput, NothingFreesTheHeartbeatFrameOrUsesItTwice) {
    queue_frame(3);
    gwa_connection_data_heartbeat_handle(conn);  // finds the queue busy, takes its number back
    gwa_connection_data_output_free_by_id(conn, 3);
    set_clock(START + 241);
    gwa_connection_data_keepalive_handle(conn);
    gwa_connection_data_output_free_by_id(conn, 0);
    set_clock(START + 5000);
    gwa_connection_data_buffer_timeout_check(conn);
    conn->heartbeat_resp = conn->heartbeat.seq;  // as if answered while still queued
    gwa_connection_data_keepalive_handle(conn);
    gwa_connection_data_heartbeat_handle(conn);
    EXPECT_EQ(conn->heartbeat.seq, 1U);
    conn->heartbeat.node.flags |= GWA_NODE_PARTLY_SENT;
    heard_and_said_at(START + 5000);
    rounds(1);
    EXPECT_EQ(sent(), heartbeat_frame(0));
    EXPECT_EQ(conn->heartbeat.node.flags, GWA_NODE_HEARTBEAT) << "ready for the next one";
    EXPECT_FALSE(gwa_connection_heartbeat_is_queued(&conn->heartbeat));
}

TEST_F(DataOutput, UnwantedAndStaleFramesAreDroppedButNotAPartlySentOne) {
    queue_frame(1)->flags |= GWA_NODE_PARTLY_SENT;
    queue_frame(2);
    queue_frame(3);
    gwa_connection_data_output_free_by_id(conn, 1);
    gwa_connection_data_output_free_by_id(conn, 2);
    EXPECT_EQ(conn->output.count, 2U);
    for (const auto& [seconds, left] : {std::pair{600, 2U}, {601, 1U}}) {
        set_clock(START + seconds);
        gwa_connection_data_buffer_timeout_check(conn);
        EXPECT_EQ(conn->output.count, left) << seconds;
    }
}

TEST_F(DataOutput, FramesThatTheSocketTakesInPiecesStayWholeAndInOrder) {
    std::string expected;
    const auto queue = [&](uint32_t id, size_t size) {
        const std::string payload(size, static_cast<char>('a' + id % 26));
        queue_frame(id, payload);
        expected += frame_bytes(DATA, id, payload);
    };
    queue(5, 2 << 20);
    for (uint32_t id = 100; id < 140; id++) {  // more than leave at once
        queue(id, id * id);
    }
    set_clock(START + 9);
    EXPECT_EQ(gwa_connection_data_remote_out_handle(conn), gwa_step::GOES_ON);
    EXPECT_EQ(conn->output.state, gwa_out_state::PARTLY_SENT);
    EXPECT_EQ(conn->heartbeat.last_out_time, coarse(START + 9));
    EXPECT_TRUE(gwa_connection_data_is_blocked(conn)) << "the socket will tell";
    std::string heard;
    while (conn->output.count > 0 && !HasFailure()) {
        heard += sent();
        EXPECT_EQ(gwa_connection_data_remote_out_handle(conn), gwa_step::GOES_ON);
    }
    heard += sent();
    EXPECT_TRUE(heard == expected);
    EXPECT_EQ(gwa_counter_get(conn->traffic.bytes_out), heard.size());
    EXPECT_EQ(gwa_counter_get(conn->traffic.packets_out), 41U);
    EXPECT_EQ(conn->output.state, gwa_out_state::DRAINED);
}

TEST_F(DataOutput, ASocketWithoutRoomTellsWhenItHasSome) {
    const int smallest = 1;  // so little that the policy sees an almost empty buffer
    setsockopt(conn->socket, SOL_SOCKET, SO_SNDBUF, &smallest, sizeof smallest);
    fill_socket();
    queue_frame(1);
    EXPECT_EQ(log_lines_of(GWA_LEVEL_INFO, [this] { rounds(1); }), std::vector<std::string>());
    EXPECT_EQ(conn->output.state, gwa_out_state::BLOCKED);
    EXPECT_TRUE(gwa_connection_data_is_blocked(conn));
    sent();
    const int64_t waited = fake_time::waited_us;
    rounds(1);
    EXPECT_EQ(fake_time::waited_us, waited);
    EXPECT_EQ(sent(), frame_bytes(DATA, 1));
}

// Once the event that tells of room has met the policy and no frame, nothing tells of room again.
TEST_F(DataOutput, ARoomThatIsToldOfTooEarlyIsLookedForAgain) {
    const int smallest = 1;
    setsockopt(conn->socket, SOL_SOCKET, SO_SNDBUF, &smallest, sizeof smallest);
    fill_socket();
    queue_frame(1);
    rounds(1);
    EXPECT_EQ(conn->output.state, gwa_out_state::BLOCKED);
    gwa_connection_data_output_free_by_id(conn, 1);
    const int large = 1 << 20;
    setsockopt(conn->socket, SOL_SOCKET, SO_SNDBUF, &large, sizeof large);
    fill_socket();
    gwa_connection_data_remote_handle(EPOLLOUT, conn);
    queue_frame(2);
    const int64_t waited = fake_time::waited_us;
    rounds(2);
    EXPECT_LE(fake_time::waited_us, waited + 5000) << "as long as the level says";
}

TEST_F(DataOutput, ASocketThatFailsClosesItAndTakesTheFramesAlong) {
    queue_frame(1);
    queue_frame(2);
    shutdown(conn->socket, SHUT_WR);
    EXPECT_TRUE(closes_in(1));
    connect();
    spoil(conn->socket);
    EXPECT_EQ(gwa_connection_data_remote_out_handle(conn), gwa_step::CLOSED) << "nobody can tell";
    gwa_connection_run = 0;  // no failure: the daemon stops
    EXPECT_EQ(gwa_connection_data_remote_out_handle(conn), gwa_step::GOES_ON);
    EXPECT_EQ(conn->output.state, gwa_out_state::DRAINED);
}

}  // namespace
