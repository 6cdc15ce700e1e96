// gwa_connection_data_in.h - the input pass of a data connection.
//
// Threads: the worker.
#pragma once

#include "connection/gwa_connection_data_record.h"

// Receives and handles frames until the socket is drained or the budget of one pass is used up;
// input.more tells which. A frame may be split anywhere. Any failure closes the connection.
gwa_step gwa_connection_data_remote_in_handle(gwa_connection_data* conn);

// Makes the pass throw away the next `count` bytes, of which no length in the protocol tells:
// oddity 21.
void gwa_connection_data_extra_discard(gwa_connection_data* conn, uint32_t count);
// Whether it is doing so. Answers to heartbeats would be among those bytes: exception 47.
bool gwa_connection_data_discards_extra(const gwa_connection_data* conn);
