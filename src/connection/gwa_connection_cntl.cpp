#include "connection/gwa_connection_cntl.h"

#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "connection/gwa_connection_cntl_fault.h"
#include "connection/gwa_connection_cntl_in.h"
#include "connection/gwa_connection_data.h"
#include "runtime/gwa_process.h"
#include "runtime/gwa_util_socket.h"
#include "runtime/gwa_util_time.h"

namespace {

constexpr int WAIT_MS = 2000;
constexpr int PAUSE_US = 100000;
constexpr int32_t OUT_IDLE_S = 60;
constexpr int32_t IN_IDLE_S = 240;
constexpr int32_t IN_IDLE_BACKDATE_S = 180;  // the next such heartbeat follows in a minute
constexpr int SEND_LEVEL_MARKS[] = {16, 32, 64, 128, 256};  // bytes; level 5 lies above

}  // namespace

// Refreshes the send level from what the kernel still holds. tty_ioctl(4), TIOCOUTQ.
static bool refresh_send_level(gwa_connection_cntl* cntl) {
    int unsent = 0;
    if (ioctl(cntl->socket, TIOCOUTQ, &unsent) == -1) {
        GWA_LOG(ERROR, "ioctl error on socket %d, %s, reinit", cntl->socket, strerror(errno));
        gwa_connection_cntl_reinit();
        return false;
    }
    int level = 0;
    for (const int mark : SEND_LEVEL_MARKS) {
        level += unsent > mark ? 1 : 0;
    }
    cntl->send_level.store(level, std::memory_order_relaxed);
    return true;
}

static void node_done(gwa_connection_cntl* cntl, gwa_output_node* node) {
    if (node == &cntl->heartbeat_node) {
        cntl->heartbeat_queued = false;
    } else {
        cntl->reports.fetch_sub(1, std::memory_order_relaxed);
    }
    gwa_connection_node_free(node);
}

// Sends one node. False: the pass ends.
static bool send_node(gwa_connection_cntl* cntl, gwa_output_node* node) {
    GWA_LOG(DEBUG, "send data to remote server");
    if ((node->flags & GWA_NODE_PARTLY_SENT) == 0) {
        gwa_protocol_show(node->data);
    }
    const ssize_t sent = send(cntl->socket, node->cursor, node->remaining, MSG_NOSIGNAL);
    if (sent <= 0) {
        const bool failed = sent == -1 && errno != EAGAIN;
        if (failed) {
            GWA_LOG(DEBUG, "send to remote socket error fd %d %s", cntl->socket, strerror(errno));
        } else if (sent == 0) {
            GWA_LOG(DEBUG, "send to remote socket return 0");
        }
        gwa_connection_head_enqueue(&cntl->output, node);
        if (failed) {
            gwa_connection_cntl_reinit();
        }
        return false;
    }
    const uint32_t expected = node->remaining;
    gwa_counter_add(cntl->traffic.bytes_out, static_cast<uint32_t>(sent));
    cntl->last_out_time = gwa_now_get();
    node->cursor += sent;
    node->remaining -= static_cast<uint32_t>(sent);
    if (node->remaining > 0) {
        GWA_LOG(DEBUG, "the data were not sended completely expect %d, but %d, remain %d",
                static_cast<int>(expected), static_cast<int>(sent),
                static_cast<int>(node->remaining));
        node->flags |= GWA_NODE_PARTLY_SENT;
        gwa_connection_head_enqueue(&cntl->output, node);
        return false;
    }
    GWA_LOG(DEBUG, "the data were sended completely expect %d", static_cast<int>(expected));
    if (gwa_protocol_is_heartbeat(node->data) == 1) {
        GWA_LOG(DEBUG, "wait heartbeat response");
        gwa_connection_cntl_next_frame_wait(cntl);
    }
    node_done(cntl, node);
    gwa_counter_add(cntl->traffic.packets_out, 1);
    return true;
}

// Frees every queued node.
static void drop_queue(gwa_connection_cntl* cntl) {
    if (pthread_mutex_lock(&cntl->output.lock) == -1) {
        GWA_LOG(FATAL, "lock failed");
        GWA_EXIT(1);
    }
    while (gwa_output_node* const node = cntl->output.nodes.first()) {
        list_unlink(*node);
        node_done(cntl, node);
    }
    if (pthread_mutex_unlock(&cntl->output.lock) == -1) {
        GWA_LOG(ERROR, "unlock failed");
        GWA_EXIT(1);
    }
}

// Heartbeats by the clock: after silence from us, or else after silence from the server.
static void probe(gwa_connection_cntl* cntl) {
    if (gwa_seconds_since(cntl->last_out_time) > OUT_IDLE_S) {
        GWA_LOG(REFUSAL, "cntl idle out too long, send a heartbeat");
        gwa_connection_cntl_heartbeat_handle();
    } else if (gwa_seconds_since(cntl->last_in_time) > IN_IDLE_S) {
        GWA_LOG(REFUSAL, "cntl idle in too long, send a heartbeat");
        gwa_connection_cntl_heartbeat_handle();
        // From now on, not from before the heartbeat: its answer may have taken a while.
        cntl->last_in_time = gwa_moment_before(gwa_now_get(), IN_IDLE_BACKDATE_S);
    }
}

int gwa_connection_cntl_init(int fd) {
    gwa_connection_cntl* const cntl = &gwa_connections.cntl;
    GWA_LOG(CREATE, "connection cntl init ...");
    const int one = 1;
    if (setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one) == -1) {
        GWA_LOG(ERROR, "setsockopt TCP_NODELAY failed");
    }
    if (gwa_connection_queue_init(&cntl->output) != GWA_OK) {
        GWA_LOG(ERROR, "init mutex failed");
        return GWA_FAILED;
    }
    drop_queue(cntl);  // a reporter may have queued something while there was no connection
    cntl->send_level.store(0, std::memory_order_relaxed);
    cntl->header_have = 0;
    cntl->socket = fd;
    if (poll_init(&cntl->poller) != GWA_OK) {
        GWA_LOG(DEBUG, "init epoll failed");
        cntl->socket = -1;
        return GWA_FAILED;
    }
    GWA_LOG(INFO, "create poll set fd %d success", cntl->poller.epfd);
    cntl->poller.timeout = WAIT_MS;
    if (poll_add(&cntl->poller, fd, gwa_connection_cntl_handle, cntl, &cntl->socket) != GWA_OK) {
        GWA_LOG(DEBUG, "add listen socket to poll failed");
        poll_exit(&cntl->poller);
        cntl->socket = -1;  // the caller closes it
        return GWA_FAILED;
    }
    cntl->initialised = true;
    GWA_LOG(CREATE, "connection cntl init success");
    return GWA_OK;
}

int gwa_connection_cntl_manage() {
    gwa_connection_cntl* const cntl = &gwa_connections.cntl;
    GWA_LOG(CREATE, "connection manage ...");
    cntl->last_out_time = gwa_now_get();
    if (cntl->last_in_time == 0) {  // nothing has come in yet: the first heartbeat is due at once
        cntl->last_in_time = gwa_moment_never();
    }
    while (gwa_process_running()) {
        const int jump = gwa_process_jump.exchange(GWA_JUMP_NONE, std::memory_order_relaxed);
        if (jump != GWA_JUMP_NONE) {
            return jump;
        }
        if (poll_wait(&cntl->poller) == GWA_FAILED) {
            GWA_LOG(FATAL, "epoll error, cntl");
            gwa_connection_cntl_reinit();
            return GWA_JUMP_NONE;  // the run flag is clear
        }
        gwa_connection_cntl_remote_in_handle(cntl);
        gwa_usleep(PAUSE_US);
        gwa_connection_cntl_remote_out_handle(cntl);
        probe(cntl);
    }
    GWA_LOG(CREATE, "connection manage exit success");
    return GWA_JUMP_NONE;
}

int gwa_connection_cntl_exit() {
    gwa_connection_cntl* const cntl = &gwa_connections.cntl;
    GWA_LOG(INFO, "connection cntl exit ...");
    if (cntl->initialised) {
        GWA_LOG(INFO, "poll exit");
        poll_exit(&cntl->poller);  // closes the socket, which is registered there
        if (cntl->socket >= 0) {
            close(cntl->socket);
            cntl->socket = -1;
        }
        GWA_LOG(INFO, "destroy output queue");
        // The lock stays: a reporter's timer may still come with a frame.
        drop_queue(cntl);
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

void gwa_connection_cntl_remote_out_handle(gwa_connection_cntl* cntl) {
    if (cntl == nullptr) {
        GWA_LOG(DEBUG, "connction is null");
        return;
    }
    if (!refresh_send_level(cntl)) {
        return;
    }
    while (gwa_output_node* const node = gwa_connection_dequeue(&cntl->output)) {
        if (!send_node(cntl, node)) {
            return;
        }
    }
}

void gwa_connection_cntl_heartbeat_handle() {
    gwa_connection_cntl* const cntl = &gwa_connections.cntl;
    GWA_LOG(INFO, "heartbeat for control ...");
    if (!cntl->heartbeat_queued) {  // else the one frame there is has not left yet
        gwa_connection_heartbeat_build(&cntl->heartbeat_node, cntl->heartbeat_frame,
                                       cntl->heartbeat_seq);
        cntl->heartbeat_seq++;
        cntl->heartbeat_queued = true;
        gwa_connection_head_enqueue(&cntl->output, &cntl->heartbeat_node);
    }
    gwa_connection_cntl_remote_out_handle(cntl);
}

int gwa_connection_all_destroy() {
    for (gwa_connection_data& conn : gwa_connections.data) {
        conn.flags.store(GWA_CONNECTION_STOP, std::memory_order_release);
        GWA_LOG(FATAL, "signal to stop thread %d", conn.id);
    }
    gwa_connection_run.store(0, std::memory_order_relaxed);
    for (gwa_connection_data& conn : gwa_connections.data) {
        const int error = conn.thread_started ? pthread_join(conn.thread, nullptr) : ESRCH;
        if (error != 0) {
            GWA_LOG(ERROR, "join thread id %d failed, %s", conn.id, strerror(error));
        }
        conn.thread_started = false;
        gwa_connection_data_exit(&conn);
    }
    return GWA_OK;
}
