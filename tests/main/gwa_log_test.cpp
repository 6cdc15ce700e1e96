#include "main/gwa_log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <regex>

#include "runtime/gwa_print.h"
#include "runtime/gwa_process.h"
#include "runtime/gwa_util_time.h"
#include "support/child.h"

namespace {

struct log_to_file {  // while it lives, the log goes to a file of the test's
    temp_dir dir;
    std::string path = dir.path + "/log";
    log_to_file() { EXPECT_EQ(gwa_log_init(path.c_str(), false), 0); }
    ~log_to_file() {
        gwa_log_init(nullptr, false);
        gwa_log_level_set(GWA_LEVEL_DEBUG);
    }
    std::string text() const { return file_read(path); }
    std::string numbers(const std::string& of) const {  // of lines that are numbers
        std::string ends = std::regex_replace(file_read(of), std::regex("<2.*> "), "");
        std::replace(ends.begin(), ends.end(), '\n', ' ');
        return ends;
    }
    std::string numbers() const { return numbers(path); }
};

}  // namespace

TEST(Log, StampsEveryLineWithWhereItComesFrom) {
    log_to_file log;
    GWA_LOG(ERROR, "text %d", 5);
    const std::regex line(
        R"(<\d{4}-\d\d-\d\d \d\d:\d\d:\d\d> \[gwad\] gwa_log_test.cpp \d+ TestBody\(\) <3> text 5\n)");
    EXPECT_TRUE(std::regex_match(log.text(), line)) << log.text();
    gwa_log_close();
    GWA_LOG(FATAL, "too late");
    EXPECT_EQ(gwa_log_init((log.dir.path + "/no/log").c_str(), false), -1);
    GWA_LOG(FATAL, "nowhere");
    EXPECT_TRUE(std::regex_match(log.text(), line)) << log.text();
}

TEST(Log, WritesUpToTheLevelThatIsSet) {
    for (int set = GWA_LOG_OFF; set <= GWA_LEVEL_DEBUG; ++set) {
        log_to_file log;
        ASSERT_EQ(gwa_log_level_set(set), 0);
        EXPECT_EQ(gwa_log_level_set(8), -1);
        EXPECT_EQ(gwa_log_level_set(-2), -1);
        int level = 0;
        EXPECT_EQ(gwa_log_level_get(&level), 0);
        EXPECT_EQ(level, set) << "bad ones change nothing";
        GWA_LOG(FATAL, "");
        GWA_LOG(ERROR, "");
        GWA_LOG(DEBUG, "");
        const std::string text = log.text();
        EXPECT_EQ(std::count(text.begin(), text.end(), '\n'),
                  (set >= GWA_LEVEL_FATAL) + (set >= GWA_LEVEL_ERROR) + (set == GWA_LEVEL_DEBUG));
    }
}

TEST(Log, GathersTracesUntilTheirEndOrALineThatMattersMore) {
    log_to_file log;
    const auto numbers = [&] { return log.numbers(); };
    {
        const gwa_log_gather outer;
        GWA_LOG(DEBUG, "1");
        { const gwa_log_gather inner; }
        EXPECT_EQ(numbers(), "");
        GWA_LOG(ERROR, "2");
        EXPECT_EQ(numbers(), "1 2 ");
        GWA_LOG(DEBUG, "3");
    }
    EXPECT_EQ(numbers(), "1 2 3 ");
    GWA_LOG(DEBUG, "4");
    EXPECT_EQ(numbers(), "1 2 3 4 ");
    const gwa_log_gather until_the_log_closes;
    std::string expected = numbers();
    for (int number = 5; number < 500; number++) {  // more than the buffer holds
        GWA_LOG(DEBUG, "%d", number);
        expected += std::to_string(number) + " ";
    }
    gwa_log_close();
    EXPECT_EQ(numbers(), expected);
}

TEST(Log, FollowsItsNameWhenTheFileIsMovedAway) {
    log_to_file log;
    const std::string moved = log.path + ".1";
    GWA_LOG(FATAL, "1");
    rename(log.path.c_str(), moved.c_str());
    GWA_LOG(FATAL, "2");
    EXPECT_EQ(log.numbers(moved), "1 2 ") << "looked for once a second, not with every line";
    {
        const gwa_log_gather event;
        GWA_LOG(DEBUG, "3");
        gwa_now++;
        GWA_LOG(DEBUG, "4");
    }
    EXPECT_EQ(log.numbers(moved), "1 2 3 ");
    EXPECT_EQ(log.numbers(), "4 ");
    ASSERT_EQ(truncate(log.path.c_str(), 0), 0);
    gwa_now++;
    GWA_LOG(FATAL, "5");
    EXPECT_EQ(log.numbers(), "5 ");

    file_write(log.path + ".new", "");  // as logrotate's "create" puts one there
    rename(log.path.c_str(), moved.c_str());
    rename((log.path + ".new").c_str(), log.path.c_str());
    gwa_now++;
    GWA_LOG(FATAL, "6");
    EXPECT_EQ(log.numbers(), "6 ");

    rename(log.path.c_str(), moved.c_str());
    mkdir(log.path.c_str(), 0700);  // cannot be opened as a log
    gwa_now++;
    GWA_LOG(FATAL, "7");
    EXPECT_EQ(log.numbers(moved), "6 7 ");
    rmdir(log.path.c_str());
    for (void (*leave)() : {+[] { gwa_log_close(); }, +[] { gwa_log_init(nullptr, false); }}) {
        gwa_log_init(log.path.c_str(), false);
        leave();
        remove(log.path.c_str());
        gwa_now++;
        GWA_LOG(FATAL, "8");
        EXPECT_NE(access(log.path.c_str(), F_OK), 0) << "nobody's log any more";
    }
}

// Nobody can move a pipe's other end away, whatever becomes of the name.
TEST(Log, StaysAtAPipe) {
    log_to_file log;
    const std::string pipe = log.dir.path + "/pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    ASSERT_EQ(gwa_log_init(pipe.c_str(), false), 0);
    const int reader = open(pipe.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    remove(pipe.c_str());
    gwa_now++;
    GWA_LOG(FATAL, "text");
    char text[256] = "";
    EXPECT_GT(read(reader, text, sizeof text - 1), 0);
    EXPECT_NE(access(pipe.c_str(), F_OK), 0);
    close(reader);
}

TEST(Log, GoesToItsFixedFileInTheBackground) {
    constexpr char FIXED[] = "/tmp/gwad.log";
    if (!std::ofstream(FIXED, std::ios::app)) {
        GTEST_SKIP() << FIXED << " belongs to another user";
    }
    child background([] {
        gwa_log_init("", true);
        GWA_LOG(FATAL, "from process %d", getpid());
    });
    EXPECT_EQ(background.wait(), child::RETURNED);
    const std::string line = "from process " + std::to_string(background.pid());
    EXPECT_NE(file_read(FIXED).find(line), std::string::npos);
}

// Nor does what is printed, or the end of the process.
TEST(Log, DoesNotHangOnATerminalThatNobodyReads) {
    child program([] {
        int master = -1, slave = -1;
        EXPECT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
        dup2(slave, STDOUT_FILENO);
        dup2(slave, STDERR_FILENO);
        gwa_log_init(nullptr, false);
        gwa_print_init();
        for (int line = 0; line < 2000; ++line) {
            GWA_LOG(FATAL, "%0100d", line);
            gwa_print("%0100d\n", line);
            gwa_print_signal_safe("recv signal 15\n", 15);
        }
        GWA_EXIT(7);
    });
    EXPECT_EQ(program.wait(), 7);
}

// 32-bit offsets end there.
TEST(Log, GrowsBeyondTwoGigabytes) {
    log_to_file log;
    constexpr off64_t SIZE = (int64_t{1} << 31) + 5;  // a hole, which takes no room
    ASSERT_EQ(truncate64(log.path.c_str(), SIZE), 0);
    ASSERT_EQ(gwa_log_init(log.path.c_str(), false), 0);
    GWA_LOG(FATAL, "text");
    const int fd = open64(log.path.c_str(), O_RDONLY | O_CLOEXEC);
    char text[256] = "";
    EXPECT_GT(pread64(fd, text, sizeof text - 1, SIZE), 0);
    close(fd);
    EXPECT_TRUE(std::string(text).ends_with("<0> text\n")) << text;
}
