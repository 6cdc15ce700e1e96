// The box speaks for itself: announced ports, the DLNA status, and the restart on a new address.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <filesystem>

#include "peer.h"
#include "support/isolation.h"

namespace {

constexpr char ADDRESS[] = "10.9.9.9/32";

struct Reporters : testing::Test, session {
    const std::string dlna_socket = device.home.path + "/tmp/dlna.sock";

    static void SetUpTestSuite() {
        if (isolated()) {
            ip({"address", "add", ADDRESS, "dev", "lo"});  // to be removed
            ip({"link", "add", "veth0", "type", "veth", "peer", "name", "veth1"});
        }
    }
    void SetUp() override {
        ASSERT_TRUE(log_in());
        ASSERT_TRUE(device.logs("init port info success"));
    }
    std::optional<int> announce(const char* what, const char* value) {
        child program({ANNOUNCE_PATH, "--dlna-socket", dlna_socket, what, value});
        return program.wait();
    }
    static bool ip(std::vector<std::string> words) {
        words.insert(words.begin(), {"/usr/bin/env", "PATH=/usr/sbin:/sbin:/usr/bin:/bin", "ip"});
        child program(words);
        return program.wait() == 0;
    }
    void expect_report(command code, const std::string& payload) {
        EXPECT_EQ(frame_read(control.get()), frame_bytes(code, 0, payload));
    }
};

}  // namespace

TEST_F(Reporters, PortsAndStatusReachTheServer) {
    EXPECT_EQ(announce("http", "8080"), 0);
    EXPECT_EQ(announce("9", "1"), 0) << "nobody knows this module: dropped";
    EXPECT_EQ(announce("kctl", "0x10"), 0);
    EXPECT_EQ(announce("dlna", "0x1"), 0);
    EXPECT_EQ(announce("http", "eighty"), 1);
    expect_report(PORT_INFO, "{\"http_port\":8080}");
    expect_report(PORT_INFO, "{\"kctl_port\":16}");
    expect_report(STATUS, be32(1));
    EXPECT_TRUE(write_all(control.get(), frame_bytes(REPORT_TIMES, 0, be32(2) + be32(7200))));
    EXPECT_TRUE(device.logs("set interval to t1 2 t2 7200"));
    EXPECT_EQ(announce("dlna", "2"), 0);
    EXPECT_TRUE(device.logs("start t1 timer success"));
    EXPECT_EQ(announce("dlna", "3"), 0);
    expect_report(STATUS, be32(3));  // the newest, t1 later
    EXPECT_EQ(announce("dlna", "4"), 0);
    EXPECT_TRUE(device.logs("start t1 timer success", 2));
    // Both timers are pending, and the end is still in order.
    EXPECT_EQ(device.gwad->terminate(), 0);
    EXPECT_FALSE(std::filesystem::exists(dlna_socket));
}

TEST_F(Reporters, GarbageOnEverySocketEndsNothing) {
    const std::string garbage = noise(1000, 1);
    for (size_t i = 0; i < garbage.size(); i += 20) {
        const unique_fd port = unix_connect("/tmp/mko_port_gwad.sock", SOCK_DGRAM);
        const unique_fd status = unix_connect(dlna_socket, SOCK_STREAM);
        EXPECT_TRUE(port && status);
        for (size_t size = 0; size < 20; size++) {
            send(port.get(), &garbage[i], size, MSG_NOSIGNAL | MSG_DONTWAIT);
            send(status.get(), &garbage[i], size, MSG_NOSIGNAL | MSG_DONTWAIT);
        }
    }
    EXPECT_EQ(announce("ubq", "77"), 0);
    std::string report;
    while (!(report = frame_read(control.get())).empty() &&
           !report.ends_with("{\"ubq_port\":77}")) {
    }
    EXPECT_FALSE(report.empty());
    EXPECT_EQ(device.gwad->terminate(), 0);
}

TEST_F(Reporters, AChangedLinkRestartsTheDaemon) {
    if (!isolated() || !ip({"link", "set", "veth0", "up"})) {
        GTEST_SKIP() << "needs a private network namespace with a link to change";
    }
    EXPECT_TRUE(device.logs("detect link up, restart the connection now"));
    EXPECT_TRUE(device.restarts());
}

TEST_F(Reporters, ANewAddressRestartsTheDaemonAndARemovedOneDoesNot) {
    if (!isolated()) {
        GTEST_SKIP() << "needs a private network namespace to change addresses in";
    }
    constexpr char SCRIPT[] = "/etc/init.d/gwadsh";
    const std::string mark = device.home.path + "/started";
    file_write(SCRIPT, "#!/bin/sh\necho \"$1\" >" + mark + ".part; mv " + mark + ".part " + mark,
               true);
    ASSERT_TRUE(ip({"address", "del", ADDRESS, "dev", "lo"}));
    EXPECT_TRUE(device.logs("remove a address !!!"));
    EXPECT_EQ(text_count(device.log(), RESTART_LINE), 0);
    ASSERT_TRUE(ip({"address", "add", ADDRESS, "dev", "lo"}));
    EXPECT_TRUE(device.restarts());
    EXPECT_EQ(text_count(device.log(), "detect a new address, restart the connection now"), 1);
    EXPECT_TRUE(eventually([&] { return file_read(mark) == "start\n"; }));
    remove(SCRIPT);
}
