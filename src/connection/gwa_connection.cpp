#include "connection/gwa_connection.h"

#include <new>

static_assert(std::atomic<uint32_t>::is_always_lock_free);

// Made by gwa_connection_table_init and zero until then: what is initialised lies in the program's
// file, and this would be 4 KB of it.
static union zeroed_table {
    gwa_connection_table table;
    zeroed_table() {}
} storage;
gwa_connection_table& gwa_connections = storage.table;

void gwa_connection_table_init() {
    new (&gwa_connections) gwa_connection_table{};
    for (int id = 0; id < GWA_DATA_CONNECTIONS; id++) {
        gwa_connections.data[id].id = id;
    }
}
