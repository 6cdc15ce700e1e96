// socket_pair.h - two connected stream sockets in one process: `ours`, non-blocking, for the code
// under test and `peer`, blocking, for the test.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string_view>

#include "runtime/gwa_util_socket.h"

struct loopback_port {  // a TCP address of its own; refuses connections when the backlog is below 0
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    explicit loopback_port(int backlog) {
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        bind(fd, get(), size);
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
        if (backlog >= 0) {
            listen(fd, backlog);
        }
    }
    loopback_port(loopback_port&&) = delete;
    ~loopback_port() { close(fd); }
    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&address); }
};

struct socket_pair {
    int ours = -1, peer = -1;
    explicit socket_pair(int family = AF_UNIX) {  // or AF_INET, for what only TCP does
        if (family == AF_INET) {
            const loopback_port listener{1};
            ours = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
            connect(ours, listener.get(), sizeof listener.address);
            peer = accept(listener.fd, nullptr, nullptr);
        } else {
            int both[2] = {-1, -1};
            socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, both);
            ours = both[0];
            peer = both[1];
        }
        gwa_socket_nonblock(ours);
    }
    socket_pair(socket_pair&&) = delete;
    ~socket_pair() {
        close(ours);
        peer_close();
    }
    bool peer_says(std::string_view text) const {
        return write(peer, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    }
    void peer_close() {
        if (peer >= 0) {
            close(peer);
        }
        peer = -1;
    }
};
