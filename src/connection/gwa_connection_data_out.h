// gwa_connection_data_out.h - what a data connection sends: the output pass, heartbeats, and the
// removal of frames that nobody wants any more.
//
// Threads: the worker.
#pragma once

#include "connection/gwa_connection_data_record.h"

// Sends queued frames until the socket would block, unless the send buffer is too full: then the
// frames are held for a later pass. CLOSED when the socket fails.
gwa_step gwa_connection_data_remote_out_handle(gwa_connection_data* conn);
// The same without a look at the send buffer: for what a pass that could send all makes room for.
gwa_step gwa_connection_data_queue_send(gwa_connection_data* conn);
// Whether the last pass has found the socket full, so that an event tells of room.
bool gwa_connection_data_is_blocked(const gwa_connection_data* conn);
// How long the next wait may be, in ms, when a pass would be held; else 0.
int gwa_connection_data_hold_ms(const gwa_connection_data* conn);
// How many more frames streams may read in their turns, to be ready for the next pass.
int gwa_connection_data_room(const gwa_connection_data* conn);
// Whether a stream that its service has just said something on may read a frame out of its turn:
// what leaves after that does not matter.
bool gwa_connection_data_has_room_for(gwa_connection_data* conn, uint32_t priority,
                                      uint32_t stream_id);

// Queues a heartbeat, if none is outstanding and nothing else waits. After silence of output.
void gwa_connection_data_heartbeat_handle(gwa_connection_data* conn);
// Queues a heartbeat at the front. After silence of input.
void gwa_connection_data_keepalive_handle(gwa_connection_data* conn);

// Drops a stream's queued frames, except one that is partly sent.
void gwa_connection_data_output_free_by_id(gwa_connection_data* conn, uint32_t stream_id);
// Drops frames that have waited for more than 600 s.
void gwa_connection_data_buffer_timeout_check(gwa_connection_data* conn);
