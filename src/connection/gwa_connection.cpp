#include "connection/gwa_connection.h"

#include <new>

static_assert(std::atomic<uint32_t>::is_always_lock_free);

gwa_connection_table gwa_connections;

void gwa_connection_table_init() {
    new (&gwa_connections) gwa_connection_table{};
    for (int id = 0; id < GWA_DATA_CONNECTIONS; id++) {
        gwa_connections.data[id].id = id;
    }
}
