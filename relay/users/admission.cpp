#include "users/admission.h"

#include <sys/resource.h>

#include <algorithm>

#include "page/page.h"
#include "users/front_door.h"
#include "users/names.h"

namespace {

constexpr size_t DESCRIPTORS_OF_USER = 2, DESCRIPTORS_OF_TLS = 2;
constexpr size_t TURNED_AWAY_MAX = 1000;  // at once
constexpr size_t REFUSED_HEAD_MAX = 16 * 1024;

// A user's place among the others while he is served or turned away.
struct place {
    admission& all;
    const std::string address;
    const char* refusal;  // null when he is admitted

    // All whom a trusted proxy passes on come from its address.
    place(relay& hub, const std::string& from)
        : all(hub.admitted),
          address(ranges_have(hub.entry.rules.proxies, from) ? "" : from),
          refusal(why_not(hub)) {
        if (refusal == nullptr) {
            ++all.users;
            ++all.by_address[address];
        } else {
            ++all.turned_away;
            ++all.refused;
        }
    }
    place(place&&) = delete;
    ~place() {
        if (refusal != nullptr) {
            --all.turned_away;
            return;
        }
        --all.users;
        if (const auto found = all.by_address.find(address); --found->second == 0) {
            all.by_address.erase(found);
        }
    }

    const char* why_not(const relay& hub) const {
        const auto found = all.by_address.find(address);
        if (hub.draining) {
            return DRAINING;
        }
        if (all.users >= hub.settings.users) {
            return "The relay has as many users as it can bear.";
        }
        return !address.empty() && found != all.by_address.end() &&
                       found->second >= hub.settings.address_users
                   ? "There are too many connections from this address."
                   : nullptr;
    }
};

// He may see how things are all the same. Closing before he has read his answer, or while he still
// sends, could cost him that.
awaitable<void> turn_away(relay& hub, std::shared_ptr<user_link> user, const char* why) {
    std::string bytes;
    log_line(EVENT, "%s: turned away: %s", user->name.c_str(), why);
    user->expect_within(hub.settings.linger_timeout, why);
    const size_t length = co_await connection_http_head(*user, bytes, REFUSED_HEAD_MAX);
    const auto request = http_request_parse(std::string_view(bytes).substr(0, length));
    // What belongs to the relay is not to be had under a device's name.
    const bool sees = request && user->came_by != door::USERS && !hub.entry.rules.accounts &&
                      !names_find(hub, http_header(request->headers, "host"));
    const std::string page = sees ? page_answer(hub, *user, *request) : "";
    user->head_only = request && request->method == "HEAD";
    user->reply(page.empty() ? http_busy_reply(why) : page);
    co_await connection_flush(*user);
    asio::error_code ignored;
    user->socket.shutdown(tcp::socket::shutdown_send, ignored);
    bytes.clear();
    co_await connection_http_head(*user, bytes, REFUSED_HEAD_MAX);
}

}  // namespace

void admission_fit(options& set) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    getrlimit(RLIMIT_NOFILE, &limit);
    // A quarter for devices, a quarter for those who are turned away.
    const size_t each =
        DESCRIPTORS_OF_USER + (set.tls_certificate.empty() ? 0 : DESCRIPTORS_OF_TLS);
    const auto fitting = std::max<size_t>(limit.rlim_cur / 2 / each, 1);
    if (set.users > fitting) {
        log_line(PROBLEM, "%ju descriptors are enough for %zu users, not for %zu",
                 static_cast<uintmax_t>(limit.rlim_cur), fitting, set.users);
        set.users = fitting;
    }
}

awaitable<void> admission_serve(relay& hub, std::shared_ptr<user_link> user) {
    // Where users are asked who they are, it is that which counts.
    const bool own_pages = !hub.own_door && (hub.entry.rules.accounts || user->on_loopback);
    user->came_by = own_pages ? door::BOTH : door::USERS;
    user->peer = user->name.substr(0, user->name.rfind(':'));
    const place his(hub, user->peer);
    user->out.use_files(hub.pool);
    if (his.refusal == nullptr) {
        co_await front_door_serve(hub, user);
    } else if (hub.admitted.turned_away <= std::min(TURNED_AWAY_MAX, hub.settings.users)) {
        co_await turn_away(hub, user, his.refusal);
    } else {
        user->refuse(his.refusal);
    }
}

awaitable<void> admission_admin_serve(relay& hub, std::shared_ptr<user_link> user) {
    user->came_by = door::ADMIN;
    user->peer = user->name.substr(0, user->name.rfind(':'));
    user->out.use_files(hub.pool);
    return front_door_serve(hub, std::move(user));
}
