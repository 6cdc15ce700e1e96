#include "support/clock.h"

#include "runtime/gwa_util_time.h"

std::function<void()> clock_others;

namespace {

constexpr int64_t START_US = 1'000'000'000'000'000;
int64_t now_us;

void passes(int64_t us) {
    now_us += us;
    gwa_now_refresh();
}

// What a wait finds, after the others have had their turn if it finds nothing at first.
template <typename Look>
int waited(int timeout_ms, Look look) {
    int ready = look();
    if (ready == 0 && timeout_ms != 0) {
        clock_others();
        ready = look();
    }
    if (ready == 0) {
        passes(int64_t{timeout_ms} * 1000);
    }
    return ready;
}

}  // namespace

void clock_install() {
    gwa_time.now_us = gwa_time.steady_us = [] { return now_us; };
    gwa_time.sleep_us = [](int64_t us) {
        clock_others();
        passes(us);
    };
    gwa_time.poll = [](pollfd* entries, nfds_t count, int timeout_ms) {
        return waited(timeout_ms, [=] { return poll(entries, count, 0); });
    };
    gwa_time.epoll_wait = [](int epfd, epoll_event* events, int count, int timeout_ms) {
        return waited(timeout_ms, [=] { return epoll_wait(epfd, events, count, 0); });
    };
}

void clock_reset() {
    clock_others = [] {};
    now_us = START_US;
    gwa_now_start();
}

void clock_advance(int64_t seconds) { passes(seconds * GWA_US_PER_SECOND); }
