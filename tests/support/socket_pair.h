// socket_pair.h - two connected stream sockets in one process: `ours`, non-blocking, for the code
// under test and `peer` for the test.
#pragma once

#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "runtime/gwa_util_socket.h"
#include "sockets.h"

struct socket_pair {
    int ours = -1;
    unique_fd peer;

    explicit socket_pair(int family = AF_UNIX) {  // or AF_INET, for what only TCP does
        if (family == AF_INET) {
            const loopback_listener listener;
            ours = loopback_connect(listener.port).release();
            peer = listener.accept();
            const int on = 1;  // what is said in pieces arrives at once
            setsockopt(peer.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        } else {
            int both[2] = {-1, -1};
            socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, both);
            ours = both[0];
            peer = unique_fd(both[1]);
        }
        gwa_socket_nonblock(ours);
    }
    socket_pair(socket_pair&&) = delete;
    ~socket_pair() { close(ours); }

    // True once the text has arrived: over TCP the kernel may take its time.
    bool peer_says(std::string_view text) const {
        const int before = unread();
        return write_all(peer.get(), text) &&
               eventually([&] { return unread() >= before + static_cast<int>(text.size()); });
    }
    int unread() const {
        int count = 0;
        ioctl(ours, FIONREAD, &count);
        return count;
    }
    // What has come by now.
    std::string peer_hears() const { return read_to_end(peer.get(), test_duration{0}); }
};
