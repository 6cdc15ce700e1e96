// fake_time.h - a clock that stands still until the code sleeps or a test moves it.
#pragma once

#include <cstdint>
#include <functional>
#include <utility>

#include "runtime/gwa_util_time.h"

struct fake_time {  // while it lives, sleeps return at once and the clock has moved on
    static inline int64_t now_us;
    static inline int64_t tick_us;              // added by each look at the clock
    static inline std::function<void()> event;  // runs at each look at the clock and each sleep
    gwa_time_source saved = gwa_time;

    fake_time() {
        now_us = tick_us = 0;
        event = [] {};
        gwa_time.now_us = [] { return event(), std::exchange(now_us, now_us + tick_us); };
        gwa_time.sleep_us = [](int64_t us) { event(), now_us += us; };
    }
    fake_time(fake_time&&) = delete;
    ~fake_time() { gwa_time = saved; }
};
