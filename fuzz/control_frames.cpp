// control_frames - a logged-in control connection, from its loop on: heartbeats, orders, session
// ids, reporting times, in whatever pieces they come.
#include "connection/gwa_connection.h"
#include "connection/gwa_connection_cntl.h"
#include "connection/gwa_connection_data_addr.h"
#include "reporters/dlna_status.h"
#include "support/clock.h"
#include "support/network.h"
#include "support/process.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    gwa_connection_cntl* const cntl = &gwa_connections.cntl;
    process_run([=] {
        server relay({reinterpret_cast<const char*>(bytes), size});
        clock_others = [&] { relay.goes_on(); };
        cntl->hooks.restart = process_ends;
        cntl->hooks.order = [](const gwa_host_list& servers) {
            gwa_connection_data_order_all(&gwa_connections.data, servers);
        };
        cntl->hooks.reporting_times = dlna_status_interval_set;
        must(gwa_connection_cntl_init(cntl, relay.connection()) == GWA_OK);
        gwa_connection_cntl_manage(cntl);
    });
    clock_others = [] {};
    gwa_connection_cntl_exit(cntl);
    must(cntl->reports == 0);
    return 0;
}
