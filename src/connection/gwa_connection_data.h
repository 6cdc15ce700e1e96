// gwa_connection_data.h - the five workers: each waits for an order, logs in, relays, and starts
// over after any failure.
//
// Threads: main thread.
#pragma once

#include "connection/gwa_connection_data_addr.h"

// Resets the five records and starts their threads; a thread that cannot be made is logged and left
// out. Always 0.
int gwa_connection_data_init(gwa_connection_data (*table)[GWA_DATA_CONNECTIONS]);
// Stops and joins the five workers. Always 0.
int gwa_connection_all_destroy(gwa_connection_data (*table)[GWA_DATA_CONNECTIONS]);
