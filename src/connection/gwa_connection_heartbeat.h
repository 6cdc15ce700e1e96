// gwa_connection_heartbeat.h - the heartbeat of a connection: its one frame and number, and the two
// kinds of silence that ask for it.
//
// Threads: the thread of the connection.
#pragma once

#include <cstdint>

#include "connection/gwa_connection_queue.h"

constexpr int GWA_HEARTBEAT_LIMIT_S = 10;  // for the rest of one whose header has come

struct gwa_heartbeat {
    uint32_t seq = 0;           // of the next one; never starts over within a process
    int32_t last_out_time = 0;  // coarse clock, last successful write
    int32_t last_in_time = 0;   // coarse clock, last header; 0 until there was one
    gwa_output_node node;       // part of the record: nobody frees it or its data
    uint8_t frame[GWA_HEARTBEAT_SIZE] = {};
};

enum class gwa_silence : uint8_t {
    NONE,
    OUT,  // for more than 60 s nothing was sent
    IN,   // for more than 240 s nothing was received
};

// Which silence there is; that of output goes first.
gwa_silence gwa_connection_silence(const gwa_heartbeat* heartbeat);
// Counts the silence of input as one of three minutes: it asks for the next heartbeat in another.
void gwa_connection_silence_shorten(gwa_heartbeat* heartbeat);

// Whether the one frame that there is waits in the queue or is being sent: it must not be built or
// queued once more.
bool gwa_connection_heartbeat_is_queued(const gwa_heartbeat* heartbeat);
// Builds the frame with the next number.
gwa_output_node* gwa_connection_heartbeat_build(gwa_heartbeat* heartbeat);
