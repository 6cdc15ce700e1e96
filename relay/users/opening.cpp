#include "users/opening.h"

namespace {

constexpr std::chrono::minutes KNOWN_FOR{5};

// What is known of the user's port, or null.
const opening* known(const user_link& user) {
    const auto found = user.owner->openings.find(user.port);
    const bool counts = found != user.owner->openings.end() &&
                        (found->second.works || steady::now() < found->second.until);
    return counts ? &found->second : nullptr;
}

}  // namespace

bool opening_wanted(const options& settings, const user_link& user, const device_heads& heads) {
    if (!settings.reuse || heads.ask.empty()) {
        return false;
    }
    const opening* const before = known(user);
    if (heads.opening.empty()) {
        return before == nullptr || before->works;
    }
    return user.view.prefix.empty() && (before != nullptr ? before->works : user.repeatable);
}

awaitable<swallowed> opening_run(const relay& hub, std::shared_ptr<user_link> user,
                                 std::string ask) {
    const opening* const before = known(*user);
    user->patient = before != nullptr && before->works;
    user->swallows = true;
    user->response = http_response(true, false);
    co_await stream_open(hub, user, std::move(ask));
    const swallowed answer = co_await stream_swallow(hub, user);
    user->swallows = user->stale = user->too_much = false;
    user->response = http_response(user->head_only, user->may_switch);
    if (answer == swallowed::NOTHING_FOLLOWS) {
        opening_learn(*user, false);
    }
    user->opened = answer == swallowed::GOES_ON;
    user->reused = user->opened && user->repeatable;
    co_return answer;
}

void opening_learn(user_link& user, bool works) {
    const opening* const before = known(user);
    if (before == nullptr || before->works != works) {
        log_line(EVENT, "device %s: port %u %s", user.owner->name.c_str(), user.port,
                 works ? "takes requests behind one of the relay's own"
                       : "does not go on after a request of the relay's own");
    }
    user.owner->openings[user.port] = {works, steady::now() + KNOWN_FOR};
}
