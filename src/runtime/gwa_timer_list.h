// gwa_timer_list.h - lists of timers, each served by a thread of its own, which keeps the coarse
// clock (gwa_util_time.h) as well. What stands on a list is gwa_timer.h's.
//
// Owner:   a list belongs to whoever made it. Owners destroy their timers before the list.
// Threads: any thread, but nobody uses a list while its owner destroys it.
// Results: 0, or -1 after the reason has been logged.
#pragma once

#include "runtime/gwa_timer.h"

// Makes a list and its thread.
int gwa_timer_list_init(gwa_timer_list** out);
// Makes an empty list that no thread serves: whoever made it calls gwa_timer_expire_check.
int gwa_timer_list_make(gwa_timer_list** out);
// Asks the thread to end, waits up to three seconds for it and frees the list; a list whose thread
// is still running stays the thread's. Pending timers are freed without regard to their modes.
int gwa_timer_list_destroy(gwa_timer_list* list);
int gwa_timer_default_init();
int gwa_timer_default_exit();
// Logs every pending timer of a list, one way and the other.
void gwa_timer_list_show(gwa_timer_list* list);
