// What the relay knows, for people and for programs.

#include "relay/fixture.h"

namespace {

// A device with a user's stream, and another on a connection that has ended; a device that has
// left.
TEST(GwrelayPage, TellsProgramsAndPeopleWhatItKnows) {
    const relay hub({NO_GUARD});
    EXPECT_TRUE(has(get(hub, "/"), "No device has logged in yet."));
    const std::string json = R"( { "deviceid":"no" , "deviceid" : "<b)"
                             "\xff"
                             R"(>","a\"\\&'":-1.5e+3 , "z":true} )";
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
        user = say_to(hub.front, "GET /%3Cb%ff%3E/8080/&" + HTTP + "\r\n");
        const std::string opening = frame_read(data.get());
        EXPECT_EQ(frame_payload(opening).size(), 103U);
        write_all(data.get(), data_frames(frame_stream(opening), std::string(size, 'd')));
        EXPECT_EQ(read_exact(user.get(), size).size(), size);
    }
    control_login(hub, "x").reset();
    EXPECT_TRUE(eventually([&hub] { return has(get(hub, "/status.json"), ":false,"); }));
    const std::string known = body(get(hub, "/status.json")), users = ",\"users\":";
    EXPECT_TRUE(known.ends_with(",\"users_refused\":0,\"bytes_waiting\":0}\n")) << known;
    EXPECT_EQ(
        known.substr(0, known.find(users)),
        R"({"devices":[{"id":"<b\u00ff>","name":"x-b----yhr7z6","path":"/%3Cb%FF%3E/","control":true,)"
        R"("info":{"a\u0022\u005c&'":"-1.5e+3","deviceid":"<b\u00ff>","z":"true"},)"
        R"("ports":{"http_port":8080},"dlna_status":258,"data_connections":1,"open_streams":1,"kept_streams":0,)"
        R"("bytes_from_device":1048583,"bytes_to_device":206,"bytes_waiting":0,"streams_cut":0,)"
        R"("connections":[{"held_back":false,"bytes_from_device":1048576,"bytes_to_device":103,)"
        R"("bytes_waiting":0,"streams":[)"
        R"({"id":2,"port":8080,"request":"GET /%3Cb%ff%3E/8080/&",)"
        R"("bytes_from_device":1048576,"bytes_to_device":103,"bytes_waiting":0}]}]},)"
        R"({"id":"x","name":"x","path":"/x/","control":false,"info":{"deviceid":"x","fwver":"1.2"},)"
        R"("ports":{},"dlna_status":null,"data_connections":0,"open_streams":0,"kept_streams":0,)"
        R"("bytes_from_device":0,"bytes_to_device":0,"bytes_waiting":0,"streams_cut":0,)"
        R"("connections":[]}])");
    const std::string page = get(hub, "/");
    for (const char* part :
         {"<h2>&#60;b\xff&#62;</h2>\n<table>\n<tr><th>control connection</th><td>up</td></tr>\n",
          "<tr><th>DLNA status</th><td>0x102</td></tr>\n",
          "<tr><th>http_port</th><td><a href=\"/%3Cb%FF%3E/8080/\">8080</a></td></tr>\n",
          "<a href=\"/%3Cb%FF%3E/10010/?x-qv-gwad-opt=echo\">echo</a>",
          "<tr><th>a&#34;\\&#38;&#39;</th><td>-1.5e+3</td></tr>\n",
          "<th>from the device</th><th>to the device</th><th>waits for the "
          "user</th></tr>\n<tr><td>127",
          "</td><td>1 open</td><td></td><td></td><td>1.0 MiB</td><td>103 B</td><td>0 B</td></tr>\n",
          "<tr><td></td><td>2</td><td>8080</td><td>GET /%3Cb%ff%3E/8080/&#38;</td>"
          "<td>1.0 MiB</td><td>103 B</td><td>0 B</td></tr>\n</table>\n<h2>x</h2>\n<table>\n"
          "<tr><th>control connection</th><td><b class=\"down\">down</b></td></tr>\n"}) {
        EXPECT_TRUE(has(page, part)) << testing::PrintToString(part + (" in " + page));
    }
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
    leaves(comes(hub.data, 2, "c"), "c");
    for (int i = 4; i < 256; ++i) {
        comes(hub.control, 3, std::to_string(i));
    }
    EXPECT_TRUE(knows("\"id\":\"d\""));
    comes(hub.control, 3, "257");
    EXPECT_TRUE(!knows("\"id\":\"d\"") && knows("\"id\":\"a\""));
    const std::string page = get(hub, "/");
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
