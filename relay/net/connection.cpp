#include "net/connection.h"

#include <linux/sockios.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "http/http.h"

namespace {

// Of frames, and reached only by answers that a device never takes. Users get nothing unasked.
constexpr size_t OUTBOX_MAX = 4 * OUTBOX_MEMORY;
constexpr size_t HEAD_STEP = 8192;

std::string peer_name(const tcp::socket& socket) {
    asio::error_code failed;
    const tcp::endpoint peer = socket.remote_endpoint(failed);
    return failed ? "(gone)" : peer.address().to_string() + ":" + std::to_string(peer.port());
}

// 0 at the end of the connection or after an error.
awaitable<size_t> receive(connection& link, asio::mutable_buffer to) {
    if (link.closed) {
        co_return 0;
    }
    asio::error_code failed;
    const size_t got =
        co_await link.socket.async_read_some(to, asio::redirect_error(asio::use_awaitable, failed));
    co_return failed ? 0 : got;
}

}  // namespace

awaitable<void> event::wait() {
    asio::error_code cancelled;
    ++waiting;
    co_await timer.async_wait(asio::redirect_error(asio::use_awaitable, cancelled));
    --waiting;
}

void event::notify() {
    if (waiting > 0) {
        timer.cancel();
    }
}

connection::connection(tcp::socket accepted)
    : socket(std::move(accepted)),
      name(peer_name(socket)),
      queued(socket.get_executor()),
      changed(socket.get_executor()) {
    asio::error_code ignored;  // a peer that is gone already shows at the first read
    socket.set_option(tcp::no_delay(true), ignored);
    socket.non_blocking(true, ignored);
}

uint64_t connection::acknowledged() const {
    int waiting = 0;  // in our kernel
    const bool known =
        !closed && ioctl(const_cast<tcp::socket&>(socket).native_handle(), SIOCOUTQ, &waiting) == 0;
    return known ? taken - std::min(taken, static_cast<uint64_t>(waiting)) : last_acknowledged;
}

void connection::tick(steady::time_point now) {
    // A write gets on in big steps only: to a slow reader, minutes apart. What the peer has
    // acknowledged shows sooner whether it takes anything: after a 16th of its receive buffer.
    const uint64_t before = std::exchange(last_acknowledged, acknowledged());
    if (last_acknowledged != before) {
        last_taken = now;
    }
    if (now >= deadline) {
        refuse(deadline_reason);
    } else if (!idle() && now - last_taken >= patience) {
        refuse("takes nothing of what waits for it");
    } else if (!closed && liveness_is_over(alive, socket.native_handle(), now)) {
        refuse("gone without a word");
    }
    changed.notify();
}

void connection::send(std::string_view bytes) {
    if (closed || bytes.empty()) {
        return;
    }
    if (out.empty()) {
        last_taken = steady::now();
        queued.notify();
    }
    out.append(bytes);
}

void connection::send_now(std::span<iovec> parts) {
    size_t sent = 0;
    if (!closed && out.empty()) {
        msghdr message{};
        message.msg_iov = parts.data();
        message.msg_iovlen = std::min(parts.size(), PARTS_MAX);
        // An error shows again to the pump, which closes.
        sent = static_cast<size_t>(std::max<ssize_t>(
            sendmsg(socket.native_handle(), &message, MSG_DONTWAIT | MSG_NOSIGNAL), 0));
        took(sent);
    }
    for (const iovec& part : parts) {
        const size_t gone = std::min(sent, part.iov_len);
        sent -= gone;
        send({static_cast<const char*>(part.iov_base) + gone, part.iov_len - gone});
    }
}

void connection::send_frame(const frame& whole) {
    if (!closed) {
        log_frame('<', whole);
        char header[FRAME_HEADER];
        frame_header(header, whole);
        send({header, sizeof header});
        send(whole.payload);
        if (out.size() > OUTBOX_MAX) {
            refuse("does not take what it asks for");
        }
    }
}

void connection::log_frame(char direction, const frame& whole) const {
    log_line(FRAME, "%s %c %s version %u flag %u stream %u length %zu", name.c_str(), direction,
             command_name(whole.code), whole.version, whole.flag, whole.stream_id,
             whole.payload.size());
}

void connection::write_out() {
    const std::string_view bytes = out.front();
    const ssize_t sent =
        ::send(socket.native_handle(), bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent < 0 && errno != EAGAIN) {
        return close();
    }
    if (sent <= 0) {
        return;
    }
    const bool was_full = full();
    took(static_cast<size_t>(sent));
    out.remove(static_cast<size_t>(sent));
    if (out.lost()) {
        return refuse("what waits for it cannot be read from its file");
    }
    if (was_full && !full()) {
        has_room();
    }
    if (out.empty() || was_full != full()) {
        changed.notify();
    }
}

void connection::took(size_t count) {
    taken += count;
    last_taken = steady::now();
}

void connection::close() {
    if (!closed) {
        closed = true;
        asio::error_code ignored;
        socket.close(ignored);
        queued.notify();
        changed.notify();
    }
}

void connection::reset_when_closed(bool reset) {
    asio::error_code ignored;
    resets = reset;
    socket.set_option(asio::socket_base::linger(reset, 0), ignored);
}

void connection::refuse(const std::string& why) {
    if (!closed) {
        log_line(PROBLEM, "%s: closed: %s", name.c_str(), why.c_str());
        close();
    }
}

void connection::expect_within(milliseconds time, const char* reason) {
    deadline = steady::now() + time;
    deadline_reason = reason;
}

awaitable<void> connection_pump(std::shared_ptr<connection> link) {
    asio::error_code failed;
    while (!link->closed) {
        if (link->out.empty()) {
            co_await link->queued.wait();
            continue;
        }
        link->write_out();
        if (!link->closed && !link->out.empty()) {
            co_await link->socket.async_wait(tcp::socket::wait_write,
                                             asio::redirect_error(asio::use_awaitable, failed));
        }
    }
}

awaitable<void> connection_flush(connection& link) {
    while (!link.idle() && !link.closed) {
        co_await link.changed.wait();
    }
}

awaitable<size_t> connection_http_head(connection& link, std::string& bytes, size_t max) {
    while (bytes.size() <= max) {
        const size_t filled = bytes.size();
        bytes.resize(filled + HEAD_STEP);
        const size_t got = co_await receive(link, asio::buffer(bytes) + filled);
        bytes.resize(filled + got);
        if (got == 0) {
            break;
        }
        const size_t length = http_head_length(bytes, filled);
        if (length > 0 && length <= max) {
            co_return length;
        }
    }
    co_return 0;
}

bool connection_take_frame(connection& link, frame_input& input, frame& to) {
    if (link.closed) {
        return false;
    }
    const frame_input::result taken = input.take(to);
    if (taken == frame_input::result::FRAME) {
        link.log_frame('>', to);
    } else if (taken == frame_input::result::BAD) {
        link.refuse(input.error());
    }
    return taken == frame_input::result::FRAME;
}

awaitable<bool> connection_receive(connection& link, frame_input& input) {
    const std::span<char> room = input.room();
    const size_t got = co_await receive(link, asio::buffer(room.data(), room.size()));
    input.received(got);
    if (got > 0 && got < room.size()) {
        // A device goes on when most of what it has sent is acknowledged, and has Nagle's algorithm
        // on at first; an acknowledgement that the kernel delays costs either up to 40 ms.
        const int on = 1;
        setsockopt(link.socket.native_handle(), IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
    }
    co_return got > 0;
}

awaitable<bool> connection_next_frame(connection& link, frame_input& input, frame& to) {
    bool taken = connection_take_frame(link, input, to);
    bool more = true;
    while (!taken && more) {
        more = co_await connection_receive(link, input);
        taken = more && connection_take_frame(link, input, to);
    }
    co_return taken;
}
