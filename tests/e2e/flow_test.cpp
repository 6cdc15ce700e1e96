// Users, relay, daemon and web server: whole requests by real programs.
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <sstream>

#include "box.h"
#include "support/relay_program.h"
#include "support/service.h"

namespace {

constexpr std::chrono::seconds TRANSFER_PATIENCE{60};

// A web server for the files of the folder `www`.
std::vector<std::string> nginx_command(const std::string& folder, uint16_t port) {
    std::filesystem::create_directory(folder + "/www");
    file_write(folder + "/nginx.conf", R"(
        daemon off; master_process off; pid nginx.pid; error_log stderr; events {}
        user root root;  # the only one there is in a namespace of an ordinary user
        http {
            log_format number $connection;
            access_log connections number;
            client_body_temp_path 1; proxy_temp_path 2; fastcgi_temp_path 3; uwsgi_temp_path 4;
            scgi_temp_path 5;
            server { root www; listen 127.0.0.1:)" +
                                           std::to_string(port) + "; } }");
    return {"/usr/sbin/nginx", "-p", folder, "-c", folder + "/nginx.conf", "-e", "stderr"};
}

struct Flow : testing::Test {
    relay_program relay;
    temp_dir folder, downloads;
    uint16_t web = loopback_listener().port;  // free a moment ago: nginx cannot be asked for one
    child nginx{nginx_command(folder.path, web)};
    box device{relay.manager, "3"};

    explicit Flow(const std::vector<std::string>& options = {"--repeat-timeout=0.5"})
        : relay(options) {}

    // The session id comes last: the daemon takes the order before it looks at anything else.
    void SetUp() override {
        ASSERT_TRUE(eventually([&] { return bool{loopback_connect(web)}; })) << nginx.errors();
        ASSERT_TRUE(status_shows("\"data_connections\":5,")) << relay.process.errors();
        ASSERT_TRUE(
            eventually([&] { return !file_read(device.home.path + "/tmp/session.id").empty(); }));
    }
    bool status_shows(std::string_view text) const {
        return eventually(
            [&] {
                const unique_fd fd = loopback_connect(relay.front);
                write_all(fd.get(), "GET /status.json HTTP/1.0\r\n\r\n");
                return read_to_end(fd.get()).find(text) != std::string::npos;
            },
            TRANSFER_PATIENCE);
    }
    void web_has(const std::string& name, const std::string& bytes) const {
        file_write(folder.path + "/www/" + name, bytes);
    }
    // A set of transfers as curl's own configuration; what curl says. Empty: it failed.
    std::string curl(const std::string& config) const {
        file_write(downloads.path + "/config", config);
        child run({"/usr/bin/curl", "-sS", "--fail", "-K", downloads.path + "/config"});
        EXPECT_EQ(run.wait(TRANSFER_PATIENCE), 0) << run.errors();
        return run.output();
    }
    std::string curl_url(uint16_t port, const std::string& path) const {
        return "url = \"http://127.0.0.1:" + std::to_string(relay.front) + "/box/" +
               std::to_string(port) + "/" + path + "\"\n";
    }
    // A user who has sent his only request.
    unique_fd user(uint16_t port) const {
        unique_fd fd = loopback_connect(relay.front);
        write_all(fd.get(),
                  "GET /box/" + std::to_string(port) + "/ HTTP/1.1\r\nConnection: close\r\n\r\n");
        return fd;
    }
    // How many connections the web server has served since this was last asked.
    size_t web_connections() const {
        const std::string file = folder.path + "/connections";
        std::istringstream lines(file_read(file));
        const std::set<std::string> numbers{std::istream_iterator<std::string>(lines), {}};
        file_write(file, "");
        return numbers.size();
    }
};

// A stream, and with it a local connection, for every request.
struct FlowWithoutReuse : Flow {
    FlowWithoutReuse() : Flow({"--no-reuse"}) {}
};

}  // namespace

TEST_F(Flow, CarriesFilesBothWaysAndFiftyAtOnce) {
    constexpr uint32_t STREAMS = 50, PRIORITIES = 6;
    const std::string upload = noise(10 << 20, 2);
    std::atomic<bool> arrived = false;
    local_service taker([&](int fd) {
        read_until(fd, "\r\n\r\n");
        arrived = read_exact(fd, upload.size(), TRANSFER_PATIENCE) == upload;
        write_all(fd, "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\ntaken");
    });
    file_write(downloads.path + "/upload", upload);
    const auto file = [](uint32_t i) { return noise(300000 + i, i); };
    std::string config = "parallel\nparallel-immediate\nparallel-max = 50\n" +
                         curl_url(taker.port(), "take") + "data-binary = \"@" + downloads.path +
                         "/upload\"\nheader = \"Expect:\"\nnext\n";
    for (uint32_t i = 0; i < STREAMS; ++i) {
        const std::string name = std::to_string(i);
        web_has(name, file(i));
        config += curl_url(web, name + "?gwrelay-pri=" + std::to_string(i % PRIORITIES)) +
                  "output = \"" + downloads.path + "/" + name + "\"\n";
    }
    EXPECT_EQ(curl(config), "taken");
    EXPECT_TRUE(arrived);
    for (uint32_t i = 0; i < STREAMS; ++i) {
        EXPECT_TRUE(file_read(downloads.path + "/" + std::to_string(i)) == file(i)) << i;
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
        users.push_back(user(halves.port()));
        EXPECT_TRUE(read_until(users.back().get(), "half").ends_with("half"));
    }
    const uint16_t dead_port = loopback_listener(-1).port;
    for (size_t i = 0; i < USERS; ++i) {
        EXPECT_TRUE(read_to_end(user(dead_port).get()).starts_with("HTTP/1.1 502 "));
    }
    go_on = true;
    for (const unique_fd& fd : users) {
        EXPECT_EQ(read_exact(fd.get(), 4), "half");
    }
    EXPECT_EQ(text_count(device.log(), "login remote server success"), 6);
}

TEST_F(FlowWithoutReuse, LeavesNothingBehindAfterTwoThousandStreams) {
    constexpr int STREAMS = 2000;
    web_has("short", "short");
    const auto open_fds = [this] {
        const std::filesystem::directory_iterator entries("/proc/" + std::to_string(device.pid()) +
                                                          "/fd");
        return std::distance(begin(entries), end(entries));
    };
    auto before = open_fds();
    EXPECT_TRUE(eventually([&] {  // what the login writes is closed a moment later
        std::this_thread::sleep_for(test_duration{100});
        return std::exchange(before, open_fds()) == before;
    }));
    const std::string answers = curl("parallel\nparallel-max = 20\nwrite-out = \"\\n\"\n" +
                                     curl_url(web, "short?[1-" + std::to_string(STREAMS) + "]"));
    EXPECT_EQ(text_count(answers, "short"), STREAMS);
    EXPECT_TRUE(status_shows("\"open_streams\":0,"));
    EXPECT_TRUE(eventually([&] { return open_fds() == before; })) << open_fds() << before;

    const std::string status = device.home.path + "/tmp/gwad.stat";  // written every 30 s
    std::filesystem::remove(status);
    EXPECT_TRUE(eventually(
        [&] { return text_count(file_read(status), "|       0|       0|       0|\n") == 5; },
        TRANSFER_PATIENCE))
        << file_read(status);
}

TEST_F(Flow, APageWithFiftyObjectsLoadsByAHandfulOfLocalConnections) {
    const std::string object(1024, 'o');
    web_has("object", object);
    const std::string objects = curl_url(web, "object?[1-50]");
    const auto loads = [&](const std::string& config) {
        return text_count(curl(config + objects), object) == 50;
    };
    EXPECT_TRUE(loads(""));
    EXPECT_EQ(web_connections(), 1);
    EXPECT_TRUE(loads("parallel\nparallel-max = 6\n"));
    EXPECT_LE(web_connections(), 7);  // the last line about the one before may come late
    EXPECT_EQ(text_count(device.log(), "login remote server success"), 6);
}

// It ends its connections after each answer and says so neither to us nor, hence, to the relay.
TEST_F(Flow, AServiceThatClosesUnaskedCostsOneRequestAMoment) {
    std::atomic<int> connections = 0;
    local_service closing([&](int fd) {
        ++connections;
        read_until(fd, "\r\n\r\n");
        write_all(fd, "HTTP/1.1 200 OK\r\nContent-Length: 6\r\n\r\nanswer");
        shutdown(fd, SHUT_RDWR);
    });
    EXPECT_EQ(text_count(curl(curl_url(closing.port(), "[1-5]")), "answer"), 5);
    EXPECT_EQ(connections, 5);
    EXPECT_EQ(text_count(relay.process.errors(), "has left a further request unanswered"), 1);
}
