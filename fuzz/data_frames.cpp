// data_frames - a logged-in data connection, round by round, with services that answer, take or
// stand still.
#include "connection/gwa_connection.h"
#include "connection/gwa_connection_data_round.h"
#include "runtime/gwa_util_time.h"
#include "support/clock.h"
#include "support/network.h"
#include "support/process.h"

// A server that has gone away is met at the next frame or never, so the rounds behind are counted.
static void relay_all(gwa_connection_data* conn, const server& relay) {
    constexpr int ROUNDS_AFTER_THE_END = 8;
    for (int left = ROUNDS_AFTER_THE_END; left > 0; left -= relay.has_ended() ? 1 : 0) {
        if (gwa_connection_data_round(conn) == gwa_step::CLOSED) {
            return;
        }
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    gwa_connection_data* const conn = &gwa_connections.data[0];
    process_run([=] {
        server relay({reinterpret_cast<const char*>(bytes), size});
        services local;
        network_accept = [&](uint16_t port) { return local.connection(port); };
        clock_others = [&] {
            relay.goes_on();
            local.go_on();
        };
        must(gwa_connection_data_init2(conn) == GWA_OK);
        conn->socket = relay.connection();
        must(poll_add(&conn->poller, conn->socket, gwa_connection_data_remote_handle, conn,
                      &conn->socket) == GWA_OK);
        conn->heartbeat.last_out_time = conn->heartbeat.last_in_time = conn->last_check_time =
            gwa_now_get();
        relay_all(conn, relay);
    });
    gwa_connection_data_free(conn);
    must(gwa_connection_memory(conn) == 0 && conn->output.count == 0 && conn->streams.count == 0 &&
         conn->streams.gone_count == 0 && conn->streams.waiting == 0);
    return 0;
}
