// A user's request on its way through a data connection, and its end.

#include <functional>
#include <thread>

#include "gwrelay_fixture.h"

namespace {

constexpr size_t MANY_BYTES = 32 * 1024 * 1024;  // more than all kernel buffers on the way
const std::string OK = "HTTP/1.1 200 OK\r\n";

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

TEST(GwrelayStream, EndsWhereTheResponseEnds) {
    const std::pair<const char*, strings> cases[] = {
        {"GET", {OK + "Content-Length: 5\r\n\r\nhe", "llo"}},
        {"GET", {OK + "content-LENGTH:0\r", "\n\r", "\n"}},
        {"GET", {"HTTP/1.1 100 Continue\r\n\r\n" + OK + "Content-Length: 1\r\n\r\nx"}},
        {"GET", {"HTTP/1.0 304 Same\r\nContent-Length: 5\r\n\r\n"}},
        {"HEAD", {OK + "Content-Length: 5\r\n\r\n"}},
        {"GET", {OK + "Transfer-Encoding: chunked\r\n\r\n1\r\nx\r\n0\r", "\n\r\n"}},
        {"GET",
         {OK + "transfer-encoding: gzip, Chunked\r\n\r\n0", "f;a\r\n0123\r\n0\r\n\r\n4567\r",
          "\nA\r\n0123456789\r\n0\r\nTrailer: ", "0\r\n\r", "\n"}},
        // Line feeds alone, or after a first line that has been sent by somebody else.
        {"GET", {"HTTP/1.1 200 OK\nContent-Length: 3\n\none"}},
        {"GET", {OK + "Content-type: text/plain\nContent-Length: 3\n", "\ntwo"}},
        {"GET", {"HTTP/1.1 204 None\n", "\r", "\n"}},
        {"GET", {OK + "Transfer-Encoding: chunked\n\n3\n", "abc", "\n1\nd\r\n0\nA: b", "\n\n"}},
    };
    relay hub({NO_GUARD, "--linger-timeout=60"});
    const unique_fd data = data_login(hub, "box");
    uint32_t stream = 0;
    for (const auto& [method, parts] : cases) {
        const unique_fd user = user_sends(hub, method + " /box/80/ HTTP/1.1\r\n\r\n"s);
        frame_read(data.get());
        ++stream;
        std::string whole;
        for (const std::string& part : parts) {
            EXPECT_TRUE(stays_silent(data.get(), test_duration{1})) << "before " << part;
            whole += part;
            write_all(data.get(), frame_bytes(DATA, stream, part));
        }
        EXPECT_EQ(read_with_end(user), "end:" + whole);
        EXPECT_EQ(frame_read(data.get()), frame_bytes(CLOSE_STREAM, stream)) << whole;
    }
}

TEST(GwrelayStream, ACutResponseEndsWithAReset) {
    const std::pair<std::string, std::function<void(one_stream&)>> cases[] = {
        {OK + "Content-Length: 9\r\n\r\npart", [](one_stream& s) { s.data.reset(); }},
        {OK + "\r\nendless", [](one_stream& s) { s.data.reset(); }},
        {"HTTP/1.1 200", [](one_stream& s) { control_login(s.hub, "box"); }},
        {OK + "\r\nendless", [](one_stream& s) { s.hub.process.terminate(); }},
    };
    for (const auto& [response, cut] : cases) {
        one_stream stream;
        stream.device_says(frame_bytes(DATA, 1, response));
        ASSERT_EQ(read_exact(stream.user.get(), response.size()), response);
        cut(stream);
        EXPECT_EQ(read_with_end(stream.user), "reset:");
    }
}

// It may be the end of a response that has no other, but not of one that has.
TEST(GwrelayStream, SilenceEndsWhatHasNoOtherEnd) {
    const std::string chunked = OK + "Transfer-Encoding: chunked\r\n\r\n";
    struct {
        std::string end, response;
        bool user_ends = false;
    } const cases[] = {
        {"end:", OK + "\r\nendless"},
        {"end:", chunked + "1\r\nabc\r\n"},
        {"end:", chunked + "x\r\n"},
        {"end:", "no HTTP"},
        {"end:", "HTTP/1.0 099 None\r\n\r\n"},
        {"end:", "HTTP/1.1 200 " + std::string(65536, 'x')},
        {"end:", OK + "Content-Type: text/html\r\nA: text/event-stream\r\n\r\n"},
        {"end:", OK + "Content-Type: text/event-stream\r\n\r\n", true},
        {"reset:", chunked + "5\r\nchu", true},
        {"reset:", "HTTP/1.1 200 OK\r\n", true},
    };
    relay hub({NO_GUARD, "--linger-timeout=1"});
    const unique_fd data = data_login(hub, "box");
    std::vector<unique_fd> users;
    for (const auto& [end, response, user_ends] : cases) {
        users.push_back(user_sends(hub, GET_BOX));
        frame_read(data.get());
        if (user_ends) {
            shutdown(users.back().get(), SHUT_WR);
        }
        for (size_t at = 0; at < response.size(); at += PAYLOAD_MAX) {
            write_all(data.get(), frame_bytes(DATA, static_cast<uint32_t>(users.size()),
                                              response.substr(at, PAYLOAD_MAX)));
        }
    }
    for (size_t i = 0; i < users.size(); ++i) {
        EXPECT_TRUE(read_with_end(users[i]) == cases[i].end + cases[i].response)
            << cases[i].response.substr(0, 80);
        EXPECT_TRUE(frame_read(data.get()).starts_with(frame_bytes(CLOSE_STREAM).substr(0, 8)));
    }
    clockid_t clock{};
    timespec used{};
    clock_getcpuclockid(hub.process.pid(), &clock);
    clock_gettime(clock, &used);
    EXPECT_LT(used.tv_sec * 10 + used.tv_nsec / 100'000'000, 5) << "tenths of a second of work";
}

TEST(GwrelayStream, WhatIsMadeToStayOpenMayBeSilentForLonger) {
    const std::string heads[] = {
        "HTTP/1.1 101 Switching Protocols\r\n\r\n",
        OK + "Content-Type: text/event-stream\r\n\r\n",
        OK + "Content-Type: multipart/x-mixed-replace;boundary=b\n\n",
    };
    const relay hub({NO_GUARD, "--linger-timeout=1", "--silence-timeout=4"});
    const unique_fd data = data_login(hub, "box");
    std::vector<unique_fd> users;
    std::string frames;
    for (const std::string& head : heads) {
        users.push_back(user_sends(hub, GET_BOX));
        frame_read(data.get());
        frames += frame_bytes(DATA, static_cast<uint32_t>(users.size()), head + "one");
    }
    write_all(data.get(), frames);
    EXPECT_TRUE(stays_silent(data.get(), 3 * A_SECOND)) << "a stream has been closed";
    EXPECT_TRUE(still_echoes(data));
    for (size_t i = 0; i < users.size(); ++i) {
        EXPECT_EQ(read_with_end(users[i]), "reset:" + heads[i] + "one");
        EXPECT_TRUE(frame_read(data.get()).starts_with(frame_bytes(CLOSE_STREAM).substr(0, 8)));
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
    EXPECT_TRUE(hub.process.errors().find("of a diagnostic's head: 8177\n") != std::string::npos);
}

TEST(GwrelayStream, LastsUntilTheRequestIsWholeToo) {
    const one_stream stream({}, "POST /box/80/ HTTP/1.1\r\nContent-Length: 4\r\n\r\n");
    stream.device_says(frame_bytes(DATA, 1, "HTTP/1.1 200 OK\r\nContent-Length: 1\r\n\r\nx"));
    EXPECT_TRUE(read_until(stream.user.get(), "\r\n\r\nx").ends_with("x"));
    write_all(stream.user.get(), "body");
    EXPECT_EQ(stream.device_hears(), frame_bytes(DATA, 1, "body"));
    EXPECT_EQ(stream.device_hears(), frame_bytes(CLOSE_STREAM, 1));
}

TEST(GwrelayStream, AnUploadUnderWayIsNotCutByTheAnswersTimeOut) {
    const one_stream stream({"--answer-timeout=1"},
                            "POST /box/80/ HTTP/1.1\r\nContent-Length: 5\r\n\r\n");
    for (int byte = 0; byte < 5; ++byte) {
        EXPECT_TRUE(stays_silent(stream.user.get(), A_SECOND / 2));
        write_all(stream.user.get(), "b");
        EXPECT_EQ(stream.device_hears(), frame_bytes(DATA, 1, "b"));
    }
}

// The relay waits for him only until it has handed over everything, and a moment more.
TEST(GwrelayStream, ALateReaderGetsAWholeResponse) {
    const one_stream stream({}, GET_BOX, SMALL_BUFFER);
    const std::string response = OK + "Content-Length: 100000\r\n\r\n" + noise(100000, 4);
    for (size_t at = 0; at < response.size(); at += PAYLOAD_MAX) {
        stream.device_says(frame_bytes(DATA, 1, response.substr(at, PAYLOAD_MAX)));
    }
    EXPECT_EQ(stream.device_hears(), frame_bytes(CLOSE_STREAM, 1));
    EXPECT_TRUE(stays_silent(stream.data.get(), 4 * A_SECOND));
    EXPECT_TRUE(read_with_end(stream.user) == "end:" + response);
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
    const one_stream stream(
        {}, "POST /box/80/ HTTP/1.1\r\nContent-Length: " + std::to_string(MANY_BYTES) + "\r\n\r\n");
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

// A device that takes nothing for a while is as patient as its heartbeats are.
TEST(GwrelayStream, AFullDataConnectionIsNotForNewRequests) {
    const one_stream stream(
        {"--stall-timeout=1", "--answer-timeout=2"},
        "POST /box/80/ HTTP/1.1\r\nContent-Length: " + std::to_string(MANY_BYTES) + "\r\n\r\n");
    ASSERT_LT(write_until_held_back(stream.user, std::string(MANY_BYTES, 'u')), MANY_BYTES);
    const std::string refused = fetch(stream.hub, GET_BOX);
    EXPECT_TRUE(refused.starts_with("HTTP/1.1 503 ") && refused.ends_with("are full.\n"))
        << refused;
    EXPECT_FALSE(closed_by_peer(stream.data.get(), test_duration{1}));
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
    const std::string page = fetch(hub, "GET / HTTP/1.1\r\n\r\n");
    EXPECT_NE(page.find("<td>held back by a slow user</td>"), page.npos) << page;
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
    EXPECT_LT(read_until(slow.get(), frame_bytes(CLOSE_STREAM, 1)).size(), 6 * HEADER_SIZE);
    EXPECT_TRUE(read_with_end(reader).starts_with("reset:"));
    EXPECT_TRUE(write_all(slow.get(), std::string_view(flood).substr(sent)));
    write_all(slow.get(), frame_bytes(HEARTBEAT, 0, "beat", 2));
    EXPECT_TRUE(read_until(slow.get(), "beat").ends_with("beat"));
}

TEST(GwrelayStream, AReaderWhoTakesLittleAtATimeIsNotDropped) {
    const one_stream stream({"--stall-timeout=1"}, GET_BOX, SMALL_BUFFER);
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

}  // namespace
