#include "runtime/gwa_util_socket.h"

#include <fcntl.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "runtime/gwa_process.h"
#include "runtime/gwa_types.h"
#include "runtime/gwa_util_time.h"

namespace {

constexpr int64_t US_PER_SECOND = 1000000;
constexpr int64_t US_PER_MS = 1000;
constexpr int WAIT_SLICE_MS = 500;  // how late a wait may notice the process run flag
constexpr int RECVN_SLICE_MS = 50;  // how late a remainder below the low-water mark is found
constexpr int RECVN_FAST_POLL_US = 100000;
constexpr int DISCARD_MAX = 8192;
constexpr int DISCARD_TIMEOUT_S = 120;
constexpr int SEND_BUFFER_LOW_LEVEL = 2;  // below it less than a quarter is queued

constexpr int64_t NEVER_US = INT64_MAX / 2;  // half: sums with it must not overflow

// When a wait is over, by both clocks. A box sets its wall clock by hours soon after it starts: set
// back, it must not prolong a wait.
struct time_limit {
    int64_t wall_us;
    int64_t steady_us;
};

constexpr time_limit NO_LIMIT{NEVER_US, NEVER_US};

}  // namespace

static time_limit limit_start(int seconds) {
    const int64_t span_us = int64_t{seconds} * US_PER_SECOND;
    return {gwa_time.now_us() + span_us, gwa_time.steady_us() + span_us};
}

static int64_t limit_left_us(const time_limit& limit) {
    return std::min(limit.wall_us - gwa_time.now_us(), limit.steady_us - gwa_time.steady_us());
}

enum class wait_result : uint8_t { READY, RAN_OUT, STOPPED, FAILED };

// Waits for one slice of what is left. RAN_OUT: look at the limit and wait on, also after a signal,
// which must not fail a login needlessly. STOPPED: the process run flag is clear; what is ready by
// then is still taken, but nothing is waited for. FAILED: errno says why.
static wait_result wait_slice(int fd, short events, const time_limit& limit, int slice_ms) {
    if (fd < 0) {
        errno = EBADF;  // poll(2) would skip the entry and report a time-out
        return wait_result::FAILED;
    }
    const int64_t left_ms = (limit_left_us(limit) + US_PER_MS - 1) / US_PER_MS;
    const auto wait_ms = static_cast<int>(std::clamp<int64_t>(left_ms, 0, slice_ms));
    pollfd entry{fd, events, 0};
    const int count = gwa_time.poll(&entry, 1, gwa_process_running() ? wait_ms : 0);
    if (count > 0 && (entry.revents & POLLNVAL) != 0) {
        errno = EBADF;
        return wait_result::FAILED;
    }
    if (count > 0) {
        return wait_result::READY;  // a hang-up or an error too: the next call on `fd` names it
    }
    if (count < 0 && errno != EINTR) {
        return wait_result::FAILED;
    }
    return gwa_process_running() ? wait_result::RAN_OUT : wait_result::STOPPED;
}

// Waits up to `seconds`, however the wall clock is set meanwhile.
static wait_result wait_seconds(int fd, short events, int seconds) {
    const time_limit limit{NEVER_US, gwa_time.steady_us() + int64_t{seconds} * US_PER_SECOND};
    for (;;) {
        const wait_result result = wait_slice(fd, events, limit, WAIT_SLICE_MS);
        if (result != wait_result::RAN_OUT || limit_left_us(limit) <= 0) {
            return result;
        }
    }
}

// One receive that never blocks, for the polling reads: the count, 0 when nothing is there yet, -1
// failed or closed. Asking for nothing counts as closed, at once: the kernel would answer "try
// again" for as long as the peer is silent.
static ssize_t recv_polled(int fd, void* buffer, size_t length) {
    const ssize_t count = length == 0 ? 0 : recv(fd, buffer, length, MSG_DONTWAIT);
    if (count > 0) {
        return count;
    }
    if (count == 0) {
        GWA_LOG(FATAL, "!!! remote server close the connection fd %d !!!", fd);
        return -1;
    }
    if (errno == EAGAIN) {
        return 0;
    }
    if (errno == ECONNREFUSED) {
        GWA_LOG(ERROR, "recv failed, connection refused fd %d %s", fd, strerror(errno));
    } else {
        GWA_LOG(ERROR, "recv failed fd %d %s", fd, strerror(errno));
    }
    return -1;
}

int gwa_socket_nonblock(int fd) {
    const int flags = fcntl(fd, F_GETFL);
    if (flags == -1) {
        GWA_LOG(DEBUG, "fcntl F_GETFL fail");
        return GWA_FAILED;
    }
    if (fcntl(fd, F_SETFL, flags | O_NONBLOCK) == -1) {
        GWA_LOG(DEBUG, "fcntl F_SETFL fail");
        return GWA_FAILED;
    }
    return GWA_OK;
}

// The outcome of a connect that was in progress.
static int connect_finish(int fd) {
    int error = -1;
    socklen_t size = sizeof error;
    getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size);
    if (error != 0) {
        GWA_LOG(ERROR, "connect failed");
        return GWA_FAILED;
    }
    GWA_LOG(ERROR, "connect success");  // at this level: oddity 2
    return GWA_OK;
}

int gwa_connect_timeout(int fd, const sockaddr* address, socklen_t length, int seconds) {
    if (seconds < 1) {
        return GWA_FAILED;
    }
    if (connect(fd, address, length) == 0) {
        GWA_LOG(ERROR, "connect success");
        return GWA_OK;
    }
    if (errno != EINPROGRESS) {
        GWA_LOG(ERROR, "connect failed %s", strerror(errno));
        return GWA_FAILED;
    }
    GWA_LOG(INFO, "connecting in progress");
    switch (wait_seconds(fd, POLLOUT, seconds)) {
        case wait_result::READY: return connect_finish(fd);
        case wait_result::RAN_OUT: GWA_LOG(ERROR, "connect timeout"); return GWA_TIMED_OUT;
        case wait_result::STOPPED: return GWA_FAILED;
        case wait_result::FAILED: GWA_LOG(ERROR, "select error %s", strerror(errno)); break;
    }
    return GWA_FAILED;
}

void gwa_socket_readable_wait(int fd, int milliseconds) {
    wait_slice(fd, POLLIN, NO_LIMIT, milliseconds);
}

// The receive that follows a wait: it does not block, should the readiness have been an error.
static int recv_ready(int fd, void* buffer, size_t length) {
    const ssize_t count = recv(fd, buffer, length, MSG_DONTWAIT);
    if (count == -1) {
        GWA_LOG(ERROR, "recv error %s", strerror(errno));
    }
    return static_cast<int>(count);
}

int gwa_recv_timeout(int fd, void* buffer, size_t length, int seconds) {
    if (seconds < 1) {
        return GWA_FAILED;
    }
    switch (wait_seconds(fd, POLLIN, seconds)) {
        case wait_result::READY: return recv_ready(fd, buffer, length);
        case wait_result::RAN_OUT: GWA_LOG(ERROR, "recv timeout"); return GWA_TIMED_OUT;
        case wait_result::STOPPED: return GWA_FAILED;
        case wait_result::FAILED: GWA_LOG(ERROR, "select error %s", strerror(errno)); break;
    }
    return GWA_FAILED;
}

int gwa_recvn_timeout(int fd, void* buffer, size_t length, int seconds) {
    if (seconds <= 0) {
        return GWA_FAILED;
    }
    const time_limit limit = limit_start(seconds);
    bool waited = false;  // the last thing that happened was a wait without result
    for (size_t received = 0; received < length;) {
        const ssize_t count =
            recv(fd, static_cast<char*>(buffer) + received, length - received, MSG_DONTWAIT);
        if (count > 0) {
            received += static_cast<size_t>(count);
            waited = false;
            continue;
        }
        if (count == 0) {
            return GWA_FAILED;
        }
        if (errno != EAGAIN) {
            GWA_LOG(ERROR, "recv error %s", strerror(errno));
            return GWA_FAILED;
        }
        if (limit_left_us(limit) <= 0) {
            if (!waited) {
                return GWA_FAILED;  // late already: there was no wait that could have run out
            }
            GWA_LOG(ERROR, "recv timeout in %d second", seconds);
            return GWA_TIMED_OUT;
        }
        const wait_result result = wait_slice(fd, POLLIN, limit, RECVN_SLICE_MS);
        if (result == wait_result::FAILED) {
            GWA_LOG(ERROR, "select error %s", strerror(errno));
        }
        if (result == wait_result::FAILED || result == wait_result::STOPPED) {
            return GWA_FAILED;
        }
        waited = result == wait_result::RAN_OUT;
    }
    return GWA_OK;
}

int gwa_recvn(int fd, void* buffer, size_t length) {
    size_t received = 0;
    do {
        const ssize_t count =
            recv_polled(fd, static_cast<char*>(buffer) + received, length - received);
        if (count < 0 || (count == 0 && !gwa_process_running())) {
            return GWA_FAILED;
        }
        if (count == 0) {
            // Not a look every 100 us: a server that is silent for minutes would cost the box a
            // good part of its processor.
            wait_slice(fd, POLLIN, NO_LIMIT, RECVN_SLICE_MS);
        }
        received += static_cast<size_t>(count);
    } while (received < length);
    return static_cast<int>(received);
}

int gwa_recvn_timeout_fast(int fd, void* buffer, size_t length, int seconds) {
    const time_limit limit = limit_start(seconds);
    size_t received = 0;
    do {
        const ssize_t count =
            recv_polled(fd, static_cast<char*>(buffer) + received, length - received);
        if (count < 0) {
            return GWA_FAILED;
        }
        received += static_cast<size_t>(count);
        if (count > 0) {
            continue;
        }
        if (!gwa_process_running()) {
            break;
        }
        gwa_usleep(RECVN_FAST_POLL_US);
        if (limit_left_us(limit) <= 0) {
            GWA_LOG(ERROR, "recv timeout...");
            break;
        }
    } while (received < length);
    return static_cast<int>(received);
}

int gwa_recv_discard(int fd, int count) {
    if (count < 1) {
        return GWA_OK;
    }
    if (count > DISCARD_MAX) {
        return GWA_FAILED;
    }
    char scratch[DISCARD_MAX];
    const int received =
        gwa_recvn_timeout_fast(fd, scratch, static_cast<size_t>(count), DISCARD_TIMEOUT_S);
    return received == count ? GWA_OK : GWA_FAILED;
}

int gwa_sendn(int fd, const void* buffer, int length) {
    int sent = 0;
    while (sent < length) {
        const wait_result result = wait_slice(fd, POLLOUT, NO_LIMIT, WAIT_SLICE_MS);
        if (result == wait_result::RAN_OUT) {
            continue;
        }
        if (result == wait_result::FAILED) {
            GWA_LOG(DEBUG, "select error %s", strerror(errno));
        }
        if (result != wait_result::READY) {
            break;
        }
        const ssize_t count = send(fd, static_cast<const char*>(buffer) + sent,
                                   static_cast<size_t>(length - sent), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count >= 0) {
            sent += static_cast<int>(count);
        } else if (errno != EAGAIN) {
            GWA_LOG(ERROR, "send failed fd %d %s", fd, strerror(errno));
            break;
        }
    }
    return sent;
}

int gwa_sendto(int fd, const void* buffer, int length, uint32_t address, uint16_t port) {
    const sockaddr_in to = gwa_socket_address(address, port);
    const ssize_t count = sendto(fd, buffer, static_cast<size_t>(length), MSG_NOSIGNAL,
                                 reinterpret_cast<const sockaddr*>(&to), sizeof to);
    if (count == -1) {
        GWA_LOG(DEBUG, "sendto failed %s", strerror(errno));
        return GWA_FAILED;
    }
    if (count != length) {
        GWA_LOG(DEBUG, "send trancated, expect %d, recv %d", length, static_cast<int>(count));
        return GWA_FAILED;
    }
    return GWA_OK;
}

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

int gwa_socket_send_buffer_wait(int fd, int limit, int32_t /*ignored*/, int* level, int seconds) {
    const time_limit wait_limit = limit_start(seconds);
    while (gwa_connection_running()) {
        *level = gwa_socket_send_buffer_status(fd, limit);
        if (*level < 0) {
            return GWA_FAILED;
        }
        if (*level < SEND_BUFFER_LOW_LEVEL) {
            return GWA_OK;
        }
        if (limit_left_us(wait_limit) <= 0) {
            return GWA_TIMED_OUT;
        }
        gwa_usleep(*level * static_cast<int>(US_PER_MS));  // the fuller, the longer
    }
    *level = -1;
    return GWA_FAILED;
}
