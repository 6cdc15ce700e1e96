// gwa_connection.h - the records of the control connection and of the five data connections, their
// table, and the output queue that every connection sends through.
//
// Owner:   the table is static; records are reset, never allocated or freed. A node on a queue
//          belongs to the queue; gwa_connection_dequeue hands it to the caller.
// Threads: each record belongs to one thread (the main thread, or the record's worker). Others
// touch
//          only what is atomic, the order (under its lock), and the queue through its operations.
#pragma once

#include <pthread.h>
#include <setjmp.h>

#include <atomic>
#include <cstdint>

#include "connection/gwa_connection_order.h"
#include "protocol/gwa_protocol.h"
#include "runtime/gwa_list.h"
#include "runtime/gwa_types.h"
#include "runtime/poll.h"

// ---- The output queue ----

enum gwa_node_flag : uint32_t {  // a bit set
    GWA_NODE_STATIC = 1,         // the node is part of a record and is never freed
    GWA_NODE_PARTLY_SENT = 2,    // it keeps the front of its queue until the rest has left
    GWA_NODE_DATA_STATIC = 4,    // the data is part of a record and is never freed
    GWA_NODE_HEARTBEAT = GWA_NODE_STATIC | GWA_NODE_DATA_STATIC,
};

// One frame to send.
struct gwa_output_node : list_link {
    uint8_t* data = nullptr;    // the whole frame
    uint32_t capacity = 0;      // what the release of its memory counts
    uint8_t* cursor = nullptr;  // next byte to send
    uint32_t remaining = 0;     // bytes still to send
    uint32_t priority = 0;      // of its stream; smaller leaves earlier; 0 for all other frames
    uint32_t stream_id = 0;     // 0: no stream data
    int32_t enqueue_time = 0;   // coarse clock
    uint32_t flags = 0;
};

// A locked queue; the first node is the next to send. The lock lives as long as the record around
// it: producers on other threads may come at any time.
struct gwa_output_queue {
    list<gwa_output_node> nodes;
    uint32_t highest = 0;  // no queued priority is above it: most inserts need no walk
    pthread_mutex_t lock{};
    bool ready = false;  // the lock has been made
};

// Makes the lock at the first call. 0, or -1 when it cannot be made. Before any other operation.
int gwa_connection_queue_init(gwa_output_queue* queue);

// Unlinks and returns the first node, or null. Its own links are left as they were.
gwa_output_node* gwa_connection_dequeue(gwa_output_queue* queue);
// Puts a node at the front, or right behind a partly sent front node. Always 0.
int gwa_connection_head_enqueue(gwa_output_queue* queue, gwa_output_node* node);
// Inserts by priority: right behind the first node of greater priority, else at the end; never
// ahead of an earlier node of the same stream. Always 0.
int gwa_connection_remote_output_enqueue(gwa_output_queue* queue, gwa_output_node* node);
// 1 when the queue holds no node, else 0.
int gwa_connection_queue_is_empty(gwa_output_queue* queue);
// Makes the node the only one of an empty queue and returns 1; otherwise changes nothing, 0.
int gwa_connection_enqueue_if_empty(gwa_output_queue* queue, gwa_output_node* node);

// The queue's lock, for walks that free nodes. A lock that cannot be had ends the process.
void gwa_connection_queue_lock(gwa_output_queue* queue);
void gwa_connection_queue_unlock(gwa_output_queue* queue);

// Releases a node that is in no queue, and its data, as far as its flags allow; a static node is
// made ready for its next use.
void gwa_connection_node_free(gwa_output_node* node);
// Points a static heartbeat node at its frame, with the sequence number filled in.
void gwa_connection_heartbeat_build(gwa_output_node* node, uint8_t* frame, uint32_t sequence);

// ---- The control connection ----

struct gwa_connection_cntl {
    int socket = -1;
    poll_set poller;             // the reporters register here too
    bool initialised = false;    // between a successful init and exit
    uint32_t heartbeat_seq = 0;  // of the next heartbeat; never starts over within a process
    gwa_output_queue output;
    gwa_traffic traffic;
    int32_t last_out_time = 0;                 // coarse clock, last successful write
    int32_t last_in_time = 0;                  // coarse clock, last header; 0 until there was one
    uint8_t header[GWA_HEADER_SIZE + 1] = {};  // that arrives, terminated for the dump
    uint32_t header_have = 0;                  // bytes of it
    int64_t header_moved_us = 0;               // steady clock, when the last of them came
    std::atomic<int32_t> send_level{0};        // 0 to 5, from what the kernel has not sent yet
    int32_t heartbeat_misses = 0;              // heartbeat answers missing or wrong in a row
    bool heartbeat_queued = false;             // the static node is linked or being sent
    gwa_output_node heartbeat_node;
    uint8_t heartbeat_frame[GWA_HEARTBEAT_SIZE] = {};
    // Takes the reporting times that the server orders, in seconds; null while nobody reports.
    int (*reporting_times)(uint32_t t1, uint32_t t2) = nullptr;
    std::atomic<uint32_t> reports{0};  // queued by gwa_connection_cntl_send and not yet sent
};

// While that many wait, the server reads nothing: what local services go on telling is dropped.
constexpr uint32_t GWA_REPORTS_MAX = 256;
// Queues a frame of `size` heap bytes on the control connection, which frees it. Any thread.
void gwa_connection_cntl_send(uint8_t* frame, uint32_t size);

// ---- The data connections ----

struct gwa_stream;  // gwa_stream.h; a connection lists its streams, a stream names its connection

enum gwa_connection_flag : uint32_t {  // a bit set, stored whole by the main thread
    GWA_CONNECTION_ADDRESS_SET = 1,    // there is an order
    GWA_CONNECTION_STOP = 2,           // end the thread
    GWA_CONNECTION_REINIT = 4,         // take the order again; cleared by the worker
};

enum class gwa_in_state : uint16_t {
    DRAINED = 1,  // wait for the poller
    MORE = 2,     // read again in the next round
};

enum class gwa_out_state : uint16_t {
    IDLE = 1,         // nothing tried yet
    BLOCKED = 2,      // would block with nothing sent
    PARTLY_SENT = 4,  // more is queued
    DRAINED = 8,      // queue empty, or the daemon is stopping
};

// Where the control side tells a worker to go. Filled and copied under the lock, so that a worker
// never sees half of an order, also when it is repeated.
struct gwa_data_order {
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    char domain[GWA_HOST_SIZE] = "";
    uint16_t port = 0;
    std::atomic<uint32_t> serial{0};  // counts orders; read without the lock
};

enum class gwa_input_step : uint8_t { HEADER, HEARTBEAT, PAYLOAD, DISCARD };

// What the input pass has received of the current frame. It survives from pass to pass, so that a
// frame split anywhere holds up nobody.
struct gwa_input {
    gwa_input_step step = gwa_input_step::HEADER;
    uint8_t bytes[GWA_HEADER_SIZE + 1] = {};  // the header as received, terminated for the dump
    gwa_header header = {};                   // the same, checked, in host order
    uint8_t* payload = nullptr;               // charged to the connection's memory
    uint32_t have = 0;                        // bytes of the current step
    uint32_t want = 0;
    int64_t begun = 0;           // s, wall clock; a HEADER begins with its first byte
    bool failure_closes = true;  // what a DISCARD that fails does
};

//     WAITING    -> LOGGING_IN   an address has been ordered         [addr_init]
//     LOGGING_IN -> RELAYING     the server took the login           [gwa_login_data]
//     LOGGING_IN -> WAITING      a newer order
//     RELAYING   -> WAITING      any failure: free all, then jump    [gwa_connection_data_close]
//     any        -> ENDED        stop request or run flag cleared
struct gwa_connection_data {
    std::atomic<uint32_t> flags{0};
    pthread_t thread{};
    bool thread_started = false;  // main thread's: there is something to join
    int32_t id = 0;
    jmp_buf restart_point;  // in the worker thread
    int jump_code = 0;      // left by whoever jumps, since the jump's own result is only tested
    int socket = -1;
    gwa_data_order order;
    uint32_t order_taken = 0;  // serial of the order in the next three
    char domain[GWA_HOST_SIZE] = "";
    uint16_t port = 0;
    uint32_t server_address = 0;  // IPv4, host order
    poll_set poller;
    list<gwa_stream> streams;
    std::atomic<int32_t> stream_count{0};
    bool streams_have_more = false;  // a stream stopped reading while its socket held more
    gwa_in_state in_state = gwa_in_state::DRAINED;
    bool input_has_more = false;  // the input pass used up its budget: do not wait
    gwa_out_state out_state = gwa_out_state::IDLE;
    gwa_input input;
    int32_t last_out_time = 0;           // coarse clock
    int32_t last_in_time = 0;            // coarse clock
    int32_t last_check_time = 0;         // coarse clock
    uint32_t out_pending = 0;            // 1: the loop runs the output pass, 0: the poller does
    std::atomic<uint32_t> memory{0};     // bytes held, each piece rounded as the allocator does
    std::atomic<int32_t> send_level{0};  // fill level last seen by the output pass
    gwa_output_queue output;
    std::atomic<uint32_t> queue_count{0};  // heap nodes on the output queue
    uint32_t heartbeat_seq = 0;            // of the next heartbeat
    uint32_t heartbeat_resp = 0;           // last answered + 1; one is outstanding while below seq
    bool heartbeat_queued = false;         // the static node is linked or being sent
    gwa_output_node heartbeat_node;
    uint8_t heartbeat_frame[GWA_HEARTBEAT_SIZE] = {};
    int32_t blocked_since = 0;  // handed to the send-buffer wait, which does not use it
    gwa_traffic traffic;        // never reset by a restart
};

constexpr int GWA_DATA_CONNECTIONS = 5;

struct gwa_connection_table {
    gwa_connection_cntl cntl;
    gwa_connection_data data[GWA_DATA_CONNECTIONS];
};
extern gwa_connection_table gwa_connections;

// Makes every record anew. Main thread, before any worker runs.
void gwa_connection_table_init();

// Gives a worker its order: main thread. The flag that announces it is the caller's to set.
void gwa_connection_order(gwa_connection_data* conn, const char (&domain)[GWA_HOST_SIZE],
                          uint16_t port);
// Whether a newer order than the one taken waits.
bool gwa_connection_order_waits(const gwa_connection_data* conn);
// Copies the order into the record's own fields. Worker.
void gwa_connection_order_take(gwa_connection_data* conn);

// Makes the input pass drop the next `count` bytes. Worker.
void gwa_connection_input_discard(gwa_connection_data* conn, uint32_t count, bool failure_closes);
// Makes the input pass expect a header next. Worker.
void gwa_connection_input_next(gwa_connection_data* conn);

// ---- The memory figure of a data connection (worker only) ----

// Sizes that the figure counts for records, whatever they take on this machine.
constexpr uint32_t GWA_NODE_COUNTED = 40;
constexpr uint32_t GWA_STREAM_COUNTED = 108;
constexpr uint32_t GWA_MEMORY_LIMIT = 0x400000;  // bytes; above it streams stop reading

// Every path charges and releases through these two, so that the figure returns to zero.
void gwa_connection_memory_charge(gwa_connection_data* conn, uint32_t size);
void gwa_connection_memory_release(gwa_connection_data* conn, uint32_t size);
inline uint32_t gwa_connection_memory(const gwa_connection_data* conn) {
    return conn->memory.load(std::memory_order_relaxed);
}

// Makes a charged node for a charged buffer of `capacity` bytes, of which the first `length` are
// the frame. The node owns the buffer.
gwa_output_node* gwa_connection_node_new(gwa_connection_data* conn, uint8_t* buffer,
                                         uint32_t capacity, uint32_t length);
// Puts a node of this connection on its output queue by priority and counts it.
void gwa_connection_send(gwa_connection_data* conn, gwa_output_node* node);
// Frees a node that was on the output queue, or was dequeued, and takes its charges and count back.
void gwa_connection_node_release(gwa_connection_data* conn, gwa_output_node* node);
