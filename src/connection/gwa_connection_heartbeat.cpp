#include "connection/gwa_connection_heartbeat.h"

#include "runtime/gwa_util_time.h"

namespace {

constexpr int32_t OUT_LIMIT_S = 60;
constexpr int32_t IN_LIMIT_S = 240;
constexpr int32_t SHORTENED_S = 180;

}  // namespace

gwa_silence gwa_connection_silence(const gwa_heartbeat* heartbeat) {
    if (gwa_seconds_since(heartbeat->last_out_time) > OUT_LIMIT_S) {
        return gwa_silence::OUT;
    }
    return gwa_seconds_since(heartbeat->last_in_time) > IN_LIMIT_S ? gwa_silence::IN
                                                                   : gwa_silence::NONE;
}

void gwa_connection_silence_shorten(gwa_heartbeat* heartbeat) {
    heartbeat->last_in_time = gwa_moment_before(gwa_now_get(), SHORTENED_S);
}

bool gwa_connection_heartbeat_is_queued(const gwa_heartbeat* heartbeat) {
    return heartbeat->node.next != &heartbeat->node;  // also while it is off the queue to be sent
}

gwa_output_node* gwa_connection_heartbeat_build(gwa_heartbeat* heartbeat) {
    gwa_output_node& node = heartbeat->node;
    gwa_protocol_build_heartbeat(heartbeat->frame, heartbeat->seq++);
    node.data = heartbeat->frame;
    node.cursor = heartbeat->frame;
    node.capacity = GWA_HEARTBEAT_SIZE;
    node.remaining = GWA_HEARTBEAT_SIZE;
    node.enqueue_time = gwa_now_get();
    node.flags = GWA_NODE_HEARTBEAT;
    return &node;
}
