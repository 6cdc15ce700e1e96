#include "boxes/devices.h"

#include <algorithm>
#include <random>

#include "boxes/logins.h"
#include "users/exchange.h"
#include "users/fairness.h"
#include "users/guard.h"
#include "users/kept.h"
#include "users/stream.h"

namespace {

constexpr size_t QUERY_MAX = 4096;
constexpr size_t CONTROL_INPUT = 2 * FRAME_MAX, DATA_INPUT = 256 * 1024;
constexpr uint8_t CONTROL_LOGIN_VERSION = 3, DATA_LOGIN_VERSION = 2;
constexpr size_t PORTS_MAX = 16;
constexpr size_t SESSION_ID_SIZE = 32;
constexpr size_t WORD = 4;
constexpr char CLOSING[] = "Connection: close\r\n";
constexpr int NUDGES_IN_SILENCE = 5;
constexpr milliseconds LOGIN_TIME{10'000};  // of all five data connections, one a second

// The next frame that is not a heartbeat, which is answered here.
awaitable<bool> next_frame(const relay& hub, connection& link, frame_input& input, frame& to) {
    link.expect_within(hub.settings.silence_timeout, "silent for too long");
    bool more = co_await connection_next_frame(link, input, to);
    while (more && to.code == command::HEARTBEAT && to.payload.size() == WORD) {
        link.send_frame({.version = 2, .code = command::HEARTBEAT, .payload = to.payload});
        link.expect_within(hub.settings.silence_timeout, "silent for too long");
        more = co_await connection_next_frame(link, input, to);
    }
    co_return more;
}

// Of what was there before, nothing is of use: the device has started anew, or it has gone.
void control_replace(device& owner) {
    if (owner.control == nullptr) {
        owner.lately.note(happening::CONNECTED, "from " + owner.address);
    } else {
        owner.lately.note_replaced(owner.address, owner.came);
        owner.control->refuse("replaced by a new login");
    }
    for (const auto& old_link : owner.data) {
        old_link->refuse("the device has logged in anew");
    }
}

awaitable<void> control_login(relay& hub, std::shared_ptr<control_link> link, frame got) {
    auto login = login_take(hub, *link, got, CONTROL_LOGIN_VERSION);
    if (!login) {
        co_return;
    }
    const auto owner = device_get(hub, login->box.name);
    const std::string address = address_of(*link);
    log_line(EVENT, "%s: control login of device %s: %s", link->name.c_str(), owner->name.c_str(),
             log_text(json_object(login->info)).c_str());
    const bool taken = co_await is_taken(hub, owner, address);
    if (link->closed) {
        co_return;
    }
    if (taken) {
        owner->lately.note_second(address, steady::now());
        link->refuse("another device has logged in with the id of " + owner->name);
        co_return;
    }
    login_done(hub, *link);
    owner->info = std::move(login->info);
    owner->wire_id = login->id;
    owner->one_address = login->box.same_address;
    owner->address = address;
    owner->came = steady::now();
    link->name += " control of " + owner->name;
    control_replace(*owner);
    owner->control = link;
    link->owner = owner;
    if (hub.settings.command7) {
        link->send_frame({.code = command::LOGIN_ANSWER});
        link->send_frame({.code = command::DATA_ORDER, .payload = hub.order_text});
    } else {
        link->send_frame({.version = 2, .code = command::LOGIN_ANSWER, .payload = hub.order_json});
    }
    log_line(EVENT, "device %s: ordered five data connections", owner->name.c_str());
    if (hub.settings.times) {
        device_send_times(*owner, *hub.settings.times);
    }
}

// The announced ports: {"http_port":8080} and the like. A device passes on what its services say,
// so what is no port says nothing against the device and is only not kept.
bool control_take_ports(device& owner, std::string_view json) {
    const auto pairs = json_flat_object(json);
    for (const auto& [key, value] : pairs.value_or(text_pairs{})) {
        const auto port = number_parse<uint16_t>(value);
        if (!port || (!owner.ports.contains(key) && owner.ports.size() == PORTS_MAX)) {
            log_line(EVENT, "device %s: no port, or one too many: %s", owner.name.c_str(),
                     log_text(json).c_str());
            continue;
        }
        owner.ports[key] = *port;
        log_line(EVENT, "device %s: %s is %u", owner.name.c_str(), log_text(key).c_str(), *port);
    }
    return pairs.has_value();
}

// False: a device does not send such a frame on a logged-in control connection.
bool control_take(control_link& link, const frame& got) {
    device& owner = *link.owner;
    if (got.code == command::SESSION_ID && got.payload.empty()) {
        std::random_device random;
        char id[SESSION_ID_SIZE + 1];
        snprintf(id, sizeof id, "%08x%08x%08x%08x", random(), random(), random(), random());
        link.send_frame({.code = command::SESSION_ID, .payload = id});
        log_line(EVENT, "device %s: session id %s", owner.name.c_str(), id);
        return true;
    }
    if (got.code == command::STATUS && got.payload.size() == WORD) {
        owner.dlna_status = load_be32(got.payload.data());
        log_line(EVENT, "device %s: DLNA status 0x%x", owner.name.c_str(), *owner.dlna_status);
        return true;
    }
    return got.code == command::PORT_INFO && control_take_ports(owner, got.payload);
}

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
        if (got.code == command::HEARTBEAT && got.payload.size() == WORD) {
            link.send_frame({.version = 2, .code = command::HEARTBEAT, .payload = got.payload});
        } else if (got.code == command::DATA && got.stream_id != 0) {
            data_deliver(link, got, touched);
        } else {
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

// A device parses what its first receive returns, so head and body leave in one write.
awaitable<void> manager_serve(relay& hub, std::shared_ptr<connection> link) {
    std::string bytes;
    const size_t length = co_await connection_http_head(*link, bytes, QUERY_MAX);
    if (length == 0) {
        link->refuse(bytes.size() > QUERY_MAX ? "query too long" : "no query");
        co_return;
    }
    const auto request = http_request_parse(std::string_view(bytes).substr(0, length));
    const auto id = request ? query_take(request->query, "devid") : std::nullopt;
    const bool asks = id && !id->empty() && request->method == "GET" &&
                      request->path == "/addrmgr/device_get_proxy";
    std::string why =
        "not an address query: " + log_text(bytes.substr(0, bytes.find_first_of("\r\n?")));
    const auto box = asks ? boxes_answer(hub, *id, address_of(*link), why) : std::nullopt;
    if (box) {
        log_line(EVENT, "%s: device %s asks for its control server: %s", link->name.c_str(),
                 log_text(*box).c_str(), hub.manager_body.c_str());
        link->send(http_reply(200, "application/json", hub.manager_body, CLOSING));
    } else {
        log_line(PROBLEM, "%s: %s", link->name.c_str(), why.c_str());
        link->send(http_reply(404, "application/json", "{\"ret\":1}", CLOSING));
    }
    co_await connection_flush(*link);
}

awaitable<void> control_serve(relay& hub, std::shared_ptr<control_link> link) {
    frame_input input(CONTROL_INPUT);
    frame got;
    bool more = co_await connection_next_frame(*link, input, got);
    if (more) {
        co_await control_login(hub, link, got);
    }
    while (more) {  // g++ 12 destroys a coroutine's variables too early when this would await
        more = co_await next_frame(hub, *link, input, got);
        if (more && !control_take(*link, got)) {
            link->refuse("unexpected " + frame_text(got));
        }
    }
}

void control_link::ended() {
    if (owner != nullptr && owner->control.get() == this) {
        log_line(EVENT, "device %s: control connection ended", owner->name.c_str());
        owner->left = steady::now();
        owner->control = nullptr;
        owner->lately.note(happening::LEFT, "its control connection has ended");
    }
}

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
