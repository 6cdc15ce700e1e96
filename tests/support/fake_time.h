// fake_time.h - a clock that stands still until the code sleeps, waits in vain or a test moves it.
#pragma once

#include <cstdint>
#include <functional>
#include <utility>

#include "runtime/gwa_util_time.h"

struct fake_time {  // while it lives, sleeps and waits return at once and the clock has moved on
    static inline int64_t now_us;
    static inline int64_t set_us;               // by how much the wall clock has been set forward
    static inline int64_t tick_us;              // added by each look at a clock
    static inline int64_t waited_us;            // of what passed, spent in waits of pollers
    static inline std::function<void()> event;  // runs at each look at a clock and each sleep
    gwa_time_source saved = gwa_time;

    fake_time() {
        now_us = set_us = tick_us = waited_us = 0;
        event = [] {};
        gwa_time.now_us = [] { return look() + set_us; };
        gwa_time.steady_us = look;
        gwa_time.sleep_us = [](int64_t us) { event(), now_us += us; };
        gwa_time.poll = [](pollfd* entries, nfds_t count, int timeout_ms) {
            const int ready = poll(entries, count, 0);
            now_us += ready == 0 ? int64_t{timeout_ms} * 1000 : 0;
            return ready;
        };
        gwa_time.epoll_wait = [](int epfd, epoll_event* events, int count, int timeout_ms) {
            const int ready = epoll_wait(epfd, events, count, 0);
            const int64_t passed_us = ready == 0 ? int64_t{timeout_ms} * 1000 : 0;
            now_us += passed_us, waited_us += passed_us;
            return ready;
        };
    }
    fake_time(fake_time&&) = delete;
    ~fake_time() { gwa_time = saved; }
    static int64_t look() { return event(), std::exchange(now_us, now_us + tick_us); }
};
