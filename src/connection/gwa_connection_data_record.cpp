#include "connection/gwa_connection_data_record.h"

#include <unistd.h>

#include <cstdlib>

#include "connection/gwa_stream.h"
#include "main/gwa_log.h"
#include "runtime/gwa_process.h"
#include "runtime/gwa_util_memory.h"
#include "runtime/gwa_util_time.h"

namespace {

constexpr int FIRST_WAIT_MS = 100;

}  // namespace

static uint32_t counted(uint32_t size) {
    return static_cast<uint32_t>(gwa_round_up(static_cast<int>(size)));
}

// The figure has one writer, so a plain load and store are enough.
void gwa_connection_memory_charge(gwa_connection_data* conn, uint32_t size) {
    conn->memory.store(gwa_connection_memory(conn) + counted(size), std::memory_order_relaxed);
}

void gwa_connection_memory_release(gwa_connection_data* conn, uint32_t size) {
    conn->memory.store(gwa_connection_memory(conn) - counted(size), std::memory_order_relaxed);
}

gwa_output_node* gwa_connection_data_node_new(gwa_connection_data* conn, uint8_t* buffer,
                                              uint32_t size) {
    gwa_connection_memory_charge(conn, GWA_NODE_COUNTED);
    return gwa_connection_node_new(buffer, size);
}

gwa_output_node* gwa_connection_data_frame_new(gwa_connection_data* conn, const gwa_stream* stream,
                                               uint32_t length) {
    gwa_output_node* const node =
        gwa_connection_frame_new(gwa_command::DATA, GWA_FLAG_STREAM, stream->id, length);
    gwa_connection_memory_charge(conn, node->capacity);
    gwa_connection_memory_charge(conn, GWA_NODE_COUNTED);
    node->priority = stream->priority;
    return node;
}

void gwa_connection_data_node_drop(gwa_connection_data* conn, gwa_output_node* node) {
    gwa_connection_memory_release(conn, node->capacity);
    gwa_connection_memory_release(conn, GWA_NODE_COUNTED);
    gwa_connection_node_free(node);
}

void gwa_connection_data_send(gwa_connection_data* conn, gwa_output_node* node) {
    node->enqueue_time = gwa_now_get();
    conn->output.count.fetch_add(1, std::memory_order_relaxed);
    gwa_connection_remote_output_enqueue(&conn->output.queue, node);
}

void gwa_connection_data_node_release(gwa_connection_data* conn, gwa_output_node* node) {
    if (node == &conn->heartbeat.node) {
        gwa_connection_node_free(node);
        return;
    }
    conn->output.count.fetch_sub(1, std::memory_order_relaxed);
    gwa_connection_data_node_drop(conn, node);
}

int gwa_connection_data_init2(gwa_connection_data* conn) {
    conn->closed = false;
    conn->socket = -1;
    conn->streams.count.store(0, std::memory_order_relaxed);
    conn->streams.more = gwa_more::DRAINED;
    conn->output.count.store(0, std::memory_order_relaxed);
    conn->heartbeat_resp = conn->heartbeat.seq;
    if (poll_init(&conn->poller) != GWA_OK) {
        GWA_LOG(RESULT, "init epoll failed");
        return GWA_FAILED;
    }
    conn->poller.timeout = FIRST_WAIT_MS;
    return GWA_OK;
}

static void free_half_read_payload(gwa_connection_data* conn) {
    if (conn->input.payload != nullptr) {
        gwa_connection_memory_release(conn, conn->input.header.length);
        free(conn->input.payload);
    }
    conn->input = {};
}

void gwa_connection_data_free(gwa_connection_data* conn) {
    GWA_LOG(DEBUG, "connection data id %d free ...", conn->id);
    gwa_stream_free_all(&conn->streams.all);
    free_half_read_payload(conn);
    gwa_connection_queue_sweep(
        &conn->output.queue, [](const gwa_output_node&) { return true; },
        [conn](gwa_output_node* node) { gwa_connection_data_node_release(conn, node); });
    poll_exit(&conn->poller);  // closes the socket if it was registered
    if (conn->socket >= 0) {
        close(conn->socket);
        conn->socket = -1;
    }
    conn->output.state = gwa_out_state::IDLE;
    GWA_LOG(DEBUG, "connection data id %d free success", conn->id);
}

gwa_step gwa_connection_data_close(gwa_connection_data* conn) {
    GWA_LOG(FATAL, "close connection data %d start ...", conn->id);
    gwa_connection_data_free(conn);
    GWA_LOG(FATAL, "start jump to restart ...");
    conn->closed = true;
    return gwa_step::CLOSED;
}
