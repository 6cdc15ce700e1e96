#include "connection/gwa_stream.h"

#include <errno.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "main/gwa_log.h"
#include "runtime/gwa_util_memory.h"
#include "runtime/gwa_util_time.h"

namespace {

// One wakeup pass reads at most this often from one stream: large enough that a single download is
// not held up by the pause between two rounds, small enough that it does not hold up the others.
constexpr int READS_PER_ROUND = 16;

// One buffer a connection, shared by its streams: they all run on its worker.
uint8_t receive_buffers[GWA_DATA_CONNECTIONS][GWA_FRAME_MAX];

}  // namespace

// Streams of priority 0 go on reading when memory is short.
static bool memory_is_short(const gwa_stream* stream) {
    return stream->priority != 0 && gwa_connection_memory(stream->connection) > GWA_MEMORY_LIMIT;
}

static void local_node_release(gwa_connection_data* conn, gwa_output_node* node) {
    list_unlink(*node);
    gwa_connection_memory_release(conn, node->capacity);
    gwa_connection_memory_release(conn, GWA_NODE_COUNTED);
    gwa_connection_node_free(node);
}

// Frames what was read and queues it for the server.
static void send_to_server(gwa_stream* stream, const uint8_t* bytes, uint32_t length) {
    gwa_connection_data* const conn = stream->connection;
    const uint32_t size = GWA_HEADER_SIZE + length;
    uint8_t* const frame = static_cast<uint8_t*>(GWA_MALLOC(size));
    gwa_connection_memory_charge(conn, size);
    gwa_protocol_build(frame, GWA_VERSION_PLAIN, gwa_command::DATA, GWA_FLAG_STREAM, stream->id,
                       length);
    memcpy(frame + GWA_HEADER_SIZE, bytes, length);

    gwa_output_node* const node = gwa_connection_node_new(conn, frame, size, size);
    node->priority = stream->priority;
    node->stream_id = stream->id;
    stream->last_activity = gwa_now_get();
    gwa_connection_send(conn, node);
}

// Nothing came. The stream stays: the server or the idle check ends it.
static void read_failed(gwa_stream* stream, ssize_t got) {
    stream->has_more = false;
    if (got == 0) {
        // Exception 44: reading again would only give this line again, at the pace of the rounds.
        stream->local_closed = true;
        GWA_LOG(ERROR, "local socket closed fd %d, conn %d stream id %u", stream->socket,
                stream->connection->id, stream->id);
        return;
    }
    stream->in_state = gwa_in_state::MORE;
    if (errno != EAGAIN) {
        GWA_LOG(ERROR, "recv error fd %d, %s", stream->socket, strerror(errno));
    }
}

// Reads from a stream until its data, its share of the round or the memory ends.
static void read_share(gwa_stream* stream) {
    GWA_LOG(DEBUG, "wakeup stream socket %d", stream->socket);
    for (int reads = 0; reads < READS_PER_ROUND; reads++) {
        gwa_stream_local_in_handle(stream);
        if (!stream->has_more || memory_is_short(stream)) {
            return;
        }
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

int gwa_stream_local_output_enqueue(gwa_stream* stream, uint8_t* data, uint8_t* cursor,
                                    uint32_t length) {
    gwa_output_node* const node = gwa_connection_node_new(stream->connection, data, length, length);
    node->cursor = cursor;
    stream->local_output.push_back(*node);
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
            // A full socket too. Oddity 22: a local failure closes nothing here.
            GWA_LOG(ERROR, "send to local server error fd %d", stream->socket);
            stream->out_state = gwa_stream_out::BLOCKED;
            return;
        }
        node->cursor += sent;
        node->remaining -= static_cast<uint32_t>(sent);
        if (node->remaining > 0) {
            stream->out_state = gwa_stream_out::BLOCKED;
            return;  // the writable event resumes
        }
        local_node_release(stream->connection, node);
    }
}

void gwa_stream_local_in_handle(gwa_stream* stream) {
    if (stream == nullptr) {
        GWA_LOG(DEBUG, "arg is null");
        return;
    }
    gwa_connection_data* const conn = stream->connection;
    if (memory_is_short(stream)) {
        GWA_LOG(INFO, "connection id %d memory over thresholds, mark local socket status to full",
                conn->id);
        stream->in_state = gwa_in_state::MORE;
        stream->has_more = true;
        conn->streams_have_more = true;  // for the round in which there is memory again
        return;
    }
    uint8_t* const buffer = receive_buffers[conn->id];
    const ssize_t got = recv(stream->socket, buffer, GWA_PAYLOAD_MAX, 0);
    if (got <= 0) {
        read_failed(stream, got);
        return;
    }
    GWA_LOG(DEBUG, "recv local server data %d", static_cast<int>(got));
    send_to_server(stream, buffer, static_cast<uint32_t>(got));
    stream->has_more = got == static_cast<ssize_t>(GWA_PAYLOAD_MAX);
    if (stream->has_more) {
        GWA_LOG(DEBUG, "more data are remaining in local socket buffer");
    }
    stream->in_state = stream->has_more ? gwa_in_state::MORE : gwa_in_state::DRAINED;
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

void gwa_stream_local_in_wakeup(list<gwa_stream>* streams) {
    if (streams == nullptr) {
        GWA_LOG(ERROR, "head is null");
        return;
    }
    if (streams->empty()) {
        return;
    }
    gwa_connection_data* const conn = streams->first()->connection;
    conn->streams_have_more = false;
    gwa_stream* first_short = nullptr;  // the first one that memory kept from its share
    for (gwa_stream& stream : *streams) {
        if (stream.in_state == gwa_in_state::DRAINED || stream.socket < 0 || stream.local_closed) {
            continue;
        }
        if (first_short == nullptr && memory_is_short(&stream)) {
            first_short = &stream;
        }
        read_share(&stream);
        conn->streams_have_more |= stream.has_more;
    }
    if (first_short != nullptr) {
        // The next pass starts with the stream that came off badly in this one.
        list_unlink(streams->head);
        list_insert_before(*first_short, streams->head);
    }
}

void gwa_stream_free(gwa_stream* stream) {
    gwa_connection_data* const conn = stream->connection;
    while (gwa_output_node* const node = stream->local_output.first()) {
        local_node_release(conn, node);
    }
    list_unlink(*stream);
    if (stream->socket >= 0) {
        poll_del(&conn->poller, stream->socket);
        close(stream->socket);
        stream->socket = -1;
    }
    conn->stream_count.fetch_sub(1, std::memory_order_relaxed);
    gwa_connection_memory_release(conn, GWA_STREAM_COUNTED);
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
