// The front door: what it refuses, and what it answers itself.

#include "gwrelay_fixture.h"

namespace {

TEST(GwrelayFrontDoor, RefusesWhatItCannotCarry) {
    relay hub;
    const unique_fd control = control_login(hub, "box");
    const auto of_size = [](size_t size) {
        const std::string start = "GET /box/80/" + HTTP + "A: ", end = "\r\n\r\n";
        return start + std::string(size - start.size() - end.size(), 'a') + end;
    };
    const std::pair<std::string, std::string> cases[] = {
        {"rubbish\r\n\r\n", "400"},
        {"GET /box/80/\r\n\r\n", "400"},
        {"GET box/80/" + HTTP + "\r\n", "400"},
        {"GET /box/80/\t" + HTTP + "\r\n", "400"},
        {"GET /box/80/\x7f" + HTTP + "\r\n", "400"},
        {"GET /box/80/ HTTP/2\r\n\r\n", "400"},
        {"GET /box/80/?gwrelay-pri=x" + HTTP + "\r\n", "400"},
        {"GET /box/80/?gwrelay-pri=-1" + HTTP + "\r\n", "400"},
        {"PUT /box/80/" + HTTP + "\r\n", "405"},
        {"POST /" + HTTP + "\r\n", "405"},
        {"GET /box/65534/ HTTP/1.0\r\n\r\n", "503"},  // carried, were there a data connection
        {"GET /box/65535/" + HTTP + "\r\n", "404"},
        {"GET /box/0/" + HTTP + "\r\n", "404"},
        {"GET /box/http/" + HTTP + "\r\n", "404"},
        {"GET /%62o%78/1/?gwrelay-pri=0" + HTTP + "\r\n", "503"},
        {"GET /box%/1/" + HTTP + "\r\n", "404"},
        {of_size(65536), "503"},
        {of_size(65537), "431"},
    };
    for (const auto& [request, code] : cases) {
        EXPECT_TRUE(fetch(hub, request).starts_with("HTTP/1.1 " + code + " "))
            << code << " " << request.substr(0, 80);
    }
}

// A page of the box may link to what names neither device nor port, and a port needs its slash.
TEST(GwrelayFrontDoor, SendsToWhereALinkWasMeantToLead) {
    const std::pair<std::string, std::string> cases[] = {
        {"/style.css?v=1" + HTTP + "Host: a\r\nREFERER:\t http://relay:1/box/80/page \r\n\r\n",
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
    const relay hub;
    unique_fd control = control_login(hub, "box");
    const auto ask = [&hub](const char* method, const std::string& times) {
        return fetch(hub, method + (" /box/report-times?" + times + HTTP) + "\r\n").substr(9, 3);
    };
    for (const char* bad : {"t1=1&t2=3600", "t1=3600&t2=3600", "t1=2&t2=3599", "t1=2&t2=2147483648",
                            "t1=2", "t2=3600", "t1=2s&t2=3600"}) {
        EXPECT_EQ(ask("POST", bad), "400") << bad;
    }
    EXPECT_EQ(ask("GET", "t1=2&t2=3600"), "405");
    EXPECT_EQ(ask("POST", "t1=2&t2=3600"), "200");
    EXPECT_EQ(ask("POST", "t2=2147483647&t1=3599"), "200");
    EXPECT_EQ(frame_read(control.get()), frame_bytes(REPORT_TIMES, 0, be32(2) + be32(3600)));
    EXPECT_EQ(frame_read(control.get()),
              frame_bytes(REPORT_TIMES, 0, be32(3599) + be32(0x7fffffff)));
    control.reset();
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
    const unique_fd data = data_login(hub, "box");
    for (const char* path : {"/", "/status.json", "/nobody/80/", "/box/80/", "/box/report-times"}) {
        const std::string whole = get(hub, path);
        EXPECT_FALSE(body(whole).empty());
        EXPECT_EQ(fetch(hub, "HEAD "s + path + HTTP + "\r\n") + body(whole), whole);
    }
    EXPECT_TRUE(has(fetch(hub, "PUT /status.json" + HTTP + "\r\n"), "\r\nAllow: GET, HEAD\r\n"));
}

}  // namespace
