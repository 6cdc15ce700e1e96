#include "users/stream.h"

#include "users/device_request.h"
#include "users/exchange.h"
#include "users/guard.h"
#include "users/kept.h"
#include "users/opening.h"
#include "users/upload.h"

namespace {

constexpr char NO_ANSWER[] = "no answer", NO_LISTENER[] = "nothing listens on the port";
constexpr char USER_CLOSED[] = "user closed", RESPONSE_SILENT[] = "response silent";
constexpr char COMPLETE[] = "response complete", NO_ROUTE[] = "data connection ended";
constexpr char REQUEST_BROKEN[] = "request malformed", RESPONSE_BROKEN[] = "response malformed";
constexpr char TALK_OVER[] = "both sides have closed the WebSocket";
constexpr char STALE[] = "no answer to a further request", FOREIGN[] = "late end of a response";

// Why its silence means that the stream is over, or null when it does not.
const char* silence_reason(const options& set, const user_link& user) {
    const auto quiet = steady::now() - user.last_moved;
    if ((user.swallows || (user.reused && !user.patient)) && !user.response.started() &&
        quiet >= set.repeat_timeout) {
        return STALE;
    }
    // The service's end is not told. And closing one's sending side looks the same as leaving; a
    // user who is gone shows when something is sent to him. So in both cases only silence tells.
    if (user.user_ended && user.idle() && quiet >= set.linger_timeout) {
        return USER_CLOSED;
    }
    if (user.response.endless() && !user.response.stays_open() && user.idle() &&
        quiet >= set.linger_timeout) {
        return RESPONSE_SILENT;
    }
    if (!user.response.started() && quiet >= set.answer_timeout) {
        return NO_ANSWER;
    }
    // A device forgets such streams as well.
    return user.idle() && quiet >= set.silence_timeout ? "idle" : nullptr;
}

// Why the stream is over, or null while it goes on.
const char* end_reason(const relay& hub, const user_link& user) {
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
    if (user.talk && user.talk->over()) {
        return TALK_OVER;
    }
    if (user.response.complete() && user.too_much) {
        return "more than the response";
    }
    if (user.response.complete() && user.swallows) {
        return COMPLETE;
    }
    if (user.request.broken()) {
        return REQUEST_BROKEN;
    }
    if (user.response.complete() && (user.request.complete() || user.user_ended)) {
        return COMPLETE;
    }
    if (user.stale) {
        return FOREIGN;
    }
    return silence_reason(hub.settings, user);
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

// Not so: an answer may have come while nobody has read it.
bool was_read(const user_link& user, const data_link& route) {
    return !route.held_back && route.last_held < user.last_moved;
}

// What the end of a stream that the relay has opened itself says of its service.
void learn_from_end(user_link& user, const char* reason, const data_link* route) {
    const bool unanswered = reason == STALE || reason == FOREIGN || reason == NO_ANSWER;
    if (unanswered && route != nullptr && was_read(user, *route)) {
        opening_learn(user, false);
    } else if (!unanswered && user.response.begun()) {
        opening_learn(user, true);
    }
}

// Until the stream is over; why it is.
awaitable<const char*> stream_end(const relay& hub, std::shared_ptr<user_link> user) {
    const char* reason = end_reason(hub, *user);
    while (reason == nullptr) {
        co_await user->changed.wait();
        reason = end_reason(hub, *user);
    }
    co_return reason;
}

}  // namespace

awaitable<void> stream_open(const relay& hub, std::shared_ptr<user_link> user, std::string bytes) {
    const std::shared_ptr<data_link> route = co_await stream_route(hub, user);
    if (route == nullptr) {
        co_return;
    }
    if (!user->swallows) {
        bytes += exchange_take_body(*user, std::exchange(user->input, {}));
    }
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
    upload_send(*user, std::string_view(bytes).substr(0, opening));
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
            upload_send(user, std::exchange(user.held, {}));
        }
        user.changed.notify();
    }
    return id == user.stream_id;
}

awaitable<swallowed> stream_swallow(const relay& hub, std::shared_ptr<user_link> user) {
    if (user->stream_id == 0) {
        co_return swallowed::ANSWERED_INSTEAD;
    }
    const char* const reason = co_await stream_end(hub, user);
    const http_response& response = user->response;
    if (reason == COMPLETE && !response.sloppy() && response.waits_s() != 0U) {
        co_return swallowed::GOES_ON;
    }
    const bool judged = user->port_is == port_state::ALIVE && user->route != nullptr &&
                        was_read(*user, *user->route);
    stream_leave(*user, reason, false);
    if (reason == NO_LISTENER || reason == NO_ROUTE || user->closed) {
        user->swallows = false;
        user->reply(answer_instead(*user, reason));
        co_return swallowed::ANSWERED_INSTEAD;
    }
    co_return judged ? swallowed::NOTHING_FOLLOWS : swallowed::UNKNOWN;
}

awaitable<bool> stream_carry(const relay& hub, std::shared_ptr<user_link> user) {
    if (user->stream_id == 0) {
        co_return true;
    }
    const char* const reason = co_await stream_end(hub, user);
    const auto route = user->route;
    stream_leave(*user, reason, reason == COMPLETE && kept_add(hub.settings, *user));
    const bool unanswered = reason == STALE || reason == FOREIGN;
    if (user->opened) {
        learn_from_end(*user, reason, route.get());
    } else if (reason == STALE && was_read(*user, *route)) {
        kept_failed(*user);
    }
    if (user->reused && (unanswered || (reason == NO_ROUTE && !user->response.begun()))) {
        co_return false;
    }
    if (user->response.begun()) {
        // Nothing but silence tells the end of an endless response. Any other end has cut it off.
        const bool silent = reason == USER_CLOSED || reason == RESPONSE_SILENT;
        const bool whole = user->response.complete() || reason == TALK_OVER ||
                           (user->response.endless() && silent);
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
