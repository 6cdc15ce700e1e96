// Streams and the daemon's own services on one data connection, against a scripted server.
#include <gtest/gtest.h>

#include "peer.h"
#include "support/service.h"

namespace {

struct DataConnection : testing::Test, session {
    void SetUp() override { ASSERT_TRUE(relay()); }
    bool sends(std::string_view bytes) const { return write_all(data.get(), bytes); }
};

}  // namespace

TEST_F(DataConnection, AnswersItsMaintenancePort) {
    const std::pair<const char*, std::string> cases[] = {
        {"x-qv-gwad-opt=echo", debug_answer("200 OK", "echo")},
        {"x-qv-gwad-opt=log&loglv=7", debug_answer("200 OK", "OK")},
        {"x-qv-gwad-opt=log&loglv=9", debug_answer("200 OK", "OK")},
        {"x-qv-gwad-opt=log", debug_answer("404 File Not Found", "not contain loglv field")},
        {"x-qv-gwad-opt=reboot", debug_answer("404 File Not Found", "File Not Found")},
        {"x-qv-pri=0", debug_answer("404 File Not Found", "not contain x-qv-gwad-opt field")},
    };
    uint32_t stream = 0;
    for (const auto& [query, expected] : cases) {
        ASSERT_TRUE(sends(request_frame(++stream, 10010, "&" + std::string(query))));
        EXPECT_EQ(frame_read(data.get()), frame_bytes(DATA, stream, expected)) << query;
    }
}

// The header's length goes where its text is, and the frame's own stays 0.
TEST_F(DataConnection, SendsTheDiagnosticFileInFrames) {
    std::string report(PAYLOAD_MAX + 100, 'r');
    report.front() = '<', report.back() = '>';
    file_write(device.home.path + "/report", report);
    file_write(device.home.path + "/bin/diag.sh",
               "#!/bin/sh\ncp " + device.home.path + "/report " + device.home.path +
                   "/tmp/wkr/\"$2\"\n[ \"$1\" = -c ] || rm " + device.home.path + "/tmp/wkr/*\n",
               true);
    ASSERT_TRUE(sends(debug_frame(5, "diag&timeout=5")));
    std::string text = "HTTP/1.1 200 OK\r\nContent-Type:text/plain\r\nContent-Length:100\r\n\r\n";
    text.replace(12, 4, be32(static_cast<uint32_t>(text.size())));
    const std::string expected = frame_bytes(DATA, 5) + text +
                                 frame_bytes(DATA, 5, report.substr(0, PAYLOAD_MAX)) +
                                 frame_bytes(DATA, 5, report.substr(PAYLOAD_MAX));
    EXPECT_EQ(read_exact(data.get(), expected.size()), expected);
    EXPECT_TRUE(echoes(data.get(), 6));
}

// A rest that is shorter than a header must wake the worker, not wait for its next round.
TEST_F(DataConnection, NoticesTheShortRestOfAFrameAtOnce) {
    constexpr test_duration APART{3}, QUICK{1500};
    const auto start = std::chrono::steady_clock::now();
    const std::string asked = debug_frame(1, "echo");
    for (size_t cut = asked.size() - HEADER_SIZE; cut < asked.size(); ++cut) {
        ASSERT_TRUE(sends(asked.substr(0, cut)));
        std::this_thread::sleep_for(APART);
        ASSERT_TRUE(sends(asked.substr(cut)));
        ASSERT_EQ(frame_read(data.get()), frame_bytes(DATA, 1, debug_answer("200 OK", "echo")));
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, QUICK);
}

TEST_F(DataConnection, APartlyReceivedFrameHoldsUpNobody) {
    local_service talker([](int fd) {
        read_until(fd, "\r\n\r\n");
        write_all(fd, "first");
        read_exact(fd, 1);
        write_all(fd, "second");
        read_to_end(fd);
    });
    ASSERT_TRUE(sends(request_frame(1, talker.port())));
    EXPECT_EQ(streams_read(data.get(), 1, 5)[1], "first");
    ASSERT_TRUE(sends(frame_bytes(DATA, 1, "x")));
    const std::string echo = debug_frame(2, "echo");
    ASSERT_TRUE(sends(echo.substr(0, 40)));
    EXPECT_EQ(streams_read(data.get(), 1, 6)[1], "second");
    ASSERT_TRUE(sends(echo.substr(40)));
    EXPECT_EQ(frame_read(data.get()), frame_bytes(DATA, 2, debug_answer("200 OK", "echo")));
}

TEST_F(DataConnection, ClosesAStreamWithMuchQueued) {
    constexpr size_t TAKEN = 200000;
    local_service endless([](int fd) {
        while (write_all(fd, std::string(PAYLOAD_MAX, 'e'))) {
        }
    });
    // The echo overtakes what is queued for this stream, so what is not freed comes after it.
    ASSERT_TRUE(sends(request_frame(1, endless.port(), "&x-qv-pri=7")));
    EXPECT_GE(streams_read(data.get(), 1, TAKEN)[1].size(), TAKEN);
    // Nothing is closed by an id that no stream has, and none has 0.
    ASSERT_TRUE(sends(frame_bytes(CLOSE_STREAM, 0) + frame_bytes(CLOSE_STREAM, 9) +
                      frame_bytes(CLOSE_STREAM, 1)));
    ASSERT_TRUE(sends(debug_frame(2, "echo")));
    const std::string answer = debug_answer("200 OK", "echo");
    EXPECT_EQ(streams_read(data.get(), 2, answer.size())[2], answer);
    EXPECT_TRUE(eventually([&] { return endless.ended() == 1; }));
    EXPECT_TRUE(stays_silent(data.get(), test_duration{200}));
    EXPECT_TRUE(device.logs("not found the stream by id 0"));
    EXPECT_TRUE(device.logs("not found the stream by id 9"));
}

TEST_F(DataConnection, LogsInAnewAfterWhatEndsIt) {
    const std::pair<std::string, const char*> cases[] = {
        {std::string(HEADER_SIZE, 'x'), "protcol check failed, conn 0"},
        {frame_bytes(HEARTBEAT, 0, be32(41)), "heartbeat response not match, seq = 41"},
        {frame_bytes(CLOSE_CONNECTION), "close the TCP connection 0"},
    };
    uint32_t stream = 0;
    for (const auto& [bytes, line] : cases) {
        SCOPED_TRACE(line);
        ASSERT_TRUE(sends(bytes));
        EXPECT_TRUE(device.logs(line));
        EXPECT_TRUE(closed_by_peer(data.get()));
        data = server.data_login();
        EXPECT_TRUE(echoes(data.get(), ++stream));
    }
    EXPECT_EQ(device.gwad->terminate(), 0);
    EXPECT_TRUE(device.gwad->output_contains("78 78 78")) << "the bad header is shown";
}
