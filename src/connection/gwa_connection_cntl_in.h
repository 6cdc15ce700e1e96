// gwa_connection_cntl_in.h - the input of the control connection: frame headers, whole or in
// pieces.
//
// A refused payload stays in the socket and is then taken for headers, so a rest that is shorter
// than a header is nothing unusual. Exception 46: nobody waits for what is missing: what is there
// of a header is kept in the record, the loop goes on, and after ten seconds without another byte
// it is dropped.
//
// Threads: main thread.
#pragma once

#include "connection/gwa_connection_cntl_record.h"

// Reads and dispatches frames until nothing is left or the budget of one event is used up. On every
// event, and once a round: no event tells of a rest that is shorter than a header, nor that its
// time is over.
void gwa_connection_cntl_remote_in_handle(gwa_connection_cntl* cntl);

// Waits for one whole header, whatever its command, and dispatches it. Without a limit of its own;
// it ends when the run flag is cleared.
void gwa_connection_cntl_next_frame_wait(gwa_connection_cntl* cntl);
