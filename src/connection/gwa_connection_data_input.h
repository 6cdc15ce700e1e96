// gwa_connection_data_input.h - the frame that is arriving on a data connection.
//
// It survives from pass to pass, so that a frame split anywhere holds up nobody (exception 50).
//
// Threads: the worker.
#pragma once

#include <cstdint>

#include "protocol/gwa_protocol.h"

// What a source of input can still give, told by what brings it about.
enum class gwa_more : uint8_t {
    DRAINED,   // an event of the poller
    HAS_MORE,  // the next round, which does not wait
    WAITS,     // each round looks: for memory, for the rest of a frame, after a failed read
    CLOSED,    // nothing
};

enum class gwa_input_step : uint8_t {
    HEADER,
    HEARTBEAT,
    PAYLOAD,
    DISCARD,        // a payload of the protocol
    EXTRA_DISCARD,  // what follows a request whose local port was dead: oddity 21
};

struct gwa_data_input {
    gwa_more more = gwa_more::DRAINED;
    gwa_input_step step = gwa_input_step::HEADER;
    uint8_t bytes[GWA_HEADER_SIZE + 1] = {};  // the header as received, terminated for the dump
    gwa_header header = {};                   // the same, checked, in host order
    uint8_t* payload = nullptr;               // charged to the connection's memory
    uint32_t have = 0;                        // bytes of the current step
    uint32_t want = GWA_HEADER_SIZE;
    int64_t begun = 0;       // s, wall clock; a HEADER begins with its first byte
    int32_t held_looks = 0;  // at services that take too little, for which the frame waits
    int32_t last_look = 0;   // coarse clock
};

enum class gwa_input_fill : uint8_t {
    DONE,     // the step has all of its bytes
    BLOCKED,  // the rest is not there yet
    CLOSED,   // end of file
    FAILED,   // errno says why
};

// Begins a step of so many bytes.
void gwa_input_step_begin(gwa_data_input* input, gwa_input_step step, uint32_t want);
// Makes ready for the next header.
void gwa_input_next_frame(gwa_data_input* input);
// Receives for the current step until it is complete or the socket has no more.
gwa_input_fill gwa_input_step_fill(gwa_data_input* input, int fd);
// Whether a frame has begun, so that the connection cannot go on without its rest.
bool gwa_input_frame_has_begun(const gwa_data_input* input);
// Whether the current step has used up its time. A clock that was set back starts it over.
bool gwa_input_step_is_late(gwa_data_input* input);
