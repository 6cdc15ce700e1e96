#include "connection/gwa_connection_data_out.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "main/gwa_log.h"
#include "runtime/gwa_process.h"
#include "runtime/gwa_util_send_buffer.h"
#include "runtime/gwa_util_socket.h"
#include "runtime/gwa_util_time.h"

namespace {

constexpr int SEND_BUFFER_LIMIT = 0x20000;  // bytes; what the login asks the kernel for
constexpr int64_t HELD_MAX_US = 30 * GWA_US_PER_SECOND;  // then a line tells of it
constexpr int32_t BUFFER_TIMEOUT_S = 600;
// Frames that are kept ready for the next pass: half of what the send buffer can take, which is
// twice of what the login asks for, socket(7). The other half is read when the first has left:
// until then it is better kept by the services.
constexpr int FRAMES_READY = SEND_BUFFER_LIMIT / static_cast<int>(GWA_FRAME_MAX);
// So many may be read in turns whatever else waits, while there is memory: else streams that say
// little at a time, but often, or a long answer of the diagnostic could keep a download waiting.
constexpr int FRAMES_IN_TURN = FRAMES_READY / 2;
// And so many a stream may have read out of its turn when much waits: a head and a body.
constexpr int FRAMES_AT_ONCE = 2;

enum class policy : uint8_t { SEND, HOLD, FAILED };

}  // namespace

// The server reads less than we have for it. Says so once in a while.
static void hold(gwa_connection_data* conn) {
    gwa_data_output& output = conn->output;
    const int64_t now = gwa_time.steady_us();
    if (gwa_connection_queue_is_empty(&output.queue) != 0) {
        output.held_passes = 0;                 // nothing that could be held
        output.state = gwa_out_state::DRAINED;  // the event that tells of room has been and gone
    } else if (output.held_passes++ == 0) {
        output.held_since_us = now;
    } else if (now - output.held_since_us >= HELD_MAX_US) {
        GWA_LOG(INFO, "traffic policy timeout, conn %d", conn->id);
        output.held_since_us = now;
    }
}

// One look at the send buffer, without a wait. GWA_OK: frames may leave, GWA_TIMED_OUT: not now,
// GWA_FAILED: the look has failed, or the daemon stops.
static int look(const gwa_connection_data* conn, int* level) {
    return gwa_socket_send_buffer_wait(conn->socket, SEND_BUFFER_LIMIT, 0, level, 0,
                                       gwa_connection_running);
}

// The traffic policy: whether this pass may send. A pass that may not holds up nothing else
// (exception 58). A stop of the daemon is no reason to complain or to start over.
static policy traffic_policy(gwa_connection_data* conn) {
    int level = 0;
    const int looked = look(conn, &level);
    conn->output.may_send = looked == GWA_OK;
    if (!gwa_connection_running()) {
        conn->output.state = gwa_out_state::DRAINED;
        return policy::HOLD;
    }
    conn->output.send_level.store(level, std::memory_order_relaxed);
    if (looked == GWA_FAILED) {
        GWA_LOG(ERROR, "traffic policy failed, conn %d, restart it", conn->id);
        return policy::FAILED;
    }
    if (looked == GWA_TIMED_OUT) {
        hold(conn);
        return policy::HOLD;
    }
    conn->output.held_passes = 0;
    return policy::SEND;
}

// A frame that was offered to the socket: `bytes` were taken of it and of those behind it. The
// state says how: DRAINED, if the frame can go.
static gwa_step node_offered(gwa_connection_data* conn, gwa_output_node* node, ssize_t* bytes,
                             bool sent_any) {
    gwa_data_output& output = conn->output;
    const auto expected = static_cast<int>(node->remaining);
    switch (gwa_connection_node_sent(node, bytes)) {
        case gwa_sent::FAILED:
            GWA_LOG(DEBUG, "send to remote socket error fd %d %s", conn->socket, strerror(errno));
            return gwa_step::CLOSED;
        case gwa_sent::NOTHING:
            output.state = sent_any ? gwa_out_state::PARTLY_SENT : gwa_out_state::BLOCKED;
            return gwa_step::GOES_ON;
        case gwa_sent::PART: {
            const auto remaining = static_cast<int>(node->remaining);
            conn->heartbeat.last_out_time = gwa_now_get();
            output.state = gwa_out_state::PARTLY_SENT;
            GWA_LOG(DEBUG, "the data were not sended completely expect %d, but %d, remain %d",
                    expected, expected - remaining, remaining);
            return gwa_step::GOES_ON;
        }
        case gwa_sent::WHOLE: break;
    }
    conn->heartbeat.last_out_time = gwa_now_get();
    output.state = gwa_out_state::DRAINED;
    GWA_LOG(DEBUG, "the data were sended completely %d", expected);
    gwa_counter_add(conn->traffic.packets_out, 1);
    return gwa_step::GOES_ON;
}

// Sends a batch, and releases what has left. `sent_any`: whether this pass has sent before.
static gwa_step send_batch(gwa_connection_data* conn, list<gwa_output_node>* batch, bool sent_any) {
    ssize_t bytes = gwa_connection_batch_send(batch, conn->socket, &conn->traffic);
    if (bytes == 0) {
        GWA_LOG(INFO, "send to remote socket return 0");
    }
    const gwa_log_gather gathered;  // the bytes have left: all lines tell of one moment
    while (gwa_output_node* const node = batch->first()) {
        if ((node->flags & GWA_NODE_PARTLY_SENT) == 0) {
            gwa_protocol_show(node->data);
        }
        if (node_offered(conn, node, &bytes, sent_any) == gwa_step::CLOSED) {
            return gwa_step::CLOSED;
        }
        if (gwa_connection_data_is_blocked(conn)) {
            break;
        }
        list_unlink(*node);
        gwa_connection_data_node_release(conn, node);
        sent_any = true;
    }
    return gwa_step::GOES_ON;
}

gwa_step gwa_connection_data_remote_out_handle(gwa_connection_data* conn) {
    switch (traffic_policy(conn)) {
        case policy::SEND: break;
        case policy::HOLD: return gwa_step::GOES_ON;
        case policy::FAILED: return gwa_step::CLOSED;
    }
    return gwa_connection_data_queue_send(conn);
}

gwa_step gwa_connection_data_queue_send(gwa_connection_data* conn) {
    gwa_output_queue& queue = conn->output.queue;
    conn->output.state = gwa_out_state::DRAINED;
    gwa_step step = gwa_step::GOES_ON;
    for (bool sent_any = false; gwa_connection_running(); sent_any = true) {
        list<gwa_output_node> batch;
        gwa_connection_dequeue_batch(&queue, &batch);
        if (batch.empty()) {
            break;
        }
        step = send_batch(conn, &batch, sent_any);
        gwa_connection_put_back(&queue, &batch);
        if (step == gwa_step::CLOSED || gwa_connection_data_is_blocked(conn)) {
            break;
        }
    }
    return step;
}

bool gwa_connection_data_is_blocked(const gwa_connection_data* conn) {
    return conn->output.state == gwa_out_state::BLOCKED ||
           conn->output.state == gwa_out_state::PARTLY_SENT;
}

int gwa_connection_data_hold_ms(const gwa_connection_data* conn) {
    int level = 0;
    return look(conn, &level) == GWA_TIMED_OUT ? level : 0;
}

static int frames_queued(const gwa_connection_data* conn) {
    return static_cast<int>(conn->output.count.load(std::memory_order_relaxed));
}

int gwa_connection_data_room(const gwa_connection_data* conn) {
    const int of_turns = FRAMES_IN_TURN - static_cast<int>(conn->output.in_turn);
    return std::max({FRAMES_READY - frames_queued(conn), of_turns, 0});
}

bool gwa_connection_data_has_room_for(gwa_connection_data* conn, uint32_t priority,
                                      uint32_t stream_id) {
    if (frames_queued(conn) < FRAMES_READY) {
        return true;
    }
    const gwa_queue_ahead ahead =
        gwa_connection_queue_ahead(&conn->output.queue, priority, stream_id);
    return ahead.frames < FRAMES_READY || ahead.own < FRAMES_AT_ONCE;
}

// Whether a heartbeat may go out: an unanswered one blocks the next.
static bool heartbeat_is_due(const gwa_connection_data* conn) {
    if (conn->heartbeat_resp != conn->heartbeat.seq ||
        gwa_connection_heartbeat_is_queued(&conn->heartbeat)) {
        GWA_LOG(REFUSAL, "the heartbeat response is not recv yet, conn %d", conn->id);
        return false;
    }
    return true;
}

void gwa_connection_data_heartbeat_handle(gwa_connection_data* conn) {
    GWA_LOG(REFUSAL, "conn %d out idle too long, send a heartbeat", conn->id);
    GWA_LOG(INFO, "seq %u resp %u", conn->heartbeat.seq, conn->heartbeat_resp);
    if (!heartbeat_is_due(conn)) {
        return;
    }
    gwa_output_node* const node = gwa_connection_heartbeat_build(&conn->heartbeat);
    GWA_LOG(INFO, "keepalive timer for data %d", conn->id);
    if (gwa_connection_enqueue_if_empty(&conn->output.queue, node) == 1) {
        GWA_LOG(INFO, "insert a heartbeat into conn %d", conn->id);
    } else {
        conn->heartbeat.seq--;  // not sent, so nobody would answer this number: exception 67
    }
}

void gwa_connection_data_keepalive_handle(gwa_connection_data* conn) {
    GWA_LOG(REFUSAL, "conn %d in idle too long, send a keepalive", conn->id);
    if (heartbeat_is_due(conn)) {
        gwa_output_node* const node = gwa_connection_heartbeat_build(&conn->heartbeat);
        GWA_LOG(INFO, "keepalive timer for data %d", conn->id);
        gwa_connection_head_enqueue(&conn->output.queue, node);
    }
    gwa_connection_silence_shorten(&conn->heartbeat);
}

// Releases every queued node that `unwanted` picks.
template <typename Unwanted>
static void sweep(gwa_connection_data* conn, Unwanted unwanted) {
    gwa_connection_queue_sweep(&conn->output.queue, unwanted, [conn](gwa_output_node* node) {
        gwa_connection_data_node_release(conn, node);
    });
}

static bool is_dropped_with(uint32_t stream_id, const gwa_output_node& node) {
    if (node.stream_id != stream_id || (node.flags & GWA_NODE_STATIC) != 0) {
        return false;  // the heartbeat has id 0 too, and is no stream's
    }
    if ((node.flags & GWA_NODE_PARTLY_SENT) != 0) {
        GWA_LOG(REFUSAL, "the buff is suspended, stream id %u", stream_id);
        return false;  // the server has part of it and waits for the rest
    }
    GWA_LOG(INFO, "free the buff now, stream id %u", stream_id);
    return true;
}

void gwa_connection_data_output_free_by_id(gwa_connection_data* conn, uint32_t stream_id) {
    sweep(conn,
          [stream_id](const gwa_output_node& node) { return is_dropped_with(stream_id, node); });
}

static bool is_too_old(const gwa_output_node& node) {
    const bool fixed = (node.flags & (GWA_NODE_PARTLY_SENT | GWA_NODE_STATIC)) != 0;
    if (fixed || gwa_seconds_since(node.enqueue_time) <= BUFFER_TIMEOUT_S) {
        return false;
    }
    GWA_LOG(ERROR, "buffer blocked too long time, stream id %u", node.stream_id);
    return true;
}

void gwa_connection_data_buffer_timeout_check(gwa_connection_data* conn) {
    GWA_LOG(CREATE, "check buffer timeout now conn id %d ...", conn->id);
    sweep(conn, is_too_old);
}
