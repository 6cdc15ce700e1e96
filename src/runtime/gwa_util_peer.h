// gwa_util_peer.h - finds out that the other end of a TCP connection is gone without a word.
//
// An idle connection is watched by the kernel's keep-alive probes. While bytes are on their way it
// sends none, and repeats the bytes for a quarter of an hour: that is what is watched here. A peer
// that only does not read still acknowledges, and is not dead.
//
// Threads: a watch belongs to the thread of its connection.
// Outside: TCP_INFO, tcp(7).
#pragma once

#include <cstdint>

struct gwa_peer_watch {
    int32_t looked = 0;    // coarse clock
    int32_t since = 0;     // coarse clock; nothing was acknowledged from then on
    bool waiting = false;  // for an acknowledgement, at the last look
};

// What the kernel tells.
struct gwa_peer_state {
    bool closed;              // reset, or given up by the kernel
    bool unacknowledged;      // bytes are on their way
    uint32_t probes;          // of a shut window, not answered yet
    uint32_t acknowledged_s;  // since the last acknowledgement
    uint32_t received_s;      // since the last bytes
};

// Whether a state that was found now means that the peer is gone.
bool gwa_peer_judge(gwa_peer_watch* watch, const gwa_peer_state& state);
// Looks at the socket, at most once a second. True: the peer is gone.
bool gwa_peer_is_gone(gwa_peer_watch* watch, int fd);
