// port_info.h - forwards the ports that local services announce through the box's device library to
// the relay server.
//
// Owner:   this module; one socket for each pass of the supervisor's loop.
// Threads: main thread, inside the control poller's wait.
#pragma once

#include <cstdint>

#include "connection/gwa_connection_cntl_record.h"

// Where services announce; fixed, not under the home directory.
extern const char PORT_INFO_PATH[];

// Listens at a path, in place of a stale file, on the poller of the connection that it reports to.
void port_info_start(gwa_connection_cntl* cntl, const char* path = PORT_INFO_PATH);
// Closes the socket unless it is closed.
void port_info_socket_exit();

// Poller callback. Takes the announcements that wait, one report frame each, and never blocks.
void port_info_recv_handle(uint32_t events, void* argument);
