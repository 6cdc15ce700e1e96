#include "connection/gwa_stream.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "main/gwa_log.h"
#include "runtime/gwa_util_time.h"

namespace {

// One wakeup pass reads at most this often from one stream: large enough that a single download is
// not held up by the pause between two rounds, small enough that it does not hold up the others.
constexpr int READS_PER_ROUND = 16;

}  // namespace

// Streams of priority 0 go on reading when memory is short.
static bool memory_is_short(const gwa_stream* stream) {
    return stream->priority != 0 && gwa_connection_memory(stream->connection) > GWA_MEMORY_LIMIT;
}

static void local_node_release(gwa_connection_data* conn, gwa_output_node* node) {
    list_unlink(*node);
    gwa_connection_data_node_drop(conn, node);
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
    stream->more = gwa_more::WAITS;
    if (errno != EAGAIN) {
        GWA_LOG(ERROR, "recv error fd %d, %s", stream->socket, strerror(errno));
    }
}

// Reads from a stream until its data, its share of the round or the memory ends.
static void read_share(gwa_stream* stream) {
    GWA_LOG(DEBUG, "wakeup stream socket %d", stream->socket);
    for (int reads = 0; reads < READS_PER_ROUND; reads++) {
        gwa_stream_local_in_handle(stream);
        if (stream->more != gwa_more::HAS_MORE) {
            return;
        }
        if (memory_is_short(stream)) {
            stream->more = gwa_more::WAITS;
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

gwa_output_node* gwa_stream_frame_new(const gwa_stream* stream, uint32_t length) {
    gwa_output_node* const node =
        gwa_connection_frame_new(gwa_command::DATA, GWA_FLAG_STREAM, stream->id, length);
    gwa_connection_memory_charge(stream->connection, node->capacity);
    gwa_connection_memory_charge(stream->connection, GWA_NODE_COUNTED);
    node->priority = stream->priority;
    return node;
}

int gwa_stream_local_output_enqueue(gwa_stream* stream, uint8_t* data, uint32_t length) {
    stream->local_output.push_back(*gwa_connection_data_node_new(stream->connection, data, length));
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
            return;
        }
        node->cursor += sent;
        node->remaining -= static_cast<uint32_t>(sent);
        if (node->remaining > 0) {
            return;  // the writable event resumes
        }
        local_node_release(stream->connection, node);
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

static bool wants_wakeup(const gwa_stream& stream) {
    return stream.socket >= 0 &&
           (stream.more == gwa_more::HAS_MORE || stream.more == gwa_more::WAITS);
}

gwa_more gwa_stream_local_in_wakeup(list<gwa_stream>* streams) {
    gwa_more more = gwa_more::DRAINED;
    if (streams == nullptr) {
        GWA_LOG(ERROR, "head is null");
        return more;
    }
    gwa_stream* first_short = nullptr;  // the first one that memory kept from its share
    for (gwa_stream& stream : *streams) {
        if (!wants_wakeup(stream)) {
            continue;
        }
        if (first_short == nullptr && memory_is_short(&stream)) {
            first_short = &stream;
        }
        read_share(&stream);
        if (stream.more == gwa_more::HAS_MORE) {
            more = gwa_more::HAS_MORE;
        }
    }
    if (first_short != nullptr) {
        // The next pass starts with the stream that came off badly in this one.
        list_unlink(streams->head);
        list_insert_before(*first_short, streams->head);
    }
    return more;
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
    conn->streams.count.fetch_sub(1, std::memory_order_relaxed);
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
