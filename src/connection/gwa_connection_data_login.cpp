#include "connection/gwa_connection_data_login.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include "connection/gwa_connection_data_addr.h"
#include "connection/gwa_connection_data_round.h"
#include "login/gwa_login_handshake.h"
#include "main/gwa_log.h"
#include "runtime/gwa_process.h"

namespace {

constexpr int ATTEMPTS = 3;
constexpr int RETRY_S = 10;

}  // namespace

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
    const int fd = gwa_login_data(conn->order.server_address, conn->order.port);
    if (fd == -1) {
        GWA_LOG(FATAL, "login server failed");
        return false;
    }
    relaying_settings_apply(fd);
    if (poll_add(&conn->poller, fd, gwa_connection_data_remote_handle, conn, &conn->socket) !=
        GWA_OK) {
        close(fd);
        GWA_LOG(DEBUG, "add socket to poll failed");
        return false;
    }
    conn->socket = fd;
    return true;
}

bool gwa_connection_data_login(gwa_connection_data* conn) {
    for (int attempt = 0; attempt < ATTEMPTS; attempt++) {
        if (!gwa_connection_running() || gwa_connection_data_order_waits(conn)) {
            return false;
        }
        if (login_once(conn)) {
            return true;
        }
        gwa_connection_data_pause_s(conn, RETRY_S);
    }
    if (!gwa_connection_data_must_end(conn)) {
        gwa_connection_data_re_resolve(conn, ATTEMPTS);
    }
    return false;
}
