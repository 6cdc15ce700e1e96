// dlna_status.h - forwards the state of the box's DLNA media server, a 32-bit word learnt on a Unix
// stream socket, to the relay server, no more often than the server wants it.
//
// Owner:   the supervisor; the socket lives for one pass of its loop.
// Threads: main thread, inside the control poller's wait, but for the timer callbacks, which run on
//          the timer thread and share what is atomic.
// Results: 0 or a descriptor, -1 after the reason has been logged.
//
// A word is reported at once when it is the first one, or when t1 seconds have passed since the
// last timed report; otherwise a one-shot timer reports the newest word after t1 seconds. A second
// timer repeats the report every t2 seconds.
#pragma once

#include <atomic>
#include <cstdint>

#include "runtime/gwa_timer.h"
#include "runtime/poll.h"

constexpr uint32_t DLNA_T1_DEFAULT = 5;     // s
constexpr uint32_t DLNA_T1_MIN = 2;         // s
constexpr uint32_t DLNA_T1_MAX = 3599;      // s
constexpr uint32_t DLNA_T2_DEFAULT = 3600;  // s, also the least

constexpr int DLNA_CLIENTS_MAX = 16;  // a box has one media server

struct dlna_client {
    int fd = -1;            // -1: nobody
    uint32_t have = 0;      // bytes of the word that has begun
    uint64_t heard = 0;     // order of the last sign of life
    uint8_t bytes[4] = {};  // the word, host order
};

// Process-wide. Atomic is what both threads use. Status and t1_active are accessed in one order for
// both, so that a new word is either seen by the timer that fires or arms another one.
struct dlna_status_record {
    int listen_socket = -1;
    std::atomic<uint32_t> status{0};      // the last word received
    std::atomic<int32_t> last_report{0};  // time of the last timed report; 0 until the first word
    int32_t received = 0;                 // time of the last word
    uint32_t t1 = DLNA_T1_DEFAULT;
    uint32_t t2 = DLNA_T2_DEFAULT;
    poll_set* poller = nullptr;             // the control poller, where clients are registered
    dlna_client clients[DLNA_CLIENTS_MAX];  // registered with the poller, which closes what is left
    uint64_t signs = 0;                     // of life, of all clients
    gwa_timer* t1_timer = nullptr;
    std::atomic<int32_t> t1_active{0};  // 1 while the timer is pending
    gwa_timer* t2_timer = nullptr;
    int32_t t2_active = 0;
};
extern dlna_status_record dlna_status;

// Resets the record, ends what an earlier pass left behind, and listens on the socket path of
// gwa_process_paths. The non-blocking socket, or -1.
int dlna_status_init();
// Ends both timers, waiting for a callback that runs. Before the timer list and the control queue
// go.
void dlna_status_timers_stop();
// Closes the socket, ends the timers and removes the socket file. The result of unlink.
int dlna_status_exit();

// Poller callback of the listening socket; the argument is the poller to register clients with.
// When there is no room for a client, the one that has been silent the longest gives way.
void dlna_status_accept_handle(uint32_t events, void* poller);
// Poller callback of a client; the argument is its descriptor. A client sends words of 4 bytes in
// host order, and the last of those that wait counts; a word of all ones counts as none.
void dlna_status_recv_handle(uint32_t events, void* argument);

// Queues one report frame on the control connection. Any thread. Always 0.
int dlna_status_report(uint32_t status);
// Takes the reporting times that the server orders, in seconds. 0, or -1 when they are out of
// range.
int dlna_status_interval_set(uint32_t t1, uint32_t t2);
