// gwa_link.h - the link monitor: restarts the daemon when the box gets an IPv4 address or a link
// changes, so that discovery and login run again over the new network.
//
// Owner:   this module; one socket for each pass of the supervisor's loop.
// Threads: main thread, inside the control poller's wait.
// Outside: rtnetlink(7), groups RTMGRP_LINK and RTMGRP_IPV4_IFADDR.
#pragma once

#include <cstddef>
#include <cstdint>

#include "connection/gwa_connection_cntl_record.h"

// Opens the monitor, in place of an earlier pass's, on the poller of the connection that it
// restarts. 0, or -1: it cannot be had.
int gwa_link_start(gwa_connection_cntl* cntl);
void gwa_link_stop();

// Opens the socket. Non-blocking, or -1 after the reason has been logged.
int gwa_link_init();
// Closes a descriptor unless it is -1.
void gwa_link_close(int fd);
// Poller callback; the argument points at the variable that holds the socket.
void gwa_link_handle(uint32_t events, void* argument);

// Walks the messages of one datagram, at any address, and logs what it finds. True: one of them
// asks for a restart. The first message that is not whole ends the walk.
bool gwa_link_walk(const uint8_t* bytes, size_t length);
