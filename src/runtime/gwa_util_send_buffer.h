// gwa_util_send_buffer.h - how full a socket's send buffer is, and the wait until it has drained.
//
// Threads: stateless; any thread.
// Results: -1 failed, -2 time ran out; each function logs its own failure.
#pragma once

#include <cstdint>

// How full the send buffer is against `limit` bytes: 0 empty, 1 to 4 by quarters, 5 full; or -1.
// SIOCOUTQ, tcp(7).
int gwa_socket_send_buffer_status(int fd, int limit);
// The pure part of it: the level of `queued` bytes against `limit`.
int gwa_socket_send_buffer_level(int queued, int limit);

// Waits until less than a quarter of `limit` is queued. 0, -1 failed or no longer `wanted`, -2 time
// ran out; the level seen last, or -1, goes to `level`. The third argument is accepted and ignored.
int gwa_socket_send_buffer_wait(int fd, int limit, int32_t ignored, int* level, int seconds,
                                bool (*wanted)());
