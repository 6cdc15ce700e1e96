#include "connection/gwa_connection_queue.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "main/gwa_log.h"
#include "runtime/gwa_util_memory.h"

static gwa_output_node& as_node(list_link* link) { return static_cast<gwa_output_node&>(*link); }

static bool is_partly_sent(const gwa_output_node& node) {
    return (node.flags & GWA_NODE_PARTLY_SENT) != 0;
}

gwa_output_node* gwa_connection_node_new(uint8_t* buffer, uint32_t size) {
    gwa_output_node* const node = GWA_NEW(gwa_output_node);
    node->data = buffer;
    node->cursor = buffer;
    node->capacity = size;
    node->remaining = size;
    return node;
}

gwa_output_node* gwa_connection_frame_new(gwa_command command, uint32_t flag, uint32_t stream_id,
                                          uint32_t length) {
    const uint32_t size = GWA_HEADER_SIZE + length;
    uint8_t* const frame = static_cast<uint8_t*>(GWA_MALLOC(size));
    gwa_protocol_build(frame, GWA_VERSION_PLAIN, command, flag, stream_id, length);
    gwa_output_node* const node = gwa_connection_node_new(frame, size);
    node->stream_id = stream_id;
    return node;
}

void gwa_connection_node_free(gwa_output_node* node) {
    if ((node->flags & GWA_NODE_DATA_STATIC) == 0) {
        free(node->data);
    }
    if ((node->flags & GWA_NODE_STATIC) == 0) {
        free(node);
    } else {
        node->flags = GWA_NODE_HEARTBEAT;  // a mark of a partial send must not outlive the frame
        list_reset(*node);
    }
}

// The link behind which a node of this priority belongs: the first one of greater priority, or the
// end. Behind, not in front of: oddity 15.
static list_link* place_by_priority(gwa_output_queue* queue, uint32_t priority)
    GWA_REQUIRES(queue->lock) {
    list_link* const end = &queue->nodes.head;
    if (priority >= queue->highest) {
        return end->prev;  // nothing queued is greater: most inserts need no walk
    }
    list_link* at = end->next;
    if (at != end && is_partly_sent(as_node(at))) {
        at = at->next;
    }
    while (at != end && as_node(at).priority <= priority) {
        at = at->next;
    }
    if (at != end && is_partly_sent(as_node(at))) {
        GWA_LOG(DEBUG, "the node is padding, so insert after it");
        at = at->next;
    }
    return at == end ? end->prev : at;
}

static bool is_stream_data(const gwa_output_node& node, uint32_t stream_id) {
    return (node.flags & GWA_NODE_STREAM) != 0 && node.stream_id == stream_id;
}

// Moves a place to the last node of the same stream, if that lies behind it (exception 48): with
// other priorities in between, a stream's bytes could overtake each other.
static list_link* place_behind_own_stream(gwa_output_queue* queue, list_link* place,
                                          uint32_t stream_id) GWA_REQUIRES(queue->lock) {
    for (list_link* at = queue->nodes.head.prev; at != place; at = at->prev) {
        if (is_stream_data(as_node(at), stream_id)) {
            return at;
        }
    }
    return place;
}

// Every insert goes through here, so that `highest` stays an upper bound.
static void insert_behind(gwa_output_queue* queue, list_link* place, gwa_output_node* node)
    GWA_REQUIRES(queue->lock) {
    queue->highest =
        queue->nodes.empty() ? node->priority : std::max(queue->highest, node->priority);
    list_insert_before(*place->next, *node);
}

gwa_output_node* gwa_connection_dequeue(gwa_output_queue* queue) {
    const gwa_lock held(queue->lock);
    gwa_output_node* const node = queue->nodes.first();
    if (node != nullptr) {
        list_unlink(*node);
    }
    return node;
}

int gwa_connection_head_enqueue(gwa_output_queue* queue, gwa_output_node* node) {
    const gwa_lock held(queue->lock);
    list_link* place = &queue->nodes.head;
    if (!queue->nodes.empty() && is_partly_sent(*queue->nodes.first())) {
        place = place->next;  // no frame may land inside another one
    }
    insert_behind(queue, place, node);
    return GWA_OK;
}

int gwa_connection_remote_output_enqueue(gwa_output_queue* queue, gwa_output_node* node) {
    const gwa_lock held(queue->lock);
    list_link* place = place_by_priority(queue, node->priority);
    if ((node->flags & GWA_NODE_STREAM) != 0) {
        place = place_behind_own_stream(queue, place, node->stream_id);
    }
    insert_behind(queue, place, node);
    return GWA_OK;
}

int gwa_connection_queue_is_empty(gwa_output_queue* queue) {
    const gwa_lock held(queue->lock);
    return queue->nodes.empty() ? 1 : 0;
}

gwa_queue_ahead gwa_connection_queue_ahead(gwa_output_queue* queue, uint32_t priority,
                                           uint32_t stream_id) {
    const gwa_lock held(queue->lock);
    gwa_queue_ahead ahead;
    for (const gwa_output_node& node : queue->nodes) {
        if (node.priority <= priority && (node.flags & GWA_NODE_STATIC) == 0) {
            ahead.frames++;
            ahead.own += is_stream_data(node, stream_id) ? 1 : 0;
        }
    }
    return ahead;
}

int gwa_connection_enqueue_if_empty(gwa_output_queue* queue, gwa_output_node* node) {
    const gwa_lock held(queue->lock);
    if (!queue->nodes.empty()) {
        return 0;
    }
    insert_behind(queue, &queue->nodes.head, node);
    return 1;
}

void gwa_connection_dequeue_batch(gwa_output_queue* queue, list<gwa_output_node>* batch) {
    const gwa_lock held(queue->lock);
    for (size_t count = 0; count < GWA_BATCH_MAX && !queue->nodes.empty(); count++) {
        gwa_output_node* const node = queue->nodes.first();
        list_unlink(*node);
        batch->push_back(*node);
    }
}

void gwa_connection_put_back(gwa_output_queue* queue, list<gwa_output_node>* batch) {
    const gwa_lock held(queue->lock);
    while (gwa_output_node* const node = batch->last()) {
        list_unlink(*node);
        insert_behind(queue, &queue->nodes.head, node);
    }
}

ssize_t gwa_connection_batch_send(list<gwa_output_node>* batch, int fd, gwa_traffic* traffic) {
    iovec pieces[GWA_BATCH_MAX];
    msghdr message{};
    message.msg_iov = pieces;
    for (const gwa_output_node& node : *batch) {
        pieces[message.msg_iovlen++] = {node.cursor, node.remaining};
    }
    const ssize_t count = sendmsg(fd, &message, MSG_NOSIGNAL);
    if (count > 0) {
        gwa_counter_add(traffic->bytes_out, static_cast<uint32_t>(count));
    }
    return count;
}

gwa_sent gwa_connection_node_sent(gwa_output_node* node, ssize_t* bytes) {
    if (*bytes <= 0) {
        return *bytes == -1 && errno != EAGAIN ? gwa_sent::FAILED : gwa_sent::NOTHING;
    }
    const auto taken =
        static_cast<uint32_t>(std::min(*bytes, static_cast<ssize_t>(node->remaining)));
    *bytes -= taken;
    node->cursor += taken;
    node->remaining -= taken;
    if (node->remaining == 0) {
        return gwa_sent::WHOLE;
    }
    node->flags |= GWA_NODE_PARTLY_SENT;
    return gwa_sent::PART;
}
