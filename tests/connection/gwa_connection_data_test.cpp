#include "connection/gwa_connection_data.h"

#include <sys/ioctl.h>
#include <sys/stat.h>

#include <algorithm>

#include "connection/data_fixture.h"
#include "connection/gwa_connection_data_in.h"
#include "connection/gwa_connection_data_out.h"
#include "support/child.h"
#include "support/log_of.h"

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
        rounds(1);
        EXPECT_EQ(sent(), "") << split;
        server_sends(asked.substr(split) + asked);
        rounds(1);
        EXPECT_EQ(sent(), echo_answer(9) + echo_answer(9)) << "split at " << split;
    }
    EXPECT_EQ(gwa_connection_memory(conn), 0);
    EXPECT_EQ(fake_time::waited_us, 0) << "no split costs more than the short pauses";
}

TEST_F(data_connection, AFrameThatStopsHalfWayHasItsLimit) {
    const std::string asked = frame_bytes(DATA, 9, request(10010));
    const struct {
        size_t begun;
        int64_t limit;  // s
    } cases[] = {{5, 10}, {GWA_HEADER_SIZE, 120}, {GWA_HEADER_SIZE + 20, 120}};
    for (const auto& [begun, limit] : cases) {
        set_clock(START);
        server_sends(asked.substr(0, begun));
        rounds(1);
        set_clock(START - 1001);  // the clock is set back: the limit starts over
        EXPECT_FALSE(closes_in(1)) << begun;
        set_clock(START - 1001 + limit - 1);  // where each round waits a second
        EXPECT_FALSE(closes_in(1)) << begun;
        EXPECT_TRUE(closes_in(1)) << begun;
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
    conn->last_out_time = coarse(START + 241);  // busy sending, nothing comes in
    rounds();
    EXPECT_EQ(sent(), heartbeat_frame(0));
    EXPECT_EQ(conn->last_in_time, coarse(START + 61));
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
        gwa_connection_send(conn, frame_new(stream));
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
    gwa_stream* open(uint32_t stream_id, const std::string& more = "") {
        server_sends(frame_bytes(DATA, stream_id, request(listener.port, more)).replace(4, 4, TAG));
        rounds(1);
        accepted = listener.accept();
        return gwa_stream_find_by_id(&conn->streams, stream_id);
    }
    // True once the bytes wait for the stream; the kernel may take its time.
    bool service_says(const gwa_stream* stream, const std::string& text) {
        return write_all(accepted.get(), text) && eventually([&] {
                   int waiting = 0;
                   ioctl(stream->socket, FIONREAD, &waiting);
                   return waiting >= static_cast<int>(text.size());
               });
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

// What no event tells of any more is done without a wait in between.
TEST_F(local_stream, NoRoundWaitsWhileThereIsWork) {
    std::string asked, answered;
    for (uint32_t stream = 1; stream <= 200; stream++) {  // more than one pass takes
        asked += echo_request(stream);
        answered += echo_answer(stream);
    }
    server_sends(asked);
    rounds_until_idle();
    EXPECT_EQ(all_sent, answered) << "input beyond the budget of a pass";

    const gwa_stream* const stream = open(1000);
    const int room = 1 << 20;
    setsockopt(stream->socket, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
    const std::string page = noise(20 * GWA_PAYLOAD_MAX + 10, 1);
    ASSERT_TRUE(service_says(stream, page));
    all_sent.clear();
    rounds_until_idle();
    std::string body;
    for (size_t at = 0; at < all_sent.size(); at += HEADER_SIZE + GWA_PAYLOAD_MAX) {
        body += all_sent.substr(at + HEADER_SIZE, GWA_PAYLOAD_MAX);
    }
    EXPECT_TRUE(body == page) << body.size() << ": local data beyond the share of a round";
}

TEST_F(local_stream, ARoundWaitsWhileNothingCanBeDone) {
    const gwa_stream* const stream = open(1);
    ASSERT_TRUE(service_says(stream, noise(5 * GWA_PAYLOAD_MAX, 1)));
    const uint32_t taken = 8 << 20;  // by buffers that are not there
    gwa_connection_memory_charge(conn, taken);
    rounds(2);
    EXPECT_GT(fake_time::waited_us, 0) << "local data, but no memory for it";
    EXPECT_EQ(sent(), "");
    gwa_connection_memory_release(conn, taken);
    // The server reads nothing: its socket is full in the end.
    fill_socket();
    const int64_t before = fake_time::now_us;
    rounds(10);
    EXPECT_GE(fake_time::now_us - before, 10 * 100'000) << "frames, but no room for them";
    sent();
}

TEST_F(local_stream, AClosedStreamsMemoryWakesTheOthersInTheSameRound) {
    gwa_stream* const greedy = open(1);
    const unique_fd keeps_first = std::move(accepted);
    const gwa_stream* const waiting = open(2);
    uint8_t* const held = static_cast<uint8_t*>(calloc(1, 5 << 20));
    gwa_connection_memory_charge(conn, 5 << 20);
    gwa_stream_local_output_enqueue(greedy, held, held, 5 << 20);
    ASSERT_TRUE(service_says(waiting, "late"));
    rounds(1);
    EXPECT_EQ(conn->queue_count, 0U);
    // The poller's event takes as many frames as a pass may, the round itself the one behind them.
    std::string frames;
    for (int i = 0; i < 64; i++) {
        frames += frame_bytes(DATA, 9);
    }
    server_sends(frames + frame_bytes(CLOSE_STREAM, 1));
    rounds(1);
    EXPECT_EQ(conn->queue_count, 1U);
    rounds(1);
    EXPECT_EQ(sent(), frame_bytes(DATA, 2, "late"));
}

// Every ten minutes, and not before.
TEST_F(local_stream, ARoundFreesIdleStreamsAndStaleFrames) {
    open(1);
    set_clock(START + 298);
    open(2);
    gwa_output_node* const stale = frame_new(1);
    gwa_connection_send(conn, stale);
    stale->enqueue_time = coarse(START);
    const auto check_at = [this](int64_t seconds) {
        set_clock(START + seconds);
        conn->last_in_time = conn->last_out_time = coarse(START + seconds);
        fill_socket();
        rounds(1);
    };
    check_at(600);
    EXPECT_EQ(conn->stream_count, 2);
    EXPECT_EQ(conn->queue_count, 1U);
    check_at(601);
    EXPECT_EQ(conn->stream_count, 0) << "silent for more than 300 s";
    EXPECT_EQ(conn->queue_count, 0U) << "queued for more than 600 s";
    EXPECT_EQ(conn->last_check_time, coarse(START + 601));
}

TEST_F(local_stream, AStreamIsIdleAfterMoreThanFiveMinutes) {
    open(1);
    set_clock(START + 300);
    gwa_connection_data_stream_idle_check(conn);
    EXPECT_EQ(conn->stream_count, 1);
    set_clock(START + 301);
    gwa_connection_data_stream_idle_check(conn);
    EXPECT_EQ(conn->stream_count, 0);
}

// With the real worker, whose pauses are short.
TEST(Worker, ResolvesItsServerAnewAfterThreeFailedLogins) {
    child program([] {
        const loopback_listener closed{-1};
        gwa_time.sleep_us = [](int64_t) { usleep(100); };
        gwa_login_init("localhost", nullptr, nullptr, nullptr, "lo", "box");
        gwa_connection_table_init();
        gwa_connection_run = 1;
        gwa_connection_data_init(&gwa_connections.data);
        const char domain[GWA_HOST_SIZE] = "localhost";
        gwa_connection_order(&gwa_connections.data[3], domain, closed.port);
        gwa_connections.data[3].flags = GWA_CONNECTION_ADDRESS_SET;
        pause();
    });
    const std::string failed = "<0> login server failed\n";
    const std::string again = "<0> re-resolve the domain localhost to 127.0.0.1\n";
    EXPECT_TRUE(eventually([&] { return program.errors().find(again) != std::string::npos; }));
    const std::string log = program.errors();
    const size_t tried = log.find("<2> try to login server 0x7f000001:");
    EXPECT_LT(tried, log.find(again));
    EXPECT_NE(log.find(" more than 3 times, but all failed\n", tried), std::string::npos);
    int failures = 0;
    for (size_t at = log.find(failed); at < tried; at = log.find(failed, at + 1)) {
        failures++;
    }
    EXPECT_EQ(failures, 3);
}

TEST_F(data_connection, AnUnreadableDiagnosticFileSaysSo) {
    const temp_dir home;
    text_copy(gwa_process_paths.home, home.path);
    ASSERT_EQ(mkdir((home.path + "/tmp").c_str(), 0700), 0);
    ASSERT_EQ(mkdir((home.path + "/tmp/wkr").c_str(), 0700), 0);
    // A folder can be opened, has a size, and cannot be read.
    ASSERT_EQ(mkdir((home.path + "/tmp/wkr/sysdiag.txt").c_str(), 0700), 0);
    struct stat file {};
    ASSERT_EQ(stat((home.path + "/tmp/wkr/sysdiag.txt").c_str(), &file), 0);
    server_sends(frame_bytes(DATA, 1, request(10010, "&x-qv-gwad-opt=diag&timeout=5")));
    const std::vector<std::string> lines = log_lines_of(GWA_LEVEL_REFUSAL, [this] { rounds(1); });
    EXPECT_EQ(lines.back(), "<3> read diag file failed");
    const std::string length = std::to_string(std::min<off_t>(file.st_size, GWA_PAYLOAD_MAX));
    EXPECT_TRUE(sent().ends_with("\r\nContent-Length:" + length + "\r\n\r\n"));
    gwa_process_paths.home[0] = '\0';
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

// A server that does not follow a request for a dead port by as many bytes.
struct extra_discard : data_connection {
    const loopback_listener closed{-1};
    const std::string asked = frame_bytes(DATA, 1, request(closed.port));
    const size_t count = asked.size() - GWA_HEADER_SIZE;
    void begin() {
        server_sends(asked);
        rounds(1);
        EXPECT_TRUE(gwa_connection_data_discards_extra(conn));
    }
    void run_out(int64_t now) {
        set_clock(now);
        rounds(2);
        EXPECT_FALSE(gwa_connection_data_discards_extra(conn));
    }
};

TEST_F(extra_discard, NoHeartbeatLeavesWhileItsAnswerWouldBeLost) {
    begin();
    set_clock(START + 61);
    conn->last_in_time = coarse(START - 200);  // for the keepalive as well
    rounds();
    EXPECT_EQ(sent(), "");
    server_sends(std::string(count, '?'));
    rounds(2);
    EXPECT_EQ(sent(), heartbeat_frame(0)) << "as soon as it is over";
}

TEST_F(extra_discard, AnAnswerThatWasLostBlocksNoFurtherHeartbeat) {
    set_clock(START + 61);
    rounds(2);
    ASSERT_EQ(sent(), heartbeat_frame(0));
    begin();
    server_sends(heartbeat_frame(0));  // into the discard
    rounds(2);
    run_out(START + 61 + 120);
    EXPECT_EQ(sent(), heartbeat_frame(1));
    server_sends(heartbeat_frame(1));
    rounds(2);
    EXPECT_EQ(conn->heartbeat_resp, conn->heartbeat_seq);
}

TEST_F(extra_discard, AnAnswerThatComesAfterwardsStillCounts) {
    set_clock(START + 61);
    rounds(2);
    ASSERT_EQ(sent(), heartbeat_frame(0));
    begin();
    server_sends(std::string(count, '?') + heartbeat_frame(0) + echo_request(2));
    rounds(2);
    EXPECT_EQ(sent(), echo_answer(2));
}

}  // namespace
