#include "users/fairness.h"

#include <algorithm>
#include <tuple>

namespace {

// Even who takes nothing gets some bytes now and then: the kernel asks whether his window has
// opened.
constexpr uint64_t MOVED_STEP = 4096;

bool holds(const user_link& user) { return user.full() && !user.closed; }

// Whether any stream of the connection could go on but for another.
bool others_wait(const data_link& link) {
    return std::ranges::any_of(link.streams, [](const auto& entry) {
        return !entry.second->full() && !entry.second->closed;
    });
}

void cut(user_link& user, const char* reason) {
    log_line(PROBLEM, "device %s: stream %u of %s is cut: %s; %zu bytes wait for him",
             user.owner->name.c_str(), user.stream_id, user.name.c_str(), reason, user.out.size());
    ++user.owner->cuts;
    user.owner->lately.note(happening::CUT, log_text(user.name) + ": " + reason);
    user.cut = reason;
    user.close();  // by a reset, as always before a whole response has gone out
}

// Of the streams that hold connections back, the one that has moved the least since all are held
// back. Where two are equal, the one whose connection is the most likely to be free without it.
void give_way(const device& owner) {
    user_link* least = nullptr;
    auto least_rank = std::tuple(UINT64_MAX, SIZE_MAX);
    for (const auto& link : owner.data) {
        for (const auto& [id, user] : link->streams) {
            const uint64_t moved = user->acknowledged() - user->taken_when_stuck;
            const auto rank = std::tuple(moved / MOVED_STEP, link->streams.size());
            if (holds(*user) && rank < least_rank) {
                least = user.get();
                least_rank = rank;
            }
        }
    }
    if (least != nullptr) {
        cut(*least, "all data connections are held back, and it has moved the least");
    }
}

// Its only connection may be held back as long as that keeps nobody waiting.
bool must_give_way(const device& owner) {
    const auto waits = [](const auto& link) { return others_wait(*link); };
    return owner.data.size() > 1 || owner.waiting > 0 || std::ranges::any_of(owner.data, waits);
}

}  // namespace

void fairness_judge(device& owner) {
    const auto held = [](const auto& link) { return link->held_back; };
    if (owner.data.empty() || !std::ranges::all_of(owner.data, held)) {
        owner.stuck_since = NEVER;
        for (const auto& link : owner.data) {
            link->changed.notify();  // somebody may wait to open a stream
        }
    } else if (owner.stuck_since == NEVER) {
        owner.stuck_since = steady::now();
        for (const auto& link : owner.data) {
            for (const auto& [id, user] : link->streams) {
                user->taken_when_stuck = user->acknowledged();
            }
        }
    }
}

void fairness_hold(data_link& link, bool held) {
    link.held_back = held;
    link.last_held = steady::now();
    fairness_judge(*link.owner);
}

void fairness_look(relay& hub, steady::time_point now) {
    for (const auto& [name, owner] : hub.devices) {
        for (const auto& link : owner->data) {
            const bool keeps_waiting =
                link->held_back && (others_wait(*link) || owner->waiting > 0);
            for (const auto& [id, user] : link->streams) {
                const bool keeps = keeps_waiting && holds(*user);
                const bool watched = !user->closed && (keeps || user->slow.began != NEVER);
                if (watched &&
                    slowness_look(user->slow, now, user->acknowledged(), keeps, hub.settings)) {
                    cut(*user, "it keeps others waiting and takes too little");
                }
            }
        }
        if (owner->stuck_since != NEVER && now - owner->stuck_since >= hub.settings.stuck_timeout &&
            must_give_way(*owner)) {
            give_way(*owner);
        }
    }
}
