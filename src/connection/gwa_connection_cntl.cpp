#include "connection/gwa_connection_cntl.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include "connection/gwa_connection_cntl_in.h"
#include "connection/gwa_connection_cntl_out.h"
#include "main/gwa_log.h"
#include "runtime/gwa_process.h"
#include "runtime/gwa_util_time.h"

namespace {

constexpr int WAIT_MS = 2000;
constexpr int PAUSE_US = 100000;

}  // namespace

static void drop_queue(gwa_connection_cntl* cntl) {
    gwa_connection_queue_sweep(
        &cntl->output, [](const gwa_output_node&) { return true; },
        [cntl](gwa_output_node* node) { gwa_connection_cntl_node_done(cntl, node); });
}

int gwa_connection_cntl_init(gwa_connection_cntl* cntl, int fd) {
    GWA_LOG(CREATE, "connection cntl init ...");
    const int one = 1;
    if (setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one) == -1) {
        GWA_LOG(ERROR, "setsockopt TCP_NODELAY failed");
    }
    drop_queue(cntl);  // a reporter may have queued something while there was no connection
    cntl->send_level.store(0, std::memory_order_relaxed);
    cntl->input.have = 0;
    cntl->peer = {};
    if (poll_init(&cntl->poller) != GWA_OK) {
        GWA_LOG(DEBUG, "init epoll failed");
        return GWA_FAILED;
    }
    GWA_LOG(INFO, "create poll set fd %d success", cntl->poller.epfd);
    cntl->poller.timeout = WAIT_MS;
    if (poll_add(&cntl->poller, fd, gwa_connection_cntl_handle, cntl, &cntl->socket) != GWA_OK) {
        GWA_LOG(DEBUG, "add listen socket to poll failed");
        poll_exit(&cntl->poller);
        return GWA_FAILED;
    }
    cntl->socket = fd;
    cntl->initialised = true;
    GWA_LOG(CREATE, "connection cntl init success");
    return GWA_OK;
}

int gwa_connection_cntl_manage(gwa_connection_cntl* cntl) {
    GWA_LOG(CREATE, "connection manage ...");
    cntl->heartbeat.last_out_time = gwa_now_get();
    if (cntl->heartbeat.last_in_time == 0) {  // nothing has come yet: a heartbeat is due at once
        cntl->heartbeat.last_in_time = gwa_moment_never();
    }
    while (gwa_process_running()) {
        const int jump = gwa_process_jump.exchange(GWA_JUMP_NONE, std::memory_order_relaxed);
        if (jump != GWA_JUMP_NONE) {
            return jump;
        }
        if (poll_wait(&cntl->poller) == GWA_FAILED) {
            GWA_LOG(FATAL, "epoll error, cntl");
            gwa_connection_cntl_reinit(cntl);
            return GWA_JUMP_NONE;  // the run flag is clear
        }
        gwa_connection_cntl_remote_in_handle(cntl);
        gwa_usleep(PAUSE_US);
        gwa_connection_cntl_remote_out_handle(cntl);
        gwa_connection_cntl_probe(cntl);
        if (gwa_connection_cntl_server_is_gone(cntl)) {
            gwa_connection_cntl_reinit(cntl);
            return GWA_JUMP_NONE;
        }
    }
    GWA_LOG(CREATE, "connection manage exit success");
    return GWA_JUMP_NONE;
}

int gwa_connection_cntl_exit(gwa_connection_cntl* cntl) {
    GWA_LOG(INFO, "connection cntl exit ...");
    if (cntl->initialised) {
        GWA_LOG(INFO, "poll exit");
        poll_exit(&cntl->poller);  // closes the socket, which is registered there, and forgets it
        GWA_LOG(INFO, "destroy output queue");
        drop_queue(cntl);  // a reporter's timer may still come with a frame afterwards
        cntl->initialised = false;
    }
    GWA_LOG(INFO, "connection cntl exit success");
    return GWA_OK;
}

void gwa_connection_cntl_handle(uint32_t events, void* argument) {
    gwa_connection_cntl* const cntl = static_cast<gwa_connection_cntl*>(argument);
    if (cntl == nullptr) {
        GWA_LOG(ERROR, "arg is null");
        return;
    }
    if ((events & EPOLLIN) != 0) {
        gwa_connection_cntl_remote_in_handle(cntl);
    }
    if ((events & EPOLLOUT) != 0) {
        gwa_connection_cntl_remote_out_handle(cntl);
    }
}
