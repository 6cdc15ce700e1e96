#include "boxes/devices.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "boxes/logins.h"

namespace {

constexpr size_t QUERY_MAX = 4096;
constexpr size_t CONTROL_INPUT = 2 * FRAME_MAX;
constexpr uint8_t CONTROL_LOGIN_VERSION = 3;
constexpr size_t PORTS_MAX = 16;
constexpr size_t SESSION_ID_WORDS = 4;
constexpr size_t STATUS_SIZE = 4;
constexpr char CLOSING[] = "Connection: close\r\n";

// The next frame that is not a heartbeat, which is answered here.
awaitable<bool> next_frame(const relay& hub, connection& link, frame_input& input, frame& to) {
    link.expect_within(hub.settings.silence_timeout, "silent for too long");
    bool more = co_await connection_next_frame(link, input, to);
    while (more && heartbeat_answer(link, to)) {
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
             log_text(json_line(login->info)).c_str());
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
bool control_take_ports(device& owner, std::string_view text) {
    const auto pairs = json_pairs(text);
    for (const auto& [key, value] : pairs.value_or(text_pairs{})) {
        const auto port = number_parse<uint16_t>(value);
        if (!port || (!owner.ports.contains(key) && owner.ports.size() == PORTS_MAX)) {
            log_line(EVENT, "device %s: no port, or one too many: %s", owner.name.c_str(),
                     log_text(text).c_str());
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
        const std::string id = random_hex(SESSION_ID_WORDS);
        link.send_frame({.code = command::SESSION_ID, .payload = id});
        log_line(EVENT, "device %s: session id %s", owner.name.c_str(), id.c_str());
        return true;
    }
    if (got.code == command::STATUS && got.payload.size() == STATUS_SIZE) {
        owner.dlna_status = load_be32(got.payload.data());
        log_line(EVENT, "device %s: DLNA status 0x%x", owner.name.c_str(), *owner.dlna_status);
        return true;
    }
    return got.code == command::PORT_INFO && control_take_ports(owner, got.payload);
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
