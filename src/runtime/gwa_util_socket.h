// gwa_util_socket.h - socket I/O with limits: connecting, exact reads and writes, discarding, and
// the fill level of a send buffer.
//
// Owner:   nothing here closes a descriptor.
// Threads: stateless; any thread, several at a time.
// Results: 0 or a count, -1 failed, -2 time ran out; each function logs its own failure. Time-outs
//          are whole seconds. Every wait ends when the process run flag is cleared (-1, or the
//          count so far), so that a signal ends the daemon from any state. Waits use poll(2):
//          select could not take descriptors of 1024 and more.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>

// The socket address of an IPv4 address and a port, both in host order.
inline sockaddr_in gwa_socket_address(uint32_t address, uint16_t port) {
    sockaddr_in made{};
    made.sin_family = AF_INET;
    made.sin_addr.s_addr = htonl(address);
    made.sin_port = htons(port);
    return made;
}

// Switches to non-blocking mode. 0 or -1.
int gwa_socket_nonblock(int fd);

// Connects a non-blocking socket. 0 connected, -1 failed, -2 time ran out.
int gwa_connect_timeout(int fd, const sockaddr* address, socklen_t length, int seconds);

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

// Sends everything, without an overall limit. The bytes sent; a short count is the sign of failure.
int gwa_sendn(int fd, const void* buffer, int length);

// One datagram to an IPv4 address and port, both in host order. 0 or -1.
int gwa_sendto(int fd, const void* buffer, int length, uint32_t address, uint16_t port);

// How full the send buffer is against `limit` bytes: 0 empty, 1 to 4 by quarters, 5 full; or -1.
// SIOCOUTQ, tcp(7).
int gwa_socket_send_buffer_status(int fd, int limit);
// The pure part of it: the level of `queued` bytes against `limit`.
int gwa_socket_send_buffer_level(int queued, int limit);

// Waits until less than a quarter of `limit` is queued. 0, -1 failed or a run flag is clear, -2
// time ran out; the level seen last, or -1, goes to `level`. The third argument is accepted and
// ignored.
int gwa_socket_send_buffer_wait(int fd, int limit, int32_t ignored, int* level, int seconds);
