#include "connection/gwa_connection_cntl_out.h"

#include "connection/connection_floor.h"

namespace {

using ControlOutput = control_floor;

TEST_F(ControlOutput, KeepsFewReportsForAServerThatReadsNothing) {
    for (uint32_t i = 0; i < GWA_REPORTS_MAX + 3; i++) {
        report('r', 0);
    }
    gwa_connection_cntl_remote_out_handle(cntl);
    EXPECT_EQ(gwa_counter_get(cntl->traffic.packets_out), GWA_REPORTS_MAX);
    EXPECT_EQ(cntl->reports, 0U);
}

TEST_F(ControlOutput, AFrameThatTheSocketTakesInPiecesStaysWhole) {
    constexpr uint32_t MUCH = 32 << 20;  // more than the kernel takes at once
    std::string all = report('a', MUCH);
    all += report('b', 3);
    gwa_connection_cntl_remote_out_handle(cntl);
    EXPECT_EQ(gwa_counter_get(cntl->traffic.packets_out), 0U);
    EXPECT_EQ(cntl->send_level, 0) << "as it was before the pass";
    EXPECT_EQ(cntl->heartbeat.last_out_time, coarse(START));
    set_clock(START + 7);
    gwa_connection_cntl_remote_out_handle(cntl);
    EXPECT_EQ(cntl->send_level, 5);
    std::string heard;
    while (heard.size() < all.size() && !HasFailure()) {
        gwa_connection_cntl_remote_out_handle(cntl);
        heard += read_exact(sockets.peer.get(), 1);
        heard += sent();
    }
    EXPECT_TRUE(heard == all);
    EXPECT_EQ(gwa_counter_get(cntl->traffic.bytes_out), all.size());
    EXPECT_EQ(gwa_counter_get(cntl->traffic.packets_out), 2U);
    EXPECT_EQ(cntl->heartbeat.last_out_time, coarse(START + 7));
    EXPECT_EQ(restarts, 0) << "a full socket is no failure";
}

TEST_F(ControlOutput, WaitsForAFullSocketAndRestartsForAFailedOne) {
    fill_socket();
    gwa_connection_cntl_heartbeat_handle(cntl);
    gwa_connection_cntl_heartbeat_handle(cntl);
    EXPECT_EQ(cntl->heartbeat.seq, 1U) << "a heartbeat that is still queued is not built again";
    EXPECT_EQ(restarts, 0);
    report('r', 1);
    shutdown(cntl->socket, SHUT_WR);
    gwa_connection_cntl_remote_out_handle(cntl);
    EXPECT_EQ(restarts, 1);
    EXPECT_EQ(cntl->reports, 1U) << "the frame is where the exit frees it";
    spoil(cntl->socket);
    gwa_connection_cntl_remote_out_handle(cntl);
    EXPECT_EQ(restarts, 2) << "and one that cannot even be asked";
}

TEST(ControlSendLevel, FollowsItsMarks) {
    const std::pair<int, int> cases[] = {{0, 0},  {16, 0},  {17, 1},  {32, 1},  {33, 2}, {64, 2},
                                         {65, 3}, {128, 3}, {129, 4}, {256, 4}, {257, 5}};
    for (const auto& [unsent, level] : cases) {
        EXPECT_EQ(gwa_connection_cntl_send_level(unsent), level) << unsent;
    }
}

}  // namespace
