// What a device gets of a user's request: its parameters, and nothing else that looks like them.

#include "gwrelay_fixture.h"

namespace {

const std::string HEAD = HTTP + "Host: a\r\n", CLOSING = "Connection: close\r\n\r\n";
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
    answering box;
    for (const auto& [sent, expected] : cases) {
        EXPECT_EQ(box.request(sent), expected);
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
    answering box;
    for (const auto& [sent, expected] : cases) {
        EXPECT_EQ(box.request("GET " + sent + HEAD + "\r\n"), "GET " + expected + HEAD + CLOSING);
    }
}

// It looks at 4096 bytes of the request. What comes after its parameters may be longer, but not at
// its own port.
TEST(GwrelayRequest, IsRefusedWhenTheDeviceWouldNotSeeItsParameters) {
    constexpr size_t SEEN = 4096;
    answering box;
    for (const std::string start : {"GET /", "POST /"}) {
        const std::string path(SEEN - (start + "?" + AT_80).size(), 'a');
        const std::string sent = start + "box/80/" + path, seen = start + path + "?" + AT_80;
        EXPECT_EQ(box.request(sent + HEAD + "\r\n"), seen + HEAD + CLOSING);
        EXPECT_EQ(box.request(sent + "?b" + HEAD + "\r\n"), seen + "&b" + HEAD + CLOSING);
        EXPECT_TRUE(fetch(box.hub, sent + "a" + HEAD + "\r\n").starts_with("HTTP/1.1 414 "));
    }
    const std::string operation = "?" + AT_10010 + "&x-qv-gwad-opt=";
    const std::string rest(SEEN - ("GET /" + operation).size(), 'a');
    const std::string sent = "GET /box/10010/?x-qv-gwad-opt=" + rest;
    EXPECT_EQ(box.request(sent + HEAD + "\r\n"), "GET /" + operation + rest + HEAD + CLOSING);
    EXPECT_TRUE(fetch(box.hub, sent + "a" + HEAD + "\r\n").starts_with("HTTP/1.1 414 "));
}

TEST(GwrelayRequest, NeedsAnIdThatTheDeviceWouldRecognise) {
    const relay hub;
    for (const std::string id : {"a b", "a&b", "a\x7f", "x-qv-port=1"}) {
        const unique_fd control = control_login(hub, id);
        std::string path;
        for (const char c : id) {
            path += "%" + std::string(1, "0123456789abcdef"[c / 16]) + "0123456789ABCDEF"[c % 16];
        }
        EXPECT_TRUE(get(hub, "/" + path + "/80/").starts_with("HTTP/1.1 502 ")) << id;
    }
}

}  // namespace
