// gwa_connection_queue.h - the output queue that every connection sends through: how frames are
// made, in which order they leave, and how one is sent.
//
// Owner:   a node on a queue belongs to the queue; gwa_connection_dequeue hands it to the caller.
// Threads: producers on any thread, through the operations; one thread takes nodes off and sends.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "protocol/gwa_protocol.h"
#include "runtime/gwa_list.h"
#include "runtime/gwa_types.h"
#include "runtime/gwa_util_lock.h"

enum gwa_node_flag : uint32_t {  // a bit set
    GWA_NODE_STATIC = 1,         // the node is part of a record and is never freed
    GWA_NODE_PARTLY_SENT = 2,    // it keeps the front of its queue until the rest has left
    GWA_NODE_DATA_STATIC = 4,    // the data is part of a record and is never freed
    GWA_NODE_STREAM = 8,         // a stream's data, whose id may be 0 as well
    GWA_NODE_IN_TURN = 16,       // of a data connection: read when it was its stream's turn
    GWA_NODE_HEARTBEAT = GWA_NODE_STATIC | GWA_NODE_DATA_STATIC,
};

// One frame to send.
struct gwa_output_node : list_link {
    uint8_t* data = nullptr;    // the whole frame
    uint32_t capacity = 0;      // what the release of its memory counts
    uint8_t* cursor = nullptr;  // next byte to send
    uint32_t remaining = 0;     // bytes still to send
    uint32_t priority = 0;      // of its stream; smaller leaves earlier; 0 for all other frames
    uint32_t stream_id = 0;
    int32_t enqueue_time = 0;  // coarse clock
    uint32_t flags = 0;
};

struct gwa_output_queue {
    gwa_mutex lock;
    list<gwa_output_node> nodes GWA_GUARDED_BY(lock);
    uint32_t highest GWA_GUARDED_BY(lock) = 0;  // no queued priority is above it
};

// ---- Making a frame ----

// A node for the `size` bytes of a heap buffer, which it owns from here on.
gwa_output_node* gwa_connection_node_new(uint8_t* buffer, uint32_t size);
// A node and its frame: the header is written, `length` payload bytes behind it are the caller's to
// fill in.
gwa_output_node* gwa_connection_frame_new(gwa_command command, uint32_t flag, uint32_t stream_id,
                                          uint32_t length);
inline uint8_t* gwa_connection_payload_of(gwa_output_node* node) {
    return node->data + GWA_HEADER_SIZE;
}
// Releases a node that is in no queue, and its data, as far as its flags allow; a static node is
// made ready for its next use.
void gwa_connection_node_free(gwa_output_node* node);

// ---- The order in which frames leave ----

// Unlinks and returns the first node, or null. Its own links are left as they were.
gwa_output_node* gwa_connection_dequeue(gwa_output_queue* queue);
// Puts a node at the front, or right behind a partly sent front node. Always 0.
int gwa_connection_head_enqueue(gwa_output_queue* queue, gwa_output_node* node);
// Inserts by priority: right behind the first node of greater priority, else at the end (oddity
// 15); never ahead of an earlier node of the same stream (exception 48). Always 0.
int gwa_connection_remote_output_enqueue(gwa_output_queue* queue, gwa_output_node* node);
// 1 when the queue holds no node, else 0.
int gwa_connection_queue_is_empty(gwa_output_queue* queue);
// What leaves before the next frame of a stream: about all heap nodes of no greater priority.
struct gwa_queue_ahead {
    int frames = 0;
    int own = 0;  // of these, those of the stream's data
};
gwa_queue_ahead gwa_connection_queue_ahead(gwa_output_queue* queue, uint32_t priority,
                                           uint32_t stream_id);
// Makes the node the only one of an empty queue and returns 1; otherwise changes nothing, 0.
int gwa_connection_enqueue_if_empty(gwa_output_queue* queue, gwa_output_node* node);

// Takes out every node that `unwanted` picks and hands it to `release`, under the lock.
template <typename Unwanted, typename Release>
void gwa_connection_queue_sweep(gwa_output_queue* queue, Unwanted unwanted, Release release) {
    const gwa_lock held(queue->lock);
    for (gwa_output_node& node : queue->nodes) {
        if (unwanted(node)) {
            list_unlink(node);
            release(&node);
        }
    }
}

// ---- Sending ----

constexpr size_t GWA_BATCH_MAX = 16;  // frames that one call sends

// Takes up to GWA_BATCH_MAX nodes off the front, in their order, and adds them to `batch`.
void gwa_connection_dequeue_batch(gwa_output_queue* queue, list<gwa_output_node>* batch);
// Puts what is left of a batch back to the front, ahead of whatever came meanwhile.
void gwa_connection_put_back(gwa_output_queue* queue, list<gwa_output_node>* batch);
// Sends what remains of the nodes of a batch by one call, and counts the bytes. How many the socket
// has taken, or -1 with errno.
ssize_t gwa_connection_batch_send(list<gwa_output_node>* batch, int fd, gwa_traffic* traffic);

enum class gwa_sent : uint8_t {
    WHOLE,    // the node can go
    PART,     // it has moved on, and must be the first again
    NOTHING,  // the socket takes nothing now, and has said so by EAGAIN or by 0
    FAILED,   // errno says why
};

// What has become of the next node of a batch. `bytes` is the result of the send, less what belongs
// to the nodes before.
gwa_sent gwa_connection_node_sent(gwa_output_node* node, ssize_t* bytes);
