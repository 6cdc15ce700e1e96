// control_queue.h - what the reporters have put on the control connection's queue.
#pragma once

#include <string>
#include <vector>

#include "connection/gwa_connection.h"

// Takes every frame off the queue, as bytes.
inline std::vector<std::string> queued_frames() {
    std::vector<std::string> frames;
    while (gwa_output_node* const node = gwa_connection_dequeue(&gwa_connections.cntl.output)) {
        frames.emplace_back(reinterpret_cast<char*>(node->cursor), node->remaining);
        gwa_connection_node_free(node);
    }
    return frames;
}
