// connection.h - one accepted TCP connection of any kind, and the bytes that wait to go out on it.
//
// All of the relay runs on one thread. Each connection has two coroutines: its own story, which
// reads, and connection_pump, which sends what is queued. Whoever finds a connection broken closes
// it; both coroutines notice and end.
#pragma once

#include <sys/uio.h>

#include <asio.hpp>
#include <chrono>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "base/options.h"
#include "net/liveness.h"
#include "net/outbox.h"
#include "wire/frames.h"

using asio::awaitable;
using asio::ip::tcp;

constexpr size_t PARTS_MAX = 1024;  // that the kernel sends in one call

// Coroutines wait here for something to change. There is no state and nothing is remembered: test
// the condition, then wait, in a loop.
class event {
   public:
    explicit event(const asio::any_io_executor& executor) : timer(executor, NEVER) {}
    awaitable<void> wait();
    void notify();

   private:
    asio::steady_timer timer;  // never expires; cancelling it wakes everybody
    size_t waiting = 0;
};

struct connection {
    tcp::socket socket;
    std::string name;  // the peer's address, and what is known about it; safe to log
    bool closed = false;
    bool resets = false;  // when it closes
    outbox out;
    uint64_t taken = 0;                   // bytes, by the kernel
    event queued;                         // for the pump
    event changed;                        // for all others: there is room, it closed, a tick
    steady::time_point deadline = NEVER;  // closed then, with this reason:
    const char* deadline_reason = "";
    milliseconds patience{};  // while the peer takes nothing of what waits for it
    steady::time_point last_taken = steady::now();
    uint64_t last_acknowledged = 0;
    liveness alive;  // watched from a device's login on

    explicit connection(tcp::socket accepted);
    connection(connection&&) = delete;
    virtual ~connection() = default;
    virtual void ended() {}     // its story is over, whatever became of it
    virtual void has_room() {}  // its outbox is not full any more

    bool full() const { return out.full(); }
    bool idle() const { return out.empty(); }
    uint64_t acknowledged() const;  // bytes that the peer's kernel has got of what was sent
    void send(std::string_view bytes);
    // Without the way through the outbox, as far as that is empty and the kernel takes them: not
    // more than PARTS_MAX at once.
    void send_now(std::span<iovec> parts);
    void send_frame(const frame& whole);
    void log_frame(char direction, const frame& whole) const;
    void write_out();  // what waits, as far as the kernel takes it; for the pump
    void close();
    void reset_when_closed(bool reset);   // instead of a plain end, which some peers misunderstand
    void refuse(const std::string& why);  // one log line, then close
    void expect_within(milliseconds time, const char* reason);
    void tick(steady::time_point now);  // once a second, or as often as time-outs ask

   private:
    void took(size_t count);
};

awaitable<void> connection_pump(std::shared_ptr<connection> link);
// Until everything queued has gone out, or the connection is closed.
awaitable<void> connection_flush(connection& link);
// The length of an HTTP head, received into `bytes`, which may hold more. 0: the peer has left or,
// with more than `max` bytes, says too much.
awaitable<size_t> connection_http_head(connection& link, std::string& bytes, size_t max);
// The next frame of those that have come. False: none is whole, or the connection was refused for a
// bad header.
bool connection_take_frame(connection& link, frame_input& input, frame& to);
// More of them. False: the connection has ended.
awaitable<bool> connection_receive(connection& link, frame_input& input);
// The next whole frame. False: the connection has ended, or was refused for a bad header.
awaitable<bool> connection_next_frame(connection& link, frame_input& input, frame& to);
