// The front door: what it refuses, what it answers itself, and what a device gets of the rest: its
// parameters, and nothing else that looks like them.

#include "relay/fixture.h"

namespace {

TEST(GwrelayFrontDoor, RefusesWhatItCannotCarry) {
    const relay hub;
    std::vector<unique_fd> devices;
    for (const char* id : {"box", "a b", "a&b", "a\x7f", "x-qv-port=1"}) {
        devices.push_back(control_login(hub, id));
    }
    const std::string http = HTTP.substr(0, HTTP.size() - 2), start = "GET /box/80/" + HTTP + "A: ";
    const std::string longest(65536 - start.size() - 4, 'a');
    const std::pair<std::string, strings> cases[] = {
        {"400",
         {"rubbish", "GET /box/80/", "GET box/80/" + http, "GET /box/80/\t" + http,
          "GET /box/80/\x7f" + http, "GET /box/80/ HTTP/2", "GET /box/80/?gwrelay-pri=x" + http,
          "GET /box/80/?gwrelay-pri=-1" + http}},
        {"404",
         {"GET /box/65535/" + http, "GET /box/0/" + http, "GET /box/http/" + http,
          "GET /box%/1/" + http}},
        {"405", {"PUT /box/10010/" + http, "POST /" + http}},
        {"431", {start + longest + "a"}},
        // carried, were the id one that a device recognises in its request
        {"502",
         {"GET /a%20b/80/" + http, "GET /a%26b/80/" + http, "GET /a%7F/80/" + http,
          "GET /x-qv-port=1/80/" + http}},
        // carried, were there a data connection
        {"503",
         {"GET /box/65534/ HTTP/1.0", "PUT /box/80/" + http, "GET /%62o%78/1/?gwrelay-pri=0" + http,
          start + longest}},
    };
    for (const auto& [code, requests] : cases) {
        for (const std::string& request : requests) {
            EXPECT_TRUE(fetch(hub, request + "\r\n\r\n").starts_with("HTTP/1.1 " + code + " "))
                << code << " " << request.substr(0, 80);
        }
    }
}

// A page of the box may link to what names neither device nor port, and a port needs its slash.
TEST(GwrelayFrontDoor, SendsToWhereALinkWasMeantToLead) {
    const std::pair<std::string, std::string> cases[] = {
        {"/style.css?v=1" + HTTP +
             "Host: 10.0.0.1\r\nREFERER:\t http://relay:1/box/80/page \r\n\r\n",
         "/box/80/style.css?v=1"},
        {"/other/80/a" + HTTP + "Referer: https://a/%3Cb/9\r\n\r\n", "/%3Cb/9/other/80/a"},
        {"/box/80?a" + HTTP + "\r\n", "/box/80/?a"},
        {"/a" + HTTP + "Referer: http://a/other/80/\r\n\r\n", ""},
        {"/a" + HTTP + "Referer: http://a/box/page\r\n\r\n", ""},
        {"/a" + HTTP + "Referer: http://a\r\n\r\n", ""},
        {"/a" + HTTP + "Referer: /box/80/\r\n\r\n", ""},
    };
    relay hub;
    const unique_fd control = control_login(hub, "box"), odd = control_login(hub, "<b");
    for (const auto& [sent, location] : cases) {
        const std::string reply = fetch(hub, "GET " + sent);
        EXPECT_TRUE(location.empty() ? has(reply, " 404 Not Found\r\n")
                                     : reply.starts_with("HTTP/1.1 307 Temporary Redirect\r\n") &&
                                           has(reply, "\r\nLocation: " + location + "\r\n\r\n"))
            << sent << reply;
    }
}

TEST(GwrelayFrontDoor, SendsReportTimesOnRequest) {
    device box;
    const auto ask = [&box](const char* method, const std::string& times) {
        return fetch(box.hub, method + (" /box/report-times?" + times + HTTP) + "\r\n")
            .substr(9, 3);
    };
    for (const char* bad : {"t1=1&t2=3600", "t1=3600&t2=3600", "t1=2&t2=3599", "t1=2&t2=2147483648",
                            "t1=2", "t2=3600", "t1=2s&t2=3600"}) {
        EXPECT_EQ(ask("POST", bad), "400") << bad;
    }
    EXPECT_EQ(ask("GET", "t1=2&t2=3600"), "405");
    EXPECT_EQ(ask("POST", "t1=2&t2=3600"), "200");
    EXPECT_EQ(ask("POST", "t2=2147483647&t1=3599"), "200");
    EXPECT_EQ(frame_read(box.control.get()), frame_bytes(REPORT_TIMES, 0, be32(2) + be32(3600)));
    EXPECT_EQ(frame_read(box.control.get()),
              frame_bytes(REPORT_TIMES, 0, be32(3599) + be32(0x7fffffff)));
    box.control.reset();
    EXPECT_TRUE(eventually([&] { return ask("POST", "t1=2&t2=3600") == "503"; }));
}

// Closing on a user who still sends would reset his connection. He has a moment for it.
TEST(GwrelayFrontDoor, HearsAUserOutWhoseAnswerIsKnown) {
    const relay hub({"--linger-timeout=0.5"});
    const unique_fd user = say_to(hub.front, "POST /box/80/" + HTTP + "Content-Length: 9\r\n\r\n");
    EXPECT_TRUE(read_until(user.get(), "No such device.\n").starts_with("HTTP/1.1 404 "));
    EXPECT_TRUE(write_all(user.get(), "some") && write_all(user.get(), "more"));
    EXPECT_EQ(read_with_end(user), "end:");
    EXPECT_TRUE(eventually([&user] { return !write_all(user.get(), "even more"); }));
    const unique_fd half = say_to(hub.front, "GET /" + HTTP);
    shutdown(half.get(), SHUT_WR);
    EXPECT_TRUE(read_with_end(half).starts_with("end:HTTP/1.1 400 "));
}

TEST(GwrelayFrontDoor, AnswersHeadWithTheHeadAlone) {
    const relay hub({"--answer-timeout=0.2"});
    const unique_fd control = control_login(hub, "box"), data = data_login(hub, "box");
    for (const char* path : {"/", "/status.json", "/nobody/80/", "/box/80/", "/box/report-times"}) {
        const std::string whole = get(hub, path);
        EXPECT_FALSE(body(whole).empty());
        EXPECT_EQ(fetch(hub, "HEAD "s + path + HTTP + "\r\n") + body(whole), whole);
    }
    EXPECT_TRUE(has(fetch(hub, "PUT /status.json" + HTTP + "\r\n"), "\r\nAllow: GET, HEAD\r\n"));
}

const std::string HEAD = HTTP_ON + "Host: 10.0.0.1\r\n", END = "\r\n";
const std::string TOLD = FORWARDED + "X-Forwarded-Host: 10.0.0.1\r\n";
const std::string AT_80 = "x-qv-devid=box&x-qv-port=80";
const std::string AT_10010 = "x-qv-devid=box&x-qv-port=10010";

struct answering : device {
    // What of a user's request reaches the device, which answers.
    std::string request(const std::string& sent) {
        const unique_fd fd = user(sent);
        answers(OK_X);
        EXPECT_EQ(read_with_end(fd), "end:" + OK_X);
        EXPECT_EQ(hears(), frame_bytes(CLOSE_STREAM, stream)) << sent;
        return opening;
    }
};

// The device takes the first place in the URI where a name occurs, and decodes nothing. Names of
// operations mean something at its own port alone.
TEST(GwrelayRequest, GetsTheParametersInFrontAndNothingElseThatLooksLikeThem) {
    const std::string asked = HEAD + CLOSE + END, sent = HEAD + TOLD + END;
    const std::string upgrade = "Connection: Upgrade, close\r\nUpgrade: x\r\n\r\n";
    const std::string length = "Content-Length: 2\r\n", chunked = "Transfer-Encoding: chunked\r\n";
    const std::pair<std::string, std::string> cases[] = {
        {"GET /box/80/a%20b?c=d&e" + HEAD + "CONNECTION:\tx, Close\r\nKeep-Alive: 5\r\n\r\n",
         "GET /a%20b?" + AT_80 + "&c=d&e" + sent},
        {"POST /b%6fx/80/p" + HEAD + CLOSE + length + "\r\nhi",
         "POST /p?" + AT_80 + HEAD + length + TOLD + "\r\nhi"},
        // A service that does not know such a body might take it for another request.
        {"POST /box/80/" + HEAD + CLOSE + chunked + "\r\n0\r\n\r\n",
         "POST /?" + AT_80 + HEAD + chunked + TOLD + CLOSE + "\r\n0\r\n\r\n"},
        {"GET /box/80/" + HEAD + CLOSE + length + "\r\nhi",
         "GET /?" + AT_80 + HEAD + length + TOLD + CLOSE + "\r\nhi"},
        {"GET /box/80/ HTTP/1.0\r\n\r\n",
         "GET /?" + AT_80 + " HTTP/1.0\r\n" + FORWARDED + "Connection: keep-alive\r\n\r\n"},
        {"GET /box/80/ws" + HEAD + upgrade,
         "GET /ws?" + AT_80 + HEAD + upgrade.substr(0, upgrade.size() - 2) + TOLD + END},
        {"GET /box/80/ HTTP/1.1\nHost: 10.0.0.1\nConnection: close\n\n", "GET /?" + AT_80 + sent},
        {"GET /box/80/?a=1&gwrelay-pri=2&b" + asked, "GET /?" + AT_80 + "&x-qv-pri=2&a=1&b" + sent},
        {"GET /box/80/x-qv-port=10010&x-qv-gwad-opt=echo&" + asked,
         "GET /%78-qv-port=10010&%78-qv-gwad-opt=echo&?" + AT_80 + sent},
        {"GET /box/80/ax-qv-x-qv-devid?x-qv-pri=0&b=x-qv-port=1" + asked,
         "GET /a%78-qv-%78-qv-devid?" + AT_80 + "&%78-qv-pri=0&b=%78-qv-port=1" + sent},
        {"GET /box/80/timeout/loglv?timeout=1&X-QV-PORT=1&%78-qv-port=1" + asked,
         "GET /timeout/loglv?" + AT_80 + "&timeout=1&X-QV-PORT=1&%78-qv-port=1" + sent},
        {"GET /box/10010/timeout?x-qv-gwad-opt=log&loglv=4&timeout=7" + asked,
         "GET /%74imeout?" + AT_10010 + "&x-qv-gwad-opt=log&loglv=4&timeout=7" + asked},
        {"GET /box/10010/loglv?a=loglv&loglv=timeout&timeout&x-qv-gwad-opt&x-qv-port=80" + asked,
         "GET /%6Coglv?" + AT_10010 +
             "&a=%6Coglv&loglv=%74imeout&%74imeout&%78-qv-gwad-opt&%78-qv-port=80" + asked},
    };
    answering box;
    for (const auto& [request, expected] : cases) {
        EXPECT_EQ(box.request(request), expected);
    }
}

// It looks at 4096 bytes of the request. What comes after its parameters may be longer, but not at
// its own port.
TEST(GwrelayRequest, IsRefusedWhenTheDeviceWouldNotSeeItsParameters) {
    constexpr size_t SEEN = 4096;
    answering box;
    const std::string path(SEEN - ("POST /?" + AT_80).size(), 'a');
    std::string sent = "POST /box/80/" + path, seen = "POST /" + path + "?" + AT_80;
    EXPECT_EQ(box.request(sent + HEAD + CLOSE + END), seen + HEAD + TOLD + END);
    EXPECT_EQ(box.request(sent + "?b" + HEAD + CLOSE + END), seen + "&b" + HEAD + TOLD + END);
    const unique_fd user = box.user(sent + "a" + HEAD + CLOSE + END);
    box.answers(OK + "\r\n");  // to a request of the relay's own, and nothing may follow it
    EXPECT_TRUE(read_with_end(user).starts_with("end:HTTP/1.1 414 "));
    box.hears();
    seen = "GET /?" + AT_10010 + "&x-qv-gwad-opt=";
    const std::string rest(SEEN - seen.size(), 'a');
    sent = "GET /box/10010/?x-qv-gwad-opt=" + rest;
    EXPECT_EQ(box.request(sent + HEAD + CLOSE + END), seen + rest + HEAD + CLOSE + END);
    EXPECT_TRUE(fetch(box.hub, sent + "a" + HEAD + CLOSE + END).starts_with("HTTP/1.1 414 "));
}

}  // namespace
