// Devices by name: the service gets what the user has sent, on streams that the relay opens itself.

#include "relay/fixture.h"

namespace {

const std::string HOST = "Host: box--80.localhost:8080\r\n";
const std::string TOLD = FORWARDED + "X-Forwarded-Host: box--80.localhost:8080\r\n";
const std::string ASK = "HEAD /?x-qv-devid=box&x-qv-port=80" + HTTP_ON + HOST + TOLD + "\r\n";
const std::string PATH = "/a?&b=x-qv-port=1&gwrelay-pri=3&";
const std::string SENT = PATH + HTTP_ON + HOST, SEEN = SENT + TOLD;
const std::string EMPTY = OK_ON + "Content-Length: 0\r\n\r\n",
                  X = OK_ON + "Content-Length: 1\r\n\r\nx";
const std::string OPENED_BY_ITSELF =
    "GET /a?x-qv-devid=box&x-qv-port=80&&b=%78-qv-port=1&gwrelay-pri=3&" + HTTP_ON + HOST + TOLD +
    "\r\n";

std::string asked_at(const relay& hub, const std::string& host, const std::string& path = "/") {
    return fetch(hub, "GET " + path + HTTP + "Host: " + host + "\r\n\r\n").substr(9, 3);
}

struct named : device {
    using device::device;
    // What of a user's request reaches the service, as its first frame or the next one.
    std::string next() const { return frame_payload(hears()); }
    bool closes() { return hears() == frame_bytes(CLOSE_STREAM, stream); }
    // A user whose request is preceded by the relay's own, which gets this answer.
    unique_fd asks(const std::string& request, const std::string& answer = EMPTY) {
        unique_fd fd = user(request);
        EXPECT_EQ(opening, ASK);
        answers(answer);
        return fd;
    }
    std::string gets(const unique_fd& fd, const std::string& answer) const {
        answers(answer);
        return read_exact(fd.get(), answer.size());
    }
};

TEST(GwrelayNames, TheHostTellsWhoseARequestIs) {
    const relay hub({"--domain=Relay.example"});
    const unique_fd box = control_login(hub, "box"), odd = control_login(hub, "AA:BB"),
                    plain = control_login(hub, "plain");
    write_all(box.get(), frame_bytes(PORT_INFO, 0, R"({"http_port":8080})"));
    EXPECT_TRUE(still_echoes(box));
    const std::pair<const char*, strings> cases[] = {
        {"200",
         {"relay.example:8080", "127.0.0.1", "localhost", "box--80.localhost", "", "[::1]:80"}},
        // carried, were there a data connection
        {"503",
         {"box--80.relay.example", "BOX--65534.RELAY.example.:8080",
          "aa-bb--xz2y--80.relay.example", "box.relay.example"}},
        {"404",
         {"nobody--80.relay.example", "aa-bb--80.relay.example", "plain.relay.example",
          "box--0.relay.example", "a.box--80.relay.example", ".relay.example"}},
    };
    for (const auto& [code, hosts] : cases) {
        for (const std::string& host : hosts) {
            EXPECT_EQ(asked_at(hub, host), code) << host;
        }
    }
    EXPECT_EQ(asked_at(hub, "nobody.relay.example", "/status.json"), "404");
    EXPECT_EQ(asked_at(hub, "relay.example", "/status.json"), "200");
    EXPECT_TRUE(
        fetch(hub, "GET / HTTP/1.1\r\nHost: 10.0.0.1\r\nhost: box--80.relay.example\r\n\r\n")
            .starts_with("HTTP/1.1 400 "));
}

// Whatever its method, and its body with it. The answer to the relay's own request is nobody's.
TEST(GwrelayNames, ARequestPassesAsItsUserHasMadeIt) {
    named box;
    const std::string tail = "Content-Length: 2\r\n", body = "\r\nhi";
    const unique_fd first = box.asks("GET " + SENT + "Cookie: a\r\n\r\n",
                                     "HTTP/1.1 501 No\r\nContent-Length: 9\r\n\r\n");
    EXPECT_EQ(box.next(), "GET " + SENT + "Cookie: a\r\n" + TOLD + "\r\n");
    EXPECT_EQ(box.gets(first, X), X);
    write_all(first.get(), "GET " + SENT + "\r\n");
    EXPECT_EQ(box.hears(), frame_bytes(DATA, 1, "GET " + SEEN + "\r\n")) << "on the same stream";
    EXPECT_EQ(box.gets(first, X), X);
    write_all(first.get(), "OPTIONS " + SENT + "\r\n");
    EXPECT_TRUE(box.closes()) << "which only what changes nothing takes";
    EXPECT_EQ(box.hears(), frame_bytes(DATA, ++box.stream, ASK));
    box.answers(EMPTY);
    EXPECT_EQ(box.next(), "OPTIONS " + SEEN + "\r\n");
    EXPECT_EQ(box.gets(first, EMPTY), EMPTY);
    for (const char* method : {"POST ", "PUT ", "DELETE "}) {
        write_all(first.get(), method + SENT + tail + body);
        EXPECT_TRUE(box.closes()) << method;
        EXPECT_EQ(box.hears(), frame_bytes(DATA, ++box.stream, ASK));
        box.answers(EMPTY);
        const std::string seen = box.next(),
                          end = std::string(method) == "POST " ? body : CLOSE + body;
        EXPECT_EQ(seen, method + SENT + tail + TOLD + end);
        EXPECT_EQ(box.gets(first, X), X);
    }
    EXPECT_TRUE(
        has(box.hub.process.errors(), "port 80 takes requests behind one of the relay's own"));
}

// A request that may go twice finds out. What it has found out holds for others.
TEST(GwrelayNames, AServiceThatDoesNotGoOnGetsRequestsThatOpenAStream) {
    const std::string get = "GET " + SENT + "\r\n";
    for (const std::string& answer :
         {OK + "\r\n", "HTTP/1.0 200 OK\r\n\r\n"s, EMPTY + "<html>", "rubbish"s, ""s}) {
        named box({answer.empty() ? "--repeat-timeout=0.1" : "--repeat-timeout=60"});
        const unique_fd user = box.asks(get, answer);
        EXPECT_TRUE(box.closes()) << answer;
        EXPECT_EQ(box.hears(), frame_bytes(DATA, ++box.stream, OPENED_BY_ITSELF));
        EXPECT_EQ(box.gets(user, X), X);
        write_all(user.get(), "DELETE " + SENT + "\r\n");
        EXPECT_TRUE(has(read_until(user.get(), "HEAD.\n"), " 405 ")) << answer;
        EXPECT_TRUE(box.closes());
        box.user(get);
        EXPECT_EQ(box.opening, OPENED_BY_ITSELF);
    }
}

// Once a service is known to go on, it has all the time of others.
TEST(GwrelayNames, OnlyAServiceThatIsNotKnownHasToAnswerSoon) {
    const std::string get = "GET " + SENT + "\r\n", post = "POST " + SENT + "\r\n";
    named box({"--repeat-timeout=1"});
    const unique_fd unknown = box.user(post);
    EXPECT_TRUE(box.opening.starts_with("POST /a?x-qv-devid=")) << "this one may go only once";
    const unique_fd left_alone = box.asks(get);
    EXPECT_EQ(box.next(), "GET " + SEEN + "\r\n");
    EXPECT_TRUE(box.closes()) << "after a second";
    EXPECT_EQ(box.hears(), frame_bytes(DATA, ++box.stream, OPENED_BY_ITSELF));

    named other({"--repeat-timeout=1", "--answer-timeout=3"});
    const std::string last = OK + "Content-Length: 1\r\n\r\nx";
    for (int request = 0; request < 3; ++request) {
        const unique_fd user = other.asks(request == 1 ? post : get);
        EXPECT_FALSE(other.next().empty());
        EXPECT_TRUE(request == 0 || stays_silent(other.data.get(), 7 * A_MOMENT));
        if (request < 2) {
            other.answers(last);
            EXPECT_EQ(read_exact(user.get(), X.size()), X);
        } else {
            EXPECT_TRUE(has(read_until(user.get(), "answers.\n"), " 504 "));
        }
        EXPECT_TRUE(other.closes());
    }
    other.user(get);
    EXPECT_EQ(other.opening, OPENED_BY_ITSELF) << "not known any more";
}

TEST(GwrelayNames, ADeadPortIsToldAtOnce) {
    device box({}, true);
    const unique_fd user = say_to(box.hub.front, "DELETE " + SENT + CLOSE + "\r\n");
    EXPECT_TRUE(frame_payload(box.hears()).starts_with(ASK.substr(0, ASK.size() - 2)));
    const uint32_t id = (box.hears(), frame_stream(box.hears()));
    box.says(frame_bytes(DATA, id, OK));
    EXPECT_TRUE(has(read_with_end(user), "Nothing listens on port 80"));
    EXPECT_EQ(box.hears(), frame_bytes(CLOSE_STREAM, 1));
}

// Nobody is told of the service's end otherwise.
TEST(GwrelayNames, AWebSocketEndsWhenBothSidesHaveLeft) {
    const std::string upgrade = "Connection: Upgrade\r\nUpgrade: websocket\r\n\r\n";
    const std::string switched = "HTTP/1.1 101 Switching\r\n" + upgrade, close = "\x88\x80mask";
    for (const bool user_first : {true, false}) {
        named box;
        const unique_fd user = box.user("GET " + SENT + upgrade + (user_first ? close : ""));
        EXPECT_EQ(box.gets(user, switched), switched);
        if (user_first) {
            EXPECT_EQ(box.next(), close);
        }
        EXPECT_EQ(box.gets(user, "\x81\1a\x88\2\3"), "\x81\1a\x88\2\3");
        EXPECT_TRUE(stays_silent(box.data.get(), A_MOMENT / 4));
        box.answers("\xe8");
        if (!user_first) {
            EXPECT_TRUE(stays_silent(box.data.get(), A_MOMENT / 4));
            write_all(user.get(), close);
            EXPECT_EQ(box.next(), close);
        }
        EXPECT_EQ(read_with_end(user), "end:\xe8");
        EXPECT_TRUE(box.closes());
    }
}

TEST(GwrelayNames, APathOfTheRelayIsInFrontOfWhatTheServiceSaysOfItself) {
    device box({"--service-host=127.0.0.1"});
    const unique_fd user =
        box.user("GET /b%6fx/81/" + HTTP_ON + "Host: 10.0.0.1:8080\r\nx-forwarded-for: me\r\n" +
                 CLOSE + "Origin: http://10.0.0.1:8080\r\n\r\n");
    EXPECT_TRUE(box.opening.ends_with(HTTP_ON +
                                      "Host: 127.0.0.1:81\r\nOrigin: http://127.0.0.1:81\r\n" +
                                      FORWARDED + "X-Forwarded-Host: 10.0.0.1:8080\r\n\r\n"))
        << box.opening;
    box.answers(
        "HTTP/1.1 103 Early\r\nLocation: /a\r\n\r\n" + OK_ON +
        "Location: http://127.0.0.1:81/b?x-qv-devid=box&x-qv-port=81\r\nSet-Cookie: a=b; path=/\r\n"
        "Content-Length: 0\r\n\r\n");
    EXPECT_EQ(read_with_end(user),
              "end:HTTP/1.1 103 Early\r\nLocation: /b%6fx/81/a\r\n\r\n" + OK +
                  "Location: /b%6fx/81/b\r\nSet-Cookie: a=b; path=/b%6fx/81/\r\n"
                  "Content-Length: 0\r\n\r\n");
}

// Who is turned away may see the relay's page, but not as if it were a device's.
TEST(GwrelayNames, ShowNothingOfTheRelay) {
    const relay hub({"--users=1"});
    const unique_fd only = loopback_connect(hub.front);
    EXPECT_TRUE(eventually([&] { return has(get(hub, "/status.json"), "\"users\":1"); }));
    EXPECT_EQ(asked_at(hub, "127.0.0.1"), "200");
    EXPECT_EQ(asked_at(hub, "box--80.localhost"), "503");
}

}  // namespace
