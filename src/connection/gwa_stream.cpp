#include "connection/gwa_stream.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "main/gwa_log.h"
#include "runtime/gwa_util_time.h"

// Streams of priority 0 go on reading when memory is short.
static bool memory_is_short(const gwa_stream* stream) {
    const uint32_t limit = stream->priority != 0 ? GWA_MEMORY_LIMIT : GWA_MEMORY_CEILING;
    return gwa_connection_memory(stream->connection) > limit;
}

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

// Frames what was read and queues it for the server.
static void send_to_server(gwa_stream* stream, const uint8_t* bytes, uint32_t length) {
    gwa_output_node* const node = gwa_stream_frame_new(stream, length);
    memcpy(gwa_connection_payload_of(node), bytes, length);
    stream->last_activity = gwa_now_get();
    gwa_connection_data_send(stream->connection, node);
}

// Nothing came. The stream stays: the server or the idle check ends it.
static void read_failed(gwa_stream* stream, ssize_t got) {
    if (got == 0) {
        // Exception 44: reading again would only give this line again, at the pace of the rounds.
        stream->more = gwa_more::CLOSED;
        GWA_LOG(ERROR, "local socket closed fd %d, conn %d stream id %u", stream->socket,
                stream->connection->id, stream->id);
        return;
    }
    if (errno == EAGAIN) {
        stream->more = gwa_more::DRAINED;  // the poller will tell: no round need look
        return;
    }
    stream->more = gwa_more::WAITS;
    GWA_LOG(ERROR, "recv error fd %d, %s", stream->socket, strerror(errno));
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

void gwa_stream_local_out_handle(gwa_stream* stream) {
    if (stream == nullptr) {
        GWA_LOG(DEBUG, "arg is null");
        return;
    }
    while (gwa_output_node* const node = stream->local_output.first()) {
        GWA_LOG(DEBUG, "send data to local server");
        const ssize_t sent = send(stream->socket, node->cursor, node->remaining, MSG_NOSIGNAL);
        if (sent == -1) {
            const bool is_full = errno == EAGAIN;
            // Oddity 22: a local failure closes nothing here.
            GWA_LOG(ERROR, "send to local server error fd %d", stream->socket);
            if (!is_full) {
                local_output_drop(stream);  // nobody will ever take it, and others would wait
            }
            return;
        }
        const auto taken = static_cast<uint32_t>(sent);
        waiting_take(stream, taken);
        node->cursor += taken;
        node->remaining -= taken;
        if (node->remaining > 0) {
            return;  // the writable event resumes
        }
        local_node_release(stream, node);
    }
}

void gwa_stream_local_in_handle(gwa_stream* stream) {
    uint8_t buffer[GWA_PAYLOAD_MAX];
    if (stream == nullptr) {
        GWA_LOG(DEBUG, "arg is null");
        return;
    }
    if (memory_is_short(stream)) {
        GWA_LOG(INFO, "connection id %d memory over thresholds, mark local socket status to full",
                stream->connection->id);
        stream->more = gwa_more::WAITS;
        return;
    }
    const ssize_t got = recv(stream->socket, buffer, sizeof buffer, 0);
    if (got <= 0) {
        read_failed(stream, got);
        return;
    }
    GWA_LOG(DEBUG, "recv local server data %d", static_cast<int>(got));
    send_to_server(stream, buffer, static_cast<uint32_t>(got));
    if (got == ssize_t{sizeof buffer}) {
        GWA_LOG(DEBUG, "more data are remaining in local socket buffer");
        stream->more = gwa_more::HAS_MORE;
    } else {
        stream->more = gwa_more::DRAINED;
    }
}

void gwa_stream_local_handle(uint32_t events, void* argument) {
    gwa_stream* const stream = static_cast<gwa_stream*>(argument);
    if (stream == nullptr) {
        GWA_LOG(DEBUG, "arg is null");
        return;
    }
    if ((events & EPOLLIN) != 0) {
        gwa_stream_local_in_handle(stream);
    }
    if ((events & EPOLLOUT) != 0) {
        gwa_stream_local_out_handle(stream);
    }
}

static bool has_more(const gwa_stream& stream) { return stream.more == gwa_more::HAS_MORE; }

static bool wants_wakeup(const gwa_stream& stream) {
    return has_more(stream) || stream.more == gwa_more::WAITS;
}

struct wakeup_pass {
    int frames;       // that may still be read
    list_link* last;  // the stream that was read last, or the head
    bool more;        // a stream could go on at once
};

// Reads a frame from every stream that `wants` it, in turn.
static void read_turn(list<gwa_stream>* streams, bool (*wants)(const gwa_stream&),
                      wakeup_pass* pass) {
    pass->more = false;
    for (gwa_stream& stream : *streams) {
        if (pass->frames > 0 && wants(stream)) {
            const bool reads = !memory_is_short(&stream);
            GWA_LOG(DEBUG, "wakeup stream socket %d", stream.socket);
            gwa_stream_local_in_handle(&stream);
            if (reads) {
                pass->last = &stream;
                pass->frames--;
            }
        }
        pass->more = pass->more || has_more(stream);
    }
}

gwa_more gwa_stream_local_in_wakeup(list<gwa_stream>* streams, int frames) {
    if (streams == nullptr) {
        GWA_LOG(ERROR, "head is null");
        return gwa_more::DRAINED;
    }
    wakeup_pass pass{frames, &streams->head, false};
    // Who waits for memory or has failed is tried once a pass.
    read_turn(streams, wants_wakeup, &pass);
    while (pass.frames > 0 && pass.more) {
        read_turn(streams, has_more, &pass);
    }
    if (pass.last != &streams->head) {
        list_unlink(streams->head);
        list_insert_before(*pass.last->next, streams->head);
    }
    return pass.more ? gwa_more::HAS_MORE : gwa_more::DRAINED;
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
