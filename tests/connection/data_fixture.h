// data_fixture.h - one data connection without its thread: the test is the worker and the server.
#pragma once

#include <gtest/gtest.h>
#include <setjmp.h>

#include <new>
#include <string>

#include "connection/gwa_connection_data.h"
#include "connection/gwa_connection_data_close.h"
#include "connection/gwa_stream.h"
#include "login/gwa_login.h"
#include "runtime/gwa_util_time.h"
#include "support/fake_time.h"
#include "support/frames.h"
#include "support/run_flags.h"
#include "support/socket_pair.h"

inline std::string request(int port, const std::string& more = "") {
    return "GET /?x-qv-devid=box&x-qv-port=" + std::to_string(port) + more + " HTTP/1.1\r\n\r\n";
}

// What both kinds of connection start from: a silent log, fresh tables, a clock that stands still.
struct connection_test : testing::Test {
    // s; half a minute before the coarse clock wraps, so that whatever a test waits for lies
    // beyond.
    static constexpr int64_t START = INT32_MAX - 30;
    run_flags flags;
    fake_time time;
    socket_pair sockets;

    connection_test(bool data_wanted, int family) : flags(true, data_wanted), sockets(family) {
        gwa_log_level_set(GWA_LOG_OFF);
        gwa_connection_table_init();
        set_clock(START);
    }
    ~connection_test() override { gwa_log_level_set(GWA_LEVEL_DEBUG); }
    static int32_t coarse(int64_t seconds) { return static_cast<int32_t>(seconds); }
    static void set_clock(int64_t seconds) {
        fake_time::now_us = seconds * 1'000'000;
        gwa_now_refresh();
    }
    std::string sent() { return sockets.peer_hears(); }
    void server_sends(const std::string& bytes) { EXPECT_TRUE(sockets.peer_says(bytes)); }
};

struct data_connection : connection_test {
    gwa_connection_data* conn = &gwa_connections.data[0];
    char id[GWA_DEVICE_ID_SIZE] = "box";

    data_connection() : connection_test(true, AF_UNIX) {
        gwa_device_id = id;
        gwa_login.local_address = INADDR_LOOPBACK;
        connect();
        conn->last_out_time = conn->last_in_time = conn->last_check_time = coarse(START);
    }
    ~data_connection() override {
        gwa_connection_data_free(conn);
        EXPECT_EQ(gwa_connection_memory(conn), 0) << "what was charged has been released";
        EXPECT_EQ(conn->queue_count, 0U);
        EXPECT_EQ(conn->stream_count, 0);
        gwa_device_id = nullptr;
    }
    void connect() {
        EXPECT_EQ(gwa_connection_data_init2(conn), GWA_OK);
        conn->socket = dup(sockets.ours);
        EXPECT_EQ(poll_add(&conn->poller, conn->socket, gwa_connection_data_remote_handle, conn,
                           &conn->socket),
                  GWA_OK);
    }
    // Runs rounds; true if the connection closed itself and jumped.
    bool closes_in(int rounds) {
        if (setjmp(conn->restart_point) != 0) {
            return true;
        }
        for (int i = 0; i < rounds; i++) {
            gwa_connection_data_round(conn);
        }
        return false;
    }
    void rounds(int count = 3) { EXPECT_FALSE(closes_in(count)); }
    // Runs rounds, with a server that reads, up to the first one that waits in vain.
    std::string all_sent;
    void rounds_until_idle() {
        const int64_t waited = fake_time::waited_us;
        while (fake_time::waited_us == waited && !HasFailure()) {
            rounds(1);
            all_sent += sent();
        }
    }
    // A frame without payload.
    gwa_output_node* frame_new(uint32_t stream) {
        uint8_t* const buffer = static_cast<uint8_t*>(calloc(1, GWA_HEADER_SIZE));
        gwa_connection_memory_charge(conn, GWA_HEADER_SIZE);
        gwa_output_node* const node =
            gwa_connection_node_new(conn, buffer, GWA_HEADER_SIZE, GWA_HEADER_SIZE);
        node->stream_id = stream;
        return node;
    }
    // From here on the server reads nothing, and the socket has no room left.
    void fill_socket() {
        const std::string fill(1 << 20, 'f');
        while (send(sockets.ours, fill.data(), fill.size(), MSG_DONTWAIT) > 0) {
        }
    }
};
