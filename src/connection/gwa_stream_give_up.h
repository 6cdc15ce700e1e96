// gwa_stream_give_up.h - streams that we end on our own account, and what is still known of them.
//
// Owner:   a record that is gone belongs to its data connection.
// Threads: the worker of the owning data connection alone.
#pragma once

#include "connection/gwa_stream.h"

// Ends a stream. What the server still sends under its id is dropped until it closes the stream: it
// must not be taken for a new request (exception 60).
void gwa_stream_give_up(gwa_stream* stream);
bool gwa_stream_is_gone(gwa_connection_data* conn, uint32_t id);
// The server has closed a stream that may have been given up.
void gwa_stream_forget(gwa_connection_data* conn, uint32_t id);
void gwa_stream_forget_all(gwa_connection_data* conn);

// Remembers of every stream how much waits for its service.
void gwa_stream_look_at_waiting(gwa_connection_data* conn);
// Looks again, and gives up every stream whose service has taken nothing since. If there is none
// and `one_at_least`, the one for which most is waiting goes.
void gwa_stream_give_up_stuck(gwa_connection_data* conn, bool one_at_least);
