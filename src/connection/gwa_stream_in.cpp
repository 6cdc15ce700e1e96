#include "connection/gwa_stream_in.h"

#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "connection/gwa_connection_data_out.h"
#include "main/gwa_log.h"
#include "runtime/gwa_util_time.h"

namespace {

// Frames that a stream reads by one call at least when many share a pass, so that many streams cost
// no more calls than a few: those behind it wait for 64 KB and no more.
constexpr int SHARE_MIN = 8;

// What a full frame adds to the memory figure: its buffer, and its node as the allocator rounds it.
constexpr uint32_t FRAME_COUNTED = GWA_FRAME_MAX + 64;
static_assert(GWA_NODE_COUNTED > 32 && GWA_NODE_COUNTED <= 64);

}  // namespace

// Queues a filled frame for the server.
static void send_to_server(gwa_stream* stream, gwa_output_node* node, uint32_t length) {
    GWA_LOG(DEBUG, "recv local server data %d", static_cast<int>(length));
    stream->last_activity = gwa_now_get();
    gwa_connection_data_send(stream->connection, node);
}

// What came fills the frame, or not: then it moves into one of its own size.
static void frame_filled(gwa_stream* stream, gwa_output_node* node) {
    send_to_server(stream, node, GWA_PAYLOAD_MAX);
    GWA_LOG(DEBUG, "more data are remaining in local socket buffer");
    stream->more = gwa_more::HAS_MORE;
}
static void frame_ended(gwa_stream* stream, gwa_output_node* node, uint32_t length) {
    gwa_output_node* const fitting = gwa_stream_frame_new(stream, length);
    memcpy(gwa_connection_payload_of(fitting), gwa_connection_payload_of(node), length);
    fitting->flags = node->flags;
    gwa_connection_data_node_drop(stream->connection, node);
    send_to_server(stream, fitting, length);
    stream->more = gwa_more::DRAINED;
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

// Receives up to `most` frames, GWA_BATCH_MAX at most, by one call, each behind its header, and
// queues them, with `flags` added to theirs. How many, or 1 when nothing came.
static int read_frames(gwa_stream* stream, int most, uint32_t flags) {
    gwa_output_node* nodes[GWA_BATCH_MAX];
    iovec pieces[GWA_BATCH_MAX];
    for (int i = 0; i < most; i++) {
        nodes[i] = gwa_stream_frame_new(stream, GWA_PAYLOAD_MAX);
        nodes[i]->flags |= flags;
        pieces[i] = {gwa_connection_payload_of(nodes[i]), GWA_PAYLOAD_MAX};
    }
    const ssize_t got = readv(stream->socket, pieces, most);
    if (got <= 0) {
        read_failed(stream, got);
    }
    const gwa_log_gather gathered;  // the bytes are there: all lines tell of one moment
    auto left = static_cast<size_t>(std::max(got, ssize_t{0}));
    for (int i = 0; i < most; i++) {
        const size_t length = std::min(left, GWA_PAYLOAD_MAX);
        left -= length;
        if (length == GWA_PAYLOAD_MAX) {
            frame_filled(stream, nodes[i]);
        } else if (length > 0) {
            frame_ended(stream, nodes[i], static_cast<uint32_t>(length));
        } else {
            gwa_connection_data_node_drop(stream->connection, nodes[i]);
        }
    }
    return std::max(
        1, static_cast<int>((got + ssize_t{GWA_PAYLOAD_MAX} - 1) / ssize_t{GWA_PAYLOAD_MAX}));
}

// How many frames the stream may read by one call, of `wanted`, before memory is short for it.
static int frames_allowed(const gwa_stream* stream, int wanted) {
    const uint32_t limit = stream->priority != 0 ? GWA_MEMORY_LIMIT : GWA_MEMORY_CEILING;
    const uint32_t held = gwa_connection_memory(stream->connection);
    if (held > limit) {
        return 0;
    }
    const int fitting = static_cast<int>((limit - held) / FRAME_COUNTED) + 1;
    return std::min({wanted, fitting, int{GWA_BATCH_MAX}});
}

// Reads up to `wanted` frames, as far as there is memory. How many tries that has taken.
static int local_in(gwa_stream* stream, int wanted, uint32_t flags) {
    const int allowed = frames_allowed(stream, wanted);
    if (allowed > 0) {
        return read_frames(stream, allowed, flags);
    }
    GWA_LOG(INFO, "connection id %d memory over thresholds, mark local socket status to full",
            stream->connection->id);
    stream->more = gwa_more::WAITS;
    return 0;
}

void gwa_stream_local_in_handle(gwa_stream* stream) {
    if (stream == nullptr) {
        GWA_LOG(DEBUG, "arg is null");
        return;
    }
    local_in(stream, 1, 0);
}

// What a service says is read at once, so that a click does not wait for the downloads' turns. But
// who already has something under way when much waits takes turns with them, unless it is exempt.
static void local_in_event(gwa_stream* stream) {
    if (stream->priority != 0 &&
        !gwa_connection_data_has_room_for(stream->connection, stream->priority, stream->id)) {
        stream->more = gwa_more::HAS_MORE;
        return;
    }
    gwa_stream_local_in_handle(stream);
}

void gwa_stream_local_handle(uint32_t events, void* argument) {
    gwa_stream* const stream = static_cast<gwa_stream*>(argument);
    if (stream == nullptr) {
        GWA_LOG(DEBUG, "arg is null");
        return;
    }
    if ((events & EPOLLIN) != 0) {
        local_in_event(stream);
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
    int readers;      // streams that could go on at once
};

// Reads from every stream that `wants` it, a fair share of the frames each.
static void read_turn(list<gwa_stream>* streams, bool (*wants)(const gwa_stream&),
                      wakeup_pass* pass) {
    const int share = std::max(pass->frames / std::max(pass->readers, 1), SHARE_MIN);
    pass->readers = 0;
    for (gwa_stream& stream : *streams) {
        if (pass->frames > 0 && wants(stream)) {
            GWA_LOG(DEBUG, "wakeup stream socket %d", stream.socket);
            const int read = local_in(&stream, std::min(share, pass->frames), GWA_NODE_IN_TURN);
            pass->frames -= read;
            pass->last = read > 0 ? &stream : pass->last;
        }
        pass->readers += has_more(stream) ? 1 : 0;
    }
}

gwa_more gwa_stream_local_in_wakeup(list<gwa_stream>* streams, int frames) {
    if (streams == nullptr) {
        GWA_LOG(ERROR, "head is null");
        return gwa_more::DRAINED;
    }
    int readers = 0;
    for (const gwa_stream& stream : *streams) {
        readers += wants_wakeup(stream) ? 1 : 0;
    }
    wakeup_pass pass{frames, &streams->head, readers};
    // Who waits for memory or has failed is tried once a pass.
    read_turn(streams, wants_wakeup, &pass);
    while (pass.frames > 0 && pass.readers > 0) {
        read_turn(streams, has_more, &pass);
    }
    if (pass.last != &streams->head) {
        list_unlink(streams->head);
        list_insert_before(*pass.last->next, streams->head);
    }
    return pass.readers > 0 ? gwa_more::HAS_MORE : gwa_more::DRAINED;
}
