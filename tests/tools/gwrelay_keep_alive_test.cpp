// Connections that serve one request after another: a user's, and a stream to a service.

#include "gwrelay_fixture.h"

namespace {

const std::string LENGTH_1 = "Content-Length: 1\r\n\r\n", X = OK_ON + LENGTH_1 + "x";
const std::string GO_ON = "GET /box/80/" + HTTP_ON + "\r\n";
const std::string AT_80 = "?x-qv-devid=box&x-qv-port=80";
const std::string SEEN = "GET /" + AT_80 + HTTP_ON + "\r\n";
const strings PATIENT = {"--settle-timeout=0.01", "--reuse-timeout=60", "--repeat-timeout=60"};

std::string post(const std::string& body) {
    return "POST /box/80/" + HTTP_ON + "Content-Length: " + std::to_string(body.size()) +
           "\r\n\r\n" + body;
}

struct keeping : device {
    explicit keeping(strings options = PATIENT) : device(std::move(options)) {}
    void settle() const { EXPECT_TRUE(stays_silent(data.get(), test_duration{20})); }
    bool closes(uint32_t id) const { return hears() == frame_bytes(CLOSE_STREAM, id); }
    bool keeps(int streams) const {
        return has(get(hub, "/status.json"), "\"kept_streams\":" + std::to_string(streams) + ",");
    }
    void answers_on(uint32_t id, const std::string& bytes) {
        stream = id;
        answers(bytes);
    }
    // The request's frame on that stream, and what the user gets when the service says this to it.
    std::string serves(const unique_fd& user, uint32_t id, const std::string& request = GO_ON,
                       const std::string& response = X) {
        write_all(user.get(), request);
        const std::string frame = hears();
        opening = frame_payload(frame);
        EXPECT_EQ(frame, frame_bytes(DATA, stream = id, opening)) << request;
        answers(response);
        return read_exact(user.get(), response.size());
    }
    unique_fd comes() const { return loopback_connect(hub.front); }
};

// Pages, errors, answers of services and bodies, however many requests come at once.
TEST(GwrelayKeepAlive, AUserGetsTheAnswersInTheOrderOfHisRequests) {
    keeping box;
    const unique_fd user = box.comes();
    write_all(user.get(), "HEAD /status.json" + HTTP_ON + "\r\n" + GO_ON + "\r\n\n" + post("ab") +
                              "GET /nobody/" + HTTP_ON + "\r\n" + post("") + "GET /box/80" +
                              HTTP_ON + "\r\n" + GO_ON.substr(0, 9));
    EXPECT_TRUE(read_until(user.get(), "\r\n\r\n").starts_with(OK_ON + "Content-Type"));
    EXPECT_EQ(box.hears(), frame_bytes(DATA, 1, SEEN));
    EXPECT_TRUE(stays_silent(box.data.get(), A_MOMENT / 4)) << "one after the other";
    box.answers_on(1, X.substr(0, X.size() - 1));
    EXPECT_EQ(read_exact(user.get(), X.size() - 1), X.substr(0, X.size() - 1));
    box.answers("x");
    EXPECT_EQ(read_exact(user.get(), 1), "x");
    EXPECT_TRUE(box.closes(1)) << "what may not be repeated takes the place of what is kept";
    EXPECT_TRUE(frame_payload(box.hears()).ends_with("Content-Length: 2\r\n\r\nab"));
    box.answers_on(2, X);
    EXPECT_EQ(read_exact(user.get(), X.size()), X);
    EXPECT_TRUE(has(read_until(user.get(), "No such device.\n"), "HTTP/1.1 404 Not Found\r\nC"));
    EXPECT_TRUE(box.closes(2));
    EXPECT_TRUE(frame_payload(box.hears()).ends_with("Content-Length: 0\r\n\r\n"));
    box.answers_on(3, X);
    EXPECT_EQ(read_exact(user.get(), X.size()), X);
    EXPECT_TRUE(has(read_until(user.get(), "\r\n\r\n"), "\r\nLocation: /box/80/\r\n\r\n"));
    EXPECT_EQ(box.serves(user, 3, GO_ON.substr(9)), X);
}

TEST(GwrelayKeepAlive, AUsersConnectionEndsWhereNothingMayFollow) {
    const std::string http_1_0 = "GET /box/80/ HTTP/1.0\r\n", on = "Connection: keep-alive\r\n";
    const std::string chunked = OK_ON + "Transfer-Encoding: chunked\r\n\r\n0\r\n\r\n";
    const auto with = [](const std::string& response, const std::string& line) {
        std::string whole = response;
        return whole.insert(response.find('\n') + 1, line);
    };
    struct {
        std::string request, sent, got;
        bool ends = true;
    } const cases[] = {
        {GO_ON, X, X, false},
        {GO_ON, OK + LENGTH_1 + "x", X, false},
        {GO_ON, "HTTP/1.0 200 OK\r\n" + LENGTH_1 + "x", X, false},
        {GO_ON, chunked, chunked, false},
        {http_1_0 + on + "\r\n", X, with(X, on), false},
        {http_1_0 + on + "\r\n", chunked, with(chunked, CLOSE)},
        {http_1_0 + "\r\n", X, with(X, CLOSE)},
        {GET_BOX, X, with(X, CLOSE)},
        {GO_ON, X + "y", X},
        {GO_ON, OK_ON + "\r\nendless", OK + "\r\nendless"},
        {GO_ON, chunked.substr(0, chunked.size() - 4) + "\n\r\n",
         chunked.substr(0, chunked.size() - 4) + "\n\r\n"},
    };
    device box({"--linger-timeout=0.1", "--reuse-timeout=0.1"});
    for (const auto& [request, sent, got, ends] : cases) {
        const unique_fd user = box.user(request);
        box.answers(sent);
        EXPECT_EQ(ends ? read_with_end(user) : read_exact(user.get(), got.size()),
                  (ends ? "end:" : "") + got);
        if (!ends) {
            write_all(user.get(), "GET /" + HTTP + "\r\n");
            EXPECT_TRUE(read_with_end(user).starts_with("end:" + OK));
        }
        while (box.hears() != frame_bytes(CLOSE_STREAM, box.stream)) {
        }
    }
}

// What is malformed ends everything; before its head has gone out, an answer can say so.
TEST(GwrelayKeepAlive, ABrokenMessageEndsTheStreamAndTheUsersConnection) {
    const std::string chunked = "Transfer-Encoding: chunked\r\n\r\n";
    const std::string two = "Content-Length: 2\r\n" + LENGTH_1, head = OK_ON + chunked;
    const std::string bad = "POST /box/80/" + HTTP_ON + chunked + "2\r\nab\r\nx\r\n";
    device box;
    for (const auto& [request, sent, got] :
         {std::tuple{GO_ON, head + "1\r\nabc\r\n", "reset:"s},
          {GO_ON, head + "x\r\n", "reset:"s},
          {GO_ON, OK_ON + two, "end:HTTP/1.1 502 Bad Gateway\r\n" + CLOSE},
          {bad, OK_ON, "end:HTTP/1.1 400 Bad Request\r\n" + CLOSE}}) {
        const unique_fd user = box.user(request);
        box.answers(sent);
        EXPECT_TRUE(read_with_end(user).starts_with(got)) << request << sent;
        EXPECT_EQ(box.hears(), frame_bytes(CLOSE_STREAM, box.stream));
    }
}

TEST(GwrelayKeepAlive, AUserMayBeIdleForAWhileButNotWithinARequest) {
    const relay hub({"--idle-timeout=0.3", "--login-timeout=0.6"});
    const unique_fd idle = say_to(hub.front, "GET /nobody/" + HTTP_ON + "\r\n\r\n");
    const unique_fd slow = say_to(hub.front, "GET /nobody/" + HTTP_ON + "\r\nG");
    EXPECT_TRUE(has(read_with_end(idle), "404 Not Found\r\nContent-Type"));
    EXPECT_FALSE(has(hub.process.errors(), "in time"));
    EXPECT_TRUE(read_with_end(slow).starts_with("reset:"));
    EXPECT_TRUE(has(hub.process.errors(), ": closed: said nothing useful in time\n"));
}

// The rest of what he has sent waits: only the service's answer tells for whom it is.
TEST(GwrelayKeepAlive, AnUpgradeIsCarriedWhenTheServiceTakesIt) {
    const std::string upgrade =
        "GET /box/80/" + HTTP_ON + "Connection: Upgrade\r\nUpgrade: x\r\n\r\n";
    const std::string switched = "HTTP/1.1 101 Other\r\nConnection: Upgrade\r\n\r\n";
    keeping box;
    const unique_fd user = box.comes(), other = box.comes();
    EXPECT_EQ(box.serves(user, 1), X);
    write_all(user.get(), upgrade + "early");
    EXPECT_TRUE(box.closes(1)) << "an upgrade has a stream of its own";
    EXPECT_EQ(frame_stream(box.hears()), 2U);
    EXPECT_TRUE(stays_silent(box.data.get(), A_MOMENT / 4));
    box.answers_on(2, switched + "hello");
    EXPECT_EQ(read_exact(user.get(), switched.size() + 5), switched + "hello");
    EXPECT_EQ(box.hears(), frame_bytes(DATA, 2, "early"));
    write_all(user.get(), GO_ON);
    EXPECT_EQ(box.hears(), frame_bytes(DATA, 2, GO_ON)) << "no request any more";
    EXPECT_EQ(box.serves(other, 3, upgrade + "GET /nobody/" + HTTP_ON + "\r\n"), X);
    EXPECT_TRUE(box.closes(3));
    EXPECT_TRUE(read_until(other.get(), "No such device.\n").starts_with("HTTP/1.1 404 "));
}

// The first payload alone needs the question whether the port is alive.
TEST(GwrelayReuse, AStreamGoesOnWithTheNextRequestToItsPort) {
    device box({"--reuse-timeout=60"}, true);
    const unique_fd user = say_to(box.hub.front, GO_ON);
    box.hears(), box.hears(), box.hears();
    box.stream = 1;
    for (const char* path : {"", "b?c", "x-qv-port=81"}) {
        box.answers(X);
        EXPECT_EQ(read_exact(user.get(), X.size()), X);
        write_all(user.get(), "GET /box/80/"s + path + HTTP_ON + "\r\n");
        EXPECT_EQ(frame_stream(box.hears()), 1U);
    }
    box.answers(OK + LENGTH_1 + "x");
    EXPECT_EQ(box.hears(), frame_bytes(CLOSE_STREAM, 1));
}

TEST(GwrelayReuse, IsForTheSamePortAndPriorityAndNeverForWhatMayNotBeRepeated) {
    const std::string at_81 = "GET /box/81/" + HTTP_ON + "\r\n",
                      other_priority = "GET /box/80/?gwrelay-pri=3" + HTTP_ON + "\r\n";
    keeping box;
    const unique_fd user = box.comes(), other = box.comes(), third = box.comes();
    EXPECT_EQ(box.serves(user, 1), X);
    EXPECT_EQ(box.serves(user, 2, at_81), X);
    EXPECT_EQ(box.serves(user, 3, other_priority), X);
    EXPECT_EQ(box.serves(user, 2, at_81), X);
    EXPECT_EQ(box.serves(user, 1, "GET /box/80/?gwrelay-pri=4" + HTTP_ON + "\r\n"), X);
    EXPECT_TRUE(has(get(box.hub, "/status.json"), "\"open_streams\":3,\"kept_streams\":3,"));
    EXPECT_TRUE(has(get(box.hub, "/"), "<td>81</td><td>kept for the next request</td>"));
    box.settle();
    EXPECT_EQ(box.serves(other, 1), X);
    EXPECT_EQ(box.serves(user, 3, other_priority), X);
    write_all(third.get(), post("a"));
    EXPECT_TRUE(box.closes(1)) << "it takes the place of what has been kept for the longest";
    EXPECT_EQ(frame_stream(box.hears()), 4U);
}

TEST(GwrelayReuse, AnotherUserGetsWhatHasBeenSilentForAMoment) {
    keeping box({"--settle-timeout=60", "--reuse-timeout=60"});
    const unique_fd user = box.comes(), other = box.comes();
    EXPECT_EQ(box.serves(user, 1), X);
    EXPECT_EQ(box.serves(other, 2), X);
    EXPECT_EQ(box.serves(user, 1), X);
    EXPECT_EQ(box.serves(other, 2), X);
}

TEST(GwrelayReuse, NeedsAResponseAfterWhichTheServiceWaits) {
    const std::string keep_alive = "Keep-Alive: ", head = "HEAD /box/80/" + HTTP_ON + "\r\n";
    struct {
        bool kept;
        std::string request, response;
    } const cases[] = {
        {true, GO_ON, X},
        {true, post("a"), X},
        {true, head, OK_ON + LENGTH_1},
        {true, GO_ON, "HTTP/1.0 200 OK\r\nConnection: keep-alive\r\n" + LENGTH_1 + "x"},
        {true, GO_ON, OK_ON + keep_alive + "timeout=5, max=1\r\n" + LENGTH_1 + "x"},
        {true, GET_BOX, X},
        {false, GO_ON, OK + LENGTH_1 + "x"},
        {false, GO_ON, OK_ON + keep_alive + "timeout=0\r\n" + LENGTH_1 + "x"},
        {false, GO_ON, OK_ON + "no header\r\n" + LENGTH_1 + "x"},
        {false, head, X},
        {false, "GET /box/80/" + HTTP_ON + LENGTH_1 + "a", X},
        {false, "GET /box/10010/" + HTTP_ON + "\r\n", X},
    };
    for (const auto& [kept, request, response] : cases) {
        keeping box;
        const unique_fd user = box.user(request);
        box.answers(response);
        if (kept) {
            EXPECT_TRUE(eventually([&] { return box.keeps(1); })) << request << response;
            EXPECT_TRUE(stays_silent(box.data.get(), test_duration{1}));
        } else {
            EXPECT_TRUE(box.closes(1)) << request << response;
        }
    }
}

TEST(GwrelayReuse, IsOverAfterAWhileAndEarlierWhenTheServiceHasPromisedLess) {
    device box({"--reuse-timeout=1.2"});
    const auto began = std::chrono::steady_clock::now();
    for (const char* promise : {"", "Keep-Alive: timeout=1\r\n"}) {
        const unique_fd user = box.user(GO_ON);
        box.answers(OK_ON + promise + LENGTH_1 + "x");
    }
    EXPECT_EQ(box.hears(), frame_bytes(CLOSE_STREAM, 2));
    EXPECT_EQ(box.hears(), frame_bytes(CLOSE_STREAM, 1));
    EXPECT_GE(std::chrono::steady_clock::now() - began, test_duration{1200});
}

// Of what a service says late, nothing reaches the next user.
TEST(GwrelayReuse, LateBytesEndTheStreamAndAreNobodys) {
    keeping box;
    const unique_fd user = box.comes();
    EXPECT_EQ(box.serves(user, 1), X);
    box.answers("late");
    EXPECT_TRUE(box.closes(1));
    EXPECT_EQ(box.serves(user, 2), X);
    write_all(user.get(), GO_ON);
    EXPECT_EQ(frame_stream(box.hears()), 2U);
    box.answers("late" + X);
    EXPECT_TRUE(box.closes(2));
    EXPECT_EQ(box.hears(), frame_bytes(DATA, 3, SEEN)) << "once more";
    box.answers_on(3, X);
    EXPECT_EQ(read_exact(user.get(), X.size()), X);
    write_all(user.get(), GO_ON);
    EXPECT_EQ(frame_stream(box.hears()), 3U) << "the service is not to blame";
    box.answers(X + X);
    EXPECT_EQ(read_with_end(user), "end:" + X);
    EXPECT_TRUE(box.closes(3));
}

// A service that answers early may not read the rest, or take it for a request.
TEST(GwrelayReuse, NeedsARequestThatWasWholeBeforeTheResponse) {
    keeping box({"--linger-timeout=0.1"});
    const std::string request = post("ab"), go_on = "HTTP/1.1 100 Continue\r\n\r\n";
    const unique_fd user = box.user(request.substr(0, request.size() - 1));
    box.answers(go_on + X);
    EXPECT_EQ(read_until(user.get(), "\r\n\r\nx"), go_on + OK + LENGTH_1 + "x");
    write_all(user.get(), "b" + GO_ON);
    EXPECT_EQ(box.hears(), frame_bytes(DATA, 1, "b"));
    EXPECT_TRUE(box.closes(1));
    EXPECT_EQ(read_with_end(user), "end:");
}

TEST(GwrelayReuse, WhatIsNotAnsweredGoesOnceMoreOnANewStream) {
    keeping box({"--settle-timeout=0.01", "--reuse-timeout=60", "--repeat-timeout=0.2",
                 "--answer-timeout=0.6"});
    const unique_fd user = box.comes(), other = box.comes();
    EXPECT_EQ(box.serves(user, 1), X);
    EXPECT_EQ(box.serves(other, 2, "GET /box/81/" + HTTP_ON + "\r\n"), X);
    write_all(user.get(), GO_ON);
    EXPECT_EQ(frame_stream(box.hears()), 1U);
    EXPECT_TRUE(box.closes(1));
    EXPECT_EQ(box.hears(), frame_bytes(DATA, 3, SEEN));
    EXPECT_TRUE(has(read_until(user.get(), "answers.\n"), " 504 ")) << "not a third time";
    EXPECT_TRUE(box.closes(3));
    EXPECT_EQ(box.serves(user, 4), X);
    EXPECT_TRUE(box.closes(4)) << "the port is left alone for a while";
    EXPECT_TRUE(box.keeps(1)) << "the other one is not";
}

TEST(GwrelayReuse, WhatIsNotAnsweredGoesToAnotherDataConnectionWhenItsOwnEnds) {
    keeping box;
    const unique_fd user = box.comes();
    EXPECT_EQ(box.serves(user, 1), X);
    const unique_fd second = data_login(box.hub, "box");
    write_all(user.get(), GO_ON);
    EXPECT_EQ(frame_stream(box.hears()), 1U);
    box.answers("HTTP/1.1 20");
    EXPECT_TRUE(still_echoes(box.data));
    box.data.reset();
    EXPECT_EQ(frame_read(second.get()), frame_bytes(DATA, 2, SEEN));
    write_all(second.get(), frame_bytes(DATA, 2, X));
    EXPECT_EQ(read_exact(user.get(), X.size()), X);
    EXPECT_TRUE(box.keeps(1));
}

TEST(GwrelayReuse, WhatIsKeptGivesWayToNewStreams) {
    strings options = PATIENT;
    options.push_back("--device-streams=10");  // two on each data connection
    keeping box(options);
    const unique_fd user = box.comes();
    EXPECT_EQ(box.serves(user, 1), X);
    EXPECT_EQ(box.serves(user, 2, "GET /box/81/" + HTTP_ON + "\r\n"), X);
    write_all(user.get(), "GET /box/82/" + HTTP_ON + "\r\n");
    EXPECT_TRUE(box.closes(1));
    EXPECT_EQ(frame_stream(box.hears()), 3U);
}

TEST(GwrelayReuse, CanBeSwitchedOff) {
    keeping box({"--no-reuse"});
    const unique_fd user = box.comes();
    EXPECT_EQ(box.serves(user, 1), X);
    EXPECT_TRUE(has(box.opening, "\r\n" + CLOSE) && box.closes(1));
    EXPECT_EQ(box.serves(user, 2), X);
}

}  // namespace
