#include "hub/registry.h"

#include <algorithm>
#include <tuple>

namespace {

constexpr size_t DEVICES_MAX = 256;  // known at once, as far as those above it are away
constexpr milliseconds HELD_LONG{2000};

void device_look(device& owner, milliseconds passed, uint64_t step, steady::time_point now) {
    const traffic total = device_traffic(owner);
    const uint64_t moved = owner.lately.in.look(total.from_device, passed) +
                           owner.lately.out.look(total.to_device, passed);
    owner.lately.count(moved, step);
    for (const auto& link : owner.data) {
        for (const auto& [id, user] : link->streams) {
            user->rate.look(user->from_device + user->to_device, passed);
        }
        const bool long_held = link->held_back && now - link->last_held >= HELD_LONG;
        if (long_held && !link->held_noted) {
            owner.lately.note(happening::HELD_BACK, "a user takes less than the device sends");
        }
        link->held_noted = long_held;
    }
}

}  // namespace

std::shared_ptr<device> device_get(relay& hub, const std::string& id) {
    if (const auto known = hub.devices.find(id); known != hub.devices.end()) {
        return known->second;
    }
    if (hub.devices.size() >= DEVICES_MAX) {
        const auto away_since = [](const auto& entry) {
            return entry.second->away() ? entry.second->left : NEVER;
        };
        const auto longest = std::ranges::min_element(hub.devices, {}, away_since);
        if (longest->second->away()) {
            const traffic total = device_traffic(*longest->second);
            hub.forgotten.from_device += total.from_device;
            hub.forgotten.to_device += total.to_device;
            hub.forgotten_cuts += longest->second->cuts;
            hub.page.all_since = hub.page.round + 1;
            hub.labels.erase(longest->second->label);
            hub.devices.erase(longest);
        }
    }
    const auto made = std::make_shared<device>();
    made->id = id;
    made->name = log_text(id);
    made->label = label_of(id);
    if (!made->label.empty()) {
        hub.labels[made->label] = made;
    }
    return hub.devices[id] = made;
}

size_t data_share(const options& set) {
    return (set.device_streams + DATA_CONNECTIONS - 1) / DATA_CONNECTIONS;
}

std::shared_ptr<data_link> device_pick_data(const relay& hub, const device& owner) {
    const auto can_take = [share = data_share(hub.settings)](const auto& link) {
        return !link->closed && link->streams.size() < share;
    };
    const auto waits = [now = steady::now(), &hub](const auto& link) {
        const bool held = link->held_back || now - link->last_held < hub.settings.stuck_timeout;
        return held || link->full();  // who was held back just now will soon be again
    };
    const auto rank = [&](const auto& link) {
        return std::tuple(!can_take(link), waits(link), link->open_streams());
    };
    const auto best = std::ranges::min_element(owner.data, {}, rank);
    return best == owner.data.end() || !can_take(*best) ? nullptr : *best;
}

traffic device_traffic(const device& owner) {
    traffic total{owner.bytes_in, owner.bytes_out};
    for (const auto& link : owner.data) {
        total.from_device += link->bytes_in;
        total.to_device += link->bytes_out;
    }
    return total;
}

void relay_look(relay& hub, steady::time_point now) {
    const auto passed = std::chrono::duration_cast<milliseconds>(now - hub.looked);
    const auto step = static_cast<uint64_t>((now - hub.started) / GRAPH_STEP);
    for (const auto& [id, owner] : hub.devices) {
        device_look(*owner, passed, step, now);
    }
    hub.looked = now;
}

bool device_send_times(const device& owner, report_times times) {
    if (owner.control == nullptr) {
        return false;
    }
    const std::string words = be32(times.t1) + be32(times.t2);
    owner.control->send_frame({.code = command::REPORT_TIMES, .payload = words});
    log_line(EVENT, "device %s: told reporting times %u s and %u s", owner.name.c_str(), times.t1,
             times.t2);
    return true;
}
