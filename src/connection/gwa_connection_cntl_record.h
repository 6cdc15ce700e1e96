// gwa_connection_cntl_record.h - the record of the control connection, what others may ask of it,
// and what its failure leads to: never a repair of the socket, always a restart of the process
// (oddity 19).
//
// Owner:   one record, static; reset by its makers, never freed.
// Threads: the main thread. Others touch what is atomic, and the queue through its operations.
#pragma once

#include <atomic>
#include <cstdint>

#include "connection/gwa_connection_heartbeat.h"
#include "connection/gwa_connection_order.h"
#include "connection/gwa_connection_queue.h"
#include "runtime/gwa_types.h"
#include "runtime/gwa_util_peer.h"
#include "runtime/poll.h"

// What the control connection has others do, handed in by the supervisor so that it need not know
// them. Null: nothing is done.
struct gwa_cntl_hooks {
    void (*restart)() = nullptr;                                 // replaces the process
    void (*order)(const gwa_host_list& servers) = nullptr;       // gives each worker its server
    int (*reporting_times)(uint32_t t1, uint32_t t2) = nullptr;  // s; -1: out of range
};

// The header that is arriving.
struct gwa_cntl_input {
    uint8_t header[GWA_HEADER_SIZE + 1] = {};  // as received, terminated for the dump
    uint32_t have = 0;                         // bytes of it
    int64_t moved_us = 0;                      // steady clock, when the last of them came
};

struct gwa_connection_cntl {
    int socket = -1;
    poll_set poller;           // the reporters register here too
    bool initialised = false;  // between a successful init and exit
    gwa_cntl_hooks hooks;
    gwa_cntl_input input;
    gwa_output_queue output;
    std::atomic<uint32_t> reports{0};  // queued and not yet sent
    gwa_heartbeat heartbeat;
    gwa_peer_watch peer;
    int32_t heartbeat_misses = 0;  // answers missing or wrong in a row
    gwa_traffic traffic;
    std::atomic<int32_t> send_level{0};  // 0 to 5, from what the kernel has not sent yet
};

// While that many wait, the server reads nothing: what local services go on telling is dropped
// (exception 42).
constexpr uint32_t GWA_REPORTS_MAX = 256;
// Queues a report, of which the connection takes possession. Any thread.
void gwa_connection_cntl_report(gwa_connection_cntl* cntl, gwa_output_node* node);
// A node that was taken off the queue is done with.
void gwa_connection_cntl_node_done(gwa_connection_cntl* cntl, gwa_output_node* node);

// Restarts the process. Returns only when the process has been told to end anyway.
void gwa_connection_cntl_reinit(gwa_connection_cntl* cntl);
// Whether the server is gone without a word. Says so.
bool gwa_connection_cntl_server_is_gone(gwa_connection_cntl* cntl);
// Counts one missing or wrong heartbeat answer; three in a row restart.
void gwa_connection_cntl_heartbeat_missed(gwa_connection_cntl* cntl);
