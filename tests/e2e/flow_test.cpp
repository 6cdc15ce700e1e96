// Users, relay, daemon and web server: whole requests by real programs.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <sstream>

#include "box.h"
#include "support/isolation.h"
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

struct relay_program {
    std::unique_ptr<child> gwrelay;
    uint16_t ports[4] = {};  // manager, control, data, front

    // On its earlier ports, when it has any.
    void start() {
        gwrelay = std::make_unique<child>(std::vector<std::string>{
            GWRELAY_PATH, "--manager-port", std::to_string(ports[0]), "--control-port",
            std::to_string(ports[1]), "--data-port", std::to_string(ports[2]), "--front-port",
            std::to_string(ports[3])});
        if (!gwrelay->output_contains("\n") ||
            sscanf(gwrelay->output().c_str(), "ready manager=%hu control=%hu data=%hu front=%hu",
                   &ports[0], &ports[1], &ports[2], &ports[3]) != 4) {
            throw std::runtime_error("no relay: " + gwrelay->errors());
        }
    }
    relay_program() { start(); }
    uint16_t front() const { return ports[3]; }
};

std::string bytes_of(size_t size, uint32_t seed) {
    std::string bytes(size, '\0');
    for (char& byte : bytes) {
        seed = seed * 1664525 + 1013904223;
        byte = static_cast<char>(seed >> 24);
    }
    return bytes;
}

struct Flow : testing::Test {
    relay_program relay;
    web_server web;
    box device{relay.ports[0], "3"};
    temp_dir downloads;

    // The session id comes last: the daemon takes the order before it looks at anything else.
    void SetUp() override {
        ASSERT_TRUE(status_shows("\"data_connections\":5,")) << relay.gwrelay->errors();
        ASSERT_TRUE(eventually([&] { return !file_read(session_id()).empty(); }));
    }
    std::string session_id() const { return device.home.path + "/tmp/session.id"; }

    bool status_shows(std::string_view text) const {
        return eventually(
            [&] {
                const unique_fd fd = loopback_connect(relay.front());
                write_all(fd.get(), "GET /status.json HTTP/1.1\r\n\r\n");
                return read_to_end(fd.get()).find(text) != std::string::npos;
            },
            TRANSFER_PATIENCE);
    }
    std::string url(uint16_t port, const std::string& path) const {
        return "http://127.0.0.1:" + std::to_string(relay.front()) + "/" + DEVICE_ID + "/" +
               std::to_string(port) + "/" + path;
    }
    // A set of transfers as curl's own configuration; what curl says. Empty: it failed.
    std::string curl(const std::string& config) const {
        file_write(downloads.path + "/config", config);
        child run({CURL, "-sS", "--fail", "-K", downloads.path + "/config"});
        EXPECT_EQ(run.wait(TRANSFER_PATIENCE), 0) << run.errors();
        return run.output();
    }
    std::string curl_url(uint16_t port, const std::string& path) const {
        return "url = \"" + url(port, path) + "\"\n";
    }
};

}  // namespace

TEST_F(Flow, CarriesPagesAndFilesBothWays) {
    const std::string page = "<html>a page</html>", file = bytes_of(10 << 20, 1);
    const std::string upload = bytes_of(10 << 20, 2);
    file_write(web.path("index.html"), page);
    file_write(web.path("file.bin"), file);
    EXPECT_EQ(curl(curl_url(web.port, "")), page);
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
        file_write(web.path(name), bytes_of(SIZE + i, i));
        config += curl_url(web.port, name + "?gwrelay-pri=" + std::to_string(i % PRIORITIES)) +
                  "output = \"" + downloads.path + "/" + name + "\"\n";
    }
    curl(config);
    for (uint32_t i = 0; i < STREAMS; ++i) {
        const std::string got = file_read(downloads.path + "/" + std::to_string(i));
        EXPECT_TRUE(got == bytes_of(SIZE + i, i)) << i << ": " << got.size() << " bytes";
    }
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
    constexpr int TABLE_LINES = 16;
    ASSERT_TRUE(eventually([&] { return text_count(file_read(status), "\n") == TABLE_LINES; },
                           TRANSFER_PATIENCE));
    std::istringstream table(file_read(status));
    int rows = 0;
    for (std::string line; std::getline(table, line);) {
        if (line.starts_with("| d")) {
            ++rows;
            EXPECT_TRUE(line.ends_with("|       0|       0|       0|")) << line;
        }
    }
    EXPECT_EQ(rows, 5);
}

TEST_F(Flow, ComesBackAfterTheRelayWasKilled) {
    if (!isolated()) {
        GTEST_SKIP() << "a restart needs private process namespaces";
    }
    file_write(web.path("index.html"), "back");
    relay.gwrelay->signal(SIGKILL);
    relay.gwrelay->wait();
    EXPECT_TRUE(device.restarts());
    relay.start();
    ASSERT_TRUE(status_shows("\"data_connections\":5,"));
    EXPECT_EQ(curl(curl_url(web.port, "")), "back");
}
