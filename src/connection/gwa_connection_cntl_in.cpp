#include "connection/gwa_connection_cntl_in.h"

#include <errno.h>
#include <sys/socket.h>

#include <cstring>

#include "connection/gwa_connection_cntl_command.h"
#include "main/gwa_log.h"
#include "runtime/gwa_process.h"
#include "runtime/gwa_util_socket_recv.h"
#include "runtime/gwa_util_time.h"

namespace {

constexpr int FRAMES_PER_EVENT = 64;  // exception 68
constexpr int32_t SECONDS_PER_EVENT = 2;
constexpr int64_t REST_LIMIT_US = 10'000'000;
constexpr int WAIT_SLICE_MS = 50;  // how late a rest is found on a kernel that tells of none

enum class header_read {
    WHOLE,
    INCOMPLETE,  // nothing of it is there, or the rest is not
    FAILED,      // logged
};

}  // namespace

// The login's low-water mark, a whole header, hides a shorter rest from the poller. So the mark
// follows what is missing; it may stay there, below a whole header, when the rest has come. A
// failure costs time only: each round looks for a rest anyway.
static void low_water_follow(const gwa_connection_cntl* cntl) {
    const int missing = static_cast<int>(GWA_HEADER_SIZE - cntl->input.have);
    setsockopt(cntl->socket, SOL_SOCKET, SO_RCVLOWAT, &missing, sizeof missing);
}

static void log_receive_error(int fd) {
    if (errno == ECONNREFUSED) {
        GWA_LOG(ERROR, "recv failed, connection refused fd %d %s", fd, strerror(errno));
    } else {
        GWA_LOG(ERROR, "recv failed fd %d %s", fd, strerror(errno));
    }
}

// No byte has come. The beginning of a header that is never completed would shift all that follows.
static void rest_drop_late(gwa_connection_cntl* cntl) {
    if (cntl->input.have > 0 && gwa_time.steady_us() - cntl->input.moved_us >= REST_LIMIT_US) {
        GWA_LOG(ERROR, "recv timeout..., %u bytes are dropped", cntl->input.have);
        cntl->input.have = 0;
    }
}

// Receives what is there of the next header.
static header_read header_receive(gwa_connection_cntl* cntl) {
    const uint32_t before = cntl->input.have;
    const ssize_t got =
        recv(cntl->socket, cntl->input.header + before, GWA_HEADER_SIZE - before, 0);
    if (got == -1 && errno == EAGAIN) {
        rest_drop_late(cntl);
        return header_read::INCOMPLETE;
    }
    if (got == -1) {
        log_receive_error(cntl->socket);
        return header_read::FAILED;
    }
    if (got == 0) {
        GWA_LOG(FATAL, "!!! remote server close the connection fd %d !!!", cntl->socket);
        return header_read::FAILED;
    }
    cntl->input.have += static_cast<uint32_t>(got);
    if (cntl->input.have < GWA_HEADER_SIZE) {
        cntl->input.moved_us = gwa_time.steady_us();
        low_water_follow(cntl);
        return header_read::INCOMPLETE;
    }
    cntl->input.have = 0;
    return header_read::WHOLE;
}

void gwa_connection_cntl_remote_in_handle(gwa_connection_cntl* cntl) {
    const int32_t began = gwa_now_get();
    for (int frames = 0; frames < FRAMES_PER_EVENT; frames++) {
        if (!gwa_process_running() || gwa_seconds_since(began) > SECONDS_PER_EVENT) {
            break;
        }
        switch (header_receive(cntl)) {
            case header_read::INCOMPLETE: return;
            case header_read::FAILED: gwa_connection_cntl_reinit(cntl); return;
            case header_read::WHOLE: break;
        }
        cntl->heartbeat.last_in_time = gwa_now_get();
        gwa_connection_cntl_proto_handle(cntl, cntl->input.header);
    }
    // A server that writes without end must not keep heartbeats and reporters from their turn.
    poll_rearm(&cntl->poller, cntl->socket);
}

void gwa_connection_cntl_next_frame_wait(gwa_connection_cntl* cntl) {
    header_read result = header_receive(cntl);
    while (result == header_read::INCOMPLETE && gwa_process_running() &&
           !gwa_connection_cntl_server_is_gone(cntl)) {
        gwa_socket_readable_wait(cntl->socket, WAIT_SLICE_MS);
        result = header_receive(cntl);
    }
    if (result == header_read::WHOLE) {
        gwa_connection_cntl_proto_handle(cntl, cntl->input.header);
    } else {
        gwa_connection_cntl_reinit(cntl);  // nothing, when the daemon is to end anyway
    }
}
