#include "connection/gwa_connection_request.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "connection/gwa_connection_request_debug.h"
#include "connection/gwa_stream_give_up.h"
#include "connection/gwa_stream_in.h"
#include "login/gwa_login.h"
#include "main/gwa_log.h"
#include "runtime/gwa_process.h"
#include "runtime/gwa_scoped_fd.h"
#include "runtime/gwa_util_http.h"
#include "runtime/gwa_util_memory.h"
#include "runtime/gwa_util_socket.h"
#include "runtime/gwa_util_socket_wait.h"
#include "runtime/gwa_util_time.h"

namespace {

constexpr size_t URI_SIZE = 4096;
constexpr size_t PARAMETER_SIZE = 128;
constexpr int LOCAL_PORT_MAX = 65534;  // oddity 7
constexpr int CONNECT_LIMIT_S = 10;
constexpr int32_t DEFAULT_PRIORITY = 4;

struct request {
    char uri[URI_SIZE];
    int32_t port;
    int32_t priority;
};

// What came with the frame.
struct payload_view {
    const uint8_t* bytes;
    uint32_t length;
};

}  // namespace

static int int_parameter(const char* uri, std::string_view name, int32_t* out) {
    return gwa_uri_param_int_get(uri, name.data(), name.size(), out);
}

// Whether the request names this box.
static bool request_is_ours(const char* uri) {
    constexpr std::string_view name = "x-qv-devid";
    char id[PARAMETER_SIZE];
    size_t size = sizeof id;
    if (gwa_uri_param_str_get(uri, name.data(), name.size(), id, &size) != GWA_OK) {
        GWA_LOG(ERROR, "not contain x-qv-devid field");
        return false;
    }
    if (gwa_device_id == nullptr || strcmp(id, gwa_device_id) != 0) {
        GWA_LOG(REFUSAL, "the devid not mine, %s", id);
        return false;
    }
    return true;
}

// Reads and checks what a new stream needs to know. False: the request is refused, and logged.
static bool request_read(const gwa_stream* stream, payload_view payload, request* out) {
    const char* const head = reinterpret_cast<const char*>(payload.bytes);
    if (gwa_http_uri_get(head, payload.length, out->uri, sizeof out->uri) != GWA_OK) {
        GWA_LOG(ERROR, "get uri failed, conn %d stream id %u", stream->connection->id, stream->id);
        return false;
    }
    if (!request_is_ours(out->uri)) {
        return false;
    }
    out->port = 0;  // what the log shows for a port that is missing
    if (int_parameter(out->uri, "x-qv-port", &out->port) != GWA_OK || out->port < 1 ||
        out->port > LOCAL_PORT_MAX) {
        GWA_LOG(PROGRESS, "port is invalid, %d, url [%s] len %d", out->port, out->uri,
                static_cast<int>(strlen(out->uri)));
        return false;
    }
    GWA_LOG(INFO, "destination port is %d", out->port);
    out->priority = DEFAULT_PRIORITY;
    int_parameter(out->uri, "x-qv-pri", &out->priority);
    return true;
}

static gwa_stream* stream_new(gwa_connection_data* conn, uint32_t id) {
    gwa_stream* const stream = GWA_NEW(gwa_stream);
    gwa_connection_memory_charge(conn, GWA_STREAM_COUNTED);
    stream->id = id;
    stream->connection = conn;
    stream->last_activity = gwa_now_get();
    return stream;
}

// Releases a record that never became a stream of the connection.
static void stream_drop(gwa_stream* stream) {
    gwa_connection_memory_release(stream->connection, GWA_STREAM_COUNTED);
    free(stream);
}

static int local_socket() {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd == -1) {
        const int error = errno;
        GWA_LOG(ERROR, "socket failed %s", strerror(error));
        if (error == ENFILE || error == EMFILE) {
            // A leak or a limit that is too low; only a new process gets out of it.
            GWA_LOG(FATAL, "open too many files");
            GWA_EXIT(1);
        }
        return -1;
    }
    GWA_LOG(INFO, "create local socket %d", fd);
    return fd;
}

// Waits for the connection, but not for a service that takes none (exception 66).
static bool local_connect(int fd, int32_t port) {
    const sockaddr_in service =
        gwa_socket_address(gwa_login.local_address, static_cast<uint16_t>(port));
    const auto try_connect = [&] {
        return connect(fd, reinterpret_cast<const sockaddr*>(&service), sizeof service) == 0;
    };
    // A service on this box has mostly answered between the first two tries. connect(2): a further
    // try tells how the first has ended.
    if (try_connect() || (errno == EINPROGRESS && try_connect())) {
        return true;
    }
    return errno == EALREADY &&
           gwa_socket_wait(fd, POLLOUT, CONNECT_LIMIT_S) == gwa_wait_result::READY && try_connect();
}

// The socket is connected: the record becomes a stream and the request its first payload.
static void stream_begin(gwa_stream* stream, int fd, payload_view payload) {
    gwa_connection_data* const conn = stream->connection;
    // Exception 40: a request in several frames must not wait for delayed acknowledgements.
    const int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    stream->socket = fd;
    gwa_stream_add(&conn->streams.all, stream);
    conn->streams.count.fetch_add(1, std::memory_order_relaxed);
    gwa_stream_feed(stream, payload.bytes, payload.length);
    if (poll_add(&conn->poller, fd, gwa_stream_local_handle, stream) != GWA_OK) {
        GWA_LOG(DEBUG, "add socket to poll failed fd %d", fd);
        // Its service may have the request, and what follows is none (exception 60).
        gwa_stream_give_up(stream);
    }
}

// Opens a stream for an accepted request. False: there is none.
static bool stream_open(gwa_stream* stream, const request& wanted, payload_view payload) {
    scoped_fd fd(local_socket());
    if (fd.fd == -1) {
        return false;
    }
    if (!local_connect(fd.fd, wanted.port)) {
        GWA_LOG(ERROR, "connect failed");
        // Oddity 21, although this frame's payload has been read. The input pass does it, so that
        // nobody else waits for the bytes.
        gwa_input_step_begin(&stream->connection->input, gwa_input_step::EXTRA_DISCARD,
                             payload.length);
        return false;
    }
    stream_begin(stream, fd.release(), payload);
    return true;
}

void gwa_connection_remote_data_parse(gwa_connection_data* conn, const gwa_header* header,
                                      const uint8_t* payload, uint32_t length) {
    gwa_stream* const known = gwa_stream_find_by_id(&conn->streams.all, header->stream_id);
    if (known != nullptr) {
        known->last_activity = gwa_now_get();
        gwa_stream_feed(known, payload, length);
        return;
    }
    if (gwa_stream_is_gone(conn, header->stream_id)) {
        GWA_LOG(DEBUG, "drop data of the freed stream id %u", header->stream_id);
        return;
    }
    gwa_stream* const stream = stream_new(conn, header->stream_id);
    request wanted;
    if (request_read(stream, {payload, length}, &wanted)) {
        stream->priority = static_cast<uint32_t>(wanted.priority);
        if (wanted.port == GWA_SELF_DEBUG_PORT) {
            gwa_self_debug(stream, wanted.uri);
        } else if (stream_open(stream, wanted, {payload, length})) {
            return;
        }
    }
    stream_drop(stream);
}
