#include "login/gwa_login_handshake.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <future>

#include "login_settings.h"
#include "support/frames.h"
#include "support/run_flags.h"
#include "support/sockets.h"

namespace {

using namespace std::string_literals;

std::string text_seen;  // what the sink was given
int answers_seen;

gwa_login_sink sink_for(gwa_traffic& traffic) {
    text_seen.clear();
    answers_seen = 0;
    return {&traffic, [](const char* text) {
                text_seen = text;
                ++answers_seen;
            }};
}

// The header says a length, whatever follows it.
std::string answer_header(uint8_t version, size_t length) {
    return frame_bytes(LOGIN_ANSWER, 0, std::string(length, 'x'), version).substr(0, HEADER_SIZE);
}

std::string report(uint8_t version) { return frame_bytes(DEVICE_INFO, 0, BOX_REPORT, version); }

struct exchange {  // what the box has sent: its report, and what followed the answer
    std::string report, rest;
};

// The server's side of one login.
struct scripted_server {
    loopback_listener listener;
    std::future<exchange> seen;

    explicit scripted_server(const std::string& answer, bool leaves = false) {
        seen = std::async(std::launch::async, [=, this] {
            const unique_fd client = listener.accept();
            const std::string got = read_exact(client.get(), report(3).size());
            write_all(client.get(), answer);
            return exchange{got, leaves ? "" : read_to_end(client.get())};
        });
    }
};

int option_of(int fd, int name) {
    int value = 0;
    socklen_t size = sizeof value;
    getsockopt(fd, SOL_SOCKET, name, &value, &size);
    return value;
}

// What the kernel makes of a wish for such a buffer: it has limits, and counts in its own way.
int buffer_of(int name, int wish) {
    const unique_fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    setsockopt(fd.get(), SOL_SOCKET, name, &wish, sizeof wish);
    return option_of(fd.get(), name);
}

// As every login hands a socket over; false for none.
bool is_prepared(int fd) {
    return fd >= 0 && option_of(fd, SO_RCVLOWAT) == 16 && option_of(fd, SO_KEEPALIVE) == 1 &&
           option_of(fd, SO_SNDBUF) == buffer_of(SO_SNDBUF, 131072) &&
           option_of(fd, SO_RCVBUF) == buffer_of(SO_RCVBUF, 131072) &&
           (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0 && (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0;
}

}  // namespace

TEST(LoginControl, ExchangesExactlyTheFramesOfTheHandshake) {
    const std::string longest(1007, 'x');
    struct {
        std::string what, answer;
        bool accepted;
        std::string payload;  // that reaches the sink
        uint64_t bytes_in;
    } const cases[] = {
        {"no payload", answer_header(2, 0), true, "", 16},
        {"one byte, below the low-water mark", answer_header(2, 1) + "{", true, "{", 17},
        {"the longest payload", answer_header(2, 1007) + longest, true, longest, 1023},
        {"version 1 has no payload", answer_header(1, 9), true, "", 16},
        {"version 3 has no payload", answer_header(3, 9), true, "", 16},
        {"another command", heartbeat_frame(0), false, "", 0},
        {"bad head size", answer_header(2, 0).replace(1, 1, 1, 15), false, "", 0},
        {"bad version", answer_header(4, 0), false, "", 0},
    };
    login_settings settings;
    const std::string out = report(3);
    for (const auto& [what, answer, accepted, payload, bytes_in] : cases) {
        SCOPED_TRACE(what);
        scripted_server server(answer);
        gwa_traffic traffic;
        unique_fd fd(gwa_login_control(LOOPBACK, server.listener.port, sink_for(traffic)));
        EXPECT_EQ(is_prepared(fd.get()), accepted);
        fd.reset();
        const exchange seen = server.seen.get();
        EXPECT_EQ(seen.report, out);
        EXPECT_EQ(seen.rest, accepted ? frame_bytes(SESSION_ID) : "");
        EXPECT_EQ(text_seen, payload);
        EXPECT_EQ(answers_seen, payload.empty() ? 0 : 1);
        EXPECT_EQ(gwa_counter_get(traffic.bytes_in), bytes_in);
        EXPECT_EQ(gwa_counter_get(traffic.packets_in), bytes_in == 0 ? 0u : 1u);
        EXPECT_EQ(gwa_counter_get(traffic.bytes_out), out.size() + (accepted ? 16 : 0));
        EXPECT_EQ(gwa_counter_get(traffic.packets_out), accepted ? 2u : 1u);
    }
}

TEST(LoginControl, FailsWhenTheServerIsGone) {
    login_settings settings;
    gwa_traffic traffic;
    const gwa_login_sink sink = sink_for(traffic);
    const uint16_t unused = loopback_listener().port;  // nobody listens there any more
    EXPECT_EQ(gwa_login_control(LOOPBACK, unused, sink), -1);
    for (const std::string& answer :
         {""s, answer_header(2, 3).substr(0, 9), answer_header(2, 3) + "ab"}) {
        scripted_server server(answer, true);
        EXPECT_EQ(gwa_login_control(LOOPBACK, server.listener.port, sink), -1) << answer.size();
        EXPECT_EQ(answers_seen, 0);
    }
}

TEST(LoginControlDeathTest, AnOverLongAnswerEndsTheProcess) {
    login_settings settings;
    EXPECT_EXIT(
        {
            scripted_server server(answer_header(2, 1008));
            gwa_traffic traffic;
            gwa_login_control(LOOPBACK, server.listener.port, sink_for(traffic));
        },
        testing::ExitedWithCode(1), "<0> response too long\n.*<0> exit from func ");
}

TEST(LoginData, ReportsItsVersionAndAsksForNothingElse) {
    login_settings settings;
    scripted_server server(answer_header(2, 3) + "abc");
    // Not wanted yet: it fails at the send, unconnected, so the server sees the second login only.
    EXPECT_EQ(gwa_login_data(LOOPBACK, server.listener.port), -1);
    const run_flags wanted(true, true);
    unique_fd fd(gwa_login_data(LOOPBACK, server.listener.port));
    EXPECT_TRUE(fd);
    char byte = 0;  // poll(2) would not tell of less than the low-water mark
    EXPECT_EQ(recv(fd.get(), &byte, 1, MSG_DONTWAIT), -1) << "the payload was dropped";
    fd.reset();
    const exchange seen = server.seen.get();
    EXPECT_EQ(seen.report, report(2));
    EXPECT_EQ(seen.rest, "");
}
