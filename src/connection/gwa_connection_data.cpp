#include "connection/gwa_connection_data.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <new>

#include "connection/gwa_connection_data_close.h"
#include "connection/gwa_connection_data_in.h"
#include "connection/gwa_connection_data_out.h"
#include "connection/gwa_stream.h"
#include "login/gwa_login_handshake.h"
#include "runtime/gwa_process.h"
#include "runtime/gwa_util_net.h"
#include "runtime/gwa_util_thread.h"
#include "runtime/gwa_util_time.h"

namespace {

constexpr int WAIT_BUSY_MS = 100;
constexpr int WAIT_IDLE_MS = 1000;
constexpr int PAUSE_US = 100;
constexpr int START_SPREAD_US = 2000;
constexpr int RESOLVE_RETRY_S = 4;
constexpr int LOGIN_ATTEMPTS = 3;
constexpr int LOGIN_RETRY_S = 10;
constexpr int32_t OUT_IDLE_S = 60;
constexpr int32_t IN_IDLE_S = 240;
constexpr int32_t CHECK_INTERVAL_S = 600;
constexpr int32_t STREAM_IDLE_S = 300;
constexpr size_t ADDRESS_TEXT_SIZE = 16;

}  // namespace

static uint32_t flags_of(const gwa_connection_data* conn) {
    return conn->flags.load(std::memory_order_acquire);
}

static bool told_to_stop(const gwa_connection_data* conn) {
    return (flags_of(conn) & GWA_CONNECTION_STOP) != 0;
}

static bool must_end(const gwa_connection_data* conn) {
    return !gwa_process_running() || told_to_stop(conn);
}

// Sleeps in steps of a second, so that a stop or a newer order does not have to wait.
static void pause_s(const gwa_connection_data* conn, int seconds) {
    for (int slept = 0; slept < seconds; slept++) {
        if (must_end(conn) || gwa_connection_order_waits(conn)) {
            return;
        }
        gwa_sleep(1);
    }
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

// Waits for an order. False: the thread is to end.
static bool wait_for_order(gwa_connection_data* conn) {
    GWA_LOG(DEBUG, "wait the control to init data addr");
    while (!must_end(conn)) {
        if ((flags_of(conn) & (GWA_CONNECTION_ADDRESS_SET | GWA_CONNECTION_REINIT)) != 0) {
            gwa_connection_order_take(conn);
            if (conn->port != 0 && conn->domain[0] != '\0') {
                GWA_LOG(DEBUG, "connection %d domain %s port %d", conn->id, conn->domain,
                        conn->port);
                return true;
            }
        }
        gwa_sleep(1);
    }
    return false;
}

// Waits for an order and resolves it; a newer order replaces one that cannot be resolved. False:
// the thread is to end.
static bool addr_init(gwa_connection_data* conn) {
    while (wait_for_order(conn)) {
        while (!must_end(conn) && !gwa_connection_order_waits(conn)) {
            conn->server_address = resolve(conn->domain);
            if (conn->server_address != 0) {
                return true;
            }
            GWA_LOG(FATAL, "resolve domain failed, %s", conn->domain);
            pause_s(conn, RESOLVE_RETRY_S);
        }
    }
    return false;
}

// Exception 40. The login needs whole headers to wake it; relaying has to see the last bytes of a
// frame as well, which the login's low-water mark would hide from the poller. And frames are not
// whole segments: the end of each answer would wait for the server's delayed acknowledgement, and
// the send-buffer check with it. Either failure only costs speed.
static void relaying_settings_apply(int fd) {
    const int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_RCVLOWAT, &one, sizeof one);
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

static bool login_once(gwa_connection_data* conn) {
    const int fd = gwa_login_data(conn->server_address, conn->port);
    if (fd == -1) {
        GWA_LOG(FATAL, "login server failed");
        return false;
    }
    relaying_settings_apply(fd);
    conn->socket = fd;
    if (poll_add(&conn->poller, fd, gwa_connection_data_remote_handle, conn, &conn->socket) !=
        GWA_OK) {
        close(fd);
        conn->socket = -1;
        GWA_LOG(DEBUG, "add socket to poll failed");
        return false;
    }
    return true;
}

static void re_resolve(gwa_connection_data* conn) {
    GWA_LOG(RESULT, "try to login server 0x%08x:%d more than %d times, but all failed",
            conn->server_address, conn->port, LOGIN_ATTEMPTS);
    const uint32_t address = resolve(conn->domain);
    if (address == 0) {
        return;
    }
    char text[ADDRESS_TEXT_SIZE] = "";
    const in_addr wire{htonl(address)};
    inet_ntop(AF_INET, &wire, text, sizeof text);
    GWA_LOG(FATAL, "re-resolve the domain %s to %s", conn->domain, text);
    conn->server_address = address;
}

// Up to three attempts. False: no login, for whatever reason.
static bool login(gwa_connection_data* conn) {
    for (int attempt = 0; attempt < LOGIN_ATTEMPTS; attempt++) {
        if (!gwa_connection_running() || gwa_connection_order_waits(conn)) {
            return false;
        }
        if (login_once(conn)) {
            return true;
        }
        pause_s(conn, LOGIN_RETRY_S);
    }
    if (!must_end(conn)) {
        re_resolve(conn);
    }
    return false;
}

static void manage(gwa_connection_data* conn) {
    while (gwa_connection_running()) {
        if (!gwa_connection_data_round(conn)) {
            GWA_LOG(FATAL, "epoll error conn %d", conn->id);
            if (gwa_connection_running()) {
                gwa_connection_data_close(conn);
            }
            return;
        }
    }
}

// One login and what follows from it. False: the thread is to end.
static bool pass(gwa_connection_data* conn) {
    if ((flags_of(conn) & GWA_CONNECTION_REINIT) != 0) {
        GWA_LOG(FATAL, "reinit the data conn %d", conn->id);
        conn->flags.fetch_and(~static_cast<uint32_t>(GWA_CONNECTION_REINIT));
        conn->server_address = 0;
    }
    // A login never goes to address 0 or to an address that has been replaced.
    const bool has_address = conn->server_address != 0 && !gwa_connection_order_waits(conn);
    if (has_address || addr_init(conn)) {
        if (gwa_connection_data_init2(conn) != GWA_OK) {
            GWA_LOG(ERROR, "init connection data failed");
            return false;
        }
        if (login(conn)) {
            const int32_t now = gwa_now_get();
            conn->last_out_time = now;
            conn->last_in_time = now;
            conn->last_check_time = now;
            manage(conn);
        } else if (!gwa_connection_running()) {
            gwa_usleep(WAIT_BUSY_MS * 1000);  // the service is off: do not spin until it is decided
        }
        gwa_connection_data_free(conn);
    }
    if (gwa_process_running() && told_to_stop(conn)) {
        GWA_LOG(FATAL, "recv stop signal, this thread %d", conn->id);
    }
    return !must_end(conn);
}

// From the address to the end of the thread.
static void work(gwa_connection_data* conn) {
    addr_init(conn);
    // Oddity 26: the seed itself, not the number drawn with it, so that all workers pause alike.
    unsigned int seed = 0;
    rand_r(&seed);
    gwa_usleep(static_cast<int>(seed % START_SPREAD_US));
    if (!gwa_process_running()) {
        return;
    }
    if (told_to_stop(conn)) {
        GWA_LOG(FATAL, "recv stop signal, this thread %d", conn->id);
        return;
    }
    while (pass(conn)) {
    }
}

static void* gwa_connection_data_task(void* argument) {
    gwa_connection_data* const conn = static_cast<gwa_connection_data*>(argument);
    if (conn == nullptr) {
        GWA_LOG(ERROR, "arg is null");
        return nullptr;
    }
    GWA_LOG(FATAL, "thread %u start id %d ...", gwa_gettid(), conn->id);
    switch (setjmp(conn->restart_point)) {  // tested in place, as the standard wants
        case 0: break;
        case GWA_JUMP_RESTART:  // whoever jumped has freed everything
            GWA_LOG(PROGRESS, "long jump from %d here", conn->jump_code);
            GWA_LOG(FATAL, "reinit thread %u id %d now", gwa_gettid(), conn->id);
            break;
        case GWA_JUMP_EXIT:
            GWA_LOG(PROGRESS, "long jump from %d here", conn->jump_code);
            GWA_LOG(FATAL, "exit process now");
            GWA_EXIT(0);
        default:
            GWA_LOG(PROGRESS, "long jump from %d here", conn->jump_code);
            GWA_LOG(DEBUG, "unknown jump code %d", conn->jump_code);
            GWA_BROKEN_RULE();
    }
    work(conn);
    return nullptr;
}

// Heartbeat, or else keepalive. Whether one of the two was due.
static bool probe(gwa_connection_data* conn) {
    if (gwa_connection_data_discards_extra(conn)) {
        return false;  // the answer would be thrown away with the rest
    }
    if (gwa_seconds_since(conn->last_out_time) > OUT_IDLE_S) {
        gwa_connection_data_heartbeat_handle(conn);
        return true;
    }
    if (gwa_seconds_since(conn->last_in_time) > IN_IDLE_S) {
        gwa_connection_data_keepalive_handle(conn);
        return true;
    }
    return false;
}

int gwa_connection_data_init(gwa_connection_data (*table)[GWA_DATA_CONNECTIONS]) {
    if (table == nullptr) {
        GWA_LOG(ERROR, "conn is null");
        GWA_BROKEN_RULE();
    }
    for (int id = 0; id < GWA_DATA_CONNECTIONS; id++) {
        gwa_connection_data* const conn = new (&(*table)[id]) gwa_connection_data{};
        conn->id = id;
        gwa_connection_heartbeat_build(&conn->heartbeat_node, conn->heartbeat_frame, 0);
        const int error = gwa_thread_create(&conn->thread, gwa_connection_data_task, conn);
        if (error != 0) {
            GWA_LOG(FATAL, "create thread failed, %s", strerror(error));
            continue;
        }
        conn->thread_started = true;
    }
    return GWA_OK;
}

int gwa_connection_data_exit(gwa_connection_data* conn) {
    if (conn->output.ready && pthread_mutex_destroy(&conn->output.lock) != 0) {
        GWA_LOG(ERROR, "destroy mutex failed");
        return GWA_FAILED;
    }
    conn->output.ready = false;
    return GWA_OK;
}

void gwa_connection_data_remote_handle(uint32_t events, void* argument) {
    gwa_connection_data* const conn = static_cast<gwa_connection_data*>(argument);
    if (conn == nullptr) {
        GWA_LOG(ERROR, "arg is null");
        return;
    }
    if ((events & EPOLLIN) != 0) {
        gwa_connection_data_remote_in_handle(conn);
    }
    if ((events & EPOLLOUT) != 0) {
        conn->out_pending = 0;
        gwa_connection_data_remote_out_handle(conn);
    }
}

static bool has_output(gwa_connection_data* conn) {
    return gwa_connection_queue_is_empty(&conn->output) == 0;
}

bool gwa_connection_data_has_more(gwa_connection_data* conn) {
    const bool blocked =
        conn->out_state == gwa_out_state::BLOCKED || conn->out_state == gwa_out_state::PARTLY_SENT;
    const bool local_data = conn->streams_have_more && !conn->streams.empty() &&
                            gwa_connection_memory(conn) < GWA_MEMORY_LIMIT;
    return conn->input_has_more || local_data || (has_output(conn) && !blocked);
}

static bool has_memory(const gwa_connection_data* conn) {
    return gwa_connection_memory(conn) < GWA_MEMORY_LIMIT;
}

// The round's input pass. Streams that have waited for memory do not wait any longer when the
// server closes one that held it.
static void input_again(gwa_connection_data* conn) {
    const bool was_short = !has_memory(conn);
    gwa_connection_data_remote_in_handle(conn);
    if (was_short && has_memory(conn)) {
        gwa_stream_local_in_wakeup(&conn->streams);
    }
}

bool gwa_connection_data_round(gwa_connection_data* conn) {
    if (gwa_connection_order_waits(conn)) {
        gwa_connection_data_close(conn);  // log in anew, to the new address
    }
    const bool busy = !conn->streams.empty() || has_output(conn);
    conn->poller.timeout = busy ? WAIT_BUSY_MS : WAIT_IDLE_MS;
    conn->poller.no_wait = gwa_connection_data_has_more(conn);
    if (poll_wait(&conn->poller) == GWA_FAILED) {
        return false;
    }
    if (has_output(conn)) {
        conn->out_pending = 1;
        gwa_connection_data_remote_out_handle(conn);
    }
    if (has_memory(conn)) {
        gwa_stream_local_in_wakeup(&conn->streams);
    }
    const bool read_again = conn->in_state != gwa_in_state::DRAINED;
    if (read_again) {
        input_again(conn);
    }
    const bool probed = probe(conn);
    if (gwa_seconds_since(conn->last_check_time) > CHECK_INTERVAL_S) {
        gwa_connection_data_buffer_timeout_check(conn);
        gwa_connection_data_stream_idle_check(conn);
        conn->last_check_time = gwa_now_get();
    }
    if (!read_again || probed) {
        gwa_usleep(PAUSE_US);
    }
    return true;
}

int gwa_connection_data_init2(gwa_connection_data* conn) {
    list_reset(conn->streams.head);
    conn->stream_count.store(0, std::memory_order_relaxed);
    conn->streams_have_more = false;
    conn->blocked_since = 0;
    list_reset(conn->output.nodes.head);
    conn->queue_count.store(0, std::memory_order_relaxed);
    conn->socket = -1;
    conn->in_state = gwa_in_state::DRAINED;
    conn->out_state = gwa_out_state::IDLE;
    conn->input_has_more = false;
    gwa_connection_input_next(conn);
    conn->heartbeat_resp = conn->heartbeat_seq;
    conn->heartbeat_queued = false;
    if (gwa_connection_queue_init(&conn->output) != GWA_OK) {
        GWA_LOG(ERROR, "init mutex failed");
        return GWA_FAILED;
    }
    if (poll_init(&conn->poller) != GWA_OK) {
        GWA_LOG(RESULT, "init epoll failed");
        return GWA_FAILED;
    }
    conn->poller.timeout = WAIT_BUSY_MS;
    return GWA_OK;
}

void gwa_connection_data_stream_idle_check(gwa_connection_data* conn) {
    GWA_LOG(CREATE, "check idle stream now, conn id %d", conn->id);
    for (gwa_stream& stream : conn->streams) {
        if (gwa_seconds_since(stream.last_activity) > STREAM_IDLE_S) {
            GWA_LOG(ERROR, "stream idle too long time, stream id %d", static_cast<int>(stream.id));
            gwa_stream_free(&stream);
        }
    }
}
