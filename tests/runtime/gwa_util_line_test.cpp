#include "runtime/gwa_util_line.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "support/sockets.h"

namespace {

constexpr int LINES = 3000;  // more than any of them holds

struct two_ends {  // what is written to one is read from the other
    unique_fd reader, writer;

    explicit two_ends(const std::string& kind) {
        int both[2] = {-1, -1};
        if (kind == "pipe") {
            EXPECT_EQ(pipe2(both, O_CLOEXEC), 0);
        } else if (kind == "socket") {
            EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, both), 0);
        } else {
            termios raw{};
            cfmakeraw(&raw);  // a line's end stays as it is
            EXPECT_EQ(openpty(&both[0], &both[1], nullptr, &raw, nullptr), 0);
        }
        fcntl(both[0], F_SETFL, O_NONBLOCK);
        reader = unique_fd(both[0]);
        writer = unique_fd(both[1]);
    }
};

std::string numbered_line(int number) {
    const size_t zeroes = static_cast<size_t>(number) % 200 + 1;
    return "line " + std::to_string(number) + " " + std::string(zeroes, '0') + "\n";
}

// Reads what there is, and goes on for as long as the mark is not there.
std::string read_up_to(int fd, const std::string& mark) {
    std::string text;
    eventually([&] {
        char bytes[4096];
        for (ssize_t got = 0; (got = read(fd, bytes, sizeof bytes)) > 0;) {
            text.append(bytes, static_cast<size_t>(got));
        }
        return text.find(mark) != std::string::npos;
    });
    return text;
}

// How many whole lines with rising numbers there are, and nothing else.
int lines_in(const std::string& text) {
    int last = -1, count = 0;
    for (size_t at = 0, size = 0; at < text.size(); at += size, count++) {
        const int number = atoi(text.c_str() + std::min(at + 5, text.size()));
        const std::string line = numbered_line(number);
        size = line.size();
        if (text.compare(at, size, line) != 0 || number <= last) {
            ADD_FAILURE() << "not a whole line: " << text.substr(at, size);
            return -1;
        }
        last = number;
    }
    return count;
}

TEST(LineSink, DropsWholeLinesWhileNobodyReadsAndBlocksNowhere) {
    for (const char* kind : {"pipe", "socket", "terminal"}) {
        for (const bool private_descriptor : {true, false}) {
            SCOPED_TRACE(std::string(kind) + (private_descriptor ? "" : ", shared"));
            const two_ends ends(kind);
            const int fd = ends.writer.get(), flags = fcntl(fd, F_GETFL);
            const int next = unique_fd(dup(fd)).get();
            char line[GWA_LINE_MAX + 600];  // a few lines gather
            gwa_line_sink sink{.buffer = line};
            gwa_line_open(&sink, fd);
            if (!private_descriptor) {
                gwa_line_close(&sink);
                sink.fd = fd;
                sink.way = gwa_line_way::SWITCH;
            }
            const auto write = [&](int from, int to) {
                for (int number = from; number < to; number++) {
                    if (gwa_line_begin(&sink)) {
                        gwa_line_add(&sink, "%s", numbered_line(number).c_str());
                        number % 5 != 0 ? gwa_line_end_later(&sink) : gwa_line_end(&sink);
                    }
                }
                gwa_line_flush(&sink);
            };
            write(0, LINES);
            EXPECT_EQ(fcntl(fd, F_GETFL), flags) << "others use it too";
            std::string text = read_up_to(ends.reader.get(), "line 0 ");  // somebody reads
            write(LINES, LINES + 2);
            text += read_up_to(ends.reader.get(), numbered_line(LINES + 1));
            EXPECT_GT(lines_in(text), 2);
            EXPECT_LT(lines_in(text), LINES) << "it held them all";
            gwa_line_close(&sink);
            EXPECT_EQ(unique_fd(dup(fd)).get(), next) << "a private descriptor is still open";
        }
    }
}

TEST(LineSink, CutsALineThatDoesNotFitAndKeepsItsEnd) {
    const two_ends ends("socket");
    char line[16];
    gwa_line_sink sink{.buffer = line};
    gwa_line_open(&sink, ends.writer.get());
    for (const size_t width : {13U, 14U, 15U, 100U}) {
        ASSERT_TRUE(gwa_line_begin(&sink));
        gwa_line_add(&sink, "%s", std::string(width, '0').c_str());
        gwa_line_add(&sink, "\n");
        gwa_line_end(&sink);
        const std::string expected = std::string(std::min<size_t>(width, 14), '0') + "\n";
        EXPECT_EQ(read_until(ends.reader.get(), "\n"), expected);
    }
    gwa_line_close(&sink);
    EXPECT_FALSE(gwa_line_begin(&sink)) << "closed";
}

}  // namespace
