#include "connection/gwa_connection_cntl.h"

#include "connection/data_fixture.h"
#include "connection/gwa_connection_cntl_command.h"
#include "runtime/gwa_util_host.h"
#include "support/files.h"

namespace {

uint32_t times_taken[2];

struct control_connection : connection_test {
    gwa_connection_cntl* cntl = &gwa_connections.cntl;

    control_connection() : connection_test(false) {
        EXPECT_EQ(gwa_connection_cntl_init(dup(sockets.ours)), GWA_OK);
    }
    ~control_connection() override {
        gwa_connection_cntl_exit();
        EXPECT_EQ(cntl->socket, -1);
    }
    // What the handler answers to one frame, of which the header has been read.
    int handle(gwa_command command, const std::string& payload) {
        EXPECT_TRUE(sockets.peer_says(payload));
        uint8_t bytes[GWA_HEADER_SIZE + 1] = {};
        gwa_protocol_build(bytes, GWA_VERSION_PLAIN, command, GWA_FLAG_COMMAND, 0,
                           static_cast<uint32_t>(payload.size()));
        return gwa_connection_cntl_proto_handle(cntl, bytes);
    }
    size_t unread() { return read_to_end(cntl->socket, test_duration{0}).size(); }
};

TEST_F(control_connection, KeepsFewReportsForAServerThatReadsNothing) {
    const auto report = [] {
        uint8_t* const frame = static_cast<uint8_t*>(GWA_MALLOC(GWA_HEADER_SIZE));
        gwa_protocol_build(frame, GWA_VERSION_PLAIN, gwa_command::REPORT_STATUS, GWA_FLAG_COMMAND,
                           0, 0);
        gwa_connection_cntl_send(frame, GWA_HEADER_SIZE);
    };
    for (uint32_t i = 0; i < GWA_REPORTS_MAX + 3; i++) {
        report();
    }
    gwa_connection_cntl_remote_out_handle(cntl);
    EXPECT_EQ(gwa_counter_get(cntl->traffic.packets_out), GWA_REPORTS_MAX);
    report();
    gwa_connection_cntl_remote_out_handle(cntl);
    EXPECT_EQ(gwa_counter_get(cntl->traffic.packets_out), GWA_REPORTS_MAX + 1);
}

TEST_F(control_connection, CommandsTakeExactlyTheirLengthAndLeaveTheRest) {
    cntl->reporting_times = [](uint32_t t1, uint32_t t2) {
        times_taken[0] = t1;
        times_taken[1] = t2;
        return 0;
    };
    const std::string times("\0\0\0\7\0\0\x0e\x11", 8);
    const struct {
        gwa_command command;
        std::string payload;
        int result;
        size_t left;
    } cases[] = {
        {gwa_command::ALLOC_SESSION_ID, std::string(31, 's'), -1, 31},
        {gwa_command::ALLOC_SESSION_ID, std::string(33, 's'), -1, 33},
        {gwa_command::CONTROL_REPORTING, times.substr(0, 4), -1, 4},
        {gwa_command::CONTROL_REPORTING, times, 0, 0},
        {gwa_command::SET_PRIVACY_DATA, std::string(GWA_PAYLOAD_MAX, 'p'), 0, 0},
        {gwa_command::REPORT_STATUS, "1234", 0, 0},
        {gwa_command::RESPONSE_DEVICE_INFO, "{}", -1, 2},
        {gwa_command::DATA, "x", -1, 1},
        {gwa_command::REPORT_PORT_INFO, "x", -1, 1},
        {gwa_command::NEW_DATA_CONNECTION, std::string(127, 'n'), 0, 0},
    };
    uint64_t bytes_in = 0;
    for (const auto& [command, payload, result, left] : cases) {
        EXPECT_EQ(handle(command, payload), result) << static_cast<int>(command);
        EXPECT_EQ(unread(), left) << static_cast<int>(command);
        bytes_in += GWA_HEADER_SIZE + payload.size() - left;
        EXPECT_EQ(gwa_counter_get(cntl->traffic.bytes_in), bytes_in);
    }
    EXPECT_EQ(times_taken[0], 7U);
    EXPECT_EQ(times_taken[1], 3601U);
    EXPECT_EQ(gwa_connection_run, 0) << "an order without hosts starts nothing";
    EXPECT_EXIT(handle(gwa_command::NEW_DATA_CONNECTION, std::string(128, 'n')),
                testing::KilledBySignal(SIGABRT), "Assertion");
}

TEST_F(control_connection, TheSessionIdReplacesTheFile) {
    const temp_dir home;
    const std::string file = home.path + "/session.id";
    text_copy(gwa_process_paths.session_id_file, file);
    file_write(file, "what was there before, and longer than a session id");
    const std::string id = "0123456789abcdef0123456789abcdef";
    EXPECT_EQ(handle(gwa_command::ALLOC_SESSION_ID, id), 0);
    EXPECT_EQ(file_read(file), id);
}

TEST_F(control_connection, AnOrderReachesEveryWorkerASecondApart) {
    std::string order = "{";
    for (int i = 1; i <= GWA_DATA_CONNECTIONS; i++) {
        const std::string n = std::to_string(i);
        order += "\"host" + n + "\":\"h" + n + "\",\"port" + n + "\":\"7000" + n + "\",";
    }
    for (int repeat = 1; repeat <= 2; repeat++) {
        gwa_connection_cntl_remote_data_parse(cntl, order.c_str());
        for (gwa_connection_data& conn : gwa_connections.data) {
            EXPECT_TRUE(gwa_connection_order_waits(&conn)) << "also when it is repeated";
            gwa_connection_order_take(&conn);
            EXPECT_EQ(std::string(conn.domain), "h" + std::to_string(conn.id + 1));
            EXPECT_EQ(conn.port, (70001 + conn.id) & 0xffff) << "the low 16 bits";
            EXPECT_EQ(conn.flags, GWA_CONNECTION_ADDRESS_SET);
        }
    }
    EXPECT_EQ(gwa_connection_run, 1);
    EXPECT_EQ(fake_time::now_us, 10'000'000);
}

TEST_F(control_connection, HeartbeatsFollowTheClockAndWaitForTheirAnswer) {
    const struct {
        int32_t silent_out, silent_in;  // s
        bool beats;
    } cases[] = {{60, 240, false}, {61, 0, true}, {60, 241, true}, {0, 0, false}};
    cntl->poller.timeout = 1;
    uint32_t sequence = 0;
    for (const auto& [silent_out, silent_in, beats] : cases) {
        gwa_process_run = 1;
        gwa_now = START;
        cntl->last_in_time = START + silent_out - silent_in;
        // The loop's first pause lets the silence pass and the answer come, its second one ends it.
        const std::string answer = beats ? heartbeat_frame(sequence) : "";
        fake_time::event = [&, pauses = 0]() mutable {
            if (pauses++ == 0) {
                gwa_now = START + silent_out;
                EXPECT_TRUE(sockets.peer_says(answer));
            } else {
                gwa_process_run = 0;
            }
        };
        EXPECT_EQ(gwa_connection_cntl_manage(), GWA_JUMP_NONE);
        EXPECT_EQ(sockets.peer_hears(), answer) << silent_out << " s out, " << silent_in << " s in";
        sequence += beats ? 1 : 0;
    }
    EXPECT_EQ(cntl->heartbeat_misses, 0);
}

TEST_F(control_connection, WrongAnswersAddUpUntilARightOneComes) {
    cntl->heartbeat_seq = 42;
    gwa_process_run = 0;  // at the limit the count starts over; nothing is restarted any more
    const struct {
        uint32_t answer;
        int32_t misses;
    } cases[] = {{42, 1}, {40, 2}, {41, 0}, {7, 1}, {7, 2}, {7, 0}};
    for (const auto& [answer, misses] : cases) {
        handle(gwa_command::HEARTBEAT, be32(answer));
        EXPECT_EQ(cntl->heartbeat_misses, misses) << answer;
    }
}

TEST_F(control_connection, AJumpThatWasAskedForEndsTheLoop) {
    gwa_process_jump = GWA_JUMP_REINIT;
    EXPECT_EQ(gwa_connection_cntl_manage(), GWA_JUMP_REINIT);
    EXPECT_EQ(gwa_process_jump, GWA_JUMP_NONE);
}

}  // namespace
