// connection.h - one accepted TCP connection of any kind, and the bytes that wait to go out on it.
//
// All of the relay runs on one thread. Each connection has two coroutines: its own story, which
// reads and, at its end, cleans up; and connection_pump, which sends what is queued. Whoever finds
// a connection broken closes it; both coroutines notice and end.
#pragma once

#include <asio.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "frames.h"

using asio::awaitable;
using asio::ip::tcp;
using steady = std::chrono::steady_clock;

// What waits for one connection stays below this and one more portion. Big enough to keep a fast
// socket busy, small enough that a thousand slow ones do no harm.
constexpr size_t OUTBOX_LIMIT = 256 * 1024;

// Coroutines wait here for something to change. There is no state and nothing is remembered: test
// the condition, then wait, in a loop.
class event {
   public:
    explicit event(const asio::any_io_executor& executor)
        : timer(executor, steady::time_point::max()) {}
    awaitable<void> wait();
    void notify();

   private:
    asio::steady_timer timer;  // never expires; cancelling it wakes everybody
    size_t waiting = 0;
};

class byte_buffer {  // grows without filling in what is about to be overwritten anyway
   public:
    char* reserve(size_t count);  // room for so many bytes behind the last one
    void commit(size_t count) { used += count; }
    void append(std::string_view bytes);
    void clear() { used = 0; }
    const char* data() const { return bytes_.get(); }
    size_t size() const { return used; }

   private:
    std::unique_ptr<char[]> bytes_;
    size_t used = 0, capacity = 0;
};

struct connection : std::enable_shared_from_this<connection> {
    tcp::socket socket;
    std::string name;  // the peer's address, and what is known about it; safe to log
    bool closed = false;
    byte_buffer filling, sending;  // one takes frames while the other goes out in one write
    event queued, drained;
    steady::time_point last_taken = steady::now();            // progress of the sending side
    steady::time_point deadline = steady::time_point::max();  // closed then, with this reason:
    const char* deadline_reason = "";

    explicit connection(tcp::socket accepted);
    connection(connection&&) = delete;
    virtual ~connection() = default;
    virtual void tick(steady::time_point now);  // once a second

    bool full() const { return filling.size() >= OUTBOX_LIMIT; }
    bool idle() const { return filling.size() == 0 && sending.size() == 0; }
    void send(std::string_view bytes);
    void send_frame(const frame& whole);
    void wake();  // after bytes have been put into `filling` by hand
    virtual void close();
    void refuse(const std::string& why);  // one log line, then close
    void expect_within(std::chrono::seconds time, const char* reason);
};

awaitable<void> connection_pump(std::shared_ptr<connection> link);
// Until everything queued has gone out, or the connection is closed.
awaitable<void> connection_flush(std::shared_ptr<connection> link);
// Receives once into `to`; 0 at the end of the connection or after an error.
awaitable<size_t> connection_receive(connection& link, std::span<char> to);
// The next whole frame. False: the connection has ended, or was refused for a bad header.
awaitable<bool> connection_next_frame(connection& link, frame_input& input, frame& to);

awaitable<void> connection_accept_pause(asio::error_code failed);
// Accepts for ever. `serve` is the connection's story and `ended` its clean-up, which runs
// whatever became of the story. Out of descriptors, it waits instead of spinning.
template <typename Link, typename Hub>
awaitable<void> connection_accept_loop(Hub& hub, tcp::acceptor& acceptor,
                                       awaitable<void> (*serve)(Hub&, std::shared_ptr<Link>),
                                       void (*ended)(Hub&, const std::shared_ptr<Link>&)) {
    while (acceptor.is_open()) {
        asio::error_code failed;
        tcp::socket socket =
            co_await acceptor.async_accept(asio::redirect_error(asio::use_awaitable, failed));
        if (failed) {
            co_await connection_accept_pause(failed);
            continue;
        }
        auto link = std::make_shared<Link>(std::move(socket));
        hub.connections.push_back(link);
        link->expect_within(hub.settings.login_timeout, "said nothing useful in time");
        asio::co_spawn(acceptor.get_executor(), connection_pump(link), asio::detached);
        asio::co_spawn(acceptor.get_executor(), serve(hub, link),
                       [&hub, link, ended](const std::exception_ptr&) {
                           ended(hub, link);
                           link->close();
                       });
    }
}
