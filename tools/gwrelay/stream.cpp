#include "stream.h"

#include <algorithm>
#include <array>

namespace {

constexpr size_t READ_FRAMES = 8;  // at most so many frames are received at once
constexpr size_t DISCARD_SIZE = 16384;
// After what looks like the last chunk, silence for so long makes it the last chunk. Without that a
// user who keeps his connection would send the next request to this one's service.
constexpr std::chrono::seconds LAST_CHUNK_QUIET{1};

void append_frame(data_link& route, const frame& whole) {
    route.send_frame(whole);
    route.bytes_out += whole.code == command::DATA ? whole.payload.size() : 0;
}

void open_on(const relay& hub, const std::shared_ptr<user_link>& user,
             const std::shared_ptr<data_link>& route, std::string_view bytes) {
    user->route = route;
    user->stream_id = device_new_stream_id(*user->owner);
    user->to_device = bytes.size();
    user->last_moved = steady::now();
    route->streams[user->stream_id] = user;
    bool first = true;
    while (!bytes.empty()) {
        const std::string_view part = bytes.substr(0, FRAME_PAYLOAD_MAX);
        bytes.remove_prefix(part.size());
        append_frame(
            *route,
            {.code = command::DATA, .flag = 0, .stream_id = user->stream_id, .payload = part});
        // When nothing listens on the port, the device throws away as many bytes of this
        // connection as the opening frame carried. It may have these: a login answer of that size,
        // which it skips when the port is alive. Without them it would eat other users' frames.
        if (first && hub.settings.dead_port_guard && part.size() >= FRAME_HEADER) {
            const std::string nothing(part.size() - FRAME_HEADER, '\0');
            append_frame(*route, {.code = command::LOGIN_ANSWER, .payload = nothing});
        }
        first = false;
    }
}

// After a receive that failed. False: the user has ended; a reset, unlike an end, means both ways.
bool user_goes_on(user_link& user, asio::error_code failed) {
    if (failed != asio::error::would_block && failed != asio::error::eof) {
        user.close();
    }
    return failed == asio::error::would_block;
}

// Puts what the user has sent straight into the connection's outbox: the header goes in front of
// each portion once its length is known. False: he has ended.
bool upload_once(user_link& user, data_link& route) {
    char* const to = route.filling.reserve(READ_FRAMES * FRAME_MAX);
    std::array<asio::mutable_buffer, READ_FRAMES> payloads;
    for (size_t i = 0; i < READ_FRAMES; ++i) {
        payloads[i] = asio::buffer(to + i * FRAME_MAX + FRAME_HEADER, FRAME_PAYLOAD_MAX);
    }
    asio::error_code failed;
    const size_t got = user.socket.read_some(payloads, failed);
    if (failed) {
        return user_goes_on(user, failed);
    }
    frame header{.code = command::DATA, .flag = 0, .stream_id = user.stream_id, .payload = {}};
    size_t left = got;
    for (size_t i = 0; left > 0; ++i) {
        const size_t length = std::min(left, FRAME_PAYLOAD_MAX);
        frame_header_write(to + i * FRAME_MAX, header, length);
        route.filling.commit(FRAME_HEADER + length);
        left -= length;
        log_frame("%s < Data version 1 flag 0 stream %u length %zu", route.name.c_str(),
                  user.stream_id, length);
    }
    route.wake();
    route.bytes_out += got;
    user.to_device += got;
    user.request_left -= std::min<uint64_t>(user.request_left, got);
    user.last_moved = steady::now();
    if (user.request_left == 0 && user.response.complete()) {
        user.changed.notify();
    }
    return true;
}

bool discard_once(user_link& user) {
    std::array<char, DISCARD_SIZE> nowhere;
    asio::error_code failed;
    user.socket.read_some(asio::buffer(nowhere), failed);
    return !failed || user_goes_on(user, failed);
}

// Why the stream is over, or null while it goes on.
const char* end_reason(const relay& hub, const user_link& user) {
    const auto quiet = steady::now() - user.last_moved;
    if (user.closed) {
        return "user left";
    }
    if (user.route == nullptr) {
        return "data connection ended";
    }
    if (user.response.complete() && (user.request_left == 0 || user.user_ended)) {
        return "response complete";
    }
    if (user.response.looks_complete() && user.request_left == 0 && quiet >= LAST_CHUNK_QUIET) {
        return "response complete";
    }
    if (user.user_ended && user.response.looks_complete()) {
        return "user closed after the response";
    }
    // Closing one's sending side looks the same as leaving. A response may still be on its way, so
    // only silence tells the two apart; a user who is gone shows when something is sent to him.
    if (user.user_ended && user.idle() && quiet >= hub.settings.linger_timeout) {
        return "user closed";
    }
    if (stream_user_stalls(hub, user)) {
        return "user takes nothing";
    }
    if (!user.response.started() && quiet >= hub.settings.answer_timeout) {
        return "no answer";
    }
    return nullptr;
}

void answer_for_device(const relay& hub, user_link& user, const char* reason) {
    if (user.response.started() || user.closed) {
        return;
    }
    const bool silent = steady::now() - user.last_moved >= hub.settings.answer_timeout;
    user.send(silent ? http_text_reply(504,
                                       "The device does not answer. Does anything listen on "
                                       "port " +
                                           std::to_string(user.port) + "?")
                     : http_text_reply(502, std::string("No answer: ") + reason));
}

}  // namespace

awaitable<void> stream_run(relay& hub, std::shared_ptr<user_link> user, std::string first_bytes) {
    std::shared_ptr<data_link> route = device_pick_data(*user->owner);
    while (route != nullptr && route->full() && !user->closed) {
        co_await route->drained.wait();
        route = device_pick_data(*user->owner);
    }
    if (route == nullptr) {
        user->send(http_text_reply(503, "The device has no data connection."));
        co_return;
    }
    open_on(hub, user, route, first_bytes);
    log_event("device %s: stream %u to port %u opened on %s for %s", user->owner->name.c_str(),
              user->stream_id, user->port, route->name.c_str(), user->name.c_str());
    route = nullptr;
    asio::co_spawn(user->socket.get_executor(), stream_upload(user), asio::detached);
    const char* reason = end_reason(hub, *user);
    while (reason == nullptr) {
        co_await user->changed.wait();
        reason = end_reason(hub, *user);
    }
    stream_close(*user, reason);
    answer_for_device(hub, *user, reason);
}

awaitable<void> stream_upload(std::shared_ptr<user_link> user) {
    while (!user->closed && !user->user_ended) {
        asio::error_code failed;
        co_await user->socket.async_wait(tcp::socket::wait_read,
                                         asio::redirect_error(asio::use_awaitable, failed));
        const std::shared_ptr<data_link> route = user->route;
        if (failed) {
            user->user_ended = true;
        } else if (route == nullptr || route->closed) {
            user->user_ended = !discard_once(*user);
        } else if (route->full()) {
            co_await route->drained.wait();  // the device takes less than he sends
        } else {
            user->user_ended = !upload_once(*user, *route);
        }
    }
    user->changed.notify();
}

void stream_close(user_link& user, const char* reason) {
    if (user.stream_id == 0) {
        return;
    }
    log_event("device %s: stream %u closed, %s, %llu bytes to the device, %llu bytes from it",
              user.owner->name.c_str(), user.stream_id, reason,
              static_cast<unsigned long long>(user.to_device),
              static_cast<unsigned long long>(user.from_device));
    if (const auto route = std::exchange(user.route, nullptr); route != nullptr) {
        route->send_frame({.code = command::CLOSE_STREAM, .stream_id = user.stream_id});
        route->streams.erase(user.stream_id);
        user.drained.notify();  // the connection may be waiting for him
    }
    user.stream_id = 0;
}

bool stream_user_stalls(const relay& hub, const user_link& user) {
    return !user.idle() && steady::now() - user.last_taken >= hub.settings.stall_timeout;
}
