#include "page/status.h"

#include <algorithm>

namespace {

constexpr milliseconds HELD_LONG{5000};
constexpr milliseconds LOGIN_TIME{15'000};  // of the data connections, with some patience

std::string word(bool value) { return value ? "true" : "false"; }

// Of a time that the relay's own clock has told, so that it stays the same when the world's is set.
std::string unix_s(const relay& hub, steady::time_point at) {
    static const auto offset =
        std::chrono::system_clock::now().time_since_epoch() - hub.started.time_since_epoch();
    const auto since = at.time_since_epoch() + offset;
    return std::to_string(std::chrono::duration_cast<std::chrono::seconds>(since).count());
}

uint64_t waiting_bytes(const data_link& link) {
    uint64_t bytes = 0;
    for (const auto& [id, user] : link.streams) {
        bytes += user->out.size();
    }
    return bytes;
}

std::string counts_json(uint64_t in, uint64_t out, uint64_t waiting) {
    return "\"bytes_from_device\":" + std::to_string(in) +
           ",\"bytes_to_device\":" + std::to_string(out) +
           ",\"bytes_waiting\":" + std::to_string(waiting);
}

// One after the other, what `element` makes of each.
template <typename Elements, typename Function>
std::string joined(const Elements& elements, Function element) {
    std::string json;
    for (const auto& each : elements) {
        json += (json.empty() ? "" : ",") + element(each);
    }
    return json;
}

std::string rates_json(uint64_t in, uint64_t out) {
    return "\"rate_from_device\":" + std::to_string(in) +
           ",\"rate_to_device\":" + std::to_string(out);
}

std::string ports_json(const device& box) {
    const auto port = [](const auto& pair) {
        return json_quote(pair.first) + ":" + std::to_string(pair.second);
    };
    return "{" + joined(box.ports, port) + "}";
}

std::string connection_json(const relay& hub, const data_link& link) {
    const auto kept = [](const kept_stream& each) { return std::to_string(each.port); };
    const auto stream = [&hub](const auto& entry) {
        const user_link& user = *entry.second;
        return "{\"id\":" + std::to_string(entry.first) + ",\"port\":" + std::to_string(user.port) +
               ",\"request\":" + json_quote(user.what) + "," +
               counts_json(user.from_device, user.to_device, user.out.size()) +
               ",\"user\":" + json_quote((user.who ? user.who->name + " " : "") + user.name) + ",\"number\":" + std::to_string(user.number) +
               ",\"since\":" + unix_s(hub, user.began) +
               ",\"rate\":" + std::to_string(user.rate.rate) + "}";
    };
    return "{\"held_back\":" + word(link.held_back) + "," +
           counts_json(link.bytes_in, link.bytes_out, waiting_bytes(link)) + ",\"streams\":[" +
           joined(link.streams, stream) + "],\"kept\":[" + joined(link.kept, kept) + "]" +
           ",\"address\":" + json_quote(link.name.substr(0, link.name.find(' '))) +
           ",\"since\":" + unix_s(hub, link.came) + "}";
}

std::string events_json(const relay& hub, const device& box) {
    const auto one = [&hub](const device_event& each) {
        return "{\"at\":" + unix_s(hub, each.at) +
               ",\"kind\":" + json_quote(happening_name(each.kind)) +
               ",\"text\":" + json_quote(each.text) + ",\"times\":" + std::to_string(each.times) +
               "}";
    };
    return "[" + joined(box.lately.events, one) + "]";
}

// What needs a person.
std::string alerts_json(const device& box) {
    const auto now = steady::now();
    const auto held = [now](const auto& link) {
        return link->held_back && now - link->last_held >= HELD_LONG;
    };
    std::vector<std::string> alerts;
    if (box.lately.used_twice(now)) {
        alerts.emplace_back("id used twice");
    }
    if (box.control != nullptr && box.data.empty() && now - box.came >= LOGIN_TIME) {
        alerts.emplace_back("no data connection");
    }
    if (std::ranges::any_of(box.data, held)) {
        alerts.emplace_back("held back");
    }
    return "[" + joined(alerts, json_quote) + "]";
}

std::string times_json(const relay& hub, const device& box) {
    return "\"address\":" + json_quote(box.address) + ",\"since\":" + unix_s(hub, box.came) +
           ",\"left\":" + (box.away() ? unix_s(hub, box.left) : "null");
}

std::string whole_json(const relay& hub) {
    return "\"users\":" + std::to_string(hub.admitted.users) +
           ",\"users_refused\":" + std::to_string(hub.admitted.refused) +
           ",\"bytes_waiting\":" + std::to_string(hub.pool.used);
}

}  // namespace

std::string status_device(const relay& hub, const device& box) {
    size_t streams = 0, kept = 0;
    uint64_t in = box.bytes_in, out = box.bytes_out, waiting = 0;
    for (const auto& link : box.data) {
        streams += link->open_streams();
        kept += link->kept.size();
        waiting += waiting_bytes(*link);
        in += link->bytes_in;
        out += link->bytes_out;
    }
    const auto link = [&hub](const auto& each) { return connection_json(hub, *each); };
    return "{\"id\":" + json_quote(box.id) + ",\"name\":" + json_quote(box.label) +
           ",\"path\":" + json_quote("/" + percent_encode(box.id) + "/") +
           ",\"control\":" + word(box.control != nullptr) + ",\"info\":" + json_object(box.info) +
           ",\"ports\":" + ports_json(box) +
           ",\"dlna_status\":" + (box.dlna_status ? std::to_string(*box.dlna_status) : "null") +
           ",\"data_connections\":" + std::to_string(box.data.size()) +
           ",\"open_streams\":" + std::to_string(streams) +
           ",\"kept_streams\":" + std::to_string(kept) + "," + counts_json(in, out, waiting) +
           ",\"streams_cut\":" + std::to_string(box.cuts) + ",\"connections\":[" +
           joined(box.data, link) + "]," + times_json(hub, box) + "," +
           rates_json(box.lately.in.rate, box.lately.out.rate) + ",\"alerts\":" + alerts_json(box) +
           ",\"events\":" + events_json(hub, box) + "}";
}

std::string status_row(const relay& hub, const device& box) {
    const auto told = [&box](const char* key) {
        const auto found = box.info.find(key);
        return json_quote(found == box.info.end() ? "" : found->second);
    };
    size_t streams = 0;
    for (const auto& link : box.data) {
        streams += link->streams.size();
    }
    const traffic total = device_traffic(box);
    return "{\"id\":" + json_quote(box.id) + ",\"name\":" + json_quote(box.label) +
           ",\"path\":" + json_quote("/" + percent_encode(box.id) + "/") +
           ",\"control\":" + word(box.control != nullptr) + ",\"ports\":" + ports_json(box) +
           ",\"data_connections\":" + std::to_string(box.data.size()) +
           ",\"streams\":" + std::to_string(streams) + ",\"firmware\":" + told("fwver") +
           ",\"product\":" + told("prover") + "," + times_json(hub, box) + "," +
           rates_json(box.lately.in.rate, box.lately.out.rate) +
           ",\"bytes_from_device\":" + std::to_string(total.from_device) +
           ",\"bytes_to_device\":" + std::to_string(total.to_device) +
           ",\"graph\":" + json_quote(box.lately.graph_text()) + ",\"alerts\":" + alerts_json(box) +
           "}";
}

std::string status_whole(const relay& hub) {
    return whole_json(hub) + ",\"version\":" + json_quote(GWRELAY_VERSION) +
           ",\"started\":" + unix_s(hub, hub.started) +
           ",\"certificate_ends\":" +
           (hub.tls.context ? std::to_string(hub.tls.ends) : "null") + ",\"manager_port\":" + std::to_string(hub.manager_port) +
           ",\"domain\":" + json_quote(hub.settings.domain) +
           ",\"users_port\":" + (hub.own_door ? std::to_string(hub.front_port) : "null") +
           ",\"forgotten_from_device\":" + std::to_string(hub.forgotten.from_device) +
           ",\"forgotten_to_device\":" + std::to_string(hub.forgotten.to_device);
}

std::string status_now(const relay& hub) { return unix_s(hub, steady::now()); }

std::string status_json(const relay& hub) {
    const auto box = [&hub](const auto& entry) { return status_device(hub, *entry.second); };
    return "{\"devices\":[" + joined(hub.devices, box) + "]," + status_whole(hub) +
           ",\"now\":" + status_now(hub) + "}\n";
}
