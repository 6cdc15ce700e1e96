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
#include "runtime/gwa_timer.h"
#include "support/fake_time.h"
#include "support/frames.h"
#include "support/run_flags.h"
#include "support/socket_pair.h"

inline std::string request(int port, const std::string& more = "") {
    return "GET /?x-qv-devid=box&x-qv-port=" + std::to_string(port) + more + " HTTP/1.1\r\n\r\n";
}

// What both kinds of connection start from: a silent log, fresh tables, a clock that stands still.
struct connection_test : testing::Test {
    static constexpr int32_t START = 1'000'000;  // s
    run_flags flags;
    fake_time time;
    socket_pair sockets;

    explicit connection_test(bool data_wanted) : flags(true, data_wanted) {
        gwa_log_level_set(GWA_LOG_OFF);
        gwa_connection_table_init();
        gwa_now = START;
    }
    ~connection_test() override { gwa_log_level_set(GWA_LEVEL_DEBUG); }
};

struct data_connection : connection_test {
    gwa_connection_data* conn = &gwa_connections.data[0];
    char id[GWA_DEVICE_ID_SIZE] = "box";

    data_connection() : connection_test(true) {
        gwa_device_id = id;
        gwa_login.local_address = INADDR_LOOPBACK;
        connect();
        set_clock(START);
        conn->last_out_time = conn->last_in_time = conn->last_check_time = START;
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
    void set_clock(int32_t seconds) {
        gwa_now = seconds;
        fake_time::now_us = int64_t{seconds} * 1'000'000;
    }
    // Runs rounds without waiting; true if the connection closed itself and jumped.
    bool closes_in(int rounds) {
        if (setjmp(conn->restart_point) != 0) {
            return true;
        }
        for (int i = 0; i < rounds; i++) {
            conn->input_has_more = true;  // the poller looks, and does not wait
            gwa_connection_data_round(conn);
            conn->input_has_more = false;
        }
        return false;
    }
    void rounds(int count = 3) { EXPECT_FALSE(closes_in(count)); }
    std::string sent() { return sockets.peer_hears(); }
    void server_sends(const std::string& bytes) { EXPECT_TRUE(sockets.peer_says(bytes)); }
};
