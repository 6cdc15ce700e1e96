// The program: its options and its log.

#include <regex>

#include "relay/fixture.h"

namespace {

TEST(GwrelayOptions, BadOnesAreNamedAndEndWithStatusOne) {
    const auto refuses = [](const strings& arguments, const std::string& reason) {
        child process(relay::command_line(arguments));
        EXPECT_EQ(process.wait(), 1) << reason;
        EXPECT_TRUE(has(process.errors(), reason)) << process.errors();
    };
    for (const std::string bad :
         {"--front-port=65535", "--data-port=80x", "--manager-port=", "--report-times=5",
          "--stall-timeout=0", "--login-timeout=86400.1", "--answer-timeout=0.009",
          "--linger-timeout=x"}) {
        refuses({bad}, "bad value for " + bad.substr(0, bad.find('=')) + ": ");
    }
    refuses({"--announce", std::string(64, 'a')}, "at most 63");
    refuses({"--announce=a\"b"}, "cannot be told");
    refuses({"--listen=0.0.0.0"}, "cannot be told");
    refuses({"--listen=nowhere", "--announce=a"}, "cannot listen");
    refuses({"surplus"}, "surplus");
    refuses({"--unknown"}, "try --help");
}

// A file says the same as the command line, which prevails. What is wrong in it is named by its
// line.
TEST(GwrelayOptions, StandInAFileAsWell) {
    const temp_dir folder;
    const std::string file = folder.path + "/gwrelay.toml";
    const auto check = [](const std::string& path, const std::string& reason) {
        child process(relay::command_line({"--check-config", "--config=" + path}));
        EXPECT_EQ(process.wait(), reason.empty() ? 0 : 1) << reason;
        EXPECT_TRUE(has(process.errors(), reason)) << process.errors();
    };
    const std::pair<const char*, const char*> files[] = {
        {"users = 5\n\nusrs = 6\n", ":3: unknown option: usrs\n"},
        {"\n[users]\nx = 1\n", ":2: bad value for --users: "},
        {"quiet = 1\n", ":1: quiet is true or false\n"},
        {"users = true\n", ":1: bad value for --users: true\n"},
        {"front-port = 65535\n", ":1: bad value for --front-port: 65535\n"},
        {"announce =\n", ":1: "},
        {"listen-admin = 'nowhere'\n", ": cannot listen on nowhere: "},
        {"rate-time = 0.5\nbuffers = '2G'\nno-reuse = false\nlisten-users = '::'\nopen-users = "
         "true\n",
         ""}};
    for (const auto& [text, reason] : files) {
        file_write(file, text);
        check(file, reason);
    }
    check(folder.path, folder.path + ": ");
    check(file + "x", file + "x: ");
    file_write(file, "users = 1 # one\naddress-users = 1\nlisten-admin = '127.0.0.1'\n");
    const relay hub({"--config=" + file, "--address-users=2"});
    const unique_fd first = say_to(hub.front, "");
    EXPECT_TRUE(has(get(hub, "/"), "as many users as it can bear"));
}

// With an address of their own, the relay's pages are there and nothing else is.
TEST(GwrelayPage, IsNotTheUsersWhenItHasAnAddress) {
    const device box({"--listen-admin=127.0.0.1"});
    const std::string times = "/box/report-times?t1=5&t2=3600";
    for (const std::string path : {"/", "/status.json", times.c_str()}) {
        const std::string method = path == times ? "POST " : "GET ", request = method + path + HTTP;
        const std::string own = read_to_end(say_to(box.hub.admin, request + "\r\n").get());
        EXPECT_TRUE(own.starts_with("HTTP/1.1 200 ")) << own;
        EXPECT_TRUE(fetch(box.hub, request + "\r\n").starts_with("HTTP/1.1 404 "));
    }
    EXPECT_TRUE(has(read_to_end(say_to(box.hub.admin, GET_BOX).get()), "HTTP/1.1 404 "));
}

TEST(GwrelayOptions, GoodOnesAreTakenAndHelpTellsAll) {
    child help(
        relay::command_line({"--front-port=65534", "--answer-timeout=86400",
                             "--silence-timeout=0.01", "--report-times=2,3600", "-q", "-h"}));
    EXPECT_EQ(help.wait(), 0) << help.errors();
    EXPECT_TRUE(has(help.output(), "\n  --front-port PORT         front door") &&
                help.output().ends_with("\nready manager=PORT control=PORT data=PORT front=PORT\n"))
        << help.output();
    const relay hub({"--announce", "a-b_c.0" + std::string(56, 'd'), "-q"});
    EXPECT_TRUE(still_echoes(control_login(hub, "box")));
    EXPECT_EQ(hub.process.errors(), "");
}

// Each line with the time in front, and nothing in it that a device or a user could make a line of.
TEST(GwrelayLog, TellsTheStoryOfADevice) {
    device box;
    const std::string many(157, 'x');
    write_all(box.control.get(), frame_bytes(SESSION_ID) + frame_bytes(STATUS, 0, be32(0xab)) +
                                     frame_bytes(PORT_INFO, 0, "{\"\t~ " + many + "\":80}"));
    const std::string session = frame_payload(frame_read(box.control.get()));
    ASSERT_TRUE(still_echoes(box.control));
    unique_fd user = box.user();
    box.answers("HTTP/1.1 204 None\r\n" + CLOSE + "\r\n");
    EXPECT_EQ(box.hears(), frame_bytes(CLOSE_STREAM, 1));
    user.reset();
    box.data.reset();
    write_all(box.control.get(), frame_bytes(DATA, 7, "\n~ " + many + "x", 3));
    EXPECT_TRUE(closed_by_peer(box.control.get()));
    for (const auto& [port, bytes] :
         {std::pair{box.hub.control, "\1\20\0\15\0\0\0\0\0\0\0\0\0\0\0\2"s},
          {box.hub.manager, "a\x7f\r\nb\r\n\r\n"},
          {box.hub.front, "GET a\n\n"}}) {
        read_to_end(say_to(port, bytes).get());
    }
    const std::string log = box.hub.process.errors();
    const std::string parts[] = {
        R"(: control login of device box: {"deviceid":"box","fwver":"1.2"})",
        "device box: ordered five data connections\n",
        "device box: DLNA status 0xab\n",
        "device box: session id " + session + "\n",
        "device box: \\x09~ " + many + " is 80\n",
        " data of box: data login, 1 up\n",
        " control of box > HeartBeat version 2 flag 1 stream 0 length 4\n",
        " data of box < Data version 1 flag 0 stream 1 length 99\n",
        ": GET /box/80/\n",
        ": stream 1 closed, response complete, status 204, 99 bytes to the device, 40 from it\n",
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
    EXPECT_FALSE(has(log, "closed, failed")) << log;  // it was closed once
    const std::regex line("[0-9]{4}-[0-9]{2}-[0-9]{2} ([0-9]{2}:){2}[0-9]{2}[.][0-9]{3} [ -~]+\n");
    EXPECT_EQ(std::regex_replace(log, line, ""), "");
}

}  // namespace
