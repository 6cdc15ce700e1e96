// Texts about places: a device's id as a name, what a service says of itself, and the frames of a
// WebSocket.

#include "http/rewrite.h"

#include <gtest/gtest.h>

#include "base/label.h"
#include "http/websocket.h"

namespace {

// No two ids look alike, none is taken for a port or for another alphabet, and all are labels.
TEST(RelayLabel, IsTheIdWhereThatIsOneAndElseTellsItFromAllOthers) {
    const std::pair<std::string, std::string> cases[] = {
        {"box-7", "box-7"},
        {"0200c0ffee", "0200c0ffee"},
        {"Box-7", "box-7--xqwq"},
        {"BOX-7", "box-7--x4wq"},
        {"AA:BB", "aa-bb--xz2y"},
        {"AA-BB", "aa-bb--xzny"},
        {"a.b", "a-b--xc4"},
        {"a-b-", "a-b---xc2fu"},
        {"box--80", "box--80--xaws2"},
        {"-a", "x-a--yfu"},
        {"xn", "xxn--ya"},
        {"xn-box", "xxn-box--ybna"},
        {std::string(47, 'a'), std::string(47, 'a')},
        {std::string(44, 'A'), std::string(44, 'a') + "--x777777776"},
        {std::string(45, 'A'), ""},
    };
    for (const auto& [id, label] : cases) {
        EXPECT_EQ(label_of(id), label) << id;
    }
    for (const auto& [name, label, port] : {std::tuple{"box--80", "box", 80},
                                            {"box-7--xrfu--65535", "box-7--xrfu", 65535},
                                            {"box", "box", 0},
                                            {"box--0", "box--0", 0},
                                            {"box--080", "box--080", 0},
                                            {"box--65536", "box--65536", 0},
                                            {"box--", "box--", 0},
                                            {"a--b--x2", "a--b--x2", 0}}) {
        const label_parts parts = label_split(name);
        EXPECT_EQ(parts.label, label);
        EXPECT_EQ(parts.port.value_or(0), port) << name;
    }
}

const http_view BY_NAME{.address = "192.0.2.1",
                        .scheme = "http",
                        .user_host = "box--81.relay:8080",
                        .service_host = "box--81.relay:8080",
                        .prefix = "",
                        .port = 81,
                        .parameters = "x-qv-devid=box&x-qv-port=81"};
const http_view BY_PATH{.address = "192.0.2.1",
                        .scheme = "http",
                        .user_host = "relay:8080",
                        .service_host = "relay:8080",
                        .prefix = "/box/81",
                        .port = 81,
                        .parameters = "x-qv-devid=box&x-qv-port=81"};
const http_view LOCAL{.address = "::1",
                      .scheme = "https",
                      .user_host = "relay",
                      .service_host = "127.0.0.1:81",
                      .prefix = "/box/81",
                      .port = 81,
                      .parameters = ""};

std::string rewritten(const http_view& view, const std::string& line) {
    const std::string first = "HTTP/1.1 302 Found\r\n", end = "A: /b\r\n\r\n";
    const std::string head = rewrite_response(view, first + line + "\r\n" + end);
    EXPECT_TRUE(head.starts_with(first) && head.ends_with("\r\n" + end)) << head;
    return head.substr(first.size(), head.size() - first.size() - end.size() - 2);
}

TEST(RelayRewrite, PlacesOfTheServiceHoldForTheUser) {
    struct {
        std::string said, by_name, by_path;
    } const cases[] = {
        {"/login?a=/b", "/login?a=/b", "/box/81/login?a=/b"},
        {"login", "login", "login"},
        {"?a=http://relay:8080/", "?a=http://relay:8080/", "?a=http://relay:8080/"},
        {"#top", "#top", "#top"},
        {"http://elsewhere/a", "http://elsewhere/a", "http://elsewhere/a"},
        {"//elsewhere:81/a", "//elsewhere:81/a", "//elsewhere:81/a"},
        {"http://localhost:81/a", "http://box--81.relay:8080/a", "/box/81/a"},
        {"http://127.0.0.1/a", "http://127.0.0.1/a", "http://127.0.0.1/a"},
        {"HTTP://Box--81.relay:81?a", "http://box--81.relay:8080/?a", "HTTP://Box--81.relay:81?a"},
        {"https://box--81.relay:8080/", "https://box--81.relay:8080/",
         "https://box--81.relay:8080/"},
        {"http://relay:8080", "http://relay:8080", "/box/81/"},
        {"//relay:81/a", "//relay:81/a", "/box/81/a"},
        {"http://relay:8081/a", "http://relay:8081/a", "http://relay:8081/a"},
        {"/a/?x-qv-devid=box&x-qv-port=81", "/a/", "/box/81/a/"},
        {"/a?x-qv-devid=box&x-qv-port=81&b", "/a?b", "/box/81/a?b"},
        {"/a?b&x-qv-devid=box&x-qv-port=81#c", "/a?b#c", "/box/81/a?b#c"},
        {"mailto:a@relay", "mailto:a@relay", "mailto:a@relay"},
        {"", "", ""},
    };
    for (const auto& [said, by_name, by_path] : cases) {
        for (const std::string name : {"Location: ", "content-location: ", "Refresh: 0; URL="}) {
            EXPECT_EQ(rewritten(BY_NAME, name + said), name + by_name);
            EXPECT_EQ(rewritten(BY_PATH, name + said), name + by_path);
        }
    }
    EXPECT_EQ(rewritten(LOCAL, "Location: http://127.0.0.1:81/a"), "Location: /box/81/a");
    EXPECT_EQ(rewritten(LOCAL, "Location: https://relay/a"), "Location: /box/81/a");
    for (const auto& [said, seen] : {std::pair{"5", "5"},
                                     {"5;", "5;"},
                                     {"5, /a", "5, /box/81/a"},
                                     {"5;url = '/a' ;", "5;url = '/box/81/a' ;"},
                                     {"0; URL=\"/a", "0; URL=\"/box/81/a"},
                                     {"0; url", "0; url"},
                                     {"0;urls", "0;urls"},
                                     {"0;url='", "0;url='"}}) {
        EXPECT_EQ(rewritten(BY_PATH, std::string("Refresh: ") + said),
                  std::string("Refresh: ") + seen);
    }
}

TEST(RelayRewrite, CookiesReachTheirServiceAlone) {
    for (const auto& [said, by_name, by_path] :
         {std::tuple{"a=b", "a=b", "a=b"},
          {"a=/b; Path=/; HttpOnly", "a=/b; Path=/; HttpOnly", "a=/b; Path=/box/81/; HttpOnly"},
          {"path=/b; PATH = /c", "path=/b; PATH = /c", "path=/b; PATH = /box/81/c"},
          {"domain=x; Domain=.relay; Secure", "domain=x; Secure", "domain=x; Secure"},
          {"a=b;path;path=;path=c", "a=b;path;path=;path=c", "a=b;path;path=;path=c"},
          {"", "", ""}}) {
        EXPECT_EQ(rewritten(BY_NAME, std::string("Set-Cookie: ") + said),
                  std::string("Set-Cookie: ") + by_name);
        EXPECT_EQ(rewritten(BY_PATH, std::string("set-cookie: ") + said),
                  std::string("set-cookie: ") + by_path);
    }
}

TEST(RelayRewrite, AServiceIsToldOfItsUserByTheRelayAlone) {
    const auto told = [](const http_view& view, std::string line) {
        std::string_view rest = line;
        return rewrite_field(view, http_field_take(rest));
    };
    for (const char* claim : {"X-Forwarded-For: a", "x-forwarded-PROTO:a",
                              "X-Forwarded-Host:", "Forwarded: for=a", "X-Real-IP: a"}) {
        EXPECT_EQ(told(BY_NAME, claim), "") << claim;
    }
    EXPECT_EQ(told(BY_NAME, "host:box--81.relay:8080"), "host:box--81.relay:8080\r\n");
    EXPECT_EQ(told(LOCAL, "Host: relay"), "Host: 127.0.0.1:81\r\n");
    EXPECT_EQ(told(LOCAL, "Origin: https://relay"), "Origin: http://127.0.0.1:81\r\n");
    EXPECT_EQ(told(LOCAL, "Origin: https://elsewhere"), "Origin: https://elsewhere\r\n");
    EXPECT_EQ(told(LOCAL, "Referer: https://relay/box/81/a?b"),
              "Referer: http://127.0.0.1:81/a?b\r\n");
    EXPECT_EQ(rewrite_forwarded(LOCAL),
              "X-Forwarded-For: ::1\r\nX-Forwarded-Proto: https\r\n"
              "X-Forwarded-Host: relay\r\n");
}

// Close frames of several lengths behind others, masked or not, in whatever pieces.
TEST(RelayWebsocket, IsLeftWithTheLastByteOfTheCloseFrame) {
    using namespace std::string_literals;
    const std::string mask = "MASK", text = "\x81\x05\x88\x88\x88\x88\x88"s;
    const std::string longer = "\x02\x7e\x01\x00"s + std::string(256, '\x88');
    const std::string longest = "\x80\xff\0\0\0\0\0\x01\0\0"s + mask + std::string(65536, '\x88');
    for (const std::string& close : {"\x88\0"s, "\x88\x02\x03\xe8"s, "\x88\x82"s + mask + "ab"}) {
        const std::string all = text + longer + "\x89\x80"s + mask + longest + close;
        for (const size_t piece : {size_t{1}, size_t{7}, all.size()}) {
            websocket_side side;
            for (size_t at = 0; at < all.size(); at += piece) {
                EXPECT_FALSE(side.closed());
                side.take(std::string_view(all).substr(at, piece));
            }
            EXPECT_TRUE(side.closed());
        }
    }
}

}  // namespace
