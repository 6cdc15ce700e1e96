#include "runtime/gwa_util_socket.h"

#include <fcntl.h>
#include <poll.h>

#include <cerrno>
#include <cstring>

#include "main/gwa_log.h"
#include "runtime/gwa_types.h"
#include "runtime/gwa_util_socket_wait.h"
#include "runtime/gwa_util_time.h"

namespace {

constexpr int SEND_SLICE_MS = 500;

}  // namespace

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
    switch (gwa_socket_wait(fd, POLLOUT, seconds)) {
        case gwa_wait_result::READY: return connect_finish(fd);
        case gwa_wait_result::RAN_OUT: GWA_LOG(ERROR, "connect timeout"); return GWA_TIMED_OUT;
        case gwa_wait_result::STOPPED: return GWA_FAILED;
        case gwa_wait_result::FAILED: GWA_LOG(ERROR, "select error %s", strerror(errno)); break;
    }
    return GWA_FAILED;
}

int gwa_sendn(int fd, const void* buffer, int length) {
    int sent = 0;
    while (sent < length) {
        const gwa_wait_result result =
            gwa_socket_wait_slice(fd, POLLOUT, GWA_NO_LIMIT, SEND_SLICE_MS);
        if (result == gwa_wait_result::RAN_OUT) {
            continue;
        }
        if (result == gwa_wait_result::FAILED) {
            GWA_LOG(DEBUG, "select error %s", strerror(errno));
        }
        if (result != gwa_wait_result::READY) {
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
