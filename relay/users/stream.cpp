#include "users/stream.h"

#include <cerrno>

#include "users/device_request.h"
#include "users/exchange.h"
#include "users/guard.h"
#include "users/kept.h"

namespace {

constexpr size_t UPLOAD_FRAMES = 32;     // received at once
constexpr size_t INPUT_FRAMES = 2;       // of further requests
constexpr size_t INPUT_MAX = 64 * 1024;  // of them; then they wait with the user
constexpr char NO_ANSWER[] = "no answer", NO_LISTENER[] = "nothing listens on the port";
constexpr char USER_CLOSED[] = "user closed", RESPONSE_SILENT[] = "response silent";
constexpr char COMPLETE[] = "response complete", NO_ROUTE[] = "data connection ended";
constexpr char REQUEST_BROKEN[] = "request malformed", RESPONSE_BROKEN[] = "response malformed";
constexpr char STALE[] = "no answer to a further request", FOREIGN[] = "late end of a response";

void count_to_device(user_link& user, std::string_view bytes) {
    user.to_device += bytes.size();
    user.route->bytes_out += bytes.size();
    user.last_moved = steady::now();
}

frame data_frame(const user_link& user, std::string_view payload) {
    return {.code = command::DATA, .flag = 0, .stream_id = user.stream_id, .payload = payload};
}

// Frames for what is received from a user: the kernel puts it right behind where headers will be.
// One for all users, since nothing stays in it over a wait.
struct upload_frames {
    struct {
        char header[FRAME_HEADER], payload[FRAME_PAYLOAD_MAX];
    } frames[UPLOAD_FRAMES];
    iovec payloads[UPLOAD_FRAMES];

    upload_frames() {
        for (size_t i = 0; i < UPLOAD_FRAMES; ++i) {
            payloads[i] = {frames[i].payload, FRAME_PAYLOAD_MAX};
        }
    }
    // What has been received goes to the device, or waits: it is a further request.
    void pass_on(user_link& user, size_t size, bool uploads) {
        size_t body = 0;
        for (const iovec* each = payloads; size > 0; ++each) {
            const std::string_view part(static_cast<char*>(each->iov_base),
                                        std::min(size, each->iov_len));
            size -= part.size();
            if (uploads) {
                body += exchange_take_body(user, part).size();
            } else if (!user.unheard) {
                user.input += part;
            }
        }
        if (body > 0) {
            send(user, body);
        }
    }

   private:
    void send(user_link& user, size_t size) {
        static_assert(sizeof *frames == FRAME_MAX, "so that they leave as one piece");
        size_t count = 0;
        for (size_t left = size; left > 0; left -= std::min(left, FRAME_PAYLOAD_MAX)) {
            auto& [header, payload] = frames[count++];
            const frame whole = data_frame(user, {payload, std::min(left, FRAME_PAYLOAD_MAX)});
            count_to_device(user, whole.payload);
            user.route->log_frame('<', whole);
            frame_header(header, whole);
        }
        iovec piece{frames, size + count * FRAME_HEADER};
        user.route->send_now({&piece, 1});
    }
};

// Why the stream is over, or null while it goes on.
const char* end_reason(const relay& hub, const user_link& user) {
    const auto quiet = steady::now() - user.last_moved;
    if (user.closed) {
        return user.cut != nullptr ? user.cut : "user left";
    }
    if (user.route == nullptr) {
        return NO_ROUTE;
    }
    if (user.port_is == port_state::DEAD) {
        return NO_LISTENER;
    }
    if (user.response.broken()) {
        return RESPONSE_BROKEN;
    }
    if (user.response.complete() && user.too_much) {
        return "more than the response";
    }
    if (user.request.broken()) {
        return REQUEST_BROKEN;
    }
    if (user.response.complete() && (user.request.complete() || user.user_ended)) {
        return COMPLETE;
    }
    if (user.reused && user.stale) {
        return FOREIGN;
    }
    if (user.reused && !user.response.started() && quiet >= hub.settings.repeat_timeout) {
        return STALE;
    }
    // The service's end is not told. And closing one's sending side looks the same as leaving; a
    // user who is gone shows when something is sent to him. So in both cases only silence tells.
    if (user.user_ended && user.idle() && quiet >= hub.settings.linger_timeout) {
        return USER_CLOSED;
    }
    if (user.response.endless() && !user.response.stays_open() && user.idle() &&
        quiet >= hub.settings.linger_timeout) {
        return RESPONSE_SILENT;
    }
    if (!user.response.started() && quiet >= hub.settings.answer_timeout) {
        return NO_ANSWER;
    }
    // A device forgets such streams as well.
    return user.idle() && quiet >= hub.settings.silence_timeout ? "idle" : nullptr;
}

// Takes the stream from the user. It is closed unless it is kept for another request.
void stream_leave(user_link& user, const char* reason, bool kept) {
    // Of a request on a stream that has been there before, this is the only line.
    const std::string whose = user.reused ? ", for " + user.name + ": " + user.what : "";
    log_line(EVENT,
             "device %s: stream %u %s, %s, status %d, %ju bytes to the device, %ju from it%s",
             user.owner->name.c_str(), user.stream_id, kept ? "kept" : "closed", reason,
             user.response.code(), static_cast<uintmax_t>(user.to_device),
             static_cast<uintmax_t>(user.from_device), whose.c_str());
    const auto route = std::exchange(user.route, nullptr);
    if (route != nullptr && !kept) {
        route->send_frame({.code = command::CLOSE_STREAM, .stream_id = user.stream_id});
        route->streams.erase(user.stream_id);
    }
    if (route != nullptr) {
        route->changed.notify();  // which may be held back by him
    }
    user.stream_id = 0;
}

// The answer of the relay itself to a request that has none.
std::string answer_instead(const user_link& user, const char* reason) {
    const std::string port = std::to_string(user.port);
    if (reason == NO_LISTENER) {
        return http_text_reply(502, "Nothing listens on port " + port + " of the device.");
    }
    if (reason == REQUEST_BROKEN) {
        return http_text_reply(400, "The chunks of the request are none.");
    }
    if (reason != NO_ANSWER) {
        return http_text_reply(502, std::string("No answer: ") + reason + ".");
    }
    if (user.port_is == port_state::UNKNOWN) {
        return http_text_reply(504, "The device does not answer.");
    }
    return http_text_reply(504, "Nothing on port " + port + " of the device answers.");
}

// The data connection for a new stream, or null after answering the user. One that is held back is
// not taken at once: the device is about to get one back.
awaitable<std::shared_ptr<data_link>> stream_route(const relay& hub,
                                                   std::shared_ptr<user_link> user) {
    device& owner = *user->owner;
    const auto began = steady::now();
    const auto must_wait = [&](const data_link& link, steady::duration waited) {
        return link.full() || (link.held_back && waited < 2 * hub.settings.stuck_timeout);
    };
    auto route = device_pick_data(hub, owner);
    while (route != nullptr && must_wait(*route, steady::now() - began) &&
           steady::now() - began < hub.settings.answer_timeout) {
        ++owner.waiting;
        co_await route->changed.wait();
        --owner.waiting;
        route = device_pick_data(hub, owner);
    }
    if (route != nullptr && !route->full()) {
        co_return route;
    }
    const char* why = route != nullptr     ? "The device's data connections are full."
                      : owner.data.empty() ? "The device has no data connection."
                                           : "The device has as many streams as it can bear.";
    log_line(PROBLEM, "device %s: no data connection for %s: %s", owner.name.c_str(),
             user->what.c_str(), why);
    owner.lately.note(happening::REFUSED, why);
    user->reply(http_busy_reply(why));
    co_return nullptr;
}

}  // namespace

void stream_send(user_link& user, std::string_view bytes) {
    count_to_device(user, bytes);
    for (; !bytes.empty(); bytes.remove_prefix(std::min(bytes.size(), FRAME_PAYLOAD_MAX))) {
        user.route->send_frame(data_frame(user, bytes.substr(0, FRAME_PAYLOAD_MAX)));
    }
}

awaitable<void> stream_open(const relay& hub, std::shared_ptr<user_link> user, std::string bytes) {
    const std::shared_ptr<data_link> route = co_await stream_route(hub, user);
    if (route == nullptr) {
        co_return;
    }
    bytes += exchange_take_body(*user, std::exchange(user->input, {}));
    kept_make_room(*route, data_share(hub.settings));
    user->route = route;
    uint32_t& last_id = user->owner->last_stream_id;
    do {
        user->stream_id = last_id = last_id % STREAM_ID_MAX + 1;
    } while (route->streams.contains(last_id));
    route->streams[user->stream_id] = user;
    log_line(EVENT, "device %s: stream %u to port %u opened on %s for %s: %s",
             user->owner->name.c_str(), user->stream_id, user->port, route->name.c_str(),
             user->name.c_str(), user->what.c_str());
    const bool guarded = hub.settings.dead_port_guard && user->port != MAINTENANCE_PORT;
    if (guarded) {
        guard_lengthen(bytes, *user->owner);
    }
    const size_t opening = guarded ? std::min(bytes.size(), FRAME_PAYLOAD_MAX) : bytes.size();
    stream_send(*user, std::string_view(bytes).substr(0, opening));
    if (guarded) {
        guard_send(*user, opening);
        user->port_is = port_state::UNKNOWN;
        user->held = bytes.substr(opening);
    }
}

bool stream_heard(user_link& user, uint32_t id) {
    if (user.port_is == port_state::UNKNOWN) {
        const bool dead = id == user.stream_id + GUARD_SECOND;
        user.port_is = dead ? port_state::DEAD : port_state::ALIVE;
        if (!dead) {
            stream_send(user, std::exchange(user.held, {}));
        }
        user.changed.notify();
    }
    return id == user.stream_id;
}

awaitable<void> stream_upload(std::shared_ptr<user_link> user) {
    static upload_frames buffer;
    bool more = false;  // the last receive has left some
    while (!user->closed && !user->user_ended) {
        asio::error_code failed;
        if (more) {
            co_await asio::post(user->socket.get_executor(), asio::use_awaitable);  // in turn
        } else {
            co_await user->socket.async_wait(tcp::socket::wait_read,
                                             asio::redirect_error(asio::use_awaitable, failed));
        }
        const std::shared_ptr<data_link> route = user->route;
        const bool uploads =
            route != nullptr && (!user->request.complete() || user->response.switched());
        if (uploads ? user->port_is != port_state::ALIVE : user->input.size() > INPUT_MAX) {
            co_await user->changed.wait();  // a device would take the rest for a new request
            continue;
        }
        if (uploads && route->full()) {
            co_await route->changed.wait();  // the device takes less than he sends
            continue;
        }
        const size_t frames = uploads ? UPLOAD_FRAMES : INPUT_FRAMES;
        const ssize_t got = user->closed ? 0
                                         : readv(user->socket.native_handle(), buffer.payloads,
                                                 static_cast<int>(frames));
        if (got > 0) {
            buffer.pass_on(*user, static_cast<size_t>(got), uploads);
        }
        more = got == static_cast<ssize_t>(frames * FRAME_PAYLOAD_MAX);
        user->user_ended = got == 0;
        if (got < 0 && errno != EAGAIN) {
            user->close();  // a reset, unlike an end, means both ways
        }
        user->changed.notify();
    }
}

awaitable<bool> stream_carry(const relay& hub, std::shared_ptr<user_link> user) {
    if (user->stream_id == 0) {
        co_return true;
    }
    const char* reason = end_reason(hub, *user);
    while (reason == nullptr) {
        co_await user->changed.wait();
        reason = end_reason(hub, *user);
    }
    const auto route = user->route;
    stream_leave(*user, reason, reason == COMPLETE && kept_add(hub.settings, *user));
    const bool unanswered = reason == STALE || reason == FOREIGN;
    // An answer may have come while nobody has read it.
    if (reason == STALE && !route->held_back && route->last_held < user->last_moved) {
        kept_failed(*user);
    }
    if (user->reused && (unanswered || (reason == NO_ROUTE && !user->response.begun()))) {
        co_return false;
    }
    if (user->response.begun()) {
        // Nothing but silence tells the end of an endless response. Any other end has cut it off.
        const bool silent = reason == USER_CLOSED || reason == RESPONSE_SILENT;
        const bool whole = user->response.complete() || (user->response.endless() && silent);
        user->keeps = user->keeps && reason == COMPLETE && !user->response.sloppy();
        if (!whole) {
            user->close();
        }
    } else {
        user->persistent = user->persistent && reason != RESPONSE_BROKEN;
        if (!user->closed) {
            const std::string port = "port " + std::to_string(user->port) + ": ";
            user->owner->lately.note(happening::REFUSED, port + reason);
        }
        user->reply(answer_instead(*user, reason));
    }
    co_return true;
}

void user_link::has_room() {
    if (route != nullptr) {
        route->changed.notify();  // which may be held back by him
    }
}

void user_link::ended() {
    if (stream_id != 0) {
        stream_leave(*this, "failed", false);
    }
}
