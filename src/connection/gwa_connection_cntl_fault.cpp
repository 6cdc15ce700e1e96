#include "connection/gwa_connection_cntl_fault.h"

#include "main/gwa_restart.h"
#include "runtime/gwa_process.h"

void gwa_connection_cntl_reinit() {
    if (!gwa_process_running()) {
        return;  // a wait that ends because the daemon does is no failure
    }
    GWA_LOG(FATAL, "reinit connection cntl start ...");
    gwa_restart();
}

void gwa_connection_cntl_heartbeat_missed(gwa_connection_cntl* cntl) {
    constexpr int32_t MISSES_MAX = 3;
    cntl->heartbeat_misses++;
    if (cntl->heartbeat_misses >= MISSES_MAX) {
        GWA_LOG(FATAL, "max heartbeat timeout counter overflow, reinit now");
        cntl->heartbeat_misses = 0;
        gwa_connection_cntl_reinit();
    }
}
