// gwa_util_socket_recv.h - receiving with limits: once, exactly so many bytes, or to get rid of
// them.
//
// Threads: stateless; any thread, several at a time.
// Results: 0 or a count, -1 failed, -2 time ran out; each function logs its own failure. Time-outs
//          are whole seconds. Every wait ends when the process run flag is cleared (-1, or the
//          count so far).
#pragma once

#include <cstddef>

// Waits at most `milliseconds` for something to receive; whether it came, the next receive tells.
void gwa_socket_readable_wait(int fd, int milliseconds);

// One receive after one wait. The count (0: the peer has closed), -1 or -2.
int gwa_recv_timeout(int fd, void* buffer, size_t length, int seconds);

// Exactly `length` bytes within one deadline. 0 (not the count), -1 failed, closed or already out
// of time, -2 a wait ran out. It tries a receive before it waits, and waits in short slices, since
// a low-water mark hides a remainder of a few bytes from poll(2).
int gwa_recvn_timeout(int fd, void* buffer, size_t length, int seconds);

// Exactly `length` bytes without a limit, for non-blocking sockets. `length`, or -1.
int gwa_recvn(int fd, void* buffer, size_t length);

// Exactly `length` bytes, polled every 100 ms until a deadline, for non-blocking sockets. The bytes
// read, fewer than `length` when the time ran out; -1 failed or closed.
int gwa_recvn_timeout_fast(int fd, void* buffer, size_t length, int seconds);

// Reads and drops `count` bytes, at most 8192, within 120 s. 0 (also for a count below 1), or -1.
int gwa_recv_discard(int fd, int count);
