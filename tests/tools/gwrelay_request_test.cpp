// What a device gets of a user's request: its parameters, and nothing else that looks like them.

#include "gwrelay_fixture.h"

namespace {

const std::string HEAD = " HTTP/1.1\r\nHost: a\r\n", CLOSING = "Connection: close\r\n\r\n";
const std::string AT_80 = "x-qv-devid=box&x-qv-port=80";
const std::string AT_10010 = "x-qv-devid=box&x-qv-port=10010";

struct device_of_requests {
    relay hub{{NO_GUARD}};
    unique_fd data = data_login(hub, "box");
    uint32_t stream = 0;

    // What of a user's request reaches the device, which answers. Or the user's answer.
    std::string request(const std::string& sent) {
        const unique_fd user = user_sends(hub, sent);
        pollfd first[] = {{data.get(), POLLIN, 0}, {user.get(), POLLIN, 0}};
        poll(first, 2, static_cast<int>(TEST_PATIENCE.count()));
        if (first[0].revents == 0) {
            return read_to_end(user.get());
        }
        const std::string opening = frame_read(data.get());
        const std::string answer = "HTTP/1.1 204 None\r\n\r\n";
        EXPECT_EQ(frame_stream(opening), ++stream);
        write_all(data.get(), frame_bytes(DATA, stream, answer));
        EXPECT_EQ(read_with_end(user), "end:" + answer);
        EXPECT_EQ(frame_read(data.get()), frame_bytes(CLOSE_STREAM, stream)) << sent;
        return frame_payload(opening);
    }
};

TEST(GwrelayRequest, GetsTheParametersInFrontAndAConnectionOfItsOwn) {
    const std::string upgrade = "Connection: Upgrade\r\nUpgrade: x\r\n\r\n";
    const std::pair<std::string, std::string> cases[] = {
        {"GET /box/80/a%20b?c=d&e" + HEAD + "Connection: keep-alive\r\nKeep-Alive: 5\r\n\r\n",
         "GET /a%20b?" + AT_80 + "&c=d&e" + HEAD + CLOSING},
        {"GET /box/80/?a=1&gwrelay-pri=2&b" + HEAD + "\r\n",
         "GET /?" + AT_80 + "&x-qv-pri=2&a=1&b" + HEAD + CLOSING},
        {"POST /b%6fx/80/p" + HEAD + "Content-Length: 2\r\n\r\nhi",
         "POST /p?" + AT_80 + HEAD + "Content-Length: 2\r\n" + CLOSING + "hi"},
        {"GET /box/80/ws" + HEAD + upgrade, "GET /ws?" + AT_80 + HEAD + upgrade},
        {"GET /box/80/ HTTP/1.1\nHost: a\n\n", "GET /?" + AT_80 + HEAD + CLOSING},
    };
    device_of_requests device;
    for (const auto& [sent, expected] : cases) {
        EXPECT_EQ(device.request(sent), expected);
    }
}

// The device takes the first place in the URI where a name occurs, and decodes nothing.
TEST(GwrelayRequest, SpeaksToTheDeviceOnlyAtItsOwnPort) {
    const std::pair<std::string, std::string> cases[] = {
        {"/box/80/x-qv-port=10010&x-qv-gwad-opt=echo&",
         "/%78-qv-port=10010&%78-qv-gwad-opt=echo&?" + AT_80},
        {"/box/80/ax-qv-x-qv-devid?x-qv-pri=0&b=x-qv-port=1",
         "/a%78-qv-%78-qv-devid?" + AT_80 + "&%78-qv-pri=0&b=%78-qv-port=1"},
        {"/box/80/timeout/loglv?timeout=1&X-QV-PORT=1&%78-qv-port=1",
         "/timeout/loglv?" + AT_80 + "&timeout=1&X-QV-PORT=1&%78-qv-port=1"},
        {"/box/10010/timeout?x-qv-gwad-opt=log&loglv=4&timeout=7",
         "/%74imeout?" + AT_10010 + "&x-qv-gwad-opt=log&loglv=4&timeout=7"},
        {"/box/10010/loglv?a=loglv&loglv=timeout&timeout&x-qv-gwad-opt&x-qv-port=80",
         "/%6Coglv?" + AT_10010 +
             "&a=%6Coglv&loglv=%74imeout&%74imeout&%78-qv-gwad-opt&%78-qv-port=80"},
    };
    device_of_requests device;
    for (const auto& [sent, expected] : cases) {
        EXPECT_EQ(device.request("GET " + sent + HEAD + "\r\n"),
                  "GET " + expected + HEAD + CLOSING);
    }
}

// It looks at 4096 bytes of the request. What comes after its parameters may be longer, but not at
// its own port.
TEST(GwrelayRequest, IsRefusedWhenTheDeviceWouldNotSeeItsParameters) {
    constexpr size_t SEEN = 4096;
    device_of_requests device;
    for (const std::string start : {"GET /", "POST /"}) {
        const std::string path(SEEN - (start + "?" + AT_80).size(), 'a');
        const std::string sent = start + "box/80/" + path, seen = start + path + "?" + AT_80;
        EXPECT_EQ(device.request(sent + HEAD + "\r\n"), seen + HEAD + CLOSING);
        EXPECT_EQ(device.request(sent + "?b" + HEAD + "\r\n"), seen + "&b" + HEAD + CLOSING);
        EXPECT_TRUE(device.request(sent + "a" + HEAD + "\r\n").starts_with("HTTP/1.1 414 "));
    }
    const std::string operation = "?" + AT_10010 + "&x-qv-gwad-opt=";
    const std::string rest(SEEN - ("GET /" + operation).size(), 'a');
    const std::string sent = "GET /box/10010/?x-qv-gwad-opt=" + rest;
    EXPECT_EQ(device.request(sent + HEAD + "\r\n"), "GET /" + operation + rest + HEAD + CLOSING);
    EXPECT_TRUE(device.request(sent + "a" + HEAD + "\r\n").starts_with("HTTP/1.1 414 "));
}

TEST(GwrelayRequest, NeedsAnIdThatTheDeviceWouldRecognise) {
    const relay hub;
    for (const std::string id : {"a b", "a&b", "a\x7f", "x-qv-port=1"}) {
        const unique_fd control = control_login(hub, id);
        std::string path;
        for (const char c : id) {
            path += "%" + std::string(1, "0123456789abcdef"[c / 16]) + "0123456789ABCDEF"[c % 16];
        }
        EXPECT_TRUE(
            fetch(hub, "GET /" + path + "/80/" + HEAD + "\r\n").starts_with("HTTP/1.1 502 "))
            << id;
    }
}

}  // namespace
