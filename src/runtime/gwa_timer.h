// gwa_timer.h - one-second timers on sorted lists; their makers and threads are gwa_timer_list.h's.
//
// Owner:   a timer belongs to its creator unless its mode says otherwise.
// Threads: any thread, callbacks included; the list's recursive mutex guards its timers, and is
//          held while callbacks run, so a slow callback delays every timer.
// Results: 0, or -1 after the reason has been logged.
//
// The timer with the earliest deadline is due first, and of equal ones the timer that was started
// first. A timer fires in the first pass after its deadline.
//
//     (made)  -> STOPPED   gwa_timer_init
//     STOPPED -> PENDING   gwa_timer_start (or fires at once, when it is already due)
//     PENDING -> STOPPED   gwa_timer_stop, or it fires as a one-shot timer
//     PENDING -> PENDING   it fires as a periodic timer
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "runtime/gwa_list.h"

using gwa_timer_callback = void (*)(void* argument);

enum gwa_timer_mode : uint32_t {  // a bit set
    GWA_TIMER_ONCE = 1,
    GWA_TIMER_PERIODIC = 2,
    GWA_TIMER_FREE_SELF = 4,  // free the timer after a one-shot firing and when it is destroyed
    GWA_TIMER_FREE_ARG = 8,   // the same for its argument
};

struct gwa_timer_list;

struct gwa_timer : list_link {  // linked while it is pending, else it points at itself
    gwa_timer_list* list = nullptr;
    gwa_timer_callback callback = nullptr;  // may use this API on its own list and its own timer
    void* argument = nullptr;
    uint32_t interval = 0;  // s
    int64_t deadline = 0;   // us, by the clock that nobody sets; 64 bits, so that no sum wraps
    uint32_t mode = 0;
};

struct gwa_timer_list {
    pthread_t thread{};      // set once, by the creator; zero in a list that no thread serves
    pthread_mutex_t mutex;   // recursive; guards the rest but `ended`
    list<gwa_timer> timers;  // pending; deadlines grow from the tail towards the front
    list<gwa_timer> due;     // what the running pass still has to fire, in the same order
    // Whose callback the pass runs. Null once that callback has taken away what would follow it: by
    // destroying the timer, or by stopping it when it is periodic.
    gwa_timer* firing = nullptr;
    bool destroy = false;  // asks the thread to end
    // The thread's last act. Whoever acquires it true may free the list: nobody reads it any more.
    std::atomic<bool> ended{false};
};
extern gwa_timer_list* gwa_timer_default_list;  // null when there is none

// Makes a stopped timer. A null list is the default list.
int gwa_timer_init(gwa_timer_callback callback, void* argument, uint32_t interval, uint32_t mode,
                   gwa_timer_list* list, gwa_timer** out);
// Arms a timer; one that is already due runs at once on the caller's thread, and its mode does not
// count then. Only a stopped timer may be started, or a timer by its own callback.
int gwa_timer_start(gwa_timer* timer);
// Disarms; nothing happens to a timer that is not pending. When it returns, the callback is not
// running, unless it is the caller.
int gwa_timer_stop(gwa_timer* timer);
// Disarms and frees what the mode says; without GWA_TIMER_FREE_SELF the caller frees the timer.
int gwa_timer_destroy(gwa_timer* timer);
// The new interval applies at the next start or re-arm.
int gwa_timer_expire_modify(gwa_timer* timer, uint32_t interval);
// One pass of a list's thread over what is due. -1: the thread ends. For the thread and for tests.
int gwa_timer_expire_check(gwa_timer_list* list);
