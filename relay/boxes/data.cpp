#include "boxes/data.h"

#include <algorithm>

#include "boxes/logins.h"
#include "users/exchange.h"
#include "users/fairness.h"
#include "users/guard.h"
#include "users/kept.h"
#include "users/stream.h"

namespace {

constexpr size_t DATA_INPUT = 256 * 1024;
constexpr uint8_t DATA_LOGIN_VERSION = 2;
constexpr int NUDGES_IN_SILENCE = 5;
constexpr milliseconds LOGIN_TIME{10'000};  // of all five data connections, one a second

void data_login(relay& hub, const std::shared_ptr<data_link>& link, const frame& got) {
    const auto login = login_take(hub, *link, got, DATA_LOGIN_VERSION);
    if (!login) {
        return;
    }
    const auto found = hub.devices.find(login->box.name);
    const auto owner = found == hub.devices.end() ? nullptr : found->second;
    if (const char* why = data_why_not(owner.get(), address_of(*link))) {
        link->refuse(std::string("data login of ") + log_text(login->box.name) + ": " + why);
        return;
    }
    login_done(hub, *link);
    link->owner = owner;
    link->reset_when_closed(true);  // a device takes a plain end of a data connection for a pause
    link->owner->data.push_back(link);
    fairness_judge(*link->owner);
    link->name += " data of " + link->owner->name;
    link->send_frame({.code = command::LOGIN_ANSWER});
    log_line(EVENT, "%s: data login, %zu up", link->name.c_str(), link->owner->data.size());
}

// A device restarts when one of its connections brings it nothing for more than five minutes. While
// users read slowly its heartbeats wait behind their data, so it gets what it skips instead.
void data_nudge(const relay& hub, data_link& link) {
    const auto now = steady::now();
    if ((now - link.last_nudge) * NUDGES_IN_SILENCE >= hub.settings.silence_timeout) {
        link.last_nudge = now;
        link.send_frame({.code = command::LOGIN_ANSWER});
    }
}

// Payloads stay where they have been received until everybody gets his at once.
void data_deliver(data_link& link, const frame& got, std::vector<user_link*>& touched) {
    const auto found = link.streams.find(guard_stream(got.stream_id));
    if (found == link.streams.end()) {
        kept_spoke(link, got.stream_id);
        return;  // or it is late data of a stream that its user has left
    }
    user_link& user = *found->second;
    if (!stream_heard(user, got.stream_id) || user.closed || got.payload.empty()) {
        return;
    }
    link.bytes_in += got.payload.size();
    user.from_device += got.payload.size();
    if (touched.empty() || touched.back() != &user) {
        touched.push_back(&user);
    }
    exchange_take_response(user, got.payload);
}

// All whole frames that have come.
void data_take(data_link& link, frame_input& input, std::vector<user_link*>& touched) {
    frame got;
    while (connection_take_frame(link, input, got)) {
        if (got.code == command::DATA && got.stream_id != 0) {
            data_deliver(link, got, touched);
        } else if (!heartbeat_answer(link, got)) {
            link.refuse("unexpected " + frame_text(got));
        }
    }
    for (user_link* const user : touched) {
        exchange_pass_on(*user);
    }
}

// Waits while one of these users takes less than comes for him.
awaitable<void> data_hold(const relay& hub, data_link& link,
                          const std::vector<user_link*>& touched) {
    std::vector<std::shared_ptr<user_link>> holders;
    for (const user_link* const user : touched) {
        if (user->full()) {
            holders.push_back(link.streams.at(user->stream_id));
        }
    }
    const auto holds = [&link](const auto& user) {
        return user->route.get() == &link && !user->closed && user->full();
    };
    while (!link.closed && std::ranges::any_of(holders, holds)) {
        if (!link.held_back) {
            fairness_hold(link, true);
        }
        link.deadline = NEVER;  // silence is the relay's own doing
        co_await link.changed.wait();
        data_nudge(hub, link);
    }
    if (link.held_back) {
        fairness_hold(link, false);
    }
}

}  // namespace

awaitable<void> data_serve(relay& hub, std::shared_ptr<data_link> link) {
    frame_input input(DATA_INPUT);
    frame got;
    std::vector<user_link*> touched;
    bool more = co_await connection_next_frame(*link, input, got);
    if (more) {
        data_login(hub, link, got);
    }
    while (more) {
        data_take(*link, input, touched);
        if (!touched.empty()) {
            data_nudge(hub, *link);
            co_await data_hold(hub, *link, touched);
            touched.clear();
        }
        link->expect_within(hub.settings.silence_timeout, "silent for too long");
        more = co_await connection_receive(*link, input);
    }
}

void data_link::ended() {
    if (owner == nullptr) {
        return;
    }
    std::erase_if(owner->data, [this](const auto& link) { return link.get() == this; });
    fairness_judge(*owner);
    owner->bytes_in += bytes_in;
    owner->bytes_out += bytes_out;
    owner->left = steady::now();
    if (owner->control != nullptr && steady::now() - owner->came >= LOGIN_TIME) {
        owner->lately.note(happening::LOST, std::to_string(owner->data.size()) + " are left");
    }
    log_line(EVENT, "%s: ended with %zu streams, %zu left", name.c_str(), streams.size(),
             owner->data.size());
    for (const auto& [id, user] : std::exchange(streams, {})) {
        user->route = nullptr;
        user->changed.notify();
    }
}
