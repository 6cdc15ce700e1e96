// gwa_stream_in.h - what services say: read, framed, and queued for the server.
//
// Threads: the worker of the owning data connection.
#pragma once

#include "connection/gwa_stream.h"

// Reads the local socket once and queues one frame for the server, unless memory is short.
void gwa_stream_local_in_handle(gwa_stream* stream);
// Poller callback of a local socket; the argument is the stream.
void gwa_stream_local_handle(uint32_t events, void* argument);
// Reads again from the streams that stopped short, `frames` in all, of which each has its share;
// the next pass goes on behind the last one that was read. HAS_MORE: there is a stream that could
// go on at once.
gwa_more gwa_stream_local_in_wakeup(list<gwa_stream>* streams, int frames);
