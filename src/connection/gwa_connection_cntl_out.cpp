#include "connection/gwa_connection_cntl_out.h"

#include <sys/ioctl.h>

#include <cerrno>
#include <cstring>

#include "connection/gwa_connection_cntl_in.h"
#include "main/gwa_log.h"
#include "runtime/gwa_util_time.h"

namespace {

constexpr int SEND_LEVEL_MARKS[] = {16, 32, 64, 128, 256};  // bytes; level 5 lies above

}  // namespace

int gwa_connection_cntl_send_level(int unsent) {
    int level = 0;
    for (const int mark : SEND_LEVEL_MARKS) {
        level += unsent > mark ? 1 : 0;
    }
    return level;
}

// Refreshes the send level from what the kernel still holds. tty_ioctl(4), TIOCOUTQ.
static bool refresh_send_level(gwa_connection_cntl* cntl) {
    int unsent = 0;
    if (ioctl(cntl->socket, TIOCOUTQ, &unsent) == -1) {
        GWA_LOG(ERROR, "ioctl error on socket %d, %s, reinit", cntl->socket, strerror(errno));
        gwa_connection_cntl_reinit(cntl);
        return false;
    }
    cntl->send_level.store(gwa_connection_cntl_send_level(unsent), std::memory_order_relaxed);
    return true;
}

// A node has left. Of a heartbeat the answer is waited for, and nothing else done meanwhile: oddity
// 30.
static void sent_whole(gwa_connection_cntl* cntl, gwa_output_node* node) {
    if (gwa_protocol_is_heartbeat(node->data) == 1) {
        GWA_LOG(DEBUG, "wait heartbeat response");
        gwa_connection_cntl_next_frame_wait(cntl);
    }
    gwa_connection_cntl_node_done(cntl, node);
    gwa_counter_add(cntl->traffic.packets_out, 1);
}

// Sends a batch of one node. False: it must go back, and the pass ends.
static bool send_node(gwa_connection_cntl* cntl, list<gwa_output_node>* batch) {
    gwa_output_node* const node = batch->first();
    GWA_LOG(DEBUG, "send data to remote server");
    if ((node->flags & GWA_NODE_PARTLY_SENT) == 0) {
        gwa_protocol_show(node->data);
    }
    const auto expected = static_cast<int>(node->remaining);
    ssize_t bytes = gwa_connection_batch_send(batch, cntl->socket, &cntl->traffic);
    const auto sent = static_cast<int>(bytes);
    switch (gwa_connection_node_sent(node, &bytes)) {
        case gwa_sent::FAILED:
            GWA_LOG(DEBUG, "send to remote socket error fd %d %s", cntl->socket, strerror(errno));
            gwa_connection_cntl_reinit(cntl);
            return false;
        case gwa_sent::NOTHING:
            if (sent == 0) {
                GWA_LOG(DEBUG, "send to remote socket return 0");
            }
            return false;
        case gwa_sent::PART:
            cntl->heartbeat.last_out_time = gwa_now_get();
            GWA_LOG(DEBUG, "the data were not sended completely expect %d, but %d, remain %d",
                    expected, sent, expected - sent);
            return false;
        case gwa_sent::WHOLE: break;
    }
    cntl->heartbeat.last_out_time = gwa_now_get();
    GWA_LOG(DEBUG, "the data were sended completely expect %d", expected);
    return true;
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
        list<gwa_output_node> batch;
        batch.push_back(*node);
        if (!send_node(cntl, &batch)) {
            gwa_connection_put_back(&cntl->output, &batch);
            return;
        }
        list_unlink(*node);
        sent_whole(cntl, node);
    }
}

void gwa_connection_cntl_heartbeat_handle(gwa_connection_cntl* cntl) {
    GWA_LOG(INFO, "heartbeat for control ...");
    if (!gwa_connection_heartbeat_is_queued(&cntl->heartbeat)) {
        gwa_connection_head_enqueue(&cntl->output,
                                    gwa_connection_heartbeat_build(&cntl->heartbeat));
    }
    gwa_connection_cntl_remote_out_handle(cntl);
}

void gwa_connection_cntl_probe(gwa_connection_cntl* cntl) {
    switch (gwa_connection_silence(&cntl->heartbeat)) {
        case gwa_silence::NONE: break;
        case gwa_silence::OUT:
            GWA_LOG(REFUSAL, "cntl idle out too long, send a heartbeat");
            gwa_connection_cntl_heartbeat_handle(cntl);
            break;
        case gwa_silence::IN:
            GWA_LOG(REFUSAL, "cntl idle in too long, send a heartbeat");
            gwa_connection_cntl_heartbeat_handle(cntl);
            gwa_connection_silence_shorten(&cntl->heartbeat);  // after its answer
            break;
    }
}
