#include "main/gwa_main.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include "main/gwa_process.h"
#include "runtime/gwa_util_time.h"
#include "support/child.h"

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
        {GWA_JUMP_REINIT, "<0> reinit now\n", true, 0},
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
