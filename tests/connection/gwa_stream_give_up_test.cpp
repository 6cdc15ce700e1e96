#include "connection/gwa_stream_give_up.h"

#include "connection/connection_floor.h"
#include "support/log_of.h"

namespace {

using GivenUpStreams = data_floor;

// A service that takes nothing, one that takes little, one that takes all, and a server that goes
// on.
TEST_F(GivenUpStreams, UploadsAreBoundedAndWhoTakesNothingLosesHisStream) {
    constexpr uint32_t BOUND = 2 << 20;
    gwa_stream* const deaf = open_stream(1);
    const unique_fd takes_nothing = std::move(accepted);
    gwa_stream* const slow = open_stream(2);
    const unique_fd takes_little = std::move(accepted);
    open_stream(3);
    read_until(accepted.get(), "\r\n\r\n");
    const std::string piece(GWA_PAYLOAD_MAX, 'u');
    while ((slow->waiting == 0 || conn->input.held_looks == 0) && !HasFailure()) {
        server_sends(frame_bytes(DATA, slow->waiting == 0 ? 2 : 1, piece));
        rounds(1);
    }
    EXPECT_GT(conn->streams.waiting, BOUND);
    EXPECT_LE(conn->streams.waiting, BOUND + GWA_PAYLOAD_MAX);
    server_sends(frame_bytes(DATA, 3, "late"));
    const auto said = [this](int seconds) {
        set_clock(START + seconds);
        return log_lines_of(GWA_LEVEL_ERROR, [this] { rounds(2); });
    };
    using lines = std::vector<std::string>;
    EXPECT_EQ(said(29), lines());
    EXPECT_EQ(conn->input.more, gwa_more::WAITS);
    deaf->left = deaf->waiting;  // the kernel may acknowledge late
    slow->left++;                // as if its service had taken that byte since the last look
    fake_time::waited_us = 0;
    EXPECT_EQ(said(30), lines{"<3> local service takes too little, stream id 1"});
    EXPECT_LE(fake_time::waited_us, 100'000) << "the frame that was held goes on at once";
    EXPECT_EQ(read_exact(accepted.get(), 4), "late");
    EXPECT_LT(conn->streams.waiting, BOUND);
    EXPECT_EQ(conn->streams.count, 2);

    // What still comes for it is no request; once it has been closed its id is free again.
    const std::string evil = request_text(listener.port);
    server_sends(frame_bytes(DATA, 1, evil));
    rounds(1);
    EXPECT_EQ(conn->streams.count, 2);
    server_sends(frame_bytes(CLOSE_STREAM, 1));
    EXPECT_NE(open_stream(1), nullptr);
    EXPECT_EQ(conn->streams.count, 3);
    // When all take a little, the one for which most is waiting makes room.
    slow->left++;
    gwa_stream_give_up_stuck(conn, true);
    EXPECT_TRUE(gwa_stream_is_gone(conn, 2));
    EXPECT_EQ(conn->streams.waiting, 0U);
}

// A hold lasts two minutes at the most, and its time is not the frame's.
TEST_F(GivenUpStreams, AServiceThatTakesLittleHasTwoMinutes) {
    gwa_stream* const slow = open_stream(1);
    const std::string last = frame_bytes(DATA, 1, std::string(GWA_PAYLOAD_MAX, 'u'));
    while (conn->streams.waiting <= (2 << 20) && !HasFailure()) {
        server_sends(last);
        rounds(1);
    }
    server_sends(last.substr(0, 99));
    for (int seconds = 0; seconds <= 120; seconds += 30) {
        EXPECT_FALSE(gwa_stream_is_gone(conn, 1)) << seconds;
        slow->left++;
        set_clock(START + seconds);
        heard_and_said_at(START + seconds);
        rounds(1);
    }
    EXPECT_TRUE(gwa_stream_is_gone(conn, 1));
    rounds(1);
    server_sends(last.substr(99));
    EXPECT_EQ(reply_to(debug_request(2)), debug_answer(2)) << "the connection is in step";

    for (uint32_t id = 2; id <= 1001; id++) {  // they are not remembered for ever
        auto* const stream = open_stream(id);
        accepted.reset();
        gwa_stream_give_up(stream);
    }
    EXPECT_FALSE(gwa_stream_is_gone(conn, 1));
    EXPECT_TRUE(gwa_stream_is_gone(conn, 2));
}

}  // namespace
