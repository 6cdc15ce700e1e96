#include "sockets.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>

namespace {

using steady = std::chrono::steady_clock;
constexpr size_t READ_STEP = 65536;

sockaddr_in loopback_address(uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// False when the deadline passed first, and at once for a connection that was never made.
bool wait_for(int fd, short events, steady::time_point deadline) {
    if (fd < 0) {
        return false;
    }
    const auto left = std::chrono::ceil<test_duration>(deadline - steady::now()).count();
    pollfd entry{fd, events, 0};
    return poll(&entry, 1, static_cast<int>(std::max<int64_t>(left, 0))) == 1;
}

// Reads until `wanted` says, of what has come so far, that no more bytes are.
template <typename Wanted>
std::string read_while(int fd, test_duration patience, Wanted wanted) {
    const auto deadline = steady::now() + patience;
    std::string bytes;
    char buffer[READ_STEP];
    size_t step = 0;
    while ((step = std::min(wanted(bytes), READ_STEP)) > 0 && wait_for(fd, POLLIN, deadline)) {
        const ssize_t got = recv(fd, buffer, step, MSG_DONTWAIT);
        if (got <= 0) {
            break;
        }
        bytes.append(buffer, static_cast<size_t>(got));
    }
    return bytes;
}

}  // namespace

loopback_listener::loopback_listener(int backlog)
    : fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)), address(loopback_address(0)) {
    socklen_t size = sizeof address;
    bind(fd.get(), reinterpret_cast<sockaddr*>(&address), size);
    getsockname(fd.get(), reinterpret_cast<sockaddr*>(&address), &size);
    port = ntohs(address.sin_port);
    if (backlog >= 0) {
        listen(fd.get(), backlog);
    }
}

unique_fd loopback_listener::accept(test_duration patience) const {
    if (!wait_for(fd.get(), POLLIN, steady::now() + patience)) {
        return unique_fd{};
    }
    return unique_fd{accept4(fd.get(), nullptr, nullptr, SOCK_CLOEXEC)};
}

unique_fd loopback_connect(uint16_t port, int receive_buffer) {
    unique_fd fd{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    if (receive_buffer > 0) {
        setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer);
    }
    const sockaddr_in address = loopback_address(port);
    if (connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        fd.reset();
    }
    return fd;
}

unique_fd unix_connect(const std::string& path, int type) {
    unique_fd fd{socket(AF_UNIX, type | SOCK_CLOEXEC, 0)};
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        fd.reset();
    }
    return fd;
}

bool write_all(int fd, std::string_view bytes, test_duration patience) {
    const auto deadline = steady::now() + patience;
    while (!bytes.empty()) {
        if (!wait_for(fd, POLLOUT, deadline)) {
            return false;
        }
        const ssize_t sent = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0) {
            return false;
        }
        bytes.remove_prefix(static_cast<size_t>(sent));
    }
    return true;
}

std::string read_exact(int fd, size_t size, test_duration patience) {
    return read_while(fd, patience, [&](const std::string& bytes) { return size - bytes.size(); });
}

std::string read_until(int fd, std::string_view mark, test_duration patience) {
    return read_while(fd, patience, [&](const std::string& bytes) {
        return bytes.ends_with(mark) ? size_t{0} : size_t{1};
    });
}

std::string read_to_end(int fd, test_duration patience) {
    return read_while(fd, patience, [](const std::string&) { return READ_STEP; });
}

bool closed_by_peer(int fd, test_duration patience) {
    char next = 0;
    return wait_for(fd, POLLIN, steady::now() + patience) && recv(fd, &next, 1, MSG_DONTWAIT) <= 0;
}

bool stays_silent(int fd, test_duration time) {
    return fd >= 0 && !wait_for(fd, POLLIN, steady::now() + time);
}
