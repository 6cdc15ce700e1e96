// gwa_connection_data_out.h - what a data connection sends: the output pass, heartbeats, and the
// removal of frames that nobody wants any more.
//
// Threads: the worker. A failing socket closes the connection, which does not return.
#pragma once

#include "connection/gwa_connection.h"

// Sends queued frames until the socket would block, after the send buffer has drained far enough.
void gwa_connection_data_remote_out_handle(gwa_connection_data* conn);
// Queues a heartbeat, if none is outstanding and nothing else waits. After 60 s without output.
void gwa_connection_data_heartbeat_handle(gwa_connection_data* conn);
// Queues a heartbeat at the front. After 240 s without input, then every 60 s.
void gwa_connection_data_keepalive_handle(gwa_connection_data* conn);
// Drops a stream's queued frames, except one that is partly sent.
void gwa_connection_data_output_free_by_id(gwa_connection_data* conn, uint32_t stream_id);
// Drops frames that have waited for more than 600 s.
void gwa_connection_data_buffer_timeout_check(gwa_connection_data* conn);
