#include "page/status.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "base/json.h"

namespace {

constexpr milliseconds HELD_LONG{5000};
constexpr milliseconds LOGIN_TIME{15'000};  // of the data connections, with some patience

// Of a time that the relay's own clock has told, so that it stays the same when the world's is set.
int64_t unix_s(const relay& hub, steady::time_point at) {
    static const auto offset =
        std::chrono::system_clock::now().time_since_epoch() - hub.started.time_since_epoch();
    const auto since = at.time_since_epoch() + offset;
    return std::chrono::duration_cast<std::chrono::seconds>(since).count();
}

uint64_t waiting_bytes(const data_link& link) {
    uint64_t bytes = 0;
    for (const auto& [id, user] : link.streams) {
        bytes += user->out.size();
    }
    return bytes;
}

void put_counts(json& to, uint64_t in, uint64_t out, uint64_t waiting) {
    to["bytes_from_device"] = in;
    to["bytes_to_device"] = out;
    to["bytes_waiting"] = waiting;
}

json ports_of(const device& box) {
    json ports = json::object();
    for (const auto& [what, port] : box.ports) {
        ports[json_text(what)] = port;
    }
    return ports;
}

json stream_of(const relay& hub, uint32_t id, const user_link& user) {
    json stream{{"id", id}, {"port", user.port}, {"request", json_text(user.what)}};
    put_counts(stream, user.from_device, user.to_device, user.out.size());
    stream["user"] = json_text((user.who ? user.who->name + " " : "") + user.name);
    stream["number"] = user.number;
    stream["since"] = unix_s(hub, user.began);
    stream["rate"] = user.rate.rate;
    return stream;
}

json connection_of(const relay& hub, const data_link& link) {
    json connection{{"held_back", link.held_back}};
    put_counts(connection, link.bytes_in, link.bytes_out, waiting_bytes(link));
    json& streams = connection["streams"] = json::array();
    for (const auto& [id, user] : link.streams) {
        streams.push_back(stream_of(hub, id, *user));
    }
    json& kept = connection["kept"] = json::array();
    for (const kept_stream& each : link.kept) {
        kept.push_back(each.port);
    }
    connection["address"] = json_text(link.name.substr(0, link.name.find(' ')));
    connection["since"] = unix_s(hub, link.came);
    return connection;
}

json events_of(const relay& hub, const device& box) {
    json events = json::array();
    for (const device_event& each : box.lately.events) {
        events.push_back({{"at", unix_s(hub, each.at)},
                          {"kind", happening_name(each.kind)},
                          {"text", json_text(each.text)},
                          {"times", each.times}});
    }
    return events;
}

// What needs a person.
json alerts_of(const device& box) {
    const auto now = steady::now();
    const auto held = [now](const auto& link) {
        return link->held_back && now - link->last_held >= HELD_LONG;
    };
    json alerts = json::array();
    if (box.lately.used_twice(now)) {
        alerts.emplace_back("id used twice");
    }
    if (box.control != nullptr && box.data.empty() && now - box.came >= LOGIN_TIME) {
        alerts.emplace_back("no data connection");
    }
    if (std::ranges::any_of(box.data, held)) {
        alerts.emplace_back("held back");
    }
    return alerts;
}

// Which one it is, and how to get to it.
json names_of(const device& box) {
    return {{"id", json_text(box.id)},
            {"name", box.label},
            {"path", "/" + percent_encode(box.id) + "/"},
            {"control", box.control != nullptr}};
}

void put_times(json& to, const relay& hub, const device& box) {
    to["address"] = box.address;
    to["since"] = unix_s(hub, box.came);
    to["left"] = box.away() ? json(unix_s(hub, box.left)) : json();
}

void put_rates(json& to, const device& box) {
    to["rate_from_device"] = box.lately.in.rate;
    to["rate_to_device"] = box.lately.out.rate;
}

json told(const device& box, const char* key) {
    const auto found = box.info.find(key);
    return found == box.info.end() ? "" : json_text(found->second);
}

json device_of(const relay& hub, const device& box) {
    size_t streams = 0, kept = 0;
    uint64_t in = box.bytes_in, out = box.bytes_out, waiting = 0;
    json connections = json::array();
    for (const auto& link : box.data) {
        streams += link->open_streams();
        kept += link->kept.size();
        waiting += waiting_bytes(*link);
        in += link->bytes_in;
        out += link->bytes_out;
        connections.push_back(connection_of(hub, *link));
    }
    json whole = names_of(box);
    json& info = whole["info"] = json::object();
    for (const auto& [name, value] : box.info) {
        info[json_text(name)] = json_text(value);
    }
    whole["ports"] = ports_of(box);
    whole["dlna_status"] = box.dlna_status ? json(*box.dlna_status) : json();
    whole["data_connections"] = box.data.size();
    whole["open_streams"] = streams;
    whole["kept_streams"] = kept;
    put_counts(whole, in, out, waiting);
    whole["streams_cut"] = box.cuts;
    whole["connections"] = std::move(connections);
    put_times(whole, hub, box);
    put_rates(whole, box);
    whole["alerts"] = alerts_of(box);
    whole["events"] = events_of(hub, box);
    return whole;
}

json whole_of(const relay& hub) {
    return {{"users", hub.admitted.users},
            {"users_refused", hub.admitted.refused},
            {"bytes_waiting", hub.pool.used},
            {"version", GWRELAY_VERSION},
            {"started", unix_s(hub, hub.started)},
            {"certificate_ends", hub.tls.context ? json(hub.tls.ends) : json()},
            {"logins", hub.entry.rules.accounts.has_value()},
            {"manager_port", hub.manager_port},
            {"domain", hub.settings.domain},
            {"users_port", hub.own_door ? json(hub.front_port) : json()},
            {"forgotten_from_device", hub.forgotten.from_device},
            {"forgotten_to_device", hub.forgotten.to_device}};
}

}  // namespace

std::string status_device(const relay& hub, const device& box) {
    return json_line(device_of(hub, box));
}

std::string status_row(const relay& hub, const device& box) {
    size_t streams = 0;
    for (const auto& link : box.data) {
        streams += link->streams.size();
    }
    const traffic total = device_traffic(box);
    json row = names_of(box);
    row["ports"] = ports_of(box);
    row["data_connections"] = box.data.size();
    row["streams"] = streams;
    row["firmware"] = told(box, "fwver");
    row["product"] = told(box, "prover");
    put_times(row, hub, box);
    put_rates(row, box);
    row["bytes_from_device"] = total.from_device;
    row["bytes_to_device"] = total.to_device;
    row["graph"] = box.lately.graph_text();
    row["alerts"] = alerts_of(box);
    return json_line(row);
}

std::string status_whole(const relay& hub) {
    const std::string whole = json_line(whole_of(hub));
    return whole.substr(1, whole.size() - 2);
}

std::string status_now(const relay& hub) { return std::to_string(unix_s(hub, steady::now())); }

std::string status_json(const relay& hub) {
    json all{{"devices", json::array()}};
    for (const auto& [id, box] : hub.devices) {
        all["devices"].push_back(device_of(hub, *box));
    }
    all.update(whole_of(hub));
    all["now"] = unix_s(hub, steady::now());
    return json_line(all) + "\n";
}
