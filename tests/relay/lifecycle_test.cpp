// Signals, the service manager, the access log and the metrics.

#include <sys/un.h>

#include <regex>

#include "relay/fixture.h"

namespace {

bool logs(const relay& hub, const std::string& text) {
    return eventually([&] { return has(hub.process.errors(), text); });
}

TEST(GwrelaySignals, HangUpReloadsWhatIsLiveAndNobodyIsLost) {
    const temp_dir folder;
    const std::string file = folder.path + "/gwrelay.toml";
    file_write(file, "users = 1\n");
    const relay hub({"--config=" + file, "--listen-admin=127.0.0.1"});
    const unique_fd control = control_login(hub, "box"), user = say_to(hub.front, "");
    const auto refuses = [&hub] { return has(get(hub, "/"), "as many users as it can bear"); };
    EXPECT_TRUE(eventually(refuses));
    const std::tuple<const char*, const char*, bool> changes[] = {
        {"users = 2\nuser-buffer = '1M'\n", "--user-buffer changes with the next start only\n",
         false},
        {"users = 0\n", ":1: bad value for --users: 0\n", false},
        {"users = 1\n", "reloaded\n", true}};
    for (const auto& [text, line, full] : changes) {
        file_write(file, text);
        kill(hub.process.pid(), SIGHUP);
        EXPECT_TRUE(logs(hub, line)) << hub.process.errors();
        EXPECT_TRUE(eventually([&, wanted = full] { return refuses() == wanted; })) << text;
    }
    EXPECT_TRUE(still_echoes(control));
}

// Who is served may end; who comes, or asks again, is told to go; who is idle goes.
TEST(GwrelaySignals, TerminationDrains) {
    device box({"--drain=60", "--idle-timeout=60", "--linger-timeout=0.1"});
    const unique_fd idle = say_to(box.hub.front, "GET /healthz" + HTTP_ON + "\r\n");
    EXPECT_TRUE(has(read_exact(idle.get(), 12), " 200"));
    const unique_fd user = box.user("GET /box/80/" + HTTP_ON + "\r\n");
    box.answers(OK_ON + "Content-Length: 2\r\n\r\na");
    EXPECT_TRUE(has(read_exact(user.get(), 39), "\r\na"));
    kill(box.hub.process.pid(), SIGTERM);
    EXPECT_TRUE(logs(box.hub, "signal 15, no new requests; 2 users may end theirs\n"));
    EXPECT_TRUE(read_with_end(idle).starts_with("end:"));
    for (const std::string path : {"/box/80/", "/healthz"}) {
        const std::string refused = get(box.hub, path);
        EXPECT_TRUE(refused.starts_with("HTTP/1.1 503 ") && has(refused, "Connection: close"));
    }
    write_all(user.get(), "GET /box/80/" + HTTP_ON + "\r\n");  // he does not wait
    box.answers("b");
    EXPECT_TRUE(read_with_end(user).starts_with("end:bHTTP/1.1 503 "));
    EXPECT_EQ(box.hub.process.wait(), 0);
}

TEST(GwrelaySignals, ASecondOneEndsTheDraining) {
    device box({"--drain=60"});
    const unique_fd user = box.user();
    kill(box.hub.process.pid(), SIGTERM);
    EXPECT_TRUE(logs(box.hub, "1 users may end theirs\n"));
    EXPECT_TRUE(box.hub.process.running());
    EXPECT_EQ(box.hub.process.terminate(), 0);
    EXPECT_EQ(read_with_end(user), "reset:");
}

// The manager hears of every step, and hands over a socket by its name.
TEST(GwrelayService, TellsItsManagerAndTakesItsSocket) {
    const temp_dir folder;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = folder.path + "/notify";
    path.copy(address.sun_path, path.size());
    const unique_fd manager(socket(AF_UNIX, SOCK_DGRAM, 0));
    ASSERT_EQ(bind(manager.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    const auto hears = [&manager] {
        char text[64];
        pollfd ready{manager.get(), POLLIN, 0};
        poll(&ready, 1, 5000);
        return std::string(text, static_cast<size_t>(std::max<ssize_t>(
                                     0, recv(manager.get(), text, sizeof text, MSG_DONTWAIT))));
    };
    const loopback_listener handed;
    child process([&] {
        dup2(dup2(handed.fd.get(), 40), 4);  // a copy stays open in the program
        setenv("NOTIFY_SOCKET", path.c_str(), 1);
        setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
        setenv("LISTEN_FDS", "2", 1);
        setenv("LISTEN_FDNAMES", "other:front", 1);
        strings words = relay::command_line({});
        execv(GWRELAY_PATH, argument_list(words).data());
    });
    EXPECT_EQ(hears(), "READY=1") << process.errors();
    EXPECT_TRUE(read_to_end(say_to(handed.port, "GET /" + HTTP + "\r\n").get()).starts_with(OK_ON));
    kill(process.pid(), SIGHUP);
    EXPECT_TRUE(hears().starts_with("RELOADING=1\nMONOTONIC_USEC="));
    EXPECT_EQ(hears(), "READY=1");
    EXPECT_EQ(process.terminate(), 0);
    EXPECT_EQ(hears(), "STOPPING=1");
}

TEST(GwrelayAccessLog, HasALineForEachRequestAndIsOpenedAnew) {
    const temp_dir folder;
    const std::string path = folder.path + "/access.log";
    device box({"--access-log=" + path});
    const unique_fd user = box.user("GET /box/80/a?b=\"" + HTTP + "User-Agent: me\\\r\n\r\n");
    box.answers(OK_X);
    const std::string answer = read_to_end(user.get());
    EXPECT_EQ(box.hears(), frame_bytes(CLOSE_STREAM, 1));
    unique_fd leaver = box.user();
    const linger reset{1, 0};
    setsockopt(leaver.get(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    leaver.reset();
    EXPECT_EQ(box.hears(), frame_bytes(CLOSE_STREAM, 2));
    get(box.hub, "/nobody/");
    const auto holds = [&](const std::string& file, const std::vector<std::string>& lines) {
        std::string all;
        for (const std::string& line : lines) {
            all += R"(127\.0\.0\.1 - - \[\d\d/[A-Z][a-z]{2}/\d{4}(:\d\d){3} [-+]\d{4}\] )" + line +
                   "\n";
        }
        return eventually([&] { return std::regex_match(file_read(file), std::regex(all)); });
    };
    EXPECT_TRUE(holds(path, {R"("GET /box/80/a\?b=\\x22 HTTP/1\.1" 200 )" +
                                 std::to_string(answer.size()) + R"( "-" "me\\x5C" "box" 80)",
                             R"("GET /box/80/ HTTP/1\.1" 499 0 "-" "-" "box" 80)",
                             R"("GET /nobody/ HTTP/1\.1" 404 \d+ "-" "-" "-" -)"}))
        << file_read(path);
    rename(path.c_str(), (path + ".1").c_str());
    kill(box.hub.process.pid(), SIGUSR1);
    EXPECT_TRUE(eventually([&] { return access(path.c_str(), F_OK) == 0; }));
    const std::string metrics = body(get(box.hub, "/metrics"));
    EXPECT_TRUE(holds(path, {R"("GET /metrics .*)"})) << file_read(path);
    for (const char* line :
         {"gwrelay_devices{state=\"online\"} 1\n", "gwrelay_data_connections 1\n",
          "gwrelay_requests_total{code=\"2xx\"} 1\n", "gwrelay_requests_total{code=\"4xx\"} 2\n",
          "gwrelay_streams{state=\"open\"} 0\n", "gwrelay_users_max 2000\n",
          "# TYPE gwrelay_users gauge\n"}) {
        EXPECT_TRUE(has(metrics, line)) << line << metrics;
    }
    const std::string bytes = "gwrelay_bytes_total{direction=\"from_devices\"} ";
    EXPECT_TRUE(has(metrics, bytes + std::to_string(OK_X.size()) + "\n")) << metrics;
}

}  // namespace
