#include "login/gwa_login_discovery.h"

#include <thread>
#include <tuple>
#include <vector>

#include "login_settings.h"
#include "runtime/gwa_types.h"
#include "support/log_of.h"
#include "support/sockets.h"

namespace {

constexpr char HEAD[] = "HTTP/1.1 200 OK\r\n\r\n";

struct parsed {
    int result;
    uint32_t address = 0;
    uint16_t port = 0;
    std::string log;
};

// The reply lies in a block of exactly its size, so that a sanitizer sees a step past its end.
parsed parse(const std::string& reply) {
    std::vector<char> buffer(reply.c_str(), reply.c_str() + reply.size() + 1);
    parsed out;
    out.log = log_of([&] {
        out.result = gwa_cntrl_ip_parse(buffer.data(), reply.size(), &out.address, &out.port);
    });
    return out;
}

}  // namespace

TEST(DiscoveryParse, TakesAddressAndPort) {
    const std::tuple<const char*, uint32_t, int> good[] = {
        {R"({"ret":0,"proxy":"10.0.0.5:8000"})", 0x0a000005, 8000},
        {R"({"ret":0,"any key":"192.0.2.255:1","more":"1.2.3.4:5"})", 0xc00002ff, 1},
        {R"({"ret":0,"p":"localhost:65534"})", LOOPBACK, 65534},
    };
    for (const auto& [body, address, port] : good) {
        const parsed got = parse(std::string(HEAD) + body);
        EXPECT_EQ(std::tuple(got.result, got.address, got.port), std::tuple(0, address, port))
            << body;
    }
}

TEST(DiscoveryParse, RefusesWithTheWholeReplyInTheLog) {
    const std::pair<std::string, const char*> bad[] = {
        {R"({"ret":0,"p)", "response format error"},
        {R"({"ret":0,"p":)", "response format error"},
        {R"({"ret":0,"p":")", "response format error"},
        {R"({"ret":0,"p":"10.0.0.5"})", "response format error"},
        {R"({"ret":0,"p":"..:80"})", "response address/domain error"},
        {R"({"ret":0,"p":"10.0.0.5:)", "response port format error"},
        {R"({"ret":0,"p":"10.0.0.5:"})", "response port format error"},
        {R"({"ret":0,"p":"10.0.0.5:80)", "response port format error"},
        {R"({"ret":0,"p":"10.0.0.5:0"})", "response port format error"},
        {R"({"ret":0,"p":"10.0.0.5:-1"})", "response port format error"},
        {R"({"ret":0,"p":"10.0.0.5:65535"})", "response port format error"},
        {R"({"ret":0,"p":"10.0.0.5:4294967376"})", "response port format error"},
    };
    for (const auto& [body, reason] : bad) {
        const std::string reply = HEAD + body;
        const parsed got = parse(reply);
        EXPECT_EQ(std::tuple(got.result, got.address, got.port), std::tuple(-1, 0u, 0)) << body;
        const std::string line = "<3> " + std::string(reason) + ", [" + reply + "]\n";
        EXPECT_NE(got.log.find(line), std::string::npos) << got.log;
    }
    EXPECT_NE(parse("HTTP/1.1 200 OK no body").log.find("response format error, [HTTP"),
              std::string::npos);
    for (const char* silent : {"", "12345678901\r\n\r\n12", "HTTP/1.1 404\r\n\r\n{\"ret\":1:"}) {
        EXPECT_EQ(parse(silent).log, "") << silent;
    }
}

// All three servers are the one listener here: they share the configured port.
TEST(Discovery, AsksTheNextServerUntilOneAnswersInOnePiece) {
    login_settings settings;
    loopback_listener listener;
    text_copy(gwa_login.backup_domain, "localhost");
    gwa_login.backup_address = LOOPBACK;
    gwa_login.server_port = listener.port;
    const std::string body = R"({"ret":0,"p":"10.0.0.5:8000"})";
    std::thread server([&] {
        for (const std::string& answer : {std::string(HEAD), std::string(), HEAD + body}) {
            const unique_fd client = listener.accept();
            read_until(client.get(), "\r\n\r\n");
            write_all(client.get(), answer);
            // The first one's body would follow: the client has gone. The second says nothing.
            EXPECT_TRUE(answer.empty() || closed_by_peer(client.get()));
        }
    });
    uint32_t address = 1;
    uint16_t port = 1;
    EXPECT_EQ(gwa_cntrl_ip_get(&address, &port), 0);
    server.join();
    EXPECT_EQ(address, 0x0a000005u);
    EXPECT_EQ(port, 8000);
}

TEST(Discovery, LeavesZeroWhenNobodyAnswers) {
    login_settings settings;
    text_copy(gwa_login.server_name, "");
    text_copy(gwa_login.backup_domain, "localhost");
    gwa_login.backup_address = 0;
    gwa_login.servers[0] = LOOPBACK;
    gwa_login.server_port = loopback_listener().port;  // nobody listens there any more
    uint32_t address = 1;
    uint16_t port = 1;
    EXPECT_EQ(gwa_cntrl_ip_get(&address, &port), 0);
    EXPECT_EQ(address, 0u);
    EXPECT_EQ(port, 0);
    const uint32_t filled[] = {0, LOOPBACK, 0, 0};
    EXPECT_TRUE(std::equal(std::begin(filled), std::end(filled), gwa_login.servers));
}
