// gwa_connection_cntl_fault.h - what a failing control connection leads to: never a repair of the
// socket, always a restart of the process.
//
// Threads: main thread.
#pragma once

#include "connection/gwa_connection.h"

// Restarts the process. Returns only when the process has been told to end anyway.
void gwa_connection_cntl_reinit();

// Counts one missing or wrong heartbeat answer; three in a row restart.
void gwa_connection_cntl_heartbeat_missed(gwa_connection_cntl* cntl);
