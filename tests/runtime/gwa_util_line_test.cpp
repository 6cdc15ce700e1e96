#include "runtime/gwa_util_line.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "support/sockets.h"

namespace {

constexpr int LINES = 3000;  // more than any of them holds

// Two ends: what is written to one is read from the other.
struct two_ends {
    const char* name;
    unique_fd reader, writer;
};

two_ends pipe_ends() {
    int both[2] = {-1, -1};
    EXPECT_EQ(pipe2(both, O_CLOEXEC), 0);
    return {"pipe", unique_fd(both[0]), unique_fd(both[1])};
}

two_ends socket_ends() {
    int both[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, both), 0);
    return {"socket", unique_fd(both[0]), unique_fd(both[1])};
}

two_ends terminal_ends() {
    unique_fd master(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    EXPECT_EQ(grantpt(master.get()) | unlockpt(master.get()), 0);
    unique_fd slave(open(ptsname(master.get()), O_RDWR | O_NOCTTY | O_CLOEXEC));
    termios plain{};
    tcgetattr(slave.get(), &plain);
    cfmakeraw(&plain);  // a line's end stays as it is
    tcsetattr(slave.get(), TCSANOW, &plain);
    return {"terminal", std::move(master), std::move(slave)};
}

struct numbered_lines {
    char line[256];
    gwa_line_sink sink{.buffer = line};
    int number = 0;

    void write(int count) {
        for (int i = 0; i < count; i++, number++) {
            if (gwa_line_begin(&sink)) {
                gwa_line_add(&sink, "line %d %0*d", number, number % 200, 0);
                gwa_line_add(&sink, "%s", "\n");
                gwa_line_end(&sink);
            }
        }
    }
};

// Reads what there is, and goes on for as long as the mark is not there.
std::string read_up_to(int fd, const std::string& mark) {
    std::string text;
    eventually([&] {
        char bytes[4096];
        pollfd entry{fd, POLLIN, 0};
        ssize_t got = 1;
        while (got > 0 && poll(&entry, 1, 0) == 1) {
            got = read(fd, bytes, sizeof bytes);
            text.append(bytes, static_cast<size_t>(std::max<ssize_t>(got, 0)));
        }
        return text.find(mark) != std::string::npos;
    });
    return text;
}

// How many whole lines with rising numbers there are, and nothing else.
int lines_in(const std::string& text) {
    int last = -1, count = 0;
    for (size_t at = 0; at < text.size();) {
        const size_t end = text.find('\n', at);
        const std::string line = text.substr(at, end - at);
        int number = -1, used = 0;
        char zeroes[256] = "";
        const int fields = sscanf(line.c_str(), "line %d %255[0]%n", &number, zeroes, &used);
        const size_t width = std::max(number % 200, 1);
        if (end == std::string::npos || fields != 2 || std::string(zeroes).size() != width ||
            static_cast<size_t>(used) != line.size() || number <= last) {
            ADD_FAILURE() << "not a whole line: " << line;
            return -1;
        }
        last = number;
        at = end + 1;
        count++;
    }
    return count;
}

TEST(LineSink, DropsWholeLinesWhileNobodyReadsAndBlocksNowhere) {
    for (const two_ends& ends : {pipe_ends(), socket_ends(), terminal_ends()}) {
        for (const bool private_descriptor : {true, false}) {
            SCOPED_TRACE(std::string(ends.name) + (private_descriptor ? "" : ", shared"));
            const int fd = ends.writer.get();
            const int flags = fcntl(fd, F_GETFL);
            numbered_lines lines;
            gwa_line_open(&lines.sink, fd);
            if (!private_descriptor) {
                gwa_line_close(&lines.sink);
                lines.sink.fd = fd;
                lines.sink.way = gwa_line_way::SWITCH;
            }
            lines.write(LINES);
            EXPECT_EQ(fcntl(fd, F_GETFL), flags) << "others use it too";
            std::string text = read_up_to(ends.reader.get(), "line 0 ");  // somebody reads
            lines.write(2);
            text += read_up_to(ends.reader.get(), "line " + std::to_string(LINES + 1) + " 0\n");
            EXPECT_GT(lines_in(text), 2);
            EXPECT_LT(lines_in(text), LINES) << "it held them all";
            gwa_line_close(&lines.sink);
        }
    }
}

TEST(LineSink, CutsALineThatDoesNotFitAndKeepsItsEnd) {
    const two_ends ends = pipe_ends();
    char line[16];
    gwa_line_sink sink{.buffer = line};
    gwa_line_open(&sink, ends.writer.get());
    for (const int width : {13, 14, 15, 100}) {
        ASSERT_TRUE(gwa_line_begin(&sink));
        gwa_line_add(&sink, "%0*d\n", width, 0);
        gwa_line_end(&sink);
        const std::string expected = std::string(std::min(width, 14), '0') + "\n";
        char got[32] = "";
        EXPECT_EQ(read(ends.reader.get(), got, sizeof got), static_cast<ssize_t>(expected.size()));
        EXPECT_EQ(got, expected) << width;
    }
    gwa_line_close(&sink);
    EXPECT_FALSE(gwa_line_begin(&sink)) << "closed";
}

}  // namespace
