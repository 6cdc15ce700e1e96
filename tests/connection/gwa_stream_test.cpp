#include "connection/connection_floor.h"
#include "connection/gwa_stream_in.h"
#include "support/files.h"

namespace {

using Streams = data_floor;

TEST_F(Streams, BytesFlowBothWaysUnderTheStreamsId) {
    const gwa_stream* const stream = open_stream(5, "&x-qv-pri=2");
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(stream->priority, 2U);
    EXPECT_EQ(stream->last_activity, coarse(START));
    EXPECT_NE(fcntl(stream->socket, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(read_until(accepted.get(), "\r\n\r\n"), request_text(listener.port, "&x-qv-pri=2"));
    set_clock(START + 3);
    heard_and_said_at(START + 3);
    server_sends(frame_bytes(DATA, 5, "more"));
    rounds(1);
    EXPECT_EQ(read_exact(accepted.get(), 4), "more");
    EXPECT_EQ(stream->last_activity, coarse(START + 3));

    const std::string page = noise(GWA_PAYLOAD_MAX + 10, 1);
    ASSERT_TRUE(service_says(accepted, stream, page));
    set_clock(START + 4);
    const std::string close = frame_bytes(CLOSE_STREAM, 5);
    EXPECT_EQ(reply_to(close.substr(0, 9)), frame_bytes(DATA, 5, page.substr(0, GWA_PAYLOAD_MAX)) +
                                                frame_bytes(DATA, 5, page.substr(GWA_PAYLOAD_MAX)))
        << "a partly received frame holds up nobody";
    EXPECT_EQ(stream->last_activity, coarse(START + 4));
    EXPECT_EQ(reply_to(close.substr(9)), "");
    EXPECT_TRUE(closed_by_peer(accepted.get()));
}

TEST_F(Streams, ACloseByTheServiceEndsNothingAndIsToldOnce) {
    open_stream(5);
    read_until(accepted.get(), "\r\n\r\n");
    accepted.reset();
    const auto said = log_lines_of(GWA_LEVEL_ERROR, [this] {
        eventually([this] {
            rounds(1);
            return conn->streams.all.first()->more == gwa_more::CLOSED;
        });
        rounds(5);
    });
    EXPECT_EQ(said.size(), 1U);
    for (int i = 0; i < 2; i++) {  // the first one finds out that nobody takes them any more
        server_sends(frame_bytes(DATA, 5, "late"));
        rounds(2);
    }
    EXPECT_EQ(conn->streams.waiting, 0U) << "what nobody takes is not kept";
    EXPECT_EQ(conn->streams.count, 1);
    EXPECT_EQ(sent(), "");
}

TEST_F(Streams, ShortMemoryStopsEveryStreamButPriorityZero) {
    const std::tuple<const char*, uint32_t, bool> cases[] = {
        {"", GWA_MEMORY_LIMIT, true},  // of priority 4
        {"", GWA_MEMORY_LIMIT + 1, false},
        {"&x-qv-pri=0", GWA_MEMORY_CEILING, true},
        {"&x-qv-pri=0", GWA_MEMORY_CEILING + 1, false}};
    uint32_t id = 1;
    for (const auto& [priority, memory, reads] : cases) {
        gwa_stream* const stream = open_stream(id, priority);
        ASSERT_TRUE(service_says(accepted, stream, "x"));
        const uint32_t before = gwa_connection_memory(conn);
        conn->memory = memory;
        gwa_stream_local_in_handle(stream);
        EXPECT_EQ(conn->output.count, reads ? 1U : 0U) << priority << " at " << memory;
        conn->memory = conn->memory - memory + before;
        rounds(2);
        EXPECT_EQ(sent(), frame_bytes(DATA, id, "x")) << "once memory is there again";
        id++;
    }
    EXPECT_EQ(conn->streams.all.first()->priority, 4U);
}

// Each pass goes on where the last one has ended, whether its share or the memory was used up.
TEST_F(Streams, TakeTurns) {
    unique_fd services[3];
    for (uint32_t i = 0; i < 3; i++) {
        open_stream(i + 1);
        services[i] = std::move(accepted);
    }
    for (gwa_stream& stream : conn->streams.all) {
        const unique_fd& service = services[stream.id - 1];
        ASSERT_TRUE(service_says(service, &stream, noise(11 * GWA_PAYLOAD_MAX + 1, 1)));
        stream.more = gwa_more::HAS_MORE;
    }
    const auto pass = [this](int frames) {
        const gwa_more more = gwa_stream_local_in_wakeup(&conn->streams.all, frames);
        const uint32_t in_turn = conn->output.in_turn;
        std::string ids;
        while (gwa_output_node* const node = gwa_connection_dequeue(&conn->output.queue)) {
            ids += std::to_string(node->stream_id);
            gwa_connection_data_node_release(conn, node);
        }
        EXPECT_EQ(in_turn, ids.size());
        return ids + (more == gwa_more::HAS_MORE ? " and more" : "");
    };
    EXPECT_EQ(pass(20), "11111111222222223333 and more") << "eight frames each at least";
    EXPECT_EQ(pass(0), " and more");
    const uint32_t before = gwa_connection_memory(conn);
    conn->memory = GWA_MEMORY_LIMIT - GWA_FRAME_MAX;  // a frame and its node are more
    EXPECT_EQ(pass(4), "1");
    conn->memory = before;
    EXPECT_EQ(pass(30), "222233333333111");
    EXPECT_EQ(pass(9), "") << "who had nothing more waits for an event";
}

TEST_F(Streams, AServiceThatTakesLittleGetsEverythingInOrder) {
    open_stream(5);
    const std::string head = read_until(accepted.get(), "\r\n\r\n");
    const std::string body = noise(1 << 20, 1);
    std::string got;
    for (size_t at = 0; at < body.size(); at += GWA_PAYLOAD_MAX) {
        server_sends(frame_bytes(DATA, 5, body.substr(at, GWA_PAYLOAD_MAX)));
        rounds(1);
    }
    EXPECT_GT(gwa_connection_memory(conn), 0U) << "it does not fit into the kernel's buffers";
    EXPECT_TRUE(eventually([&] {
        got += read_to_end(accepted.get(), test_duration{0});
        rounds(1);
        return got.size() >= body.size();
    }));
    EXPECT_TRUE(got == body);
    EXPECT_EQ(gwa_connection_memory(conn), static_cast<uint32_t>(GWA_STREAM_COUNTED + 20));
}

}  // namespace
