#include "connection/gwa_connection_data_addr.h"

#include <arpa/inet.h>

#include "main/gwa_log.h"
#include "runtime/gwa_process.h"
#include "runtime/gwa_util_net.h"
#include "runtime/gwa_util_time.h"

namespace {

constexpr int ORDER_SPACING_S = 1;
constexpr int RESOLVE_RETRY_S = 4;

}  // namespace

static uint32_t flags_of(const gwa_connection_data* conn) {
    return conn->flags.load(std::memory_order_acquire);
}

bool gwa_connection_data_told_to_stop(const gwa_connection_data* conn) {
    return (flags_of(conn) & GWA_CONNECTION_STOP) != 0;
}

bool gwa_connection_data_must_end(const gwa_connection_data* conn) {
    return !gwa_process_running() || gwa_connection_data_told_to_stop(conn);
}

void gwa_connection_data_pause_s(const gwa_connection_data* conn, int seconds) {
    for (int slept = 0; slept < seconds; slept++) {
        if (gwa_connection_data_must_end(conn) || gwa_connection_data_order_waits(conn)) {
            return;
        }
        gwa_sleep(1);
    }
}

static void order_give(gwa_data_order* order, const char (&domain)[GWA_HOST_SIZE], uint16_t port) {
    const gwa_lock held(order->lock);
    text_copy(order->ordered_domain, domain);
    order->ordered_port = port;
    order->serial.fetch_add(1, std::memory_order_relaxed);  // the lock orders the rest
}

static void order_take(gwa_data_order* order) {
    const gwa_lock held(order->lock);
    text_copy(order->domain, order->ordered_domain);
    order->port = order->ordered_port;
    order->taken = order->serial.load(std::memory_order_relaxed);
}

void gwa_connection_data_order_all(gwa_connection_data (*table)[GWA_DATA_CONNECTIONS],
                                   const gwa_host_list& servers) {
    gwa_connection_run.store(1, std::memory_order_relaxed);
    for (gwa_connection_data& conn : *table) {
        if (!gwa_process_running()) {
            return;  // told to end during the pauses
        }
        order_give(&conn.order, servers.hosts[conn.id], servers.ports[conn.id]);
        GWA_LOG(FATAL, "notify thread data conn %d to init", conn.id);
        conn.flags.store(GWA_CONNECTION_ADDRESS_SET, std::memory_order_release);
        gwa_sleep(ORDER_SPACING_S);
    }
}

bool gwa_connection_data_order_waits(const gwa_connection_data* conn) {
    return conn->order.serial.load(std::memory_order_relaxed) != conn->order.taken;
}

// Waits for an order. False: the thread is to end.
static bool order_wait(gwa_connection_data* conn) {
    GWA_LOG(DEBUG, "wait the control to init data addr");
    const gwa_data_order& order = conn->order;
    while (!gwa_connection_data_must_end(conn)) {
        if ((flags_of(conn) & (GWA_CONNECTION_ADDRESS_SET | GWA_CONNECTION_REINIT)) != 0) {
            order_take(&conn->order);
            if (order.port != 0 && order.domain[0] != '\0') {
                GWA_LOG(DEBUG, "connection %d domain %s port %d", conn->id, order.domain,
                        order.port);
                return true;
            }
        }
        gwa_sleep(1);
    }
    return false;
}

// The domain as an IPv4 address in host order, or 0.
static uint32_t resolve(const char* domain) {
    in_addr address{};
    if (inet_pton(AF_INET, domain, &address) == 1) {
        return ntohl(address.s_addr);
    }
    uint32_t found = 0;
    return gwa_getaddrinfo(domain, &found, nullptr, 0) == GWA_OK ? ntohl(found) : 0;
}

bool gwa_connection_data_addr_init(gwa_connection_data* conn) {
    while (order_wait(conn)) {
        while (!gwa_connection_data_must_end(conn) && !gwa_connection_data_order_waits(conn)) {
            conn->order.server_address = resolve(conn->order.domain);
            if (conn->order.server_address != 0) {
                return true;
            }
            GWA_LOG(FATAL, "resolve domain failed, %s", conn->order.domain);
            gwa_connection_data_pause_s(conn, RESOLVE_RETRY_S);
        }
    }
    return false;
}

void gwa_connection_data_re_resolve(gwa_connection_data* conn, int failed_logins) {
    gwa_data_order& order = conn->order;
    GWA_LOG(RESULT, "try to login server 0x%08x:%d more than %d times, but all failed",
            order.server_address, order.port, failed_logins);
    const uint32_t address = resolve(order.domain);
    if (address == 0) {
        return;
    }
    char text[INET_ADDRSTRLEN] = "";
    const in_addr wire{htonl(address)};
    inet_ntop(AF_INET, &wire, text, sizeof text);
    GWA_LOG(FATAL, "re-resolve the domain %s to %s", order.domain, text);
    order.server_address = address;
}
