// gwa_connection_data_out.h - what a data connection sends: the output pass, heartbeats, and the
// removal of frames that nobody wants any more.
//
// Threads: the worker.
#pragma once

#include "connection/gwa_connection_data_record.h"

// Sends queued frames until the socket would block, after the send buffer has drained far enough.
// CLOSED when the socket fails.
gwa_step gwa_connection_data_remote_out_handle(gwa_connection_data* conn);
// Whether frames wait that nothing but the next pass keeps from being sent.
bool gwa_connection_data_can_send(gwa_connection_data* conn);

// Queues a heartbeat, if none is outstanding and nothing else waits. After silence of output.
void gwa_connection_data_heartbeat_handle(gwa_connection_data* conn);
// Queues a heartbeat at the front. After silence of input.
void gwa_connection_data_keepalive_handle(gwa_connection_data* conn);

// Drops a stream's queued frames, except one that is partly sent.
void gwa_connection_data_output_free_by_id(gwa_connection_data* conn, uint32_t stream_id);
// Drops frames that have waited for more than 600 s.
void gwa_connection_data_buffer_timeout_check(gwa_connection_data* conn);
