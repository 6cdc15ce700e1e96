#include "control.h"

#include <charconv>
#include <random>

namespace {

constexpr size_t INPUT_SIZE = 2 * FRAME_MAX;
constexpr uint8_t LOGIN_VERSION = 3;
constexpr size_t PORTS_MAX = 16;
constexpr size_t SESSION_ID_WORDS = 4;  // of eight hex digits: 32 bytes of text
constexpr size_t WORD = 4;

std::string session_id_make() {
    std::random_device random;
    std::string id;
    for (size_t i = 0; i < SESSION_ID_WORDS; ++i) {
        char word[9];
        snprintf(word, sizeof word, "%08x", static_cast<uint32_t>(random()));
        id += word;
    }
    return id;
}

void control_answer_login(relay& hub, control_link& link) {
    device& owner = *link.owner;
    if (hub.settings.command7) {
        link.send_frame({.code = command::LOGIN_ANSWER});
        link.send_frame({.code = command::DATA_ORDER, .payload = hub.order_text});
    } else {
        link.send_frame({.version = 2, .code = command::LOGIN_ANSWER, .payload = hub.order_json});
    }
    log_event("device %s: ordered five data connections %s", owner.name.c_str(),
              hub.settings.command7 ? "by command 7" : "in the login answer");
    if (hub.settings.times) {
        device_send_times(owner, *hub.settings.times);
    }
}

bool control_login(relay& hub, const std::shared_ptr<control_link>& link, const frame& login) {
    auto info = device_info_parse(login.payload);
    if (login.code != command::DEVICE_INFO || login.version != LOGIN_VERSION || !info) {
        link->refuse(std::string("not a control login: ") + command_name(login.code) + " version " +
                     std::to_string(login.version) + " " + log_text(login.payload));
        return false;
    }
    const auto owner = device_get(hub, *pairs_find(*info, "deviceid"));
    log_event("%s: control login of device %s: %s", link->name.c_str(), owner->name.c_str(),
              log_text(login.payload).c_str());
    link->name += " control of " + owner->name;
    if (owner->control != nullptr) {
        log_event("%s: replaced by a new login", owner->control->name.c_str());
        owner->control->close();
    }
    owner->info = std::move(*info);
    owner->control = link;
    ++owner->orders;
    link->owner = owner;
    control_answer_login(hub, *link);
    return true;
}

// The announced ports: {"http_port":8080} and the like.
bool control_take_ports(device& owner, std::string_view json) {
    const auto pairs = json_flat_object(json);
    if (!pairs) {
        return false;
    }
    for (const auto& [key, value] : *pairs) {
        uint16_t port = 0;
        const auto [end, failed] = std::from_chars(value.data(), value.data() + value.size(), port);
        const bool room = owner.ports.contains(key) || owner.ports.size() < PORTS_MAX;
        if (failed != std::errc{} || end != value.data() + value.size() || !room) {
            return false;
        }
        owner.ports[key] = port;
        log_event("device %s: %s is %u", owner.name.c_str(), log_text(key).c_str(), port);
    }
    return true;
}

// False: a device does not send such a frame on a logged-in control connection.
bool control_take(control_link& link, const frame& got) {
    device& owner = *link.owner;
    const size_t length = got.payload.size();
    if (got.code == command::HEARTBEAT && length == WORD) {
        link.send_frame({.version = 2, .code = command::HEARTBEAT, .payload = got.payload});
        return true;
    }
    if (got.code == command::SESSION_ID && length == 0) {
        const std::string id = session_id_make();
        link.send_frame({.code = command::SESSION_ID, .payload = id});
        log_event("device %s: session id %s", owner.name.c_str(), id.c_str());
        return true;
    }
    if (got.code == command::STATUS && length == WORD) {
        owner.dlna_status = load_be32(got.payload.data());
        log_event("device %s: DLNA status 0x%x", owner.name.c_str(), *owner.dlna_status);
        return true;
    }
    return got.code == command::PORT_INFO && control_take_ports(owner, got.payload);
}

}  // namespace

awaitable<void> control_serve(relay& hub, std::shared_ptr<control_link> link) {
    frame_input input(INPUT_SIZE);
    frame got;
    bool more = co_await connection_next_frame(*link, input, got);
    if (!more || !control_login(hub, link, got)) {
        co_return;
    }
    while (more) {
        link->expect_within(hub.settings.silence_timeout, "silent for too long");
        more = co_await connection_next_frame(*link, input, got);
        if (more && !control_take(*link, got)) {
            link->refuse(std::string("unexpected ") + command_name(got.code) + " of length " +
                         std::to_string(got.payload.size()));
            more = false;
        }
        if (link->full()) {
            link->refuse("does not take its answers");
        }
    }
}

void control_ended(relay&, const std::shared_ptr<control_link>& link) {
    if (link->owner != nullptr && link->owner->control == link) {
        log_event("device %s: control connection ended", link->owner->name.c_str());
        link->owner->control = nullptr;
        link->owner->left = steady::now();
    }
    link->owner = nullptr;
}
