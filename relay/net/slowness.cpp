#include "net/slowness.h"

bool slowness_look(slowness& his, steady::time_point now, uint64_t taken, bool keeps_waiting,
                   const options& set) {
    if (his.began == NEVER) {
        if (keeps_waiting) {
            his = {now, now, taken, true};
        }
        return false;
    }
    his.kept_waiting = his.kept_waiting || keeps_waiting;
    const std::chrono::duration<double> span = now - his.span_began;
    if (span < set.rate_time) {
        return false;
    }
    const bool slow = his.kept_waiting && static_cast<double>(taken - his.taken) <
                                              static_cast<double>(set.least_rate) * span.count();
    if (!slow) {
        his = {};
        return false;
    }
    his = {his.began, now, taken, keeps_waiting};
    return now - his.began >= set.slow_timeout;
}
