// What the relay knows, for people and for programs.

#include <netinet/in.h>

#include <regex>

#include "relay/fixture.h"

namespace {

// Times and what moves with them do not matter.
std::string without_times(const std::string& json) {
    static const std::regex times(
        "\"(since|left|now|at|started|rate|rate_from_device|rate_to_device)\":[0-9]+");
    return std::regex_replace(json, times, "\"$1\":T");
}

// A user's end of a connection, as the relay names it.
std::string address_of(const unique_fd& fd) {
    sockaddr_in name{};
    socklen_t size = sizeof name;
    getsockname(fd.get(), reinterpret_cast<sockaddr*>(&name), &size);
    return "127.0.0.1:" + std::to_string(ntohs(name.sin_port));
}

// A device with a user's stream, and another on a connection that has ended; a device that has
// left.
TEST(GwrelayPage, TellsProgramsWhatItKnows) {
    const relay hub({NO_GUARD});
    const std::string json =  // not escaped, as devices have it
        "{\"deviceid\":\"<b\xff\">\",\"a\\&'\":-15,\"z\"\":\",\"}";
    const unique_fd control = login(hub.control, 3, json);
    write_all(control.get(), frame_bytes(STATUS, 0, be32(0x102)) +
                                 frame_bytes(PORT_INFO, 0, R"({"http_port":8080})") +
                                 frame_bytes(PORT_INFO, 0, R"({"ubq_port":70000})") +  // none
                                 frame_bytes(PORT_INFO, 0, "{}"));
    EXPECT_TRUE(still_echoes(control));  // so the reports have been taken
    unique_fd data, user;
    for (const size_t size : {7, 1 << 20}) {
        data = login(hub.data, 2, json);
        if (user) {
            EXPECT_TRUE(closed_by_peer(user.get()));
        }
        user = say_to(hub.front, "GET /%3Cb%ff%22%3E/8080/&" + HTTP + "\r\n");
        const std::string opening = frame_read(data.get());
        EXPECT_EQ(frame_payload(opening).size(), 104U);
        write_all(data.get(), data_frames(frame_stream(opening), std::string(size, 'd')));
        EXPECT_EQ(read_exact(user.get(), size).size(), size);
    }
    control_login(hub, "x").reset();
    EXPECT_TRUE(eventually([&hub] { return has(get(hub, "/status.json"), ":false,"); }));
    const std::string known = without_times(body(get(hub, "/status.json"))), users = ",\"users\":";
    EXPECT_TRUE(has(known, ",\"users_refused\":0,\"bytes_waiting\":0,\"version\":\"")) << known;
    EXPECT_EQ(
        known.substr(0, known.find(users)),
        R"({"devices":[{"id":"<b\u00ff\">","name":"x-b-----yhr7zchy","path":"/%3Cb%FF%22%3E/","control":true,)"
        R"("info":{"a\\&'":"-15","deviceid":"<b\u00ff\">","z\"":","},)"
        R"("ports":{"http_port":8080},"dlna_status":258,"data_connections":1,"open_streams":1,"kept_streams":0,)"
        R"("bytes_from_device":1048583,"bytes_to_device":208,"bytes_waiting":0,"streams_cut":0,)"
        R"("connections":[{"held_back":false,"bytes_from_device":1048576,"bytes_to_device":104,)"
        R"("bytes_waiting":0,"streams":[)"
        R"({"id":2,"port":8080,"request":"GET /%3Cb%ff%22%3E/8080/&",)"
        R"("bytes_from_device":1048576,"bytes_to_device":104,"bytes_waiting":0,"user":")" +
            address_of(user) + R"(","number":2,"since":T,"rate":T}],"kept":[],"address":")" +
            address_of(data) +
            R"(","since":T}],"address":"127.0.0.1","since":T,"left":null,"rate_from_device":T,)"
            R"("rate_to_device":T,"alerts":[],"events":[)"
            R"({"at":T,"kind":"connected","text":"from 127.0.0.1","times":1}]},)"
            R"({"id":"x","name":"x","path":"/x/","control":false,"info":{"deviceid":"x","fwver":"1.2"},)"
            R"("ports":{},"dlna_status":null,"data_connections":0,"open_streams":0,"kept_streams":0,)"
            R"("bytes_from_device":0,"bytes_to_device":0,"bytes_waiting":0,"streams_cut":0,)"
            R"("connections":[],"address":"127.0.0.1","since":T,"left":T,"rate_from_device":T,)"
            R"("rate_to_device":T,"alerts":[],"events":[)"
            R"({"at":T,"kind":"connected","text":"from 127.0.0.1","times":1},)"
            R"({"at":T,"kind":"left","text":"its control connection has ended","times":1}]}])");
}

// A browser must not take anything from elsewhere for a part of the page, nor the page for a part
// of something else.
TEST(GwrelayPage, ServesItsFilesSafely) {
    const relay hub({"-q"});
    const std::pair<const char*, const char*> files[] = {
        {"/", "text/html; charset=utf-8"},
        {"/gwrelay.css", "text/css; charset=utf-8"},
        {"/gwrelay.js", "text/javascript; charset=utf-8"},
        {"/gwrelay.svg", "image/svg+xml"}};
    for (const auto& [path, type] : files) {
        const std::string page = get(hub, path);
        EXPECT_TRUE(has(page, "200 OK\r\n") && has(page, "Content-Type: "s + type + "\r\n"))
            << page;
        for (const char* header :
             {"Content-Security-Policy: default-src 'none'; script-src 'self'; style-src 'self';",
              " frame-ancestors 'none'\r\n", "X-Content-Type-Options: nosniff\r\n",
              "Referrer-Policy: same-origin\r\n"}) {
            EXPECT_TRUE(has(page, header)) << path << header;
        }
        const size_t tag = page.find("ETag: ") + 6;
        const std::string known = "If-None-Match: " + page.substr(tag, page.find('\r', tag) - tag);
        const std::string again = fetch(hub, "GET "s + path + HTTP + known + "\r\n\r\n");
        EXPECT_TRUE(has(again, "304 Not Modified\r\n") && body(again).empty()) << again;
    }
    EXPECT_TRUE(has(fetch(hub, "POST /" + HTTP + "\r\n"), " 405 "));
    EXPECT_TRUE(has(fetch(hub, "HEAD /status.events" + HTTP + "\r\n"), "text/event-stream\r\n"));
}

// First everything, then what has changed; of one device all that is known of it.
TEST(GwrelayPage, TellsWhatChanges) {
    const relay hub({NO_GUARD});
    const unique_fd first = control_login(hub, "first");
    const unique_fd list = say_to(hub.front, "GET /status.events HTTP/1.1\r\n\r\n");
    const std::string head = read_until(list.get(), "\r\n\r\n");
    EXPECT_TRUE(has(head, "Content-Type: text/event-stream\r\n") &&
                has(head, "Connection: close\r\n"));
    const std::string all = read_until(list.get(), "\n\n");
    EXPECT_TRUE(has(all, "event: list\ndata: {\"all\":true,\"devices\":[{\"id\":\"first\","))
        << all;
    const unique_fd second = control_login(hub, "second");
    const std::string change = read_until(list.get(), "\n\n");
    EXPECT_TRUE(has(change, "{\"all\":false,\"devices\":[{\"id\":\"second\",") &&
                !has(change, "first"))
        << change;
    const unique_fd detail =
        say_to(hub.front, "GET /status.events?device=second&device=none HTTP/1.1\r\n\r\n");
    EXPECT_TRUE(has(read_until(detail.get(), "\n\n"),
                    "event: device\ndata: {\"device\":{\"id\":\"second\","));
    // Another one comes with its id, and then the first again.
    const unique_fd other = control_login(hub, "second"), back = control_login(hub, "second");
    EXPECT_TRUE(has(read_until(detail.get(), "\"alerts\":[\"id used twice\"]"), "second"));
    EXPECT_TRUE(has(read_until(detail.get(), "\n\n"),
                    "\"kind\":\"replaced\",\"text\":\"a new login of the same id from "
                    "127.0.0.1\",\"times\":2}"));
}

// By the page, and by nobody who makes a browser ask for it.
TEST(GwrelayPage, ClosesAStream) {
    device box;
    const unique_fd user = box.user(), other = box.user();
    const auto close_it = [&box](const std::string& number, const std::string& origin,
                                 const std::string& method = "POST") {
        return fetch(box.hub, method + " /close-stream?device=box&user=" + number + HTTP +
                                  "Host: 10.0.0.1:8080\r\n" + origin + "\r\n")
            .substr(9, 3);
    };
    const std::string ours = "Origin: http://10.0.0.1:8080\r\n";
    const std::string status = get(box.hub, "/status.json"), name = address_of(user);
    const size_t at = status.find("\"number\":", status.find(name)) + 9;
    const std::string number = status.substr(at, status.find(',', at) - at);
    for (const char* origin : {"", "Origin: http://evil\r\n", "Origin: null\r\n",
                               "Origin: http://10.0.0.1:8080\r\nSec-Fetch-Site: same-site\r\n"}) {
        EXPECT_EQ(close_it(number, origin), "403") << origin;
    }
    EXPECT_EQ(close_it(number, ours, "GET"), "405");
    EXPECT_EQ(close_it("999", ours), "404");
    EXPECT_TRUE(stays_silent(user.get(), A_MOMENT));
    EXPECT_EQ(close_it(number, ours + "Sec-Fetch-Site: same-origin\r\n"), "200");
    EXPECT_EQ(read_with_end(user), "reset:");
    EXPECT_EQ(box.hears(), frame_bytes(CLOSE_STREAM, 1));
    EXPECT_TRUE(has(get(box.hub, "/status.json"), "\"kind\":\"closed\",\"text\":\"" + name));
    EXPECT_TRUE(stays_silent(other.get(), A_MOMENT));
}

// Those that have been away the longest are forgotten; one that is there is not. What they have
// said of themselves reaches the viewer whole, however long it is.
TEST(GwrelayPage, KnowsTwoHundredAndFiftySixDevicesAndSixteenPortsOfOne) {
    const relay hub({"-q"});
    const std::string more = "{\"a\":\"" + std::string(6000, 'a') + "\",";
    const auto comes = [&](uint16_t port, uint8_t version, const std::string& id) {
        return login(port, version, more + info(id).substr(1));
    };
    const auto knows = [&hub](const std::string& text) {
        return has(get(hub, "/status.json"), text);
    };
    const auto leaves = [&](unique_fd fd, const std::string& id) {
        fd.reset();
        EXPECT_TRUE(eventually([&] {
            return knows("\"path\":\"/" + id + "/\",\"control\":false,") &&
                   !knows("\"data_connections\":1,");
        })) << id;
    };
    const unique_fd here = comes(hub.control, 3, "a");
    for (const char* id : {"b", "c", "d", "b"}) {
        leaves(comes(hub.control, 3, id), id);
    }
    leaves(comes(hub.control, 3, "c"), "c");
    for (int i = 4; i < 256; ++i) {
        comes(hub.control, 3, std::to_string(i));
    }
    EXPECT_TRUE(knows("\"id\":\"d\""));
    comes(hub.control, 3, "257");
    EXPECT_TRUE(!knows("\"id\":\"d\"") && knows("\"id\":\"a\""));
    const std::string page = get(hub, "/status.json");
    EXPECT_GT(page.size(), 1024U * 1024);
    EXPECT_TRUE(has(page, "\r\nContent-Length: " + std::to_string(body(page).size()) + "\r\n"));
    std::string ports;
    for (char key = 'a'; key <= 'q'; ++key) {
        ports += frame_bytes(PORT_INFO, 0, "{\""s + key + "\":1}");
    }
    write_all(here.get(), ports + frame_bytes(PORT_INFO, 0, "{\"a\":2,\"r\":3,\"b\":4}"));
    EXPECT_TRUE(still_echoes(here) && knows("{\"a\":2,\"b\":4,") && knows(",\"p\":1},"));
}

}  // namespace
