// connection_floor.h - a connection of each kind without its thread: the test is the loop or the
// worker, and the server at the other end.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <functional>

#include "connection/gwa_connection.h"
#include "connection/gwa_connection_cntl.h"
#include "connection/gwa_connection_data_in.h"
#include "connection/gwa_connection_data_round.h"
#include "connection/gwa_stream_in.h"
#include "login/gwa_login.h"
#include "support/fake_time.h"
#include "support/frames.h"
#include "support/log_of.h"
#include "support/run_flags.h"
#include "support/socket_pair.h"

// What both kinds start from: a silent log, fresh tables, a clock that stands still.
struct connection_floor : testing::Test {
    // s; half a minute before the coarse clock wraps, so that whatever a test waits for lies
    // beyond.
    static constexpr int64_t START = INT32_MAX - 30;
    run_flags flags;
    fake_time time;
    socket_pair sockets;

    connection_floor(bool data_wanted, int family) : flags(true, data_wanted), sockets(family) {
        gwa_log_level_set(GWA_LOG_OFF);
        gwa_connection_table_init();
        set_clock(START);
    }
    ~connection_floor() override { gwa_log_level_set(GWA_LEVEL_DEBUG); }
    static int32_t coarse(int64_t seconds) { return static_cast<int32_t>(seconds); }
    static void set_clock(int64_t seconds) {
        fake_time::now_us = seconds * 1'000'000;
        gwa_now_refresh();
    }
    std::string sent() { return sockets.peer_hears(); }
    void server_sends(const std::string& bytes) { EXPECT_TRUE(sockets.peer_says(bytes)); }
    // From here on the server reads nothing, and the socket has no room left.
    void fill_socket() {
        const std::string fill(1 << 20, 'f');
        while (send(sockets.ours, fill.data(), fill.size(), MSG_DONTWAIT) > 0) {
        }
    }
    // From here on the descriptor is no socket.
    static void spoil(int fd) {
        const unique_fd file(open("/dev/null", O_RDWR | O_CLOEXEC));
        ASSERT_EQ(dup2(file.get(), fd), fd);
    }
};

// All five data connections to one server.
inline gwa_host_list five_times(const char* domain, uint16_t port = 80) {
    gwa_host_list servers;
    for (int i = 0; i < GWA_HOST_COUNT; i++) {
        text_copy(servers.hosts[i], domain);
        servers.ports[i] = port;
    }
    return servers;
}

struct control_floor : connection_floor {
    static constexpr int LOW_WATER = 16;  // as the login leaves it
    static inline int restarts;
    gwa_connection_cntl* cntl = &gwa_connections.cntl;

    control_floor() : connection_floor(false, AF_INET) {
        setsockopt(sockets.ours, SOL_SOCKET, SO_RCVLOWAT, &LOW_WATER, sizeof LOW_WATER);
        EXPECT_EQ(gwa_connection_cntl_init(cntl, dup(sockets.ours)), GWA_OK);
        cntl->heartbeat.last_in_time = coarse(START);
        restarts = 0;
        cntl->hooks.restart = [] { restarts++; };
    }
    ~control_floor() override {
        gwa_connection_cntl_exit(cntl);
        EXPECT_EQ(cntl->socket, -1);
    }
    // Rounds of the loop. Each has one pause, behind its input and before its output; the first one
    // may bring something about.
    void rounds(
        int count, std::function<void()> first_pause = [] {}) {
        static int left;
        static std::function<void()> event;
        left = count;
        event = std::move(first_pause);
        gwa_time.sleep_us = [](int64_t us) {
            std::exchange(event, [] {})();
            fake_time::now_us += us;
            gwa_process_run = --left > 0;
        };
        EXPECT_EQ(gwa_connection_cntl_manage(cntl), GWA_JUMP_NONE);
        gwa_process_run = 1;
    }
    // Queues a report of so many letters. Hands back its frame.
    std::string report(char letter, size_t length) {
        gwa_output_node* const node = gwa_connection_frame_new(
            gwa_command::REPORT_STATUS, GWA_FLAG_COMMAND, 0, static_cast<uint32_t>(length));
        memset(gwa_connection_payload_of(node), letter, length);
        gwa_connection_cntl_report(cntl, node);
        return frame_bytes(STATUS, 0, std::string(length, letter));
    }
    uint64_t packets_in() const { return gwa_counter_get(cntl->traffic.packets_in); }
};

struct data_floor : connection_floor {
    gwa_connection_data* conn = &gwa_connections.data[0];
    char device_id[GWA_DEVICE_ID_SIZE] = "box";
    std::string all_sent;        // by rounds_until_idle
    loopback_listener listener;  // a service on the box,
    unique_fd accepted;          // and the connection of the stream that was opened last

    data_floor() : connection_floor(true, AF_UNIX) {
        gwa_device_id = device_id;
        gwa_login.local_address = INADDR_LOOPBACK;
        connect();
        conn->last_check_time = coarse(START);
        heard_and_said_at(START);
    }
    ~data_floor() override {
        gwa_connection_data_free(conn);
        EXPECT_EQ(gwa_connection_memory(conn), 0U) << "what was charged has been released";
        EXPECT_EQ(conn->output.count, 0U);
        EXPECT_EQ(conn->output.in_turn, 0U);
        gwa_device_id = nullptr;
    }
    void connect() {
        EXPECT_EQ(gwa_connection_data_init2(conn), GWA_OK);
        conn->socket = dup(sockets.ours);
        EXPECT_EQ(poll_add(&conn->poller, conn->socket, gwa_connection_data_remote_handle, conn,
                           &conn->socket),
                  GWA_OK);
    }
    void heard_and_said_at(int64_t seconds) {
        conn->heartbeat.last_out_time = conn->heartbeat.last_in_time = coarse(seconds);
    }
    // Runs rounds; true as soon as the connection has closed itself.
    bool closes_in(int rounds) {
        for (int i = 0; i < rounds; i++) {
            if (gwa_connection_data_round(conn) == gwa_step::CLOSED) {
                EXPECT_EQ(conn->socket, -1);
                return true;
            }
        }
        return false;
    }
    void rounds(int count) { EXPECT_FALSE(closes_in(count)); }
    // Runs rounds, with a server that reads, up to the first one that waits in vain.
    void rounds_until_idle() {
        const int64_t waited = fake_time::waited_us;
        while (fake_time::waited_us == waited && !HasFailure()) {
            rounds(1);
            all_sent += sent();
        }
    }
    // What the server gets in reply to what it says, when nothing else comes to pass.
    std::string reply_to(const std::string& bytes) {
        server_sends(bytes);
        all_sent.clear();
        rounds_until_idle();
        return all_sent;
    }
    // Queues a frame of a stream, though there may be none.
    gwa_output_node* queue_frame(uint32_t stream_id, const std::string& payload = "",
                                 uint32_t priority = 0) {
        gwa_stream stream;
        stream.id = stream_id;
        stream.priority = priority;
        stream.connection = conn;
        gwa_output_node* const node =
            gwa_stream_frame_new(&stream, static_cast<uint32_t>(payload.size()));
        payload.copy(reinterpret_cast<char*>(gwa_connection_payload_of(node)), payload.size());
        gwa_connection_data_send(conn, node);
        return node;
    }
    // A stream to the service.
    gwa_stream* open_stream(uint32_t stream_id, const std::string& more = "") {
        server_sends(request_frame(stream_id, listener.port, more));
        rounds(1);
        accepted = listener.accept();
        return gwa_stream_find_by_id(&conn->streams.all, stream_id);
    }
    // True once the bytes wait for the stream; the kernel may take its time.
    static bool service_says(const unique_fd& service, const gwa_stream* stream,
                             const std::string& text) {
        return write_all(service.get(), text) && eventually([&] {
                   int waiting = 0;
                   ioctl(stream->socket, FIONREAD, &waiting);
                   return waiting >= static_cast<int>(text.size());
               });
    }
};
