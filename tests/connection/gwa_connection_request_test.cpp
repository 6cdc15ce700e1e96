#include "connection/gwa_connection_request.h"

#include <sys/resource.h>
#include <sys/stat.h>

#include <filesystem>

#include "connection/connection_floor.h"
#include "runtime/gwa_process.h"
#include "support/files.h"

namespace fs = std::filesystem;

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
    const std::pair<std::string, lines> cases[] = {
        {request_text(0), {port_0 + "0] len 28"}},
        {request_text(65535),
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
    }
    for (const int port : {65534, 1}) {  // the last and the first one that is none of these
        EXPECT_EQ(said_of(request_text(port))[0],
                  "<6> destination port is " + std::to_string(port));
        gwa_connection_data_free(conn);  // with the discard, if nobody listens there
        connect();
    }
}

TEST_F(Requests, AStreamThatThePollerRefusesIsTakenBack) {
    server_sends(request_frame(7, listener.port));
    const int epfd = std::exchange(conn->poller.epfd, -1);
    EXPECT_EQ(gwa_connection_data_remote_in_handle(conn), gwa_step::GOES_ON);
    conn->poller.epfd = epfd;
    EXPECT_EQ(conn->streams.count, 0);
    EXPECT_TRUE(read_to_end(listener.accept().get()).starts_with("GET ")) << "and closed";
    server_sends(request_frame(7, listener.port));
    rounds(1);
    EXPECT_EQ(conn->streams.count, 0) << "what the user still says is no request";
}

TEST_F(Requests, ThatFindNoDescriptorEndTheProcess) {
    server_sends(request_frame(7, listener.port));
    const auto without_descriptors = [this] {
        const rlimit none{};
        setrlimit(RLIMIT_NOFILE, &none);
        rounds(1);
    };
    EXPECT_EXIT(without_descriptors(), testing::ExitedWithCode(1), "");
}

// What the request itself is charged as.
constexpr uint32_t PAYLOAD_COUNTED = 128, STREAM_COUNTED = 128;

TEST_F(Requests, TheDaemonAnswersOnItsOwnPort) {
    const std::string refused = "404 File Not Found";
    const std::tuple<std::string, std::string, std::string> cases[] = {
        {"&x-qv-gwad-opt=echo", "200 OK", "echo"},
        {"&x-qv-gwad-opt=log&loglv=9", "200 OK", "OK"},
        {"&x-qv-gwad-opt=log&loglv=2", "200 OK", "OK"},
        {"&x-qv-gwad-opt=log", refused, "not contain loglv field"},
        {"&x-qv-gwad-opt=reboot", refused, "File Not Found"},
        {"&x-qv-pri=0", refused, "not contain x-qv-gwad-opt field"},
    };
    for (const auto& [query, status, body] : cases) {
        EXPECT_EQ(reply_to(request_frame(3, 10010, query)), debug_answer(3, status, body)) << query;
    }
    EXPECT_TRUE(gwa_log_enabled(2));
    EXPECT_FALSE(gwa_log_enabled(3));
    for (const auto& [held, answer] :
         {std::pair{GWA_MEMORY_CEILING, debug_answer(3)}, {GWA_MEMORY_CEILING + 1, ""}}) {
        conn->memory = held - PAYLOAD_COUNTED - STREAM_COUNTED;
        EXPECT_EQ(reply_to(debug_request(3)), answer) << "what is not read fills no memory";
    }
    conn->memory = 0;
}

// Content-Length names the last chunk; the text's length goes where its text is, and the frame's
// own stays 0.
std::string diagnostic_head(const std::string& status, size_t last_chunk) {
    std::string text = "HTTP/1.1 " + status + "\r\nContent-Type:text/plain\r\nContent-Length:" +
                       std::to_string(last_chunk) + "\r\n\r\n";
    return frame_bytes(DATA, 5) + text.replace(12, 4, be32(static_cast<uint32_t>(text.size())));
}

TEST_F(Requests, ForTheDiagnosticGetItsFileInFrames) {
    static int slept;  // s
    gwa_time.sleep_us = [](int64_t us) { us == 1'000'000 ? slept++ : usleep(1000); };
    const temp_dir home;
    const std::string folder = home.path + "/tmp/wkr", file = folder + "/sysdiag.txt";
    text_copy(gwa_process_paths.home, home.path);
    fs::create_directories(folder);
    fs::create_directory(home.path + "/bin");
    const std::string report = noise(PAYLOAD_MAX + 100, 1);
    file_write(home.path + "/report", report);
    file_write(home.path + "/bin/diag.sh",
               "#!/bin/sh\n[ $1 = -c ] && mv " + home.path + "/report " + folder + "/$2 2>&-",
               true);
    const std::string expected = diagnostic_head("200 OK", 100) +
                                 frame_bytes(DATA, 5, report.substr(0, PAYLOAD_MAX)) +
                                 frame_bytes(DATA, 5, report.substr(PAYLOAD_MAX));
    for (const auto& [more, seconds] : {std::pair{"&timeout=5", 5},
                                        {"&timeout=54", 54},
                                        {"&timeout=4", 30},
                                        {"&timeout=55", 30},
                                        {"", 30}}) {
        slept = 0;
        EXPECT_EQ(reply_to(debug_request(5, std::string("diag") + more)), expected);
        EXPECT_EQ(slept, seconds) << more;
    }
    conn->memory = GWA_MEMORY_CEILING - PAYLOAD_MAX;
    EXPECT_EQ(reply_to(debug_request(5, "diag")),
              diagnostic_head("200 OK", PAYLOAD_MAX) +
                  frame_bytes(DATA, 5, report.substr(0, PAYLOAD_MAX)))
        << "what is not read fills no memory";
    conn->memory = 0;
    fs::remove(file);
    EXPECT_EQ(reply_to(debug_request(5, "diag")), diagnostic_head("404 File Not Found", 0));
    fs::create_symlink(file, file);
    EXPECT_EQ(reply_to(debug_request(5, "diag")), diagnostic_head("503 Gateway Internal Error", 0));
    fs::remove(file);
    fs::create_symlink(home.path + "/secret", file);
    file_write(home.path + "/secret", "secret");
    chmod(folder.c_str(), 0777);  // so anybody may have put the link there
    EXPECT_EQ(reply_to(debug_request(5, "diag")), diagnostic_head("503 Gateway Internal Error", 6));
    chmod(folder.c_str(), 0755);
    fs::remove(file);
    fs::create_directory(file);  // can be opened, has a size, and cannot be read
    fs::create_directory(file + "/some");
    struct stat status {};
    stat(file.c_str(), &status);
    EXPECT_EQ(reply_to(debug_request(5, "diag")),
              diagnostic_head("200 OK",
                              std::min<size_t>(static_cast<size_t>(status.st_size), PAYLOAD_MAX)));
    gwa_process_paths.home[0] = '\0';
}

}  // namespace
