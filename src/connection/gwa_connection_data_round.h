// gwa_connection_data_round.h - a data connection from its beginning to its end: the rounds in
// which it relays.
//
// Threads: the worker.
#pragma once

#include "connection/gwa_connection_data_record.h"

// Makes the record ready for a login: counters at zero, a fresh poller. 0 or -1.
int gwa_connection_data_init2(gwa_connection_data* conn);
// Frees streams, queued frames, a half-read payload, the poller and the socket.
void gwa_connection_data_free(gwa_connection_data* conn);

// Poller callback of the remote socket; the argument is the record.
void gwa_connection_data_remote_handle(uint32_t events, void* argument);
// One round: wait, send, read, then look at the clock. CLOSED: everything has been freed.
gwa_step gwa_connection_data_round(gwa_connection_data* conn);
// Frees streams that were idle for more than 300 s.
void gwa_connection_data_stream_idle_check(gwa_connection_data* conn);
