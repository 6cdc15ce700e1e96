#include "main/gwa_main.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include "runtime/gwa_process.h"
#include "runtime/gwa_util_time.h"
#include "support/child.h"
#include "support/frames.h"
#include "support/sockets.h"

namespace {

constexpr int NO_NAMESPACE = 77;

class Daemon : public testing::Test {  // in a network namespace of its own: no server is reached
   protected:
    temp_dir home;
    std::string log = home.path + "/log";
    Daemon() { mkdir((home.path + "/tmp").c_str(), 0700); }

    void run(const char* option, const char* value) const {
        std::vector<std::string> arguments{"gwad", "-H",        home.path, "-l", log,
                                           "-r",   "127.0.0.1", "-i",      "lo", "-I",
                                           "box",  option,      value};
        gwa_main(static_cast<int>(arguments.size()), argument_list(arguments).data());
    }
};

}  // namespace

TEST_F(Daemon, KeepsItsMessagesOutOfItsLogWhenStartedWithDescriptorsClosed) {
    child program([&] {
        close(STDERR_FILENO);  // the log would get its number
        run("-V", "9");
    });
    EXPECT_EQ(program.wait(), 1);
    const std::string text = file_read(log);
    EXPECT_NE(text.find("exit from func"), std::string::npos) << text;
    EXPECT_EQ(text.find("log level is invalid"), std::string::npos) << text;
}

TEST_F(Daemon, TakesUpTheJumpThatItIsAskedFor) {
    const struct {
        gwa_jump code;
        const char* line;
        bool goes_on;
        int status;
    } cases[] = {
        {GWA_JUMP_NONE, "<1> set jump here\n", true, 0},
        {GWA_JUMP_EXIT, "<0> exit process now\n", false, 0},
        {GWA_JUMP_RESTART, "<7> unknown jump code 2\n", false, 255},
    };
    for (const auto& with : cases) {
        child program([&] {
            if (unshare(CLONE_NEWNET) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) {
                _exit(NO_NAMESPACE);
            }
            gwa_time.sleep_us = [](int64_t) { usleep(1000); };
            gwa_process_jump.store(with.code);
            sigset_t ending;  // blocked, as a careless starter may leave it
            sigemptyset(&ending);
            sigaddset(&ending, SIGTERM);
            sigprocmask(SIG_BLOCK, &ending, nullptr);
            run("-p", "1");
        });
        const auto logged = [&] { return file_read(log).find(with.line) != std::string::npos; };
        if (with.goes_on && eventually(logged)) {
            kill(program.pid(), SIGTERM);
        }
        if (program.wait() == NO_NAMESPACE) {
            GTEST_SKIP() << "this machine allows no private network namespace";
        }
        EXPECT_EQ(program.wait(), with.status);
        EXPECT_TRUE(logged()) << file_read(log);
        EXPECT_EQ(program.output().find("recv signal 15\n") != std::string::npos, with.goes_on);
        unlink(log.c_str());
    }
}

// The connection that there was is released, and the next one is as good.
TEST_F(Daemon, ReleasesItsConnectionWhenAskedToStartOver) {
    const loopback_listener manager, control;
    child program([&] {
        gwa_time.sleep_us = [](int64_t us) {  // the first pause of the control loop asks
            static std::atomic<bool> asked{false};
            if (us == 100'000 && !asked.exchange(true)) {
                gwa_process_jump = GWA_JUMP_REINIT;
            }
            usleep(1000);
        };
        run("-p", std::to_string(manager.port).c_str());
    });
    unique_fd before;
    for (uint32_t sequence = 0; sequence < 2; sequence++) {
        SCOPED_TRACE(sequence);
        const unique_fd asking = manager.accept();
        read_until(asking.get(), "\r\n\r\n");
        write_all(asking.get(), "HTTP/1.1 200 OK\r\n\r\n{\"ret\":0,\"to\":\"127.0.0.1:" +
                                    std::to_string(control.port) + "\"}");
        unique_fd server = control.accept();
        EXPECT_EQ(frame_read(server.get()).substr(0, 4),
                  frame_bytes(DEVICE_INFO, 0, "", 3).substr(0, 4));
        write_all(server.get(), frame_bytes(LOGIN_ANSWER));
        EXPECT_EQ(frame_read(server.get()), frame_bytes(SESSION_ID));
        // The first one is due at once; the second connection has heard something not long ago.
        if (sequence == 0) {
            EXPECT_EQ(frame_read(server.get()), heartbeat_frame(0));
            write_all(server.get(), heartbeat_frame(0));
            EXPECT_TRUE(closed_by_peer(server.get()));
        }
        before = std::move(server);
    }
    EXPECT_EQ(program.terminate(), 0);
    const std::string text = file_read(log);
    const size_t released = text.find("connection cntl exit success");
    EXPECT_LT(text.find("<1> long jump from 1 here"), released);
    EXPECT_LT(text.find("<0> reinit now"), released);
    EXPECT_NE(text.find("connection cntl init success", released), std::string::npos) << text;
}
