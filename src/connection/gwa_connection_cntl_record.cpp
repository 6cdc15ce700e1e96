#include "connection/gwa_connection_cntl_record.h"

#include "main/gwa_log.h"
#include "runtime/gwa_process.h"

namespace {

constexpr int32_t HEARTBEAT_MISSES_MAX = 3;

}  // namespace

void gwa_connection_cntl_report(gwa_connection_cntl* cntl, gwa_output_node* node) {
    if (cntl->reports.fetch_add(1, std::memory_order_relaxed) >= GWA_REPORTS_MAX) {
        cntl->reports.fetch_sub(1, std::memory_order_relaxed);
        GWA_LOG(ERROR, "too many reports wait, one of %u bytes is dropped", node->capacity);
        gwa_connection_node_free(node);
        return;
    }
    gwa_connection_remote_output_enqueue(&cntl->output, node);
}

void gwa_connection_cntl_node_done(gwa_connection_cntl* cntl, gwa_output_node* node) {
    if (node != &cntl->heartbeat.node) {
        cntl->reports.fetch_sub(1, std::memory_order_relaxed);
    }
    gwa_connection_node_free(node);
}

void gwa_connection_cntl_reinit(gwa_connection_cntl* cntl) {
    if (!gwa_process_running()) {
        return;  // a wait that ends because the daemon does is no failure
    }
    GWA_LOG(FATAL, "reinit connection cntl start ...");
    if (cntl->hooks.restart != nullptr) {
        cntl->hooks.restart();
    }
}

bool gwa_connection_cntl_server_is_gone(gwa_connection_cntl* cntl) {
    const bool gone = gwa_peer_is_gone(&cntl->peer, cntl->socket);
    if (gone) {
        GWA_LOG(ERROR, "remote server is gone, cntl");
    }
    return gone;
}

void gwa_connection_cntl_heartbeat_missed(gwa_connection_cntl* cntl) {
    cntl->heartbeat_misses++;
    if (cntl->heartbeat_misses >= HEARTBEAT_MISSES_MAX) {
        GWA_LOG(FATAL, "max heartbeat timeout counter overflow, reinit now");
        cntl->heartbeat_misses = 0;
        gwa_connection_cntl_reinit(cntl);
    }
}
