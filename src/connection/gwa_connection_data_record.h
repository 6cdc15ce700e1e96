// gwa_connection_data_record.h - the record of a data connection, its memory figure and its frames.
//
// Owner:   five records, static; reset by their makers, never freed.
// Threads: each record belongs to its worker. Others touch what is atomic, the order (under its
//          lock), and the queue through its operations.
//
//     WAITING    -> LOGGING_IN  gwa_connection_data_addr_init: there is an order
//     LOGGING_IN -> RELAYING    gwa_connection_data_login: the server took the login
//     LOGGING_IN -> WAITING     a newer order
//     RELAYING   -> WAITING     gwa_connection_data_close: any failure, or a newer order
//     any        -> ENDED       stop request, or the run flag was cleared
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "connection/gwa_connection_data_input.h"
#include "connection/gwa_connection_heartbeat.h"
#include "connection/gwa_connection_order.h"
#include "connection/gwa_connection_queue.h"
#include "runtime/gwa_types.h"
#include "runtime/gwa_util_lock.h"
#include "runtime/gwa_util_peer.h"
#include "runtime/poll.h"

struct gwa_stream;  // gwa_stream.h; a connection lists its streams, a stream names its connection

// What becomes of a connection in a step. CLOSED: it has failed, or is told to end. Whoever learns
// that touches it no more and passes it on, up to the round or the poller's callback, which frees
// it, and to the worker, which begins anew.
enum class [[nodiscard]] gwa_step : uint8_t{GOES_ON, CLOSED};

enum gwa_connection_flag : uint32_t {  // a bit set, stored whole by the main thread
    GWA_CONNECTION_ADDRESS_SET = 1,    // there is an order
    GWA_CONNECTION_STOP = 2,           // end the thread
    GWA_CONNECTION_REINIT = 4,         // take the order again; cleared by the worker
};

// Where to go. An order is filled in and copied under the lock, so that a worker never sees half of
// one, also when it is repeated.
struct gwa_data_order {
    gwa_mutex lock;
    char ordered_domain[GWA_HOST_SIZE] GWA_GUARDED_BY(lock) = "";
    uint16_t ordered_port GWA_GUARDED_BY(lock) = 0;
    std::atomic<uint32_t> serial{0};  // counts orders
    // The worker's own:
    uint32_t taken = 0;  // serial of the order in the next two
    char domain[GWA_HOST_SIZE] = "";
    uint16_t port = 0;
    uint32_t server_address = 0;  // IPv4, host order; 0: not resolved yet
};

enum class gwa_out_state : uint16_t {  // of the last output pass
    IDLE = 1,                          // nothing tried yet
    BLOCKED = 2,                       // would block with nothing sent
    PARTLY_SENT = 4,                   // more is queued
    DRAINED = 8,                       // queue empty, or the daemon is stopping
};
struct gwa_data_output {
    gwa_output_queue queue;
    std::atomic<uint32_t> count{0};  // heap nodes on it
    uint32_t in_turn = 0;            // of these, what streams have read in their turn
    gwa_out_state state = gwa_out_state::IDLE;
    std::atomic<int32_t> send_level{0};  // fill level of the kernel's buffer, as last seen
    bool may_send = false;               // this round has looked, and there is room
    uint32_t held_passes = 0;            // passes in a row that the traffic policy has held
    int64_t held_since_us = 0;           // steady clock; the first of them
};

struct gwa_data_streams {
    list<gwa_stream> all;
    uint32_t gone_count = 0;
    list<gwa_stream> gone;              // given up by us, but not yet closed by the server
    std::atomic<int32_t> count{0};      // of `all`
    uint32_t waiting = 0;               // bytes that services have not taken yet
    gwa_more more = gwa_more::DRAINED;  // of their local sockets, as the last wakeup left them
};

struct gwa_connection_data {
    int32_t id = 0;
    std::atomic<uint32_t> flags{0};
    pthread_t thread{};
    bool thread_started = false;  // main thread's: there is something to join
    int socket = -1;
    bool closed = false;  // and freed, since the last init2
    poll_set poller;
    gwa_data_order order;
    gwa_data_input input;
    gwa_data_output output;
    gwa_heartbeat heartbeat;
    gwa_peer_watch peer;
    uint32_t heartbeat_resp = 0;  // last answered + 1; one is outstanding while below its number
    gwa_data_streams streams;
    std::atomic<uint32_t> memory{0};  // bytes held, each piece rounded as the allocator does
    int32_t last_check_time = 0;      // coarse clock
    gwa_traffic traffic;              // never reset by a restart
};

// ---- The memory figure (worker only) ----

// Sizes that the figure counts for records, whatever they take on this machine.
constexpr uint32_t GWA_NODE_COUNTED = 40;
constexpr uint32_t GWA_STREAM_COUNTED = 108;
constexpr uint32_t GWA_MEMORY_LIMIT = 0x400000;  // bytes; above it streams stop reading
// Above it the exempt ones stop as well, and uploads: a box may have 64 MB in all (exception 59).
constexpr uint32_t GWA_MEMORY_CEILING = 0x500000;

// Every path charges and releases through these two, so that the figure returns to zero.
void gwa_connection_memory_charge(gwa_connection_data* conn, uint32_t size);
void gwa_connection_memory_release(gwa_connection_data* conn, uint32_t size);
inline uint32_t gwa_connection_memory(const gwa_connection_data* conn) {
    return conn->memory.load(std::memory_order_relaxed);
}

// ---- Frames (worker only) ----

// A charged node for a charged heap buffer, which it owns from here on.
gwa_output_node* gwa_connection_data_node_new(gwa_connection_data* conn, uint8_t* buffer,
                                              uint32_t size);
// Frees a charged node that is in no queue.
void gwa_connection_data_node_drop(gwa_connection_data* conn, gwa_output_node* node);
// Puts a node of this connection on its output queue by priority and counts it.
void gwa_connection_data_send(gwa_connection_data* conn, gwa_output_node* node);
// Frees a node that was on the output queue and takes its charges and count back.
void gwa_connection_data_node_release(gwa_connection_data* conn, gwa_output_node* node);
