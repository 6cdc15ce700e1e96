// gwa_connection_cntl_out.h - what the control connection sends: the output pass, and heartbeats.
//
// Threads: main thread.
#pragma once

#include "connection/gwa_connection_cntl_record.h"

// Sends queued frames until the socket would block, waiting for the answer after a heartbeat.
void gwa_connection_cntl_remote_out_handle(gwa_connection_cntl* cntl);
// Sends one heartbeat now, unless one is still queued.
void gwa_connection_cntl_heartbeat_handle(gwa_connection_cntl* cntl);
// Sends a heartbeat if the clock asks for one.
void gwa_connection_cntl_probe(gwa_connection_cntl* cntl);
// The send level for so many bytes that the kernel has not sent yet: 0 to 5.
int gwa_connection_cntl_send_level(int unsent);
