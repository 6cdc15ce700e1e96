#include "runtime/gwa_util_socket_recv.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "main/gwa_log.h"
#include "runtime/gwa_process.h"
#include "runtime/gwa_types.h"
#include "runtime/gwa_util_socket_wait.h"
#include "runtime/gwa_util_time.h"

namespace {

constexpr int SLICE_MS = 50;  // how late a remainder below the low-water mark is found
constexpr int FAST_POLL_US = 100000;
constexpr int DISCARD_MAX = 8192;
constexpr int DISCARD_TIMEOUT_S = 120;

}  // namespace

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

void gwa_socket_readable_wait(int fd, int milliseconds) {
    gwa_socket_wait_slice(fd, POLLIN, GWA_NO_LIMIT, milliseconds);
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
    switch (gwa_socket_wait(fd, POLLIN, seconds)) {
        case gwa_wait_result::READY: return recv_ready(fd, buffer, length);
        case gwa_wait_result::RAN_OUT: GWA_LOG(ERROR, "recv timeout"); return GWA_TIMED_OUT;
        case gwa_wait_result::STOPPED: return GWA_FAILED;
        case gwa_wait_result::FAILED: GWA_LOG(ERROR, "select error %s", strerror(errno)); break;
    }
    return GWA_FAILED;
}

int gwa_recvn_timeout(int fd, void* buffer, size_t length, int seconds) {
    if (seconds <= 0) {
        return GWA_FAILED;
    }
    const gwa_time_limit limit = gwa_limit_steady(seconds);
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
        if (gwa_limit_left_us(limit) <= 0) {
            if (!waited) {
                return GWA_FAILED;  // late already: there was no wait that could have run out
            }
            GWA_LOG(ERROR, "recv timeout in %d second", seconds);
            return GWA_TIMED_OUT;
        }
        const gwa_wait_result result = gwa_socket_wait_slice(fd, POLLIN, limit, SLICE_MS);
        if (result == gwa_wait_result::FAILED) {
            GWA_LOG(ERROR, "select error %s", strerror(errno));
        }
        if (result == gwa_wait_result::FAILED || result == gwa_wait_result::STOPPED) {
            return GWA_FAILED;
        }
        waited = result == gwa_wait_result::RAN_OUT;
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
            gwa_socket_wait_slice(fd, POLLIN, GWA_NO_LIMIT, SLICE_MS);
        }
        received += static_cast<size_t>(count);
    } while (received < length);
    return static_cast<int>(received);
}

int gwa_recvn_timeout_fast(int fd, void* buffer, size_t length, int seconds) {
    const gwa_time_limit limit = gwa_limit_start(seconds);
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
        gwa_usleep(FAST_POLL_US);
        if (gwa_limit_left_us(limit) <= 0) {
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
