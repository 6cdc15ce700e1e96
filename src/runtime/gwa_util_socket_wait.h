// gwa_util_socket_wait.h - waits for a socket within limits, from which the socket functions are
// made.
//
// Threads: stateless; any thread. Every wait ends when the process run flag is cleared, so that a
//          signal ends the daemon from any state.
// Outside: poll(2); select(2) could not take descriptors of 1024 and more.
#pragma once

#include <cstdint>

// When something is over, by both clocks. A box sets its wall clock by hours soon after it starts:
// set back, it must not prolong a wait.
struct time_limit {
    int64_t wall_us;
    int64_t steady_us;
};
constexpr int64_t TIME_NEVER_US = INT64_MAX / 2;  // half: sums with it must not overflow
constexpr time_limit TIME_NO_LIMIT{TIME_NEVER_US, TIME_NEVER_US};

// The limit that is so many seconds away.
time_limit gwa_time_limit_start(int seconds);
// What is left of it; 0 or less: it has come.
int64_t gwa_time_limit_left_us(const time_limit& limit);

enum class gwa_wait_result : uint8_t {
    READY,    // a hang-up or an error too: the next call on the descriptor names it
    RAN_OUT,  // the slice only, or a signal came: look at the limit and wait on
    STOPPED,  // the process run flag is clear; what is ready by then is still taken
    FAILED,   // errno says why
};

// Waits for events of poll(2), for one slice of what is left.
gwa_wait_result gwa_socket_wait_slice(int fd, short events, const time_limit& limit, int slice_ms);
// Waits up to `seconds`, however the wall clock is set meanwhile. RAN_OUT: all of them.
gwa_wait_result gwa_socket_wait(int fd, short events, int seconds);
