#include "run/service.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "base/text.h"

namespace {

constexpr int FIRST_SOCKET = 3;
constexpr int64_t US_PER_S = 1'000'000, NS_PER_US = 1000;

std::string_view variable(const char* name) {
    const char* const value = getenv(name);  // NOLINT(concurrency-mt-unsafe): nobody sets any
    return value != nullptr ? value : "";
}

}  // namespace

void service_notify(std::string_view state) {
    const std::string_view path = variable("NOTIFY_SOCKET");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        return;
    }
    path.copy(address.sun_path, path.size());
    if (path[0] == '@') {  // a name without a file
        address.sun_path[0] = '\0';
    }
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
    sendto(fd, state.data(), state.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
           reinterpret_cast<const sockaddr*>(&address), size);
    close(fd);
}

void service_notify_reloading() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    service_notify("RELOADING=1\nMONOTONIC_USEC=" +
                   std::to_string(now.tv_sec * US_PER_S + now.tv_nsec / NS_PER_US));
}

int service_socket(std::string_view name) {
    if (number_parse<pid_t>(variable("LISTEN_PID")) != getpid()) {
        return -1;
    }
    const int count = number_parse<int>(variable("LISTEN_FDS")).value_or(0);
    std::string_view names = variable("LISTEN_FDNAMES");
    for (int fd = FIRST_SOCKET; fd < FIRST_SOCKET + count; ++fd) {
        const size_t end = std::min(names.find(':'), names.size());
        if (names.substr(0, end) == name) {
            fcntl(fd, F_SETFD, FD_CLOEXEC);
            return fd;
        }
        names.remove_prefix(std::min(end + 1, names.size()));
    }
    return -1;
}
