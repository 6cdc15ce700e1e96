// gwa_connection_data_in.h - the input pass of a data connection.
//
// Threads: the worker. Any failure closes the connection, which does not return.
#pragma once

#include "connection/gwa_connection.h"

// Receives and handles frames until the socket is drained or the budget of one pass is used up;
// in_state tells which. A frame may be split anywhere.
void gwa_connection_data_remote_in_handle(gwa_connection_data* conn);
// Whether the pass is throwing away what follows a request whose local port was dead: bytes that no
// length in the protocol tells of, answers to heartbeats among them.
bool gwa_connection_data_discards_extra(const gwa_connection_data* conn);
