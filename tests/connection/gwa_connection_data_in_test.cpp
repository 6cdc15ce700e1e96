#include "connection/gwa_connection_data_in.h"

#include <fcntl.h>

#include "connection/connection_floor.h"
#include "support/log_of.h"

namespace {

using DataInput = data_floor;

TEST_F(DataInput, AFrameMayBeSplitAnywhereAndTheNextOneStaysInStep) {
    const std::string asked = echo_request(9);
    for (size_t split = 1; split < asked.size(); split++) {
        server_sends(asked.substr(0, split));
        rounds(1);
        EXPECT_EQ(sent(), "") << split;
        server_sends(asked.substr(split) + asked);
        rounds(1);
        EXPECT_EQ(sent(), echo_answer(9) + echo_answer(9)) << "split at " << split;
    }
    EXPECT_EQ(gwa_connection_memory(conn), 0U);
    EXPECT_EQ(fake_time::waited_us, 0) << "no split costs more than the short pauses";
}

TEST_F(DataInput, AFrameThatStopsHalfWayHasItsLimit) {
    const std::string asked = frame_bytes(DATA, 9, request(10010));
    const std::string beat = heartbeat_frame(0);
    const std::string skipped = frame_bytes(LOGIN_ANSWER, 0, "skipped");
    const struct {
        std::string begun;
        int64_t limit;  // s
    } cases[] = {{asked.substr(0, 5), 10},
                 {asked.substr(0, GWA_HEADER_SIZE), 120},
                 {asked.substr(0, GWA_HEADER_SIZE + 20), 120},
                 {beat.substr(0, GWA_HEADER_SIZE + 1), 10},
                 {skipped.substr(0, GWA_HEADER_SIZE + 1), 120}};
    for (const auto& [begun, limit] : cases) {
        SCOPED_TRACE(testing::Message() << begun.size() << " bytes, " << limit << " s");
        set_clock(START);
        server_sends(begun);
        rounds(1);
        set_clock(START - 1001);  // the clock is set back: the limit starts over
        rounds(1);
        set_clock(START - 1001 + limit - 1);  // where each round waits a second
        rounds(1);
        EXPECT_TRUE(closes_in(1));
        EXPECT_EQ(gwa_connection_memory(conn), 0U);
        connect();
    }
}

TEST_F(DataInput, CommandsThatEndItAndCommandsThatDoNot) {
    const std::string harmless = frame_bytes(LOGIN_ANSWER, 0, std::string(5000, 'x')) +
                                 frame_bytes(HEARTBEAT, 0, "abc") + frame_bytes(DATA, 8) +
                                 frame_bytes(CLOSE_STREAM, 77);
    const std::string asked = echo_request(9);
    set_clock(START + 5);
    EXPECT_EQ(reply_to(harmless + asked), echo_answer(9));
    EXPECT_EQ(gwa_counter_get(conn->traffic.packets_in), 5U);
    EXPECT_EQ(gwa_counter_get(conn->traffic.bytes_in), harmless.size() + asked.size());
    EXPECT_EQ(conn->heartbeat.last_in_time, coarse(START + 5));
    server_sends(frame_bytes(CLOSE_CONNECTION, 0) + asked);
    EXPECT_TRUE(closes_in(1));
    EXPECT_EQ(gwa_counter_get(conn->traffic.packets_in), 6U)
        << "what is behind it is not looked at";
}

TEST_F(DataInput, HeadersAreShownInBothDirections) {
    const std::string asked = echo_request(9);
    const auto said = log_lines_of(GWA_LEVEL_DEBUG, [&] { reply_to(asked); });
    std::vector<std::string> lengths;
    std::copy_if(said.begin(), said.end(), std::back_inserter(lengths),
                 [](const std::string& line) { return line.starts_with("<7> length    : "); });
    const auto length_of = [](const std::string& frame) {
        return "<7> length    : " + std::to_string(frame.size() - HEADER_SIZE);
    };
    EXPECT_EQ(lengths, (std::vector{length_of(asked), length_of(echo_answer(9))}));
}

TEST_F(DataInput, ABadHeaderClosesItAndIsShown) {
    server_sends(std::string(GWA_HEADER_SIZE, 'x') + echo_request(1));
    testing::internal::CaptureStdout();
    EXPECT_TRUE(closes_in(1));
    EXPECT_NE(testing::internal::GetCapturedStdout().find("78 78 78  xxxxxxxxxxxxxxxx\n"),
              std::string::npos);
}

TEST_F(DataInput, AnOrderlyEndIsNoCloseButOneWithinAFrameIs) {
    for (const bool within : {false, true}) {
        socket_pair ending;
        gwa_connection_data_free(conn);
        ASSERT_EQ(gwa_connection_data_init2(conn), GWA_OK);
        conn->socket = dup(ending.ours);
        poll_add(&conn->poller, conn->socket, gwa_connection_data_remote_handle, conn,
                 &conn->socket);
        ending.peer_says(within ? "\1\20" : "");
        shutdown(ending.peer.get(), SHUT_WR);
        EXPECT_EQ(closes_in(3), within);
    }
}

TEST_F(DataInput, ASocketThatFailsClosesIt) {
    for (const bool begun : {false, true}) {
        if (begun) {
            connect();
            server_sends("\1\20");
            rounds(1);
        }
        const unique_fd file(open("/dev/null", O_RDONLY | O_CLOEXEC));  // no socket
        ASSERT_EQ(dup2(file.get(), conn->socket), conn->socket);
        EXPECT_EQ(gwa_connection_data_remote_in_handle(conn), gwa_step::CLOSED) << begun;
        gwa_connection_data_free(conn);
    }
}

// A server that does not follow a request for a dead port by as many bytes.
struct ExtraDiscard : data_floor {
    const loopback_listener closed{-1};
    const std::string asked = frame_bytes(DATA, 1, request(closed.port));
    const size_t count = asked.size() - GWA_HEADER_SIZE;
    void begin() {
        server_sends(asked);
        rounds(1);
        EXPECT_TRUE(conn->input.step == gwa_input_step::EXTRA_DISCARD);
    }
};

TEST_F(ExtraDiscard, TakesAsManyBytesAgainAndHoldsUpNobody) {
    begin();
    const uint64_t counted = gwa_counter_get(conn->traffic.bytes_in);
    server_sends(std::string(count - 1, '?'));
    rounds(1);
    EXPECT_EQ(reply_to("?" + echo_request(2)), echo_answer(2));
    EXPECT_EQ(gwa_counter_get(conn->traffic.bytes_in), counted + echo_request(2).size())
        << "what is thrown away is not counted";
    EXPECT_EQ(gwa_connection_memory(conn), 0U);
}

TEST_F(ExtraDiscard, NoHeartbeatLeavesWhileItsAnswerWouldBeLost) {
    begin();
    set_clock(START + 61);
    conn->heartbeat.last_in_time = coarse(START - 200);  // for the keepalive as well
    rounds(3);
    EXPECT_EQ(sent(), "");
    EXPECT_EQ(reply_to(std::string(count, '?')), heartbeat_frame(0)) << "as soon as it is over";
}

TEST_F(ExtraDiscard, AnAnswerThatWasLostBlocksNoFurtherHeartbeat) {
    set_clock(START + 61);
    rounds(2);
    ASSERT_EQ(sent(), heartbeat_frame(0));
    begin();
    server_sends(heartbeat_frame(0));  // into the discard
    rounds(2);
    set_clock(START + 61 + 120);
    rounds(2);
    EXPECT_FALSE(conn->input.step == gwa_input_step::EXTRA_DISCARD);
    EXPECT_EQ(sent(), heartbeat_frame(1));
    server_sends(heartbeat_frame(1));
    rounds(2);
    EXPECT_EQ(conn->heartbeat_resp, conn->heartbeat.seq);
}

TEST_F(ExtraDiscard, AnAnswerThatComesAfterwardsStillCounts) {
    set_clock(START + 61);
    rounds(2);
    ASSERT_EQ(sent(), heartbeat_frame(0));
    begin();
    EXPECT_EQ(reply_to(std::string(count, '?') + heartbeat_frame(0) + echo_request(2)),
              echo_answer(2));
}

}  // namespace
