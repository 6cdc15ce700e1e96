#include "reporters/gwa_link.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "main/gwa_log.h"
#include "runtime/gwa_process.h"
#include "runtime/gwa_scoped_fd.h"
#include "runtime/gwa_util_socket.h"

namespace {

constexpr size_t DATAGRAM_SIZE = 4096;
static_assert(sizeof(nlmsghdr) == 16, "the kernel's message header");

int link_socket = -1;
gwa_connection_cntl* link_cntl = nullptr;  // what a change of the network restarts

}  // namespace

int gwa_link_init() {
    scoped_fd fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    if (fd.fd == -1) {
        GWA_LOG(ERROR, "couldn't open NETLINK_ROUTE socket");
        return -1;
    }
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR;
    if (bind(fd.fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1) {
        GWA_LOG(ERROR, "bind failed");
        return -1;
    }
    gwa_socket_nonblock(fd.fd);
    return fd.release();
}

int gwa_link_start(gwa_connection_cntl* cntl) {
    gwa_link_stop();
    link_cntl = cntl;
    link_socket = gwa_link_init();
    if (link_socket == -1) {
        GWA_LOG(ERROR, "init netlink failed");
        return -1;
    }
    if (poll_add(&cntl->poller, link_socket, gwa_link_handle, &link_socket, &link_socket) != 0) {
        GWA_LOG(ERROR, "add netlink socket to poll failed");
    }
    return 0;
}

void gwa_link_stop() {
    gwa_link_close(link_socket);
    link_socket = -1;
}

void gwa_link_close(int fd) {
    if (fd != -1) {
        close(fd);
    }
}

// Logs one message. True: it asks for a restart.
static bool message_take(uint16_t type) {
    switch (type) {
        case RTM_NEWADDR:
            GWA_LOG(FATAL, "detect a new address, restart the connection now");
            return true;
        case RTM_NEWLINK:  // oddity 29: a link that goes down counts too
            GWA_LOG(FATAL, "detect link up, restart the connection now");
            return true;
        case RTM_DELADDR: GWA_LOG(FATAL, "remove a address !!!"); return false;
        default: return false;
    }
}

bool gwa_link_walk(const uint8_t* bytes, size_t length) {
    // Signed, so that a length rounded up beyond the end makes the rest negative instead of huge.
    const int64_t end = static_cast<int64_t>(length);
    int64_t at = 0;
    while (end - at >= int64_t{sizeof(nlmsghdr)}) {
        nlmsghdr message;
        memcpy(&message, bytes + at, sizeof message);
        if (message.nlmsg_len < sizeof message || message.nlmsg_len > end - at ||
            message.nlmsg_type == NLMSG_DONE) {
            return false;
        }
        if (message_take(message.nlmsg_type)) {
            return true;
        }
        at += NLMSG_ALIGN(int64_t{message.nlmsg_len});
    }
    return false;
}

void gwa_link_handle(uint32_t events, void* argument) {
    const int* const fd = static_cast<const int*>(argument);
    if (fd == nullptr || *fd == -1) {
        GWA_LOG(ERROR, "arg is null or sock is error");
        return;
    }
    if ((events & EPOLLIN) == 0) {
        return;
    }
    uint8_t datagram[DATAGRAM_SIZE] = {};
    while (gwa_process_running()) {
        const ssize_t got = recv(*fd, datagram, sizeof datagram, 0);
        if (got == -1 && errno == ENOBUFS) {
            continue;  // exception 61: messages were lost, the ones that are queued were not
        }
        if (got < 1) {
            return;
        }
        if (gwa_link_walk(datagram, static_cast<size_t>(got))) {
            gwa_connection_cntl_reinit(link_cntl);  // returns only when the process is to end
        }
    }
}
