// The logins of both kinds of connection, byte for byte, and what the server says afterwards.
#include "peer.h"

constexpr char DEVICE_JSON[] =
    R"({"deviceid":"box","mac":"00:00:00:00:00:00","ip":"127.0.0.1","fwver":"1.2.3",)"
    R"("prover":"0","component":"c7","terminal":"t9"})";

TEST(Login, IsExactToTheByteOnBothKindsOfConnection) {
    session link;
    EXPECT_EQ(link.discover(),
              "GET /addrmgr/device_get_proxy?devid=box HTTP/1.1\r\nHost: 127.0.0.1:" +
                  std::to_string(link.manager.port) + "\r\nConnection: Close\r\n\r\n");
    link.control = link.control_server.accept();
    EXPECT_EQ(frame_read(link.control.get()), frame_bytes(DEVICE_INFO, 0, DEVICE_JSON, 3));
    ASSERT_TRUE(link.sends(frame_bytes(LOGIN_ANSWER)));
    EXPECT_TRUE(link.hears(frame_bytes(SESSION_ID)));
    // Nothing has come in yet, so the idle rule sends the first heartbeat at once.
    EXPECT_TRUE(link.hears(heartbeat_frame(0)) && link.sends(heartbeat_frame(0)));

    ASSERT_TRUE(link.sends(order_frame(link.data_server)));
    const unique_fd data = link.data_server.accept();
    EXPECT_EQ(frame_read(data.get()), frame_bytes(DEVICE_INFO, 0, DEVICE_JSON, 2));
    ASSERT_TRUE(write_all(data.get(), frame_bytes(LOGIN_ANSWER)));
    EXPECT_TRUE(echoes(data, 1));
}

// A refused payload stays in the socket and is taken for headers; here two, and the rest waits.
TEST(ControlConnection, StaysInStepAndMovesTheWorkersWithARepeatedOrder) {
    session link;
    ASSERT_TRUE(link.relay());
    const std::string id = "0123456789abcdefghijklmnopqrstuv",
                      frame = frame_bytes(SESSION_ID, 0, id);
    ASSERT_TRUE(link.sends(frame_bytes(REPORT_TIMES, 0, std::string(2 * HEADER_SIZE, 'x'))));
    for (const size_t cut : {HEADER_SIZE - 1, HEADER_SIZE + 1}) {
        ASSERT_TRUE(link.sends(frame.substr(0, cut)));
        std::this_thread::sleep_for(test_duration{10});
        ASSERT_TRUE(link.sends(frame.substr(cut)));
    }
    EXPECT_TRUE(link.device.logs("session id is " + id, 2));
    EXPECT_TRUE(  // the line comes before the file is written
        eventually([&] { return file_read(link.device.home.path + "/tmp/session.id") == id; }));

    const loopback_listener elsewhere;
    ASSERT_TRUE(link.sends(order_frame(elsewhere)));
    EXPECT_TRUE(echoes(data_login(elsewhere), 1));
    EXPECT_TRUE(closed_by_peer(link.data.get()));
}
