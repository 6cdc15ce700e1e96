#include "users/kept.h"

#include <algorithm>

namespace {

constexpr size_t KEPT_MAX = 64;  // of a device
constexpr std::chrono::minutes LEFT_ALONE{5};
constexpr char GIVES_WAY[] = "kept, and gives way";
// A service that waits for seconds begins to count before its response is here.
constexpr milliseconds OF_A_PROMISED_SECOND{750};

void close_kept(data_link& link, std::vector<kept_stream>::iterator stream, const char* reason) {
    log_line(EVENT, "%s: stream %u closed, %s", link.name.c_str(), stream->id, reason);
    link.send_frame({.code = command::CLOSE_STREAM, .stream_id = stream->id});
    link.kept.erase(stream);
}

size_t kept_count(const device& owner) {
    size_t count = 0;
    for (const auto& link : owner.data) {
        count += link->kept.size();
    }
    return count;
}

bool is_left_alone(device& owner, uint16_t port) {
    const auto found = owner.unkept_ports.find(port);
    if (found != owner.unkept_ports.end() && steady::now() >= found->second) {
        owner.unkept_ports.erase(found);
        return false;
    }
    return found != owner.unkept_ports.end();
}

// A stream that is kept, by its place: valid until the next one comes or goes.
struct kept_place {
    std::shared_ptr<data_link> link;
    std::vector<kept_stream>::iterator stream{};
};

// Of the device's kept streams that fit, the one with the greatest rank.
template <typename Fits, typename Rank>
kept_place best_of(const device& owner, Fits fits, Rank rank) {
    kept_place best;
    for (const auto& link : owner.data) {
        for (auto each = link->kept.begin(); each != link->kept.end(); ++each) {
            if (fits(*link, *each) && (best.link == nullptr || rank(*each) > rank(*best.stream))) {
                best = {link, each};
            }
        }
    }
    return best;
}

}  // namespace

bool kept_add(const options& settings, user_link& user) {
    const auto now = steady::now();
    milliseconds time = settings.reuse_timeout;
    if (const auto promised = user.response.waits_s()) {
        time = std::min(time, *promised * OF_A_PROMISED_SECOND);
    }
    if (!settings.reuse || !user.shareable || user.too_much || user.response.sloppy() ||
        time == milliseconds::zero() || is_left_alone(*user.owner, user.port) ||
        kept_count(*user.owner) == KEPT_MAX) {  // those that are there are about to settle
        return false;
    }
    user.route->streams.erase(user.stream_id);
    user.route->kept.push_back({.id = user.stream_id,
                                .port = user.port,
                                .priority = user.priority,
                                .last_user = user.number,
                                .since = now,
                                .until = now + time});
    return true;
}

bool kept_take(const options& settings, const std::shared_ptr<user_link>& user) {
    const auto now = steady::now();
    const auto is_own = [&](const kept_stream& stream) { return stream.last_user == user->number; };
    const auto fits = [&](const data_link& link, const kept_stream& stream) {
        const bool goes_on = !link.closed && !link.held_back && !link.full() && now < stream.until;
        const auto silent_for = now - std::max(stream.since, link.last_held);
        return goes_on && stream.port == user->port && stream.priority == user->priority &&
               (is_own(stream) || silent_for >= settings.settle_timeout);
    };
    const auto rank = [&](const kept_stream& stream) {
        return std::pair(is_own(stream), stream.since);
    };
    const auto [link, stream] = best_of(*user->owner, fits, rank);
    if (link == nullptr) {
        return false;
    }
    user->route = link;
    user->stream_id = stream->id;
    user->reused = true;
    link->kept.erase(stream);
    link->streams[user->stream_id] = user;
    return true;
}

void kept_failed(user_link& user) {
    log_line(PROBLEM,
             "device %s: port %u has left a further request unanswered: a new connection for each",
             user.owner->name.c_str(), user.port);
    user.owner->unkept_ports[user.port] = steady::now() + LEFT_ALONE;
    while (kept_give_way(*user.owner, user.port)) {
    }
}

void kept_spoke(data_link& link, uint32_t id) {
    const auto stream = std::ranges::find(link.kept, id, &kept_stream::id);
    if (stream != link.kept.end()) {
        close_kept(link, stream, "has more to say than its response");
    }
}

void kept_expire(data_link& link, steady::time_point now) {
    const auto is_over = [now](const kept_stream& stream) { return now >= stream.until; };
    for (auto stream = std::ranges::find_if(link.kept, is_over); stream != link.kept.end();
         stream = std::ranges::find_if(link.kept, is_over)) {
        close_kept(link, stream, "kept for long enough");
    }
}

bool kept_give_way(const device& owner, uint16_t port) {
    const auto fits = [port](const data_link&, const kept_stream& stream) {
        return stream.port == port;
    };
    const auto rank = [](const kept_stream& stream) { return -stream.since.time_since_epoch(); };
    const auto [link, stream] = best_of(owner, fits, rank);
    if (link != nullptr) {
        close_kept(*link, stream, GIVES_WAY);
    }
    return link != nullptr;
}

void kept_make_room(data_link& link, size_t streams) {
    while (!link.kept.empty() && link.open_streams() >= streams) {
        close_kept(link, link.kept.begin(), GIVES_WAY);
    }
}
