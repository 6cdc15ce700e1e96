#include "connection/gwa_connection_data_round.h"

#include "connection/connection_floor.h"
#include "connection/gwa_connection_data_addr.h"
#include "support/files.h"
#include "support/log_of.h"

namespace {

struct DataRound : data_floor {
    // A stream whose service can say much at once.
    gwa_stream* open_wide_stream(uint32_t id) {
        gwa_stream* const stream = open_stream(id);
        const int room = 1 << 20;
        setsockopt(stream->socket, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
        return stream;
    }
};

// What no event tells of any more is done without a wait in between.
TEST_F(DataRound, DoesNotWaitWhileThereIsWork) {
    std::string asked, answered;
    for (uint32_t stream = 1; stream <= 200; stream++) {  // more than one pass takes
        asked += debug_request(stream);
        answered += debug_answer(stream);
    }
    EXPECT_EQ(reply_to(asked), answered) << "input beyond the budget of a pass";

    const gwa_stream* const stream = open_wide_stream(1000);
    const std::string page = noise(20 * GWA_PAYLOAD_MAX + 10, 1);
    ASSERT_TRUE(service_says(accepted, stream, page));
    all_sent.clear();
    rounds_until_idle();
    std::string body;
    for (size_t at = 0; at < all_sent.size(); at += HEADER_SIZE + GWA_PAYLOAD_MAX) {
        body += all_sent.substr(at + HEADER_SIZE, GWA_PAYLOAD_MAX);
    }
    EXPECT_TRUE(body == page) << body.size() << ": local data beyond the share of a round";
}

TEST_F(DataRound, WaitsWhileNothingCanBeDone) {
    rounds(1);
    EXPECT_EQ(std::exchange(fake_time::waited_us, 0), 0) << "the socket is writable";
    rounds(1);
    EXPECT_EQ(std::exchange(fake_time::waited_us, 0), 1'000'000) << "nothing to do at all";
    const gwa_stream* const stream = open_stream(1);
    rounds(2);
    EXPECT_EQ(std::exchange(fake_time::waited_us, 0), 100'000) << "a stream, which is silent";
    ASSERT_TRUE(service_says(accepted, stream, noise(5 * GWA_PAYLOAD_MAX, 1)));
    const uint32_t taken = 8 << 20;  // by buffers that are not there
    gwa_connection_memory_charge(conn, taken);
    rounds(2);
    EXPECT_EQ(std::exchange(fake_time::waited_us, 0), 100'000) << "local data, no memory for it";
    EXPECT_EQ(sent(), "");
    gwa_connection_memory_release(conn, taken);
}

// A server that does not read holds up what is for it, and nothing else.
TEST_F(DataRound, WhatIsHeldBackHoldsUpNothingElse) {
    const gwa_stream* const download = open_wide_stream(1);
    const unique_fd page = std::move(accepted);
    open_stream(2);
    read_until(accepted.get(), "\r\n\r\n");
    const int roomy = 1 << 18;
    setsockopt(sockets.ours, SOL_SOCKET, SO_SNDBUF, &roomy, sizeof roomy);
    fill_socket();
    ASSERT_TRUE(service_says(page, download, noise(60 * GWA_PAYLOAD_MAX, 1)));
    const int64_t start = fake_time::now_us;
    const auto policy_lines = [&](int64_t until_us) {
        return log_lines_of(GWA_LEVEL_INFO, [&] {
            while (fake_time::now_us < start + until_us) {
                rounds(1);
            }
        });
    };
    using lines = std::vector<std::string>;
    EXPECT_EQ(policy_lines(29'900'000), lines());
    EXPECT_EQ(policy_lines(30'100'000), lines{"<6> traffic policy timeout, conn 0"});
    EXPECT_EQ(policy_lines(59'900'000), lines());
    EXPECT_EQ(conn->output.send_level, 5);
    EXPECT_EQ(conn->output.count, 16U) << "the rest stays with the service";
    fake_time::waited_us = 0;
    server_sends(frame_bytes(DATA, 2, "upload"));
    rounds(1);
    EXPECT_EQ(read_exact(accepted.get(), 6), "upload");
    rounds(1);
    EXPECT_EQ(fake_time::waited_us, 5000) << "as long as the level says";
    sent();
    rounds(1);
    all_sent = sent();
    EXPECT_EQ(all_sent.size(), 32 * (HEADER_SIZE + GWA_PAYLOAD_MAX))
        << "what was kept, and as much";
    rounds_until_idle();
    EXPECT_EQ(all_sent.size(), 60 * (HEADER_SIZE + GWA_PAYLOAD_MAX));
    EXPECT_EQ(conn->output.send_level, 0);
}

// However much waits, head and body of what a stream says are read at once, so that a click does
// not wait for downloads; then it takes turns, which a download gets as well. Priority 0 waits for
// nobody, and nobody for what leaves after him.
TEST_F(DataRound, WhoOftenSaysLittleOrWaitsBehindMuchGetsItsTurns) {
    const gwa_stream* const download = open_wide_stream(1);
    const unique_fd page = std::move(accepted);
    fill_socket();
    for (int i = 0; i < 40; i++) {
        queue_frame(9, "", 4);
    }
    uint32_t before = conn->output.count;
    const auto queued_more = [&](const unique_fd& service, const gwa_stream* stream,
                                 const std::string& text) {
        EXPECT_TRUE(service_says(service, stream, text));
        rounds(3);
        return conn->output.count - std::exchange(before, conn->output.count);
    };
    EXPECT_EQ(queued_more(page, download, noise(60 * GWA_PAYLOAD_MAX, 1)), 9U)
        << "one at once, and its turns";
    const struct {
        const char* priority;
        uint32_t at_once;  // of 20
    } cases[] = {{"4", 2}, {"3", 16}, {"0", 20}, {"5", 2}};
    for (const auto& [priority, at_once] : cases) {
        const auto id = static_cast<uint32_t>(10 + *priority);
        const gwa_stream* const chat = open_stream(id, std::string("&x-qv-pri=") + priority);
        for (uint32_t said = 0; said < 20; said++) {
            EXPECT_EQ(queued_more(accepted, chat, "text"), said < at_once ? 1 : 0) << priority;
        }
    }
    sent();
    rounds_until_idle();
    EXPECT_GT(all_sent.size(), 60 * (HEADER_SIZE + GWA_PAYLOAD_MAX)) << "nobody is forgotten";
}

TEST_F(DataRound, MemoryThatACloseSetsFreeWakesTheOthersAtOnce) {
    gwa_stream* const greedy = open_stream(1);
    const unique_fd keeps_first = std::move(accepted);
    const gwa_stream* const waiting = open_stream(2);
    uint8_t* const held = static_cast<uint8_t*>(calloc(1, 5 << 20));
    gwa_connection_memory_charge(conn, 5 << 20);
    gwa_stream_local_output_enqueue(greedy, held, 5 << 20);
    ASSERT_TRUE(service_says(accepted, waiting, "late"));
    rounds(1);
    EXPECT_EQ(conn->output.count, 0U);
    std::string frames;
    for (int i = 0; i < 128; i++) {
        frames += frame_bytes(DATA, 9);
    }
    const uint64_t before = gwa_counter_get(conn->traffic.packets_in);
    server_sends(frames + frame_bytes(CLOSE_STREAM, 1));
    EXPECT_EQ(gwa_connection_data_remote_in_handle(conn), gwa_step::GOES_ON);
    EXPECT_EQ(gwa_counter_get(conn->traffic.packets_in), before + 64) << "what a pass may take";
    rounds(1);  // as many again
    EXPECT_EQ(conn->output.count, 0U);
    rounds(1);  // the one behind them
    EXPECT_EQ(conn->output.count, 1U);
    rounds(1);
    EXPECT_EQ(sent(), frame_bytes(DATA, 2, "late"));
}

// Every ten minutes, and not before.
TEST_F(DataRound, FreesIdleStreamsAndStaleFrames) {
    for (const uint32_t seconds : {300, 301}) {
        set_clock(START + seconds);
        heard_and_said_at(START + seconds);
        open_stream(seconds);
    }
    queue_frame(1)->enqueue_time = coarse(START);
    fill_socket();
    for (const auto& [seconds, streams, frames] : {std::tuple{600, 2, 1U}, {601, 1, 0U}}) {
        set_clock(START + seconds);
        heard_and_said_at(START + seconds);
        rounds(1);
        EXPECT_EQ(conn->streams.count, streams) << "silent for more than 300 s";
        EXPECT_EQ(conn->output.count, frames) << "queued for more than 600 s";
    }
    EXPECT_EQ(conn->last_check_time, coarse(START + 601));
}

TEST_F(DataRound, ANewerOrderOrAPollerThatFailsClosesTheConnection) {
    gwa_connection_data_order_all(&gwa_connections.data, five_times("relay.example.com"));
    EXPECT_TRUE(closes_in(1));
    EXPECT_TRUE(conn->closed);
    conn->order.taken = conn->order.serial;
    connect();
    EXPECT_FALSE(conn->closed);
    close(std::exchange(conn->poller.epfd, -1));
    EXPECT_TRUE(closes_in(1));
    connect();
    close(std::exchange(conn->poller.epfd, -1));
    gwa_connection_run = 0;
    EXPECT_FALSE(closes_in(1)) << "the daemon stops, and the worker frees the connection itself";
}

}  // namespace
