#include "runtime/gwa_util_time.h"

#include <sys/time.h>

#include <algorithm>
#include <ctime>

#include "runtime/gwa_process.h"

namespace {

constexpr int64_t NS_PER_US = 1000;
constexpr int SLEEP_MAX_S = 30 * 24 * 3600;

int64_t wall_clock_us() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return int64_t{now.tv_sec} * GWA_US_PER_SECOND + now.tv_usec;
}

int64_t steady_clock_us() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * GWA_US_PER_SECOND + now.tv_nsec / NS_PER_US;
}

void sleep_once(int64_t us) {
    timespec span{};
    span.tv_sec = static_cast<time_t>(us / GWA_US_PER_SECOND);
    span.tv_nsec = static_cast<long>(us % GWA_US_PER_SECOND * NS_PER_US);
    nanosleep(&span, nullptr);
}

}  // namespace

gwa_time_source gwa_time = {wall_clock_us, steady_clock_us, sleep_once, poll, epoll_wait};
std::atomic<int32_t> gwa_now{0};

int64_t gwa_time_seconds() { return gwa_time.now_us() / GWA_US_PER_SECOND; }

// Wall clock less steady clock at the start; only read while threads run.
static int64_t coarse_clock_offset_us = 0;

void gwa_now_refresh() {
    const int64_t now_us = gwa_time.steady_us() + coarse_clock_offset_us;
    gwa_now.store(static_cast<int32_t>(now_us / GWA_US_PER_SECOND), std::memory_order_relaxed);
}

void gwa_now_start() {
    coarse_clock_offset_us = gwa_time.now_us() - gwa_time.steady_us();
    gwa_now_refresh();
}

int32_t gwa_moment_never() {
    const int32_t now = gwa_now_get();
    const uint32_t age = std::min<uint32_t>(static_cast<uint32_t>(now), INT32_MAX);
    return gwa_moment_before(now, static_cast<int32_t>(age));
}

int gwa_sleep(int seconds) {
    if (seconds < 0) {
        return -1;
    }
    if (seconds > SLEEP_MAX_S) {
        GWA_LOG(ERROR, "sleep too long, may error");
        GWA_BROKEN_RULE();
    }
    for (int slept = 0; slept < seconds; ++slept) {
        // Only between steps: the waits for a thread's end count on a single second being slept
        // while the process is already going down.
        if (slept > 0 && !gwa_process_running()) {
            break;
        }
        gwa_time.sleep_us(GWA_US_PER_SECOND);
    }
    return 0;
}

int gwa_usleep(int microseconds) {
    if (microseconds < 0) {
        return -1;
    }
    gwa_time.sleep_us(microseconds);
    return 0;
}

gwa_time_limit gwa_limit_start(int seconds) {
    const int64_t span_us = int64_t{seconds} * GWA_US_PER_SECOND;
    return {gwa_time.now_us() + span_us, gwa_time.steady_us() + span_us};
}

gwa_time_limit gwa_limit_steady(int seconds) {
    return {GWA_NEVER_US, gwa_time.steady_us() + int64_t{seconds} * GWA_US_PER_SECOND};
}

int64_t gwa_limit_left_us(const gwa_time_limit& limit) {
    return std::min(limit.wall_us - gwa_time.now_us(), limit.steady_us - gwa_time.steady_us());
}
