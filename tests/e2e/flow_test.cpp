// Users, relay, daemon and web server: whole requests by real programs.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>

#include "box.h"
#include "support/isolation.h"
#include "support/relay_program.h"
#include "support/service.h"

namespace {

constexpr char CURL[] = "/usr/bin/curl";
constexpr char NGINX[] = "/usr/sbin/nginx";
constexpr std::chrono::seconds TRANSFER_PATIENCE{60};

// A web server for the files of its folder `www`.
struct web_server {
    temp_dir folder;
    uint16_t port = loopback_listener().port;  // free a moment ago: it cannot be asked for one
    std::unique_ptr<child> nginx;

    web_server() {
        std::filesystem::create_directory(folder.path + "/www");
        const std::string config = folder.path + "/nginx.conf";
        std::string paths;
        for (const char* kind : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"}) {
            paths += std::string(kind) + "_temp_path " + kind + ";\n";
        }
        file_write(config,
                   "daemon off; master_process off; pid nginx.pid; error_log stderr;\n"
                   "user root root;\n"  // the only one there is in a namespace of an ordinary user
                   "events {}\nhttp {\naccess_log off;\n" +
                       paths + "server { listen 127.0.0.1:" + std::to_string(port) +
                       "; root www; }\n}\n");
        nginx = std::make_unique<child>(
            std::vector<std::string>{NGINX, "-p", folder.path, "-c", config, "-e", "stderr"});
        if (!eventually([&] { return static_cast<bool>(loopback_connect(port)); })) {
            throw std::runtime_error("no web server: " + nginx->errors());
        }
    }
    std::string path(const std::string& name) const { return folder.path + "/www/" + name; }
};

struct Flow : testing::Test {
    std::optional<relay_program> relay{std::in_place};
    web_server web;
    box device{relay->manager, "3"};
    temp_dir downloads;

    // The session id comes last: the daemon takes the order before it looks at anything else.
    void SetUp() override {
        ASSERT_TRUE(status_shows("\"data_connections\":5,")) << relay->process.errors();
        ASSERT_TRUE(
            eventually([&] { return !file_read(device.home.path + "/tmp/session.id").empty(); }));
    }

    bool status_shows(std::string_view text) const {
        return eventually(
            [&] {
                const unique_fd fd = loopback_connect(relay->front);
                write_all(fd.get(), "GET /status.json HTTP/1.1\r\n\r\n");
                return read_to_end(fd.get()).find(text) != std::string::npos;
            },
            TRANSFER_PATIENCE);
    }
    // A set of transfers as curl's own configuration; what curl says. Empty: it failed.
    std::string curl(const std::string& config) const {
        file_write(downloads.path + "/config", config);
        child run({CURL, "-sS", "--fail", "-K", downloads.path + "/config"});
        EXPECT_EQ(run.wait(TRANSFER_PATIENCE), 0) << run.errors();
        return run.output();
    }
    // What a user gets for one request of that method and path, which may have a body.
    std::string request(const std::string& method, uint16_t port, const std::string& path,
                        const std::string& body = {}) const {
        const unique_fd fd = user(method, port, path, body.size());
        write_all(fd.get(), body);
        return read_to_end(fd.get());
    }
    unique_fd user(const std::string& method, uint16_t port, const std::string& path,
                   size_t body_size = 0) const {
        unique_fd fd = loopback_connect(relay->front);
        write_all(fd.get(), method + " /" + DEVICE_ID + "/" + std::to_string(port) + path +
                                " HTTP/1.1\r\nContent-Length: " + std::to_string(body_size) +
                                "\r\n\r\n");
        return fd;
    }
    std::string curl_url(uint16_t port, const std::string& path) const {
        return "url = \"http://127.0.0.1:" + std::to_string(relay->front) + "/" + DEVICE_ID + "/" +
               std::to_string(port) + "/" + path + "\"\n";
    }
};

}  // namespace

TEST_F(Flow, CarriesFilesBothWays) {
    const std::string file = noise(10 << 20, 1), upload = noise(10 << 20, 2);
    file_write(web.path("file.bin"), file);
    EXPECT_TRUE(curl(curl_url(web.port, "file.bin")) == file);
    std::atomic<bool> arrived = false;
    local_service taker([&](int fd) {
        read_until(fd, "\r\n\r\n");
        arrived = read_exact(fd, upload.size(), TRANSFER_PATIENCE) == upload;
        write_all(fd, "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\ntaken");
    });
    file_write(downloads.path + "/upload", upload);
    EXPECT_EQ(curl(curl_url(taker.port(), "take") + "data-binary = \"@" + downloads.path +
                   "/upload\"\nheader = \"Expect:\"\n"),
              "taken");
    EXPECT_TRUE(arrived);
}

TEST_F(Flow, CarriesFiftyStreamsAtOnce) {
    constexpr uint32_t STREAMS = 50, PRIORITIES = 6;
    constexpr size_t SIZE = 300000;
    std::string config = "parallel\nparallel-immediate\nparallel-max = 50\n";
    for (uint32_t i = 0; i < STREAMS; ++i) {
        const std::string name = std::to_string(i);
        file_write(web.path(name), noise(SIZE + i, i));
        config += curl_url(web.port, name + "?gwrelay-pri=" + std::to_string(i % PRIORITIES)) +
                  "output = \"" + downloads.path + "/" + name + "\"\n";
    }
    curl(config);
    for (uint32_t i = 0; i < STREAMS; ++i) {
        const std::string got = file_read(downloads.path + "/" + std::to_string(i));
        EXPECT_TRUE(got == noise(SIZE + i, i)) << i << ": " << got.size() << " bytes";
    }
}

TEST_F(Flow, ADeadPortIsToldAtOnceAndCostsNobodyHisStream) {
    constexpr size_t USERS = 10;  // two on each data connection
    std::atomic<bool> go_on = false;
    local_service halves([&](int fd) {
        read_until(fd, "\r\n\r\n");
        write_all(fd, "HTTP/1.1 200 OK\r\nContent-Length: 8\r\n\r\nhalf");
        eventually([&] { return go_on.load(); }, TRANSFER_PATIENCE);
        write_all(fd, "half");
    });
    std::vector<unique_fd> users;
    for (size_t i = 0; i < USERS; ++i) {
        users.push_back(user("GET", halves.port(), "/"));
        EXPECT_TRUE(read_until(users.back().get(), "half").ends_with("half"));
    }
    const uint16_t dead_port = loopback_listener(-1).port;
    for (size_t i = 0; i < USERS; ++i) {
        EXPECT_TRUE(request("GET", dead_port, "/").starts_with("HTTP/1.1 502 "));
        const std::string body = "GET /?x-qv-devid=test-box&x-qv-port=" + std::to_string(web.port);
        EXPECT_TRUE(request("POST", dead_port, "/", body + std::string(100000, 'b'))
                        .starts_with("HTTP/1.1 502 "));
    }
    go_on = true;
    for (const unique_fd& fd : users) {
        EXPECT_EQ(read_exact(fd.get(), 4), "half");
    }
    EXPECT_EQ(text_count(device.log(), "login remote server success"), 6);
}

TEST_F(Flow, APathSpeaksToTheWebServerAlone) {
    const std::string name = "x-qv-port=10010&x-qv-gwad-opt=echo&";
    file_write(web.path(name), "file");
    EXPECT_EQ(curl(curl_url(web.port, name)), "file");
    EXPECT_EQ(curl(curl_url(10010, "?" + name)), "echo");
}

TEST_F(Flow, LeavesNothingBehindAfterTwoThousandStreams) {
    constexpr int STREAMS = 2000;
    file_write(web.path("short"), "short");
    const int fds = device.open_fds();
    const std::string answers =
        curl("parallel\nparallel-max = 20\nwrite-out = \"\\n\"\n" +
             curl_url(web.port, "short?[1-" + std::to_string(STREAMS) + "]"));
    EXPECT_EQ(text_count(answers, "short"), STREAMS);
    EXPECT_TRUE(status_shows("\"open_streams\":0,"));
    EXPECT_TRUE(eventually([&] { return device.open_fds() == fds; }))
        << device.open_fds() << " descriptors are open, " << fds << " were";

    const std::string status = device.home.path + "/tmp/gwad.stat";  // written every 30 s
    std::filesystem::remove(status);
    EXPECT_TRUE(eventually(
        [&] { return text_count(file_read(status), "|       0|       0|       0|\n") == 5; },
        TRANSFER_PATIENCE))
        << file_read(status);
}

TEST_F(Flow, ComesBackAfterTheRelayWasKilled) {
    if (!isolated()) {
        GTEST_SKIP() << "a restart needs private process namespaces";
    }
    file_write(web.path("index.html"), "back");
    const std::vector<std::string> same_ports = {"--manager-port=" + std::to_string(relay->manager),
                                                 "--front-port=" + std::to_string(relay->front)};
    relay.reset();  // killed
    EXPECT_TRUE(device.restarts());
    relay.emplace(same_ports);
    ASSERT_TRUE(status_shows("\"data_connections\":5,"));
    EXPECT_EQ(curl(curl_url(web.port, "")), "back");
}
