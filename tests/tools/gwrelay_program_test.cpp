// The program: its options, its log, its end.

#include <csignal>
#include <regex>
#include <sstream>

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
        {{"--login-timeout=86401"}, "login-timeout"},
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
        EXPECT_NE(process.errors().find(expected), std::string::npos) << process.errors();
    }
}

TEST(GwrelayOptions, GoodOnesAreTakenAndHelpTellsAll) {
    child help(relay::command_line({"--front-port=65534", "--answer-timeout=86400",
                                    "--silence-timeout=1", "--report-times=2,3600", "-q", "-h"}));
    EXPECT_EQ(help.wait(), 0) << help.errors();
    for (const char* part : {"Usage: gwrelay [options]\n", "\n  --front-port PORT       front door",
                             "\n  --help                  show this text",
                             "\nready manager=PORT control=PORT data=PORT front=PORT\n"}) {
        EXPECT_TRUE(help.output().find(part) != std::string::npos) << help.output();
    }
    const std::string name = "a-b_c.0" + std::string(56, 'd');
    const relay hub({"--announce", name, "-q"});
    EXPECT_TRUE(still_echoes(control_login(hub, "box")));
    EXPECT_EQ(hub.process.errors(), "");
}

TEST(GwrelayProcess, EndsInOrderOnASignalWithConnectionsOfEveryKind) {
    for (const int number : {SIGINT, SIGTERM}) {
        relay hub;
        const unique_fd control = control_login(hub, "box");
        const unique_fd data = data_login(hub, "box");
        const unique_fd user = user_sends(hub, GET_BOX);
        const unique_fd silent = loopback_connect(hub.manager);
        ASSERT_FALSE(frame_read(data.get()).empty());
        EXPECT_EQ(hub.process.terminate(TEST_PATIENCE, number), 0) << hub.process.errors();
    }
}

// Each line with the time in front, and nothing in it that a device or a user could make a line of.
TEST(GwrelayLog, TellsTheStoryOfADevice) {
    relay hub({NO_GUARD});
    unique_fd control = control_login(hub, "box");
    write_all(control.get(), frame_bytes(SESSION_ID) + frame_bytes(STATUS, 0, be32(0xab)) +
                                 frame_bytes(PORT_INFO, 0, "{\"a\tb\":80}"));
    ASSERT_FALSE(frame_read(control.get()).empty());
    ASSERT_TRUE(still_echoes(control));
    unique_fd data = data_login(hub, "box");
    const unique_fd user = user_sends(hub, GET_BOX);
    const std::string opening = frame_read(data.get());
    write_all(data.get(), frame_bytes(DATA, 1, "HTTP/1.1 204 None\r\n\r\n"));
    EXPECT_EQ(frame_read(data.get()), frame_bytes(CLOSE_STREAM, 1));
    data.reset();
    write_all(control.get(), frame_bytes(DATA, 7, "\n~ " + std::string(158, 'x'), 3));
    EXPECT_TRUE(closed_by_peer(control.get()));
    const unique_fd bad = loopback_connect(hub.control), bad_query = loopback_connect(hub.manager);
    write_all(bad.get(), "\1\20\0\15\0\0\0\0\0\0\0\0\0\0\0\2"s);
    write_all(bad_query.get(), "a\x7f\r\nb\r\n\r\n");
    EXPECT_TRUE(closed_by_peer(bad.get()) && !read_to_end(bad_query.get()).empty());
    user_sends(hub, "GET a\n\n");
    EXPECT_TRUE(eventually(
        [&] { return hub.process.errors().ends_with(": not an HTTP request: GET a\n"); }));
    const std::string log = hub.process.errors(), many(157, 'x');
    const std::string parts[] = {
        R"(: control login of device box: {"deviceid":"box","fwver":"1.2"})",
        "device box: ordered five data connections\n",
        "device box: DLNA status 0xab\n",
        "device box: session id ",
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
    };
    for (const std::string& part : parts) {
        EXPECT_NE(log.find(part), log.npos) << part << " in " << log;
    }
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        const std::regex stamp(
            "[0-9]{4}-[0-9]{2}-[0-9]{2} ([0-9]{2}:){2}[0-9]{2}[.][0-9]{3} [ -~]+");
        EXPECT_TRUE(std::regex_match(line, stamp)) << line;
    }
}

}  // namespace
