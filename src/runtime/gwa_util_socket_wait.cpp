#include "runtime/gwa_util_socket_wait.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>

#include "runtime/gwa_process.h"

namespace {

constexpr int64_t US_PER_MS = 1000;
constexpr int SLICE_MS = 500;  // how late a wait may notice the process run flag

}  // namespace

gwa_wait_result gwa_socket_wait_slice(int fd, short events, const gwa_time_limit& limit,
                                      int slice_ms) {
    if (fd < 0) {
        errno = EBADF;  // poll(2) would skip the entry and report a time-out
        return gwa_wait_result::FAILED;
    }
    const int64_t left_ms = (gwa_limit_left_us(limit) + US_PER_MS - 1) / US_PER_MS;
    const auto wait_ms = static_cast<int>(std::clamp<int64_t>(left_ms, 0, slice_ms));
    pollfd entry{fd, events, 0};
    const int count = gwa_time.poll(&entry, 1, gwa_process_running() ? wait_ms : 0);
    if (count > 0 && (entry.revents & POLLNVAL) != 0) {
        errno = EBADF;
        return gwa_wait_result::FAILED;
    }
    if (count > 0) {
        return gwa_wait_result::READY;
    }
    if (count < 0 && errno != EINTR) {
        return gwa_wait_result::FAILED;
    }
    return gwa_process_running() ? gwa_wait_result::RAN_OUT : gwa_wait_result::STOPPED;
}

gwa_wait_result gwa_socket_wait(int fd, short events, int seconds) {
    const gwa_time_limit limit = gwa_limit_steady(seconds);
    for (;;) {
        const gwa_wait_result result = gwa_socket_wait_slice(fd, events, limit, SLICE_MS);
        if (result != gwa_wait_result::RAN_OUT || gwa_limit_left_us(limit) <= 0) {
            return result;
        }
    }
}
