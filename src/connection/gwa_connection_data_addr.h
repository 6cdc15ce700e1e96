// gwa_connection_data_addr.h - where a data connection goes: the orders that the control side
// gives, and the address that a worker makes of one.
//
// Threads: gwa_connection_data_order_all on the main thread, the rest on the worker, which the
//          waits block.
#pragma once

#include "connection/gwa_connection_data_record.h"

constexpr int GWA_DATA_CONNECTIONS = 5;

// Gives each worker its server, one a second, so that the logins come one after the other.
void gwa_connection_data_order_all(gwa_connection_data (*table)[GWA_DATA_CONNECTIONS],
                                   const gwa_host_list& servers);

// Whether a newer order than the one taken waits.
bool gwa_connection_data_order_waits(const gwa_connection_data* conn);
// Waits for an order and resolves it; a newer order replaces one that cannot be resolved. False:
// the thread is to end.
bool gwa_connection_data_addr_init(gwa_connection_data* conn);
// Resolves the domain anew, after logins that have failed.
void gwa_connection_data_re_resolve(gwa_connection_data* conn, int failed_logins);

// Whether the thread has been told to stop, and whether it is to end for that or any other reason.
bool gwa_connection_data_told_to_stop(const gwa_connection_data* conn);
bool gwa_connection_data_must_end(const gwa_connection_data* conn);
// Sleeps in steps of a second, so that a stop or a newer order does not have to wait.
void gwa_connection_data_pause_s(const gwa_connection_data* conn, int seconds);
