// Connections that serve one request after another: a user's, and a stream to a service.

#include "relay/fixture.h"

namespace {

const std::string LENGTH_1 = "Content-Length: 1\r\n\r\n", X = OK_ON + LENGTH_1 + "x";
const std::string CHUNKED = "Transfer-Encoding: chunked\r\n\r\n";
const std::string GO_ON = "GET /box/80/" + HTTP_ON + "\r\n",
                  ON_81 = "GET /box/81/" + HTTP_ON + "\r\n";
const std::string POST = "POST /box/80/" + HTTP_ON + LENGTH_1, POSTED = POST + "a";
const std::string SEEN = "GET /?x-qv-devid=box&x-qv-port=80" + HTTP_ON + FORWARDED + "\r\n";
const std::string UPGRADE = "GET /box/80/" + HTTP_ON + "Connection: Upgrade\r\nUpgrade: x\r\n\r\n";

struct keeping : device {
    explicit keeping(strings more = {})
        : device((more.insert(more.begin(), "--reuse-timeout=60"), more)) {}
    bool closes(uint32_t id) const { return hears() == frame_bytes(CLOSE_STREAM, id); }
    bool keeps(int streams) const {
        return has(get(hub, "/status.json"), "\"kept_streams\":" + std::to_string(streams) + ",");
    }
    unique_fd comes() const { return loopback_connect(hub.front); }
    std::string answered(const unique_fd& user, uint32_t id, const std::string& response = X) {
        says(data_frames(stream = id, response));
        return read_exact(user.get(), response.size());
    }
    // The request's frame on that stream, and what the user gets when the service says this to it.
    std::string serves(const unique_fd& user, uint32_t id, const std::string& request = GO_ON,
                       const std::string& response = X) {
        write_all(user.get(), request);
        const std::string frame = hears();
        opening = frame_payload(frame);
        EXPECT_EQ(frame, frame_bytes(DATA, id, opening)) << request;
        return answered(user, id, response);
    }
};

// Pages, errors, answers of services and bodies, however many requests come at once.
TEST(GwrelayKeepAlive, AUserGetsTheAnswersInTheOrderOfHisRequests) {
    keeping box;
    const unique_fd user = box.comes();
    write_all(user.get(), "HEAD /status.json" + HTTP_ON + "\r\n" + GO_ON + "\r\n\n" + POSTED +
                              "GET /nobody/" + HTTP_ON + "\r\n" + POSTED + "GET /box/80" + HTTP_ON +
                              "\r\n" + GO_ON.substr(0, 9));
    EXPECT_TRUE(read_until(user.get(), "\r\n\r\n").starts_with(OK_ON + "Content-Type"));
    EXPECT_EQ(box.hears(), frame_bytes(DATA, 1, SEEN));
    EXPECT_TRUE(stays_silent(box.data.get(), A_MOMENT / 4)) << "one after the other";
    EXPECT_EQ(box.answered(user, 1), X);
    EXPECT_TRUE(box.closes(1)) << "what may not be repeated takes the place of what is kept";
    EXPECT_TRUE(frame_payload(box.hears()).ends_with(FORWARDED + "\r\na"));
    EXPECT_EQ(box.answered(user, 2), X);
    EXPECT_TRUE(has(read_until(user.get(), "No such device.\n"), "HTTP/1.1 404 Not Found\r\nC"));
    EXPECT_TRUE(box.closes(2));
    EXPECT_TRUE(frame_payload(box.hears()).ends_with(FORWARDED + "\r\na"));
    EXPECT_EQ(box.answered(user, 3), X);
    EXPECT_TRUE(has(read_until(user.get(), "\r\n\r\n"), "\r\nLocation: /box/80/\r\n\r\n"));
    EXPECT_EQ(box.serves(user, 3, GO_ON.substr(9)), X);
}

TEST(GwrelayKeepAlive, AUsersConnectionEndsWhereNothingMayFollow) {
    const std::string http_1_0 = "GET /box/80/ HTTP/1.0\r\n", on = "Connection: keep-alive\r\n";
    const std::string chunks = "0\r\n\r\n", two = "Content-Length: 2\r\n" + LENGTH_1;
    const std::string bad = "POST /box/80/" + HTTP_ON + CHUNKED + "2\r\nab\r\nx\r\n";
    struct {
        std::string request, sent, got;  // "end:" or "reset:" in front: no request may follow
    } const cases[] = {
        {GO_ON, X, X},
        {GO_ON, OK + LENGTH_1 + "x", X},
        {GO_ON, OK_ON + CHUNKED + chunks, OK_ON + CHUNKED + chunks},
        {http_1_0 + on + "\r\n", X, OK_ON + on + LENGTH_1 + "x"},
        {http_1_0 + on + "\r\n", OK_ON + CHUNKED + chunks, "end:" + OK + CHUNKED + chunks},
        {http_1_0 + "\r\n", X, "end:" + OK + LENGTH_1 + "x"},
        {GET_BOX, X, "end:" + OK + LENGTH_1 + "x"},
        {GO_ON, X + "y", "end:" + X},
        {GO_ON, OK_ON + "\r\nendless", "end:" + OK + "\r\nendless"},
        {GO_ON, OK_ON + CHUNKED + "0\n\r\n", "end:" + OK_ON + CHUNKED + "0\n\r\n"},
        {GO_ON, OK_ON + CHUNKED + "1\r\nabc\r\n", "reset:"},
        {GO_ON, OK_ON + two, "end:HTTP/1.1 502 Bad Gateway\r\n" + CLOSE},
        {bad, OK_ON, "end:HTTP/1.1 400 Bad Request\r\n" + CLOSE},
    };
    device box({"--linger-timeout=0.1", "--reuse-timeout=0.1"});
    for (const auto& [request, sent, got] : cases) {
        const unique_fd user = box.user(request);
        box.answers(sent);
        if (got.starts_with(OK_ON)) {
            EXPECT_EQ(read_exact(user.get(), got.size()), got);
            write_all(user.get(), "GET /" + HTTP + "\r\n");
        }
        EXPECT_TRUE(read_with_end(user).starts_with(got.starts_with(OK_ON) ? "end:" + OK : got))
            << request << sent;
        EXPECT_EQ(box.hears(), frame_bytes(CLOSE_STREAM, box.stream));
    }
}

TEST(GwrelayKeepAlive, AUserMayBeIdleForAWhileButNotWithinARequest) {
    const relay hub({"--idle-timeout=0.3", "--login-timeout=1.5"});
    const unique_fd idle = say_to(hub.front, "GET /nobody/" + HTTP_ON + "\r\n\r\n");
    const unique_fd slow = say_to(hub.front, "GET /nobody/" + HTTP_ON + "\r\nG");
    EXPECT_TRUE(has(read_with_end(idle), "404 Not Found\r\nContent-Type"));
    EXPECT_FALSE(has(hub.process.errors(), "in time"));
    EXPECT_TRUE(read_with_end(slow).starts_with("reset:"));
}

// The rest of what he has sent waits: only the service's answer tells for whom it is.
TEST(GwrelayKeepAlive, AnUpgradeIsCarriedWhenTheServiceTakesIt) {
    const std::string switched = "HTTP/1.1 101 Other\r\nConnection: Upgrade\r\n\r\n";
    keeping box;
    const unique_fd user = box.comes(), other = box.comes();
    EXPECT_EQ(box.serves(user, 1), X);
    write_all(user.get(), UPGRADE + "early");
    EXPECT_TRUE(box.closes(1)) << "an upgrade has a stream of its own";
    EXPECT_EQ(frame_stream(box.hears()), 2U);
    EXPECT_TRUE(stays_silent(box.data.get(), A_MOMENT / 4));
    EXPECT_EQ(box.answered(user, 2, switched + "hello"), switched + "hello");
    EXPECT_EQ(box.hears(), frame_bytes(DATA, 2, "early"));
    write_all(user.get(), GO_ON);
    EXPECT_EQ(box.hears(), frame_bytes(DATA, 2, GO_ON)) << "no request any more";
    EXPECT_EQ(box.serves(other, 3, UPGRADE + "GET /nobody/" + HTTP_ON + "\r\n"), X);
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
}

TEST(GwrelayReuse, IsForTheSamePortAndPriorityAndNeverForWhatMayNotBeRepeated) {
    const std::string priority_3 = "GET /box/80/?gwrelay-pri=3" + HTTP_ON + "\r\n";
    keeping box;
    const unique_fd user = box.comes(), other = box.comes(), third = box.comes();
    EXPECT_EQ(box.serves(user, 1), X);
    EXPECT_EQ(box.serves(user, 2, ON_81), X);
    EXPECT_EQ(box.serves(user, 3, priority_3), X);
    EXPECT_EQ(box.serves(user, 2, ON_81), X);
    EXPECT_EQ(box.serves(user, 1, "GET /box/80/?gwrelay-pri=4" + HTTP_ON + "\r\n"), X);
    EXPECT_TRUE(has(get(box.hub, "/status.json"), "\"open_streams\":3,\"kept_streams\":3,"));
    EXPECT_TRUE(has(get(box.hub, "/status.json"), "\"kept\":[80,81,80]"));
    EXPECT_TRUE(stays_silent(box.data.get(), test_duration{10}));
    EXPECT_EQ(box.serves(other, 1), X);
    EXPECT_EQ(box.serves(user, 3, priority_3), X);
    write_all(third.get(), POSTED);
    EXPECT_TRUE(box.closes(1)) << "it takes the place of what has been kept for the longest";
    EXPECT_EQ(frame_stream(box.hears()), 4U);
}

TEST(GwrelayReuse, AnotherUserGetsWhatHasBeenSilentForAMoment) {
    keeping box({"--settle-timeout=60"});
    const unique_fd user = box.comes(), other = box.comes();
    for (int requests = 0; requests < 2; ++requests) {
        EXPECT_EQ(box.serves(user, 1), X);
        EXPECT_EQ(box.serves(other, 2), X);
    }
}

TEST(GwrelayReuse, NeedsAResponseAfterWhichTheServiceWaits) {
    const std::string head = "HEAD /box/80/" + HTTP_ON + "\r\n";
    const std::tuple<bool, std::string, std::string> cases[] = {
        {true, POSTED, X},
        {true, GET_BOX, X},
        {true, head, OK_ON + LENGTH_1},
        {false, head, X},
        {false, GO_ON, OK + LENGTH_1 + "x"},
        {false, GO_ON, OK_ON + "no header\r\n" + LENGTH_1 + "x"},
        {false, "GET /box/80/" + HTTP_ON + LENGTH_1 + "a", X},
        {false, "POST /box/80/" + HTTP_ON + CHUNKED + "0\r\n\r\n", X},
        {false, "GET /box/10010/" + HTTP_ON + "\r\n", X},
    };
    for (const auto& [kept, request, response] : cases) {
        keeping box;
        const unique_fd user = box.user(request);
        box.answers(response);
        EXPECT_TRUE(kept ? eventually([&] { return box.keeps(1); }) : box.closes(1))
            << request << response;
    }
}

TEST(GwrelayReuse, IsOverAfterAWhileAndEarlierWhenTheServiceHasPromisedLess) {
    device box({"--reuse-timeout=2.5"});
    const auto began = std::chrono::steady_clock::now();
    for (const char* promise : {"", "Keep-Alive: timeout=1\r\n"}) {
        const unique_fd user = box.user(GO_ON);
        box.answers(OK_ON + promise + LENGTH_1 + "x");
    }
    EXPECT_EQ(box.hears(), frame_bytes(CLOSE_STREAM, 2));
    EXPECT_EQ(box.hears(), frame_bytes(CLOSE_STREAM, 1));
    EXPECT_GE(std::chrono::steady_clock::now() - began, test_duration{2500});
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
    EXPECT_EQ(box.answered(user, 3), X);
    EXPECT_EQ(box.serves(user, 3), X) << "the service is not to blame";
}

// A service that answers early may not read the rest, or take it for a request.
TEST(GwrelayReuse, NeedsARequestThatWasWholeBeforeTheResponse) {
    keeping box({"--linger-timeout=0.1"});
    const std::string go_on = "HTTP/1.1 100 Continue\r\n\r\n";
    const unique_fd user = box.user(POST);
    box.answers(go_on + X);
    EXPECT_EQ(read_until(user.get(), "\r\n\r\nx"), go_on + OK + LENGTH_1 + "x");
    write_all(user.get(), "a" + GO_ON);
    EXPECT_EQ(box.hears(), frame_bytes(DATA, 1, "a"));
    EXPECT_TRUE(box.closes(1));
    EXPECT_EQ(read_with_end(user), "end:");
}

TEST(GwrelayReuse, WhatIsNotAnsweredGoesOnceMoreOnANewStream) {
    keeping box({"--repeat-timeout=1", "--answer-timeout=2"});
    const unique_fd user = box.comes();
    EXPECT_EQ(box.serves(user, 1), X);
    EXPECT_EQ(box.serves(user, 2, ON_81), X);
    write_all(user.get(), GO_ON);
    EXPECT_EQ(frame_stream(box.hears()), 1U);
    EXPECT_TRUE(box.closes(1));
    EXPECT_EQ(box.hears(), frame_bytes(DATA, 3, SEEN));
    EXPECT_TRUE(has(read_until(user.get(), "answers.\n"), " 504 ")) << "not a third time";
    EXPECT_TRUE(box.closes(3));
    EXPECT_EQ(box.serves(user, 4), X);
    EXPECT_TRUE(box.closes(4)) << "the port is left alone for a while";
    EXPECT_EQ(box.serves(user, 2, ON_81), X) << "the other one is not";
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
}

TEST(GwrelayReuse, GivesWayToNewStreamsAndCanBeSwitchedOff) {
    keeping box({"--device-streams=10"}), without({"--no-reuse"});  // two on a data connection
    const unique_fd user = box.comes(), other = without.comes();
    EXPECT_EQ(box.serves(user, 1), X);
    EXPECT_EQ(box.serves(user, 2, ON_81), X);
    write_all(user.get(), "GET /box/82/" + HTTP_ON + "\r\n");
    EXPECT_TRUE(box.closes(1));
    EXPECT_EQ(frame_stream(box.hears()), 3U);
    EXPECT_EQ(without.serves(other, 1), X);
    EXPECT_TRUE(has(without.opening, "\r\n" + CLOSE) && without.closes(1));
    EXPECT_EQ(without.serves(other, 2), X);
}

}  // namespace
