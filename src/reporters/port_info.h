// port_info.h - forwards the ports that local services announce through the box's device library to
// the relay server.
//
// Owner:   the supervisor; the socket lives for one pass of its loop.
// Threads: main thread, inside the control poller's wait.
#pragma once

#include <cstdint>

// Where services announce; fixed, not under the home directory.
extern const char PORT_INFO_PATH[];
// Process-wide: the descriptor of the announcement socket, -1 when closed.
extern int port_info_socket;

// Opens the socket, in place of a stale file. The descriptor, or -1 after the reason has been
// logged.
int port_info_socket_init();
// Closes the socket unless it is closed.
void port_info_socket_exit();
// Poller callback; the argument points at port_info_socket. Takes every announcement that waits,
// one report frame each, and never blocks.
void port_info_recv_handle(uint32_t events, void* argument);
