#include "connection.h"

#include <linux/sockios.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>

#include "http.h"

namespace {

// Of frames, and reached only by answers that a device never takes. Users get nothing unasked.
constexpr size_t OUTBOX_MAX = 4 * OUTBOX_LIMIT;
constexpr size_t SMALL_RECEIVE = 16384;
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

void connection::tick(steady::time_point now) {
    // A write gets on in big steps only: to a slow reader, minutes apart. What the peer has
    // acknowledged shows sooner whether it takes anything: after a 16th of its receive buffer.
    const int before = unacknowledged;
    if (!closed && ioctl(socket.native_handle(), SIOCOUTQ, &unacknowledged) == 0 &&
        unacknowledged != before) {
        last_taken = now;
    }
    if (now >= deadline) {
        refuse(deadline_reason);
    } else if (!idle() && now - last_taken >= patience) {
        refuse("takes nothing of what waits for it");
    }
    changed.notify();
}

void connection::send(std::string_view bytes) {
    if (!closed) {
        filling += bytes;
        wake();
    }
}

void connection::send_frame(const frame& whole) {
    if (!closed) {
        log_line(FRAME, "%s < %s version %u flag %u stream %u length %zu", name.c_str(),
                 command_name(whole.code), whole.version, whole.flag, whole.stream_id,
                 whole.payload.size());
        frame_append(filling, whole);
        wake();
        if (filling.size() > OUTBOX_MAX) {
            refuse("does not take what it asks for");
        }
    }
}

void connection::wake() {
    if (sending.empty()) {
        last_taken = steady::now();
        queued.notify();
    }
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
    while (!link->closed) {
        if (link->filling.empty()) {
            co_await link->queued.wait();
            continue;
        }
        std::swap(link->filling, link->sending);
        link->changed.notify();
        asio::error_code failed;
        for (size_t sent = 0; sent < link->sending.size() && !link->closed;) {
            sent += co_await link->socket.async_write_some(
                asio::buffer(link->sending) + sent,
                asio::redirect_error(asio::use_awaitable, failed));
            link->last_taken = steady::now();
            if (failed) {
                link->close();
            }
        }
        link->sending.clear();
        link->changed.notify();
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

awaitable<bool> connection_next_frame(connection& link, frame_input& input, frame& to) {
    while (!link.closed) {
        const frame_input::result taken = input.take(to);
        if (taken == frame_input::result::FRAME) {
            log_line(FRAME, "%s > %s version %u flag %u stream %u length %zu", link.name.c_str(),
                     command_name(to.code), to.version, to.flag, to.stream_id, to.payload.size());
            co_return true;
        }
        if (taken == frame_input::result::BAD) {
            link.refuse(input.error());
            break;
        }
        const std::span<char> room = input.room();
        const size_t got = co_await receive(link, asio::buffer(room.data(), room.size()));
        if (got == 0) {
            break;
        }
        input.received(got);
        if (got < SMALL_RECEIVE) {
            // A device leaves Nagle's algorithm on: its next small frame waits for the
            // acknowledgement of this one, which the kernel would otherwise delay by 40 ms.
            const int on = 1;
            setsockopt(link.socket.native_handle(), IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
        }
    }
    co_return false;
}
