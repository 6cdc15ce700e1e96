// What devices talk to: the address manager, control and data connections.

#include "gwrelay_fixture.h"

namespace {

TEST(GwrelayManager, NamesTheControlServerInOneWrite) {
    relay hub({"--announce=relay.example.com"});
    const unique_fd fd = loopback_connect(hub.manager);
    write_all(fd.get(), "GET /addrmgr/device_get_proxy?devid=box HTTP/1.1\r\nHost: a:1\r\n\r\n");
    char buffer[511];
    const ssize_t got = recv(fd.get(), buffer, sizeof buffer, 0);
    ASSERT_GT(got, 0);
    const std::string reply(buffer, static_cast<size_t>(got));
    EXPECT_EQ(reply.substr(reply.find("\r\n\r\n") + 4),
              R"({"ret":0,"proxy":"relay.example.com:)" + std::to_string(hub.control) + "\"}");
    EXPECT_TRUE(closed_by_peer(fd.get()));
    for (const char* query : {"GET /addrmgr/device_get_proxy HTTP/1.1\r\n\r\n",
                              "POST /addrmgr/device_get_proxy?devid=box HTTP/1.1\r\n\r\n",
                              "GET /addrmgr/device_get_proxy?devid= HTTP/1.1\r\n\r\n",
                              "GET /other?devid=box HTTP/1.1\r\n\r\n", "rubbish\r\n\r\n"}) {
        const unique_fd other = loopback_connect(hub.manager);
        write_all(other.get(), query);
        EXPECT_TRUE(read_to_end(other.get()).ends_with(R"({"ret":1})")) << query;
    }
}

TEST(GwrelayControl, OrdersTheDataConnectionsInTheLoginAnswer) {
    relay hub;
    std::string answer, json;
    const unique_fd fd = control_login(hub, "box", &answer);
    for (const char number : "12345"s) {
        json += json.empty() ? "{" : ",";
        json += "\"host"s + number + "\":\"127.0.0.1\",\"port" + number + "\":\"" +
                std::to_string(hub.data) + "\"";
    }
    EXPECT_EQ(answer, frame_bytes(LOGIN_ANSWER, 0, json + "}", 2));
}

TEST(GwrelayControl, OrdersByCommandSevenAndSetsTimesWhenAsked) {
    relay hub({"--command7", "--report-times=5,7200"});
    std::string answer;
    const unique_fd fd = control_login(hub, "box", &answer);
    EXPECT_EQ(answer, frame_bytes(LOGIN_ANSWER));
    EXPECT_EQ(frame_read(fd.get()), frame_bytes(DATA_ORDER, 0,
                                                "host1host2host3host4host5 \"127.0.0.1\" "
                                                "port1port2port3port4port5 \"" +
                                                    std::to_string(hub.data) + "\""));
    EXPECT_EQ(frame_read(fd.get()), frame_bytes(REPORT_TIMES, 0, be32(5) + be32(7200)));
}

TEST(GwrelayControl, AnswersHeartbeatsAndHandsOutASessionId) {
    relay hub;
    const unique_fd fd = control_login(hub, "box");
    write_all(fd.get(), frame_bytes(SESSION_ID));
    const std::string session = frame_read(fd.get());
    EXPECT_EQ(session.substr(0, 16),
              frame_bytes(SESSION_ID, 0, std::string(32, ' ')).substr(0, 16));
    EXPECT_EQ(session.find_first_not_of("0123456789abcdef", 16), std::string::npos);
    EXPECT_TRUE(still_echoes(fd));
}

TEST(GwrelayControl, ANewLoginEndsWhatTheDeviceHadBefore) {
    relay hub;
    const unique_fd old_control = control_login(hub, "box"), old_data = data_login(hub, "box");
    const unique_fd other_data = data_login(hub, "other");
    const unique_fd control = control_login(hub, "box"), data = data_login(hub, "box");
    EXPECT_TRUE(closed_by_peer(old_control.get()));
    EXPECT_TRUE(closed_by_peer(old_data.get()));
    for (const unique_fd* fd : {&control, &data, &other_data}) {
        EXPECT_TRUE(still_echoes(*fd));
    }
}

TEST(GwrelayFrames, BadOnesCloseTheirConnectionAndNothingElse) {
    relay hub;
    const std::string beat = frame_bytes(HEARTBEAT, 0, "1234", 2);
    const auto with = [&beat](size_t at, char value) {
        std::string bytes = beat;
        bytes[at] = value;
        return bytes;
    };
    const auto login = [](uint8_t version, const std::string& json) {
        return frame_bytes(DEVICE_INFO, 0, json, version);
    };
    struct {
        bool control;
        std::string bytes;
    } const cases[] = {
        {true, login(2, info("box"))},  // the other kind of connection's version
        {false, login(3, info("box"))},
        {true, login(3, "{\"deviceid\":\"box\"")},
        {true, login(3, "{\"deviceid\":{}}")},
        {true, login(3, info(""))},
        {true, login(3, info(std::string(48, 'x')))},
        {true, beat},  // before any login
        {false, "GET / HTTP/1.1\r\n\r\n"},
        {true, login(3, info("box")) + with(0, 0)},
        {true, login(3, info("box")) + with(0, 4)},
        {true, login(3, info("box")) + with(1, 15)},
        {true, login(3, info("box")) + with(3, 0)},
        {true, login(3, info("box")) + with(3, 13)},
        {true, login(3, info("box")) + with(2, 1)},
        {true, login(3, info("box")) + with(15, 3)},
        {false, login(2, info("box")) + frame_bytes(DATA, 0, "no stream")},
        {false, login(2, info("box")) + "\1\20\0\1\0\0\0\0\0\0\0\1\0\0\x1f\xf1"s},
        {true, login(3, info("box")) + frame_bytes(DATA, 1, "data")},
        {true, login(3, info("box")) + frame_bytes(PORT_INFO, 0, "{\"http_port\":8080")},
    };
    for (const auto& [control, bytes] : cases) {
        const unique_fd fd = loopback_connect(control ? hub.control : hub.data);
        write_all(fd.get(), bytes);
        read_to_end(fd.get());
        EXPECT_TRUE(closed_by_peer(fd.get(), A_MOMENT)) << testing::PrintToString(bytes);
    }
    EXPECT_TRUE(still_echoes(control_login(hub, std::string(47, 'x'))));
}

// However they are cut on their way.
TEST(GwrelayFrames, GoodOnesAreUnderstoodInPieces) {
    const relay hub({"-q"});
    const unique_fd fd = control_login(hub, "box");
    const std::string beat = heartbeat_frame(0x01020304);
    const std::string report =
        frame_bytes(PORT_INFO, 0, "{\"" + std::string(PAYLOAD_MAX - 6, 'k') + "\":1}");
    for (const size_t cut : {1UL, 15UL, 16UL, 17UL, 19UL}) {
        write_all(fd.get(), beat.substr(0, cut));
        EXPECT_TRUE(stays_silent(fd.get(), test_duration{5}));
        write_all(fd.get(),
                  beat.substr(cut) + beat + report + report + report.substr(0, 100 + cut));
        EXPECT_EQ(frame_read(fd.get()) + frame_read(fd.get()), beat + beat);
        write_all(fd.get(), report.substr(100 + cut));
    }
    EXPECT_TRUE(still_echoes(fd));
}

TEST(GwrelayFrames, SilenceEndsAConnectionThatHasNotLoggedIn) {
    relay hub({"--login-timeout=1"});
    std::vector<unique_fd> silent;
    for (const uint16_t port : {hub.manager, hub.control, hub.data, hub.front}) {
        silent.push_back(loopback_connect(port));
    }
    for (const unique_fd& fd : silent) {
        EXPECT_TRUE(closed_by_peer(fd.get()));
    }
}

TEST(GwrelayFrames, SilenceEndsALoggedInConnectionUnlessItsHeartBeats) {
    const relay hub({"--silence-timeout=2"});
    const unique_fd control = control_login(hub, "box"), data = data_login(hub, "box");
    const unique_fd silent = control_login(hub, "other"), silent_data = data_login(hub, "other");
    for (test_duration time{}; time < 3 * A_SECOND; time += A_SECOND / 2) {
        EXPECT_TRUE(still_echoes(control) && still_echoes(data)) << time.count();
        EXPECT_TRUE(stays_silent(control.get(), A_SECOND / 2));
    }
    EXPECT_TRUE(closed_by_peer(silent.get(), A_MOMENT));
    EXPECT_EQ(read_with_end(silent_data), "reset:");
}

TEST(GwrelayFrames, WhoTakesNoAnswersIsNotAnsweredForEver) {
    const relay hub({"-q"});
    unique_fd fd = loopback_connect(hub.control, SMALL_BUFFER);
    write_all(fd.get(), frame_bytes(DEVICE_INFO, 0, info("box"), 3));
    std::string beats;
    while (beats.size() < 1024 * 1024) {
        beats += heartbeat_frame(1);
    }
    int sent = 0;
    while (sent < 32 && write_all(fd.get(), beats)) {
        ++sent;
    }
    EXPECT_LT(sent, 32);
}

}  // namespace
