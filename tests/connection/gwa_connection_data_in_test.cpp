#include "connection/gwa_connection_data_in.h"

#include "connection/connection_floor.h"

namespace {

using DataInput = data_floor;

TEST_F(DataInput, AFrameMayBeSplitAnywhereAndTheNextOneStaysInStep) {
    const std::string asked = debug_request(9);
    for (size_t split = 1; split < asked.size(); split++) {
        server_sends(asked.substr(0, split));
        rounds(1);
        EXPECT_EQ(sent(), "") << split;
        server_sends(asked.substr(split) + asked);
        rounds(1);
        EXPECT_EQ(sent(), debug_answer(9) + debug_answer(9)) << "split at " << split;
    }
    EXPECT_EQ(fake_time::waited_us, 0) << "no split costs more than the short pauses";
}

TEST_F(DataInput, AFrameThatStopsHalfWayHasItsLimit) {
    const std::string asked = debug_request(9);
    const std::pair<std::string, int64_t> cases[] = {
        {asked.substr(0, 5), 10},
        {asked.substr(0, GWA_HEADER_SIZE), 120},
        {asked.substr(0, GWA_HEADER_SIZE + 20), 120},
        {heartbeat_frame(0).substr(0, GWA_HEADER_SIZE + 1), 10},
        {frame_bytes(LOGIN_ANSWER, 0, "skipped").substr(0, GWA_HEADER_SIZE + 1), 120}};
    for (const auto& [begun, limit] : cases) {
        SCOPED_TRACE(testing::Message() << begun.size() << " bytes, " << limit << " s");
        set_clock(START);
        server_sends(begun);
        rounds(1);
        fake_time::set_us = 1'000'000'000;  // which is no time that has passed
        rounds(1);
        fake_time::set_us = 0;
        fake_time::now_us = (START + limit - 2) * 1'000'000;  // each round waits a second
        rounds(1);
        EXPECT_TRUE(closes_in(1));
        connect();
    }
}

TEST_F(DataInput, CommandsThatEndItAndCommandsThatDoNot) {
    const std::string harmless = frame_bytes(LOGIN_ANSWER, 0, std::string(5000, 'x')) +
                                 frame_bytes(HEARTBEAT, 0, "abc") + frame_bytes(DATA, 8) +
                                 frame_bytes(CLOSE_STREAM, 77);
    const std::string asked = debug_request(9);
    set_clock(START + 5);
    EXPECT_EQ(reply_to(harmless + asked), debug_answer(9));
    EXPECT_EQ(gwa_counter_get(conn->traffic.packets_in), 5U);
    EXPECT_EQ(gwa_counter_get(conn->traffic.bytes_in), harmless.size() + asked.size());
    EXPECT_EQ(conn->heartbeat.last_in_time, coarse(START + 5));
    server_sends(frame_bytes(CLOSE_CONNECTION, 0) + asked);
    EXPECT_TRUE(closes_in(1));
    EXPECT_EQ(gwa_counter_get(conn->traffic.packets_in), 6U)
        << "what is behind it is not looked at";
}

TEST_F(DataInput, HeadersAreShownInBothDirectionsAndABadOneClosesIt) {
    const std::string asked = debug_request(9);
    std::string lengths;
    for (const std::string& line : log_lines_of(GWA_LEVEL_DEBUG, [&] { reply_to(asked); })) {
        lengths += line.starts_with("<7> length ") ? line.substr(16) + " " : "";
    }
    EXPECT_EQ(lengths, std::to_string(asked.size() - HEADER_SIZE) + " " +
                           std::to_string(debug_answer(9).size() - HEADER_SIZE) + " ");
    server_sends(std::string(GWA_HEADER_SIZE, 'x') + asked);
    testing::internal::CaptureStdout();
    EXPECT_TRUE(closes_in(1));
    EXPECT_NE(testing::internal::GetCapturedStdout().find("78 78 78  xxxxxxxxxxxxxxxx\n"),
              std::string::npos);
}

TEST_F(DataInput, AnOrderlyEndIsNoCloseButOneWithinAFrameIsAndSoIsAFailure) {
    for (const bool within : {false, true}) {
        server_sends(within ? "\1\20" : "");
        rounds(1);
        unique_fd kept(dup(conn->socket));
        spoil(conn->socket);
        EXPECT_EQ(gwa_connection_data_remote_in_handle(conn), gwa_step::CLOSED) << within;
        dup2(kept.get(), conn->socket);
    }
    shutdown(sockets.peer.get(), SHUT_WR);
    EXPECT_TRUE(closes_in(1));
    connect();
    rounds(3);
}

// A server that does not follow a request for a dead port by as many bytes.
struct ExtraDiscard : data_floor {
    const loopback_listener closed{-1};
    const std::string asked = request_frame(1, closed.port);
    const size_t count = asked.size() - GWA_HEADER_SIZE;
    void begin() {
        server_sends(asked);
        rounds(1);
        EXPECT_TRUE(conn->input.step == gwa_input_step::EXTRA_DISCARD);
    }
};

TEST_F(ExtraDiscard, TakesAsManyBytesAgainAndHoldsUpNobodyButHeartbeats) {
    begin();
    const uint64_t counted = gwa_counter_get(conn->traffic.bytes_in);
    set_clock(START + 61);
    conn->heartbeat.last_in_time = coarse(START - 200);  // for the keepalive as well
    server_sends(std::string(count - 1, '?'));
    rounds(3);
    EXPECT_EQ(sent(), "") << "the answer to a heartbeat would be lost";
    EXPECT_EQ(reply_to("?" + debug_request(2)), debug_answer(2));
    EXPECT_EQ(gwa_counter_get(conn->traffic.bytes_in), counted + debug_request(2).size())
        << "what is thrown away is not counted";
}

TEST_F(ExtraDiscard, AHeartbeatBeforeItBlocksNoFurtherOne) {
    set_clock(START + 61);
    rounds(2);
    ASSERT_EQ(sent(), heartbeat_frame(0));
    begin();
    EXPECT_EQ(reply_to(std::string(count, '?') + heartbeat_frame(0) + debug_request(2)),
              debug_answer(2))
        << "an answer that comes afterwards still counts";
    set_clock(START + 122);
    rounds(2);
    ASSERT_EQ(sent(), heartbeat_frame(1));
    begin();
    server_sends(heartbeat_frame(1));  // lost in the discard
    rounds(2);
    EXPECT_EQ(sent(), "");
    set_clock(START + 122 + 120);
    rounds(2);
    EXPECT_EQ(sent(), heartbeat_frame(2)) << "as soon as it is over";
}

}  // namespace
