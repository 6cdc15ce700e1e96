#include "connection/gwa_connection_data_close.h"

#include <unistd.h>

#include <cstdlib>

#include "connection/gwa_stream.h"
#include "runtime/gwa_process.h"

static void free_half_read_payload(gwa_connection_data* conn) {
    if (conn->input.payload != nullptr) {
        gwa_connection_memory_release(conn, conn->input.header.length);
        free(conn->input.payload);
        conn->input.payload = nullptr;
    }
    gwa_connection_input_next(conn);
}

static void free_queue(gwa_connection_data* conn) {
    if (pthread_mutex_lock(&conn->output.lock) != 0) {
        GWA_LOG(ERROR, "lock failed");
    }
    while (gwa_output_node* const node = conn->output.nodes.first()) {
        list_unlink(*node);
        gwa_connection_node_release(conn, node);
    }
    if (pthread_mutex_unlock(&conn->output.lock) != 0) {
        GWA_LOG(ERROR, "unlock failed");
    }
}

void gwa_connection_data_free(gwa_connection_data* conn) {
    GWA_LOG(DEBUG, "connection data id %d free ...", conn->id);
    gwa_stream_free_all(&conn->streams);
    free_half_read_payload(conn);
    free_queue(conn);
    poll_exit(&conn->poller);  // closes the socket if it was registered
    if (conn->socket >= 0) {
        close(conn->socket);
        conn->socket = -1;
    }
    conn->in_state = gwa_in_state::DRAINED;
    conn->out_state = gwa_out_state::IDLE;
    GWA_LOG(DEBUG, "connection data id %d free success", conn->id);
}

void gwa_connection_data_close(gwa_connection_data* conn) {
    GWA_LOG(FATAL, "close connection data %d start ...", conn->id);
    gwa_connection_data_free(conn);
    GWA_LOG(FATAL, "start jump to restart ...");
    conn->jump_code = GWA_JUMP_RESTART;
    longjmp(conn->restart_point, GWA_JUMP_RESTART);
}
