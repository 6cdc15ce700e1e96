#include "page/live.h"

#include "page/status.h"

namespace {

// Connections look up once a second; a little less, so that none is missed.
constexpr milliseconds ROUND{900};
constexpr milliseconds SILENCE_MAX{15'000};
constexpr size_t WATCHED_MAX = 32;  // devices by one viewer

struct viewer {
    std::vector<std::string> ids;  // of the devices that he looks at; none: he has the list
    std::map<std::string, std::string> told;  // of each
    uint64_t round = 0;                       // whose rows he has
    std::string whole;                        // what he knows of the relay
};

// Rows that have changed since they were made last. One time serves all viewers.
void rows_make(relay& hub, steady::time_point now) {
    if (now - hub.page.made < ROUND / 2) {
        return;
    }
    hub.page.made = now;
    ++hub.page.round;
    for (const auto& [id, box] : hub.devices) {
        std::string row = status_row(hub, *box);
        if (row != box->row) {
            box->row = std::move(row);
            box->row_round = hub.page.round;
        }
    }
}

// Empty when the viewer knows it all.
std::string list_event(relay& hub, viewer& him) {
    rows_make(hub, steady::now());
    const bool all = him.round == 0 || him.round < hub.page.all_since;
    std::string rows, whole = status_whole(hub);
    for (const auto& [id, box] : hub.devices) {
        if (all || box->row_round > him.round) {
            rows += (rows.empty() ? "" : ",") + box->row;
        }
    }
    him.round = hub.page.round;
    if (rows.empty() && !all && whole == him.whole) {
        return {};
    }
    him.whole = whole;
    return "event: list\ndata: {\"all\":" + std::string(all ? "true" : "false") + ",\"devices\":[" +
           rows + "]," + whole + ",\"now\":" + status_now(hub) + "}\n\n";
}

std::string device_events(const relay& hub, viewer& him) {
    std::string events;
    for (const std::string& id : him.ids) {
        const auto found = hub.devices.find(id);
        if (found == hub.devices.end()) {
            continue;
        }
        std::string json = status_device(hub, *found->second);
        if (json != him.told[id]) {
            events += "event: device\ndata: {\"device\":" + json + ",\"now\":" + status_now(hub) +
                      "}\n\n";
            him.told[id] = std::move(json);
        }
    }
    return events;
}

viewer viewer_of(std::string_view query) {
    viewer him;
    while (!query.empty() && him.ids.size() < WATCHED_MAX) {
        if (auto id = query_take(query_part_take(query), "device")) {
            him.ids.push_back(std::move(*id));
        }
    }
    return him;
}

}  // namespace

awaitable<void> page_watch(relay& hub, std::shared_ptr<user_link> user) {
    viewer him = viewer_of(*user->watches);
    auto next = steady::now(), last = next;
    while (!user->closed && !user->user_ended && !hub.draining) {
        const auto now = steady::now();
        if (now >= next && user->idle()) {
            next = now + ROUND;
            std::string event = him.ids.empty() ? list_event(hub, him) : device_events(hub, him);
            if (event.empty() && now - last >= SILENCE_MAX) {
                event = "event: alive\ndata: 1\n\n";  // for whoever is between, and the page
            }
            if (!event.empty()) {
                last = now;
                user->send(event);
            }
        }
        co_await user->changed.wait();
    }
}
