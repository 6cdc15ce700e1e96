// gwa_connection_data_round.h - the rounds of a data connection that relays.
//
// Threads: the worker.
#pragma once

#include "connection/gwa_connection_data_record.h"

// Poller callback of the remote socket; the argument is the record.
void gwa_connection_data_remote_handle(uint32_t events, void* argument);
// One round: wait, send, read, then look at the clock. A poller that fails closes the connection.
gwa_step gwa_connection_data_round(gwa_connection_data* conn);
// Frees streams that were idle for more than 300 s.
void gwa_connection_data_stream_idle_check(gwa_connection_data* conn);
