// What devices talk to: the address manager, control and data connections.

#include "relay/fixture.h"

namespace {

TEST(GwrelayManager, NamesTheControlServerInOneWrite) {
    const relay hub({"--announce=relay.example.com"});
    const auto ask = [&hub](const std::string& query) {
        const unique_fd fd = say_to(hub.manager, query + "\r\n\r\n");
        char buffer[511];
        const ssize_t got = recv(fd.get(), buffer, sizeof buffer, 0);
        EXPECT_TRUE(closed_by_peer(fd.get()));
        return body({buffer, static_cast<size_t>(std::max<ssize_t>(got, 0))});
    };
    EXPECT_EQ(ask("GET /addrmgr/device_get_proxy?devid=box HTTP/1.1\r\nHost: a:1"),
              R"({"ret":0,"proxy":"relay.example.com:)" + std::to_string(hub.control) + "\"}");
    for (const char* query : {"GET /addrmgr/device_get_proxy HTTP/1.1",
                              "POST /addrmgr/device_get_proxy?devid=box HTTP/1.1",
                              "GET /addrmgr/device_get_proxy?devid= HTTP/1.1",
                              "GET /other?devid=box HTTP/1.1", "rubbish"}) {
        EXPECT_EQ(ask(query), R"({"ret":1})") << query;
    }
}

TEST(GwrelayControl, AnswersALoginWithOrdersAndHandsOutASessionId) {
    const relay hub, asked({"--command7", "--report-times=5,7200"});
    const std::string login = login_frame(3, info("box"));
    const unique_fd fd = say_to(hub.control, login), other = say_to(asked.control, login);
    std::string json;
    for (const char number : "12345"s) {
        json += json.empty() ? "{" : ",";
        json += "\"host"s + number + "\":\"127.0.0.1\",\"port" + number + "\":\"" +
                std::to_string(hub.data) + "\"";
    }
    EXPECT_EQ(frame_read(fd.get()), frame_bytes(LOGIN_ANSWER, 0, json + "}", 2));
    EXPECT_EQ(frame_read(other.get()), frame_bytes(LOGIN_ANSWER));
    const std::string order =
        R"(host1host2host3host4host5 "127.0.0.1" port1port2port3port4port5 ")";
    EXPECT_EQ(frame_read(other.get()),
              frame_bytes(DATA_ORDER, 0, order + std::to_string(asked.data) + "\""));
    EXPECT_EQ(frame_read(other.get()), frame_bytes(REPORT_TIMES, 0, be32(5) + be32(7200)));
    write_all(fd.get(), frame_bytes(SESSION_ID));
    const std::string session = frame_read(fd.get()), id = frame_payload(session);
    EXPECT_EQ(session, frame_bytes(SESSION_ID, 0, id));
    EXPECT_TRUE(id.size() == 32 && id.find_first_not_of("0123456789abcdef") == id.npos) << id;
}

TEST(GwrelayControl, ANewLoginEndsWhatTheDeviceHadBefore) {
    const relay hub;
    const unique_fd old_control = control_login(hub, "box"), old_data = data_login(hub, "box");
    const unique_fd other = control_login(hub, "other"), other_data = data_login(hub, "other");
    const unique_fd control = control_login(hub, "box");
    const unique_fd data = say_to(hub.data, login_frame(2, info("box")));
    EXPECT_EQ(frame_read(data.get()), frame_bytes(LOGIN_ANSWER));
    EXPECT_TRUE(closed_by_peer(old_control.get()) && closed_by_peer(old_data.get()));
    EXPECT_TRUE(still_echoes(control) && still_echoes(data) && still_echoes(other_data));
}

TEST(GwrelayFrames, BadOnesCloseTheirConnectionAndNothingElse) {
    const relay hub;
    const std::string beat = heartbeat_frame(1);
    const auto with = [&beat](size_t at, char value) {  // which is wrong there
        std::string bytes = beat;
        bytes[at] = value;
        return bytes;
    };
    const std::string control = login_frame(3, info("box")), data = login_frame(2, info("other"));
    const unique_fd other = control_login(hub, "other");
    const std::pair<uint16_t, strings> cases[] = {
        {hub.control,
         {data, beat, login_frame(3, "{\"deviceid\":\"box\""), login_frame(3, "{\"deviceid\":{}}"),
          login_frame(3, info("")), login_frame(3, info(std::string(48, 'x'))),
          control + with(0, 0), control + with(0, 4), control + with(1, 15), control + with(2, 1),
          control + with(3, 0), control + with(3, 13), control + with(15, 3),
          control + frame_bytes(DATA, 1, "data"),
          control + frame_bytes(PORT_INFO, 0, "{\"http_port\":8080")}},
        {hub.data,
         {control, GET_BOX, data + frame_bytes(DATA, 0, "no stream"),
          data + "\1\20\0\1\0\0\0\0\0\0\0\1\0\0\x1f\xf1"s}},
    };
    for (const auto& [port, several] : cases) {
        for (const std::string& bytes : several) {
            const unique_fd fd = say_to(port, bytes);
            read_to_end(fd.get());
            EXPECT_TRUE(closed_by_peer(fd.get(), A_MOMENT)) << testing::PrintToString(bytes);
        }
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

TEST(GwrelayFrames, SilenceEndsAConnectionUnlessItsHeartBeats) {
    const relay hub({"--login-timeout=0.4", "--silence-timeout=2"});
    const unique_fd control = control_login(hub, "box"), data = data_login(hub, "box");
    const unique_fd other = control_login(hub, "other"), silent_data = data_login(hub, "other");
    std::vector<unique_fd> silent;
    for (const uint16_t port : {hub.manager, hub.control, hub.data, hub.front}) {
        silent.push_back(loopback_connect(port));
    }
    for (const unique_fd& fd : silent) {
        EXPECT_TRUE(closed_by_peer(fd.get()));
    }
    EXPECT_TRUE(stays_silent(silent_data.get(), A_MOMENT)) << "it may be silent for longer";
    for (int beat = 0; beat < 11; ++beat) {
        EXPECT_TRUE(still_echoes(control) && still_echoes(data)) << beat;
        EXPECT_TRUE(stays_silent(control.get(), A_MOMENT));
    }
    EXPECT_EQ(read_with_end(silent_data), "reset:");
}

TEST(GwrelayFrames, WhoTakesNoAnswersIsNotAnsweredForEver) {
    const relay hub({"-q"});
    const unique_fd fd = login(hub.control, 3, info("box"), SMALL_BUFFER);
    std::string beats = heartbeat_frame(1);
    while (beats.size() < 32 * 1024 * 1024) {
        beats += beats;
    }
    EXPECT_FALSE(write_all(fd.get(), beats));
}

}  // namespace
