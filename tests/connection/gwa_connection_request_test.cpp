#include "connection/gwa_connection_request.h"

#include <fcntl.h>
#include <sys/stat.h>

#include "connection/connection_floor.h"
#include "runtime/gwa_process.h"
#include "support/files.h"
#include "support/log_of.h"

namespace {

struct Requests : data_floor {
    using lines = std::vector<std::string>;
    // What is logged of one request, up to level 6.
    lines said_of(const std::string& payload) {
        server_sends(frame_bytes(DATA, 1, payload));
        return log_lines_of(GWA_LEVEL_INFO, [this] { rounds(1); });
    }
};

TEST_F(Requests, ThatAreRefusedAreSilentAndCostNothing) {
    const std::string port_0 = "<1> port is invalid, 0, url [/?x-qv-devid=box&x-qv-port=";
    const struct {
        std::string payload;
        lines said;
    } cases[] = {
        {request(0), {port_0 + "0] len 28"}},
        {request(65535),
         {"<1> port is invalid, 65535, url [/?x-qv-devid=box&x-qv-port=65535] len 32"}},
        {"GET /?x-qv-devid=box&x-qv-port=x HTTP/1.1\r\n\r\n", {port_0 + "x] len 28"}},
        {"GET /?x-qv-devid=box HTTP/1.1\r\n\r\n",
         {"<1> port is invalid, 0, url [/?x-qv-devid=box] len 16"}},
        {"GET /?x-qv-devid=boy&x-qv-port=80 HTTP/1.1\r\n\r\n", {"<4> the devid not mine, boy"}},
        {"GET /?x-qv-port=80 HTTP/1.1 and more\r\n\r\n", {"<3> not contain x-qv-devid field"}},
        {"PUT /?x-qv-devid=box&x-qv-port=80 HTTP/1.1\r\n\r\n",
         {"<4> HTTP method not support!!!", "<3> get uri failed, conn 0 stream id 1"}},
    };
    for (const auto& [payload, said] : cases) {
        EXPECT_EQ(said_of(payload), said) << payload;
        EXPECT_EQ(sent(), "");
        EXPECT_EQ(gwa_connection_memory(conn), 0U);
        EXPECT_EQ(conn->streams.count, 0);
    }
}

TEST_F(Requests, GoToEveryPortFromTheFirstToTheLast) {
    for (const int port : {1, 65534}) {
        const lines said = said_of(request(port));
        ASSERT_GE(said.size(), 2U);
        EXPECT_EQ(said[0], "<6> destination port is " + std::to_string(port));
        EXPECT_EQ(said[1].substr(0, 23), "<6> create local socket");
        server_sends(std::string(request(port).size(), '?'));  // if nobody listens there
        rounds(1);
        gwa_connection_data_free(conn);
        connect();
    }
}

TEST_F(Requests, TheirPriorityIsFourUnlessTheySay) {
    const loopback_listener listener;
    uint32_t id = 0;
    for (const auto& [more, priority] : {std::pair{"", 4U}, {"&x-qv-pri=9", 9U}}) {
        server_sends(frame_bytes(DATA, ++id, request(listener.port, more)));
        rounds(1);
        const gwa_stream* const stream = gwa_stream_find_by_id(&conn->streams.all, id);
        ASSERT_NE(stream, nullptr);
        EXPECT_EQ(stream->priority, priority);
        EXPECT_EQ(stream->last_activity, coarse(START));
        EXPECT_NE(fcntl(stream->socket, F_GETFL) & O_NONBLOCK, 0);
    }
}

TEST_F(Requests, AStreamThatThePollerRefusesIsTakenBack) {
    const loopback_listener listener;
    close(std::exchange(conn->poller.epfd, -1));
    const std::string asked = request(listener.port);
    uint8_t* const payload = static_cast<uint8_t*>(malloc(asked.size()));
    memcpy(payload, asked.data(), asked.size());
    const auto length = static_cast<uint32_t>(asked.size());
    gwa_connection_memory_charge(conn, length);
    gwa_header header{};
    header.stream_id = 7;
    header.length = length;
    gwa_connection_remote_data_parse(conn, &header, payload, length);
    EXPECT_EQ(conn->streams.count, 0);
    EXPECT_EQ(gwa_connection_memory(conn), 0U);
    EXPECT_TRUE(read_to_end(listener.accept().get()).starts_with("GET ")) << "and closed";
}

TEST_F(Requests, AnUnreadableDiagnosticFileSaysSo) {
    const temp_dir home;
    text_copy(gwa_process_paths.home, home.path);
    ASSERT_EQ(mkdir((home.path + "/tmp").c_str(), 0700), 0);
    ASSERT_EQ(mkdir((home.path + "/tmp/wkr").c_str(), 0700), 0);
    // A folder can be opened, has a size, and cannot be read.
    ASSERT_EQ(mkdir((home.path + "/tmp/wkr/sysdiag.txt").c_str(), 0700), 0);
    struct stat file {};
    ASSERT_EQ(stat((home.path + "/tmp/wkr/sysdiag.txt").c_str(), &file), 0);
    const int64_t before = fake_time::now_us;
    EXPECT_EQ(said_of(request(10010, "&x-qv-gwad-opt=diag&timeout=5")).back(),
              "<3> read diag file failed");
    EXPECT_GE(fake_time::now_us - before, 5'000'000) << "the time that the box is given";
    const std::string length = std::to_string(std::min<off_t>(file.st_size, GWA_PAYLOAD_MAX));
    EXPECT_TRUE(sent().ends_with("\r\nContent-Length:" + length + "\r\n\r\n"));
    gwa_process_paths.home[0] = '\0';
}

}  // namespace
