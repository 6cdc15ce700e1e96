#include "runtime/gwa_util_send_buffer.h"

#include <linux/sockios.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstring>

#include "main/gwa_log.h"
#include "runtime/gwa_types.h"
#include "runtime/gwa_util_time.h"

namespace {

constexpr int US_PER_MS = 1000;
constexpr int LOW_LEVEL = 2;  // below it less than a quarter is queued

}  // namespace

int gwa_socket_send_buffer_level(int queued, int limit) {
    const int half = limit >> 1;
    const int quarter = limit >> 2;
    if (queued == 0) {
        return 0;
    }
    if (queued >= limit) {
        return 5;
    }
    if (queued < quarter) {
        return 1;
    }
    if (queued <= half) {
        return 2;
    }
    return queued < half + quarter ? 3 : 4;
}

int gwa_socket_send_buffer_status(int fd, int limit) {
    int queued = 0;
    if (ioctl(fd, SIOCOUTQ, &queued) == -1) {
        GWA_LOG(ERROR, "ioctl error on socket %d, %s", fd, strerror(errno));
        return GWA_FAILED;
    }
    return gwa_socket_send_buffer_level(queued, limit);
}

int gwa_socket_send_buffer_wait(int fd, int limit, int32_t /*ignored*/, int* level, int seconds,
                                bool (*wanted)()) {
    const gwa_time_limit time_limit = gwa_limit_start(seconds);
    while (wanted()) {
        *level = gwa_socket_send_buffer_status(fd, limit);
        if (*level < 0) {
            return GWA_FAILED;
        }
        if (*level < LOW_LEVEL) {
            return GWA_OK;
        }
        if (gwa_limit_left_us(time_limit) <= 0) {
            return GWA_TIMED_OUT;
        }
        gwa_usleep(*level * US_PER_MS);  // the fuller, the longer
    }
    *level = -1;
    return GWA_FAILED;
}
