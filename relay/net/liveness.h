// liveness.h - finds out that a device is gone without a word.
//
// While nothing is on its way to the device, the kernel probes it. While something is, the kernel
// sends no probes and repeats the bytes for a quarter of an hour: that is what is watched here. A
// device that only does not read still acknowledges, and is not gone.
#pragma once

#include "base/options.h"

struct liveness {
    milliseconds limit{};              // 0: not watched
    steady::time_point looked{};       // the last time
    steady::time_point since = NEVER;  // nothing was acknowledged from then on; NEVER: not waiting
};

// What the kernel tells.
struct liveness_state {
    bool unacknowledged;        // bytes are on their way
    unsigned probes;            // of a shut window, not answered yet
    milliseconds acknowledged;  // since the last acknowledgement
    milliseconds received;      // since the last bytes
};

// Has the kernel probe the device while nothing is on its way, and watches it from now on.
void liveness_watch(liveness& its, int fd, milliseconds limit);
// Whether a state that was found now means that the device is gone.
bool liveness_judge(liveness& its, steady::time_point now, const liveness_state& state);
// Looks at the socket.
bool liveness_is_over(liveness& its, int fd, steady::time_point now);
