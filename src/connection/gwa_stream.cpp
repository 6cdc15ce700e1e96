#include "connection/gwa_stream.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "main/gwa_log.h"
#include "runtime/gwa_util_memory.h"
#include "runtime/gwa_util_time.h"

// Bytes begin to wait for the service, or wait no longer.
static void waiting_add(gwa_stream* stream, uint32_t bytes) {
    stream->waiting += bytes;
    stream->connection->streams.waiting += bytes;
}
static void waiting_take(gwa_stream* stream, uint32_t bytes) {
    stream->waiting -= bytes;
    stream->connection->streams.waiting -= bytes;
}

static void local_node_release(gwa_stream* stream, gwa_output_node* node) {
    waiting_take(stream, node->remaining);
    list_unlink(*node);
    gwa_connection_data_node_drop(stream->connection, node);
}

static void local_output_drop(gwa_stream* stream) {
    while (gwa_output_node* const node = stream->local_output.first()) {
        local_node_release(stream, node);
    }
}

gwa_stream* gwa_stream_find_by_id(list<gwa_stream>* streams, uint32_t id) {
    if (streams != nullptr) {
        for (gwa_stream& stream : *streams) {
            if (stream.id == id) {
                return &stream;
            }
        }
    }
    return nullptr;
}

void gwa_stream_add(list<gwa_stream>* streams, gwa_stream* stream) {
    if (streams != nullptr && stream != nullptr) {
        streams->push_back(*stream);
    }
}

gwa_output_node* gwa_stream_frame_new(const gwa_stream* stream, uint32_t length) {
    gwa_output_node* const node =
        gwa_connection_frame_new(gwa_command::DATA, GWA_FLAG_STREAM, stream->id, length);
    gwa_connection_memory_charge(stream->connection, node->capacity);
    gwa_connection_memory_charge(stream->connection, GWA_NODE_COUNTED);
    node->priority = stream->priority;
    node->flags = GWA_NODE_STREAM;
    return node;
}

int gwa_stream_local_output_enqueue(gwa_stream* stream, uint8_t* data, uint32_t length) {
    stream->local_output.push_back(*gwa_connection_data_node_new(stream->connection, data, length));
    waiting_add(stream, length);
    return GWA_OK;
}

// Offers bytes to the service. How many it took, or -1 with errno; oddity 22: a failure closes
// nothing here.
static ssize_t offer(const gwa_stream* stream, const uint8_t* bytes, uint32_t length,
                     int flags = 0) {
    GWA_LOG(DEBUG, "send data to local server");
    const ssize_t sent = send(stream->socket, bytes, length, flags | MSG_NOSIGNAL);
    if (sent == -1) {
        const int reason = errno;
        GWA_LOG(ERROR, "send to local server error fd %d", stream->socket);
        errno = reason;
    }
    return sent;
}

static bool is_lost(ssize_t sent) { return sent == -1 && errno != EAGAIN; }

static void node_advance(gwa_stream* stream, gwa_output_node* node, uint32_t taken) {
    waiting_take(stream, taken);
    node->cursor += taken;
    node->remaining -= taken;
}

// Keeps a copy of a payload of which the service has taken the beginning.
static void keep(gwa_stream* stream, const uint8_t* bytes, uint32_t length, uint32_t taken) {
    auto* const copy = static_cast<uint8_t*>(GWA_MALLOC(length));
    memcpy(copy, bytes, length);
    gwa_connection_memory_charge(stream->connection, length);
    gwa_stream_local_output_enqueue(stream, copy, length);
    node_advance(stream, stream->local_output.last(), taken);
}

void gwa_stream_feed(gwa_stream* stream, const uint8_t* bytes, uint32_t length) {
    if (!stream->local_output.empty()) {
        keep(stream, bytes, length, 0);
        gwa_stream_local_out_handle(stream);
        return;
    }
    // The service need not wake up for each of several frames.
    const int flags = gwa_input_continues(&stream->connection->input) ? MSG_MORE : 0;
    const ssize_t sent = offer(stream, bytes, length, flags);
    if (sent != static_cast<ssize_t>(length) && !is_lost(sent)) {
        keep(stream, bytes, length, sent == -1 ? 0 : static_cast<uint32_t>(sent));
    }
}

void gwa_stream_local_out_handle(gwa_stream* stream) {
    if (stream == nullptr) {
        GWA_LOG(DEBUG, "arg is null");
        return;
    }
    while (gwa_output_node* const node = stream->local_output.first()) {
        const ssize_t sent = offer(stream, node->cursor, node->remaining);
        if (is_lost(sent)) {
            local_output_drop(stream);  // nobody will ever take it, and others would wait
        }
        if (sent == -1) {
            return;
        }
        node_advance(stream, node, static_cast<uint32_t>(sent));
        if (node->remaining > 0) {
            return;  // the writable event resumes
        }
        local_node_release(stream, node);
    }
}

void gwa_stream_strip(gwa_stream* stream) {
    gwa_connection_data* const conn = stream->connection;
    local_output_drop(stream);
    list_unlink(*stream);
    if (stream->socket >= 0) {
        poll_del(&conn->poller, stream->socket);
        close(stream->socket);
        stream->socket = -1;
    }
    conn->streams.count.fetch_sub(1, std::memory_order_relaxed);
    gwa_connection_memory_release(conn, GWA_STREAM_COUNTED);
}

void gwa_stream_free(gwa_stream* stream) {
    gwa_stream_strip(stream);
    free(stream);
}

void gwa_stream_local_destroy_by_id(list<gwa_stream>* streams, uint32_t id) {
    gwa_stream* const stream = gwa_stream_find_by_id(streams, id);
    if (stream == nullptr) {
        GWA_LOG(ERROR, "not found the stream by id %u", id);
        return;
    }
    gwa_stream_free(stream);
}

void gwa_stream_free_all(list<gwa_stream>* streams) {
    while (gwa_stream* const stream = streams->first()) {
        gwa_stream_free(stream);
    }
}
