#include "boxes/logins.h"

#include <algorithm>

namespace {

constexpr milliseconds ASK_TIME{4000};    // until the kernel knows that a device is gone
constexpr milliseconds LOST_AFTER{2000};  // without an acknowledgement
constexpr size_t DEVICE_ID_MAX = 47, HEARTBEAT_SIZE = 4;

std::string mac_of(const text_pairs& info) {
    const auto found = info.find("mac");
    return found == info.end() ? "" : found->second;
}

// A connection of those that the device has which nobody answers on any more.
std::shared_ptr<data_link> data_lost(const device& owner) {
    const auto now = steady::now();
    const auto lost = std::ranges::find_if(owner.data, [now](const auto& link) {
        return link->alive.since != NEVER && now - link->alive.since >= LOST_AFTER;
    });
    return lost == owner.data.end() ? nullptr : *lost;
}

}  // namespace

std::string frame_text(const frame& got) {
    return std::string(command_name(got.code)) + " of version " + std::to_string(got.version) +
           ", stream " + std::to_string(got.stream_id) + ", length " +
           std::to_string(got.payload.size()) +
           (got.code == command::DEVICE_INFO ? "" : ": " + log_text(got.payload));  // has the id
}

std::string address_of(const connection& link) { return link.name.substr(0, link.name.rfind(':')); }

std::optional<box_login> login_take(const relay& hub, connection& link, const frame& got,
                                    uint8_t version) {
    const bool fits = got.code == command::DEVICE_INFO && got.version == version;
    auto info = fits ? json_pairs(got.payload) : std::nullopt;
    const std::string id = info ? (*info)["deviceid"] : "";
    if (id.empty() || id.size() > DEVICE_ID_MAX) {
        link.refuse("not a login: " + frame_text(got));
        return std::nullopt;
    }
    std::string why;
    auto box = boxes_admit(hub.entry.rules.boxes, hub.settings.open, id, mac_of(*info),
                           address_of(link), why);
    if (!box) {
        link.refuse("a device that is not welcome: " + why);
        return std::nullopt;
    }
    (*info)["deviceid"] = box->name;
    return box_login{std::move(*box), id, std::move(*info)};
}

void login_done(const relay& hub, connection& link) {
    link.patience = hub.settings.silence_timeout;
    liveness_watch(link.alive, link.socket.native_handle(), hub.settings.gone_timeout);
}

awaitable<bool> is_taken(const relay& hub, std::shared_ptr<device> owner, std::string address) {
    const std::shared_ptr<control_link> first = owner->control;
    if (first == nullptr || address == owner->address) {
        co_return false;
    }
    const milliseconds time = std::min(ASK_TIME, hub.settings.gone_timeout);
    liveness_watch(first->alive, first->socket.native_handle(), time);
    const auto until = steady::now() + time + time / 2;
    while (!first->closed && steady::now() < until) {
        co_await first->changed.wait();
    }
    if (!first->closed) {
        liveness_watch(first->alive, first->socket.native_handle(), hub.settings.gone_timeout);
    }
    co_return owner->control != nullptr && !owner->control->closed;
}

const char* data_why_not(const device* owner, const std::string& address) {
    if (owner == nullptr || owner->control == nullptr || owner->control->closed) {
        return "the device has no control connection";
    }
    if (owner->one_address && address != owner->address) {
        return "the device is at another address";
    }
    const auto open =
        std::ranges::count_if(owner->data, [](const auto& each) { return !each->closed; });
    if (static_cast<size_t>(open) < DATA_CONNECTIONS) {
        return nullptr;
    }
    if (const auto lost = data_lost(*owner)) {
        lost->refuse("lost, and replaced by another one");
        return nullptr;
    }
    for (const auto& each : owner->data) {
        each->send_frame({.code = command::LOGIN_ANSWER});  // who does not answer shows by this
    }
    return "the device has all its data connections";
}

std::optional<std::string> boxes_answer(const relay& hub, const std::string& id,
                                        const std::string& address, std::string& why) {
    const auto& boxes = hub.entry.rules.boxes;
    const bool known = boxes && boxes->contains(id);
    const std::string mac = known ? boxes->find(id)->second.mac : "";
    const auto box = boxes_admit(boxes, hub.settings.open, id, mac, address, why);
    why.insert(0, box ? "" : "a device that is not welcome: ");
    return box ? std::optional(box->name) : std::nullopt;
}

void devices_recheck(relay& hub) {
    for (const auto& [name, owner] : hub.devices) {
        std::string why;
        const auto& boxes = hub.entry.rules.boxes;
        const auto box = boxes_admit(boxes, hub.settings.open, owner->wire_id, mac_of(owner->info),
                                     owner->address, why);
        if (box && box->name == name) {
            continue;
        }
        if (owner->control != nullptr) {
            owner->control->refuse("not welcome any more: " + why);
        }
        for (const auto& link : owner->data) {
            link->refuse("not welcome any more");
        }
    }
}

bool heartbeat_answer(connection& link, const frame& got) {
    const bool is = got.code == command::HEARTBEAT && got.payload.size() == HEARTBEAT_SIZE;
    if (is) {
        link.send_frame({.version = 2, .code = command::HEARTBEAT, .payload = got.payload});
    }
    return is;
}
