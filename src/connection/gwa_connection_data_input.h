// gwa_connection_data_input.h - the frame that is arriving on a data connection.
//
// It survives from pass to pass, so that a frame split anywhere holds up nobody (exception 50).
// Each receive takes what there is, several frames at a time; the frames are read where they lie.
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

// What has been received and not been read yet.
struct gwa_read_ahead {
    static constexpr size_t SIZE = 4 * GWA_FRAME_MAX;
    uint32_t begin;
    uint32_t end;
    uint8_t bytes[SIZE];
    // Clears no bytes: what nothing has been received into takes no memory.
    gwa_read_ahead() : begin(0), end(0) {}
};

struct gwa_data_input {
    static constexpr int64_t NOT_WAITED = -1;
    gwa_more more = gwa_more::DRAINED;
    gwa_input_step step = gwa_input_step::HEADER;
    gwa_header header = {};           // of the current frame, checked, in host order
    uint32_t discarded = 0;           // bytes, by a step that discards
    uint32_t want = GWA_HEADER_SIZE;  // bytes of the current step
    int64_t begun = NOT_WAITED;  // s, steady clock; when the step first had to wait for its rest
    int32_t held_looks = 0;      // at services that take too little, for which the frame waits
    int32_t last_look = 0;       // coarse clock
    gwa_read_ahead ahead;
};

enum class gwa_input_fill : uint8_t {
    DONE,     // the step has all of its bytes
    BLOCKED,  // the rest is not there yet
    CLOSED,   // end of file
    FAILED,   // errno says why
};

// Forgets all that has arrived.
void gwa_input_reset(gwa_data_input* input);
// Begins a step of so many bytes, GWA_FRAME_MAX at most.
void gwa_input_step_begin(gwa_data_input* input, gwa_input_step step, uint32_t want);
// Makes ready for the next header.
void gwa_input_next_frame(gwa_data_input* input);
// Receives for the current step until it is complete or the socket has no more.
gwa_input_fill gwa_input_step_fill(gwa_data_input* input, int fd);
// The bytes of a complete step that does not discard. They lie there until the next fill.
uint8_t* gwa_input_step_take(gwa_data_input* input);
// Whether more data for the stream of the last frame is there already, as a whole frame.
bool gwa_input_continues(const gwa_data_input* input);
// Whether a frame has begun, so that the connection cannot go on without its rest.
bool gwa_input_frame_has_begun(const gwa_data_input* input);
// Whether the current step has used up its time, by the clock that nobody sets (exception 51).
bool gwa_input_step_is_late(gwa_data_input* input);
// The time of the current step begins anew, when it next has to wait.
void gwa_input_step_stand_still(gwa_data_input* input);
