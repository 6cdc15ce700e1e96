// The logins of both kinds of connection, byte for byte.
#include <gtest/gtest.h>

#include "peer.h"

namespace {

constexpr char DEVICE_JSON[] =
    R"({"deviceid":"test-box","mac":"00:00:00:00:00:00","ip":"127.0.0.1","fwver":"1.2.3",)"
    R"("prover":"0","component":"c7","terminal":"t9"})";

}  // namespace

TEST(Login, IsExactToTheByteOnBothKindsOfConnection) {
    session link;
    const peer& server = link.server;
    EXPECT_EQ(server.discover(),
              "GET /addrmgr/device_get_proxy?devid=test-box HTTP/1.1\r\nHost: 127.0.0.1:" +
                  std::to_string(server.manager.port) + "\r\nConnection: Close\r\n\r\n");

    const unique_fd& control = link.control = server.control.accept();
    EXPECT_EQ(frame_read(control.get()), frame_bytes(DEVICE_INFO, 0, DEVICE_JSON, 3));
    ASSERT_TRUE(write_all(control.get(), frame_bytes(LOGIN_ANSWER)));
    EXPECT_EQ(frame_read(control.get()), frame_bytes(SESSION_ID));
    // Nothing has come in yet, so the idle rule sends the first heartbeat at once.
    EXPECT_TRUE(heartbeat_answer(control.get(), 0));

    const std::string session_id = "0123456789abcdefghijklmnopqrstuv";
    ASSERT_TRUE(write_all(control.get(), frame_bytes(SESSION_ID, 0, session_id)));
    EXPECT_TRUE(eventually(
        [&] { return file_read(link.device.home.path + "/tmp/session.id") == session_id; }));

    ASSERT_TRUE(write_all(control.get(), frame_bytes(DATA_ORDER, 0, server.order())));
    const unique_fd data = server.data[0].accept();
    EXPECT_EQ(frame_read(data.get()), frame_bytes(DEVICE_INFO, 0, DEVICE_JSON, 2));
    ASSERT_TRUE(write_all(data.get(), frame_bytes(LOGIN_ANSWER)));
    EXPECT_TRUE(echoes(data.get(), 1));
}
