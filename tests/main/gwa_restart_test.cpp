#include "main/gwa_restart.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "gwad_config.h"
#include "runtime/gwa_process.h"
#include "runtime/gwa_util_thread.h"
#include "runtime/gwa_util_time.h"
#include "support/child.h"

static constexpr char REPORT_TO[] = "GWAD_TEST_REPORT";  // where the program that runs next reports

// What a program finds when it is the one that the restart runs.
TEST(RestartedProgram, ReportsWhatItHasInherited) {
    const char* const report = getenv(REPORT_TO);
    if (report == nullptr) {
        GTEST_SKIP() << "nobody has restarted this program";
    }
    std::string found;
    for (int fd = 0; fd < 1024; fd++) {
        found += fcntl(fd, F_GETFD) != -1 ? "descriptor " + std::to_string(fd) + ", " : "";
    }
    sigset_t blocked;
    sigprocmask(SIG_BLOCK, nullptr, &blocked);
    for (const int number : {SIGINT, SIGTERM, SIGPIPE}) {
        struct sigaction action {};
        sigaction(number, nullptr, &action);
        const bool free = sigismember(&blocked, number) == 0 && action.sa_handler == SIG_DFL;
        found += free ? "" : "signal " + std::to_string(number) + ", ";
    }
    file_write(report, found + "that is all");
}

// By the timer thread, which the ending signals are blocked in, out of a process that ignores some.
TEST(Restart, LeavesNothingOfTheOldProcessToTheNewOne) {
    if (access(GWAD_INIT_SCRIPT, F_OK) == 0) {
        GTEST_SKIP() << "it would start the daemon that is installed here";
    }
    if (child({"/proc/self/exe", "--gtest_list_tests"}).wait() != 0) {
        GTEST_SKIP() << "an emulator runs this program, and nobody would run the next one";
    }
    const temp_dir home;
    const std::string report = home.path + "/report";
    child program([&] {
        setenv(REPORT_TO, report.c_str(), 1);
        std::vector<std::string> arguments{"test", "--gtest_filter=RestartedProgram.*"};
        const std::vector<char*> list = argument_list(arguments);
        gwa_restart_init(list.data());
        signal(SIGPIPE, SIG_IGN);
        fcntl(STDERR_FILENO, F_DUPFD, 100);
        pthread_t thread;
        gwa_thread_create(
            &thread, [](void*) -> void* { return gwa_restart(), nullptr; }, nullptr);
        pause();
    });
    EXPECT_EQ(program.wait(), 0);
    EXPECT_TRUE(eventually([&] { return file_read(report).ends_with("that is all"); }));
    EXPECT_EQ(file_read(report), "that is all");
}

// Whoever sent the signal wants an end: nothing is forked, or what was is taken back.
TEST(Restart, IsCalledOffByASignal) {
    for (const bool forked : {false, true}) {
        child program([forked] {
            gwa_process_run = forked;
            pthread_atfork(
                nullptr, [] { gwa_process_run = 0; }, nullptr);
            gwa_restart();
            _exit(waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD ? 0 : 1);
        });
        EXPECT_EQ(program.wait(), 0) << forked;
        EXPECT_EQ(program.errors().find("<0> exit from func") != std::string::npos, forked);
    }
}

// One that reaches the new process alone, before it has its own way of taking signals.
TEST(Restart, EndsWithASignalThatReachesOnlyItsChild) {
    if (prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) {
        GTEST_SKIP() << "nobody told us of its end: qemu lends no subreaper";
    }
    child program([] {
        signal(SIGTERM, [](int) { gwa_process_run = 0; });
        pthread_atfork(nullptr, nullptr, [] { raise(SIGTERM); });
        gwa_restart();
    });
    EXPECT_EQ(program.wait(), 0);
    int status = -1;
    EXPECT_TRUE(eventually([&] { return waitpid(-1, &status, WNOHANG) > 0; }));
    EXPECT_EQ(status, SIGTERM);
    prctl(PR_SET_CHILD_SUBREAPER, 0);
}
