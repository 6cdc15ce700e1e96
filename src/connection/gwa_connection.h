// gwa_connection.h - the table of all connections to the server.
//
// Owner:   static; each record belongs to one thread, see its header. Zero until it is made.
#pragma once

#include "connection/gwa_connection_cntl_record.h"
#include "connection/gwa_connection_data_addr.h"

struct gwa_connection_table {
    gwa_connection_cntl cntl;
    gwa_connection_data data[GWA_DATA_CONNECTIONS];
};
extern gwa_connection_table& gwa_connections;

// Makes every record anew. Main thread, before any worker runs.
void gwa_connection_table_init();
