#include "main/gwa_main.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "runtime/gwa_process.h"
#include "runtime/gwa_util_time.h"
#include "support/child.h"
#include "support/frames.h"
#include "support/sockets.h"

namespace {

class Daemon : public testing::Test {
   protected:
    temp_dir home;
    const std::string log = home.path + "/log";
    const loopback_listener manager, control;
    Daemon() { mkdir((home.path + "/tmp").c_str(), 0700); }

    // In a child: its pauses are short, and the first one of the control loop asks for the jump.
    void run(gwa_jump jump, const std::string& verbose = "7") const {
        static std::atomic<int> asked;
        asked = jump;
        gwa_time.sleep_us = [](int64_t us) {
            if (us == 100'000 && asked != GWA_JUMP_NONE) {
                gwa_process_jump = asked.exchange(GWA_JUMP_NONE);
            }
            usleep(1000);
        };
        const std::string port = std::to_string(manager.port);
        std::vector<std::string> arguments{"gwad", "-H",        home.path, "-l", log,
                                           "-r",   "127.0.0.1", "-p",      port, "-i",
                                           "lo",   "-I",        "box",     "-V", verbose};
        gwa_main(static_cast<int>(arguments.size()), argument_list(arguments).data());
    }
    // The server's side of a discovery and a login.
    unique_fd login() const {
        const unique_fd asking = manager.accept();
        read_until(asking.get(), "\r\n\r\n");
        write_all(asking.get(), "HTTP/1.1 200 OK\r\n\r\n{\"ret\":0,\"to\":\"127.0.0.1:" +
                                    std::to_string(control.port) + "\"}");
        unique_fd server = control.accept();
        frame_read(server.get());
        write_all(server.get(), frame_bytes(LOGIN_ANSWER));
        EXPECT_EQ(frame_read(server.get()), frame_bytes(SESSION_ID));
        return server;
    }
    // The first heartbeat is due at once.
    static void heartbeat_answer(const unique_fd& server) {
        EXPECT_EQ(frame_read(server.get()), heartbeat_frame(0));
        write_all(server.get(), heartbeat_frame(0));
    }
};

}  // namespace

TEST_F(Daemon, KeepsItsMessagesOutOfItsLogWhenStartedWithDescriptorsClosed) {
    child program([&] {
        close(STDERR_FILENO);  // the log would get its number
        run(GWA_JUMP_NONE, "9");
    });
    EXPECT_EQ(program.wait(), 1);
    const std::string text = file_read(log);
    EXPECT_NE(text.find("exit from func"), std::string::npos) << text;
    EXPECT_EQ(text.find("log level is invalid"), std::string::npos) << text;
}

TEST_F(Daemon, EndsWhenAskedTo) {
    for (const auto& [jump, status] : {std::pair{GWA_JUMP_EXIT, 0}, {GWA_JUMP_RESTART, 255}}) {
        child program([this, jump = jump] { run(jump); });
        const unique_fd server = login();
        heartbeat_answer(server);
        EXPECT_EQ(program.wait(), status);
    }
}

// The connection that there was is released, and the next one is as good.
TEST_F(Daemon, ReleasesItsConnectionWhenAskedToStartOver) {
    child program([&] {
        sigset_t ending;  // blocked, as a careless starter may leave it
        sigemptyset(&ending);
        sigaddset(&ending, SIGTERM);
        sigprocmask(SIG_BLOCK, &ending, nullptr);
        run(GWA_JUMP_REINIT);
    });
    const unique_fd first = login();
    heartbeat_answer(first);
    EXPECT_TRUE(closed_by_peer(first.get()));
    const unique_fd second = login();  // which is not asked: it has heard something not long ago
    EXPECT_EQ(program.terminate(), 0);
    const std::string text = file_read(log);
    size_t at = 0;
    for (const char* line : {"<1> long jump from 1 here\n", "<0> reinit now\n",
                             "cntl exit success\n", "cntl init success\n", "cntl exit success\n"}) {
        at = text.find(line, at);
        ASSERT_NE(at, std::string::npos) << line << " is missing, or comes earlier: " << text;
    }
}
