#include "reporters/port_info.h"

#include <poll.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "devid.h"
#include "main/gwa_log.h"
#include "runtime/gwa_util_open.h"

const char PORT_INFO_PATH[] = "/tmp/mko_port_gwad.sock";

namespace {

int port_info_socket = -1;
gwa_connection_cntl* port_info_cntl = nullptr;  // reported to

constexpr int ANNOUNCEMENTS_PER_EVENT = 64;  // then the main thread has other things to do
constexpr int FAILURES_PER_EVENT = 8;
constexpr int FAILURES_TOLD = 8;  // in a row
constexpr size_t JSON_SIZE = 64;

struct announcement {  // as the library hands it over, host order
    uint32_t module, port;
};
static_assert(sizeof(announcement) == 8);

struct module_key {
    uint32_t id;
    const char* key;
};
constexpr module_key MODULE_KEYS[] = {{3, "http_port"}, {4, "ubq_port"}, {5, "kctl_port"}};

}  // namespace

static int port_info_socket_init(const char* path) {
    unlink(path);  // a stale file would keep the library from binding
    const int fd = port_info_init(path);
    if (fd == -1) {
        GWA_LOG(ERROR, "init port info failed");
        return -1;
    }
    gwa_socket_admit_group(path);
    GWA_LOG(INFO, "init port info success");
    return fd;
}

void port_info_start(gwa_connection_cntl* cntl, const char* path) {
    port_info_socket_exit();  // of an earlier pass
    port_info_cntl = cntl;
    port_info_socket = port_info_socket_init(path);
    if (port_info_socket == -1) {
        GWA_LOG(ERROR, "port info socket init failed");
    } else if (poll_add(&cntl->poller, port_info_socket, port_info_recv_handle, &port_info_socket,
                        &port_info_socket) != 0) {
        GWA_LOG(ERROR, "add port info listen socket to poll failed");
    }
}

void port_info_socket_exit() {
    if (port_info_socket != -1) {
        close(port_info_socket);
        port_info_socket = -1;
    }
}

static const char* key_of(uint32_t module) {
    for (const module_key& known : MODULE_KEYS) {
        if (known.id == module) {
            return known.key;
        }
    }
    return nullptr;
}

static void report(const char* key, int port) {
    char json[JSON_SIZE] = "";
    const int printed = snprintf(json, sizeof json, "{\"%s\":%d}", key, port);
    const uint32_t length = static_cast<uint32_t>(printed);  // two short keys and a number fit
    GWA_LOG(INFO, "report port info module %s port %d, json %s", key, port, json);
    gwa_output_node* const node =
        gwa_connection_frame_new(gwa_command::REPORT_PORT_INFO, GWA_FLAG_COMMAND, 0, length);
    memcpy(gwa_connection_payload_of(node), json, length);
    gwa_connection_cntl_report(port_info_cntl, node);
}

// False: the library has failed. Whether it has taken something off the socket, it does not say, so
// it may go on failing for ever; that is told of a few times (exception 52).
static bool announcement_take(int fd) {
    static int failures_in_a_row = 0;
    announcement announced{};
    if (port_info_recv(fd, &announced) == -1) {
        if (failures_in_a_row < FAILURES_TOLD) {
            failures_in_a_row++;
            GWA_LOG(ERROR, "recv port info failed");
        }
        return false;
    }
    failures_in_a_row = 0;
    if (const char* const key = key_of(announced.module)) {
        report(key, static_cast<int>(announced.port));
    } else {
        GWA_LOG(ERROR, "module not support, %d", static_cast<int>(announced.module));
    }
    return true;
}

// The library may block when nothing is there, and an event may be spurious.
static bool announcement_waits(int fd) {
    pollfd entry{fd, POLLIN, 0};
    return ::poll(&entry, 1, 0) == 1 && (entry.revents & POLLIN) != 0;
}

void port_info_recv_handle(uint32_t events, void*) {
    const int fd = port_info_socket;
    if ((events & EPOLLIN) == 0) {
        return;
    }
    int failures = 0;
    for (int taken = 0; taken < ANNOUNCEMENTS_PER_EVENT && failures < FAILURES_PER_EVENT; taken++) {
        if (!announcement_waits(fd)) {
            return;
        }
        failures += announcement_take(fd) ? 0 : 1;
    }
    poll_rearm(&port_info_cntl->poller, fd);
}
