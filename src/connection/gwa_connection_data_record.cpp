#include "connection/gwa_connection_data_record.h"

#include "runtime/gwa_util_memory.h"
#include "runtime/gwa_util_time.h"

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

void gwa_connection_data_node_drop(gwa_connection_data* conn, gwa_output_node* node) {
    gwa_connection_memory_release(conn, node->capacity);
    gwa_connection_memory_release(conn, GWA_NODE_COUNTED);
    gwa_connection_node_free(node);
}

static uint32_t counted_in_turn(const gwa_output_node* node) {
    return (node->flags & GWA_NODE_IN_TURN) != 0 ? 1 : 0;
}

void gwa_connection_data_send(gwa_connection_data* conn, gwa_output_node* node) {
    node->enqueue_time = gwa_now_get();
    conn->output.count.fetch_add(1, std::memory_order_relaxed);
    conn->output.in_turn += counted_in_turn(node);
    gwa_connection_remote_output_enqueue(&conn->output.queue, node);
}

void gwa_connection_data_node_release(gwa_connection_data* conn, gwa_output_node* node) {
    if (node == &conn->heartbeat.node) {
        gwa_connection_node_free(node);
        return;
    }
    conn->output.count.fetch_sub(1, std::memory_order_relaxed);
    conn->output.in_turn -= counted_in_turn(node);
    gwa_connection_data_node_drop(conn, node);
}
