// What users and people see: the front door, the status pages.

#include "gwrelay_fixture.h"

namespace {

TEST(GwrelayFrontDoor, RefusesWhatItCannotCarry) {
    relay hub;
    const unique_fd control = control_login(hub, "box");
    const std::string http = " HTTP/1.1\r\n";
    const std::string referer = http + "Referer: http://relay:1/box/80/page\r\n\r\n";
    const std::pair<std::string, std::string> cases[] = {
        {"rubbish\r\n\r\n", "400"},
        {"GET /box/80/\r\n\r\n", "400"},
        {"GET box/80/ HTTP/1.1\r\n\r\n", "400"},
        {"GET /box/80/\t HTTP/1.1\r\n\r\n", "400"},
        {"GET /box/80/ HTTP/2\r\n\r\n", "400"},
        {"GET /box/80/?gwrelay-pri=x" + http + "\r\n", "400"},
        {"GET /box/80/?gwrelay-pri=-1" + http + "\r\n", "400"},
        {"PUT /box/80/" + http + "\r\n", "405"},
        {"POST /" + http + "\r\n", "405"},
        {"GET /box/65535/" + http + "\r\n", "404"},
        {"GET /box/0/" + http + "\r\n", "404"},
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

TEST(GwrelayFrontDoor, AnswersHeadWithTheHeadAlone) {
    relay hub({"--answer-timeout=1"});
    const unique_fd data = data_login(hub, "box");
    for (const char* path : {"/", "/status.json", "/nobody/80/", "/box/80/", "/box/report-times"}) {
        const std::string whole = fetch(hub, "GET "s + path + " HTTP/1.1\r\n\r\n");
        const size_t length = whole.find("\r\n\r\n") + 4;
        EXPECT_LT(length, whole.size());
        EXPECT_EQ(fetch(hub, "HEAD "s + path + " HTTP/1.1\r\n\r\n"), whole.substr(0, length));
    }
    EXPECT_NE(fetch(hub, "PUT /status.json HTTP/1.1\r\n\r\n").find("\r\nAllow: GET, HEAD\r\n"),
              std::string::npos);
}

// Of devices that are away as well, and however long it is.
TEST(GwrelayPage, ReachesItsViewerWhole) {
    const relay hub;
    for (int i = 0; i < 150; ++i) {
        const std::string id = std::to_string(i);
        const unique_fd fd = loopback_connect(hub.control);
        const std::string more = info(id).insert(1, "\"a\":\"" + std::string(8000, 'a') + "\",");
        write_all(fd.get(), frame_bytes(DEVICE_INFO, 0, more, 3));
        ASSERT_FALSE(frame_read(fd.get()).empty());
    }
    for (const char* path : {"/", "/status.json"}) {
        const std::string whole = fetch(hub, "GET "s + path + " HTTP/1.1\r\n\r\n");
        const size_t body = whole.size() - whole.find("\r\n\r\n") - 4;
        EXPECT_GT(body, 1024U * 1024);
        EXPECT_NE(whole.find("\r\nContent-Length: " + std::to_string(body) + "\r\n"), whole.npos);
    }
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
