// gwa_util_socket.h - connecting and sending, with limits.
//
// Owner:   nothing here closes a descriptor.
// Threads: stateless; any thread, several at a time.
// Results: 0 or a count, -1 failed, -2 time ran out; each function logs its own failure. Time-outs
//          are whole seconds. Every wait ends when the process run flag is cleared (-1, or the
//          count so far).
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

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

// Sends everything, without an overall limit. The bytes sent; a short count is the sign of failure.
int gwa_sendn(int fd, const void* buffer, int length);

// One datagram to an IPv4 address and port, both in host order. 0 or -1.
int gwa_sendto(int fd, const void* buffer, int length, uint32_t address, uint16_t port);
