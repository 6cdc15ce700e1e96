// Streams on one data connection, against a scripted server.
#include <atomic>

#include "peer.h"

struct DataConnection : testing::Test, session {
    void SetUp() override { ASSERT_TRUE(relay()); }
    // What comes for a stream until it is that many bytes; of the others nothing is kept.
    std::string stream_reads(uint32_t stream, size_t size) const {
        std::string bytes, frame;
        while (bytes.size() < size && !(frame = frame_read(data.get())).empty()) {
            bytes += frame_stream(frame) == stream ? frame_payload(frame) : "";
        }
        return bytes;
    }
};

// A rest that is shorter than a header must wake the worker, not wait for its next round.
TEST_F(DataConnection, NoticesTheShortRestOfAFrameAtOnce) {
    using steady = std::chrono::steady_clock;
    constexpr test_duration APART{3}, QUICK{1500};
    const auto start = steady::now();
    const std::string asked = debug_request(1);
    for (size_t cut = asked.size() - HEADER_SIZE; cut < asked.size(); ++cut) {
        ASSERT_TRUE(sends_data(asked.substr(0, cut)));
        std::this_thread::sleep_for(APART);
        ASSERT_TRUE(sends_data(asked.substr(cut)));
        ASSERT_EQ(frame_read(data.get()), debug_answer(1));
    }
    EXPECT_LT(steady::now() - start, QUICK);
}

TEST_F(DataConnection, ClosesAStreamWithMuchQueued) {
    constexpr size_t TAKEN = 200000;
    std::atomic<bool> ended = false;
    local_service endless([&](int fd) {
        while (write_all(fd, std::string(PAYLOAD_MAX, 'e'))) {
        }
        ended = true;
    });
    // The echo overtakes what is queued for this stream, so what is not freed comes after it.
    ASSERT_TRUE(sends_data(request_frame(1, endless.port(), "&x-qv-pri=7")));
    EXPECT_GE(stream_reads(1, TAKEN).size(), TAKEN);
    ASSERT_TRUE(sends_data(frame_bytes(CLOSE_STREAM, 1) + debug_request(2)));
    EXPECT_EQ(stream_reads(2, 1), frame_payload(debug_answer(2)));
    EXPECT_TRUE(eventually([&] { return ended.load(); }));
    EXPECT_TRUE(stays_silent(data.get(), test_duration{200}));
}
