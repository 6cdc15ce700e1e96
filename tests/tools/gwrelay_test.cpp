// The real gwrelay over loopback: this program plays the devices and the users.

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <csignal>
#include <thread>

#include "child.h"
#include "sockets.h"

namespace {

using namespace std::string_literals;
using strings = std::vector<std::string>;
constexpr test_duration A_MOMENT{200};
constexpr int SMALL_BUFFER = 4096;
constexpr size_t MANY_BYTES = 32 * 1024 * 1024;  // more than all kernel buffers on the way

struct relay {
    child process;
    uint16_t manager = 0, control = 0, data = 0, front = 0;

    explicit relay(const strings& extra = {}) : process(command_line(extra)) {
        process.output_contains("\n");
        unsigned ports[4] = {};
        sscanf(process.output().c_str(), "ready manager=%u control=%u data=%u front=%u\n",
               &ports[0], &ports[1], &ports[2], &ports[3]);
        manager = static_cast<uint16_t>(ports[0]);
        control = static_cast<uint16_t>(ports[1]);
        data = static_cast<uint16_t>(ports[2]);
        front = static_cast<uint16_t>(ports[3]);
    }

    static strings command_line(const strings& extra) {
        strings all = {GWRELAY_PATH,    "--manager-port=0", "--control-port=0",
                       "--data-port=0", "--front-port=0",   "-v"};
        all.insert(all.end(), extra.begin(), extra.end());
        return all;
    }
};

std::string be32(uint32_t value) {
    return {static_cast<char>(value >> 24), static_cast<char>(value >> 16 & 0xff),
            static_cast<char>(value >> 8 & 0xff), static_cast<char>(value & 0xff)};
}

std::string frame(int version, int command, uint32_t flag, uint32_t stream,
                  const std::string& payload) {
    return std::string{static_cast<char>(version), 16, 0, static_cast<char>(command)} + be32(flag) +
           be32(stream) + be32(static_cast<uint32_t>(payload.size())) + payload;
}

std::string read_frame(const unique_fd& fd) {
    std::string whole = read_exact(fd.get(), 16);
    if (whole.size() == 16) {
        uint32_t length = 0;
        for (size_t i = 12; i < 16; ++i) {
            length = length << 8 | static_cast<unsigned char>(whole[i]);
        }
        whole += read_exact(fd.get(), length);
    }
    return whole;
}

std::string info(const std::string& id) { return R"({"deviceid":")" + id + R"(","fwver":"1.2"})"; }

unique_fd control_login(const relay& hub, const std::string& id, std::string* answer = nullptr) {
    unique_fd fd = loopback_connect(hub.control);
    write_all(fd.get(), frame(3, 3, 1, 0, info(id)));
    std::string got = read_frame(fd);
    if (answer != nullptr) {
        *answer = std::move(got);
    }
    return fd;
}

unique_fd data_login(const relay& hub, const std::string& id, int receive_buffer = 0) {
    unique_fd fd = loopback_connect(hub.data, receive_buffer);
    write_all(fd.get(), frame(2, 3, 1, 0, info(id)));
    EXPECT_EQ(read_frame(fd), frame(1, 5, 1, 0, ""));
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
    write_all(fd.get(), frame(2, 2, 1, 0, "\1\2\3\4"));
    return read_frame(fd) == frame(2, 2, 1, 0, "\1\2\3\4");
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

const strings NO_GUARD = {"--no-dead-port-guard"};
const std::string GET_BOX = "GET /box/80/ HTTP/1.1\r\n\r\n";
const std::string GET_BOX_SENT =
    "GET /?x-qv-devid=box&x-qv-port=80 HTTP/1.1\r\nConnection: close\r\n\r\n";

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
        ASSERT_FALSE(read_frame(data).empty());
        hub.process.signal(number);
        EXPECT_EQ(hub.process.wait(), 0) << hub.process.errors();
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
    EXPECT_EQ(answer, frame(2, 5, 1, 0, json + "}"));
}

TEST(GwrelayControl, OrdersByCommandSevenAndSetsTimesWhenAsked) {
    relay hub({"--command7", "--report-times=5,7200"});
    std::string answer;
    const unique_fd fd = control_login(hub, "box", &answer);
    EXPECT_EQ(answer, frame(1, 5, 1, 0, ""));
    EXPECT_EQ(read_frame(fd), frame(1, 7, 1, 0,
                                    "host1host2host3host4host5 \"127.0.0.1\" "
                                    "port1port2port3port4port5 \"" +
                                        std::to_string(hub.data) + "\""));
    EXPECT_EQ(read_frame(fd), frame(1, 10, 1, 0, be32(5) + be32(7200)));
}

TEST(GwrelayControl, AnswersHeartbeatsAndHandsOutASessionId) {
    relay hub;
    const unique_fd fd = control_login(hub, "box");
    write_all(fd.get(), frame(1, 8, 1, 0, ""));
    const std::string session = read_frame(fd);
    EXPECT_EQ(session.substr(0, 16), frame(1, 8, 1, 0, std::string(32, ' ')).substr(0, 16));
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
    const std::string beat = frame(2, 2, 1, 0, "1234");
    const auto with = [&beat](size_t at, char value) {
        std::string bytes = beat;
        bytes[at] = value;
        return bytes;
    };
    const auto login = [](int version, const std::string& json) {
        return frame(version, 3, 1, 0, json);
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
        {false, login(2, info("box")) + frame(1, 1, 0, 0, "no stream")},
        {false, login(2, info("box")) + "\1\20\0\1\0\0\0\0\0\0\0\1\0\0\x1f\xf1"s},
        {true, login(3, info("box")) + frame(1, 1, 0, 1, "data")},
        {true, login(3, info("box")) + frame(1, 12, 1, 0, "{\"http_port\":8080")},
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
        EXPECT_EQ(read_frame(data), frame(1, 1, 0, ++stream, expected));
        // What a device with a dead port may throw away instead of the next user's frames.
        EXPECT_EQ(read_frame(data).size(), expected.size());
        write_all(data.get(), frame(1, 1, 0, stream, "HTTP/1.1 204 None\r\n\r\n"));
        EXPECT_EQ(read_to_end(user.get()), "HTTP/1.1 204 None\r\n\r\n");
        EXPECT_EQ(read_frame(data), frame(1, 4, 1, stream, "")) << sent;
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
    relay hub(NO_GUARD);
    const unique_fd data = data_login(hub, "box");
    uint32_t stream = 0;
    for (const auto& [method, parts] : cases) {
        const unique_fd user = user_sends(hub, method + " /box/80/ HTTP/1.1\r\n\r\n"s);
        read_frame(data);
        ++stream;
        std::string whole;
        for (const std::string& part : parts) {
            whole += part;
            write_all(data.get(), frame(1, 1, 0, stream, part));
        }
        EXPECT_EQ(read_to_end(user.get()), whole);
        EXPECT_EQ(read_frame(data), frame(1, 4, 1, stream, ""));
    }
}

// A device's diagnostic has a head whose frame says length 0 and whose text contains the length.
TEST(GwrelayStream, MendsTheHeadOfADiagnostic) {
    const char* reasons[] = {"200 OK", "404 File Not Found", "503 Gateway Internal Error"};
    relay hub(NO_GUARD);
    const unique_fd data = data_login(hub, "box");
    uint32_t stream = 0;
    for (const std::string reason : reasons) {
        const unique_fd user = user_sends(hub, "GET /box/10010/ HTTP/1.1\r\n\r\n");
        read_frame(data);
        const std::string head = "HTTP/1.1 " + reason + "\r\nContent-Length:3\r\n\r\n";
        std::string sent = head;
        sent.replace(12, 4, be32(static_cast<uint32_t>(head.size())));
        ++stream;
        write_all(data.get(), frame(1, 1, 0, stream, "") + sent.substr(0, 20));
        write_all(data.get(), sent.substr(20) + frame(1, 1, 0, stream, "abc"));
        EXPECT_EQ(read_to_end(user.get()), head + "abc");
        EXPECT_EQ(read_frame(data), frame(1, 4, 1, stream, ""));
    }
    const std::string bad = "HTTP/1.1 200" + be32(8177);
    write_all(data.get(), frame(1, 1, 0, ++stream, "") + bad);
    EXPECT_EQ(read_to_end(data.get()), "");
}

TEST(GwrelayStream, LastsUntilTheRequestIsWholeToo) {
    relay hub(NO_GUARD);
    const unique_fd data = data_login(hub, "box");
    const std::string head = "POST /box/80/ HTTP/1.1\r\nContent-Length: 4\r\n\r\n";
    const unique_fd user = user_sends(hub, head);
    read_frame(data);
    write_all(data.get(), frame(1, 1, 0, 1, "HTTP/1.1 200 OK\r\nContent-Length: 1\r\n\r\nx"));
    EXPECT_TRUE(read_until(user.get(), "\r\n\r\nx").ends_with("x"));
    write_all(user.get(), "body");
    EXPECT_EQ(read_frame(data), frame(1, 1, 0, 1, "body"));
    EXPECT_EQ(read_frame(data), frame(1, 4, 1, 1, ""));
}

TEST(GwrelayStream, SilenceEndsAResponseWithoutAnEndButNotATunnel) {
    relay hub({"--no-dead-port-guard", "--linger-timeout=1"});
    const unique_fd data = data_login(hub, "box");
    const unique_fd tunnel = user_sends(hub, GET_BOX), endless = user_sends(hub, GET_BOX);
    read_frame(data);
    read_frame(data);
    write_all(data.get(), frame(1, 1, 0, 1, "HTTP/1.1 101 Switching\r\n\r\n") +
                              frame(1, 1, 0, 2, "HTTP/1.0 200 OK\r\n\r\nsome"));
    EXPECT_EQ(read_to_end(endless.get()), "HTTP/1.0 200 OK\r\n\r\nsome");
    EXPECT_EQ(read_frame(data), frame(1, 4, 1, 2, ""));
    write_all(tunnel.get(), "more");
    EXPECT_EQ(read_frame(data), frame(1, 1, 0, 1, "more"));
}

TEST(GwrelayStream, IsForgottenWhenItIsIdleForLong) {
    relay hub({"--no-dead-port-guard", "--silence-timeout=1"});
    const unique_fd data = data_login(hub, "box");
    const unique_fd user = user_sends(hub, GET_BOX);
    read_frame(data);
    write_all(data.get(), frame(1, 1, 0, 1, "HTTP/1.1 200 OK\r\nContent-Length: 1\r\n\r\n"));
    read_until(user.get(), "\r\n\r\n");
    int beats = 0;
    while (!closed_by_peer(user.get(), A_MOMENT) && ++beats < 20) {
        write_all(data.get(), frame(2, 2, 1, 0, "beat"));  // the connection itself is not silent
    }
    EXPECT_EQ(read_frame(data), frame(2, 2, 1, 0, "beat"));
    EXPECT_LT(beats, 20);
}

TEST(GwrelayStream, AHalfClosedUserGetsHisResponseAndSilenceEndsIt) {
    relay hub({"--no-dead-port-guard", "--linger-timeout=1"});
    const unique_fd data = data_login(hub, "box");
    const unique_fd user = user_sends(hub, GET_BOX);
    shutdown(user.get(), SHUT_WR);
    EXPECT_EQ(read_frame(data), frame(1, 1, 0, 1, GET_BOX_SENT));
    write_all(data.get(), frame(1, 1, 0, 1, "without any length"));
    EXPECT_EQ(read_to_end(user.get()), "without any length");
    EXPECT_EQ(read_frame(data), frame(1, 4, 1, 1, ""));
}

TEST(GwrelayStream, AUserWhoLeavesIsForgottenAndLateDataIsDropped) {
    relay hub(NO_GUARD);
    const unique_fd data = data_login(hub, "box");
    unique_fd user = user_sends(hub, GET_BOX);
    EXPECT_EQ(read_frame(data), frame(1, 1, 0, 1, GET_BOX_SENT));
    const linger at_once{1, 0};
    setsockopt(user.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    user.reset();
    EXPECT_EQ(read_frame(data), frame(1, 4, 1, 1, ""));
    write_all(data.get(), frame(1, 1, 0, 1, "late"));
    EXPECT_TRUE(still_echoes(data));
    const std::string status = fetch(hub, "GET /status.json HTTP/1.1\r\n\r\n");
    EXPECT_NE(status.find("\"open_streams\":0,"), std::string::npos) << status;
}

TEST(GwrelayStream, EveryUserIsAnsweredWhenTheDeviceCannot) {
    relay hub({"--no-dead-port-guard", "--answer-timeout=1"});
    EXPECT_TRUE(fetch(hub, GET_BOX).starts_with("HTTP/1.1 404 "));
    const unique_fd control = control_login(hub, "box");
    EXPECT_TRUE(fetch(hub, GET_BOX).starts_with("HTTP/1.1 503 "));
    unique_fd data = data_login(hub, "box");
    EXPECT_TRUE(fetch(hub, GET_BOX).starts_with("HTTP/1.1 504 "));
    const unique_fd user = user_sends(hub, GET_BOX);
    for (int frames = 0; frames < 3; ++frames) {  // opened, closed, opened
        read_frame(data);
    }
    data.reset();
    EXPECT_TRUE(read_to_end(user.get()).starts_with("HTTP/1.1 502 "));
}

TEST(GwrelayStream, HoldsAnUploadBackAndLosesNothing) {
    relay hub(NO_GUARD);
    const unique_fd data = data_login(hub, "box");
    const unique_fd user =
        user_sends(hub, "POST /box/80/ HTTP/1.1\r\nContent-Length: " + std::to_string(MANY_BYTES) +
                            "\r\n\r\n");
    std::string body(MANY_BYTES, '\0');
    for (size_t i = 0; i < body.size(); ++i) {
        body[i] = static_cast<char>(i * 2654435761U >> 24);
    }
    const size_t sent = write_until_held_back(user, body);
    ASSERT_LT(sent, body.size()) << "the relay keeps it all in memory";
    read_frame(data);  // the head
    std::thread rest([&] { write_all(user.get(), std::string_view(body).substr(sent)); });
    std::string arrived;
    while (arrived.size() < body.size()) {
        const std::string next = read_frame(data);
        if (next.size() <= 16) {
            break;
        }
        arrived.append(next, 16);
    }
    rest.join();
    EXPECT_TRUE(arrived == body);
}

TEST(GwrelayStream, ASlowReaderHoldsBackOnlyHisDataConnection) {
    relay hub({"--no-dead-port-guard", "--stall-timeout=2", "--silence-timeout=5"});
    const unique_fd slow = data_login(hub, "box");
    const unique_fd quick = data_login(hub, "box");
    const unique_fd reader = user_sends(hub, GET_BOX, SMALL_BUFFER);
    EXPECT_EQ(read_frame(slow), frame(1, 1, 0, 1, GET_BOX_SENT));
    std::string flood;
    while (flood.size() < MANY_BYTES) {
        flood += frame(1, 1, 0, 1, std::string(8176, 'x'));
    }
    const size_t sent = write_until_held_back(slow, flood);
    ASSERT_LT(sent, flood.size()) << "the relay keeps it all in memory";
    std::vector<unique_fd> others;
    for (uint32_t stream = 2; stream < 5; ++stream) {  // all on the one that is not held back
        others.push_back(user_sends(hub, GET_BOX));
        EXPECT_EQ(read_frame(quick), frame(1, 1, 0, stream, GET_BOX_SENT));
        write_all(quick.get(), frame(1, 1, 0, stream, "answer"));
        EXPECT_EQ(read_exact(others.back().get(), 6), "answer");
    }
    // The device hears from the relay all the while. Taking nothing at all costs the reader his
    // stream: then the connection is read again.
    EXPECT_EQ(read_frame(slow), frame(1, 5, 1, 0, ""));
    read_until(slow.get(), frame(1, 4, 1, 1, ""));
    EXPECT_TRUE(write_all(slow.get(), std::string_view(flood).substr(sent)));
    write_all(slow.get(), frame(2, 2, 1, 0, "beat"));
    EXPECT_TRUE(read_until(slow.get(), "beat").ends_with("beat"));
}

TEST(GwrelayStream, AReaderWhoTakesLittleAtATimeIsNotDropped) {
    relay hub({"--no-dead-port-guard", "--stall-timeout=1"});
    const unique_fd data = data_login(hub, "box");
    const unique_fd reader = user_sends(hub, GET_BOX, SMALL_BUFFER);
    read_frame(data);
    std::string flood;
    while (flood.size() < MANY_BYTES) {
        flood += frame(1, 1, 0, 1, std::string(8176, 'x'));
    }
    ASSERT_LT(write_until_held_back(data, flood), flood.size());
    for (test_duration time{}; time < 3 * test_duration{1000}; time += A_MOMENT) {
        read_exact(reader.get(), SMALL_BUFFER);
        EXPECT_TRUE(stays_silent(data.get(), A_MOMENT)) << "closed after " << time.count();
    }
}

TEST(GwrelayStream, StreamsAreSpreadAndDieWithTheirConnection) {
    relay hub(NO_GUARD);
    unique_fd first = data_login(hub, "box");
    const unique_fd second = data_login(hub, "box");
    const unique_fd one = user_sends(hub, GET_BOX);
    EXPECT_EQ(read_frame(first), frame(1, 1, 0, 1, GET_BOX_SENT));
    const unique_fd two = user_sends(hub, GET_BOX);
    EXPECT_EQ(read_frame(second), frame(1, 1, 0, 2, GET_BOX_SENT));
    write_all(first.get(), frame(1, 1, 0, 1, "begun"));
    EXPECT_EQ(read_exact(one.get(), 5), "begun");
    first.reset();
    EXPECT_TRUE(closed_by_peer(one.get()));
    write_all(second.get(), frame(1, 1, 0, 2, "whole"));
    EXPECT_EQ(read_exact(two.get(), 5), "whole");
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
    EXPECT_EQ(read_frame(control), frame(1, 10, 1, 0, be32(2) + be32(3600)));
}

TEST(GwrelayPage, ShowsWhatADeviceReports) {
    relay hub(NO_GUARD);
    const unique_fd control = control_login(hub, "<b\xff>");
    const unique_fd data = data_login(hub, "<b\xff>");
    write_all(control.get(), frame(1, 9, 1, 0, be32(0x102)));
    write_all(control.get(), frame(1, 12, 1, 0, R"({"http_port":8080})"));
    write_all(control.get(), frame(1, 12, 1, 0, R"({"ubq_port":70000})"));  // not kept
    ASSERT_TRUE(still_echoes(control));  // so the reports have been taken
    const unique_fd user = user_sends(hub, "GET /%3Cb%ff%3E/8080/ HTTP/1.1\r\n\r\n");
    ASSERT_FALSE(read_frame(data).empty());
    write_all(data.get(), frame(1, 1, 0, 1, "12345"));
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
