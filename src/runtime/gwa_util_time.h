// gwa_util_time.h - the clock and the sleeps, behind one replaceable source.
//
// Threads: any thread sleeps and reads; only tests replace the source, before they start threads.
#pragma once

#include <cstdint>

// Where time comes from. The default is gettimeofday and one nanosleep; a test puts in a clock that
// stands still until the code sleeps.
struct gwa_time_source {
    int64_t (*now_us)();           // wall clock, microseconds since the epoch
    void (*sleep_us)(int64_t us);  // once, not resumed when a signal interrupts it
};
extern gwa_time_source gwa_time;

// The wall clock in whole seconds, as time(2) has it; 64 bits, so that sums with limits cannot
// wrap.
int64_t gwa_time_seconds();

// Sleeps whole seconds, in steps of one, and returns early when the process run flag is cleared, so
// that no pause holds up an orderly end; a single second is always slept. 0, or -1 for a negative
// argument. Longer than 30 days is a bug of the caller: logged, and the process ends.
int gwa_sleep(int seconds);
// Sleeps microseconds in one step. 0, or -1 for a negative argument.
int gwa_usleep(int microseconds);
