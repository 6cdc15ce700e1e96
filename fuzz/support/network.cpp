#include "support/network.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <utility>

#include "support/clock.h"
#include "support/process.h"

acceptor network_accept;

owned_fd::owned_fd(owned_fd&& from) noexcept : fd(std::exchange(from.fd, -1)) {}

owned_fd& owned_fd::operator=(owned_fd&& from) noexcept {
    std::swap(fd, from.fd);
    return *this;
}

owned_fd::~owned_fd() {
    if (fd != -1) {
        close(fd);
    }
}

fd_pair::fd_pair(int type) {
    int both[2] = {-1, -1};
    must(socketpair(AF_UNIX, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, both) == 0);
    ours = owned_fd(both[0]);
    theirs = owned_fd(both[1]);
}

void drain(int fd) {
    char dropped[65536];
    while (recv(fd, dropped, sizeof dropped, MSG_DONTWAIT) > 0) {
    }
}

server::server(std::string_view input) {
    constexpr int PAUSES_S[] = {0, 1, 11, 61};
    const auto mode = static_cast<uint8_t>(input.empty() ? '\0' : input.front());
    rest = input.substr(input.empty() ? 0 : 1);
    piece = mode % 64 == 0 ? rest.size() : mode % 64;
    pause_s = PAUSES_S[mode / 64];
}

int server::connection() {
    fd_pair pair(SOCK_STREAM);
    fd = std::move(pair.theirs);
    return std::exchange(pair.ours.fd, -1);
}

void server::goes_on() {
    if (fd.fd == -1) {
        return;
    }
    drain(fd.fd);
    clock_advance(pause_s);
    if (rest.empty()) {
        ended = true;
        shutdown(fd.fd, SHUT_WR);
        return;
    }
    const ssize_t said = send(fd.fd, rest.data(), std::min(piece, rest.size()), MSG_NOSIGNAL);
    if (said > 0) {
        rest.remove_prefix(static_cast<size_t>(said));
    } else if (errno != EAGAIN) {
        rest = {};
    }
}

int services::connection(uint16_t port) {
    fd_pair pair(SOCK_STREAM);
    all.push_back({port, std::move(pair.theirs)});
    return std::exchange(pair.ours.fd, -1);
}

void services::go_on() {
    for (service& each : all) {
        char bytes[4096];
        const ssize_t got =
            each.port % 4 == 2 ? 0 : recv(each.fd.fd, bytes, sizeof bytes, MSG_DONTWAIT);
        if (got > 0 && each.port % 4 != 1) {
            send(each.fd.fd, bytes, static_cast<size_t>(got), MSG_NOSIGNAL);
        }
        if (got > 0 && each.port % 4 == 3) {
            shutdown(each.fd.fd, SHUT_RDWR);
        }
    }
}

const std::string& socket_folder() {
    static std::string folder = [] {
        char made[] = "/tmp/gwad-fuzz.XXXXXX";
        must(mkdtemp(made) != nullptr);
        return std::string(made);
    }();
    static const int at_exit = atexit([] { rmdir(folder.c_str()); });
    must(at_exit == 0);
    return folder;
}

owned_fd unix_client(const std::string& path, int type) {
    owned_fd fd(socket(AF_UNIX, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (connect(fd.fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        return {};
    }
    return fd;
}

extern "C" {

int __real_connect(int, const sockaddr*, socklen_t);
int __real_getaddrinfo(const char*, const char*, const addrinfo*, addrinfo**);
int __wrap_getaddrinfo(const char*, const char*, const addrinfo*, addrinfo**);
int __wrap_connect(int, const sockaddr*, socklen_t);
int __wrap_posix_spawn(pid_t*, const char*, const posix_spawn_file_actions_t*,
                       const posix_spawnattr_t*, char* const*, char* const*);

// The socket becomes one end of a pair. Ports above 60000 are dead. Only the targets' own clients
// connect to a path.
int __wrap_connect(int fd, const sockaddr* address, socklen_t size) {
    if (address->sa_family == AF_UNIX) {
        return __real_connect(fd, address, size);
    }
    must(size == sizeof(sockaddr_in) && address->sa_family == AF_INET);
    const uint16_t port = ntohs(reinterpret_cast<const sockaddr_in*>(address)->sin_port);
    const owned_fd accepted(network_accept && port <= 60000 ? network_accept(port) : -1);
    if (accepted.fd == -1) {
        errno = ECONNREFUSED;
        return -1;
    }
    must(dup3(accepted.fd, fd, O_CLOEXEC) == fd);
    return 0;
}

// Numbers are taken as they are; of names one is known.
int __wrap_getaddrinfo(const char* name, const char* service, const addrinfo* hints,
                       addrinfo** found) {
    addrinfo numeric = hints == nullptr ? addrinfo{} : *hints;
    numeric.ai_flags |= AI_NUMERICHOST;
    const bool known = name != nullptr && std::string_view(name) == "localhost";
    return __real_getaddrinfo(known ? "127.0.0.1" : name, service, &numeric, found);
}

int __wrap_posix_spawn(pid_t*, const char*, const posix_spawn_file_actions_t*,
                       const posix_spawnattr_t*, char* const*, char* const*) {
    return EAGAIN;
}

}  // extern "C"
