#include "connection.h"

#include <netinet/tcp.h>

#include <algorithm>
#include <cstring>

#include "log.h"

namespace {

constexpr size_t BUFFER_FIRST = 4096;
constexpr std::chrono::milliseconds ACCEPT_PAUSE{200};
constexpr size_t SMALL_RECEIVE = 16384;

std::string peer_name(const tcp::socket& socket) {
    asio::error_code failed;
    const tcp::endpoint peer = socket.remote_endpoint(failed);
    return failed ? "(gone)" : peer.address().to_string() + ":" + std::to_string(peer.port());
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

char* byte_buffer::reserve(size_t count) {
    if (capacity - used < count) {
        capacity = std::max({used + count, 2 * capacity, BUFFER_FIRST});
        std::unique_ptr<char[]> bigger(new char[capacity]);
        if (used > 0) {
            memcpy(bigger.get(), bytes_.get(), used);
        }
        bytes_ = std::move(bigger);
    }
    return bytes_.get() + used;
}

void byte_buffer::append(std::string_view bytes) {
    if (!bytes.empty()) {  // no bytes may have no address, which memcpy must not see
        memcpy(reserve(bytes.size()), bytes.data(), bytes.size());
        commit(bytes.size());
    }
}

connection::connection(tcp::socket accepted)
    : socket(std::move(accepted)),
      name(peer_name(socket)),
      queued(socket.get_executor()),
      drained(socket.get_executor()) {
    asio::error_code ignored;  // a peer that is gone already shows at the first read
    socket.set_option(tcp::no_delay(true), ignored);
    socket.non_blocking(true, ignored);
}

void connection::tick(steady::time_point now) {
    if (!closed && now >= deadline) {
        refuse(deadline_reason);
    }
}

void connection::send(std::string_view bytes) {
    if (!bytes.empty() && !closed) {
        filling.append(bytes);
        wake();
    }
}

void connection::send_frame(const frame& whole) {
    if (!closed) {
        frame_header_write(filling.reserve(FRAME_HEADER), whole, whole.payload.size());
        filling.commit(FRAME_HEADER);
        filling.append(whole.payload);
        wake();
        log_frame("%s < %s version %u flag %u stream %u length %zu", name.c_str(),
                  command_name(whole.code), whole.version, whole.flag, whole.stream_id,
                  whole.payload.size());
    }
}

void connection::wake() {
    if (sending.size() == 0) {
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
        drained.notify();
    }
}

void connection::refuse(const std::string& why) {
    if (!closed) {
        log_problem("%s: %s, closed", name.c_str(), why.c_str());
        close();
    }
}

void connection::expect_within(std::chrono::seconds time, const char* reason) {
    deadline = steady::now() + time;
    deadline_reason = reason;
}

awaitable<void> connection_pump(std::shared_ptr<connection> link) {
    while (!link->closed) {
        if (link->filling.size() == 0) {
            co_await link->queued.wait();
            continue;
        }
        std::swap(link->filling, link->sending);
        link->drained.notify();
        size_t sent = 0;
        while (sent < link->sending.size() && !link->closed) {
            asio::error_code failed;
            const auto rest =
                asio::buffer(link->sending.data() + sent, link->sending.size() - sent);
            sent += co_await link->socket.async_write_some(
                rest, asio::redirect_error(asio::use_awaitable, failed));
            link->last_taken = steady::now();
            if (failed) {
                link->close();
            }
        }
        link->sending.clear();
        link->drained.notify();
    }
}

awaitable<void> connection_flush(std::shared_ptr<connection> link) {
    while (!link->idle() && !link->closed) {
        co_await link->drained.wait();
    }
}

awaitable<size_t> connection_receive(connection& link, std::span<char> to) {
    if (link.closed) {
        co_return 0;
    }
    asio::error_code failed;
    const auto room = asio::buffer(to.data(), to.size());
    const size_t got = co_await link.socket.async_read_some(
        room, asio::redirect_error(asio::use_awaitable, failed));
    co_return failed ? 0 : got;
}

awaitable<bool> connection_next_frame(connection& link, frame_input& input, frame& to) {
    for (;;) {
        const frame_input::result taken = input.take(to);
        if (taken == frame_input::result::BAD) {
            link.refuse(input.error());
        } else if (taken == frame_input::result::FRAME) {
            log_frame("%s > %s version %u flag %u stream %u length %zu", link.name.c_str(),
                      command_name(to.code), to.version, to.flag, to.stream_id, to.payload.size());
            co_return true;
        }
        const size_t got = co_await connection_receive(link, input.room());
        if (got == 0) {
            co_return false;
        }
        input.received(got);
        if (got < SMALL_RECEIVE) {
            // A device leaves Nagle's algorithm on: its next small frame waits for the
            // acknowledgement of this one, which the kernel would otherwise delay by 40 ms.
            const int on = 1;
            setsockopt(link.socket.native_handle(), IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
        }
    }
}

awaitable<void> connection_accept_pause(asio::error_code failed) {
    if (failed == asio::error::operation_aborted) {
        co_return;
    }
    log_problem("accept failed: %s", failed.message().c_str());
    asio::steady_timer pause(co_await asio::this_coro::executor, ACCEPT_PAUSE);
    co_await pause.async_wait(asio::redirect_error(asio::use_awaitable, failed));
}
