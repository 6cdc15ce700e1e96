#include "reporters/dlna_status_socket.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "main/gwa_log.h"
#include "runtime/gwa_process.h"
#include "runtime/gwa_scoped_fd.h"
#include "runtime/gwa_types.h"
#include "runtime/gwa_util_open.h"
#include "runtime/gwa_util_socket.h"
#include "runtime/gwa_util_time.h"

namespace {

constexpr int BACKLOG = 10;
constexpr int UNLINK_ATTEMPTS = 3;

}  // namespace

// The path of the socket's file. One that is too long is cut, and then the cut one is it
// everywhere.
struct socket_path {
    char text[sizeof(sockaddr_un::sun_path) + 1];
    socket_path() { text_copy(text, gwa_process_paths.dlna_socket); }
};

// A path may fill the address to its last byte, without a terminator. unix(7).
static sockaddr_un socket_address(const socket_path& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path.text, sizeof address.sun_path);
    return address;
}

// Removes a socket file that an earlier process left. True: there is none any more.
static bool stale_file_remove(const char* path) {
    for (int attempt = 0; attempt < UNLINK_ATTEMPTS; attempt++) {
        if (attempt > 0) {
            gwa_sleep(1);
        }
        unlink(path);
        if (access(path, F_OK) == -1) {
            if (errno == ENOENT) {
                return true;
            }
            GWA_LOG(ERROR, "access socket file failed, %s %s", path, strerror(errno));
        }
    }
    GWA_LOG(ERROR, "unlink failed");
    return false;
}

int dlna_status_socket_open() {
    const socket_path path;
    const sockaddr_un address = socket_address(path);
    if (!stale_file_remove(path.text)) {
        return -1;
    }
    scoped_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (fd.fd == -1) {
        GWA_LOG(ERROR, "socket failed, %s", strerror(errno));
        return -1;
    }
    GWA_LOG(INFO, "sun path = %s", path.text);
    if (bind(fd.fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1) {
        GWA_LOG(ERROR, "bind failed, %s", strerror(errno));
        return -1;
    }
    gwa_socket_admit_group(path.text);
    if (listen(fd.fd, BACKLOG) == -1) {
        GWA_LOG(ERROR, "listen failed, %s", strerror(errno));
        return -1;
    }
    GWA_LOG(FATAL, "dlna status socket init success");
    gwa_socket_nonblock(fd.fd);
    return fd.release();
}

int dlna_status_socket_remove() { return unlink(socket_path().text); }
