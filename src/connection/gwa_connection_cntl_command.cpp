#include "connection/gwa_connection_cntl_command.h"

#include "connection/gwa_connection_heartbeat.h"
#include "main/gwa_log.h"
#include "runtime/gwa_process.h"
#include "runtime/gwa_util_file.h"
#include "runtime/gwa_util_socket_recv.h"
#include "runtime/gwa_util_time.h"

namespace {

constexpr uint32_t ORDER_SIZE = 128;  // of the text, with its terminator
constexpr uint32_t SESSION_ID_SIZE = 32;
constexpr uint32_t SESSION_ID_BUFFER = 64;
constexpr uint32_t REPORTING_SIZE = 8;  // t1 and t2

}  // namespace

// A payload has been read.
static void count_payload(gwa_connection_cntl* cntl, uint32_t length) {
    gwa_counter_add(cntl->traffic.bytes_in, length);
    cntl->heartbeat.last_in_time = gwa_now_get();
}

// Reads a whole payload. False: the socket failed, and it is logged.
static bool read_payload(gwa_connection_cntl* cntl, void* buffer, uint32_t length) {
    if (gwa_recvn(cntl->socket, buffer, length) != static_cast<int>(length)) {
        GWA_LOG(ERROR, "recv data failed fd %d", cntl->socket);
        return false;
    }
    count_payload(cntl, length);
    return true;
}

static void discard_payload(gwa_connection_cntl* cntl, uint32_t length) {
    gwa_recv_discard(cntl->socket, static_cast<int>(length));
    count_payload(cntl, length);
}

static int heartbeat_answer(gwa_connection_cntl* cntl) {
    uint8_t bytes[GWA_HEARTBEAT_PAYLOAD] = {};
    const int got =
        gwa_recvn_timeout_fast(cntl->socket, bytes, sizeof bytes, GWA_HEARTBEAT_LIMIT_S);
    if (got == static_cast<int>(sizeof bytes)) {
        count_payload(cntl, sizeof bytes);
        if (load_be32(bytes) + 1 == cntl->heartbeat.seq) {
            cntl->heartbeat_misses = 0;
            return GWA_OK;
        }
    } else if (got == GWA_FAILED) {
        GWA_LOG(FATAL, "recv heartbeat seq error");
    }
    gwa_connection_cntl_heartbeat_missed(cntl);
    return GWA_OK;
}

static int new_data_connection(gwa_connection_cntl* cntl, uint32_t length) {
    GWA_LOG(FATAL, "create a new connection");
    if (length >= ORDER_SIZE) {
        GWA_LOG(PROGRESS, "too large head length field");
        GWA_BROKEN_RULE();  // oddity 31
    }
    char text[ORDER_SIZE] = "";
    if (!read_payload(cntl, text, length)) {
        return GWA_FAILED;
    }
    gwa_connection_cntl_remote_data_parse(cntl, text);
    return GWA_OK;
}

static int session_id(gwa_connection_cntl* cntl, uint32_t length) {
    if (length != SESSION_ID_SIZE) {
        GWA_LOG(ERROR, "alloc session id command length is error %u", length);
        return GWA_FAILED;
    }
    char id[SESSION_ID_BUFFER] = "";
    if (!read_payload(cntl, id, length)) {
        return GWA_FAILED;
    }
    GWA_LOG(INFO, "session id is %s, write to file %s", id, gwa_process_paths.session_id_file);
    gwa_file_write(gwa_process_paths.session_id_file, id, SESSION_ID_SIZE);
    return GWA_OK;
}

static int reporting_times(gwa_connection_cntl* cntl, uint32_t length) {
    if (length != REPORTING_SIZE) {
        GWA_LOG(ERROR, "control report dlna status command length is error %u", length);
        return GWA_FAILED;
    }
    uint8_t times[REPORTING_SIZE] = {};
    if (!read_payload(cntl, times, length)) {
        return GWA_FAILED;
    }
    if (cntl->hooks.reporting_times != nullptr) {
        cntl->hooks.reporting_times(load_be32(times), load_be32(times + 4));
    }
    return GWA_OK;
}

int gwa_connection_cntl_proto_handle(gwa_connection_cntl* cntl,
                                     const uint8_t (&bytes)[GWA_HEADER_SIZE + 1]) {
    gwa_protocol_show(bytes);
    gwa_header header;
    gwa_protocol_load(bytes, &header);
    if (gwa_protocol_check(&header) != GWA_OK) {
        GWA_LOG(ERROR, "protcol check failed");
        return GWA_FAILED;
    }
    gwa_counter_add(cntl->traffic.packets_in, 1);
    gwa_counter_add(cntl->traffic.bytes_in, GWA_HEADER_SIZE);
    switch (static_cast<gwa_command>(header.command)) {
        case gwa_command::HEARTBEAT: return heartbeat_answer(cntl);
        case gwa_command::NEW_DATA_CONNECTION: return new_data_connection(cntl, header.length);
        case gwa_command::CLOSE_CONNECTION:
            GWA_LOG(FATAL, "close the TCP connection");
            gwa_connection_cntl_reinit(cntl);
            return GWA_OK;
        case gwa_command::ALLOC_SESSION_ID: return session_id(cntl, header.length);
        case gwa_command::CONTROL_REPORTING: return reporting_times(cntl, header.length);
        case gwa_command::SET_PRIVACY_DATA:
            GWA_LOG(INFO, "ignore set privacy data, length %u", header.length);
            discard_payload(cntl, header.length);
            return GWA_OK;
        case gwa_command::REPORT_STATUS: discard_payload(cntl, header.length); return GWA_OK;
        case gwa_command::RESPONSE_DEVICE_INFO: return GWA_FAILED;
        case gwa_command::NONE:
        case gwa_command::DATA:
        case gwa_command::REPORT_DEVICE_INFO:
        case gwa_command::CLOSE_STREAM:
        case gwa_command::REPORT_PORT_INFO: break;
    }
    GWA_LOG(ERROR, "the command %d should never run in control connection", header.command);
    return GWA_FAILED;
}

void gwa_connection_cntl_remote_data_parse(gwa_connection_cntl* cntl, const char* text) {
    GWA_LOG(INFO, "request message : %s", text);
    gwa_host_list servers;
    if (gwa_host_list_get(text, &servers) != GWA_OK) {
        GWA_LOG(ERROR, "some error of req, %s", text);
        return;
    }
    for (int i = 0; i < GWA_HOST_COUNT; i++) {
        GWA_LOG(CREATE, "server data server listen on %s port %d", servers.hosts[i],
                servers.ports[i]);
    }
    if (cntl->hooks.order != nullptr) {
        cntl->hooks.order(servers);
    }
}
