#include "connection/gwa_connection_data.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include "connection/gwa_connection_data_login.h"
#include "connection/gwa_connection_data_round.h"
#include "main/gwa_log.h"
#include "runtime/gwa_process.h"
#include "runtime/gwa_util_thread.h"
#include "runtime/gwa_util_time.h"

namespace {

constexpr int START_SPREAD_US = 2000;
constexpr int SERVICE_OFF_PAUSE_US = 100000;

// How a pass of a worker ends: with the next one, with the connection closed, or for good.
enum class pass_end : uint8_t { AGAIN, CLOSED, ENDED };

}  // namespace

// Relays until the connection closes or the service is switched off.
static gwa_step gwa_connection_data_manage(gwa_connection_data* conn) {
    const int32_t now = gwa_now_get();
    conn->heartbeat.last_out_time = now;
    conn->heartbeat.last_in_time = now;
    conn->last_check_time = now;
    while (gwa_connection_running()) {
        if (gwa_connection_data_round(conn) == gwa_step::CLOSED) {
            return gwa_step::CLOSED;
        }
    }
    return gwa_step::GOES_ON;
}

// Takes up a request to go to the address anew.
static void take_reinit(gwa_connection_data* conn) {
    if ((conn->flags.load(std::memory_order_acquire) & GWA_CONNECTION_REINIT) != 0) {
        GWA_LOG(FATAL, "reinit the data conn %d", conn->id);
        conn->flags.fetch_and(~static_cast<uint32_t>(GWA_CONNECTION_REINIT));
        conn->order.server_address = 0;
    }
}

// Whether there is an address that has not been replaced, after a wait for one if need be. A login
// never goes to address 0.
static bool has_address(gwa_connection_data* conn) {
    return (conn->order.server_address != 0 && !gwa_connection_data_order_waits(conn)) ||
           gwa_connection_data_addr_init(conn);
}

// One login and the relaying that follows from it.
static pass_end connect_and_relay(gwa_connection_data* conn) {
    if (gwa_connection_data_init2(conn) != GWA_OK) {
        GWA_LOG(ERROR, "init connection data failed");
        return pass_end::ENDED;
    }
    if (gwa_connection_data_login(conn)) {
        if (gwa_connection_data_manage(conn) == gwa_step::CLOSED) {
            return pass_end::CLOSED;
        }
    } else if (!gwa_connection_running()) {
        gwa_usleep(SERVICE_OFF_PAUSE_US);  // do not spin until it is decided what comes next
    }
    gwa_connection_data_free(conn);
    return pass_end::AGAIN;
}

static pass_end pass(gwa_connection_data* conn) {
    take_reinit(conn);
    const pass_end end = has_address(conn) ? connect_and_relay(conn) : pass_end::AGAIN;
    if (end != pass_end::AGAIN) {
        return end;
    }
    if (gwa_process_running() && gwa_connection_data_told_to_stop(conn)) {
        GWA_LOG(FATAL, "recv stop signal, this thread %d", conn->id);
    }
    return gwa_connection_data_must_end(conn) ? pass_end::ENDED : pass_end::AGAIN;
}

// From the address on, until the connection closes or the thread is to end.
static pass_end work(gwa_connection_data* conn) {
    gwa_connection_data_addr_init(conn);
    // Oddity 26: the seed itself, not the number drawn with it, so that all workers pause alike.
    unsigned int seed = 0;
    rand_r(&seed);
    gwa_usleep(static_cast<int>(seed % START_SPREAD_US));
    if (!gwa_process_running()) {
        return pass_end::ENDED;
    }
    if (gwa_connection_data_told_to_stop(conn)) {
        GWA_LOG(FATAL, "recv stop signal, this thread %d", conn->id);
        return pass_end::ENDED;
    }
    pass_end end = pass_end::AGAIN;
    while (end == pass_end::AGAIN) {
        end = pass(conn);
    }
    return end;
}

static void* gwa_connection_data_task(void* argument) {
    gwa_connection_data* const conn = static_cast<gwa_connection_data*>(argument);
    if (conn == nullptr) {
        GWA_LOG(ERROR, "arg is null");
        return nullptr;
    }
    GWA_LOG(FATAL, "thread %u start id %d ...", gwa_gettid(), conn->id);
    while (work(conn) == pass_end::CLOSED) {
        GWA_LOG(PROGRESS, "long jump from %d here", GWA_JUMP_RESTART);
        GWA_LOG(FATAL, "reinit thread %u id %d now", gwa_gettid(), conn->id);
    }
    return nullptr;
}

int gwa_connection_data_init(gwa_connection_data (*table)[GWA_DATA_CONNECTIONS]) {
    if (table == nullptr) {
        GWA_LOG(ERROR, "conn is null");
        GWA_BROKEN_RULE();
    }
    for (int id = 0; id < GWA_DATA_CONNECTIONS; id++) {
        gwa_connection_data* const conn = new (&(*table)[id]) gwa_connection_data{};
        conn->id = id;
        const int error = gwa_thread_create(&conn->thread, gwa_connection_data_task, conn);
        if (error != 0) {
            GWA_LOG(FATAL, "create thread failed, %s", strerror(error));
            continue;
        }
        conn->thread_started = true;
    }
    return GWA_OK;
}

// Waits for the end of a worker. 0 or -1.
static int gwa_connection_data_exit(gwa_connection_data* conn) {
    const int error = conn->thread_started ? pthread_join(conn->thread, nullptr) : ESRCH;
    conn->thread_started = false;
    if (error != 0) {
        GWA_LOG(ERROR, "join thread id %d failed, %s", conn->id, strerror(error));
        return GWA_FAILED;
    }
    return GWA_OK;
}

int gwa_connection_all_destroy(gwa_connection_data (*table)[GWA_DATA_CONNECTIONS]) {
    for (gwa_connection_data& conn : *table) {
        conn.flags.store(GWA_CONNECTION_STOP, std::memory_order_release);
        GWA_LOG(FATAL, "signal to stop thread %d", conn.id);
    }
    gwa_connection_run.store(0, std::memory_order_relaxed);
    for (gwa_connection_data& conn : *table) {
        gwa_connection_data_exit(&conn);
    }
    return GWA_OK;
}
