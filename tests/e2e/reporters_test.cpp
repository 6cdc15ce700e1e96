// The box speaks for itself: announced ports and the DLNA status.
#include "peer.h"

struct Reporters : testing::Test, session {
    const std::string dlna_socket = device.home.path + "/tmp/dlna.sock";

    void announce(const char* what, const char* value, int status = 0) {
        EXPECT_EQ(child({ANNOUNCE_PATH, "--dlna-socket", dlna_socket, what, value}).wait(), status);
    }
    void expect_report(command code, const std::string& payload) {
        EXPECT_EQ(frame_read(control.get()), frame_bytes(code, 0, payload));
    }
};

TEST_F(Reporters, PortsAndStatusReachTheServer) {
    ASSERT_TRUE(log_in() && device.logs("init port info success"));
    announce("http", "8080");
    announce("9", "1");  // nobody knows this module: dropped
    announce("kctl", "0x10");
    announce("dlna", "0x1");
    announce("http", "eighty", 1);
    expect_report(PORT_INFO, "{\"http_port\":8080}");
    expect_report(PORT_INFO, "{\"kctl_port\":16}");
    expect_report(STATUS, be32(1));
    EXPECT_TRUE(sends(frame_bytes(REPORT_TIMES, 0, be32(20) + be32(7200))));
    EXPECT_TRUE(device.logs("set interval to t1 20 t2 7200"));
    announce("dlna", "2");
    EXPECT_TRUE(device.logs("start t1 timer success"));
    // Both timers are pending, and the end is still in order.
    EXPECT_EQ(device.gwad.terminate(), 0);
    EXPECT_FALSE(std::filesystem::exists(dlna_socket));
}
