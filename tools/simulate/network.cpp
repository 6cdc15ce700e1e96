#include "network.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "runtime/gwa_util_time.h"

network the_network;
virtual_time the_time;
int64_t memory_blocks = 0;

namespace {

constexpr int64_t LATE_US = 2'000'000;
constexpr size_t SEND_ROOM = 1 << 17;
constexpr size_t RECEIVE_ROOM = 1 << 18;  // of the daemon's sockets

int fail_with(int error) {
    errno = error;
    return -1;
}

}  // namespace

void virtual_time::pass(int64_t us) {
    now_us += us;
    gwa_now_refresh();
}

void virtual_time::sleep(int64_t us) {
    if (meanwhile == nullptr) {
        now_us += us;  // the coarse clock is late, as it may be
        return;
    }
    meanwhile();
    pass(us);
}

// ---- A socket, from its peer's side ----

void tcp_socket::wake() {
    if (table != nullptr && !listed) {
        listed = true;
        table->ready.push_back(this);
    }
}

void tcp_socket::arrive(std::string_view bytes) {
    if (dead || ended || bytes.empty()) {
        return;
    }
    link.bytes_came();
    arrived.push(bytes);
    if (arrived.size() >= low_water) {
        wake();
    }
}

void tcp_socket::end() {
    if (!dead && !ended) {
        ended = true;
        wake();
    }
}

void tcp_socket::reset(int reason) {
    if (!dead) {
        dead = true;
        error = reason;
        arrived.clear();
        sent.clear();
        wake();
    }
}

void tcp_socket::link_change(bool to_silent) { link.change(to_silent, !sent.empty()); }

// What the kernel does by itself when time has passed.
void tcp_socket::kernel_turn() {
    if (!dead && link.is_silent() && link.is_given_up(!sent.empty())) {
        reset(ETIMEDOUT);
    }
}

size_t tcp_socket::receive_room() const {
    return RECEIVE_ROOM - std::min(RECEIVE_ROOM, arrived.size());
}

void tcp_socket::widen() { send_room = std::max(send_room, SEND_ROOM); }

std::string tcp_socket::take(size_t count) {
    std::string taken(sent.view().substr(0, count));
    sent.pop(taken.size());
    if (!taken.empty()) {
        link.bytes_taken(!sent.empty());
    }
    if (wants_room && has_room()) {
        wants_room = false;
        wake();
    }
    return taken;
}

uint32_t tcp_socket::ready() const {
    if (dead) {
        return EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLHUP | (error != 0 ? uint32_t{EPOLLERR} : 0U);
    }
    uint32_t events = has_room() ? EPOLLOUT : 0U;
    if (ended || arrived.size() >= low_water) {
        events |= EPOLLIN;
    }
    return events | (ended ? uint32_t{EPOLLRDHUP} : 0U);
}

// ---- Descriptors ----

network::descriptor& network::make() {
    for (descriptor& old : descriptors) {
        if (old.socket == nullptr && old.table == nullptr) {
            return old;
        }
    }
    return descriptors.emplace_back();
}

network::descriptor& network::at(int fd, const char* what) {
    const auto index = static_cast<size_t>(fd - FIRST_FD);
    if (index >= descriptors.size() ||
        (descriptors[index].socket == nullptr && descriptors[index].table == nullptr)) {
        broken("%s on descriptor %d, which is closed", what, fd - FIRST_FD);
    }
    return descriptors[index];
}

tcp_socket& network::socket_at(int fd, const char* what) {
    descriptor& found = at(fd, what);
    if (found.socket == nullptr) {
        broken("%s on descriptor %d, which is an epoll set", what, fd - FIRST_FD);
    }
    found.socket->kernel_turn();
    return *found.socket;
}

size_t network::open_count() const {
    return static_cast<size_t>(std::count_if(
        descriptors.begin(), descriptors.end(),
        [](const descriptor& one) { return one.socket != nullptr || one.table != nullptr; }));
}

void network::fail(int64_t what, int64_t error, int64_t after) {
    failures[static_cast<size_t>(what) % CALL_COUNT] = {static_cast<int>(error),
                                                        static_cast<int>(after)};
}

bool network::fails(call what) {
    failure& next = failures[static_cast<size_t>(what)];
    if (next.error == 0 || next.after-- > 0) {
        return false;
    }
    errno = std::exchange(next.error, 0);
    return true;
}

static int number_of(const void* first, const void* one, size_t size) {
    return network::FIRST_FD +
           static_cast<int>((static_cast<const char*>(one) - static_cast<const char*>(first)) /
                            static_cast<ptrdiff_t>(size));
}

tcp_socket& network::login_socket(size_t send_room) {
    descriptor& made = make();
    made.socket = std::make_unique<tcp_socket>();
    made.socket->fd = number_of(descriptors.data(), &made, sizeof made);
    made.socket->phase = tcp_socket::phase::CONNECTED;
    made.socket->send_room = send_room;
    return *made.socket;
}

int network::socket_make() {
    watcher->before(call::SOCKET, nullptr);
    if (fails(call::SOCKET)) {
        watcher->opened(nullptr);
        return -1;
    }
    tcp_socket& made = login_socket(local_room);
    made.phase = tcp_socket::phase::NEW;
    watcher->opened(&made);
    return made.fd;
}

int network::close_fd(int fd) {
    descriptor& found = at(fd, "close");
    if (tcp_socket* const socket = found.socket.get()) {
        watcher->before(call::CLOSE, socket);
        watcher->closing(*socket);
        if (socket->table != nullptr) {
            std::erase(socket->table->ready, socket);
        }
    } else {
        for (const descriptor& other : descriptors) {
            if (other.socket != nullptr && other.socket->table == found.table.get()) {
                broken("an epoll set is closed before descriptor %d is taken off it",
                       other.socket->fd - FIRST_FD);
            }
        }
    }
    found = {};
    return 0;
}

// ---- Connecting ----

int network::connect_to(int fd, uint16_t port) {
    tcp_socket& socket = socket_at(fd, "connect");
    using phase = enum tcp_socket::phase;
    watcher->before(call::CONNECT, &socket);
    const auto settle = [&](bool success) {
        socket.phase = success ? phase::CONNECTED : phase::REFUSED;
        watcher->connected(socket, success);
        return success ? 0 : fail_with(ECONNREFUSED);
    };
    if (fails(call::CONNECT)) {
        const int error = errno;
        settle(false);
        return fail_with(error);
    }
    if (socket.phase == phase::NEW) {
        socket.port = static_cast<port_kind>(port - FIRST_PORT);
        socket.phase = phase::CONNECTING;
        const bool later =
            socket.port == port_kind::LISTENS_LATE || socket.port == port_kind::REFUSES_LATE;
        socket.settled_us = the_time.now_us + (later ? LATE_US : 0);
        switch (socket.port) {
            case port_kind::LISTENS: return settle(true);
            case port_kind::REFUSES: return settle(false);
            default: return fail_with(EINPROGRESS);
        }
    }
    if (socket.phase != phase::CONNECTING) {
        return fail_with(socket.phase == phase::CONNECTED ? EISCONN : ECONNREFUSED);
    }
    if (socket.port == port_kind::NEVER_ANSWERS || the_time.now_us < socket.settled_us) {
        return fail_with(EALREADY);
    }
    return settle(socket.port != port_kind::REFUSES_LATE);
}

int network::connect_settle(int fd, int timeout_ms) {
    const tcp_socket& socket = socket_at(fd, "poll");
    if (fails(call::POLL)) {
        return -1;
    }
    const int64_t left_us = socket.settled_us - the_time.now_us;
    if (socket.port == port_kind::NEVER_ANSWERS || left_us > int64_t{timeout_ms} * 1000) {
        the_time.pass(int64_t{timeout_ms} * 1000);
        return 0;
    }
    the_time.pass(std::max(left_us, int64_t{0}));
    return 1;
}

// ---- Reading and writing ----

ssize_t network::receive(int fd, const iovec* pieces, size_t count, call what) {
    tcp_socket& socket = socket_at(fd, "receive");
    watcher->before(what, &socket);
    size_t wanted = 0;
    for (size_t i = 0; i < count; i++) {
        wanted += pieces[i].iov_len;
    }
    const auto failed = [&](int error) {
        watcher->received(socket, wanted, {}, error);
        return fail_with(error);
    };
    socket.read_failed = fails(what);
    if (socket.read_failed) {
        return failed(errno);
    }
    if (socket.dead && socket.error != 0) {
        return failed(std::exchange(socket.error, 0));
    }
    if (socket.arrived.empty() && !socket.ended && !socket.dead) {
        return failed(EAGAIN);
    }
    socket.read_end = socket.arrived.empty();
    const std::string_view there = socket.arrived.view();
    size_t done = 0;
    for (size_t i = 0; i < count && done < there.size(); i++) {
        done += there.copy(static_cast<char*>(pieces[i].iov_base), pieces[i].iov_len, done);
    }
    watcher->received(socket, wanted, there.substr(0, done), 0);
    socket.arrived.pop(done);
    return static_cast<ssize_t>(done);
}

ssize_t network::send_all(int fd, const iovec* pieces, size_t count, call what) {
    tcp_socket& socket = socket_at(fd, "send");
    watcher->before(what, &socket);
    std::string offered;
    for (size_t i = 0; i < count; i++) {
        offered.append(static_cast<const char*>(pieces[i].iov_base), pieces[i].iov_len);
    }
    const auto failed = [&](int error) {
        watcher->sent(socket, offered, -1, error);
        return fail_with(error);
    };
    if (fails(what)) {
        return failed(errno);
    }
    if (socket.dead) {
        const int error = std::exchange(socket.error, 0);
        return failed(error != 0 ? error : EPIPE);
    }
    const size_t room = socket.send_room - std::min(socket.send_room, socket.sent.size());
    const size_t taken = std::min(room, offered.size());
    socket.wants_room = socket.wants_room || taken < offered.size();
    if (taken == 0 && !offered.empty()) {
        return failed(EAGAIN);
    }
    socket.link.bytes_sent(!socket.sent.empty());
    socket.sent.push(std::string_view(offered).substr(0, taken));
    watcher->sent(socket, offered, static_cast<ssize_t>(taken), 0);
    return static_cast<ssize_t>(taken);
}

int network::queued(int fd, int* count) {
    tcp_socket& socket = socket_at(fd, "ioctl");
    watcher->before(call::IOCTL, &socket);
    if (fails(call::IOCTL)) {
        watcher->looked(socket, -1);
        return -1;
    }
    *count = static_cast<int>(socket.sent.size());
    watcher->looked(socket, *count);
    return 0;
}

int network::option_set(int fd) {
    watcher->before(call::SETSOCKOPT, &socket_at(fd, "setsockopt"));
    return fails(call::SETSOCKOPT) ? -1 : 0;
}

int network::info(int fd, tcp_info* out) {
    tcp_socket& socket = socket_at(fd, "getsockopt");
    watcher->before(call::GETSOCKOPT, &socket);
    if (fails(call::GETSOCKOPT)) {
        watcher->info_failed();
        return -1;
    }
    *out = socket.dead ? tcp_info{} : socket.link.info(!socket.sent.empty());
    out->tcpi_state = socket.dead ? TCP_CLOSE : TCP_ESTABLISHED;
    return 0;
}

int network::low_water_set(int fd, int bytes) {
    if (option_set(fd) == -1) {
        return -1;
    }
    tcp_socket& socket = socket_at(fd, "setsockopt");
    socket.low_water = static_cast<size_t>(bytes);
    if (!socket.arrived.empty() && socket.arrived.size() >= socket.low_water) {
        socket.wake();
    }
    return 0;
}

// ---- Waiting ----

int network::table_make() {
    if (fails(call::EPOLL_ADD)) {
        return -1;
    }
    descriptor& made = make();
    made.table = std::make_unique<poll_table>();
    return number_of(descriptors.data(), &made, sizeof made);
}

int network::table_change(int epfd, int operation, int fd, epoll_event* event) {
    descriptor& set = at(epfd, "epoll_ctl");
    tcp_socket& socket = socket_at(fd, "epoll_ctl");
    watcher->before(call::EPOLL_ADD, &socket);
    if (set.table == nullptr) {
        return fail_with(EINVAL);
    }
    if (operation == EPOLL_CTL_DEL) {
        if (socket.table != set.table.get()) {
            broken("descriptor %d is taken off a set that it is not on", fd - FIRST_FD);
        }
        std::erase(set.table->ready, &socket);
        socket.table = nullptr;
        socket.listed = false;
        return 0;
    }
    const bool failed = fails(call::EPOLL_ADD);
    if (operation == EPOLL_CTL_ADD) {
        watcher->registered(socket, !failed);
    }
    if (failed) {
        socket.read_failed = true;
        return -1;
    }
    socket.table = set.table.get();
    socket.data = event->data.ptr;
    if (socket.ready() != 0) {
        socket.wake();
    }
    socket.wants_room = socket.wants_room || !socket.has_room();
    return 0;
}

static int table_collect(poll_table& table, epoll_event* out, int count) {
    int found = 0;
    while (found < count && !table.ready.empty()) {
        tcp_socket& socket = *table.ready.front();
        table.ready.pop_front();
        socket.listed = false;
        const uint32_t ready = socket.ready() & ~uint32_t{EPOLLRDHUP};
        socket.wants_room = socket.wants_room || (!socket.dead && !socket.has_room());
        if (ready != 0) {
            out[found].events = ready;
            out[found++].data.ptr = socket.data;
        }
    }
    return found;
}

int network::table_wait(int epfd, epoll_event* out, int count, int timeout_ms) {
    poll_table& table = *at(epfd, "epoll_wait").table;
    for (const descriptor& one : descriptors) {
        if (one.socket != nullptr) {
            one.socket->kernel_turn();
        }
    }
    watcher->before(call::EPOLL_WAIT, nullptr);
    if (fails(call::EPOLL_WAIT)) {
        watcher->wait_failed(errno);
        return -1;
    }
    int found = table_collect(table, out, count);
    if (found == 0) {
        watcher->waits(timeout_ms);
        if (the_time.meanwhile != nullptr) {
            the_time.meanwhile();
            found = table_collect(table, out, count);
        }
    }
    if (found == 0) {
        the_time.pass(int64_t{timeout_ms} * 1000);
    }
    events += static_cast<uint64_t>(found);
    return found;
}

int network::wait_readable(int fd, int timeout_ms) {
    const tcp_socket& socket = socket_at(fd, "poll");
    if (fails(call::POLL)) {
        return -1;
    }
    if ((socket.ready() & EPOLLIN) == 0) {
        if (the_time.meanwhile != nullptr) {
            the_time.meanwhile();
        }
        the_time.pass(int64_t{timeout_ms} * 1000);
    }
    return (socket.ready() & EPOLLIN) != 0 ? 1 : 0;
}
