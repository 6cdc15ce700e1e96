#include "connection/gwa_connection.h"

#include <cstdlib>
#include <new>
#include <type_traits>

#include "runtime/gwa_process.h"
#include "runtime/gwa_util_memory.h"
#include "runtime/gwa_util_time.h"

// A restart jump abandons whatever lies below it: the records must not need a destructor.
static_assert(std::is_trivially_destructible_v<gwa_connection_table>);
static_assert(std::atomic<uint32_t>::is_always_lock_free);

gwa_connection_table gwa_connections;

static gwa_output_node& as_node(list_link* link) { return static_cast<gwa_output_node&>(*link); }

static bool is_partly_sent(const gwa_output_node& node) {
    return (node.flags & GWA_NODE_PARTLY_SENT) != 0;
}

// The link behind which a node of this priority belongs: the first one of greater priority, or the
// end. Behind, not in front of: oddity 15.
static list_link* place_by_priority(gwa_output_queue* queue, uint32_t priority) {
    list_link* const end = &queue->nodes.head;
    if (priority >= queue->highest) {
        return end->prev;  // nothing queued is greater
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

// Moves a place to the last node of the same stream, if that lies behind it (exception 48): with
// other priorities in between, a stream's bytes could overtake each other.
static list_link* place_behind_own_stream(gwa_output_queue* queue, list_link* place,
                                          uint32_t stream_id) {
    for (list_link* at = queue->nodes.head.prev; at != place; at = at->prev) {
        if (as_node(at).stream_id == stream_id) {
            return at;
        }
    }
    return place;
}

// Every insert goes through here, so that `highest` stays an upper bound.
static void insert_behind(gwa_output_queue* queue, list_link* place, gwa_output_node* node) {
    queue->highest =
        queue->nodes.empty() ? node->priority : std::max(queue->highest, node->priority);
    list_insert_before(*place->next, *node);
}

int gwa_connection_queue_init(gwa_output_queue* queue) {
    if (!queue->ready) {
        if (pthread_mutex_init(&queue->lock, nullptr) != 0) {
            return GWA_FAILED;
        }
        queue->ready = true;
    }
    return GWA_OK;
}

void gwa_connection_queue_lock(gwa_output_queue* queue) {
    if (pthread_mutex_lock(&queue->lock) == -1) {
        GWA_LOG(ERROR, "lock failed");
        GWA_EXIT(1);
    }
}

void gwa_connection_queue_unlock(gwa_output_queue* queue) {
    if (pthread_mutex_unlock(&queue->lock) == -1) {
        GWA_LOG(ERROR, "lock failed");  // oddity 16
        GWA_EXIT(1);
    }
}

gwa_output_node* gwa_connection_dequeue(gwa_output_queue* queue) {
    gwa_connection_queue_lock(queue);
    gwa_output_node* const node = queue->nodes.first();
    if (node != nullptr) {
        list_unlink(*node);
    }
    gwa_connection_queue_unlock(queue);
    return node;
}

int gwa_connection_head_enqueue(gwa_output_queue* queue, gwa_output_node* node) {
    gwa_connection_queue_lock(queue);
    list_link* place = &queue->nodes.head;
    if (!queue->nodes.empty() && is_partly_sent(*queue->nodes.first())) {
        place = place->next;  // no frame may land inside another one
    }
    insert_behind(queue, place, node);
    gwa_connection_queue_unlock(queue);
    return GWA_OK;
}

int gwa_connection_remote_output_enqueue(gwa_output_queue* queue, gwa_output_node* node) {
    gwa_connection_queue_lock(queue);
    list_link* place = place_by_priority(queue, node->priority);
    if (node->stream_id != 0) {
        place = place_behind_own_stream(queue, place, node->stream_id);
    }
    insert_behind(queue, place, node);
    gwa_connection_queue_unlock(queue);
    return GWA_OK;
}

int gwa_connection_queue_is_empty(gwa_output_queue* queue) {
    gwa_connection_queue_lock(queue);
    const bool empty = queue->nodes.empty();
    gwa_connection_queue_unlock(queue);
    return empty ? 1 : 0;
}

int gwa_connection_enqueue_if_empty(gwa_output_queue* queue, gwa_output_node* node) {
    gwa_connection_queue_lock(queue);
    const bool empty = queue->nodes.empty();
    if (empty) {
        insert_behind(queue, &queue->nodes.head, node);
    }
    gwa_connection_queue_unlock(queue);
    return empty ? 1 : 0;
}

void gwa_connection_node_free(gwa_output_node* node) {
    const uint32_t flags = node->flags;
    if ((flags & GWA_NODE_DATA_STATIC) == 0) {
        free(node->data);
    }
    if ((flags & GWA_NODE_STATIC) == 0) {
        free(node);
    } else {
        node->flags = GWA_NODE_HEARTBEAT;  // a mark of a partial send must not outlive the frame
    }
}

void gwa_connection_heartbeat_build(gwa_output_node* node, uint8_t* frame, uint32_t sequence) {
    gwa_protocol_build_heartbeat(frame, sequence);
    node->data = frame;
    node->cursor = frame;
    node->capacity = GWA_HEARTBEAT_SIZE;
    node->remaining = GWA_HEARTBEAT_SIZE;
    node->enqueue_time = gwa_now_get();
    node->flags = GWA_NODE_HEARTBEAT;
}

void gwa_connection_cntl_send(uint8_t* frame, uint32_t size) {
    std::atomic<uint32_t>& reports = gwa_connections.cntl.reports;
    if (reports.fetch_add(1, std::memory_order_relaxed) >= GWA_REPORTS_MAX) {
        reports.fetch_sub(1, std::memory_order_relaxed);
        GWA_LOG(ERROR, "too many reports wait, one of %u bytes is dropped", size);
        free(frame);
        return;
    }
    gwa_output_node* const node = GWA_NEW(gwa_output_node);
    node->data = frame;
    node->capacity = size;
    node->cursor = frame;
    node->remaining = size;
    gwa_connection_remote_output_enqueue(&gwa_connections.cntl.output, node);
}

void gwa_connection_table_init() {
    new (&gwa_connections) gwa_connection_table{};
    for (int id = 0; id < GWA_DATA_CONNECTIONS; id++) {
        gwa_connections.data[id].id = id;
    }
}

void gwa_connection_order(gwa_connection_data* conn, const char (&domain)[GWA_HOST_SIZE],
                          uint16_t port) {
    pthread_mutex_lock(&conn->order.lock);
    text_copy(conn->order.domain, domain);
    conn->order.port = port;
    conn->order.serial.fetch_add(1, std::memory_order_relaxed);  // the lock orders the rest
    pthread_mutex_unlock(&conn->order.lock);
}

bool gwa_connection_order_waits(const gwa_connection_data* conn) {
    return conn->order.serial.load(std::memory_order_relaxed) != conn->order_taken;
}

void gwa_connection_order_take(gwa_connection_data* conn) {
    pthread_mutex_lock(&conn->order.lock);
    text_copy(conn->domain, conn->order.domain);
    conn->port = conn->order.port;
    conn->order_taken = conn->order.serial.load(std::memory_order_relaxed);
    pthread_mutex_unlock(&conn->order.lock);
    conn->server_address = 0;  // not resolved yet
}

void gwa_connection_input_discard(gwa_connection_data* conn, uint32_t count, bool failure_closes) {
    conn->input.step = gwa_input_step::DISCARD;
    conn->input.have = 0;
    conn->input.want = count;
    conn->input.begun = gwa_time_seconds();
    conn->input.failure_closes = failure_closes;
}

void gwa_connection_input_next(gwa_connection_data* conn) {
    conn->input.step = gwa_input_step::HEADER;
    conn->input.have = 0;
    conn->input.want = GWA_HEADER_SIZE;
}

// The figure has one writer, so a load and a store do without a locked addition.
static void memory_set(gwa_connection_data* conn, uint32_t bytes) {
    conn->memory.store(bytes, std::memory_order_relaxed);
}

static uint32_t counted(uint32_t size) {
    return static_cast<uint32_t>(gwa_round_up(static_cast<int>(size)));
}

void gwa_connection_memory_charge(gwa_connection_data* conn, uint32_t size) {
    memory_set(conn, gwa_connection_memory(conn) + counted(size));
}

void gwa_connection_memory_release(gwa_connection_data* conn, uint32_t size) {
    memory_set(conn, gwa_connection_memory(conn) - counted(size));
}

gwa_output_node* gwa_connection_node_new(gwa_connection_data* conn, uint8_t* buffer,
                                         uint32_t capacity, uint32_t length) {
    gwa_output_node* const node = GWA_NEW(gwa_output_node);
    gwa_connection_memory_charge(conn, GWA_NODE_COUNTED);
    node->data = buffer;
    node->cursor = buffer;
    node->capacity = capacity;
    node->remaining = length;
    return node;
}

void gwa_connection_send(gwa_connection_data* conn, gwa_output_node* node) {
    node->enqueue_time = gwa_now_get();
    conn->queue_count.fetch_add(1, std::memory_order_relaxed);
    gwa_connection_remote_output_enqueue(&conn->output, node);
}

void gwa_connection_node_release(gwa_connection_data* conn, gwa_output_node* node) {
    if ((node->flags & GWA_NODE_DATA_STATIC) == 0) {
        gwa_connection_memory_release(conn, node->capacity);
    }
    if ((node->flags & GWA_NODE_STATIC) == 0) {
        gwa_connection_memory_release(conn, GWA_NODE_COUNTED);
        conn->queue_count.fetch_sub(1, std::memory_order_relaxed);
    } else {
        conn->heartbeat_queued = false;
    }
    gwa_connection_node_free(node);
}
