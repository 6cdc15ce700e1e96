#include "connection/gwa_connection_data_out.h"

#include <errno.h>
#include <sys/socket.h>

#include <cstring>

#include "connection/gwa_connection_data_close.h"
#include "runtime/gwa_process.h"
#include "runtime/gwa_util_socket.h"
#include "runtime/gwa_util_time.h"

namespace {

constexpr int SEND_BUFFER_LIMIT = 0x20000;  // bytes; what the login asks the kernel for
constexpr int SEND_BUFFER_WAIT_S = 30;
constexpr int32_t BUFFER_TIMEOUT_S = 600;
constexpr int32_t KEEPALIVE_BACKDATE_S =
    180;  // 60 s below the input limit: the next one in a minute

}  // namespace

// The traffic policy: false when nothing may be sent in this pass. The wait also ends, with -1,
// when the daemon stops; that is no reason to complain or to start over.
static bool may_send(gwa_connection_data* conn) {
    int level = 0;
    const int waited = gwa_socket_send_buffer_wait(conn->socket, SEND_BUFFER_LIMIT,
                                                   conn->blocked_since, &level, SEND_BUFFER_WAIT_S);
    if (!gwa_connection_running()) {
        conn->out_state = gwa_out_state::DRAINED;
        return false;
    }
    conn->send_level.store(level, std::memory_order_relaxed);
    if (waited == GWA_FAILED) {
        GWA_LOG(ERROR, "traffic policy failed, conn %d, restart it", conn->id);
        gwa_connection_data_close(conn);
    }
    if (waited == GWA_TIMED_OUT) {
        GWA_LOG(INFO, "traffic policy timeout, conn %d", conn->id);
        return false;
    }
    return true;
}

static void count_sent(gwa_connection_data* conn, ssize_t sent) {
    gwa_counter_add(conn->traffic.bytes_out, static_cast<uint32_t>(sent));
    conn->last_out_time = gwa_now_get();
}

// The socket took nothing: the node goes back to where it came from.
static void put_back(gwa_connection_data* conn, gwa_output_node* node, bool sent_any) {
    gwa_connection_head_enqueue(&conn->output, node);
    conn->out_state = sent_any ? gwa_out_state::PARTLY_SENT : gwa_out_state::BLOCKED;
}

// The socket took some of it: the rest goes first from here on.
static void keep_rest(gwa_connection_data* conn, gwa_output_node* node, ssize_t sent) {
    const uint32_t expected = node->remaining;
    count_sent(conn, sent);
    node->cursor += sent;
    node->remaining -= static_cast<uint32_t>(sent);
    node->flags |= GWA_NODE_PARTLY_SENT;
    gwa_connection_head_enqueue(&conn->output, node);
    conn->out_state = gwa_out_state::PARTLY_SENT;
    GWA_LOG(DEBUG, "the data were not sended completely expect %d, but %d, remain %d",
            static_cast<int>(expected), static_cast<int>(sent), static_cast<int>(node->remaining));
}

// Sends one node. False: the pass ends, out_state says why.
static bool send_node(gwa_connection_data* conn, gwa_output_node* node, bool sent_any) {
    if ((node->flags & GWA_NODE_PARTLY_SENT) == 0) {
        gwa_protocol_show(node->data);
    }
    const ssize_t sent = send(conn->socket, node->cursor, node->remaining, MSG_NOSIGNAL);
    if (sent == -1 && errno != EAGAIN) {
        GWA_LOG(DEBUG, "send to remote socket error fd %d %s", conn->socket, strerror(errno));
        gwa_connection_node_release(conn, node);  // it is on no queue that the close could free
        gwa_connection_data_close(conn);
    }
    if (sent <= 0) {
        if (sent == 0) {
            GWA_LOG(INFO, "send to remote socket return 0");
        }
        put_back(conn, node, sent_any);
        return false;
    }
    if (static_cast<uint32_t>(sent) < node->remaining) {
        keep_rest(conn, node, sent);
        return false;
    }
    count_sent(conn, sent);
    GWA_LOG(DEBUG, "the data were sended completely %d", static_cast<int>(sent));
    gwa_connection_node_release(conn, node);
    gwa_counter_add(conn->traffic.packets_out, 1);
    return true;
}

// Whether a heartbeat may go out: an unanswered one blocks the next, and the one frame there is
// must not be rebuilt or linked again while it is queued.
static bool heartbeat_is_due(const gwa_connection_data* conn) {
    if (conn->heartbeat_resp != conn->heartbeat_seq || conn->heartbeat_queued) {
        GWA_LOG(REFUSAL, "the heartbeat response is not recv yet, conn %d", conn->id);
        return false;
    }
    return true;
}

static void heartbeat_build(gwa_connection_data* conn) {
    gwa_connection_heartbeat_build(&conn->heartbeat_node, conn->heartbeat_frame,
                                   conn->heartbeat_seq);
    conn->heartbeat_seq++;
    conn->heartbeat_queued = true;
    GWA_LOG(INFO, "keepalive timer for data %d", conn->id);
}

void gwa_connection_data_remote_out_handle(gwa_connection_data* conn) {
    if (conn == nullptr) {
        GWA_LOG(DEBUG, "connction is null");
        GWA_BROKEN_RULE();
    }
    if (!may_send(conn)) {
        return;
    }
    for (bool sent_any = false; gwa_connection_running(); sent_any = true) {
        gwa_output_node* const node = gwa_connection_dequeue(&conn->output);
        if (node == nullptr) {
            break;
        }
        if (!send_node(conn, node, sent_any)) {
            return;
        }
    }
    conn->out_state = gwa_out_state::DRAINED;
}

void gwa_connection_data_heartbeat_handle(gwa_connection_data* conn) {
    GWA_LOG(REFUSAL, "conn %d out idle too long, send a heartbeat", conn->id);
    GWA_LOG(INFO, "seq %u resp %u", conn->heartbeat_seq, conn->heartbeat_resp);
    if (!heartbeat_is_due(conn)) {
        return;
    }
    heartbeat_build(conn);
    if (gwa_connection_enqueue_if_empty(&conn->output, &conn->heartbeat_node) == 1) {
        GWA_LOG(INFO, "insert a heartbeat into conn %d", conn->id);
    } else {
        conn->heartbeat_seq--;  // not sent, so nobody will answer this number
        conn->heartbeat_queued = false;
    }
}

void gwa_connection_data_keepalive_handle(gwa_connection_data* conn) {
    GWA_LOG(REFUSAL, "conn %d in idle too long, send a keepalive", conn->id);
    if (heartbeat_is_due(conn)) {
        heartbeat_build(conn);
        gwa_connection_head_enqueue(&conn->output, &conn->heartbeat_node);
    }
    conn->last_in_time = gwa_moment_before(gwa_now_get(), KEEPALIVE_BACKDATE_S);
}

void gwa_connection_data_output_free_by_id(gwa_connection_data* conn, uint32_t stream_id) {
    gwa_connection_queue_lock(&conn->output);
    for (gwa_output_node& node : conn->output.nodes) {
        if (node.stream_id != stream_id || (node.flags & GWA_NODE_STATIC) != 0) {
            continue;  // the heartbeat has id 0 too, and is no stream's
        }
        if ((node.flags & GWA_NODE_PARTLY_SENT) != 0) {
            GWA_LOG(REFUSAL, "the buff is suspended, stream id %u", stream_id);
            continue;  // the server has part of it and waits for the rest
        }
        GWA_LOG(INFO, "free the buff now, stream id %u", stream_id);
        list_unlink(node);
        gwa_connection_node_release(conn, &node);
    }
    gwa_connection_queue_unlock(&conn->output);
}

void gwa_connection_data_buffer_timeout_check(gwa_connection_data* conn) {
    GWA_LOG(CREATE, "check buffer timeout now conn id %d ...", conn->id);
    if (pthread_mutex_lock(&conn->output.lock) != 0) {
        GWA_LOG(ERROR, "lock failed");
    }
    for (gwa_output_node& node : conn->output.nodes) {
        const bool fixed = (node.flags & (GWA_NODE_PARTLY_SENT | GWA_NODE_STATIC)) != 0;
        if (fixed || gwa_seconds_since(node.enqueue_time) <= BUFFER_TIMEOUT_S) {
            continue;
        }
        GWA_LOG(ERROR, "buffer blocked too long time, stream id %u", node.stream_id);
        list_unlink(node);
        gwa_connection_node_release(conn, &node);
    }
    if (pthread_mutex_unlock(&conn->output.lock) != 0) {
        GWA_LOG(ERROR, "lock failed");  // oddity 16
    }
}
