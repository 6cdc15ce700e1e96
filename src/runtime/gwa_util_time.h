// gwa_util_time.h - the clocks, the sleeps and the waits, behind one replaceable source.
//
// Threads: any thread sleeps and reads; only tests replace the source, before they start threads.
#pragma once

#include <poll.h>
#include <sys/epoll.h>

#include <atomic>
#include <cstdint>

// Where time comes from and where it passes. The default is gettimeofday, CLOCK_MONOTONIC, one
// nanosleep and the system's own waits; a test puts in a clock that stands still until the code
// sleeps or waits in vain.
struct gwa_time_source {
    int64_t (*now_us)();           // wall clock, microseconds since the epoch; may be set
    int64_t (*steady_us)();        // microseconds since some moment; nobody can set it
    void (*sleep_us)(int64_t us);  // once, not resumed when a signal interrupts it
    int (*poll)(pollfd* entries, nfds_t count, int timeout_ms);                   // poll(2)
    int (*epoll_wait)(int epfd, epoll_event* events, int count, int timeout_ms);  // epoll_wait(2)
};
extern gwa_time_source gwa_time;

constexpr int64_t GWA_US_PER_SECOND = 1000000;

// The wall clock in whole seconds, as time(2) has it; 64 bits, so that sums with limits cannot
// wrap.
int64_t gwa_time_seconds();

// The coarse clock: seconds, from time(2) at the start on by the clock that nobody sets: a box gets
// the time by NTP soon after it has started, and no stream may age by years then (exception 51).
// Kept by the timer thread, once a second. Being a second late harms nobody: relaxed. 32 bits,
// which is what the box can share between threads: it wraps in January 2038, so moments are
// compared by their difference only.
extern std::atomic<int32_t> gwa_now;
inline int32_t gwa_now_get() { return gwa_now.load(std::memory_order_relaxed); }
void gwa_now_refresh();
// Takes the time once. Main thread, before others run.
void gwa_now_start();

// A moment of the coarse clock, `seconds` before `moment`.
inline int32_t gwa_moment_before(int32_t moment, int32_t seconds) {
    return static_cast<int32_t>(static_cast<uint32_t>(moment) - static_cast<uint32_t>(seconds));
}
// Seconds from `moment` until now; negative while the clock is set back before it.
inline int32_t gwa_seconds_since(int32_t moment) {
    return gwa_moment_before(gwa_now_get(), moment);
}
// A moment as long ago as the coarse clock can tell: what has never happened happened then. 0, the
// epoch, until 2038.
int32_t gwa_moment_never();

// Sleeps whole seconds, in steps of one, and returns early when the process run flag is cleared, so
// that no pause holds up an orderly end; a single second is always slept. 0, or -1 for a negative
// argument. Longer than 30 days is a bug of the caller: logged, and the process ends.
int gwa_sleep(int seconds);
// Sleeps microseconds in one step. 0, or -1 for a negative argument.
int gwa_usleep(int microseconds);

// When a wait is over, by both clocks. A box sets its wall clock by hours soon after it starts: set
// back, it must not prolong a wait.
struct gwa_time_limit {
    int64_t wall_us;
    int64_t steady_us;
};
constexpr int64_t GWA_NEVER_US = INT64_MAX / 2;  // half: sums with it must not overflow
constexpr gwa_time_limit GWA_NO_LIMIT{GWA_NEVER_US, GWA_NEVER_US};
gwa_time_limit gwa_limit_start(int seconds);
// By the steady clock alone: a clock set forward does not end the wait.
gwa_time_limit gwa_limit_steady(int seconds);
// 0 or less: it is over.
int64_t gwa_limit_left_us(const gwa_time_limit& limit);
