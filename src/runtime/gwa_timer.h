// gwa_timer.h - one-second timers on sorted lists, each served by a thread of its own, which keeps
// the coarse clock (gwa_util_time.h) as well.
//
// Owner:   a list belongs to whoever made it, a timer to its creator unless its mode says
//          otherwise. Owners destroy their timers before the list.
// Threads: any thread, callbacks included; one recursive mutex a list guards the list and its
//          timers, and is held while callbacks run, so a slow callback delays every timer.
// Results: 0, or -1 after the reason has been logged.
//
// Deadlines grow from the tail towards the front; the tail is due first, and of equal ones the
// timer that was started first. A timer fires in the first pass after its deadline.
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
    int64_t deadline = 0;   // wall clock, us; 64 bits, so that no sum wraps
    uint32_t mode = 0;
};

struct gwa_timer_list {
    pthread_t thread{};     // set once, by the creator; zero in a list that no thread serves
    pthread_mutex_t mutex;  // recursive; guards the rest but `ended`
    list<gwa_timer> timers;
    bool destroy = false;  // asks the thread to end
    // The walk over what is due. Callbacks change the list under it, so its position is here, where
    // every change can correct it.
    list_link* next_due = nullptr;  // what the walk visits next, null outside one
    gwa_timer* firing = nullptr;    // whose callback the walk runs; null once that is destroyed
    bool rearm = false;             // `firing` is periodic and its callback has not stopped it
    // The thread's last act. Whoever acquires it true may free the list: nobody reads it any more.
    std::atomic<bool> ended{false};
};

extern gwa_timer_list* gwa_timer_default_list;  // null when there is none

// Makes a list and its thread.
int gwa_timer_list_init(gwa_timer_list** out);
// Makes an empty list that no thread serves: whoever made it calls gwa_timer_expire_check.
int gwa_timer_list_make(gwa_timer_list** out);
// Asks the thread to end, waits up to three seconds for it and frees the list; a list whose thread
// is still running stays the thread's. Pending timers are freed without regard to their modes.
int gwa_timer_list_destroy(gwa_timer_list* list);
int gwa_timer_default_init();
int gwa_timer_default_exit();

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
// Logs every timer of a list, one way and the other.
void gwa_timer_list_show(gwa_timer_list* list);
// One pass of a list's thread over what is due. -1: the thread ends. For the thread and for tests.
int gwa_timer_expire_check(gwa_timer_list* list);
