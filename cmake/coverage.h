// coverage.h - included first by every source of the coverage build: a process that ends by _exit,
// abort or SIGKILL would take along what it has counted, and nearly all of ours end so.
#pragma once

#include <unistd.h>

#include <csignal>

extern "C" void __gcov_dump();

constexpr int COUNTERS_SIGNAL = SIGVTALRM;  // nobody else uses it
constexpr int COUNTERS_TIME_US = 200'000;

[[noreturn]] inline void exit_with_counters(int status) {
    __gcov_dump();
    _exit(status);
}

// Who is to be killed does it himself when the counters are saved; the signal follows for those who
// do not count, or cannot any more.
inline int kill_with_counters(pid_t process, int number) {
    if (number == SIGKILL && kill(process, COUNTERS_SIGNAL) == 0) {
        usleep(COUNTERS_TIME_US);
    }
    return kill(process, number);
}

inline const auto counters_at_kill = signal(COUNTERS_SIGNAL, [](int) {
    __gcov_dump();
    kill(getpid(), SIGKILL);
});
inline const auto counters_at_abort = signal(SIGABRT, [](int) { __gcov_dump(); });

#define _exit exit_with_counters
#define kill kill_with_counters
