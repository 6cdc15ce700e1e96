// gwa_stream.h - one relayed TCP connection between a remote user, multiplexed on a data connection
// under a stream id, and a service on the box.
//
// Owner:   the data connection; a stream is made by the request dispatch and ends in
// gwa_stream_free. Threads: the worker of the owning data connection alone; nothing here is locked.
#pragma once

#include <cstdint>

#include "connection/gwa_connection.h"

// The state of writing to the local socket.
enum class gwa_stream_out : uint16_t { IDLE = 1, BLOCKED = 2 };

struct gwa_stream : list_link {
    uint32_t id = 0;        // chosen by the server
    uint32_t tag = 0;       // second word of the frame that opened the stream
    uint32_t priority = 0;  // 0 is exempt from the memory limit
    int socket = -1;
    gwa_in_state in_state = gwa_in_state::DRAINED;  // MORE: read again in the next wakeup pass
    gwa_stream_out out_state = gwa_stream_out::IDLE;
    bool has_more = false;      // the last read filled its buffer or memory stopped it: data waits
    bool local_closed = false;  // the service has closed; the wakeup pass leaves the stream alone
    gwa_connection_data* connection = nullptr;
    list<gwa_output_node> local_output;  // payloads for the local socket
    int32_t last_activity = 0;           // coarse clock, last payload in either direction
};

// The first stream with that id, or null.
gwa_stream* gwa_stream_find_by_id(list<gwa_stream>* streams, uint32_t id);
// Links a stream at the tail. Null arguments do nothing.
void gwa_stream_add(list<gwa_stream>* streams, gwa_stream* stream);

// Queues `length` bytes from `cursor`, inside the heap buffer `data` that the stream owns from here
// on, for the local socket. The node is charged, the buffer already is. 0.
int gwa_stream_local_output_enqueue(gwa_stream* stream, uint8_t* data, uint8_t* cursor,
                                    uint32_t length);
// Writes what is queued to the local socket, until it would block.
void gwa_stream_local_out_handle(gwa_stream* stream);
// Reads the local socket once and queues one frame for the server, unless memory is short.
void gwa_stream_local_in_handle(gwa_stream* stream);
// Poller callback of a local socket; the argument is the stream.
void gwa_stream_local_handle(uint32_t events, void* argument);
// Reads again from every stream that stopped short, in turn, as long as its data and the budget of
// the round last. Sets the connection's streams_have_more.
void gwa_stream_local_in_wakeup(list<gwa_stream>* streams);

// Takes the queued payloads, the registration, the socket, the count and the record away.
void gwa_stream_free(gwa_stream* stream);
void gwa_stream_local_destroy_by_id(list<gwa_stream>* streams, uint32_t id);
// Frees every stream.
void gwa_stream_free_all(list<gwa_stream>* streams);
