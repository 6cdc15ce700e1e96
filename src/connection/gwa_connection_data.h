// gwa_connection_data.h - the five workers: each waits for an order, logs in, relays, and starts
// over after any failure.
//
// Threads: init and exit on the main thread; everything else on the workers.
#pragma once

#include "connection/gwa_connection.h"

// Resets the five records and starts their threads; a thread that cannot be made is logged and left
// out. Always 0.
int gwa_connection_data_init(gwa_connection_data (*table)[GWA_DATA_CONNECTIONS]);
// Destroys the queue's lock after the thread has been joined. 0 or -1.
int gwa_connection_data_exit(gwa_connection_data* conn);

// Poller callback of the remote socket; the argument is the record.
void gwa_connection_data_remote_handle(uint32_t events, void* argument);
// Whether there is work that no event will tell of: input or local data beyond the budget of the
// last round, or frames that nothing keeps from being sent. The next wait then returns at once.
bool gwa_connection_data_has_more(gwa_connection_data* conn);
// One round of a connected worker: wait, send, read, then look at the clock. False: poller failed.
bool gwa_connection_data_round(gwa_connection_data* conn);
// Makes the record ready for a login: empty lists and counters, a fresh poller. 0 or -1.
int gwa_connection_data_init2(gwa_connection_data* conn);
// Frees streams that were idle for more than 300 s.
void gwa_connection_data_stream_idle_check(gwa_connection_data* conn);
