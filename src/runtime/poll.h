// poll.h - readiness for one thread: an epoll descriptor and the table of what is registered on it.
//
// Owner:   the thread that waits; the set lives by value in that thread's connection record.
// Threads: poll_add, poll_del and poll_rearm from any thread and from callbacks; poll_exit from the
//          owner, its callbacks included; poll_init, poll_wait and poll_now from the owner only.
// Results: 0, or -1 after the reason has been logged; nothing is retried.
// Outside: epoll(7), edge-triggered.
//
//     (made)  -> READY     poll_init
//     READY   -> READY     poll_add, poll_del, poll_rearm, poll_wait, poll_now
//     READY   -> CLOSED    poll_exit; only poll_init may follow
#pragma once

#include <pthread.h>
#include <sys/epoll.h>

#include <atomic>
#include <cstdint>

#include "runtime/gwa_list.h"

// Runs on the owner's thread with no lock held. Readiness is edge-triggered, so it reads or writes
// until EAGAIN. It may remove any descriptor of its set, its own included: what is gone is skipped
// in this batch (exception 53). It may even close the set, which ends the batch, but not make it
// anew.
using poll_callback = void (*)(uint32_t events, void* argument);

constexpr int POLL_BATCH = 16;           // events taken by one wait
constexpr int POLL_TIMEOUT_MIN = 1;      // ms
constexpr int POLL_TIMEOUT_MAX = 60000;  // ms

struct poll_entry : list_link {
    int fd = -1;
    poll_callback callback = nullptr;
    void* argument = nullptr;  // borrowed; outlives the registration
    int* owner = nullptr;      // the variable that holds `fd`, or null; see poll_add
    // False for good once it has been removed, or epoll has refused it. Cleared under the lock;
    // dispatching looks at it without.
    std::atomic<bool> live{true};
};

struct poll_set {
    int epfd = -1;
    epoll_event events[POLL_BATCH] = {};
    int fd_count = 0;
    list<poll_entry> fd_list;  // guarded by rwlock; newest first
    list<poll_entry> removed;  // guarded by rwlock; no longer live, but events may still name them
    // The owner's main socket: a hang-up on it ends the owner's loop. Written under the lock.
    std::atomic<int> first_fd{-1};
    pthread_rwlock_t rwlock = PTHREAD_RWLOCK_INITIALIZER;
    int timeout = 0;  // ms, 1 to 60000; the owner sets it before each poll_wait
};

// Makes the set ready, empty, with a time-out of 0. Again allowed after poll_exit.
int poll_init(poll_set* set);
// Removes and closes every registered descriptor, then the epoll descriptor. Where a registration
// named its owner, that variable becomes -1: the owner's own close must not hit a number that
// another thread has been given since.
void poll_exit(poll_set* set);
// Registers `fd`, non-blocking and still the caller's to close, for reading and writing. `owner`,
// if given, is the variable that holds it. -1: the caller closes it.
int poll_add(poll_set* set, int fd, poll_callback callback, void* argument, int* owner = nullptr);
// Removes the registration of `fd`, if there is one. Closes nothing.
int poll_del(poll_set* set, int fd);
// Makes the next wait report `fd` again if it is ready, although its edge has passed. 0 or -1.
int poll_rearm(poll_set* set, int fd);
// Waits once, at most `timeout`, and runs the callbacks of what became ready. -1: tear down, unless
// a callback has closed the set, which has done so.
int poll_wait(poll_set* set);
// The same without waiting, whatever `timeout` says: for an owner that knows of more work.
int poll_now(poll_set* set);
