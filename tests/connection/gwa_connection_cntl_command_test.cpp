#include "connection/gwa_connection_cntl_command.h"

#include "connection/connection_floor.h"
#include "runtime/gwa_process.h"
#include "support/files.h"

namespace {

uint32_t times_taken[2];
gwa_host_list servers_taken;

struct ControlCommands : control_floor {
    // What the handler answers to one frame, of which the header has been read.
    int handle(gwa_command command, const std::string& payload) {
        server_sends(payload);
        uint8_t bytes[GWA_HEADER_SIZE + 1] = {};
        gwa_protocol_build(bytes, GWA_VERSION_PLAIN, command, GWA_FLAG_COMMAND, 0,
                           static_cast<uint32_t>(payload.size()));
        return gwa_connection_cntl_proto_handle(cntl, bytes);
    }
};

TEST_F(ControlCommands, TakeExactlyTheirLengthAndLeaveTheRest) {
    const temp_dir home;
    const std::string file = home.path + "/session.id", id = "0123456789abcdef0123456789abcdef";
    text_copy(gwa_process_paths.session_id_file, file);
    file_write(file, "what was there before, and longer than a session id");
    cntl->hooks.reporting_times = [](uint32_t t1, uint32_t t2) {
        times_taken[0] = t1;
        times_taken[1] = t2;
        return 0;
    };
    cntl->hooks.order = [](const gwa_host_list& servers) { servers_taken = servers; };
    std::string order = R"(host1host2host3host4host5 "h" port1port2port3port4port5 "7")";
    order.resize(127, ' ');
    const std::tuple<gwa_command, std::string, int, size_t> cases[] = {
        {gwa_command::ALLOC_SESSION_ID, id, 0, 0},
        {gwa_command::ALLOC_SESSION_ID, std::string(31, 's'), -1, 31},
        {gwa_command::ALLOC_SESSION_ID, std::string(33, 's'), -1, 33},
        {gwa_command::CONTROL_REPORTING, be32(7), -1, 4},
        {gwa_command::CONTROL_REPORTING, be32(7) + be32(3601), 0, 0},
        {gwa_command::SET_PRIVACY_DATA, std::string(GWA_PAYLOAD_MAX, 'p'), 0, 0},
        {gwa_command::REPORT_STATUS, "1234", 0, 0},
        {gwa_command::RESPONSE_DEVICE_INFO, "{}", -1, 2},
        {gwa_command::DATA, "x", -1, 1},
        {gwa_command::NEW_DATA_CONNECTION, order, 0, 0},
    };
    uint64_t bytes_in = 0;
    int64_t now = START;
    for (const auto& [command, payload, result, left] : cases) {
        set_clock(++now);
        EXPECT_EQ(handle(command, payload), result) << static_cast<int>(command);
        EXPECT_EQ(sockets.unread(), static_cast<int>(left)) << static_cast<int>(command);
        char rest[GWA_HEADER_SIZE * 4];
        recv(cntl->socket, rest, left, MSG_DONTWAIT);
        bytes_in += GWA_HEADER_SIZE + payload.size() - left;
        EXPECT_EQ(gwa_counter_get(cntl->traffic.bytes_in), bytes_in);
        EXPECT_EQ(cntl->heartbeat.last_in_time == coarse(now), left == 0);
    }
    EXPECT_EQ(packets_in(), std::size(cases));
    EXPECT_EQ(file_read(file), id);
    EXPECT_EQ(times_taken[0], 7U);
    EXPECT_EQ(times_taken[1], 3601U);
    EXPECT_EQ(servers_taken.ports[4], 7);
    uint8_t bad_header[GWA_HEADER_SIZE + 1] = {};
    EXPECT_EQ(gwa_connection_cntl_proto_handle(cntl, bad_header), GWA_FAILED);
    EXPECT_EQ(packets_in(), std::size(cases)) << "it counts for nothing";
    EXPECT_EQ(restarts, 0);
    EXPECT_EXIT(handle(gwa_command::NEW_DATA_CONNECTION, std::string(128, 'n')),
                testing::KilledBySignal(SIGABRT), "Assertion");
}

TEST_F(ControlCommands, WrongAnswersAddUpUntilARightOneComes) {
    cntl->heartbeat.seq = 42;
    const std::tuple<uint32_t, int32_t, int> cases[] = {{42, 1, 0}, {40, 2, 0}, {41, 0, 0},
                                                        {7, 1, 0},  {7, 2, 0},  {7, 0, 1}};
    for (const auto& [answer, misses, restarted] : cases) {
        handle(gwa_command::HEARTBEAT, be32(answer));
        EXPECT_EQ(cntl->heartbeat_misses, misses) << answer;
        EXPECT_EQ(restarts, restarted) << answer;
    }
    handle(gwa_command::HEARTBEAT, "ab");
    EXPECT_EQ(cntl->heartbeat_misses, 1) << "half an answer, and ten seconds";
    EXPECT_EQ(fake_time::now_us, (START + 10) * 1'000'000);
    handle(gwa_command::CLOSE_CONNECTION, "");
    EXPECT_EQ(restarts, 2);
}

}  // namespace
