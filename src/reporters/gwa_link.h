// gwa_link.h - the link monitor: restarts the daemon when the box gets an IPv4 address or a link
// changes, so that discovery and login run again over the new network.
//
// Owner:   the supervisor; one socket for each pass of its loop.
// Threads: main thread, inside the control poller's wait.
// Outside: rtnetlink(7), groups RTMGRP_LINK and RTMGRP_IPV4_IFADDR.
#pragma once

#include <cstddef>
#include <cstdint>

// Opens the monitor. A non-blocking socket, or -1 after the reason has been logged.
int gwa_link_init();
// Closes a descriptor unless it is -1.
void gwa_link_close(int fd);
// Poller callback; the argument points at the variable that holds the socket.
void gwa_link_handle(uint32_t events, void* argument);

// Walks the messages of one datagram, at any address, and logs what it finds. True: one of them
// asks for a restart. The first message that is not whole ends the walk.
bool gwa_link_walk(const uint8_t* bytes, size_t length);
