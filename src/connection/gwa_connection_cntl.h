// gwa_connection_cntl.h - the manager of the one control connection: its beginning, its loop and
// its end.
//
// Threads: main thread; all callbacks of the control poller run inside gwa_connection_cntl_manage.
//
//     CLOSED  -> READY     gwa_connection_cntl_init, with a logged-in socket
//     READY   -> RUNNING   gwa_connection_cntl_manage
//     RUNNING -> READY     the run flag was cleared or a jump was asked for
//     RUNNING -> (restart) any failure: gwa_connection_cntl_reinit
//     READY   -> CLOSED    gwa_connection_cntl_exit
#pragma once

#include "connection/gwa_connection_cntl_record.h"

// Takes over the logged-in socket when it succeeds. 0, or -1 and the socket stays the caller's.
int gwa_connection_cntl_init(gwa_connection_cntl* cntl, int fd);
// Runs the connection. GWA_JUMP_NONE when the process run flag was cleared, or the jump code that
// was asked for (gwa_process_jump).
int gwa_connection_cntl_manage(gwa_connection_cntl* cntl);
// Releases poller, socket and queued frames; nothing when init did not succeed. Always 0.
int gwa_connection_cntl_exit(gwa_connection_cntl* cntl);

// Poller callback of the control socket; the argument is the record.
void gwa_connection_cntl_handle(uint32_t events, void* argument);
