#include "users/exchange.h"

#include "users/kept.h"
#include "users/opening.h"
#include "users/stream.h"
#include "users/upload.h"

namespace {

// What a head tells the user of his connection.
std::string_view connection_line(const user_link& user) {
    if (!user.keeps) {
        return "Connection: close\r\n";
    }
    return user.is_1_0 ? "Connection: keep-alive\r\n" : "";
}

void pass(user_link& user, std::string_view bytes) {
    if (user.arrived.size() == PARTS_MAX) {  // small ones
        exchange_pass_on(user);
    }
    if (!bytes.empty()) {
        user.arrived.push_back({const_cast<char*>(bytes.data()), bytes.size()});
    }
}

std::string head_for_user(const user_link& user, std::string_view line) {
    return rewrite_response(user.view, user.response.head(line));
}

// The service has taken the other protocol: what the user has sent early belongs to that.
void begin_talk(user_link& user) {
    if (user.response.upgrades_to_websocket()) {
        user.talk.emplace();
    }
    const std::string early = std::exchange(user.input, {});
    upload_send(user, exchange_take_body(user, early));
}

void pass_head(user_link& user) {
    const http_response& response = user.response;
    if (user.swallows) {
        return;
    }
    exchange_pass_on(user);  // an earlier one
    if (!response.begun()) {
        pass(user, user.head = head_for_user(user, {}));
        return;
    }
    // A service that answers early may never read the rest of the request, or take it for another.
    user.shareable = user.shareable && user.request.complete();
    user.keeps = user.persistent && user.request.complete() && !response.endless() &&
                 !response.sloppy() && !(user.is_1_0 && response.chunked());
    pass(user, user.head = head_for_user(user, response.switched() ? "" : connection_line(user)));
    if (response.switched()) {
        begin_talk(user);
    }
}

void pass_body(user_link& user, std::string_view bytes) {
    if (user.talk) {
        user.talk->service.take(bytes);
    }
    pass(user, bytes);
}

void pass_foreign(user_link& user) {
    if (user.reused ||
        user.swallows) {  // it is no answer: this may be the late end of somebody else's response
        user.stale = true;
    } else {
        pass(user, user.response.raw());
    }
}

}  // namespace

void exchange_begin(const options& settings, user_link& user, const http_request& request) {
    const bool goes_on = settings.reuse && !request.upgrades;
    user.owner = nullptr;
    user.port_is = port_state::ALIVE;
    user.what = log_text(std::string(request.method) + " " + std::string(request.path));
    user.head_only = request.method == "HEAD";
    user.is_1_0 = request.version == "HTTP/1.0";
    user.persistent = request.persistent;
    // Of services that do not know chunks, or bodies of such requests, some take them for requests.
    user.shareable =
        goes_on && !request.chunked && (request.method == "POST" || !request.has_body());
    user.repeatable = user.shareable && (request.method == "GET" || user.head_only);
    user.keeps = user.reused = user.stale = user.too_much = false;
    user.opened = user.patient = false;
    user.may_switch = request.upgrades;
    user.talk.reset();
    user.request =
        request.chunked ? http_body(http_body::kind::CHUNKED) : http_body(request.length);
    user.response = http_response(user.head_only, request.upgrades);
    user.held.clear();
    user.to_device = user.from_device = 0;
    user.answered = 0;
    user.began = steady::now();
    user.rate = {};
}

std::string_view exchange_take_body(user_link& user, std::string_view bytes) {
    const size_t size = user.response.switched() ? bytes.size() : user.request.take(bytes);
    if (user.talk) {
        user.talk->user.take(bytes);
    }
    if (user.request.broken()) {
        return {};
    }
    user.input += bytes.substr(size);
    return bytes.substr(0, size);
}

void exchange_take_response(user_link& user, std::string_view bytes) {
    http_response& response = user.response;
    while (!bytes.empty() && !response.over() && !user.stale) {
        const auto [what, size] = response.take(bytes);
        switch (what) {
            case http_response::part::NOTHING: break;
            case http_response::part::HEAD: pass_head(user); break;
            case http_response::part::BODY:
                pass_body(user, bytes.substr(0, response.broken() ? 0 : size));
                break;
            case http_response::part::FOREIGN: pass_foreign(user); break;
        }
        bytes.remove_prefix(size);
    }
    user.too_much = user.too_much || !bytes.empty();
    user.last_moved = steady::now();
}

void exchange_pass_on(user_link& user) {
    if (!user.arrived.empty()) {
        user.send_now(user.arrived);
        user.arrived.clear();
    }
    if (user.response.over() || user.stale || (user.talk && user.talk->over())) {
        user.changed.notify();
    }
}

namespace {

// On a stream that is open. False: nothing has become of it, and it may go once more.
awaitable<bool> run_on_open(const relay& hub, std::shared_ptr<user_link> user, std::string bytes) {
    bytes += exchange_take_body(*user, std::exchange(user->input, {}));
    upload_send(*user, bytes);
    const bool answered = co_await stream_carry(hub, user);
    if (!answered) {
        user->response = http_response(user->head_only, user->may_switch);
        user->reused = user->stale = user->too_much = user->opened = false;
        user->to_device = user->from_device = 0;
    }
    co_return answered;
}

}  // namespace

awaitable<void> exchange_run(const relay& hub, std::shared_ptr<user_link> user,
                             device_heads heads) {
    if (user->repeatable && kept_take(hub.settings, user)) {
        const bool answered = co_await run_on_open(hub, user, heads.own);
        if (answered) {
            co_return;
        }
    } else if (!user->repeatable) {
        // It brings a local connection with it. A service that takes only one serves it at once.
        kept_give_way(*user->owner, user->port);
    }
    if (opening_wanted(hub.settings, *user, heads)) {
        const swallowed asked = co_await opening_run(hub, user, heads.ask);
        const bool open = asked == swallowed::GOES_ON;
        const bool answered = open && co_await run_on_open(hub, user, heads.own);
        if (answered || asked == swallowed::ANSWERED_INSTEAD) {
            co_return;
        }
    }
    if (heads.opening.empty()) {
        user->reply(heads.refusal);
        co_return;
    }
    co_await stream_open(hub, user, std::move(heads.opening));
    co_await stream_carry(hub, user);
}

void user_link::reply(std::string_view whole) {
    input.erase(0, request.take(input));
    keeps = persistent && request.complete();
    std::string said(whole);
    answered = closed ? 0 : number_parse<int>(whole.substr(whole.find(' ') + 1, 3)).value_or(0);
    said.insert(said.find('\n') + 1, connection_line(*this));
    send(std::string_view(said).substr(0, head_only ? http_head_length(said) : said.size()));
}
