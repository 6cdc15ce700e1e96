// What the server may send on the control connection, and what it gets for what it may not.
#include <gtest/gtest.h>

#include "box.h"
#include "peer.h"
#include "support/isolation.h"

namespace {

// A restart leaves a successor behind, which only a machine of the test's own takes away again.
#define NEEDS_ISOLATION()                                             \
    if (!isolated()) {                                                \
        GTEST_SKIP() << "a restart needs private process namespaces"; \
    }

struct ControlConnection : testing::Test {
    peer server;
    box device{server.manager.port};
    unique_fd control = server.login();

    void SetUp() override { ASSERT_TRUE(heartbeat_answer(control.get(), 0)); }
    bool sends(std::string_view bytes) { return write_all(control.get(), bytes); }
    // True when a session id gets through: the connection is alive and in step.
    bool in_step(char mark) {
        const std::string id(32, mark);
        return sends(frame_bytes(SESSION_ID, 0, id)) &&
               eventually([&] { return file_read(device.home.path + "/tmp/session.id") == id; });
    }
};

}  // namespace

// A refused payload stays in the socket and is taken for frames, so here it is one: a frame that
// is skipped. The connection stays in step, and the skipping shows that nothing read the payload.
TEST_F(ControlConnection, RefusesAndLeavesThePayload) {
    const std::string skipped = frame_bytes(PRIVACY);
    const struct {
        command code;
        std::string payload;
        const char* line;  // null: refused without a word
    } cases[] = {
        {SESSION_ID, frame_bytes(PRIVACY, 0, std::string(15, 'x')),
         "alloc session id command length is error 31"},
        {SESSION_ID, frame_bytes(PRIVACY, 0, std::string(17, 'x')),
         "alloc session id command length is error 33"},
        {REPORT_TIMES, skipped, "control report dlna status command length is error 16"},
        {DATA, skipped, "the command 1 should never run in control connection"},
        {DEVICE_INFO, skipped, "the command 3 should never run in control connection"},
        {CLOSE_STREAM, skipped, "the command 4 should never run in control connection"},
        {PORT_INFO, skipped, "the command 12 should never run in control connection"},
        {LOGIN_ANSWER, skipped, nullptr},
    };
    char mark = 'a';
    int skips = 0;
    for (const auto& [code, payload, line] : cases) {
        SCOPED_TRACE(code);
        ASSERT_TRUE(sends(frame_bytes(code, 0, payload)));
        EXPECT_TRUE(line == nullptr || device.logs(line));
        EXPECT_TRUE(device.logs("ignore set privacy data, length", ++skips));
        EXPECT_TRUE(in_step(mark++));
    }
}

TEST_F(ControlConnection, SkipsWhatItHasNoUseFor) {
    const std::pair<command, size_t> cases[] = {
        {PRIVACY, 0}, {PRIVACY, 5}, {PRIVACY, PAYLOAD_MAX}, {STATUS, 4}, {STATUS, PAYLOAD_MAX}};
    char mark = 'a';
    for (const auto& [code, size] : cases) {
        SCOPED_TRACE(testing::Message() << "command " << code << " with " << size << " bytes");
        ASSERT_TRUE(sends(frame_bytes(code, 0, std::string(size, 'x'))));
        EXPECT_TRUE(in_step(mark++));
    }
    ASSERT_TRUE(sends(std::string(HEADER_SIZE, 'x')));
    EXPECT_TRUE(device.logs("protcol check failed"));
    EXPECT_TRUE(in_step(mark));
}

TEST_F(ControlConnection, WaitsForTheRestOfAHeader) {
    const std::string id(32, 'h');
    const std::string frame = frame_bytes(SESSION_ID, 0, id);
    for (size_t cut = 1; cut < frame.size(); cut += 5) {
        ASSERT_TRUE(in_step('-'));
        sends(frame.substr(0, cut));
        std::this_thread::sleep_for(test_duration{20});
        sends(frame.substr(cut));
        EXPECT_TRUE(eventually([&] {
            return file_read(device.home.path + "/tmp/session.id") == id;
        })) << cut;
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

TEST_F(ControlConnection, IgnoresAnOrderWithAPairMissing) {
    std::string order = server.order();
    order.resize(order.find("port5"));
    ASSERT_TRUE(sends(frame_bytes(DATA_ORDER, 0, order)));
    EXPECT_TRUE(device.logs("some error of req, " + order));
    EXPECT_TRUE(in_step('o'));
    EXPECT_EQ(text_count(device.log(), "notify thread data conn"), 0);
}

TEST_F(ControlConnection, RestartsAfterThreeWrongHeartbeatAnswersInARow) {
    NEEDS_ISOLATION();
    const std::string right = frame_bytes(HEARTBEAT, 0, be32(0), 2);
    const std::string wrong = frame_bytes(HEARTBEAT, 0, be32(1), 2);
    ASSERT_TRUE(sends(wrong + wrong + right + wrong + wrong));
    EXPECT_TRUE(in_step('w'));
    ASSERT_TRUE(sends(wrong));
    EXPECT_TRUE(device.restarts());
    EXPECT_TRUE(device.logs("max heartbeat timeout counter overflow, reinit now"));
}

TEST_F(ControlConnection, RestartsWhenTheServerClosesIt) {
    NEEDS_ISOLATION();
    control.reset();
    EXPECT_TRUE(device.restarts());
}

TEST_F(ControlConnection, RestartsWhenTheServerSaysSo) {
    NEEDS_ISOLATION();
    ASSERT_TRUE(sends(frame_bytes(CLOSE_CONNECTION)));
    EXPECT_TRUE(device.restarts());
    EXPECT_TRUE(device.logs("close the TCP connection"));
}

TEST_F(ControlConnection, RepeatedOrderMovesTheWorkers) {
    peer elsewhere;
    ASSERT_TRUE(sends(frame_bytes(DATA_ORDER, 0, server.order())));
    const unique_fd before = server.data_login();
    ASSERT_TRUE(echoes(before.get(), 1));
    ASSERT_TRUE(sends(frame_bytes(DATA_ORDER, 0, elsewhere.order())));
    const unique_fd after = elsewhere.data_login();
    EXPECT_TRUE(echoes(after.get(), 1));
    EXPECT_TRUE(closed_by_peer(before.get()));
}
