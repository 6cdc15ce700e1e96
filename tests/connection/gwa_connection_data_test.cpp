#include "connection/gwa_connection_data.h"

#include <algorithm>

#include "connection/data_fixture.h"
#include "connection/gwa_connection_data_out.h"

namespace {

std::string echo_request(uint32_t stream) {
    return frame_bytes(DATA, stream, request(10010, "&x-qv-gwad-opt=echo"));
}

std::string echo_answer(uint32_t stream) {
    return frame_bytes(
        DATA, stream, "HTTP/1.1 200 OK\r\nContent-Type:text/plain\r\nContent-Length:4\r\n\r\necho");
}

TEST_F(data_connection, AFrameMayBeSplitAnywhereAndTheNextOneStaysInStep) {
    const std::string asked = echo_request(9);
    for (size_t split = 1; split < asked.size(); split++) {
        server_sends(asked.substr(0, split));
        rounds();
        EXPECT_EQ(sent(), "") << split;
        server_sends(asked.substr(split) + asked);
        rounds();
        EXPECT_EQ(sent(), echo_answer(9) + echo_answer(9)) << "split at " << split;
    }
    EXPECT_EQ(gwa_connection_memory(conn), 0);
    EXPECT_EQ(fake_time::now_us / 1'000'000, START) << "no split costs more than the short pauses";
}

TEST_F(data_connection, AFrameThatStopsHalfWayHasItsLimit) {
    const std::string asked = frame_bytes(DATA, 9, request(10010));
    const struct {
        size_t begun;
        int32_t limit;  // s
    } cases[] = {{5, 10}, {GWA_HEADER_SIZE, 120}, {GWA_HEADER_SIZE + 20, 120}};
    for (const auto& [begun, limit] : cases) {
        set_clock(START);
        server_sends(asked.substr(0, begun));
        rounds();
        set_clock(START - 1000);  // the clock is set back: the limit starts over
        EXPECT_FALSE(closes_in(2)) << begun;
        set_clock(START - 1000 + limit - 1);
        EXPECT_FALSE(closes_in(2)) << begun;
        set_clock(START - 1000 + limit);
        EXPECT_TRUE(closes_in(2)) << begun;
        EXPECT_EQ(gwa_connection_memory(conn), 0);
        connect();
    }
}

TEST_F(data_connection, HeartbeatsFollowTheClockOneAtATime) {
    conn->heartbeat_seq = conn->heartbeat_resp = 41;
    set_clock(START + 60);
    rounds();
    EXPECT_EQ(sent(), "");
    set_clock(START + 61);
    rounds();
    EXPECT_EQ(sent(), heartbeat_frame(41));
    set_clock(START + 200);  // not answered: no further one
    rounds();
    EXPECT_EQ(sent(), "");
    server_sends(heartbeat_frame(41));
    rounds();
    EXPECT_EQ(sent(), heartbeat_frame(42)) << "answered, and still silent for a minute";
    server_sends(heartbeat_frame(41));
    EXPECT_TRUE(closes_in(2)) << "a wrong number starts the connection over";
}

TEST_F(data_connection, AKeepaliveGoesFirstAndComesAgainAMinuteLater) {
    set_clock(START + 241);
    conn->last_out_time = START + 241;  // busy sending, nothing comes in
    rounds();
    EXPECT_EQ(sent(), heartbeat_frame(0));
    EXPECT_EQ(conn->last_in_time, START + 61);
    server_sends(heartbeat_frame(0));
    rounds();
    EXPECT_EQ(conn->heartbeat_resp, conn->heartbeat_seq);
}

TEST_F(data_connection, NothingFreesTheHeartbeatFrameOrUsesItTwice) {
    set_clock(START + 241);
    gwa_connection_data_keepalive_handle(conn);
    ASSERT_EQ(conn->output.nodes.first(), &conn->heartbeat_node);
    gwa_connection_data_output_free_by_id(conn, 0);
    set_clock(START + 5000);
    gwa_connection_data_buffer_timeout_check(conn);
    conn->heartbeat_resp = conn->heartbeat_seq;  // as if answered while still queued
    gwa_connection_data_keepalive_handle(conn);
    gwa_connection_data_heartbeat_handle(conn);
    EXPECT_EQ(conn->heartbeat_seq, 1U);
    conn->heartbeat_node.flags |= GWA_NODE_PARTLY_SENT;
    rounds(1);
    EXPECT_EQ(sent(), heartbeat_frame(0));
    EXPECT_EQ(conn->output.nodes.first(), nullptr);
    EXPECT_EQ(conn->heartbeat_node.flags, GWA_NODE_HEARTBEAT) << "ready for the next one";
}

TEST_F(data_connection, AHeartbeatThatFindsTheQueueBusyTakesItsNumberBack) {
    server_sends(echo_request(3));
    gwa_connection_data_remote_handle(EPOLLIN, conn);
    gwa_connection_data_heartbeat_handle(conn);
    EXPECT_EQ(conn->heartbeat_seq, 0U);
    rounds();
    EXPECT_EQ(sent(), echo_answer(3));
}

TEST_F(data_connection, StaleFramesAreDroppedButNotAPartlySentOne) {
    for (uint32_t stream = 1; stream <= 3; stream++) {
        uint8_t* const buffer = static_cast<uint8_t*>(calloc(1, GWA_HEADER_SIZE));
        gwa_connection_memory_charge(conn, GWA_HEADER_SIZE);
        gwa_output_node* const node =
            gwa_connection_node_new(conn, buffer, GWA_HEADER_SIZE, GWA_HEADER_SIZE);
        node->stream_id = stream;
        gwa_connection_send(conn, node);
    }
    conn->output.nodes.first()->flags |= GWA_NODE_PARTLY_SENT;
    gwa_connection_data_output_free_by_id(conn, 1);
    gwa_connection_data_output_free_by_id(conn, 2);
    EXPECT_EQ(conn->queue_count, 2U);
    set_clock(START + 600);
    gwa_connection_data_buffer_timeout_check(conn);
    EXPECT_EQ(conn->queue_count, 2U);
    set_clock(START + 601);
    gwa_connection_data_buffer_timeout_check(conn);
    EXPECT_EQ(conn->queue_count, 1U);
}

TEST_F(data_connection, CommandsThatEndItAndCommandsThatDoNot) {
    server_sends(frame_bytes(LOGIN_ANSWER, 0, std::string(5000, 'x')) +
                 frame_bytes(HEARTBEAT, 0, "abc") + frame_bytes(DATA, 8) +
                 frame_bytes(CLOSE_STREAM, 77) + echo_request(9));
    rounds(5);
    EXPECT_EQ(sent(), echo_answer(9));
    EXPECT_EQ(gwa_counter_get(conn->traffic.packets_in), 5U);
    server_sends(frame_bytes(CLOSE_CONNECTION, 0));
    EXPECT_TRUE(closes_in(2));
}

TEST_F(data_connection, AnOrderlyCloseEndsNothingButANewOrderDoes) {
    shutdown(sockets.peer.get(), SHUT_WR);
    EXPECT_FALSE(closes_in(3));
    const char domain[GWA_HOST_SIZE] = "relay.example.com";
    gwa_connection_order(conn, domain, 1);
    EXPECT_TRUE(closes_in(1));
}

// A service on the box: a listening socket that the connection's streams reach.
struct local_stream : data_connection {
    loopback_listener listener;
    unique_fd accepted;
    const std::string TAG = be32(0xabcd);
    void open(uint32_t stream_id, const std::string& more = "") {
        server_sends(frame_bytes(DATA, stream_id, request(listener.port, more)).replace(4, 4, TAG));
        rounds();
        accepted = listener.accept();
    }
};

TEST_F(local_stream, BytesFlowBothWaysUnderTheStreamsId) {
    open(5, "&x-qv-pri=2");
    gwa_stream* const stream = gwa_stream_find_by_id(&conn->streams, 5);
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(stream->priority, 2U);
    EXPECT_EQ(stream->tag, 0xabcdU);
    EXPECT_EQ(read_until(accepted.get(), "\r\n\r\n"), request(listener.port, "&x-qv-pri=2"));

    const std::string page(GWA_PAYLOAD_MAX + 10, 'p');
    EXPECT_TRUE(write_all(accepted.get(), page));
    rounds();
    EXPECT_EQ(sent(),
              frame_bytes(DATA, 5, page.substr(10)) + frame_bytes(DATA, 5, page.substr(0, 10)));
    accepted.reset();
    rounds();
    EXPECT_EQ(conn->stream_count, 1) << "a close by the service ends nothing";
    server_sends(frame_bytes(CLOSE_STREAM, 5));
    rounds();
    EXPECT_EQ(conn->stream_count, 0);
    EXPECT_EQ(gwa_connection_memory(conn), 0);
}

TEST_F(local_stream, ShortMemoryStopsEveryStreamButPriorityZero) {
    const struct {
        const char* priority;
        uint32_t memory;
        bool reads;
    } cases[] = {{"&x-qv-pri=4", GWA_MEMORY_LIMIT, true},
                 {"&x-qv-pri=4", GWA_MEMORY_LIMIT + 1, false},
                 {"&x-qv-pri=0", GWA_MEMORY_LIMIT + 1, true}};
    uint32_t stream = 1;
    for (const auto& [priority, memory, reads] : cases) {
        open(stream, priority);
        EXPECT_TRUE(write_all(accepted.get(), "x"));
        const uint32_t before = gwa_connection_memory(conn);
        conn->memory = memory;
        gwa_stream_local_in_handle(gwa_stream_find_by_id(&conn->streams, stream));
        EXPECT_EQ(conn->queue_count, reads ? 1U : 0U) << priority << " at " << memory;
        conn->memory = conn->memory - memory + before;
        rounds();
        EXPECT_EQ(sent(), frame_bytes(DATA, stream, "x")) << "once memory is there again";
        stream++;
    }
}

TEST_F(local_stream, TheNextWaitReturnsAtOnceWhileThereIsWorkAndOnlyThen) {
    open(1);
    EXPECT_FALSE(gwa_connection_data_has_more(conn));
    const std::string page(2 * GWA_PAYLOAD_MAX + 10, 'p');
    EXPECT_TRUE(write_all(accepted.get(), page));
    rounds(1);
    EXPECT_TRUE(gwa_connection_data_has_more(conn)) << "frames that nothing keeps back";
    rounds(1);
    EXPECT_FALSE(gwa_connection_data_has_more(conn));
    conn->out_state = gwa_out_state::BLOCKED;
    conn->memory = conn->memory + GWA_MEMORY_LIMIT + 1;
    gwa_stream_local_in_handle(conn->streams.first());
    EXPECT_FALSE(gwa_connection_data_has_more(conn)) << "local data, but no memory";
    conn->memory = conn->memory - GWA_MEMORY_LIMIT - 1;
    EXPECT_TRUE(gwa_connection_data_has_more(conn));
    server_sends(frame_bytes(CLOSE_STREAM, 1));
    gwa_connection_data_remote_handle(EPOLLIN, conn);
    EXPECT_FALSE(gwa_connection_data_has_more(conn)) << "the mark outlives the stream";
}

TEST_F(local_stream, IdleStreamsAreFreed) {
    open(1);
    set_clock(START + 300);
    gwa_connection_data_stream_idle_check(conn);
    EXPECT_EQ(conn->stream_count, 1);
    set_clock(START + 301);
    gwa_connection_data_stream_idle_check(conn);
    EXPECT_EQ(conn->stream_count, 0);
}

TEST_F(data_connection, RefusedRequestsAreSilentAndCostNothing) {
    const loopback_listener closed{-1};
    const std::string ports[] = {"0", "65535", "99999999999", "", "x"};
    for (const std::string& port : ports) {
        server_sends(
            frame_bytes(DATA, 1, "GET /?x-qv-devid=box&x-qv-port=" + port + " HTTP/1.1\r\n\r\n"));
    }
    server_sends(frame_bytes(DATA, 1, "GET /?x-qv-devid=boy&x-qv-port=80 HTTP/1.1\r\n\r\n"));
    server_sends(frame_bytes(DATA, 1, "GET /?x-qv-port=80 HTTP/1.1 and more\r\n\r\n"));
    server_sends(frame_bytes(DATA, 1, "PUT /?x-qv-devid=box&x-qv-port=80 HTTP/1.1\r\n\r\n"));
    server_sends(frame_bytes(DATA, 1, "short"));
    rounds();
    EXPECT_EQ(gwa_connection_memory(conn), 0);

    // A service that is not there: as many bytes again are dropped, without holding up the round.
    const std::string asked = frame_bytes(DATA, 1, request(closed.port));
    server_sends(asked);
    rounds();
    server_sends(std::string(asked.size() - GWA_HEADER_SIZE, '?') + echo_request(2));
    rounds();
    EXPECT_EQ(sent(), echo_answer(2));
    EXPECT_EQ(gwa_connection_memory(conn), 0);
}

}  // namespace
