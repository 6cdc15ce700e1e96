#include "login/gwa_login_handshake.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "login/gwa_login.h"
#include "protocol/gwa_protocol.h"
#include "runtime/gwa_process.h"
#include "runtime/gwa_scoped_fd.h"
#include "runtime/gwa_util_socket.h"
#include "runtime/gwa_util_socket_recv.h"
#include "runtime/gwa_util_time.h"

namespace {

constexpr int BUFFER_SIZE = 131072;        // of the kernel, each way
constexpr int RECV_LOW = GWA_HEADER_SIZE;  // wake for nothing less than a frame header
constexpr size_t REPORT_SIZE = 1024;       // the whole report frame, terminator included
constexpr size_t ANSWER_SIZE = REPORT_SIZE - GWA_HEADER_SIZE;  // payload and terminator
constexpr int KEEP_IDLE_S = 30;     // an idle connection whose server is gone without
constexpr int KEEP_INTERVAL_S = 8;  // a word is found within a minute
constexpr int KEEP_COUNT = 3;
constexpr int CONNECT_WAIT_S = 10;
constexpr int ANSWER_WAIT_S = 60;

// What the socket of a login is set to, in this order, with the lines that say so. A null text: the
// option is only shown, or only set.
struct socket_option {
    int level, number;
    int wanted;
    const char *get_failed, *shown;
    const char *set_failed, *done;
};
constexpr socket_option SOCKET_OPTIONS[] = {
    {SOL_SOCKET, SO_SNDBUF, BUFFER_SIZE, "getsockopt SO_SNDBUF failed, %s",
     "system default TCP send buffer size %d", "setsockopt SO_SNDBUF failed, %s",
     "set TCP send buffer size to %d"},
    {SOL_SOCKET, SO_RCVBUF, BUFFER_SIZE, "getsockopt SO_RCVBUF failed, %s",
     "system default TCP recv buffer size %d", "setsockopt SO_RCVBUF failed, %s",
     "set TCP recv buffer size to %d"},
    {SOL_SOCKET, SO_SNDLOWAT, 0, "getsockopt SO_SNDLOWAT failed, %s",
     "system default TCP send low threshold %d", nullptr, nullptr},
    {SOL_SOCKET, SO_RCVLOWAT, RECV_LOW, "getsockopt SO_RCVLOWAT failed, %s",
     "system default TCP recv low threshold %d", "setsockopt SO_RCVLOWAT failed, %s",
     "set TCP recv low threshold to %d"},
    {SOL_SOCKET, SO_KEEPALIVE, 1, nullptr, nullptr, "setsockopt SO_KEEPALIVE failed, %s",
     "enable the TCP keepalive"},
    {IPPROTO_TCP, TCP_KEEPIDLE, KEEP_IDLE_S, nullptr, nullptr, "setsockopt TCP_KEEPIDLE failed, %s",
     "set TCP keepalive idle time to %d"},
    {IPPROTO_TCP, TCP_KEEPINTVL, KEEP_INTERVAL_S, nullptr, nullptr,
     "setsockopt TCP_KEEPINTVL failed, %s", "set TCP keepalive interval to %d"},
    {IPPROTO_TCP, TCP_KEEPCNT, KEEP_COUNT, nullptr, nullptr, "setsockopt TCP_KEEPCNT failed, %s",
     "set TCP keepalive probes to %d"},
};
constexpr size_t OPTION_LINE_SIZE = 128;

// What the two kinds of login do differently.
struct login_kind {
    const char* function;  // named in the lines about the socket options
    uint8_t version;       // of the report frame
    bool (*connect)(int fd, uint32_t address, uint16_t port);
    const gwa_login_sink* sink;  // null: nothing is counted and the answer's payload is dropped
};

}  // namespace

// One line about an option, in the name of the login (oddity 32): its failure, with the reason of
// errno, or its value.
static void option_log(bool failed, const char* failure, const char* success, int value,
                       const char* caller) {
    char line[OPTION_LINE_SIZE];
    if (failed) {
        snprintf(line, sizeof line, failure, strerror(errno));
        GWA_LOG_FOR(ERROR, caller, "%s", line);
    } else {
        snprintf(line, sizeof line, success, value);
        GWA_LOG_FOR(INFO, caller, "%s", line);
    }
}

// A failure is logged and otherwise ignored: the system's default works too, only slower.
static void socket_options_apply(int fd, const char* caller) {
    for (const socket_option& option : SOCKET_OPTIONS) {
        if (option.shown != nullptr) {
            int value = 0;
            socklen_t size = sizeof value;
            const int result = getsockopt(fd, option.level, option.number, &value, &size);
            option_log(result == -1, option.get_failed, option.shown, value, caller);
        }
        if (option.done != nullptr) {
            const int result =
                setsockopt(fd, option.level, option.number, &option.wanted, sizeof option.wanted);
            option_log(result == -1, option.set_failed, option.done, option.wanted, caller);
        }
    }
}

static bool server_connect(int fd, uint32_t address, uint16_t port) {
    const sockaddr_in server = gwa_socket_address(address, port);
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &server.sin_addr, text, sizeof text);
    GWA_LOG(PROGRESS, "try to connect %s : %d ...", text, port);
    if (gwa_connect_timeout(fd, reinterpret_cast<const sockaddr*>(&server), sizeof server,
                            CONNECT_WAIT_S) != GWA_OK) {
        GWA_LOG(PROGRESS, "connect server %s : %d failed", text, port);
        return false;
    }
    GWA_LOG(PROGRESS, "connect %s : %d success", text, port);
    return true;
}

// Waits without a limit but for the run flag: there is nothing to do before a server is known.
// 0 when the process is to end.
static uint32_t first_server_wait() {
    while (gwa_process_running()) {
        for (const uint32_t server : gwa_login.servers) {
            if (server != 0) {
                return server;
            }
        }
        gwa_sleep(1);
    }
    return 0;
}

static bool control_connect(int fd, uint32_t address, uint16_t port) {
    if (address != 0) {
        return server_connect(fd, address, port);
    }
    address = first_server_wait();
    return address != 0 &&
           server_connect(fd, address, static_cast<uint16_t>(gwa_login.server_port));
}

// Oddity 27: a worker that is no longer wanted goes on unconnected, and the send ends the login.
static bool data_connect(int fd, uint32_t address, uint16_t port) {
    return !gwa_connection_running() || server_connect(fd, address, port);
}

static void count_out(gwa_traffic* traffic, size_t bytes) {
    gwa_counter_add(traffic->bytes_out, static_cast<uint32_t>(bytes));
    gwa_counter_add(traffic->packets_out, 1);
}

static bool report_send(int fd, const login_kind& kind) {
    uint8_t frame[REPORT_SIZE] = {};
    char* json = reinterpret_cast<char*>(frame + GWA_HEADER_SIZE);
    const size_t length = gwa_login_device_info(json, sizeof frame - GWA_HEADER_SIZE);
    gwa_protocol_build(frame, kind.version, gwa_command::REPORT_DEVICE_INFO, GWA_FLAG_COMMAND, 0,
                       static_cast<uint32_t>(length));
    gwa_protocol_show(frame);
    GWA_LOG(PROGRESS, "report device info to remote server, %s", json);
    const int size = static_cast<int>(GWA_HEADER_SIZE + length);
    if (gwa_sendn(fd, frame, size) != size) {
        GWA_LOG(ERROR, "send device info to remote server failed, %s", strerror(errno));
        return false;
    }
    if (kind.sink != nullptr) {
        count_out(kind.sink->traffic, GWA_HEADER_SIZE + length);
    }
    return true;
}

static bool answer_header_receive(int fd, const login_kind& kind, gwa_header* header) {
    GWA_LOG(PROGRESS, "waiting response of device info from remote server ...");
    uint8_t raw[GWA_HEADER_SIZE + 1] = {};  // the dump prints a text behind some headers
    if (gwa_recvn_timeout(fd, raw, GWA_HEADER_SIZE, ANSWER_WAIT_S) != GWA_OK) {
        GWA_LOG(PROGRESS, "recv response of device info from remote server failed %s",
                strerror(errno));
        return false;
    }
    gwa_protocol_show(raw);
    gwa_protocol_load(raw, header);
    if (gwa_protocol_check(header) != GWA_OK ||
        header->command != static_cast<uint16_t>(gwa_command::RESPONSE_DEVICE_INFO)) {
        GWA_LOG(PROGRESS, "protocol check failed");
        return false;
    }
    if (kind.sink != nullptr) {
        gwa_counter_add(kind.sink->traffic->bytes_in, GWA_HEADER_SIZE);
        gwa_counter_add(kind.sink->traffic->packets_in, 1);
    }
    return true;
}

static bool answer_payload_receive(int fd, const login_kind& kind, uint32_t length) {
    if (length >= ANSWER_SIZE) {
        GWA_LOG(FATAL, "response too long");
        GWA_EXIT(1);  // oddity 31: a broken server; the box's init starts the daemon again
    }
    char text[ANSWER_SIZE] = {};
    if (gwa_recvn_timeout(fd, text, length, ANSWER_WAIT_S) != GWA_OK) {
        GWA_LOG(RESULT, "recv response failed");
        return false;
    }
    if (kind.sink != nullptr) {
        gwa_counter_add(kind.sink->traffic->bytes_in, length);
        kind.sink->answer(text);
    }
    return true;
}

// The handshake that every connection to the server starts with.
static int handshake(uint32_t address, uint16_t port, const login_kind& kind) {
    // Non-blocking from the start, so that the connect keeps its limit.
    scoped_fd fd(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (fd.fd == -1) {
        GWA_LOG(ERROR, "create socket failed %s", strerror(errno));
        return GWA_FAILED;
    }
    GWA_LOG(CREATE, "create login fd %d", fd.fd);
    socket_options_apply(fd.fd, kind.function);
    gwa_header header;
    if (!kind.connect(fd.fd, address, port) || !report_send(fd.fd, kind) ||
        !answer_header_receive(fd.fd, kind, &header)) {
        return GWA_FAILED;
    }
    // Only an answer of this version carries a payload, whatever the length says.
    if (header.version == GWA_VERSION_DATA && header.length != 0 &&
        !answer_payload_receive(fd.fd, kind, header.length)) {
        return GWA_FAILED;
    }
    GWA_LOG(PROGRESS, "login remote server success");
    return fd.release();
}

int gwa_login_control(uint32_t address, uint16_t port, const gwa_login_sink& sink) {
    const int fd =
        handshake(address, port, {__func__, GWA_VERSION_CONTROL, control_connect, &sink});
    if (fd != -1) {
        // A failure shows soon enough on the control connection itself.
        gwa_sessionid_alloc(fd, sink.traffic);
    }
    return fd;
}

int gwa_login_data(uint32_t address, uint16_t port) {
    return handshake(address, port, {__func__, GWA_VERSION_DATA, data_connect, nullptr});
}

int gwa_sessionid_alloc(int fd, gwa_traffic* traffic) {
    GWA_LOG(INFO, "send alloc session id request");
    uint8_t frame[GWA_HEADER_SIZE];
    gwa_protocol_build(frame, GWA_VERSION_PLAIN, gwa_command::ALLOC_SESSION_ID, GWA_FLAG_COMMAND, 0,
                       0);
    if (gwa_sendn(fd, frame, sizeof frame) != sizeof frame) {
        GWA_LOG(ERROR, "send failed");
        return GWA_FAILED;
    }
    count_out(traffic, sizeof frame);
    return GWA_OK;
}
