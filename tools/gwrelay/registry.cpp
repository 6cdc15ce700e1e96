#include "registry.h"

#include <algorithm>
#include <tuple>

namespace {

constexpr size_t DEVICES_MAX = 256;  // known at once, as far as those above it are away

bool stream_id_used(const device& owner, uint32_t id) {
    return std::any_of(owner.data.begin(), owner.data.end(),
                       [id](const auto& link) { return link->streams.contains(id); });
}

void forget_longest_away(relay& hub) {
    auto oldest = hub.devices.end();
    for (auto at = hub.devices.begin(); at != hub.devices.end(); ++at) {
        const bool older = oldest == hub.devices.end() || at->second->left < oldest->second->left;
        if (at->second->away() && older) {
            oldest = at;
        }
    }
    if (oldest != hub.devices.end()) {
        hub.devices.erase(oldest);
    }
}

}  // namespace

void user_link::tick(steady::time_point now) {
    connection::tick(now);
    changed.notify();  // his coroutine compares the clock with several times
    drained.notify();
}

void user_link::close() {
    connection::close();
    changed.notify();
}

void data_link::tick(steady::time_point now) {
    if (!held_back) {  // while it is, silence is the relay's own doing
        connection::tick(now);
    }
}

void data_link::close() {
    if (!closed) {
        asio::error_code ignored;
        socket.set_option(asio::socket_base::linger(true, 0), ignored);
        connection::close();
    }
}

std::optional<text_pairs> device_info_parse(std::string_view json) {
    auto pairs = json_flat_object(json);
    const std::string* id = pairs ? pairs_find(*pairs, "deviceid") : nullptr;
    if (id == nullptr || id->empty() || id->size() > DEVICE_ID_MAX) {
        return std::nullopt;
    }
    return pairs;
}

std::shared_ptr<device> device_get(relay& hub, const std::string& id) {
    auto& known = hub.devices[id];
    if (known == nullptr) {
        known = std::make_shared<device>();
        known->id = id;
        known->name = log_text(id);
        const auto made = known;
        if (hub.devices.size() > DEVICES_MAX) {
            made->left = steady::time_point::max();  // not this one
            forget_longest_away(hub);
        }
        return made;
    }
    return known;
}

uint32_t device_new_stream_id(device& owner) {
    do {
        ++owner.last_stream_id;
    } while (owner.last_stream_id == 0 || stream_id_used(owner, owner.last_stream_id));
    return owner.last_stream_id;
}

std::shared_ptr<data_link> device_pick_data(const device& owner) {
    // A connection from before the last control login may be dead without anybody having told us.
    const auto worse = [&owner](const auto& a, const auto& b) {
        const auto rank = [&owner](const data_link& link) {
            return std::tuple(link.closed, link.order != owner.orders,
                              link.held_back || link.full(), link.streams.size());
        };
        return rank(*a) < rank(*b);
    };
    const auto best = std::min_element(owner.data.begin(), owner.data.end(), worse);
    return best == owner.data.end() || (*best)->closed ? nullptr : *best;
}

bool device_send_times(device& owner, report_times times) {
    if (owner.control == nullptr) {
        return false;
    }
    char words[8];
    store_be32(words, times.t1);
    store_be32(words + 4, times.t2);
    owner.control->send_frame({.code = command::REPORT_TIMES, .payload = {words, sizeof words}});
    log_event("device %s: told reporting times %u s and %u s", owner.name.c_str(), times.t1,
              times.t2);
    return true;
}
