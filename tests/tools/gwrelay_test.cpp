// The real gwrelay over loopback: this program plays the devices and the users.

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <csignal>
#include <thread>

#include "support/frames.h"
#include "support/relay_program.h"
#include "support/sockets.h"

namespace {

using namespace std::string_literals;
using strings = std::vector<std::string>;
constexpr test_duration A_MOMENT{200};
constexpr int SMALL_BUFFER = 4096;
constexpr size_t MANY_BYTES = 32 * 1024 * 1024;  // more than all kernel buffers on the way

using relay = relay_program;

std::string info(const std::string& id) { return R"({"deviceid":")" + id + R"(","fwver":"1.2"})"; }

unique_fd control_login(const relay& hub, const std::string& id, std::string* answer = nullptr) {
    unique_fd fd = loopback_connect(hub.control);
    write_all(fd.get(), frame_bytes(DEVICE_INFO, 0, info(id), 3));
    std::string got = frame_read(fd.get());
    if (answer != nullptr) {
        *answer = std::move(got);
    }
    return fd;
}

unique_fd data_login(const relay& hub, const std::string& id, int receive_buffer = 0) {
    unique_fd fd = loopback_connect(hub.data, receive_buffer);
    write_all(fd.get(), frame_bytes(DEVICE_INFO, 0, info(id), 2));
    EXPECT_EQ(frame_read(fd.get()), frame_bytes(LOGIN_ANSWER));
    return fd;
}

unique_fd user_sends(const relay& hub, const std::string& request, int receive_buffer = 0) {
    unique_fd fd = loopback_connect(hub.front, receive_buffer);
    write_all(fd.get(), request);
    return fd;
}

std::string fetch(const relay& hub, const std::string& request) {
    return read_to_end(user_sends(hub, request).get());
}

bool still_echoes(const unique_fd& fd) {
    write_all(fd.get(), heartbeat_frame(0x01020304));
    return frame_read(fd.get()) == heartbeat_frame(0x01020304);
}

// Sends until nothing more is taken for a moment. The number of bytes that went out.
size_t write_until_held_back(const unique_fd& fd, std::string_view bytes) {
    size_t sent = 0;
    pollfd entry{fd.get(), POLLOUT, 0};
    while (sent < bytes.size() && poll(&entry, 1, static_cast<int>(A_MOMENT.count())) == 1) {
        const std::string_view rest = bytes.substr(sent);
        const ssize_t step = send(fd.get(), rest.data(), rest.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (step < 0) {
            break;
        }
        sent += static_cast<size_t>(step);
    }
    return sent;
}

std::string flood_of_stream_1() {
    std::string flood;
    while (flood.size() < MANY_BYTES) {
        flood += frame_bytes(DATA, 1, std::string(PAYLOAD_MAX, 'x'));
    }
    return flood;
}

const char NO_GUARD[] = "--no-dead-port-guard";
const std::string GET_BOX = "GET /box/80/ HTTP/1.1\r\n\r\n";

// A device with one data connection and a user whose request has reached it as stream 1.
struct one_stream {
    relay hub;
    unique_fd data, user;
    explicit one_stream(const char* option = "-v", const std::string& request = GET_BOX,
                        int buffer = 0)
        : hub({NO_GUARD, option}),
          data(data_login(hub, "box")),
          user(user_sends(hub, request, buffer)) {
        EXPECT_EQ(frame_stream(frame_read(data.get())), 1U);
    }
    bool device_says(const std::string& frames) const { return write_all(data.get(), frames); }
    std::string device_hears() const { return frame_read(data.get()); }
};

TEST(GwrelayOptions, BadOnesAreNamedAndEndWithStatusOne) {
    const std::pair<strings, const char*> cases[] = {
        {{"--front-port=65535"}, "front-port"},
        {{"--data-port=80x"}, "data-port"},
        {{"--report-times=1,3600"}, "report-times"},
        {{"--stall-timeout=0"}, "stall-timeout"},
        {{"--announce", std::string(64, 'a')}, "at most 63"},
        {{"--announce=a\"b"}, "cannot be told"},
        {{"--listen=0.0.0.0"}, "cannot be told"},
        {{"--listen=nowhere", "--announce=a"}, "cannot listen"},
        {{"surplus"}, "surplus"},
        {{"--unknown"}, "--help"}};
    for (const auto& [arguments, expected] : cases) {
        child process(relay::command_line(arguments));
        EXPECT_EQ(process.wait(), 1) << expected;
        EXPECT_NE(process.errors().find(expected), std::string::npos) << process.errors();
    }
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
    EXPECT_TRUE(still_echoes(control_login(hub, "box")));
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

TEST(GwrelayStream, CarriesTheRequestWithItsParametersInFront) {
    const std::string head = " HTTP/1.1\r\nHost: a\r\n";
    const std::string closing = "Connection: close\r\n\r\n";
    const std::string upgrade = "Connection: Upgrade\r\nUpgrade: x\r\n\r\n";
    const std::string who = "x-qv-devid=box&x-qv-port=80";
    struct {
        std::string sent, expected;
    } const cases[] = {
        {"GET /box/80/a%20b?c=d&e" + head + "Connection: keep-alive\r\nKeep-Alive: 5\r\n\r\n",
         "GET /a%20b?" + who + "&c=d&e" + head + closing},
        {"GET /box/80/?a=1&gwrelay-pri=2&b" + head + "\r\n",
         "GET /?" + who + "&x-qv-pri=2&a=1&b" + head + closing},
        {"POST /box/80/p" + head + "Content-Length: 2\r\n\r\nhi",
         "POST /p?" + who + head + "Content-Length: 2\r\n" + closing + "hi"},
        {"GET /box/80/ws" + head + upgrade, "GET /ws?" + who + head + upgrade},
    };
    relay hub;
    const unique_fd data = data_login(hub, "box");
    uint32_t stream = 0;
    for (const auto& [sent, expected] : cases) {
        const unique_fd user = user_sends(hub, sent);
        EXPECT_EQ(frame_read(data.get()), frame_bytes(DATA, ++stream, expected));
        // What a device with a dead port may throw away instead of the next user's frames.
        EXPECT_EQ(frame_read(data.get()).size(), expected.size());
        write_all(data.get(), frame_bytes(DATA, stream, "HTTP/1.1 204 None\r\n\r\n"));
        EXPECT_EQ(read_to_end(user.get()), "HTTP/1.1 204 None\r\n\r\n");
        EXPECT_EQ(frame_read(data.get()), frame_bytes(CLOSE_STREAM, stream)) << sent;
    }
}

TEST(GwrelayStream, EndsWhereTheResponseEnds) {
    const std::string ok = "HTTP/1.1 200 OK\r\n";
    const std::pair<const char*, strings> cases[] = {
        {"GET", {ok + "Content-Length: 5\r\n\r\nhe", "llo"}},
        {"GET", {ok + "content-LENGTH:0\r", "\n\r", "\n"}},
        {"GET", {"HTTP/1.1 100 Continue\r\n\r\n" + ok + "Content-Length: 1\r\n\r\nx"}},
        {"HEAD", {ok + "Content-Length: 5\r\n\r\n"}},
        {"GET", {ok + "Transfer-Encoding: chunked\r\n\r\n1\r\nx\r\n0\r", "\n\r\n"}},
        {"GET",
         {ok + "transfer-encoding: Chunked\r\n\r\n1", "0;a\r\n0123\r\n0\r\n\r\n4567\r",
          "\nA\r\n0123456789\r\n0\r\nTrailer: ", "0\r\n\r", "\n"}},
    };
    relay hub({NO_GUARD});
    const unique_fd data = data_login(hub, "box");
    uint32_t stream = 0;
    for (const auto& [method, parts] : cases) {
        const unique_fd user = user_sends(hub, method + " /box/80/ HTTP/1.1\r\n\r\n"s);
        frame_read(data.get());
        ++stream;
        std::string whole;
        for (const std::string& part : parts) {
            whole += part;
            write_all(data.get(), frame_bytes(DATA, stream, part));
        }
        EXPECT_EQ(read_to_end(user.get()), whole);
        EXPECT_EQ(frame_read(data.get()), frame_bytes(CLOSE_STREAM, stream));
    }
}

// A device's diagnostic has a head whose frame says length 0 and whose text contains the length.
TEST(GwrelayStream, MendsTheHeadOfADiagnostic) {
    const char* reasons[] = {"200 OK", "404 File Not Found", "503 Gateway Internal Error"};
    relay hub({NO_GUARD});
    const unique_fd data = data_login(hub, "box");
    uint32_t stream = 0;
    for (const std::string reason : reasons) {
        const unique_fd user = user_sends(hub, "GET /box/10010/ HTTP/1.1\r\n\r\n");
        frame_read(data.get());
        const std::string head = "HTTP/1.1 " + reason + "\r\nContent-Length:3\r\n\r\n";
        std::string sent = head;
        sent.replace(12, 4, be32(static_cast<uint32_t>(head.size())));
        ++stream;
        write_all(data.get(), frame_bytes(DATA, stream) + sent.substr(0, 20));
        write_all(data.get(), sent.substr(20) + frame_bytes(DATA, stream, "abc"));
        EXPECT_EQ(read_to_end(user.get()), head + "abc");
        EXPECT_EQ(frame_read(data.get()), frame_bytes(CLOSE_STREAM, stream));
    }
    const std::string bad = "HTTP/1.1 200" + be32(8177);
    write_all(data.get(), frame_bytes(DATA, ++stream) + bad);
    EXPECT_EQ(read_to_end(data.get()), "");
}

TEST(GwrelayStream, LastsUntilTheRequestIsWholeToo) {
    const one_stream stream("-v", "POST /box/80/ HTTP/1.1\r\nContent-Length: 4\r\n\r\n");
    stream.device_says(frame_bytes(DATA, 1, "HTTP/1.1 200 OK\r\nContent-Length: 1\r\n\r\nx"));
    EXPECT_TRUE(read_until(stream.user.get(), "\r\n\r\nx").ends_with("x"));
    write_all(stream.user.get(), "body");
    EXPECT_EQ(stream.device_hears(), frame_bytes(DATA, 1, "body"));
    EXPECT_EQ(stream.device_hears(), frame_bytes(CLOSE_STREAM, 1));
}

TEST(GwrelayStream, SilenceEndsAResponseWithoutAnEndButNotATunnel) {
    const one_stream tunnel("--linger-timeout=1");
    const unique_fd endless = user_sends(tunnel.hub, GET_BOX);
    tunnel.device_hears();
    tunnel.device_says(frame_bytes(DATA, 1, "HTTP/1.1 101 Switching\r\n\r\n") +
                       frame_bytes(DATA, 2, "HTTP/1.0 200 OK\r\n\r\nsome"));
    EXPECT_EQ(read_to_end(endless.get()), "HTTP/1.0 200 OK\r\n\r\nsome");
    EXPECT_EQ(tunnel.device_hears(), frame_bytes(CLOSE_STREAM, 2));
    write_all(tunnel.user.get(), "more");
    EXPECT_EQ(tunnel.device_hears(), frame_bytes(DATA, 1, "more"));
}

TEST(GwrelayStream, IsForgottenWhenItIsIdleForLong) {
    const one_stream stream("--silence-timeout=1");
    stream.device_says(frame_bytes(DATA, 1, "HTTP/1.1 200 OK\r\nContent-Length: 1\r\n\r\n"));
    read_until(stream.user.get(), "\r\n\r\n");
    const std::string beat = heartbeat_frame(1);
    int beats = 0;
    while (!closed_by_peer(stream.user.get(), A_MOMENT) && ++beats < 20) {
        stream.device_says(beat);  // the connection itself is not silent
    }
    EXPECT_EQ(stream.device_hears(), beat);
    EXPECT_LT(beats, 20);
}

TEST(GwrelayStream, AHalfClosedUserGetsHisResponseAndSilenceEndsIt) {
    const one_stream stream("--linger-timeout=1");
    shutdown(stream.user.get(), SHUT_WR);
    stream.device_says(frame_bytes(DATA, 1, "without any length"));
    EXPECT_EQ(read_to_end(stream.user.get()), "without any length");
    EXPECT_EQ(stream.device_hears(), frame_bytes(CLOSE_STREAM, 1));
}

TEST(GwrelayStream, AUserWhoLeavesIsForgottenAndLateDataIsDropped) {
    one_stream stream;
    const linger at_once{1, 0};
    setsockopt(stream.user.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    stream.user.reset();
    EXPECT_EQ(stream.device_hears(), frame_bytes(CLOSE_STREAM, 1));
    stream.device_says(frame_bytes(DATA, 1, "late"));
    EXPECT_TRUE(still_echoes(stream.data));
    const std::string status = fetch(stream.hub, "GET /status.json HTTP/1.1\r\n\r\n");
    EXPECT_NE(status.find("\"open_streams\":0,"), std::string::npos) << status;
}

TEST(GwrelayStream, EveryUserIsAnsweredWhenTheDeviceCannot) {
    relay hub({NO_GUARD, "--answer-timeout=1"});
    EXPECT_TRUE(fetch(hub, GET_BOX).starts_with("HTTP/1.1 404 "));
    const unique_fd control = control_login(hub, "box");
    EXPECT_TRUE(fetch(hub, GET_BOX).starts_with("HTTP/1.1 503 "));
    unique_fd data = data_login(hub, "box");
    EXPECT_TRUE(fetch(hub, GET_BOX).starts_with("HTTP/1.1 504 "));
    const unique_fd user = user_sends(hub, GET_BOX);
    for (int frames = 0; frames < 3; ++frames) {  // opened, closed, opened
        frame_read(data.get());
    }
    data.reset();
    EXPECT_TRUE(read_to_end(user.get()).starts_with("HTTP/1.1 502 "));
}

TEST(GwrelayStream, HoldsAnUploadBackAndLosesNothing) {
    const one_stream stream("-v", "POST /box/80/ HTTP/1.1\r\nContent-Length: " +
                                      std::to_string(MANY_BYTES) + "\r\n\r\n");
    const std::string body = noise(MANY_BYTES, 1);
    const size_t sent = write_until_held_back(stream.user, body);
    ASSERT_LT(sent, body.size()) << "the relay keeps it all in memory";
    std::thread rest([&] { write_all(stream.user.get(), std::string_view(body).substr(sent)); });
    std::string arrived;
    while (arrived.size() < body.size()) {
        const std::string next = stream.device_hears();
        if (next.size() <= HEADER_SIZE) {
            break;
        }
        arrived.append(next, HEADER_SIZE);
    }
    rest.join();
    EXPECT_TRUE(arrived == body);
}

TEST(GwrelayStream, ASlowReaderHoldsBackOnlyHisDataConnection) {
    relay hub({NO_GUARD, "--stall-timeout=2", "--silence-timeout=5"});
    const unique_fd slow = data_login(hub, "box");
    const unique_fd quick = data_login(hub, "box");
    const unique_fd reader = user_sends(hub, GET_BOX, SMALL_BUFFER);
    EXPECT_EQ(frame_stream(frame_read(slow.get())), 1U);
    const std::string flood = flood_of_stream_1();
    const size_t sent = write_until_held_back(slow, flood);
    ASSERT_LT(sent, flood.size()) << "the relay keeps it all in memory";
    std::vector<unique_fd> others;
    for (uint32_t stream = 2; stream < 5; ++stream) {  // all on the one that is not held back
        others.push_back(user_sends(hub, GET_BOX));
        EXPECT_EQ(frame_stream(frame_read(quick.get())), stream);
        write_all(quick.get(), frame_bytes(DATA, stream, "answer"));
        EXPECT_EQ(read_exact(others.back().get(), 6), "answer");
    }
    // The device hears from the relay all the while. Taking nothing at all costs the reader his
    // stream: then the connection is read again.
    EXPECT_EQ(frame_read(slow.get()), frame_bytes(LOGIN_ANSWER));
    read_until(slow.get(), frame_bytes(CLOSE_STREAM, 1));
    EXPECT_TRUE(write_all(slow.get(), std::string_view(flood).substr(sent)));
    write_all(slow.get(), frame_bytes(HEARTBEAT, 0, "beat", 2));
    EXPECT_TRUE(read_until(slow.get(), "beat").ends_with("beat"));
}

TEST(GwrelayStream, AReaderWhoTakesLittleAtATimeIsNotDropped) {
    const one_stream stream("--stall-timeout=1", GET_BOX, SMALL_BUFFER);
    const std::string flood = flood_of_stream_1();
    ASSERT_LT(write_until_held_back(stream.data, flood), flood.size());
    for (test_duration time{}; time < 3 * test_duration{1000}; time += A_MOMENT) {
        read_exact(stream.user.get(), SMALL_BUFFER);
        EXPECT_TRUE(stays_silent(stream.data.get(), A_MOMENT)) << "closed after " << time.count();
    }
}

TEST(GwrelayStream, StreamsAreSpreadAndDieWithTheirConnection) {
    one_stream first;
    const unique_fd second = data_login(first.hub, "box");
    const unique_fd other_user = user_sends(first.hub, GET_BOX);
    EXPECT_EQ(frame_stream(frame_read(second.get())), 2U);
    first.device_says(frame_bytes(DATA, 1, "begun"));
    EXPECT_EQ(read_exact(first.user.get(), 5), "begun");
    first.data.reset();
    EXPECT_TRUE(closed_by_peer(first.user.get()));
    write_all(second.get(), frame_bytes(DATA, 2, "whole"));
    EXPECT_EQ(read_exact(other_user.get(), 5), "whole");
}

TEST(GwrelayFrontDoor, RefusesWhatItCannotCarry) {
    relay hub;
    const unique_fd control = control_login(hub, "box");
    const unique_fd odd_control = control_login(hub, "a b");
    const std::string http = " HTTP/1.1\r\n";
    const std::string referer = http + "Referer: http://relay:1/box/80/page\r\n\r\n";
    const std::pair<std::string, std::string> cases[] = {
        {"rubbish\r\n\r\n", "400"},
        {"GET /box/80/\r\n\r\n", "400"},
        {"GET box/80/ HTTP/1.1\r\n\r\n", "400"},
        {"GET /box/80/\t HTTP/1.1\r\n\r\n", "400"},
        {"GET /box/80/ HTTP/2\r\n\r\n", "400"},
        {"GET /box/80/?gwrelay-pri=x" + http + "\r\n", "400"},
        {"PUT /box/80/" + http + "\r\n", "405"},
        {"GET /box/65535/" + http + "\r\n", "404"},
        {"GET /box/0/" + http + "\r\n", "404"},
        {"GET /a%20b/80/" + http + "\r\n", "502"},
        {"GET /box/80/" + std::string(4095, 'a') + http + "\r\n", "414"},
        {"GET /box/80/" + http + "A: " + std::string(65536, 'a') + "\r\n\r\n", "431"},
        {"GET /style.css?v=1" + referer, "307 Temporary Redirect\r\n"},
        {"GET /box/80" + http + "\r\n", "307 Temporary Redirect\r\n"},
        {"GET /box/report-times?t1=5&t2=3600" + http + "\r\n", "405"},
        {"POST /box/report-times?t1=5&t2=3599" + http + "\r\n", "400"},
    };
    for (const auto& [request, code] : cases) {
        EXPECT_TRUE(fetch(hub, request).starts_with("HTTP/1.1 " + code)) << request.substr(0, 80);
    }
    EXPECT_NE(fetch(hub, "GET /style.css?v=1" + referer).find("Location: /box/80/style.css?v=1\r"),
              std::string::npos);
}

TEST(GwrelayFrontDoor, SendsReportTimesOnRequest) {
    relay hub;
    const unique_fd control = control_login(hub, "box");
    const std::string reply = fetch(hub, "POST /box/report-times?t1=2&t2=3600 HTTP/1.1\r\n\r\n");
    EXPECT_TRUE(reply.starts_with("HTTP/1.1 200 ")) << reply;
    EXPECT_EQ(frame_read(control.get()), frame_bytes(REPORT_TIMES, 0, be32(2) + be32(3600)));
}

TEST(GwrelayPage, ShowsWhatADeviceReports) {
    relay hub({NO_GUARD});
    const unique_fd control = control_login(hub, "<b\xff>");
    const unique_fd data = data_login(hub, "<b\xff>");
    write_all(control.get(), frame_bytes(STATUS, 0, be32(0x102)));
    write_all(control.get(), frame_bytes(PORT_INFO, 0, R"({"http_port":8080})"));
    write_all(control.get(), frame_bytes(PORT_INFO, 0, R"({"ubq_port":70000})"));  // not kept
    ASSERT_TRUE(still_echoes(control));  // so the reports have been taken
    const unique_fd user = user_sends(hub, "GET /%3Cb%ff%3E/8080/ HTTP/1.1\r\n\r\n");
    ASSERT_FALSE(frame_read(data.get()).empty());
    write_all(data.get(), frame_bytes(DATA, 1, "12345"));
    ASSERT_EQ(read_exact(user.get(), 5), "12345");
    const std::string json = fetch(hub, "GET /status.json HTTP/1.1\r\n\r\n");
    for (const char* part :
         {R"("id":"<b\u00ff>","path":"/%3Cb%FF%3E/","control":true)", R"("fwver":"1.2")",
          R"("ports":{"http_port":8080})", R"("dlna_status":258)", R"("data_connections":1)",
          R"("open_streams":1)", R"("bytes_from_device":5)"}) {
        EXPECT_NE(json.find(part), std::string::npos) << part << " in " << json;
    }
    const std::string html = fetch(hub, "GET / HTTP/1.1\r\n\r\n");
    for (const char* part : {"&#60;b\xff&#62;", "href=\"/%3Cb%FF%3E/8080/\"", "0x102"}) {
        EXPECT_NE(html.find(part), std::string::npos) << part << " in " << html;
    }
}

}  // namespace
