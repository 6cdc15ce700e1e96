// The program: its options, its log, its end.

#include <csignal>
#include <regex>

#include "gwrelay_fixture.h"

namespace {

TEST(GwrelayOptions, BadOnesAreNamedAndEndWithStatusOne) {
    const std::pair<strings, const char*> cases[] = {
        {{"--front-port=65535"}, "front-port"},
        {{"--data-port=80x"}, "data-port"},
        {{"--manager-port="}, "manager-port"},
        {{"--report-times=1,3600"}, "report-times"},
        {{"--report-times=5"}, "report-times"},
        {{"--stall-timeout=0"}, "stall-timeout"},
        {{"--login-timeout=86400.1"}, "login-timeout"},
        {{"--answer-timeout=0.009"}, "answer-timeout"},
        {{"--linger-timeout=x"}, "linger-timeout"},
        {{"--announce", std::string(64, 'a')}, "at most 63"},
        {{"--announce=a\"b"}, "cannot be told"},
        {{"--listen=0.0.0.0"}, "cannot be told"},
        {{"--listen=nowhere", "--announce=a"}, "cannot listen"},
        {{"surplus"}, "surplus"},
        {{"--unknown"}, "try --help"}};
    for (const auto& [arguments, expected] : cases) {
        child process(relay::command_line(arguments));
        EXPECT_EQ(process.wait(), 1) << expected;
        EXPECT_TRUE(has(process.errors(), expected)) << process.errors();
    }
}

TEST(GwrelayOptions, GoodOnesAreTakenAndHelpTellsAll) {
    child help(
        relay::command_line({"--front-port=65534", "--answer-timeout=86400",
                             "--silence-timeout=0.01", "--report-times=2,3600", "-q", "-h"}));
    EXPECT_EQ(help.wait(), 0) << help.errors();
    for (const char* part : {"Usage: gwrelay [options]\n", "\n  --front-port PORT       front door",
                             "\n  --help                  show this text",
                             "\nready manager=PORT control=PORT data=PORT front=PORT\n"}) {
        EXPECT_TRUE(has(help.output(), part)) << help.output();
    }
    const relay hub({"--announce", "a-b_c.0" + std::string(56, 'd'), "-q"});
    EXPECT_TRUE(still_echoes(control_login(hub, "box")));
    EXPECT_EQ(hub.process.errors(), "");
}

TEST(GwrelayProcess, EndsInOrderOnASignalWithConnectionsOfEveryKind) {
    for (const int number : {SIGINT, SIGTERM}) {
        device box;
        const unique_fd control = control_login(box.hub, "other"), user = box.user();
        const unique_fd silent = loopback_connect(box.hub.manager);
        EXPECT_EQ(box.hub.process.terminate(TEST_PATIENCE, number), 0) << box.hub.process.errors();
    }
}

// Each line with the time in front, and nothing in it that a device or a user could make a line of.
TEST(GwrelayLog, TellsTheStoryOfADevice) {
    const relay hub({NO_GUARD});
    const unique_fd control = control_login(hub, "box");
    write_all(control.get(), frame_bytes(SESSION_ID) + frame_bytes(STATUS, 0, be32(0xab)) +
                                 frame_bytes(PORT_INFO, 0, "{\"a\tb\":80}"));
    const std::string session = frame_payload(frame_read(control.get()));
    ASSERT_TRUE(still_echoes(control));
    unique_fd data = data_login(hub, "box");
    const unique_fd user = say_to(hub.front, GET_BOX);
    frame_read(data.get());
    write_all(data.get(), frame_bytes(DATA, 1, "HTTP/1.1 204 None\r\n\r\n"));
    EXPECT_EQ(frame_read(data.get()), frame_bytes(CLOSE_STREAM, 1));
    data.reset();
    write_all(control.get(), frame_bytes(DATA, 7, "\n~ " + std::string(158, 'x'), 3));
    EXPECT_TRUE(closed_by_peer(control.get()));
    for (const auto& [port, bytes] : {std::pair{hub.control, "\1\20\0\15\0\0\0\0\0\0\0\0\0\0\0\2"s},
                                      {hub.manager, "a\x7f\r\nb\r\n\r\n"},
                                      {hub.front, "GET a\n\n"}}) {
        read_to_end(say_to(port, bytes).get());
    }
    const std::string log = hub.process.errors(), many(157, 'x');
    const std::string parts[] = {
        R"(: control login of device box: {"deviceid":"box","fwver":"1.2"})",
        "device box: ordered five data connections\n",
        "device box: DLNA status 0xab\n",
        "device box: session id " + session + "\n",
        "device box: a\\x09b is 80\n",
        " data of box: data login, 1 up\n",
        " control of box > HeartBeat version 2 flag 1 stream 0 length 4\n",
        " control of box < HeartBeat version 2 flag 1 stream 0 length 4\n",
        " data of box < Data version 1 flag 0 stream 1 length 65\n",
        ": GET /box/80/\n",
        ": stream 1 closed, response complete, status 204, 65 bytes to the device, 21 from it\n",
        " data of box: ended with 0 streams, 0 left\n",
        ": closed: unexpected Data of version 3, stream 7, length 161: \\x0a~ " + many + "...\n",
        "device box: control connection ended\n",
        ": closed: bad header: version 1, head size 16, command 13, length 2\n",
        ": not an address query: a\\x7f\n",
        ": not an HTTP request: GET a\n",
    };
    for (const std::string& part : parts) {
        EXPECT_TRUE(has(log, part)) << part << " in " << log;
    }
    const std::regex line("[0-9]{4}-[0-9]{2}-[0-9]{2} ([0-9]{2}:){2}[0-9]{2}[.][0-9]{3} [ -~]+\n");
    EXPECT_EQ(std::regex_replace(log, line, ""), "");
}

}  // namespace
