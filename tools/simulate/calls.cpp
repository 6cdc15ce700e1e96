// calls.cpp - the system calls of the daemon, which the linker brings here (--wrap): those on the
// simulation's descriptors go to its network, all others to the system.
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdarg>

#include "control_world.h"
#include "network.h"

extern "C" {

int __real_close(int fd);
int __real_fcntl(int fd, int command, ...);
int __real_fcntl64(int fd, int command, ...);
int __real_ioctl(int fd, unsigned long request, ...);
ssize_t __real_recv(int fd, void* buffer, size_t length, int flags);
ssize_t __real_readv(int fd, const iovec* pieces, int count);
ssize_t __real_send(int fd, const void* buffer, size_t length, int flags);
ssize_t __real_sendmsg(int fd, const msghdr* message, int flags);
int __real_setsockopt(int fd, int level, int name, const void* value, socklen_t size);
int __real_getsockopt(int fd, int level, int name, void* value, socklen_t* size);
int __real_epoll_ctl(int epfd, int operation, int fd, epoll_event* event);

void* __real_malloc(size_t size);
void __real_free(void* block);

// Whatever the daemon allocates comes from here, and nothing of ours does.
void* __wrap_malloc(size_t size) {
    if (the_network.fails(call::MALLOC)) {
        return nullptr;
    }
    memory_blocks++;
    return __real_malloc(size);
}

void __wrap_free(void* block) {
    memory_blocks -= block != nullptr ? 1 : 0;
    __real_free(block);
}

int __wrap_socket(int, int, int) { return the_network.socket_make(); }

int __wrap_connect(int fd, const sockaddr* address, socklen_t) {
    return the_network.connect_to(fd,
                                  ntohs(reinterpret_cast<const sockaddr_in*>(address)->sin_port));
}

int __wrap_close(int fd) {
    return network::is_ours(fd) ? the_network.close_fd(fd) : __real_close(fd);
}

int __wrap_epoll_create(int) { return the_network.table_make(); }

int __wrap_epoll_ctl(int epfd, int operation, int fd, epoll_event* event) {
    return network::is_ours(epfd) ? the_network.table_change(epfd, operation, fd, event)
                                  : __real_epoll_ctl(epfd, operation, fd, event);
}

int __wrap_fcntl(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    return network::is_ours(fd) ? 0 : __real_fcntl(fd, command, argument);
}

int __wrap_fcntl64(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    return network::is_ours(fd) ? 0 : __real_fcntl64(fd, command, argument);
}

int __wrap_ioctl(int fd, unsigned long request, ...) {
    va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    return network::is_ours(fd) ? the_network.queued(fd, static_cast<int*>(argument))
                                : __real_ioctl(fd, request, argument);
}

ssize_t __wrap_recv(int fd, void* buffer, size_t length, int flags) {
    const iovec piece{buffer, length};
    return network::is_ours(fd) ? the_network.receive(fd, &piece, 1, call::RECV)
                                : __real_recv(fd, buffer, length, flags);
}

// What a build with checked buffers calls instead.
ssize_t __wrap___recv_chk(int fd, void* buffer, size_t length, size_t, int flags) {
    return __wrap_recv(fd, buffer, length, flags);
}

ssize_t __wrap_readv(int fd, const iovec* pieces, int count) {
    return network::is_ours(fd)
               ? the_network.receive(fd, pieces, static_cast<size_t>(count), call::READV)
               : __real_readv(fd, pieces, count);
}

ssize_t __wrap_send(int fd, const void* buffer, size_t length, int flags) {
    const iovec piece{const_cast<void*>(buffer), length};
    return network::is_ours(fd) ? the_network.send_all(fd, &piece, 1, call::SEND)
                                : __real_send(fd, buffer, length, flags);
}

ssize_t __wrap_sendmsg(int fd, const msghdr* message, int flags) {
    return network::is_ours(fd)
               ? the_network.send_all(fd, message->msg_iov, message->msg_iovlen, call::SENDMSG)
               : __real_sendmsg(fd, message, flags);
}

int __wrap_setsockopt(int fd, int level, int name, const void* value, socklen_t size) {
    if (!network::is_ours(fd)) {
        return __real_setsockopt(fd, level, name, value, size);
    }
    if (level == SOL_SOCKET && name == SO_RCVLOWAT) {
        return the_network.low_water_set(fd, *static_cast<const int*>(value));
    }
    return the_network.option_set(fd);
}

int __wrap_getsockopt(int fd, int level, int name, void* value, socklen_t* size) {
    return network::is_ours(fd) ? the_network.info(fd, static_cast<tcp_info*>(value))
                                : __real_getsockopt(fd, level, name, value, size);
}

// gwa_process_exit, by the name that the compiler gives it.
[[noreturn]] void __wrap__Z16gwa_process_exiti(int status) {
    if (!the_network.is_apart || status != 1) {
        broken("the daemon ends with status %d", status);
    }
    _exit(0);
}

// gwa_file_write, by the name that the compiler gives it: the session id, for other programs.
int __wrap__Z14gwa_file_writePKcPKvm(const char*, const void* data, size_t length) {
    the_control_world->effect("session " + std::string(static_cast<const char*>(data), length));
    return 0;
}

}  // extern "C"
