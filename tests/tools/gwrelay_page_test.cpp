// What the relay knows, for people and for programs.

#include <netinet/in.h>

#include <regex>

#include "gwrelay_fixture.h"

namespace {

const char GET_JSON[] = "GET /status.json HTTP/1.1\r\n\r\n";

std::string body(const std::string& reply) { return reply.substr(reply.find("\r\n\r\n") + 4); }

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

// Two users' streams on two data connections of one device, and one on a connection that has ended;
// another device that has left.
struct busy {
    relay hub{{NO_GUARD}};
    unique_fd control = log_in(loopback_connect(hub.control), 3), data, second, user, other_user;

    busy() {
        write_all(control.get(), frame_bytes(STATUS, 0, be32(0x102)) +
                                     frame_bytes(PORT_INFO, 0, R"({"http_port":8080})") +
                                     frame_bytes(PORT_INFO, 0, R"({"ubq_port":70000})") +  // none
                                     frame_bytes(PORT_INFO, 0, "{}"));
        EXPECT_TRUE(still_echoes(control));  // so the reports have been taken
        unique_fd first = log_in(loopback_connect(hub.data), 2);
        unique_fd gone = carry(first, 1, 7);
        first.reset();
        EXPECT_TRUE(closed_by_peer(gone.get()));
        data = log_in(loopback_connect(hub.data), 2);
        user = carry(data, 2, 3 << 19);
        second = log_in(loopback_connect(hub.data), 2);
        other_user = carry(second, 3, 1024);
        control_login(hub, "x").reset();
        EXPECT_TRUE(eventually(
            [this] { return fetch(hub, GET_JSON).find(":false,") != std::string::npos; }));
    }
    static unique_fd log_in(unique_fd fd, uint8_t version) {
        const std::string id = R"( { "deviceid":"no" , "deviceid" : "<b)"
                               "\xff"
                               R"(>","a\"\\&'":-1.5e+3 , "z":true} )";
        write_all(fd.get(), frame_bytes(DEVICE_INFO, 0, id, version));
        EXPECT_FALSE(frame_read(fd.get()).empty());
        return fd;
    }
    // A user's stream that the device has answered with that many bytes.
    unique_fd carry(const unique_fd& to, uint32_t stream, size_t size) const {
        unique_fd fd = user_sends(hub, "GET /%3Cb%ff%3E/8080/& HTTP/1.1\r\n\r\n");
        EXPECT_EQ(frame_payload(frame_read(to.get())).size(), 69U);
        for (size_t sent = 0; sent < size; sent += PAYLOAD_MAX) {
            const size_t step = std::min(size - sent, PAYLOAD_MAX);
            write_all(to.get(), frame_bytes(DATA, stream, std::string(step, 'd')));
        }
        EXPECT_EQ(read_exact(fd.get(), size).size(), size);
        return fd;
    }
};

TEST(GwrelayPage, TellsProgramsWhatItKnows) {
    const busy scene;
    EXPECT_EQ(
        body(fetch(scene.hub, GET_JSON)),
        R"({"devices":[{"id":"<b\u00ff>","path":"/%3Cb%FF%3E/","control":true,)"
        R"("info":{"a\u0022\u005c&'":"-1.5e+3","deviceid":"<b\u00ff>","z":"true"},)"
        R"("ports":{"http_port":8080},"dlna_status":258,"data_connections":2,"open_streams":2,)"
        R"("bytes_from_device":1573895,"bytes_to_device":207,"connections":[)"
        R"({"held_back":false,"bytes_from_device":1572864,"bytes_to_device":69,"streams":[)"
        R"({"id":2,"port":8080,"request":"GET /%3Cb%ff%3E/8080/&",)"
        R"("bytes_from_device":1572864,"bytes_to_device":69}]},)"
        R"({"held_back":false,"bytes_from_device":1024,"bytes_to_device":69,"streams":[)"
        R"({"id":3,"port":8080,"request":"GET /%3Cb%ff%3E/8080/&",)"
        R"("bytes_from_device":1024,"bytes_to_device":69}]}]},)"
        R"({"id":"x","path":"/x/","control":false,"info":{"deviceid":"x","fwver":"1.2"},)"
        R"("ports":{},"dlna_status":null,"data_connections":0,"open_streams":0,)"
        R"("bytes_from_device":0,"bytes_to_device":0,"connections":[]}]})"
        "\n");
}

TEST(GwrelayPage, ShowsPeopleTheSame) {
    const busy scene;
    const std::string page = body(fetch(scene.hub, "GET / HTTP/1.1\r\n\r\n"));
    const size_t at = page.find("<h2>");
    const std::string heads =
        "</table>\n<table>\n<tr><th>data "
        "connection</th><th>stream</th><th>port</th><th>request</th>"
        "<th>from the device</th><th>to the device</th></tr>\n";
    EXPECT_EQ(
        std::regex_replace(page.substr(at, page.rfind("<p>") - at), std::regex("127.0.0.1:[0-9]+<"),
                           "PEER<"),
        "<h2>&#60;b\xff&#62;</h2>\n<table>\n"
        "<tr><th>control connection</th><td>up</td></tr>\n"
        "<tr><th>DLNA status</th><td>0x102</td></tr>\n"
        "<tr><th>http_port</th><td><a href=\"/%3Cb%FF%3E/8080/\">8080</a></td></tr>\n"
        "<tr><th>the daemon itself</th><td>"
        "<a href=\"/%3Cb%FF%3E/10010/?x-qv-gwad-opt=echo\">echo</a></td></tr>\n"
        "<tr><th>a&#34;\\&#38;&#39;</th><td>-1.5e+3</td></tr>\n"
        "<tr><th>deviceid</th><td>&#60;b\xff&#62;</td></tr>\n"
        "<tr><th>z</th><td>true</td></tr>\n" +
            heads +
            "<tr><td>PEER</td><td>1 open</td><td></td><td></td><td>1.5 MiB</td><td>69 B</td></tr>\n"
            "<tr><td></td><td>2</td><td>8080</td><td>GET /%3Cb%ff%3E/8080/&#38;</td>"
            "<td>1.5 MiB</td><td>69 B</td></tr>\n"
            "<tr><td>PEER</td><td>1 open</td><td></td><td></td><td>1.0 KiB</td><td>69 B</td></tr>\n"
            "<tr><td></td><td>3</td><td>8080</td><td>GET /%3Cb%ff%3E/8080/&#38;</td>"
            "<td>1.0 KiB</td><td>69 B</td></tr>\n"
            "</table>\n<h2>x</h2>\n<table>\n"
            "<tr><th>control connection</th><td><b class=\"down\">down</b></td></tr>\n"
            "<tr><th>the daemon itself</th><td>"
            "<a href=\"/x/10010/?x-qv-gwad-opt=echo\">echo</a></td></tr>\n"
            "<tr><th>deviceid</th><td>x</td></tr>\n<tr><th>fwver</th><td>1.2</td></tr>\n" +
            heads + "</table>\n");
    EXPECT_NE(fetch(relay(), "GET / HTTP/1.1\r\n\r\n").find("No device has logged in yet."),
              std::string::npos);
}

// Those that have been away the longest are forgotten; one that is there is not.
TEST(GwrelayPage, KnowsTwoHundredAndFiftySixDevices) {
    const relay hub({"-q"});
    const auto leaves = [&hub](unique_fd fd, const std::string& id) {
        fd.reset();
        const std::string away =
            "{\"id\":\"" + id + "\",\"path\":\"/" + id + "/\",\"control\":false,";
        EXPECT_TRUE(eventually([&] {
            const std::string json = fetch(hub, GET_JSON);
            return json.find(away) != json.npos &&
                   json.find("\"data_connections\":1,") == json.npos;
        })) << id;
    };
    const unique_fd here = control_login(hub, "a");
    leaves(control_login(hub, "b"), "b");
    leaves(control_login(hub, "c"), "c");
    leaves(control_login(hub, "d"), "d");
    leaves(control_login(hub, "b"), "b");
    leaves(data_login(hub, "c"), "c");
    for (int i = 4; i < 256; ++i) {
        control_login(hub, std::to_string(i));
    }
    EXPECT_NE(fetch(hub, GET_JSON).find("\"id\":\"d\""), std::string::npos);
    control_login(hub, "257");
    const std::string json = fetch(hub, GET_JSON);
    EXPECT_EQ(json.find("\"id\":\"d\""), json.npos);
    EXPECT_NE(json.find("\"id\":\"a\""), json.npos);
}

TEST(GwrelayPage, KnowsSixteenPortsOfADevice) {
    const relay hub;
    const unique_fd control = control_login(hub, "box");
    std::string ports;
    for (char key = 'a'; key <= 'q'; ++key) {
        ports += frame_bytes(PORT_INFO, 0, "{\""s + key + "\":1}");
    }
    write_all(control.get(), ports + frame_bytes(PORT_INFO, 0, "{\"a\":2,\"r\":3,\"b\":4}"));
    EXPECT_TRUE(still_echoes(control));
    const std::string json = fetch(hub, GET_JSON);
    EXPECT_NE(json.find("{\"a\":2,\"b\":4,"), json.npos) << json;
    EXPECT_NE(json.find(",\"p\":1},"), json.npos) << json;
}

}  // namespace
