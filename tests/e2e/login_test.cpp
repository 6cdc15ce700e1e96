// The logins of both kinds of connection, byte for byte.
#include <gtest/gtest.h>

#include "box.h"
#include "peer.h"

namespace {

constexpr char DEVICE_JSON[] =
    R"({"deviceid":"test-box","mac":"00:00:00:00:00:00","ip":"127.0.0.1","fwver":"1.2.3",)"
    R"("prover":"0","component":"c7","terminal":"t9"})";
constexpr size_t ANSWER_MAX = 1007;

}  // namespace

TEST(Login, IsExactToTheByteOnBothKindsOfConnection) {
    peer server;
    unique_fd control;
    box device(server.manager.port);
    EXPECT_EQ(server.discover(),
              "GET /addrmgr/device_get_proxy?devid=test-box HTTP/1.1\r\nHost: 127.0.0.1:" +
                  std::to_string(server.manager.port) + "\r\nConnection: Close\r\n\r\n");

    control = server.control.accept();
    const std::string report = frame_bytes(DEVICE_INFO, 0, DEVICE_JSON, 3);
    EXPECT_EQ(read_exact(control.get(), report.size()), report);
    ASSERT_TRUE(write_all(control.get(), frame_bytes(LOGIN_ANSWER)));
    EXPECT_EQ(read_exact(control.get(), HEADER_SIZE), frame_bytes(SESSION_ID));
    // Nothing has come in yet, so the idle rule sends the first heartbeat at once.
    EXPECT_TRUE(heartbeat_answer(control.get(), 0));

    const std::string session_id = "0123456789abcdefghijklmnopqrstuv";
    ASSERT_TRUE(write_all(control.get(), frame_bytes(SESSION_ID, 0, session_id)));
    EXPECT_TRUE(
        eventually([&] { return file_read(device.home.path + "/tmp/session.id") == session_id; }));

    ASSERT_TRUE(write_all(control.get(), frame_bytes(DATA_ORDER, 0, server.order())));
    const unique_fd data = server.data[0].accept();
    const std::string data_report = frame_bytes(DEVICE_INFO, 0, DEVICE_JSON, 2);
    EXPECT_EQ(read_exact(data.get(), data_report.size()), data_report);
    ASSERT_TRUE(write_all(data.get(), frame_bytes(LOGIN_ANSWER)));
    EXPECT_TRUE(echoes(data.get(), 1));
}

TEST(Login, TakesTheOrderFromItsAnswer) {
    peer server;
    unique_fd control;
    box device(server.manager.port);
    server.discover();
    control = server.control.accept();
    ASSERT_TRUE(frame_read(control.get()));
    std::string order = server.order();
    order.resize(ANSWER_MAX, ' ');
    ASSERT_TRUE(write_all(control.get(), frame_bytes(LOGIN_ANSWER, 0, order, 2)));
    EXPECT_TRUE(server.data_login());
    // The workers are told a second apart before the login goes on.
    EXPECT_EQ(read_exact(control.get(), HEADER_SIZE), frame_bytes(SESSION_ID));
    EXPECT_TRUE(heartbeat_answer(control.get(), 0));
}
