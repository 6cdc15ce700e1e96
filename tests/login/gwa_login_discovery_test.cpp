#include "login/gwa_login_discovery.h"

#include <thread>
#include <tuple>
#include <vector>

#include "login_settings.h"
#include "runtime/gwa_types.h"
#include "support/fake_time.h"
#include "support/log_of.h"
#include "support/sockets.h"

namespace {

const std::string HEAD = "HTTP/1.1 200 OK\r\n\r\n";

using parsed = std::tuple<int, uint32_t, uint16_t>;  // result, address, port

// The reply lies in a block of exactly its size, so that a sanitizer sees a step past its end.
parsed parse(const std::string& reply) {
    std::vector<char> buffer(reply.c_str(), reply.c_str() + reply.size() + 1);
    uint32_t address = 0;
    uint16_t port = 0;
    const int result = gwa_cntrl_ip_parse(buffer.data(), reply.size(), &address, &port);
    return {result, address, port};
}

}  // namespace

TEST(Discovery, TakesAddressAndPortOrLogsTheWholeReply) {
    constexpr parsed NONE{-1, 0, 0};
    const std::tuple<std::string, parsed, std::string> replies[] = {
        {HEAD + R"({"ret":0,"proxy":"10.0.0.5:8000"})", {0, 0x0a000005, 8000}, ""},
        {HEAD + R"({"ret":0,"any key":"192.0.2.255:1","x":"1.2.3.4:5"})", {0, 0xc00002ff, 1}, ""},
        {HEAD + R"({"ret":0,"p":"localhost:65534"})", {0, LOOPBACK, 65534}, ""},
        {HEAD + R"({"ret":0,"p)", NONE, "format"},
        {HEAD + R"({"ret":0,"p":)", NONE, "format"},
        {HEAD + R"({"ret":0,"p":"10.0.0.5"})", NONE, "format"},
        {HEAD + R"({"ret":0,"p":"..:80"})", NONE, "address/domain"},
        {HEAD + R"({"ret":0,"p":"10.0.0.5:"})", NONE, "port format"},
        {HEAD + R"({"ret":0,"p":"10.0.0.5:80)", NONE, "port format"},
        {HEAD + R"({"ret":0,"p":"10.0.0.5:0"})", NONE, "port format"},
        {HEAD + R"({"ret":0,"p":"10.0.0.5:65535"})", NONE, "port format"},
        {HEAD + R"({"ret":0,"p":"10.0.0.5:4294967376"})", NONE, "port format"},
        {"HTTP/1.1 200 OK no body", NONE, "format"},
        {"12345678901\r\n\r\n12", NONE, ""},  // too short
        {"HTTP/1.1 404\r\n\r\n{\"ret\":1:", NONE, ""},
    };
    for (const auto& [reply, expected, fault] : replies) {
        parsed got;
        const std::string log = log_of([&, &text = reply] { got = parse(text); });
        EXPECT_EQ(got, expected) << reply;
        const std::string line = "<3> response " + fault + " error, [" + reply + "]\n";
        EXPECT_EQ(log.find(line) != std::string::npos, !fault.empty()) << log;
    }
}

// All three servers are the one listener here: they share the configured port.
TEST(Discovery, AsksTheNextServerUntilOneAnswersInOnePiece) {
    const login_settings settings;
    const loopback_listener listener;
    text_copy(gwa_login.backup_domain, "localhost");
    gwa_login.backup_address = LOOPBACK;
    gwa_login.server_port = listener.port;
    std::thread server([&] {
        for (const std::string& answer :
             {HEAD, std::string(), HEAD + R"({"ret":0,"p":"10.0.0.5:8000"})"}) {
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
    EXPECT_EQ(std::pair(address, port), std::pair(0x0a000005u, uint16_t{8000}));
}

TEST(Discovery, LeavesZeroWhenNobodyAnswersWithinTenSeconds) {
    const login_settings settings;
    const fake_time time;
    const loopback_listener silent;
    text_copy(gwa_login.server_name, "");
    text_copy(gwa_login.backup_domain, "localhost");
    gwa_login.backup_address = 0;
    gwa_login.servers[0] = LOOPBACK;
    gwa_login.server_port = silent.port;
    uint32_t address = 1;
    uint16_t port = 1;
    EXPECT_EQ(gwa_cntrl_ip_get(&address, &port), 0);
    EXPECT_EQ(std::pair(address, port), std::pair(0u, uint16_t{0}));
    EXPECT_EQ(time.now_us, 10 * GWA_US_PER_SECOND);
    const uint32_t filled[] = {0, LOOPBACK, 0, 0};
    EXPECT_TRUE(std::equal(std::begin(filled), std::end(filled), gwa_login.servers));
}
