// What the server may send on the control connection, and what it gets for what it may not.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include "box.h"
#include "peer.h"
#include "support/isolation.h"

namespace {

// A daemon that is logged in and has had its first heartbeat answered.
struct control_link {
    peer server;
    unique_fd control;
    box device{server.manager.port};
    bool ready = false;

    control_link() {
        control = server.login();
        ready = heartbeat_answer(control.get(), 0);
    }
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

// A refused payload stays in the socket and is taken for frames, so here it is one, that is
// skipped: the connection stays in step, and the log shows that nothing else read the payload.
TEST_F(ControlConnection, SkipsOrRefusesWhatItHasNoUseFor) {
    const auto skipped = [](size_t size) {
        return frame_bytes(PRIVACY, 0, std::string(size, 'x'));
    };
    const std::string misplaced = "should never run in control connection";
    const struct {
        std::string bytes, line;  // no line: refused without a word
        int skips;
    } cases[] = {
        {skipped(0), "ignore set privacy data, length 0", 1},
        {skipped(PAYLOAD_MAX), "ignore set privacy data, length 8176", 1},
        {frame_bytes(STATUS, 0, std::string(PAYLOAD_MAX, 'x')), "", 0},
        {frame_bytes(SESSION_ID, 0, skipped(15)), "session id command length is error 31", 1},
        {frame_bytes(SESSION_ID, 0, skipped(17)), "session id command length is error 33", 1},
        {frame_bytes(REPORT_TIMES, 0, skipped(0)), "dlna status command length is error 16", 1},
        {frame_bytes(DATA, 0, skipped(1)), "the command 1 " + misplaced, 1},
        {frame_bytes(DEVICE_INFO, 0, skipped(2)), "the command 3 " + misplaced, 1},
        {frame_bytes(CLOSE_STREAM, 0, skipped(3)), "the command 4 " + misplaced, 1},
        {frame_bytes(PORT_INFO, 0, skipped(4)), "the command 12 " + misplaced, 1},
        {frame_bytes(LOGIN_ANSWER, 0, skipped(5)), "", 1},
        {std::string(HEADER_SIZE, 'x'), "protcol check failed", 0},
    };
    char mark = 'a';
    int skips = 0;
    for (const auto& row : cases) {
        SCOPED_TRACE(mark);
        ASSERT_TRUE(sends(row.bytes));
        EXPECT_TRUE(in_step(mark++));
        EXPECT_TRUE(row.line.empty() || device.logs(row.line));
        EXPECT_EQ(text_count(device.log(), "ignore set privacy data"), skips += row.skips);
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

TEST_F(ControlConnection, TakesAnOrderOfUpTo127Bytes) {
    std::string order = server.order();
    order.resize(127, ' ');
    ASSERT_TRUE(sends(frame_bytes(DATA_ORDER, 0, order)));
    EXPECT_TRUE(server.data_login());
    ASSERT_TRUE(sends(frame_bytes(DATA_ORDER, 0, order + ' ')));
    EXPECT_EQ(device.gwad->wait(), 128 + SIGABRT);
    EXPECT_TRUE(device.logs("too large head length field"));
}

TEST_F(ControlConnection, RepeatedOrderMovesTheWorkers) {
    const peer elsewhere;
    ASSERT_TRUE(sends(frame_bytes(DATA_ORDER, 0, server.order())));
    const unique_fd before = server.data_login();
    ASSERT_TRUE(echoes(before.get(), 1));
    ASSERT_TRUE(sends(frame_bytes(DATA_ORDER, 0, elsewhere.order())));
    const unique_fd after = elsewhere.data_login();
    EXPECT_TRUE(echoes(after.get(), 1));
    EXPECT_TRUE(closed_by_peer(before.get()));
}

// A restart leaves a successor behind, which only a machine of the test's own takes away again.
TEST(ControlConnectionEnd, RestartsTheDaemon) {
    if (!isolated()) {
        GTEST_SKIP() << "needs private process namespaces";
    }
    const std::string right = frame_bytes(HEARTBEAT, 0, be32(0), 2);
    const std::string wrong = frame_bytes(HEARTBEAT, 0, be32(1), 2);
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
        shutdown(link.control.get(), SHUT_WR);
        EXPECT_TRUE(link.device.restarts());
        EXPECT_TRUE(link.device.logs(line));
    }
}
