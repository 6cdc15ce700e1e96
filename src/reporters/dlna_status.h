// dlna_status.h - forwards the state of the box's DLNA media server, a 32-bit word learnt on a Unix
// stream socket, to the relay server, no more often than the server wants it.
//
// Owner:   this module; one socket for each pass of the supervisor's loop.
// Threads: main thread, inside the control poller's wait, but for the timer callbacks, which run on
//          the timer thread and share what is atomic.
// Results: 0 or a descriptor, -1 after the reason has been logged.
//
// A word is reported at once when it is the first one, or when t1 seconds have passed since the
// last timed report; otherwise a one-shot timer reports the newest word after t1 seconds. A second
// timer repeats the report every t2 seconds.
#pragma once

#include <cstdint>

#include "connection/gwa_connection_cntl_record.h"

constexpr uint32_t DLNA_T1_DEFAULT = 5;     // s
constexpr uint32_t DLNA_T1_MIN = 2;         // s
constexpr uint32_t DLNA_T1_MAX = 3599;      // s
constexpr uint32_t DLNA_T2_DEFAULT = 3600;  // s, also the least

// Listens on the poller of the connection that it reports to, and takes that connection's reporting
// times. Ends what an earlier pass left behind.
void dlna_status_start(gwa_connection_cntl* cntl);
// Resets the record and listens on the socket path of gwa_process_paths. The non-blocking socket,
// or -1.
int dlna_status_init();
// Ends both timers, waiting for a callback that runs. Before the timer list and the control queue
// go.
void dlna_status_timers_stop();
// Closes the socket, ends the timers and removes the socket file. The result of unlink.
int dlna_status_exit();

// Poller callback of the listening socket; the argument is the poller to register clients with.
void dlna_status_accept_handle(uint32_t events, void* poller);
// Poller callback of a client; the argument is its descriptor. A client sends words of 4 bytes in
// host order, and the last of those that wait counts; a word of all ones counts as none.
void dlna_status_recv_handle(uint32_t events, void* argument);

// Queues one report frame on the control connection. Any thread. Always 0.
int dlna_status_report(uint32_t status);
// Takes the reporting times that the server orders, in seconds. 0, or -1 when they are out of
// range.
int dlna_status_interval_set(uint32_t t1, uint32_t t2);
