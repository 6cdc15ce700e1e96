// gwa_util_socket_wait.h - waits for a socket within limits, from which the socket functions are
// made.
//
// Threads: stateless; any thread. Every wait ends when the process run flag is cleared, so that a
//          signal ends the daemon from any state.
// Outside: poll(2); select(2) could not take descriptors of 1024 and more.
#pragma once

#include <cstdint>

#include "runtime/gwa_util_time.h"

enum class gwa_wait_result : uint8_t {
    READY,    // a hang-up or an error too: the next call on the descriptor names it
    RAN_OUT,  // the slice only, or a signal came: look at the limit and wait on
    STOPPED,  // the process run flag is clear; what is ready by then is still taken
    FAILED,   // errno says why
};

// Waits for events of poll(2), for one slice of what is left.
gwa_wait_result gwa_socket_wait_slice(int fd, short events, const gwa_time_limit& limit,
                                      int slice_ms);
// Waits up to `seconds`, however the wall clock is set meanwhile. RAN_OUT: all of them.
gwa_wait_result gwa_socket_wait(int fd, short events, int seconds);
