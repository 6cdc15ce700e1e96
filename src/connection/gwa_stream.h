// gwa_stream.h - one relayed TCP connection between a remote user, multiplexed on a data connection
// under a stream id, and a service on the box.
//
// Owner:   the data connection; made by the request dispatch, ended by gwa_stream_free.
// Threads: the worker of the owning data connection alone; nothing here is locked.
#pragma once

#include <cstdint>

#include "connection/gwa_connection_data_record.h"

struct gwa_stream : list_link {
    uint32_t id = 0;                    // chosen by the server
    uint32_t priority = 0;              // 0 is exempt from the memory limit, not from the ceiling
    int socket = -1;                    // to the service
    gwa_more more = gwa_more::DRAINED;  // of what the service says
    gwa_connection_data* connection = nullptr;
    list<gwa_output_node> local_output;  // payloads for the service
    uint32_t waiting = 0;                // bytes of them that it has not taken yet
    int32_t last_activity = 0;           // coarse clock, last payload in either direction
    uint32_t left = 0;                   // what was waiting, in the kernel too, at the last look
};

// The first stream with that id, or null.
gwa_stream* gwa_stream_find_by_id(list<gwa_stream>* streams, uint32_t id);
// Links a stream at the tail. Null arguments do nothing.
void gwa_stream_add(list<gwa_stream>* streams, gwa_stream* stream);

// A charged frame of the stream with room for `length` payload bytes, for its connection to send.
gwa_output_node* gwa_stream_frame_new(const gwa_stream* stream, uint32_t length);

// Queues a charged heap buffer of `length` bytes, which the stream owns from here on, for the local
// socket; the node is charged here. 0.
int gwa_stream_local_output_enqueue(gwa_stream* stream, uint8_t* data, uint32_t length);
// Passes a payload on to the service, behind what is queued; what the service does not take is
// copied and queued.
void gwa_stream_feed(gwa_stream* stream, const uint8_t* bytes, uint32_t length);
// Writes what is queued to the local socket, until it would block.
void gwa_stream_local_out_handle(gwa_stream* stream);
// Takes the queued payloads, the registration, the socket, the count and the record away.
void gwa_stream_free(gwa_stream* stream);
// All of that but the record, which is in no list then.
void gwa_stream_strip(gwa_stream* stream);
void gwa_stream_local_destroy_by_id(list<gwa_stream>* streams, uint32_t id);
// Frees every stream.
void gwa_stream_free_all(list<gwa_stream>* streams);
