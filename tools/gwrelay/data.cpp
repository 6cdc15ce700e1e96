#include "data.h"

#include <algorithm>

namespace {

constexpr size_t INPUT_SIZE = 256 * 1024;
constexpr uint8_t LOGIN_VERSION = 2;
constexpr size_t SEQUENCE = 4;
// Heartbeat answers may pass a full queue, but not without end.
constexpr size_t ANSWERS_MAX = 64 * 1024;

bool data_login(relay& hub, const std::shared_ptr<data_link>& link, const frame& login) {
    const auto info = device_info_parse(login.payload);
    if (login.code != command::DEVICE_INFO || login.version != LOGIN_VERSION || !info) {
        link->refuse(std::string("not a data login: ") + command_name(login.code) + " version " +
                     std::to_string(login.version) + " " + log_text(login.payload));
        return false;
    }
    link->owner = device_get(hub, *pairs_find(*info, "deviceid"));
    link->order = link->owner->orders;
    link->owner->data.push_back(link);
    link->name += " data of " + link->owner->name;
    link->send_frame({.code = command::LOGIN_ANSWER});
    log_event("%s: data login, %zu up", link->name.c_str(), link->owner->data.size());
    return true;
}

awaitable<void> data_deliver(data_link& link, uint32_t stream_id, std::string_view bytes) {
    const auto found = link.streams.find(stream_id);
    if (found == link.streams.end()) {
        co_return;  // late data of a stream that its user has left
    }
    const std::shared_ptr<user_link> user = found->second;
    const auto carries = [&user, &link] { return user->route.get() == &link && !user->closed; };
    while (user->full() && carries() && !link.closed) {
        link.held_back = true;
        co_await user->drained.wait();
    }
    link.held_back = false;
    if (!carries()) {
        co_return;
    }
    link.bytes_in += bytes.size();
    user->from_device += bytes.size();
    user->last_moved = steady::now();
    user->response.feed(bytes);
    user->send(bytes);
    if (user->response.complete() || user->user_ended) {
        user->changed.notify();
    }
}

}  // namespace

awaitable<void> data_serve(relay& hub, std::shared_ptr<data_link> link) {
    frame_input input(INPUT_SIZE);
    frame got;
    bool more = co_await connection_next_frame(*link, input, got);
    if (!more || !data_login(hub, link, got)) {
        co_return;
    }
    while (more) {
        link->expect_within(hub.settings.silence_timeout, "silent for too long");
        more = co_await connection_next_frame(*link, input, got);
        if (!more) {
            break;
        }
        if (got.code == command::DATA && got.stream_id != 0) {
            co_await data_deliver(*link, got.stream_id, got.payload);
        } else if (got.code == command::HEARTBEAT && got.payload.size() == SEQUENCE) {
            link->send_frame({.version = 2, .code = command::HEARTBEAT, .payload = got.payload});
        } else {
            link->refuse(std::string("unexpected ") + command_name(got.code) + " for stream " +
                         std::to_string(got.stream_id) + " of length " +
                         std::to_string(got.payload.size()));
        }
        if (link->filling.size() > OUTBOX_LIMIT + ANSWERS_MAX) {
            link->refuse("does not take its answers");
        }
    }
}

void data_ended(relay&, const std::shared_ptr<data_link>& link) {
    const std::shared_ptr<device> owner = std::move(link->owner);
    if (owner == nullptr) {
        return;
    }
    std::erase(owner->data, link);
    owner->bytes_in += link->bytes_in;
    owner->bytes_out += link->bytes_out;
    owner->left = steady::now();
    log_event("%s: ended with %zu streams, %zu left", link->name.c_str(), link->streams.size(),
              owner->data.size());
    for (const auto& [id, user] : std::exchange(link->streams, {})) {
        user->route = nullptr;
        user->changed.notify();
    }
}
