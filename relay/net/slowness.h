// slowness.h - how long a user has kept others waiting while he took too little.
//
// He is watched in spans of the time that rates are measured over. A span counts against him when
// he has kept others waiting at any time of it and has taken less than the least rate; one that
// does not clears him.
#pragma once

#include "base/options.h"

struct slowness {
    steady::time_point began = NEVER, span_began = NEVER;  // NEVER: he keeps nobody waiting
    uint64_t taken = 0;                                    // in all, when the span began
    bool kept_waiting = false;                             // others, in this span
};

// What is known by now: `taken` bytes in all. True: he has been too slow for too long.
bool slowness_look(slowness& his, steady::time_point now, uint64_t taken, bool keeps_waiting,
                   const options& set);
