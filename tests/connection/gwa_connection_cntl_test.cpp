#include "connection/gwa_connection_cntl.h"

#include <netinet/in.h>

#include <functional>
#include <utility>

#include "connection/data_fixture.h"
#include "connection/gwa_connection_cntl_command.h"
#include "runtime/gwa_util_memory.h"
#include "support/files.h"

namespace {

uint32_t times_taken[2];

struct control_connection : connection_test {
    static constexpr int LOW_WATER = 16;  // as the login leaves it
    gwa_connection_cntl* cntl = &gwa_connections.cntl;

    control_connection() : connection_test(false, AF_INET) {
        setsockopt(sockets.ours, SOL_SOCKET, SO_RCVLOWAT, &LOW_WATER, sizeof LOW_WATER);
        EXPECT_EQ(gwa_connection_cntl_init(dup(sockets.ours)), GWA_OK);
        cntl->last_in_time = coarse(START);
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
    size_t unread() {
        char bytes[GWA_FRAME_MAX];
        return static_cast<size_t>(
            std::max<ssize_t>(recv(cntl->socket, bytes, sizeof bytes, MSG_DONTWAIT), 0));
    }
    int low_water() {
        int mark = 0;
        socklen_t size = sizeof mark;
        getsockopt(cntl->socket, SOL_SOCKET, SO_RCVLOWAT, &mark, &size);
        return mark;
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
        EXPECT_EQ(gwa_connection_cntl_manage(), GWA_JUMP_NONE);
        gwa_process_run = 1;
    }
    uint64_t packets_in() const { return gwa_counter_get(cntl->traffic.packets_in); }
};

// Queues a report of so many letters. Hands back its frame.
std::string report(char letter, size_t length) {
    std::string frame = frame_bytes(STATUS, 0, std::string(length, letter));
    uint8_t* const bytes = static_cast<uint8_t*>(GWA_MALLOC(frame.size()));
    memcpy(bytes, frame.data(), frame.size());
    gwa_connection_cntl_send(bytes, static_cast<uint32_t>(frame.size()));
    return frame;
}

TEST_F(control_connection, KeepsFewReportsForAServerThatReadsNothing) {
    for (uint32_t i = 0; i < GWA_REPORTS_MAX + 3; i++) {
        report('r', 0);
    }
    gwa_connection_cntl_remote_out_handle(cntl);
    EXPECT_EQ(gwa_counter_get(cntl->traffic.packets_out), GWA_REPORTS_MAX);
    report('r', 0);
    gwa_connection_cntl_remote_out_handle(cntl);
    EXPECT_EQ(gwa_counter_get(cntl->traffic.packets_out), GWA_REPORTS_MAX + 1);
}

TEST_F(control_connection, AFrameThatTheSocketTakesInPiecesStaysWhole) {
    constexpr uint32_t MUCH = 32 << 20;  // more than the kernel takes at once
    std::string all = report('a', MUCH);
    all += report('b', 3);
    gwa_connection_cntl_remote_out_handle(cntl);
    EXPECT_EQ(gwa_counter_get(cntl->traffic.packets_out), 0U);
    EXPECT_EQ(cntl->send_level, 0) << "as it was before the pass";
    gwa_connection_cntl_remote_out_handle(cntl);
    EXPECT_EQ(cntl->send_level, 5);
    std::string heard;
    cntl->last_out_time = 0;
    while (heard.size() < all.size() && !HasFailure()) {
        heard += read_exact(sockets.peer.get(), std::min<size_t>(all.size() - heard.size(), 1));
        heard += sent();
        gwa_connection_cntl_remote_out_handle(cntl);
    }
    EXPECT_TRUE(heard == all);
    EXPECT_EQ(gwa_counter_get(cntl->traffic.bytes_out), all.size());
    EXPECT_EQ(gwa_counter_get(cntl->traffic.packets_out), 2U);
    EXPECT_EQ(cntl->last_out_time, coarse(START));
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

// A refused payload is taken for headers; what is left of it is shorter than one.
TEST_F(control_connection, TheRestOfARefusedPayloadHoldsUpNobody) {
    const struct {
        command code;
        size_t length, rest;
    } cases[] = {{REPORT_TIMES, 4, 4}, {SESSION_ID, 4, 4},  {SESSION_ID, 31, 15},
                 {SESSION_ID, 33, 1},  {DEVICE_INFO, 9, 9}, {LOGIN_ANSWER, 3, 3}};
    for (const auto& [code, length, rest] : cases) {
        SCOPED_TRACE(testing::Message() << code << " of " << length);
        const int64_t start = fake_time::now_us;
        server_sends(frame_bytes(code, 0, std::string(length, 'x')));
        const std::string told = report('t', 4);
        rounds(2);
        EXPECT_EQ(sent(), told) << "the loop goes on";
        EXPECT_EQ(cntl->header_have, rest);
        while (fake_time::now_us < start + 7'000'000) {  // a round takes 2.1 s
            rounds(1);
        }
        EXPECT_EQ(cntl->header_have, rest) << "it may still become a header";
        rounds(2);
        EXPECT_EQ(cntl->header_have, 0U);
        EXPECT_EQ(low_water(), LOW_WATER);
        // The connection is in step again.
        const uint64_t before = packets_in();
        server_sends(frame_bytes(STATUS, 0, "1234"));
        rounds(1);
        EXPECT_EQ(packets_in(), before + 1);
        EXPECT_EQ(cntl->header_have, 0U);
    }
}

TEST_F(control_connection, AHeaderInPiecesIsCompletedAsSoonAsItIsThere) {
    const std::string one = frame_bytes(STATUS), two = frame_bytes(PRIVACY, 0, "payload");
    for (size_t cut = 1; cut < HEADER_SIZE; cut++) {
        SCOPED_TRACE(cut);
        server_sends(one + two.substr(0, cut));
        rounds(1);
        EXPECT_EQ(cntl->header_have, cut);
        const uint64_t before = packets_in();
        const int64_t waited = fake_time::waited_us;
        server_sends(two.substr(cut));
        rounds(1);
        EXPECT_EQ(packets_in(), before + 1);
        EXPECT_EQ(fake_time::waited_us, waited) << "the poller has told of it";
        EXPECT_EQ(low_water(), LOW_WATER);
    }
    // Each byte starts the ten seconds anew.
    server_sends(one + two.substr(0, 1));
    for (size_t at = 1; at < HEADER_SIZE - 1; at++) {
        rounds(4);
        server_sends(two.substr(at, 1));
    }
    rounds(1);
    EXPECT_EQ(cntl->header_have, HEADER_SIZE - 1);
}

TEST_F(control_connection, AHeartbeatGoesOnFromTheRestThatIsThere) {
    server_sends(frame_bytes(SESSION_ID, 0, "1234"));
    rounds(1);
    ASSERT_EQ(cntl->header_have, 4U);
    const std::string answer = heartbeat_frame(0);
    server_sends(answer);
    gwa_connection_cntl_heartbeat_handle();  // comes back, although it takes a wrong header
    EXPECT_EQ(sent(), answer);
    EXPECT_EQ(cntl->heartbeat_misses, 0);
    rounds(6);
    EXPECT_EQ(cntl->header_have, 0U);

    // The rest that was there is the beginning of the answer.
    const std::string next = heartbeat_frame(1);
    server_sends(frame_bytes(STATUS) + next.substr(0, 5));
    rounds(1);
    server_sends(next.substr(5));
    cntl->heartbeat_misses = 2;
    gwa_connection_cntl_heartbeat_handle();
    EXPECT_EQ(cntl->heartbeat_misses, 0);
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
    EXPECT_EQ(fake_time::now_us, (START + 10) * 1'000'000);
}

TEST_F(control_connection, HeartbeatsFollowTheClockAndWaitForTheirAnswer) {
    const struct {
        int32_t silent_out, silent_in;  // s
        bool beats;
    } cases[] = {{60, 240, false}, {61, 0, true}, {60, 241, true}, {0, 0, false}};
    uint32_t sequence = 0;
    for (const auto& [silent_out, silent_in, beats] : cases) {
        set_clock(START);
        cntl->last_in_time = coarse(START + silent_out - silent_in);
        const std::string answer = beats ? heartbeat_frame(sequence) : "";
        rounds(2, [&, silent = silent_out] {
            set_clock(START + silent);
            server_sends(answer);
        });
        EXPECT_EQ(sent(), answer) << silent_out << " s out, " << silent_in << " s in";
        sequence += beats ? 1 : 0;
    }
    EXPECT_EQ(cntl->heartbeat_misses, 0);
}

TEST_F(control_connection, ALongWaitForAnAnswerCountsFromItsEnd) {
    cntl->last_in_time = coarse(START - 241);
    fake_time::event = [&, asked = false]() mutable {  // the wait looks at the clock
        if (!std::exchange(asked, true)) {
            set_clock(START + 100);
            server_sends(heartbeat_frame(0));
        }
    };
    rounds(2);
    EXPECT_EQ(cntl->last_in_time, coarse(START + 100 - 180));
}

TEST_F(control_connection, WithoutAnyInputTheFirstHeartbeatIsDueAtOnce) {
    for (const int64_t now : {int64_t{1'800'000'000}, START, START + 100}) {
        set_clock(now);
        cntl->last_in_time = 0;
        const std::string beat = heartbeat_frame(cntl->heartbeat_seq);
        rounds(2, [&] { server_sends(beat); });
        EXPECT_EQ(sent(), beat) << now;
    }
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
