#include "connection/gwa_stream.h"

#include "connection/connection_floor.h"
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
    EXPECT_EQ(conn->streams.count, 1);
    EXPECT_EQ(sent(), "");
}

TEST_F(Streams, ShortMemoryStopsEveryStreamButPriorityZero) {
    const std::tuple<const char*, uint32_t, bool> cases[] = {
        {"", GWA_MEMORY_LIMIT, true},  // of priority 4
        {"", GWA_MEMORY_LIMIT + 1, false},
        {"&x-qv-pri=0", GWA_MEMORY_LIMIT + 1, true}};
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

// What one stream leaves unread for want of memory, another one must not get for ever.
TEST_F(Streams, ThePassAfterShortMemoryStartsWithWhoCameOffBadly) {
    gwa_stream* streams[3];
    unique_fd services[3];
    for (uint32_t i = 0; i < 3; i++) {
        streams[i] = open_stream(i + 1);
        services[i] = std::move(accepted);
    }
    for (int i = 0; i < 3; i++) {
        ASSERT_TRUE(service_says(services[i], streams[i], "x"));
        streams[i]->more = gwa_more::WAITS;
    }
    const uint32_t before = gwa_connection_memory(conn);
    conn->memory = GWA_MEMORY_LIMIT - 1;  // enough for the first one's frame
    EXPECT_EQ(gwa_stream_local_in_wakeup(&conn->streams.all), gwa_more::DRAINED);
    EXPECT_EQ(streams[0]->more, gwa_more::DRAINED);
    EXPECT_EQ(streams[1]->more, gwa_more::WAITS);
    EXPECT_EQ(conn->streams.all.first(), streams[1]);
    EXPECT_EQ(conn->streams.all.last(), streams[0]);
    conn->memory = conn->memory - (GWA_MEMORY_LIMIT - 1) + before;
}

TEST_F(Streams, AServiceThatTakesLittleGetsEverythingInOrder) {
    open_stream(5);
    const std::string head = read_until(accepted.get(), "\r\n\r\n");
    const std::string body = noise(3 << 20, 1);
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
