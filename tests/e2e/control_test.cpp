// What the server may send on the control connection, and what it gets for what it may not.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include "peer.h"
#include "support/isolation.h"

namespace {

struct control_link : session {
    const bool ready = log_in();

    bool sends(std::string_view bytes) const { return write_all(control.get(), bytes); }
    bool has_session_id(const std::string& id) const {
        return eventually([&] { return file_read(device.home.path + "/tmp/session.id") == id; });
    }
    // True when a session id gets through: the connection is alive and in step.
    bool in_step(char mark) const {
        const std::string id(32, mark);
        return sends(frame_bytes(SESSION_ID, 0, id)) && has_session_id(id);
    }
};

struct ControlConnection : testing::Test, control_link {
    void SetUp() override { ASSERT_TRUE(ready); }
};

}  // namespace

// A refused payload stays in the socket and is taken for headers, of which these are whole ones.
TEST_F(ControlConnection, StaysInStepThroughWhatItHasNoUseFor) {
    const std::string refused(2 * HEADER_SIZE, 'x');
    const std::pair<std::string, const char*> cases[] = {
        {frame_bytes(PRIVACY, 0, std::string(15, 'x')), "ignore set privacy data, length 15"},
        {frame_bytes(REPORT_TIMES, 0, refused), "dlna status command length is error 32"},
        {frame_bytes(CLOSE_STREAM, 0, refused),
         "the command 4 should never run in control connection"},
        {std::string(HEADER_SIZE, 'x'), "protcol check failed"},
    };
    char mark = 'a';
    for (const auto& [bytes, line] : cases) {
        EXPECT_TRUE(sends(bytes) && in_step(mark++)) << line;
        EXPECT_TRUE(device.logs(line)) << line;
    }
}

TEST_F(ControlConnection, WaitsForTheRestOfAFrame) {
    const std::string id(32, 'h'), whole = frame_bytes(SESSION_ID, 0, id);
    for (size_t cut = 1; cut < whole.size(); cut += 6) {
        ASSERT_TRUE(in_step('-'));
        ASSERT_TRUE(sends(whole.substr(0, cut)));
        std::this_thread::sleep_for(test_duration{10});
        ASSERT_TRUE(sends(whole.substr(cut)));
        EXPECT_TRUE(has_session_id(id)) << cut;
    }
}

TEST_F(ControlConnection, RepeatedOrderMovesTheWorkers) {
    const peer elsewhere;
    ASSERT_TRUE(sends(frame_bytes(DATA_ORDER, 0, server.order())));
    data = server.data_login();
    ASSERT_TRUE(echoes(data.get(), 1));
    ASSERT_TRUE(sends(frame_bytes(DATA_ORDER, 0, elsewhere.order())));
    const unique_fd after = elsewhere.data_login();
    EXPECT_TRUE(echoes(after.get(), 1));
    EXPECT_TRUE(closed_by_peer(data.get()));
}

// A restart leaves a successor behind, which only a machine of the test's own takes away again.
TEST(ControlConnectionEnd, RestartsTheDaemon) {
    if (!isolated()) {
        GTEST_SKIP() << "needs private process namespaces";
    }
    const std::string right = heartbeat_frame(0);
    const std::string wrong = heartbeat_frame(1);
    const struct {
        const char* name;
        std::string survived, fatal;
        const char* line;
    } cases[] = {
        {"three wrong heartbeat answers in a row", wrong + wrong + right + wrong + wrong, wrong,
         "max heartbeat timeout counter overflow, reinit now"},
        {"the server's command", "", frame_bytes(CLOSE_CONNECTION), "close the TCP connection"},
        {"the server's end", "", "", "remote server close the connection"},
        {"an end within a header", "", right.substr(0, 5), "remote server close the connection"},
    };
    for (const auto& [name, survived, fatal, line] : cases) {
        SCOPED_TRACE(name);
        control_link link;
        ASSERT_TRUE(link.ready && link.sends(survived) && link.in_step('s'));
        ASSERT_TRUE(link.sends(fatal));
        if (fatal.size() < HEADER_SIZE) {
            shutdown(link.control.get(), SHUT_WR);
        }
        EXPECT_TRUE(link.device.restarts());
        EXPECT_TRUE(link.device.logs(line));
    }
}
